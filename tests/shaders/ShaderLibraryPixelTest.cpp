// The shader library draws what it says: programs built from Data/shaders
// (NoLighting with each attribute and material) drawn on lavapipe and
// compared with CPU references of their shapes and colours.

#include <gtest/gtest.h>

#include <string.h>

#include <cmath>
#include <string>
#include <vector>

#include "kernel/StringConv.h"
#include "shaders/Program.h"
#include "shaders/ShaderPixelSupport.h"
#include "support/LogCapture.h"

using namespace KovexEngine;
using KovexTest::PixelRig;
using KovexTest::ProgramSpec;
using KovexTest::Reference;
using KovexTest::VertexData;

namespace {

constexpr uint32 kWidth = 64, kHeight = 32;
const float kIdentity[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
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
