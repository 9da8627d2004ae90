// The Vulkan backend on whatever device the machine has (lavapipe in CI):
// a 640x360 clear read back each frame, and 64 MiB uploads, each beside a
// memcpy of the same bytes. Skipped where there is no Vulkan device.

#include <benchmark/benchmark.h>

#include <string.h>

#include <vector>

#include "graphics/TextureFactory.h"
#include "graphics/VertexBuffer.h"
#include "graphics/vulkan/VulkanRenderer.h"
#include "images/Image.h"
#include "kernel/EngineGlobals.h"
#include "kernel/Log.h"
#include "lifecycle/Engine.h"

#ifdef KOVEX_TEST_SHADERS
#include "triangle.frag.h"
#include "triangle.vert.h"
#endif

using namespace KovexEngine;

namespace {

struct VulkanEngine
{
    bool ok = false;
    VulkanEngine()
    {
        if (!VulkanDevice::Probe())
            return;
        g_IsNullRenderer = false;
        Kovex_Main_Initialize();
        Log::Clear();
        GraphicsParameters parameters;
        parameters.Width = 640;
        parameters.Height = 360;
        if (Renderer::SetupPlatform(RendererPlatform::Vulkan))
            Kovex_InitRenderer(parameters);
        ok = VulkanRenderer::Get() && VulkanRenderer::Get()->GetDevice().IsOpen();
    }
    ~VulkanEngine()
    {
        Kovex_Main_Terminate();
        Kovex_Renderer_Terminate();
        Kovex_System_Terminate();
    }
};

constexpr size_t kFrameBytes = 640 * 360 * 4;
constexpr size_t kBigBytes = size_t(64) << 20;

void BM_Vulkan_ClearAndReadBack640x360(benchmark::State& state)
{
    VulkanEngine engine;
    if (!engine.ok)
    {
        state.SkipWithError("no Vulkan device");
        return;
    }
    VulkanRenderer& r = *VulkanRenderer::Get();
    Ptr<Texture> target = r.GetRenderTarget(0);
    std::vector<uint8> pixels;
    float shade = 0;
    for (auto _ : state)
    {
        r.BeginFrame();
        r.Clear(GraphicsClearMode::Target, Vector4(shade, 0.5f, 0.25f, 1.0f), 1.0f, 0);
        r.EndFrame();
        r.Present();
        if (!r.ReadTexture(target.Get(), 0, 0, pixels) || pixels.size() != kFrameBytes)
            state.SkipWithError("read-back failed");
        shade = shade > 0.9f ? 0.0f : shade + 0.1f;
        benchmark::DoNotOptimize(pixels.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kFrameBytes));
}
BENCHMARK(BM_Vulkan_ClearAndReadBack640x360)->Unit(benchmark::kMillisecond)->UseRealTime();

#ifdef KOVEX_TEST_SHADERS
// The same frame with one triangle drawn after the clear, its pipeline
// found in the cache each frame.
void BM_Vulkan_ClearDrawAndReadBack640x360(benchmark::State& state)
{
    VulkanEngine engine;
    if (!engine.ok || !VulkanRenderer::Get()->GetDevice().GetBeginRendering())
    {
        state.SkipWithError("no Vulkan device that draws");
        return;
    }
    VulkanRenderer& r = *VulkanRenderer::Get();
    VkShaderModule vs = r.CreateShaderModule(kTriangleVS, sizeof(kTriangleVS));
    VkShaderModule ps = r.CreateShaderModule(kTrianglePS, sizeof(kTrianglePS));
    VertexElement elements[2];
    elements[0].Assign(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3, 0, 0, GraphicsInputClass::PerVertex,
                       0);
    elements[1].Assign(GraphicsSemantic::Color, 0, GraphicsLayoutFormat::Float4, 0, 12, GraphicsInputClass::PerVertex, 0);
    const float triangle[3][7] = {{-0.5f, -0.5f, 0.5f, 1, 0.5f, 0, 1}, {0, 0.75f, 0.5f, 0, 1, 0.5f, 1},
                                  {0.75f, -0.25f, 0.5f, 0.5f, 0, 1, 1}};
    Ptr<VertexBuffer::Stream> stream = VertexBuffer::Stream::Create(elements, 2, 3, true);
    memcpy(stream->GetPointer(0), triangle, sizeof(triangle));
    Ptr<VertexBuffer> buffer =
        VertexBufferFactory::Get()->Create(stream, 0, GraphicsResourceUsage::Immutable, nullptr);
    Ptr<Texture> target = r.GetRenderTarget(0);
    std::vector<uint8> pixels;
    for (auto _ : state)
    {
        r.BeginFrame();
        r.Clear(GraphicsClearMode::TargetDepthStencil, Vector4(0.1f, 0.2f, 0.3f, 1.0f), 1.0f, 0);
        if (!r.DrawVertices(vs, ps, buffer.Get(), 3, GraphicsTopology::TriangleList))
            state.SkipWithError("draw failed");
        r.EndFrame();
        r.Present();
        if (!r.ReadTexture(target.Get(), 0, 0, pixels) || pixels.size() != kFrameBytes)
            state.SkipWithError("read-back failed");
        benchmark::DoNotOptimize(pixels.data());
    }
    r.DestroyShaderModule(vs);
    r.DestroyShaderModule(ps);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kFrameBytes));
}
BENCHMARK(BM_Vulkan_ClearDrawAndReadBack640x360)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

