// The built-in program generator codes: what the engine's start loads, the
// configuration names the render phases ask for, the light-pass table, and
// what happens when a file is missing.

#include <cmath>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "graphics/GraphicsFormat.h"
#include "graphics/HWCapability.h"
#include "graphics/Renderer.h"
#include "images/Image.h"
#include "io/StreamManager.h"
#include "kernel/EngineGlobals.h"
#include "kernel/StringConv.h"
#include "lifecycle/Engine.h"
#include "shaders/PGCode.h"
#include "shaders/PGResources.h"
#include "shaders/Program.h"
#include "shaders/ProgramCompiler.h"
#include "shaders/ShaderTestSupport.h"
#include "shaders/SpirvCompiler.h"
#include "support/LogCapture.h"
#include "support/NullEngine.h"
#include "support/TempDir.h"

using namespace KovexEngine;
namespace fs = std::filesystem;

namespace {

using Macros = std::map<std::string, std::string>;
using R = PGResources;

std::string A(const WString& text) { return StringConvFuncs::ToAString(text()).c_str(); }

Macros MacrosOf(const PGCodeConf* conf)
{
    Macros out;
    for (const auto& pair : conf->GetMacros())
        out[pair.key.c_str()] = pair.value.c_str();
    return out;
}

std::set<std::string> ConfigNames(const PGCode* code)
{
    std::set<std::string> out;
    for (const auto& pair : code->GetConfigMap())
        out.insert(A(pair.key));
    return out;
}

std::string CurrentName(const PGCode* code) { return code->GetCurConf() ? A(*code->GetCurConf()->GetName()) : ""; }

// A data root whose shader files are empty stand-ins (the configurations
// are the engine's; the texts do not matter to them). Attribute_Base names
// the instancing macro, as the real one does, so that it may instance.
struct StubData
{
    KovexTest::TempDir dir;
    explicit StubData(bool withWireframe = false)
    {
        for (unsigned i = 0; i < R::GetNumCodes(); ++i)
        {
            std::string file = StringConvFuncs::ToAString(R::GetCodeFile(i)).c_str();
            if (file == "Wireframe.ksl" && !withWireframe)
                continue;
            dir.Write("shaders/" + file, file == "Attribute_Base.ksl" ? "// USE_INSTANCE_RENDERING\n" : "// stand-in\n");
        }
    }
    WString Root() const { return dir.W(""); }
};

// The engine on the null renderer, its data root set, the built-in codes
// loaded by the start-up load.
struct EngineWith
{
    KovexTest::NullEngine engine;
    bool loaded = false;
    explicit EngineWith(const WString& root, bool hwpcf = false)
    {
        if (g_ptrRenderer)
        {
            g_ptrRenderer->GetHWCapability()->SupportHWPCF = hwpcf;
            g_ptrRenderer->GetHWCapability()->UpdateMacros();
        }
        loaded = Kovex_Main_LoadRequiredData(root());
    }
};

const char* const kLightPassNames[R::kNumLightPassConfs] = {
    "DEFAULT",
    "DEFAULT[SQ_LOW]",
    "DEFAULT[SQ_MEDIUM]",
    "DEFAULT[SQ_HIGH]",
    "DEFAULT[SQ_LOW][HWPCF]",
    "DEFAULT[SQ_MEDIUM][HWPCF]",
    "DEFAULT[SQ_HIGH][HWPCF]",
};

std::set<std::string> Names(std::initializer_list<const char*> names) { return std::set<std::string>(names.begin(), names.end()); }

std::set<std::string> Counted(const char* format, int first, int last)
{
    std::set<std::string> out;
    for (int i = first; i <= last; ++i)
    {
        char buffer[64];
        std::snprintf(buffer, sizeof buffer, format, i);
        out.insert(buffer);
    }
    return out;
}

std::set<std::string> LightPassNames()
{
    std::set<std::string> out;
    for (const char* name : kLightPassNames)
    {
        out.insert(name);
        out.insert(std::string(name) + "[LIGHT_MATERIAL]");
    }
    return out;
}

} // namespace

// --- The table ----------------------------------------------------------------------------

