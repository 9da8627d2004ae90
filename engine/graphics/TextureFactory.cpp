#include "graphics/TextureFactory.h"

#include <algorithm>

#include "graphics/Renderer.h"
#include "graphics/TextureStreaming.h"
#include "io/StreamManager.h"
#include "kernel/Log.h"

namespace KovexEngine {

// --- Texture ---------------------------------------------------------------------------

void Texture::SetSize(GraphicsFormat format, uint32 width, uint32 height)
{
    TextureDesc desc;
    desc.Width = width;
    desc.Height = height;
    desc.Format = uint32(format);
    desc.Dimension = uint32(TextureDimension::_2D);
    m_desc = desc;
}

bool Texture::CanCopyTo(GraphicsResource* dst)
{
    if (!GraphicsResource::CanCopyTo(dst))
        return false;
    const TextureDesc& other = static_cast<Texture*>(dst)->GetDesc();
    return other.Width == m_desc.Width && other.Height == m_desc.Height && other.Depth == m_desc.Depth &&
           other.ArraySize == m_desc.ArraySize && other.MipLevels == m_desc.MipLevels &&
           GraphicsFormat::GetFormatBits(int(other.Format)) == GraphicsFormat::GetFormatBits(int(m_desc.Format));
}

uint32 Texture::CalculateDataSize(uint32 subresource, const MappedSubresource& mapped, const MappedBox* box)
{
    uint32 mips = m_desc.MipLevels ? m_desc.MipLevels : 1;
    uint32 mip = subresource % mips;
    uint32 rowBytes = 0, rows = 0;
    uint32 depth = m_desc.GetMipDepth(mip);
    if (box)
    {
        if (box->right <= box->left || box->bottom <= box->top || box->back <= box->front)
            return 0;
        TextureDesc part;
        part.Width = box->right - box->left;
        part.Height = box->bottom - box->top;
        part.GetRowPitch(rowBytes, rows, 0, m_desc.Format);
        depth = box->back - box->front;
    }
    else
        m_desc.GetRowPitch(rowBytes, rows, mip, m_desc.Format);
    if (rows == 0)
        return 0;
    // The last row of the last slice needs only its own bytes, not the pitch.
    uint64 size = uint64(depth - 1) * mapped.DepthPitch + uint64(rows - 1) * mapped.RowPitch + rowBytes;
    return size > 0xFFFFFFFFull ? 0xFFFFFFFFu : uint32(size);
}

bool Texture::UpdateSubresource(uint32 subresource, const MappedSubresource& data, const MappedBox* box)
{
    const uint32 mips = m_desc.MipLevels ? m_desc.MipLevels : 1;
    if (!data.pData || subresource >= mips * m_desc.ArraySize)
        return false;
    if (box)
    {
        const uint32 mip = subresource % mips;
        if (box->right <= box->left || box->bottom <= box->top || box->back <= box->front ||
            box->right > m_desc.GetMipWidth(mip) || box->bottom > m_desc.GetMipHeight(mip) ||
            box->back > m_desc.GetMipDepth(mip))
            return false;
    }
    return DeviceUpdateSubresource(subresource, data, box);
}

#define KOVEX_TEXTURE_FRONT(call)                       \
    TextureFactory* factory = TextureFactory::Get();    \
    return factory ? factory->call : Ptr<Texture>();

Ptr<Texture> Texture::LoadFromPath(const WString& path) { KOVEX_TEXTURE_FRONT(Create(path, nullptr)) }
Ptr<Texture> Texture::FindByPath(const WString& path) { KOVEX_TEXTURE_FRONT(FindTexture(path)) }
Ptr<Texture> Texture::Create(const TextureDesc& desc, GraphicsResourceUsage usage)
{
    KOVEX_TEXTURE_FRONT(Create(desc, usage, nullptr))
}
Ptr<Texture> Texture::Create2DRT(uint32 w, uint32 h, GraphicsFormat f) { KOVEX_TEXTURE_FRONT(Create2DRT(w, h, f)) }
Ptr<Texture> Texture::Create2DDepth(uint32 w, uint32 h, GraphicsFormat f) { KOVEX_TEXTURE_FRONT(Create2DDepth(w, h, f)) }
Ptr<Texture> Texture::Create2DStaging(uint32 w, uint32 h, GraphicsFormat f)
{
    KOVEX_TEXTURE_FRONT(Create2DStaging(w, h, f))
}
Ptr<Texture> Texture::CreateCubeRT(uint32 size, GraphicsFormat f) { KOVEX_TEXTURE_FRONT(CreateCubeRT(size, f)) }
Ptr<Texture> Texture::Create2DTypelessRT(uint32 w, uint32 h, GraphicsFormat f, GraphicsFormat rtv, GraphicsFormat srv,
                                         uint32 views)
{
    KOVEX_TEXTURE_FRONT(Create2DTypelessRT(w, h, f, rtv, srv, views))
}
Ptr<Texture> Texture::Require2DTypelessRT(uint32 w, uint32 h, GraphicsFormat f, GraphicsFormat rtv, GraphicsFormat srv,
                                          uint32 views)
{
    KOVEX_TEXTURE_FRONT(Require2DTypelessRT(w, h, f, rtv, srv, views))
}
Ptr<Texture> Texture::RequireCubeRT(uint32 size, GraphicsFormat f) { KOVEX_TEXTURE_FRONT(RequireCubeRT(size, f)) }
Ptr<Texture> Texture::Require(const TextureDesc& desc, GraphicsResourceUsage usage, bool findClosest)
{
    KOVEX_TEXTURE_FRONT(Require(desc, usage, findClosest))
}
Ptr<Texture> Texture::Require2DRT(uint32 w, uint32 h, GraphicsFormat f) { KOVEX_TEXTURE_FRONT(Require2DRT(w, h, f)) }
Ptr<Texture> Texture::Require2DDepth(uint32 w, uint32 h, GraphicsFormat f)
{
    KOVEX_TEXTURE_FRONT(Require2DDepth(w, h, f))
}
Ptr<Texture> Texture::Require2DStaging(uint32 w, uint32 h, GraphicsFormat f, bool findClosest)
{
    KOVEX_TEXTURE_FRONT(Require2DStaging(w, h, f, findClosest))
}
#undef KOVEX_TEXTURE_FRONT

void Texture::Recycle(Texture* texture)
{
    if (TextureFactory* factory = TextureFactory::Get())
        factory->Recycle(texture);
}

// --- Pools -----------------------------------------------------------------------------

TextureFactory::PoolKey TextureFactory::TexturePool::Compress(const TextureDesc& d)
{
    PoolKey key;
    key.High = (uint64(d.TypelessRtvDsvFormat & 0xFF) << 24) | (uint64(d.TypelessSavUavFormat & 0xFF) << 16) |
               (uint64(d.Format & 0xFF) << 8) | (uint64(d.ViewFlags & 0xF) << 4) | uint64(d.Dimension & 0xF);
    key.Low = (uint64(d.Width) << 32) | d.Height;
    return key;
}

void TextureFactory::TexturePool::Decompress(const PoolKey& key, TextureDesc& d)
{
    d.TypelessRtvDsvFormat = uint32(key.High >> 24) & 0xFF;
    d.TypelessSavUavFormat = uint32(key.High >> 16) & 0xFF;
    d.Format = uint32(key.High >> 8) & 0xFF;
    d.ViewFlags = uint32(key.High >> 4) & 0xF;
    d.Dimension = uint32(key.High) & 0xF;
    d.Width = uint32(key.Low >> 32);
    d.Height = uint32(key.Low);
}

std::vector<Ptr<Texture>>* TextureFactory::TexturePool::FindStack(const PoolKey& key, bool create)
{
    auto it = m_stacks.find(key);
    if (it != m_stacks.end())
        return &it->second;
    return create ? &m_stacks[key] : nullptr;
}

Ptr<Texture> TextureFactory::TexturePool::Require(const TextureDesc& desc, bool findClosest)
{
    const PoolKey key = Compress(desc);
    std::vector<Ptr<Texture>>* exact = FindStack(key, false);
    if (exact && !exact->empty())
    {
        Ptr<Texture> top = exact->back();
        exact->pop_back();
        return top;
    }
    if (!findClosest)
        return Ptr<Texture>();
    // The first stack in key order of the same kind of texture and at least
    // the size asked for. The key orders width above height, so no later fit
    // is smaller in both sides than the first: the first is the one to take,
    // and nothing is popped that is not handed out.
    for (auto& [stackKey, stack] : m_stacks)
    {
        if (stack.empty() || stackKey.High != key.High)
            continue;
        TextureDesc d;
        Decompress(stackKey, d);
        if (d.Width < desc.Width || d.Height < desc.Height)
            continue;
        Ptr<Texture> top = stack.back();
        stack.pop_back();
        return top;
    }
    return Ptr<Texture>();
}

void TextureFactory::TexturePool::Recycle(Texture* texture)
{
    if (!texture)
        return;
    std::vector<Ptr<Texture>>* stack = FindStack(Compress(texture->GetDesc()), true);
    // A second recycle of the same texture would hand it out twice.
    if (std::find(stack->begin(), stack->end(), Ptr<Texture>(texture)) != stack->end())
        return;
    stack->push_back(Ptr<Texture>(texture));
}

void TextureFactory::TexturePool::Cleanup()
{
    std::map<PoolKey, std::vector<Ptr<Texture>>> dropped;
    dropped.swap(m_stacks);
}

void TextureFactory::TexturePool::Cleanup(const std::function<bool(Texture*)>& select)
{
    if (!select)
        return;
    for (auto& [key, stack] : m_stacks)
        stack.erase(std::remove_if(stack.begin(), stack.end(), [&](const Ptr<Texture>& t) { return select(t.Get()); }),
                    stack.end());
}

size_t TextureFactory::TexturePool::GetNumPooled() const
{
    size_t n = 0;
    for (const auto& entry : m_stacks)
        n += entry.second.size();
    return n;
}

// --- Factory ---------------------------------------------------------------------------

TextureFactory::TextureFactory() : GraphicsFactory(FactoryType::TextureFactory) {}

TextureFactory::~TextureFactory() { StopStreaming(); }

namespace {

struct QueryContext
{
    Renderer* renderer;
    uint32 dimension;
};

bool QueryFormat(void* context, uint32 format, uint32 usage, uint32 viewFlags)
{
    auto* c = static_cast<QueryContext*>(context);
    if (format >= GraphicsFormat::COUNT)
        return false;
    uint32 cpu = usage == GraphicsResourceUsage::Staging ? uint32(GraphicsResourceCpuAccess::Read) |
                                                               uint32(GraphicsResourceCpuAccess::Write)
                 : usage == GraphicsResourceUsage::Dynamic ? uint32(GraphicsResourceCpuAccess::Write)
                                                           : 0u;
    return c->renderer->CheckTextureFormat(GraphicsFormat(GraphicsFormat::TYPE(format)),
                                           TextureDimension(c->dimension), viewFlags,
                                           GraphicsResourceUsage(usage), cpu);
}

uint32 CpuAccessFor(GraphicsResourceUsage usage)
{
    if (usage == GraphicsResourceUsage::Staging)
        return uint32(GraphicsResourceCpuAccess::Read) | uint32(GraphicsResourceCpuAccess::Write);
    if (usage == GraphicsResourceUsage::Dynamic)
        return uint32(GraphicsResourceCpuAccess::Write);
    return 0;
}

uint32 FullChain(const TextureDesc& d)
{
    uint32 largest = std::max({d.Width, d.Height, d.Dimension == TextureDimension::_3D ? d.Depth : 1u});
    uint32 levels = 1;
    while (largest > 1)
    {
        largest >>= 1;
        ++levels;
    }
    return levels;
}

} // namespace

bool TextureFactory::CheckTextureDesc(const TextureDesc& desc, GraphicsResourceUsage usage)
{
    Renderer* renderer = Renderer::Get().Get();
    if (!renderer)
    {
        Log::Print(LOG_WARNING, u"Check texture desc failed, no renderer.\n");
        return false;
    }
    QueryContext context{renderer, desc.Dimension};
    return KovexEngine::CheckTextureDesc(desc, uint32(usage), *renderer->GetHWCapability(), &QueryFormat, &context) &&
           CheckTextureSize(desc);
}

bool TextureFactory::CheckTextureSize(const TextureDesc& desc)
{
    if (!KovexEngine::CheckTextureSize(desc))
        return false;
    if (desc.Width == 0 || desc.Height == 0 || desc.Depth == 0 || desc.ArraySize == 0)
    {
        Log::Format(LOG_WARNING,
                    u"Check texture size failed, width = %u, height = %u, depth = %u and array size = %u must not be 0.\n",
                    desc.Width, desc.Height, desc.Depth, desc.ArraySize);
        return false;
    }
    if (desc.Width > kMaxTextureSize || desc.Height > kMaxTextureSize || desc.Depth > kMaxTextureSize ||
        desc.ArraySize > kMaxArraySize)
    {
        Log::Format(LOG_WARNING,
                    u"Check texture size failed, %u x %u x %u with array size %u is above the limit %u (array %u).\n",
                    desc.Width, desc.Height, desc.Depth, desc.ArraySize, kMaxTextureSize, kMaxArraySize);
        return false;
    }
    uint32 chain = FullChain(desc);
    if (desc.MipLevels > chain)
    {
        Log::Format(LOG_WARNING, u"Check texture size failed, mip levels = %u above the %u of the chain.\n",
                    desc.MipLevels, chain);
        return false;
    }
    return true;
}

Ptr<Texture> TextureFactory::Create(const TextureDesc& desc, GraphicsResourceUsage usage, std::atomic<int32>* pending)
{
    if (!CheckTextureDesc(desc, usage))
        return Ptr<Texture>();
    TextureDesc made = desc;
    if (made.MipLevels == 0)
        made.MipLevels = FullChain(made);
    Ptr<Texture> texture(NewTexture());
    if (!texture)
        return texture;
    texture->SetDesc(made);
    SetCpuAccessFlags(texture.Get(), CpuAccessFor(usage));
    SetResourceUsage(texture.Get(), usage);
    M_PostObject(Ptr<GraphicsObject>(texture.Get()), pending);
    return texture;
}

TextureDesc TextureFactory::Make2DDesc(uint32 width, uint32 height, GraphicsFormat format, uint32 viewFlags)
{
    TextureDesc d;
    d.Width = width;
    d.Height = height;
    d.Format = uint32(format);
    d.ViewFlags = viewFlags;
    d.Dimension = uint32(TextureDimension::_2D);
    return d;
}

namespace {
// A render target is also bindable as unordered access where geometry
// shaders (and with them that view) exist.
uint32 RenderTargetViews()
{
    Renderer* renderer = Renderer::Get().Get();
    uint32 views = TextureViewFlags::SHADER_RESOURCE | TextureViewFlags::RENDER_TARGET;
    if (renderer && renderer->GetHWCapability()->SupportGeometryShader)
        views |= TextureViewFlags::UNORDERED_ACCESS;
    return views;
}
} // namespace

Ptr<Texture> TextureFactory::Create2DRT(uint32 width, uint32 height, GraphicsFormat format)
{
    return Create(Make2DDesc(width, height, format, RenderTargetViews()), GraphicsResourceUsage::Default, nullptr);
}

Ptr<Texture> TextureFactory::Create2DDepth(uint32 width, uint32 height, GraphicsFormat format)
{
    return Create(Make2DDesc(width, height, format, TextureViewFlags::DEPTH_STENCIL), GraphicsResourceUsage::Default,
                  nullptr);
}

Ptr<Texture> TextureFactory::Create2DStaging(uint32 width, uint32 height, GraphicsFormat format)
{
    return Create(Make2DDesc(width, height, format, 0), GraphicsResourceUsage::Staging, nullptr);
}

TextureDesc TextureFactory::MakeCubeDesc(uint32 size, GraphicsFormat format)
{
    TextureDesc d = Make2DDesc(size, size, format, TextureViewFlags::SHADER_RESOURCE | TextureViewFlags::RENDER_TARGET);
    d.Dimension = uint32(TextureDimension::Cube);
    d.ArraySize = 6;
    return d;
}

TextureDesc TextureFactory::MakeTypelessDesc(uint32 width, uint32 height, GraphicsFormat format,
                                             GraphicsFormat typelessRtvDsvFormat, GraphicsFormat typelessSrvUavFormat,
                                             uint32 viewFlags)
{
    TextureDesc d = Make2DDesc(width, height, format, viewFlags);
    d.TypelessRtvDsvFormat = uint32(typelessRtvDsvFormat);
    d.TypelessSavUavFormat = uint32(typelessSrvUavFormat);
    return d;
}

Ptr<Texture> TextureFactory::CreateCubeRT(uint32 size, GraphicsFormat format)
{
    return Create(MakeCubeDesc(size, format), GraphicsResourceUsage::Default, nullptr);
}

Ptr<Texture> TextureFactory::Create2DTypelessRT(uint32 width, uint32 height, GraphicsFormat format,
                                                GraphicsFormat typelessRtvDsvFormat,
                                                GraphicsFormat typelessSrvUavFormat, uint32 viewFlags)
{
    return Create(MakeTypelessDesc(width, height, format, typelessRtvDsvFormat, typelessSrvUavFormat, viewFlags),
                  GraphicsResourceUsage::Default, nullptr);
}

Ptr<Texture> TextureFactory::Require2DTypelessRT(uint32 width, uint32 height, GraphicsFormat format,
                                                 GraphicsFormat typelessRtvDsvFormat,
                                                 GraphicsFormat typelessSrvUavFormat, uint32 viewFlags)
{
    return Require(MakeTypelessDesc(width, height, format, typelessRtvDsvFormat, typelessSrvUavFormat, viewFlags),
                   GraphicsResourceUsage::Default, false);
}

Ptr<Texture> TextureFactory::Require2DTypelessRT(GraphicsFormat format, GraphicsFormat typelessRtvDsvFormat,
                                                 GraphicsFormat typelessSrvUavFormat, uint32 viewFlags,
                                                 uint32 nthOfScreen)
{
    uint32 w = 0, h = 0;
    GetScreenSize(w, h, nthOfScreen);
    return Require2DTypelessRT(w, h, format, typelessRtvDsvFormat, typelessSrvUavFormat, viewFlags);
}

Ptr<Texture> TextureFactory::RequireCubeRT(uint32 size, GraphicsFormat format)
{
    return Require(MakeCubeDesc(size, format), GraphicsResourceUsage::Default, false);
}

Ptr<Texture> TextureFactory::Require(const TextureDesc& desc, GraphicsResourceUsage usage, bool findClosest)
{
    Ptr<Texture> pooled = GetTexturePool(usage).Require(desc, findClosest);
    return pooled ? pooled : Create(desc, usage, nullptr);
}

Ptr<Texture> TextureFactory::Require2DRT(uint32 width, uint32 height, GraphicsFormat format)
{
    return Require(Make2DDesc(width, height, format, RenderTargetViews()), GraphicsResourceUsage::Default, false);
}

Ptr<Texture> TextureFactory::Require2DRT(GraphicsFormat format, uint32 nthOfScreen)
{
    uint32 w = 0, h = 0;
    GetScreenSize(w, h, nthOfScreen);
    return Require2DRT(w, h, format);
}

Ptr<Texture> TextureFactory::Require2DDepth(uint32 width, uint32 height, GraphicsFormat format)
{
    return Require(Make2DDesc(width, height, format, TextureViewFlags::DEPTH_STENCIL), GraphicsResourceUsage::Default,
                   false);
}

Ptr<Texture> TextureFactory::Require2DDepth(GraphicsFormat format, uint32 nthOfScreen)
{
    uint32 w = 0, h = 0;
    GetScreenSize(w, h, nthOfScreen);
    return Require2DDepth(w, h, format);
}

Ptr<Texture> TextureFactory::Require2DStaging(uint32 width, uint32 height, GraphicsFormat format, bool findClosest)
{
    return Require(Make2DDesc(width, height, format, 0), GraphicsResourceUsage::Staging, findClosest);
}

void TextureFactory::Recycle(Texture* texture)
{
    if (texture)
        GetTexturePool(texture->GetResourceUsage()).Recycle(texture);
}

void TextureFactory::Recycle(TArray<Ptr<Texture>>& textures)
{
    for (const Ptr<Texture>& texture : textures)
        Recycle(texture.Get());
}

void TextureFactory::GetScreenSize(uint32& width, uint32& height, uint32 nthOfScreen) const
{
    Renderer* renderer = Renderer::Get().Get();
    uint32 shift = nthOfScreen > 4 ? 4 : nthOfScreen;
    width = renderer ? renderer->GetParamters().Width >> shift : 0;
    height = renderer ? renderer->GetParamters().Height >> shift : 0;
    width = width ? width : 1;
    height = height ? height : 1;
}

namespace {
std::atomic<bool (*)(const Ptr<Object>&, TextureSource&)> s_fromImage{nullptr};
std::atomic<bool (*)(const Ptr<Stream>&, TextureSource&)> s_fromStream{nullptr};
std::atomic<bool (*)(const Ptr<Stream>&, TextureSource&, Ptr<TextureStreamingLoad>&)> s_beginStream{nullptr};
std::atomic<uint32> s_streamingThreshold{4u << 20};

void LoadFailed(const WString& reason, const WString& path)
{
    Log::Format(LOG_WARNING, u"Load texture failed, %s, path = '%s'\n", reason.c_str(), path.c_str());
}
} // namespace

void TextureFactory::SetImageSource(const TextureImageSource& source)
{
    s_fromImage.store(source.FromImage);
    s_fromStream.store(source.FromStream);
    s_beginStream.store(source.BeginStream);
}

void TextureFactory::SetStreamingThreshold(uint32 bytes) { s_streamingThreshold.store(bytes); }
uint32 TextureFactory::GetStreamingThreshold() { return s_streamingThreshold.load(); }

TextureImageSource TextureFactory::GetImageSource()
{
    return TextureImageSource{s_fromImage.load(), s_fromStream.load(), s_beginStream.load()};
}

Ptr<Texture> TextureFactory::CreateFromSource(TextureSource& source, GraphicsResourceUsage usage, const WString& path,
                                              std::atomic<int32>* pending)
{
    uint32 needed = 0;
    uint64 whole = source.Desc.GetDataOffset(source.Desc.ArraySize, 0, 0, source.Desc.Format);
    needed = whole > 0xFFFFFFFFull ? 0xFFFFFFFFu : uint32(whole);
    if (!source.Data || source.Size < needed)
    {
        LoadFailed(u"image data is shorter than its description", path);
        return Ptr<Texture>();
    }
    // A texture made from an image is there to be sampled; decoders leave
    // the views to whoever makes the texture (staging textures have none).
    if (source.Desc.ViewFlags == 0 && usage != GraphicsResourceUsage::Staging)
        source.Desc.ViewFlags = TextureViewFlags::SHADER_RESOURCE;
    if (!CheckTextureDesc(source.Desc, usage))
    {
        LoadFailed(u"the device refuses its description", path);
        return Ptr<Texture>();
    }
    Ptr<Texture> texture(NewTexture());
    texture->SetDesc(source.Desc);
    texture->SetPath(path);
    texture->SetInitialData(source.Owner, source.Data, needed);
    SetCpuAccessFlags(texture.Get(), CpuAccessFor(usage));
    SetResourceUsage(texture.Get(), usage);
    M_PostObject(Ptr<GraphicsObject>(texture.Get()), pending);
    return texture;
}

Ptr<Texture> TextureFactory::Create(const Ptr<Object>& image, GraphicsResourceUsage usage, std::atomic<int32>* pending)
{
    auto fromImage = s_fromImage.load();
    TextureSource source;
    if (!fromImage || !fromImage(image, source))
    {
        LoadFailed(source.Reason.IsEmpty() ? WString(u"not an image with pixels") : source.Reason, WString());
        return Ptr<Texture>();
    }
    return CreateFromSource(source, usage, WString(), pending);
}

Ptr<Texture> TextureFactory::Create(const Ptr<Stream>& stream, std::atomic<int32>* pending)
{
    WString path = stream ? stream->GetPath() : WString();
    auto beginStream = s_beginStream.load();
    if (stream && beginStream)
    {
        TextureSource partial;
        Ptr<TextureStreamingLoad> load;
        if (beginStream(stream, partial, load) && load)
        {
            // Nothing reads the load's levels yet: the thread has not got it.
            const uint32 firstMip = load->GetFirstResidentMip();
            Ptr<Texture> texture = CreateFromSource(partial, GraphicsResourceUsage::Default, path, pending);
            if (!texture)
                return texture;
            texture->SetFirstResidentMip(firstMip);
            if (StreamingThread* thread = GetStreamingThread())
                thread->Add(load, texture, firstMip);
            return texture;
        }
    }
    auto fromStream = s_fromStream.load();
    TextureSource source;
    if (!stream || !fromStream || !fromStream(stream, source))
    {
        LoadFailed(!stream ? WString(u"no stream")
                   : !fromStream ? WString(u"no image loaders")
                   : source.Reason.IsEmpty() ? WString(u"no loader takes it")
                                             : source.Reason,
                   path);
        return Ptr<Texture>();
    }
    return CreateFromSource(source, GraphicsResourceUsage::Immutable, path, pending);
}

Ptr<Texture> TextureFactory::Create(const WString& path, std::atomic<int32>* pending)
{
    return LoadSharedResource(path, pending);
}

Ptr<Texture> TextureFactory::LoadSharedResource(const WString& path, std::atomic<int32>* pending)
{
    if (Ptr<Texture> shared = FindTexture(path))
        return shared;
    StreamManager* streams = StreamManager::Ins();
    Ptr<Stream> stream = streams ? streams->OpenStream(path) : Ptr<Stream>();
    if (!stream)
    {
        LoadFailed(u"can not open it", path);
        return Ptr<Texture>();
    }
    Ptr<Texture> texture = Create(stream, pending);
    if (!texture)
        return texture;
    texture->SetPath(path);
    // Two threads may load one path at once: the first to share it wins and
    // both get that texture.
    CriticalSection::Scope lock(m_sharedLock);
    auto [it, added] = m_shared.emplace(path, texture);
    return it->second;
}

Ptr<Texture> TextureFactory::FindTexture(const WString& path)
{
    CriticalSection::Scope lock(m_sharedLock);
    auto it = m_shared.find(path);
    return it == m_shared.end() ? Ptr<Texture>() : it->second;
}

void TextureFactory::AddSharedResource(const WString& path, const Ptr<Texture>& texture)
{
    if (!texture)
        return;
    CriticalSection::Scope lock(m_sharedLock);
    m_shared[path] = texture;
}

Ptr<Texture> TextureFactory::CreateDepthBuffer(const GraphicsParameters& parameters)
{
    return Create2DDepth(parameters.Width, parameters.Height, parameters.DepthStencilFormat);
}

StreamingThread* TextureFactory::GetStreamingThread()
{
    CriticalSection::Scope lock(m_streamingLock);
    if (!m_streaming)
    {
        auto* thread = new FinalThread<StreamingThread>();
        if (!thread->Init())
        {
            delete thread;
            Log::Print(LOG_WARNING, u"Texture Thread could not be started.\n");
            return nullptr;
        }
        thread->SetName("Texture Thread");
        m_streaming = thread;
    }
    return m_streaming;
}

void TextureFactory::StopStreaming()
{
    StreamingThread* thread = nullptr;
    {
        CriticalSection::Scope lock(m_streamingLock);
        thread = m_streaming;
        m_streaming = nullptr;
    }
    delete thread; // joins it
}

void TextureFactory::UpdateStreaming()
{
    StreamingThread* thread = nullptr;
    {
        CriticalSection::Scope lock(m_streamingLock);
        thread = m_streaming;
    }
    // The thread is deleted only on this same ticking thread (OnInit, OnExit).
    if (thread)
        thread->Update();
}

size_t TextureFactory::GetNumStreaming()
{
    CriticalSection::Scope lock(m_streamingLock);
    return m_streaming ? m_streaming->GetNumItems() : 0;
}

void TextureFactory::OnInit()
{
    StopStreaming();
    GraphicsFactory::OnInit();
}

void TextureFactory::OnTick()
{
    UpdateStreaming();
    GraphicsFactory::OnTick();
}

void TextureFactory::OnExit()
{
    StopStreaming();
    {
        std::map<WString, Ptr<Texture>> dropped;
        CriticalSection::Scope lock(m_sharedLock);
        dropped.swap(m_shared);
    }
    // Pooled textures go to the dispose list first, so that the base's
    // ProcessDisposing deletes them with the rest.
    for (TexturePool& pool : m_pools)
        pool.Cleanup();
    GraphicsFactory::OnExit();
}

} // namespace KovexEngine
