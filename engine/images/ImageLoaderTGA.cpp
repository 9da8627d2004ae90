#include "images/ImageLoaderTGA.h"

#include <cstring>
#include <vector>

#include "graphics/GraphicsFormat.h"
#include "io/Stream.h"
#include "kernel/Log.h"
#include "reflection/Class.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS_EX(ImageLoaderTGA, u"Engine")
void ImageLoaderTGA::StaticConstructor(Class* cls)
{
    RegisterBases<ImageLoaderTGA, ImageLoader>(cls);
    cls->ProcessClass();
    ImageLoader::RegisterParser({cls, &ImageLoaderTGA::StaticCheckFormat, &ImageLoaderTGA::StaticCheckExtension});
}

namespace {

enum : uint32
{
    kIdLength = 0,
    kMapType = 1,
    kImageType = 2,
    kMapLength = 5,
    kMapBits = 7,
    kWidth = 12,
    kHeight = 14,
    kBits = 16,
    kDescriptor = 17,
};

uint32 U16(const uint8* p) { return uint32(p[0] | p[1] << 8); }

// Run-length packets: below 128, that many plus one literal pixels; from
// 128, the next pixel repeated (byte - 127) times. Packets that would run
// past the image or the input fail.
bool Unpack(const uint8* in, size_t size, uint8* out, size_t pixels, uint32 pixelBytes)
{
    size_t pos = 0, done = 0;
    while (done < pixels)
    {
        if (pos >= size)
            return false;
        const uint8 head = in[pos++];
        const size_t count = head < 128 ? size_t(head) + 1 : size_t(head) - 127;
        if (done + count > pixels)
            return false;
        if (head < 128)
        {
            if (pos + count * pixelBytes > size)
                return false;
            std::memcpy(out + done * pixelBytes, in + pos, count * pixelBytes);
            pos += count * pixelBytes;
        }
        else
        {
            if (pos + pixelBytes > size)
                return false;
            for (size_t i = 0; i < count; ++i)
                std::memcpy(out + (done + i) * pixelBytes, in + pos, pixelBytes);
            pos += pixelBytes;
        }
        done += count;
    }
    return true;
}

} // namespace

bool ImageLoaderTGA::StaticCheckFormat(Stream* stream)
{
    if (!stream || stream->GetSize() < 26)
        return false;
    uint8 footer[26];
    stream->Seek(-26, Stream::End);
    if (!stream->Read(footer, 26))
        return false;
    static const char kTag[] = "TRUEVISION-XFILE.";
    return std::memcmp(footer + 8, kTag, 17) == 0 || std::memcmp(footer + 9, kTag, 17) == 0;
}

bool ImageLoaderTGA::StaticCheckExtension(const AString& extension) { return extension == ".tga"; }

bool ImageLoaderTGA::ReadHeader()
{
    m_stream->SetPosition(0);
    if (!m_stream->Read(m_header, 18))
        return false;
    const uint32 type = m_header[kImageType], bits = m_header[kBits];
    const uint32 mapLength = U16(m_header + kMapLength), mapBits = m_header[kMapBits];
    TextureDesc desc;
    desc.Width = U16(m_header + kWidth);
    desc.Height = U16(m_header + kHeight);
    desc.Dimension = desc.Height == 1 ? TextureDimension::_1D : TextureDimension::_2D;
    if (desc.Width == 0 || desc.Height == 0)
        return false;
    // A 16-bit descriptor without attribute bits says the top bit is not
    // alpha; read as alpha, its usual 0 would make the whole image clear.
    const bool alphaBit = (m_header[kDescriptor] & 0x0F) != 0;
    if (type == 2 || type == 10)
        desc.Format = bits == 16 ? (alphaBit ? GraphicsFormat::B5G5R5A1_UNORM : GraphicsFormat::B5G5R5X1_UNORM)
                      : bits == 24 ? GraphicsFormat::B8G8R8_UNORM
                      : bits == 32 ? GraphicsFormat::B8G8R8A8_UNORM
                                   : 0;
    else if (type == 1 || type == 9)
    {
        if (mapLength != 256 || mapBits != 24 || bits != 8)
        {
            Log::Format(LOG_WARNING, u"Unsupported TGA format. PAL=%d, PalBits = %d, BPP = %d.\n", int(mapLength),
                        int(mapBits), int(bits));
            return false;
        }
        desc.Format = GraphicsFormat::B8G8R8_UNORM;
    }
    else if ((type == 3 || type == 11) && mapLength == 0 && bits == 8)
        desc.Format = GraphicsFormat::R8_UNORM;
    if (desc.Format == 0)
        return false;
    m_image->SetDesc(desc);
    return true;
}

