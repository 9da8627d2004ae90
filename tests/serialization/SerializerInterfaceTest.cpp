#include <gtest/gtest.h>

#include <cstddef>

#include "fuzz/SampleClasses.h"
#include "serialization/BinSerializer.h"
#include "serialization/SerializerTestSupport.h"
#include "serialization/XmlSerializer.h"
#include "support/LogCapture.h"

using namespace KovexEngine;
using namespace KovexSample;
using namespace KovexTest;

namespace {

struct Record
{
    uint8 u8 = 0;
    int16 i16 = 0;
    uint16 u16 = 0;
    int32 i32 = 0;
    uint32 u32 = 0;
    int64 i64 = 0;
    uint64 u64 = 0;
    float f = 0;
    double d = 0;
    Vector2 v2;
    Vector3 v3;
    Vector4 v4;
};

class Notes : public NamedObject
{
    KOVEX_CLASS(Notes)
public:
    AString tag;
    WString path;
    Ptr<SamplePart> part;
    Ptr<SampleCrate> crate;
};

KOVEX_REGISTER_CLASS_EX(Notes, u"Tests")
void Notes::StaticConstructor(Class* cls)
{
    RegisterBases<Notes, NamedObject>(cls);
    AddField(cls, u"Tag", &Notes::tag);
    AddField(cls, u"Path", &Notes::path, Property::FLAG_FILE_PATH);
    AddField(cls, u"Part", &Notes::part);
    AddField(cls, u"Crate", &Notes::crate);
    cls->ProcessClass();
}

} // namespace

