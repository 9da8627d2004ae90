#include "kernel/CLocale.h"

#include <locale.h>
#include <stdlib.h>

#include <charconv>
#include <cmath>
#include <cstdio>

namespace KovexEngine::CLocale {
namespace {

// Made once and kept for the life of the process; null only if the C
// library cannot make a "C" locale, and then the process locale serves.
locale_t Handle()
{
    static const locale_t handle = newlocale(LC_ALL_MASK, "C", locale_t(0));
    return handle;
}

// The C library's own printf, switched to the "C" locale on this thread
// only, for the forms std::to_chars has no word for ('#', hexadecimal).
int PrintInC(char* out, size_t size, const char* format, int precision, double value)
{
    locale_t c = Handle();
    locale_t previous = c ? uselocale(c) : locale_t(0);
    int n = precision >= 0 ? std::snprintf(out, size, format, precision, value)
                           : std::snprintf(out, size, format, value);
    if (c)
        uselocale(previous);
    return n;
}

char AsciiUpper(char c) { return c >= 'a' && c <= 'z' ? char(c - 'a' + 'A') : c; }

} // namespace

unsigned FormatDouble(char* out, unsigned size, char conversion, double value, int precision,
                      bool plus, bool space, bool alt)
{
    if (size == 0)
        return 0;
    bool upper = conversion >= 'A' && conversion <= 'Z';
    char lower = upper ? char(conversion - 'A' + 'a') : conversion;
    int n;
    if (alt || lower == 'a' || (lower != 'f' && lower != 'e' && lower != 'g'))
    {
        char fmt[16];
        int f = 0;
        fmt[f++] = '%';
        if (plus) fmt[f++] = '+';
        if (space) fmt[f++] = ' ';
        if (alt) fmt[f++] = '#';
        if (precision >= 0)
        {
            fmt[f++] = '.';
            fmt[f++] = '*';
        }
        fmt[f++] = conversion;
        fmt[f] = 0;
        n = PrintInC(out, size, fmt, precision, value);
        if (n < 0)
            n = 0;
        return unsigned(n) < size ? unsigned(n) : size - 1;
    }

    // std::to_chars with a precision prints as printf does in the "C"
    // locale, and is much faster; the sign flags and case are added here.
    std::chars_format form = lower == 'f' ? std::chars_format::fixed
                             : lower == 'e' ? std::chars_format::scientific
                                            : std::chars_format::general;
    char* at = out;
    char* last = out + size - 1;
    if ((plus || space) && !std::signbit(value) && at < last)
        *at++ = plus ? '+' : ' ';
    std::to_chars_result r = std::to_chars(at, last, value, form, precision < 0 ? 6 : precision);
    if (r.ec != std::errc())
    {
        // Only a buffer too small for the text gets here: cut it as snprintf would.
        char wide[512];
        r = std::to_chars(wide, wide + sizeof wide, value, form, precision < 0 ? 6 : precision);
        size_t count = r.ec == std::errc() ? size_t(r.ptr - wide) : 0;
        size_t room = size_t(last - at);
        count = count < room ? count : room;
        for (size_t i = 0; i < count; ++i)
            at[i] = wide[i];
        r.ptr = at + count;
    }
    if (upper)
        for (char* p = out; p < r.ptr; ++p)
            *p = AsciiUpper(*p);
    *r.ptr = 0;
    return unsigned(r.ptr - out);
}

double ParseDouble(const char* text, char** end)
{
    locale_t c = Handle();
    return c ? strtod_l(text, end, c) : strtod(text, end);
}

float ParseFloat(const char* text, char** end)
{
    locale_t c = Handle();
    return c ? strtof_l(text, end, c) : strtof(text, end);
}

char ToLower(char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; }
char ToUpper(char c) { return AsciiUpper(c); }
char16_t ToLower(char16_t c) { return c >= u'A' && c <= u'Z' ? char16_t(c - u'A' + u'a') : c; }
char16_t ToUpper(char16_t c) { return c >= u'a' && c <= u'z' ? char16_t(c - u'a' + u'A') : c; }

} // namespace KovexEngine::CLocale
