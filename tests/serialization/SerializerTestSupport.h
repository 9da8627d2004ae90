#pragma once

#include <cstring>
#include <functional>
#include <string>

#include "io/MemoryStream.h"
#include "serialization/Serializer.h"

namespace KovexTest {

using Bytes = std::string;

// Runs `write` against a fresh serializer of class `cls` over a memory
// stream and returns the bytes it produced at Close.
inline Bytes WriteWith(const KovexEngine::Class* cls, const std::function<void(KovexEngine::Serializer&)>& write)
{
    using namespace KovexEngine;
    auto* data = new DataStream();
    Ptr<Stream> stream(new MemoryStream(data, false));
    stream->SetWriteable(true);
    Serializer* serializer = Serializer::Create(cls);
    Bytes out;
    if (serializer && serializer->Open(stream, Serializer::MODE_WRITE))
    {
        write(*serializer);
        serializer->Close();
        out.assign(reinterpret_cast<const char*>(data->GetPointer()), data->GetLength());
    }
    delete serializer;
    stream = nullptr;
    delete data;
    return out;
}

// A stream that reads the given bytes.
inline KovexEngine::Ptr<KovexEngine::Stream> ReadStream(const Bytes& bytes)
{
    using namespace KovexEngine;
    auto* data = new DataStream(unsigned(bytes.size()));
    if (!bytes.empty())
        std::memcpy(data->GetPointer(), bytes.data(), bytes.size());
    return Ptr<Stream>(new MemoryStream(data, true));
}

// Opens a reader of whatever form the bytes carry; null when none can.
inline KovexEngine::Serializer* OpenReader(const Bytes& bytes)
{
    return KovexEngine::Serializer::OpenReadStream(ReadStream(bytes));
}

// The bytes of `object` saved in an "OBJ" section in the form `form`.
inline Bytes SaveIn(const KovexEngine::Class* form, const KovexEngine::ConstPtr<KovexEngine::Object>& object)
{
    using namespace KovexEngine;
    return WriteWith(form, [&](Serializer& s) {
        if (s.Enter(FourCCs::OBJ))
        {
            s.SaveObject(object, 0);
            s.Leave();
        }
    });
}

// The object graph in the "OBJ" section of `bytes`, or null.
inline KovexEngine::Ptr<KovexEngine::Object> LoadFrom(const Bytes& bytes)
{
    using namespace KovexEngine;
    Ptr<Object> out;
    Serializer* s = OpenReader(bytes);
    if (!s)
        return out;
    if (s->Enter(FourCCs::OBJ))
    {
        if (!s->LoadObject(out, nullptr, 0))
            out = nullptr;
        s->Leave();
    }
    delete s;
    return out;
}

} // namespace KovexTest
