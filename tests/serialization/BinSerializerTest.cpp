#include <gtest/gtest.h>

#include "math/Bounds.h"
#include "math/Quaternion.h"
#include "reflection/PropertyRegistration.h"
#include "reflection/Struct.h"
#include "serialization/BinSerializer.h"
#include "serialization/SerializerTestSupport.h"
#include "math/Transform.h"
#include "support/AllocCounter.h"
#include "support/LogCapture.h"

using namespace KovexEngine;
using namespace KovexTest;

namespace KovexBinTest {

constexpr FourCC A = 'A';
constexpr FourCC B = 'B';
constexpr FourCC X = 'X';


struct Labelled
{
    KOVEX_STRUCT(Labelled)
    float weight = 0;
    AString label;
    WString title;
    Vector3 at;
};
KOVEX_REGISTER_STRUCT(Labelled, u"Tests", KOVEX_TYPE_CUSTOM)
void Labelled::StaticConstructor(Class* cls)
{
    AddStructField(cls, u"Weight", &Labelled::weight);
    AddStructField(cls, u"Label", &Labelled::label);
    AddStructField(cls, u"Title", &Labelled::title);
    AddStructField(cls, u"At", &Labelled::at);
    cls->ProcessClass();
}

const Struct* LabelledStruct() { return static_cast<const Struct*>(Labelled::StaticGetClass()); }

Bytes Bin(const std::function<void(Serializer&)>& write) { return WriteWith(BinSerializer::StaticGetClass(), write); }

} // namespace KovexBinTest

using namespace KovexBinTest;

TEST(BinSerializer, FileLayoutIsHeaderTableThenBlocks)
{
    Bytes bytes = Bin([](Serializer& s) {
        ASSERT_TRUE(s.Enter(A));
        EXPECT_TRUE(s.Write(FourCCs::VAL, uint32(7)));
        s.Leave();
    });
    const unsigned char expected[] = {
        '<', 'B', 'I', 'N', ' ', '/', '>', '\n',
        0, 0, 0, 0, 40, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0,      // root: no id, block at 40, one child
        'A', 0, 0, 0, 40, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,    // "A": block at 40, no children
        'L', 'A', 'V', 0, 7, 0, 0, 0,                         // "VAL" = 7
    };
    ASSERT_EQ(bytes.size(), sizeof(expected));
    EXPECT_EQ(0, std::memcmp(bytes.data(), expected, sizeof(expected)));
}

