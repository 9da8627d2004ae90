// TMap look-up against std::map and a sorted std::vector searched with
// std::lower_bound, on the same keys in the same run.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include "kernel/Containers.h"
#include "kernel/Strings.h"

using namespace KovexEngine;

namespace {

std::vector<unsigned> Keys(unsigned count)
{
    std::vector<unsigned> keys(count);
    std::mt19937 random(42);
    for (auto& k : keys)
        k = random();
    return keys;
}

std::vector<WString> Names(unsigned count)
{
    std::vector<WString> names;
    for (unsigned i = 0; i < count; ++i)
    {
        WString name;
        name.Format(u"Property_%u_%x", i * 7919u % count, i * 2654435761u);
        names.push_back(name);
    }
    return names;
}

} // namespace

static void BM_TMap_FindInt(benchmark::State& state)
{
    auto keys = Keys(unsigned(state.range(0)));
    TMap<unsigned, unsigned> map;
    for (unsigned i = 0; i < keys.size(); ++i)
        map.Insert(keys[i], i);
    size_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(map.Find(keys[i++ % keys.size()]));
}
BENCHMARK(BM_TMap_FindInt)->Arg(16)->Arg(256)->Arg(4096);

static void BM_StdMap_FindInt(benchmark::State& state)
{
    auto keys = Keys(unsigned(state.range(0)));
    std::map<unsigned, unsigned> map;
    for (unsigned i = 0; i < keys.size(); ++i)
        map.emplace(keys[i], i);
    size_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(map.find(keys[i++ % keys.size()]));
}
BENCHMARK(BM_StdMap_FindInt)->Arg(16)->Arg(256)->Arg(4096);

static void BM_SortedVector_FindInt(benchmark::State& state)
{
    auto keys = Keys(unsigned(state.range(0)));
    std::vector<std::pair<unsigned, unsigned>> sorted;
    for (unsigned i = 0; i < keys.size(); ++i)
        sorted.emplace_back(keys[i], i);
    std::sort(sorted.begin(), sorted.end());
    size_t i = 0;
    for (auto _ : state)
    {
        unsigned key = keys[i++ % keys.size()];
        auto it = std::lower_bound(sorted.begin(), sorted.end(), key,
                                   [](const std::pair<unsigned, unsigned>& p, unsigned k) { return p.first < k; });
        benchmark::DoNotOptimize(it);
    }
}
BENCHMARK(BM_SortedVector_FindInt)->Arg(16)->Arg(256)->Arg(4096);

static void BM_TMap_FindName(benchmark::State& state)
{
    auto names = Names(unsigned(state.range(0)));
    TMap<WString, unsigned> map;
    for (unsigned i = 0; i < names.size(); ++i)
        map.Insert(names[i], i);
    size_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(map.Find(names[i++ % names.size()]));
}
BENCHMARK(BM_TMap_FindName)->Arg(16)->Arg(256)->Arg(4096);

static void BM_StdMap_FindName(benchmark::State& state)
{
    auto names = Names(unsigned(state.range(0)));
    std::map<WString, unsigned> map;
    for (unsigned i = 0; i < names.size(); ++i)
        map.emplace(names[i], i);
    size_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(map.find(names[i++ % names.size()]));
}
BENCHMARK(BM_StdMap_FindName)->Arg(16)->Arg(256)->Arg(4096);

static void BM_SortedVector_FindName(benchmark::State& state)
{
    auto names = Names(unsigned(state.range(0)));
    std::vector<std::pair<WString, unsigned>> sorted;
    for (unsigned i = 0; i < names.size(); ++i)
        sorted.emplace_back(names[i], i);
    std::sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    size_t i = 0;
    for (auto _ : state)
    {
        const WString& key = names[i++ % names.size()];
        auto it = std::lower_bound(sorted.begin(), sorted.end(), key,
                                   [](const std::pair<WString, unsigned>& p, const WString& k) { return p.first < k; });
        benchmark::DoNotOptimize(it);
    }
}
BENCHMARK(BM_SortedVector_FindName)->Arg(16)->Arg(256)->Arg(4096);
