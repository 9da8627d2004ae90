#include <gtest/gtest.h>

#include "fuzz/SampleClasses.h"
#include "kernel/StringConv.h"
#include "serialization/BinSerializer.h"
#include "serialization/SerializerTestSupport.h"
#include "serialization/XmlSerializer.h"
#include "support/AllocCounter.h"
#include "support/LogCapture.h"

using namespace KovexEngine;
using namespace KovexSample;
using namespace KovexTest;

namespace KovexContainerTest {

// A struct stored by its fields ("SKT"), with no stored form of its own.
struct Spot
{
    KOVEX_STRUCT(Spot)
    Vector3 at;
    float size = 0;
    int32 kind = 0;
};

class Spots : public Object
{
    KOVEX_CLASS(Spots)
public:
    TArray<Spot> spots;
    TMap<int32, Spot> byKind;
};

KOVEX_REGISTER_STRUCT(Spot, u"Tests", KOVEX_TYPE_CUSTOM)
void Spot::StaticConstructor(Class* cls)
{
    AddStructField(cls, u"At", &Spot::at);
    AddStructField(cls, u"Size", &Spot::size);
    AddStructField(cls, u"Kind", &Spot::kind);
    cls->ProcessClass();
}

KOVEX_REGISTER_CLASS_EX(Spots, u"Tests")
void Spots::StaticConstructor(Class* cls)
{
    RegisterBases<Spots, Object>(cls);
    AddArrayField(cls, u"Spots", &Spots::spots);
    AddMapField(cls, u"ByKind", &Spots::byKind);
    cls->ProcessClass();
}

} // namespace KovexContainerTest

namespace {

Bytes SaveCrate(const Class* form, const ConstPtr<Object>& object, bool* saved = nullptr)
{
    return WriteWith(form, [&](Serializer& s) {
        ASSERT_TRUE(s.Enter(FourCCs::OBJ));
        bool ok = s.SaveObject(object, 0);
        if (saved)
            *saved = ok;
        s.Leave();
    });
}

Ptr<SampleCrate> LoadCrate(const Bytes& bytes)
{
    Ptr<Object> out;
    Serializer* s = OpenReader(bytes);
    if (!s)
        return Ptr<SampleCrate>();
    if (s->Enter(FourCCs::OBJ))
    {
        if (!s->LoadObject(out, nullptr, 0))
            out = nullptr;
        s->Leave();
    }
    delete s;
    return Ptr<SampleCrate>(DynamicCast<SampleCrate>(out.Get()));
}

// A crate written by hand, holding one property whose value `body` writes.
Bytes HandWritten(const Class* form, const char16_t* property, const std::function<void(Serializer&)>& body)
{
    return WriteWith(form, [&](Serializer& s) {
        ASSERT_TRUE(s.Enter(FourCCs::OBJ));
        s.Write(FourCCs::OBID, 1u);
        s.Write(FourCCs::CLS, WString(u"SampleCrate"));
        s.Write(FourCCs::PRSZ, 1u);
        s.Enter(FourCCs::PROP);
        s.Write(FourCCs::NAME, WString(property));
        body(s);
        s.Leave();
        s.Leave();
    });
}

template <typename T>
void ExpectSameArray(const TArray<T>& a, const TArray<T>& b)
{
    ASSERT_EQ(a.Count(), b.Count());
    for (unsigned i = 0; i < a.Count(); ++i)
        EXPECT_TRUE(a[i] == b[i]) << "item " << i;
}

} // namespace

