// Targets beyond one plain draw: multisampling, the UNORM colour rule, the
// scissor box, groups that clear when applied, read-write clears, mapped
// dynamic textures and the lost-device state.

#include <gtest/gtest.h>

#include <string.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "graphics/GraphicsThread.h"
#include "graphics/RWBuffer.h"
#include "graphics/VertexBuffer.h"
#include "graphics/vulkan/VulkanTestSupport.h"
#include "support/LogCapture.h"

#ifdef KOVEX_TEST_SHADERS
#include "triangle.frag.h"
#include "triangle.vert.h"
#endif

using namespace KovexEngine;
using KovexTest::VulkanEngine;

namespace {

constexpr uint32 kW = 48, kH = 32;

// Lines of the log that are exactly `text`.
uint32 CountLines(KovexTest::LogCapture& log, const char16_t* text)
{
    uint32 n = 0;
    for (const auto& entry : log->entries)
        n += entry.text == text;
    return n;
}

uint32 CountPartial(KovexTest::LogCapture& log, const char16_t* part)
{
    uint32 n = 0;
    for (const auto& entry : log->entries)
        n += entry.text.IndexOf(part) != kNotFound;
    return n;
}

#ifdef KOVEX_TEST_SHADERS

// Triangles of position (x, y, z) and colour (r, g, b, a), drawn by the
// pass-through test shaders.
Ptr<VertexBuffer> MakeVertices(const float* data, uint32 vertices)
{
    VertexElement elements[2];
    elements[0].Assign(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3, 0, 0,
                       GraphicsInputClass::PerVertex, 0);
    elements[1].Assign(GraphicsSemantic::Color, 0, GraphicsLayoutFormat::Float4, 0, 12, GraphicsInputClass::PerVertex,
                       0);
    Ptr<VertexBuffer::Stream> stream = VertexBuffer::Stream::Create(elements, 2, vertices, true);
    if (!stream)
        return Ptr<VertexBuffer>();
    memcpy(stream->GetPointer(0), data, vertices * 7 * sizeof(float));
    return VertexBufferFactory::Get()->Create(stream, 0, GraphicsResourceUsage::Immutable, nullptr);
}

// Two triangles over the whole target in one colour.
Ptr<VertexBuffer> FullScreen(float r, float g, float b, float a)
{
    const float corners[4][2] = {{-1, -1}, {-1, 1}, {1, 1}, {1, -1}};
    const int order[6] = {0, 1, 2, 0, 2, 3};
    float data[6 * 7];
    for (int i = 0; i < 6; ++i)
    {
        const float v[7] = {corners[order[i]][0], corners[order[i]][1], 0.5f, r, g, b, a};
        memcpy(data + 7 * i, v, sizeof(v));
    }
    return MakeVertices(data, 6);
}

// The engine on Vulkan with the pass-through stages, `samples` per pixel.
class Drawing
{
public:
    explicit Drawing(uint32 samples = 0) : engine(kW, kH, false, 0, samples)
    {
        if (!engine.IsOpen() || !engine.Renderer().GetDevice().GetBeginRendering())
            return;
        vs = engine.Renderer().CreateShaderModule(kTriangleVS, sizeof(kTriangleVS));
        ps = engine.Renderer().CreateShaderModule(kTrianglePS, sizeof(kTrianglePS));
    }
    ~Drawing()
    {
        if (engine.IsOpen())
        {
            engine.Renderer().DestroyShaderModule(vs);
            engine.Renderer().DestroyShaderModule(ps);
        }
    }
    bool CanDraw() const { return vs && ps; }
    bool Draw(VertexBuffer* buffer, uint32 count)
    {
        return engine.Renderer().DrawVertices(vs, ps, buffer, count, GraphicsTopology::TriangleList);
    }
    // Channel 0 of each pixel of render target 0.
    std::vector<uint8> Red(uint32 stride = 4)
    {
        std::vector<uint8> bytes, red;
        if (engine.Renderer().ReadTexture(engine.Renderer().GetRenderTarget(0).Get(), 0, 0, bytes))
            for (size_t i = 0; i < bytes.size(); i += stride)
                red.push_back(bytes[i]);
        return red;
    }

