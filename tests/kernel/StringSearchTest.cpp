#include <gtest/gtest.h>

#include "kernel/Containers.h"
#include "kernel/Strings.h"

using namespace KovexEngine;

TEST(StringSearch, IndexOfAndLastIndexOf)
{
    AString s("abcabc");
    EXPECT_EQ(s.IndexOf("bc"), 1u);
    EXPECT_EQ(s.IndexOf("bc", kNotFound, 2), 4u);
    EXPECT_EQ(s.IndexOf("bcx", 2, 0), 1u) << "only `length` characters are compared";
    EXPECT_EQ(s.IndexOf("cab", kNotFound, 6), kNotFound);
    EXPECT_EQ(s.IndexOf("abcabcd"), kNotFound);
    EXPECT_EQ(s.IndexOf(static_cast<const char*>(nullptr)), kNotFound);
    EXPECT_EQ(AString().IndexOf(""), kNotFound) << "an empty receiver finds nothing, not even empty text";
    EXPECT_EQ(s.IndexOf('c', 3), 5u);
    EXPECT_EQ(s.LastIndexOf("abc"), 3u);
    EXPECT_EQ(s.LastIndexOf("abc", kNotFound, 2), 0u);
    EXPECT_EQ(s.LastIndexOf("abc", kNotFound, 100), 3u) << "a start with too little room means the last position";
    EXPECT_EQ(s.LastIndexOf('a'), 3u);
    EXPECT_EQ(s.LastIndexOf('a', 2), 0u);
    EXPECT_EQ(s.LastIndexOf("zz"), kNotFound);
    EXPECT_EQ(WString(u"x\u00E9y\u00E9").LastIndexOf(u'\u00E9'), 3u);
}

TEST(StringSearch, WholeWordSearchNeedsSeparatorsAround)
{
    AString s("Color BaseColor Color_2 Color");
    EXPECT_EQ(s.IndexOfMWW("Color", kNotFound, 0, " "), 0u);
    EXPECT_EQ(s.IndexOfMWW("Color", kNotFound, 1, " "), 24u);
    EXPECT_EQ(s.IndexOfMWW("Base", kNotFound, 0, " "), kNotFound);
    WString w(u"a\u0100b b");
    EXPECT_EQ(w.IndexOfMWW(u"b", kNotFound, 0, " \u00FF"), 4u) << "a neighbour above 255 disqualifies";
    AString r("int x = max(x, xx);");
    EXPECT_TRUE(r.ReplaceMWW("x", "y", " (),;="));
    EXPECT_TRUE(r == "int y = max(y, xx);");
}

TEST(StringSearch, SubStringOutOfRangeIsEmpty)
{
    AString s("hello world");
    EXPECT_TRUE(s.SubString(6) == "world");
    EXPECT_TRUE(s.SubString(0, 5) == "hello");
    EXPECT_TRUE(s.SubString(6, 6).IsEmpty());
    EXPECT_TRUE(s.SubString(12).IsEmpty());
    EXPECT_TRUE(s.SubString(11).IsEmpty());
    AString self("abcdef");
    self.SubString(self, 2, 3);
    EXPECT_TRUE(self == "cde");
}

TEST(StringSearch, Replacements)
{
    AString s("a.b.c.d");
    EXPECT_TRUE(s.Replace(".", "::", 2));
    EXPECT_TRUE(s == "a::b::c.d");
    EXPECT_FALSE(s.Replace("", "x"));
    EXPECT_FALSE(s.Replace(".", "x", 0));
    EXPECT_FALSE(s.Replace("zz", "x"));
    EXPECT_TRUE(s == "a::b::c.d");
    AString all("xx");
    EXPECT_TRUE(all.Replace("x", ""));
    EXPECT_TRUE(all.IsEmpty()) << "replacing everything by nothing is a change";

    AString p("f(X)");
    const char* pieces[] = {"[", "X", "]"};
    EXPECT_TRUE(p.Replace("X", pieces, 3));
    EXPECT_TRUE(p == "f([X])");

    AString spans("keep <a> and <bb> but not <open");
    EXPECT_TRUE(spans.Replace('<', '>', "#"));
    EXPECT_TRUE(spans == "keep # and # but not <open");

    AString chars("a-b_c");
    EXPECT_TRUE(chars.Replace("-_", ' '));
    EXPECT_TRUE(chars == "a b c");
    EXPECT_TRUE(chars.Replace(' ', '+'));
    EXPECT_FALSE(chars.Replace('?', '!'));
}

