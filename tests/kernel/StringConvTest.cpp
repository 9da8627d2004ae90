#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "kernel/StringConv.h"

using namespace KovexEngine;

namespace {

std::vector<char16_t> ToUtf16(const char* utf8)
{
    unsigned n = StringConvFuncs::GetUTF8toUTF16Length(utf8);
    std::vector<char16_t> out(n + 1, 0xCCCC);
    EXPECT_EQ(StringConvFuncs::UTF8toUTF16(out.data(), utf8), n) << "the length sizes the buffer exactly";
    EXPECT_EQ(out[n], 0);
    out.pop_back();
    return out;
}

std::string ToUtf8(const char16_t* utf16)
{
    unsigned n = StringConvFuncs::GetUTF16toUTF8Length(utf16);
    std::string out(n + 1, '\xCC');
    EXPECT_EQ(StringConvFuncs::UTF16toUTF8(out.data(), utf16), n);
    EXPECT_EQ(out[n], 0);
    out.pop_back();
    return out;
}

} // namespace

TEST(StringConv, KnownSequencesRoundTrip)
{
    EXPECT_EQ(ToUtf16("A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"),
              (std::vector<char16_t>{u'A', 0x00E9, 0x20AC, 0xD83D, 0xDE00}));
    EXPECT_EQ(ToUtf8(u"A\u00E9\u20AC\U0001F600"), "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
    EXPECT_EQ(ToUtf8(u"\U0010FFFF"), "\xF4\x8F\xBF\xBF");
    EXPECT_EQ(ToUtf16("\xF4\x8F\xBF\xBF"), (std::vector<char16_t>{0xDBFF, 0xDFFF}));
    // Long ASCII runs take the word-at-a-time path.
    std::string ascii(1000, 'k');
    ascii += "\xC3\xA9";
    auto wide = ToUtf16(ascii.c_str());
    ASSERT_EQ(wide.size(), 1001u);
    EXPECT_EQ(wide[1000], 0x00E9);
    wide.push_back(0);
    EXPECT_EQ(ToUtf8(wide.data()), ascii);
}

TEST(StringConv, InvalidUtf8IsDroppedByTheRules)
{
    EXPECT_EQ(ToUtf16("a\x80" "b"), (std::vector<char16_t>{u'a', u'b'})) << "stray continuation byte";
    EXPECT_EQ(ToUtf16("a\xFF\xFE" "b"), (std::vector<char16_t>{u'a', u'b'}));
    EXPECT_EQ(ToUtf16("\xC3" "Ab"), (std::vector<char16_t>{u'b'})) << "the interrupting byte goes too";
    EXPECT_EQ(ToUtf16("x\xE2\x82"), (std::vector<char16_t>{u'x'})) << "truncated at the end";
    // Overlong forms are not rejected: they decode to their value.
    EXPECT_EQ(ToUtf16("\xC0\xAF"), (std::vector<char16_t>{u'/'}));
    EXPECT_EQ(ToUtf16("\xE0\x80\x80"), (std::vector<char16_t>{0}));
    // Five- and six-byte forms decode; values of 0x110000 and above are dropped.
    EXPECT_EQ(ToUtf16("\xF8\x80\x80\x81\x81"), (std::vector<char16_t>{u'A'}));
    EXPECT_EQ(ToUtf16("\xF4\x90\x80\x80z"), (std::vector<char16_t>{u'z'}));
    EXPECT_EQ(ToUtf16("\xFD\xBF\xBF\xBF\xBF\xBF"), (std::vector<char16_t>{}));
    // An encoded surrogate is one unit, as it stands.
    EXPECT_EQ(ToUtf16("\xED\xA0\x80"), (std::vector<char16_t>{0xD800}));
}

TEST(StringConv, InvalidUtf16IsDroppedByTheRules)
{
    const char16_t loneHighThenA[] = {0xD800, u'A', u'B', 0};
    EXPECT_EQ(ToUtf8(loneHighThenA), "B") << "a broken pair drops the next unit too";
    const char16_t strayLow[] = {u'a', 0xDC00, u'b', 0};
    EXPECT_EQ(ToUtf8(strayLow), "ab");
    const char16_t highAtEnd[] = {u'a', 0xDBFF, 0};
    EXPECT_EQ(ToUtf8(highAtEnd), "a");
}

TEST(StringConv, NullsAndStrings)
{
    EXPECT_EQ(StringConvFuncs::GetUTF8toUTF16Length(nullptr), 0u);
    char16_t buffer[4] = {1, 1, 1, 1};
    EXPECT_EQ(StringConvFuncs::UTF8toUTF16(buffer, nullptr), 0u);
    EXPECT_EQ(buffer[0], 0);
    EXPECT_EQ(StringConvFuncs::UTF8toUTF16(nullptr, "x"), 0u);
    EXPECT_EQ(_Op_8to16::Exec(nullptr, "\xC3\xA9x"), 2u);
    EXPECT_EQ(_Op_16to8::Exec(nullptr, u"\u00E9x"), 3u);
    EXPECT_EQ(_Op_MBSto16::Exec(buffer, "ok"), 2u);
    EXPECT_EQ(buffer[1], u'k');

    WString w = StringConvFuncs::ToWString("Grüße, 世界");
    EXPECT_TRUE(w == u"Grüße, 世界");
    AString a = StringConvFuncs::ToAString(w());
    EXPECT_TRUE(a == "Grüße, 世界");
    AString embedded;
    const char16_t withZero[] = {u'a', 0, u'b'};
    StringConvFuncs::UTF16toUTF8(embedded, withZero, 3);
    EXPECT_EQ(embedded.Length(), 3u);
}
