#include "reflection/ContainerClass.h"

#include "reflection/FunctionRegistration.h"

namespace KovexEngine {
namespace {

const Class* MirrorClass(const Class*& slot, const char16_t* name)
{
    if (!slot)
    {
        auto* cls = new Class(name, nullptr, sizeof(ReferenceObj), u"Engine");
        slot = cls;
        cls->SetRegistrySlot(&slot);
        cls->ProcessClass();
    }
    return slot;
}

const Class* s_arrayMirror = nullptr;
const Class* s_mapMirror = nullptr;

WString TypeName(const Class* cls)
{
    if (!cls)
        return WString(u"Unknown");
    return cls->GetName().IsValid() ? cls->GetName() : WString(Class::GetTypeName(cls->GetType()));
}

} // namespace

const Class* ArrayMirror::StaticGetClass() { return MirrorClass(s_arrayMirror, u"ArrayMirror"); }
const Class* MapMirror::StaticGetClass() { return MirrorClass(s_mapMirror, u"MapMirror"); }

const Class* ArrayMirror::GetItemClass() const { return m_class ? m_class->GetItemClass() : nullptr; }

ArrayClass::ArrayClass(const Class* item, unsigned int size)
    : ValueClass(GetArrayClassName(item)(), size, u"Arrays", KOVEX_TYPE_TARRAY), m_item(item)
{
    ProcessClass();
}

WString ArrayClass::GetArrayClassName(const Class* item)
{
    WString name;
    name.Format(u"TArray<%s>", TypeName(item)());
    return name;
}

Ptr<ArrayMirror> ArrayClass::CreateMirror() const { return Ptr<ArrayMirror>(); }
Ptr<ArrayMirror> ArrayClass::CreateMirrorRef(void*) const { return Ptr<ArrayMirror>(); }

MapClass::MapClass(const Class* key, const Class* value, unsigned int size)
    : ValueClass(GetMapClassName(key, value)(), size, u"Maps", KOVEX_TYPE_TMAP), m_key(key), m_value(value)
{
    ProcessClass();
}

WString MapClass::GetMapClassName(const Class* key, const Class* value)
{
    WString name;
    name.Format(u"TMap<%s, %s>", TypeName(key)(), TypeName(value)());
    return name;
}

Ptr<MapMirror> MapClass::CreateMirror() const { return Ptr<MapMirror>(); }
Ptr<MapMirror> MapClass::CreateMirrorRef(void*) const { return Ptr<MapMirror>(); }

const Class* FindContainerClass(const WString& name)
{
    const Class* cls = Class::GetClass(name);
    if (cls && (cls->GetType() == KOVEX_TYPE_TARRAY || cls->GetType() == KOVEX_TYPE_TMAP))
        return cls;
    return nullptr;
}

Ptr<ArrayMirror> ContainerProperty::CreateArrayMirror(void* object) const
{
    if (!object || GetType() != KOVEX_TYPE_TARRAY || GetOffset() < 0)
        return Ptr<ArrayMirror>();
    return static_cast<const ArrayClass*>(GetClass())->CreateMirrorRef(static_cast<char*>(object) + GetOffset());
}

Ptr<MapMirror> ContainerProperty::CreateMapMirror(void* object) const
{
    if (!object || GetType() != KOVEX_TYPE_TMAP || GetOffset() < 0)
        return Ptr<MapMirror>();
    return static_cast<const MapClass*>(GetClass())->CreateMirrorRef(static_cast<char*>(object) + GetOffset());
}

namespace ContainerDetail {

bool StoreRaw(Variable& out, const Class* cls, const void* storage)
{
    return FunctionDetail::VariableFromRaw(out, cls->GetType(), cls, storage);
}

} // namespace ContainerDetail

} // namespace KovexEngine
