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
#include "math/Bounds.h"
#include "math/Matrix.h"
#include "math/Transform.h"
#include "reflection/Struct.h"
#include "serialization/Serializer.h"

namespace KovexFuzz {

using namespace KovexEngine;

// A struct of every kind of member the struct codecs handle: nested
// structs, text in both widths and plain values.
struct FuzzPose
{
    KOVEX_STRUCT(FuzzPose)
    Transform where;
    Sphere reach;
    AString label;
    WString title;
    int32 rank = 0;
    bool visible = false;
};

// Registered here: the header is included by one source file of each target.
KOVEX_REGISTER_STRUCT(FuzzPose, u"Fuzz", KOVEX_TYPE_CUSTOM)
inline void FuzzPose::StaticConstructor(Class* cls)
{
    AddStructField(cls, u"Where", &FuzzPose::where);
    AddStructField(cls, u"Reach", &FuzzPose::reach);
    AddStructField(cls, u"Label", &FuzzPose::label);
    AddStructField(cls, u"Title", &FuzzPose::title);
    AddStructField(cls, u"Rank", &FuzzPose::rank);
    AddStructField(cls, u"Visible", &FuzzPose::visible);
    cls->ProcessClass();
}

inline const Struct* FuzzPoseStruct() { return static_cast<const Struct*>(FuzzPose::StaticGetClass()); }

template <typename T>
void ReadStructs(Serializer& s, FourCC tag, const Struct* type)
{
    T one;
    s.Read(tag, &one, type);
    void* many = nullptr;
    unsigned count = 0;
    if (s.Read(tag, many, count, type, true) && count)
        type->DeleteArray(many);
    T two[2];
    many = two;
    count = 2;
    s.Read(tag, many, count, type, false);
}

inline void ReadValues(Serializer& s)
{
    const FourCC tags[] = {FourCCs::VAL, FourCCs::PRSZ, FourCCs::NAME, FourCCs::CLS, FourCCs::OBID, FourCCs::VLD, FourCCs::SKT};
    for (FourCC tag : tags)
    {
        // Structs first: in the binary form a value read as a plain one is
        // used up, and a struct read that fails gives its bytes back.
        ReadStructs<FuzzPose>(s, tag, FuzzPoseStruct());
        ReadStructs<Transform>(s, tag, static_cast<const Struct*>(Transform::StaticGetClass()));
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

