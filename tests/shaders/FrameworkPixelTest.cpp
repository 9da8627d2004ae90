// The library's frameworks draw what they say: clears, screen copies, depth,
// 2D overlays, material channels and wires, each built from Data/shaders,
// drawn on lavapipe and compared with a CPU reference.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "graphics/RenderStates.h"
#include "graphics/Shader.h"
#include "graphics/TextureFactory.h"
#include "kernel/StringConv.h"
#include "shaders/Program.h"
#include "shaders/ShaderPixelSupport.h"

using namespace KovexEngine;
using KovexTest::MacroList;
using KovexTest::PixelRig;
using KovexTest::ProgramSpec;
using KovexTest::Reference;
using KovexTest::VertexData;

namespace {

constexpr uint32 kWidth = 64, kHeight = 32;
constexpr float kExact = 0.25f / 255; // 8-bit targets: the same byte
constexpr float kFloatTolerance = 1e-5f;
const float kClear[4] = {0.2f, 0.4f, 0.6f, 1.0f};

Ptr<Program> BuildFramework(PixelRig& rig, const char* file, const MacroList& macros = {},
                            const std::string& materialText = std::string())
{
    ProgramSpec codes;
    codes.framework = file;
    codes.fw = macros;
    codes.materialText = materialText;
    return rig.Build(codes);
}

// Position, normal, texture coordinate (the base attribute's stream) of one
// triangle given in clip x, y with a z per corner.
VertexData BaseTriangle(const float (&clip)[3][2], const float (&z)[3], const float (&normal)[3])
{
    VertexData data;
    data.Add(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3)
        .Add(GraphicsSemantic::Normal, 0, GraphicsLayoutFormat::Float3)
        .Add(GraphicsSemantic::TexCoord, 0, GraphicsLayoutFormat::Float2);
    for (int i = 0; i < 3; ++i)
        data.vertices.insert(data.vertices.end(),
                             {clip[i][0], clip[i][1], z[i], normal[0], normal[1], normal[2], 0.0f, 0.0f});
    data.vertexCount = 3;
    return data;
}

const float kTriangle[3][2] = {{-0.6f, -0.6f}, {0.0f, 0.8f}, {0.6f, -0.6f}};
const float kFlatZ[3] = {0.5f, 0.5f, 0.5f};
const float kUp[3] = {0.0f, 0.0f, 1.0f};

// Camera and object constants of a geometry pass: identity world and view,
// the given view-projection, 1 / far in CameraPosInvFar.w.
void CommitCamera(Program* program, const float (&viewProj)[16], float far = 10.0f)
{
    const float cameraPosInvFar[4] = {0, 0, 0, 1.0f / far};
    program->CommitConstantByName(u"WorldMatrix", KovexTest::kIdentityMatrix, 64, 16);
    program->CommitConstantByName(u"ViewMatrix", KovexTest::kIdentityMatrix, 64, 16);
    program->CommitConstantByName(u"ViewProjMatrix", viewProj, 64, 16);
    program->CommitConstantByName(u"CameraPosInvFar", cameraPosInvFar, 16, 16);
}

// An image of distinct texels (every channel varies, alpha included), or in
// a float format values outside [0, 1] and signed ones.
Ptr<Image> Pattern(GraphicsFormat format, uint32 slices = 1, uint32 seed = 0)
{
    Ptr<Image> image(new Image());
    TextureDesc desc = TextureFactory::Make2DDesc(kWidth, kHeight, format, 1);
    desc.ArraySize = slices;
    if (!image->Create(desc))
        return Ptr<Image>();
    for (uint32 s = 0; s < slices; ++s)
        for (uint32 y = 0; y < kHeight; ++y)
            for (uint32 x = 0; x < kWidth; ++x)
            {
                const uint32 k = seed + 37 * s;
                if (format == GraphicsFormat::R32G32B32A32_FLOAT)
                {
                    float* t = reinterpret_cast<float*>(image->GetData(s, 0, 0)) + 4 * (y * kWidth + x);
                    t[0] = (float(x) - 20.0f) / 16.0f + k;
                    t[1] = (float(y) - 10.0f) / 8.0f;
                    t[2] = float((x * 7 + y * 3) % 11) / 4.0f - 1.0f;
                    t[3] = float(x + y) / 32.0f;
                }
                else
                {
                    uint8* t = image->GetData(s, 0, 0) + 4 * (y * kWidth + x);
                    t[0] = uint8(x * 4 + k);
                    t[1] = uint8(y * 8 + 3 * k);
                    t[2] = uint8((x * 13 + y * 29 + k) & 255);
                    t[3] = uint8(255 - x - 2 * y);
                }
            }
    return image;
}

// The CPU reference of a full-screen pass: `f` maps the sources' texels at
// each pixel to the expected colour.
Reference ScreenReference(const std::vector<Ptr<Image>>& sources, uint32 slice,
                          const std::function<void(const std::vector<const float*>&, float*)>& f)
{
    float black[4] = {0, 0, 0, 0};
    Reference ref = Reference::Filled(kWidth, kHeight, black);
    std::vector<std::vector<float>> texels(sources.size(), std::vector<float>(4));
    for (uint32 y = 0; y < kHeight; ++y)
        for (uint32 x = 0; x < kWidth; ++x)
        {
            std::vector<const float*> at;
            for (size_t i = 0; i < sources.size(); ++i)
            {
                const Image& image = *sources[i];
                if (image.GetDesc().Format == GraphicsFormat::R32G32B32A32_FLOAT)
                    std::copy_n(reinterpret_cast<const float*>(image.GetData(slice, 0, 0)) + 4 * (y * kWidth + x), 4,
                                texels[i].begin());
                else
                    for (int c = 0; c < 4; ++c)
                        texels[i][c] = image.GetData(slice, 0, 0)[4 * (y * kWidth + x) + c] / 255.0f;
                at.push_back(texels[i].data());
            }
            f(at, ref.At(x, y));
        }
    return ref;
}

void Copy(const std::vector<const float*>& in, float* out) { std::copy_n(in[0], 4, out); }

// Distance from a pixel centre to the segment between two pixel positions.
float SegmentDistance(float px, float py, const float (&a)[2], const float (&b)[2])
{
    const float dx = b[0] - a[0], dy = b[1] - a[1];
    float t = ((px - a[0]) * dx + (py - a[1]) * dy) / (dx * dx + dy * dy);
    t = std::clamp(t, 0.0f, 1.0f);
    const float ex = a[0] + t * dx - px, ey = a[1] + t * dy - py;
    return std::sqrt(ex * ex + ey * ey);
}

} // namespace