TEST(BinSerializer, EveryValueKindRoundTrips)
{
    Matrix4 m4;
    for (int i = 0; i < 16; ++i)
        reinterpret_cast<float*>(&m4)[i] = float(i) * 0.5f - 3.f;
    const uint16 shorts[] = {1, 65535, 300};
    const float floats[] = {0.1f, -2.5f};
    Labelled label;
    label.weight = 4.25f;
    label.label = "grass";
    label.title = u"h\u00e9llo";
    label.at = Vector3(1, 2, 3);
    Aabb box(Vector3(-1, -2, -3), Vector3(4, 5, 6));

    Bytes bytes = Bin([&](Serializer& s) {
        ASSERT_TRUE(s.Enter(A));
        EXPECT_TRUE(s.Write(FourCCs::Make("b\0\0"), true));
        EXPECT_TRUE(s.Write(FourCCs::Make("u8\0"), uint8(200)));
        EXPECT_TRUE(s.Write(FourCCs::Make("i16\0"), int16(-1234)));
        EXPECT_TRUE(s.Write(FourCCs::Make("i64\0"), int64(-5000000000LL)));
        EXPECT_TRUE(s.Write(FourCCs::Make("u64\0"), uint64(~0ull)));
        EXPECT_TRUE(s.Write(FourCCs::Make("dbl\0"), 3.141592653589793));
        EXPECT_TRUE(s.Write(FourCCs::Make("m4\0"), m4));
        EXPECT_TRUE(s.Write(FourCCs::Make("str\0"), AString("text")));
        EXPECT_TRUE(s.Write(FourCCs::Make("wst\0"), WString(u"w\u00fcrd")));
        EXPECT_TRUE(s.Write(FourCCs::Make("sh\0"), shorts, 3));
        EXPECT_TRUE(s.Write(FourCCs::Make("fl\0"), floats, 2));
        EXPECT_TRUE(s.Write(FourCCs::Make("st\0"), &label, LabelledStruct()));
        EXPECT_TRUE(s.Write(FourCCs::Make("box\0"), box));
        s.Leave();
    });

    Serializer* s = OpenReader(bytes);
    ASSERT_NE(s, nullptr);
    ASSERT_TRUE(s->Enter(A));
    bool b = false;
    uint8 u8 = 0;
    int16 i16 = 0;
    int64 i64 = 0;
    uint64 u64 = 0;
    double d = 0;
    Matrix4 m;
    AString str;
    WString wst;
    EXPECT_TRUE(s->Read(FourCCs::Make("b\0\0"), b));
    EXPECT_TRUE(s->Read(FourCCs::Make("u8\0"), u8));
    EXPECT_TRUE(s->Read(FourCCs::Make("i16\0"), i16));
    EXPECT_TRUE(s->Read(FourCCs::Make("i64\0"), i64));
    EXPECT_TRUE(s->Read(FourCCs::Make("u64\0"), u64));
    EXPECT_TRUE(s->Read(FourCCs::Make("dbl\0"), d));
    EXPECT_TRUE(s->Read(FourCCs::Make("m4\0"), m));
    EXPECT_TRUE(s->Read(FourCCs::Make("str\0"), str));
    EXPECT_TRUE(s->Read(FourCCs::Make("wst\0"), wst));
    EXPECT_TRUE(b);
    EXPECT_EQ(u8, 200);
    EXPECT_EQ(i16, -1234);
    EXPECT_EQ(i64, -5000000000LL);
    EXPECT_EQ(u64, ~0ull);
    EXPECT_EQ(d, 3.141592653589793);
    EXPECT_EQ(0, std::memcmp(&m, &m4, sizeof m));
    EXPECT_TRUE(str == "text");
    EXPECT_TRUE(wst == u"w\u00fcrd");

    // Into the caller's buffer: too small is refused, big enough is filled.
    uint16 small[2];
    uint16* into = small;
    unsigned count = 2;
    EXPECT_FALSE(s->Read(FourCCs::Make("sh\0"), into, count, false));
    uint16 large[4] = {};
    into = large;
    count = 4;
    EXPECT_TRUE(s->Read(FourCCs::Make("sh\0"), into, count, false)); // the refusal consumed nothing
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(large[1], 65535);
    float* allocated = nullptr;
    count = 0;
    EXPECT_TRUE(s->Read(FourCCs::Make("fl\0"), allocated, count, true));
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(allocated[1], -2.5f);
    delete[] allocated;

    Labelled back;
    EXPECT_TRUE(s->Read(FourCCs::Make("st\0"), &back, LabelledStruct()));
    EXPECT_EQ(back.weight, 4.25f);
    EXPECT_TRUE(back.label == "grass");
    EXPECT_TRUE(back.title == u"h\u00e9llo");
    EXPECT_EQ(back.at.z, 3.f);
    Aabb boxBack;
    EXPECT_TRUE(s->Read(FourCCs::Make("box\0"), boxBack));
    EXPECT_EQ(boxBack.max.y, 5.f);
    s->Leave();
    delete s;
}

TEST(BinSerializer, SectionsAreFoundByTagAndMissingValuesReadFalse)
{
    Bytes bytes = Bin([](Serializer& s) {
        for (uint32 i = 0; i < 3; ++i)
        {
            ASSERT_TRUE(s.Enter(A));
            s.Write(FourCCs::VAL, i);
            s.Leave();
        }
        ASSERT_TRUE(s.Enter(B));
        ASSERT_TRUE(s.Enter(X));
        s.Write(FourCCs::VAL, 99u);
        s.Leave();
        s.Leave();
    });
    Serializer* s = OpenReader(bytes);
    ASSERT_NE(s, nullptr);
    // Out of order: B first, then the A siblings one after another.
    ASSERT_TRUE(s->Enter(B));
    EXPECT_FALSE(s->Enter(A)); // not a child of B
    ASSERT_TRUE(s->Enter(X));
    uint32 v = 0;
    EXPECT_FALSE(s->Read(FourCCs::NAME, v)); // the tag is not there
    EXPECT_TRUE(s->Read(FourCCs::VAL, v));
    EXPECT_EQ(v, 99u);
    EXPECT_FALSE(s->Read(FourCCs::VAL, v)); // the block is used up
    s->Leave();
    s->Leave();
    for (uint32 i = 0; i < 3; ++i)
    {
        ASSERT_TRUE(s->Enter(A));
        EXPECT_TRUE(s->Read(FourCCs::VAL, v));
        EXPECT_EQ(v, i);
        s->Leave();
    }
    delete s;
}

