// Every attribute of the shader library through the unlit framework: a known
// vertex stream gives the expected coverage, and what it carries (colour,
// texture sets, normals) reaches the material, compared with CPU
// references of the shapes.

#include <gtest/gtest.h>

#include <string.h>

#include <cmath>
#include <string>
#include <vector>

#include "graphics/TextureFactory.h"
#include "shaders/Program.h"
#include "shaders/ShaderPixelSupport.h"

using namespace KovexEngine;
using KovexTest::kIdentityMatrix;
using KovexTest::PixelRig;
using KovexTest::ProgramSpec;
using KovexTest::Reference;
using KovexTest::VertexData;

namespace {

constexpr uint32 kW = 64, kH = 32;
const float kClear[4] = {0, 0, 0, 0};
const float kFloatTolerance = 1e-4f;
const float kByteTolerance = 1.0f / 255;
constexpr GraphicsFormat::TYPE kFloat4 = GraphicsFormat::R32G32B32A32_FLOAT;
constexpr GraphicsFormat::TYPE kRGBA8 = GraphicsFormat::R8G8B8A8_UNORM;

// Pixels of the rig's viewport (x right, y down) to clip space.
void PixelToClip(float px, float py, float (&out)[2])
{
    out[0] = px / kW * 2.0f - 1.0f;
    out[1] = 1.0f - py / kH * 2.0f;
}

// A spec drawing through the probe material, showing `what`.
ProgramSpec Probe(const char* attribute, const char* what)
{
    ProgramSpec spec;
    spec.attribute = attribute;
    spec.materialText = KovexTest::ProbeMaterialText();
    spec.mt.push_back({what, "1"});
    return spec;
}

// A 4x4 row-major matrix of scale and translation.
void ScaleTranslate(float sx, float sy, float sz, float tx, float ty, float tz, float (&m)[16])
{
    const float r[16] = {sx, 0, 0, tx, 0, sy, 0, ty, 0, 0, sz, tz, 0, 0, 0, 1};
    memcpy(m, r, sizeof(r));
}

// Builds, commits the constants, draws one frame into one target of
// `format`, and compares with `expected`.
struct Frame
{
    PixelRig& rig;
    Ptr<Program> program;
    explicit Frame(PixelRig& r, const ProgramSpec& spec) : rig(r), program(r.Build(spec)) {}
    bool Commit(const char16_t* name, const float* data, uint32 bytes)
    {
        return program && program->CommitConstantByName(name, data, bytes, 16);
    }
    int Draw(const VertexData* data, uint32 count, GraphicsFormat::TYPE format, const Reference& expected,
             float tolerance, const char* name, GraphicsTopology topology = GraphicsTopology::TriangleList)
    {
        if (!program)
            return -1;
        EXPECT_TRUE(rig.SetTargets({GraphicsFormat(format)}));
        rig.Clear(Vector4(kClear[0], kClear[1], kClear[2], kClear[3]));
        EXPECT_TRUE(rig.Draw(program.Get(), data, count, topology)) << name;
        return KovexTest::Compare(rig.ReadTarget(0), expected, tolerance, name);
    }
};

} // namespace

// Rigid geometry: the world matrix places it, each instance's rows place a
// copy, and the normal reaches the material rotated by the world matrix.
TEST(ShaderAttributePixels, BaseIsPlacedByTheWorldMatrixOrPerInstance)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kW, kH);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    const float tri[3][2] = {{-0.3f, -0.3f}, {0.0f, 0.3f}, {0.3f, -0.3f}};
    VertexData data;
    data.Add(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3)
        .Add(GraphicsSemantic::Normal, 0, GraphicsLayoutFormat::Float3)
        .Add(GraphicsSemantic::TexCoord, 0, GraphicsLayoutFormat::Float2);
    for (auto& p : tri)
        data.vertices.insert(data.vertices.end(), {p[0], p[1], 0.5f, 1, 0, 0, 0, 0});
    data.vertexCount = 3;
    {
        // A quarter turn about z, shifted right: the normal +x becomes +y.
        Frame f(rig, Probe("Attribute_Base.ksl", "SHOW_NORMAL"));
        const float world[16] = {0, -1, 0, 0.4f, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
        ASSERT_TRUE(f.Commit(u"ViewProjMatrix", kIdentityMatrix, 64));
        ASSERT_TRUE(f.Commit(u"WorldMatrix", world, 64));
        float placed[3][2];
        for (int i = 0; i < 3; ++i)
        {
            placed[i][0] = -tri[i][1] + 0.4f;
            placed[i][1] = tri[i][0];
        }
        Reference expected = Reference::Filled(kW, kH, kClear);
        expected.FillTriangle(placed, {0.0f, 1.0f, 0.0f, 1.0f});
        EXPECT_EQ(f.Draw(&data, 3, kFloat4, expected, kFloatTolerance, "base-world-matrix"), 0);
    }
    {
        ProgramSpec spec;
        spec.ab.push_back({"USE_INSTANCE_RENDERING", "1"});
        spec.abName = "DEFAULT[INSTANCE_RENDERING]";
        Frame f(rig, spec);
        ASSERT_TRUE(f.program);
        EXPECT_EQ(f.program->FindConstant(u"WorldMatrix"), nullptr) << "instances bring their own";
        const float colour[4] = {0.2f, 0.8f, 0.4f, 1.0f};
        ASSERT_TRUE(f.Commit(u"ViewProjMatrix", kIdentityMatrix, 64));
        ASSERT_TRUE(f.Commit(u"DiffuseColor", colour, 16));
        VertexData instanced = data;
        for (uint32 row = 0; row < 4; ++row)
            instanced.Add(GraphicsSemantic::TexCoord, 4 + row, GraphicsLayoutFormat::Float4, true);
        const float offsets[2][2] = {{-0.5f, 0.1f}, {0.5f, -0.2f}};
        for (auto& o : offsets)
        {
            float m[16];
            ScaleTranslate(1, 1, 1, o[0], o[1], 0, m);
            instanced.instances.insert(instanced.instances.end(), m, m + 16);
        }
        instanced.instanceCount = 2;
        Reference expected = Reference::Filled(kW, kH, kClear);
        for (auto& o : offsets)
        {
            float placed[3][2];
            for (int i = 0; i < 3; ++i)
                placed[i][0] = tri[i][0] + o[0], placed[i][1] = tri[i][1] + o[1];
            expected.FillTriangle(placed, colour);
        }
        EXPECT_EQ(f.Draw(&instanced, 3, kRGBA8, expected, kByteTolerance, "base-instanced"), 0);
    }
}

