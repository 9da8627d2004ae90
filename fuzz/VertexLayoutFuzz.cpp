// Fuzz target: a run of serialized vertex elements ("ELEM" sections) in
// either serializer form, read until the run ends or an element is refused.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fuzz/QuietLog.h"
#include "graphics/VertexElement.h"
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
    VertexElement element;
    unsigned stride = 0;
    // Each accepted element consumes a section, so the run is bounded by the input.
    while (element.Load(*reader))
        stride += element.GetStride();
    (void)stride;
    delete reader;
    return 0;
}
