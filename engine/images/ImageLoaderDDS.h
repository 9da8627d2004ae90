#pragma once

// DirectDraw surfaces: plain, masked and block-compressed pixel formats, mip
// chains, cube maps and volumes. The file holds its levels exactly as an
// Image's buffer does, after a 128-byte header.

#include "images/ImageLoader.h"

namespace KovexEngine {

struct DDS_PIXELFORMAT
{
    uint32 dwSize;
    uint32 dwFlags;
    uint32 dwFourCC;
    uint32 dwRGBBitCount;
    uint32 dwRBitMask;
    uint32 dwGBitMask;
    uint32 dwBBitMask;
    uint32 dwABitMask;
};

struct DDS_HEADER
{
    uint32 dwSize;
    uint32 dwFlags;
    uint32 dwHeight;
    uint32 dwWidth;
    uint32 dwPitchOrLinearSize;
    uint32 dwDepth;
    uint32 dwMipMapCount;
    uint32 dwReserved1[11];
    DDS_PIXELFORMAT ddspf;
    uint32 dwCaps;
    uint32 dwCaps2;
    uint32 dwCaps3;
    uint32 dwCaps4;
    uint32 dwReserved2;
};
static_assert(sizeof(DDS_HEADER) == 124);

class KOVEX_API ImageLoaderDDS : public ImageLoader
{
    KOVEX_CLASS(ImageLoaderDDS)

public:
    int GetFileFormat() const override { return DDS; }
    // A file that holds its whole chain streams from its smallest level up.
    bool SupportStreaming() const override { return true; }
    // Header, buffer, then the levels from `mip` (clamped to the last) down
    // to the smallest; false, with no buffer, when the file does not hold
    // the levels the image has (a chain the loader would generate).
    bool Begin(uint32 mip) override;
    // The next larger level; true at once when complete.
    bool Continue() override;
    // Closes a stream that Begin opened.
    void End() override;
    static bool StaticCheckFormat(Stream* stream);
    static bool StaticCheckExtension(const AString& extension);
    // The engine format of a DDS pixel format; 0 when there is none.
    static uint32 GetTargetFormat(const DDS_PIXELFORMAT& pixelFormat);
    // The inverse, for saving; false for a format without a row.
    static bool SetTargetFormat(DDS_PIXELFORMAT& pixelFormat, uint32 format);
    // Bit 0 of `flags`: level 0 of each array slice only. The flags are kept
    // in the header's last reserved word. A closed stream is opened for
    // writing and closed again.
    static bool StaticSave(const Image* image, Stream* stream, uint32 flags);

protected:
    bool InternalParse() override;
    bool InternalLoad() override;

private:
    bool ReadHeader();
    // Checks that the file holds every byte to be read, then sizes the buffer.
    bool PrepareData(bool& allLevels);
    // One level of every array slice, straight into the buffer.
    bool LoadMipData(uint32 mip);

    DDS_HEADER m_header = {};
    uint32 m_fileMips = 1;
    uint32 m_reduced = 0; // levels the mip reduction took off this header's chain
    bool m_streamOpened = false;
};

} // namespace KovexEngine
