#include "graphics/CommitConstantInterface.h"

namespace KovexEngine {

CommitConstantInterface::~CommitConstantInterface() { CleanupConstants(); }

ShaderConstant* CommitConstantInterface::NewConstant(const TSharedString<WString>& name)
{
    if (ShaderConstant* existing = FindConstant(name.Get()))
        return existing;
    ShaderConstant* constant = CreateConstant();
    if (!constant)
        return nullptr;
    constant->SetName(name);
    constant->AllocAutoUpdateId();
    m_constants.Insert(name.Get(), constant);
    if (constant->IsAutoUpdata())
    {
        uint32 group = constant->GetAutoUpdateId().Parts.Group;
        while (m_groups.Count() <= group)
            m_groups.Add(nullptr);
        if (!m_groups[group])
            m_groups[group] = new GroupConstants();
        m_groups[group]->ByKind[constant->GetUpdateKind()].Add(constant);
    }
    return constant;
}

ShaderConstant* CommitConstantInterface::FindConstant(const WString& name) const
{
    ShaderConstant* const* found = m_constants.FindValue(name);
    return found ? *found : nullptr;
}

bool CommitConstantInterface::CommitConstantByName(const WString& name, const void* data, uint32 size,
                                                   uint32 rowStride)
{
    ShaderConstant* constant = FindConstant(name);
    return constant && CommitConstant(constant, data, size, rowStride);
}

void CommitConstantInterface::ApplyConstantDefaultValue()
{
    for (auto& pair : m_constants)
        if (pair.value->GetDefaultValue())
            CommitConstant(pair.value, pair.value->GetDefaultValue(), pair.value->GetSize(), 16);
}

void CommitConstantInterface::CleanupConstants()
{
    for (auto& pair : m_constants)
        delete pair.value;
    m_constants.Clear();
    for (GroupConstants* group : m_groups)
        delete group;
    m_groups.Clear();
}

const CommitConstantInterface::GroupConstants* CommitConstantInterface::GetAutoUpdateConstants(uint32 group) const
{
    return group < m_groups.Count() ? m_groups[group] : nullptr;
}

} // namespace KovexEngine
