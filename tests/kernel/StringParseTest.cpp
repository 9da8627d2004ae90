#include <gtest/gtest.h>

#include "kernel/Strings.h"
#include "math/Matrix.h"
#include "math/Quaternion.h"

using namespace KovexEngine;

TEST(StringParse, ValidityChecksAreMembershipOnly)
{
    EXPECT_TRUE(AString("").IsValidInt());
    EXPECT_TRUE(AString("+-1").IsValidInt());
    EXPECT_TRUE(AString(" -12").IsValidInt());
    EXPECT_FALSE(AString("12a").IsValidInt());
    EXPECT_TRUE(AString("0x1F").IsValidIntHex());
    EXPECT_FALSE(AString("0x1G").IsValidIntHex());
    EXPECT_TRUE(AString("1.5f").IsValidFloat());
    EXPECT_FALSE(AString("1f5").IsValidFloat());
    EXPECT_TRUE(AString("-1.5e3").IsValidFloat());
    EXPECT_FALSE(AString("1.5E3").IsValidFloat()) << "only a lower-case e is in the set";
    EXPECT_TRUE(AString("1, 2,3").IsValidVector());
    EXPECT_FALSE(WString(u"1\u0131").IsValidInt()) << "16-bit characters belong to no set";
}

TEST(StringParse, RemoveFloatPostfix)
{
    AString a("1.f");
    a.RemoveFloatPostfix();
    EXPECT_TRUE(a == "1.0");
    a = "1.5f";
    a.RemoveFloatPostfix();
    EXPECT_TRUE(a == "1.5");
    a = "1f";
    a.RemoveFloatPostfix();
    EXPECT_TRUE(a == "1f");
}

TEST(StringParse, NumbersReadLikeTheCLibrary)
{
    EXPECT_EQ(AString("  -42xyz").AsInt(), -42);
    EXPECT_EQ(AString("99999999999").AsInt(), 2147483647) << "saturates instead of wrapping";
    EXPECT_EQ(AString("-1").AsUInt(), 0xFFFFFFFFu);
    EXPECT_EQ(AString("ff").AsIntHex(), 255);
    EXPECT_EQ(AString("0xFFFFFFFF").AsUIntHex(), 0xFFFFFFFFu);
    EXPECT_FLOAT_EQ(AString("2.5f").AsFloat(), 2.5f);
    EXPECT_EQ(AString("garbage").AsInt(), 0);
    EXPECT_EQ(WString(u"  123").AsInt(), 123);
    EXPECT_FLOAT_EQ(WString(u"-0.25").AsFloat(), -0.25f);
    EXPECT_EQ(WString(u"12\u00E934").AsInt(), 12);
}

TEST(StringParse, AsValueChecksFirstAndLeavesOutUntouchedOnFailure)
{
    int32 i = 7;
    EXPECT_TRUE(AString("-15").AsValue(i));
    EXPECT_EQ(i, -15);
    EXPECT_TRUE(AString("1f").AsValue(i)) << "not decimal, but hexadecimal";
    EXPECT_EQ(i, 31);
    i = 7;
    EXPECT_FALSE(AString("12z").AsValue(i));
    EXPECT_EQ(i, 7);
    uint8 b = 0;
    EXPECT_TRUE(AString("200").AsValue(b));
    EXPECT_EQ(b, 200);
    int64 big = 0;
    EXPECT_TRUE(WString(u"-9000000000").AsValue(big));
    EXPECT_EQ(big, -9000000000LL);
    uint64 ubig = 0;
    EXPECT_TRUE(AString("18446744073709551615").AsValue(ubig));
    EXPECT_EQ(ubig, 18446744073709551615ULL);
    float f = 1;
    EXPECT_FALSE(AString("abc").AsValue(f));
    EXPECT_EQ(f, 1.0f);
    double d = 0;
    EXPECT_TRUE(AString("0.125").AsValue(d));
    EXPECT_EQ(d, 0.125);
}

TEST(StringParse, AsValueOfVectorsAndMatrices)
{
    Vector3 v;
    EXPECT_TRUE(AString("1, 2,3").AsValue(v));
    EXPECT_EQ(v, Vector3(1, 2, 3));
    EXPECT_FALSE(AString("1,2").AsValue(v));
    EXPECT_TRUE(AString("4 5\t6,7").AsValue(v)) << "extra tokens are ignored";
    EXPECT_EQ(v, Vector3(4, 5, 6));
    // A failure at a later component leaves the earlier ones written.
    Vector3 partial(0, 0, 0);
    EXPECT_FALSE(AString("9,x,9").AsValue(partial));
    EXPECT_EQ(partial.x, 9.0f);
    EXPECT_EQ(partial.y, 0.0f);

    Quaternion q;
    EXPECT_TRUE(WString(u"0,0,1,0").AsValue(q));
    EXPECT_EQ(q, Quaternion(0, 0, 1, 0));
    Matrix4 m;
    EXPECT_TRUE(AString(Matrix4::Translate(Vector3(1, 2, 3))).AsValue(m));
    EXPECT_EQ(m, Matrix4::Translate(Vector3(1, 2, 3)));
    Matrix3 m3;
    EXPECT_FALSE(AString("1,2,3,4,5,6,7,8").AsValue(m3));
    Vector2 v2;
    EXPECT_TRUE(AString("1.5f,2").AsValue(v2));
    EXPECT_EQ(v2, Vector2(1.5f, 2));
}

TEST(StringParse, BoolWordsIgnoreCase)
{
    EXPECT_TRUE(AString("TRUE").AsBool());
    EXPECT_TRUE(WString(u"True").AsBool());
    EXPECT_FALSE(AString("false").AsBool());
    EXPECT_FALSE(AString("yes").AsBool());
    EXPECT_TRUE(AString("FaLsE").IsValidBool());
    EXPECT_FALSE(AString("1").IsValidBool());
    EXPECT_FALSE(AString("truee").IsValidBool());
    bool b = true;
    EXPECT_TRUE(AString("nonsense").AsValue(b));
    EXPECT_FALSE(b);
}
