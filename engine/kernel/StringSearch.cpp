// TString: searching, sub-strings and replacing.

#include "kernel/Strings.h"

#include "kernel/StringChars.h"

namespace KovexEngine {

using namespace StringChars;

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

// Each file instantiates the members it defines.
template class TString<char>;
template class TString<char16_t>;

} // namespace KovexEngine
