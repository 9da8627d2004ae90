// TString: reading numbers, vectors and booleans from text.

#include "kernel/Strings.h"

#include <cerrno>
#include <climits>

#include "kernel/Containers.h"
#include "kernel/StringChars.h"
#include "math/Matrix.h"
#include "math/Quaternion.h"

namespace KovexEngine {

using namespace StringChars;

namespace {

// A number's text for the C library: 8-bit copy up to the first character
// that no number contains.
template <typename C>
struct NumberText
{
    char stack[128];
    char* text = stack;
    AString heap;

    explicit NumberText(const TString<C>& s)
    {
        if constexpr (sizeof(C) == 1)
            text = const_cast<char*>(s());
        else
        {
            unsigned n = s.Length();
            if (n >= sizeof stack)
            {
                heap.SetLength(n);
                text = heap();
            }
            unsigned i = 0;
            for (; i < n; ++i)
            {
                char16_t c = s()[i];
                if (c >= 128)
                    break;
                text[i] = char(c);
            }
            text[i] = 0;
        }
    }
};

int32 ClampToInt(long long v) { return v > INT_MAX ? INT_MAX : (v < INT_MIN ? INT_MIN : int32(v)); }

// strtoul's reading of text as an unsigned 32-bit value: a leading minus
// negates modulo 2^32; values beyond the range saturate.
uint32 ParseUInt32(const char* text, int base)
{
    const char* p = text;
    while (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r' || *p == '\v' || *p == '\f')
        ++p;
    bool negative = *p == '-';
    errno = 0;
    unsigned long long v = std::strtoull(text, nullptr, base);
    if (errno == ERANGE)
        return 0xFFFFFFFFu;
    unsigned long long magnitude = negative ? 0ull - v : v;
    if (magnitude > 0xFFFFFFFFull)
        return 0xFFFFFFFFu;
    return uint32(v);
}

template <typename C>
bool ParseVector(const TString<C>& s, float* out, unsigned components)
{
    TArray<TString<C>> tokens;
    s.GetTokens(tokens, ", \t");
    if (tokens.Count() < components)
        return false;
    for (unsigned i = 0; i < components; ++i)
    {
        if (!tokens[i].IsValidFloat())
            return false;
        out[i] = tokens[i].AsFloat();
    }
    return true;
}

template <typename C>
bool ParseInteger(const TString<C>& s, long long& signedOut, unsigned long long& unsignedOut)
{
    int base;
    if (s.IsValidInt())
        base = 10;
    else if (s.IsValidIntHex())
        base = 16;
    else
        return false;
    NumberText<C> n(s);
    signedOut = std::strtoll(n.text, nullptr, base);
    unsignedOut = std::strtoull(n.text, nullptr, base);
    return true;
}

} // namespace

// --- Reading values -------------------------------------------------------------------

template <typename C> int TString<C>::AsInt() const { NumberText<C> n(*this); return ClampToInt(std::strtoll(n.text, nullptr, 10)); }
template <typename C> unsigned int TString<C>::AsUInt() const { NumberText<C> n(*this); return ParseUInt32(n.text, 10); }
template <typename C> int TString<C>::AsIntHex() const { NumberText<C> n(*this); return ClampToInt(std::strtoll(n.text, nullptr, 16)); }
template <typename C> unsigned int TString<C>::AsUIntHex() const { NumberText<C> n(*this); return ParseUInt32(n.text, 16); }
template <typename C> float TString<C>::AsFloat() const { NumberText<C> n(*this); return CLocale::ParseFloat(n.text); }
template <typename C> double TString<C>::AsDouble() const { NumberText<C> n(*this); return CLocale::ParseDouble(n.text); }

template <typename C>
bool TString<C>::AsBool() const
{
    unsigned index = BoolWords::Find((*this)(), m_length);
    return index != kNotFound && (index & 1);
}

template <typename C>
bool TString<C>::IsValidBool() const
{
    return BoolWords::Find((*this)(), m_length) != kNotFound;
}

template <typename C>
bool TString<C>::AsValue(bool& out) const
{
    out = AsBool();
    return true;
}

#define KOVEX_STRING_AS_INTEGER(TYPE, SIGNED)                  \
    template <typename C>                                      \
    bool TString<C>::AsValue(TYPE& out) const                  \
    {                                                          \
        long long s;                                           \
        unsigned long long u;                                  \
        if (!ParseInteger(*this, s, u))                        \
            return false;                                      \
        out = SIGNED ? TYPE(s) : TYPE(u);                      \
        return true;                                           \
    }
KOVEX_STRING_AS_INTEGER(int8, true)
KOVEX_STRING_AS_INTEGER(uint8, false)
KOVEX_STRING_AS_INTEGER(int16, true)
KOVEX_STRING_AS_INTEGER(uint16, false)
KOVEX_STRING_AS_INTEGER(int32, true)
KOVEX_STRING_AS_INTEGER(uint32, false)
KOVEX_STRING_AS_INTEGER(int64, true)
KOVEX_STRING_AS_INTEGER(uint64, false)
#undef KOVEX_STRING_AS_INTEGER

template <typename C>
bool TString<C>::AsValue(float& out) const
{
    if (!IsValidFloat())
        return false;
    out = AsFloat();
    return true;
}

template <typename C>
bool TString<C>::AsValue(double& out) const
{
    if (!IsValidFloat())
        return false;
    out = AsDouble();
    return true;
}

template <typename C> bool TString<C>::AsValue(Vector2& out) const { return ParseVector<C>(*this, out.Data(), 2); }
template <typename C> bool TString<C>::AsValue(Vector3& out) const { return ParseVector<C>(*this, out.Data(), 3); }
template <typename C> bool TString<C>::AsValue(Vector4& out) const { return ParseVector<C>(*this, out.Data(), 4); }
template <typename C> bool TString<C>::AsValue(Quaternion& out) const { return ParseVector<C>(*this, out.Data(), 4); }
template <typename C> bool TString<C>::AsValue(Matrix2& out) const { return ParseVector<C>(*this, out.Data(), 4); }
template <typename C> bool TString<C>::AsValue(Matrix3& out) const { return ParseVector<C>(*this, out.Data(), 9); }
template <typename C> bool TString<C>::AsValue(Matrix4& out) const { return ParseVector<C>(*this, out.Data(), 16); }

template <typename C>
bool TString<C>::IsValidFloat() const
{
    const C* s = (*this)();
    unsigned n = m_length;
    if (n && s[n - 1] == C('f'))
        --n;
    const CharSet& set = StringDelimit::Default.floatNumber;
    for (unsigned i = 0; i < n; ++i)
        if (!InSet(set, s[i]))
            return false;
    return true;
}

template <typename C>
void TString<C>::RemoveFloatPostfix()
{
    C* s = (*this)();
    if (m_length >= 3 && s[m_length - 1] == C('f'))
    {
        if (s[m_length - 2] == C('.'))
            s[m_length - 1] = C('0');
        else
            TerminateAtIndex(m_length - 1);
    }
}

// --- The words of AsBool ------------------------------------------------------------

namespace {
constexpr unsigned kMaxBoolWords = 32;
const char* s_boolWords[kMaxBoolWords] = {"false", "true"};
unsigned s_boolWordCount = 2;

template <typename C>
unsigned FindBoolWord(const C* text, unsigned length)
{
    for (unsigned w = 0; w < s_boolWordCount; ++w)
    {
        const char* word = s_boolWords[w];
        unsigned i = 0;
        for (; i < length && word[i]; ++i)
            if (Unsigned(LowerChar(text[i])) != Unsigned(CLocale::ToLower(word[i])))
                break;
        if (i == length && word[i] == 0)
            return w;
    }
    return kNotFound;
}
} // namespace

bool BoolWords::AddPair(const char* falseWord, const char* trueWord)
{
    if (!falseWord || !trueWord || s_boolWordCount + 2 > kMaxBoolWords)
        return false;
    s_boolWords[s_boolWordCount++] = falseWord;
    s_boolWords[s_boolWordCount++] = trueWord;
    return true;
}

unsigned BoolWords::Find(const char* text, unsigned length) { return FindBoolWord(text, length); }
unsigned BoolWords::Find(const char16_t* text, unsigned length) { return FindBoolWord(text, length); }

// Each file instantiates the members it defines.
template class TString<char>;
template class TString<char16_t>;

} // namespace KovexEngine