// --- Full-screen passes --------------------------------------------------------------------------

// Each configuration clears exactly its targets, each to its own colour: a
// colour sent to the wrong target or a target left out shows.
TEST(FrameworkPixels, DrawClearGivesEachTargetItsOwnColour)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kWidth, kHeight);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    for (uint32 targets : {1u, 3u, 8u})
    {
        MacroList macros = {{"NUM_RT", std::to_string(targets)}};
        for (uint32 i = 0; i < targets; ++i)
            macros.push_back({"CLEAR_RT_" + std::to_string(i), "1"});
        Ptr<Program> program = BuildFramework(rig, "DrawClear.ksl", macros);
        ASSERT_TRUE(program) << targets << " targets";
        ASSERT_TRUE(rig.SetTargets(std::vector<GraphicsFormat>(targets, GraphicsFormat::R8G8B8A8_UNORM)));
        rig.Clear(Vector4(0, 0, 0, 0));
        float colours[8][4];
        for (uint32 i = 0; i < 8; ++i)
        {
            const float c[4] = {(i * 32) / 255.0f, (255 - i * 29) / 255.0f, ((i * 80) % 256) / 255.0f,
                                (128 + i) / 255.0f};
            std::copy_n(c, 4, colours[i]);
            const std::string name = "ClearColor" + std::to_string(i);
            EXPECT_TRUE(program->CommitConstantByName(StringConvFuncs::ToWString(name.c_str()), c, 16, 16));
        }
        ASSERT_TRUE(rig.Draw(program.Get(), nullptr, 3));
        for (uint32 i = 0; i < targets; ++i)
        {
            const std::string name = "drawclear-" + std::to_string(targets) + "-rt" + std::to_string(i);
            EXPECT_EQ(KovexTest::Compare(rig.ReadTarget(i), Reference::Filled(kWidth, kHeight, colours[i]), kExact,
                                         name.c_str()),
                      0)
                << "target " << i << " of " << targets;
        }
    }
}