TEST(StringSearch, TokensForwardAndBackward)
{
    AString s("  alpha beta  gamma ");
    AString out;
    unsigned position = 0;
    EXPECT_TRUE(s.GetToken(out, position, 4, " "));
    EXPECT_TRUE(out == "alpha");
    EXPECT_EQ(position, 2u);
    EXPECT_TRUE(s.GetToken(out, position, 0, " ")) << "separators are skipped forwards first";
    EXPECT_TRUE(out == "alpha");
    EXPECT_FALSE(s.GetToken(out, position, 19, " "));
    EXPECT_TRUE(s.GetNextToken(out, position, 3, " "));
    EXPECT_TRUE(out == "beta");
    EXPECT_EQ(position, 8u);
    EXPECT_FALSE(s.GetNextToken(out, position, 14, " "));
    EXPECT_TRUE(s.GetLastToken(out, position, 15, " "));
    EXPECT_TRUE(out == "beta");
    EXPECT_TRUE(s.GetLastToken(out, position, 9, " "));
    EXPECT_TRUE(out == "alpha");
    EXPECT_FALSE(s.GetLastToken(out, position, 3, " "));

    TArray<AString> tokens;
    EXPECT_EQ(AString(",a,,b c,").GetTokens(tokens, ", "), 3u);
    ASSERT_EQ(tokens.Count(), 3u);
    EXPECT_TRUE(tokens[1] == "b");
    EXPECT_EQ(AString("x;y").Split(";", tokens), 2u) << "Split appends";
    EXPECT_EQ(tokens.Count(), 5u);
    EXPECT_EQ(AString().Split(";", tokens), 0u);
    AString joined("=");
    joined.Concatenate(tokens, "|");
    EXPECT_TRUE(joined == "=a|b|c|x|y");
    EXPECT_EQ(AString("a b").GetTokens(tokens, " "), 2u) << "GetTokens empties the array first";
}

TEST(StringSearch, FunctionParametersRespectBrackets)
{
    TArray<AString> params;
    AString("a(b,c),[d,e],f").GetFuncParams(params);
    ASSERT_EQ(params.Count(), 3u);
    EXPECT_TRUE(params[0] == "a(b,c)");
    EXPECT_TRUE(params[1] == "[d,e]");
    EXPECT_TRUE(params[2] == "f");
    AString("x,,{y,(z,w)},").GetFuncParams(params);
    ASSERT_EQ(params.Count(), 2u) << "empty parameters are dropped";
    EXPECT_TRUE(params[1] == "{y,(z,w)}");
    AString("ab").GetFuncParams(params, 1, 5);
    EXPECT_EQ(params.Count(), 0u);
    AString("p,q,r").GetFuncParams(params, 2, 3);
    ASSERT_EQ(params.Count(), 2u);
    EXPECT_TRUE(params[0] == "q");
}

TEST(StringSearch, BlocksNest)
{
    AString s("f(a(b)c)d(e)");
    unsigned start = 0, length = 0;
    EXPECT_TRUE(s.GetBlock(start, length, '(', ')'));
    EXPECT_EQ(start, 2u);
    EXPECT_EQ(length, 5u);
    AString out;
    EXPECT_TRUE(s.GetBlock(out, '(', ')', 8));
    EXPECT_TRUE(out == "e");
    EXPECT_FALSE(AString("f(a(b)").GetBlock(out, '(', ')'));
    EXPECT_FALSE(s.GetBlock(out, 0, ')'));
    EXPECT_FALSE(s.GetBlock(out, '[', ']'));
}

