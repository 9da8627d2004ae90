#include <gtest/gtest.h>

#include <math.h>
#include <string.h>

#include <memory>

#include "graphics/IndexBuffer.h"
#include "graphics/VertexBuffer.h"
#include "graphics/vulkan/VulkanTestSupport.h"
#include "support/LogCapture.h"

#ifdef KOVEX_TEST_SHADERS
#include "triangle.frag.h"
#include "triangle.vert.h"
#endif

using namespace KovexEngine;

namespace {

struct Vertex
{
    float x, y, z;
    float r, g, b, a;
};

constexpr uint32 kWidth = 64, kHeight = 48;

// The pixels a triangle covers, by the pixel centres the CPU finds inside
// (y up in clip space, as drawn); centres within 0.05 pixel of an edge are
// left out of the comparison (0), inside is 1, outside 2.
std::vector<int> Coverage(const Vertex (&v)[3])
{
    float sx[3], sy[3];
    for (int i = 0; i < 3; ++i)
    {
        sx[i] = (v[i].x + 1.0f) * 0.5f * kWidth;
        sy[i] = (1.0f - v[i].y) * 0.5f * kHeight;
    }
    std::vector<int> cover(kWidth * kHeight);
    for (uint32 y = 0; y < kHeight; ++y)
        for (uint32 x = 0; x < kWidth; ++x)
        {
            const float px = x + 0.5f, py = y + 0.5f;
            bool inside = true, near = false;
            float sign = 0;
            for (int e = 0; e < 3; ++e)
            {
                const int a = e, b = (e + 1) % 3;
                const float ex = sx[b] - sx[a], ey = sy[b] - sy[a];
                const float edge = ex * (py - sy[a]) - ey * (px - sx[a]);
                const float distance = edge / sqrtf(ex * ex + ey * ey);
                near |= fabsf(distance) < 0.05f;
                if (sign == 0)
                    sign = edge > 0 ? 1.0f : -1.0f;
                inside &= edge * sign > 0;
            }
            cover[y * kWidth + x] = near ? 0 : inside ? 1 : 2;
        }
    return cover;
}

// The elements of Vertex: position, then colour.
void VertexLayout(VertexElement (&elements)[2])
{
    const GraphicsInputClass perVertex = GraphicsInputClass::PerVertex;
    elements[0].Assign(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3, 0, 0, perVertex, 0);
    elements[1].Assign(GraphicsSemantic::Color, 0, GraphicsLayoutFormat::Float4, 0, 12, perVertex, 0);
}

Ptr<VertexBuffer> MakeTriangle(const Vertex (&v)[3], bool dynamic = false)
{
    VertexElement elements[2];
    VertexLayout(elements);
    Ptr<VertexBuffer::Stream> stream =
        dynamic ? Ptr<VertexBuffer::Stream>(VertexBuffer::DynamicStream::Create(elements, 2, 3, true).Get())
                : VertexBuffer::Stream::Create(elements, 2, 3, true);
    if (!stream)
        return Ptr<VertexBuffer>();
    memcpy(stream->GetPointer(0), v, sizeof(v));
    return VertexBufferFactory::Get()->Create(
        stream, dynamic ? uint32(GraphicsResourceCpuAccess::Write) : 0u,
        dynamic ? GraphicsResourceUsage::Dynamic : GraphicsResourceUsage::Immutable, nullptr);
}

// Pixels of the read-back target that differ from the triangle's coverage
// in `drawn` over `clear`, edges and the `skip` coverage left out; the
// images are written side by side when any does.
int CountMismatches(const Ptr<Image>& image, const std::vector<int>& cover, const uint8 (&drawn)[4],
                    const std::vector<int>* skip, int* inside)
{
    Ptr<Image> expected(new Image());
    if (!image || !expected->Create(image->GetDesc()))
        return -1;
    const uint8 clear[4] = {0, 0, 0, 255};
    int mismatches = 0;
    for (uint32 i = 0; i < kWidth * kHeight; ++i)
    {
        uint8* want = expected->GetData() + 4 * i;
        memcpy(want, cover[i] == 1 ? drawn : clear, 4);
        if (cover[i] == 0 || (skip && (*skip)[i] != 2))
            continue;
        *inside += cover[i] == 1;
        mismatches += memcmp(image->GetData() + 4 * i, want, 4) != 0;
    }
    if (mismatches)
        ADD_FAILURE() << mismatches << " pixels differ from the CPU reference; images in "
                      << KovexTest::WriteSideBySide("triangle", image, expected);
    return mismatches;
}

} // namespace

