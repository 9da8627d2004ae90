// The engine's printf: one implementation for 8-bit and 16-bit formats.
// Integers and strings are converted here; floating-point conversions go
// through CLocale, digit for digit the C library's in the "C" locale, so a
// process locale with a decimal comma changes nothing.

#include <cstring>

#include "kernel/CLocale.h"
#include "kernel/Strings.h"
#include "kernel/Utf.h"

namespace KovexEngine {
namespace {

// Writes into a bounded buffer and keeps counting past its end, so the
// caller learns the full length. Padding is counted arithmetically: a huge
// width costs nothing once the buffer is full.
template <typename C>
struct Sink
{
    C* p;
    C* end; // one before the terminator's slot
    uint64 total = 0;

    void Put(C c)
    {
        if (p < end)
            *p++ = c;
        ++total;
    }
    void Put(const C* s, size_t n)
    {
        size_t room = size_t(end - p);
        size_t copy = n < room ? n : room;
        std::memcpy(p, s, copy * sizeof(C));
        p += copy;
        total += n;
    }
    void PutNarrow(const char* s, size_t n)
    {
        if constexpr (sizeof(C) == 1)
            Put(s, n);
        else
        {
            size_t room = size_t(end - p);
            size_t copy = n < room ? n : room;
            for (size_t i = 0; i < copy; ++i)
                p[i] = C(static_cast<unsigned char>(s[i]));
            p += copy;
            total += n;
        }
    }
    void Pad(C c, uint64 n)
    {
        uint64 room = uint64(end - p);
        uint64 fill = n < room ? n : room;
        for (uint64 i = 0; i < fill; ++i)
            p[i] = c;
        p += fill;
        total += n;
    }
};

struct FieldFormat
{
    bool left = false, plus = false, space = false, alt = false, zero = false;
    uint32 width = 0;
    int32 precision = -1; // -1: none
    enum Length { None, Char, Short, Long, LongLong, LongDouble, Size, Max, Ptrdiff, Wide, Narrow } length = None;
};

constexpr uint32 kMaxWidth = 0x7FFFFFFF;

template <typename C>
uint32 ParseNumber(const C*& f)
{
    uint64 n = 0;
    while (*f >= C('0') && *f <= C('9'))
    {
        n = n * 10 + uint32(*f - C('0'));
        if (n > kMaxWidth)
            n = kMaxWidth;
        ++f;
    }
    return uint32(n);
}

template <typename C>
void EmitInteger(Sink<C>& out, const FieldFormat& field, uint64 magnitude, bool negative, unsigned base, bool upper)
{
    char digits[72];
    int n = 0;
    const char* table = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    if (magnitude == 0 && field.precision == 0)
        n = 0; // "%.0d" of 0 prints no digit
    else
        do
        {
            digits[n++] = table[magnitude % base];
            magnitude /= base;
        } while (magnitude);

    char prefix[3];
    int prefixLen = 0;
    if (negative)
        prefix[prefixLen++] = '-';
    else if (field.plus && base == 10)
        prefix[prefixLen++] = '+';
    else if (field.space && base == 10)
        prefix[prefixLen++] = ' ';
    if (field.alt && base == 16 && !(n == 0 || (n == 1 && digits[0] == '0')))
    {
        prefix[prefixLen++] = '0';
        prefix[prefixLen++] = upper ? 'X' : 'x';
    }
    // "%#o" makes the first digit a zero, adding one only when needed.
    else if (field.alt && base == 8 && (n == 0 || digits[n - 1] != '0') && field.precision <= n)
        prefix[prefixLen++] = '0';

    uint64 precisionZeros = field.precision > n ? uint64(field.precision - n) : 0;
    uint64 body = uint64(prefixLen) + precisionZeros + uint64(n);
    uint64 pad = field.width > body ? field.width - body : 0;
    bool zeroPad = field.zero && !field.left && field.precision < 0;

    if (!field.left && !zeroPad)
        out.Pad(C(' '), pad);
    out.PutNarrow(prefix, size_t(prefixLen));
    if (zeroPad)
        out.Pad(C('0'), pad);
    out.Pad(C('0'), precisionZeros);
    char ordered[72];
    for (int i = 0; i < n; ++i)
        ordered[i] = digits[n - 1 - i];
    out.PutNarrow(ordered, size_t(n));
    if (field.left)
        out.Pad(C(' '), pad);
}

template <typename C>
void EmitFloat(Sink<C>& out, const FieldFormat& field, char conversion, double value)
{
    // Precision beyond what a double can carry only adds zeros; the cap keeps
    // the stack buffer sufficient for the widest "%f" (309 digits + 120).
    int precision = field.precision > 120 ? 120 : field.precision;
    char text[512];
    int n = int(CLocale::FormatDouble(text, sizeof text, conversion, value, precision, field.plus, field.space, field.alt));

    uint64 pad = field.width > uint32(n) ? field.width - uint32(n) : 0;
    char last = n > 0 ? text[n - 1] : 0;
    bool finite = !(last == 'f' || last == 'F' || last == 'n' || last == 'N'); // not inf or nan
    if (field.left)
    {
        out.PutNarrow(text, size_t(n));
        out.Pad(C(' '), pad);
    }
    else if (field.zero && finite && pad)
    {
        // Zeros go between the sign and the digits.
        int signLen = (n > 0 && (text[0] == '-' || text[0] == '+' || text[0] == ' ')) ? 1 : 0;
        out.PutNarrow(text, size_t(signLen));
        out.Pad(C('0'), pad);
        out.PutNarrow(text + signLen, size_t(n - signLen));
    }
    else
    {
        out.Pad(C(' '), pad);
        out.PutNarrow(text, size_t(n));
    }
}

// Copies text of the format's own width, at most `limit` characters.
template <typename C>
void EmitSameWidth(Sink<C>& out, const FieldFormat& field, const C* s)
{
    static constexpr C kNull[] = {C('('), C('n'), C('u'), C('l'), C('l'), C(')'), C(0)};
    if (!s)
        s = kNull;
    size_t n = 0;
    size_t limit = field.precision >= 0 ? size_t(field.precision) : ~size_t(0);
    while (n < limit && s[n])
        ++n;
    uint64 pad = field.width > n ? field.width - n : 0;
    if (!field.left)
        out.Pad(C(' '), pad);
    out.Put(s, n);
    if (field.left)
        out.Pad(C(' '), pad);
}

// Transcodes text of the other width, at most `precision` output characters.
template <typename C, typename O>
void EmitOtherWidth(Sink<C>& out, const FieldFormat& field, const O* s)
{
    if (!s)
    {
        static constexpr C kNull[] = {C('('), C('n'), C('u'), C('l'), C('l'), C(')'), C(0)};
        EmitSameWidth(out, field, kNull);
        return;
    }
    // Measure first when padding is needed; the text is usually short.
    size_t limit = field.precision >= 0 ? size_t(field.precision) : ~size_t(0);
    size_t srcLen = Utf::Length(s);
    auto transcode = [&](auto&& emit) {
        if constexpr (sizeof(O) == 1)
            Utf::DecodeUtf8(reinterpret_cast<const unsigned char*>(s),
                            reinterpret_cast<const unsigned char*>(s) + srcLen, emit);
        else
            Utf::EncodeUtf8(s, s + srcLen, emit);
    };
    size_t n = 0;
    if (field.width)
    {
        size_t units = 0, whole = 0;
        transcode([&](C c) {
            bool continues = sizeof(C) == 1 ? (static_cast<unsigned char>(c) & 0xC0) == 0x80
                                            : (c >= 0xDC00 && c < 0xE000);
            if (!continues)
                whole = units;
            ++units;
            if (units <= limit)
                n = units;
        });
        // A character cut by the precision does not count.
        if (units > limit)
            n = whole <= limit ? whole : limit;
    }
    uint64 pad = field.width > n ? field.width - n : 0;
    if (!field.left)
        out.Pad(C(' '), pad);
    // A character that does not fit the precision whole is left out whole.
    size_t written = 0;
    C pending[4];
    size_t pendingCount = 0;
    auto flush = [&] {
        if (written + pendingCount <= limit)
        {
            out.Put(pending, pendingCount);
            written += pendingCount;
        }
        else
            written = limit;
        pendingCount = 0;
    };
    transcode([&](C c) {
        bool continues = sizeof(C) == 1 ? (static_cast<unsigned char>(c) & 0xC0) == 0x80
                                        : (c >= 0xDC00 && c < 0xE000);
        if (!continues && pendingCount)
            flush();
        pending[pendingCount++] = c;
    });
    if (pendingCount)
        flush();
    if (field.left)
        out.Pad(C(' '), pad);
}

template <typename C>
unsigned FormatImpl(C* buffer, unsigned size, const C* format, va_list args)
{
    C dummy[1];
    Sink<C> out{size ? buffer : dummy, size ? buffer + size - 1 : dummy};
    if (!format)
    {
        if (size)
            *buffer = 0;
        return 0;
    }
    constexpr bool kWide = sizeof(C) == 2;
    const C* f = format;
    while (*f)
    {
        // Literal run up to the next directive.
        const C* run = f;
        while (*f && *f != C('%'))
            ++f;
        if (f != run)
            out.Put(run, size_t(f - run));
        if (!*f)
            break;
        const C* directive = f++;

        FieldFormat field;
        for (;; ++f)
        {
            if (*f == C('-')) field.left = true;
            else if (*f == C('+')) field.plus = true;
            else if (*f == C(' ')) field.space = true;
            else if (*f == C('#')) field.alt = true;
            else if (*f == C('0')) field.zero = true;
            else break;
        }
        if (*f == C('*'))
        {
            ++f;
            int w = va_arg(args, int);
            if (w < 0)
            {
                field.left = true;
                w = w == int(0x80000000) ? int(kMaxWidth) : -w;
            }
            field.width = uint32(w);
        }
        else
            field.width = ParseNumber(f);
        if (*f == C('.'))
        {
            ++f;
            if (*f == C('*'))
            {
                ++f;
                int p = va_arg(args, int);
                field.precision = p < 0 ? -1 : p;
            }
            else
                field.precision = int32(ParseNumber(f));
        }

        // Length modifiers, the Windows forms included.
        if (*f == C('h'))
        {
            ++f;
            if (*f == C('h')) { ++f; field.length = FieldFormat::Char; }
            else field.length = FieldFormat::Short;
        }
        else if (*f == C('l'))
        {
            ++f;
            if (*f == C('l')) { ++f; field.length = FieldFormat::LongLong; }
            else field.length = FieldFormat::Long;
        }
        else if (*f == C('q')) { ++f; field.length = FieldFormat::LongLong; }
        else if (*f == C('L')) { ++f; field.length = FieldFormat::LongDouble; }
        else if (*f == C('z')) { ++f; field.length = FieldFormat::Size; }
        else if (*f == C('j')) { ++f; field.length = FieldFormat::Max; }
        else if (*f == C('t')) { ++f; field.length = FieldFormat::Ptrdiff; }
        else if (*f == C('w')) { ++f; field.length = FieldFormat::Wide; }
        else if (*f == C('I'))
        {
            if (f[1] == C('6') && f[2] == C('4')) { f += 3; field.length = FieldFormat::LongLong; }
            else if (f[1] == C('3') && f[2] == C('2')) { f += 3; field.length = FieldFormat::None; }
            else { ++f; field.length = FieldFormat::Size; }
        }

        C conversion = *f;
        if (!conversion)
        {
            // A directive cut off by the end of the format is printed as it stands.
            out.Put(directive, size_t(f - directive));
            break;
        }
        ++f;

        switch (conversion)
        {
        case C('d'):
        case C('i'):
        {
            int64 v;
            switch (field.length)
            {
            case FieldFormat::Char: v = static_cast<signed char>(va_arg(args, int)); break;
            case FieldFormat::Short: v = static_cast<short>(va_arg(args, int)); break;
            case FieldFormat::Long: v = va_arg(args, long); break;
            case FieldFormat::LongLong: v = va_arg(args, long long); break;
            case FieldFormat::Size: case FieldFormat::Ptrdiff: v = va_arg(args, ptrdiff_t); break;
            case FieldFormat::Max: v = va_arg(args, intmax_t); break;
            default: v = va_arg(args, int); break;
            }
            uint64 magnitude = v < 0 ? uint64(0) - uint64(v) : uint64(v);
            EmitInteger(out, field, magnitude, v < 0, 10, false);
            break;
        }
        case C('u'):
        case C('x'):
        case C('X'):
        case C('o'):
        {
            uint64 v;
            switch (field.length)
            {
            case FieldFormat::Char: v = static_cast<unsigned char>(va_arg(args, unsigned)); break;
            case FieldFormat::Short: v = static_cast<unsigned short>(va_arg(args, unsigned)); break;
            case FieldFormat::Long: v = va_arg(args, unsigned long); break;
            case FieldFormat::LongLong: v = va_arg(args, unsigned long long); break;
            case FieldFormat::Size: case FieldFormat::Ptrdiff: v = va_arg(args, size_t); break;
            case FieldFormat::Max: v = va_arg(args, uintmax_t); break;
            default: v = va_arg(args, unsigned); break;
            }
            unsigned base = conversion == C('o') ? 8 : conversion == C('u') ? 10 : 16;
            EmitInteger(out, field, v, false, base, conversion == C('X'));
            break;
        }
        case C('p'):
        {
            FieldFormat p = field;
            p.alt = true;
            EmitInteger(out, p, uint64(reinterpret_cast<uintptr_t>(va_arg(args, void*))), false, 16, false);
            break;
        }
        case C('f'): case C('F'): case C('e'): case C('E'):
        case C('g'): case C('G'): case C('a'): case C('A'):
        {
            double v = field.length == FieldFormat::LongDouble ? double(va_arg(args, long double)) : va_arg(args, double);
            EmitFloat(out, field, char(conversion), v);
            break;
        }
        case C('c'):
        case C('C'):
        {
            // "%c" is a character of the format's width, "%C" of the other.
            unsigned v = va_arg(args, unsigned);
            bool other = conversion == C('C');
            if (field.length == FieldFormat::Short) other = kWide;
            else if (field.length == FieldFormat::Long || field.length == FieldFormat::Wide) other = !kWide;
            C text[3] = {};
            if (other && !kWide)
            {
                // A 16-bit character into 8-bit text: encode it.
                char16_t unit = char16_t(v);
                char encoded[4];
                int n = 0;
                Utf::EncodeUtf8(&unit, &unit + 1, [&](char c) { encoded[n++] = c; });
                encoded[n] = 0;
                FieldFormat s = field;
                s.precision = -1;
                EmitSameWidth(out, s, reinterpret_cast<const C*>(encoded));
                break;
            }
            text[0] = C(other && kWide ? (v & 0xFF) : v);
            FieldFormat s = field;
            s.precision = 1;
            if (text[0] == 0)
            {
                // A zero character still occupies its place.
                uint64 pad = field.width > 1 ? field.width - 1 : 0;
                if (!field.left) out.Pad(C(' '), pad);
                out.Put(C(0));
                if (field.left) out.Pad(C(' '), pad);
            }
            else
                EmitSameWidth(out, s, text);
            break;
        }
        case C('s'):
        case C('S'):
        {
            // "%s" is text of the format's width and "%S" of the other width;
            // "%hs" is always 8-bit and "%ls"/"%ws" always 16-bit.
            bool other = conversion == C('S');
            if (field.length == FieldFormat::Short) other = kWide;
            else if (field.length == FieldFormat::Long || field.length == FieldFormat::Wide) other = !kWide;
            if (!other)
                EmitSameWidth(out, field, va_arg(args, const C*));
            else if constexpr (kWide)
                EmitOtherWidth(out, field, va_arg(args, const char*));
            else
                EmitOtherWidth(out, field, va_arg(args, const char16_t*));
            break;
        }
        case C('n'):
            // Writing through an argument pointer is never honoured.
            (void)va_arg(args, void*);
            break;
        case C('%'):
            out.Put(C('%'));
            break;
        default:
            // Unknown conversion: print the directive as it stands.
            out.Put(directive, size_t(f - directive));
            break;
        }
    }
    if (size)
        *out.p = 0;
    return out.total > 0xFFFFFFFFu ? 0xFFFFFFFFu : unsigned(out.total);
}

} // namespace

unsigned FormatText(char* out, unsigned size, const char* format, va_list args)
{
    return FormatImpl(out, size, format, args);
}

unsigned FormatText(char16_t* out, unsigned size, const char16_t* format, va_list args)
{
    return FormatImpl(out, size, format, args);
}

} // namespace KovexEngine