    VulkanEngine engine;
    VkShaderModule vs = VK_NULL_HANDLE, ps = VK_NULL_HANDLE;
};

#define KOVEX_SKIP_WITHOUT_DRAWING(d)                                                                                \
    do                                                                                                               \
    {                                                                                                                \
        ASSERT_TRUE((d).engine.IsOpen());                                                                            \
        if (!(d).CanDraw())                                                                                          \
            GTEST_SKIP() << "the device cannot draw";                                                                \
    } while (0)

// A white triangle with slanted edges on black; the pixels of render
// target 0 that are neither black nor white.
uint32 BlendedEdgePixels(Drawing& d)
{
    const float v[3 * 7] = {-0.8f, -0.7f, 0.5f, 1, 1, 1, 1, //
                            -0.1f, 0.9f,  0.5f, 1, 1, 1, 1, //
                            0.85f, -0.3f, 0.5f, 1, 1, 1, 1};
    Ptr<VertexBuffer> buffer = MakeVertices(v, 3);
    VulkanRenderer& r = d.engine.Renderer();
    r.CommitState(RasterizerStateFactory::Get()->GetTwoSideState().Get());
    r.BeginFrame();
    r.Clear(GraphicsClearMode::TargetDepthStencil, Vector4(0, 0, 0, 1), 1.0f, 0);
    EXPECT_TRUE(d.Draw(buffer.Get(), 3));
    r.EndFrame();
    r.Present();
    uint32 blended = 0, white = 0;
    for (uint8 red : d.Red())
    {
        blended += red != 0 && red != 255;
        white += red == 255;
    }
    EXPECT_GT(white, 200u) << "the triangle's inside is drawn";
    return blended;
}

#endif

} // namespace

#ifdef KOVEX_TEST_SHADERS

// Four samples resolve into intermediate values along the edges; one sample
// never gives any. A count the device lacks takes the highest one below it.
TEST(VulkanMultisample, EdgesBlendAfterTheResolveOnlyWithSamples)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    uint32 four = 0;
    {
        Drawing single;
        KOVEX_SKIP_WITHOUT_DRAWING(single);
        EXPECT_EQ(single.engine.Renderer().GetSampleCount(), 1u);
        EXPECT_EQ(BlendedEdgePixels(single), 0u);
        four = single.engine.Renderer().SupportedSampleCount(4);
    }
    if (four != 4)
        GTEST_SKIP() << "the device has no 4 samples per pixel";
    {
        Drawing multi(4);
        KOVEX_SKIP_WITHOUT_DRAWING(multi);
        VulkanRenderer& r = multi.engine.Renderer();
        EXPECT_EQ(r.GetSampleCount(), 4u);
        EXPECT_GT(BlendedEdgePixels(multi), 20u);
        // A clear reaches the samples too: a later draw that covers nothing
        // still resolves the whole target, and finds only the clear there.
        r.Clear(GraphicsClearMode::TargetDepthStencil, Vector4(0, 0, 0, 1), 1.0f, 0);
        const float outside[3 * 7] = {2.0f, 2.0f, 0.5f, 1, 1, 1, 1, //
                                      3.0f, 2.0f, 0.5f, 1, 1, 1, 1, //
                                      2.0f, 3.0f, 0.5f, 1, 1, 1, 1};
        Ptr<VertexBuffer> nothing = MakeVertices(outside, 3);
        ASSERT_TRUE(multi.Draw(nothing.Get(), 3));
        r.Present();
        for (uint8 red : multi.Red())
            ASSERT_EQ(red, 0);
        // The multisampled depth buffer is not read back: a line, no copy.
        KovexTest::LogCapture log;
        std::vector<uint8> bytes;
        EXPECT_FALSE(r.ReadTexture(r.GetDepthBuffer().Get(), 0, 0, bytes));
        EXPECT_TRUE(log->Contains(u"Vulkan: a multisampled depth buffer cannot be read back.\n"));
        // A target of one sample beside the four-sample depth buffer is refused.
        Ptr<Texture> plain = Texture::Create2DRT(kW, kH, GraphicsFormat::R8G8B8A8_UNORM);
        RenderTargetGroup group = r.GetCurrentRTGroup();
        group.SetRenderTarget(0, plain, 0);
        r.SetRTGroup(group);
        EXPECT_FALSE(multi.Draw(nothing.Get(), 3));
        EXPECT_TRUE(log->Contains(u"Vulkan: a draw into targets of 1 and 4 samples.\n"));
    }
    {
        KovexTest::LogCapture log;
        Drawing tooMany(64);
        ASSERT_TRUE(tooMany.engine.IsOpen());
        const uint32 got = tooMany.engine.Renderer().GetSampleCount();
        EXPECT_EQ(got, tooMany.engine.Renderer().SupportedSampleCount(64));
        if (got != 64)
        {
            const std::string number = std::to_string(got);
            const std::u16string line = u"Vulkan: 64 samples per pixel are not supported here; using " +
                                        std::u16string(number.begin(), number.end()) + u".\n";
            EXPECT_TRUE(log->Contains(line.c_str()));
        }
    }
}

