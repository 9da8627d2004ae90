// Reflected classes whose properties cover every stored kind of value,
// containers and delegates included. The serializer fuzz targets register
// them so that the object graphs of their seeds load in full; the tests and
// the kovex-dump check use the same classes.

#pragma once

#include "reflection/ContainerClass.h"
#include "reflection/Delegate.h"
#include "reflection/Object.h"
#include "reflection/Struct.h"
#include "serialization/Serializer.h"

namespace KovexSample {

using namespace KovexEngine;

// A struct with a stored form of its own, which both serializer forms read.
struct SampleLabel
{
    KOVEX_STRUCT(SampleLabel)
    int32 id = 0;
    AString text;

    bool operator==(const SampleLabel& other) const { return id == other.id && text == other.text; }
    bool Load(Serializer* s) { return s->Read(FourCCs::Make("LID"), id) && s->Read(FourCCs::Make("LTXT"), text); }
    bool Save(Serializer* s) const { return s->Write(FourCCs::Make("LID"), id) && s->Write(FourCCs::Make("LTXT"), text); }
};

class SamplePart : public Object
{
    KOVEX_CLASS(SamplePart)
public:
    int32 id = 0;
    int32 hits = 0;
    void Hit(int32 amount) { hits += amount; }
    // Not reflected: a delegate bound to it cannot be stored.
    void Touch(int32 amount) { hits -= amount; }
};

using SampleHandler = DelegateS<void(int32)>;

class SampleCrate : public NamedObject
{
    KOVEX_CLASS(SampleCrate)
public:
    TArray<int32> numbers;
    TArray<uint32> masks;
    TArray<float> weights;
    TArray<AString> tags;
    TArray<WString> names;
    TArray<Vector3> points;
    TArray<SampleLabel> labels;
    TArray<Ptr<SamplePart>> parts;
    TArray<SampleHandler> handlers;
    TMap<WString, int32> counts;
    TMap<int32, Ptr<SamplePart>> partsById;
    Ptr<SamplePart> favourite;
    SampleHandler onHit;
    SampleHandler onSelf;
    int32 selfHits = 0;
    void HitSelf(int32 amount) { selfHits += amount; }

    // An array kept elsewhere, reached through accessor functions.
    TArray<int32> hidden;
};

// A crate filled with a bit of everything: shared parts, a null entry, a
// delegate bound to a part and one bound to the crate itself.
Ptr<SampleCrate> MakeSampleCrate();

} // namespace KovexSample
