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

#include <filesystem>
#include <string>
#include <vector>

#include "BenchEngine.h"
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

struct Combination
{
    const PGConfFW* fw;
    const PGConfAB* ab;
    const PGConfMT* mt;
};

bool Includes(const PGCode* code, const char* name) { return code->GetCode().IndexOf(name) != kNotFound; }

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
    for (unsigned i = 0; i < PGResources::GetNumCodes(); ++i)
    {
        PGCode* code = PGResources::GetCode(i);
        if (!code)
            continue;
        for (const auto& pair : code->GetConfigMap())
        {
            const PGCodeConf* conf = pair.value;
            if (code->Type() == PGCode::Framework)
                set.push_back({static_cast<const PGConfFW*>(conf), Includes(code, "\"Attribute\"") ? base : nullptr,
                               Includes(code, "\"Material\"") ? triangle : nullptr});
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

Tally CompileSet()
{
    Tally tally;
    const uint64 before = ProgramCompiler::Get()->GetCompileCount();
    for (const Combination& c : BuiltinSet())
    {
        Program* program = c.fw->GetProgram(c.ab, c.mt);
        ++tally.programs;
        tally.failed += !program || program->IsFailed();
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

} // namespace

BENCHMARK(BM_ProgramSet_CompileFromScratch)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
BENCHMARK(BM_ProgramSet_SecondStartFromCache)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
