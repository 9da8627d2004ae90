#include <gtest/gtest.h>

#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "graphics/BaseProgram.h"
#include "graphics/GraphicsThread.h"
#include "graphics/IndexBuffer.h"
#include "graphics/RWBuffer.h"
#include "graphics/RenderStates.h"
#include "graphics/ShaderReflection.h"
#include "graphics/ShaderResource.h"
#include "graphics/VertexBuffer.h"
#include "graphics/vulkan/VulkanProgram.h"
#include "graphics/vulkan/VulkanResources.h"
#include "graphics/vulkan/VulkanTestSupport.h"
#include "images/ImageLoaderPNG.h"
#include "io/CacheDirectory.h"
#include "io/MemoryStream.h"
#include "kernel/EngineGlobals.h"
#include "kernel/StringConv.h"
#include "support/LogCapture.h"

#ifdef KOVEX_TEST_HLSL_SHADERS
#include "flat.hlsl.PS.h"
#include "flat.hlsl.VS.h"
#include "palette.hlsl.PS.h"
#include "palette.hlsl.VS.h"
#include "shift.hlsl.GS.h"
#include "textured.hlsl.PS.h"
#include "textured.hlsl.VS.h"
#endif

using namespace KovexEngine;

namespace {

constexpr uint32 kWidth = 64, kHeight = 32;

// What the module of each test shader declares, written as the engine's
// compiler reflects it.
ShaderReflection::Member Member(const char* name, uint32 offset, uint32 size, uint32 columns)
{
    ShaderReflection::Member m;
    m.Name = name;
    m.Offset = offset;
    m.Size = size;
    m.Columns = columns;
    return m;
}

ShaderReflection::Input Input(const char* name, const char* semantic, uint32 location, uint32 components)
{
    ShaderReflection::Input input;
    input.Name = name;
    input.Semantic = semantic;
    input.Location = location;
    input.Components = components;
    return input;
}

ShaderReflection::Resource Resource(const char* name, uint32 binding, uint32 dimension)
{
    ShaderReflection::Resource r;
    r.Name = name;
    r.Binding = binding;
    r.Dimension = dimension;
    return r;
}

// flat.hlsl: Material { float4 Color; float2 Offset; } read by both stages.
ShaderReflection FlatReflection(bool vertex)
{
    ShaderReflection r;
    ShaderReflection::ConstantBuffer block;
    block.Name = "Material";
    block.Size = 24;
    block.Members = {Member("Color", 0, 16, 4), Member("Offset", 16, 8, 2)};
    r.ConstantBuffers.push_back(block);
    if (vertex)
        r.Inputs = {Input("position", "POSITION0", 0, 3)};
    return r;
}

// textured.hlsl: the pixel stage reads Material { float4 Tint; }, the
// texture at t0 (16) and its sampler at s0 (32).
ShaderReflection TexturedReflection(bool vertex)
{
    ShaderReflection r;
    if (vertex)
    {
        r.Inputs = {Input("position", "POSITION0", 0, 3), Input("uv", "TEXCOORD0", 1, 2)};
        return r;
    }
    ShaderReflection::ConstantBuffer block;
    block.Name = "Material";
    block.Size = 16;
    block.Members = {Member("Tint", 0, 16, 4)};
    r.ConstantBuffers.push_back(block);
    r.Textures = {Resource("kovex_t_Albedo", 16, 2)};
    r.Samplers = {Resource("kovex_s_Albedo", 32, 0)};
    return r;
}

Ptr<Shader> MakeShader(ShaderType type, const uint32* words, size_t bytes, const ShaderReflection& reflection)
{
    void* code = malloc(bytes);
    memcpy(code, words, bytes);
    // Reflected before it is posted, as the compiler does.
    Ptr<Shader> shader = ShaderFactory::Get()->CreateShader(type, code, uint32(bytes));
    if (shader)
        shader->GetReflection() = reflection;
    return shader;
}

// A program of two stages, merged, with its constant buffers, posted.
Ptr<BaseProgram> MakeProgram(const uint32* vs, size_t vsBytes, const ShaderReflection& vsReflection, const uint32* ps,
                             size_t psBytes, const ShaderReflection& psReflection)
{
    Ptr<BaseProgram> program(new BaseProgram());
    Ptr<Shader> vertex = MakeShader(ShaderType::Vertex, vs, vsBytes, vsReflection);
    Ptr<Shader> pixel = MakeShader(ShaderType::Pixel, ps, psBytes, psReflection);
    if (!vertex || !pixel)
        return Ptr<BaseProgram>();
    program->SetShader(ShaderType::Vertex, vertex);
    program->SetShader(ShaderType::Pixel, pixel);
    if (!program->AddReflection(ShaderType::Vertex, vsReflection) ||
        !program->AddReflection(ShaderType::Pixel, psReflection) || !program->CreateConstantBuffers())
        return Ptr<BaseProgram>();
    ShaderFactory::Get()->M_PostObject(Ptr<GraphicsObject>(program.Get()), nullptr);
    return program;
}

bool SetFloats(BaseProgram& program, const char16_t* name, std::initializer_list<float> values)
{
    std::vector<float> data(values);
    return program.CommitConstantByName(name, data.data(), uint32(data.size() * 4), 16);
}

struct Position
{
    float x, y, z;
};

Ptr<VertexBuffer> MakePositions(const std::vector<Position>& points)
{
    VertexElement element;
    element.Assign(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3, 0, 0, GraphicsInputClass::PerVertex, 0);
    Ptr<VertexBuffer::Stream> stream = VertexBuffer::Stream::Create(&element, 1, uint32(points.size()), true);
    memcpy(stream->GetPointer(0), points.data(), points.size() * sizeof(Position));
    return VertexBufferFactory::Get()->Create(stream, 0, GraphicsResourceUsage::Immutable, nullptr);
}

DrawBuffersDesc Draw(VertexBuffer* const* buffer, uint32 count)
{
    DrawBuffersDesc draw;
    draw.VertexBuffers = buffer;
    draw.VertexBufferCount = 1;
    draw.Count = count;
    return draw;
}

// A square of half the target's height, at (cx, cy) in clip space: the
// pixels it covers in the read-back image (row 0 at the top), with a margin
// of one pixel left out of the comparison.
struct Square
{
    float cx, cy, half;
    std::vector<Position> Triangles() const
    {
        const float l = cx - half, r = cx + half, b = cy - half, t = cy + half;
        // Clockwise on screen: the front face of the default state.
        return {{l, b, 0.5f}, {l, t, 0.5f}, {r, t, 0.5f}, {l, b, 0.5f}, {r, t, 0.5f}, {r, b, 0.5f}};
    }
    // 1 inside, 2 outside, 0 near an edge.
    int Cover(uint32 x, uint32 y) const
    {
        const float px = (x + 0.5f) / kWidth * 2.0f - 1.0f, py = 1.0f - (y + 0.5f) / kHeight * 2.0f;
        const float mx = 2.0f / kWidth, my = 2.0f / kHeight;
        const float dx = fabsf(px - cx), dy = fabsf(py - cy);
        if (dx < half - mx && dy < half - my)
            return 1;
        if (dx > half + mx || dy > half + my)
            return 2;
        return 0;
    }
};

// Pixels of `image` differing by more than `tolerance` from `expected`
// where `mask` is set; both images are written when any does.
int CompareImages(const Ptr<Image>& image, const Ptr<Image>& expected, const std::vector<bool>& mask, int tolerance,
                  const char* name)
{
    if (!image || !expected || image->GetDataSize() != expected->GetDataSize())
        return -1;
    int mismatches = 0;
    for (uint32 i = 0; i < kWidth * kHeight; ++i)
    {
        if (!mask[i])
            continue;
        for (int c = 0; c < 4; ++c)
            if (abs(int(image->GetData()[4 * i + c]) - int(expected->GetData()[4 * i + c])) > tolerance)
            {
                ++mismatches;
                break;
            }
    }
    if (mismatches)
        ADD_FAILURE() << mismatches << " pixels differ from the CPU reference; images in "
                      << KovexTest::WriteSideBySide(name, image, expected);
    return mismatches;
}

// The expected image of coloured squares over black.
int CompareSquares(const Ptr<Image>& image, const std::vector<std::pair<Square, std::array<uint8, 4>>>& squares,
                   const char* name)
{
    Ptr<Image> expected(new Image());
    if (!image || !expected->Create(image->GetDesc()))
        return -1;
    std::vector<bool> mask(kWidth * kHeight, true);
    for (uint32 y = 0; y < kHeight; ++y)
        for (uint32 x = 0; x < kWidth; ++x)
        {
            const uint32 i = y * kWidth + x;
            std::array<uint8, 4> want = {0, 0, 0, 255};
            for (const auto& [square, colour] : squares)
            {
                const int cover = square.Cover(x, y);
                mask[i] = mask[i] && cover != 0;
                if (cover == 1)
                    want = colour;
            }
            memcpy(expected->GetData() + 4 * i, want.data(), 4);
        }
    return CompareImages(image, expected, mask, 1, name);
}

#ifdef KOVEX_TEST_HLSL_SHADERS

// The engine on Vulkan with the two test programs.
class VulkanProgram : public ::testing::Test
{
protected:
    void SetUp() override
    {
        KOVEX_SKIP_WITHOUT_VULKAN();
        m_engine = std::make_unique<KovexTest::VulkanEngine>(kWidth, kHeight);
        ASSERT_TRUE(m_engine->IsOpen());
        if (!Renderer().GetDevice().GetBeginRendering())
            GTEST_SKIP() << "the device has no dynamic rendering";
        flat = MakeProgram(kFlatVS, sizeof(kFlatVS), FlatReflection(true), kFlatPS, sizeof(kFlatPS),
                           FlatReflection(false));
        textured = MakeProgram(kTexturedVS, sizeof(kTexturedVS), TexturedReflection(true), kTexturedPS,
                               sizeof(kTexturedPS), TexturedReflection(false));
        ASSERT_TRUE(flat && flat->IsCreated() && textured && textured->IsCreated());
    }
    void TearDown() override
    {
        m_keep.clear();
        flat = Ptr<BaseProgram>();
        textured = Ptr<BaseProgram>();
        m_engine.reset();
    }
    VulkanRenderer& Renderer() { return m_engine->Renderer(); }
    Ptr<Image> Frame() { return KovexTest::ReadBack(Renderer().GetRenderTarget(0).Get()); }
    void BeginFrame()
    {
        Renderer().BeginFrame();
        Renderer().Clear(GraphicsClearMode::TargetDepthStencil, Vector4(0, 0, 0, 1), 1.0f, 0);
    }
    void EndFrame()
    {
        Renderer().EndFrame();
        Renderer().Present();
    }
    // A flat square through the flat program in `colour`.
    bool DrawFlat(const Square& square, std::initializer_list<float> colour)
    {
        Ptr<VertexBuffer> buffer = MakePositions(square.Triangles());
        m_keep.push_back(buffer);
        VertexBuffer* buffers[1] = {buffer.Get()};
        flat->ApplyProgram();
        return SetFloats(*flat, u"Color", colour) && SetFloats(*flat, u"Offset", {0.0f, 0.0f}) &&
               Renderer().DrawWithProgram(Draw(buffers, 6));
    }

