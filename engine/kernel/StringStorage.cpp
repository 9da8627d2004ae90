#include "kernel/Strings.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "kernel/CLocale.h"
#include "kernel/Containers.h"
#include "kernel/Utf.h"
#include "math/Matrix.h"
#include "math/Quaternion.h"

namespace KovexEngine {

constinit const StringDelimit StringDelimit::Default{};

template <typename C>
const TString<C> TString<C>::EmptyString;

namespace {

template <typename C>
void CopyChars(C* dst, const C* src, unsigned count)
{
    std::memmove(dst, src, size_t(count) * sizeof(C));
}

template <typename C>
C* AllocChars(unsigned count)
{
    return static_cast<C*>(std::malloc(size_t(count) * sizeof(C)));
}

// A character set given as 8-bit text only ever holds values below 256.
template <typename C>
bool InSet(const CharSet& set, C c)
{
    return set.Has(unsigned(static_cast<std::make_unsigned_t<C>>(c)));
}

template <typename C>
unsigned Unsigned(C c)
{
    return unsigned(static_cast<std::make_unsigned_t<C>>(c));
}

// Case follows the "C" locale whatever the process has set, so that names
// compare and fold alike on every machine.
template <typename C>
C LowerChar(C c)
{
    return CLocale::ToLower(c);
}

template <typename C>
C UpperChar(C c)
{
    return CLocale::ToUpper(c);
}

template <typename C>
bool IsSeparator(C c)
{
    return c == C('/') || c == C('\\');
}

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

// --- Construction -----------------------------------------------------------------

template <typename C> TString<C>::TString(const TString& other) : TString() { Set(other(), other.m_length); }

template <typename C>
TString<C>::TString(TString&& other) noexcept : TString()
{
    Swap(other);
}

template <typename C> TString<C>::TString(const C* text) : TString() { Set(text); }
template <typename C> TString<C>::TString(const C* text, unsigned count) : TString() { Set(text, count); }
template <typename C> TString<C>::TString(C ch) : TString() { Set(&ch, 1); }
template <typename C> TString<C>::TString(bool v) : TString() { SetBool(v); }
template <typename C> TString<C>::TString(int v) : TString() { Set(v); }
template <typename C> TString<C>::TString(unsigned int v) : TString() { Set(v); }
template <typename C> TString<C>::TString(long v) : TString() { Set(v); }
template <typename C> TString<C>::TString(unsigned long v) : TString() { Set(v); }
template <typename C> TString<C>::TString(long long v) : TString() { Set(v); }
template <typename C> TString<C>::TString(unsigned long long v) : TString() { Set(v); }
template <typename C> TString<C>::TString(float v) : TString() { Set(v); }
template <typename C> TString<C>::TString(double v) : TString() { Set(v); }
template <typename C> TString<C>::TString(const Vector2& v) : TString() { Set(v); }
template <typename C> TString<C>::TString(const Vector3& v) : TString() { Set(v); }
template <typename C> TString<C>::TString(const Vector4& v) : TString() { Set(v); }
template <typename C> TString<C>::TString(const Quaternion& v) : TString() { Set(v); }
template <typename C> TString<C>::TString(const Matrix2& v) : TString() { Set(v); }
template <typename C> TString<C>::TString(const Matrix3& v) : TString() { Set(v); }
template <typename C> TString<C>::TString(const Matrix4& v) : TString() { Set(v); }

template <typename C>
TString<C>::~TString()
{
    if (m_capacity)
        std::free(m_heap);
}

template <typename C>
TString<C>& TString<C>::operator=(const TString& other)
{
    if (this != &other)
        Set(other(), other.m_length);
    return *this;
}

template <typename C>
TString<C>& TString<C>::operator=(TString&& other) noexcept
{
    if (this != &other)
    {
        Clear();
        Swap(other);
    }
    return *this;
}

template <typename C> TString<C>& TString<C>::operator=(const C* text) { Set(text); return *this; }
template <typename C> TString<C>& TString<C>::operator=(C ch) { Set(&ch, 1); return *this; }
template <typename C> TString<C>& TString<C>::operator=(bool v) { SetBool(v); return *this; }
template <typename C> TString<C>& TString<C>::operator=(int v) { Set(v); return *this; }
template <typename C> TString<C>& TString<C>::operator=(unsigned int v) { Set(v); return *this; }
template <typename C> TString<C>& TString<C>::operator=(long v) { Set(v); return *this; }
template <typename C> TString<C>& TString<C>::operator=(unsigned long v) { Set(v); return *this; }
template <typename C> TString<C>& TString<C>::operator=(long long v) { Set(v); return *this; }
template <typename C> TString<C>& TString<C>::operator=(unsigned long long v) { Set(v); return *this; }
template <typename C> TString<C>& TString<C>::operator=(float v) { Set(v); return *this; }
template <typename C> TString<C>& TString<C>::operator=(double v) { Set(v); return *this; }
template <typename C> TString<C>& TString<C>::operator=(const Vector2& v) { Set(v); return *this; }
template <typename C> TString<C>& TString<C>::operator=(const Vector3& v) { Set(v); return *this; }
template <typename C> TString<C>& TString<C>::operator=(const Vector4& v) { Set(v); return *this; }
template <typename C> TString<C>& TString<C>::operator=(const Quaternion& v) { Set(v); return *this; }
template <typename C> TString<C>& TString<C>::operator=(const Matrix2& v) { Set(v); return *this; }
template <typename C> TString<C>& TString<C>::operator=(const Matrix3& v) { Set(v); return *this; }
template <typename C> TString<C>& TString<C>::operator=(const Matrix4& v) { Set(v); return *this; }

// --- Storage ------------------------------------------------------------------------

template <typename C>
unsigned TString<C>::TextLength(const C* text)
{
    size_t n = Utf::Length(text);
    return n > 0xFFFFFFFFu ? 0xFFFFFFFFu : unsigned(n);
}

template <typename C>
bool TString<C>::Regrow(unsigned capacity, unsigned keep)
{
    C* block = AllocChars<C>(capacity);
    if (!block)
        return false;
    CopyChars(block, (*this)(), keep);
    block[keep] = 0;
    if (m_capacity)
        std::free(m_heap);
    m_heap = block;
    m_capacity = capacity;
    return true;
}

template <typename C>
void TString<C>::Set(const C* text)
{
    Set(text, TextLength(text));
}

template <typename C>
void TString<C>::Set(const C* text, unsigned count)
{
    if (!text)
    {
        // The length follows the text it describes: with no text there is none.
        Clear();
        return;
    }
    if (count > kMaxLength)
        return;
    if (m_capacity == 0 && count < kInlineSize)
        CopyChars(m_inline, text, count);
    else if (count < m_capacity)
        CopyChars(m_heap, text, count);
    else
    {
        // The text may lie in the old block: copy before freeing it.
        C* block = AllocChars<C>(count + 1);
        if (!block)
            return;
        CopyChars(block, text, count);
        if (m_capacity)
            std::free(m_heap);
        m_heap = block;
        m_capacity = count + 1;
    }
    (*this)()[count] = 0;
    m_length = count;
}

template <typename C>
void TString<C>::Append(const C* text)
{
    Append(text, TextLength(text));
}

template <typename C>
void TString<C>::Append(const C* text, unsigned count)
{
    if (!text || count == 0)
        return;
    if (count > kMaxLength - m_length)
        return;
    unsigned total = m_length + count;
    if (m_capacity == 0 && total < kInlineSize)
        CopyChars(m_inline + m_length, text, count);
    else if (total < m_capacity)
        CopyChars(m_heap + m_length, text, count);
    else
    {
        unsigned capacity = total + total / 2;
        if (capacity > kMaxLength + 1)
            capacity = kMaxLength + 1;
        C* block = AllocChars<C>(capacity);
        if (!block)
            return;
        CopyChars(block, (*this)(), m_length);
        CopyChars(block + m_length, text, count);
        if (m_capacity)
            std::free(m_heap);
        m_heap = block;
        m_capacity = capacity;
    }
    m_length = total;
    (*this)()[total] = 0;
}

template <typename C>
bool TString<C>::Reserve(unsigned count)
{
    if (count > kMaxLength)
        return false;
    if (count + 1 > m_capacity && count + 1 >= kInlineSize + 1)
        return Regrow(count + 1, m_length);
    return true;
}

template <typename C>
bool TString<C>::SetLength(unsigned count)
{
    if (!Reserve(count))
        return false;
    (*this)()[count] = 0;
    m_length = count;
    return true;
}

template <typename C>
void TString<C>::Clear()
{
    if (m_capacity)
        std::free(m_heap);
    m_capacity = 0;
    m_length = 0;
    m_inline[0] = 0;
}

template <typename C>
void TString<C>::TerminateAtIndex(unsigned index)
{
    if (index < m_length)
    {
        (*this)()[index] = 0;
        m_length = index;
    }
}

template <typename C>
void TString<C>::Swap(TString& other) noexcept
{
    C buffer[kInlineSize];
    std::memcpy(buffer, m_inline, sizeof buffer);
    std::memcpy(m_inline, other.m_inline, sizeof buffer);
    std::memcpy(other.m_inline, buffer, sizeof buffer);
    std::swap(m_length, other.m_length);
    std::swap(m_capacity, other.m_capacity);
}

// --- Formatting ---------------------------------------------------------------------

template <typename C>
void TString<C>::AppendFormatArgList(unsigned size, const C* format, va_list args)
{
    if (size == 0 || size > 0x7FFFFFFFu)
        return;
    C stack[kFormatBufferSize];
    va_list again;
    va_copy(again, args);
    unsigned first = size < kFormatBufferSize ? size : kFormatBufferSize;
    unsigned full = FormatText(stack, first, format, args);
    unsigned wanted = full < size - 1 ? full : size - 1;
    if (wanted < first)
        Append(stack, wanted);
    else if (wanted <= kMaxLength - m_length && Reserve(m_length + wanted))
    {
        // Longer than the stack buffer: a second pass straight into the block,
        // sized by what the output needs rather than by `size`.
        unsigned length = m_length;
        FormatText((*this)() + length, wanted + 1, format, again);
        (*this)()[length + wanted] = 0;
        m_length = length + wanted;
    }
    va_end(again);
}

template <typename C>
void TString<C>::FormatArgList(unsigned size, const C* format, va_list args)
{
    if (size == 0 || size > 0x7FFFFFFFu)
    {
        Clear();
        return;
    }
    TString result;
    result.AppendFormatArgList(size, format, args);
    Swap(result);
}

template <typename C>
void TString<C>::FormatArgList(const C* format, va_list args)
{
    C stack[kFormatBufferSize];
    unsigned full = FormatText(stack, kFormatBufferSize, format, args);
    Set(stack, full < kFormatBufferSize ? full : kFormatBufferSize - 1);
}

template <typename C>
void TString<C>::Format(const C* format, ...)
{
    va_list args;
    va_start(args, format);
    FormatArgList(format, args);
    va_end(args);
}

template <typename C>
void TString<C>::Format(unsigned size, const C* format, ...)
{
    va_list args;
    va_start(args, format);
    FormatArgList(size, format, args);
    va_end(args);
}

template <typename C>
void TString<C>::AppendFormat(const C* format, ...)
{
    va_list args;
    va_start(args, format);
    AppendFormatArgList(kFormatBufferSize, format, args);
    va_end(args);
}

template <typename C>
void TString<C>::AppendFormat(unsigned size, const C* format, ...)
{
    va_list args;
    va_start(args, format);
    AppendFormatArgList(size, format, args);
    va_end(args);
}

namespace {

// Formats into a fixed buffer of `size` characters, as every value overload does.
template <typename C>
unsigned FormatFixed(C* buffer, unsigned size, const char* format, ...)
{
    C wide[64];
    unsigned i = 0;
    for (; format[i]; ++i)
        wide[i] = C(format[i]);
    wide[i] = 0;
    va_list args;
    va_start(args, format);
    unsigned n = FormatText(buffer, size, wide, args);
    va_end(args);
    return n < size ? n : size - 1;
}

template <typename C>
unsigned FormatFloats(C* buffer, unsigned size, const float* v, unsigned count)
{
    unsigned length = 0;
    for (unsigned i = 0; i < count && length + 1 < size; ++i)
        length += FormatFixed(buffer + length, size - length, i ? ",%g" : "%g", double(v[i]));
    return length;
}

} // namespace

template <typename C>
template <typename V>
void TString<C>::SetFormatted(const V& value, bool append)
{
    C buffer[256];
    unsigned n;
    if constexpr (std::is_same_v<V, int>) n = FormatFixed(buffer, 16, "%d", value);
    else if constexpr (std::is_same_v<V, unsigned int>) n = FormatFixed(buffer, 16, "%u", value);
    else if constexpr (std::is_same_v<V, long> || std::is_same_v<V, long long>) n = FormatFixed(buffer, 32, "%I64d", (long long)value);
    else if constexpr (std::is_same_v<V, unsigned long> || std::is_same_v<V, unsigned long long>) n = FormatFixed(buffer, 32, "%I64u", (unsigned long long)value);
    else if constexpr (std::is_floating_point_v<V>) n = FormatFixed(buffer, 32, "%g", double(value));
    else if constexpr (std::is_same_v<V, Vector2>) n = FormatFloats(buffer, 32, value.Data(), 2);
    else if constexpr (std::is_same_v<V, Vector3>) n = FormatFloats(buffer, 64, value.Data(), 3);
    else if constexpr (std::is_same_v<V, Vector4> || std::is_same_v<V, Quaternion> || std::is_same_v<V, Matrix2>) n = FormatFloats(buffer, 64, value.Data(), 4);
    else if constexpr (std::is_same_v<V, Matrix3>) n = FormatFloats(buffer, 256, value.Data(), 9);
    else n = FormatFloats(buffer, 256, value.Data(), 16);
    if (append)
        Append(buffer, n);
    else
        Set(buffer, n);
}

namespace {
template <typename C> const C* BoolText(bool v)
{
    static constexpr C kTrue[] = {C('t'), C('r'), C('u'), C('e'), 0};
    static constexpr C kFalse[] = {C('f'), C('a'), C('l'), C('s'), C('e'), 0};
    return v ? kTrue : kFalse;
}
} // namespace

template <typename C> void TString<C>::SetBool(bool v) { Set(BoolText<C>(v)); }
template <typename C> void TString<C>::AppendBool(bool v) { Append(BoolText<C>(v)); }

#define KOVEX_STRING_VALUE_SETTERS(TYPE)                                              \
    template <typename C> void TString<C>::Set(TYPE v) { SetFormatted(v, false); }   \
    template <typename C> void TString<C>::Append(TYPE v) { SetFormatted(v, true); }
KOVEX_STRING_VALUE_SETTERS(int)
KOVEX_STRING_VALUE_SETTERS(unsigned int)
KOVEX_STRING_VALUE_SETTERS(long)
KOVEX_STRING_VALUE_SETTERS(unsigned long)
KOVEX_STRING_VALUE_SETTERS(long long)
KOVEX_STRING_VALUE_SETTERS(unsigned long long)
KOVEX_STRING_VALUE_SETTERS(float)
KOVEX_STRING_VALUE_SETTERS(double)
KOVEX_STRING_VALUE_SETTERS(const Vector2&)
KOVEX_STRING_VALUE_SETTERS(const Vector3&)
KOVEX_STRING_VALUE_SETTERS(const Vector4&)
KOVEX_STRING_VALUE_SETTERS(const Quaternion&)
KOVEX_STRING_VALUE_SETTERS(const Matrix2&)
KOVEX_STRING_VALUE_SETTERS(const Matrix3&)
KOVEX_STRING_VALUE_SETTERS(const Matrix4&)
#undef KOVEX_STRING_VALUE_SETTERS

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

// --- Searching ------------------------------------------------------------------------

template <typename C>
unsigned TString<C>::IndexOf(const C* text, unsigned length, unsigned start) const
{
    if (!text || m_length == 0 || start >= m_length)
        return kNotFound;
    if (length == kNotFound)
        length = TextLength(text);
    if (length == 0)
        return start;
    if (length > m_length - start)
        return kNotFound;
    const C* s = (*this)();
    const C first = text[0];
    for (unsigned i = start, last = m_length - length; i <= last; ++i)
        if (s[i] == first && std::memcmp(s + i, text, size_t(length) * sizeof(C)) == 0)
            return i;
    return kNotFound;
}

template <typename C>
unsigned TString<C>::IndexOf(C ch, unsigned start) const
{
    const C* s = (*this)();
    for (unsigned i = start; i < m_length; ++i)
        if (s[i] == ch)
            return i;
    return kNotFound;
}

template <typename C>
unsigned TString<C>::LastIndexOf(const C* text, unsigned length, unsigned start) const
{
    if (!text || m_length == 0)
        return kNotFound;
    if (length == kNotFound)
        length = TextLength(text);
    if (length > m_length)
        return kNotFound;
    unsigned last = m_length - length;
    if (start > last)
        start = last;
    const C* s = (*this)();
    for (unsigned i = start + 1; i-- > 0;)
        if (std::memcmp(s + i, text, size_t(length) * sizeof(C)) == 0)
            return i;
    return kNotFound;
}

template <typename C>
unsigned TString<C>::LastIndexOf(C ch, unsigned start) const
{
    if (m_length == 0)
        return kNotFound;
    if (start >= m_length)
        start = m_length - 1;
    const C* s = (*this)();
    for (unsigned i = start + 1; i-- > 0;)
        if (s[i] == ch)
            return i;
    return kNotFound;
}

template <typename C>
unsigned TString<C>::_IndexOfMWW(const C* text, unsigned length, unsigned start, const CharSet& separators) const
{
    if (length == kNotFound)
        length = TextLength(text);
    const C* s = (*this)();
    for (unsigned i = IndexOf(text, length, start); i != kNotFound; i = IndexOf(text, length, i + 1))
    {
        bool before = i == 0 || InSet(separators, s[i - 1]);
        bool after = i + length >= m_length || InSet(separators, s[i + length]);
        if (before && after)
            return i;
    }
    return kNotFound;
}

template <typename C>
unsigned TString<C>::IndexOfMWW(const C* text, unsigned length, unsigned start, const char* separators) const
{
    return _IndexOfMWW(text, length, start, CharSet(separators));
}

template <typename C>
unsigned TString<C>::IndexOfAny(const char* set, unsigned start) const
{
    CharSet chars(set);
    const C* s = (*this)();
    for (unsigned i = start; i < m_length; ++i)
        if (s[i] && InSet(chars, s[i]))
            return i;
    return kNotFound;
}

template <typename C>
void TString<C>::SubString(TString& out, unsigned start, unsigned length) const
{
    if (start > m_length || length > m_length - start)
    {
        out.Clear();
        return;
    }
    if (&out == this)
    {
        TString copy((*this)() + start, length);
        out.Swap(copy);
        return;
    }
    out.Set((*this)() + start, length);
}

template <typename C>
void TString<C>::SubString(TString& out, unsigned start) const
{
    SubString(out, start, start > m_length ? 0 : m_length - start);
}

template <typename C>
TString<C> TString<C>::SubString(unsigned start, unsigned length) const
{
    TString out;
    SubString(out, start, length);
    return out;
}

template <typename C>
TString<C> TString<C>::SubString(unsigned start) const
{
    TString out;
    SubString(out, start);
    return out;
}

template <typename C>
bool TString<C>::StartsWith(const C* text) const
{
    unsigned n = TextLength(text);
    return n == 0 || (n <= m_length && std::memcmp((*this)(), text, size_t(n) * sizeof(C)) == 0);
}

template <typename C>
bool TString<C>::EndsWith(const C* text) const
{
    unsigned n = TextLength(text);
    return n == 0 || (n <= m_length && std::memcmp((*this)() + m_length - n, text, size_t(n) * sizeof(C)) == 0);
}

// --- Replacing ------------------------------------------------------------------------

template <typename C>
bool TString<C>::Replace(C from, C to)
{
    bool any = false;
    C* s = (*this)();
    for (unsigned i = 0; i < m_length; ++i)
        if (s[i] == from)
        {
            s[i] = to;
            any = true;
        }
    return any;
}

template <typename C>
bool TString<C>::Replace(const C* set, C to)
{
    if (!set)
        return false;
    bool any = false;
    C* s = (*this)();
    for (unsigned i = 0; i < m_length; ++i)
        for (const C* p = set; *p; ++p)
            if (s[i] == *p)
            {
                s[i] = to;
                any = true;
                break;
            }
    return any;
}

template <typename C>
template <typename Find, typename Emit>
bool TString<C>::ReplaceMatches(unsigned maxCount, Find&& find, Emit&& emit)
{
    if (maxCount == 0)
        return false;
    TString result;
    unsigned count = 0, read = 0;
    unsigned matchLength = 0;
    for (unsigned at = find(0u, matchLength); at != kNotFound && count < maxCount; at = find(read, matchLength))
    {
        result.Append((*this)() + read, at - read);
        emit(result, at, matchLength);
        read = at + matchLength;
        ++count;
    }
    if (count == 0)
        return false;
    result.Append((*this)() + read, m_length - read);
    Swap(result);
    return true;
}

template <typename C>
bool TString<C>::Replace(const C* from, const C* const* pieces, unsigned pieceCount, unsigned maxCount)
{
    unsigned fromLength = TextLength(from);
    if (fromLength == 0)
        return false;
    return ReplaceMatches(
        maxCount,
        [&](unsigned start, unsigned& length) {
            length = fromLength;
            return IndexOf(from, fromLength, start);
        },
        [&](TString& result, unsigned, unsigned) {
            for (unsigned p = 0; p < pieceCount; ++p)
                result.Append(pieces[p]);
        });
}

template <typename C>
bool TString<C>::Replace(const C* from, const C* to, unsigned maxCount)
{
    const C* pieces[1] = {to};
    return Replace(from, pieces, to ? 1 : 0, maxCount);
}

template <typename C>
bool TString<C>::Replace(C open, C close, const C* with, unsigned maxCount)
{
    return ReplaceMatches(
        maxCount,
        [&](unsigned start, unsigned& length) {
            unsigned a = IndexOf(open, start);
            unsigned b = a == kNotFound ? kNotFound : IndexOf(close, a + 1);
            length = b == kNotFound ? 0 : b - a + 1;
            return b == kNotFound ? kNotFound : a;
        },
        [&](TString& result, unsigned, unsigned) { result.Append(with); });
}

template <typename C>
bool TString<C>::_ReplaceMWW(const C* from, const C* to, const CharSet& separators, unsigned maxCount)
{
    unsigned fromLength = TextLength(from);
    if (fromLength == 0)
        return false;
    return ReplaceMatches(
        maxCount,
        [&](unsigned start, unsigned& length) {
            length = fromLength;
            return _IndexOfMWW(from, fromLength, start, separators);
        },
        [&](TString& result, unsigned, unsigned) { result.Append(to); });
}

template <typename C>
bool TString<C>::ReplaceMWW(const C* from, const C* to, const char* separators, unsigned maxCount)
{
    return _ReplaceMWW(from, to, CharSet(separators), maxCount);
}

// --- Tokens ---------------------------------------------------------------------------

namespace {
// Takes the token that runs from `start` up to the next separator.
template <typename C>
bool TakeToken(const TString<C>& s, unsigned start, const CharSet& separators, TString<C>& out, unsigned& position)
{
    unsigned end = start;
    while (end < s.Length() && !InSet(separators, s()[end]))
        ++end;
    position = start;
    out.Set(s() + start, end - start);
    return true;
}
} // namespace

template <typename C>
bool TString<C>::_GetToken(TString& out, unsigned& position, unsigned index, const CharSet& separators) const
{
    if (index >= m_length)
        return false;
    const C* s = (*this)();
    unsigned i = index;
    while (i < m_length && InSet(separators, s[i]))
        ++i;
    if (i >= m_length)
        return false;
    while (i > 0 && !InSet(separators, s[i - 1]))
        --i;
    return TakeToken(*this, i, separators, out, position);
}

template <typename C>
bool TString<C>::GetToken(TString& out, unsigned& position, unsigned index, const char* separators) const
{
    return _GetToken(out, position, index, CharSet(separators));
}

template <typename C>
bool TString<C>::_GetNextToken(TString& out, unsigned& position, unsigned index, const CharSet& separators) const
{
    const C* s = (*this)();
    unsigned i = index;
    while (i < m_length && !InSet(separators, s[i]))
        ++i;
    while (i < m_length && InSet(separators, s[i]))
        ++i;
    if (i >= m_length)
        return false;
    return TakeToken(*this, i, separators, out, position);
}

template <typename C>
bool TString<C>::GetNextToken(TString& out, unsigned& position, unsigned index, const char* separators) const
{
    return _GetNextToken(out, position, index, CharSet(separators));
}

template <typename C>
bool TString<C>::_GetLastToken(TString& out, unsigned& position, unsigned index, const CharSet& separators) const
{
    if (m_length == 0)
        return false;
    const C* s = (*this)();
    // Back to the separator at or before index, then back over separators.
    long long i = index >= m_length ? (long long)m_length - 1 : (long long)index;
    while (i >= 0 && !InSet(separators, s[i]))
        --i;
    while (i >= 0 && InSet(separators, s[i]))
        --i;
    if (i < 0)
        return false;
    unsigned start = unsigned(i);
    while (start > 0 && !InSet(separators, s[start - 1]))
        --start;
    return TakeToken(*this, start, separators, out, position);
}

template <typename C>
bool TString<C>::GetLastToken(TString& out, unsigned& position, unsigned index, const char* separators) const
{
    return _GetLastToken(out, position, index, CharSet(separators));
}

template <typename C>
unsigned TString<C>::Split(const char* delimiters, TArray<TString>& out) const
{
    CharSet set(delimiters);
    const C* s = (*this)();
    unsigned added = 0;
    unsigned i = 0;
    while (i < m_length)
    {
        while (i < m_length && InSet(set, s[i]))
            ++i;
        unsigned start = i;
        while (i < m_length && !InSet(set, s[i]))
            ++i;
        if (i > start)
        {
            out.Add(TString(s + start, i - start));
            ++added;
        }
    }
    return added;
}

template <typename C>
unsigned TString<C>::GetTokens(TArray<TString>& out, const char* delimiters) const
{
    out.Clear();
    return Split(delimiters, out);
}

template <typename C>
unsigned TString<C>::GetTokens(const C* text, TArray<TString>& out, const char* delimiters)
{
    return TString(text).GetTokens(out, delimiters);
}

template <typename C>
void TString<C>::Concatenate(const TArray<TString>& parts, const C* separator)
{
    for (unsigned i = 0; i < parts.Count(); ++i)
    {
        if (i)
            Append(separator);
        Append(parts[i]);
    }
}

template <typename C>
void TString<C>::GetFuncParams(TArray<TString>& out, unsigned start, unsigned length) const
{
    out.Clear();
    if (start > m_length || length > m_length - start)
        return;
    const C* s = (*this)();
    unsigned round = 0, square = 0, curly = 0;
    unsigned pieceStart = start, end = start + length;
    for (unsigned i = start; i <= end; ++i)
    {
        C c = i < end ? s[i] : C(',');
        switch (c)
        {
        case C('('): ++round; break;
        case C(')'): if (round) --round; break;
        case C('['): ++square; break;
        case C(']'): if (square) --square; break;
        case C('{'): ++curly; break;
        case C('}'): if (curly) --curly; break;
        case C(','):
            if ((round | square | curly) == 0 || i == end)
            {
                if (i > pieceStart)
                    out.Add(TString(s + pieceStart, i - pieceStart));
                pieceStart = i + 1;
            }
            break;
        default: break;
        }
    }
}

template <typename C>
void TString<C>::GetFuncParams(TArray<TString>& out) const
{
    GetFuncParams(out, 0, m_length);
}

template <typename C>
bool TString<C>::GetBlock(unsigned& start, unsigned& length, C open, C close, unsigned from) const
{
    if (open == 0 || close == 0)
        return false;
    unsigned a = IndexOf(open, from);
    if (a == kNotFound)
        return false;
    const C* s = (*this)();
    unsigned depth = 1;
    for (unsigned i = a + 1; i < m_length; ++i)
    {
        if (s[i] == close)
        {
            if (--depth == 0)
            {
                start = a + 1;
                length = i - a - 1;
                return true;
            }
        }
        else if (s[i] == open)
            ++depth;
    }
    return false;
}

template <typename C>
bool TString<C>::GetBlock(TString& out, C open, C close, unsigned from) const
{
    unsigned start, length;
    if (!GetBlock(start, length, open, close, from))
        return false;
    SubString(out, start, length);
    return true;
}

template <typename C>
bool TString<C>::GetAttribute(TString& out, const C* name) const
{
    const CharSet& set = StringDelimit::Default.attribute;
    unsigned at = _IndexOfMWW(name, kNotFound, 0, set);
    if (at == kNotFound)
        return false;
    unsigned position;
    return _GetNextToken(out, position, at, set);
}

template <typename C>
bool TString<C>::GetLinePos(unsigned& position, unsigned start) const
{
    if (start >= m_length)
        return false;
    unsigned lf = IndexOf(C('\n'), start);
    position = lf == kNotFound ? m_length : lf + 1;
    return true;
}

template <typename C>
bool TString<C>::GetLine(TString& out, unsigned& position, unsigned start) const
{
    if (start >= m_length)
        return false;
    unsigned lf = IndexOf(C('\n'), start);
    unsigned end = lf == kNotFound ? m_length : lf;
    if (end == start)
        out.Clear();
    else
        out.Set((*this)() + start, end - start);
    position = lf == kNotFound ? m_length : lf + 1;
    return true;
}

template <typename C>
bool TString<C>::ExtractString(TString& out, const C* prefix, const C* suffix) const
{
    static constexpr C kEmpty[1] = {0};
    if (!prefix)
        prefix = kEmpty;
    if (!suffix)
        suffix = kEmpty;
    unsigned p = TextLength(prefix), q = TextLength(suffix);
    if (uint64(p) + q > m_length || !StartsWith(prefix) || !EndsWith(suffix))
        return false;
    TString middle((*this)() + p, m_length - p - q);
    out.Swap(middle);
    return true;
}

template <typename C>
bool TString<C>::_CheckAll(const CharSet& set) const
{
    const C* s = (*this)();
    for (unsigned i = 0; i < m_length; ++i)
        if (!InSet(set, s[i]))
            return false;
    return true;
}

// --- Removing ---------------------------------------------------------------------

template <typename C>
void TString<C>::Remove(unsigned start, unsigned count)
{
    if (start >= m_length)
        return;
    if (count == kNotFound)
        count = m_length - start;
    if (count > m_length - start)
        return;
    C* s = (*this)();
    CopyChars(s + start, s + start + count, m_length - start - count);
    m_length -= count;
    s[m_length] = 0;
}

template <typename C>
void TString<C>::_RemoveCharSet(const CharSet& set)
{
    C* s = (*this)();
    unsigned w = 0;
    for (unsigned r = 0; r < m_length; ++r)
        if (!InSet(set, s[r]))
            s[w++] = s[r];
    m_length = w;
    s[w] = 0;
}

template <typename C>
void TString<C>::RemoveEndNRT()
{
    const CharSet& set = StringDelimit::Default.nrt;
    C* s = (*this)();
    unsigned n = m_length;
    while (n && InSet(set, s[n - 1]))
        --n;
    TerminateAtIndex(n);
}

template <typename C>
void TString<C>::_RemoveBeginEnd(const CharSet& set)
{
    const C* s = (*this)();
    unsigned end = m_length;
    while (end && InSet(set, s[end - 1]))
        --end;
    unsigned begin = 0;
    while (begin < end && InSet(set, s[begin]))
        ++begin;
    TerminateAtIndex(end);
    Remove(0, begin);
}

template <typename C>
void TString<C>::RemoveComment()
{
    static constexpr C kLine[] = {C('/'), C('/'), 0};
    static constexpr C kOpen[] = {C('/'), C('*'), 0};
    static constexpr C kClose[] = {C('*'), C('/'), 0};
    // Line comments first, up to and including the line feed.
    for (unsigned at = IndexOf(kLine, 2, 0); at != kNotFound; at = IndexOf(kLine, 2, at))
    {
        unsigned lf = IndexOf(C('\n'), at);
        Remove(at, lf == kNotFound ? kNotFound : lf - at + 1);
    }
    // Then block comments, on what is left.
    for (unsigned at = IndexOf(kOpen, 2, 0); at != kNotFound; at = IndexOf(kOpen, 2, at))
    {
        unsigned close = IndexOf(kClose, 2, at + 2);
        Remove(at, close == kNotFound ? kNotFound : close - at + 2);
    }
}

// --- Paths ----------------------------------------------------------------------------

namespace {
template <typename C>
unsigned LastSeparator(const C* s, unsigned length)
{
    for (unsigned i = length; i-- > 0;)
        if (IsSeparator(s[i]))
            return i;
    return kNotFound;
}
} // namespace

template <typename C> void TString<C>::ConvertSlashes() { Replace(C('\\'), C('/')); }
template <typename C> void TString<C>::ConvertBackslashes() { Replace(C('/'), C('\\')); }

template <typename C>
void TString<C>::ExtractFileName(TString& out) const
{
    unsigned at = LastSeparator((*this)(), m_length);
    SubString(out, at == kNotFound ? 0 : at + 1);
}

template <typename C>
TString<C> TString<C>::ExtractFileName() const
{
    TString out;
    ExtractFileName(out);
    return out;
}

template <typename C>
void TString<C>::ExtractDir(TString& out) const
{
    unsigned at = LastSeparator((*this)(), m_length);
    if (at == kNotFound)
        out.Clear();
    else
        SubString(out, 0, at + 1);
}

template <typename C>
TString<C> TString<C>::ExtractDir() const
{
    TString out;
    ExtractDir(out);
    return out;
}

template <typename C>
void TString<C>::ExtractToLastSlash()
{
    unsigned at = LastSeparator((*this)(), m_length);
    if (at == kNotFound)
        Clear();
    else
        TerminateAtIndex(at + 1);
}

template <typename C>
void TString<C>::ExtractLastDir(TString& out) const
{
    const C* s = (*this)();
    unsigned n = m_length;
    if (n && IsSeparator(s[n - 1]))
        --n;
    unsigned at = LastSeparator(s, n);
    if (at == kNotFound || at == 0)
        out.Clear();
    else
        SubString(out, 0, at + 1);
}

template <typename C>
TString<C> TString<C>::ExtractLastDir() const
{
    TString out;
    ExtractLastDir(out);
    return out;
}

namespace {
// The last name of a directory path that ends in a separator.
template <typename C>
void LastName(const TString<C>& dir, TString<C>& out)
{
    unsigned n = dir.Length();
    if (n && IsSeparator(dir()[n - 1]))
        --n;
    unsigned at = LastSeparator(dir(), n);
    unsigned start = at == kNotFound ? 0 : at + 1;
    TString<C> name(dir() + start, n - start);
    out.Swap(name);
}
} // namespace

template <typename C>
void TString<C>::ExtractLastDirName(TString& out) const
{
    TString dir;
    ExtractLastDir(dir);
    LastName(dir, out);
}

template <typename C>
void TString<C>::ExtractDirName(TString& out) const
{
    TString dir;
    ExtractDir(dir);
    LastName(dir, out);
}

template <typename C>
void TString<C>::GetFileExt(TString& out) const
{
    unsigned at = LastIndexOf(C('.'));
    if (at == kNotFound)
        out.Clear();
    else
        SubString(out, at);
}

template <typename C>
TString<C> TString<C>::GetFileExt() const
{
    TString out;
    GetFileExt(out);
    return out;
}

template <typename C>
void TString<C>::GetFileExtNoDot(TString& out) const
{
    unsigned at = LastIndexOf(C('.'));
    if (at == kNotFound)
        out.Clear();
    else
        SubString(out, at + 1);
}

template <typename C>
void TString<C>::RemoveFileExt()
{
    unsigned at = LastIndexOf(C('.'));
    if (at != kNotFound)
        TerminateAtIndex(at);
}

template <typename C>
bool TString<C>::CheckFileExt(const C* extension) const
{
    if (!extension)
        return false;
    if (*extension == C('.'))
        ++extension;
    TString ext;
    GetFileExtNoDot(ext);
    if (LastIndexOf(C('.')) == kNotFound)
        return false;
    return ext.CompareNoCase(extension) == 0;
}

template <typename C>
void TString<C>::MakeDirUpper()
{
    unsigned at = LastSeparator((*this)(), m_length);
    if (at != kNotFound)
        ToUpper(0, at);
}

template <typename C>
bool TString<C>::FormatDir()
{
    static constexpr C kUp[] = {C('.'), C('.'), C('/'), 0};
    static constexpr C kUpBack[] = {C('.'), C('.'), C('\\'), 0};
    if (IndexOf(kUp, 3, 0) == kNotFound && IndexOf(kUpBack, 3, 0) == kNotFound)
        return true;
    const C* s = (*this)();
    TString out;
    out.Reserve(m_length);
    TArray<unsigned> stack;
    unsigned read = 0;
    for (unsigned i = 0; i < m_length; ++i)
    {
        if (!IsSeparator(s[i]))
            continue;
        if (i >= 3 && s[i - 1] == C('.') && s[i - 2] == C('.') && !stack.IsEmpty())
        {
            out.TerminateAtIndex(stack.Last());
            stack.Pop();
        }
        else
        {
            stack.Add(out.Length());
            out.Append(s + read, i - read);
        }
        read = i;
    }
    out.Append(s + read, m_length - read);
    Swap(out);
    return true;
}

// --- Case and hashing -------------------------------------------------------------

template <typename C>
void TString<C>::ToLower(unsigned start, unsigned count)
{
    C* s = (*this)();
    for (unsigned i = start; i < m_length && i - start < count; ++i)
        s[i] = LowerChar(s[i]);
}

template <typename C>
void TString<C>::ToUpper(unsigned start, unsigned count)
{
    C* s = (*this)();
    for (unsigned i = start; i < m_length && i - start < count; ++i)
        s[i] = UpperChar(s[i]);
}

template <typename C> void TString<C>::ToLower() { ToLower(0, m_length); }
template <typename C> void TString<C>::ToUpper() { ToUpper(0, m_length); }

template <typename C>
void TString<C>::FirstCharToUpper()
{
    if (m_length)
        (*this)()[0] = UpperChar((*this)()[0]);
}

template <typename C>
unsigned TString<C>::HashCode() const
{
    const C* s = (*this)();
    uint32 h = 0;
    for (unsigned i = 0; i < m_length; ++i)
    {
        // 8-bit characters count as signed, as the stored hashes expect.
        uint32 c = sizeof(C) == 1 ? uint32(int32(static_cast<signed char>(s[i]))) : uint32(s[i]);
        h = (h + c) * 1025u;
        h ^= h >> 6;
    }
    h *= 9u;
    h ^= h >> 11;
    return (h * 32769u) & 0x7FFFFFFFu;
}

// --- Comparison ---------------------------------------------------------------------

template <typename C>
int TString<C>::Compare(const C* text) const
{
    const C* s = (*this)();
    if (!text)
        return m_length ? 1 : 0;
    for (unsigned i = 0;; ++i)
    {
        unsigned a = i < m_length ? Unsigned(s[i]) : 0;
        unsigned b = Unsigned(text[i]);
        if (a != b)
            return a < b ? -1 : 1;
        if (b == 0 || i >= m_length)
            return i < m_length ? 1 : 0;
    }
}

template <typename C>
int TString<C>::Compare(const TString& other) const
{
    unsigned n = m_length < other.m_length ? m_length : other.m_length;
    const C* a = (*this)();
    const C* b = other();
    for (unsigned i = 0; i < n; ++i)
        if (a[i] != b[i])
            return Unsigned(a[i]) < Unsigned(b[i]) ? -1 : 1;
    return m_length == other.m_length ? 0 : (m_length < other.m_length ? -1 : 1);
}

template <typename C>
int TString<C>::CompareNoCase(const C* text) const
{
    const C* s = (*this)();
    if (!text)
        return m_length ? 1 : 0;
    for (unsigned i = 0;; ++i)
    {
        unsigned a = i < m_length ? Unsigned(LowerChar(s[i])) : 0;
        unsigned b = Unsigned(LowerChar(text[i]));
        if (a != b)
            return a < b ? -1 : 1;
        if (b == 0)
            return 0;
    }
}

template <typename C>
bool TString<C>::Equals(const C* text, unsigned length) const
{
    return length == m_length && (length == 0 || std::memcmp((*this)(), text, size_t(length) * sizeof(C)) == 0);
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

template class TString<char>;
template class TString<char16_t>;

} // namespace KovexEngine