TEST(PGResources, StartUpLoadsEveryCodeOfTheTableAndTheWireframeOnDemand)
{
    StubData data;
    EngineWith engine(data.Root());
    EXPECT_TRUE(engine.loaded);
    ASSERT_TRUE(R::IsLoaded()) << "Kovex_Main_LoadRequiredData initialises the built-in codes";
    for (unsigned i = 0; i < R::GetNumCodes(); ++i)
    {
        const std::string name = R::GetCodeName(i);
        PGCode* code = R::GetCode(i);
        if (name == "FW_Wireframe")
        {
            EXPECT_EQ(code, nullptr) << "loaded on demand only";
            continue;
        }
        ASSERT_NE(code, nullptr) << name;
        const PGCode::TYPE expected = name.rfind("MT_", 0) == 0   ? PGCode::Material
                                      : name.rfind("AB_", 0) == 0 ? PGCode::Attribute
                                                                  : PGCode::Framework;
        EXPECT_EQ(code->Type(), expected) << name;
        EXPECT_TRUE(A(code->GetPath()).ends_with("/shaders/" + std::string(StringConvFuncs::ToAString(R::GetCodeFile(i)).c_str())))
            << name << " " << A(code->GetPath());
        EXPECT_TRUE(A(code->GetPath()).rfind(data.dir.path, 0) == 0) << "\"[core]\" is the data root: " << A(code->GetPath());
    }
    EXPECT_EQ(R::GetCode(R::GetNumCodes()), nullptr);
    EXPECT_EQ(R::GetCodeName(R::GetNumCodes()), nullptr);
    // Both sky-light passes are one file and so one code.
    EXPECT_EQ(R::FW_SkyLightDeferred, R::FW_SkyLightMultiPass);

    // Wireframe.ksl is missing here: logged, null, and asked again later.
    {
        KovexTest::LogCapture log;
        EXPECT_EQ(R::LoadWireframeFW(), nullptr);
        EXPECT_TRUE(log->Contains(u"Load [core]shaders/Wireframe.ksl Failed.\n"));
    }
    data.dir.Write("shaders/Wireframe.ksl", "// stand-in\n");
    PGFramework* wire = R::LoadWireframeFW();
    ASSERT_NE(wire, nullptr);
    EXPECT_EQ(R::FW_Wireframe.Get(), wire);
    EXPECT_EQ(R::LoadWireframeFW(), wire) << "loaded once";
    EXPECT_EQ(ConfigNames(wire), Names({"DEFAULT", "SOLID_WIRE"}));
    EXPECT_EQ(CurrentName(wire), "DEFAULT");
    EXPECT_EQ(MacrosOf(wire->GetConfig(u"SOLID_WIRE")), (Macros{{"USE_SOLD_WIRE", "1"}}));
    EXPECT_TRUE(MacrosOf(wire->GetConfig(u"DEFAULT")).empty());

    R::Destroy();
    EXPECT_FALSE(R::IsLoaded());
    for (unsigned i = 0; i < R::GetNumCodes(); ++i)
        EXPECT_EQ(R::GetCode(i), nullptr) << R::GetCodeName(i);
}