#ifdef KOVEX_TEST_SHADERS

// The engine on Vulkan with the test's two shader stages.
class VulkanDraw : public ::testing::Test
{
protected:
    void SetUp() override
    {
        KOVEX_SKIP_WITHOUT_VULKAN();
        m_engine = std::make_unique<KovexTest::VulkanEngine>(kWidth, kHeight);
        ASSERT_TRUE(m_engine->IsOpen());
        if (!Renderer().GetDevice().GetBeginRendering())
            GTEST_SKIP() << "the device has no dynamic rendering";
        vs = Renderer().CreateShaderModule(kTriangleVS, sizeof(kTriangleVS));
        ps = Renderer().CreateShaderModule(kTrianglePS, sizeof(kTrianglePS));
        ASSERT_TRUE(vs && ps);
    }
    void TearDown() override
    {
        if (m_engine && m_engine->IsOpen())
        {
            Renderer().DestroyShaderModule(vs);
            Renderer().DestroyShaderModule(ps);
        }
        m_engine.reset();
    }
    VulkanRenderer& Renderer() { return m_engine->Renderer(); }

    VkShaderModule vs = VK_NULL_HANDLE, ps = VK_NULL_HANDLE;

private:
    std::unique_ptr<KovexTest::VulkanEngine> m_engine;
};

// A flat-coloured triangle drawn through a pipeline of the default states
// covers exactly the pixel centres the CPU finds inside it; the same
// triangle wound the other way is culled until the two-sided rasterizer
// state is committed; each state set makes one pipeline.
TEST_F(VulkanDraw, ATriangleCoversWhatTheCpuReferenceCovers)
{
    VulkanRenderer& r = Renderer();

    // Clockwise on screen: the front face of the default rasterizer state.
    const Vertex front[3] = {{-0.5f, -0.5f, 0.5f, 0.2f, 0.6f, 1.0f, 1.0f},
                             {0.0f, 0.75f, 0.5f, 0.2f, 0.6f, 1.0f, 1.0f},
                             {0.75f, -0.25f, 0.5f, 0.2f, 0.6f, 1.0f, 1.0f}};
    // Counter-clockwise, elsewhere, in another colour.
    const Vertex back[3] = {{-0.9f, 0.9f, 0.5f, 1.0f, 0.0f, 0.0f, 1.0f},
                            {-0.9f, 0.3f, 0.5f, 1.0f, 0.0f, 0.0f, 1.0f},
                            {-0.4f, 0.9f, 0.5f, 1.0f, 0.0f, 0.0f, 1.0f}};
    Ptr<VertexBuffer> frontBuffer = MakeTriangle(front);
    Ptr<VertexBuffer> backBuffer = MakeTriangle(back);
    ASSERT_TRUE(frontBuffer && frontBuffer->IsCreated() && backBuffer && backBuffer->IsCreated());

    r.BeginFrame();
    r.Clear(GraphicsClearMode::TargetDepthStencil, Vector4(0, 0, 0, 1), 1.0f, 0);
    ASSERT_TRUE(r.DrawVertices(vs, ps, frontBuffer.Get(), 3, GraphicsTopology::TriangleList));
    ASSERT_TRUE(r.DrawVertices(vs, ps, backBuffer.Get(), 3, GraphicsTopology::TriangleList));
    ASSERT_TRUE(r.DrawVertices(vs, ps, frontBuffer.Get(), 3, GraphicsTopology::TriangleList));
    EXPECT_EQ(r.GetPipelines().GetCount(), 1u) << "one state set, one pipeline";
    r.EndFrame();
    r.Present();

    Ptr<Image> image = KovexTest::ReadBack(r.GetRenderTarget(0).Get());
    ASSERT_TRUE(image);
    const std::vector<int> coverFront = Coverage(front);
    const std::vector<int> coverBack = Coverage(back);
    const uint8 blue[4] = {51, 153, 255, 255};
    int inside = 0;
    // Where the culled triangle would be is checked below.
    EXPECT_EQ(CountMismatches(image, coverFront, blue, &coverBack, &inside), 0);
    EXPECT_GT(inside, 300);
    for (uint32 i = 0; i < kWidth * kHeight; ++i)
        if (coverBack[i] == 1)
            EXPECT_EQ(image->GetData()[4 * i], 0) << "the back face was culled, pixel " << i;

    // Two-sided: the other winding draws too, with a pipeline of its own.
    r.CommitState(RasterizerStateFactory::Get()->GetTwoSideState().Get());
    ASSERT_TRUE(r.DrawVertices(vs, ps, backBuffer.Get(), 3, GraphicsTopology::TriangleList));
    r.Present();
    EXPECT_EQ(r.GetPipelines().GetCount(), 2u);
    image = KovexTest::ReadBack(r.GetRenderTarget(0).Get());
    ASSERT_TRUE(image);
    int red = 0;
    for (uint32 i = 0; i < kWidth * kHeight; ++i)
        if (coverBack[i] == 1)
        {
            ++red;
            EXPECT_EQ(image->GetData()[4 * i], 255) << "pixel " << i;
        }
    EXPECT_GT(red, 50);
}

