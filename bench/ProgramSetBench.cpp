// The built-in program set compiled as a first start does (nothing cached;
// every program compiled and written to "shader.cache"), beside a second
// start that finds every program in that file and compiles none. Each
// iteration is a new start: the built-in codes loaded afresh from a copy of
// the data root, the include texts and the cache library forgotten.
//
// The set: each built-in framework in each of its configurations, each
// attribute configuration and each material configuration, with AB_Base and
// MT_Triangle (current configurations) as partners where a text includes
// "Attribute" or "Material", FW_NoLighting as the framework of attributes and
// materials; and MT_Triangle once per material option that sets a macro.

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include <algorithm>
#include <filesystem>
#include <random>
#include <unordered_map>
#include <string>
#include <vector>

#include "BenchEngine.h"
#include "ProgramKey.h"
#include "kernel/EngineGlobals.h"
#include "kernel/StringConv.h"
#include "shaders/PGCode.h"
#include "shaders/PGResources.h"
#include "shaders/Program.h"
#include "shaders/ProgramCachedLibrary.h"
#include "shaders/ProgramCompiler.h"
#include "shaders/ProgramManager.h"

using namespace KovexEngine;
namespace fs = std::filesystem;

namespace {

using Combination = Draw;

// Whether the text, or a file it includes from the shader directory, has
// #include "<name>" (the include handler expands each file once, so a file
// met again adds nothing).
bool Includes(const AString& text, const char* name, std::vector<std::string>& visited)
{
    const std::string wanted = std::string("#include \"") + name + "\"";
    if (text.IndexOf(wanted.c_str()) != kNotFound)
        return true;
    for (unsigned at = text.IndexOf("#include \""); at != kNotFound; at = text.IndexOf("#include \"", kNotFound, at + 1))
    {
        unsigned start = at + 10;
        unsigned end = text.IndexOf('"', start);
        if (end == kNotFound)
            break;
        std::string file(text.c_str() + start, end - start);
        if (std::find(visited.begin(), visited.end(), file) != visited.end())
            continue;
        visited.push_back(file);
        const AString* included =
            ProgramManager::Ins()->OpenInclude(StringConvFuncs::ToWString(("[core]shaders/" + file).c_str()));
        if (included && Includes(*included, name, visited))
            return true;
    }
    return false;
}

bool Includes(const PGCode* code, const char* name)
{
    std::vector<std::string> visited;
    return Includes(code->GetCode(), name, visited);
}

void MaterialOptions(std::vector<Combination>& set)
{
    PGMaterial* mt = PGResources::MT_Triangle.Get();
    const PGConfFW* fw = PGResources::FW_NoLighting->GetCurConf();
    const PGConfAB* ab = PGResources::AB_Base->GetCurConf();
    auto add = [&](const char16_t* name, auto&& set_up) {
        PGConfMT* conf = mt->GetConfig(name);
        if (!conf)
        {
            conf = mt->CreateConfig(name);
            set_up(conf);
        }
        set.push_back({fw, ab, conf});
    };
    static const char16_t* const kBlend[] = {u"Bench.Opaque",          u"Bench.Mask",     u"Bench.AdditiveMask",
                                             u"Bench.ModulateMask",    u"Bench.SubtractiveMask", u"Bench.Additive",
                                             u"Bench.Modulate",        u"Bench.Subtractive"};
    for (int mode = BlendMode::Opaque; mode <= BlendMode::Subtractive; ++mode)
        add(kBlend[mode], [mode](PGConfMT* c) { c->SetBlendMode(BlendMode(mode)); });
    add(u"Bench.OpaqueMask", [](PGConfMT* c) { c->SetOpaqueMask(0.5f); });
    add(u"Bench.TwoSideSeparated", [](PGConfMT* c) { c->SetTwoSideMode(TwoSideMode::TwoSideSeparatedPass); });
    add(u"Bench.Transmission", [](PGConfMT* c) { c->EnableTransmission(true); });
    add(u"Bench.Phong", [](PGConfMT* c) { c->SetTessellationScheme(TessellationScheme::Phong); });
}

std::vector<Combination> BuiltinSet()
{
    std::vector<Combination> set;
    const PGConfAB* base = PGResources::AB_Base->GetCurConf();
    const PGConfMT* triangle = PGResources::MT_Triangle->GetCurConf();
    const PGConfFW* noLighting = PGResources::FW_NoLighting->GetCurConf();
    std::vector<const PGCode*> seen; // two statics may share one file, so one code
    for (unsigned i = 0; i < PGResources::GetNumCodes(); ++i)
    {
        PGCode* code = PGResources::GetCode(i);
        if (!code || std::find(seen.begin(), seen.end(), code) != seen.end())
            continue;
        seen.push_back(code);
        for (const auto& pair : code->GetConfigMap())
        {
            const PGCodeConf* conf = pair.value;
            if (code->Type() == PGCode::Framework)
                set.push_back({static_cast<const PGConfFW*>(conf), Includes(code, "Attribute") ? base : nullptr,
                               Includes(code, "Material") ? triangle : nullptr});
            else if (code->Type() == PGCode::Attribute && code != PGResources::AB_Base.Get())
                set.push_back({noLighting, static_cast<const PGConfAB*>(conf), triangle});
            else if (code->Type() == PGCode::Material && code != PGResources::MT_Triangle.Get())
                set.push_back({noLighting, base, static_cast<const PGConfMT*>(conf)});
        }
    }
    MaterialOptions(set);
    return set;
}

// A copy of the data root, so that the cache file is written beside it and
// not into the sources.
struct SetWorld
{
    std::string root = "/tmp/kovex-program-set-bench-" + std::to_string(::getpid()) + "/";
    std::string cache = root + "shader.cache";

