// Fuzz target: shader text from outside (templates, generated material code)
// through ShaderParser, which reads constant defaults out of it. Nothing may
// crash, read past the text or allocate without bound, whatever the bytes.
//
// Input: byte 0 the type index, byte 1 the array length, bytes 2-3 the
// constant's size in bytes, then the constant's name up to a line feed (at
// most 64 bytes), then the text.

#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/QuietLog.h"
#include "graphics/ShaderResource.h"
#include "kernel/StringConv.h"
#include "shaders/ShaderParser.h"

using namespace KovexEngine;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    KovexFuzz::QuietLog();
    if (size < 4)
        return 0;
    ShaderParser::VarInfo info;
    info.Type = int(data[0] % 8) - 1; // -1 and 6 are out of range on purpose
    info.Count = data[1] % 6;
    uint32 bytes = uint32(data[2]) | (uint32(data[3]) << 8);
    std::string rest(reinterpret_cast<const char*>(data + 4), size - 4);
    size_t line = rest.find('\n');
    if (line == std::string::npos || line > 64)
        line = rest.size() < 8 ? rest.size() : 8;
    std::string name = rest.substr(0, line);
    std::string text = rest.substr(line < rest.size() ? line + 1 : rest.size());

    Ptr<ShaderConstant> constant(new ShaderConstant());
    constant->SetName(TSharedString<WString>(StringConvFuncs::ToWString(name.c_str())));
    constant->SetSize(bytes);
    ShaderParser::GetDefaultValue(text.c_str(), info, constant.Get());
    if (const float* values = constant->GetDefaultValue())
    {
        // The default is exactly the constant's size: read all of it.
        volatile float sum = 0;
        for (uint32 i = 0; i < (constant->GetSize() + 3) / 4; ++i)
            sum = sum + values[i];
    }
    // The helpers alone, at a position the input picks.
    AString out;
    const char* begin = text.c_str();
    const char* at = begin + (text.empty() ? 0 : data[1] % (text.size() + 1));
    ShaderParser::GetLastToken(out, begin, at);
    ShaderParser::IsTypeMatch(out, info);
    if (ShaderParser::GetNextString(out, at, info))
        ShaderParser::ParseDefault(out, info, constant.Get());
    return 0;
}
