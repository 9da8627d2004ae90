#include "images/ImageConverter.h"

#include <squish.h>

#include <cstdlib>
#include <cstring>

#include "graphics/GraphicsFormat.h"
#include "images/Image.h"
#include "images/PixelFormatConverter.h"
#include "kernel/Log.h"

namespace KovexEngine {

namespace {

// The library's flag for each format it handles; 0 for the others.
int SquishFlags(uint32 format)
{
    switch (format)
    {
    case GraphicsFormat::BC1_UNORM: return squish::kDxt1;
    case GraphicsFormat::BC2_UNORM: return squish::kDxt3;
    case GraphicsFormat::BC3_UNORM: return squish::kDxt5;
    // BC4 and BC5 blocks are BC3 alpha blocks, one and two of them; the
    // library's own paths for them are not relied on.
    case GraphicsFormat::BC4_UNORM: return squish::kDxt5;
    case GraphicsFormat::BC5_UNORM: return squish::kDxt5;
    default: return 0;
    }
}

const char16_t* FormatName(uint32 format)
{
    return GraphicsFormat(GraphicsFormat::TYPE(format < GraphicsFormat::COUNT ? format : 0)).GetName();
}

uint32 AlphaBlockChannels(uint32 format)
{
    return format == GraphicsFormat::BC4_UNORM ? 1 : format == GraphicsFormat::BC5_UNORM ? 2 : 0;
}

// BC4 (red) or BC5 (red, green): each channel in turn goes through the
// alpha block of BC3.
bool EncodeAlphaBlocks(const uint8* rgba, int w, int h, uint8* blocks, uint32 channels)
{
    const size_t pixels = size_t(w) * h, blockCount = size_t((w + 3) / 4) * ((h + 3) / 4);
    uint8* work = static_cast<uint8*>(std::calloc(pixels * 4 + blockCount * 16, 1));
    if (!work)
        return false;
    uint8* bc3 = work + pixels * 4;
    for (uint32 c = 0; c < channels; ++c)
    {
        for (size_t i = 0; i < pixels; ++i)
            work[i * 4 + 3] = rgba[i * 4 + c];
        squish::CompressImage(work, w, h, bc3, squish::kDxt5);
        for (size_t b = 0; b < blockCount; ++b)
            std::memcpy(blocks + b * 8 * channels + c * 8, bc3 + b * 16, 8);
    }
    std::free(work);
    return true;
}

// Decoded channels go to red (and green); the others read 0, alpha opaque.
bool DecodeAlphaBlocks(uint8* rgba, int w, int h, const uint8* blocks, uint32 channels)
{
    const size_t pixels = size_t(w) * h, blockCount = size_t((w + 3) / 4) * ((h + 3) / 4);
    uint8* work = static_cast<uint8*>(std::calloc(pixels * 4 + blockCount * 16, 1));
    if (!work)
        return false;
    uint8* bc3 = work + pixels * 4;
    for (size_t i = 0; i < pixels; ++i)
        std::memcpy(rgba + i * 4, "\0\0\0\xFF", 4);
    for (uint32 c = 0; c < channels; ++c)
    {
        for (size_t b = 0; b < blockCount; ++b)
            std::memcpy(bc3 + b * 16, blocks + b * 8 * channels + c * 8, 8);
        squish::DecompressImage(work, w, h, bc3, squish::kDxt5);
        for (size_t i = 0; i < pixels; ++i)
            rgba[i * 4 + c] = work[i * 4 + 3];
    }
    std::free(work);
    return true;
}

// Re-encodes every handled subresource of `image` (in `from`) into a new
// buffer in `to`, one of them RGBA8 and the other a block format. Mips not
// handled are left zero in the new buffer, so that the layout stays whole.
bool Transcode(Image& image, uint32 to, bool allMips)
{
    const TextureDesc& desc = image.GetDesc();
    const uint32 from = desc.Format;
    TextureDesc target = desc;
    target.Format = to;
    uint32 size = 0;
    if (!Image::IsDescUsable(target, size) || !image.GetData())
        return false;
    uint8* out = static_cast<uint8*>(std::calloc(size, 1));
    if (!out)
        return false;
    const bool encode = SquishFlags(to) != 0;
    const int flags = encode ? SquishFlags(to) : SquishFlags(from);
    const uint32 mips = allMips ? desc.MipLevels : 1;
    for (uint32 mip = 0; mip < mips; ++mip)
    {
        const int w = int(desc.GetMipWidth(mip)), h = int(desc.GetMipHeight(mip));
        const uint32 slices = desc.GetMipDepth(mip);
        for (uint32 a = 0; a < desc.ArraySize; ++a)
            for (uint32 s = 0; s < slices; ++s)
            {
                const uint8* source = image.GetData() + desc.GetDataOffset(a, mip, s, from);
                uint8* dest = out + target.GetDataOffset(a, mip, s, to);
                const uint32 alphaBlocks = AlphaBlockChannels(encode ? to : from);
                bool ok = true;
                if (alphaBlocks)
                    ok = encode ? EncodeAlphaBlocks(source, w, h, dest, alphaBlocks)
                                : DecodeAlphaBlocks(dest, w, h, source, alphaBlocks);
                else if (encode)
                    squish::CompressImage(source, w, h, dest, flags);
                else
                    squish::DecompressImage(dest, w, h, source, flags);
                if (!ok)
                {
                    std::free(out);
                    return false;
                }
            }
    }
    image.SetData(out, size);
    target.Format = to;
    image.SetDesc(target);
    return true;
}

} // namespace

ImageConverter::~ImageConverter() = default;

bool ImageConverter_BC::IsHandled(uint32 format) { return SquishFlags(format) != 0; }

bool ImageConverter_BC::Convert(Image& image, uint32 format, bool allMips)
{
    const uint32 from = image.GetDesc().Format;
    if (from == format)
        return true;
    const bool fromBlock = Image::IsBlockCompressed(from), toBlock = Image::IsBlockCompressed(format);
    // Both sides must be formats this converter reaches: a handled block
    // format, or a plain one that converts to and from RGBA8.
    const bool fromOk = fromBlock ? IsHandled(from) : PixelFormatConverter::IsPlainFormat(from);
    const bool toOk = toBlock ? IsHandled(format) : PixelFormatConverter::IsPlainFormat(format);
    if (!fromOk || !toOk || !image.GetData())
    {
        Log::Format(LOG_WARNING, u"can't find image converter for format '%s'.\n", FormatName(format));
        return false;
    }
    if (fromBlock && !Transcode(image, GraphicsFormat::R8G8B8A8_UNORM, allMips))
        return false;
    if (toBlock)
    {
        if (!image.ConvertUncompressed(GraphicsFormat::R8G8B8A8_UNORM, allMips))
            return false;
        return Transcode(image, format, allMips);
    }
    return image.ConvertUncompressed(format, allMips);
}

bool ImageConverter_PVR::Convert(Image&, uint32, bool) { return false; }

} // namespace KovexEngine
