#include <gtest/gtest.h>

#include <locale.h>

#include <bit>
#include <cstdio>
#include <random>
#include <string>

#include "kernel/Strings.h"
#include "math/Matrix.h"
#include "math/Quaternion.h"
#include "support/AllocCounter.h"

using namespace KovexEngine;

namespace {

std::string Utf8(const WString& w)
{
    std::string out;
    for (char16_t c : w)
        out += c < 128 ? char(c) : '?';
    return out;
}

// The C library's printf in the "C" locale, whatever the process has set.
template <typename... A>
int SnprintfInC(char* out, size_t size, const char* format, A... args)
{
    static const locale_t c = newlocale(LC_ALL_MASK, "C", locale_t(0));
    locale_t previous = uselocale(c);
    int n = std::snprintf(out, size, format, args...);
    uselocale(previous);
    return n;
}

// Our formatter against the C library on formats both understand.
template <typename... A>
void ExpectSameAsSnprintf(const char* format, A... args)
{
    char expected[512];
    SnprintfInC(expected, sizeof expected, format, args...);
    AString ours;
    ours.Format(format, args...);
    EXPECT_STREQ(ours(), expected) << "format: " << format;
}

} // namespace

TEST(StringFormat, IntegersMatchTheCLibrary)
{
    ExpectSameAsSnprintf("%d|%i|%u", -17, 42, 3000000000u);
    ExpectSameAsSnprintf("[%5d][%-5d][%05d][%+d][% d]", 42, 42, 42, 42, 42);
    ExpectSameAsSnprintf("[%x][%X][%#x][%#o][%o]", 255u, 255u, 255u, 8u, 8u);
    ExpectSameAsSnprintf("[%.3d][%8.3d][%-8.3d][%08.3d]", 7, -7, 7, 7);
    ExpectSameAsSnprintf("[%.0d][%.0x][%#.0o]", 0, 0u, 0u);
    ExpectSameAsSnprintf("[%lld][%llu][%ld]", -9223372036854775807LL - 1, 18446744073709551615ULL, -5L);
    ExpectSameAsSnprintf("[%hd][%hhu][%zu]", 70000, 300, size_t(12345));
    ExpectSameAsSnprintf("[%*d][%-*d][%.*d]", 6, 1, 6, 2, 4, 3);
    ExpectSameAsSnprintf("[%d%%]", 50);
}

TEST(StringFormat, WindowsSixtyFourBitFormsAre64Bit)
{
    AString a;
    a.Format("%I64d %I64u %I32d", -1234567890123LL, 18446744073709551615ULL, -5);
    EXPECT_TRUE(a == "-1234567890123 18446744073709551615 -5");
    WString w;
    w.Format(u"%I64d", 9000000000LL);
    EXPECT_TRUE(w == u"9000000000");
}

TEST(StringFormat, FloatsMatchTheCLibrary)
{
    ExpectSameAsSnprintf("%g %g %g %g", 0.1, 1e20, 123456789.0, -0.0);
    ExpectSameAsSnprintf("[%f][%.2f][%10.3f][%-10.1f][%010.2f][%+.1f]", 3.14159, 2.5, -1.0, 7.25, -3.5, 2.0);
    ExpectSameAsSnprintf("[%e][%E][%.0e][%G][%#g]", 12345.678, 0.00012, 5.0, 1e-10, 1.0);
    ExpectSameAsSnprintf("[%f][%5f][%-6f][%06f]", 1.0 / 0.0, -1.0 / 0.0, 0.0 / 0.0, 1.0 / 0.0);
    ExpectSameAsSnprintf("%.20f", 1.0 / 3.0);
    ExpectSameAsSnprintf("%a", 1.0);
}

// Floats take a faster road than the C library's printf; it must print the
// same digits for every value, flag and precision.
TEST(StringFormat, FloatsMatchTheCLibraryAcrossValuesAndFlags)
{
    std::mt19937_64 random(12345);
    std::uniform_int_distribution<uint64> bits;
    const char* const formats[] = {"%g", "%f", "%e", "%G", "%E", "%F", "%.0g", "%.1g", "%.17g", "%.3f", "%.0f",
                                   "%.0e", "%.10e", "%+g", "% .2f", "%12.4e", "%-12g|", "%012.3g", "%+015.1f",
                                   "%#g", "%#.0f", "%.25g", "%.120f", "%a", "%.3A"};
    auto check = [&](double v) {
        for (const char* format : formats)
        {
            char expected[512];
            SnprintfInC(expected, sizeof expected, format, v);
            AString ours;
            ours.Format(format, v);
            ASSERT_STREQ(ours(), expected) << "format " << format << " of bits " << std::hex << std::bit_cast<uint64>(v);
        }
    };
    const double specials[] = {0.0, -0.0, 1.0, 0.5, 1e-320, -5e-324, 1.7976931348623157e308, 9.5, 0.05, 2.5, 1e15,
                               123456.5, 999999.5, 1e-5, 0.0001, 1.0 / 0.0, -1.0 / 0.0, 0.0 / 0.0, -(0.0 / 0.0)};
    for (double v : specials)
        check(v);
    for (int i = 0; i < 3000; ++i)
    {
        check(std::bit_cast<double>(bits(random)));
        check(double(std::bit_cast<float>(uint32(bits(random)))));
        check(double(int64(bits(random) % 2000001) - 1000000) / 1000.0);
        if (HasFailure())
            return;
    }
}