// No sRGB formats: a shader's 0.5 is stored as 128 in UNORM targets of
// either channel order, and a texture's bytes come back as they were put.
TEST(VulkanColour, UnormTargetsStoreWhatTheShaderWrites)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    Drawing d;
    KOVEX_SKIP_WITHOUT_DRAWING(d);
    VulkanRenderer& r = d.engine.Renderer();
    Ptr<VertexBuffer> half = FullScreen(0.5f, 0.25f, 0.75f, 1.0f);
    for (GraphicsFormat format : {GraphicsFormat::R8G8B8A8_UNORM, GraphicsFormat::B8G8R8A8_UNORM})
    {
        Ptr<Texture> target = Texture::Create2DRT(kW, kH, format);
        ASSERT_TRUE(target && target->IsCreated());
        RenderTargetGroup group;
        group.SetRenderTarget(0, target, 0);
        r.SetRTGroup(group);
        r.SetViewport(kW, kH);
        r.CommitState(RasterizerStateFactory::Get()->GetTwoSideState().Get());
        ASSERT_TRUE(d.Draw(half.Get(), 6));
        std::vector<uint8> bytes;
        ASSERT_TRUE(r.ReadTexture(target.Get(), 0, 0, bytes));
        const bool bgra = format == GraphicsFormat::B8G8R8A8_UNORM;
        const int red = bytes[bgra ? 2 : 0], green = bytes[1], blue = bytes[bgra ? 0 : 2];
        EXPECT_NEAR(red, 128, 1) << "format " << int(format);
        EXPECT_NEAR(green, 64, 1);
        EXPECT_NEAR(blue, 191, 1);
    }
}

