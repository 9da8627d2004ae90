// Fuzz target: text from outside (file names, property values, expressions,
// shader source) through every parser of the string classes. Nothing may
// crash, hang or allocate without bound, whatever the bytes.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include <locale.h>

#include "kernel/Containers.h"
#include "kernel/StringConv.h"
#include "kernel/Strings.h"
#include "math/Matrix.h"
#include "math/MathUtil.h"
#include "math/Quaternion.h"
#include "math/Transform.h"
#include "math/Bounds.h"
#include "reflection/Struct.h"
#include "reflection/Variable.h"

using namespace KovexEngine;

namespace {

template <typename C>
void Exercise(const TString<C>& s)
{
    int32 i;
    uint64 u;
    double d;
    Vector3 v;
    Matrix4 m;
    Quaternion q;
    s.AsValue(i);
    s.AsValue(u);
    s.AsValue(d);
    s.AsValue(v);
    s.AsValue(m);
    s.AsValue(q);
    (void)s.AsInt();
    (void)s.AsUIntHex();
    (void)s.AsBool();
    float f;
    s.EvalNumber(f);

    TArray<TString<C>> parts;
    s.GetTokens(parts, ", \t;");
    s.GetFuncParams(parts);
    TString<C> out;
    unsigned position = 0;
    s.GetToken(out, position, s.Length() / 2, " ");
    s.GetNextToken(out, position, 1, " =");
    s.GetLastToken(out, position, s.Length(), " =");
    s.GetBlock(out, C('('), C(')'));
    static constexpr C kName[] = {C('D'), C('i'), C('s'), C('p'), C('l'), C('a'), C('y'), 0};
    s.GetAttribute(out, kName);
    while (s.GetLine(out, position, position))
    {
    }

    TString<C> copy(s);
    copy.RemoveComment();
    copy = s;
    copy.FormatDir();
    copy = s;
    copy.RemoveBeginEndNRT();
    copy.RemoveFloatPostfix();
    static constexpr C kFrom[] = {C('.'), C('.'), 0};
    static constexpr C kTo[] = {C('/'), 0};
    copy.Replace(kFrom, kTo);
    copy.Replace(C('<'), C('>'), kTo);
    copy.ExtractLastDir(out);
    copy.GetFileExt(out);
    (void)copy.HashCode();
}

// Floats print by a faster road than the C library's printf; it must give
// the C library's digits in the "C" locale for any value and precision.
void CompareFloatText(const uint8_t* data, size_t size)
{
    if (size < 10)
        return;
    double value;
    std::memcpy(&value, data, sizeof value);
    static const char* const kConversions = "feEgGFa";
    char format[16];
    std::snprintf(format, sizeof format, "%%%s%s.%u%c", (data[8] & 1) ? "+" : "", (data[8] & 2) ? "#" : "",
                  unsigned(data[9] % 40), kConversions[(data[8] >> 2) % 7]);
    static const locale_t c = newlocale(LC_ALL_MASK, "C", locale_t(0));
    char expected[512];
    locale_t previous = uselocale(c);
    std::snprintf(expected, sizeof expected, format, value);
    uselocale(previous);
    AString ours;
    ours.Format(format, value);
    if (std::strcmp(ours(), expected) != 0)
        __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static bool inited = (Math::Init(), true);
    (void)inited;
    if (size > 1 << 16)
        return 0;
    const char* bytes = reinterpret_cast<const char*>(data);
    CompareFloatText(data, size);

    AString narrow(bytes, unsigned(size));
    Exercise(narrow);

    // Property values arrive as text: every conversion of the table, and
    // structs read field by field.
    Variable text(narrow);
    for (int type = KOVEX_TYPE_BOOL; type <= KOVEX_TYPE_WSTRING; ++type)
    {
        Variable converted;
        converted.Change(KOVEX_BASE_TYPE(type), text);
    }
    WString wideText;
    StringConvFuncs::UTF8toUTF16(wideText, bytes, unsigned(size));
    Aabb box;
    static_cast<const Struct*>(Aabb::StaticGetClass())->FromString(wideText, &box);
    Sphere sphere;
    static_cast<const Struct*>(Sphere::StaticGetClass())->FromString(wideText, &sphere);

    WString wide;
    StringConvFuncs::UTF8toUTF16(wide, bytes, unsigned(size));
    Exercise(wide);

    // The raw bytes as UTF-16 units, broken surrogates and all.
    WString units;
    if (size >= 2)
    {
        units.SetLength(unsigned(size / 2));
        std::memcpy(units(), data, size / 2 * 2);
        AString back;
        StringConvFuncs::UTF16toUTF8(back, units(), units.Length());
        Exercise(units);
    }

    // The bytes as a format string. Every argument is text that reads as
    // valid in both widths; a format that could consume more arguments than
    // are passed is skipped. A long double ("%Lf") is read from the stack as
    // two slots and may skip a third to align, so an "L" weighs two more;
    // 24 arguments leave at least 19 stack slots for at most 16 read.
    unsigned consumers = 0;
    for (size_t k = 0; k < size; ++k)
        consumers += (bytes[k] == '%' || bytes[k] == '*') + (bytes[k] == 'L' ? 2 : 0);
    if (consumers <= 16)
    {
        static const char16_t kText[] = u"xy";
        const char* t = reinterpret_cast<const char*>(kText);
        AString format(bytes, unsigned(size));
        AString formatted;
        formatted.Format(4096u, format(), t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t);
        WString wideFormat;
        StringConvFuncs::UTF8toUTF16(wideFormat, bytes, unsigned(size));
        WString wideFormatted;
        wideFormatted.Format(wideFormat(), t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t);
    }
    return 0;
}