class ContainerForms : public testing::TestWithParam<bool>
{
protected:
    const Class* Form() const { return GetParam() ? XmlSerializer::StaticGetClass() : BinSerializer::StaticGetClass(); }
};
INSTANTIATE_TEST_SUITE_P(Serialization, ContainerForms, testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Xml" : "Bin"; });

TEST_P(ContainerForms, ArraysMapsAndDelegatesRoundTrip)
{
    Ptr<SampleCrate> crate = MakeSampleCrate();
    Bytes bytes = SaveCrate(Form(), ConstPtr<Object>(crate.Get()));
    Ptr<SampleCrate> loaded = LoadCrate(bytes);
    ASSERT_TRUE(loaded);
    ExpectSameArray(crate->numbers, loaded->numbers);
    ExpectSameArray(crate->masks, loaded->masks);
    ExpectSameArray(crate->weights, loaded->weights);
    ExpectSameArray(crate->tags, loaded->tags);
    ExpectSameArray(crate->names, loaded->names);
    ExpectSameArray(crate->labels, loaded->labels);
    ExpectSameArray(crate->hidden, loaded->hidden);
    ASSERT_EQ(loaded->points.Count(), 1u);
    EXPECT_EQ(loaded->points[0].y, 2.f);

    // Objects by reference: a shared part loads once, a null stays null,
    // and the map and the plain property refer to the same objects.
    ASSERT_EQ(loaded->parts.Count(), 4u);
    SamplePart* a = loaded->parts[0].Get();
    SamplePart* b = loaded->parts[3].Get();
    ASSERT_TRUE(a && b);
    EXPECT_EQ(a->id, 1);
    EXPECT_EQ(b->id, 2);
    EXPECT_FALSE(loaded->parts[1]);
    EXPECT_EQ(loaded->parts[2].Get(), a);
    EXPECT_EQ(loaded->favourite.Get(), b);
    ASSERT_EQ(loaded->partsById.Count(), 3u);
    EXPECT_EQ(loaded->partsById.FindValue(1)->Get(), a);
    EXPECT_EQ(loaded->partsById.FindValue(2)->Get(), b);
    EXPECT_FALSE(*loaded->partsById.FindValue(3));
    ASSERT_EQ(loaded->counts.Count(), 2u);
    EXPECT_EQ(*loaded->counts.FindValue(WString(u"pears")), -4);

    // What was loaded saves to the same bytes.
    EXPECT_EQ(SaveCrate(Form(), ConstPtr<Object>(loaded.Get())), bytes);

    // Delegates call the loaded objects' functions.
    loaded->onHit(5);
    EXPECT_EQ(a->hits, 5);
    EXPECT_EQ(crate->parts[0]->hits, 0);
    loaded->onSelf(2);
    EXPECT_EQ(loaded->selfHits, 2);
    ASSERT_EQ(loaded->handlers.Count(), 2u);
    loaded->handlers[0](3);
    EXPECT_EQ(b->hits, 3);
    EXPECT_TRUE(loaded->handlers[1].IsEmpty());
}

TEST_P(ContainerForms, EmptyContainersRoundTrip)
{
    Ptr<SampleCrate> empty(new SampleCrate());
    Ptr<SampleCrate> loaded = LoadCrate(SaveCrate(Form(), ConstPtr<Object>(empty.Get())));
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->numbers.Count() + loaded->parts.Count() + loaded->counts.Count() + loaded->hidden.Count(), 0u);
    EXPECT_TRUE(loaded->onHit.IsEmpty());
    EXPECT_TRUE(loaded->onSelf.IsEmpty());
}

TEST_P(ContainerForms, ForgedCountsFailWithoutReservingForThem)
{
    auto items = [](uint32 count, unsigned present) {
        return [=](Serializer& s) {
            s.Enter(FourCCs::ARRY);
            s.Write(FourCCs::CNT, count);
            for (unsigned i = 0; i < present; ++i)
            {
                s.Enter(FourCCs::ITEM);
                s.Write(FourCCs::VAL, int32(i));
                s.Leave();
            }
            s.Leave();
        };
    };
    // The count as written loads.
    Ptr<SampleCrate> fine = LoadCrate(HandWritten(Form(), u"Numbers", items(2, 2)));
    ASSERT_TRUE(fine);
    EXPECT_EQ(fine->numbers.Count(), 2u);

    for (uint32 count : {3u, 100000000u, 0xFFFFFFFFu})
    {
        Bytes forged = HandWritten(Form(), u"Numbers", items(count, 2));
        LogCapture log;
        AllocationScope allocations;
        EXPECT_FALSE(LoadCrate(forged)) << count;
        EXPECT_LT(allocations.Count(), 500u) << count;
        WString line;
        line.Format(u"Container 'Numbers' holds fewer items than its count %u.\n", count);
        EXPECT_TRUE(log->Contains(line())) << count;
    }

    // A map's pairs likewise, and a pair without its value.
    Bytes map = HandWritten(Form(), u"Counts", [](Serializer& s) {
        s.Enter(FourCCs::MAP);
        s.Write(FourCCs::CNT, 1000000u);
        s.Enter(FourCCs::ITEM);
        s.Enter(FourCCs::KEY);
        s.Write(FourCCs::VAL, WString(u"k"));
        s.Leave();
        s.Leave();
        s.Leave();
    });
    LogCapture log;
    EXPECT_FALSE(LoadCrate(map));
    EXPECT_TRUE(log->Contains(u"Load Property 'Counts' failed.\n"));
}

TEST_P(ContainerForms, PropertyCountsBeyondTheSectionsFail)
{
    // Two properties present, three counted: the list does not start over.
    for (uint32 count : {3u, 0xFFFFFFFFu})
    {
        Bytes bytes = WriteWith(Form(), [&](Serializer& s) {
            ASSERT_TRUE(s.Enter(FourCCs::OBJ));
            s.Write(FourCCs::OBID, 1u);
            s.Write(FourCCs::CLS, WString(u"SamplePart"));
            s.Write(FourCCs::PRSZ, count);
            for (const char16_t* name : {u"Id", u"Hits"})
            {
                s.EnterNext(FourCCs::PROP);
                s.Write(FourCCs::NAME, WString(name));
                s.Write(FourCCs::VAL, int32(1));
                s.Leave();
            }
            s.Leave();
        });
        Serializer* s = OpenReader(bytes);
        ASSERT_TRUE(s);
        ASSERT_TRUE(s->Enter(FourCCs::OBJ));
        Ptr<Object> out;
        EXPECT_FALSE(s->LoadObject(out, nullptr, 0)) << count;
        delete s;
    }
}

