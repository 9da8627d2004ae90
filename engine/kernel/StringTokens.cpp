// TString: tokens, blocks, lines and removing characters.

#include "kernel/Strings.h"

#include "kernel/Containers.h"
#include "kernel/StringChars.h"

namespace KovexEngine {

using namespace StringChars;

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

// Each file instantiates the members it defines.
template class TString<char>;
template class TString<char16_t>;

} // namespace KovexEngine