TEST(PGResources, ConfigurationNamesAndMacrosAreTheAgreedOnes)
{
    StubData data;
    EngineWith engine(data.Root());
    ASSERT_TRUE(engine.loaded);

    struct Expected
    {
        const char* name;
        PGCode* code;
        std::set<std::string> configs;
        const char* current;
    };
    const std::set<std::string> texCoords = Counted("NUM_TEXCOORDS[%d]", 0, 4);
    const std::set<std::string> defaultOnly = Names({"DEFAULT"});
    const std::set<std::string> screen = [] {
        std::set<std::string> s = Names({"DEFAULT", "DRAW_DEPTH", "DRAW_NORMAL", "DRAW_SPECULARPOWER", "DRAW_AMBIENT"});
        s.merge(Counted("TEXARRAY_%d", 0, 3));
        s.merge(Counted("TEXARRAY_TO_MRT_%d", 1, 4));
        return s;
    }();
    const Expected table[] = {
        {"MT_Triangle", R::MT_Triangle.Get(), defaultOnly, "DEFAULT"},
        {"MT_Font", R::MT_Font.Get(), defaultOnly, "DEFAULT"},
        {"MT_LightVolume", R::MT_LightVolume.Get(), defaultOnly, "DEFAULT"},
        {"AB_Base", R::AB_Base.Get(), Names({"DEFAULT", "DEFAULT[INSTANCE_RENDERING]"}), "DEFAULT"},
        {"AB_Skinned", R::AB_Skinned.Get(), Names({"DEFAULT", "DEFAULT[SKIN_COARSE]"}), "DEFAULT"},
        {"AB_Tri2D", R::AB_Tri2D.Get(), texCoords, "NUM_TEXCOORDS[1]"},
        {"AB_Tri3d", R::AB_Tri3d.Get(), texCoords, "NUM_TEXCOORDS[1]"},
        {"AB_Tri3dBillboard", R::AB_Tri3dBillboard.Get(), texCoords, "NUM_TEXCOORDS[1]"},
        {"AB_Quad", R::AB_Quad.Get(), texCoords, "NUM_TEXCOORDS[1]"},
        {"AB_Line2d", R::AB_Line2d.Get(), defaultOnly, "DEFAULT"},
        {"AB_Font", R::AB_Font.Get(), defaultOnly, "DEFAULT"},
        {"AB_ParticleSprite", R::AB_ParticleSprite.Get(),
         Names({"DEFAULT", "DEFAULT[TILED]", "DEFAULT[TILED_BLEND]", "DEFAULT[ALIGN_VELOCITY]",
                "DEFAULT[ALIGN_VELOCITY][TILED]", "DEFAULT[ALIGN_VELOCITY][TILED_BLEND]"}),
         "DEFAULT"},
        {"AB_Terrain", R::AB_Terrain.Get(), defaultOnly, "DEFAULT"},
        {"FW_DrawClear", R::FW_DrawClear.Get(), Counted("NUM_RT_%d", 1, 8), "NUM_RT_1"},
        {"FW_DrawScreen", R::FW_DrawScreen.Get(), screen, "DEFAULT"},
        {"FW_DrawScreenModulate", R::FW_DrawScreenModulate.Get(), defaultOnly, "DEFAULT"},
        {"FW_RenderAmbient", R::FW_RenderAmbient.Get(), Names({"DEFAULT", "USE_LIGHT_BUFFER", "USE_TILE_BASED_LIGHTING"}),
         "DEFAULT"},
        {"FW_OmniLightShadowDepth", R::FW_OmniLightShadowDepth.Get(), Names({"DEFAULT", "BACKFACE_DEPTH"}), "DEFAULT"},
        {"FW_SpotLightShadowDepth", R::FW_SpotLightShadowDepth.Get(), defaultOnly, "DEFAULT"},
        {"FW_OmniLightDeferred", R::FW_OmniLightDeferred.Get(), LightPassNames(), "DEFAULT"},
        {"FW_SpotLightMultiPass", R::FW_SpotLightMultiPass.Get(), LightPassNames(), "DEFAULT"},
        {"FW_DirectionalLightDeferred", R::FW_DirectionalLightDeferred.Get(), LightPassNames(), "DEFAULT"},
        {"FW_PixelPicking", R::FW_PixelPicking.Get(), defaultOnly, "DEFAULT"},
    };
    for (const Expected& e : table)
    {
        ASSERT_NE(e.code, nullptr) << e.name;
        EXPECT_EQ(ConfigNames(e.code), e.configs) << e.name;
        EXPECT_EQ(CurrentName(e.code), e.current) << e.name;
    }

    // Macros and descriptions, configuration by configuration.
    EXPECT_EQ(MacrosOf(R::AB_Base->GetConfig(u"DEFAULT[INSTANCE_RENDERING]")), (Macros{{"USE_INSTANCE_RENDERING", "1"}}));
    EXPECT_TRUE(MacrosOf(R::AB_Base->GetConfig(u"DEFAULT")).empty());
    EXPECT_EQ(MacrosOf(R::AB_Skinned->GetConfig(u"DEFAULT")), (Macros{{"SKIN_MODE", "0"}}));
    EXPECT_EQ(MacrosOf(R::AB_Skinned->GetConfig(u"DEFAULT[SKIN_COARSE]")), (Macros{{"SKIN_MODE", "1"}}));
    for (int n = 0; n <= 4; ++n)
    {
        WString name;
        name.Format(u"NUM_TEXCOORDS[%d]", n);
        EXPECT_EQ(MacrosOf(R::AB_Quad->GetConfig(name)), (Macros{{"NUM_TEXCOORDS", std::to_string(n)}})) << n;
    }
    const PGTextureDesc* font = R::AB_Font->GetCurConf()->GetTextureDesc(u"FontTexture");
    ASSERT_NE(font, nullptr);
    EXPECT_TRUE(font->ConfigTexture);
    EXPECT_TRUE(font->Path.IsEmpty());
    EXPECT_EQ(MacrosOf(R::AB_ParticleSprite->GetConfig(u"DEFAULT")), (Macros{{"NUM_TEXCOORDS", "1"}}));
    EXPECT_EQ(MacrosOf(R::AB_ParticleSprite->GetConfig(u"DEFAULT[TILED_BLEND]")),
              (Macros{{"NUM_TEXCOORDS", "4"}, {"SPRITE_TILED_TEXTURE_BLEND", "1"}}));
    EXPECT_EQ(MacrosOf(R::AB_ParticleSprite->GetConfig(u"DEFAULT[ALIGN_VELOCITY][TILED]")),
              (Macros{{"NUM_TEXCOORDS", "3"}, {"SPRITE_ALIGN_VELOCITY", "1"}, {"SPRITE_TILED_TEXTURE", "1"}}));
    EXPECT_EQ(MacrosOf(R::AB_ParticleSprite->GetConfig(u"DEFAULT[ALIGN_VELOCITY]")),
              (Macros{{"NUM_TEXCOORDS", "1"}, {"SPRITE_ALIGN_VELOCITY", "1"}}));

    for (int n = 1; n <= 8; ++n)
    {
        WString name;
        name.Format(u"NUM_RT_%d", n);
        Macros expected{{"NUM_RT", std::to_string(n)}};
        for (int t = 0; t < n; ++t)
            expected["CLEAR_RT_" + std::to_string(t)] = "1";
        EXPECT_EQ(MacrosOf(R::FW_DrawClear->GetConfig(name)), expected) << n;
    }
    EXPECT_TRUE(MacrosOf(R::FW_DrawScreen->GetConfig(u"DEFAULT")).empty());
    EXPECT_EQ(MacrosOf(R::FW_DrawScreen->GetConfig(u"DRAW_SPECULARPOWER")), (Macros{{"DRAW_SPECULARPOWER", "1"}}));
    EXPECT_EQ(MacrosOf(R::FW_DrawScreen->GetConfig(u"TEXARRAY_2")), (Macros{{"TEXARRAY_SLICE", "2"}, {"USE_TEXARRAY", "1"}}));
    EXPECT_EQ(MacrosOf(R::FW_DrawScreen->GetConfig(u"TEXARRAY_TO_MRT_3")), (Macros{{"TEXARRAY_TO_MRT", "3"}}));
    const PGTextureDesc* modulate = R::FW_DrawScreenModulate->GetCurConf()->GetTextureDesc(u"ModulateTexture");
    ASSERT_NE(modulate, nullptr);
    EXPECT_TRUE(modulate->ConfigTexture);
    EXPECT_EQ(MacrosOf(R::FW_RenderAmbient->GetConfig(u"USE_TILE_BASED_LIGHTING")), (Macros{{"USE_TILE_BASED_LIGHTING", "1"}}));
    const PGConfFW* backFace = R::FW_OmniLightShadowDepth->GetConfig(u"BACKFACE_DEPTH");
    EXPECT_EQ(MacrosOf(backFace), (Macros{{"USE_BACKFACE_DEPTH", "1"}}));
    EXPECT_NE(backFace->GetTextureDesc(u"BackFaceDepthTexture"), nullptr);
    // Materials keep what their configuration owns: opaque blending.
    EXPECT_EQ(R::MT_Triangle->GetCurConf()->GetBlendMode(), BlendMode::Opaque);

    // Names that were never made.
    EXPECT_EQ(R::FW_DrawClear->GetConfig(u"NUM_RT_9"), nullptr);
    EXPECT_EQ(R::FW_DrawClear->GetConfig(u"DEFAULT"), nullptr) << "counted codes have no DEFAULT";
    EXPECT_EQ(R::AB_Tri2D->GetConfig(u"NUM_TEXCOORDS[5]"), nullptr);
    EXPECT_EQ(R::FW_OmniLightDeferred->GetConfig(u"DEFAULT[SQ_ULTRA]"), nullptr);
    EXPECT_EQ(R::FW_OmniLightDeferred->GetConfig(u""), nullptr);
}