// Skinned vertices move with their bones' matrices, blended by weight, from
// the constant rows (normal mode) and from a bone texture (coarse mode).
TEST(ShaderAttributePixels, SkinMovesVerticesByTheirBones)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kW, kH);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    // Bone 0 moves right by 0.3; bone 1 moves down by 0.2 and halves x.
    const float bones[2][12] = {{1, 0, 0, 0.3f, 0, 1, 0, 0, 0, 0, 1, 0}, {0.5f, 0, 0, 0, 0, 1, 0, -0.2f, 0, 0, 1, 0}};
    struct Corner
    {
        float x, y;
        uint8 index[4];
        float weight[4];
    };
    const Corner corners[3] = {{-0.6f, -0.4f, {0, 0, 0, 0}, {1, 0, 0, 0}},
                               {0.0f, 0.6f, {1, 0, 0, 0}, {1, 0, 0, 0}},
                               {0.6f, -0.4f, {0, 1, 0, 0}, {0.5f, 0.5f, 0, 0}}};
    VertexData data;
    data.Add(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3)
        .Add(GraphicsSemantic::Normal, 0, GraphicsLayoutFormat::Float3)
        .Add(GraphicsSemantic::TexCoord, 0, GraphicsLayoutFormat::Float2)
        .Add(GraphicsSemantic::BlendIndices, 0, GraphicsLayoutFormat::UByte4)
        .Add(GraphicsSemantic::BlendWeight, 0, GraphicsLayoutFormat::Float4);
    float skinned[3][2];
    for (int i = 0; i < 3; ++i)
    {
        const Corner& c = corners[i];
        float packed;
        memcpy(&packed, c.index, 4);
        data.vertices.insert(data.vertices.end(), {c.x, c.y, 0.5f, 0, 0, 1, 0, 0, packed, c.weight[0], c.weight[1],
                                                   c.weight[2], c.weight[3]});
        skinned[i][0] = skinned[i][1] = 0;
        for (int k = 0; k < 4; ++k)
        {
            const float* b = bones[c.index[k]];
            skinned[i][0] += c.weight[k] * (b[0] * c.x + b[1] * c.y + b[2] * 0.5f + b[3]);
            skinned[i][1] += c.weight[k] * (b[4] * c.x + b[5] * c.y + b[6] * 0.5f + b[7]);
        }
    }
    data.vertexCount = 3;
    const float colour[4] = {1.0f, 0.5f, 0.0f, 1.0f};
    Reference expected = Reference::Filled(kW, kH, kClear);
    expected.FillTriangle(skinned, colour);
    {
        ProgramSpec spec;
        spec.attribute = "Attribute_Skin.ksl";
        spec.ab.push_back({"SKIN_MODE", "0"});
        Frame f(rig, spec);
        ASSERT_TRUE(f.Commit(u"ViewProjMatrix", kIdentityMatrix, 64));
        ASSERT_TRUE(f.Commit(u"WorldMatrix", kIdentityMatrix, 64));
        ASSERT_TRUE(f.Commit(u"DiffuseColor", colour, 16));
        ASSERT_TRUE(f.Commit(u"BoneMatrices", &bones[0][0], sizeof(bones)));
        EXPECT_EQ(f.Draw(&data, 3, kRGBA8, expected, kByteTolerance, "skin-constants"), 0);
    }
    for (const KovexTest::MacroList& macros :
         {KovexTest::MacroList{{"SKIN_MODE", "1"}, {"BONE_MATRIX_TEXTURE", "1"}}, KovexTest::MacroList{{"SKIN_MODE_2", "1"}}})
    {
        ProgramSpec spec;
        spec.attribute = "Attribute_Skin.ksl";
        spec.ab = macros;
        Frame f(rig, spec);
        ASSERT_TRUE(f.program);
        // One frame's rows from texel 5 of row 1 of an 16 x 2 float texture.
        Ptr<Image> rows(new Image());
        ASSERT_TRUE(rows->Create(TextureFactory::Make2DDesc(16, 2, GraphicsFormat::R32G32B32A32_FLOAT, 1)));
        memset(rows->GetData(), 0, rows->GetDataSize());
        memcpy(rows->GetData() + 16 * (16 + 5), bones, sizeof(bones));
        Ptr<Texture> texture = PixelRig::MakeTexture(rows);
        ASSERT_TRUE(texture && texture->IsCreated());
        ASSERT_TRUE(f.program->CommitTexture(u"BoneTexture", texture));
        const float param[4] = {5, 1, 1.0f / 16, 1.0f / 2};
        ASSERT_TRUE(f.Commit(u"BoneTexParam", param, 16));
        ASSERT_TRUE(f.Commit(u"ViewProjMatrix", kIdentityMatrix, 64));
        ASSERT_TRUE(f.Commit(u"WorldMatrix", kIdentityMatrix, 64));
        ASSERT_TRUE(f.Commit(u"DiffuseColor", colour, 16));
        EXPECT_EQ(f.Draw(&data, 3, kRGBA8, expected, kByteTolerance, "skin-bone-texture"), 0);
    }
}

