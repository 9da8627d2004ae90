#pragma once

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "kernel/Strings.h"
#include "shaders/ShaderInclude.h"
#include "shaders/SpirvCompiler.h"
#include "support/TempDir.h"

// Shader texts and the outside SPIR-V tools, for the shader suites.
namespace KovexTest {

// Include files by path, as ProgramManager::OpenInclude would give them.
class IncludeFiles
{
public:
    void Add(const std::string& path, const std::string& text)
    {
        m_texts[path] = KovexEngine::AString(text.c_str(), unsigned(text.size()));
    }
    KovexEngine::ShaderIncludeHandler::OpenFunction Function()
    {
        return [this](const KovexEngine::WString& path) -> const KovexEngine::AString* {
            KovexEngine::AString key = KovexEngine::StringConvFuncs::ToAString(path.c_str());
            ++opened[key.c_str()];
            auto found = m_texts.find(key.c_str());
            return found == m_texts.end() ? nullptr : &found->second;
        };
    }
    std::map<std::string, int> opened;

private:
    std::map<std::string, KovexEngine::AString> m_texts;
};

// True when an outside tool runs here.
inline bool HaveTool(const char* name)
{
    std::string command = std::string("command -v ") + name + " >/dev/null 2>&1";
    return std::system(command.c_str()) == 0;
}

// Runs a command and gives its standard output; `status` its exit code.
inline std::string RunCommand(const std::string& command, int* status = nullptr)
{
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe)
        return out;
    char buffer[4096];
    size_t got = 0;
    while ((got = fread(buffer, 1, sizeof buffer, pipe)) > 0)
        out.append(buffer, got);
    int rc = pclose(pipe);
    if (status)
        *status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    return out;
}

inline std::string WriteModule(const TempDir& dir, const std::string& name, const std::vector<KovexEngine::uint32>& words)
{
    std::string path = dir.path + "/" + name;
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(words.data()),
                                               std::streamsize(words.size() * 4));
    return path;
}

// What `spirv-dis` says of a module's names and decorations, read from its
// text (the independent view the reflection is checked against).
struct Disassembly
{
    std::map<std::string, std::string> names;                      // %id -> name
    std::map<std::string, std::map<int, std::string>> memberNames; // %type -> index -> name
    std::map<std::string, std::map<int, int>> memberOffsets;       // %type -> index -> offset
    std::map<std::string, int> bindings, sets;                     // %id -> value
    std::string text;

    // Offset of member `member` of the struct type named `block`; -1 if none.
    int Offset(const std::string& block, const std::string& member) const
    {
        for (const auto& type : memberNames)
        {
            auto name = names.find(type.first);
            if (name == names.end() || name->second != block)
                continue;
            for (const auto& m : type.second)
                if (m.second == member)
                {
                    auto offsets = memberOffsets.find(type.first);
                    if (offsets != memberOffsets.end() && offsets->second.count(m.first))
                        return offsets->second.at(m.first);
                }
        }
        return -1;
    }
    // Binding of the variable named `variable`; -1 if none.
    int Binding(const std::string& variable) const
    {
        for (const auto& name : names)
            if (name.second == variable && bindings.count(name.first))
                return bindings.at(name.first);
        return -1;
    }
};

inline Disassembly Disassemble(const std::string& modulePath)
{
    Disassembly d;
    d.text = RunCommand("spirv-dis --raw-id " + modulePath);
    std::istringstream lines(d.text);
    std::string line;
    while (std::getline(lines, line))
    {
        std::istringstream in(line);
        std::string op, id;
        in >> op >> id;
        auto quoted = [&line]() {
            size_t a = line.find('"'), b = line.rfind('"');
            return a == std::string::npos || b <= a ? std::string() : line.substr(a + 1, b - a - 1);
        };
        if (op == "OpName")
            d.names[id] = quoted();
        else if (op == "OpMemberName")
        {
            int index = 0;
            in >> index;
            d.memberNames[id][index] = quoted();
        }
        else if (op == "OpMemberDecorate")
        {
            int index = 0;
            std::string what;
            int value = 0;
            in >> index >> what >> value;
            if (what == "Offset")
                d.memberOffsets[id][index] = value;
        }
        else if (op == "OpDecorate")
        {
            std::string what;
            int value = 0;
            in >> what >> value;
            if (what == "Binding")
                d.bindings[id] = value;
            else if (what == "DescriptorSet")
                d.sets[id] = value;
        }
    }
    return d;
}

} // namespace KovexTest
