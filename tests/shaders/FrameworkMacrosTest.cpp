// The frameworks honour their macros: each macro a framework documents
// builds, and the program binds exactly the textures and buffers that the
// configuration names (a texture missing from the program is never bound; one
// bound where the configuration gives none reads nothing).

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "kernel/StringConv.h"
#include "shaders/PGCode.h"
#include "shaders/Program.h"
#include "shaders/ProgramManager.h"
#include "support/LogCapture.h"
#include "support/NullEngine.h"
#include "ShaderTestSupport.h"

using namespace KovexEngine;

namespace {

using Macros = std::vector<std::pair<const char*, const char*>>;

WString LibraryPath(const std::string& name)
{
    return StringConvFuncs::ToWString((std::string(KOVEX_SOURCE_DATA) + "/shaders/" + name).c_str());
}

struct Library
{
    bool mounted = KovexTest::MountCoreData();
    Ptr<PGAttribute> ab = ProgramManager::Ins()->LoadAttribute(LibraryPath("Attribute_Base.ksl"));
    Ptr<PGMaterial> mt = ProgramManager::Ins()->LoadMaterial(LibraryPath("Material_Triangle.ksl"));
    std::vector<Ptr<PGFramework>> frameworks;
    unsigned next = 0;

    // A configuration of `file` with the macros; a fresh name each call.
    PGConfFW* Config(const std::string& file, const Macros& macros)
    {
        Ptr<PGFramework> fw = ProgramManager::Ins()->LoadFramework(LibraryPath(file));
        if (!fw)
            return nullptr;
        frameworks.push_back(fw);
        const std::string name = "T" + std::to_string(next++);
        PGConfFW* conf = fw->CreateConfig(StringConvFuncs::ToWString(name.c_str()));
        for (const auto& macro : macros)
            conf->SetMacro(macro.first, macro.second);
        return conf;
    }
    // A geometry framework takes the base attribute and the triangle
    // material; a full-screen one neither.
    Program* Build(const std::string& file, const Macros& macros, bool geometry)
    {
        PGConfFW* conf = Config(file, macros);
        if (!conf)
            return nullptr;
        Program* program = geometry ? conf->GetProgram(ab->GetCurConf(), mt->GetCurConf()) : conf->GetProgram(nullptr, nullptr);
        return program && !program->IsFailed() ? program : nullptr;
    }
};

std::string Describe(const std::string& file, const Macros& macros)
{
    std::string text = file;
    for (const auto& macro : macros)
        text += std::string(" ") + macro.first + "=" + macro.second;
    return text;
}

} // namespace

// Macros of the frameworks' own (beyond the configurations the engine
// makes): each builds, and the textures follow the macro.
TEST(FrameworkMacros, EachDocumentedMacroBuildsAndBindsWhatItNames)
{
    KovexTest::NullEngine engine;
    Library library;
    ASSERT_TRUE(library.mounted && library.ab && library.mt);
    const struct
    {
        const char* file;
        Macros macros;
        bool geometry;
        std::vector<const char*> present, absent;
    } cases[] = {
        {"RenderAmbient.ksl", {}, true, {}, {"LightBufferTexture"}},
        {"RenderAmbient.ksl", {{"USE_LIGHT_BUFFER", "1"}}, true, {"LightBufferTexture"}, {}},
        {"RenderAmbient.ksl", {{"USE_TILE_BASED_LIGHTING", "1"}, {"TILE_RES", "16"}}, true, {}, {}},
        {"ShadowDepth_OmniLight.ksl", {}, true, {}, {"BackFaceDepthTexture"}},
        {"ShadowDepth_OmniLight.ksl", {{"USE_BACKFACE_DEPTH", "1"}}, true, {"BackFaceDepthTexture"}, {}},
        {"ShadowDepth_OmniLight.ksl", {{"USE_DEPTH_TEXTURE", "1"}}, true, {}, {"BackFaceDepthTexture"}},
        {"RenderDepth.ksl", {{"DRAW_DEPTH_NORMAL", "1"}}, true, {}, {}},
        {"FXAA.ksl", {{"USE_ALPHA_AS_LUM", "1"}}, false, {"SourceTexture"}, {}},
        {"SSAO_Blend.ksl", {}, false, {"SourceTexture", "AOTexture"}, {}},
        {"SSAO_Blend.ksl", {{"SHOW_AO_BUFFER", "1"}}, false, {"AOTexture"}, {"SourceTexture"}},
        {"TileBased_CalcDepthBounds.ksl", {{"FIRST_PASS", "1"}, {"TILE_RES", "16"}}, false, {"SourceTexture"}, {}},
        {"DrawScreen.ksl", {{"TEXARRAY_TO_MRT", "4"}}, false, {"SourceTextureArray"}, {"SourceTexture"}},
    };
    KovexTest::LogCapture log;
    for (const auto& c : cases)
    {
        const std::string what = Describe(c.file, c.macros);
        Program* program = library.Build(c.file, c.macros, c.geometry);
        ASSERT_NE(program, nullptr) << what;
        for (const char* name : c.present)
            EXPECT_NE(program->FindTexture(StringConvFuncs::ToWString(name)), nullptr) << what << ": " << name;
        for (const char* name : c.absent)
            EXPECT_EQ(program->FindTexture(StringConvFuncs::ToWString(name)), nullptr) << what << ": " << name;
    }
}