// 2D triangles in pixels: the colour and as many texture sets as the
// configuration names reach the material; sets it does not name read 0.
TEST(ShaderAttributePixels, Tri2dCarriesColourAndItsTextureSets)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kW, kH);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    const float pixels[3][2] = {{6, 28}, {30, 2}, {58, 26}};
    float clip[3][2];
    for (int i = 0; i < 3; ++i)
        PixelToClip(pixels[i][0], pixels[i][1], clip[i]);
    const float viewport[4] = {float(kW), float(kH), 1.0f / kW, 1.0f / kH};
    const float colours[3][4] = {{1, 0, 0, 1}, {0, 1, 0, 0.5f}, {0, 0, 1, 0}};
    for (int sets : {0, 2, 4})
    {
        VertexData data;
        data.Add(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3)
            .Add(GraphicsSemantic::Color, 0, GraphicsLayoutFormat::Float4);
        for (int s = 0; s < sets; ++s)
            data.Add(GraphicsSemantic::TexCoord, uint32(s), GraphicsLayoutFormat::Float2);
        float set01[3][4] = {}, set23[3][4] = {};
        for (int i = 0; i < 3; ++i)
        {
            data.vertices.insert(data.vertices.end(), {pixels[i][0], pixels[i][1], 0.25f});
            data.vertices.insert(data.vertices.end(), colours[i], colours[i] + 4);
            for (int s = 0; s < sets; ++s)
            {
                const float u = float(i + 1) * 0.1f + s, v = float(s) - float(i) * 0.2f;
                data.vertices.insert(data.vertices.end(), {u, v});
                float* to = s < 2 ? set01[i] : set23[i];
                to[2 * (s % 2)] = u;
                to[2 * (s % 2) + 1] = v;
            }
        }
        data.vertexCount = 3;
        const std::string n = std::to_string(sets);
        const struct
        {
            const char* show;
            const float (*values)[4];
        } probes[] = {{"SHOW_COLOR", colours}, {"SHOW_TEXCOORD01", set01}, {"SHOW_TEXCOORD23", set23}};
        for (const auto& probe : probes)
        {
            if (sets == 0 && probe.values != colours)
                continue;
            ProgramSpec spec = Probe("Attribute_Tri2d.ksl", probe.show);
            spec.ab.push_back({"NUM_TEXCOORDS", n});
            Frame f(rig, spec);
            ASSERT_TRUE(f.Commit(u"ViewportSize", viewport, 16));
            Reference expected = Reference::Filled(kW, kH, kClear);
            const float(&values)[3][4] = *reinterpret_cast<const float(*)[3][4]>(probe.values);
            expected.FillTriangle(clip, values);
            EXPECT_EQ(f.Draw(&data, 3, kFloat4, expected, 1e-3f, ("tri2d-" + n + "-" + probe.show).c_str()), 0);
        }
    }
}

