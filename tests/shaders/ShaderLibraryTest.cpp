// The shader library compiled as the engine uses it: every file under
// Data/shaders, each in the configurations named for it, to validated SPIR-V
// with the real compiler. A failure names the combination and carries the
// compiler's lines.
//
// ShaderLibrary.* runs in CI. ShaderProduct.* (every framework with every
// attribute and material configuration) takes minutes and has its own CTest
// entry, label "shader_product", left out of ./build.sh test.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "graphics/GraphicsThread.h"
#include "graphics/HWCapability.h"
#include "graphics/Renderer.h"
#include "kernel/Log.h"
#include "kernel/StringConv.h"
#include "lifecycle/Engine.h"
#include "shaders/PGCode.h"
#include "shaders/PGResources.h"
#include "shaders/Program.h"
#include "shaders/ProgramCompiler.h"
#include "shaders/ProgramManager.h"
#include "shaders/SpirvCompiler.h"
#include "support/NullEngine.h"

using namespace KovexEngine;
namespace fs = std::filesystem;

namespace {

using R = PGResources;

const std::string kLibrary = std::string(KOVEX_SOURCE_DATA) + "/shaders/";

std::string A(const WString& text) { return StringConvFuncs::ToAString(text()).c_str(); }

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// The compiler's lines of the compile running on this thread.
thread_local std::string* t_sink = nullptr;

class ThreadSink : public LogProxy
{
public:
    void Print(unsigned level, const char16_t* text) override
    {
        if (t_sink && level >= LOG_WARNING)
            *t_sink += StringConvFuncs::ToAString(text).c_str();
    }
};

// One program to compile: a framework configuration with an attribute and
// a material configuration (either may be null), or a compute unit.
struct Combination
{
    std::string name;
    const PGConfFW* fw = nullptr;
    const PGConfAB* ab = nullptr;
    const PGConfMT* mt = nullptr;
    bool compute = false;
};

std::string ConfName(const std::string& code, const PGCodeConf* conf)
{
    return conf ? code + ":" + A(*conf->GetName()) : std::string();
}

// A framework draws geometry when its unit, includes of this directory
// followed, includes the attribute; full-screen and compute units do not.
bool DrawsGeometry(const std::string& file, std::set<std::string>& seen)
{
    if (!seen.insert(file).second)
        return false;
    static const std::regex include("^[ \\t]*#[ \\t]*include[ \\t]*\"([^\"]+)\"");
    std::istringstream lines(ReadFile(kLibrary + file));
    for (std::string line; std::getline(lines, line);)
    {
        std::smatch match;
        if (!std::regex_search(line, match, include))
            continue;
        if (match[1] == "Attribute")
            return true;
        if (match[1] != "Material" && DrawsGeometry(match[1], seen))
            return true;
    }
    return false;
}

bool DrawsGeometry(const std::string& file)
{
    std::set<std::string> seen;
    return DrawsGeometry(file, seen);
}

// A compilation unit defines a pixel or a compute entry point; a file with
// neither is an include.
bool Defines(const std::string& text, const char* entry)
{
    return std::regex_search(text, std::regex(std::string("(^|\\n)[ \\t]*[A-Za-z_][A-Za-z0-9_<>, \\t]*[ \\t]") + entry +
                                              "[ \\t]*\\("));
}

std::string FileOf(const PGCode* code)
{
    const std::string path = A(code->GetPath());
    return path.substr(path.find_last_of('/') + 1);
}

// The engine on the null renderer with the built-in codes of the source
// tree's Data, every capability that changes what the templates compile
// switched on, and output validation.
class Library
{
public:
    Library()
    {
        HWCapability& caps = *g_ptrRenderer->GetHWCapability();
        caps.SupportHWPCF = true;
        caps.SupportTexArrayHWPCF = true;
        caps.SupportDepthTextureCube = true;
        caps.SupportDepthTexture2DArray = true;
        caps.UpdateMacros();
        SpirvUnit::SetValidateOutput(true);
        loaded = Kovex_Main_LoadRequiredData(StringConvFuncs::ToWString((std::string(KOVEX_SOURCE_DATA) + "/").c_str())());
        R::LoadWireframeFW();
        Log::AddProxy(sink);
    }
    ~Library()
    {
        Log::RemoveProxy(sink);
        GraphicsThread::Ins()->ProcessMTCommandList();
    }

