// TString: construction, storage and the printing of values.

#include "kernel/Strings.h"

#include "kernel/StringChars.h"
#include "kernel/Utf.h"
#include "math/Matrix.h"
#include "math/Quaternion.h"

namespace KovexEngine {

constinit const StringDelimit StringDelimit::Default{};

template <typename C>
const TString<C> TString<C>::EmptyString;

using namespace StringChars;

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

// Each file instantiates the members it defines.
template class TString<char>;
template class TString<char16_t>;

} // namespace KovexEngine
