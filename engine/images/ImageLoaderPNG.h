#pragma once

// PNG through libpng: every colour type and depth arrives as 8-bit RGBA
// (palettes with their tRNS alpha, grey, 16-bit, interlaced). A saver writes
// the plain 8-bit RGBA, RGB and grey formats.

#include "images/ImageLoader.h"

namespace KovexEngine {

class KOVEX_API ImageLoaderPNG : public ImageLoader
{
    KOVEX_CLASS(ImageLoaderPNG)

public:
    int GetFileFormat() const override { return PNG; }
    static bool StaticCheckFormat(Stream* stream);
    static bool StaticCheckExtension(const AString& extension);
    // One 2D surface of `image` as a PNG. R8G8B8A8, B8G8R8A8, R8G8B8, B8G8R8
    // and R8 are written as they are; other formats are refused with a log
    // line (convert first).
    static bool StaticSave(const Image* image, Stream* stream, uint32 arrayIndex = 0, uint32 mip = 0);

protected:
    bool InternalParse() override;
    bool InternalLoad() override;

private:
    bool Run(bool pixels);
};

} // namespace KovexEngine