// The box cuts draws only while the rasterizer state enables it; an empty
// box draws nothing.
TEST(VulkanScissor, TheBoxCutsDrawsWhileTheStateEnablesIt)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    Drawing d;
    KOVEX_SKIP_WITHOUT_DRAWING(d);
    VulkanRenderer& r = d.engine.Renderer();
    Ptr<VertexBuffer> white = FullScreen(1, 1, 1, 1);
    RasterizerStateDesc desc;
    desc.CullMode = GraphicsCullMode::None;
    desc.ScissorEnable = true;
    Ptr<RasterizerState> scissored = RasterizerStateFactory::Get()->Create(desc);
    const Rect box(8, 4, 40, 20);
    auto drawWith = [&](RasterizerState* state, const Rect& rect) {
        r.BeginFrame();
        r.Clear(GraphicsClearMode::TargetDepthStencil, Vector4(0, 0, 0, 1), 1.0f, 0);
        r.CommitState(state);
        r.SetScissorRect(rect);
        EXPECT_TRUE(d.Draw(white.Get(), 6));
        r.EndFrame();
        r.Present();
        return d.Red();
    };
    std::vector<uint8> red = drawWith(scissored.Get(), box);
    ASSERT_EQ(red.size(), size_t(kW * kH));
    for (uint32 y = 0; y < kH; ++y)
        for (uint32 x = 0; x < kW; ++x)
        {
            const bool inside = int32(x) >= box.left && int32(x) < box.right && int32(y) >= box.top &&
                                int32(y) < box.bottom;
            ASSERT_EQ(red[y * kW + x], inside ? 255 : 0) << x << ", " << y;
        }
    EXPECT_EQ(r.GetScissorRect(), box);

    // Without the enable the same box is ignored.
    red = drawWith(RasterizerStateFactory::Get()->GetTwoSideState().Get(), box);
    for (uint8 v : red)
        ASSERT_EQ(v, 255);
    // A box beyond the target is clamped to it; an inverted one is empty.
    red = drawWith(scissored.Get(), Rect(-5, -5, 1000, 1000));
    for (uint8 v : red)
        ASSERT_EQ(v, 255);
    red = drawWith(scissored.Get(), Rect(30, 10, 20, 30));
    for (uint8 v : red)
        ASSERT_EQ(v, 0);
}

#endif

// A group applied with ClearOnApply starts empty (colour 0, depth 1) at the
// slices it names; the same group without the flag keeps what was there.
TEST(VulkanTargets, AGroupWithClearOnApplyClearsItsTargets)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    VulkanEngine engine(8, 8);
    ASSERT_TRUE(engine.IsOpen());
    VulkanRenderer& r = engine.Renderer();
    TextureDesc desc = TextureFactory::Make2DDesc(8, 8, GraphicsFormat::R8G8B8A8_UNORM,
                                                  TextureViewFlags::SHADER_RESOURCE | TextureViewFlags::RENDER_TARGET);
    desc.ArraySize = 2;
    Ptr<Texture> colour = Texture::Create(desc, GraphicsResourceUsage::Default);
    Ptr<Texture> depth = Texture::Create2DDepth(8, 8, GraphicsFormat::D32_FLOAT);
    ASSERT_TRUE(colour && colour->IsCreated() && depth && depth->IsCreated());
    r.ClearSingle(colour.Get(), Vector4(1, 0.5f, 0.25f, 1));
    r.ClearSingle(depth.Get(), Vector4(0.25f, 0, 0, 0));
    RenderTargetGroup group;
    group.SetRenderTarget(0, colour, 1);
    group.SetDepthStencil(depth, 0);
    r.SetRTGroup(group);
    std::vector<uint8> bytes;
    ASSERT_TRUE(r.ReadTexture(colour.Get(), 1, 0, bytes));
    EXPECT_EQ(bytes[0], 255) << "no flag, no clear";

    group.ClearOnApply = true;
    r.SetRTGroup(group);
    ASSERT_TRUE(r.ReadTexture(colour.Get(), 1, 0, bytes));
    for (uint8 b : bytes)
        ASSERT_EQ(b, 0);
    ASSERT_TRUE(r.ReadTexture(colour.Get(), 0, 0, bytes));
    EXPECT_EQ(bytes[0], 255) << "slice 0 is not in the group";
    ASSERT_TRUE(r.ReadTexture(depth.Get(), 0, 0, bytes));
    float first = 0;
    memcpy(&first, bytes.data(), 4);
    EXPECT_EQ(first, 1.0f);
}