class InterfaceForms : public testing::TestWithParam<bool>
{
protected:
    const Class* Form() const { return GetParam() ? XmlSerializer::StaticGetClass() : BinSerializer::StaticGetClass(); }
};
INSTANTIATE_TEST_SUITE_P(Serialization, InterfaceForms, testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Xml" : "Bin"; });

TEST(SerializeMemLayout, TypedFieldsAndTheCountedConstructor)
{
    Record r;
    SerializeMemLayout layout(sizeof(Record));
    layout.Add(&r, r.u8).Add(&r, r.i16).Add(&r, r.u16).Add(&r, r.i32).Add(&r, r.u32).Add(&r, r.i64).Add(&r, r.u64);
    layout.Add(&r, r.f).Add(&r, r.d).Add(&r, r.v2).Add(&r, r.v3).Add(&r, r.v4);
    const auto& fields = layout.GetFields();
    ASSERT_EQ(fields.Count(), 9u + 2 + 3 + 4);
    using L = SerializeMemLayout;
    const L::SerializeMemType types[] = {L::UInt8, L::Int16, L::UInt16, L::Int32, L::UInt32, L::Int64, L::UInt64, L::Float, L::Double};
    for (unsigned i = 0; i < 9; ++i)
        EXPECT_EQ(fields[i].type, types[i]) << i;
    EXPECT_EQ(fields[8].offset, unsigned(offsetof(Record, d)));
    EXPECT_EQ(fields[9].offset, unsigned(offsetof(Record, v2)));
    EXPECT_EQ(fields[17].offset, unsigned(offsetof(Record, v4)) + 12);
    EXPECT_EQ(fields[17].type, L::Float);

    // A field outside the record's size is not taken.
    Record other;
    SerializeMemLayout small(4);
    small.Add(&r, r.u8).Add(&r, r.d).Add(&r, other.u8);
    EXPECT_EQ(small.GetFields().Count(), 1u);

    SerializeMemLayout counted(sizeof(Record), 2, int(L::UInt16), int(offsetof(Record, u16)), int(L::Double),
                               int(offsetof(Record, d)));
    ASSERT_EQ(counted.GetFields().Count(), 2u);
    EXPECT_EQ(counted.GetFields()[1].type, L::Double);
    EXPECT_EQ(counted.GetFields()[1].offset, unsigned(offsetof(Record, d)));
    EXPECT_EQ(counted.GetSize(), unsigned(sizeof(Record)));
}

TEST_P(InterfaceForms, TypedLayoutRoundTrips)
{
    Record r;
    SerializeMemLayout layout(sizeof(Record));
    layout.Add(&r, r.u8).Add(&r, r.i16).Add(&r, r.u16).Add(&r, r.i32).Add(&r, r.u32).Add(&r, r.i64).Add(&r, r.u64);
    layout.Add(&r, r.f).Add(&r, r.d).Add(&r, r.v2).Add(&r, r.v3).Add(&r, r.v4);
    r.u8 = 200;
    r.i16 = -3000;
    r.u16 = 60000;
    r.i32 = -70000;
    r.u32 = 4000000000u;
    r.i64 = -5000000000;
    r.u64 = 9000000000u;
    r.f = 0.25f;
    r.d = -1.5;
    r.v2 = Vector2(1, 2);
    r.v3 = Vector3(3, 4, 5);
    r.v4 = Vector4(6, 7, 8, 9);
    Bytes bytes = WriteWith(Form(), [&](Serializer& s) {
        s.Enter(FourCCs::DATA);
        EXPECT_TRUE(s.Write(FourCCs::VAL, &r, layout));
        s.Leave();
    });
    Serializer* s = OpenReader(bytes);
    ASSERT_TRUE(s);
    Record back;
    ASSERT_TRUE(s->Enter(FourCCs::DATA));
    EXPECT_TRUE(s->Read(FourCCs::VAL, &back, layout));
    delete s;
    EXPECT_EQ(back.u8, r.u8);
    EXPECT_EQ(back.i16, r.i16);
    EXPECT_EQ(back.u16, r.u16);
    EXPECT_EQ(back.i32, r.i32);
    EXPECT_EQ(back.u32, r.u32);
    EXPECT_EQ(back.i64, r.i64);
    EXPECT_EQ(back.u64, r.u64);
    EXPECT_EQ(back.f, r.f);
    EXPECT_EQ(back.d, r.d);
    EXPECT_EQ(back.v2.y, 2.f);
    EXPECT_EQ(back.v3.z, 5.f);
    EXPECT_EQ(back.v4.w, 9.f);
}

TEST_P(InterfaceForms, EnterNextReadsARunOnceAndSeesItsEnd)
{
    Bytes bytes = WriteWith(Form(), [](Serializer& s) {
        s.Enter(FourCCs::DATA);
        for (int32 i = 0; i < 3; ++i)
        {
            s.EnterNext(FourCCs::ITEM);
            s.Write(FourCCs::VAL, i);
            s.Leave();
        }
        s.Leave();
    });
    Serializer* s = OpenReader(bytes);
    ASSERT_TRUE(s);
    ASSERT_TRUE(s->Enter(FourCCs::DATA));
    for (int32 i = 0; i < 3; ++i)
    {
        ASSERT_TRUE(s->EnterNext(FourCCs::ITEM)) << i;
        int32 value = -1;
        EXPECT_TRUE(s->Read(FourCCs::VAL, value));
        EXPECT_EQ(value, i);
        s->Leave();
    }
    EXPECT_FALSE(s->EnterNext(FourCCs::ITEM)) << "the run has ended";
    EXPECT_TRUE(s->Enter(FourCCs::ITEM)) << "Enter still starts again at the first";
    s->Leave();
    delete s;
}

TEST_P(InterfaceForms, SerializeObjKeepsIdentityAndNull)
{
    Ptr<SamplePart> part(new SamplePart());
    part->id = 12;
    Ptr<Notes> owner(new Notes());
    Bytes bytes = WriteWith(Form(), [&](Serializer& s) {
        for (const Object* object : {static_cast<const Object*>(part.Get()), static_cast<const Object*>(part.Get()),
                                     static_cast<const Object*>(nullptr)})
        {
            s.EnterNext(FourCCs::ITEM);
            EXPECT_TRUE(owner->SerializeObj(object, &s, 0));
            s.Leave();
        }
        s.Enter(FourCCs::DATA);
        s.Write(FourCCs::VAL, 1);
        s.Leave();
    });
    Serializer* s = OpenReader(bytes);
    ASSERT_TRUE(s);
    Ptr<Object> first, second, none(new Object());
    for (Ptr<Object>* out : {&first, &second, &none})
    {
        ASSERT_TRUE(s->EnterNext(FourCCs::ITEM));
        EXPECT_TRUE(owner->SerializeObj(s, 0, *out));
        s->Leave();
    }
    ASSERT_TRUE(s->Enter(FourCCs::DATA));
    Ptr<Object> nothing;
    EXPECT_FALSE(owner->SerializeObj(s, 0, nothing)) << "no object stored here";
    s->Leave();
    delete s;
    ASSERT_TRUE(first);
    EXPECT_EQ(static_cast<SamplePart*>(first.Get())->id, 12);
    EXPECT_EQ(first.Get(), second.Get());
    EXPECT_FALSE(none);
}

TEST_P(InterfaceForms, StringAndObjectAdapters)
{
    Ptr<Notes> notes(new Notes());
    notes->tag = "a & b";
    notes->path = u"/data/x.png";
    notes->part = Ptr<SamplePart>(new SamplePart());
    notes->part->id = 5;
    const Class* cls = Notes::StaticGetClass();
    const Property* tag = cls->FindProperty(WString(u"Tag"), true);
    const Property* path = cls->FindProperty(WString(u"Path"), true);
    const Property* part = cls->FindProperty(WString(u"Part"), true);
    const Property* crateProperty = cls->FindProperty(WString(u"Crate"), true);
    ASSERT_TRUE(tag && path && part && crateProperty);
    Bytes bytes = WriteWith(Form(), [&](Serializer& s) {
        s.Enter(FourCCs::DATA);
        EXPECT_TRUE(Property::SaveAString(tag, notes.Get(), &s));
        EXPECT_FALSE(Property::SaveWString(tag, notes.Get(), &s)) << "not a WString property";
        s.Leave();
        s.Enter(FourCCs::PATH);
        EXPECT_TRUE(Property::SaveWString(path, notes.Get(), &s));
        s.Leave();
        s.Enter(FourCCs::OBJ);
        EXPECT_TRUE(Property::SaveObject(part, notes.Get(), &s));
        s.Leave();
        s.Enter(FourCCs::REF);
        EXPECT_TRUE(Property::SaveObject(part, notes.Get(), &s));
        s.Leave();
    });
    Serializer* s = OpenReader(bytes);
    ASSERT_TRUE(s);
    Ptr<Notes> back(new Notes());
    ASSERT_TRUE(s->Enter(FourCCs::DATA));
    EXPECT_TRUE(Property::LoadAString(tag, back.Get(), s));
    s->Leave();
    ASSERT_TRUE(s->Enter(FourCCs::PATH));
    EXPECT_TRUE(Property::LoadWString(path, back.Get(), s));
    s->Leave();
    // The object carries its class name: a property of another class refuses it.
    ASSERT_TRUE(s->Enter(FourCCs::OBJ));
    EXPECT_FALSE(Property::LoadObject(crateProperty, back.Get(), s));
    s->Leave();
    ASSERT_TRUE(s->Enter(FourCCs::REF));
    EXPECT_TRUE(Property::LoadObject(part, back.Get(), s));
    s->Leave();
    delete s;
    EXPECT_TRUE(back->tag == notes->tag);
    EXPECT_TRUE(back->path == notes->path);
    ASSERT_TRUE(back->part);
    EXPECT_EQ(back->part->id, 5);
}

TEST(ObjectDifference, IsObjectDifferent)
{
    Ptr<SamplePart> a(new SamplePart()), b(new SamplePart());
    EXPECT_FALSE(a->IsObjectDifferent(b.Get()));
    b->hits = 1;
    EXPECT_TRUE(a->IsObjectDifferent(b.Get()));
    EXPECT_TRUE(a->IsObjectDifferent(nullptr));
    Ptr<SampleCrate> crate(new SampleCrate());
    Ptr<NamedObject> named(new NamedObject());
    EXPECT_TRUE(named->IsObjectDifferent(crate.Get())) << "a subclass has no difference form";
}