// 3D triangles are in world space: only the camera places them; 2D quads
// are in clip space and take no camera at all.
TEST(ShaderAttributePixels, Tri3dAndQuadGoThroughTheirSpaces)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kW, kH);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    const float world[3][2] = {{-1.0f, -1.0f}, {0.0f, 1.0f}, {1.0f, -1.0f}};
    const float colours[3][4] = {{1, 1, 0, 1}, {0, 1, 1, 1}, {1, 0, 1, 1}};
    VertexData data;
    data.Add(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3)
        .Add(GraphicsSemantic::Color, 0, GraphicsLayoutFormat::Float4)
        .Add(GraphicsSemantic::TexCoord, 0, GraphicsLayoutFormat::Float2);
    for (int i = 0; i < 3; ++i)
    {
        data.vertices.insert(data.vertices.end(), {world[i][0], world[i][1], 0.0f});
        data.vertices.insert(data.vertices.end(), colours[i], colours[i] + 4);
        data.vertices.insert(data.vertices.end(), {0.0f, 0.0f});
    }
    data.vertexCount = 3;
    {
        Frame f(rig, Probe("Attribute_Tri3d.ksl", "SHOW_COLOR"));
        float camera[16];
        ScaleTranslate(0.4f, 0.6f, 1, -0.2f, 0.1f, 0.5f, camera);
        ASSERT_TRUE(f.Commit(u"ViewProjMatrix", camera, 64));
        float clip[3][2];
        for (int i = 0; i < 3; ++i)
            clip[i][0] = 0.4f * world[i][0] - 0.2f, clip[i][1] = 0.6f * world[i][1] + 0.1f;
        Reference expected = Reference::Filled(kW, kH, kClear);
        expected.FillTriangle(clip, colours);
        EXPECT_EQ(f.Draw(&data, 3, kFloat4, expected, 1e-4f, "tri3d"), 0);
    }
    {
        // The same stream read as clip positions; a camera would not matter.
        Frame f(rig, Probe("Attribute_Quad.ksl", "SHOW_COLOR"));
        ASSERT_TRUE(f.program);
        EXPECT_EQ(f.program->FindConstant(u"ViewProjMatrix"), nullptr);
        const float clip[3][2] = {{-1.0f, -1.0f}, {0.0f, 1.0f}, {1.0f, -1.0f}};
        Reference expected = Reference::Filled(kW, kH, kClear);
        expected.FillTriangle(clip, colours);
        EXPECT_EQ(f.Draw(&data, 3, kFloat4, expected, 1e-4f, "quad"), 0);
    }
}

// Billboards face the camera: the offsets run along the given right and up
// vectors, at a fixed world size or growing with the distance.
TEST(ShaderAttributePixels, Tri3dBillboardSpansItsRightAndUpVectors)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kW, kH);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    const float anchor[3] = {0.1f, -0.1f, 0.0f};
    const float offsets[3][2] = {{-0.3f, -0.2f}, {0.3f, -0.2f}, {0.0f, 0.4f}};
    VertexData data;
    data.Add(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3)
        .Add(GraphicsSemantic::Position, 1, GraphicsLayoutFormat::Float2)
        .Add(GraphicsSemantic::Color, 0, GraphicsLayoutFormat::Float4)
        .Add(GraphicsSemantic::TexCoord, 0, GraphicsLayoutFormat::Float2);
    for (auto& o : offsets)
        data.vertices.insert(data.vertices.end(), {anchor[0], anchor[1], anchor[2], o[0], o[1], 1, 1, 1, 1, 0, 0});
    data.vertexCount = 3;
    // Right is screen up, up is screen left: a quarter turn.
    const float right[4] = {0, 1, 0, 0}, up[4] = {-1, 0, 0, 0};
    const float camera[4] = {0.1f, -0.1f, -4.0f, 0.001f}; // 4 from the anchor
    for (float growth : {0.0f, 1.0f})
    {
        Frame f(rig, Probe("Attribute_Tri3dBillboard.ksl", "SHOW_COLOR"));
        // Both agree at distance 2, so at 4 a growing billboard is twice as large.
        const float distanceScale[4] = {growth, 2.0f, 0, 0};
        ASSERT_TRUE(f.Commit(u"ViewProjMatrix", kIdentityMatrix, 64));
        ASSERT_TRUE(f.Commit(u"BillboardRightVector", right, 16));
        ASSERT_TRUE(f.Commit(u"BillboardUpVector", up, 16));
        ASSERT_TRUE(f.Commit(u"BillboardDistanceScale", distanceScale, 16));
        ASSERT_TRUE(f.Commit(u"CameraPosInvFar", camera, 16));
        const float scale = growth ? 2.0f : 1.0f;
        float clip[3][2];
        for (int i = 0; i < 3; ++i)
        {
            clip[i][0] = anchor[0] - offsets[i][1] * scale;
            clip[i][1] = anchor[1] + offsets[i][0] * scale;
        }
        Reference expected = Reference::Filled(kW, kH, kClear);
        expected.FillTriangle(clip, {1.0f, 1.0f, 1.0f, 1.0f});
        EXPECT_EQ(f.Draw(&data, 3, kFloat4, expected, 1e-4f, growth ? "billboard-grown" : "billboard-fixed"), 0);
    }
}

