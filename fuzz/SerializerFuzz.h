// The body shared by the serializer fuzz targets: bytes from outside opened
// by the serializer their header names, the section tree walked, values of
// every kind asked for, and any object graph in an "OBJ" section loaded.
// Reading may fail anywhere, but never crash, hang or ask for memory out of
// proportion to the input.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fuzz/QuietLog.h"
#include "io/MemoryStream.h"
#include "lifecycle/Engine.h"
#include "math/Matrix.h"
#include "serialization/Serializer.h"

namespace KovexFuzz {

using namespace KovexEngine;

inline void ReadValues(Serializer& s)
{
    const FourCC tags[] = {FourCCs::VAL, FourCCs::PRSZ, FourCCs::NAME, FourCCs::CLS, FourCCs::OBID, FourCCs::VLD, FourCCs::SKT};
    for (FourCC tag : tags)
    {
        uint32 u = 0;
        float f = 0;
        Matrix4 m;
        AString text;
        s.Read(tag, u);
        s.Read(tag, f);
        s.Read(tag, m);
        s.Read(tag, text);
        float* floats = nullptr;
        unsigned count = 0;
        if (s.Read(tag, floats, count, true))
            delete[] floats;
        uint8 bytes[16];
        uint8* into = bytes;
        count = 16;
        s.Read(tag, into, count, false);
    }
}

// Walks the sections of the usual names to a bounded depth.
inline void Walk(Serializer& s, unsigned depth)
{
    ReadValues(s);
    if (depth == 0)
        return;
    const FourCC sections[] = {FourCCs::OBJ, FourCCs::PROP, FourCCs::DATA};
    for (FourCC tag : sections)
        for (unsigned i = 0; i < 4 && s.Enter(tag); ++i)
        {
            Walk(s, depth - 1);
            s.Leave();
        }
}

inline int Run(const uint8_t* data, size_t size)
{
    static bool ready = [] {
        Kovex_System_Initialize();
        QuietLog();
        return true;
    }();
    (void)ready;
    if (size > (1u << 20))
        return 0;
    auto* bytes = new DataStream(unsigned(size));
    if (size)
        std::memcpy(bytes->GetPointer(), data, size);
    Ptr<Stream> stream(new MemoryStream(bytes, true));
    Serializer* s = Serializer::OpenReadStream(stream);
    if (!s)
        return 0;
    Walk(*s, 4);
    s->Close();
    // Again from the start, loading whatever object graph it holds.
    if (s->Open(stream, Serializer::MODE_READ))
    {
        if (s->Enter(FourCCs::OBJ))
        {
            Ptr<Object> object;
            s->LoadObject(object, nullptr, 0);
            s->Leave();
        }
        s->Close();
    }
    delete s;
    return 0;
}

} // namespace KovexFuzz
