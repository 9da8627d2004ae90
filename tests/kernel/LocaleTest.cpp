#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "kernel/Strings.h"
#include "math/Matrix.h"
#include "support/DecimalCommaLocale.h"

using namespace KovexEngine;
using KovexTest::DecimalCommaLocale;

// An application on a German desktop: its toolkit sets the user's locale,
// and the engine's text must not notice. The CTest "decimal_comma_suites"
// run repeats the string, parsing and serializer suites the same way.

#define ENTER_DECIMAL_COMMA(guard)                                              \
    DecimalCommaLocale guard;                                                   \
    if (!guard.error.empty())                                                   \
        GTEST_SKIP() << "no decimal-comma locale to test under: " << guard.error

TEST(Locale, NumbersPrintInTheCConventions)
{
    ENTER_DECIMAL_COMMA(locale);
    char probe[16];
    std::snprintf(probe, sizeof probe, "%g", 0.5);
    ASSERT_STREQ(probe, "0,5") << "the locale really writes a decimal comma";

    AString a;
    a.Format("%f %g", 0.5, 1.25);
    EXPECT_STREQ(a(), "0.500000 1.25");
    a.Format("[%e][%+08.3f][%#g][%-7.2G|][%a]", 1234.5, -2.5, 3.0, 1e-7, 0.5);
    EXPECT_STREQ(a(), "[1.234500e+03][-002.500][3.00000][1E-07  |][0x1p-1]");
    WString w;
    w.Format(u"%.2f;%g", 0.25, -7.75);
    EXPECT_TRUE(w == u"0.25;-7.75");

    EXPECT_STREQ(AString(0.5f)(), "0.5");
    EXPECT_STREQ(AString(2.75)(), "2.75");
    EXPECT_STREQ(AString(Vector3(1.5f, -2.25f, 3.f))(), "1.5,-2.25,3");
    EXPECT_TRUE(WString(Vector2(0.125f, 4.5f)) == u"0.125,4.5");
}

TEST(Locale, NumbersParseInTheCConventions)
{
    ENTER_DECIMAL_COMMA(locale);
    float f = 0;
    EXPECT_TRUE(AString("1.5").AsValue(f));
    EXPECT_EQ(f, 1.5f);
    double d = 0;
    EXPECT_TRUE(WString(u"-2.125e2").AsValue(d));
    EXPECT_EQ(d, -212.5);
    EXPECT_EQ(AString("0.75").AsFloat(), 0.75f);
    EXPECT_EQ(WString(u"3.5f").AsDouble(), 3.5);
    Vector3 v;
    EXPECT_TRUE(AString("1.5, 2.25,-3.75").AsValue(v));
    EXPECT_EQ(v, Vector3(1.5f, 2.25f, -3.75f));
    // What the locale would write is not a number to the engine.
    EXPECT_FALSE(AString("1,5").AsValue(f));
    EXPECT_EQ(f, 1.5f);

    // Round trip of text the engine wrote.
    Matrix3 m;
    for (unsigned i = 0; i < 9; ++i)
        m.Data()[i] = 0.1f * float(i) - 0.35f;
    Matrix3 back;
    ASSERT_TRUE(AString(m).AsValue(back));
    for (unsigned i = 0; i < 9; ++i)
        EXPECT_NEAR(back.Data()[i], m.Data()[i], 1e-6f);
}

TEST(Locale, CaseFoldsAsTheCLocaleDoes)
{
    ENTER_DECIMAL_COMMA(locale);
    WString w(u"\u00C4rger ABC");
    w.ToLower();
    EXPECT_TRUE(w == u"\u00C4rger abc") << "only ASCII letters fold, as in the C locale";
    w.ToUpper();
    EXPECT_TRUE(w == u"\u00C4RGER ABC");
    EXPECT_NE(WString(u"\u00C4").CompareNoCase(u"\u00E4"), 0);
    EXPECT_EQ(WString(u"Data/File").CompareNoCase(u"DATA/file"), 0);
    AString a("\xC4x");  // Latin-1 text is bytes, never letters
    a.ToLower();
    EXPECT_STREQ(a(), "\xC4x");
}

// Number text is made and read on loader and worker threads too; the "C"
// locale is switched per thread for the forms that need the C library.
TEST(Locale, ThreadsFormatAndParseAtOnce)
{
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t, &wrong] {
            for (int i = 0; i < kRounds; ++i)
            {
                double value = double(t * kRounds + i) + 0.5;
                AString text;
                text.Format("%#.1f|%a|%g", value, 0.5, value);
                AString expected;
                expected.Format("%d.5|0x1p-1|", t * kRounds + i);
                double back = 0;
                AString tail = text.SubString(expected.Length());
                if (!text.StartsWith(expected()) || !tail.AsValue(back) || back != value)
                    ++wrong;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong.load(), 0);
}
