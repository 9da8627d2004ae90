// A program the engine compiles from the shader templates draws on Vulkan:
// framework, attribute and material texts from Data/shaders, compiled by
// the program compiler, bound and drawn by the backend.

#include <gtest/gtest.h>

#include <string.h>

#include <cmath>
#include <cstdlib>

#include <string>
#include <vector>

#include "graphics/VertexBuffer.h"
#include "graphics/vulkan/VulkanTestSupport.h"
#include "kernel/StringConv.h"
#include "shaders/PGCode.h"
#include "shaders/Program.h"
#include "shaders/ProgramManager.h"
#include "support/LogCapture.h"

using namespace KovexEngine;

namespace {

constexpr uint32 kWidth = 64, kHeight = 32;

WString TemplatePath(const char* name)
{
    return StringConvFuncs::ToWString((std::string(KOVEX_SOURCE_DATA) + "/shaders/" + name).c_str());
}

// The colour of the pixel at the centre of the target.
bool CentreColour(const Ptr<Image>& image, uint8 (&out)[4])
{
    if (!image || image->GetDataSize() < kWidth * kHeight * 4)
        return false;
    memcpy(out, image->GetData() + 4 * ((kHeight / 2) * kWidth + kWidth / 2), 4);
    return true;
}

// Clip-space corners of the test's triangle (y up).
const float kTriangle[3][2] = {{-0.6f, -0.6f}, {0.0f, 0.8f}, {0.6f, -0.6f}};

// The CPU reference of one frame: the material's colour inside the
// triangle, the clear colour outside, and pixels within 1.5 pixels of an
// edge left out (`mask` false), where rasterisation rules decide.
Ptr<Image> ReferenceFrame(const Ptr<Image>& like, const uint8 (&inside)[4], std::vector<bool>& mask)
{
    Ptr<Image> expected(new Image());
    if (!like || !expected->Create(like->GetDesc()))
        return Ptr<Image>();
    mask.assign(kWidth * kHeight, true);
    float px[3], py[3]; // corners in pixels, y down
    for (int i = 0; i < 3; ++i)
    {
        px[i] = (kTriangle[i][0] + 1.0f) * 0.5f * kWidth;
        py[i] = (1.0f - kTriangle[i][1]) * 0.5f * kHeight;
    }
    for (uint32 y = 0; y < kHeight; ++y)
        for (uint32 x = 0; x < kWidth; ++x)
        {
            float cx = x + 0.5f, cy = y + 0.5f, nearest = 1e9f;
            for (int e = 0; e < 3; ++e)
            {
                int f = (e + 1) % 3;
                float ex = px[f] - px[e], ey = py[f] - py[e];
                // Signed distance to the edge, positive inside for these
                // corners (clockwise with y up, so anticlockwise in pixels).
                float d = ((cy - py[e]) * ex - (cx - px[e]) * ey) / std::sqrt(ex * ex + ey * ey);
                nearest = d < nearest ? d : nearest;
            }
            uint8* p = expected->GetData() + 4 * (y * kWidth + x);
            const uint8 clear[4] = {0, 0, 0, 255};
            memcpy(p, nearest > 0 ? inside : clear, 4);
            mask[y * kWidth + x] = std::fabs(nearest) > 1.5f;
        }
    return expected;
}

// Pixels off by more than 1 in any channel where the mask holds; on any,
// both images are written side by side.
int Mismatches(const Ptr<Image>& actual, const Ptr<Image>& expected, const std::vector<bool>& mask, const char* name)
{
    if (!actual || !expected || actual->GetDataSize() != expected->GetDataSize())
        return -1;
    int count = 0;
    for (uint32 i = 0; i < kWidth * kHeight; ++i)
        for (int c = 0; mask[i] && c < 4; ++c)
            if (std::abs(int(actual->GetData()[4 * i + c]) - int(expected->GetData()[4 * i + c])) > 1)
            {
                ++count;
                break;
            }
    if (count)
        ADD_FAILURE() << count << " pixels differ from the CPU reference; images in "
                      << KovexTest::WriteSideBySide(name, actual, expected);
    return count;
}

} // namespace