    // The table's name of a built-in code, else its file name.
    std::string NameOf(const PGCode* code) const
    {
        for (unsigned i = 0; i < R::GetNumCodes(); ++i)
            if (R::GetCode(i) == code)
                return R::GetCodeName(i);
        return FileOf(code);
    }

    // A framework loaded from the library that is not in the table: kept for
    // the test's life, with the configurations given (macro = "1" each) or
    // its "DEFAULT".
    PGFramework* Extra(const std::string& file, const AString& text = AString(), const std::vector<std::string>& configs = {})
    {
        const WString path = StringConvFuncs::ToWString((kLibrary + file).c_str());
        Ptr<PGFramework> fw = text.IsEmpty() ? ProgramManager::Ins()->LoadFramework(path)
                                             : Ptr<PGFramework>(new PGFramework(path, path, text));
        if (!fw)
            return nullptr;
        for (const std::string& name : configs)
            if (PGConfFW* conf = fw->CreateConfig(StringConvFuncs::ToWString(name.c_str())))
                conf->SetMacro(AString(name.c_str()), "1");
        fw->ValidateDefault();
        extras.push_back(fw);
        return fw.Get();
    }

    // Every configuration of a framework; with AB_Base and MT_Triangle
    // "DEFAULT" when it draws geometry.
    void AddFramework(std::vector<Combination>& out, PGFramework* fw, bool compute = false)
    {
        const bool geometry = !compute && DrawsGeometry(FileOf(fw));
        for (const auto& pair : fw->GetConfigMap())
        {
            Combination c;
            c.fw = static_cast<const PGConfFW*>(pair.value);
            c.compute = compute;
            if (geometry)
            {
                c.ab = R::AB_Base->GetConfig(u"DEFAULT");
                c.mt = R::MT_Triangle->GetConfig(u"DEFAULT");
            }
            out.push_back(Named(c));
        }
    }

    Combination Named(Combination c) const
    {
        c.name = ConfName(NameOf(c.fw->GetParent()), c.fw);
        if (c.ab)
            c.name += " + " + ConfName(NameOf(c.ab->GetParent()), c.ab);
        if (c.mt)
            c.name += " + " + ConfName(NameOf(c.mt->GetParent()), c.mt);
        return c;
    }

    struct Result
    {
        unsigned compiled = 0;
        double seconds = 0;
        std::vector<std::string> failures; // name, then the compiler's lines
    };

    // Compiles every combination on `threads` threads (the compiler allows
    // concurrent compiles, each with its own front end) and drops the programs.
    Result Run(const std::vector<Combination>& set, unsigned threads)
    {
        Result result;
        std::atomic<size_t> next{0};
        std::vector<std::vector<std::string>> failures(threads);
        const auto start = std::chrono::steady_clock::now();
        auto work = [&](unsigned id) {
            std::string lines;
            t_sink = &lines;
            for (size_t i; (i = next.fetch_add(1)) < set.size();)
            {
                const Combination& c = set[i];
                lines.clear();
                bool failed;
                if (c.compute)
                {
                    Ptr<ComputeProgram> program = ProgramManager::Ins()->BuildComputeProgram(c.fw);
                    failed = !program || program->IsFailed();
                }
                else
                {
                    Ptr<Program> program = ProgramManager::Ins()->BuildProgram(c.fw, c.ab, c.mt);
                    failed = !program || program->IsFailed();
                }
                if (failed)
                    failures[id].push_back(c.name + "\n" + lines);
            }
            t_sink = nullptr;
        };
        std::vector<std::thread> pool;
        for (unsigned t = 1; t < threads; ++t)
            pool.emplace_back(work, t);
        work(0);
        for (std::thread& t : pool)
            t.join();
        result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        result.compiled = unsigned(set.size());
        for (auto& list : failures)
            result.failures.insert(result.failures.end(), list.begin(), list.end());
        // The programs posted their device objects; let those go now.
        GraphicsThread::Ins()->ProcessMTCommandList();
        return result;
    }