// ClearDepth reaches the depth buffer: a second clear behind it (with the
// default less-or-equal test) leaves the first colour, one at the same depth
// replaces it.
TEST(FrameworkPixels, DrawClearWritesClearDepth)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kWidth, kHeight);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    Ptr<Program> front = BuildFramework(rig, "DrawClear.ksl", {{"NUM_RT", "1"}, {"CLEAR_RT_0", "1"}});
    Ptr<Program> second = BuildFramework(rig, "DrawClear.ksl", {{"NUM_RT", "1"}, {"CLEAR_RT_0", "1"}, {"T", "2"}});
    ASSERT_TRUE(front && second);
    const float red[4] = {1, 0, 0, 1}, green[4] = {0, 1, 0, 1};
    for (float secondDepth : {0.5f, 0.25f})
    {
        ASSERT_TRUE(rig.SetTargets({GraphicsFormat::R8G8B8A8_UNORM}));
        rig.Clear(Vector4(0, 0, 0, 1), 1.0f);
        const float depth = 0.25f;
        front->CommitConstantByName(u"ClearColor0", red, 16, 16);
        front->CommitConstantByName(u"ClearDepth", &depth, 4, 16);
        ASSERT_TRUE(rig.Draw(front.Get(), nullptr, 3));
        second->CommitConstantByName(u"ClearColor0", green, 16, 16);
        second->CommitConstantByName(u"ClearDepth", &secondDepth, 4, 16);
        ASSERT_TRUE(rig.Draw(second.Get(), nullptr, 3));
        const bool behind = secondDepth > depth;
        EXPECT_EQ(KovexTest::Compare(rig.ReadTarget(0), Reference::Filled(kWidth, kHeight, behind ? red : green),
                                     kExact, behind ? "drawclear-depth-behind" : "drawclear-depth-equal"),
                  0)
            << "second clear at depth " << secondDepth;
    }
}

// Every pixel of the target is the source's texel, alpha included.
TEST(FrameworkPixels, DrawScreenCopiesTheSourceExactly)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kWidth, kHeight);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    Ptr<Program> program = BuildFramework(rig, "DrawScreen.ksl");
    ASSERT_TRUE(program);
    EXPECT_EQ(program->FindTexture(u"SourceTextureArray"), nullptr);
    for (GraphicsFormat format : {GraphicsFormat::R8G8B8A8_UNORM, GraphicsFormat::R32G32B32A32_FLOAT})
    {
        Ptr<Image> source = Pattern(format);
        Ptr<Texture> texture = PixelRig::MakeTexture(source);
        ASSERT_TRUE(texture);
        ASSERT_TRUE(rig.SetTargets({format}));
        rig.Clear(Vector4(0, 0, 0, 0));
        ASSERT_TRUE(program->CommitTexture(u"SourceTexture", texture));
        ASSERT_TRUE(rig.Draw(program.Get(), nullptr, 3));
        const bool unorm = format == GraphicsFormat::R8G8B8A8_UNORM;
        EXPECT_EQ(KovexTest::Compare(rig.ReadTarget(0), ScreenReference({source}, 0, Copy), unorm ? kExact : 0.0f,
                                     unorm ? "drawscreen-copy-rgba8" : "drawscreen-copy-float"),
                  0);
    }
}

// The buffer views: each configuration shows its part of a float source.
TEST(FrameworkPixels, DrawScreenShowsEachBufferKind)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kWidth, kHeight);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    Ptr<Image> source = Pattern(GraphicsFormat::R32G32B32A32_FLOAT);
    Ptr<Texture> texture = PixelRig::MakeTexture(source);
    ASSERT_TRUE(texture);
    using Show = void (*)(const std::vector<const float*>&, float*);
    const struct
    {
        const char* macro;
        Show show;
    } views[] = {
        {"DRAW_DEPTH", [](const std::vector<const float*>& in, float* out) {
             out[0] = out[1] = out[2] = in[0][0];
             out[3] = 1;
         }},
        {"DRAW_NORMAL", [](const std::vector<const float*>& in, float* out) {
             for (int c = 0; c < 3; ++c)
                 out[c] = in[0][c] * 0.5f + 0.5f;
             out[3] = 1;
         }},
        {"DRAW_SPECULARPOWER", [](const std::vector<const float*>& in, float* out) {
             out[0] = out[1] = out[2] = in[0][3];
             out[3] = 1;
         }},
        {"DRAW_AMBIENT", [](const std::vector<const float*>& in, float* out) {
             std::copy_n(in[0], 3, out);
             out[3] = 1;
         }},
    };
    for (const auto& view : views)
    {
        Ptr<Program> program = BuildFramework(rig, "DrawScreen.ksl", {{view.macro, "1"}});
        ASSERT_TRUE(program) << view.macro;
        ASSERT_TRUE(rig.SetTargets({GraphicsFormat::R32G32B32A32_FLOAT}));
        rig.Clear(Vector4(0, 0, 0, 0));
        ASSERT_TRUE(program->CommitTexture(u"SourceTexture", texture));
        ASSERT_TRUE(rig.Draw(program.Get(), nullptr, 3));
        const std::string name = std::string("drawscreen-") + view.macro;
        EXPECT_EQ(KovexTest::Compare(rig.ReadTarget(0), ScreenReference({source}, 0, view.show), kFloatTolerance,
                                     name.c_str()),
                  0)
            << view.macro;
    }
}