// The unlit framework, the base attribute and the triangle material: a
// triangle over the middle of the target takes the material's colour, and
// the colour set by name on the program changes the next frame's pixels.
TEST(VulkanKslProgram, ATemplateProgramDrawsAndTakesItsColourByName)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    KovexTest::VulkanEngine engine(kWidth, kHeight);
    ASSERT_TRUE(engine.IsOpen());
    VulkanRenderer& r = engine.Renderer();
    if (!r.GetDevice().GetBeginRendering())
        GTEST_SKIP() << "the device has no dynamic rendering";
    ProgramManager* manager = ProgramManager::Ins();
    Ptr<PGFramework> fw = manager->LoadFramework(TemplatePath("NoLighting.ksl"));
    Ptr<PGAttribute> ab = manager->LoadAttribute(TemplatePath("Attribute_Base.ksl"));
    Ptr<PGMaterial> mt = manager->LoadMaterial(TemplatePath("Material_Triangle.ksl"));
    ASSERT_TRUE(fw && ab && mt);
    Ptr<Program> program = manager->BuildProgram(fw->GetCurConf(), ab->GetCurConf(), mt->GetCurConf());
    ASSERT_TRUE(program);
    ASSERT_TRUE(program->IsCreated()) << "compiled, linked and given its Vulkan layout";

    // Position, normal, texture coordinate, as the attribute reads them.
    VertexElement elements[3];
    const GraphicsInputClass perVertex = GraphicsInputClass::PerVertex;
    elements[0].Assign(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3, 0, 0, perVertex, 0);
    elements[1].Assign(GraphicsSemantic::Normal, 0, GraphicsLayoutFormat::Float3, 0, 12, perVertex, 0);
    elements[2].Assign(GraphicsSemantic::TexCoord, 0, GraphicsLayoutFormat::Float2, 0, 24, perVertex, 0);
    // Clockwise on screen around the centre.
    const float vertices[3][8] = {{-0.6f, -0.6f, 0.5f, 0, 0, 1, 0, 1},
                                  {0.0f, 0.8f, 0.5f, 0, 0, 1, 0.5f, 0},
                                  {0.6f, -0.6f, 0.5f, 0, 0, 1, 1, 1}};
    Ptr<VertexBuffer::Stream> stream = VertexBuffer::Stream::Create(elements, 3, 3, true);
    memcpy(stream->GetPointer(0), vertices, sizeof(vertices));
    Ptr<VertexBuffer> buffer = VertexBufferFactory::Get()->Create(stream, 0, GraphicsResourceUsage::Immutable, nullptr);
    ASSERT_TRUE(buffer && buffer->IsCreated());
    VertexBuffer* buffers[1] = {buffer.Get()};
    DrawBuffersDesc draw;
    draw.VertexBuffers = buffers;
    draw.VertexBufferCount = 1;
    draw.Count = 3;

    // The unlit pixel stage leaves the normal and texture coordinate the
    // vertex stage writes unread; the layer says so, once per output, as a
    // performance warning about the templates' interface. Nothing else.
    KovexTest::LogCapture log;
    const float identity[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    const float colours[2][4] = {{1.0f, 0.0f, 0.0f, 1.0f}, {0.0f, 0.0f, 1.0f, 1.0f}};
    for (int frame = 0; frame < 2; ++frame)
    {
        r.BeginFrame();
        r.Clear(GraphicsClearMode::TargetDepthStencil, Vector4(0, 0, 0, 1), 1.0f, 0);
        program->ApplyProgram();
        ASSERT_TRUE(program->CommitConstantByName(u"ViewProjMatrix", identity, 64, 16));
        ASSERT_TRUE(program->CommitConstantByName(u"WorldMatrix", identity, 64, 16));
        ASSERT_TRUE(program->CommitConstantByName(u"DiffuseColor", colours[frame], 16, 16));
        ASSERT_TRUE(r.DrawWithProgram(draw));
        r.EndFrame();
        r.Present();
        Ptr<Image> frameImage = KovexTest::ReadBack(r.GetRenderTarget(0).Get());
        const uint8 inside[4] = {uint8(frame ? 0 : 255), 0, uint8(frame ? 255 : 0), 255};
        std::vector<bool> mask;
        Ptr<Image> expected = ReferenceFrame(frameImage, inside, mask);
        EXPECT_EQ(Mismatches(frameImage, expected, mask, frame ? "ksl-program-blue" : "ksl-program-red"), 0)
            << "frame " << frame;
        uint8 centre[4] = {};
        ASSERT_TRUE(CentreColour(frameImage, centre));
        EXPECT_EQ(centre[0], frame ? 0 : 255) << "frame " << frame;
        EXPECT_EQ(centre[1], 0) << "frame " << frame;
        EXPECT_EQ(centre[2], frame ? 255 : 0) << "frame " << frame;
        uint8 corner[4] = {};
        memcpy(corner, KovexTest::ReadBack(r.GetRenderTarget(0).Get())->GetData(), 4);
        EXPECT_EQ(corner[0] + corner[1] + corner[2], 0) << "the corner stays clear";
    }
    unsigned unread = 0;
    for (const auto& entry : log->entries)
    {
        const bool known = entry.text.IndexOf(u"UNASSIGNED-CoreValidation-Shader-OutputNotConsumed") != kNotFound;
        unread += known;
        EXPECT_TRUE(known || entry.text.IndexOf(u"Vulkan validation") == kNotFound)
            << StringConvFuncs::ToAString(entry.text.c_str())();
    }
    EXPECT_LE(unread, 2u);
    engine.AllowWarnings(unread);
}
