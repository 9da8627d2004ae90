#pragma once

#include "kernel/Strings.h"

namespace KovexEngine {

// Conversions between 8-bit and 16-bit text. The multi-byte ("MBS") forms
// use the system's code page, which on this platform is UTF-8.
//
// The pointer forms write a terminated result into `destination`, which must
// hold the matching Get...Length() + 1 units, and return the units written
// without the terminator. A null source converts to nothing. The length
// functions count exactly what the conversion writes, so sizing a buffer by
// them is always safe.
class KOVEX_API StringConvFuncs
{
public:
    static unsigned UTF8toUTF16(char16_t* destination, const char* source);
    static unsigned GetUTF8toUTF16Length(const char* source);
    static unsigned UTF16toUTF8(char* destination, const char16_t* source);
    static unsigned GetUTF16toUTF8Length(const char16_t* source);

    static unsigned MBStoUTF16(char16_t* destination, const char* source);
    static unsigned GetMBStoUTF16Length(const char* source);
    static unsigned UTF16toMBS(char* destination, const char16_t* source);
    static unsigned GetUTF16toMBSLength(const char16_t* source);

    // Counted sources, which may hold zeros.
    static unsigned UTF8toUTF16(char16_t* destination, const char* source, unsigned sourceLength);
    static unsigned UTF16toUTF8(char* destination, const char16_t* source, unsigned sourceLength);

    // Into strings.
    static void UTF8toUTF16(WString& out, const char* source, unsigned sourceLength = kNotFound);
    static void UTF16toUTF8(AString& out, const char16_t* source, unsigned sourceLength = kNotFound);
    static WString ToWString(const char* utf8);
    static AString ToAString(const char16_t* utf16);
};

// The conversion operators used by templates that convert either way: a null
// destination returns the length needed, otherwise the text is converted.
struct KOVEX_API _Op_MBSto16 { static unsigned Exec(char16_t* destination, const char* source); };
struct KOVEX_API _Op_16toMBS { static unsigned Exec(char* destination, const char16_t* source); };
struct KOVEX_API _Op_8to16 { static unsigned Exec(char16_t* destination, const char* source); };
struct KOVEX_API _Op_16to8 { static unsigned Exec(char* destination, const char16_t* source); };

} // namespace KovexEngine