// Every light pass of the three light types, deferred and multi-pass, binds
// the shadow map under DRAW_SHADOW only and the rotation texture only for the
// filtered qualities, with or without hardware comparison and light material.
TEST(FrameworkMacros, LightPassesBindTheShadowTexturesTheirConfigurationNames)
{
    KovexTest::NullEngine engine;
    Library library;
    ASSERT_TRUE(library.mounted && library.ab && library.mt);
    const struct
    {
        const char* type;
        const char* name;
    } lights[] = {{"OMNI", "OmniLight"}, {"SPOT", "SpotLight"}, {"DIRECTIONAL", "DirectionalLight"}};
    for (const auto& light : lights)
        for (const char* pass : {"Deferred_", "MultiPass_"})
            for (int quality = -1; quality <= 2; ++quality)
            {
                const std::string declaration = std::string(light.type) + "_LIGHT_DECLARATION";
                const std::string fragment = std::string(light.type) + "_LIGHT_FRAGMENT";
                const std::string level = std::to_string(quality);
                Macros macros = {{declaration.c_str(), "1"}, {fragment.c_str(), "1"}};
                if (quality >= 0)
                {
                    macros.push_back({"DRAW_SHADOW", "1"});
                    macros.push_back({"SHADOW_FILTER_QUALITY", level.c_str()});
                }
                // The hardware-comparison and light-material variants on alternate qualities.
                if (quality % 2 == 0)
                    macros.push_back({"USE_HWPCF", "1"});
                if (quality == 1)
                    macros.push_back({"LIGHT_MATERIAL", "1"});
                const std::string file = std::string(pass) + light.name + ".ksl";
                const std::string what = Describe(file, macros);
                Program* program = library.Build(file, macros, true);
                ASSERT_NE(program, nullptr) << what;
                EXPECT_EQ(program->FindTexture(u"ShadowDepthTexture") != nullptr, quality >= 0) << what;
                EXPECT_EQ(program->FindSampler(u"ShadowDepthTexture") != nullptr, quality >= 0) << what;
                EXPECT_EQ(program->FindTexture(u"RotRandomTexture") != nullptr, quality >= 1) << what;
                EXPECT_NE(program->FindConstant(u"LightColorIntensity"), nullptr) << what;
            }
}

// The compute passes (tile-based lighting, the compute blur) build, and
// reflect the buffers and constants their phases bind by name.
TEST(FrameworkMacros, ComputePassesReflectTheirBuffers)
{
    KovexTest::NullEngine engine;
    Library library;
    ASSERT_TRUE(library.mounted);
    const struct
    {
        const char* file;
        std::vector<const char*> buffers;
        const char16_t* constant;
    } passes[] = {
        {"TileBased_Clear.ksl", {"OmniLights_PerTileCountRW"}, u"TileBased_NumLights"},
        {"TileBased_Cull.ksl",
         {"OmniLights_PosRadius", "OmniLights_PerTileCountRW", "OmniLights_PerTileOffsetRW",
          "OmniLights_PerTileIndicesRW"},
         u"TileBased_NumLights"},
        {"Blur.ksl", {"OutputTex"}, u"BlurDir"},
    };
    for (const auto& pass : passes)
    {
        PGConfFW* conf = library.Config(pass.file, {{"TILE_RES", "16"}});
        ASSERT_NE(conf, nullptr) << pass.file;
        ComputeProgram* program = conf->GetComputeProgram();
        ASSERT_NE(program, nullptr) << pass.file;
        ASSERT_FALSE(program->IsFailed()) << pass.file;
        for (const char* name : pass.buffers)
            EXPECT_NE(program->FindBuffer(StringConvFuncs::ToWString(name)), nullptr) << pass.file << ": " << name;
        EXPECT_NE(program->FindConstant(pass.constant), nullptr) << pass.file;
    }
}