// --- Light passes -------------------------------------------------------------------------

TEST(PGResources, LightPassIndexHasOneSlotPerName)
{
    for (unsigned i = 0; i < R::kNumLightPassConfs; ++i)
        EXPECT_EQ(A(*R::CFG_PL_LIGHT_PASS_SHADOW(i)), kLightPassNames[i]) << i;
    EXPECT_EQ(R::CFG_PL_LIGHT_PASS_SHADOW(1), R::CFG_SQ_LOW()) << "the same shared string";
    EXPECT_EQ(A(*R::CFG_PL_LIGHT_PASS_SHADOW(R::kNumLightPassConfs)), "DEFAULT");
    EXPECT_EQ(R::CFG_PL_LIGHT_PASS_SHADOW(6), R::CFG_SQ_HIGH_HWPCF());
    EXPECT_EQ(A(*R::CFG_INSTANCE_RENDERING()), "DEFAULT[INSTANCE_RENDERING]");
    EXPECT_EQ(A(*R::CFG_SOLID_WIRE()), "SOLID_WIRE");

    // No shadow is slot 0 whatever the quality; a quality beyond the last
    // counts as the last, below the first as the first.
    std::set<unsigned> slots;
    for (int hwpcf = 0; hwpcf < 2; ++hwpcf)
    {
        EXPECT_EQ(R::LightPassConfIndex(false, ShadowFilterQuality::High, hwpcf), 0u);
        EXPECT_EQ(A(*R::GetLightConfName(false, ShadowFilterQuality::Medium, hwpcf)), "DEFAULT");
        for (int q = ShadowFilterQuality::Low; q <= ShadowFilterQuality::High; ++q)
        {
            unsigned slot = R::LightPassConfIndex(true, ShadowFilterQuality(q), hwpcf);
            slots.insert(slot);
            EXPECT_EQ(R::GetLightConfName(true, ShadowFilterQuality(q), hwpcf), R::CFG_PL_LIGHT_PASS_SHADOW(slot));
        }
        EXPECT_EQ(R::LightPassConfIndex(true, ShadowFilterQuality(7), hwpcf),
                  R::LightPassConfIndex(true, ShadowFilterQuality::High, hwpcf));
        EXPECT_EQ(R::LightPassConfIndex(true, ShadowFilterQuality(-1), hwpcf),
                  R::LightPassConfIndex(true, ShadowFilterQuality::Low, hwpcf));
    }
    EXPECT_EQ(slots, (std::set<unsigned>{1, 2, 3, 4, 5, 6})) << "six shadowed names, each its own slot";
    EXPECT_EQ(A(*R::GetLightConfName(true, ShadowFilterQuality::Medium, true)), "DEFAULT[SQ_MEDIUM][HWPCF]");
    EXPECT_EQ(A(*R::GetLightConfName(true, ShadowFilterQuality::Low, false)), "DEFAULT[SQ_LOW]");
}

