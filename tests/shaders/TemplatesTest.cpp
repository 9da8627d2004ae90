// The engine's own templates: they load as codes, and the program compiler
// builds them under the macros that real configurations give them.

#include <string>

#include <gtest/gtest.h>

#include "graphics/HWCapability.h"
#include "kernel/StringConv.h"
#include "shaders/PGCode.h"
#include "shaders/Program.h"
#include "shaders/ProgramCompiler.h"
#include "shaders/ProgramManager.h"
#include "shaders/ShaderTestSupport.h"
#include "support/LogCapture.h"
#include "support/NullEngine.h"

using namespace KovexEngine;

namespace {

const std::string kTemplates = std::string(KOVEX_SOURCE_DATA) + "/shaders/";

WString TemplatePath(const char* name) { return StringConvFuncs::ToWString((kTemplates + name).c_str()); }

struct Templates
{
    bool mounted = KovexTest::MountCoreData();
    Ptr<PGFramework> fw = ProgramManager::Ins()->LoadFramework(TemplatePath("NoLighting.ksl"));
    Ptr<PGAttribute> ab = ProgramManager::Ins()->LoadAttribute(TemplatePath("Attribute_Base.ksl"));
    Ptr<PGMaterial> mt = ProgramManager::Ins()->LoadMaterial(TemplatePath("Material_Triangle.ksl"));
};


} // namespace

TEST(ShaderTemplates, LoadAsCodes)
{
    Templates t;
    ASSERT_TRUE(t.fw && t.ab && t.mt);
    PGFramework* fw = t.fw.Get();
    PGAttribute* ab = t.ab.Get();
    PGMaterial* mt = t.mt.Get();
    EXPECT_NE(fw->GetCode().IndexOf("#include \"Attribute\""), kNotFound);
    EXPECT_NE(fw->GetCode().IndexOf("#include \"Material\""), kNotFound);
    // The attribute honours instancing, so its programs may instance.
    EXPECT_TRUE(ab->IsInstancingAllowed());
    ASSERT_NE(mt->GetCurConf(), nullptr);
}

TEST(ShaderTemplates, CompileUnderEveryBlendMode)
{
    KovexTest::NullEngine engine;
    Templates t;
    ASSERT_TRUE(t.fw && t.ab && t.mt);
    PGFramework* fw = t.fw.Get();
    PGAttribute* ab = t.ab.Get();
    PGMaterial* mt = t.mt.Get();
    PGConfAB* instanced = ab->CreateConfig(u"DEFAULT[INSTANCE_RENDERING]");
    instanced->SetMacro("USE_INSTANCE_RENDERING", "1");
    KovexTest::LogCapture log;
    for (int mode = BlendMode::Opaque; mode <= BlendMode::Subtractive; ++mode)
    {
        PGConfMT* conf = mt->CreateConfig(BlendMode(mode), TranslucentDepthMode::TestOnly, TwoSideMode::None);
        ASSERT_NE(conf, nullptr);
        conf->SetOpaqueMask(0.5f);
        if (mode % 2)
            conf->SetMacro("USE_DIFFUSE_TEXTURE", "1");
        Program* program = fw->GetCurConf()->GetProgram(mode % 2 ? instanced : ab->GetCurConf(), conf);
        ASSERT_NE(program, nullptr);
        EXPECT_FALSE(program->IsFailed()) << "blend mode " << mode;
        EXPECT_EQ(program->FindTexture(u"DiffuseTexture") != nullptr, mode % 2 == 1) << "blend mode " << mode;
    }
    for (const auto& entry : log->entries)
        EXPECT_LT(entry.level, 3u) << StringConvFuncs::ToAString(entry.text())();
}

// --- ProgramManager::BuildProgram's real path --------------------------------------------

TEST(BuildProgram, TemplatesCompileAndReflectWhatTheyDeclare)
{
    KovexTest::NullEngine engine;
    ASSERT_NE(ProgramCompiler::Get(), nullptr);
    Templates t;
    ASSERT_TRUE(t.fw && t.ab && t.mt);

    Ptr<Program> program =
        ProgramManager::Ins()->BuildProgram(t.fw->GetCurConf(), t.ab->GetCurConf(), t.mt->GetCurConf());
    ASSERT_TRUE(program);
    ASSERT_FALSE(program->IsFailed());
    EXPECT_NE(program->GetShader(ShaderType::Vertex), nullptr);
    EXPECT_NE(program->GetShader(ShaderType::Pixel), nullptr);
    EXPECT_EQ(program->GetShader(ShaderType::Geometry), nullptr);
    ASSERT_NE(program->FindConstant(u"ViewProjMatrix"), nullptr);
    ASSERT_NE(program->FindConstant(u"WorldMatrix"), nullptr);
    const ShaderConstant* color = program->FindConstant(u"DiffuseColor");
    ASSERT_NE(color, nullptr);
    // The initialiser in the text is the constant's default.
    ASSERT_NE(color->GetDefaultValue(), nullptr);
    EXPECT_FLOAT_EQ(color->GetDefaultValue()[3], 1.0f);
    EXPECT_EQ(program->FindTexture(u"DiffuseTexture"), nullptr);
}

