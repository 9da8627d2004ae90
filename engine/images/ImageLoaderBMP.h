#pragma once

// Windows bitmaps: 1, 4 and 8 bits through a palette (also RLE4 and RLE8),
// 16 bits with or without masks, 24 and 32 bits.

#include "images/ImageLoader.h"

namespace KovexEngine {

class KOVEX_API ImageLoaderBMP : public ImageLoader
{
    KOVEX_CLASS(ImageLoaderBMP)

public:
    int GetFileFormat() const override { return BMP; }
    static bool StaticCheckFormat(Stream* stream);
    static bool StaticCheckExtension(const AString& extension);
    // Writes one subresource: B8G8R8A8_UNORM at 32 bits, B8G8R8_UNORM at 24,
    // the 16-bit formats with their masks; rows bottom-up, padded to 4 bytes.
    // A closed stream is opened for writing and closed again.
    static bool StaticSave(const Image* image, Stream* stream, uint32 arrayIndex, uint32 mip, uint32 slice);

    // Largest width or height a bitmap may claim.
    static constexpr uint32 kMaxSide = 32768;

protected:
    bool InternalParse() override;
    bool InternalLoad() override;

private:
    bool ReadHeader();

    uint32 m_pixelOffset = 0;
    uint32 m_bits = 0;
    uint32 m_compression = 0;
    uint32 m_imageSize = 0;
    uint32 m_infoSize = 0;
    bool m_topDown = false;
};

} // namespace KovexEngine
