#pragma once

// JPEG through libjpeg, decoded to 8-bit RGB. Recognised by content through
// its JFIF segment, by extension as ".jpg".

#include "images/ImageLoader.h"

namespace KovexEngine {

class KOVEX_API ImageLoaderJPG : public ImageLoader
{
    KOVEX_CLASS(ImageLoaderJPG)

public:
    int GetFileFormat() const override { return JPG; }
    static bool StaticCheckFormat(Stream* stream);
    static bool StaticCheckExtension(const AString& extension);

protected:
    bool InternalParse() override;
    bool InternalLoad() override;

private:
    bool Run(bool pixels);
};

} // namespace KovexEngine
