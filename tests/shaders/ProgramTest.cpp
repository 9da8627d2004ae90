// What a Program tells about itself: configurations, macros, blend and depth
// states, and what PostCompiled finds out about instancing.

#include <cstring>

#include <gtest/gtest.h>

#include "graphics/RenderStates.h"
#include "graphics/Renderer.h"
#include "graphics/StateDesc.h"
#include "shaders/PGCode.h"
#include "shaders/Program.h"
#include "support/NullEngine.h"

using namespace KovexEngine;

namespace {

struct Configs
{
    Ptr<PGFramework> fw{new PGFramework()};
    Ptr<PGAttribute> ab{new PGAttribute()};
    Ptr<PGMaterial> mt{new PGMaterial()};
    PGConfFW* fwConf = fw->CreateConfig(u"DEFAULT");
    PGConfAB* abConf = ab->CreateConfig(u"DEFAULT");
    PGConfMT* mtConf = mt->CreateConfig(u"DEFAULT");
};

std::string MacroList(const ShaderMacro* macros, unsigned count)
{
    std::string out;
    for (unsigned i = 0; i < count; ++i)
        out += std::string(macros[i].Name) + "=" + (macros[i].Definition ? macros[i].Definition : "") + ";";
    return out;
}

} // namespace

TEST(Program, ConfigurationsAndMacrosInFrameworkAttributeMaterialOrder)
{
    Configs c;
    c.fwConf->SetMacro("FW_B", "2");
    c.fwConf->SetMacro("FW_A", "1");
    c.abConf->SetMacro("AB", "");
    c.mtConf->SetBlendMode(BlendMode::Mask);
    Ptr<Program> program(new Program(c.fwConf, c.abConf, c.mtConf));

    const PGCodeConf* configs[3] = {};
    unsigned count = 0;
    program->GetConfigs(configs, count);
    ASSERT_EQ(count, 3u);
    EXPECT_EQ(configs[0], c.fwConf);
    EXPECT_EQ(configs[1], c.abConf);
    EXPECT_EQ(configs[2], c.mtConf);

    unsigned needed = 0;
    program->GetMacros(nullptr, &needed);
    EXPECT_EQ(needed, program->GetNumMacros());
    ASSERT_EQ(needed, 5u); // two, one, and the material's blend and scheme macros
    ShaderMacro macros[8];
    std::memset(static_cast<void*>(macros), 0xAB, sizeof(macros));
    unsigned room = 8;
    program->GetMacros(macros, &room);
    EXPECT_EQ(room, 5u);
    EXPECT_EQ(MacroList(macros, room), "FW_A=1;FW_B=2;AB=;MTL_BLEND_MASK=1;TESSELLATION_SCHEME=0;");
    EXPECT_EQ(macros[5].Name, nullptr);
    EXPECT_EQ(macros[5].Definition, nullptr);

    // Too little room: what fits, and still the null pair.
    room = 3;
    program->GetMacros(macros, &room);
    EXPECT_EQ(room, 2u);
    EXPECT_EQ(macros[2].Name, nullptr);

    // The macro string the compiler's cache key is made of.
    AString text;
    program->GetMacroString(text);
    EXPECT_NE(text.IndexOf("#define FW_A\t1\n"), kNotFound);
    EXPECT_LT(text.IndexOf("FW_B"), text.IndexOf("MTL_BLEND_MASK"));

    // Without attribute and material only the framework's.
    Ptr<Program> bare(new Program(c.fwConf, nullptr, nullptr));
    bare->GetConfigs(configs, count);
    EXPECT_EQ(count, 1u);
    room = 8;
    bare->GetMacros(macros, &room);
    EXPECT_EQ(MacroList(macros, room), "FW_A=1;FW_B=2;");
}

TEST(Program, ComputeProgramsAddUseCs)
{
    Configs c;
    c.fwConf->SetMacro("GROUP", "64");
    Ptr<ComputeProgram> program(new ComputeProgram(c.fwConf));
    EXPECT_TRUE(program->IsCompute());
    ShaderMacro macros[4];
    unsigned room = 4;
    program->GetMacros(macros, &room);
    EXPECT_EQ(MacroList(macros, room), "GROUP=64;USE_CS=1;");
    EXPECT_EQ(macros[2].Name, nullptr);
}

