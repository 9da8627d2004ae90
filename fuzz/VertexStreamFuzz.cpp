// Fuzz target: a vertex stream's serial form ("VXSM": counts, the "ELEM"
// sections, the vertices component by component) in either serializer
// form; no count is trusted beyond the input.
#include "fuzz/SerialReaderFuzz.h"
#include "graphics/VertexBuffer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return KovexFuzz::ReadSerialized(data, size, [size](KovexEngine::Serializer& reader) {
        KovexEngine::Ptr<KovexEngine::VertexBuffer::Stream> target(new KovexEngine::VertexBuffer::Stream());
        // XML spells a 4-byte component in as little as two bytes ("0,"): at most 2 x the input.
        if (target->Load(&reader) && target->GetLength() > 2 * size)
            __builtin_trap();
    });
}
