#include "reflection/ValueClass.h"

#include <cstring>

#include "kernel/Strings.h"

namespace KovexEngine {

ValueClass::ValueClass(const char16_t* name, unsigned int size, const char16_t* module, KOVEX_BASE_TYPE type)
    : Class(name, nullptr, size, module), m_type(type)
{
}

bool ValueClass::IsValueClass() const { return true; }
bool ValueClass::IsBaseType() const { return m_type >= KOVEX_TYPE_BOOL && m_type <= KOVEX_TYPE_WSTRING; }

void ValueClass::Delete(void*) const {}
void ValueClass::Copy(void*, const void*) const {}
void* ValueClass::Clone(const void*) const { return nullptr; }
bool ValueClass::IsEqual(const void*, const void*) const { return false; }
bool ValueClass::Compare(const void*, const void*, float) const { return false; }
void ValueClass::CopyConstruct(void* destination, const void* source) const { std::memcpy(destination, source, GetSize()); }
void ValueClass::DefaultConstruct(void* destination) const { std::memset(destination, 0, GetSize()); }
void ValueClass::DestroyInPlace(void*) const {}

namespace {

// One slot per plain type, cleared by Class::Destroy like any other.
const Class* MakeValueClass(const Class*& slot, const char16_t* name, unsigned size, KOVEX_BASE_TYPE type)
{
    if (!slot)
    {
        auto* cls = new ValueClass(name, size, u"Engine", type);
        slot = cls;
        cls->SetRegistrySlot(&slot);
        cls->ProcessClass();
    }
    return slot;
}

const Class* s_void = nullptr;
const Class* s_bool = nullptr;
const Class* s_int32 = nullptr;
const Class* s_uint32 = nullptr;
const Class* s_float = nullptr;
const Class* s_astring = nullptr;
const Class* s_wstring = nullptr;

} // namespace

const Class* Class::GetVoidClass() { return MakeValueClass(s_void, u"void", 0, KOVEX_TYPE_VOID); }
const Class* Class::GetBoolClass() { return MakeValueClass(s_bool, u"bool", sizeof(bool), KOVEX_TYPE_BOOL); }
const Class* Class::GetInt32Class() { return MakeValueClass(s_int32, u"int32", sizeof(int32), KOVEX_TYPE_INT32); }
const Class* Class::GetUInt32Class() { return MakeValueClass(s_uint32, u"uint32", sizeof(uint32), KOVEX_TYPE_UINT32); }
const Class* Class::GetFloatClass() { return MakeValueClass(s_float, u"float", sizeof(float), KOVEX_TYPE_FLOAT); }
const Class* Class::GetAStringClass() { return MakeValueClass(s_astring, u"AString", sizeof(AString), KOVEX_TYPE_ASTRING); }
const Class* Class::GetWStringClass() { return MakeValueClass(s_wstring, u"WString", sizeof(WString), KOVEX_TYPE_WSTRING); }

} // namespace KovexEngine