TEST(Program, BlendAndTranslucentDepthStatesFollowTheMaterial)
{
    KovexTest::NullEngine engine;
    Configs c;
    DepthStencilStateFactory* depth = DepthStencilStateFactory::Get();
    BlendStateFactory* blend = BlendStateFactory::Get();
    ASSERT_TRUE(depth && blend);

    Ptr<Program> noMaterial(new Program(c.fwConf, c.abConf, nullptr));
    EXPECT_FALSE(noMaterial->GetBlendState());
    EXPECT_FALSE(noMaterial->GetTranslucentDepthState());

    Ptr<Program> program(new Program(c.fwConf, c.abConf, c.mtConf));
    c.mtConf->SetTranslucentDepthMode(TranslucentDepthMode::NoTest);
    for (BlendMode mode : {BlendMode::Opaque, BlendMode::Mask})
    {
        c.mtConf->SetBlendMode(mode);
        EXPECT_FALSE(program->GetBlendState());
        EXPECT_FALSE(program->GetTranslucentDepthState());
    }
    c.mtConf->SetBlendMode(BlendMode::ModulateMask);
    c.mtConf->SetBlendAlphaMode(BlendAlphaMode::Min);
    EXPECT_EQ(program->GetBlendState().Get(), blend->GetModulateMinState().Get());
    EXPECT_EQ(program->GetTranslucentDepthState().Get(), depth->GetDepthDisableState().Get());
    c.mtConf->SetTranslucentDepthMode(TranslucentDepthMode::WriteAndTest);
    EXPECT_EQ(program->GetTranslucentDepthState().Get(), depth->GetDepthWriteState().Get());
    c.mtConf->SetTranslucentDepthMode(TranslucentDepthMode::TestOnly);
    EXPECT_EQ(program->GetTranslucentDepthState().Get(), depth->GetDepthTestState().Get());
    c.mtConf->SetTranslucentDepthMode(TranslucentDepthMode::TwoPassTest);
    EXPECT_EQ(program->GetTranslucentDepthState().Get(), depth->GetDepthTestState().Get());
    EXPECT_NE(depth->GetDepthTestState().Get(), depth->GetDepthWriteState().Get());
}

namespace {

// Auto-update constants for the instancing test: "WorldMatrix" and
// "InstanceColor" per instance, "Time" per frame.
bool TestResolver(const WString& name, ShaderConstant::AutoUpdateId& id, uint32& kind)
{
    if (name == u"WorldMatrix" || name == u"InstanceColor" || name == u"Time")
    {
        id.Value = 0;
        id.Parts.Group = name == u"Time" ? 5 : 1;
        id.Parts.Constant = name == u"InstanceColor" ? 1 : 0;
        kind = name == u"Time" ? 0 : Program::kInstanceUpdateKind;
        return true;
    }
    return false;
}

struct ResolverScope
{
    ShaderConstant::AutoUpdateResolver previous = ShaderConstant::GetAutoUpdateResolver();
    ResolverScope() { ShaderConstant::SetAutoUpdateResolver(&TestResolver); }
    ~ResolverScope() { ShaderConstant::SetAutoUpdateResolver(previous); }
};

} // namespace

TEST(Program, PostCompiledFindsInstancing)
{
    KovexTest::NullEngine engine;
    ResolverScope resolver;
    HWCapability* capability = g_ptrRenderer->GetHWCapability().Get();
    ASSERT_NE(capability, nullptr);
    const bool supported = capability->SupportInstanceRendering;

    Ptr<PGAttribute> attribute(new PGAttribute(u"", u"", "#ifdef USE_INSTANCE_RENDERING\n#endif\n"));
    EXPECT_TRUE(attribute->IsInstancingAllowed());
    PGConfAB* instanced = attribute->CreateConfig(u"DEFAULT[INSTANCE_RENDERING]");
    PGConfAB* plain = attribute->CreateConfig(u"DEFAULT");
    Configs c;

    auto build = [&](const PGConfAB* ab, bool withInstanceConstants) {
        Ptr<Program> program(new Program(c.fwConf, ab, c.mtConf));
        program->NewConstant(TSharedString<WString>(u"WorldMatrix"));
        program->NewConstant(TSharedString<WString>(u"Time"));
        if (withInstanceConstants)
            program->NewConstant(TSharedString<WString>(u"InstanceColor"));
        program->PostCompiled();
        return program;
    };

    capability->SupportInstanceRendering = true;
    Ptr<Program> program = build(instanced, true);
    EXPECT_TRUE(program->IsInstancing());
    EXPECT_TRUE(program->HasInstanceConstants());
    ASSERT_NE(program->GetInstanceConstant(), nullptr);
    EXPECT_EQ(program->GetInstanceConstant(), program->FindConstant(u"WorldMatrix"));

    // The name decides, not the macros.
    EXPECT_FALSE(build(plain, true)->IsInstancing());
    // An attribute whose text knows nothing of instancing.
    Ptr<PGAttribute> rigid(new PGAttribute(u"", u"", "struct VSInput {};"));
    EXPECT_FALSE(rigid->IsInstancingAllowed());
    EXPECT_FALSE(build(rigid->CreateConfig(u"DEFAULT[INSTANCE_RENDERING]"), true)->IsInstancing());
    // Without the capability.
    capability->SupportInstanceRendering = false;
    EXPECT_FALSE(build(instanced, true)->IsInstancing());
    capability->SupportInstanceRendering = supported;

    // A "WorldMatrix" that is no auto-update constant is not kept.
    ShaderConstant::SetAutoUpdateResolver(nullptr);
    Ptr<Program> unresolved = build(instanced, false);
    EXPECT_EQ(unresolved->GetInstanceConstant(), nullptr);
    EXPECT_FALSE(unresolved->HasInstanceConstants());
}
