#include "graphics/HWCapability.h"

#include "graphics/StateDesc.h"
#include "kernel/StringConv.h"
#include "reflection/EnumClass.h"

namespace KovexEngine {

HWCapability::HWCapability()
{
    for (unsigned i = 0, n = D3DShaderProfile::GetNumEnumMembers(); i < n; ++i)
    {
        const EnumMember* member = D3DShaderProfile::GetEnumMemberByIndex(i);
        AString value;
        value.Format("%d", member->value);
        MakeMacro(StringConvFuncs::ToAString(member->name), value);
    }
}

void HWCapability::UpdateMacros()
{
    static const AString one("1");
#define KOVEX_HW_UPDATE(macro, field) UpdateMacro(field, AString(macro), one);
    KOVEX_HW_CAPABILITY_MACROS(KOVEX_HW_UPDATE)
#undef KOVEX_HW_UPDATE
    AString value;
    value.Format("%u", NumSimultaneousRTs);
    MakeMacro(AString("NUM_SIMULTANEOUS_RTS"), value);
    value.Format("%d", Profile.value);
    MakeMacro(AString("SM_PROFILE"), value);
}

void HWCapability::UpdateMacro(bool enabled, const AString& name, const AString& value)
{
    if (enabled)
        MakeMacro(name, value);
    else
        UnmakeMacro(name);
}

void HWCapability::MakeMacro(const AString& name, const AString& value) { m_macros.Set(name, value); }

void HWCapability::UnmakeMacro(const AString& name) { m_macros.Remove(name); }

void HWCapability::GetMacroString(AString& out) const
{
    out.Clear();
    for (const auto& pair : m_macros)
    {
        out += "[";
        out += pair.key;
        if (!pair.value.IsEmpty())
        {
            out += "=";
            out += pair.value;
        }
        out += "];";
    }
}

void HWCapability::GetMacros(AString& out) const
{
    out.Clear();
    if (m_macros.IsEmpty())
        return;
    out += "\n";
    for (const auto& pair : m_macros)
    {
        out += "#define ";
        out += pair.key;
        if (!pair.value.IsEmpty())
        {
            out += "\t";
            out += pair.value;
        }
        out += "\n";
    }
    out += "\n";
}

void HWCapability::GetMacros(ShaderMacro* out, unsigned* count) const
{
    unsigned room = count ? *count : 0, n = 0;
    for (const auto& pair : m_macros)
    {
        if (n == room)
            break;
        out[n].Name = pair.key();
        out[n].Definition = pair.value();
        ++n;
    }
    if (count)
        *count = n;
}

GPUVendor HWCapability::DetectVendor(const char* description)
{
    AString text(description ? description : "");
    text.ToLower();
    UnmakeMacro(AString("AMD"));
    UnmakeMacro(AString("NVIDIA"));
    auto has = [&text](const char* word) { return text.IndexOf(word) != kNotFound; };
    if (has("radeon"))
    {
        MakeMacro(AString("AMD"), AString("1"));
        return GPUVendor::AMD;
    }
    if (has("geforce") || has("quadro"))
    {
        MakeMacro(AString("NVIDIA"), AString("1"));
        return GPUVendor::Nvidia;
    }
    if (has("adreno") || has("qualcomm"))
        return GPUVendor::Qualcomm;
    return GPUVendor::Unknown;
}

} // namespace KovexEngine
