// The shader library draws what it says: programs built from Data/shaders
// (NoLighting with each attribute and material) drawn on lavapipe and
// compared with CPU references of their shapes and colours.

#include <gtest/gtest.h>

#include <string.h>

#include <cmath>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "graphics/TextureFactory.h"
#include "kernel/StringConv.h"
#include "shaders/PGCode.h"
#include "shaders/Program.h"
#include "shaders/ShaderPixelSupport.h"

using namespace KovexEngine;
using KovexTest::PixelRig;
using KovexTest::ProgramSpec;
using KovexTest::Reference;
using KovexTest::VertexData;

namespace {

constexpr uint32 kWidth = 64, kHeight = 32;
const float (&kIdentity)[16] = KovexTest::kIdentityMatrix;
const float kBlack[4] = {0, 0, 0, 1};

// Clip-space corners of the test's triangle (y up), clockwise on screen.
const float kTriangle[3][2] = {{-0.6f, -0.6f}, {0.0f, 0.8f}, {0.6f, -0.6f}};

// Position, normal, texture coordinate: the base attribute's stream.
VertexData BaseTriangle()
{
    VertexData data;
    data.Add(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3)
        .Add(GraphicsSemantic::Normal, 0, GraphicsLayoutFormat::Float3)
        .Add(GraphicsSemantic::TexCoord, 0, GraphicsLayoutFormat::Float2);
    for (int i = 0; i < 3; ++i)
    {
        const float u = i == 0 ? 0.0f : i == 1 ? 0.5f : 1.0f, v = i == 1 ? 0.0f : 1.0f;
        data.vertices.insert(data.vertices.end(), {kTriangle[i][0], kTriangle[i][1], 0.5f, 0, 0, 1, u, v});
    }
    data.vertexCount = 3;
    return data;
}

} // namespace

// The unlit framework, the base attribute and the triangle material: a
// triangle over the middle of the target takes the material's colour, and
// the colour set by name on the program changes the next frame's pixels.
TEST(ShaderLibraryPixels, NoLightingDrawsTheTriangleInItsColourByName)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kWidth, kHeight);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    Ptr<Program> program = rig.Build(ProgramSpec());
    ASSERT_TRUE(program);
    const VertexData triangle = BaseTriangle();
    const float colours[2][4] = {{1.0f, 0.0f, 0.0f, 1.0f}, {0.0f, 0.0f, 1.0f, 1.0f}};
    for (int frame = 0; frame < 2; ++frame)
    {
        rig.Clear(Vector4(0, 0, 0, 1));
        ASSERT_TRUE(program->CommitConstantByName(u"ViewProjMatrix", kIdentity, 64, 16));
        ASSERT_TRUE(program->CommitConstantByName(u"WorldMatrix", kIdentity, 64, 16));
        ASSERT_TRUE(program->CommitConstantByName(u"DiffuseColor", colours[frame], 16, 16));
        ASSERT_TRUE(rig.Draw(program.Get(), &triangle, 3));
        Reference expected = Reference::Filled(kWidth, kHeight, kBlack);
        expected.FillTriangle(kTriangle, colours[frame], 1.5f);
        EXPECT_EQ(KovexTest::Compare(rig.ReadTarget(0), expected, 1.0f / 255,
                                     frame ? "nolighting-blue" : "nolighting-red"),
                  0);
    }
}

// The triangle material under every blend mode's macro: the four mask modes
// discard pixels whose opacity is below the configuration's mask and keep
// the others; the other modes never discard (blending itself is the
// renderer's state, opaque here).
TEST(ShaderLibraryPixels, TriangleMaterialClipsOnlyUnderTheMaskModes)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kWidth, kHeight);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    const VertexData triangle = BaseTriangle();
    const float grey[4] = {0.5f, 0.5f, 0.5f, 1.0f};
    for (int mode = BlendMode::Opaque; mode <= BlendMode::Subtractive; ++mode)
    {
        const bool masked = mode >= BlendMode::Mask && mode <= BlendMode::SubtractiveMask;
        ProgramSpec spec;
        spec.blendMode = mode;
        spec.opaqueMask = 0.5f;
        Ptr<Program> program = rig.Build(spec);
        ASSERT_TRUE(program) << "blend mode " << mode;
        for (float alpha : {0.3f, 0.7f})
        {
            const float colour[4] = {1.0f, 0.2f, 0.0f, alpha};
            rig.Clear(Vector4(grey[0], grey[1], grey[2], grey[3]));
            ASSERT_TRUE(program->CommitConstantByName(u"ViewProjMatrix", kIdentity, 64, 16));
            ASSERT_TRUE(program->CommitConstantByName(u"WorldMatrix", kIdentity, 64, 16));
            ASSERT_TRUE(program->CommitConstantByName(u"DiffuseColor", colour, 16, 16));
            ASSERT_TRUE(rig.Draw(program.Get(), &triangle, 3));
            Reference expected = Reference::Filled(kWidth, kHeight, grey);
            expected.FillTriangle(kTriangle, masked && alpha < 0.5f ? grey : colour, 1.5f);
            const std::string name = "blend-" + std::to_string(mode) + (alpha < 0.5f ? "-below" : "-above");
            EXPECT_EQ(KovexTest::Compare(rig.ReadTarget(0), expected, 1.0f / 255, name.c_str()), 0);
        }
    }
}

