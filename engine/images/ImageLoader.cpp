#include "images/ImageLoader.h"

#include <cstring>
#include <memory>
#include <vector>

#include "graphics/GraphicsFormat.h"
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
