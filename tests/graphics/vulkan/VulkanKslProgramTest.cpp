// A program the engine compiles from the shader templates draws on Vulkan:
// framework, attribute and material texts from Data/shaders, compiled by
// the program compiler, bound and drawn by the backend.

#include <gtest/gtest.h>

#include <string.h>

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
        uint8 centre[4] = {};
        ASSERT_TRUE(CentreColour(KovexTest::ReadBack(r.GetRenderTarget(0).Get()), centre));
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