// A texture array: one slice by TEXARRAY_SLICE, or the first n slices to n
// targets by TEXARRAY_TO_MRT.
TEST(FrameworkPixels, DrawScreenReadsTextureArraySlices)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kWidth, kHeight);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    Ptr<Image> source = Pattern(GraphicsFormat::R8G8B8A8_UNORM, 4, 11);
    ASSERT_TRUE(source);
    Ptr<Texture> texture = PixelRig::MakeTexture(source);
    ASSERT_TRUE(texture && texture->GetDesc().ArraySize == 4);
    for (uint32 slice : {0u, 3u})
    {
        Ptr<Program> program = BuildFramework(
            rig, "DrawScreen.ksl", {{"USE_TEXARRAY", "1"}, {"TEXARRAY_SLICE", std::to_string(slice)}});
        ASSERT_TRUE(program);
        ASSERT_TRUE(rig.SetTargets({GraphicsFormat::R8G8B8A8_UNORM}));
        rig.Clear(Vector4(0, 0, 0, 0));
        ASSERT_TRUE(program->CommitTexture(u"SourceTextureArray", texture));
        ASSERT_TRUE(rig.Draw(program.Get(), nullptr, 3));
        const std::string name = "drawscreen-slice" + std::to_string(slice);
        EXPECT_EQ(KovexTest::Compare(rig.ReadTarget(0), ScreenReference({source}, slice, Copy), kExact, name.c_str()),
                  0)
            << "slice " << slice;
    }
    Ptr<Program> mrt = BuildFramework(rig, "DrawScreen.ksl", {{"TEXARRAY_TO_MRT", "3"}});
    ASSERT_TRUE(mrt);
    ASSERT_TRUE(rig.SetTargets(std::vector<GraphicsFormat>(3, GraphicsFormat::R8G8B8A8_UNORM)));
    rig.Clear(Vector4(0, 0, 0, 0));
    ASSERT_TRUE(mrt->CommitTexture(u"SourceTextureArray", texture));
    ASSERT_TRUE(rig.Draw(mrt.Get(), nullptr, 3));
    for (uint32 slice = 0; slice < 3; ++slice)
    {
        const std::string name = "drawscreen-mrt" + std::to_string(slice);
        EXPECT_EQ(KovexTest::Compare(rig.ReadTarget(slice), ScreenReference({source}, slice, Copy), kExact,
                                     name.c_str()),
                  0)
            << "target " << slice;
    }
}

TEST(FrameworkPixels, DrawScreenModulateMultipliesTheTwoTextures)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kWidth, kHeight);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    Ptr<Program> program = BuildFramework(rig, "DrawScreenModulate.ksl");
    ASSERT_TRUE(program);
    Ptr<Image> source = Pattern(GraphicsFormat::R8G8B8A8_UNORM), modulate = Pattern(GraphicsFormat::R8G8B8A8_UNORM, 1, 90);
    ASSERT_TRUE(rig.SetTargets({GraphicsFormat::R8G8B8A8_UNORM}));
    rig.Clear(Vector4(0, 0, 0, 0));
    ASSERT_TRUE(program->CommitTexture(u"SourceTexture", PixelRig::MakeTexture(source)));
    ASSERT_TRUE(program->CommitTexture(u"ModulateTexture", PixelRig::MakeTexture(modulate)));
    ASSERT_TRUE(rig.Draw(program.Get(), nullptr, 3));
    const Reference expected = ScreenReference({source, modulate}, 0, [](const std::vector<const float*>& in, float* out) {
        for (int c = 0; c < 4; ++c)
            out[c] = in[0][c] * in[1][c];
    });
    // One step of rounding in the product.
    EXPECT_EQ(KovexTest::Compare(rig.ReadTarget(0), expected, 1.0f / 255, "drawscreenmodulate"), 0);
}

// --- Geometry passes -----------------------------------------------------------------------------