// Every word of a read-write buffer takes the value, as often as it is
// cleared; a resource that is neither is ignored.
TEST(VulkanTargets, ClearUAVFillsReadWriteBuffers)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    VulkanEngine engine;
    ASSERT_TRUE(engine.IsOpen());
    VulkanRenderer& r = engine.Renderer();
    Ptr<RWBuffer> rw =
        RWBufferFactory::Get()->Create(GraphicsFormat::R32_UINT, 37, 8, 0, GraphicsResourceUsage::Default, true);
    ASSERT_TRUE(rw && rw->IsCreated());
    std::vector<uint8> bytes;
    for (uint32 value : {0xdeadbeefu, 0x01020304u})
    {
        r.ClearUAV(rw.Get(), 0, value);
        ASSERT_TRUE(r.ReadBuffer(rw.Get(), bytes));
        ASSERT_EQ(bytes.size(), 37u * 4);
        for (size_t i = 0; i < bytes.size(); i += 4)
        {
            uint32 word = 0;
            memcpy(&word, &bytes[i], 4);
            ASSERT_EQ(word, value) << "word " << i / 4;
        }
    }
    r.ClearUAV(nullptr, 0, 1);
}

// A dynamic texture maps with WriteDiscard inside a frame without ending it
// (a perf event opened before stays open), and reads back what was written,
// map after map; other maps of it are refused with a line.
TEST(VulkanTargets, DynamicTexturesMapThroughTheFrame)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    VulkanEngine engine;
    ASSERT_TRUE(engine.IsOpen());
    VulkanRenderer& r = engine.Renderer();
    TextureDesc desc = TextureFactory::Make2DDesc(5, 3, GraphicsFormat::R8G8B8A8_UNORM,
                                                  TextureViewFlags::SHADER_RESOURCE);
    desc.MipLevels = 2;
    Ptr<Texture> texture = Texture::Create(desc, GraphicsResourceUsage::Dynamic);
    ASSERT_TRUE(texture && texture->IsCreated());
    const bool labels = r.GetDevice().GetDebug().IsEnabled();
    for (uint8 seed : {uint8(7), uint8(91)})
    {
        for (uint32 mip = 0; mip < 2; ++mip)
        {
            r.BeginPerfEvent(0, u"map");
            MappedSubresource mapped;
            ASSERT_TRUE(texture->Map(mapped, MapType::WriteDiscard, mip));
            const uint32 width = desc.GetMipWidth(mip), height = desc.GetMipHeight(mip);
            ASSERT_EQ(mapped.RowPitch, width * 4);
            for (uint32 y = 0; y < height; ++y)
                for (uint32 x = 0; x < width * 4; ++x)
                    static_cast<uint8*>(mapped.pData)[y * mapped.RowPitch + x] = uint8(seed + mip * 50 + y * 20 + x);
            texture->Unmap(mip);
            if (labels)
                EXPECT_EQ(r.GetOpenPerfEvents(), 1u) << "mapping did not submit the frame";
            r.EndPerfEvent();
        }
        for (uint32 mip = 0; mip < 2; ++mip)
        {
            std::vector<uint8> bytes;
            ASSERT_TRUE(r.ReadTexture(texture.Get(), 0, mip, bytes));
            const uint32 width = desc.GetMipWidth(mip);
            ASSERT_EQ(bytes.size(), size_t(width * 4 * desc.GetMipHeight(mip)));
            for (size_t i = 0; i < bytes.size(); ++i)
                ASSERT_EQ(bytes[i], uint8(seed + mip * 50 + (i / (width * 4)) * 20 + i % (width * 4)))
                    << "mip " << mip << " byte " << i;
        }
    }
    KovexTest::LogCapture log;
    MappedSubresource mapped;
    EXPECT_FALSE(texture->Map(mapped, MapType::Write, 0));
    EXPECT_TRUE(log->Contains(u"Vulkan: a texture in device memory maps only as a dynamic one, with WriteDiscard.\n"));
    ASSERT_TRUE(texture->Map(mapped, MapType::WriteDiscard, 0));
    texture->Unmap(0);
}