TEST(PGResources, LightFrameworksCarryEveryLightPassConfiguration)
{
    StubData data;
    EngineWith engine(data.Root(), /*hwpcf=*/true);
    ASSERT_TRUE(engine.loaded);
    const struct
    {
        PGFramework* framework;
        std::string type;
    } lights[] = {{R::FW_OmniLightDeferred.Get(), "OMNI"},     {R::FW_OmniLightMultiPass.Get(), "OMNI"},
                  {R::FW_SpotLightDeferred.Get(), "SPOT"},     {R::FW_SpotLightMultiPass.Get(), "SPOT"},
                  {R::FW_DirectionalLightDeferred.Get(), "DIRECTIONAL"},
                  {R::FW_DirectionalLightMultiPass.Get(), "DIRECTIONAL"}};
    for (const auto& light : lights)
    {
        ASSERT_NE(light.framework, nullptr);
        EXPECT_EQ(ConfigNames(light.framework), LightPassNames());
        for (unsigned slot = 0; slot < R::kNumLightPassConfs; ++slot)
            for (int lightMaterial = 0; lightMaterial < 2; ++lightMaterial)
            {
                std::string name = std::string(kLightPassNames[slot]) + (lightMaterial ? "[LIGHT_MATERIAL]" : "");
                const PGConfFW* conf = light.framework->GetConfig(StringConvFuncs::ToWString(name.c_str()));
                ASSERT_NE(conf, nullptr) << light.type << " " << name;
                Macros expected{{light.type + "_LIGHT_DECLARATION", "1"}, {light.type + "_LIGHT_FRAGMENT", "1"}};
                if (lightMaterial)
                    expected["LIGHT_MATERIAL"] = "1";
                const bool shadow = slot > 0, hwpcf = slot > 3;
                const int quality = shadow ? int(slot - 1) % 3 : -1;
                if (shadow)
                {
                    expected["DRAW_SHADOW"] = "1";
                    expected["SHADOW_FILTER_QUALITY"] = std::to_string(quality);
                }
                if (hwpcf)
                    expected["USE_HWPCF"] = "1";
                EXPECT_EQ(MacrosOf(conf), expected) << light.type << " " << name;

                const PGSamplerDesc* sampler = conf->GetSamplerDesc(u"ShadowDepthTexture");
                const PGTextureDesc* noise = conf->GetTextureDesc(u"RotRandomTexture");
                EXPECT_EQ(conf->GetTextureDesc(u"ShadowDepthTexture") != nullptr, shadow) << name;
                ASSERT_EQ(sampler != nullptr, shadow) << name;
                EXPECT_EQ(noise != nullptr, quality >= ShadowFilterQuality::Medium) << name;
                if (sampler)
                {
                    if (hwpcf)
                    {
                        EXPECT_EQ(sampler->Desc.ComparisonFunc, GraphicsComparison::LessEqual) << name;
                        EXPECT_EQ(sampler->Desc.Filter, GraphicsFilter::MinMagLinearMipPoint) << name;
                    }
                    else
                    {
                        EXPECT_EQ(sampler->Desc.ComparisonFunc, GraphicsComparison::Never) << name;
                        EXPECT_EQ(sampler->Desc.Filter, GraphicsFilter::MinMagMipPoint) << name;
                    }
                    EXPECT_EQ(sampler->Desc.AddressU, GraphicsAddress::Clamp) << name;
                    EXPECT_EQ(sampler->Desc.AddressV, GraphicsAddress::Clamp) << name;
                    EXPECT_EQ(sampler->Desc.MipLODBias, 0.0f) << name;
                }
                if (noise)
                {
                    EXPECT_EQ(A(noise->Path), "[core]textures/rotrandom.dds");
                    const PGSamplerDesc* wrap = conf->GetSamplerDesc(u"RotRandomTexture");
                    ASSERT_NE(wrap, nullptr);
                    EXPECT_EQ(wrap->Desc.AddressU, GraphicsAddress::Wrap);
                    EXPECT_EQ(wrap->Desc.Filter, GraphicsFilter::MinMagMipPoint);
                }
            }
    }
}

