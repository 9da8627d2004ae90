#include "shaders/ShaderInclude.h"

#include <strings.h>

#include "kernel/Log.h"
#include "kernel/StringConv.h"

namespace KovexEngine {

ShaderIncludeHandler::ShaderIncludeHandler(const Code& attribute, const Code& material, OpenFunction open)
    : m_attribute(attribute), m_material(material), m_open(std::move(open))
{
}

bool ShaderIncludeHandler::Open(const std::string& name, std::string& resolved, std::string& text)
{
    text.clear();
    const Code* code = nullptr;
    std::string key = name;
    if (strcasecmp(name.c_str(), "Attribute") == 0)
        code = &m_attribute, key = "Attribute";
    else if (strcasecmp(name.c_str(), "Material") == 0)
        code = &m_material, key = "Material";
    else
        key = std::string(kRoot) + name;
    resolved = code && !code->Name.empty() ? code->Name : key;
    for (const std::string& included : m_included)
        if (included == key)
            return true; // once only
    m_included.push_back(key);

    const AString* found = nullptr;
    if (code)
    {
        found = code->Text;
        if (!found || found->Length() == 0)
        {
            Log::Format(LOG_WARNING, u"Shader include [%S] has no code.\n", key.c_str());
            return false;
        }
    }
    else
    {
        found = m_open ? m_open(StringConvFuncs::ToWString(key.c_str())) : nullptr;
        if (!found)
            return false;
    }
    text.assign(found->c_str(), found->Length());
    return true;
}

} // namespace KovexEngine