// A group that names slice 2 of an array target draws there and nowhere
// else.
TEST_F(VulkanDraw, ASliceOfAnArrayTargetIsDrawnAlone)
{
    VulkanRenderer& r = Renderer();
    TextureDesc desc = TextureFactory::Make2DDesc(kWidth, kHeight, GraphicsFormat::R8G8B8A8_UNORM,
                                                  TextureViewFlags::SHADER_RESOURCE | TextureViewFlags::RENDER_TARGET);
    desc.ArraySize = 3;
    Ptr<Texture> array = Texture::Create(desc, GraphicsResourceUsage::Default);
    ASSERT_TRUE(array && array->IsCreated());
    const Vertex v[3] = {{-0.5f, -0.5f, 0.5f, 1.0f, 1.0f, 1.0f, 1.0f},
                         {0.0f, 0.75f, 0.5f, 1.0f, 1.0f, 1.0f, 1.0f},
                         {0.75f, -0.25f, 0.5f, 1.0f, 1.0f, 1.0f, 1.0f}};
    Ptr<VertexBuffer> buffer = MakeTriangle(v);
    r.ClearSingle(array.Get(), Vector4(0, 0, 0, 1));
    RenderTargetGroup group;
    group.SetRenderTarget(0, array, 2);
    r.SetRTGroup(group);
    r.SetViewport(kWidth, kHeight);
    ASSERT_TRUE(r.DrawVertices(vs, ps, buffer.Get(), 3, GraphicsTopology::TriangleList));
    r.Present();
    const uint8 white[4] = {255, 255, 255, 255};
    int inside = 0;
    EXPECT_EQ(CountMismatches(KovexTest::ReadBack(array.Get(), 2), Coverage(v), white, nullptr, &inside), 0);
    EXPECT_GT(inside, 300);
    for (uint32 slice = 0; slice < 2; ++slice)
    {
        Ptr<Image> untouched = KovexTest::ReadBack(array.Get(), slice);
        ASSERT_TRUE(untouched);
        for (uint32 i = 0; i < untouched->GetDataSize(); i += 4)
            ASSERT_EQ(untouched->GetData()[i], 0) << "slice " << slice << " byte " << i;
    }
    // A slice beyond the array is refused with its line.
    group.SetRenderTarget(0, array, 3);
    r.SetRTGroup(group);
    KovexTest::LogCapture log;
    EXPECT_FALSE(r.DrawVertices(vs, ps, buffer.Get(), 3, GraphicsTopology::TriangleList));
    EXPECT_TRUE(log->Contains(u"Vulkan: render target 0 has no view of slice 3 to draw into.\n"));
}