    bool loaded = false;
    Ptr<ThreadSink> sink{new ThreadSink()};
    std::vector<Ptr<PGCode>> extras;
};

// The material template's slots with the channels' defaults, as the
// material compiler fills them for an unlinked tree: "return <default>;".
const std::pair<const char*, const char*> kSlots[] = {
        {"$(Ambient)", "return float3(0, 0, 0);"},
        {"$(Diffuse)", "return float3(0, 0, 0);"},
        {"$(Normal)", "return input.WorldNormal;"},
        {"$(SpecularColor)", "return float3(0, 0, 0);"},
        {"$(SpecularPower)", "return 15.0;"},
        {"$(Opacity)", "return 1.0;"},
        {"$(Distortion)", "return float2(0, 0);"},
        {"$(VertexOffset)", "return float3(0, 0, 0);"},
        {"$(TessellationFactor)", "return 1.0;"},
        {"$(TessellationOffset)", "return float3(0, 0, 0);"},
        {"$(Declaration)", ""},
};

size_t Occurrences(const std::string& text, const std::string& what)
{
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size()))
        ++count;
    return count;
}

// The template with every slot filled (whether each stands once is the
// contract test's business; this is about the text compiling).
AString FilledMaterialTemplate()
{
    std::string text = ReadFile(kLibrary + "Material_Template.ksl");
    for (const auto& [slot, body] : kSlots)
        for (size_t at; (at = text.find(slot)) != std::string::npos;)
            text.replace(at, std::strlen(slot), body);
    return AString(text.c_str());
}

// The single-pass template as its builder's base framework: both markers
// replaced by nothing.
AString BareSinglePassTemplate()
{
    std::string text = ReadFile(kLibrary + "SinglePass_Template.ksl");
    for (const std::string marker : {"%LightDeclaration", "%LightFragment"})
        for (size_t at; (at = text.find(marker)) != std::string::npos;)
            text.erase(at, marker.size());
    return AString(text.c_str());
}

// The MT_Triangle configurations of each material option, once: every blend,
// two-side and depth mode, tessellation, transmission, an opaque mask.
void AddMaterialOptions(std::vector<PGConfMT*>& out)
{
    PGMaterial* mt = R::MT_Triangle.Get();
    auto make = [&](BlendMode blend, TranslucentDepthMode depth, TwoSideMode side) {
        WString name;
        name.Format(u"OPTION_%d_%d_%d", int(blend), int(depth), int(side));
        PGConfMT* conf = mt->GetConfig(name);
        if (!conf)
        {
            conf = mt->CreateConfig(name);
            conf->SetBlendMode(blend);
            conf->SetTranslucentDepthMode(depth);
            conf->SetTwoSideMode(side);
        }
        return conf;
    };
    std::set<PGConfMT*> unique;
    for (int b = BlendMode::Opaque; b <= BlendMode::Subtractive; ++b)
        unique.insert(make(BlendMode(b), PGMaterial::DEFAULT_TRANSLUCENT_DEPTH_MODE, TwoSideMode::None));
    for (int s = TwoSideMode::None; s <= TwoSideMode::TwoSideSeparatedPass; ++s)
        unique.insert(make(PGMaterial::DEFAULT_BLEND_MODE, PGMaterial::DEFAULT_TRANSLUCENT_DEPTH_MODE, TwoSideMode(s)));
    for (int d = TranslucentDepthMode::NoTest; d <= TranslucentDepthMode::TwoPassTest; ++d)
        unique.insert(make(BlendMode::Additive, TranslucentDepthMode(d), TwoSideMode::None));
    out.assign(unique.begin(), unique.end());
    PGConfMT* tessellated = mt->CreateConfig(u"OPTION_TESSELLATION");
    tessellated->EnableTessellation(true);
    tessellated->SetTessellationScheme(TessellationScheme::PNTriangles);
    PGConfMT* transmission = mt->CreateConfig(u"OPTION_TRANSMISSION");
    transmission->EnableTransmission(true);
    PGConfMT* masked = mt->CreateConfig(u"OPTION_OPAQUE_MASK");
    masked->SetBlendMode(BlendMode::Mask);
    masked->SetOpaqueMask(0.5f);
    out.insert(out.end(), {tessellated, transmission, masked});
}