TEST(StringSearch, AttributesLinesAndAffixes)
{
    AString meta("Category=Vector;Display=Position;");
    AString out;
    EXPECT_TRUE(meta.GetAttribute(out, "Display"));
    EXPECT_TRUE(out == "Position");
    EXPECT_TRUE(meta.GetAttribute(out, "Category"));
    EXPECT_TRUE(out == "Vector");
    EXPECT_FALSE(meta.GetAttribute(out, "Disp"));

    AString text("one\r\n\ntwo");
    unsigned position = 0;
    EXPECT_TRUE(text.GetLine(out, position, 0));
    EXPECT_TRUE(out == "one\r") << "a carriage return stays in the line";
    EXPECT_EQ(position, 5u);
    EXPECT_TRUE(text.GetLine(out, position, position));
    EXPECT_TRUE(out.IsEmpty());
    EXPECT_TRUE(text.GetLine(out, position, position));
    EXPECT_TRUE(out == "two");
    EXPECT_EQ(position, 9u);
    EXPECT_FALSE(text.GetLine(out, position, position));
    EXPECT_TRUE(text.GetLinePos(position, 0));
    EXPECT_EQ(position, 5u);

    EXPECT_TRUE(AString("<<inner>>").ExtractString(out, "<<", ">>"));
    EXPECT_TRUE(out == "inner");
    EXPECT_FALSE(AString("<<inner>>x").ExtractString(out, "<<", ">>"));
    EXPECT_TRUE(AString("abc").ExtractString(out, "", ""));
    EXPECT_TRUE(out == "abc");
    EXPECT_FALSE(AString("<>").ExtractString(out, "<>", ">"));
    EXPECT_TRUE(AString("123").CheckAll("0123456789"));
    EXPECT_TRUE(AString().CheckAll("x"));
    EXPECT_FALSE(AString("12a").CheckAll("0123456789"));
}

TEST(StringSearch, Removal)
{
    AString s("0123456789");
    s.Remove(2, 3);
    EXPECT_TRUE(s == "0156789");
    s.Remove(5, 10);
    EXPECT_TRUE(s == "0156789") << "a range beyond the end does nothing";
    s.Remove(5);
    EXPECT_TRUE(s == "01567");
    AString ws(" \t a b \r\n");
    AString copy(ws);
    copy.RemoveNRT();
    EXPECT_TRUE(copy == "ab");
    copy = ws;
    copy.RemoveEndNRT();
    EXPECT_TRUE(copy == " \t a b");
    copy = ws;
    copy.RemoveBeginEndNRT();
    EXPECT_TRUE(copy == "a b");
    copy = "--x--";
    copy.RemoveBeginEnd("-");
    EXPECT_TRUE(copy == "x");
    copy = "----";
    copy.RemoveBeginEnd("-");
    EXPECT_TRUE(copy.IsEmpty());
}

TEST(StringSearch, CommentsAreRemovedLineCommentsFirst)
{
    AString code("a // one\nb /* two\nthree */ c\n// tail");
    code.RemoveComment();
    EXPECT_TRUE(code == "a b  c\n");
    AString open("x /* never closed");
    open.RemoveComment();
    EXPECT_TRUE(open == "x ");
    // A line comment inside a block comment goes first, with its line feed,
    // so the block then swallows what follows.
    AString nested("/* a // b */\nc */ d");
    nested.RemoveComment();
    EXPECT_TRUE(nested == " d");
}

TEST(StringSearch, Case)
{
    AString s("Hello World");
    s.ToUpper();
    EXPECT_TRUE(s == "HELLO WORLD");
    s.ToLower(0, 3);
    EXPECT_TRUE(s == "helLO WORLD");
    s = "name";
    s.FirstCharToUpper();
    EXPECT_TRUE(s == "Name");
    WString w(u"ABC");
    w.ToLower();
    EXPECT_TRUE(w == u"abc");
}
