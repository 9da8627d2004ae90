#pragma once

#include "kernel/Types.h"

namespace KovexEngine {

// 256 bits, one per character value. Character 0 is always a member, so a
// scan that stops at a member also stops at the terminator. Characters of
// 256 and above belong to no set.
struct CharSet
{
    uint32 bits[8] = {};

    constexpr CharSet() = default;
    // Builds the set from the characters of a text (and the terminator).
    constexpr explicit CharSet(const char* text)
    {
        Add(0);
        if (text)
            for (; *text; ++text)
                Add(static_cast<unsigned char>(*text));
    }

    constexpr void Add(unsigned c) { if (c < 256) bits[c >> 5] |= 1u << (c & 31); }
    constexpr bool Has(unsigned c) const { return c < 256 && ((bits[c >> 5] >> (c & 31)) & 1u); }
};

// The character sets that parsing uses. Built at compile time, so they are
// ready before any static initialiser runs.
class KOVEX_API StringDelimit
{
public:
    CharSet nrt{"\r\n\t "};
    CharSet signedInt{" \t-+01234567890"};
    CharSet unsignedInt{" \t+01234567890"};
    CharSet hexInt{" \t-+01234567890abcdefxABCDEF"};
    CharSet floatNumber{" \t-+.e1234567890"};
    CharSet vector{" \t-+.,e1234567890"};
    CharSet attribute{"=;"};

    static const StringDelimit Default;
};

} // namespace KovexEngine