void Report(const char* what, const Library::Result& result)
{
    std::printf("[ %s ] %u programs in %.1f s on 2 threads (%.0f ms of wall time each)\n", what, result.compiled, result.seconds,
                result.compiled ? result.seconds * 1000.0 / result.compiled : 0.0);
    for (const std::string& failure : result.failures)
        ADD_FAILURE() << failure;
}

} // namespace

// The material compiler and the single-pass builder replace the first
// occurrence of each slot or marker, so each must stand exactly once in the
// template, comments included: a mention ahead of it would take the text and
// leave the real one behind.
TEST(ShaderLibrary, TemplatesHoldEachSlotOnce)
{
    const std::string material = ReadFile(kLibrary + "Material_Template.ksl");
    ASSERT_FALSE(material.empty());
    for (const auto& slot : kSlots)
        EXPECT_EQ(Occurrences(material, slot.first), 1u) << "Material_Template.ksl: " << slot.first;
    const std::string singlePass = ReadFile(kLibrary + "SinglePass_Template.ksl");
    ASSERT_FALSE(singlePass.empty());
    for (const char* marker : {"%LightDeclaration", "%LightFragment"})
        EXPECT_EQ(Occurrences(singlePass, marker), 1u) << "SinglePass_Template.ksl: " << marker;
}

