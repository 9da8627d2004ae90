#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "math/Transform.h"
#include "reflection/Struct.h"
#include "serialization/BinSerializer.h"
#include "serialization/XmlSerializer.h"
#include "serialization/SerializerTestSupport.h"
#include "support/AllocCounter.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

using namespace KovexEngine;
using namespace KovexTest;

namespace {

constexpr FourCC ROOT = FourCCs::Make("ROOT");

Bytes Xml(const std::function<void(Serializer&)>& write) { return WriteWith(XmlSerializer::StaticGetClass(), write); }

const Struct* TransformStruct() { return static_cast<const Struct*>(Transform::StaticGetClass()); }

} // namespace

TEST(XmlSerializer, SectionsAreElementsAndValuesAttributes)
{
    Bytes text = Xml([](Serializer& s) {
        EXPECT_FALSE(s.Write(FourCCs::VAL, 1u)) << "no values outside an element";
        ASSERT_TRUE(s.Enter(FourCCs::OBJ));
        s.Write(FourCCs::CLS, AString("Foo"));
        unsigned count = 0;
        Serializer_WriteSize size(&s, count, FourCCs::PRSZ);
        ASSERT_TRUE(size.Begin());
        s.Enter(FourCCs::PROP);
        s.Write(FourCCs::NAME, AString("Size"));
        s.Write(FourCCs::VAL, int32(3));
        s.Leave();
        count = 1;
        ASSERT_TRUE(size.End());
        s.Leave();
    });
    // The count is written once, in the place it was reserved.
    EXPECT_EQ(text, "<XML />\n<OBJ CLS=\"Foo\" PRSZ=\"1\">\n\t<PROP NAME=\"Size\" VAL=\"3\"/>\n</OBJ>\n\n");
}

TEST(XmlSerializer, ValuesReadBackByNameInAnyOrder)
{
    const int32 ints[] = {-1, 0, 70000};
    const uint8 bytes[] = {0, 255};
    struct Record
    {
        uint16 id;
        double weight;
    } records[2] = {{7, 0.5}, {65535, -1e10}};
    SerializeMemLayout layout(sizeof(Record));
    layout.Add(SerializeMemLayout::UInt16, offsetof(Record, id)).Add(SerializeMemLayout::Double, offsetof(Record, weight));
    const AString awkward("a <b> & \"c\" 'd'\n\te");
    Bytes text = Xml([&](Serializer& s) {
        ASSERT_TRUE(s.Enter(ROOT));
        s.Write(FourCCs::Make("B"), true);
        s.Write(FourCCs::Make("I64"), int64(-9000000000000LL));
        s.Write(FourCCs::Make("U64"), uint64(18000000000000000000ull));
        s.Write(FourCCs::Make("F"), 1234567.f);
        s.Write(FourCCs::Make("V3"), Vector3(1, -2.5f, 3e-5f));
        s.Write(FourCCs::Make("STR"), awkward);
        s.Write(FourCCs::Make("NONE"), AString());
        s.Write(FourCCs::Make("INTS"), ints, 3);
        s.Write(FourCCs::Make("EMPT"), ints, 0);
        s.Write(FourCCs::Make("BYTS"), bytes, 2);
        s.Write(FourCCs::Make("RECS"), records, 2, layout);
        EXPECT_FALSE(s.Write(FourCCs::Make("NULL"), static_cast<const float*>(nullptr), 2));
        s.Leave();
    });
    Serializer* s = OpenReader(text);
    ASSERT_NE(s, nullptr);
    ASSERT_TRUE(s->Enter(ROOT));
    AString str, none;
    EXPECT_TRUE(s->Read(FourCCs::Make("STR"), str));
    EXPECT_TRUE(str == awkward);
    EXPECT_TRUE(s->Read(FourCCs::Make("NONE"), none));
    EXPECT_TRUE(none.IsEmpty());
    bool b = false;
    int64 i64 = 0;
    uint64 u64 = 0;
    float f = 0;
    Vector3 v;
    EXPECT_TRUE(s->Read(FourCCs::Make("B"), b));
    EXPECT_TRUE(s->Read(FourCCs::Make("U64"), u64));
    EXPECT_TRUE(s->Read(FourCCs::Make("I64"), i64));
    EXPECT_TRUE(s->Read(FourCCs::Make("F"), f));
    EXPECT_TRUE(s->Read(FourCCs::Make("V3"), v));
    EXPECT_TRUE(b);
    EXPECT_EQ(i64, -9000000000000LL);
    EXPECT_EQ(u64, 18000000000000000000ull);
    EXPECT_EQ(f, 1234570.f) << "six significant digits";
    EXPECT_EQ(v.y, -2.5f);
    EXPECT_EQ(v.z, 3e-5f);
    EXPECT_FALSE(s->Read(FourCCs::Make("GONE"), f));

    int32* readInts = nullptr;
    unsigned count = 0;
    ASSERT_TRUE(s->Read(FourCCs::Make("INTS"), readInts, count, true));
    ASSERT_EQ(count, 3u);
    EXPECT_EQ(readInts[2], 70000);
    delete[] readInts;
    readInts = nullptr;
    EXPECT_TRUE(s->Read(FourCCs::Make("EMPT"), readInts, count, true));
    EXPECT_EQ(count, 0u);
    uint8 small[1];
    uint8* into = small;
    count = 1;
    EXPECT_FALSE(s->Read(FourCCs::Make("BYTS"), into, count, false)) << "two values do not fit in one";
    void* readRecords = nullptr;
    ASSERT_TRUE(s->Read(FourCCs::Make("RECS"), readRecords, count, layout, true));
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(static_cast<Record*>(readRecords)[1].id, 65535);
    EXPECT_EQ(static_cast<Record*>(readRecords)[1].weight, -1e10);
    delete[] static_cast<uint8*>(readRecords);
    delete s;
}

