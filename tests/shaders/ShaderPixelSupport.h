#pragma once

// Pixel tests of the shader library on lavapipe: a program built from the
// texts in Data/shaders by file names and configuration macros, drawn into
// small targets of chosen formats, read back and compared with a CPU
// reference under a mask. A failed comparison writes both images side by
// side and names the directory.
//
// Usage:
//   KOVEX_SKIP_WITHOUT_VULKAN();
//   KovexTest::PixelRig rig(64, 32);
//   KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
//   KovexTest::ProgramSpec spec;            // NoLighting, Attribute_Base, Material_Triangle
//   spec.ab.push_back({"USE_INSTANCE_RENDERING", "1"});
//   Ptr<Program> p = rig.Build(spec);
//   rig.SetTargets({GraphicsFormat::R8G8B8A8_UNORM});
//   rig.Clear(Vector4(0, 0, 0, 1));
//   rig.Draw(p.Get(), &vertices, 3);
//   KovexTest::Reference ref = KovexTest::Reference::Filled(rig.Target(0), {0, 0, 0, 1});
//   EXPECT_EQ(KovexTest::Compare(rig.ReadTarget(0), ref, 1.0f / 255, "name"), 0);

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "graphics/VertexElement.h"
#include "graphics/vulkan/VulkanTestSupport.h"
#include "shaders/Program.h"
#include "support/LogCapture.h"

namespace KovexTest {

using MacroList = std::vector<std::pair<std::string, std::string>>;

// Which texts and which macros. A material blend mode >= 0 makes the material
// configuration by PGMaterial::CreateConfig(mode, ...) (its blend macro and,
// with opaqueMask >= 0, "MTL_OPAQUE_MASK"), else a plain one with `mt`.
struct ProgramSpec
{
    std::string framework = "NoLighting.ksl";
    std::string attribute = "Attribute_Base.ksl";
    std::string material = "Material_Triangle.ksl";
    // Texts instead of files (a test's own framework or material), when set.
    std::string frameworkText, materialText;
    MacroList fw, ab, mt;
    // The attribute configuration's name when it matters (instancing is
    // flagged by "[INSTANCE_RENDERING]" in it); else made from the macros.
    std::string abName;
    int blendMode = -1;
    float opaqueMask = -1.0f;
    // Texture descriptions of the attribute's configuration (config
    // textures, no path), as PGResources attaches "FontTexture".
    std::vector<std::string> abConfigTextures;
};

// Interleaved vertices of one stream (slot 0), optionally a second stream
// (slot 1) of per-instance data.
struct VertexData
{
    std::vector<KovexEngine::VertexElement> elements; // slot 0 then slot 1
    std::vector<float> vertices;                       // slot 0, floats or reinterpreted bytes
    KovexEngine::uint32 vertexCount = 0;
    std::vector<float> instances; // slot 1
    KovexEngine::uint32 instanceCount = 0;

    // Appends an element at the end of its slot's vertex (offsets follow).
    VertexData& Add(KovexEngine::GraphicsSemantic semantic, KovexEngine::uint32 index,
                    KovexEngine::GraphicsLayoutFormat format, bool perInstance = false);
    KovexEngine::uint32 Stride(KovexEngine::uint32 slot) const;
};

class PixelRig
{
public:
    // Opens the engine on Vulkan with validation, with a back buffer of the
    // given size (at most 128 x 128 keeps lavapipe quick). The layer's
    // performance warning that a vertex output goes unread by the pixel
    // stage is expected (the frameworks pass every interpolant a material
    // may read); any other validation line fails the test.
    PixelRig(KovexEngine::uint32 width, KovexEngine::uint32 height);
    ~PixelRig();
    PixelRig(const PixelRig&) = delete;
    PixelRig& operator=(const PixelRig&) = delete;

    // False, with the reason, when the device cannot draw programs.
    bool IsReady(std::string* why = nullptr);
    KovexEngine::VulkanRenderer& Renderer() { return m_engine.Renderer(); }
    VulkanEngine& Engine() { return m_engine; }
    KovexEngine::uint32 Width() const { return m_width; }
    KovexEngine::uint32 Height() const { return m_height; }

    // Loads the three codes from Data/shaders and builds their program in
    // configurations carrying the spec's macros. Null (and a test failure
    // with the log's lines) when it does not compile or link.
    KovexEngine::Ptr<KovexEngine::Program> Build(const ProgramSpec& spec);