// Linear depth, not device depth: the view-projection maps z to a device
// depth of 0.05 z + 0.3, so 0.4 at z = 2 where the linear depth (z / far,
// far 10) is 0.2. A sloped triangle interpolates between its corners.
TEST(FrameworkPixels, RenderDepthWritesLinearViewDepth)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kWidth, kHeight);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    Ptr<Program> plain = BuildFramework(rig, "RenderDepth.ksl");
    Ptr<Program> withNormal = BuildFramework(rig, "RenderDepth.ksl", {{"DRAW_DEPTH_NORMAL", "1"}});
    ASSERT_TRUE(plain && withNormal);
    const float viewProj[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0.05f, 0.3f, 0, 0, 0, 1};
    const float z[3] = {2.0f, 4.0f, 6.0f};
    const float normal[3] = {0.6f, 0.0f, 0.8f};
    const VertexData triangle = BaseTriangle(kTriangle, z, normal);
    const float corners[3][4] = {{0.2f, 0.2f, 0.2f, 1}, {0.4f, 0.4f, 0.4f, 1}, {0.6f, 0.6f, 0.6f, 1}};
    const float none[4] = {0, 0, 0, 0};
    for (Program* program : {plain.Get(), withNormal.Get()})
    {
        const bool both = program == withNormal.Get();
        ASSERT_TRUE(rig.SetTargets(std::vector<GraphicsFormat>(both ? 2 : 1, GraphicsFormat::R32G32B32A32_FLOAT)));
        rig.Clear(Vector4(0, 0, 0, 0));
        CommitCamera(program, viewProj);
        ASSERT_TRUE(rig.Draw(program, &triangle, 3));
        Reference depth = Reference::Filled(kWidth, kHeight, none);
        depth.FillTriangle(kTriangle, corners, 1.0f);
        EXPECT_EQ(KovexTest::Compare(rig.ReadTarget(0), depth, 1e-4f, both ? "renderdepth-mrt" : "renderdepth"), 0);
        if (both)
        {
            // The triangle is clockwise on screen: its front face, the normal as given.
            Reference normals = Reference::Filled(kWidth, kHeight, none);
            const float n[4] = {normal[0], normal[1], normal[2], 0};
            normals.FillTriangle(kTriangle, n, 1.0f);
            EXPECT_EQ(KovexTest::Compare(rig.ReadTarget(1), normals, 1e-4f, "renderdepth-normal"), 0);
        }
    }
}

// Variables of storage class Output in a stage's SPIR-V (its colour
// outputs, for a pixel stage); -1 without code.
int OutputVariables(Program* program, ShaderType stage)
{
    Shader* shader = program->GetShader(stage);
    if (!shader || !shader->GetShaderCode())
        return -1;
    const uint32* words = static_cast<const uint32*>(shader->GetShaderCode());
    const uint32 count = shader->GetShaderCodeSize() / 4;
    constexpr uint32 kOpVariable = 59, kStorageOutput = 3;
    int outputs = 0;
    for (uint32 at = 5; at < count;)
    {
        const uint32 length = words[at] >> 16, opcode = words[at] & 0xffff;
        if (length == 0)
            return -1;
        if (opcode == kOpVariable && at + 3 < count && words[at + 3] == kStorageOutput)
            ++outputs;
        at += length;
    }
    return outputs;
}

// Depth only: the pixel stage has no colour output, and the depth it leaves
// keeps a later full-screen clear behind it off the triangle. Drawn, as the
// depth phases draw, with colour writes off: a pixel stage without outputs
// leaves the target's values undefined otherwise. A mask material whose
// opacity is under its mask leaves no depth.
TEST(FrameworkPixels, DrawNullWritesDepthAndNoColour)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kWidth, kHeight);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    ProgramSpec masked;
    masked.framework = "DrawNull.ksl";
    masked.blendMode = BlendMode::Mask;
    masked.opaqueMask = 0.5f;
    Ptr<Program> opaque = BuildFramework(rig, "DrawNull.ksl"), cut = rig.Build(masked);
    Ptr<Program> clear = BuildFramework(rig, "DrawClear.ksl", {{"NUM_RT", "1"}, {"CLEAR_RT_0", "1"}});
    ASSERT_TRUE(opaque && cut && clear);
    EXPECT_EQ(OutputVariables(opaque.Get(), ShaderType::Pixel), 0);
    EXPECT_EQ(OutputVariables(clear.Get(), ShaderType::Pixel), 2) << "the check counts outputs: colour and depth";
    const float z[3] = {0.3f, 0.3f, 0.3f};
    const VertexData triangle = BaseTriangle(kTriangle, z, kUp);
    const float green[4] = {0, 1, 0, 1}, depth = 0.5f, translucent[4] = {1, 1, 1, 0.25f};
    for (Program* program : {opaque.Get(), cut.Get()})
    {
        ASSERT_TRUE(rig.SetTargets({GraphicsFormat::R8G8B8A8_UNORM}));
        rig.Clear(Vector4(kClear[0], kClear[1], kClear[2], kClear[3]), 1.0f);
        CommitCamera(program, KovexTest::kIdentityMatrix);
        program->CommitConstantByName(u"DiffuseColor", translucent, 16, 16);
        rig.Renderer().CommitState(BlendStateFactory::Get()->GetColorDisableState().Get());
        ASSERT_TRUE(rig.Draw(program, &triangle, 3));
        rig.Renderer().CommitState(BlendStateFactory::Get()->Create(BlendState::Desc()).Get());
        clear->CommitConstantByName(u"ClearColor0", green, 16, 16);
        clear->CommitConstantByName(u"ClearDepth", &depth, 4, 16);
        ASSERT_TRUE(rig.Draw(clear.Get(), nullptr, 3));
        Reference expected = Reference::Filled(kWidth, kHeight, green);
        if (program == opaque.Get())
            expected.FillTriangle(kTriangle, kClear, 1.0f);
        EXPECT_EQ(KovexTest::Compare(rig.ReadTarget(0), expected, kExact,
                                     program == opaque.Get() ? "drawnull" : "drawnull-masked"),
                  0);
    }
}

