#include "images/ImageLoader.h"

#include <cstring>
#include <memory>
#include <vector>

#include "graphics/GraphicsFormat.h"
#include "graphics/Renderer.h"
#include "images/PixelFormatConverter.h"
#include "io/Stream.h"
#include "kernel/Log.h"
#include "kernel/StringConv.h"
#include "reflection/Class.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(ImageLoader, u"Engine", Object)

TArray<ImageLoader::Parser>* ImageLoader::ms_pParsers = nullptr;

ImageLoader::ImageLoader() : m_image(new Image()) {}

ImageLoader::~ImageLoader() = default;

bool ImageLoader::RegisterParser(const Parser& parser)
{
    if (!parser.cls || !parser.StaticCheckFormat || !parser.StaticCheckExtension)
        return false;
    if (!ms_pParsers)
        ms_pParsers = new TArray<Parser>();
    ms_pParsers->Add(parser);
    return true;
}

void ImageLoader::Destroy()
{
    delete ms_pParsers;
    ms_pParsers = nullptr;
}

namespace {

Ptr<ImageLoader> Instantiate(const Class* cls)
{
    Ptr<Object> object = Object::CreateObject(cls);
    auto* loader = object ? static_cast<ImageLoader*>(object->GetClassPointer(ImageLoader::StaticGetClass())) : nullptr;
    return Ptr<ImageLoader>(loader);
}

} // namespace

Ptr<ImageLoader> ImageLoader::CreateLoader(Stream* stream)
{
    if (!stream || !ms_pParsers || ms_pParsers->Count() == 0)
        return nullptr;
    const bool opened = !stream->IsOpenned();
    if (opened && !stream->Open())
        return nullptr;
    const int64 position = stream->GetPosition();
    const Class* chosen = nullptr;
    for (unsigned i = 0; i < ms_pParsers->Count(); ++i)
    {
        stream->SetPosition(position);
        if ((*ms_pParsers)[i].StaticCheckFormat(stream))
            chosen = (*ms_pParsers)[i].cls;
    }
    stream->SetPosition(position);
    if (opened)
        stream->Close();
    return chosen ? Instantiate(chosen) : nullptr;
}

Ptr<ImageLoader> ImageLoader::CreateLoader(const WString& path)
{
    if (!ms_pParsers)
        return nullptr;
    AString extension = StringConvFuncs::ToAString(path.GetFileExt()());
    extension.ToLower();
    for (unsigned i = 0; i < ms_pParsers->Count(); ++i)
        if ((*ms_pParsers)[i].StaticCheckExtension(extension))
            return Instantiate((*ms_pParsers)[i].cls);
    return nullptr;
}

void ImageLoader::SetStream(const Ptr<Stream>& stream)
{
    if (stream.Get() == m_stream.Get())
        return;
    m_image->DeleteData();
    m_stream = stream;
}

bool ImageLoader::Parse()
{
    if (!m_stream)
        return false;
    const bool opened = !m_stream->IsOpenned();
    if (opened && !m_stream->Open())
        return false;
    const int64 position = m_stream->GetPosition();
    const bool ok = InternalParse();
    if (position <= m_stream->GetSize())
        m_stream->SetPosition(position);
    if (opened)
        m_stream->Close();
    return ok;
}

bool ImageLoader::Load()
{
    if (!m_stream)
        return false;
    const bool opened = !m_stream->IsOpenned();
    if (opened && !m_stream->Open())
        return false;
    m_image->DeleteData();
    const bool ok = InternalLoad();
    if (!ok)
        m_image->DeleteData();
    if (opened)
        m_stream->Close();
    return ok;
}

