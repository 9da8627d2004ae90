#include "DemoScene.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <vector>

using namespace KovexEngine;

namespace {

// Position, normal and texture coordinate: what the base attribute reads.
struct QuadVertex
{
    float Position[3];
    float Normal[3];
    float TexCoord[2];
};

// Clockwise on screen (y up), the image's top row at the top.
const QuadVertex kQuad[4] = {
    {{-0.8f, -0.8f, 0.5f}, {0, 0, 1}, {0, 1}},
    {{-0.8f, 0.8f, 0.5f}, {0, 0, 1}, {0, 0}},
    {{0.8f, 0.8f, 0.5f}, {0, 0, 1}, {1, 0}},
    {{0.8f, -0.8f, 0.5f}, {0, 0, 1}, {1, 1}},
};
const uint16 kQuadIndices[6] = {0, 1, 2, 0, 2, 3};

bool Fail(const char* what)
{
    std::fprintf(stderr, "Rendering: %s.\n", what);
    return false;
}

} // namespace

bool DemoScene::Create()
{
    // The unlit framework, the base attribute and the textured material,
    // compiled by the engine (or found in "shader.cache" from an earlier run).
    ProgramManager* manager = ProgramManager::Ins();
    // The templates include "[core]shaders/Common.ksl": "[core]" is the data
    // root unless the engine's start named it already.
    if (StreamManager::Ins()->GetPackagePath(WString(u"core")).IsEmpty())
        StreamManager::Ins()->SetPackagePath(WString(u"core"), g_kovexRootPath);
    m_framework = manager->LoadFramework(WString(u"shaders/NoLighting.ksl"));
    m_attribute = manager->LoadAttribute(WString(u"shaders/Attribute_Base.ksl"));
    m_material = manager->LoadMaterial(WString(u"shaders/Material_Triangle.ksl"));
    if (!m_framework || !m_attribute || !m_material)
        return Fail("the shader templates under Data/shaders could not be loaded");
    m_material->SetMacro(AString("USE_DIFFUSE_TEXTURE"), AString("1"));
    // Through the framework's map, as every draw of the engine asks; the
    // byte code is kept in "shader.cache", so the next run compiles nothing.
    g_kovexCacheShaders = true;
    g_kovexLoadShadersFromCache = true;
    ProgramCompiler* compiler = ProgramCompiler::Get();
    uint64 compiles = compiler ? compiler->GetCompileCount() : 0;
    m_program = m_framework->GetCurConf()->GetProgram(m_attribute->GetCurConf(), m_material->GetCurConf());
    if (!m_program || !m_program->IsCreated())
        return Fail("the program did not compile (the log says why)");
    std::printf("Program: NoLighting + Attribute_Base + Material_Triangle, %s\n",
                compiler && compiler->GetCompileCount() > compiles ? "compiled" : "loaded from shader.cache");

    m_texture = TextureFactory::Get()->Create(WString(u"Samples/checker.png"), nullptr);
    if (!m_texture || !m_texture->IsCreated())
        return Fail("the texture Samples/checker.png could not be loaded");

    VertexElement elements[3];
    const GraphicsInputClass perVertex = GraphicsInputClass::PerVertex;
    elements[0].Assign(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3, 0, 0, perVertex, 0);
    elements[1].Assign(GraphicsSemantic::Normal, 0, GraphicsLayoutFormat::Float3, 0, 12, perVertex, 0);
    elements[2].Assign(GraphicsSemantic::TexCoord, 0, GraphicsLayoutFormat::Float2, 0, 24, perVertex, 0);
    Ptr<VertexBuffer::Stream> vertices = VertexBuffer::Stream::Create(elements, 3, 4, true);
    Ptr<IndexBuffer::Stream> indices = IndexBuffer::Stream::Create(6, IndexBuffer::Index16, true);
    if (!vertices || !indices)
        return Fail("the quad's streams could not be made");
    std::memcpy(vertices->GetPointer(0), kQuad, sizeof(kQuad));
    std::memcpy(indices->GetPointer(0), kQuadIndices, sizeof(kQuadIndices));
    m_quad = VertexBufferFactory::Get()->Create(vertices, 0, GraphicsResourceUsage::Immutable, nullptr);
    m_indices = IndexBufferFactory::Get()->Create(indices, 0, GraphicsResourceUsage::Immutable, nullptr);
    if (!m_quad || !m_quad->IsCreated() || !m_indices || !m_indices->IsCreated())
        return Fail("the quad's buffers could not be made");
    return true;
}

bool DemoScene::DrawFrame(unsigned frame)
{
    Renderer& r = *g_ptrRenderer;
    r.BeginFrame();
    r.Clear(GraphicsClearMode::TargetDepthStencil, Vector4(0.10f, 0.12f, 0.16f, 1.0f), 1.0f, 0);
    m_program->ApplyProgram();
    const float identity[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    // The tint breathes between white and a cool blue, set by name.
    float phase = 0.5f + 0.5f * std::cos(float(frame) * 0.05f);
    const float tint[4] = {0.6f + 0.4f * phase, 0.7f + 0.3f * phase, 1.0f, 1.0f};
    bool ok = m_program->CommitConstantByName(u"ViewProjMatrix", identity, 64, 16) &&
              m_program->CommitConstantByName(u"WorldMatrix", identity, 64, 16) &&
              m_program->CommitConstantByName(u"DiffuseColor", tint, 16, 16) &&
              m_program->CommitTexture(u"DiffuseTexture", m_texture);
    VertexBuffer* buffers[1] = {m_quad.Get()};
    DrawBuffersDesc draw;
    draw.VertexBuffers = buffers;
    draw.VertexBufferCount = 1;
    draw.Indices = m_indices.Get();
    draw.Count = 6;
    ok = ok && r.DrawWithProgram(draw);
    r.EndFrame();
    r.Present();
    return ok;
}

bool DemoScene::SaveFrame(const std::string& path)
{
    Renderer& r = *g_ptrRenderer;
    Texture* target = r.GetRenderTarget(0).Get();
    std::vector<uint8> bytes;
    if (!target || !r.ReadTexture(target, 0, 0, bytes))
        return Fail("the frame could not be read back");
    const TextureDesc& desc = target->GetDesc();
    Ptr<Image> image(new Image());
    if (!image->Create(TextureFactory::Make2DDesc(desc.GetMipWidth(0), desc.GetMipHeight(0), target->GetFormat(), 0)) ||
        image->GetDataSize() != bytes.size())
        return Fail("the frame's bytes do not make an image");
    std::memcpy(image->GetData(), bytes.data(), bytes.size());
    if (target->GetFormat() != GraphicsFormat::R8G8B8A8_UNORM && !image->Convert(GraphicsFormat::R8G8B8A8_UNORM, false))
        return Fail("the frame's format does not convert to 8-bit RGBA");
    auto* data = new DataStream();
    bool saved = false;
    {
        Ptr<Stream> out(new MemoryStream(data, false));
        out->SetWriteable(true);
        if (out->Open() && ImageLoaderPNG::StaticSave(image.Get(), out.Get()))
        {
            std::ofstream file(path, std::ios::binary);
            file.write(reinterpret_cast<const char*>(data->GetPointer()), std::streamsize(data->GetLength()));
            saved = bool(file);
        }
    }
    delete data;
    return saved || Fail("the PNG could not be written");
}

void DemoScene::Destroy()
{
    m_program = nullptr;
    // The framework holds its programs; the codes go after them.
    m_framework = nullptr;
    m_attribute = nullptr;
    m_material = nullptr;
    m_texture = nullptr;
    m_quad = nullptr;
    m_indices = nullptr;
}
