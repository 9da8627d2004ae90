#pragma once

// Character helpers shared by the files that implement TString; internal to
// the kernel, not part of the interface.

#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "kernel/CLocale.h"
#include "kernel/CharSet.h"

namespace KovexEngine::StringChars {

template <typename C>
inline void CopyChars(C* dst, const C* src, unsigned count)
{
    std::memmove(dst, src, size_t(count) * sizeof(C));
}

template <typename C>
inline C* AllocChars(unsigned count)
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

} // namespace KovexEngine::StringChars