TEST(XmlSerializer, StructsAreWrittenAsTextAndReadBackByTheirFields)
{
    Transform t;
    reinterpret_cast<float*>(&t.rotation)[1] = -0.5f;
    t.translation = Vector3(1, 2, 3);
    t.scale = Vector3(0.25f, 4, 1);
    t.flags = 7;
    Transform many[2];
    many[1].translation = Vector3(-1, 0, 9);
    Bytes text = Xml([&](Serializer& s) {
        ASSERT_TRUE(s.Enter(ROOT));
        EXPECT_TRUE(s.Write(FourCCs::SKT, &t, TransformStruct()));
        EXPECT_TRUE(s.Write(FourCCs::Make("MANY"), many, 2u, TransformStruct()));
        s.Leave();
    });
    EXPECT_NE(text.find("SKT=\"1,-0.5,0,0,1,0,0,0,1;1,2,3;0.25,4,1;7;\""), Bytes::npos) << text;
    Serializer* s = OpenReader(text);
    ASSERT_NE(s, nullptr);
    ASSERT_TRUE(s->Enter(ROOT));
    Transform back;
    ASSERT_TRUE(s->Read(FourCCs::SKT, &back, TransformStruct()));
    EXPECT_EQ(0, std::memcmp(&back, &t, sizeof t));
    void* values = nullptr;
    unsigned count = 0;
    ASSERT_TRUE(s->Read(FourCCs::Make("MANY"), values, count, TransformStruct(), true));
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(static_cast<Transform*>(values)[1].translation.z, 9.f);
    TransformStruct()->DeleteArray(values);
    // Into a caller's buffer: too small is refused.
    Transform one[1];
    values = one;
    count = 1;
    EXPECT_FALSE(s->Read(FourCCs::Make("MANY"), values, count, TransformStruct(), false));
    delete s;
}

TEST(XmlSerializer, StructTextThatLacksOrSpoilsAFieldFailsAndLeavesTheValue)
{
    struct Case
    {
        const char* text;
        const char16_t* line;
    };
    const Case cases[] = {
        {"1,0,0,0,1,0,0,0,1;1,2,3;1,1,1;", u"XmlSerializer: field 'Flags' of struct 'Transform' in \"SKT\" is missing or unreadable.\n"},
        {"1,0,0,0,1,0,0,0,1;1,2;1,1,1;0;", u"XmlSerializer: field 'Translation' of struct 'Transform' in \"SKT\" is missing or unreadable.\n"},
        {"1,0,0,0,1,0,0,0,1;1,2,3,4;1,1,1;0;", u"XmlSerializer: field 'Translation' of struct 'Transform' in \"SKT\" is missing or unreadable.\n"},
        {"1,0,0,0,1,0,0,0,1;1,x,3;1,1,1;0;", u"XmlSerializer: field 'Translation' of struct 'Transform' in \"SKT\" is missing or unreadable.\n"},
        {"", u"XmlSerializer: field 'Rotation' of struct 'Transform' in \"SKT\" is missing or unreadable.\n"},
        {"1,0,0,0,1,0,0,0,1;1,2,3;1,1,1;0;5;", u"XmlSerializer: \"SKT\" holds more than one struct 'Transform'.\n"},
    };
    for (const Case& c : cases)
    {
        Bytes text = Xml([&](Serializer& s) {
            ASSERT_TRUE(s.Enter(ROOT));
            s.Write(FourCCs::SKT, AString(c.text));
            s.Write(FourCCs::VAL, AString("3;x;"));
            s.Leave();
        });
        Serializer* s = OpenReader(text);
        ASSERT_NE(s, nullptr);
        ASSERT_TRUE(s->Enter(ROOT));
        Transform back;
        back.flags = 42;
        LogCapture log;
        EXPECT_FALSE(s->Read(FourCCs::SKT, &back, TransformStruct())) << c.text;
        EXPECT_TRUE(log->Contains(c.line)) << c.text;
        EXPECT_EQ(back.flags, 42u) << "a failed read leaves the value as it was";
        EXPECT_EQ(back.translation.x, 0.f);
        // A forged count: more values than the text can hold.
        void* values = nullptr;
        unsigned count = 0;
        EXPECT_FALSE(s->Read(FourCCs::VAL, values, count, TransformStruct(), true));
        EXPECT_EQ(values, nullptr);
        delete s;
    }
}