// Lines: a 2D line in pixels and a 3D line through the camera light the
// pixels they cross in their colour and nothing beside them.
TEST(ShaderAttributePixels, LinesCoverTheirPixels)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kW, kH);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    const float colour[4] = {0.25f, 0.5f, 1.0f, 1.0f};
    const float viewport[4] = {float(kW), float(kH), 1.0f / kW, 1.0f / kH};
    {
        // Along row 9, from x 4 to 60.
        VertexData data;
        data.Add(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3)
            .Add(GraphicsSemantic::Color, 0, GraphicsLayoutFormat::Float4);
        data.vertices = {4.0f, 9.5f, 0.5f, colour[0], colour[1], colour[2], colour[3],
                         60.0f, 9.5f, 0.5f, colour[0], colour[1], colour[2], colour[3]};
        data.vertexCount = 2;
        Frame f(rig, Probe("Attribute_Line2d.ksl", "SHOW_COLOR"));
        ASSERT_TRUE(f.Commit(u"ViewportSize", viewport, 16));
        Reference expected = Reference::Filled(kW, kH, kClear);
        for (uint32 x = 4; x < 60; ++x)
            expected.Set(x, 9, colour);
        float a[2], b[2];
        PixelToClip(4.0f, 9.5f, a);
        PixelToClip(4.0f, 9.5f, b);
        expected.MaskSegment(a, b, 1.0f);
        PixelToClip(60.0f, 9.5f, a);
        PixelToClip(60.0f, 9.5f, b);
        expected.MaskSegment(a, b, 1.0f);
        EXPECT_EQ(f.Draw(&data, 2, kFloat4, expected, 1e-4f, "line2d", GraphicsTopology::LineList), 0);
    }
    {
        // A vertical world line that the camera halves in x and moves to
        // column 40.5.
        VertexData data;
        data.Add(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3)
            .Add(GraphicsSemantic::Color, 0, GraphicsLayoutFormat::Float4);
        const float x = (40.5f / kW * 2.0f - 1.0f) * 2.0f;
        data.vertices = {x, -0.75f, 0.5f, colour[0], colour[1], colour[2], colour[3],
                         x, 0.75f, 0.5f, colour[0], colour[1], colour[2], colour[3]};
        data.vertexCount = 2;
        Frame f(rig, Probe("Attribute_Line3d.ksl", "SHOW_COLOR"));
        float camera[16];
        ScaleTranslate(0.5f, 1, 1, 0, 0, 0, camera);
        ASSERT_TRUE(f.Commit(u"ViewProjMatrix", camera, 64));
        Reference expected = Reference::Filled(kW, kH, kClear);
        // Rows 4 to 27 (y from 0.75 to -0.75 in clip: pixels 4 to 28).
        for (uint32 y = 4; y < 28; ++y)
            expected.Set(40, y, colour);
        const float top[2] = {0.5f * x, 0.75f}, bottom[2] = {0.5f * x, -0.75f};
        expected.MaskSegment(top, top, 1.0f);
        expected.MaskSegment(bottom, bottom, 1.0f);
        EXPECT_EQ(f.Draw(&data, 2, kFloat4, expected, 1e-4f, "line3d", GraphicsTopology::LineList), 0);
    }
}

// A glyph quad in pixels: the font material gives the text's colour, its
// alpha the atlas's coverage under the glyph times the colour's alpha.
TEST(ShaderAttributePixels, FontGlyphsTakeCoverageFromTheAtlas)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kW, kH);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    ProgramSpec spec;
    spec.attribute = "Attribute_Font.ksl";
    spec.material = "Material_Font.ksl";
    spec.abConfigTextures.push_back("FontTexture");
    Frame f(rig, spec);
    ASSERT_TRUE(f.program);
    // A 4 x 4 atlas whose alpha is a staircase; colour bytes are noise the
    // material must not show.
    Ptr<Image> atlas(new Image());
    ASSERT_TRUE(atlas->Create(TextureFactory::Make2DDesc(4, 4, GraphicsFormat::R8G8B8A8_UNORM, 1)));
    for (uint32 i = 0; i < 16; ++i)
    {
        uint8* t = atlas->GetData() + 4 * i;
        t[0] = uint8(i * 37), t[1] = uint8(i * 91), t[2] = uint8(i * 53);
        t[3] = uint8((i % 4 + i / 4) * 255 / 6);
    }
    Ptr<Texture> texture = PixelRig::MakeTexture(atlas);
    ASSERT_TRUE(texture && texture->IsCreated());
    ASSERT_TRUE(f.program->CommitTexture(u"FontTexture", texture));
    const float viewport[4] = {float(kW), float(kH), 1.0f / kW, 1.0f / kH};
    ASSERT_TRUE(f.Commit(u"ViewportSize", viewport, 16));
    // The glyph covers pixels 8..39 x 4..27: 8 x 6 pixels per atlas texel.
    const float colour[4] = {1.0f, 0.6f, 0.2f, 0.8f};
    const float corners[4][4] = {{8, 4, 0, 0}, {40, 4, 1, 0}, {40, 28, 1, 1}, {8, 28, 0, 1}};
    VertexData data;
    data.Add(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3)
        .Add(GraphicsSemantic::Color, 0, GraphicsLayoutFormat::Float4)
        .Add(GraphicsSemantic::TexCoord, 0, GraphicsLayoutFormat::Float2);
    for (int i : {0, 1, 2, 0, 2, 3})
        data.vertices.insert(data.vertices.end(), {corners[i][0], corners[i][1], 0.5f, colour[0], colour[1],
                                                   colour[2], colour[3], corners[i][2], corners[i][3]});
    data.vertexCount = 6;
    Reference expected = Reference::Filled(kW, kH, kClear);
    for (uint32 y = 4; y < 28; ++y)
        for (uint32 x = 8; x < 40; ++x)
        {
            const uint32 texel = ((y - 4) / 6) * 4 + (x - 8) / 8;
            const float alpha = atlas->GetData()[4 * texel + 3] / 255.0f * colour[3];
            expected.Set(x, y, {colour[0], colour[1], colour[2], alpha});
        }
    // The quad's outline is the rasteriser's to decide.
    const float outline[5][2] = {{8, 4}, {40, 4}, {40, 28}, {8, 28}, {8, 4}};
    for (int i = 0; i < 4; ++i)
    {
        float a[2], b[2];
        PixelToClip(outline[i][0], outline[i][1], a);
        PixelToClip(outline[i + 1][0], outline[i + 1][1], b);
        expected.MaskSegment(a, b, 0.5f);
    }
    EXPECT_EQ(f.Draw(&data, 6, kRGBA8, expected, kByteTolerance, "font-glyph"), 0);
}

