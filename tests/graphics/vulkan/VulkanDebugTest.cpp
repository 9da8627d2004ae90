#include <gtest/gtest.h>

#include <math.h>

#include "graphics/TextureDesc.h"
#include "graphics/vulkan/VulkanDebug.h"
#include "graphics/vulkan/VulkanResources.h"
#include "graphics/vulkan/VulkanTestSupport.h"
#include "kernel/TimeAnalyzer.h"
#include "reflection/EngineEnums.h"

using namespace KovexEngine;
using KovexTest::VulkanEngine;

namespace {
TextureDesc Desc(uint32 width, uint32 height, GraphicsFormat format, uint32 viewFlags = TextureViewFlags::SHADER_RESOURCE)
{
    TextureDesc desc;
    desc.Width = width;
    desc.Height = height;
    desc.Format = uint32(format.GetVal());
    desc.ViewFlags = viewFlags;
    desc.Dimension = TextureDimension::_2D;
    return desc;
}
} // namespace

TEST(VulkanDebugNames, TexturesAreNamedByPathElseKindSizeAndFormat)
{
    EXPECT_EQ(VulkanTextureName(Desc(256, 256, GraphicsFormat::R8G8B8A8_UNORM), WString()),
              "Texture 256x256 R8G8B8A8_UNORM");
    EXPECT_EQ(VulkanTextureName(Desc(256, 256, GraphicsFormat::BC1_UNORM), WString(u"Textures/stone\u00e9.dds")),
              "Textures/stone\xc3\xa9.dds");
    EXPECT_EQ(VulkanTextureName(Desc(640, 360, GraphicsFormat::R16G16B16A16_FLOAT, TextureViewFlags::RENDER_TARGET),
                                WString()),
              "Render target 640x360 R16G16B16A16_FLOAT");
    EXPECT_EQ(VulkanTextureName(Desc(64, 32, GraphicsFormat::D32_FLOAT, TextureViewFlags::DEPTH_STENCIL), WString()),
              "Depth target 64x32 D32_FLOAT");
    TextureDesc cube = Desc(64, 64, GraphicsFormat::R8G8B8A8_UNORM);
    cube.Dimension = TextureDimension::Cube;
    cube.ArraySize = 6;
    EXPECT_EQ(VulkanTextureName(cube, WString()), "Cube texture 64x64 R8G8B8A8_UNORM [6]");
    TextureDesc volume = Desc(8, 8, GraphicsFormat::R8_UNORM);
    volume.Dimension = TextureDimension::_3D;
    volume.Depth = 4;
    EXPECT_EQ(VulkanTextureName(volume, WString()), "Texture 8x8x4 R8_UNORM");
    TextureDesc odd = Desc(4, 4, GraphicsFormat::R8_UNORM);
    odd.Format = 9999;
    EXPECT_EQ(VulkanTextureName(odd, WString()), "Texture 4x4 Format 9999");
}

TEST(VulkanDebugNames, BuffersAndMemoryBlocksAreNamedByUseAndSize)
{
    EXPECT_EQ(VulkanBufferName(VK_BUFFER_USAGE_VERTEX_BUFFER_BIT | VK_BUFFER_USAGE_TRANSFER_DST_BIT, 1024, 1),
              "Vertex buffer 1024 bytes");
    EXPECT_EQ(VulkanBufferName(VK_BUFFER_USAGE_INDEX_BUFFER_BIT, 6, 1), "Index buffer 6 bytes");
    EXPECT_EQ(VulkanBufferName(VK_BUFFER_USAGE_UNIFORM_BUFFER_BIT, 256, 3), "Constant buffer 256 bytes x3");
    EXPECT_EQ(VulkanBufferName(VK_BUFFER_USAGE_STORAGE_BUFFER_BIT, 64, 1), "Read-write buffer 64 bytes");
    EXPECT_EQ(VulkanBufferName(VK_BUFFER_USAGE_TRANSFER_SRC_BIT, 8, 1), "Buffer 8 bytes");
    EXPECT_EQ(VulkanMemoryBlockName(64ull << 20, 2, false), "Memory block 64 MiB type 2");
    EXPECT_EQ(VulkanMemoryBlockName(4096, 7, true), "Memory block 4096 bytes type 7, mapped");
}

