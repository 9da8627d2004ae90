#include <gtest/gtest.h>

#include <string>

#include "kernel/Log.h"
#include "kernel/Strings.h"
#include "math/MathUtil.h"
#include "support/LogCapture.h"

using namespace KovexEngine;

namespace {

float Eval(const char* text, bool expectSuccess = true)
{
    float out = -12345.0f;
    bool ok = AString(text).EvalNumber(out);
    EXPECT_EQ(ok, expectSuccess) << text;
    return out;
}

class EvalNumber : public testing::Test
{
protected:
    void SetUp() override { Math::Init(); }
    KovexTest::LogCapture log;
};

} // namespace

TEST_F(EvalNumber, PrecedenceAsTheEngineDefinesIt)
{
    EXPECT_FLOAT_EQ(Eval("2+3*4"), 14.0f);
    EXPECT_FLOAT_EQ(Eval("2*3+4"), 6.0f) << "a lower operator after a higher one ends the expression";
    EXPECT_FLOAT_EQ(Eval("(1+2)*3"), 3.0f) << "a closing bracket ends each level above it";
    EXPECT_FLOAT_EQ(Eval("2*(3+4)"), 14.0f);
    EXPECT_FLOAT_EQ(Eval("10-2-3"), 5.0f) << "a chain of one level runs left to right";
    EXPECT_FLOAT_EQ(Eval("8/2/2"), 2.0f);
    EXPECT_FLOAT_EQ(Eval("2*3*4"), 24.0f);
    EXPECT_FLOAT_EQ(Eval("7%4"), 3.0f);
    EXPECT_FLOAT_EQ(Eval("-2.5"), -2.5f);
    EXPECT_FLOAT_EQ(Eval("+4"), 4.0f);
    EXPECT_FLOAT_EQ(Eval("-2+3"), 1.0f) << "a unary operand hands what follows back";
    EXPECT_FLOAT_EQ(Eval("1+2*3+4"), 7.0f);
    EXPECT_FLOAT_EQ(Eval("8/2*2"), 2.0f);
}

TEST_F(EvalNumber, OperandsDigitsFractionsAndRoots)
{
    EXPECT_FLOAT_EQ(Eval("1 2"), 12.0f) << "blanks between digits are skipped";
    EXPECT_FLOAT_EQ(Eval(" 3.25 "), 3.25f);
    EXPECT_FLOAT_EQ(Eval(".5"), 0.5f);
    EXPECT_NEAR(Eval("@16"), 4.0f, 1e-4f);
    EXPECT_NEAR(Eval("@2"), 1.41421356f, 1e-5f);
    EXPECT_FLOAT_EQ(Eval("", false), 0.0f) << "no text is no value";
}

TEST_F(EvalNumber, FailuresLogTheirExactLines)
{
    EXPECT_EQ(Eval("(1+2", false), 0.0f) << "out is zeroed first";
    EXPECT_TRUE(log->Contains(u"String EvalNumber failed : Mismatched brackets\n"));
    Eval("abc", false);
    EXPECT_TRUE(log->Contains(u"String EvalNumber failed : No value recognized\n"));
    EXPECT_TRUE(log->Contains(u"String EvalNumber failed : Error in expression\n"));
    Eval("4/0", false);
    EXPECT_TRUE(log->Contains(u"String EvalNumber failed : Division by zero isn't allowed\n"));
    Eval("4%0", false);
    EXPECT_TRUE(log->Contains(u"String EvalNumber failed : Modulo zero isn't allowed\n"));
    Eval("@-4", false);
    EXPECT_TRUE(log->Contains(u"String EvalNumber failed: Can't take square root of negative number\n"));
    for (const auto& entry : log->entries)
        EXPECT_EQ(entry.level, LOG_INFO);
}

TEST_F(EvalNumber, SoftFailuresKeepTheValueSoFar)
{
    EXPECT_FLOAT_EQ(Eval("5 $ 3"), 5.0f);
    EXPECT_TRUE(log->Contains(u"String EvalNumber failed : Unrecognized Operator\n"));
    EXPECT_FLOAT_EQ(Eval("5+x"), 5.0f) << "a failed right side returns the value so far";
    EXPECT_FLOAT_EQ(Eval("6*(2/0)"), 6.0f);
}

TEST_F(EvalNumber, DeepNestingIsRefusedNotOverflowed)
{
    std::string deep(100000, '(');
    deep += "1";
    deep += std::string(100000, ')');
    float out = 1;
    EXPECT_FALSE(AString(deep.c_str()).EvalNumber(out));
    EXPECT_EQ(out, 0.0f);
    std::string negations(100000, '-');
    negations += "1";
    EXPECT_FALSE(AString(negations.c_str()).EvalNumber(out));
}

TEST_F(EvalNumber, WideStringsEvaluateTheSame)
{
    float out = 0;
    EXPECT_TRUE(WString(u"2*(3+4)").EvalNumber(out));
    EXPECT_FLOAT_EQ(out, 14.0f);
}
