#include "kernel/StringConv.h"

#include "kernel/Utf.h"

namespace KovexEngine {
namespace {

const unsigned char* Bytes(const char* s) { return reinterpret_cast<const unsigned char*>(s); }

unsigned Clamp(size_t n) { return n > 0xFFFFFFFFu ? 0xFFFFFFFFu : unsigned(n); }

} // namespace

unsigned StringConvFuncs::UTF8toUTF16(char16_t* destination, const char* source, unsigned sourceLength)
{
    if (!destination)
        return 0;
    char16_t* p = destination;
    if (source)
        Utf::DecodeUtf8(Bytes(source), Bytes(source) + sourceLength, [&](char16_t c) { *p++ = c; });
    *p = 0;
    return unsigned(p - destination);
}

unsigned StringConvFuncs::UTF16toUTF8(char* destination, const char16_t* source, unsigned sourceLength)
{
    if (!destination)
        return 0;
    char* p = destination;
    if (source)
        Utf::EncodeUtf8(source, source + sourceLength, [&](char c) { *p++ = c; });
    *p = 0;
    return unsigned(p - destination);
}

unsigned StringConvFuncs::UTF8toUTF16(char16_t* destination, const char* source)
{
    return UTF8toUTF16(destination, source, Clamp(Utf::Length(source)));
}

unsigned StringConvFuncs::UTF16toUTF8(char* destination, const char16_t* source)
{
    return UTF16toUTF8(destination, source, Clamp(Utf::Length(source)));
}

unsigned StringConvFuncs::GetUTF8toUTF16Length(const char* source)
{
    size_t n = 0;
    if (source)
        Utf::DecodeUtf8(Bytes(source), Bytes(source) + Utf::Length(source), [&](char16_t) { ++n; });
    return Clamp(n);
}

unsigned StringConvFuncs::GetUTF16toUTF8Length(const char16_t* source)
{
    size_t n = 0;
    if (source)
        Utf::EncodeUtf8(source, source + Utf::Length(source), [&](char) { ++n; });
    return Clamp(n);
}

unsigned StringConvFuncs::MBStoUTF16(char16_t* destination, const char* source) { return UTF8toUTF16(destination, source); }
unsigned StringConvFuncs::GetMBStoUTF16Length(const char* source) { return GetUTF8toUTF16Length(source); }
unsigned StringConvFuncs::UTF16toMBS(char* destination, const char16_t* source) { return UTF16toUTF8(destination, source); }
unsigned StringConvFuncs::GetUTF16toMBSLength(const char16_t* source) { return GetUTF16toUTF8Length(source); }

void StringConvFuncs::UTF8toUTF16(WString& out, const char* source, unsigned sourceLength)
{
    size_t length = sourceLength == kNotFound ? Utf::Length(source) : sourceLength;
    // Every byte yields at most one unit: one pass into a block of that size.
    if (length > WString::kMaxLength || !out.Reserve(unsigned(length)))
    {
        out.Clear();
        return;
    }
    char16_t* p = out();
    if (source)
        Utf::DecodeUtf8(Bytes(source), Bytes(source) + length, [&](char16_t c) { *p++ = c; });
    out.SetLength(unsigned(p - out()));
}

void StringConvFuncs::UTF16toUTF8(AString& out, const char16_t* source, unsigned sourceLength)
{
    size_t length = sourceLength == kNotFound ? Utf::Length(source) : sourceLength;
    // At most three bytes a unit (a surrogate pair makes four from two).
    if (length * 3 > AString::kMaxLength || !out.Reserve(unsigned(length * 3)))
    {
        out.Clear();
        return;
    }
    char* p = out();
    if (source)
        Utf::EncodeUtf8(source, source + length, [&](char c) { *p++ = c; });
    out.SetLength(unsigned(p - out()));
}

WString StringConvFuncs::ToWString(const char* utf8)
{
    WString out;
    UTF8toUTF16(out, utf8);
    return out;
}

AString StringConvFuncs::ToAString(const char16_t* utf16)
{
    AString out;
    UTF16toUTF8(out, utf16);
    return out;
}

unsigned _Op_MBSto16::Exec(char16_t* d, const char* s) { return d ? StringConvFuncs::MBStoUTF16(d, s) : StringConvFuncs::GetMBStoUTF16Length(s); }
unsigned _Op_16toMBS::Exec(char* d, const char16_t* s) { return d ? StringConvFuncs::UTF16toMBS(d, s) : StringConvFuncs::GetUTF16toMBSLength(s); }
unsigned _Op_8to16::Exec(char16_t* d, const char* s) { return d ? StringConvFuncs::UTF8toUTF16(d, s) : StringConvFuncs::GetUTF8toUTF16Length(s); }
unsigned _Op_16to8::Exec(char* d, const char16_t* s) { return d ? StringConvFuncs::UTF16toUTF8(d, s) : StringConvFuncs::GetUTF16toUTF8Length(s); }

} // namespace KovexEngine
