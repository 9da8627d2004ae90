#include "reflection/EnumClass.h"

namespace KovexEngine {

const TArray<EnumMember> EnumClass::Empty;

EnumClass::EnumClass(const char16_t* name, const char16_t* module) : ValueClass(name, 4, module, KOVEX_TYPE_ENUM) {}

void EnumClass::Delete(void* data) const { delete static_cast<int*>(data); }
void EnumClass::Copy(void* destination, const void* source) const { *static_cast<int*>(destination) = *static_cast<const int*>(source); }
void* EnumClass::Clone(const void* source) const { return new int(source ? *static_cast<const int*>(source) : 0); }
bool EnumClass::IsEqual(const void* a, const void* b) const { return *static_cast<const int*>(a) == *static_cast<const int*>(b); }
bool EnumClass::Compare(const void* a, const void* b, float) const { return IsEqual(a, b); }

void EnumClass::AddMember(int value, const char16_t* name, const char16_t* displayName)
{
    m_members.Add(EnumMember{name, displayName ? displayName : name, value});
}

const EnumMember* EnumClass::GetMemberByIndex(unsigned int index) const
{
    return index < m_members.Count() ? &m_members[index] : nullptr;
}

unsigned int EnumClass::GetMemberIndex(int value) const
{
    for (unsigned i = 0; i < m_members.Count(); ++i)
        if (m_members[i].value == value)
            return i;
    return kNotFound;
}

unsigned int EnumClass::GetMemberIndex(const WString& name) const
{
    for (unsigned i = 0; i < m_members.Count(); ++i)
        if (name == m_members[i].name)
            return i;
    return kNotFound;
}

const EnumMember* EnumClass::GetMember(int value) const { return GetMemberByIndex(GetMemberIndex(value)); }
const EnumMember* EnumClass::GetMember(const WString& name) const { return GetMemberByIndex(GetMemberIndex(name)); }

const char16_t* EnumClass::GetMemberName(int value) const
{
    const EnumMember* member = GetMember(value);
    return member ? member->name : u"";
}

int EnumClass::GetMemberValue(const WString& name) const
{
    const EnumMember* member = GetMember(name);
    return member ? member->value : kUnknownValue;
}

} // namespace KovexEngine