TEST(PGResources, ADeviceWithoutComparisonSamplersGetsPointReads)
{
    StubData data;
    EngineWith engine(data.Root(), /*hwpcf=*/false);
    ASSERT_TRUE(engine.loaded);
    const PGConfFW* conf = R::FW_SpotLightDeferred->GetConfig(u"DEFAULT[SQ_HIGH][HWPCF]");
    ASSERT_NE(conf, nullptr);
    AString value;
    EXPECT_FALSE(conf->FindMacro(value, "USE_HWPCF"));
    EXPECT_EQ(conf->GetSamplerDesc(u"ShadowDepthTexture")->Desc.ComparisonFunc, GraphicsComparison::Never);

    // Called again on one configuration, the later call's descriptions replace
    // the earlier's: no noise at low quality, the comparison once allowed.
    PGConfFW* light = R::FW_SpotLightDeferred->GetConfig(u"DEFAULT[SQ_HIGH]");
    g_ptrRenderer->GetHWCapability()->SupportHWPCF = true;
    EXPECT_TRUE(R::InitLightPassConf(light, ShadowFilterQuality::Low, true));
    EXPECT_TRUE(light->FindMacro(value, "SHADOW_FILTER_QUALITY"));
    EXPECT_EQ(std::string(value.c_str()), "0");
    EXPECT_TRUE(light->FindMacro(value, "USE_HWPCF"));
    EXPECT_EQ(light->GetTextureDesc(u"RotRandomTexture"), nullptr);
    EXPECT_EQ(light->GetSamplerDesc(u"ShadowDepthTexture")->Desc.ComparisonFunc, GraphicsComparison::LessEqual);
    EXPECT_FALSE(R::InitLightPassConf(nullptr, ShadowFilterQuality::Low, true));

    // Instancing: only for an attribute whose text honours it.
    EXPECT_EQ(R::InitInstanceConf(nullptr), nullptr);
    EXPECT_EQ(R::InitInstanceConf(R::AB_Terrain.Get()), nullptr);
    EXPECT_EQ(R::InitInstanceConf(R::AB_Base.Get()), R::AB_Base->GetConfig(u"DEFAULT[INSTANCE_RENDERING]"))
        << "a second call answers the configuration already there";
}

// --- Life ------------------------------------------------------------------------------------

