// Class registry queries against the C++ run-time equivalents on one
// hierarchy, in the same run.

#include <benchmark/benchmark.h>

#include <string>
#include <unordered_map>

#include "kernel/Log.h"
#include "reflection/Object.h"

using namespace KovexEngine;

namespace KovexBench {

class Level1 : public Object { KOVEX_CLASS(Level1) };
class Level2 : public Level1 { KOVEX_CLASS(Level2) };
class Level3 : public Level2 { KOVEX_CLASS(Level3) };
class Level4 : public Level3 { KOVEX_CLASS(Level4) public: int payload = 1; };
class Other : public Object { KOVEX_CLASS(Other) };
class Side : public Object { KOVEX_CLASS(Side) public: int side = 2; };
class Joined : public Level2, public Side { KOVEX_CLASS(Joined) };

KOVEX_REGISTER_CLASS(Level1, u"Bench", Object)
KOVEX_REGISTER_CLASS(Level2, u"Bench", Level1)
KOVEX_REGISTER_CLASS(Level3, u"Bench", Level2)
KOVEX_REGISTER_CLASS(Level4, u"Bench", Level3)
KOVEX_REGISTER_CLASS(Other, u"Bench", Object)
KOVEX_REGISTER_CLASS(Side, u"Bench", Object)
KOVEX_REGISTER_CLASS(Joined, u"Bench", Level2, Side)

} // namespace KovexBench

using namespace KovexBench;

static void BM_Class_IsKindOf(benchmark::State& state)
{
    Level4 object;
    Object* base = &object;
    const Class* targets[2] = {Level1::StaticGetClass(), Other::StaticGetClass()};
    unsigned i = 0;
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(base->IsKindOf(targets[i & 1]));
        ++i;
    }
}
BENCHMARK(BM_Class_IsKindOf);

static void BM_DynamicCast_IsKindOf(benchmark::State& state)
{
    Level4 object;
    Object* base = &object;
    unsigned i = 0;
    for (auto _ : state)
    {
        if (i & 1)
            benchmark::DoNotOptimize(dynamic_cast<Other*>(base));
        else
            benchmark::DoNotOptimize(dynamic_cast<Level1*>(base));
        ++i;
    }
}
BENCHMARK(BM_DynamicCast_IsKindOf);

static void BM_Class_GetClassPointer_MultipleBases(benchmark::State& state)
{
    Joined* object = new Joined();
    Object* base = static_cast<Level1*>(object);
    const Class* side = Side::StaticGetClass();
    for (auto _ : state)
        benchmark::DoNotOptimize(base->GetNativeClassPointer(side));
    delete object;
}
BENCHMARK(BM_Class_GetClassPointer_MultipleBases);

static void BM_DynamicCast_CrossCast(benchmark::State& state)
{
    Joined* object = new Joined();
    Object* base = static_cast<Level1*>(object);
    for (auto _ : state)
        benchmark::DoNotOptimize(dynamic_cast<Side*>(base));
    delete object;
}
BENCHMARK(BM_DynamicCast_CrossCast);

// --- Creation by name --------------------------------------------------------------

static void BM_Class_CreateByName(benchmark::State& state)
{
    WString name(u"Level4");
    for (auto _ : state)
    {
        void* created = Class::Create(name);
        benchmark::DoNotOptimize(created);
        delete static_cast<Level4*>(created);
    }
    state.counters["classes"] = double(Class::GetClassArray().Count());
}
BENCHMARK(BM_Class_CreateByName);

static void BM_HashLookupAndNew(benchmark::State& state)
{
    // The same classes in a hash map from name to a plain factory function.
    std::unordered_map<std::u16string, void* (*)()> creators;
    for (const Class* cls : Class::GetClassArray())
        creators.emplace(std::u16string(cls->GetName()(), cls->GetName().Length()), &Level4::CreateClassInstance);
    std::u16string name(u"Level4");
    for (auto _ : state)
    {
        void* created = creators.find(name)->second();
        benchmark::DoNotOptimize(created);
        delete static_cast<Level4*>(created);
    }
}
BENCHMARK(BM_HashLookupAndNew);

// --- Logging to a level nobody takes -------------------------------------------------

namespace {
struct NullProxy : LogProxy
{
    void Print(unsigned, const char16_t* text) override { benchmark::DoNotOptimize(text); }
};
} // namespace

static void BM_Log_FormatMaskedOff(benchmark::State& state)
{
    Ptr<LogProxy> proxy(new NullProxy());
    proxy->SetLevelMask(~(1u << LOG_INFO));
    Log::AddProxy(proxy);
    for (auto _ : state)
        Log::Format(LOG_INFO, u"Loaded %s in %.2f ms (%d objects)\n", u"textures/rotrandom.dds", 3.75, 17);
    Log::RemoveProxy(proxy);
}
BENCHMARK(BM_Log_FormatMaskedOff);

static void BM_Log_FormatTaken(benchmark::State& state)
{
    Ptr<LogProxy> proxy(new NullProxy());
    Log::AddProxy(proxy);
    for (auto _ : state)
        Log::Format(LOG_INFO, u"Loaded %s in %.2f ms (%d objects)\n", u"textures/rotrandom.dds", 3.75, 17);
    Log::RemoveProxy(proxy);
}
BENCHMARK(BM_Log_FormatTaken);
