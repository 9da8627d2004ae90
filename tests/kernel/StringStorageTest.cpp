#include <gtest/gtest.h>

#include "kernel/Strings.h"
#include "support/AllocCounter.h"

using namespace KovexEngine;
using KovexTest::AllocationScope;

TEST(StringStorage, ShortTextsStayInlineAndNeverAllocate)
{
    AllocationScope scope;
    {
        WString w(u"elevenchars");            // 11 characters, the inline maximum
        AString a("twenty-three characters");  // 23 characters
        EXPECT_EQ(w.Length(), 11u);
        EXPECT_EQ(a.Length(), 23u);
        EXPECT_EQ(w.HeapLen(), 0u);
        EXPECT_EQ(a.HeapLen(), 0u);
        WString copy(w);
        copy.Append(u"");
        copy = w;
        AString number(123456789);
        a.Set(1.5f);
        a.Append("x");
        EXPECT_EQ(a.HeapLen(), 0u);
        w.Format(u"%d-%s", 42, u"ab");
        EXPECT_TRUE(w == u"42-ab");
    }
    EXPECT_EQ(scope.Count(), 0u);

    // The counter itself sees the block of a longer text.
    AllocationScope heap;
    AString longer("twenty-four characters!!");
    EXPECT_GE(heap.Count(), 1u);
}

TEST(StringStorage, AppendGrowthFollowsTheCapacityRule)
{
    WString w(u"elevenchars");
    w.Append(u'!');
    EXPECT_EQ(w.Length(), 12u);
    EXPECT_EQ(w.HeapLen(), 18u); // 12 + 12 / 2
    EXPECT_TRUE(w == u"elevenchars!");

    // Within the block: reused.
    w.Append(u"abcde");
    EXPECT_EQ(w.HeapLen(), 18u);
    EXPECT_EQ(w.Length(), 17u);
    // Reaching the capacity grows by half again.
    w.Append(u'Z');
    EXPECT_EQ(w.Length(), 18u);
    EXPECT_EQ(w.HeapLen(), 27u);
    EXPECT_TRUE(w == u"elevenchars!abcdeZ");

    AString a("0123456789012345678901"); // 22
    a.Append('x');                      // 23: still inline
    EXPECT_EQ(a.HeapLen(), 0u);
    a.Append('y');                      // 24 moves to the heap
    EXPECT_EQ(a.HeapLen(), 36u);
}

TEST(StringStorage, SetTakesAnExactBlockOrReusesOne)
{
    AString a;
    a.Set("this text is longer than the inline buffer", 30);
    EXPECT_EQ(a.HeapLen(), 31u);
    EXPECT_EQ(a.Length(), 30u);
    a.Set("short");
    EXPECT_EQ(a.HeapLen(), 31u) << "a shorter text reuses the block";
    EXPECT_TRUE(a == "short");
    a.Set("exactly thirty characters long", 30);
    EXPECT_EQ(a.HeapLen(), 31u);
    a.Set("thirty-one characters long text", 31);
    EXPECT_EQ(a.HeapLen(), 32u);
    a.Set(nullptr, 0);
    EXPECT_EQ(a.HeapLen(), 0u);
    EXPECT_TRUE(a.IsEmpty());
    EXPECT_EQ(a()[0], 0);
}

TEST(StringStorage, ReserveRespectsInlineSizeAndNeverShrinks)
{
    WString w;
    EXPECT_TRUE(w.Reserve(11));
    EXPECT_EQ(w.HeapLen(), 0u);
    EXPECT_TRUE(w.Reserve(12));
    EXPECT_EQ(w.HeapLen(), 13u);
    EXPECT_TRUE(w.Reserve(5));
    EXPECT_EQ(w.HeapLen(), 13u);

    AString a("keep me");
    a.Reserve(100);
    EXPECT_EQ(a.HeapLen(), 101u);
    EXPECT_TRUE(a == "keep me");
}

TEST(StringStorage, AbsurdSizesFailWithoutAllocating)
{
    AllocationScope scope;
    AString a("intact");
    EXPECT_FALSE(a.Reserve(0xFFFFFFFFu));
    EXPECT_FALSE(a.Reserve(0xFFFFFFFEu));
    EXPECT_FALSE(a.SetLength(0xFFFFFFFFu));
    EXPECT_TRUE(a == "intact");
    WString w(u"intact");
    EXPECT_FALSE(w.Reserve(0x80000000u));
    EXPECT_TRUE(w == u"intact");
    EXPECT_EQ(scope.Count(), 0u);
}

TEST(StringStorage, SetLengthTerminatesAndTerminateAtIndexCuts)
{
    AString a("abcdef");
    a.SetLength(3);
    EXPECT_TRUE(a == "abc");
    a.SetLength(30);
    EXPECT_EQ(a.Length(), 30u);
    EXPECT_EQ(a()[30], 0);
    EXPECT_EQ(a.HeapLen(), 31u);
    a.TerminateAtIndex(2);
    EXPECT_TRUE(a == "ab");
    EXPECT_EQ(a.HeapLen(), 31u) << "cutting keeps the block";
    a.TerminateAtIndex(10);
    EXPECT_TRUE(a == "ab");
    a.Clear();
    EXPECT_EQ(a.HeapLen(), 0u);
    EXPECT_TRUE(a.IsEmpty());
}

