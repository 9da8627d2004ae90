// TString: file paths, with "/" and "\\" alike.

#include "kernel/Strings.h"

#include "kernel/Containers.h"
#include "kernel/StringChars.h"

namespace KovexEngine {

using namespace StringChars;

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

// Each file instantiates the members it defines.
template class TString<char>;
template class TString<char16_t>;

} // namespace KovexEngine