// With its texture the triangle material multiplies texture set 0's texel
// into the colour: a texture of two texels splits the triangle where its
// coordinate crosses the middle.
TEST(ShaderLibraryPixels, TriangleMaterialSamplesItsTextureAtSetZero)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kWidth, kHeight);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    ProgramSpec spec;
    spec.mt.push_back({"USE_DIFFUSE_TEXTURE", "1"});
    Ptr<Program> program = rig.Build(spec);
    ASSERT_TRUE(program);
    Ptr<Image> image(new Image());
    ASSERT_TRUE(image->Create(TextureFactory::Make2DDesc(2, 1, GraphicsFormat::R8G8B8A8_UNORM, 1)));
    const uint8 texels[8] = {255, 0, 0, 255, 0, 255, 255, 128};
    memcpy(image->GetData(), texels, sizeof(texels));
    Ptr<Texture> texture = PixelRig::MakeTexture(image);
    ASSERT_TRUE(texture && texture->IsCreated());
    ASSERT_TRUE(program->CommitTexture(u"DiffuseTexture", texture));
    const float tint[4] = {0.5f, 1.0f, 1.0f, 1.0f};
    rig.Clear(Vector4(0, 0, 0, 1));
    ASSERT_TRUE(program->CommitConstantByName(u"ViewProjMatrix", kIdentity, 64, 16));
    ASSERT_TRUE(program->CommitConstantByName(u"WorldMatrix", kIdentity, 64, 16));
    ASSERT_TRUE(program->CommitConstantByName(u"DiffuseColor", tint, 16, 16));
    const VertexData triangle = BaseTriangle();
    ASSERT_TRUE(rig.Draw(program.Get(), &triangle, 3));
    // The corners' texture coordinates, interpolated, pick the texel.
    const float uvs[3][4] = {{0, 1, 0, 0}, {0.5f, 0, 0, 0}, {1, 1, 0, 0}};
    Reference expected = Reference::Filled(kWidth, kHeight, kBlack);
    expected.FillTriangle(kTriangle, uvs, 1.5f);
    for (uint32 y = 0; y < kHeight; ++y)
        for (uint32 x = 0; x < kWidth; ++x)
        {
            float* t = expected.At(x, y);
            if (t[3] == 1.0f) // outside: the clear colour
                continue;
            const float u = t[0];
            if (std::fabs(u - 0.5f) < 0.04f)
                expected.mask[y * kWidth + x] = false; // the texel boundary
            const uint8* texel = texels + (u < 0.5f ? 0 : 4);
            for (int c = 0; c < 4; ++c)
                t[c] = texel[c] / 255.0f * tint[c];
        }
    EXPECT_EQ(KovexTest::Compare(rig.ReadTarget(0), expected, 1.0f / 255, "triangle-texture"), 0);
}

// The material template with its slots filled as the material compiler
// fills them: the colour is diffuse plus ambient with the opacity, and the
// mask modes clip by that opacity.
TEST(ShaderLibraryPixels, MaterialTemplateJoinsItsChannels)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kWidth, kHeight);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    std::ifstream file(std::string(KOVEX_SOURCE_DATA) + "/shaders/Material_Template.ksl");
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    ASSERT_FALSE(text.empty());
    const std::pair<const char*, const char*> slots[] = {
        {"$(Declaration)", "cbuffer TemplateParams { float4 TemplateDiffuse; };"},
        {"$(Ambient)", "    return float3(0.1, 0.2, 0.3);"},
        {"$(Diffuse)", "    return TemplateDiffuse.rgb * input.Color.rgb;"},
        {"$(Normal)", "    return input.WorldNormal;"},
        {"$(SpecularColor)", "    return float3(0, 0, 0);"},
        {"$(SpecularPower)", "    return 1;"},
        {"$(Opacity)", "    return TemplateDiffuse.a;"},
        {"$(Distortion)", "    return float2(0, 0);"},
        {"$(VertexOffset)", "    return float3(0.2, 0, 0);"},
        {"$(TessellationFactor)", "    return 1;"},
        {"$(TessellationOffset)", "    return float3(0, 0, 0);"}};
    for (const auto& slot : slots)
    {
        const size_t at = text.find(slot.first);
        ASSERT_NE(at, std::string::npos) << slot.first;
        text.replace(at, strlen(slot.first), slot.second);
        EXPECT_EQ(text.find(slot.first), std::string::npos) << "one slot each: " << slot.first;
    }
    ProgramSpec spec;
    spec.materialText = text;
    spec.blendMode = BlendMode::Mask;
    spec.opaqueMask = 0.5f;
    Ptr<Program> program = rig.Build(spec);
    ASSERT_TRUE(program);
    const VertexData triangle = BaseTriangle();
    // The vertex offset moves the triangle right by 0.2.
    float moved[3][2];
    for (int i = 0; i < 3; ++i)
        moved[i][0] = kTriangle[i][0] + 0.2f, moved[i][1] = kTriangle[i][1];
    for (float alpha : {0.8f, 0.3f})
    {
        const float diffuse[4] = {0.6f, 0.5f, 0.2f, alpha};
        rig.Clear(Vector4(0, 0, 0, 1));
        ASSERT_TRUE(program->CommitConstantByName(u"ViewProjMatrix", kIdentity, 64, 16));
        ASSERT_TRUE(program->CommitConstantByName(u"WorldMatrix", kIdentity, 64, 16));
        ASSERT_TRUE(program->CommitConstantByName(u"TemplateDiffuse", diffuse, 16, 16));
        ASSERT_TRUE(rig.Draw(program.Get(), &triangle, 3));
        const float colour[4] = {0.7f, 0.7f, 0.5f, alpha};
        Reference expected = Reference::Filled(kWidth, kHeight, kBlack);
        expected.FillTriangle(moved, alpha < 0.5f ? kBlack : colour, 1.5f);
        EXPECT_EQ(KovexTest::Compare(rig.ReadTarget(0), expected, 1.0f / 255,
                                     alpha < 0.5f ? "template-clipped" : "template"),
                  0);
    }
}
