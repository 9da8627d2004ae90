#pragma once

// Image-level conversion for anything that involves a compressed format.
// A converter is made for one call and dropped after it; it holds no state.

#include "kernel/Types.h"
#include "kernel/Export.h"

namespace KovexEngine {

class Image;

class KOVEX_API ImageConverter
{
public:
    virtual ~ImageConverter();
    virtual bool Convert(Image& image, uint32 format, bool allMips) = 0;
};

// BC1 to BC5, encoded and decoded by the block-compression library, and any
// of the fourteen plain formats on the other side. Other compressed formats
// fail with a log line and leave the image as it was.
class KOVEX_API ImageConverter_BC : public ImageConverter
{
public:
    bool Convert(Image& image, uint32 format, bool allMips) override;
    // Whether the format is one this converter encodes and decodes.
    static bool IsHandled(uint32 format);
};

// PVRTC targets are refused here; the place for an encoder.
class KOVEX_API ImageConverter_PVR : public ImageConverter
{
public:
    bool Convert(Image& image, uint32 format, bool allMips) override;
};

} // namespace KovexEngine