// A 2D triangle given in viewport pixels lands on those pixels in the
// material's colour.
TEST(FrameworkPixels, Element2DDrawsAtTheAttributesPositionInTheMaterialsColour)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kWidth, kHeight);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    ProgramSpec codes;
    codes.framework = "Element2D.ksl";
    codes.attribute = "Attribute_Tri2d.ksl";
    codes.ab = {{"NUM_TEXCOORDS", "0"}};
    Ptr<Program> program = rig.Build(codes);
    ASSERT_TRUE(program);
    const float pixels[3][2] = {{4, 28}, {20, 2}, {60, 30}};
    VertexData data;
    data.Add(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3)
        .Add(GraphicsSemantic::Color, 0, GraphicsLayoutFormat::Float4);
    float clip[3][2];
    for (int i = 0; i < 3; ++i)
    {
        data.vertices.insert(data.vertices.end(), {pixels[i][0], pixels[i][1], 0.5f, 1, 1, 1, 1});
        clip[i][0] = pixels[i][0] / kWidth * 2 - 1;
        clip[i][1] = 1 - pixels[i][1] / kHeight * 2;
    }
    data.vertexCount = 3;
    const float viewport[4] = {float(kWidth), float(kHeight), 1.0f / kWidth, 1.0f / kHeight};
    const float colour[4] = {0.2f, 0.8f, 0.4f, 1.0f};
    ASSERT_TRUE(program->CommitConstantByName(u"ViewportSize", viewport, 16, 16));
    ASSERT_TRUE(program->CommitConstantByName(u"DiffuseColor", colour, 16, 16));
    ASSERT_TRUE(rig.SetTargets({GraphicsFormat::R8G8B8A8_UNORM}));
    rig.Clear(Vector4(kClear[0], kClear[1], kClear[2], kClear[3]));
    ASSERT_TRUE(rig.Draw(program.Get(), &data, 3));
    Reference expected = Reference::Filled(kWidth, kHeight, kClear);
    expected.FillTriangle(clip, colour, 1.0f);
    EXPECT_EQ(KovexTest::Compare(rig.ReadTarget(0), expected, 1.0f / 255, "element2d"), 0);
}

// A material whose channels are distinct constants, so each view shows
// which channel it read.
const char* const kChannelMaterial = R"(
float3 GetMaterialAmbient(MaterialInput i) { return float3(0.1, 0.2, 0.3); }
float3 GetMaterialDiffuse(MaterialInput i) { return float3(0.4, 0.5, 0.25); }
float3 GetMaterialNormal(MaterialInput i) { return float3(0.0, 0.6, -0.8); }
float3 GetMaterialSpecularColor(MaterialInput i) { return float3(0.7, 0.125, 0.9); }
float GetMaterialSpecularPower(MaterialInput i) { return 20.0; }
float GetMaterialOpacity(MaterialInput i) { return 1.0; }
float2 GetMaterialDistortion(MaterialInput i) { return float2(0, 0); }
float3 GetMaterialVertexOffset(MaterialInput i) { return float3(0, 0, 0); }
float GetMaterialTessellationFactor(MaterialInput i) { return 1.0; }
float3 GetMaterialTessellationOffset(MaterialInput i) { return float3(0, 0, 0); }
float4 GetMaterialColor(MaterialInput i) { return float4(GetMaterialDiffuse(i) + GetMaterialAmbient(i), 1.0); }
)";