// A loss reported by a submission runs the lost delegates once and logs
// once; recording, submitting and reading back then fail with one line for
// each kind however often they are tried; Reset brings the device back.
TEST(VulkanDeviceLost, ALossIsToldOnceAndResetRecovers)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    VulkanEngine engine(16, 8);
    ASSERT_TRUE(engine.IsOpen());
    VulkanRenderer& r = engine.Renderer();
    int lost = 0, reset = 0;
    r.RegisterDeviceLostDelegate(&lost, [&lost] { ++lost; });
    r.RegisterDeviceResetDelegate(&reset, [&reset] { ++reset; });
    KovexTest::LogCapture log;
    r.SimulateDeviceLostForTest();
    r.Clear(GraphicsClearMode::Target, Vector4(1, 0, 0, 1), 1.0f, 0);
    r.Present();
    EXPECT_TRUE(r.IsDeviceLost());
    EXPECT_EQ(lost, 1);
    EXPECT_EQ(CountLines(log, u"Vulkan: the device is lost; nothing is drawn until the renderer is reset.\n"), 1u);

    std::vector<uint8> bytes;
    for (int i = 0; i < 3; ++i)
    {
        r.Clear(GraphicsClearMode::Target, Vector4(0, 1, 0, 1), 1.0f, 0);
        r.Present();
        EXPECT_FALSE(r.ReadTexture(r.GetRenderTarget(0).Get(), 0, 0, bytes));
        EXPECT_TRUE(bytes.empty());
    }
    EXPECT_EQ(lost, 1) << "the delegates ran once";
    EXPECT_EQ(CountLines(log, u"Vulkan: recording refused: the device is lost.\n"), 1u);
    EXPECT_EQ(CountLines(log, u"Vulkan: submitting refused: the device is lost.\n"), 1u);
    EXPECT_EQ(CountLines(log, u"Vulkan: reading back refused: the device is lost.\n"), 1u);
    EXPECT_EQ(CountPartial(log, u"the device is lost"), 4u) << "nothing else said it";

    // The application resets: frames draw and read back again.
    ASSERT_TRUE(r.Reset(r.GetParamters()));
    EXPECT_FALSE(r.IsDeviceLost());
    EXPECT_EQ(reset, 1);
    r.BeginFrame();
    r.Clear(GraphicsClearMode::Target, Vector4(0, 0, 1, 1), 1.0f, 0);
    r.Present();
    ASSERT_TRUE(r.ReadTexture(r.GetRenderTarget(0).Get(), 0, 0, bytes));
    ASSERT_EQ(bytes.size(), 16u * 8 * 4);
    EXPECT_EQ(bytes[2], 255);
    EXPECT_EQ(bytes[0], 0);
    // A second loss is told again.
    r.SimulateDeviceLostForTest();
    r.Clear(GraphicsClearMode::Target, Vector4(1, 0, 0, 1), 1.0f, 0);
    r.Present();
    EXPECT_EQ(lost, 3) << "once by the Reset, once by the second loss";
    r.UnregisterDeviceLostDelegate(&lost);
    r.UnregisterDeviceResetDelegate(&reset);
}

// Destroying a renderer whose device is lost neither hangs nor fails.
TEST(VulkanDeviceLost, ALostRendererIsDestroyedCleanly)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    KovexTest::LogCapture log;
    {
        VulkanEngine engine(16, 8);
        ASSERT_TRUE(engine.IsOpen());
        Ptr<Texture> extra = Texture::Create2DRT(4, 4, GraphicsFormat::R8G8B8A8_UNORM);
        engine.Renderer().SimulateDeviceLostForTest();
        engine.Renderer().ClearSingle(extra.Get(), Vector4(1, 1, 1, 1));
        engine.Renderer().Present();
        EXPECT_TRUE(engine.Renderer().IsDeviceLost());
        engine.Renderer().ClearSingle(extra.Get(), Vector4(0, 0, 0, 1));
    }
    EXPECT_EQ(CountLines(log, u"Vulkan: recording refused: the device is lost.\n"), 1u);
}