TEST_P(ContainerForms, ItemsOfAnotherClassAreRefused)
{
    Bytes bytes = HandWritten(Form(), u"Parts", [](Serializer& s) {
        s.Enter(FourCCs::ARRY);
        s.Write(FourCCs::CNT, 1u);
        s.Enter(FourCCs::ITEM);
        s.Write(FourCCs::OBID, 2u);
        s.Write(FourCCs::CLS, WString(u"NamedObject"));
        s.Write(FourCCs::PRSZ, 0u);
        s.Leave();
        s.Leave();
    });
    LogCapture log;
    EXPECT_FALSE(LoadCrate(bytes));
    EXPECT_TRUE(log->Contains(u"Load Property 'Parts' failed.\n"));
}

TEST_P(ContainerForms, DelegatesNeedReflectedFunctions)
{
    // A delegate bound to a function reflection cannot name is not saved
    // silently empty: the save fails and says why.
    Ptr<SampleCrate> crate(new SampleCrate());
    Ptr<SamplePart> part(new SamplePart());
    crate->onHit = SampleHandler(part.Get(), &SamplePart::Touch);
    {
        LogCapture log;
        bool saved = true;
        SaveCrate(Form(), ConstPtr<Object>(crate.Get()), &saved);
        EXPECT_FALSE(saved);
        EXPECT_TRUE(log->Contains(u"Can't save delegate 'OnHit': it calls no reflected member function.\n"));
    }

    auto bound = [](const char16_t* function) {
        return [=](Serializer& s) {
            s.Enter(FourCCs::DLGT);
            s.Write(FourCCs::FUNC, WString(function));
            s.Write(FourCCs::SELF, true);
            s.Leave();
        };
    };
    {
        LogCapture log;
        EXPECT_FALSE(LoadCrate(HandWritten(Form(), u"OnHit", bound(u"Vanished"))));
        EXPECT_TRUE(log->Contains(u"Delegate function 'Vanished' not found in 'SampleCrate'.\n"));
    }
    {
        LogCapture log;
        EXPECT_FALSE(LoadCrate(HandWritten(Form(), u"OnHit", bound(u"SetName"))));
        EXPECT_TRUE(log->Contains(u"Delegate function 'SetName' does not fit 'Delegate_VOID_I32'.\n"));
    }
    Ptr<SampleCrate> self = LoadCrate(HandWritten(Form(), u"OnHit", bound(u"HitSelf")));
    ASSERT_TRUE(self);
    self->onHit(4);
    EXPECT_EQ(self->selfHits, 4);
}

TEST(ContainerSerialization, StructsStoredByTheirFields)
{
    using namespace KovexContainerTest;
    Ptr<Spots> spots(new Spots());
    for (int32 i = 0; i < 3; ++i)
    {
        Spot spot;
        spot.at = Vector3(float(i), 2, 3);
        spot.size = 0.5f * float(i);
        spot.kind = i;
        spots->spots.Add(spot);
        spots->byKind.Set(i * 10, spot);
    }
    // Both forms: the text form reads a struct back through its fields.
    for (const Class* form : {BinSerializer::StaticGetClass(), XmlSerializer::StaticGetClass()})
    {
        SCOPED_TRACE(StringConvFuncs::ToAString(form->GetName()())());
        Bytes bytes = SaveCrate(form, ConstPtr<Object>(spots.Get()));
        Serializer* s = OpenReader(bytes);
        ASSERT_TRUE(s);
        Ptr<Object> out;
        ASSERT_TRUE(s->Enter(FourCCs::OBJ));
        EXPECT_TRUE(s->LoadObject(out, nullptr, 0));
        delete s;
        Spots* loaded = DynamicCast<Spots>(out.Get());
        ASSERT_TRUE(loaded);
        ASSERT_EQ(loaded->spots.Count(), 3u);
        ASSERT_EQ(loaded->byKind.Count(), 3u);
        for (int32 i = 0; i < 3; ++i)
        {
            EXPECT_EQ(loaded->spots[unsigned(i)].at.x, float(i));
            EXPECT_EQ(loaded->spots[unsigned(i)].size, 0.5f * float(i));
            EXPECT_EQ(loaded->byKind.FindValue(i * 10)->kind, i);
        }
    }
}

TEST(ContainerSerialization, BinaryToTextToBinaryKeepsEveryByte)
{
    Bytes binary = SaveCrate(BinSerializer::StaticGetClass(), ConstPtr<Object>(MakeSampleCrate().Get()));
    Ptr<SampleCrate> fromBinary = LoadCrate(binary);
    ASSERT_TRUE(fromBinary);
    Ptr<SampleCrate> fromText = LoadCrate(SaveCrate(XmlSerializer::StaticGetClass(), ConstPtr<Object>(fromBinary.Get())));
    ASSERT_TRUE(fromText);
    EXPECT_EQ(SaveCrate(BinSerializer::StaticGetClass(), ConstPtr<Object>(fromText.Get())), binary);
}
