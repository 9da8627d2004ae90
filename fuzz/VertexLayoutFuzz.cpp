// Fuzz target: a run of serialized vertex elements ("ELEM" sections) in
// either serializer form, read until the run ends or an element is refused.
#include "fuzz/SerialReaderFuzz.h"
#include "graphics/VertexElement.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return KovexFuzz::ReadSerialized(data, size, [](KovexEngine::Serializer& reader) {
        KovexEngine::VertexElement element;
        // Each accepted element consumes a section, so the run is bounded by the input.
        while (element.Load(reader))
            (void)element.GetStride();
    });
}
