// Fuzz target: a vertex stream's serial form ("VXSM": counts, the "ELEM"
// sections, the vertices component by component) in either serializer
// form; no count is trusted beyond the input.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fuzz/QuietLog.h"
#include "graphics/VertexBuffer.h"
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
    Ptr<VertexBuffer::Stream> target(new VertexBuffer::Stream());
    // XML text may spell a component in fewer bytes than it takes.
    if (target->Load(reader) && target->GetLength() > 8 * size)
        __builtin_trap(); // more data than the input could carry
    delete reader;
    return 0;
}
