#pragma once

// Truevision targa files: true colour at 16, 24 and 32 bits, 8-bit palette
// and grey, each raw or run-length encoded. Recognised by content only with
// the version 2 footer.

#include "images/ImageLoader.h"

namespace KovexEngine {

class KOVEX_API ImageLoaderTGA : public ImageLoader
{
    KOVEX_CLASS(ImageLoaderTGA)

public:
    int GetFileFormat() const override { return TGA; }
    static bool StaticCheckFormat(Stream* stream);
    static bool StaticCheckExtension(const AString& extension);

protected:
    bool InternalParse() override;
    bool InternalLoad() override;

private:
    bool ReadHeader();

    uint8 m_header[18] = {};
};

} // namespace KovexEngine