    SetWorld()
    {
        StartNullEngine();
        fs::remove_all(root);
        fs::create_directories(root);
        fs::copy(KOVEX_BENCH_DATA, root, fs::copy_options::recursive);
        Kovex_Main_LoadRequiredData(StringConvFuncs::ToWString(root.c_str())());
    }
    ~SetWorld() { fs::remove_all(root); }

    // A new start: fresh codes, no include texts, the cache file reopened.
    void Restart(bool keepCache)
    {
        PGResources::Destroy();
        ProgramManager::Ins()->ClearIncludes();
        ProgramCachedLibrary::Destroy();
        if (!keepCache)
            fs::remove(cache);
        ProgramCachedLibrary::Ins()->SetFilePath(StringConvFuncs::ToWString(cache.c_str()));
        PGResources::Initialize();
    }
};

SetWorld& World()
{
    static SetWorld* world = new SetWorld();
    return *world;
}

struct Tally
{
    unsigned programs = 0;
    unsigned failed = 0;
    uint64 compiles = 0;
};

std::string Name(const PGCodeConf* conf)
{
    if (!conf)
        return "-";
    return std::string(StringConvFuncs::ToAString(conf->GetParent()->GetName().c_str()).c_str()) + ":" +
           StringConvFuncs::ToAString(conf->GetName()->c_str()).c_str();
}

Tally CompileSet()
{
    Tally tally;
    const uint64 before = ProgramCompiler::Get()->GetCompileCount();
    for (const Combination& c : BuiltinSet())
    {
        Program* program = c.fw->GetProgram(c.ab, c.mt);
        ++tally.programs;
        if (!program || program->IsFailed())
        {
            ++tally.failed;
            if (tally.failed == 1 || getenv("KOVEX_BENCH_VERBOSE"))
                std::fprintf(stderr, "failed: %s %s %s\n", Name(c.fw).c_str(), Name(c.ab).c_str(), Name(c.mt).c_str());
        }
    }
    tally.compiles = ProgramCompiler::Get()->GetCompileCount() - before;
    return tally;
}

void Report(benchmark::State& state, const Tally& tally)
{
    state.counters["programs"] = double(tally.programs);
    state.counters["compiles"] = double(tally.compiles);
    state.counters["failed"] = double(tally.failed);
}

void BM_ProgramSet_CompileFromScratch(benchmark::State& state)
{
    SetWorld& world = World();
    Tally tally;
    for (auto _ : state)
    {
        state.PauseTiming();
        g_kovexLoadShadersFromCache = false;
        g_kovexCacheShaders = true;
        world.Restart(false);
        state.ResumeTiming();
        tally = CompileSet();
    }
    g_kovexCacheShaders = false;
    Report(state, tally);
}

void BM_ProgramSet_SecondStartFromCache(benchmark::State& state)
{
    SetWorld& world = World();
    // The first start that fills the file, untimed.
    g_kovexCacheShaders = true;
    world.Restart(false);
    CompileSet();
    g_kovexCacheShaders = false;
    Tally tally;
    for (auto _ : state)
    {
        state.PauseTiming();
        g_kovexLoadShadersFromCache = true;
        world.Restart(true);
        state.ResumeTiming();
        tally = CompileSet();
    }
    g_kovexLoadShadersFromCache = false;
    Report(state, tally);
    if (tally.compiles != 0)
        state.SkipWithError("the second start compiled programs");
}

// The programs of the set, all made (from the cache), asked for in a fixed
// random order of 4,096: the framework's look-up, and beside it a hash map of
// the same three pointers.
std::vector<Combination> MadeSetInRandomOrder()
{
    SetWorld& world = World();
    g_kovexCacheShaders = true;
    g_kovexLoadShadersFromCache = true;
    world.Restart(true);
    std::vector<Combination> set = BuiltinSet();
    for (const Combination& c : set)
        c.fw->GetProgram(c.ab, c.mt);
    g_kovexCacheShaders = false;
    g_kovexLoadShadersFromCache = false;
    std::mt19937 random(11);
    std::vector<Combination> order;
    for (int i = 0; i < 4096; ++i)
        order.push_back(set[random() % set.size()]);
    return order;
}

void BM_ProgramSet_GetProgramHit(benchmark::State& state)
{
    LookUpInTurn(state, MadeSetInRandomOrder(), [](const Draw& d) { return d.fw->GetProgram(d.ab, d.mt); });
}

void BM_ProgramSet_HashMapFindBaseline(benchmark::State& state)
{
    const std::vector<Combination> order = MadeSetInRandomOrder();
    std::unordered_map<Draw, Program*, DrawHash> map;
    for (const Combination& c : order)
        map[c] = c.fw->GetProgram(c.ab, c.mt);
    LookUpInTurn(state, order, [&map](const Draw& d) { return map.find(d)->second; });
}

} // namespace

BENCHMARK(BM_ProgramSet_CompileFromScratch)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
BENCHMARK(BM_ProgramSet_SecondStartFromCache)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(BM_ProgramSet_HashMapFindBaseline);
BENCHMARK(BM_ProgramSet_GetProgramHit);