bool ImageLoader::PalToX(uint8* target, const TextureDesc& desc, const uint8* source, uint32 bitsPerIndex,
                         const uint32* palette, uint32 paletteCount, size_t sourceStride, bool forceOpaque, bool flip)
{
    std::unique_ptr<PixelFormatConverter> converter(PixelFormatConverter::Create(int(desc.Format)));
    if (!converter)
    {
        Log::Format(LOG_WARNING, u"Can't create [%s] format converter",
                    GraphicsFormat(GraphicsFormat::TYPE(desc.Format < GraphicsFormat::COUNT ? desc.Format : 0)).GetName());
        return false;
    }
    if (!target || !source || !palette || (bitsPerIndex != 1 && bitsPerIndex != 4 && bitsPerIndex != 8))
        return true;
    const uint32 stride = converter->GetStride();
    const uint32 mask = (1u << bitsPerIndex) - 1;
    for (uint32 y = 0; y < desc.Height; ++y)
    {
        const uint8* row = source + sourceStride * y;
        uint8* out = target + size_t(flip ? desc.Height - 1 - y : y) * desc.Width * stride;
        for (uint32 x = 0; x < desc.Width; ++x)
        {
            const size_t bit = size_t(x) * bitsPerIndex;
            const uint32 index = (row[bit / 8] >> (8 - bitsPerIndex - bit % 8)) & mask; // high bits first
            const uint32 entry = index < paletteCount ? palette[index] : 0xFF000000u;
            uint32 word = (entry & 0xFF00FF00u) | (entry >> 16 & 0xFFu) | (entry & 0xFFu) << 16;
            if (forceOpaque)
                word |= 0xFF000000u;
            converter->FromInt(out + size_t(x) * stride, word);
        }
    }
    return true;
}

bool ImageLoader::Pal1toX(uint8*, const TextureDesc&, const uint8*, uint32, bool) { return false; }

bool ImageLoader::XtoX(uint8* target, const uint8* source, uint32 sourceFormat, uint32 targetFormat,
                       uint32 sourcePitch, uint32 width, uint32 height, bool flip)
{
    if (!target || !source)
        return false;
    std::unique_ptr<ImageFormatConverter> converter(ImageFormatConverter::Create(int(targetFormat), int(sourceFormat)));
    if (!converter)
    {
        auto name = [](uint32 f) { return GraphicsFormat(GraphicsFormat::TYPE(f < GraphicsFormat::COUNT ? f : 0)).GetName(); };
        Log::Format(LOG_WARNING, u"ImageFormatConverter not suppoert converter format %s to %s.\n", name(sourceFormat),
                    name(targetFormat));
        return false;
    }
    std::unique_ptr<PixelFormatConverter> pixel(PixelFormatConverter::Create(int(targetFormat)));
    const uint32 targetPitch = pixel->GetStride() * width;
    if (flip)
        converter->ExecuteFlip(target, source, targetPitch, sourcePitch, width, height);
    else
        converter->Execute(target, source, targetPitch, sourcePitch, width, height);
    return true;
}

bool ImageLoader::XtoX(uint8* target, const TextureDesc& desc, const uint8* source, uint32 sourcePitch,
                       uint32 sourceFormat, bool flip)
{
    return XtoX(target, source, sourceFormat, desc.Format, sourcePitch, desc.Width, desc.Height, flip);
}

void ImageLoader::B10G10R10A2toR10G10B10A2(uint32* target, const uint32* source, uint32 count)
{
    if (!target || !source)
        return;
    for (uint32 i = 0; i < count; ++i)
    {
        const uint32 w = source[i];
        target[i] = (w & 0xC00FFC00u) | (w & 0x3FFu) << 20 | (w >> 20 & 0x3FFu);
    }
}

uint32 ImageLoader::ParseBitFieldFormat16(uint32 masks[4])
{
    if (masks[1] == 240 && masks[0] == 3840)
    {
        if (masks[3] == 0)
            return BIT_FIELD_X4R4G4B4;
        if (masks[3] == 61440)
            return BIT_FIELD_A4R4G4B4;
    }
    masks[2] = 31;
    if (masks[1] == 2016 && masks[0] == 63488 && masks[3] == 0)
        return BIT_FIELD_R5G6B5;
    if (masks[1] == 992 && masks[0] == 31744)
    {
        if (masks[3] == 32768)
            return BIT_FIELD_A1R5G5B5;
        if (masks[3] == 0)
            return BIT_FIELD_X1R5G5B5;
    }
    return BIT_FIELD_UNKNOWN;
}

