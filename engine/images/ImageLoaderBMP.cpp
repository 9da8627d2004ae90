#include "images/ImageLoaderBMP.h"

#include <cstdlib>
#include <cstring>
#include <vector>

#include "graphics/GraphicsFormat.h"
#include "io/Stream.h"
#include "kernel/Log.h"
#include "reflection/Class.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS_EX(ImageLoaderBMP, u"Engine")
void ImageLoaderBMP::StaticConstructor(Class* cls)
{
    RegisterBases<ImageLoaderBMP, ImageLoader>(cls);
    cls->ProcessClass();
    ImageLoader::RegisterParser({cls, &ImageLoaderBMP::StaticCheckFormat, &ImageLoaderBMP::StaticCheckExtension});
}

namespace {

constexpr uint32 kHeaderSize = 54;
constexpr uint16 kSignature = 19778; // "BM"

uint16 U16(const uint8* p) { return uint16(p[0] | p[1] << 8); }
uint32 U32(const uint8* p) { return uint32(p[0]) | uint32(p[1]) << 8 | uint32(p[2]) << 16 | uint32(p[3]) << 24; }

// Decodes RLE8 (two indices a byte when `nibbles`, RLE4) into one index per
// byte, rows bottom-up as stored. Runs past a row or the image are cut off.
bool DecodeRle(const uint8* in, size_t size, std::vector<uint8>& indices, uint32 width, uint32 height, bool nibbles)
{
    size_t pos = 0;
    uint32 x = 0, y = 0;
    auto put = [&](uint8 value) {
        if (x < width && y < height)
            indices[size_t(y) * width + x] = value;
        ++x;
    };
    while (pos + 1 < size && y < height)
    {
        const uint8 count = in[pos], value = in[pos + 1];
        pos += 2;
        if (count)
        {
            for (uint32 i = 0; i < count && x < width; ++i)
                put(nibbles ? uint8(i & 1 ? value & 0xF : value >> 4) : value);
            continue;
        }
        if (value == 0) // end of line
        {
            x = 0;
            ++y;
        }
        else if (value == 1) // end of bitmap
            return true;
        else if (value == 2) // delta
        {
            if (pos + 1 >= size)
                return false;
            x += in[pos];
            y += in[pos + 1];
            pos += 2;
        }
        else // literal run, padded to 16 bits
        {
            const size_t bytes = nibbles ? (size_t(value) + 1) / 2 : value;
            if (pos + bytes > size)
                return false;
            for (uint32 i = 0; i < value; ++i)
                put(nibbles ? uint8(i & 1 ? in[pos + i / 2] & 0xF : in[pos + i / 2] >> 4) : in[pos + i]);
            pos += (bytes + 1) & ~size_t(1);
        }
    }
    return true; // a stream that stops early leaves the rest as index 0
}

uint32 MaskedFormat(const uint8* masks, uint32 bits)
{
    const uint32 r = U32(masks), g = U32(masks + 4), b = U32(masks + 8), a = U32(masks + 12);
    if (bits == 32) // as tools with the larger info headers write 32-bit files
        return r == 0xFF0000 && g == 0xFF00 && b == 0xFF
                   ? (a == 0xFF000000u ? GraphicsFormat::B8G8R8A8_UNORM : a == 0 ? GraphicsFormat::B8G8R8X8_UNORM : 0)
                   : 0;
    if (r == 3840 && g == 240 && b == 15)
        return a == 0 ? GraphicsFormat::B4G4R4X4_UNORM : a == 61440 ? GraphicsFormat::B4G4R4A4_UNORM : 0;
    if (r == 63488 && g == 2016 && a == 0)
        return GraphicsFormat::B5G6R5_UNORM;
    if (r == 31744 && g == 992)
        return a == 0 ? GraphicsFormat::B5G5R5X1_UNORM : a == 32768 ? GraphicsFormat::B5G5R5A1_UNORM : 0;
    return 0;
}

} // namespace

bool ImageLoaderBMP::StaticCheckFormat(Stream* stream)
{
    uint8 signature[2];
    return stream && stream->Read(signature, 2) && U16(signature) == kSignature;
}

bool ImageLoaderBMP::StaticCheckExtension(const AString& extension) { return extension == ".bmp"; }