// Four vertices and six 16-bit indices draw a rectangle.
TEST_F(VulkanDraw, IndexedTrianglesDrawTheIndexedVertices)
{
    VulkanRenderer& r = Renderer();
    VertexElement elements[2];
    VertexLayout(elements);
    // Corners clockwise on screen from the bottom left, then one unused.
    const Vertex corners[5] = {{-0.5f, -0.5f, 0.5f, 1, 1, 1, 1},
                               {-0.5f, 0.5f, 0.5f, 1, 1, 1, 1},
                               {0.5f, 0.5f, 0.5f, 1, 1, 1, 1},
                               {0.5f, -0.5f, 0.5f, 1, 1, 1, 1},
                               {0.9f, 0.9f, 0.5f, 1, 0, 0, 1}};
    Ptr<VertexBuffer::Stream> stream = VertexBuffer::Stream::Create(elements, 2, 5, true);
    memcpy(stream->GetPointer(0), corners, sizeof(corners));
    const GraphicsResourceUsage immutable = GraphicsResourceUsage::Immutable;
    Ptr<VertexBuffer> vertices = VertexBufferFactory::Get()->Create(stream, 0, immutable, nullptr);
    Ptr<IndexBuffer::Stream> indexStream = IndexBuffer::Stream::Create(6, IndexBuffer::Index16, true);
    const uint16 order[6] = {0, 1, 2, 0, 2, 3};
    memcpy(indexStream->GetPointer(0), order, sizeof(order));
    Ptr<IndexBuffer> indices = IndexBufferFactory::Get()->Create(indexStream, 0, immutable, nullptr);
    ASSERT_TRUE(vertices && vertices->IsCreated() && indices && indices->IsCreated());
    r.BeginFrame();
    r.Clear(GraphicsClearMode::TargetDepthStencil, Vector4(0, 0, 0, 1), 1.0f, 0);
    ASSERT_TRUE(r.DrawVertices(vs, ps, vertices.Get(), 6, GraphicsTopology::TriangleList, indices.Get()));
    r.EndFrame();
    r.Present();
    const Vertex first[3] = {corners[0], corners[1], corners[2]};
    const Vertex second[3] = {corners[0], corners[2], corners[3]};
    std::vector<int> cover = Coverage(first);
    const std::vector<int> other = Coverage(second);
    for (size_t i = 0; i < cover.size(); ++i)
        cover[i] = cover[i] == 0 || other[i] == 0 ? 0 : cover[i] == 1 || other[i] == 1 ? 1 : 2;
    const uint8 white[4] = {255, 255, 255, 255};
    int inside = 0;
    EXPECT_EQ(CountMismatches(KovexTest::ReadBack(r.GetRenderTarget(0).Get()), cover, white, nullptr, &inside), 0);
    EXPECT_GT(inside, 700) << "a 32 x 24 rectangle, less its diagonal";

    // More than the buffers hold is refused, never read past their end.
    KovexTest::LogCapture log;
    EXPECT_FALSE(r.DrawVertices(vs, ps, vertices.Get(), 7, GraphicsTopology::TriangleList, indices.Get()));
    EXPECT_TRUE(log->Contains(u"Vulkan: a draw of 7 indices from a buffer of 6.\n"));
    EXPECT_FALSE(r.DrawVertices(vs, ps, vertices.Get(), 6, GraphicsTopology::TriangleList));
    EXPECT_TRUE(log->Contains(u"Vulkan: a draw of 6 vertices from a buffer of 5.\n"));
}

// Beyond the far plane a triangle is clipped, unless the rasterizer state
// turns depth clipping off: then its depth is clamped and it is drawn.
TEST_F(VulkanDraw, DepthClipOffClampsInsteadOfClipping)
{
    VulkanRenderer& r = Renderer();
    VkPhysicalDeviceFeatures features;
    vkGetPhysicalDeviceFeatures(r.GetDevice().GetPhysicalDevice(), &features);
    if (!features.depthClamp)
        GTEST_SKIP() << "the device has no depth clamping";
    const Vertex far[3] = {{-0.5f, -0.5f, 1.5f, 1, 1, 1, 1}, {0.0f, 0.75f, 1.5f, 1, 1, 1, 1},
                           {0.75f, -0.25f, 1.5f, 1, 1, 1, 1}};
    Ptr<VertexBuffer> buffer = MakeTriangle(far);
    const uint8 white[4] = {255, 255, 255, 255}, black[4] = {0, 0, 0, 255};
    const std::vector<int> cover = Coverage(far);
    for (bool clamp : {false, true})
    {
        r.BeginFrame();
        r.CommitState(clamp ? RasterizerStateFactory::Get()->GetLVFrontFaceState().Get()
                            : r.GetDefaultRasterizerState().Get());
        r.Clear(GraphicsClearMode::TargetDepthStencil, Vector4(0, 0, 0, 1), 1.0f, 0);
        ASSERT_TRUE(r.DrawVertices(vs, ps, buffer.Get(), 3, GraphicsTopology::TriangleList));
        r.EndFrame();
        r.Present();
        std::vector<int> expected = cover;
        if (!clamp)
            for (int& c : expected)
                c = c == 0 ? 0 : 2; // all clipped: nothing inside
        int inside = 0;
        EXPECT_EQ(CountMismatches(KovexTest::ReadBack(r.GetRenderTarget(0).Get()), expected, clamp ? white : black,
                                  nullptr, &inside),
                  0)
            << (clamp ? "clamped" : "clipped");
    }
}