    // Makes render targets of the rig's size, one per format, and binds them
    // with the back buffer's depth buffer. An empty list goes back to the
    // back buffer.
    bool SetTargets(const std::vector<KovexEngine::GraphicsFormat>& formats);
    KovexEngine::Texture* Target(KovexEngine::uint32 slot);
    // Clears every bound target to one colour, depth to `depth`.
    void Clear(const KovexEngine::Vector4& colour, float depth = 1.0f);
    // The program, its constants as committed, one draw of `count` vertices
    // (no buffer: the vertex stage runs on SV_VertexID alone), both faces.
    bool Draw(KovexEngine::Program* program, const VertexData* data, KovexEngine::uint32 count,
              KovexEngine::GraphicsTopology topology = KovexEngine::GraphicsTopology::TriangleList);
    // Later draws fill only triangle edges (the wireframe phase's state),
    // still both faces.
    void SetWireframe(bool wireframe) { m_wireframe = wireframe; }
    // Ends the frame and reads a target back.
    KovexEngine::Ptr<KovexEngine::Image> ReadTarget(KovexEngine::uint32 slot);

    // A texture made from an image (RGBA8 or float formats), immutable.
    static KovexEngine::Ptr<KovexEngine::Texture> MakeTexture(const KovexEngine::Ptr<KovexEngine::Image>& image);

private:
    VulkanEngine m_engine;
    // The validation layer's lines while the rig lives: vertex outputs a
    // material leaves unread are accounted for, anything else fails.
    std::unique_ptr<LogCapture> m_log;
    KovexEngine::uint32 m_width, m_height;
    std::vector<KovexEngine::Ptr<KovexEngine::Texture>> m_targets;
    bool m_inFrame = false;
    bool m_wireframe = false;
};

#define KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig)                                                                            \
    do                                                                                                               \
    {                                                                                                                \
        std::string why_;                                                                                            \
        if (!(rig).IsReady(&why_))                                                                                   \
            GTEST_SKIP() << why_;                                                                                    \
    } while (0)

// A CPU reference: expected texel values as floats (4 per pixel, in the
// target's channel order R, G, B, A) and a mask of the pixels that count.
struct Reference
{
    KovexEngine::uint32 width = 0, height = 0;
    std::vector<float> texels;
    std::vector<bool> mask;

    static Reference Filled(KovexEngine::uint32 width, KovexEngine::uint32 height, const float (&colour)[4]);
    float* At(KovexEngine::uint32 x, KovexEngine::uint32 y) { return &texels[4 * (y * width + x)]; }
    void Set(KovexEngine::uint32 x, KovexEngine::uint32 y, const float (&colour)[4]);
    // Fills a triangle given in clip space (x right, y up, [-1, 1]) with a
    // colour; pixels whose centre lies within `margin` pixels of an edge
    // leave the mask, where rasterisation rules decide.
    void FillTriangle(const float (&clip)[3][2], const float (&colour)[4], float margin = 1.0f);
    // The same with a value per corner, interpolated at the pixel centres as
    // the rasteriser does for corners of equal w.
    void FillTriangle(const float (&clip)[3][2], const float (&values)[3][4], float margin = 1.0f);
    // Masks out the pixels whose centre lies within `margin` pixels of the
    // segment between two clip positions (lines: rasterisation decides).
    void MaskSegment(const float (&a)[2], const float (&b)[2], float margin);
};

// The identity matrix, as constants are committed (16 floats, rows).
extern const float kIdentityMatrix[16];

// A material text for probing what reaches the material: its colour is the
// MaterialInput member the configuration's macro names ("SHOW_TEXCOORD01"
// (default), "SHOW_TEXCOORD23", "SHOW_COLOR", "SHOW_NORMAL" (xyz, w 1),
// "SHOW_WORLD_POSITION"), best read from a float target.
const char* ProbeMaterialText();

// Pixels where the mask holds and some channel differs by more than
// `tolerance` (in the target's units: 1/255 steps for UNORM targets read as
// [0, 1]). Writes both images side by side on a mismatch, as `name`.
int Compare(const KovexEngine::Ptr<KovexEngine::Image>& actual, const Reference& expected, float tolerance,
            const char* name);

// A target's texel as floats (R8G8B8A8_UNORM, B8G8R8A8_UNORM,
// R32G32B32A32_FLOAT, R32_FLOAT); false for other formats.
bool ReadTexel(const KovexEngine::Ptr<KovexEngine::Image>& image, KovexEngine::uint32 x, KovexEngine::uint32 y,
               float (&out)[4]);

} // namespace KovexTest
