// Graphics device core on the null renderer, each beside its baseline:
// - a state object by descriptor (cache hit) beside building its key text;
// - a command round trip main -> graphics thread -> main (posted, the frame
//   handed over and joined, its second half run back on main) beside the
//   same work through a std::mutex + std::condition_variable queue;
// - the frame bracket with the graphics thread on the null renderer beside
//   the same bracket without a renderer;
// - WriteConstant of 16 constants into a constant buffer beside memcpy of
//   the same bytes;
// - vertex pool M_RequireBlock/M_Recycle beside malloc/free of the same
//   sizes.

#include <benchmark/benchmark.h>

#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <vector>
#include <deque>
#include <mutex>
#include <thread>

#include "graphics/ConstantBuffer.h"
#include "graphics/GraphicsBuffer.h"
#include "graphics/VertexBuffer.h"
#include "graphics/GraphicsThread.h"
#include "graphics/Renderer.h"
#include "kernel/EngineGlobals.h"
#include "kernel/Log.h"
#include "lifecycle/Engine.h"

using namespace KovexEngine;

namespace {

// The engine with the null renderer, optionally with the graphics thread.
struct Engine
{
    explicit Engine(bool renderer, bool thread)
    {
        g_IsNullRenderer = renderer;
        Kovex_Main_Initialize();
        Log::Clear(); // the per-frame timing line is masked off, as in a release run
        if (renderer)
        {
            Renderer::SetupPlatformAuto();
            if (thread)
                GraphicsThread::Ins()->Start();
            GraphicsParameters parameters;
            parameters.Width = 640;
            parameters.Height = 360;
            Kovex_InitRenderer(parameters);
        }
    }
    ~Engine()
    {
        Kovex_Main_Terminate();
        Kovex_Renderer_Terminate();
        Kovex_System_Terminate();
        g_IsNullRenderer = false;
    }
};

BlendStateDesc SomeBlend()
{
    BlendStateDesc desc;
    desc.RenderTarget0.BlendEnable = true;
    desc.RenderTarget0.SrcBlend = GraphicsBlend::SrcAlpha;
    desc.RenderTarget0.DestBlend = GraphicsBlend::InvSrcAlpha;
    return desc;
}

void BM_StateFactory_CacheHit(benchmark::State& state)
{
    Engine engine(true, false);
    BlendStateDesc desc = SomeBlend();
    BlendStateFactory* factory = BlendStateFactory::Get();
    factory->Create(desc);
    for (auto _ : state)
    {
        Ptr<BlendState> s = factory->Create(desc);
        benchmark::DoNotOptimize(s.Get());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StateFactory_CacheHit);

void BM_StateDesc_BuildKeyText(benchmark::State& state)
{
    BlendStateDesc desc = SomeBlend();
    AString text;
    for (auto _ : state)
    {
        desc.Hash(text);
        benchmark::DoNotOptimize(text());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StateDesc_BuildKeyText);

struct Echo : ThreadCommand2
{
    int value = 0;
    void Process() override { ++value; }
    bool AfterProcess() override
    {
        ++value;
        return true;
    }
};

void BM_GraphicsThread_RoundTrip(benchmark::State& state)
{
    Engine engine(true, true);
    GraphicsThread* thread = GraphicsThread::Ins();
    for (auto _ : state)
    {
        Ptr<Echo> echo(new Echo());
        thread->MT_PostCommand(echo.Get());
        thread->BeginRender();
        thread->EndRender();
        thread->ProcessATCommandList();
        if (echo->value != 2)
            state.SkipWithError("the command did not come back");
    }
}
BENCHMARK(BM_GraphicsThread_RoundTrip)->UseRealTime();

// The baseline: one job to a worker through a locked queue, woken by a
// condition variable, and back to main through another.
void BM_GraphicsBaseline_MutexCondvarRoundTrip(benchmark::State& state)
{
    std::mutex mutex;
    std::condition_variable toWorker, toMain;
    std::deque<int*> jobs, done;
    bool stop = false;
    std::thread worker([&] {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;)
        {
            toWorker.wait(lock, [&] { return stop || !jobs.empty(); });
            if (stop)
                return;
            int* job = jobs.front();
            jobs.pop_front();
            ++*job;
            done.push_back(job);
            toMain.notify_one();
        }
    });
    for (auto _ : state)
    {
        int value = 0;
        std::unique_lock<std::mutex> lock(mutex);
        jobs.push_back(&value);
        toWorker.notify_one();
        toMain.wait(lock, [&] { return !done.empty(); });
        ++*done.front();
        done.pop_front();
        if (value != 2)
            state.SkipWithError("the job did not come back");
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        stop = true;
    }
    toWorker.notify_one();
    worker.join();
}
BENCHMARK(BM_GraphicsBaseline_MutexCondvarRoundTrip)->UseRealTime();

void BM_FrameBracket_NullRendererWithGraphicsThread(benchmark::State& state)
{
    Engine engine(true, true);
    for (auto _ : state)
    {
        Kovex_FrameBegin();
        Kovex_FrameEnd();
    }
}
BENCHMARK(BM_FrameBracket_NullRendererWithGraphicsThread)->UseRealTime();

void BM_FrameBracket_NoRenderer(benchmark::State& state)
{
    Engine engine(false, false);
    for (auto _ : state)
    {
        Kovex_FrameBegin();
        Kovex_FrameEnd();
    }
}
BENCHMARK(BM_FrameBracket_NoRenderer)->UseRealTime();

} // namespace

namespace {

class BenchBuffer : public GraphicsBuffer
{
public:
    bool CreateDeviceHandle() override { return true; }
    void ReleaseDeviceHandle() override {}

protected:
    bool DeviceMap(MappedSubresource&, MapType, uint32) override { return false; }
    void DeviceUnmap(uint32) override {}
};

// Random allocate/recycle over one 128 KiB pool buffer with a tick every 64
// operations, as frames would; beside the same sizes from malloc/free.
void BM_BlockedBuffer_AllocateRecycle(benchmark::State& state)
{
    Ptr<GraphicsBuffer> buffer(new BenchBuffer());
    buffer->SetByteWidth(131072);
    Ptr<BlockedGraphicsBuffer> blocked = BlockedGraphicsBuffer::Create(buffer);
    uint32 seed = 12345;
    auto next = [&seed] { return seed = seed * 1664525u + 1013904223u; };
    std::vector<std::pair<uint32, uint32>> live;
    uint64 count = 0;
    for (auto _ : state)
    {
        if ((next() >> 8) % 2 == 0 || live.empty())
        {
            uint32 size = 16 + (next() >> 8) % 1024;
            uint32 offset = blocked->M_Require(size);
            if (offset != BlockedGraphicsBuffer::kNone)
                live.emplace_back(offset, size);
            else
                blocked->Reset(), live.clear();
            ++count;
        }
        else
        {
            size_t pick = (next() >> 8) % live.size();
            blocked->M_Recycle(live[pick].first, live[pick].second);
            live[pick] = live.back();
            live.pop_back();
        }
        if ((count & 63) == 0)
            blocked->M_Precache();
    }
    state.SetItemsProcessed(int64_t(count));
    blocked = nullptr;
    BlockedGraphicsBuffer::Destroy();
}
BENCHMARK(BM_BlockedBuffer_AllocateRecycle);

// Half allocations, half frees of a random live block: the baselines of the
// pool benchmarks, with their sizes.
template <typename SIZE>
void MallocFreeWorkload(benchmark::State& state, SIZE sizeOf)
{
    uint32 seed = 12345;
    auto next = [&seed] { return seed = seed * 1664525u + 1013904223u; };
    std::vector<void*> live;
    uint64 count = 0;
    for (auto _ : state)
    {
        if ((next() >> 8) % 2 == 0 || live.empty())
        {
            live.push_back(std::malloc(sizeOf(next() >> 8)));
            ++count;
        }
        else
        {
            size_t pick = (next() >> 8) % live.size();
            std::free(live[pick]);
            live[pick] = live.back();
            live.pop_back();
        }
    }
    for (void* p : live)
        std::free(p);
    state.SetItemsProcessed(int64_t(count));
}

void BM_Malloc_AllocateFree(benchmark::State& state)
{
    MallocFreeWorkload(state, [](uint32 r) { return 16 + r % 1024; });
}
BENCHMARK(BM_Malloc_AllocateFree);

// Sixteen float4 constants, one register each, as a material's parameters.
void BM_ConstantBuffer_WriteConstant16(benchmark::State& state)
{
    Engine engine(true, false);
    Ptr<ConstantBuffer> buffer = ConstantBufferFactory::Get()->Create(16 * 16);
    float values[16][4];
    for (int i = 0; i < 16; ++i)
        values[i][0] = values[i][1] = values[i][2] = values[i][3] = float(i);
    for (auto _ : state)
    {
        for (uint32 i = 0; i < 16; ++i)
            buffer->WriteConstant(i * 16, values[i], 16, 16);
        benchmark::DoNotOptimize(buffer->GetStream()->GetPointer());
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * 16);
}
BENCHMARK(BM_ConstantBuffer_WriteConstant16);

void BM_Memcpy_16Constants(benchmark::State& state)
{
    std::vector<uint8> registers(16 * 16);
    float values[16][4];
    for (int i = 0; i < 16; ++i)
        values[i][0] = values[i][1] = values[i][2] = values[i][3] = float(i);
    for (auto _ : state)
    {
        for (uint32 i = 0; i < 16; ++i)
            std::memcpy(registers.data() + i * 16, values[i], 16);
        benchmark::DoNotOptimize(registers.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * 16);
}
BENCHMARK(BM_Memcpy_16Constants);

// 1 to 32 vertices of 32 bytes per request, half of the operations giving a
// range back, a tick every 64 requests as frames would.
void BM_VertexPool_RequireRecycle(benchmark::State& state)
{
    Engine engine(true, false);
    VertexBufferFactory* factory = VertexBufferFactory::Get();
    VertexElement elements[2];
    elements[0].Assign(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float4, 0, 0,
                       GraphicsInputClass::PerVertex, 0);
    elements[1].Assign(GraphicsSemantic::Normal, 0, GraphicsLayoutFormat::Float4, 0, 16,
                       GraphicsInputClass::PerVertex, 0);
    Ptr<VertexDecl> decl = VertexDeclManager::Ins()->Create(elements, 2);
    uint32 seed = 12345;
    auto next = [&seed] { return seed = seed * 1664525u + 1013904223u; };
    std::vector<GraphicsBufferBlock> live;
    uint64 count = 0;
    for (auto _ : state)
    {
        if ((next() >> 8) % 2 == 0 || live.empty())
        {
            GraphicsBufferBlock block;
            if (factory->M_RequireBlock(block, decl, 1 + (next() >> 8) % 32, true))
                live.push_back(block);
            if ((++count & 63) == 0)
                BlockedGraphicsBuffer::M_Tick();
        }
        else
        {
            size_t pick = (next() >> 8) % live.size();
            live[pick].Owner->M_Recycle(live[pick].Offset, live[pick].Size);
            live[pick] = live.back();
            live.pop_back();
        }
    }
    state.SetItemsProcessed(int64_t(count));
}
BENCHMARK(BM_VertexPool_RequireRecycle);

void BM_Malloc_PoolSizes(benchmark::State& state)
{
    MallocFreeWorkload(state, [](uint32 r) { return 32 * (1 + r % 32); });
}
BENCHMARK(BM_Malloc_PoolSizes);

} // namespace