// A dynamic buffer whose stream changed between frames draws the new
// vertices, from a copy no frame in flight reads.
TEST_F(VulkanDraw, ADynamicBufferDrawsWhatItsStreamHoldsNow)
{
    VulkanRenderer& r = Renderer();
    Vertex v[3] = {{-0.8f, -0.8f, 0.5f, 1.0f, 1.0f, 1.0f, 1.0f},
                   {-0.8f, 0.2f, 0.5f, 1.0f, 1.0f, 1.0f, 1.0f},
                   {0.2f, -0.8f, 0.5f, 1.0f, 1.0f, 1.0f, 1.0f}};
    r.CommitState(RasterizerStateFactory::Get()->GetTwoSideState().Get());
    Ptr<VertexBuffer> buffer = MakeTriangle(v, true);
    ASSERT_TRUE(buffer && buffer->IsCreated());
    const uint8 white[4] = {255, 255, 255, 255};
    for (int frame = 0; frame < 4; ++frame)
    {
        if (frame > 0)
        {
            for (Vertex& vertex : v)
                vertex.x += 0.25f;
            GraphicsStream* stream = buffer->GetStream().Get();
            memcpy(stream->GetPointer(0), v, sizeof(v));
            stream->MakeDirty(0, sizeof(v));
        }
        r.BeginFrame();
        // The depth buffer of the default group is tested against: clear it.
        r.Clear(GraphicsClearMode::TargetDepthStencil, Vector4(0, 0, 0, 1), 1.0f, 0);
        ASSERT_TRUE(r.DrawVertices(vs, ps, buffer.Get(), 3, GraphicsTopology::TriangleList));
        r.EndFrame();
        r.Present();
        int inside = 0;
        EXPECT_EQ(CountMismatches(KovexTest::ReadBack(r.GetRenderTarget(0).Get()), Coverage(v), white, nullptr,
                                  &inside),
                  0)
            << "frame " << frame;
        EXPECT_GT(inside, 100);
    }
    EXPECT_FALSE(buffer->GetStream()->IsDirty()) << "the draw took the change";
}

#endif

TEST(VulkanStates, MappingFollowsTheEngineNumbering)
{
    EXPECT_EQ(VulkanStates::ToVk(GraphicsComparison(GraphicsComparison::Never)), VK_COMPARE_OP_NEVER);
    EXPECT_EQ(VulkanStates::ToVk(GraphicsComparison(GraphicsComparison::LessEqual)), VK_COMPARE_OP_LESS_OR_EQUAL);
    EXPECT_EQ(VulkanStates::ToVk(GraphicsComparison(GraphicsComparison::GreaterEqual)),
              VK_COMPARE_OP_GREATER_OR_EQUAL);
    EXPECT_EQ(VulkanStates::ToVk(GraphicsComparison(GraphicsComparison::Always)), VK_COMPARE_OP_ALWAYS);
    EXPECT_EQ(VulkanStates::ToVk(GraphicsBlend(GraphicsBlend::InvDestColor)), VK_BLEND_FACTOR_ONE_MINUS_DST_COLOR);
    EXPECT_EQ(VulkanStates::ToVk(GraphicsBlend(GraphicsBlend::BlendFactor)), VK_BLEND_FACTOR_CONSTANT_COLOR);
    EXPECT_EQ(VulkanStates::ToVk(GraphicsStencilOp(GraphicsStencilOp::IncrSat)), VK_STENCIL_OP_INCREMENT_AND_CLAMP);
    EXPECT_EQ(VulkanStates::ToVk(GraphicsStencilOp(GraphicsStencilOp::Incr)), VK_STENCIL_OP_INCREMENT_AND_WRAP);
    EXPECT_EQ(VulkanStates::ToVk(GraphicsLayoutFormat(GraphicsLayoutFormat::UByte4N)), VK_FORMAT_R8G8B8A8_UNORM);
    EXPECT_EQ(VulkanStates::ToVk(GraphicsLayoutFormat(GraphicsLayoutFormat::UShort4N)), VK_FORMAT_UNDEFINED)
        << "a layout format whose element size is 0 cannot be read";
    // Keys: equal content, equal hash; any field changes the key.
    VulkanPipelineKey a, b;
    a.ColorCount = b.ColorCount = 1;
    a.Colors[0] = b.Colors[0] = VK_FORMAT_R8G8B8A8_UNORM;
    EXPECT_TRUE(a == b);
    EXPECT_EQ(a.Hash(), b.Hash());
    b.Colors[0] = VK_FORMAT_B8G8R8A8_UNORM;
    EXPECT_FALSE(a == b);
    EXPECT_NE(a.Hash(), b.Hash());
    b = a;
    b.Topology = GraphicsTopology::LineList;
    EXPECT_FALSE(a == b);
}