bool ImageLoaderBMP::ReadHeader()
{
    uint8 h[kHeaderSize];
    if (!m_stream->Read(h, int(kHeaderSize)) || U16(h) != kSignature)
        return false;
    m_pixelOffset = U32(h + 10);
    m_infoSize = U32(h + 14);
    const int32 width = int32(U32(h + 18));
    int32 height = int32(U32(h + 22));
    m_bits = U16(h + 28);
    m_compression = U32(h + 30);
    m_imageSize = U32(h + 34);
    m_topDown = height < 0;
    if (m_topDown)
        height = height == INT32_MIN ? 0 : -height;
    if (width <= 0 || height <= 0 || uint32(width) > kMaxSide || uint32(height) > kMaxSide || m_infoSize < 40 ||
        m_pixelOffset < kHeaderSize || uint64(m_pixelOffset) > uint64(m_stream->GetSize()))
        return false;

    TextureDesc desc;
    desc.Width = uint32(width);
    desc.Height = uint32(height);
    desc.Dimension = height == 1 ? TextureDimension::_1D : TextureDimension::_2D;
    if (m_compression == 3)
    {
        // Three masks after a 40-byte info header, four when it is larger or
        // the gap holds them; those of the larger headers sit at the same place.
        uint8 masks[16] = {};
        const uint32 gap = m_pixelOffset - kHeaderSize;
        const uint32 maskBytes = m_infoSize >= 56 || gap >= 16 ? 16 : 12;
        if ((m_bits != 16 && m_bits != 32) || (gap < maskBytes && m_infoSize < 40 + maskBytes) ||
            !m_stream->Read(masks, int(maskBytes)))
            return false;
        desc.Format = MaskedFormat(masks, m_bits);
    }
    else if (m_compression > 2 || (m_compression == 1 && m_bits != 8) || (m_compression == 2 && m_bits != 4))
        return false;
    else if (m_bits == 1 || m_bits == 4 || m_bits == 8)
        desc.Format = GraphicsFormat::B5G6R5_UNORM; // palette images are kept at 16 bits
    else if (m_bits == 16) // 5-5-5 with the top bit unused: as alpha, its usual 0 would hide the image
        desc.Format = GraphicsFormat::B5G5R5X1_UNORM;
    else if (m_bits == 24)
        desc.Format = GraphicsFormat::B8G8R8_UNORM;
    else if (m_bits == 32)
        desc.Format = GraphicsFormat::B8G8R8A8_UNORM;
    if (desc.Format == 0)
        return false;
    m_image->SetDesc(desc);
    return true;
}

bool ImageLoaderBMP::InternalParse() { return ReadHeader(); }

bool ImageLoaderBMP::InternalLoad()
{
    if (!ReadHeader())
    {
        Log::Print(LOG_WARNING, u"Load bitmap failed.\n");
        return false;
    }
    const TextureDesc& desc = m_image->GetDesc();
    const int64 streamSize = m_stream->GetSize();
    // The palette lies between the info header and the pixels.
    std::vector<uint32> palette;
    if (m_bits <= 8 && m_compression != 3)
    {
        const int64 start = int64(14) + m_infoSize;
        const int64 entries = start < int64(m_pixelOffset) ? (int64(m_pixelOffset) - start) / 4 : 0;
        palette.resize(size_t(entries < (1 << m_bits) ? entries : (1 << m_bits)));
        m_stream->SetPosition(start);
        if (!palette.empty() && !m_stream->Read(palette.data(), int(palette.size() * 4)))
            palette.clear();
        for (uint32& entry : palette)
            entry = U32(reinterpret_cast<const uint8*>(&entry));
    }
    uint64 available = uint64(streamSize) - m_pixelOffset;
    if (m_imageSize != 0 && m_imageSize < available)
        available = m_imageSize;
    const uint64 rowStride = (uint64(desc.Width) * m_bits + 31) / 32 * 4;
    const bool rle = m_compression == 1 || m_compression == 2;
    // What the bytes can justify: raw rows must all be there; RLE expands at
    // most a few hundredfold.
    if (rle ? uint64(desc.Width) * desc.Height > available * 128 + 65536 : rowStride * desc.Height > available)
    {
        Log::Print(LOG_WARNING, u"Load bitmap failed.\n");
        return false;
    }
    if ((rle ? available : rowStride * desc.Height) > 0x7FFFFFFFull)
    {
        Log::Print(LOG_WARNING, u"Load bitmap failed.\n");
        return false;
    }
    std::vector<uint8> bytes(size_t(rle ? available : rowStride * desc.Height));
    m_stream->SetPosition(m_pixelOffset);
    if (!m_image->CreateData() || !m_stream->Read(bytes.data(), int(bytes.size())))
    {
        Log::Print(LOG_WARNING, u"Load bitmap failed.\n");
        return false;
    }
    const bool flip = !m_topDown;
    uint8* target = m_image->GetData();
    if (rle)
    {
        std::vector<uint8> indices(size_t(desc.Width) * desc.Height, 0);
        if (!DecodeRle(bytes.data(), bytes.size(), indices, desc.Width, desc.Height, m_compression == 2))
        {
            Log::Print(LOG_WARNING, u"Load bitmap failed.\n");
            return false;
        }
        return PalToX(target, desc, indices.data(), 8, palette.data(), uint32(palette.size()), desc.Width, true, flip);
    }
    if (m_bits <= 8)
        return PalToX(target, desc, bytes.data(), m_bits, palette.data(), uint32(palette.size()), size_t(rowStride),
                      true, flip) || (Log::Print(LOG_WARNING, u"Load bitmap failed.\n"), false);
    // Direct colour: rows as stored, without their padding, top row first.
    const size_t rowBytes = size_t(desc.Width) * (m_bits / 8);
    for (uint32 y = 0; y < desc.Height; ++y)
        std::memcpy(target + rowBytes * (flip ? desc.Height - 1 - y : y), bytes.data() + size_t(rowStride) * y, rowBytes);
    return true;
}

