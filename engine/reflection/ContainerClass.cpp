#include "reflection/ContainerClass.h"

#include "reflection/FunctionRegistration.h"

namespace KovexEngine {
namespace {

const Class* MirrorClass(const Class*& slot, const char16_t* name, const Class* base = nullptr)
{
    if (!slot)
    {
        auto* cls = new Class(name, nullptr, sizeof(ReferenceObj), u"Engine");
        slot = cls;
        cls->SetRegistrySlot(&slot);
        if (base)
            cls->SetBaseClass(base, 0);
        cls->ProcessClass();
    }
    return slot;
}

const Class* s_arrayMirror = nullptr;
const Class* s_mapMirror = nullptr;
const Class* s_arrayMirrorFunc = nullptr;
const Class* s_mapMirrorFunc = nullptr;

WString TypeName(const Class* cls)
{
    if (!cls)
        return WString(u"Unknown");
    return cls->GetName().IsValid() ? cls->GetName() : WString(Class::GetTypeName(cls->GetType()));
}

} // namespace

const Class* ArrayMirror::StaticGetClass() { return MirrorClass(s_arrayMirror, u"ArrayMirror"); }
const Class* MapMirror::StaticGetClass() { return MirrorClass(s_mapMirror, u"MapMirror"); }

const Class* ArrayMirrorFunc::StaticGetClass()
{
    return MirrorClass(s_arrayMirrorFunc, u"ArrayMirrorFunc", ArrayMirror::StaticGetClass());
}
const Class* MapMirrorFunc::StaticGetClass()
{
    return MirrorClass(s_mapMirrorFunc, u"MapMirrorFunc", MapMirror::StaticGetClass());
}

unsigned int ArrayMirrorFunc::Count() const { return m_funcs.count ? m_funcs.count(m_owner) : 0; }
bool ArrayMirrorFunc::Get(unsigned int index, Variable& out) const
{
    return m_funcs.get && m_funcs.get(m_owner, index, out);
}
bool ArrayMirrorFunc::Set(unsigned int index, const Variable& value)
{
    return m_funcs.set && m_funcs.set(m_owner, index, value);
}
bool ArrayMirrorFunc::Insert(unsigned int index, const Variable& value)
{
    return m_funcs.insert && m_funcs.insert(m_owner, index, value);
}
bool ArrayMirrorFunc::Remove(unsigned int index) { return m_funcs.remove && m_funcs.remove(m_owner, index); }
bool ArrayMirrorFunc::SetCount(unsigned int count) { return m_funcs.setCount && m_funcs.setCount(m_owner, count); }
void ArrayMirrorFunc::Clear()
{
    if (m_funcs.clear)
        m_funcs.clear(m_owner);
}

unsigned int MapMirrorFunc::Count() const { return m_funcs.count ? m_funcs.count(m_owner) : 0; }
bool MapMirrorFunc::GetAt(unsigned int index, Variable& key, Variable& value) const
{
    return m_funcs.getAt && m_funcs.getAt(m_owner, index, key, value);
}
bool MapMirrorFunc::Find(const Variable& key, Variable& value) const
{
    return m_funcs.find && m_funcs.find(m_owner, key, value);
}
bool MapMirrorFunc::Set(const Variable& key, const Variable& value)
{
    return m_funcs.set && m_funcs.set(m_owner, key, value);
}
bool MapMirrorFunc::Remove(const Variable& key) { return m_funcs.remove && m_funcs.remove(m_owner, key); }
void MapMirrorFunc::Clear()
{
    if (m_funcs.clear)
        m_funcs.clear(m_owner);
}

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
Ptr<ArrayMirror> ArrayClass::CreateMirrorFunc(void*, const Funcs&) const { return Ptr<ArrayMirror>(); }

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
Ptr<MapMirror> MapClass::CreateMirrorFunc(void*, const Funcs&) const { return Ptr<MapMirror>(); }

const Class* FindContainerClass(const WString& name)
{
    const Class* cls = Class::GetClass(name);
    if (cls && (cls->GetType() == KOVEX_TYPE_TARRAY || cls->GetType() == KOVEX_TYPE_TMAP))
        return cls;
    return nullptr;
}

void ContainerProperty::ProcessProperty()
{
    NativeProperty::ProcessProperty();
    bool readable = false, refillable = false;
    if (GetOffset() >= 0)
        readable = refillable = true;
    else if (m_hasFuncs && GetType() == KOVEX_TYPE_TARRAY)
    {
        readable = m_arrayFuncs.count && m_arrayFuncs.get;
        refillable = m_arrayFuncs.clear && m_arrayFuncs.insert;
    }
    else if (m_hasFuncs && GetType() == KOVEX_TYPE_TMAP)
    {
        readable = m_mapFuncs.count && m_mapFuncs.getAt;
        refillable = m_mapFuncs.clear && m_mapFuncs.set;
    }
    if (readable && refillable)
        m_flags |= FLAG_SERIALIZE;
}

Ptr<ArrayMirror> ContainerProperty::CreateArrayMirror(void* object) const
{
    if (!object || GetType() != KOVEX_TYPE_TARRAY)
        return Ptr<ArrayMirror>();
    auto* cls = static_cast<const ArrayClass*>(GetClass());
    if (GetOffset() >= 0)
        return cls->CreateMirrorRef(static_cast<char*>(object) + GetOffset());
    return m_hasFuncs ? cls->CreateMirrorFunc(object, m_arrayFuncs) : Ptr<ArrayMirror>();
}

Ptr<MapMirror> ContainerProperty::CreateMapMirror(void* object) const
{
    if (!object || GetType() != KOVEX_TYPE_TMAP)
        return Ptr<MapMirror>();
    auto* cls = static_cast<const MapClass*>(GetClass());
    if (GetOffset() >= 0)
        return cls->CreateMirrorRef(static_cast<char*>(object) + GetOffset());
    return m_hasFuncs ? cls->CreateMirrorFunc(object, m_mapFuncs) : Ptr<MapMirror>();
}

} // namespace KovexEngine
