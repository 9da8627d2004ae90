#include "reflection/Object.h"

#include "kernel/Log.h"
#include "reflection/ClassIterator.h"
#include "reflection/Function.h"
#include "reflection/FunctionRegistration.h"
#include "reflection/PropertyRegistration.h"
#include "reflection/Variable.h"

namespace KovexEngine {

// Object is the root: its pattern is written out, with no base to register.
const Class* Object::ms_pClass = nullptr;

const Class* Object::StaticGetClass()
{
    if (ms_pClass)
        return ms_pClass;
    auto* cls = new Class(u"Object", &Object::CreateClassInstance, sizeof(Object), u"Engine");
    ms_pClass = cls;
    cls->SetRegistrySlot(&ms_pClass);
    StaticConstructor(cls);
    return ms_pClass;
}

bool Object::_InitClass() { return StaticGetClass() != nullptr; }
bool Object::ms_bClassInited = Object::_InitClass();
void* Object::CreateClassInstance() { return new Object(); }
void Object::StaticConstructor(Class* cls)
{
    Function* clone = AddFunction(cls, u"Clone", &Object::Clone, {u"flags"});
    clone->SetParamDefault(0, new Variable(0u));
    AddFunction(cls, u"IsKindOf", static_cast<bool (Object::*)(const WString&) const>(&Object::IsKindOf), {u"name"});
    AddFunction(cls, u"IsExtractKindOf", &Object::IsExtractKindOf, {u"name"});
    cls->ProcessClass();
}

Object::~Object() = default;

const Class* Object::GetNativeClass() const { return StaticGetClass(); }

const void* Object::GetNativeClassPointer(const Class* target) const
{
    return StaticGetClass()->GetClassPointer(static_cast<const void*>(this), target);
}

void* Object::GetNativeClassPointer(const Class* target)
{
    return StaticGetClass()->GetClassPointer(static_cast<void*>(this), target);
}

const Class* Object::GetClass() const
{
    // The script bridge supplies classes of script objects; until it exists
    // every object is native.
    return GetNativeClass();
}

Ptr<Object> Object::Clone(unsigned int flags) const
{
    Ptr<Object> copy = CreateObject(GetClass());
    if (!copy || !Duplicate(copy.Get(), flags))
        return Ptr<Object>();
    return copy;
}

bool Object::Duplicate(Object* destination, unsigned int flags) const { return CopyProperties(destination, flags); }

bool Object::CopyProperties(Object* destination, unsigned int flags) const
{
    if (!destination || destination->GetClass() != GetClass())
        return false;
    const Class* lastOwner = nullptr;
    const void* source = nullptr;
    void* target = nullptr;
    Variable value;
    for (PropertyIterator it(GetClass(), &Class::GetPropertyArray); it.hasNext();)
    {
        const Property* property = it.Next();
        KOVEX_BASE_TYPE type = property->GetType();
        uint32 pflags = property->GetFlags();
        if (type == KOVEX_TYPE_UNKNOWN || type > KOVEX_TYPE_ENUM || (pflags & Property::FLAG_NO_COPY) ||
            (pflags & (Property::FLAG_GETTER | Property::FLAG_SETTER)) != (Property::FLAG_GETTER | Property::FLAG_SETTER))
            continue;
        if (property->GetOwnerClass() != lastOwner)
        {
            lastOwner = property->GetOwnerClass();
            source = GetClassPointer(lastOwner);
            target = destination->GetClassPointer(lastOwner);
        }
        if (!value.GetPropertyValue(property, source))
            continue;
        if (type == KOVEX_TYPE_OBJECT)
        {
            Object* object = value.GetObject();
            bool share = !object || (pflags & Property::FLAG_SHARE_ON_CLONE) ||
                         ((pflags & Property::FLAG_CLONE_IF_CLONABLE) && !object->IsClonable());
            if (!share)
                value = object->Clone(flags);
        }
        value.SetPropertyValue(property, target);
    }
    return true;
}

const Property* Object::FindProperty(const WString& name) const { return GetClass()->FindProperty(name, true); }

bool Object::GetProperty(const Property* property, Variable& out) const
{
    if (!property)
        return false;
    return out.GetPropertyValue(property, GetClassPointer(property->GetOwnerClass()));
}

bool Object::SetProperty(const Property* property, const Variable& value)
{
    if (!property)
        return false;
    return value.SetPropertyValue(property, GetClassPointer(property->GetOwnerClass()));
}

bool Object::GetProperty(const WString& name, Variable& out) const { return GetProperty(FindProperty(name), out); }

bool Object::SetProperty(const WString& name, const Variable& value) { return SetProperty(FindProperty(name), value); }

bool Object::Invoke(const WString& name, FunctionStack* stack)
{
    if (!stack)
        return false;
    const Function* function = GetClass()->FindFunction(name, true);
    if (!function)
    {
        Log::Format(LOG_WARNING, u"Can't invoke function [%s], because it does not exist !\n", name());
        return false;
    }
    return function->Invoke(static_cast<void*>(this), stack);
}

void Object::PostLoad() {}
void Object::PostSave() {}

bool Object::SupportSerializeDiff(const Object* other) const { return other && other->GetClass() == GetClass(); }

bool Object::ToString(WString& out) const
{
    out = GetClass()->GetName();
    return true;
}

bool Object::FromString(const WString&) { return false; }

bool Object::IsDifferent(const Object* other) const { return HasDiffProps(other); }

bool Object::HasDiffProps(const Object* other) const
{
    if (!other || other->GetClass() != GetClass())
        return true;
    Variable mine, theirs;
    for (PropertyIterator it(GetClass(), &Class::GetPropertyArray); it.hasNext();)
    {
        const Property* property = it.Next();
        KOVEX_BASE_TYPE type = property->GetType();
        if (type == KOVEX_TYPE_UNKNOWN || type > KOVEX_TYPE_ENUM || !property->CanGetProperty())
            continue;
        const void* a = GetClassPointer(property->GetOwnerClass());
        const void* b = other->GetClassPointer(property->GetOwnerClass());
        if (!mine.GetPropertyValue(property, a) || !theirs.GetPropertyValue(property, b))
            continue;
        if (mine != theirs)
            return true;
    }
    return false;
}
bool Object::IsClonable() const { return true; }

Ptr<Object> Object::InternalCreateRefObjFromThis(const Class* cls) { return CreateObject(cls); }

Ptr<Object> Object::CreateObject(const Class* cls)
{
    void* created = cls ? cls->Create() : nullptr;
    if (!created)
        return Ptr<Object>();
    // The creator returns the class's own address; Object may sit elsewhere in it.
    return Ptr<Object>(static_cast<Object*>(cls->GetClassPointer(created, Object::StaticGetClass())));
}

KOVEX_REGISTER_CLASS_EX(NamedObject, u"Engine")

void NamedObject::StaticConstructor(Class* cls)
{
    RegisterBases<NamedObject, Object>(cls);
    AddAccessor(cls, u"Name", &NamedObject::GetName, &NamedObject::SetName);
    AddFunction(cls, u"GetName", &NamedObject::GetName);
    AddFunction(cls, u"SetName", &NamedObject::SetName, {u"name"});
    cls->ProcessClass();
}

void NamedObject::SetName(const WString& name)
{
    if (name == m_name)
        return;
    WString old(m_name);
    m_name = name;
    OnNameChanged(old);
}

void NamedObject::OnNameChanged(const WString&) {}

} // namespace KovexEngine