TEST(XmlSerializer, RepeatedSectionsAreReachedInOrder)
{
    Bytes text = Xml([](Serializer& s) {
        ASSERT_TRUE(s.Enter(ROOT));
        for (int32 i = 0; i < 3; ++i)
        {
            s.Enter(FourCCs::PROP);
            s.Write(FourCCs::VAL, i);
            s.Leave();
        }
        s.Leave();
    });
    Serializer* s = OpenReader(text);
    ASSERT_NE(s, nullptr);
    ASSERT_TRUE(s->Enter(ROOT));
    for (int32 i = 0; i < 3; ++i)
    {
        ASSERT_TRUE(s->Enter(FourCCs::PROP));
        int32 v = -1;
        EXPECT_TRUE(s->Read(FourCCs::VAL, v));
        EXPECT_EQ(v, i);
        s->Leave();
    }
    delete s;
}

TEST(XmlSerializer, BadDocumentsFailToOpenWithTheParserMessage)
{
    Bytes good = Xml([](Serializer& s) {
        ASSERT_TRUE(s.Enter(ROOT));
        s.Write(FourCCs::VAL, AString("x"));
        s.Leave();
    });
    LogCapture log;
    EXPECT_EQ(OpenReader("<XML />\n<ROOT VAL=\"x\">"), nullptr);
    EXPECT_TRUE(log->Contains(u"Parse xml error = unexpected end of data \n"));
    for (size_t cut = 9; cut < good.rfind('>'); ++cut)
    {
        Serializer* s = OpenReader(good.substr(0, cut));
        EXPECT_EQ(s, nullptr) << cut;
        delete s;
    }
    EXPECT_EQ(OpenReader("<XML />\n<A B=\"1\"><C></A>"), nullptr);
    EXPECT_EQ(OpenReader("<XML />"), nullptr);

    // Nesting deeper than the parser may recurse is refused before parsing.
    Bytes deep = "<XML />\n";
    for (unsigned i = 0; i <= XmlSerializer::kMaxNesting; ++i)
        deep += "<A>";
    for (unsigned i = 0; i <= XmlSerializer::kMaxNesting; ++i)
        deep += "</A>";
    EXPECT_EQ(OpenReader(deep), nullptr);
    // A forged array count allocates nothing.
    Serializer* s = OpenReader("<XML />\n<R V=\"4000000000;1,2;\"/>");
    ASSERT_NE(s, nullptr);
    ASSERT_TRUE(s->Enter(FourCCs::Make("R")));
    float* values = nullptr;
    unsigned count = 0;
    EXPECT_FALSE(s->Read(FourCCs::Make("V"), values, count, true));
    EXPECT_EQ(values, nullptr);
    delete s;
}

TEST(XmlSerializer, OutputIsWellFormedForXmllint)
{
    if (std::system("command -v xmllint >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "xmllint is not installed";
    Bytes text = Xml([](Serializer& s) {
        ASSERT_TRUE(s.Enter(ROOT));
        s.Write(FourCCs::NAME, AString("<&>\"'"));
        s.Enter(FourCCs::PROP);
        s.Write(FourCCs::VAL, Matrix4());
        s.Leave();
        s.Leave();
    });
    TempDir dir;
    dir.Write("out.xml", text.substr(8));
    std::string path = dir.path + "/out.xml";
    EXPECT_EQ(std::system(("xmllint --noout " + path).c_str()), 0);
}

TEST(XmlSerializer, RecordCountIsBoundedByTheFieldsTheTextCanHold)
{
    // Four records of two fields claimed, one stored: refused before a
    // block for four records of 4 KiB is allocated.
    Bytes text = Xml([](Serializer& s) {
        ASSERT_TRUE(s.Enter(ROOT));
        s.Write(FourCCs::Make("RECS"), AString("4;1,2;"));
        s.Leave();
    });
    SerializeMemLayout layout(4096);
    layout.Add(SerializeMemLayout::UInt8, 0).Add(SerializeMemLayout::UInt8, 1);
    Serializer* s = OpenReader(text);
    ASSERT_NE(s, nullptr);
    ASSERT_TRUE(s->Enter(ROOT));
    void* records = nullptr;
    unsigned count = 0;
    KovexTest::AllocationScope scope;
    EXPECT_FALSE(s->Read(FourCCs::Make("RECS"), records, count, layout, true));
    EXPECT_LT(scope.Bytes(), 4096u);
    EXPECT_EQ(records, nullptr);
    delete s;
}
