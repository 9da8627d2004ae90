#pragma once

// Internal: the UTF-8 and UTF-16 codecs shared by the conversion functions
// and the formatter. Not installed.

#include <cstring>

#include "kernel/Types.h"

namespace KovexEngine::Utf {

// Decodes UTF-8 from [s, end) and emits UTF-16 units through `emit`.
// Lead bytes announce 2 to 6 bytes; stray continuation bytes and 0xFE/0xFF
// are dropped; a byte of another form inside a sequence abandons it and is
// dropped too; values of 0x110000 and above are dropped; no overlong test.
template <typename Emit>
inline void DecodeUtf8(const unsigned char* s, const unsigned char* end, Emit&& emit)
{
    while (s < end)
    {
        // ASCII runs eight at a time.
        while (end - s >= 8)
        {
            uint64 word;
            std::memcpy(&word, s, 8);
            if (word & 0x8080808080808080ull)
                break;
            for (int i = 0; i < 8; ++i)
                emit(char16_t(s[i]));
            s += 8;
        }
        if (s >= end)
            break;
        unsigned b = *s++;
        if (b < 0x80)
        {
            emit(char16_t(b));
            continue;
        }
        unsigned need;
        uint32 value;
        if ((b & 0xE0) == 0xC0) { need = 1; value = b & 0x1F; }
        else if ((b & 0xF0) == 0xE0) { need = 2; value = b & 0x0F; }
        else if ((b & 0xF8) == 0xF0) { need = 3; value = b & 0x07; }
        else if ((b & 0xFC) == 0xF8) { need = 4; value = b & 0x03; }
        else if ((b & 0xFE) == 0xFC) { need = 5; value = b & 0x03; }
        else continue; // stray continuation byte, 0xFE or 0xFF
        bool complete = true;
        for (; need; --need)
        {
            if (s >= end) { complete = false; break; }
            unsigned c = *s++;
            if ((c & 0xC0) != 0x80) { complete = false; break; }
            value = (value << 6) | (c & 0x3F);
        }
        if (!complete)
            continue;
        if (value < 0x10000)
            emit(char16_t(value));
        else if (value < 0x110000)
        {
            value -= 0x10000;
            emit(char16_t(0xD800 | (value >> 10)));
            emit(char16_t(0xDC00 | (value & 0x3FF)));
        }
    }
}

// Encodes UTF-16 from [s, end) as UTF-8 through `emit`. A high surrogate not
// followed by a low one is dropped together with that next unit; a stray low
// surrogate is dropped.
template <typename Emit>
inline void EncodeUtf8(const char16_t* s, const char16_t* end, Emit&& emit)
{
    while (s < end)
    {
        while (end - s >= 4)
        {
            uint64 word;
            std::memcpy(&word, s, 8);
            if (word & 0xFF80FF80FF80FF80ull)
                break;
            emit(char(s[0])); emit(char(s[1])); emit(char(s[2])); emit(char(s[3]));
            s += 4;
        }
        if (s >= end)
            break;
        uint32 c = *s++;
        if (c >= 0xD800 && c < 0xDC00)
        {
            if (s >= end)
                break;
            uint32 low = *s++;
            if (low < 0xDC00 || low >= 0xE000)
                continue;
            c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
        }
        else if (c >= 0xDC00 && c < 0xE000)
            continue;
        if (c < 0x80)
            emit(char(c));
        else if (c < 0x800)
        {
            emit(char(0xC0 | (c >> 6)));
            emit(char(0x80 | (c & 0x3F)));
        }
        else if (c < 0x10000)
        {
            emit(char(0xE0 | (c >> 12)));
            emit(char(0x80 | ((c >> 6) & 0x3F)));
            emit(char(0x80 | (c & 0x3F)));
        }
        else
        {
            emit(char(0xF0 | (c >> 18)));
            emit(char(0x80 | ((c >> 12) & 0x3F)));
            emit(char(0x80 | ((c >> 6) & 0x3F)));
            emit(char(0x80 | (c & 0x3F)));
        }
    }
}

template <typename C>
inline size_t Length(const C* text)
{
    if (!text)
        return 0;
    if constexpr (sizeof(C) == 1)
        return std::strlen(text);
    const C* p = text;
    while (*p)
        ++p;
    return size_t(p - text);
}

} // namespace KovexEngine::Utf
