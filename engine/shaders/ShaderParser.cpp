#include "shaders/ShaderParser.h"

#include <cstring>
#include <string>
#include <vector>

#include "graphics/ShaderResource.h"
#include "kernel/CLocale.h"
#include "kernel/StringConv.h"

namespace KovexEngine {

namespace {

struct TypeRow
{
    const char* Spellings[3];
    unsigned Components;
};

const TypeRow kTypes[ShaderParser::kNumTypes] = {
    {{"float", "float1", "vector<float,1>"}, 1},
    {{"float2", "vector<float,2>", nullptr}, 2},
    {{"float3", "vector<float,3>", nullptr}, 3},
    {{"float4", "vector<float,4>", nullptr}, 4},
    {{"float4x3", "matrix<float,4,3>", nullptr}, 12},
    {{"float4x4", "matrix<float,4,4>", nullptr}, 16},
};

bool IsBlank(char c) { return c == '\n' || c == ' ' || c == '\t'; }
bool IsStatementEnd(char c) { return c == ';' || c == '{' || c == '}'; }
// What may stand right behind a declared name.
bool IsNameFollower(char c) { return IsBlank(c) || c == '=' || c == ':' || c == '['; }

bool ValidType(const ShaderParser::VarInfo& info) { return info.Type >= 0 && info.Type < ShaderParser::kNumTypes; }

} // namespace

unsigned ShaderParser::GetComponents(const VarInfo& info) { return ValidType(info) ? kTypes[info.Type].Components : 0; }

int ShaderParser::TypeOf(unsigned columns, unsigned rows)
{
    if (rows <= 1)
        return columns >= 1 && columns <= 4 ? int(columns) - 1 : -1;
    // HLSL's float4xN reaches SPIR-V as four columns of N-vectors.
    if (columns == 4 && rows == 3)
        return 4;
    if (columns == 4 && rows == 4)
        return 5;
    return -1;
}

bool ShaderParser::GetLastToken(AString& out, const char* begin, const char* at)
{
    out.Clear();
    if (!begin || !at || at <= begin)
        return false;
    const char* end = at;
    while (end > begin && IsBlank(end[-1]))
        --end;
    const char* start = end;
    while (start > begin && !IsBlank(start[-1]) && !IsStatementEnd(start[-1]))
        --start;
    if (start == end)
        return false;
    std::string token;
    for (const char* p = start; p < end; ++p)
        if (!IsBlank(*p))
            token += CLocale::ToLower(*p);
    out = AString(token.c_str(), unsigned(token.size()));
    return true;
}

bool ShaderParser::IsTypeMatch(const AString& token, const VarInfo& info)
{
    if (!ValidType(info))
        return false;
    for (const char* spelling : kTypes[info.Type].Spellings)
        if (spelling && token == spelling)
            return true;
    return false;
}

bool ShaderParser::GetNextString(AString& out, const char* at, const VarInfo& info)
{
    out.Clear();
    if (!at)
        return false;
    const char* end = std::strchr(at, ';');
    if (!end)
        return false;
    std::string text(at, end);
    // The constructor word goes: the earliest spelling, the longest at one
    // place, so that "float1(" loses "float1" and not only "float".
    if (ValidType(info))
    {
        size_t best = std::string::npos, bestLength = 0;
        for (const char* spelling : kTypes[info.Type].Spellings)
        {
            if (!spelling)
                continue;
            size_t found = text.find(spelling);
            size_t length = std::strlen(spelling);
            if (found != std::string::npos && (found < best || (found == best && length > bestLength)))
                best = found, bestLength = length;
        }
        if (best != std::string::npos)
            text.erase(best, bestLength);
    }
    std::string reduced;
    for (char c : text)
    {
        if (c == '=' || c == '{' || c == '(' || c == ')' || c == '}' || IsBlank(c) || c == '\r')
            continue;
        reduced += c;
    }
    out = AString(reduced.c_str(), unsigned(reduced.size()));
    return true;
}

bool ShaderParser::ParseDefault(const AString& text, const VarInfo& info, ShaderConstant* constant)
{
    if (!constant || !ValidType(info) || info.Count == 0 || text.Length() == 0)
        return false;
    std::vector<std::string> tokens;
    std::string all(text.c_str(), text.Length());
    size_t start = 0;
    for (;;)
    {
        size_t comma = all.find(',', start);
        tokens.push_back(all.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
        if (comma == std::string::npos)
            break;
        start = comma + 1;
    }
    uint64 expected = uint64(kTypes[info.Type].Components) * info.Count;
    if (tokens.size() != expected)
        return false;
    uint32 size = constant->GetSize();
    if (info.Count > 1 && expected * 4 != size)
        return false;
    if (size == 0)
        return false;
    std::vector<float> values((size + 3) / 4, 0.0f);
    size_t count = tokens.size() < values.size() ? tokens.size() : values.size();
    for (size_t i = 0; i < count; ++i)
    {
        // A malformed number leaves the constant without a default rather
        // than giving it a silent 0.
        char* end = nullptr;
        values[i] = CLocale::ParseFloat(tokens[i].c_str(), &end);
        if (end == tokens[i].c_str() || (*end && !(std::strchr("fFhHlL", *end) && !end[1])))
            return false;
    }
    return constant->SetDefaultValue(values.data(), size);
}

void ShaderParser::GetDefaultValue(const char* source, const VarInfo& info, ShaderConstant* constant)
{
    if (!source || !constant)
        return;
    AString name8 = StringConvFuncs::ToAString(constant->GetName().Get().c_str());
    size_t length = name8.Length();
    if (length == 0)
        return;
    AString token, text;
    for (const char* hit = std::strstr(source, name8.c_str()); hit; hit = std::strstr(hit + length, name8.c_str()))
    {
        const char* behind = hit + length;
        if (!IsNameFollower(*behind))
            continue;
        if (!GetLastToken(token, source, hit) || !IsTypeMatch(token, info))
            continue;
        // An array's length in brackets is no part of the values.
        const char* values = behind;
        while (IsBlank(*values))
            ++values;
        if (*values == '[')
        {
            const char* close = std::strchr(values, ']');
            if (!close)
                continue;
            values = close + 1;
        }
        if (!GetNextString(text, values, info))
            continue;
        if (ParseDefault(text, info, constant))
            return;
    }
}

} // namespace KovexEngine
