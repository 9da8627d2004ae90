// EvalNumber: a small recursive evaluator over a private copy of the text.
// Its precedence rules are unusual and relied upon: "*" binds tighter than
// "/" and "%", which bind tighter than "+" and "-"; a chain of one level runs
// left to right; a lower operator after a higher one ends the expression
// ("2*3+4" is 6), and a closing bracket ends every level above it
// ("(1+2)*3" is 3).

#include "kernel/Log.h"
#include "kernel/Strings.h"
#include "math/MathUtil.h"

namespace KovexEngine {
namespace {

template <typename C>
class Evaluator
{
public:
    explicit Evaluator(const TString<C>& text) : m_text(text) {}

    bool Evaluate(int level, float& out)
    {
        // Nesting is bounded by the text's length, but a deep enough text
        // would still exhaust the stack: refuse it.
        if (++m_depth > kMaxDepth)
            return Fail(u"String EvalNumber failed : Error in expression\n", false);
        bool ok = EvaluateLevel(level, out);
        --m_depth;
        return ok;
    }

private:
    static constexpr int kMaxDepth = 2000;
    // The level of the operand of a unary "-", "+" or "@".
    static constexpr int kOperandLevel = 1000;

    bool Fail(const char16_t* message, bool log = true)
    {
        if (log)
            Log::Print(LOG_INFO, message);
        return false;
    }

    // Skips blanks (code 32 only) and consumes the next character; the end
    // reads as 0.
    unsigned Read()
    {
        while (m_position < m_text.Length() && m_text()[m_position] == C(' '))
            ++m_position;
        if (m_position >= m_text.Length())
            return 0;
        return unsigned(m_text()[m_position++]);
    }

    // Puts a character back at the front of what remains: the slot of the
    // character just consumed is always free.
    void PutBack(unsigned c)
    {
        if (m_position > 0)
            m_text()[--m_position] = C(c);
    }

    static bool IsDigit(unsigned c) { return c >= '0' && c <= '9'; }

    bool EvaluateLevel(int level, float& out)
    {
        float value = 0.0f;
        unsigned c = Read();
        if (IsDigit(c) || c == '.')
        {
            while (IsDigit(c))
            {
                value = value * 10.0f + float(c - '0');
                c = Read();
            }
            if (c == '.')
            {
                float weight = 0.1f;
                c = Read();
                while (IsDigit(c))
                {
                    value += float(c - '0') * weight;
                    weight *= 0.1f;
                    c = Read();
                }
            }
        }
        else
        {
            switch (c)
            {
            case '(':
                if (!Evaluate(0, value))
                    return false;
                break;
            case '-':
                if (!Evaluate(kOperandLevel, value))
                    return false;
                value = -value;
                break;
            case '+':
                if (!Evaluate(kOperandLevel, value))
                    return false;
                break;
            case '@':
                if (!Evaluate(kOperandLevel, value))
                    return false;
                if (value < 0.0f)
                    return Fail(u"String EvalNumber failed: Can't take square root of negative number\n");
                value = value * Math::FastInvSqrt(value);
                break;
            default:
                return Fail(u"String EvalNumber failed : No value recognized\n");
            }
            c = Read();
        }

        for (;;)
        {
            float right = 0.0f;
            switch (c)
            {
            case 0:
                out = value;
                return true;
            case ')':
                PutBack(')');
                out = value;
                return true;
            case '+':
            case '-':
                if (level > 1)
                    return End(value, out, c, level == 2 || level == kOperandLevel);
                if (!Evaluate(2, right))
                    return Succeed(value, out);
                value = c == '+' ? value + right : value - right;
                break;
            case '/':
                if (level > 2)
                    return End(value, out, c, level == 3 || level == kOperandLevel);
                if (!Evaluate(3, right))
                    return Succeed(value, out);
                if (right == 0.0f)
                    return Fail(u"String EvalNumber failed : Division by zero isn't allowed\n");
                value /= right;
                break;
            case '%':
            {
                if (level > 2)
                    return End(value, out, c, level == 3 || level == kOperandLevel);
                if (!Evaluate(3, right))
                    return Succeed(value, out);
                if (right == 0.0f)
                    return Fail(u"String EvalNumber failed : Modulo zero isn't allowed\n");
                int32 a = TruncateToInt(value), b = TruncateToInt(right);
                // A divisor that truncates to 0 has no remainder to give, and
                // any remainder by -1 is 0 (INT32_MIN % -1 would trap).
                if (b == 0 || b == -1)
                    value = 0.0f;
                else
                    value = float(a % b);
                break;
            }
            case '*':
                if (level > 3)
                    return End(value, out, c, level == 4 || level == kOperandLevel);
                if (!Evaluate(4, right))
                    return Succeed(value, out);
                value *= right;
                break;
            default:
                Log::Print(LOG_INFO, u"String EvalNumber failed : Unrecognized Operator\n");
                return Succeed(value, out);
            }
            c = Read();
        }
    }

    static int32 TruncateToInt(float v)
    {
        if (!(v > -2147483648.0f))
            return v != v ? 0 : INT32_MIN;
        if (v >= 2147483648.0f)
            return INT32_MAX;
        return int32(v);
    }

    // Ends this level. An operator of the caller's own level (or one that
    // follows a unary operand) goes back to the caller, which carries on the
    // chain; a lower one puts ")" back instead, which ends every level in turn.
    bool End(float value, float& out, unsigned op, bool continuesChain)
    {
        out = value;
        PutBack(continuesChain ? op : ')');
        return true;
    }

    static bool Succeed(float value, float& out)
    {
        out = value;
        return true;
    }

    TString<C> m_text;
    unsigned m_position = 0;
    int m_depth = 0;
};

} // namespace

template <typename C>
bool TString<C>::EvalNumber(float& out) const
{
    out = 0.0f;
    int balance = 0;
    const C* s = (*this)();
    for (unsigned i = 0; i < m_length; ++i)
    {
        if (s[i] == C('('))
            ++balance;
        else if (s[i] == C(')'))
            --balance;
    }
    if (balance != 0)
    {
        Log::Print(LOG_INFO, u"String EvalNumber failed : Mismatched brackets\n");
        return false;
    }
    Evaluator<C> evaluator(*this);
    float value = 0.0f;
    if (!evaluator.Evaluate(0, value))
    {
        Log::Print(LOG_INFO, u"String EvalNumber failed : Error in expression\n");
        return false;
    }
    out = value;
    return true;
}

template bool TString<char>::EvalNumber(float&) const;
template bool TString<char16_t>::EvalNumber(float&) const;

} // namespace KovexEngine