    // Runs `body` with push descriptors where the device has them, then on
    // the pool path, as devices without them take it (a new engine).
    void ForBothBindingPaths(const std::function<void(const char* path)>& body)
    {
        if (Renderer().GetPrograms()->CanPush())
            body("push descriptors");
        TearDown();
        KovexTest::ScopedEnv pools("KOVEX_VULKAN_PUSH_DESCRIPTORS", "0");
        SetUp();
        if (HasFatalFailure() || IsSkipped())
            return;
        ASSERT_FALSE(Renderer().GetPrograms()->CanPush());
        body("descriptor pools");
    }

    Ptr<BaseProgram> flat, textured;

private:
    std::unique_ptr<KovexTest::VulkanEngine> m_engine;
    std::vector<Ptr<VertexBuffer>> m_keep;
};

// A triangle through the program is where and what the CPU says: its colour
// and place come from constants set by name, and changing them by name
// changes the pixels of the next draw.
TEST_F(VulkanProgram, ConstantsSetByNameColourAndMoveATriangle)
{
    VulkanRenderer& r = Renderer();
    auto* vs = DynamicCast<VulkanShader>(static_cast<Object*>(flat->GetShader(ShaderType::Vertex)));
    ASSERT_TRUE(vs && vs->GetModule());
    EXPECT_STREQ(vs->GetEntryPoint(), "VS") << "the module's own entry point, not \"main\"";
    const Square square{-0.5f, 0.0f, 0.25f};
    Ptr<VertexBuffer> buffer = MakePositions(square.Triangles());
    VertexBuffer* buffers[1] = {buffer.Get()};
    for (int pass = 0; pass < 2; ++pass)
    {
        BeginFrame();
        flat->ApplyProgram();
        ASSERT_TRUE(SetFloats(*flat, u"Color", {pass ? 1.0f : 0.2f, pass ? 0.0f : 0.6f, 1.0f, 1.0f}));
        // The second pass moves it by 1 to the right in clip space.
        ASSERT_TRUE(SetFloats(*flat, u"Offset", {pass ? 1.0f : 0.0f, 0.0f}));
        ASSERT_TRUE(r.DrawWithProgram(Draw(buffers, 6)));
        EndFrame();
        const Square where{pass ? 0.5f : -0.5f, 0.0f, 0.25f};
        const std::array<uint8, 4> colour =
            pass ? std::array<uint8, 4>{255, 0, 255, 255} : std::array<uint8, 4>{51, 153, 255, 255};
        EXPECT_EQ(CompareSquares(Frame(), {{where, colour}}, "program-constant"), 0) << "pass " << pass;
    }
    EXPECT_EQ(r.GetPipelines().GetCount(), 1u) << "one program, one state set: one pipeline";
    EXPECT_FALSE(SetFloats(*flat, u"NoSuchConstant", {1.0f}));
}

// Constants changed between the draws of one frame reach each draw as it
// was recorded: more changes than a constant buffer keeps copies of.
TEST_F(VulkanProgram, EveryDrawOfAFrameKeepsItsOwnConstants)
{
    const std::array<uint8, 4> colours[4] = {
        {255, 0, 0, 255}, {0, 255, 0, 255}, {0, 0, 255, 255}, {255, 255, 0, 255}};
    const Square squares[4] = {{-0.75f, 0.5f, 0.2f}, {-0.25f, -0.5f, 0.2f}, {0.25f, 0.5f, 0.2f},
                               {0.75f, -0.5f, 0.2f}};
    ForBothBindingPaths([&](const char* path) {
        BeginFrame();
        std::vector<std::pair<Square, std::array<uint8, 4>>> expected;
        for (int i = 0; i < 4; ++i)
        {
            ASSERT_TRUE(DrawFlat(squares[i], {colours[i][0] / 255.0f, colours[i][1] / 255.0f, colours[i][2] / 255.0f,
                                              1.0f}));
            expected.push_back({squares[i], colours[i]});
        }
        EndFrame();
        EXPECT_EQ(CompareSquares(Frame(), expected, "program-constants"), 0) << path;
        // More draws in a frame than one descriptor pool has sets.
        Ptr<VertexBuffer> one = MakePositions(squares[0].Triangles());
        VertexBuffer* buffers[1] = {one.Get()};
        BeginFrame();
        flat->ApplyProgram();
        ASSERT_TRUE(SetFloats(*flat, u"Offset", {0.0f, 0.0f}));
        for (int i = 0; i < 300; ++i)
            ASSERT_TRUE(SetFloats(*flat, u"Color", {i / 299.0f, 0.0f, 1.0f, 1.0f}) &&
                        Renderer().DrawWithProgram(Draw(buffers, 6)))
                << path << ", draw " << i;
        EndFrame();
        EXPECT_EQ(CompareSquares(Frame(), {{squares[0], {255, 0, 255, 255}}}, "program-many-draws"), 0) << path;
    });
}

// Constants of one frame that outgrow one block of the ring go on in a
// new one: twenty draws of a 60,000-byte constant buffer, each square in
// its own colour.
TEST_F(VulkanProgram, AFrameOfLargeConstantsSpansSeveralRingBlocks)
{
    ShaderReflection vs = FlatReflection(true), ps = FlatReflection(false);
    vs.ConstantBuffers[0].Size = ps.ConstantBuffers[0].Size = 60000;
    flat = MakeProgram(kFlatVS, sizeof(kFlatVS), vs, kFlatPS, sizeof(kFlatPS), ps);
    ASSERT_TRUE(flat && flat->IsCreated());
    const uint64 before = Renderer().GetPrograms()->GetRingBytes();
    std::vector<std::pair<Square, std::array<uint8, 4>>> expected;
    BeginFrame();
    for (int i = 0; i < 20; ++i)
    {
        const Square square{-0.8f + 0.4f * (i % 5), -0.75f + 0.5f * (i / 5), 0.15f};
        const std::array<uint8, 4> colour = {uint8(i * 12), uint8(255 - i * 12), uint8(i % 2 ? 255 : 0), 255};
        ASSERT_TRUE(DrawFlat(square, {colour[0] / 255.0f, colour[1] / 255.0f, colour[2] / 255.0f, 1.0f}));
        expected.push_back({square, colour});
    }
    EndFrame();
    EXPECT_EQ(Renderer().GetPrograms()->GetRingBytes() - before, 20u * 60000u);
    EXPECT_EQ(CompareSquares(Frame(), expected, "program-ring-blocks"), 0);
}

// A textured quad: a texture decoded from PNG by the image loaders, sampled
// by a point sampler of the factory, tinted by a constant, matches the CPU's
// product within 1/255 per channel. The vertex elements come in another
// order than the shader's inputs: semantics place them.
TEST_F(VulkanProgram, ATexturedQuadMatchesTheCpuReference)
{
    VulkanRenderer& r = Renderer();
    Ptr<Image> source(new Image());
    ASSERT_TRUE(source->Create(TextureFactory::Make2DDesc(kWidth, kHeight, GraphicsFormat::R8G8B8A8_UNORM, 1)));
    for (uint32 y = 0; y < kHeight; ++y)
        for (uint32 x = 0; x < kWidth; ++x)
        {
            uint8* texel = source->GetData() + 4 * (y * kWidth + x);
            texel[0] = uint8(x * 4);
            texel[1] = uint8(y * 8);
            texel[2] = uint8((x ^ y) * 5);
            texel[3] = 255;
        }
    auto* png = new DataStream();
    {
        Ptr<Stream> out(new MemoryStream(png, false));
        out->SetWriteable(true);
        ASSERT_TRUE(out->Open() && ImageLoaderPNG::StaticSave(source.Get(), out.Get()));
    }
    Ptr<Stream> in(new MemoryStream(png, true));
    ASSERT_TRUE(in->Open());
    Ptr<Texture> texture = TextureFactory::Get()->Create(in, nullptr);
    ASSERT_TRUE(texture && texture->IsCreated());
    EXPECT_TRUE(texture->GetDesc().ViewFlags & TextureViewFlags::SHADER_RESOURCE) << "a loaded texture is sampled";
    SamplerStateDesc pointDesc;
    pointDesc.Filter = GraphicsFilter::MinMagMipPoint;
    pointDesc.AddressU = pointDesc.AddressV = pointDesc.AddressW = GraphicsAddress::Clamp;
    Ptr<SamplerState> point = SamplerStateFactory::Get()->Create(pointDesc);
    ASSERT_TRUE(point);

    struct Vertex
    {
        float u, v;
        float x, y, z;
    };
    // The whole target; texel (0, 0) at the top left.
    const Vertex corners[4] = {{0, 1, -1, -1, 0.5f}, {0, 0, -1, 1, 0.5f}, {1, 0, 1, 1, 0.5f}, {1, 1, 1, -1, 0.5f}};
    VertexElement elements[2];
    elements[0].Assign(GraphicsSemantic::TexCoord, 0, GraphicsLayoutFormat::Float2, 0, 0, GraphicsInputClass::PerVertex,
                       0);
    elements[1].Assign(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3, 0, 8, GraphicsInputClass::PerVertex,
                       0);
    Ptr<VertexBuffer::Stream> stream = VertexBuffer::Stream::Create(elements, 2, 4, true);
    memcpy(stream->GetPointer(0), corners, sizeof(corners));
    Ptr<VertexBuffer> vertices =
        VertexBufferFactory::Get()->Create(stream, 0, GraphicsResourceUsage::Immutable, nullptr);
    Ptr<IndexBuffer::Stream> indexStream = IndexBuffer::Stream::Create(6, IndexBuffer::Index16, true);
    const uint16 order[6] = {0, 1, 2, 0, 2, 3};
    memcpy(indexStream->GetPointer(0), order, sizeof(order));
    Ptr<IndexBuffer> indices =
        IndexBufferFactory::Get()->Create(indexStream, 0, GraphicsResourceUsage::Immutable, nullptr);
    ASSERT_TRUE(vertices && vertices->IsCreated() && indices && indices->IsCreated());

    BeginFrame();
    textured->ApplyProgram();
    EXPECT_TRUE(textured->CommitTexture(u"Albedo", texture)) << "found by its name without the prefix";
    EXPECT_TRUE(textured->CommitSampler(u"Albedo", point));
    ASSERT_TRUE(SetFloats(*textured, u"Tint", {1.0f, 0.5f, 1.0f, 1.0f}));
    VertexBuffer* buffers[1] = {vertices.Get()};
    DrawBuffersDesc draw = Draw(buffers, 6);
    draw.Indices = indices.Get();
    KovexTest::LogCapture log;
    ASSERT_TRUE(r.DrawWithProgram(draw));
    EndFrame();
    EXPECT_EQ(log->entries.Count(), 0u) << "a committed texture draws without a word";

    Ptr<Image> expected(new Image());
    ASSERT_TRUE(expected->Create(source->GetDesc()));
    for (uint32 i = 0; i < kWidth * kHeight; ++i)
    {
        const uint8* texel = source->GetData() + 4 * i;
        uint8* want = expected->GetData() + 4 * i;
        want[0] = texel[0];
        want[1] = uint8(texel[1] * 0.5f + 0.5f);
        want[2] = texel[2];
        want[3] = 255;
    }
    EXPECT_EQ(CompareImages(Frame(), expected, std::vector<bool>(kWidth * kHeight, true), 1, "program-textured"), 0);
}

// The two programs take turns within one frame: each draw binds its own
// layout, constants and texture.
TEST_F(VulkanProgram, TwoProgramsAlternateInOneFrame)
{
    ForBothBindingPaths([&](const char* path) {
        VulkanRenderer& r = Renderer();
        Ptr<Image> grey(new Image());
        ASSERT_TRUE(grey->Create(TextureFactory::Make2DDesc(2, 2, GraphicsFormat::R8G8B8A8_UNORM, 1)));
        grey->FillData(128);
        Ptr<Texture> texture = TextureFactory::Get()->Create(Ptr<Object>(grey.Get()), GraphicsResourceUsage::Immutable,
                                                             nullptr);
        ASSERT_TRUE(texture && texture->IsCreated());
        ASSERT_TRUE(textured->CommitTexture(u"Albedo", texture));
        struct Vertex
        {
            float x, y, z;
            float u, v;
        };
        const Square squares[4] = {{-0.75f, 0.5f, 0.2f}, {-0.25f, -0.5f, 0.2f}, {0.25f, 0.5f, 0.2f},
                                   {0.75f, -0.5f, 0.2f}};
        VertexElement elements[2];
        elements[0].Assign(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3, 0, 0, GraphicsInputClass::PerVertex,
                           0);
        elements[1].Assign(GraphicsSemantic::TexCoord, 0, GraphicsLayoutFormat::Float2, 0, 12,
                           GraphicsInputClass::PerVertex, 0);
        std::vector<std::pair<Square, std::array<uint8, 4>>> expected;
        std::vector<Ptr<VertexBuffer>> keep;
        BeginFrame();
        for (int i = 0; i < 4; ++i)
        {
            if (i % 2 == 0)
            {
                ASSERT_TRUE(DrawFlat(squares[i], {0.0f, 1.0f, 0.0f, 1.0f}));
                expected.push_back({squares[i], {0, 255, 0, 255}});
                continue;
            }
            std::vector<Vertex> v;
            for (const Position& p : squares[i].Triangles())
                v.push_back({p.x, p.y, p.z, 0.5f, 0.5f});
            Ptr<VertexBuffer::Stream> stream = VertexBuffer::Stream::Create(elements, 2, 6, true);
            memcpy(stream->GetPointer(0), v.data(), v.size() * sizeof(Vertex));
            keep.push_back(VertexBufferFactory::Get()->Create(stream, 0, GraphicsResourceUsage::Immutable, nullptr));
            VertexBuffer* buffers[1] = {keep.back().Get()};
            textured->ApplyProgram();
            // Odd draws: blue, then red, times the grey texel.
            ASSERT_TRUE(SetFloats(*textured, u"Tint", {i == 3 ? 1.0f : 0.0f, 0.0f, i == 1 ? 1.0f : 0.0f, 1.0f}));
            ASSERT_TRUE(r.DrawWithProgram(Draw(buffers, 6)));
            // The texel's alpha is 128 too.
            expected.push_back({squares[i], {uint8(i == 3 ? 128 : 0), 0, uint8(i == 1 ? 128 : 0), 128}});
        }
        EndFrame();
        EXPECT_EQ(CompareSquares(Frame(), expected, "program-alternate"), 0) << path;
        EXPECT_EQ(r.GetPipelines().GetCount(), 2u);
    });
}

// A texture never committed draws as the 1x1 white default texture, and the
// program says so once however many draws it makes.
TEST_F(VulkanProgram, AnUncommittedTextureDrawsTheDefaultAndSaysSoOnce)
{
    VulkanRenderer& r = Renderer();
    struct Vertex
    {
        float x, y, z;
        float u, v;
    };
    const Square square{0.0f, 0.0f, 0.5f};
    std::vector<Vertex> v;
    for (const Position& p : square.Triangles())
        v.push_back({p.x, p.y, p.z, 0.25f, 0.75f});
    VertexElement elements[2];
    elements[0].Assign(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3, 0, 0, GraphicsInputClass::PerVertex,
                       0);
    elements[1].Assign(GraphicsSemantic::TexCoord, 0, GraphicsLayoutFormat::Float2, 0, 12,
                       GraphicsInputClass::PerVertex, 0);
    Ptr<VertexBuffer::Stream> stream = VertexBuffer::Stream::Create(elements, 2, 6, true);
    memcpy(stream->GetPointer(0), v.data(), v.size() * sizeof(Vertex));
    Ptr<VertexBuffer> buffer = VertexBufferFactory::Get()->Create(stream, 0, GraphicsResourceUsage::Immutable, nullptr);
    VertexBuffer* buffers[1] = {buffer.Get()};
    KovexTest::LogCapture log;
    for (int frame = 0; frame < 2; ++frame)
    {
        BeginFrame();
        textured->ApplyProgram();
        ASSERT_TRUE(SetFloats(*textured, u"Tint", {0.25f, 0.5f, 1.0f, 1.0f}));
        ASSERT_TRUE(r.DrawWithProgram(Draw(buffers, 6)));
        ASSERT_TRUE(r.DrawWithProgram(Draw(buffers, 6)));
        EndFrame();
    }
    EXPECT_EQ(CompareSquares(Frame(), {{square, {64, 128, 255, 255}}}, "program-default-texture"), 0);
    unsigned said = 0;
    for (const auto& entry : log->entries)
        said += entry.text == u"Vulkan: the program's texture [Albedo] is not set; a default texture is bound.\n";
    EXPECT_EQ(said, 1u);
}

// A read-write buffer reaches the stage as a storage buffer: the colour is
// the element a constant picks, and the buffer's new content is read by the
// next frame. Without a buffer the draw is refused, said once.
TEST_F(VulkanProgram, AStorageBufferIsReadAtItsSlot)
{
    VulkanRenderer& r = Renderer();
    // palette.hlsl: Pick { uint Index; } at b0, Palette at binding 1 (the
    // texture shift does not move structured buffers).
    ShaderReflection vs, ps;
    vs.Inputs = {Input("position", "POSITION0", 0, 3)};
    ShaderReflection::ConstantBuffer block;
    block.Name = "Pick";
    block.Size = 4;
    block.Members = {Member("Index", 0, 4, 1)};
    ps.ConstantBuffers = {block};
    ps.RWBuffers = {Resource("Palette", 1, 0)};
    Ptr<BaseProgram> palette = MakeProgram(kPaletteVS, sizeof(kPaletteVS), vs, kPalettePS, sizeof(kPalettePS), ps);
    ASSERT_TRUE(palette && palette->IsCreated());
    const Square square{0.0f, 0.0f, 0.5f};
    Ptr<VertexBuffer> positions = MakePositions(square.Triangles());
    VertexBuffer* buffers[1] = {positions.Get()};
    const uint32 index = 2;
    KovexTest::LogCapture log;
    r.BeginFrame();
    palette->ApplyProgram();
    ASSERT_TRUE(palette->CommitConstantByName(u"Index", &index, 4, 16));
    EXPECT_FALSE(r.DrawWithProgram(Draw(buffers, 6)));
    EXPECT_FALSE(r.DrawWithProgram(Draw(buffers, 6)));
    unsigned said = 0;
    for (const auto& entry : log->entries)
        said += entry.text == u"Vulkan: the program's read-write buffer [Palette] is not set; its draws are skipped.\n";
    EXPECT_EQ(said, 1u);
    r.EndFrame();
    r.Present();

    Ptr<RWBuffer> colours = RWBufferFactory::Get()->Create(GraphicsFormat::R32G32B32A32_FLOAT, 4, 8,
                                                           uint32(GraphicsResourceCpuAccess::Write),
                                                           GraphicsResourceUsage::Dynamic, true);
    ASSERT_TRUE(colours && colours->IsCreated());
    for (int frame = 0; frame < 2; ++frame)
    {
        // Element 2 is red, then green; the others never show.
        const float values[16] = {1, 1, 1, 1, 0, 0, 1, 1, frame ? 0.0f : 1.0f, frame ? 1.0f : 0.0f, 0, 1, 1, 0, 1, 1};
        GraphicsStream* stream = colours->GetStream().Get();
        memcpy(stream->GetPointer(0), values, sizeof(values));
        stream->MakeDirty(0, sizeof(values));
        ASSERT_TRUE(palette->CommitBuffer(u"Palette", colours));
        BeginFrame();
        palette->ApplyProgram();
        ASSERT_TRUE(palette->CommitConstantByName(u"Index", &index, 4, 16));
        ASSERT_TRUE(r.DrawWithProgram(Draw(buffers, 6)));
        EndFrame();
        EXPECT_EQ(CompareSquares(Frame(), {{square, {uint8(frame ? 0 : 255), uint8(frame ? 255 : 0), 0, 255}}},
                                 "program-storage"),
                  0)
            << "frame " << frame;
    }
}

// A geometry stage joins the pipeline: the program's square is drawn where
// its geometry shader moves it.
TEST_F(VulkanProgram, AGeometryStageRunsBetweenTheOthers)
{
    VulkanRenderer& r = Renderer();
    if (!r.GetHWCapability()->SupportGeometryShader)
        GTEST_SKIP() << "the device has no geometry stage";
    Ptr<BaseProgram> shifted(new BaseProgram());
    shifted->SetShader(ShaderType::Vertex,
                       MakeShader(ShaderType::Vertex, kFlatVS, sizeof(kFlatVS), FlatReflection(true)));
    shifted->SetShader(ShaderType::Geometry,
                       MakeShader(ShaderType::Geometry, kShiftGS, sizeof(kShiftGS), ShaderReflection()));
    shifted->SetShader(ShaderType::Pixel,
                       MakeShader(ShaderType::Pixel, kFlatPS, sizeof(kFlatPS), FlatReflection(false)));
    ASSERT_TRUE(shifted->AddReflection(ShaderType::Vertex, FlatReflection(true)) &&
                shifted->AddReflection(ShaderType::Pixel, FlatReflection(false)) && shifted->CreateConstantBuffers());
    ShaderFactory::Get()->M_PostObject(Ptr<GraphicsObject>(shifted.Get()), nullptr);
    ASSERT_TRUE(shifted->IsCreated());
    auto* gs = DynamicCast<VulkanShader>(static_cast<Object*>(shifted->GetShader(ShaderType::Geometry)));
    ASSERT_TRUE(gs && gs->GetModule());
    EXPECT_STREQ(gs->GetEntryPoint(), "GS");
    const Square square{-0.5f, 0.0f, 0.25f};
    Ptr<VertexBuffer> positions = MakePositions(square.Triangles());
    VertexBuffer* buffers[1] = {positions.Get()};
    BeginFrame();
    shifted->ApplyProgram();
    ASSERT_TRUE(SetFloats(*shifted, u"Color", {1.0f, 1.0f, 1.0f, 1.0f}));
    ASSERT_TRUE(SetFloats(*shifted, u"Offset", {0.0f, 0.0f}));
    ASSERT_TRUE(r.DrawWithProgram(Draw(buffers, 6)));
    EndFrame();
    EXPECT_EQ(CompareSquares(Frame(), {{Square{0.5f, 0.0f, 0.25f}, {255, 255, 255, 255}}}, "program-geometry"), 0);
}

// What cannot be drawn is refused with its line and records nothing.
TEST_F(VulkanProgram, WhatCannotBeDrawnIsRefusedWithItsLine)
{
    VulkanRenderer& r = Renderer();
    const Square square{0.0f, 0.0f, 0.5f};
    Ptr<VertexBuffer> positions = MakePositions(square.Triangles());
    VertexBuffer* buffers[1] = {positions.Get()};
    KovexTest::LogCapture log;
    r.BeginFrame();
    r.SetCurrentProgram(ProgramRef());
    EXPECT_FALSE(r.DrawWithProgram(Draw(buffers, 6)));
    EXPECT_TRUE(log->Contains(u"Vulkan: a program draw without a current program.\n"));

    // The textured program reads texture coordinates the buffer lacks.
    textured->ApplyProgram();
    EXPECT_FALSE(r.DrawWithProgram(Draw(buffers, 6)));
    EXPECT_TRUE(log->Contains(u"Vulkan: the vertex layout has no element for the input [uv] (TEXCOORD0).\n"));

    // No buffer at all for a program that reads an input.
    flat->ApplyProgram();
    EXPECT_FALSE(r.DrawWithProgram(DrawBuffersDesc()));
    EXPECT_TRUE(log->Contains(u"Vulkan: the vertex layout has no element for the input [position] (POSITION0).\n"));
    EXPECT_FALSE(r.DrawWithProgram(Draw(buffers, 7)));
    EXPECT_TRUE(log->Contains(u"Vulkan: a draw of 7 vertices from 0 reaches past a buffer of 6.\n"));
    DrawBuffersDesc late = Draw(buffers, 3);
    late.First = 4;
    EXPECT_FALSE(r.DrawWithProgram(late));
    EXPECT_TRUE(log->Contains(u"Vulkan: a draw of 3 vertices from 4 reaches past a buffer of 6.\n"));
    EXPECT_TRUE(r.DrawWithProgram(Draw(buffers, 6)));
    r.EndFrame();
    r.Present();

    // Two resources of one stage at one slot cannot share a layout.
    ShaderReflection clash = FlatReflection(false);
    clash.Textures = {Resource("kovex_t_Clash", 0, 2)};
    Ptr<BaseProgram> bad = MakeProgram(kFlatVS, sizeof(kFlatVS), FlatReflection(true), kFlatPS, sizeof(kFlatPS),
                                       clash);
    ASSERT_TRUE(bad);
    EXPECT_TRUE(bad->IsFailed());
    EXPECT_TRUE(log->Contains(u"Vulkan: program slot 0 is claimed by [Material] and [Clash].\n"));
    bad->ApplyProgram();
    EXPECT_FALSE(r.DrawWithProgram(Draw(buffers, 6)));
    EXPECT_TRUE(log->Contains(u"Vulkan: the current program has no Vulkan layout; nothing is drawn.\n"));

    // A resource array would need more descriptors than a resource has values.
    ShaderReflection arrays = TexturedReflection(false);
    arrays.Textures[0].ArraySize = 4;
    Ptr<BaseProgram> arrayed = MakeProgram(kTexturedVS, sizeof(kTexturedVS), TexturedReflection(true), kTexturedPS,
                                           sizeof(kTexturedPS), arrays);
    ASSERT_TRUE(arrayed);
    EXPECT_TRUE(arrayed->IsFailed());
    EXPECT_TRUE(log->Contains(
        u"Vulkan: program resource [kovex_t_Albedo] is an array of 4; arrays of resources are not bound yet.\n"));

    // Words that are no SPIR-V module make no shader module.
    const uint32 garbage[8] = {0x12345678u, 1, 2, 3, 4, 5, 6, 7};
    Ptr<Shader> shader = MakeShader(ShaderType::Pixel, garbage, sizeof(garbage), ShaderReflection());
    ASSERT_TRUE(shader);
    EXPECT_TRUE(shader->IsFailed());
    EXPECT_TRUE(log->Contains(u"Vulkan: the Pixel shader's code is no SPIR-V module with an entry point.\n"));
}


struct FrameCommand : ThreadCommand
{
    std::function<void()> work;
    void Process() override { work(); }
};

// Programs are built and dropped on a worker while the graphics thread
// makes their layouts, destroys the dropped ones and draws frames with
// the newest one that is ready.
TEST(VulkanProgramThreads, ProgramsComeAndGoWhileFramesDraw)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    // lavapipe rasterizes on the thread that runs its queue: the engine's
    // threads are what this checks, and the driver's own rasterizer threads
    // share fences in a way ThreadSanitizer cannot follow (the driver is not
    // instrumented).
    KovexTest::ScopedEnv rasterizeInline("LP_NUM_THREADS", "0");
    KovexTest::VulkanEngine engine(kWidth, kHeight, true);
    ASSERT_TRUE(engine.IsOpen());
    if (!engine.Renderer().GetDevice().GetBeginRendering())
        GTEST_SKIP() << "the device has no dynamic rendering";
    GraphicsThread* thread = GraphicsThread::Ins();
    ASSERT_TRUE(thread->IsStarted());
    Renderer& r = *g_ptrRenderer;
    const Square square{0.0f, 0.0f, 0.5f};
    Ptr<VertexBuffer> buffer = MakePositions(square.Triangles());
    std::mutex lock;
    // The worker's newest programs, under `lock`; dropping the oldest
    // releases it on the worker, and the graphics side destroys it.
    std::vector<Ptr<BaseProgram>> recent;
    std::atomic<bool> stop{false};
    std::atomic<int> made{0}, frames{0}, drawn{0};
    std::thread worker([&] {
        while (!stop.load() && made.load() < 40)
        {
            // Two programs a frame at most: the frames must keep up.
            if (made.load() >= 2 * (frames.load() + 1))
            {
                std::this_thread::yield();
                continue;
            }
            Ptr<BaseProgram> program = MakeProgram(kFlatVS, sizeof(kFlatVS), FlatReflection(true), kFlatPS,
                                                   sizeof(kFlatPS), FlatReflection(false));
            if (!program)
                break;
            std::lock_guard<std::mutex> guard(lock);
            recent.push_back(program);
            if (recent.size() > 8)
                recent.erase(recent.begin());
            made.fetch_add(1);
        }
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    const int kFrames = 16;
    for (int frame = 0; frame < kFrames && std::chrono::steady_clock::now() < deadline; ++frame)
    {
        while (made.load() < 2 * frame && std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
        Kovex_FrameBegin();
        Ptr<FrameCommand> command(new FrameCommand());
        const float green = frame == kFrames - 1 ? 1.0f : 0.5f;
        command->work = [&r, &lock, &recent, &buffer, &drawn, green] {
            // Programs posted before the frame before this one are made.
            Ptr<BaseProgram> program;
            {
                std::lock_guard<std::mutex> guard(lock);
                for (const Ptr<BaseProgram>& candidate : recent)
                    if (candidate->IsCreated())
                        program = candidate;
            }
            r.BeginFrame();
            r.Clear(GraphicsClearMode::TargetDepthStencil, Vector4(0, 0, 0, 1), 1.0f, 0);
            if (program)
            {
                VertexBuffer* buffers[1] = {buffer.Get()};
                program->ApplyProgram();
                SetFloats(*program, u"Color", {0.0f, green, 0.0f, 1.0f});
                SetFloats(*program, u"Offset", {0.0f, 0.0f});
                drawn.fetch_add(r.DrawWithProgram(Draw(buffers, 6)) ? 1 : 0);
            }
            r.EndFrame();
            r.Present();
        };
        thread->MT_PostCommand(command.Get());
        Kovex_FrameEnd();
        frames.fetch_add(1);
    }
    // What was posted during the last frame runs in the next one.
    Kovex_FrameBegin();
    Kovex_FrameEnd();
    stop = true;
    worker.join();
    EXPECT_GE(made.load(), 2 * (kFrames - 1));
    EXPECT_GE(drawn.load(), kFrames - 2) << "frames drew with programs made on the other thread";
    EXPECT_EQ(CompareSquares(KovexTest::ReadBack(r.GetRenderTarget(0).Get()), {{square, {0, 255, 0, 255}}},
                             "program-threads"),
              0);
    std::lock_guard<std::mutex> guard(lock);
    recent.clear();
}

#endif

// The entry point is read from the module; truncated or foreign words give
// none, never a read past their end.
TEST(VulkanProgramParts, TheEntryPointComesFromTheModule)
{
    // Header, OpCapability Shader, OpEntryPoint Vertex %1 "Main".
    std::vector<uint32> words = {0x07230203u, 0x00010300u, 0, 2, 0, (2u << 16) | 17u, 1,
                                 (5u << 16) | 15u, 0, 1, 0, 0};
    memcpy(&words[10], "Main", 4);
    words[11] = 0;
    std::string name;
    EXPECT_TRUE(VulkanShader::FindEntryPoint(words.data(), words.size(), name));
    EXPECT_EQ(name, "Main");
    EXPECT_FALSE(VulkanShader::FindEntryPoint(words.data(), 9, name)) << "the entry point is cut off";
    words[5] = 17u; // a length of 0 would loop for ever
    EXPECT_FALSE(VulkanShader::FindEntryPoint(words.data(), words.size(), name));
    words[0] = 0x03022307u;
    EXPECT_FALSE(VulkanShader::FindEntryPoint(words.data(), words.size(), name)) << "wrong magic";
    EXPECT_FALSE(VulkanShader::FindEntryPoint(nullptr, 0, name));
}

// A stage's bindings move into its range when its module is made; a slot
// beyond the range, or a damaged module, is refused.
TEST(VulkanProgramParts, AStagesBindingsMoveIntoItsRange)
{
    // Header, then OpDecorate %7 Binding 5 and OpDecorate %8 DescriptorSet 0.
    std::vector<uint32> words = {0x07230203u, 0x00010300u, 0, 9, 0, (4u << 16) | 71u, 7, 33, 5,
                                 (4u << 16) | 71u, 8, 34, 0};
    EXPECT_TRUE(VulkanShader::MoveBindings(words.data(), words.size(), ShaderType::Pixel));
    EXPECT_EQ(words[8], VulkanShader::kStageBindings + 5) << "the pixel stage's range starts at 256";
    EXPECT_EQ(words[12], 0u) << "the descriptor set stays";
    EXPECT_EQ(VulkanShader::StageBinding(ShaderType::Vertex, 5), 5u);
    words[8] = VulkanShader::kStageBindings;
    EXPECT_FALSE(VulkanShader::MoveBindings(words.data(), words.size(), ShaderType::Vertex));
    words[8] = 5;
    EXPECT_FALSE(VulkanShader::MoveBindings(words.data(), 7, ShaderType::Vertex)) << "cut off";
}

// Two programs of the same modules but other layouts, or with and without a
// geometry stage, never share a pipeline; entry names and inputs follow from
// the modules and do not split the key.
TEST(VulkanProgramParts, ALayoutAndAGeometryStageAreOfThePipelineKey)
{
    VulkanPipelineKey a, b;
    a.Vertex = b.Vertex = reinterpret_cast<VkShaderModule>(uintptr_t(0x1000));
    a.PipelineLayout = b.PipelineLayout = reinterpret_cast<VkPipelineLayout>(uintptr_t(0x2000));
    b.Entries[0] = "VS";
    ShaderReflection inputs;
    b.VertexInputs = &inputs;
    EXPECT_TRUE(a == b);
    EXPECT_EQ(a.Hash(), b.Hash());
    b.PipelineLayout = reinterpret_cast<VkPipelineLayout>(uintptr_t(0x2008));
    EXPECT_FALSE(a == b);
    EXPECT_NE(a.Hash(), b.Hash());
    b = a;
    b.Geometry = reinterpret_cast<VkShaderModule>(uintptr_t(0x3000));
    EXPECT_FALSE(a == b);
    EXPECT_NE(a.Hash(), b.Hash());
}

// The pipeline cache lives in the engine's cache directory: a device writes
// it when it closes, and the next device of the same kind starts from it;
// a file of another device, or a damaged one, is ignored with one line.
TEST(VulkanPipelineDisk, TheNextDeviceStartsFromTheSavedCache)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    char pattern[] = "/tmp/kovex-pipelines-XXXXXX";
    ASSERT_TRUE(mkdtemp(pattern));
    const WString root = g_kovexRootPath;
    // The engine lets its root path go when it terminates: set it for each.
    auto useTemporaryRoot = [&pattern] { g_kovexRootPath = StringConvFuncs::ToWString(pattern); };
    useTemporaryRoot();
    const std::string path = std::string(pattern) + "/vulkan-pipelines.cache";
    VkPhysicalDeviceProperties device = {};
    {
        KovexTest::VulkanEngine engine;
        ASSERT_TRUE(engine.IsOpen());
        device = engine.Renderer().GetDevice().GetProperties();
        EXPECT_EQ(engine.Renderer().GetPipelines().GetLoadedBytes(), 0u) << "nothing was saved before";
    }
    std::ifstream file(path, std::ios::binary);
    std::vector<uint8> saved((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    file.close();
    ASSERT_GE(saved.size(), 32u) << path;
    EXPECT_TRUE(VulkanPipelineCache::HeaderMatches(saved.data(), saved.size(), device));
    useTemporaryRoot();
    uint32 vendor = 0, id = 0;
    memcpy(&vendor, saved.data() + 8, 4);
    memcpy(&id, saved.data() + 12, 4);
    EXPECT_EQ(vendor, device.vendorID);
    EXPECT_EQ(id, device.deviceID);
    EXPECT_EQ(memcmp(saved.data() + 16, device.pipelineCacheUUID, VK_UUID_SIZE), 0);
    {
        KovexTest::VulkanEngine engine;
        ASSERT_TRUE(engine.IsOpen());
        EXPECT_EQ(engine.Renderer().GetPipelines().GetLoadedBytes(), saved.size());
    }
    const std::u16string line = u"Vulkan: the pipeline cache [" + std::u16string(path.begin(), path.end()) +
                                u"] is not this device's or is damaged; it is ignored.\n";
    std::vector<uint8> foreign = saved;
    foreign[12] ^= 0x5A; // another device id
    std::vector<uint8> truncated(saved.begin(), saved.begin() + 20);
    std::vector<uint8> absurdHeader = saved;
    absurdHeader[0] = 0xFF; // a header longer than the file
    absurdHeader[1] = 0xFF;
    for (const std::vector<uint8>* bad : {&foreign, &truncated, &absurdHeader})
    {
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(bad->data()), std::streamsize(bad->size()));
        useTemporaryRoot();
        KovexTest::LogCapture log;
        KovexTest::VulkanEngine engine;
        ASSERT_TRUE(engine.IsOpen());
        EXPECT_EQ(engine.Renderer().GetPipelines().GetLoadedBytes(), 0u);
        unsigned said = 0;
        for (const auto& entry : log->entries)
            said += entry.text == line.c_str();
        EXPECT_EQ(said, 1u);
    }
    EXPECT_FALSE(VulkanPipelineCache::HeaderMatches(nullptr, 0, device));
    g_kovexRootPath = root;
    remove(path.c_str());
    rmdir(pattern);
}

} // namespace