// A light's proxy mesh is placed by its world matrix; its material shows
// the volume's colour.
TEST(ShaderAttributePixels, LightVolumeDrawsItsProxyInItsColour)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kW, kH);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    ProgramSpec spec;
    spec.attribute = "Attribute_LightVolume.ksl";
    spec.material = "Material_LightVolume.ksl";
    Frame f(rig, spec);
    const float tri[3][2] = {{-0.5f, -0.5f}, {0.0f, 0.5f}, {0.5f, -0.5f}};
    VertexData data;
    data.Add(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3);
    for (auto& p : tri)
        data.vertices.insert(data.vertices.end(), {p[0], p[1], 0.0f});
    data.vertexCount = 3;
    float world[16];
    ScaleTranslate(1, 1, 1, -0.3f, 0.2f, 0.5f, world);
    const float colour[4] = {0.0f, 0.4f, 0.8f, 1.0f};
    ASSERT_TRUE(f.Commit(u"ViewProjMatrix", kIdentityMatrix, 64));
    ASSERT_TRUE(f.Commit(u"WorldMatrix", world, 64));
    ASSERT_TRUE(f.Commit(u"LightVolumeColor", colour, 16));
    float placed[3][2];
    for (int i = 0; i < 3; ++i)
        placed[i][0] = tri[i][0] - 0.3f, placed[i][1] = tri[i][1] + 0.2f;
    Reference expected = Reference::Filled(kW, kH, kClear);
    expected.FillTriangle(placed, colour);
    EXPECT_EQ(f.Draw(&data, 3, kRGBA8, expected, kByteTolerance, "light-volume"), 0);
}

namespace {

// Six vertices (two triangles) of one sprite for the particle stream.
// `next` is the next cell and its blend (five floats).
void AddSprite(VertexData& data, const float (&centre)[3], float w, float h, float rotation, const float* velocity,
               const float* cell, const float* next = nullptr)
{
    const float corners[6][2] = {{-1, -1}, {-1, 1}, {1, 1}, {-1, -1}, {1, 1}, {1, -1}};
    for (auto& c : corners)
    {
        data.vertices.insert(data.vertices.end(), {centre[0], centre[1], centre[2], c[0], c[1], w, h, rotation,
                                                   1, 1, 1, 1});
        if (velocity)
            data.vertices.insert(data.vertices.end(), velocity, velocity + 3);
        if (cell)
            data.vertices.insert(data.vertices.end(), cell, cell + 4);
        if (next)
            data.vertices.insert(data.vertices.end(), next, next + 5);
    }
    data.vertexCount += 6;
}

VertexData SpriteStream(bool velocity, bool tiled, bool blended = false)
{
    VertexData data;
    data.Add(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3)
        .Add(GraphicsSemantic::Position, 1, GraphicsLayoutFormat::Float2)
        .Add(GraphicsSemantic::TexCoord, 4, GraphicsLayoutFormat::Float2)
        .Add(GraphicsSemantic::TexCoord, 5, GraphicsLayoutFormat::Float1)
        .Add(GraphicsSemantic::Color, 0, GraphicsLayoutFormat::Float4);
    if (velocity)
        data.Add(GraphicsSemantic::TexCoord, 6, GraphicsLayoutFormat::Float3);
    if (tiled || blended)
        data.Add(GraphicsSemantic::TexCoord, 7, GraphicsLayoutFormat::Float4);
    if (blended)
        data.Add(GraphicsSemantic::TexCoord, 8, GraphicsLayoutFormat::Float4)
            .Add(GraphicsSemantic::TexCoord, 9, GraphicsLayoutFormat::Float1);
    return data;
}

// The sprite's two triangles in clip space (identity camera) with values
// per corner, as AddSprite orders them.
void FillSprite(Reference& ref, const float (&centre)[3], const float (&right)[2], const float (&up)[2],
                const float (&values)[4][4])
{
    // Corners (-1,-1), (-1,1), (1,1), (1,-1) with their values.
    const float signs[4][2] = {{-1, -1}, {-1, 1}, {1, 1}, {1, -1}};
    float clip[4][2];
    for (int i = 0; i < 4; ++i)
    {
        clip[i][0] = centre[0] + signs[i][0] * right[0] + signs[i][1] * up[0];
        clip[i][1] = centre[1] + signs[i][0] * right[1] + signs[i][1] * up[1];
    }
    const int tris[2][3] = {{0, 1, 2}, {0, 2, 3}};
    for (auto& t : tris)
    {
        const float c[3][2] = {{clip[t[0]][0], clip[t[0]][1]}, {clip[t[1]][0], clip[t[1]][1]},
                               {clip[t[2]][0], clip[t[2]][1]}};
        float v[3][4];
        for (int k = 0; k < 3; ++k)
            memcpy(v[k], values[t[k]], sizeof(v[k]));
        ref.FillTriangle(c, v);
    }
}

} // namespace