TEST(PGResources, SecondInitializeIsANoOpAndDestroyThenInitializeGivesNewCodes)
{
    StubData data;
    EngineWith engine(data.Root());
    ASSERT_TRUE(engine.loaded);
    KovexTest::CountingCompiler compiler;
    PGFramework* first = R::FW_NoLighting.Get();
    PGConfAB* ab = R::AB_Base->GetCurConf();
    PGConfMT* mt = R::MT_Triangle->GetCurConf();
    ASSERT_NE(first->GetCurConf()->GetProgram(ab, mt), nullptr);
    EXPECT_EQ(first->GetNumPrograms(), 1u);

    EXPECT_TRUE(R::Initialize());
    EXPECT_EQ(R::FW_NoLighting.Get(), first) << "nothing reloaded";
    EXPECT_EQ(R::AB_Base->GetCurConf(), ab);
    EXPECT_EQ(first->GetNumPrograms(), 1u) << "nothing dropped";

    R::Destroy();
    EXPECT_EQ(R::FW_NoLighting, nullptr);
    EXPECT_EQ(R::MT_Triangle, nullptr);
    EXPECT_TRUE(R::Initialize());
    ASSERT_NE(R::FW_NoLighting, nullptr);
    EXPECT_EQ(R::FW_NoLighting->GetNumPrograms(), 0u) << "a new code has a new program map";
    const int before = compiler.compiles.load();
    ASSERT_NE(R::FW_NoLighting->GetProgram(R::AB_Base->GetCurConf(), R::MT_Triangle->GetCurConf()), nullptr);
    EXPECT_EQ(compiler.compiles.load(), before + 1) << "compiled again for the new codes";
}

TEST(PGResources, TheRendererLayerEndLetsTheCodesGo)
{
    StubData data;
    {
        EngineWith engine(data.Root());
        ASSERT_TRUE(R::IsLoaded());
    }
    EXPECT_FALSE(R::IsLoaded());
    EXPECT_EQ(R::AB_Base, nullptr);
    EXPECT_EQ(R::FW_DrawClear, nullptr);
}

// "[core]" follows the data root, but a core package the application
// mounted itself stays where it is.
TEST(PGResources, CoreFollowsTheRootUnlessTheApplicationMountedIt)
{
    StubData first, second, own;
    KovexTest::NullEngine engine;
    ASSERT_TRUE(Kovex_Main_LoadRequiredData(first.Root()()));
    EXPECT_TRUE(A(R::AB_Base->GetPath()).rfind(first.dir.path, 0) == 0);
    ASSERT_TRUE(Kovex_Main_LoadRequiredData(second.Root()()));
    EXPECT_EQ(A(StreamManager::Ins()->GetPackagePath(WString(u"core"))), second.dir.path + "/");
    Kovex_Main_Terminate();
    EXPECT_TRUE(StreamManager::Ins()->GetPackagePath(WString(u"core")).IsEmpty()) << "the engine's own alias goes with the root";

    Kovex_Main_Initialize();
    R::Destroy();
    ASSERT_TRUE(StreamManager::Ins()->SetPackagePath(WString(u"core"), own.Root()));
    ASSERT_TRUE(Kovex_Main_LoadRequiredData(first.Root()()));
    ASSERT_NE(R::AB_Base, nullptr);
    EXPECT_TRUE(A(R::AB_Base->GetPath()).rfind(own.dir.path, 0) == 0) << A(R::AB_Base->GetPath());
    Kovex_Main_Terminate();
    EXPECT_EQ(A(StreamManager::Ins()->GetPackagePath(WString(u"core"))), own.dir.path + "/") << "not the engine's to unset";
}

// A copy of the engine's data with one framework removed: that one static is
// null, with the loader's line, and everything else is there.
TEST(PGResources, AMissingFileLeavesItsStaticNullAndTheRestLoad)
{
    KovexTest::TempDir copy;
    fs::copy(std::string(KOVEX_SOURCE_DATA) + "/shaders", copy.path + "/shaders", fs::copy_options::recursive);
    fs::copy(std::string(KOVEX_SOURCE_DATA) + "/textures", copy.path + "/textures", fs::copy_options::recursive);
    ASSERT_TRUE(fs::remove(copy.path + "/shaders/Blur.ksl"));

    KovexTest::NullEngine engine;
    KovexTest::LogCapture log;
    EXPECT_TRUE(Kovex_Main_LoadRequiredData(copy.W("")())) << "a missing shader does not fail the start";
    EXPECT_TRUE(log->Contains(u"Load [core]shaders/Blur.ksl Failed.\n"));
    EXPECT_TRUE(R::IsLoaded());
    EXPECT_EQ(R::FW_Blur, nullptr);
    unsigned failures = 0;
    for (const auto& entry : log->entries)
        failures += entry.text.StartsWith(u"Load ") && entry.text.EndsWith(u"Failed.\n");
    EXPECT_EQ(failures, 1u) << "only the removed file fails";
    for (unsigned i = 0; i < R::GetNumCodes(); ++i)
    {
        const std::string name = R::GetCodeName(i);
        if (name != "FW_Blur" && name != "FW_Wireframe")
            EXPECT_NE(R::GetCode(i), nullptr) << name;
    }
    EXPECT_FALSE(R::Initialize()) << "the second call answers as the first";
    EXPECT_NE(R::LoadWireframeFW(), nullptr);
}