TEST(StringFormat, StringsOfBothWidths)
{
    WString w;
    w.Format(u"[%s][%S][%5s][%-5S][%.2s]", u"wide", "narrow", u"ab", "cd", u"xyz");
    EXPECT_EQ(Utf8(w), "[wide][narrow][   ab][cd   ][xy]");
    AString a;
    a.Format("[%s][%S][%ls][%hs]", "narrow", u"wide", u"l", "h");
    EXPECT_TRUE(a == "[narrow][wide][l][h]");
    // Other-width text is transcoded: UTF-8 into 16-bit and back.
    w.Format(u"%S", "\xC3\xA9\xF0\x9F\x98\x80");
    ASSERT_EQ(w.Length(), 3u);
    EXPECT_EQ(w()[0], u'\u00E9');
    EXPECT_EQ(w()[1], 0xD83D);
    EXPECT_EQ(w()[2], 0xDE00);
    a.Format("%S|%.1S|%.2S|%-4.3S|", u"\u00E9\U0001F600", u"\u00E9x", u"\u00E9x", u"\u00E9\u00E9");
    EXPECT_TRUE(a == "\xC3\xA9\xF0\x9F\x98\x80||\xC3\xA9|\xC3\xA9  |") << "no character is split";
    w.Format(u"[%.1S][%3.2S]", "\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80");
    EXPECT_TRUE(w == u"[][ \U0001F600]");
    a.Format("%s", (const char*)nullptr);
    EXPECT_TRUE(a == "(null)");
    a.Format("[%c][%3c][%-3c]", 'a', 'b', 'c');
    EXPECT_TRUE(a == "[a][  b][c  ]");
    w.Format(u"[%c][%C]", u'\u00E9', 'x');
    EXPECT_TRUE(w == u"[\u00E9][x]");
}

TEST(StringFormat, OutputIsCutAt2047OrAtTheGivenSize)
{
    std::string big(5000, 'q');
    AString a;
    a.Format("%s", big.c_str());
    EXPECT_EQ(a.Length(), 2047u);
    WString w;
    w.Format(u"%3000d", 1);
    EXPECT_EQ(w.Length(), 2047u);

    a.Format(5u, "%s", "abcdefgh");
    EXPECT_TRUE(a == "abcd");
    a.Format(4000u, "%s", big.c_str());
    EXPECT_EQ(a.Length(), 3999u);
    a.Format(100000u, "%s", big.c_str());
    EXPECT_EQ(a.Length(), 5000u) << "a large size prints all of the output";
    a.Format(0u, "%s", "x");
    EXPECT_TRUE(a.IsEmpty());
    a = "kept";
    a.Format(0x80000000u, "%s", "x");
    EXPECT_TRUE(a.IsEmpty());
}

TEST(StringFormat, HugeWidthsCostNoAllocationBeyondTheOutput)
{
    KovexTest::AllocationScope scope;
    AString a;
    a.Format(0x7FFFFFFFu, "%2147483647d", 5);
    EXPECT_TRUE(a.IsEmpty()) << "output beyond the longest string is refused, not allocated";
    a.Format("%*d|%.*s", 2000000000, 1, 2000000000, "ok");
    EXPECT_EQ(a.Length(), 2047u);
    EXPECT_LE(scope.Count(), 1u);
}

TEST(StringFormat, MalformedDirectivesPrintAsTheyStand)
{
    AString a;
    a.Format("100%");
    EXPECT_TRUE(a == "100%");
    a.Format("%y and %-");
    EXPECT_TRUE(a == "%y and %-");
    int written = 0;
    a.Format("ab%ncd", &written);
    EXPECT_TRUE(a == "abcd");
    EXPECT_EQ(written, 0) << "%n never writes";
    a.Format(nullptr);
    EXPECT_TRUE(a.IsEmpty());
}

TEST(StringFormat, AppendFormatAppends)
{
    AString a("x=");
    a.AppendFormat("%d", 5);
    a.AppendFormat(3u, "%s", "abcdef");
    EXPECT_TRUE(a == "x=5ab");
}

TEST(StringFormat, VectorsAndMatricesPrintCommaSeparated)
{
    EXPECT_TRUE(AString(Vector2(1, 2.5f)) == "1,2.5");
    EXPECT_TRUE(AString(Vector3(-1, 0, 3)) == "-1,0,3");
    EXPECT_TRUE(AString(Vector4(1, 2, 3, 4)) == "1,2,3,4");
    EXPECT_TRUE(AString(Quaternion(0, 0, 0, 1)) == "0,0,0,1");
    EXPECT_TRUE(WString(Matrix2(1, 2, 3, 4)) == u"1,2,3,4");
    EXPECT_TRUE(AString(Matrix3()) == "1,0,0,0,1,0,0,0,1");
    EXPECT_TRUE(AString(Matrix4()) == "1,0,0,0,0,1,0,0,0,0,1,0,0,0,0,1");
    EXPECT_TRUE(AString(Vector2(-1.23456789e-30f, -9.87654321e+30f)) == "-1.23457e-30,-9.87654e+30");
}