// Particle sprites face the camera at their size, turned by their rotation;
// aligned to velocity their up axis follows it; tiled, texture set 1 lies
// in the cell; blended, set 2 in the next cell and set 3 carries the blend.
TEST(ShaderAttributePixels, ParticleSpritesFaceTheCameraAndTheirCell)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kW, kH);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    const float right[4] = {1, 0, 0, 0}, up[4] = {0, 1, 0, 0};
    const float centre[3] = {-0.2f, 0.1f, 0.5f};
    {
        // A quarter turn: the width (0.8) runs up the screen, the height (0.4) across.
        Frame f(rig, Probe("Attribute_ParticleSprite.ksl", "SHOW_TEXCOORD01"));
        ASSERT_TRUE(f.Commit(u"ViewProjMatrix", kIdentityMatrix, 64));
        ASSERT_TRUE(f.Commit(u"BillboardRightVector", right, 16));
        ASSERT_TRUE(f.Commit(u"BillboardUpVector", up, 16));
        VertexData data = SpriteStream(false, false);
        AddSprite(data, centre, 0.8f, 0.4f, float(M_PI / 2), nullptr, nullptr);
        Reference expected = Reference::Filled(kW, kH, kClear);
        const float values[4][4] = {{0, 1, 0, 0}, {0, 0, 0, 0}, {1, 0, 0, 0}, {1, 1, 0, 0}};
        FillSprite(expected, centre, {0.0f, 0.4f}, {-0.2f, 0.0f}, values);
        EXPECT_EQ(f.Draw(&data, data.vertexCount, kFloat4, expected, 1e-4f, "sprite-turned"), 0);
    }
    {
        // Moving along (1, 1) seen from straight ahead: up along the motion.
        ProgramSpec spec = Probe("Attribute_ParticleSprite.ksl", "SHOW_TEXCOORD01");
        spec.ab = {{"SPRITE_ALIGN_VELOCITY", "1"}, {"SPRITE_TILED_TEXTURE", "1"}, {"NUM_TEXCOORDS", "3"}};
        Frame f(rig, spec);
        const float camera[4] = {centre[0], centre[1], -5.0f, 0.001f};
        ASSERT_TRUE(f.Commit(u"ViewProjMatrix", kIdentityMatrix, 64));
        ASSERT_TRUE(f.Commit(u"BillboardRightVector", right, 16));
        ASSERT_TRUE(f.Commit(u"BillboardUpVector", up, 16));
        ASSERT_TRUE(f.Commit(u"CameraPosInvFar", camera, 16));
        VertexData data = SpriteStream(true, true);
        const float velocity[3] = {1, 1, 0}, cell[4] = {0.25f, 0.5f, 0.25f, 0.5f};
        AddSprite(data, centre, 0.6f, 1.0f, 0.0f, velocity, cell);
        const float s = 0.5f / std::sqrt(2.0f);
        // Right = (-1, 1) / sqrt 2 times half the width, up = (1, 1) / sqrt 2 times half the height.
        const float r[2] = {-0.6f * s, 0.6f * s}, u[2] = {1.0f * s, 1.0f * s};
        Reference expected = Reference::Filled(kW, kH, kClear);
        const float values[4][4] = {
            {0, 1, 0.25f, 1.0f}, {0, 0, 0.25f, 0.5f}, {1, 0, 0.5f, 0.5f}, {1, 1, 0.5f, 1.0f}};
        FillSprite(expected, centre, r, u, values);
        EXPECT_EQ(f.Draw(&data, data.vertexCount, kFloat4, expected, 1e-4f, "sprite-velocity-tiled"), 0);
    }
    {
        // Blending two cells: set 2 lies in the next cell, set 3 x is the blend.
        ProgramSpec spec = Probe("Attribute_ParticleSprite.ksl", "SHOW_TEXCOORD23");
        spec.ab = {{"SPRITE_TILED_TEXTURE_BLEND", "1"}, {"NUM_TEXCOORDS", "4"}};
        Frame f(rig, spec);
        ASSERT_TRUE(f.Commit(u"ViewProjMatrix", kIdentityMatrix, 64));
        ASSERT_TRUE(f.Commit(u"BillboardRightVector", right, 16));
        ASSERT_TRUE(f.Commit(u"BillboardUpVector", up, 16));
        VertexData data = SpriteStream(false, false, true);
        const float cell[4] = {0, 0, 0.5f, 0.5f}, next[5] = {0.5f, 0.5f, 0.5f, 0.5f, 0.375f};
        AddSprite(data, centre, 1.0f, 0.8f, 0.0f, nullptr, cell, next);
        Reference expected = Reference::Filled(kW, kH, kClear);
        const float values[4][4] = {
            {0.5f, 1.0f, 0.375f, 0}, {0.5f, 0.5f, 0.375f, 0}, {1.0f, 0.5f, 0.375f, 0}, {1.0f, 1.0f, 0.375f, 0}};
        FillSprite(expected, centre, {0.5f, 0.0f}, {0.0f, 0.4f}, values);
        EXPECT_EQ(f.Draw(&data, data.vertexCount, kFloat4, expected, 1e-4f, "sprite-tiled-blend"), 0);
    }
}