bool ImageLoaderTGA::InternalParse() { return ReadHeader(); }

bool ImageLoaderTGA::InternalLoad()
{
    if (!ReadHeader())
        return false;
    const TextureDesc& desc = m_image->GetDesc();
    const uint32 type = m_header[kImageType];
    const uint32 pixelBytes = m_header[kBits] / 8;
    const int64 size = m_stream->GetSize();
    int64 pos = 18 + int64(m_header[kIdLength]);
    std::vector<uint32> palette;
    if (m_header[kMapType] != 0 || U16(m_header + kMapLength) != 0)
    {
        const int64 mapBytes = int64(U16(m_header + kMapLength)) * m_header[kMapBits] / 8;
        if (pos + mapBytes > size)
            return false;
        std::vector<uint8> map(static_cast<size_t>(mapBytes));
        m_stream->SetPosition(pos);
        if (mapBytes && !m_stream->Read(map.data(), int(mapBytes)))
            return false;
        pos += mapBytes;
        if (type == 1 || type == 9) // 24-bit entries widened, opaque
            for (size_t i = 0; i + 2 < map.size(); i += 3)
                palette.push_back(uint32(map[i]) | uint32(map[i + 1]) << 8 | uint32(map[i + 2]) << 16 | 0xFF000000u);
    }
    const size_t pixels = size_t(desc.Width) * desc.Height;
    // Packed pixels end where the footer begins.
    const int64 end = StaticCheckFormat(m_stream.Get()) ? size - 26 : size;
    const int64 available = end - pos;
    const bool packed = type >= 9;
    // What the bytes can justify: every raw pixel present; a run packet of
    // 1 + pixelBytes bytes gives at most 128 pixels.
    if (available <= 0 || (packed ? uint64(pixels) > uint64(available) / (1 + pixelBytes) * 128 + 128
                                   : uint64(pixels) * pixelBytes > uint64(available)))
        return false;
    std::vector<uint8> raw(size_t(packed ? available : int64(pixels * pixelBytes)));
    m_stream->SetPosition(pos);
    if (raw.size() > 0x7FFFFFFFu || !m_stream->Read(raw.data(), int(raw.size())))
        return false;
    std::vector<uint8> unpacked;
    const uint8* source = raw.data();
    if (packed)
    {
        unpacked.resize(pixels * pixelBytes);
        if (!Unpack(raw.data(), raw.size(), unpacked.data(), pixels, pixelBytes))
            return false;
        source = unpacked.data();
    }
    if (!m_image->CreateData())
        return false;
    // Bit 5 of the descriptor: rows stored top first; otherwise bottom first.
    const bool flip = (m_header[kDescriptor] & 0x20) == 0;
    const uint32 rowBytes = desc.Width * pixelBytes;
    if (type == 1 || type == 9)
        return PalToX(m_image->GetData(), desc, source, 8, palette.data(), uint32(palette.size()), desc.Width, false,
                      flip);
    if (flip)
        return Flip(m_image->GetData(), source, rowBytes, desc.Height);
    std::memcpy(m_image->GetData(), source, size_t(rowBytes) * desc.Height);
    return true;
}

} // namespace KovexEngine