// Every file of the library, each in the configurations named for it.
TEST(ShaderLibrary, EveryFileCompilesInItsConfigurationsToValidSpirv)
{
    KovexTest::NullEngine engine;
    Library library;
    ASSERT_TRUE(library.loaded);
    ASSERT_TRUE(R::IsLoaded());
    std::vector<Combination> set;
    std::set<std::string> covered;

    // The built-in frameworks, every configuration.
    std::set<const PGCode*> seen;
    for (unsigned i = 0; i < R::GetNumCodes(); ++i)
    {
        PGCode* code = R::GetCode(i);
        ASSERT_NE(code, nullptr) << R::GetCodeName(i) << " did not load";
        covered.insert(FileOf(code));
        if (code->Type() == PGCode::Framework && seen.insert(code).second)
            library.AddFramework(set, static_cast<PGFramework*>(code));
    }
    // Attributes through NoLighting with MT_Triangle; materials through
    // NoLighting with AB_Base.
    const PGConfFW* noLighting = R::FW_NoLighting->GetConfig(u"DEFAULT");
    ASSERT_NE(noLighting, nullptr);
    for (unsigned i = 0; i < R::GetNumCodes(); ++i)
    {
        PGCode* code = R::GetCode(i);
        for (const auto& pair : code->GetConfigMap())
        {
            Combination c;
            c.fw = noLighting;
            if (code->Type() == PGCode::Attribute)
                c.ab = static_cast<const PGConfAB*>(pair.value), c.mt = R::MT_Triangle->GetConfig(u"DEFAULT");
            else if (code->Type() == PGCode::Material)
                c.ab = R::AB_Base->GetConfig(u"DEFAULT"), c.mt = static_cast<const PGConfMT*>(pair.value);
            else
                continue;
            set.push_back(library.Named(c));
        }
    }
    // MT_Triangle once per material option.
    std::vector<PGConfMT*> options;
    AddMaterialOptions(options);
    for (PGConfMT* option : options)
    {
        Combination c;
        c.fw = noLighting;
        c.ab = R::AB_Base->GetConfig(u"DEFAULT");
        c.mt = option;
        set.push_back(library.Named(c));
    }

    // The templates other phases load, in the configurations named for them.
    PGFramework* drawMaterial = library.Extra("DrawMaterial.ksl", AString(),
                                              {"DRAW_DIFFUSE", "DRAW_AMBIENT", "DRAW_SPECULAR", "DRAW_DIFFUSE_AMBIENT",
                                               "DRAW_DEPTH", "DRAW_NORMAL"});
    ASSERT_NE(drawMaterial, nullptr);
    library.AddFramework(set, drawMaterial);
    covered.insert("DrawMaterial.ksl");
    const WString templatePath = StringConvFuncs::ToWString((kLibrary + "Material_Template.ksl").c_str());
    Ptr<PGMaterial> filled(new PGMaterial(templatePath, templatePath, FilledMaterialTemplate()));
    filled->ValidateDefault();
    {
        Combination c;
        c.fw = noLighting;
        c.ab = R::AB_Base->GetConfig(u"DEFAULT");
        c.mt = filled->GetCurConf();
        set.push_back(library.Named(c));
        covered.insert("Material_Template.ksl");
    }
    PGFramework* singlePass = library.Extra("SinglePass_Template.ksl", BareSinglePassTemplate());
    ASSERT_NE(singlePass, nullptr);
    library.AddFramework(set, singlePass);
    covered.insert("SinglePass_Template.ksl");

    // Everything else in the directory that is a unit of its own (the
    // HDR_, Bloom_, LightShafts_, SSAO_, TileBased_ and light-map series,
    // Element2D, FXAA ...), found by listing it; the rest are includes.
    std::vector<std::string> files;
    for (const auto& entry : fs::directory_iterator(kLibrary))
        if (entry.path().extension() == ".ksl")
            files.push_back(entry.path().filename().string());
    std::sort(files.begin(), files.end());
    std::map<std::string, int> series;
    std::set<std::string> includes;
    for (const std::string& file : files)
    {
        if (covered.count(file))
            continue;
        const std::string text = ReadFile(kLibrary + file);
        const bool compute = Defines(text, "CS");
        if (!compute && !Defines(text, "PS"))
        {
            includes.insert(file);
            continue;
        }
        for (const char* prefix : {"HDR_", "Bloom_", "LightShafts_", "SSAO_", "TileBased_", "LightMap"})
            if (file.rfind(prefix, 0) == 0)
                ++series[prefix];
        PGFramework* fw = library.Extra(file);
        ASSERT_NE(fw, nullptr) << file;
        library.AddFramework(set, fw, compute);
    }
    for (const char* prefix : {"HDR_", "Bloom_", "LightShafts_", "SSAO_", "TileBased_", "LightMap"})
        EXPECT_GT(series[prefix], 0) << "no file of the " << prefix << " series was found";
    for (const char* include : {"Common.ksl", "ScreenPass.ksl", "SurfacePass.ksl"})
        EXPECT_TRUE(includes.count(include)) << include << " is an include, not a unit";
    EXPECT_FALSE(includes.count("Element2D.ksl") || includes.count("FXAA.ksl"));

    Library::Result result = library.Run(set, 2);
    EXPECT_GT(result.compiled, 200u);
    Report("compile set", result);
}

