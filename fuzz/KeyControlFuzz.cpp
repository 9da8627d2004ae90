// Fuzz target: a key control's "KCTL" chunk in either serializer form, read
// by the control of each value type. What loads is sampled across and
// beyond its keys (a NaN out of a loaded control is a fault) and saved again.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "animation/KeyControl.h"
#include "fuzz/SerialReaderFuzz.h"
#include "io/MemoryStream.h"
#include "serialization/BinSerializer.h"

namespace {

using namespace KovexEngine;

template <class C>
void Exercise(C& control)
{
    typename C::ValueType out{};
    const float end = control.CalcDuration();
    const float times[] = {-1.0f, 0.0f, end * 0.25f, end * 0.5f, end, end + 1.0f, std::nanf("")};
    unsigned index = 0;
    for (float t : times)
    {
        if (!control.Sample(out, t))
            continue;
        const float* f = reinterpret_cast<const float*>(&out);
        for (unsigned i = 0; i < sizeof(out) / sizeof(float); ++i)
            if (!std::isfinite(f[i]))
                std::abort();
        index = control.GetKeyIndex(t, index == KeyControl::kNoKey ? 0 : index);
    }
    auto* bytes = new DataStream();
    Ptr<Stream> stream(new MemoryStream(bytes, true));
    stream->SetWriteable(true);
    BinSerializer writer;
    if (writer.Open(stream, Serializer::MODE_WRITE) && writer.Enter(FourCCs::OBJ))
    {
        control.Save(&writer);
        writer.Leave();
        writer.Close();
    }
}

template <class C>
void LoadInto(const uint8_t* data, size_t size)
{
    KovexFuzz::ReadSerialized(data, size, [](Serializer& reader) {
        Ptr<C> control(new C());
        if (reader.Enter(FourCCs::OBJ) && control->Load(&reader))
            Exercise(*control);
    });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    LoadInto<FloatKeyControl>(data, size);
    LoadInto<Vector2KeyControl>(data, size);
    LoadInto<Vector3KeyControl>(data, size);
    LoadInto<Vector4KeyControl>(data, size);
    LoadInto<QuatKeyControl>(data, size);
    return 0;
}