TEST(FrameworkPixels, DrawMaterialShowsTheChannelOfEachConfiguration)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kWidth, kHeight);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    const struct
    {
        const char* macro;
        float colour[4];
    } views[] = {
        {"DRAW_DIFFUSE", {0.4f, 0.5f, 0.25f, 1}},
        {"DRAW_AMBIENT", {0.1f, 0.2f, 0.3f, 1}},
        {"DRAW_SPECULAR", {0.7f, 0.125f, 0.9f, 1}},
        {"DRAW_DIFFUSE_AMBIENT", {0.5f, 0.7f, 0.55f, 1}},
        {"DRAW_DEPTH", {0.4f, 0.4f, 0.4f, 1}}, // z 4, far 10
        {"DRAW_NORMAL", {0.5f, 0.8f, 0.1f, 1}},
    };
    // Device depth 0.5 for the triangle at z = 4.
    const float viewProj[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0.125f, 0, 0, 0, 0, 1};
    const float z[3] = {4, 4, 4};
    const VertexData triangle = BaseTriangle(kTriangle, z, kUp);
    const float none[4] = {0, 0, 0, 0};
    for (const auto& view : views)
    {
        Ptr<Program> program = BuildFramework(rig, "DrawMaterial.ksl", {{view.macro, "1"}}, kChannelMaterial);
        ASSERT_TRUE(program) << view.macro;
        ASSERT_TRUE(rig.SetTargets({GraphicsFormat::R32G32B32A32_FLOAT}));
        rig.Clear(Vector4(0, 0, 0, 0));
        CommitCamera(program.Get(), viewProj);
        ASSERT_TRUE(rig.Draw(program.Get(), &triangle, 3));
        Reference expected = Reference::Filled(kWidth, kHeight, none);
        expected.FillTriangle(kTriangle, view.colour, 1.0f);
        const std::string name = std::string("drawmaterial-") + view.macro;
        EXPECT_EQ(KovexTest::Compare(rig.ReadTarget(0), expected, 1e-5f, name.c_str()), 0) << view.macro;
    }
}

// Wires lie on the triangle's edges, cover each edge, and leave the inside
// (and outside) away from the edges untouched; plain wires take WireColor,
// SOLID_WIRE the material's colour.
TEST(FrameworkPixels, WireframeDrawsTheEdgesInTheWireColour)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kWidth, kHeight);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    const float wire[4] = {1.0f, 0.5f, 0.0f, 1.0f}, diffuse[4] = {0.0f, 0.0f, 1.0f, 1.0f};
    const float big[3][2] = {{-0.9f, -0.8f}, {0.0f, 0.9f}, {0.9f, -0.8f}};
    const VertexData triangle = BaseTriangle(big, kFlatZ, kUp);
    float corners[3][2];
    for (int i = 0; i < 3; ++i)
    {
        corners[i][0] = (big[i][0] + 1) * 0.5f * kWidth;
        corners[i][1] = (1 - big[i][1]) * 0.5f * kHeight;
    }
    for (bool solid : {false, true})
    {
        Ptr<Program> program =
            BuildFramework(rig, "Wireframe.ksl", solid ? MacroList{{"USE_SOLD_WIRE", "1"}} : MacroList{});
        ASSERT_TRUE(program);
        ASSERT_TRUE(rig.SetTargets({GraphicsFormat::R8G8B8A8_UNORM}));
        rig.Clear(Vector4(kClear[0], kClear[1], kClear[2], kClear[3]));
        CommitCamera(program.Get(), KovexTest::kIdentityMatrix);
        program->CommitConstantByName(u"WireColor", wire, 16, 16);
        program->CommitConstantByName(u"DiffuseColor", diffuse, 16, 16);
        rig.SetWireframe(true);
        ASSERT_TRUE(rig.Draw(program.Get(), &triangle, 3));
        rig.SetWireframe(false);
        Ptr<Image> image = rig.ReadTarget(0);
        ASSERT_TRUE(image);
        const float* expectedWire = solid ? diffuse : wire;
        int onEdge[3] = {}, strayWire = 0, wrongColour = 0, touchedAway = 0;
        for (uint32 y = 0; y < kHeight; ++y)
            for (uint32 x = 0; x < kWidth; ++x)
            {
                float texel[4];
                ASSERT_TRUE(KovexTest::ReadTexel(image, x, y, texel));
                float nearest = 1e9f;
                int edge = 0;
                for (int e = 0; e < 3; ++e)
                {
                    const float d = SegmentDistance(x + 0.5f, y + 0.5f, corners[e], corners[(e + 1) % 3]);
                    if (d < nearest)
                        nearest = d, edge = e;
                }
                bool isClear = true, isWire = true;
                for (int c = 0; c < 4; ++c)
                {
                    isClear = isClear && std::fabs(texel[c] - kClear[c]) <= 1.0f / 255;
                    isWire = isWire && std::fabs(texel[c] - expectedWire[c]) <= 1.0f / 255;
                }
                if (!isClear && !isWire)
                    ++wrongColour;
                if (isWire && nearest > 1.5f)
                    ++strayWire;
                if (!isClear && nearest > 2.0f)
                    ++touchedAway;
                if (isWire && nearest <= 1.0f)
                    ++onEdge[edge];
            }
        EXPECT_EQ(wrongColour, 0) << (solid ? "solid" : "plain");
        EXPECT_EQ(strayWire, 0) << (solid ? "solid" : "plain");
        EXPECT_EQ(touchedAway, 0) << (solid ? "solid" : "plain");
        for (int e = 0; e < 3; ++e)
        {
            const float dx = corners[(e + 1) % 3][0] - corners[e][0], dy = corners[(e + 1) % 3][1] - corners[e][1];
            const float length = std::max(std::fabs(dx), std::fabs(dy)); // pixels a line of it covers
            EXPECT_GE(onEdge[e], int(length * 0.8f)) << "edge " << e << (solid ? " solid" : " plain");
        }
    }
}

