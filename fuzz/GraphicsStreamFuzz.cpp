// Fuzz target: a graphics stream's serial form ("GSSM" with "DATA") in
// either serializer form; the data's count is never trusted beyond the input.
#include "fuzz/SerialReaderFuzz.h"
#include "graphics/GraphicsStream.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return KovexFuzz::ReadSerialized(data, size, [size](KovexEngine::Serializer& reader) {
        KovexEngine::Ptr<KovexEngine::GraphicsStream2> target(new KovexEngine::GraphicsStream2());
        if (target->Load(&reader) && target->GetLength() > size)
            __builtin_trap(); // more data than the input could carry
    });
}
