// The body shared by the image loader fuzz targets: bytes from outside in a
// memory stream, a loader chosen by content (extension null) or by
// extension, the header parsed, the pixels loaded and what loads converted
// once, so that a forged desc reaches the converters too.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fuzz/QuietLog.h"
#include "graphics/GraphicsFormat.h"
#include "images/ImageLoader.h"
#include "io/MemoryStream.h"

namespace KovexFuzz {

// The input as a stream of its own.
inline KovexEngine::Ptr<KovexEngine::Stream> InputStream(const uint8_t* data, size_t size)
{
    using namespace KovexEngine;
    QuietLog();
    auto* bytes = new DataStream(unsigned(size));
    if (size)
        std::memcpy(bytes->GetPointer(), data, size);
    return Ptr<Stream>(new MemoryStream(bytes, true));
}

inline int RunLoader(const uint8_t* data, size_t size, const char16_t* extensionPath)
{
    using namespace KovexEngine;
    Ptr<Stream> stream = InputStream(data, size);
    Ptr<ImageLoader> loader =
        extensionPath ? ImageLoader::CreateLoader(WString(extensionPath)) : ImageLoader::CreateLoader(stream.Get());
    if (!loader)
        return 0;
    loader->SetStream(stream);
    loader->Parse();
    if (loader->Load())
        loader->GetImage()->Convert(GraphicsFormat::R8G8B8A8_UNORM, true);
    return 0;
}

// The incremental path: Begin at a level taken from the input, Continue
// until complete (bounded by the chain), End.
inline int RunStreaming(const uint8_t* data, size_t size, const char16_t* extensionPath)
{
    using namespace KovexEngine;
    Ptr<Stream> stream = InputStream(data, size);
    Ptr<ImageLoader> loader = ImageLoader::CreateLoader(WString(extensionPath));
    if (!loader || !loader->SupportStreaming())
        return 0;
    loader->SetStream(stream);
    const uint32 first = size > 128 ? data[size - 1] % 20 : 3;
    if (loader->Begin(first))
    {
        for (uint32 step = 0; step < Image::kMaxMipLevels && !loader->IsCompleted(); ++step)
            if (!loader->Continue())
                break;
    }
    loader->End();
    return 0;
}

} // namespace KovexFuzz