TEST(BuildProgram, ConfigurationMacrosReachTheTemplates)
{
    KovexTest::NullEngine engine;
    Templates t;
    ASSERT_TRUE(t.fw && t.ab && t.mt);
    PGConfAB* instanced = t.ab->CreateConfig(u"DEFAULT[INSTANCE_RENDERING]");
    instanced->SetMacro("USE_INSTANCE_RENDERING", "1");
    PGConfMT* textured = t.mt->CreateConfig(BlendMode::Mask, TranslucentDepthMode::TestOnly, TwoSideMode::None);
    textured->SetMacro("USE_DIFFUSE_TEXTURE", "1");
    textured->SetOpaqueMask(0.5f);

    Program* program = t.fw->GetCurConf()->GetProgram(instanced, textured);
    ASSERT_NE(program, nullptr);
    ASSERT_FALSE(program->IsFailed());
    // Instanced: the world matrix comes from the stream, not a constant.
    EXPECT_EQ(program->FindConstant(u"WorldMatrix"), nullptr);
    // The texture and its sampler under one name.
    EXPECT_NE(program->FindTexture(u"DiffuseTexture"), nullptr);
    EXPECT_NE(program->FindSampler(u"DiffuseTexture"), nullptr);
    // Asked again: the same program, not compiled again.
    const uint64 compiles = ProgramCompiler::Get()->GetCompileCount();
    EXPECT_EQ(t.fw->GetCurConf()->GetProgram(instanced, textured), program);
    EXPECT_EQ(ProgramCompiler::Get()->GetCompileCount(), compiles);
}

TEST(BuildProgram, ABrokenMaterialFailsOnceWithTheCompilersLine)
{
    KovexTest::NullEngine engine;
    Templates t;
    ASSERT_TRUE(t.fw && t.ab);
    // The material's functions are those the framework calls; a body names
    // nothing that exists.
    Ptr<PGMaterial> broken(new PGMaterial(u"", u"",
                                          "float3 GetMaterialVertexOffset(MaterialInput input) { return 0; }\n"
                                          "float4 GetMaterialColor(MaterialInput input) { return oops; }\n"));
    PGConfMT* conf = broken->CreateConfig(u"DEFAULT");
    KovexTest::LogCapture log;
    Program* program = t.fw->GetCurConf()->GetProgram(t.ab->GetCurConf(), conf);
    ASSERT_NE(program, nullptr);
    EXPECT_TRUE(program->IsFailed());
    // Each stage parses the whole unit, so the first stage already fails.
    EXPECT_TRUE(log->Contains(u"Compile Shader vs_5_0 VS failed !\n"));
    const uint64 compiles = ProgramCompiler::Get()->GetCompileCount();
    EXPECT_EQ(t.fw->GetCurConf()->GetProgram(t.ab->GetCurConf(), conf), program);
    EXPECT_EQ(ProgramCompiler::Get()->GetCompileCount(), compiles);
}

// A device that cannot instance gets the instanced configuration's program
// with the world matrix constant: the engine then draws one at a time.
TEST(BuildProgram, InstancingFollowsTheDevicesCapability)
{
    KovexTest::NullEngine engine;
    Templates t;
    ASSERT_TRUE(t.fw && t.ab && t.mt);
    HWCapability* capability = Renderer::Get()->GetHWCapability().Get();
    ASSERT_NE(capability, nullptr);
    ASSERT_EQ(capability->GetMacroMap().Find(AString("SUPPORT_INSTANCE_RNEDERING")) != kNotFound,
              capability->SupportInstanceRendering);
    capability->UnmakeMacro(AString("SUPPORT_INSTANCE_RNEDERING"));
    PGConfAB* instanced = t.ab->CreateConfig(u"DEFAULT[INSTANCE_RENDERING]");
    instanced->SetMacro("USE_INSTANCE_RENDERING", "1");
    Program* program = t.fw->GetCurConf()->GetProgram(instanced, t.mt->GetCurConf());
    capability->UpdateMacros();
    ASSERT_NE(program, nullptr);
    ASSERT_FALSE(program->IsFailed());
    EXPECT_NE(program->FindConstant(u"WorldMatrix"), nullptr);
}
