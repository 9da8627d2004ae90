#include "reflection/Object.h"

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
void Object::StaticConstructor(Class* cls) { cls->ProcessClass(); }

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
    const Class* cls = GetClass();
    void* created = cls->Create();
    if (!created)
        return Ptr<Object>();
    // The creator returns the class's own address; Object may sit elsewhere in it.
    Ptr<Object> copy(static_cast<Object*>(cls->GetClassPointer(created, Object::StaticGetClass())));
    if (!Duplicate(copy.Get(), flags))
        return Ptr<Object>();
    return copy;
}

bool Object::Duplicate(Object* destination, unsigned int flags) const { return CopyProperties(destination, flags); }

bool Object::CopyProperties(Object* destination, unsigned int flags) const
{
    if (!destination || destination->GetClass() != GetClass())
        return false;
    // The properties of the class and its bases are copied here once
    // reflected properties exist.
    (void)flags;
    return true;
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
bool Object::IsClonable() const { return true; }

Ptr<Object> Object::InternalCreateRefObjFromThis(const Class* cls)
{
    if (!cls)
        return Ptr<Object>();
    void* created = cls->Create();
    if (!created)
        return Ptr<Object>();
    return Ptr<Object>(static_cast<Object*>(cls->GetClassPointer(created, Object::StaticGetClass())));
}

KOVEX_REGISTER_CLASS(NamedObject, u"Engine", Object)

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
