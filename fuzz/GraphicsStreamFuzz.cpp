// Fuzz target: a graphics stream's serial form ("GSSM" with "DATA") in
// either serializer form; the data's count is never trusted beyond the input.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fuzz/QuietLog.h"
#include "graphics/GraphicsStream.h"
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
    Ptr<GraphicsStream2> target(new GraphicsStream2());
    if (target->Load(reader) && target->GetLength() > size)
        __builtin_trap(); // more data than the input could carry
    delete reader;
    return 0;
}
