// Fuzz target: an index stream's serial form ("IXSM": "SIZE", "FMT", "BUF"
// with the indices) in either serializer form; no count is trusted beyond
// the input.
#include "fuzz/SerialReaderFuzz.h"
#include "graphics/IndexBuffer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return KovexFuzz::ReadSerialized(data, size, [size](KovexEngine::Serializer& reader) {
        KovexEngine::Ptr<KovexEngine::IndexBuffer::Stream> target(new KovexEngine::IndexBuffer::Stream());
        // XML spells an index in as little as two bytes ("0,"): at most 2 x the input.
        if (target->Load(&reader) && target->GetLength() > 2 * size)
            __builtin_trap();
    });
}
