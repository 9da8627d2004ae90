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

struct Spec
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
void EmitInteger(Sink<C>& out, const Spec& spec, uint64 magnitude, bool negative, unsigned base, bool upper)
{
    char digits[72];
    int n = 0;
    const char* table = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    if (magnitude == 0 && spec.precision == 0)
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
    else if (spec.plus && base == 10)
        prefix[prefixLen++] = '+';
    else if (spec.space && base == 10)
        prefix[prefixLen++] = ' ';
    if (spec.alt && base == 16 && !(n == 0 || (n == 1 && digits[0] == '0')))
    {
        prefix[prefixLen++] = '0';
        prefix[prefixLen++] = upper ? 'X' : 'x';
    }
    // "%#o" makes the first digit a zero, adding one only when needed.
    else if (spec.alt && base == 8 && (n == 0 || digits[n - 1] != '0') && spec.precision <= n)
        prefix[prefixLen++] = '0';

    uint64 precisionZeros = spec.precision > n ? uint64(spec.precision - n) : 0;
    uint64 body = uint64(prefixLen) + precisionZeros + uint64(n);
    uint64 pad = spec.width > body ? spec.width - body : 0;
    bool zeroPad = spec.zero && !spec.left && spec.precision < 0;

    if (!spec.left && !zeroPad)
        out.Pad(C(' '), pad);
    out.PutNarrow(prefix, size_t(prefixLen));
    if (zeroPad)
        out.Pad(C('0'), pad);
    out.Pad(C('0'), precisionZeros);
    char ordered[72];
    for (int i = 0; i < n; ++i)
        ordered[i] = digits[n - 1 - i];
    out.PutNarrow(ordered, size_t(n));
    if (spec.left)
        out.Pad(C(' '), pad);
}

