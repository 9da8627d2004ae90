// Finding the program of a draw: a framework configuration asked for the
// program of an attribute and a material configuration, all compiled before
// (a hit through the framework's maps), beside one hash-map look-up of the
// same three pointers.

#include <benchmark/benchmark.h>

#include <functional>
#include <random>
#include <unordered_map>
#include <vector>

#include "ProgramKey.h"
#include "graphics/GraphicsThread.h"
#include "shaders/PGCode.h"
#include "shaders/Program.h"
#include "shaders/ProgramCompiler.h"

using namespace KovexEngine;

namespace {

// Compiles nothing: the benchmark is about finding programs.
class NoCompiler : public ProgramCompiler
{
public:
    bool CompileShaders(BaseProgram*) override { return true; }
    bool CompileComputeShader(BaseProgram*) override { return true; }
    bool ReflectShaders(BaseProgram*) override { return true; }
    bool Link(BaseProgram*) override { return true; }
};

// 4 framework configurations, 16 attribute configurations, 64 materials of
// 2 configurations: 8,192 programs, asked for in a random order of 4,096.
struct Scene
{
    NoCompiler compiler;
    Ptr<PGFramework> framework{new PGFramework()};
    Ptr<PGAttribute> attribute{new PGAttribute()};
    std::vector<Ptr<PGMaterial>> materials;
    std::vector<Draw> draws;

    Scene()
    {
        // Preprocessed by the compiler before its (empty) steps run.
        framework->SetCode("void VS() {}\n");
        std::vector<PGConfFW*> fws;
        std::vector<PGConfAB*> abs;
        std::vector<PGConfMT*> mts;
        for (int i = 0; i < 4; ++i)
            fws.push_back(framework->CreateConfig(WString(u"FW") + WString(i)));
        for (int i = 0; i < 16; ++i)
            abs.push_back(attribute->CreateConfig(WString(u"AB") + WString(i)));
        for (int i = 0; i < 64; ++i)
        {
            materials.emplace_back(new PGMaterial());
            mts.push_back(materials.back()->CreateConfig(u"DEFAULT"));
            mts.push_back(materials.back()->CreateConfig(u"DEFAULT[Additive]"));
        }
        for (PGConfFW* fw : fws)
            for (PGConfAB* ab : abs)
                for (PGConfMT* mt : mts)
                    fw->GetProgram(ab, mt);
        GraphicsThread::Ins()->ProcessMTCommandList();
        std::mt19937 random(7);
        for (int i = 0; i < 4096; ++i)
            draws.push_back(Draw{fws[random() % fws.size()], abs[random() % abs.size()], mts[random() % mts.size()]});
    }
};

Scene& Get()
{
    static Scene* scene = new Scene();
    return *scene;
}

void BM_Program_LookUpHit(benchmark::State& state)
{
    LookUpInTurn(state, Get().draws, [](const Draw& d) { return d.fw->GetProgram(d.ab, d.mt); });
}

void BM_HashMap_LookUpThreePointers(benchmark::State& state)
{
    const std::vector<Draw>& draws = Get().draws;
    std::unordered_map<Draw, Ptr<Program>, DrawHash> map;
    for (const Draw& d : draws)
        map[d] = Ptr<Program>(d.fw->GetProgram(d.ab, d.mt));
    LookUpInTurn(state, draws, [&map](const Draw& d) { return map.find(d)->second.Get(); });
}

} // namespace

BENCHMARK(BM_HashMap_LookUpThreePointers);
BENCHMARK(BM_Program_LookUpHit);