bool ImageLoaderBMP::StaticSave(const Image* image, Stream* stream, uint32 arrayIndex, uint32 mip, uint32 slice)
{
    if (!image || !stream)
        return false;
    const TextureDesc& desc = image->GetDesc();
    const uint8* pixels = image->GetData(arrayIndex, mip, slice);
    if (!pixels || slice >= desc.GetMipDepth(mip))
        return false;
    // The masks each 16-bit format is written with, as the engine always has.
    struct Masks
    {
        uint32 format, r, g, b, a;
    };
    static const Masks kMasks[] = {
        {GraphicsFormat::B5G6R5_UNORM, 31744, 2016, 31, 0},
        {GraphicsFormat::B5G5R5A1_UNORM, 63488, 992, 31, 32768},
        {GraphicsFormat::B5G5R5X1_UNORM, 63488, 992, 31, 0},
        {GraphicsFormat::B4G4R4A4_UNORM, 3840, 240, 15, 61440},
        {GraphicsFormat::B4G4R4X4_UNORM, 3840, 240, 15, 0},
    };
    const Masks* masks = nullptr;
    uint32 bits = 0;
    if (desc.Format == GraphicsFormat::B8G8R8A8_UNORM)
        bits = 32;
    else if (desc.Format == GraphicsFormat::B8G8R8_UNORM)
        bits = 24;
    else
        for (const Masks& m : kMasks)
            if (m.format == desc.Format)
            {
                masks = &m;
                bits = 16;
            }
    if (bits == 0)
        return false;
    const uint32 width = desc.GetMipWidth(mip), height = desc.GetMipHeight(mip);
    const uint32 rowBytes = width * (bits / 8), stride = (rowBytes + 3) & ~3u;
    const uint32 offset = masks ? 70 : 54;
    const uint64 fileSize = uint64(offset) + uint64(stride) * height;
    if (fileSize > 0x7FFFFFFFu)
        return false;
    std::vector<uint8> file(size_t(fileSize), 0);
    auto put16 = [&](size_t at, uint32 v) { file[at] = uint8(v); file[at + 1] = uint8(v >> 8); };
    auto put32 = [&](size_t at, uint32 v) { put16(at, v); put16(at + 2, v >> 16); };
    file[0] = 'B';
    file[1] = 'M';
    put32(2, uint32(fileSize));
    put32(10, offset);
    put32(14, 40);
    put32(18, width);
    put32(22, height);
    put16(26, 1);
    put16(28, bits);
    put32(30, masks ? 3 : 0);
    put32(34, stride * height);
    if (masks)
    {
        put32(54, masks->r);
        put32(58, masks->g);
        put32(62, masks->b);
        put32(66, masks->a);
    }
    for (uint32 y = 0; y < height; ++y)
        std::memcpy(file.data() + offset + size_t(stride) * (height - 1 - y), pixels + size_t(rowBytes) * y, rowBytes);
    const bool opened = !stream->IsOpenned();
    if (opened)
    {
        stream->SetWriteable(true);
        if (!stream->Open())
            return false;
    }
    const bool ok = stream->Write(file.data(), int(file.size()));
    if (opened)
        stream->Close();
    return ok;
}

} // namespace KovexEngine