template <typename C>
void EmitFloat(Sink<C>& out, const Spec& spec, char conversion, double value)
{
    // Precision beyond what a double can carry only adds zeros; the cap keeps
    // the stack buffer sufficient for the widest "%f" (309 digits + 120).
    int precision = spec.precision > 120 ? 120 : spec.precision;
    char text[512];
    int n = int(CLocale::FormatDouble(text, sizeof text, conversion, value, precision, spec.plus, spec.space, spec.alt));

    uint64 pad = spec.width > uint32(n) ? spec.width - uint32(n) : 0;
    char last = n > 0 ? text[n - 1] : 0;
    bool finite = !(last == 'f' || last == 'F' || last == 'n' || last == 'N'); // not inf or nan
    if (spec.left)
    {
        out.PutNarrow(text, size_t(n));
        out.Pad(C(' '), pad);
    }
    else if (spec.zero && finite && pad)
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
void EmitSameWidth(Sink<C>& out, const Spec& spec, const C* s)
{
    static constexpr C kNull[] = {C('('), C('n'), C('u'), C('l'), C('l'), C(')'), C(0)};
    if (!s)
        s = kNull;
    size_t n = 0;
    size_t limit = spec.precision >= 0 ? size_t(spec.precision) : ~size_t(0);
    while (n < limit && s[n])
        ++n;
    uint64 pad = spec.width > n ? spec.width - n : 0;
    if (!spec.left)
        out.Pad(C(' '), pad);
    out.Put(s, n);
    if (spec.left)
        out.Pad(C(' '), pad);
}

// Transcodes text of the other width, at most `precision` output characters.
template <typename C, typename O>
void EmitOtherWidth(Sink<C>& out, const Spec& spec, const O* s)
{
    if (!s)
    {
        static constexpr C kNull[] = {C('('), C('n'), C('u'), C('l'), C('l'), C(')'), C(0)};
        EmitSameWidth(out, spec, kNull);
        return;
    }
    // Measure first when padding is needed; the text is usually short.
    size_t limit = spec.precision >= 0 ? size_t(spec.precision) : ~size_t(0);
    size_t srcLen = Utf::Length(s);
    auto transcode = [&](auto&& emit) {
        if constexpr (sizeof(O) == 1)
            Utf::DecodeUtf8(reinterpret_cast<const unsigned char*>(s),
                            reinterpret_cast<const unsigned char*>(s) + srcLen, emit);
        else
            Utf::EncodeUtf8(s, s + srcLen, emit);
    };
    size_t n = 0;
    if (spec.width)
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
    uint64 pad = spec.width > n ? spec.width - n : 0;
    if (!spec.left)
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
    if (spec.left)
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

        Spec spec;
        for (;; ++f)
        {
            if (*f == C('-')) spec.left = true;
            else if (*f == C('+')) spec.plus = true;
            else if (*f == C(' ')) spec.space = true;
            else if (*f == C('#')) spec.alt = true;
            else if (*f == C('0')) spec.zero = true;
            else break;
        }
        if (*f == C('*'))
        {
            ++f;
            int w = va_arg(args, int);
            if (w < 0)
            {
                spec.left = true;
                w = w == int(0x80000000) ? int(kMaxWidth) : -w;
            }
            spec.width = uint32(w);
        }
        else
            spec.width = ParseNumber(f);
        if (*f == C('.'))
        {
            ++f;
            if (*f == C('*'))
            {
                ++f;
                int p = va_arg(args, int);
                spec.precision = p < 0 ? -1 : p;
            }
            else
                spec.precision = int32(ParseNumber(f));
        }

        // Length modifiers, the Windows forms included.
        if (*f == C('h'))
        {
            ++f;
            if (*f == C('h')) { ++f; spec.length = Spec::Char; }
            else spec.length = Spec::Short;
        }
        else if (*f == C('l'))
        {
            ++f;
            if (*f == C('l')) { ++f; spec.length = Spec::LongLong; }
            else spec.length = Spec::Long;
        }
        else if (*f == C('q')) { ++f; spec.length = Spec::LongLong; }
        else if (*f == C('L')) { ++f; spec.length = Spec::LongDouble; }
        else if (*f == C('z')) { ++f; spec.length = Spec::Size; }
        else if (*f == C('j')) { ++f; spec.length = Spec::Max; }
        else if (*f == C('t')) { ++f; spec.length = Spec::Ptrdiff; }
        else if (*f == C('w')) { ++f; spec.length = Spec::Wide; }
        else if (*f == C('I'))
        {
            if (f[1] == C('6') && f[2] == C('4')) { f += 3; spec.length = Spec::LongLong; }
            else if (f[1] == C('3') && f[2] == C('2')) { f += 3; spec.length = Spec::None; }
            else { ++f; spec.length = Spec::Size; }
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
            switch (spec.length)
            {
            case Spec::Char: v = static_cast<signed char>(va_arg(args, int)); break;
            case Spec::Short: v = static_cast<short>(va_arg(args, int)); break;
            case Spec::Long: v = va_arg(args, long); break;
            case Spec::LongLong: v = va_arg(args, long long); break;
            case Spec::Size: case Spec::Ptrdiff: v = va_arg(args, ptrdiff_t); break;
            case Spec::Max: v = va_arg(args, intmax_t); break;
            default: v = va_arg(args, int); break;
            }
            uint64 magnitude = v < 0 ? uint64(0) - uint64(v) : uint64(v);
            EmitInteger(out, spec, magnitude, v < 0, 10, false);
            break;
        }
        case C('u'):
        case C('x'):
        case C('X'):
        case C('o'):
        {
            uint64 v;
            switch (spec.length)
            {
            case Spec::Char: v = static_cast<unsigned char>(va_arg(args, unsigned)); break;
            case Spec::Short: v = static_cast<unsigned short>(va_arg(args, unsigned)); break;
            case Spec::Long: v = va_arg(args, unsigned long); break;
            case Spec::LongLong: v = va_arg(args, unsigned long long); break;
            case Spec::Size: case Spec::Ptrdiff: v = va_arg(args, size_t); break;
            case Spec::Max: v = va_arg(args, uintmax_t); break;
            default: v = va_arg(args, unsigned); break;
            }
            unsigned base = conversion == C('o') ? 8 : conversion == C('u') ? 10 : 16;
            EmitInteger(out, spec, v, false, base, conversion == C('X'));
            break;
        }
        case C('p'):
        {
            Spec p = spec;
            p.alt = true;
            EmitInteger(out, p, uint64(reinterpret_cast<uintptr_t>(va_arg(args, void*))), false, 16, false);
            break;
        }
        case C('f'): case C('F'): case C('e'): case C('E'):
        case C('g'): case C('G'): case C('a'): case C('A'):
        {
            double v = spec.length == Spec::LongDouble ? double(va_arg(args, long double)) : va_arg(args, double);
            EmitFloat(out, spec, char(conversion), v);
            break;
        }
        case C('c'):
        case C('C'):
        {
            // "%c" is a character of the format's width, "%C" of the other.
            unsigned v = va_arg(args, unsigned);
            bool other = conversion == C('C');
            if (spec.length == Spec::Short) other = kWide;
            else if (spec.length == Spec::Long || spec.length == Spec::Wide) other = !kWide;
            C text[3] = {};
            if (other && !kWide)
            {
                // A 16-bit character into 8-bit text: encode it.
                char16_t unit = char16_t(v);
                char encoded[4];
                int n = 0;
                Utf::EncodeUtf8(&unit, &unit + 1, [&](char c) { encoded[n++] = c; });
                encoded[n] = 0;
                Spec s = spec;
                s.precision = -1;
                EmitSameWidth(out, s, reinterpret_cast<const C*>(encoded));
                break;
            }
            text[0] = C(other && kWide ? (v & 0xFF) : v);
            Spec s = spec;
            s.precision = 1;
            if (text[0] == 0)
            {
                // A zero character still occupies its place.
                uint64 pad = spec.width > 1 ? spec.width - 1 : 0;
                if (!spec.left) out.Pad(C(' '), pad);
                out.Put(C(0));
                if (spec.left) out.Pad(C(' '), pad);
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
            if (spec.length == Spec::Short) other = kWide;
            else if (spec.length == Spec::Long || spec.length == Spec::Wide) other = !kWide;
            if (!other)
                EmitSameWidth(out, spec, va_arg(args, const C*));
            else if constexpr (kWide)
                EmitOtherWidth(out, spec, va_arg(args, const char*));
            else
                EmitOtherWidth(out, spec, va_arg(args, const char16_t*));
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