// Decal geometry: texture set 0 is the position in the decal's box, mapped
// to [0, 1] with v down; set 1 its depth in the box and the facing.
TEST(ShaderAttributePixels, DecalMapsTheBoxToItsTextureSets)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kW, kH);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    Frame f(rig, Probe("Attribute_Decal.ksl", "SHOW_TEXCOORD01"));
    // The box: 1.6 wide, 1.2 high, 2 deep, centred on (0.1, 0, 0.5).
    float decal[16];
    ScaleTranslate(1 / 0.8f, 1 / 0.6f, 1.0f, -0.1f / 0.8f, 0.0f, -0.5f, decal);
    ASSERT_TRUE(f.Commit(u"ViewProjMatrix", kIdentityMatrix, 64));
    ASSERT_TRUE(f.Commit(u"DecalMatrix", decal, 64));
    const float tri[3][3] = {{-0.7f, -0.6f, 0.2f}, {0.1f, 0.6f, 0.5f}, {0.9f, -0.6f, 0.8f}};
    VertexData data;
    data.Add(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3)
        .Add(GraphicsSemantic::Normal, 0, GraphicsLayoutFormat::Float3);
    float values[3][4], clip[3][2];
    for (int i = 0; i < 3; ++i)
    {
        // Facing against the projection (box z is world z): cosine 1.
        data.vertices.insert(data.vertices.end(), {tri[i][0], tri[i][1], tri[i][2], 0, 0, -1});
        const float bx = (tri[i][0] - 0.1f) / 0.8f, by = tri[i][1] / 0.6f, bz = tri[i][2] - 0.5f;
        values[i][0] = bx * 0.5f + 0.5f;
        values[i][1] = 0.5f - by * 0.5f;
        values[i][2] = bz * 0.5f + 0.5f;
        values[i][3] = 1.0f;
        clip[i][0] = tri[i][0], clip[i][1] = tri[i][1];
    }
    data.vertexCount = 3;
    Reference expected = Reference::Filled(kW, kH, kClear);
    expected.FillTriangle(clip, values);
    EXPECT_EQ(f.Draw(&data, 3, kFloat4, expected, 1e-4f, "decal"), 0);
}

// A terrain grid: heights lift it along z, the world matrix places it, and
// texture set 0 is the grid through the blend map's transform, set 1 the
// grid itself.
TEST(ShaderAttributePixels, TerrainGridMapsToItsBlendMap)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kW, kH);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    for (const char* show : {"SHOW_TEXCOORD01", "SHOW_WORLD_POSITION"})
    {
        Frame f(rig, Probe("Attribute_Terrain.ksl", show));
        float world[16];
        ScaleTranslate(0.25f, 0.25f, 0.5f, -0.5f, -0.5f, 0.0f, world);
        const float transform[4] = {0.125f, 0.25f, 0.5f, 0.0f};
        ASSERT_TRUE(f.Commit(u"ViewProjMatrix", kIdentityMatrix, 64));
        ASSERT_TRUE(f.Commit(u"WorldMatrix", world, 64));
        if (show[5] == 'T')
            ASSERT_TRUE(f.Commit(u"TerrainUVTransform", transform, 16));
        // One cell of the grid, from (0, 0) to (4, 4), heights 0.2 to 1.6.
        const float grid[3][3] = {{0, 0, 0.2f}, {0, 4, 1.0f}, {4, 4, 1.6f}};
        VertexData data;
        data.Add(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float2)
            .Add(GraphicsSemantic::Position, 1, GraphicsLayoutFormat::Float1)
            .Add(GraphicsSemantic::Normal, 0, GraphicsLayoutFormat::Float3);
        float values[3][4], clip[3][2];
        for (int i = 0; i < 3; ++i)
        {
            data.vertices.insert(data.vertices.end(), {grid[i][0], grid[i][1], grid[i][2], 0, 0, 1});
            clip[i][0] = 0.25f * grid[i][0] - 0.5f, clip[i][1] = 0.25f * grid[i][1] - 0.5f;
            if (show[5] == 'T')
            {
                values[i][0] = grid[i][0] * transform[0] + transform[2];
                values[i][1] = grid[i][1] * transform[1] + transform[3];
                values[i][2] = grid[i][0], values[i][3] = grid[i][1];
            }
            else
            {
                values[i][0] = clip[i][0], values[i][1] = clip[i][1];
                values[i][2] = 0.5f * grid[i][2], values[i][3] = 1.0f;
            }
        }
        data.vertexCount = 3;
        Reference expected = Reference::Filled(kW, kH, kClear);
        expected.FillTriangle(clip, values);
        EXPECT_EQ(f.Draw(&data, 3, kFloat4, expected, 1e-4f, show[5] == 'T' ? "terrain-sets" : "terrain-world"), 0);
    }
}
