// Resource look-ups and loads. A cache hit by path stands beside a plain
// hash-map look-up of the same path; 1,000 background loads stand beside
// the same loads made synchronously, with the main thread's longest frame
// beside the longest frame of an idle frame loop.

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <unordered_map>

#include "kernel/StringConv.h"
#include "reflection/PropertyRegistration.h"
#include "resources/Resource.h"
#include "resources/ResourceThread.h"
#include "serialization/Serializer.h"

using namespace KovexEngine;

namespace KovexBench {

class Asset : public Resource
{
    KOVEX_CLASS(Asset)
public:
    int32 id = 0;
    Vector4 tint;
    AString label;
};

KOVEX_REGISTER_CLASS_EX(Asset, u"Bench")
void Asset::StaticConstructor(Class* cls)
{
    RegisterBases<Asset, Resource>(cls);
    AddField(cls, u"Id", &Asset::id);
    AddField(cls, u"Tint", &Asset::tint);
    AddField(cls, u"Label", &Asset::label);
    cls->ProcessClass();
}

constexpr unsigned kAssets = 1000;

// Two factories of the asset class: one sharing by path, one making a new
// object each load (so repeated runs never hit a cache).
struct Fixture
{
    ResourceFactory* shared;
    ResourceFactory* fresh;
    std::string dir;

    Fixture()
    {
        char pattern[] = "/tmp/kovex-bench-XXXXXX";
        dir = mkdtemp(pattern);
        shared = new ResourceFactory(Asset::StaticGetClass(), RESOURCE_CACHED, WString(u".asset"), 1000);
        fresh = new ResourceFactory(Asset::StaticGetClass(), RESOURCE_NOT_MANAGED, WString(u".fresh"), 1001);
        ObjectManager::Ins()->Register(Asset::StaticGetClass(), shared);
        ResourceManager::Ins()->Register(Asset::StaticGetClass(), shared);
        ResourceManager::Ins()->Register(Asset::StaticGetClass(), fresh);
        shared->OnInitialized();
        fresh->OnInitialized();
        for (unsigned i = 0; i < kAssets; ++i)
        {
            Ptr<Asset> asset(new Asset());
            asset->id = int32(i);
            asset->label.Format("asset %u", i);
            shared->Save(asset.Get(), Path(i, ".fresh"), Ptr<SerializerState>());
        }
        shared->Save(Ptr<Asset>(new Asset()).Get(), Path(0, ".asset"), Ptr<SerializerState>());
        ResourceThread::Ins()->Init();
    }
    ~Fixture() { std::filesystem::remove_all(dir); }
    WString Path(unsigned i, const char* extension) const
    {
        return StringConvFuncs::ToWString((dir + "/a" + std::to_string(i) + extension).c_str());
    }
};

Fixture& Get()
{
    static Fixture fixture;
    return fixture;
}

void BM_Resource_CacheHitByPath(benchmark::State& state)
{
    WString path = Get().Path(0, ".asset");
    Ptr<Resource> held = Get().shared->Load(path, 0);
    for (auto _ : state)
        benchmark::DoNotOptimize(Get().shared->Load(path, 0).Get());
    if (!held)
        state.SkipWithError("the asset did not load");
}

void BM_HashMap_LookUpByPath(benchmark::State& state)
{
    std::u16string path(Get().Path(0, ".asset")());
    std::unordered_map<std::u16string, Ptr<Resource>> map;
    for (unsigned i = 0; i < 1000; ++i)
        map[path + std::u16string(1, char16_t(u'a' + i % 26)) + char16_t(i)] = Ptr<Resource>(new Asset());
    map[path] = Ptr<Resource>(new Asset());
    for (auto _ : state)
        benchmark::DoNotOptimize(Ptr<Resource>(map.find(path)->second).Get());
}

void BM_Resource_Load1000Sync(benchmark::State& state)
{
    for (auto _ : state)
        for (unsigned i = 0; i < kAssets; ++i)
            benchmark::DoNotOptimize(Get().fresh->Load(Get().Path(i, ".fresh"), 0).Get());
    state.SetItemsProcessed(int64_t(state.iterations()) * kAssets);
}

unsigned g_arrived = 0;
void Arrived(const Ptr<Resource>&) { ++g_arrived; }
void Missed(const WString&) { ++g_arrived; }

// A frame: the resource thread's AT list, then a little main-thread work.
double Frame()
{
    auto start = std::chrono::steady_clock::now();
    ResourceThread::Ins()->ProcessATCommandList();
    volatile double sink = 0;
    for (int i = 0; i < 2000; ++i)
        sink = sink + i * 0.5;
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
}

void BM_Resource_Load1000Async(benchmark::State& state)
{
    double longest = 0;
    for (auto _ : state)
    {
        g_arrived = 0;
        for (unsigned i = 0; i < kAssets; ++i)
            Get().fresh->AsyncLoad(Get().Path(i, ".fresh"), ResourceSucceedDelegate(&Arrived), ResourceFailedDelegate(&Missed), 0);
        while (g_arrived < kAssets)
            longest = std::max(longest, Frame());
    }
    state.counters["longest_frame_us"] = longest;
    state.SetItemsProcessed(int64_t(state.iterations()) * kAssets);
}

void BM_IdleFrameLoop(benchmark::State& state)
{
    double longest = 0;
    for (auto _ : state)
        longest = std::max(longest, Frame());
    state.counters["longest_frame_us"] = longest;
}

BENCHMARK(BM_HashMap_LookUpByPath);
BENCHMARK(BM_Resource_CacheHitByPath);
BENCHMARK(BM_Resource_Load1000Sync)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Resource_Load1000Async)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IdleFrameLoop);

} // namespace KovexBench
