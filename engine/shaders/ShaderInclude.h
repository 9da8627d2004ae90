#pragma once

// The include handler of a program's unit: `#include "Attribute"` and
// `#include "Material"` (any case) give the attribute's and the material's
// code text; any other name is a file under "[core]shaders/", opened through
// an open function (ProgramManager::OpenInclude in the engine). Every name is
// included once: a repeat, a second "Material" or a file that includes
// itself, expands to nothing, so files need no guards and cycles end.
//
// Failures: a missing attribute or material text logs
// "Shader include [%s] has no code.\n"; a file the open function cannot give
// is logged there. Either fails the preprocessing and so the compile.
//
// Threads: one handler per compile, used by the thread that compiles.

#include <functional>
#include <string>
#include <vector>

#include "kernel/Strings.h"
#include "shaders/SpirvCompiler.h"

namespace KovexEngine {

class KOVEX_API ShaderIncludeHandler : public SpirvIncludeSource
{
public:
    // The text of a path, or null; the text outlives the compile.
    using OpenFunction = std::function<const AString*(const WString& path)>;
    // A code text and the name messages give it (its template's path).
    struct Code
    {
        const AString* Text = nullptr;
        std::string Name;
    };
    static constexpr const char* kRoot = "[core]shaders/";

    ShaderIncludeHandler(const Code& attribute, const Code& material, OpenFunction open);

    bool Open(const std::string& name, std::string& resolved, std::string& text) override;
    // The names included so far, in order.
    const std::vector<std::string>& GetIncluded() const { return m_included; }

private:
    Code m_attribute;
    Code m_material;
    OpenFunction m_open;
    std::vector<std::string> m_included;
};

} // namespace KovexEngine
