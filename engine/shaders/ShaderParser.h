#pragma once

// Reads the default values of shader constants out of preprocessed KSL
// text. The SPIR-V front end drops the initialiser of a non-static global
// (it becomes a member of the implicit "$Global" block), so these defaults
// are what gives such constants their values: the compiler stores them in
// the constants and Link commits them (ApplyConstantDefaultValue).
//
// "float4 Tint = float4(1, 0, 0, 1);" gives Tint the default (1,0,0,1). A
// use of the name in an expression, a name inside a longer name, a count of
// numbers that does not fit the type, or an array whose packed size is not
// the constant's size give no default, silently.
//
// Threads: stateless; every call is safe from any thread.

#include "kernel/Strings.h"

namespace KovexEngine {

class ShaderConstant;

class KOVEX_API ShaderParser
{
public:
    struct VarInfo
    {
        // 0 float, 1 float2, 2 float3, 3 float4, 4 float4x3, 5 float4x4.
        int Type = 0;
        // Array length; 1 for a constant that is no array.
        unsigned Count = 1;
    };
    static constexpr int kNumTypes = 6;

    // Components of a type index (12 for float4x3), 0 for a bad index.
    static unsigned GetComponents(const VarInfo& info);
    // The type index of a reflected shape (vector width or matrix columns,
    // rows; 1 row for scalars and vectors), -1 for one without defaults.
    static int TypeOf(unsigned columns, unsigned rows);

    // Finds the constant's declaration with an initialiser in `source` and
    // sets the constant's default value; nothing for a null argument.
    static void GetDefaultValue(const char* source, const VarInfo& info, ShaderConstant* constant);
    // The word before `at` (blanks before it skipped), lower-cased; false
    // when there is none before a statement end or `begin`.
    static bool GetLastToken(AString& out, const char* begin, const char* at);
    // The text from `at` up to the next ";", without the first spelling of
    // the type, without "=", "{", "(", ")", "}" and blanks; false when there
    // is no ";".
    static bool GetNextString(AString& out, const char* at, const VarInfo& info);
    // True when `token` is one spelling of the type.
    static bool IsTypeMatch(const AString& token, const VarInfo& info);
    // The comma-separated numbers of `text` as the constant's default: the
    // count must be components times the array length, and for an array
    // four times that count must be the constant's size in bytes.
    static bool ParseDefault(const AString& text, const VarInfo& info, ShaderConstant* constant);
};

} // namespace KovexEngine