TEST(VulkanDebugNames, LabelTextIsUtf8AndColourIsArgb)
{
    EXPECT_EQ(VulkanUtf8(u"Shadow pass"), "Shadow pass");
    EXPECT_EQ(VulkanUtf8(u"\u00fc\u20ac\U0001F600"), "\xc3\xbc\xe2\x82\xac\xf0\x9f\x98\x80");
    const char16_t lone[] = {u'a', 0xD800, u'b', 0};
    EXPECT_EQ(VulkanUtf8(lone), "a\xef\xbf\xbd" "b") << "an unpaired surrogate";
    EXPECT_EQ(VulkanUtf8(nullptr), "");
    float color[4];
    VulkanLabelColor(0x80FF4000u, color);
    EXPECT_FLOAT_EQ(color[0], 1.0f);
    EXPECT_FLOAT_EQ(color[1], 64.0f / 255.0f);
    EXPECT_FLOAT_EQ(color[2], 0.0f);
    EXPECT_FLOAT_EQ(color[3], 128.0f / 255.0f);
}

// Names and labels go through the layer, which checks every call: the
// fixture fails on any validation error or warning. Strays and leftovers
// must leave each command buffer balanced.
TEST(VulkanDebugLabels, NamesAndUnbalancedEventsStayValid)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    VulkanEngine engine(32, 16);
    ASSERT_TRUE(engine.IsOpen());
    VulkanRenderer& r = engine.Renderer();
    EXPECT_TRUE(r.GetDevice().GetDebug().IsEnabled()) << "validation implies VK_EXT_debug_utils";

    Ptr<Texture> target = TextureFactory::Get()->Create2DRT(16, 16, GraphicsFormat::R8G8B8A8_UNORM);
    ASSERT_TRUE(target);
    auto* vk = static_cast<VulkanTexture*>(target.Get());
    EXPECT_EQ(vk->GetDebugName(), "Render target 16x16 R8G8B8A8_UNORM");
    vk->SetDebugName("Bloom target");
    EXPECT_EQ(vk->GetDebugName(), "Bloom target");

    for (int frame = 0; frame < 3; ++frame)
    {
        r.BeginFrame();
        r.EndPerfEvent(); // stray, before the frame records anything
        r.SetMarker(0xFFFF0000u, u"Clear");
        r.ClearSingle(target.Get(), Vector4(1, 0, 0, 1));
        r.EndPerfEvent(); // stray, while it records
        EXPECT_EQ(r.GetOpenPerfEvents(), 0u);
        r.BeginPerfEvent(0xFF00FF00u, u"Frame \u00e9");
        r.BeginPerfEvent(0xFF0000FFu, u"Left open"); // closed at submission
        r.BeginPerfEvent(0xFF0000FFu, u"Nested");
        r.EndPerfEvent();
        EXPECT_EQ(r.GetOpenPerfEvents(), 2u);
        r.EndFrame();
        r.Present();
        EXPECT_EQ(r.GetOpenPerfEvents(), 0u) << "submission closes what was left open";
        r.EndPerfEvent(); // its Begin went with the last frame
        EXPECT_EQ(r.GetOpenPerfEvents(), 0u);
    }
    r.EnablePerf(false);
    r.BeginFrame();
    r.BeginPerfEvent(0xFFFFFFFFu, u"Off");
    EXPECT_EQ(r.GetOpenPerfEvents(), 0u) << "switched off";
    r.EndPerfEvent();
    r.EndFrame();
    r.Present();
    r.EnablePerf(true);
    std::vector<uint8> pixels;
    EXPECT_TRUE(r.ReadTexture(target.Get(), 0, 0, pixels));
    ASSERT_EQ(pixels.size(), 16u * 16u * 4u);
    EXPECT_EQ(pixels[0], 255) << "labels change nothing that is drawn";
}

