// Fuzz target: an "IMG" section in either serializer form, loaded into an
// Image; what loads is then converted, compressed and given mips, so that a
// forged desc reaches every layer that trusts it.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fuzz/QuietLog.h"
#include "graphics/GraphicsFormat.h"
#include "images/Image.h"
#include "io/MemoryStream.h"
#include "serialization/Serializer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace KovexEngine;
    KovexFuzz::QuietLog();
    auto* bytes = new DataStream(unsigned(size));
    if (size)
        std::memcpy(bytes->GetPointer(), data, size);
    Ptr<Stream> stream(new MemoryStream(bytes, true));
    Serializer* reader = Serializer::OpenReadStream(stream);
    if (!reader)
        return 0;
    Ptr<Image> image(new Image());
    if (image->Load(reader) && image->GetData())
    {
        // Bounded by the input: the buffer is no larger than the file.
        image->GenerateMipmaps(false);
        image->Convert(GraphicsFormat::BC1_UNORM, true);
        image->Convert(GraphicsFormat::R8G8B8A8_UNORM, true);
        image->Convert(GraphicsFormat::GRAY_SCALE_UNORM, false);
    }
    delete reader;
    return 0;
}