TEST(StringStorage, SwapExchangesEveryCombination)
{
    AString inlineA("small"), heapA("a heap string that is long enough");
    AString inlineB("tiny"), heapB("another heap string, long enough too");
    inlineA.Swap(heapA);
    EXPECT_TRUE(inlineA == "a heap string that is long enough");
    EXPECT_TRUE(heapA == "small");
    EXPECT_EQ(heapA.HeapLen(), 0u);
    inlineA.Swap(heapB);
    EXPECT_TRUE(inlineA == "another heap string, long enough too");
    EXPECT_TRUE(heapB == "a heap string that is long enough");
    heapA.Swap(inlineB);
    EXPECT_TRUE(heapA == "tiny");
    EXPECT_TRUE(inlineB == "small");
}

TEST(StringStorage, SelfReferencingSetAndAppendAreSafe)
{
    AString a("a string long enough to live on the heap");
    a.Append(a(), a.Length());
    EXPECT_TRUE(a == "a string long enough to live on the heapa string long enough to live on the heap");
    a.Set(a() + 2, 6);
    EXPECT_TRUE(a == "string");
    WString w(u"abc");
    w.Append(w);
    w.Append(w);
    EXPECT_TRUE(w == u"abcabcabcabc");
    w.Append(w);
    EXPECT_TRUE(w == u"abcabcabcabcabcabcabcabc");
    w = w;
    EXPECT_EQ(w.Length(), 24u);
}

TEST(StringStorage, MoveLeavesTheSourceEmpty)
{
    AString a("a heap string that is long enough");
    AString b(std::move(a));
    EXPECT_TRUE(b == "a heap string that is long enough");
    EXPECT_TRUE(a.IsEmpty());
    a = std::move(b);
    EXPECT_TRUE(a == "a heap string that is long enough");
}

TEST(StringStorage, ValueConstructorsPrintByTheirFormats)
{
    EXPECT_TRUE(AString(true) == "true");
    EXPECT_TRUE(AString(false) == "false");
    EXPECT_TRUE(AString(-42) == "-42");
    EXPECT_TRUE(AString(4000000000u) == "4000000000");
    EXPECT_TRUE(AString(-9000000000000000000LL) == "-9000000000000000000");
    EXPECT_TRUE(AString(18000000000000000000ULL) == "18000000000000000000");
    EXPECT_TRUE(AString(0.1f) == "0.1");
    EXPECT_TRUE(AString(1e20) == "1e+20");
    EXPECT_TRUE(WString(u'x') == u"x");
    AString a;
    a.Append(7);
    a.Append(',');
    a.AppendBool(true);
    EXPECT_TRUE(a == "7,true");
}

TEST(StringStorage, HashCodeMatchesItsDefinition)
{
    EXPECT_EQ(AString().HashCode(), 0u);
    EXPECT_EQ(WString().HashCode(), 0u);
    // Reference: h = (h + c) * 1025; h ^= h >> 6; then h *= 9; h ^= h >> 11;
    // (h * 32769) & 0x7FFFFFFF.
    auto reference = [](const char* s) {
        uint32_t h = 0;
        for (; *s; ++s)
        {
            h = (h + uint32_t(int32_t(static_cast<signed char>(*s)))) * 1025u;
            h ^= h >> 6;
        }
        h *= 9u;
        h ^= h >> 11;
        return (h * 32769u) & 0x7FFFFFFFu;
    };
    EXPECT_EQ(AString("Diffuse").HashCode(), reference("Diffuse"));
    EXPECT_EQ(WString(u"Diffuse").HashCode(), reference("Diffuse"));
    // 8-bit characters above 127 hash as negative values; 16-bit ones do not.
    EXPECT_EQ(AString("\xE9t\xE9").HashCode(), reference("\xE9t\xE9"));
    EXPECT_NE(AString("\xE9").HashCode(), WString(u"\u00E9").HashCode());
    for (const char* s : {"a", "zz", "\xFF\xFF\xFF\xFF", "long text to hash with many characters"})
        EXPECT_EQ(AString(s).HashCode() & 0x80000000u, 0u);
}

TEST(StringStorage, ComparisonIsByUnsignedValue)
{
    EXPECT_LT(AString("a").Compare("\xE9"), 0) << "0xE9 is above 'a' as an unsigned byte";
    EXPECT_TRUE(AString("abc") < AString("abd"));
    EXPECT_TRUE(AString("ab") < AString("abc"));
    EXPECT_FALSE(AString("abc") < AString("abc"));
    EXPECT_TRUE(WString(u"z") < WString(u"\u00E9"));
    EXPECT_EQ(AString("MiXeD").CompareNoCase("mixed"), 0);
    EXPECT_EQ(AString("abc").Compare("abc"), 0);
    EXPECT_GT(AString("abc").Compare("ab"), 0);
    EXPECT_LT(AString("ab").Compare("abc"), 0);
}