bool ImageLoader::SupportFormat(uint32 format)
{
    Renderer* renderer = g_ptrRenderer.Get();
    if (!renderer || format == 0 || format >= GraphicsFormat::COUNT)
        return false;
    return renderer->CheckTextureFormat(GraphicsFormat(GraphicsFormat::TYPE(format)), TextureDimension::_2D,
                                        unsigned(GraphicsView::ShaderResource), GraphicsResourceUsage::Default, 0);
}

bool ImageLoader::SupportR8() { return SupportFormat(GraphicsFormat::R8_UNORM); }
bool ImageLoader::SupportB5G5R5A1() { return SupportFormat(GraphicsFormat::B5G5R5A1_UNORM); }
bool ImageLoader::SupportB5G6R5() { return SupportFormat(GraphicsFormat::B5G6R5_UNORM); }
bool ImageLoader::SupportB8G8R8() { return SupportFormat(GraphicsFormat::B8G8R8_UNORM); }
bool ImageLoader::SupportB8G8R8X8() { return SupportFormat(GraphicsFormat::B8G8R8X8_UNORM); }
bool ImageLoader::SupportB8G8R8A8() { return SupportFormat(GraphicsFormat::B8G8R8A8_UNORM); }
bool ImageLoader::SupportR8G8B8A8() { return SupportFormat(GraphicsFormat::R8G8B8A8_UNORM); }

uint32 ImageLoader::AutoGet24BitFormat()
{
    if (SupportB8G8R8())
        return GraphicsFormat::B8G8R8_UNORM;
    if (SupportB8G8R8X8())
        return GraphicsFormat::B8G8R8X8_UNORM;
    if (SupportB8G8R8A8())
        return GraphicsFormat::B8G8R8A8_UNORM;
    return GraphicsFormat::R8G8B8A8_UNORM;
}

uint32 ImageLoader::AutoGet32BitFormat(bool hasAlpha)
{
    if (!hasAlpha && SupportB8G8R8X8())
        return GraphicsFormat::B8G8R8X8_UNORM;
    if (SupportB8G8R8A8())
        return GraphicsFormat::B8G8R8A8_UNORM;
    return GraphicsFormat::R8G8B8A8_UNORM;
}

uint32 ImageLoader::AutoGet16BitFormat(uint32 bitField)
{
    switch (bitField)
    {
    case BIT_FIELD_R5G6B5:
    case BIT_FIELD_X1R5G5B5:
        return SupportB5G6R5() ? uint32(GraphicsFormat::B5G6R5_UNORM) : AutoGet32BitFormat(false);
    case BIT_FIELD_A1R5G5B5:
        return SupportB5G5R5A1() ? uint32(GraphicsFormat::B5G5R5A1_UNORM) : AutoGet32BitFormat(false);
    case BIT_FIELD_X4R4G4B4:
        return SupportB8G8R8X8() ? uint32(GraphicsFormat::B8G8R8X8_UNORM) : AutoGet32BitFormat(true);
    case BIT_FIELD_A4R4G4B4:
        return AutoGet32BitFormat(true);
    default:
        return GraphicsFormat::UNKNOWN;
    }
}

bool ImageLoader::GetMappedSubresource(MappedSubresource& mapped, uint32 arrayIndex, uint32 mip) const
{
    return m_image->GetMappedSubresource(mapped, arrayIndex, mip);
}

bool ImageLoader::UploadData(Texture* texture, uint32 firstMip, uint32 count) const
{
    return m_image->UploadData(texture, firstMip, count);
}

bool ImageLoader::Flip(uint8* target, const uint8* source, uint32 rowBytes, uint32 rows)
{
    if (!target || !source || !rowBytes || !rows)
        return false;
    std::vector<uint8> temporary(rowBytes);
    for (uint32 y = 0; y < rows; ++y)
    {
        std::memcpy(temporary.data(), source + size_t(y) * rowBytes, rowBytes);
        std::memcpy(target + size_t(rows - 1 - y) * rowBytes, temporary.data(), rowBytes);
    }
    return true;
}

} // namespace KovexEngine