// --- Light-map encoding --------------------------------------------------------------------------

// Linear light through RGBE in an 8-bit target and back: each component
// within one 8-bit step of the pixel's largest component (the shared
// exponent's precision), black stays black.
TEST(FrameworkPixels, RGBEEncodingRoundTripsLinearLight)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kWidth, kHeight);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    Ptr<Program> encode = BuildFramework(rig, "EncodeRGBE.ksl"), decode = BuildFramework(rig, "DecodeRGBE.ksl");
    ASSERT_TRUE(encode && decode);
    Ptr<Image> light(new Image());
    ASSERT_TRUE(light->Create(TextureFactory::Make2DDesc(kWidth, kHeight, GraphicsFormat::R32G32B32A32_FLOAT, 1)));
    float* texels = reinterpret_cast<float*>(light->GetData());
    for (uint32 y = 0; y < kHeight; ++y)
        for (uint32 x = 0; x < kWidth; ++x)
        {
            float* t = texels + 4 * (y * kWidth + x);
            const float scale = std::ldexp(1.0f, int(x % 12) - 6); // 1/64 ... 32
            t[0] = scale * (1.0f + y / 8.0f);
            t[1] = scale * 0.3f * (x % 5);
            t[2] = scale * (4.0f - y / 10.0f);
            t[3] = 1.0f;
            if (x == 0 && y == 0)
                t[0] = t[1] = t[2] = 0.0f;
        }
    ASSERT_TRUE(rig.SetTargets({GraphicsFormat::R8G8B8A8_UNORM}));
    rig.Clear(Vector4(0, 0, 0, 0));
    ASSERT_TRUE(encode->CommitTexture(u"SourceTexture", PixelRig::MakeTexture(light)));
    ASSERT_TRUE(rig.Draw(encode.Get(), nullptr, 3));
    Ptr<Image> rgbe = rig.ReadTarget(0);
    ASSERT_TRUE(rgbe);
    ASSERT_TRUE(rig.SetTargets({GraphicsFormat::R32G32B32A32_FLOAT}));
    rig.Clear(Vector4(0, 0, 0, 0));
    ASSERT_TRUE(decode->CommitTexture(u"SourceTexture", PixelRig::MakeTexture(rgbe)));
    ASSERT_TRUE(rig.Draw(decode.Get(), nullptr, 3));
    Ptr<Image> decoded = rig.ReadTarget(0);
    ASSERT_TRUE(decoded);
    int off = 0;
    for (uint32 y = 0; y < kHeight; ++y)
        for (uint32 x = 0; x < kWidth; ++x)
        {
            const float* in = texels + 4 * (y * kWidth + x);
            float out[4];
            ASSERT_TRUE(KovexTest::ReadTexel(decoded, x, y, out));
            const float largest = std::max(in[0], std::max(in[1], in[2]));
            for (int c = 0; c < 3; ++c)
                if (std::fabs(out[c] - in[c]) > largest / 255.0f + 1e-7f && off++ < 5)
                    ADD_FAILURE() << "(" << x << ", " << y << ") channel " << c << ": " << out[c] << " for " << in[c];
        }
    EXPECT_EQ(off, 0) << "components off by more than the shared exponent's step";
}
