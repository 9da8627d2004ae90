#include "reflection/Property.h"

#include "reflection/EnumClass.h"

namespace KovexEngine {

Property::Property(const WString& name, const Class* type, uint32 flags)
    : m_type(type), m_baseType(type ? type->GetType() : KOVEX_TYPE_UNKNOWN), m_flags(flags), m_name(name)
{
}

Property::~Property() = default;

int Property::GetOffset() const { return -1; }

unsigned int Property::SizeOfProperty() const
{
    return unsigned(sizeof(*this)) + (m_name.HeapLen() + m_metadata.HeapLen()) * unsigned(sizeof(char16_t));
}

bool Property::GetPropertyValue(const void*, void*) const { return false; }
bool Property::SetPropertyValue(void*, const void*) const { return false; }
void Property::ProcessProperty() {}

const TArray<EnumMember>& Property::GetEnums() const
{
    if (m_type && m_type->IsEnum())
        return static_cast<const EnumClass*>(m_type)->GetMembers();
    return EnumClass::Empty;
}

NativeProperty::NativeProperty(const WString& name, const Class* type, uint32 flags, int offset, bool canGet, bool canSet)
    : Property(name, type, flags | FLAG_NATIVE), m_offset(offset), m_canGet(canGet), m_canSet(canSet)
{
}

void NativeProperty::ProcessProperty()
{
    m_flags &= ~uint32(FLAG_GETTER | FLAG_SETTER | FLAG_SERIALIZE);
    if (m_canGet)
        m_flags |= FLAG_GETTER;
    if (m_canSet)
        m_flags |= FLAG_SETTER;
    // Every reflected type from bool to delegate has a stored form; loading
    // needs the setter and saving the getter.
    KOVEX_BASE_TYPE type = GetType();
    if (m_canGet && m_canSet && type >= KOVEX_TYPE_BOOL && type <= KOVEX_TYPE_DELEGATE)
        m_flags |= FLAG_SERIALIZE;
}

} // namespace KovexEngine
