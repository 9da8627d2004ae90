// Fuzz target: bytes loaded by the TGA loader, chosen by extension so that
// inputs without the footer reach it too; what loads is converted once.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fuzz/QuietLog.h"
#include "graphics/GraphicsFormat.h"
#include "images/ImageLoaderTGA.h"
#include "io/MemoryStream.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace KovexEngine;
    KovexFuzz::QuietLog();
    auto* bytes = new DataStream(unsigned(size));
    if (size)
        std::memcpy(bytes->GetPointer(), data, size);
    Ptr<Stream> stream(new MemoryStream(bytes, true));
    Ptr<ImageLoader> loader = ImageLoader::CreateLoader(WString(u"fuzz.tga"));
    if (!loader)
        return 0;
    loader->SetStream(stream);
    loader->Parse();
    if (loader->Load())
        loader->GetImage()->Convert(GraphicsFormat::R8G8B8A8_UNORM, true);
    return 0;
}