// The harness itself: a combination that does not compile is reported by
// its name with the compiler's lines, from whichever thread compiled it,
// and the others are not.
TEST(ShaderLibrary, AFailureNamesItsCombinationAndCarriesTheCompilersLines)
{
    KovexTest::NullEngine engine;
    Library library;
    ASSERT_TRUE(library.loaded);
    PGConfMT* broken = R::MT_Triangle->CreateConfig(u"BROKEN");
    broken->SetMacro("GetMaterialColor", "(");
    std::vector<Combination> set;
    for (const PGConfMT* mt : {static_cast<const PGConfMT*>(R::MT_Triangle->GetConfig(u"DEFAULT")),
                               static_cast<const PGConfMT*>(broken)})
    {
        Combination c;
        c.fw = R::FW_NoLighting->GetConfig(u"DEFAULT");
        c.ab = R::AB_Base->GetConfig(u"DEFAULT");
        c.mt = mt;
        set.push_back(library.Named(c));
        set.push_back(library.Named(c));
    }
    Library::Result result = library.Run(set, 2);
    EXPECT_EQ(result.compiled, 4u);
    ASSERT_EQ(result.failures.size(), 2u);
    for (const std::string& failure : result.failures)
    {
        EXPECT_EQ(failure.rfind("FW_NoLighting:DEFAULT + AB_Base:DEFAULT + MT_Triangle:BROKEN\n", 0), 0u) << failure;
        EXPECT_NE(failure.find("Compile Shader vs_5_0 VS failed !"), std::string::npos) << failure;
        EXPECT_NE(failure.find("Material_Triangle.ksl"), std::string::npos) << "the compiler's line names the file";
    }
}

// Every framework (its current configuration) with every attribute
// configuration and every material configuration of the table.
TEST(ShaderProduct, EveryFrameworkAttributeAndMaterialConfiguration)
{
    if (!std::getenv("KOVEX_SHADER_PRODUCT"))
        GTEST_SKIP() << "the full product runs in its own CTest entry (label shader_product)";
    KovexTest::NullEngine engine;
    Library library;
    ASSERT_TRUE(library.loaded);
    std::vector<PGFramework*> frameworks;
    std::vector<const PGConfAB*> attributes;
    std::vector<const PGConfMT*> materials;
    std::set<const PGCode*> seen;
    for (unsigned i = 0; i < R::GetNumCodes(); ++i)
    {
        PGCode* code = R::GetCode(i);
        ASSERT_NE(code, nullptr) << R::GetCodeName(i);
        if (!seen.insert(code).second)
            continue;
        if (code->Type() == PGCode::Framework)
            frameworks.push_back(static_cast<PGFramework*>(code));
        for (const auto& pair : code->GetConfigMap())
            if (code->Type() == PGCode::Attribute)
                attributes.push_back(static_cast<const PGConfAB*>(pair.value));
            else if (code->Type() == PGCode::Material)
                materials.push_back(static_cast<const PGConfMT*>(pair.value));
    }
    for (const char* file : {"DrawMaterial.ksl", "Element2D.ksl", "LightMap_OmniLight.ksl", "LightMap_SpotLight.ksl",
                             "LightMap_DirectionalLight.ksl"})
        if (PGFramework* fw = library.Extra(file))
            frameworks.push_back(fw);
    std::vector<Combination> set;
    unsigned screen = 0;
    for (PGFramework* fw : frameworks)
    {
        Combination c;
        c.fw = fw->GetCurConf();
        if (!DrawsGeometry(FileOf(fw)))
        {
            ++screen;
            set.push_back(library.Named(c));
            continue;
        }
        for (const PGConfAB* ab : attributes)
            for (const PGConfMT* mt : materials)
            {
                c.ab = ab;
                c.mt = mt;
                set.push_back(library.Named(c));
            }
    }
    std::printf("[ product ] %zu frameworks (%u without geometry) x %zu attribute x %zu material configurations\n",
                frameworks.size(), screen, attributes.size(), materials.size());
    Report("full product", library.Run(set, 2));
}
