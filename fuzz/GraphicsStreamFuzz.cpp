// Fuzz target: a graphics stream's serial form ("GSSM" with "DATA") in
// either serializer form, loaded as each stream class that has no form of
// its own (plain, constant and read-write streams); the data's count is never
// trusted beyond the input.
#include "fuzz/SerialReaderFuzz.h"
#include "graphics/ConstantBuffer.h"
#include "graphics/RWBuffer.h"

namespace {
template <typename S>
void LoadAs(KovexEngine::Serializer& reader, size_t size)
{
    KovexEngine::Ptr<S> target(new S());
    if (target->Load(&reader) && target->GetLength() > size)
        __builtin_trap(); // more data than the input could carry
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace KovexEngine;
    KovexFuzz::ReadSerialized(data, size, [size](Serializer& r) { LoadAs<GraphicsStream2>(r, size); });
    KovexFuzz::ReadSerialized(data, size, [size](Serializer& r) { LoadAs<ConstantBuffer::Stream>(r, size); });
    KovexFuzz::ReadSerialized(data, size, [size](Serializer& r) { LoadAs<RWBuffer::Stream>(r, size); });
    return KovexFuzz::ReadSerialized(data, size, [size](Serializer& r) { LoadAs<RWBuffer::DynamicStream>(r, size); });
}
