#include "shaders/ShaderPixelSupport.h"

#include <string.h>

#include <algorithm>
#include <cmath>

#include "graphics/RenderStates.h"
#include "graphics/TextureFactory.h"
#include "graphics/VertexBuffer.h"
#include "kernel/StringConv.h"
#include "shaders/PGCode.h"
#include "shaders/PGCodeConf.h"
#include "shaders/ProgramManager.h"
#include "shaders/ShaderTestSupport.h"
#include "support/LogCapture.h"

using namespace KovexEngine;

namespace KovexTest {

namespace {

WString LibraryPath(const std::string& name)
{
    return StringConvFuncs::ToWString((std::string(KOVEX_SOURCE_DATA) + "/shaders/" + name).c_str());
}

// A configuration name unique to its macro set, so that one code can hold
// the configurations of several tests.
WString ConfigName(const char* base, const MacroList& macros, int blend = -1, float mask = -1.0f)
{
    std::string name = base;
    for (const auto& m : macros)
        name += "[" + m.first + "=" + m.second + "]";
    if (blend >= 0)
        name += "[blend " + std::to_string(blend) + " mask " + std::to_string(mask) + "]";
    return StringConvFuncs::ToWString(name.c_str());
}

template <typename Code, typename Conf>
Conf* MakeConfig(Code* code, const WString& name, const MacroList& macros)
{
    if (PGCodeConf* existing = code->GetConfig(name))
        return static_cast<Conf*>(existing);
    Conf* conf = code->CreateConfig(name);
    if (!conf)
        return nullptr;
    for (const auto& m : macros)
        conf->SetMacro(m.first.c_str(), m.second.c_str());
    return conf;
}

} // namespace

const float kIdentityMatrix[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};

const char* ProbeMaterialText()
{
    return "float3 GetMaterialVertexOffset(MaterialInput input) { return float3(0, 0, 0); }\n"
           "float4 GetMaterialColor(MaterialInput input)\n"
           "{\n"
           "#if defined(SHOW_TEXCOORD23)\n"
           "    return input.TexCoord23;\n"
           "#elif defined(SHOW_COLOR)\n"
           "    return input.Color;\n"
           "#elif defined(SHOW_NORMAL)\n"
           "    return float4(input.WorldNormal, 1);\n"
           "#elif defined(SHOW_WORLD_POSITION)\n"
           "    return input.WorldPosition;\n"
           "#else\n"
           "    return input.TexCoord01;\n"
           "#endif\n"
           "}\n";
}

// --- VertexData --------------------------------------------------------------------------------

VertexData& VertexData::Add(GraphicsSemantic semantic, uint32 index, GraphicsLayoutFormat format, bool perInstance)
{
    const uint32 slot = perInstance ? 1 : 0;
    VertexElement e;
    e.Assign(semantic, index, format, slot, Stride(slot),
             perInstance ? GraphicsInputClass::PerInstance : GraphicsInputClass::PerVertex, perInstance ? 1 : 0);
    elements.push_back(e);
    return *this;
}

uint32 VertexData::Stride(uint32 slot) const
{
    uint32 stride = 0;
    for (const VertexElement& e : elements)
        if (e.InputSlot == slot)
            stride += e.GetStride();
    return stride;
}

// --- PixelRig ----------------------------------------------------------------------------------

PixelRig::PixelRig(uint32 width, uint32 height)
    : m_engine(width, height), m_log(new LogCapture()), m_width(width), m_height(height)
{
}

PixelRig::~PixelRig()
{
    if (m_inFrame && m_engine.IsOpen())
        Renderer().EndFrame();
    m_targets.clear();
    uint32 unread = 0;
    for (const auto& entry : (*m_log)->entries)
    {
        const bool known = entry.text.IndexOf(u"UNASSIGNED-CoreValidation-Shader-OutputNotConsumed") != kNotFound;
        unread += known;
        EXPECT_TRUE(known || entry.text.IndexOf(u"Vulkan validation") == kNotFound)
            << StringConvFuncs::ToAString(entry.text.c_str())();
    }
    m_engine.AllowWarnings(unread);
}

bool PixelRig::IsReady(std::string* why)
{
    if (!m_engine.IsOpen())
    {
        if (why)
            *why = "the Vulkan engine did not open";
        return false;
    }
    if (!Renderer().GetDevice().GetBeginRendering())
    {
        if (why)
            *why = "the device has no dynamic rendering";
        return false;
    }
    return true;
}

Ptr<Program> PixelRig::Build(const ProgramSpec& spec)
{
    ProgramManager* manager = ProgramManager::Ins();
    if (!MountCoreData())
    {
        ADD_FAILURE() << "[core] could not be made the source tree's Data directory";
        return Ptr<Program>();
    }
    LogCapture log;
    Ptr<PGFramework> fw = spec.frameworkText.empty()
                              ? manager->LoadFramework(LibraryPath(spec.framework))
                              : Ptr<PGFramework>(new PGFramework(u"", u"", spec.frameworkText.c_str()));
    Ptr<PGAttribute> ab = manager->LoadAttribute(LibraryPath(spec.attribute));
    Ptr<PGMaterial> mt = spec.materialText.empty()
                             ? manager->LoadMaterial(LibraryPath(spec.material))
                             : Ptr<PGMaterial>(new PGMaterial(u"", u"", spec.materialText.c_str()));
    if (!fw || !ab || !mt)
    {
        ADD_FAILURE() << "the codes did not load: " << spec.framework << ", " << spec.attribute << ", "
                      << spec.material;
        return Ptr<Program>();
    }
    PGConfFW* fwConf = MakeConfig<PGFramework, PGConfFW>(fw.Get(), ConfigName("T", spec.fw), spec.fw);
    const WString abName = !spec.abName.empty()
                               ? StringConvFuncs::ToWString(spec.abName.c_str())
                               : ConfigName("T", spec.ab) + StringConvFuncs::ToWString(
                                                                std::to_string(spec.abConfigTextures.size()).c_str());
    PGConfAB* abConf = static_cast<PGConfAB*>(ab->GetConfig(abName));
    if (!abConf)
    {
        abConf = MakeConfig<PGAttribute, PGConfAB>(ab.Get(), abName, spec.ab);
        for (const std::string& texture : spec.abConfigTextures)
        {
            PGTextureDesc desc;
            desc.Name = TSharedString<WString>(StringConvFuncs::ToWString(texture.c_str()));
            desc.ConfigTexture = true;
            abConf->AttachTextureDesc(desc);
        }
    }
    PGConfMT* mtConf = nullptr;
    const WString mtName = ConfigName("T", spec.mt, spec.blendMode, spec.opaqueMask);
    if (spec.blendMode >= 0 && !(mtConf = static_cast<PGConfMT*>(mt->GetConfig(mtName))))
    {
        mtConf = mt->CreateConfig(BlendMode(spec.blendMode), TranslucentDepthMode::TestOnly, TwoSideMode::None);
        if (mtConf)
        {
            mtConf->SetName(mtName);
            if (spec.opaqueMask >= 0.0f)
                mtConf->SetOpaqueMask(spec.opaqueMask);
            for (const auto& m : spec.mt)
                mtConf->SetMacro(m.first.c_str(), m.second.c_str());
        }
    }
    else if (spec.blendMode < 0)
        mtConf = MakeConfig<PGMaterial, PGConfMT>(mt.Get(), mtName, spec.mt);
    if (!fwConf || !abConf || !mtConf)
    {
        ADD_FAILURE() << "the configurations could not be made";
        return Ptr<Program>();
    }
    Ptr<Program> program(fwConf->GetProgram(abConf, mtConf));
    if (!program || program->IsFailed() || !program->IsCreated())
    {
        std::string lines;
        for (const auto& entry : log->entries)
            lines += StringConvFuncs::ToAString(entry.text.c_str())();
        ADD_FAILURE() << (spec.frameworkText.empty() ? spec.framework : "(framework text)") << " + "
                      << spec.attribute << " + " << (spec.materialText.empty() ? spec.material : "(material text)")
                      << " did not build:\n"
                      << lines;
        return Ptr<Program>();
    }
    return program;
}

bool PixelRig::SetTargets(const std::vector<GraphicsFormat>& formats)
{
    VulkanRenderer& r = Renderer();
    // The frame's start binds the back buffer: targets are bound after it.
    if (!m_inFrame)
    {
        r.BeginFrame();
        m_inFrame = true;
    }
    RenderTargetGroup group = r.GetCurrentRTGroup();
    m_targets.clear();
    if (formats.empty())
    {
        r.SetViewport(m_width, m_height);
        return true;
    }
    for (uint32 i = 0; i < 8; ++i)
        group.SetRenderTarget(i, Ptr<Texture>(), 0);
    for (uint32 i = 0; i < formats.size(); ++i)
    {
        Ptr<Texture> target = Texture::Create2DRT(m_width, m_height, formats[i]);
        if (!target || !target->IsCreated())
            return false;
        group.SetRenderTarget(i, target, 0);
        m_targets.push_back(target);
    }
    r.SetRTGroup(group);
    r.SetViewport(m_width, m_height);
    return true;
}

Texture* PixelRig::Target(uint32 slot)
{
    if (m_targets.empty())
        return Renderer().GetRenderTarget(slot).Get();
    return slot < m_targets.size() ? m_targets[slot].Get() : nullptr;
}

void PixelRig::Clear(const Vector4& colour, float depth)
{
    VulkanRenderer& r = Renderer();
    if (!m_inFrame)
    {
        r.BeginFrame();
        m_inFrame = true;
    }
    r.Clear(GraphicsClearMode::TargetDepthStencil, colour, depth, 0);
}

bool PixelRig::Draw(Program* program, const VertexData* data, uint32 count, GraphicsTopology topology)
{
    VulkanRenderer& r = Renderer();
    if (!program)
        return false;
    if (!m_inFrame)
    {
        r.BeginFrame();
        m_inFrame = true;
    }
    Ptr<VertexBuffer> buffers[2];
    VertexBuffer* raw[2] = {};
    uint32 bufferCount = 0;
    Ptr<VertexDecl> layout;
    if (data)
    {
        for (uint32 slot = 0; slot < 2; ++slot)
        {
            const std::vector<float>& floats = slot ? data->instances : data->vertices;
            // The backend counts an instance stream's entries against the
            // vertices drawn, so it is padded to at least that many.
            if (slot ? !data->instanceCount : !data->vertexCount)
                continue;
            const uint32 n = slot ? std::max(data->instanceCount, count) : data->vertexCount;
            std::vector<VertexElement> mine;
            for (VertexElement e : data->elements)
                if (e.InputSlot == slot)
                {
                    e.InputSlot = 0; // a stream's own elements start at its own slot 0
                    mine.push_back(e);
                }
            Ptr<VertexBuffer::Stream> stream =
                VertexBuffer::Stream::Create(mine.data(), uint32(mine.size()), n, true);
            const size_t given = slot ? size_t(data->Stride(slot)) * data->instanceCount
                                      : size_t(data->Stride(slot)) * n;
            if (!stream || floats.size() * 4 < given)
                return false;
            memset(stream->GetPointer(0), 0, size_t(data->Stride(slot)) * n);
            memcpy(stream->GetPointer(0), floats.data(), given);
            buffers[slot] = VertexBufferFactory::Get()->Create(stream, 0, GraphicsResourceUsage::Immutable, nullptr);
            if (!buffers[slot] || !buffers[slot]->IsCreated())
                return false;
            raw[bufferCount++] = buffers[slot].Get();
        }
        if (bufferCount > 1)
            layout = VertexDeclManager::Ins()->Create(data->elements.data(), uint32(data->elements.size()));
    }
    // Both faces: the references do not depend on winding.
    r.CommitState(m_wireframe ? RasterizerStateFactory::Get()->GetTwoSideWireframeState().Get()
                              : RasterizerStateFactory::Get()->GetTwoSideState().Get());
    program->ApplyProgram();
    DrawBuffersDesc draw;
    draw.VertexBuffers = bufferCount ? raw : nullptr;
    draw.VertexBufferCount = bufferCount;
    draw.Layout = layout.Get();
    draw.Count = count;
    draw.Topology = topology;
    draw.InstanceCount = data && data->instanceCount ? data->instanceCount : 1;
    return r.DrawWithProgram(draw);
}

Ptr<Image> PixelRig::ReadTarget(uint32 slot)
{
    VulkanRenderer& r = Renderer();
    if (m_inFrame)
    {
        r.EndFrame();
        r.Present();
        m_inFrame = false;
    }
    return ReadBack(Target(slot));
}

Ptr<Texture> PixelRig::MakeTexture(const Ptr<Image>& image)
{
    if (!image)
        return Ptr<Texture>();
    return TextureFactory::Get()->Create(Ptr<Object>(image.Get()), GraphicsResourceUsage::Immutable, nullptr);
}

// --- Reference and comparison ------------------------------------------------------------------

Reference Reference::Filled(uint32 width, uint32 height, const float (&colour)[4])
{
    Reference ref;
    ref.width = width;
    ref.height = height;
    ref.texels.resize(size_t(width) * height * 4);
    ref.mask.assign(size_t(width) * height, true);
    for (size_t i = 0; i < size_t(width) * height; ++i)
        memcpy(&ref.texels[4 * i], colour, sizeof(colour));
    return ref;
}

void Reference::Set(uint32 x, uint32 y, const float (&colour)[4])
{
    if (x < width && y < height)
        memcpy(At(x, y), colour, sizeof(colour));
}

void Reference::FillTriangle(const float (&clip)[3][2], const float (&colour)[4], float margin)
{
    float values[3][4];
    for (auto& v : values)
        memcpy(v, colour, sizeof(colour));
    FillTriangle(clip, values, margin);
}

void Reference::FillTriangle(const float (&clip)[3][2], const float (&values)[3][4], float margin)
{
    float px[3], py[3]; // corners in pixels, y down
    for (int i = 0; i < 3; ++i)
    {
        px[i] = (clip[i][0] + 1.0f) * 0.5f * width;
        py[i] = (1.0f - clip[i][1]) * 0.5f * height;
    }
    // Orientation decides which side of each edge is inside.
    const float area = (px[1] - px[0]) * (py[2] - py[0]) - (px[2] - px[0]) * (py[1] - py[0]);
    if (area == 0.0f)
        return;
    const float sign = area > 0 ? 1.0f : -1.0f;
    for (uint32 y = 0; y < height; ++y)
        for (uint32 x = 0; x < width; ++x)
        {
            const float cx = x + 0.5f, cy = y + 0.5f;
            float nearest = 1e9f;
            for (int e = 0; e < 3; ++e)
            {
                const int f = (e + 1) % 3;
                const float ex = px[f] - px[e], ey = py[f] - py[e];
                const float d = sign * ((cy - py[e]) * ex - (cx - px[e]) * ey) / std::sqrt(ex * ex + ey * ey);
                nearest = std::min(nearest, d);
            }
            if (nearest > 0)
            {
                // Barycentric weights of the pixel centre.
                const float w1 = ((cx - px[0]) * (py[2] - py[0]) - (px[2] - px[0]) * (cy - py[0])) / area;
                const float w2 = ((px[1] - px[0]) * (cy - py[0]) - (cx - px[0]) * (py[1] - py[0])) / area;
                const float w0 = 1.0f - w1 - w2;
                float* texel = At(x, y);
                for (int c = 0; c < 4; ++c)
                    texel[c] = w0 * values[0][c] + w1 * values[1][c] + w2 * values[2][c];
            }
            if (std::fabs(nearest) <= margin)
                mask[y * width + x] = false;
        }
}

void Reference::MaskSegment(const float (&a)[2], const float (&b)[2], float margin)
{
    const float ax = (a[0] + 1.0f) * 0.5f * width, ay = (1.0f - a[1]) * 0.5f * height;
    const float bx = (b[0] + 1.0f) * 0.5f * width, by = (1.0f - b[1]) * 0.5f * height;
    const float dx = bx - ax, dy = by - ay, len2 = std::max(dx * dx + dy * dy, 1e-12f);
    for (uint32 y = 0; y < height; ++y)
        for (uint32 x = 0; x < width; ++x)
        {
            const float cx = x + 0.5f, cy = y + 0.5f;
            const float t = std::clamp(((cx - ax) * dx + (cy - ay) * dy) / len2, 0.0f, 1.0f);
            const float qx = ax + t * dx - cx, qy = ay + t * dy - cy;
            if (qx * qx + qy * qy <= margin * margin)
                mask[y * width + x] = false;
        }
}

bool ReadTexel(const Ptr<Image>& image, uint32 x, uint32 y, float (&out)[4])
{
    if (!image)
        return false;
    const TextureDesc& desc = image->GetDesc();
    if (x >= desc.Width || y >= desc.Height)
        return false;
    const size_t i = size_t(y) * desc.Width + x;
    const uint8* data = image->GetData();
    switch (desc.Format)
    {
    case GraphicsFormat::R8G8B8A8_UNORM:
        for (int c = 0; c < 4; ++c)
            out[c] = data[4 * i + c] / 255.0f;
        return true;
    case GraphicsFormat::B8G8R8A8_UNORM:
        out[0] = data[4 * i + 2] / 255.0f;
        out[1] = data[4 * i + 1] / 255.0f;
        out[2] = data[4 * i + 0] / 255.0f;
        out[3] = data[4 * i + 3] / 255.0f;
        return true;
    case GraphicsFormat::R32G32B32A32_FLOAT:
        memcpy(out, data + 16 * i, 16);
        return true;
    case GraphicsFormat::R32_FLOAT:
        memcpy(out, data + 4 * i, 4);
        out[1] = out[2] = 0.0f;
        out[3] = 1.0f;
        return true;
    default:
        return false;
    }
}

int Compare(const Ptr<Image>& actual, const Reference& expected, float tolerance, const char* name)
{
    if (!actual || actual->GetDesc().Width != expected.width || actual->GetDesc().Height != expected.height)
    {
        ADD_FAILURE() << name << ": no image, or not of the reference's size";
        return -1;
    }
    float probe[4];
    if (!ReadTexel(actual, 0, 0, probe))
    {
        ADD_FAILURE() << name << ": a target format the comparison does not read";
        return -1;
    }
    int count = 0;
    std::string first;
    for (uint32 y = 0; y < expected.height; ++y)
        for (uint32 x = 0; x < expected.width; ++x)
        {
            if (!expected.mask[y * expected.width + x])
                continue;
            float got[4];
            ReadTexel(actual, x, y, got);
            const float* want = &expected.texels[4 * (y * expected.width + x)];
            for (int c = 0; c < 4; ++c)
                if (!(std::fabs(got[c] - want[c]) <= tolerance))
                {
                    if (!count)
                        first = "(" + std::to_string(x) + ", " + std::to_string(y) + ") channel " +
                                std::to_string(c) + ": " + std::to_string(got[c]) + " for " +
                                std::to_string(want[c]);
                    ++count;
                    break;
                }
        }
    if (count)
    {
        // The expected image in the actual one's format, for the side-by-side.
        Ptr<Image> image(new Image());
        if (image->Create(actual->GetDesc()))
        {
            const uint32 format = actual->GetDesc().Format;
            for (uint32 i = 0; i < expected.width * expected.height; ++i)
            {
                const float* t = &expected.texels[4 * i];
                uint8* p = image->GetData();
                if (format == GraphicsFormat::R32G32B32A32_FLOAT)
                    memcpy(p + 16 * i, t, 16);
                else if (format == GraphicsFormat::R32_FLOAT)
                    memcpy(p + 4 * i, t, 4);
                else
                {
                    const bool bgra = format == GraphicsFormat::B8G8R8A8_UNORM;
                    for (int c = 0; c < 4; ++c)
                    {
                        const int at = bgra && c != 1 && c != 3 ? 2 - c : c;
                        p[4 * i + at] = uint8(std::lround(std::clamp(t[c], 0.0f, 1.0f) * 255.0f));
                    }
                }
            }
        }
        ADD_FAILURE() << name << ": " << count << " pixels differ from the CPU reference, first " << first
                      << "; images in " << WriteSideBySide(name, actual, image);
    }
    return count;
}

} // namespace KovexTest