// A plausibility check only: the GPU frame time is positive and finite once
// frames have completed, and reaches the profiler.
TEST(VulkanGpuTimestamps, FrameTimeIsPositiveAndReachesTheProfiler)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    VulkanEngine engine(64, 32);
    ASSERT_TRUE(engine.IsOpen());
    VulkanRenderer& r = engine.Renderer();
    g_TimeAnalyzer.Clear();
    EXPECT_EQ(r.GetGpuFrameTime(), 0.0);
    for (int frame = 0; frame < 6; ++frame)
    {
        r.BeginFrame();
        r.Clear(GraphicsClearMode::TargetDepthStencil, Vector4(0.2f, 0.4f, float(frame) / 6.0f, 1.0f), 1.0f, 0);
        r.EndFrame();
        r.Present();
    }
    TimeAnalyzer::Entry entry;
    if (r.GetDevice().GetTimestampBits() == 0)
    {
        EXPECT_EQ(r.GetGpuFrameTime(), 0.0);
        EXPECT_FALSE(g_TimeAnalyzer.GetEntry(VulkanRenderer::kGpuFrameSection, entry));
        return;
    }
    const double ms = r.GetGpuFrameTime();
    EXPECT_GT(ms, 0.0);
    EXPECT_TRUE(isfinite(ms));
    EXPECT_LT(ms, 60000.0);
    ASSERT_TRUE(g_TimeAnalyzer.GetEntry(VulkanRenderer::kGpuFrameSection, entry));
    // Frames are read back only once their fence has signalled: of six
    // submitted, the last ones in flight may not have been read yet.
    EXPECT_GE(entry.calls, 6u - VulkanRenderer::kFramesInFlight);
    EXPECT_LE(entry.calls, 6u);
    EXPECT_TRUE(entry.name == "GPU Frame");
    g_TimeAnalyzer.Clear();
}

// Each perf event's GPU span reaches the profiler under "GPU <name>", one
// section per name, nested and left-open events included; a frame times at
// most kMaxTimedEvents of them, and none while perf is switched off.
TEST(VulkanGpuTimestamps, PerfEventsReachTheProfilerByName)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    VulkanEngine engine(32, 16);
    ASSERT_TRUE(engine.IsOpen());
    VulkanRenderer& r = engine.Renderer();
    if (r.GetDevice().GetTimestampBits() == 0)
        GTEST_SKIP() << "the queue has no timestamps";
    g_TimeAnalyzer.Clear();
    EXPECT_EQ(r.GetGpuEventSection(u"Shadows"), -1);
    for (int frame = 0; frame < 4; ++frame)
    {
        r.BeginFrame();
        r.BeginPerfEvent(0, u"Shadows");
        r.Clear(GraphicsClearMode::TargetDepthStencil, Vector4(0, 0, 0, 1), 1.0f, 0);
        r.EndPerfEvent();
        r.BeginPerfEvent(0, u"Post");
        r.BeginPerfEvent(0, u"Blur"); // both closed by the submission
        r.Clear(GraphicsClearMode::Target, Vector4(1, 0, 0, 1), 1.0f, 0);
        r.EndFrame();
        r.Present();
    }
    r.EnablePerf(false);
    r.BeginPerfEvent(0, u"Shadows");
    r.Clear(GraphicsClearMode::Target, Vector4(1, 0, 0, 1), 1.0f, 0);
    r.EndPerfEvent();
    r.Present();
    r.EnablePerf(true);
    for (uint32 i = 0; i < VulkanRenderer::kMaxTimedEvents + 8; ++i)
    {
        r.BeginPerfEvent(0, u"Many");
        r.EndPerfEvent();
    }
    ASSERT_TRUE(r.SubmitFrame(true));

    const int shadows = r.GetGpuEventSection(u"Shadows");
    const int post = r.GetGpuEventSection(u"Post");
    const int blur = r.GetGpuEventSection(u"Blur");
    EXPECT_EQ(shadows, VulkanRenderer::kGpuEventSectionBase);
    EXPECT_EQ(post, shadows + 1);
    EXPECT_EQ(blur, shadows + 2);
    TimeAnalyzer::Entry entry;
    for (int section : {shadows, post, blur})
    {
        ASSERT_TRUE(g_TimeAnalyzer.GetEntry(section, entry)) << section;
        EXPECT_EQ(entry.calls, 4u) << entry.name.c_str();
        EXPECT_GE(entry.totalTicks, 0);
    }
    EXPECT_TRUE(entry.name == "GPU Blur");
    ASSERT_TRUE(g_TimeAnalyzer.GetEntry(r.GetGpuEventSection(u"Many"), entry));
    EXPECT_EQ(entry.calls, VulkanRenderer::kMaxTimedEvents);
    g_TimeAnalyzer.Clear();
}
