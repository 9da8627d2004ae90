#pragma once

// The three configuration pointers that name a program, as a key of
// std::unordered_map: the baseline the framework's own look-up is measured
// against; and the loop both kinds of look-up are timed in.

#include <benchmark/benchmark.h>

#include <functional>
#include <vector>

namespace KovexEngine {
class PGConfFW;
class PGConfAB;
class PGConfMT;
}

struct Draw
{
    const KovexEngine::PGConfFW* fw;
    const KovexEngine::PGConfAB* ab;
    const KovexEngine::PGConfMT* mt;
    bool operator==(const Draw& o) const { return fw == o.fw && ab == o.ab && mt == o.mt; }
};

struct DrawHash
{
    size_t operator()(const Draw& d) const
    {
        size_t h = std::hash<const void*>()(d.fw);
        h = h * 31 + std::hash<const void*>()(d.ab);
        return h * 31 + std::hash<const void*>()(d.mt);
    }
};

// Times `find(draw)` over `order` (4,096 draws, asked for in turn).
template <typename F>
void LookUpInTurn(benchmark::State& state, const std::vector<Draw>& order, F&& find)
{
    size_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(find(order[i++ & 4095]));
    state.SetItemsProcessed(int64_t(state.iterations()));
}