TEST(BinSerializer, RepeatedSectionsWithOthersBetweenAreReadInTurn)
{
    // A, X, A, X, A: each Enter(A) after a Leave takes the next A, as the
    // text form does, and only after the last one starts again at the first.
    Bytes bytes = Bin([](Serializer& s) {
        ASSERT_TRUE(s.Enter(B));
        for (uint32 i = 0; i < 3; ++i)
        {
            s.Enter(A);
            s.Write(FourCCs::VAL, i);
            s.Leave();
            if (i < 2)
            {
                s.Enter(X);
                s.Leave();
            }
        }
        s.Leave();
    });
    Serializer* s = OpenReader(bytes);
    ASSERT_NE(s, nullptr);
    ASSERT_TRUE(s->Enter(B));
    EXPECT_EQ(s->CountSections(A), 3u);
    EXPECT_EQ(s->CountSections(X), 2u);
    EXPECT_EQ(s->CountSections(FourCCs::PROP), 0u);
    for (uint32 i = 0; i < 4; ++i)
    {
        ASSERT_TRUE(s->Enter(A));
        uint32 v = 99;
        EXPECT_TRUE(s->Read(FourCCs::VAL, v));
        EXPECT_EQ(v, i % 3);
        s->Leave();
    }
    delete s;
}

TEST(BinSerializer, SizeWrittenAfterwardsLandsInItsPlace)
{
    Bytes bytes = Bin([](Serializer& s) {
        ASSERT_TRUE(s.Enter(A));
        unsigned count = 0;
        Serializer_WriteSize size(&s, count, FourCCs::PRSZ);
        ASSERT_TRUE(size.Begin());
        s.Write(FourCCs::VAL, 1.5f);
        count = 12;
        ASSERT_TRUE(size.End());
        s.Leave();
    });
    Serializer* s = OpenReader(bytes);
    ASSERT_NE(s, nullptr);
    ASSERT_TRUE(s->Enter(A));
    uint32 count = 0;
    float f = 0;
    EXPECT_TRUE(s->Read(FourCCs::PRSZ, count));
    EXPECT_TRUE(s->Read(FourCCs::VAL, f));
    EXPECT_EQ(count, 12u);
    EXPECT_EQ(f, 1.5f);
    delete s;
}

TEST(BinSerializer, HostileFilesAreRefused)
{
    Bytes good = Bin([](Serializer& s) {
        ASSERT_TRUE(s.Enter(A));
        s.Write(FourCCs::VAL, AString("payload"));
        s.Leave();
    });
    ASSERT_EQ(good.size(), 40u + 4 + 4 + 7);

    // Every truncation either refuses to open or reads nothing past its end.
    for (size_t cut = 0; cut < good.size(); ++cut)
    {
        Serializer* s = OpenReader(good.substr(0, cut));
        if (!s)
            continue;
        AString text;
        if (s->Enter(A))
            EXPECT_FALSE(s->Read(FourCCs::VAL, text)) << cut;
        delete s;
    }
    EXPECT_EQ(OpenReader("<XYZ />\n" + good.substr(8)), nullptr);

    // A child count far beyond the table, and a string length beyond the block.
    Bytes children = good;
    children[20] = char(0xFF);
    children[21] = char(0xFF);
    EXPECT_EQ(OpenReader(children), nullptr);
    Bytes length = good;
    length[44 + 3] = char(0x7F);
    Serializer* s = OpenReader(length);
    ASSERT_NE(s, nullptr);
    ASSERT_TRUE(s->Enter(A));
    AString text;
    EXPECT_FALSE(s->Read(FourCCs::VAL, text));
    delete s;

    // Blocks out of order.
    Bytes offsets = good;
    offsets[28] = 60;
    EXPECT_EQ(OpenReader(offsets), nullptr);
}

TEST(BinSerializer, StructCountIsBoundedByTheBytesBehindIt)
{
    // 100 transforms claimed, 104 bytes stored: a count that fits one byte
    // an element but not the 44 bytes a transform takes is refused before
    // anything is allocated for it.
    Bytes bytes = Bin([](Serializer& s) {
        ASSERT_TRUE(s.Enter(A));
        uint8 filler[100] = {};
        uint8* data = filler;
        s.Write(FourCCs::SKT, data, 100u);
        s.Leave();
    });
    const auto* type = static_cast<const Struct*>(Transform::StaticGetClass());
    Serializer* s = OpenReader(bytes);
    ASSERT_NE(s, nullptr);
    ASSERT_TRUE(s->Enter(A));
    void* values = nullptr;
    unsigned count = 0;
    KovexTest::AllocationScope scope;
    EXPECT_FALSE(s->Read(FourCCs::SKT, values, count, type, true));
    EXPECT_LT(scope.Bytes(), 100 * sizeof(Transform));
    EXPECT_EQ(values, nullptr);
    delete s;
}