// --- Programs of the built-in codes ------------------------------------------------------

TEST(PGResources, ABuiltInCombinationCompilesOnceAndAFailureIsNotRetried)
{
    KovexTest::NullEngine engine;
    ASSERT_TRUE(Kovex_Main_LoadRequiredData(StringConvFuncs::ToWString((std::string(KOVEX_SOURCE_DATA) + "/").c_str())()));
    ASSERT_TRUE(R::FW_NoLighting && R::AB_Base && R::MT_Triangle);
    SpirvUnit::SetValidateOutput(true);
    ProgramCompiler* compiler = ProgramCompiler::Get();
    ASSERT_NE(compiler, nullptr);

    const uint64 before = compiler->GetCompileCount();
    Program* program = R::FW_NoLighting->GetProgram(R::AB_Base->GetCurConf(), R::MT_Triangle->GetCurConf());
    ASSERT_NE(program, nullptr);
    EXPECT_FALSE(program->IsFailed());
    EXPECT_EQ(R::FW_NoLighting->GetProgram(R::AB_Base->GetCurConf(), R::MT_Triangle->GetCurConf()), program);
    EXPECT_EQ(compiler->GetCompileCount(), before + 1);

    // A macro value that breaks the text: a failed program, kept, and not
    // compiled again when asked again.
    PGConfMT* broken = R::MT_Triangle->CreateConfig(u"BROKEN");
    ASSERT_NE(broken, nullptr);
    broken->SetMacro("GetMaterialColor", "(");
    KovexTest::LogCapture log;
    Program* failed = R::FW_NoLighting->GetProgram(R::AB_Base->GetCurConf(), broken);
    ASSERT_NE(failed, nullptr);
    EXPECT_TRUE(failed->IsFailed());
    EXPECT_TRUE(log->Contains(u"Compile Shader vs_5_0 VS failed !\n"));
    EXPECT_EQ(compiler->GetCompileCount(), before + 2);
    EXPECT_EQ(R::FW_NoLighting->GetProgram(R::AB_Base->GetCurConf(), broken), failed);
    EXPECT_EQ(compiler->GetCompileCount(), before + 2);
}

// --- The rotation noise of the filtered shadows ------------------------------------------

TEST(PGResources, RotationNoiseLoadsAsSmallRGBA8OfUnitVectors)
{
    KovexTest::NullEngine engine;
    ASSERT_TRUE(Kovex_Main_LoadRequiredData(StringConvFuncs::ToWString((std::string(KOVEX_SOURCE_DATA) + "/").c_str())()));
    Ptr<Image> image = Image::LoadImage(WString(u"[core]textures/rotrandom.dds"));
    ASSERT_TRUE(image);
    const TextureDesc& desc = image->GetDesc();
    EXPECT_EQ(desc.Width, 64u);
    EXPECT_EQ(desc.Height, 64u);
    EXPECT_EQ(desc.MipLevels, 1u);
    EXPECT_EQ(desc.Format, uint32(GraphicsFormat::R8G8B8A8_UNORM));
    uint8* data = nullptr;
    uint32 rowPitch = 0, slicePitch = 0;
    ASSERT_TRUE(image->GetSubresourceLayout(0, 0, data, rowPitch, slicePitch));
    ASSERT_NE(data, nullptr);
    // Each pair is a rotation: a unit vector up to the 8-bit packing, and the
    // angles cover the circle (every quadrant, no bias in the mean).
    int quadrants[4] = {0, 0, 0, 0};
    double sumCos = 0, sumSin = 0;
    const int count = int(desc.Width * desc.Height * 2);
    for (uint32 y = 0; y < desc.Height; ++y)
        for (uint32 x = 0; x < desc.Width; ++x)
            for (int pair = 0; pair < 2; ++pair)
            {
                const uint8* p = data + y * rowPitch + x * 4 + pair * 2;
                const double c = p[0] / 255.0 * 2.0 - 1.0, s = p[1] / 255.0 * 2.0 - 1.0;
                ASSERT_NEAR(std::sqrt(c * c + s * s), 1.0, 0.01) << x << "," << y;
                ++quadrants[(c < 0) + 2 * (s < 0)];
                sumCos += c;
                sumSin += s;
            }
    for (int q : quadrants)
        EXPECT_GT(q, count / 8);
    EXPECT_LT(std::fabs(sumCos / count), 0.05);
    EXPECT_LT(std::fabs(sumSin / count), 0.05);
}
