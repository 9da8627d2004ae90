// TString: case, hashing and comparison.

#include "kernel/Strings.h"

#include "kernel/StringChars.h"

namespace KovexEngine {

using namespace StringChars;

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

// Each file instantiates the members it defines.
template class TString<char>;
template class TString<char16_t>;

} // namespace KovexEngine