// With the graphics thread running the frames (perf events, a dynamic map,
// a read-write clear, a simulated loss and the reset after it), a worker
// makes and drops dynamic textures and read-write buffers and asks for the
// events' profiler section meanwhile. Bounded: 16 frames, 60 s at most.
TEST(VulkanThreads, TimedEventsMapsAndALossOnTheGraphicsThread)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    VulkanEngine engine(16, 8, true);
    ASSERT_TRUE(engine.IsOpen());
    GraphicsThread* thread = GraphicsThread::Ins();
    ASSERT_TRUE(thread->IsStarted());
    VulkanRenderer& r = engine.Renderer();
    TextureDesc desc = TextureFactory::Make2DDesc(4, 4, GraphicsFormat::R8G8B8A8_UNORM,
                                                  TextureViewFlags::SHADER_RESOURCE);
    Ptr<Texture> mapped = Texture::Create(desc, GraphicsResourceUsage::Dynamic);
    Ptr<RWBuffer> rw =
        RWBufferFactory::Get()->Create(GraphicsFormat::R32_UINT, 16, 8, 0, GraphicsResourceUsage::Default, true);
    Kovex_FrameBegin(); // their device side
    Kovex_FrameEnd();
    ASSERT_TRUE(mapped->IsCreated() && rw->IsCreated());
    std::atomic<bool> stop{false};
    std::atomic<int> made{0}, sectionSeen{-1}, lostCalls{0};
    r.RegisterDeviceLostDelegate(&lostCalls, [&lostCalls] { lostCalls.fetch_add(1); });
    std::thread worker([&] {
        std::vector<Ptr<GraphicsResource>> held;
        while (!stop.load())
        {
            held.push_back(Ptr<GraphicsResource>(Texture::Create(desc, GraphicsResourceUsage::Dynamic).Get()));
            held.push_back(Ptr<GraphicsResource>(RWBufferFactory::Get()
                                                     ->Create(GraphicsFormat::R32_UINT, 8, 8, 0,
                                                              GraphicsResourceUsage::Default, true)
                                                     .Get()));
            if (held.size() > 8)
                held.erase(held.begin(), held.begin() + 2);
            const int section = r.GetGpuEventSection(u"Frame");
            if (section >= 0)
                sectionSeen = section;
            made.fetch_add(1);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    std::atomic<int> wrong{0};
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (int frame = 0; frame < 16 && std::chrono::steady_clock::now() < deadline; ++frame)
    {
        Kovex_FrameBegin();
        Ptr<KovexTest::FrameCommand> command(new KovexTest::FrameCommand());
        command->work = [&, frame] {
            if (frame == 8)
                r.SimulateDeviceLostForTest();
            if (frame == 10)
                r.Reset(r.GetParamters());
            r.BeginFrame();
            r.BeginPerfEvent(0, u"Frame");
            MappedSubresource out;
            if (mapped->Map(out, MapType::WriteDiscard, 0))
            {
                memset(out.pData, frame, 4 * 4 * 4);
                mapped->Unmap(0);
            }
            r.ClearUAV(rw.Get(), 0, uint32(frame));
            r.EndPerfEvent();
            r.EndFrame();
            r.Present();
            // Outside the lost frames what was written reads back.
            if (frame < 8 || frame >= 10)
            {
                std::vector<uint8> bytes;
                if (!r.ReadTexture(mapped.Get(), 0, 0, bytes) || bytes[5] != uint8(frame))
                    wrong.fetch_add(1);
                if (!r.ReadBuffer(rw.Get(), bytes) || bytes[4] != uint8(frame))
                    wrong.fetch_add(1);
            }
        };
        thread->MT_PostCommand(command.Get());
        Kovex_FrameEnd();
    }
    Kovex_FrameBegin();
    Kovex_FrameEnd();
    stop = true;
    worker.join();
    r.UnregisterDeviceLostDelegate(&lostCalls);
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(lostCalls.load(), 2) << "the loss and the reset";
    EXPECT_FALSE(r.IsDeviceLost());
    EXPECT_GT(made.load(), 0);
    EXPECT_EQ(sectionSeen.load(), VulkanRenderer::kGpuEventSectionBase);
}