// memcpy of as many bytes as the figure beside it moves.
void BM_Vulkan_Baseline_Memcpy(benchmark::State& state)
{
    const size_t bytes = size_t(state.range(0));
    std::vector<uint8> from(bytes, 7), to(bytes);
    for (auto _ : state)
    {
        memcpy(to.data(), from.data(), bytes);
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
}
BENCHMARK(BM_Vulkan_Baseline_Memcpy)->Arg(int64_t(kFrameBytes))->Arg(int64_t(kBigBytes))->Unit(benchmark::kMillisecond);

// Times `upload` (which makes one device object from 64 MiB) up to the end
// of its copy on the device and, untimed, drops what it made and lets the
// factories destroy it at a frame start.
template <typename UPLOAD>
void TimeUploads(benchmark::State& state, UPLOAD upload)
{
    for (auto _ : state)
    {
        Ptr<GraphicsObject> made = upload();
        if (!made || !made->IsCreated() || !VulkanRenderer::Get()->SubmitFrame(true))
            state.SkipWithError("upload failed");
        state.PauseTiming();
        made = nullptr;
        Kovex_FrameBegin();
        Kovex_FrameEnd();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kBigBytes));
}

void BM_Vulkan_UploadTexture64MiB(benchmark::State& state)
{
    VulkanEngine engine;
    if (!engine.ok)
    {
        state.SkipWithError("no Vulkan device");
        return;
    }
    Ptr<Image> image(new Image());
    image->Create(TextureFactory::Make2DDesc(4096, 4096, GraphicsFormat::R8G8B8A8_UNORM, 1));
    image->FillData(0x5A);
    TimeUploads(state, [&] {
        return Ptr<GraphicsObject>(
            TextureFactory::Get()->Create(Ptr<Object>(image.Get()), GraphicsResourceUsage::Immutable, nullptr).Get());
    });
}
BENCHMARK(BM_Vulkan_UploadTexture64MiB)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Vulkan_UploadBuffer64MiB(benchmark::State& state)
{
    VulkanEngine engine;
    if (!engine.ok)
    {
        state.SkipWithError("no Vulkan device");
        return;
    }
    VertexElement element;
    element.Assign(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float4, 0, 0, GraphicsInputClass::PerVertex, 0);
    Ptr<VertexBuffer::Stream> stream = VertexBuffer::Stream::Create(&element, 1, uint32(kBigBytes / 16), true);
    memset(stream->GetPointer(0), 0x3C, kBigBytes);
    TimeUploads(state, [&] {
        return Ptr<GraphicsObject>(
            VertexBufferFactory::Get()->Create(stream, 0, GraphicsResourceUsage::Default, nullptr).Get());
    });
}
BENCHMARK(BM_Vulkan_UploadBuffer64MiB)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
