// How reflected objects, their property lists and their property values go
// through a Serializer.

#include "kernel/Log.h"
#include "reflection/ClassIterator.h"
#include "reflection/ContainerClass.h"
#include "reflection/Delegate.h"
#include "reflection/EnumClass.h"
#include "reflection/ObjectManager.h"
#include "reflection/Property.h"
#include "reflection/Struct.h"
#include "reflection/Variable.h"
#include "serialization/Serializer.h"

namespace KovexEngine {

// --- Objects and factories ----------------------------------------------------------------------

bool Object::Load(Serializer* serializer) { return LoadProperties(serializer); }
bool Object::Save(Serializer* serializer) const { return SaveProperties(serializer); }
bool Object::LoadDiff(Serializer* serializer) { return LoadDiffProps(serializer); }
bool Object::SaveDiff(Serializer* serializer, const Object* base) const { return SaveDiffProps(serializer, base); }

Ptr<Object> ObjectFactory::LoadObject(const Class* cls, Object* outer, Serializer* serializer, unsigned int)
{
    Ptr<Object> object = outer ? outer->InternalCreateRefObjFromThis(cls) : Object::CreateObject(cls);
    if (!object || !object->Load(serializer))
        return Ptr<Object>();
    object->PostLoad();
    return object;
}

bool ObjectFactory::SaveObject(const Object* object, Serializer* serializer, unsigned int)
{
    if (!object->Save(serializer))
        return false;
    const_cast<Object*>(object)->PostSave();
    return true;
}

namespace {
// Objects with no factory of their own are handled by this one.
DefaultObjectFactory* DefaultFactory()
{
    static DefaultObjectFactory factory(Object::StaticGetClass());
    return &factory;
}
} // namespace

Ptr<Object> ObjectManager::LoadObject(Object* outer, Serializer* serializer, unsigned int flags)
{
    WString name;
    if (!serializer->Read(FourCCs::CLS, name) || name.IsEmpty())
        return Ptr<Object>();
    const Class* cls = Class::GetClass(name);
    if (!cls || !cls->IsKindOf(Object::StaticGetClass()))
        return Ptr<Object>();
    ObjectFactory* factory = GetFactory(cls, true);
    return (factory ? factory : DefaultFactory())->LoadObject(cls, outer, serializer, flags);
}

bool ObjectManager::SaveObject(const Object* object, Serializer* serializer, unsigned int flags)
{
    if (!object)
        return false;
    const Class* cls = object->GetClass();
    ObjectFactory* factory = GetFactory(cls, true);
    if (!serializer->Write(FourCCs::CLS, cls->GetName()))
        return false;
    return (factory ? factory : DefaultFactory())->SaveObject(object, serializer, flags);
}

// --- Property lists ----------------------------------------------------------------------------------

bool Object::SaveProperties(Serializer* serializer) const { return SaveDiffProps(serializer, nullptr); }

bool Object::SaveDiffProps(Serializer* serializer, const Object* base) const
{
    if (base && base->GetClass() != GetClass())
        base = nullptr;
    unsigned int count = 0;
    Serializer_WriteSize size(serializer, count, FourCCs::PRSZ);
    if (!size.Begin())
        return false;
    const Class* owner = nullptr;
    const void* pointer = nullptr;
    const void* basePointer = nullptr;
    Variable mine, theirs;
    for (PropertyIterator it(GetClass(), &Class::GetPropertyArray); it.hasNext();)
    {
        const Property* property = it.Next();
        if (!property->CanSerializeProperty())
            continue;
        if (property->GetOwnerClass() != owner)
        {
            owner = property->GetOwnerClass();
            pointer = GetClassPointer(owner);
            basePointer = base ? base->GetClassPointer(owner) : nullptr;
        }
        if (base && mine.GetPropertyValue(property, pointer) && theirs.GetPropertyValue(property, basePointer) &&
            mine == theirs)
            continue;
        if (!serializer->Enter(FourCCs::PROP))
            return false;
        bool ok = serializer->Write(FourCCs::NAME, property->GetName()) && property->SavePropertyValue(pointer, serializer);
        serializer->Leave();
        if (!ok)
            return false;
        ++count;
    }
    return size.End();
}

bool Object::LoadProperties(Serializer* serializer)
{
    uint32 count = 0;
    if (!serializer->Read(FourCCs::PRSZ, count))
        return false;
    // Each property is a section of its own: a count beyond them is a lie.
    unsigned stored = serializer->CountSections(FourCCs::PROP);
    if (count > stored)
    {
        Log::Format(LOG_WARNING, u"Property count %u of '%s' exceeds the %u stored.\n", count, GetClass()->GetName()(),
                    stored);
        return false;
    }
    for (uint32 i = 0; i < count; ++i)
    {
        WString name;
        // One section after the other, never back to the first: a count
        // larger than the sections present ends at the first missing one.
        if (!serializer->EnterNext(FourCCs::PROP))
            return false;
        if (!serializer->Read(FourCCs::NAME, name))
        {
            serializer->Leave();
            return false;
        }
        const Property* property = GetClass()->FindProperty(name, true);
        if (property && property->CanSerializeProperty())
        {
            if (!property->LoadPropertyValue(GetClassPointer(property->GetOwnerClass()), serializer))
            {
                Log::Format(LOG_WARNING, u"Load Property '%s' failed.\n", name());
                serializer->Leave();
                return false;
            }
        }
        else
            Log::Format(LOG_WARNING, u"Invalid Property '%s' in '%s'.\n", name(), GetClass()->GetName()());
        serializer->Leave();
    }
    return true;
}

// --- Property values ------------------------------------------------------------------------------------

namespace {

// What a value is written for: the property (its flags, its name for
// messages) and the object holding it, when that is an Object.
struct ValueContext
{
    Serializer* serializer;
    const Property* property;
    Object* owner;
};

Object* OwnerObject(const Property* property, const void* object)
{
    const Class* owner = property->GetOwnerClass();
    if (!object || !owner || !owner->IsKindOf(Object::StaticGetClass()))
        return nullptr;
    return static_cast<Object*>(owner->GetClassPointer(const_cast<void*>(object), Object::StaticGetClass()));
}

bool SaveText(const Variable& value, const ValueContext& c)
{
    bool path = c.property->HasFlag(Property::FLAG_FILE_PATH);
    if (value.Type() == KOVEX_TYPE_ASTRING && !path)
        return c.serializer->Write(FourCCs::VAL, value.As<AString>());
    WString text;
    value.GetWString(text);
    if (path)
        c.serializer->MakePath(text);
    return c.serializer->Write(FourCCs::VAL, text);
}

bool LoadText(Variable& value, KOVEX_BASE_TYPE type, const ValueContext& c)
{
    bool path = c.property->HasFlag(Property::FLAG_FILE_PATH);
    if (type == KOVEX_TYPE_ASTRING && !path)
    {
        AString text;
        if (!c.serializer->Read(FourCCs::VAL, text))
            return false;
        value = text;
        return true;
    }
    WString text;
    if (!c.serializer->Read(FourCCs::VAL, text))
        return false;
    if (path)
        c.serializer->UnmakePath(text);
    if (type == KOVEX_TYPE_ASTRING)
        return value.Change(KOVEX_TYPE_ASTRING, Variable(text));
    value = text;
    return true;
}

// Objects go by reference through the file's object graph.
bool SaveObjectRef(const Object* object, const ValueContext& c)
{
    return c.owner ? c.owner->SerializeObj(object, c.serializer, 1)
                   : c.serializer->SaveObject(ConstPtr<Object>(object), 1);
}

bool LoadObjectRef(Ptr<Object>& out, const Class* cls, const ValueContext& c)
{
    bool ok = c.owner ? c.owner->SerializeObj(c.serializer, 1, out) : c.serializer->LoadObject(out, nullptr, 1);
    // What the file holds must be of the expected class.
    return ok && (!out || out->GetClass()->IsKindOf(cls));
}

// A delegate: "FUNC", the name of the reflected member function (empty for
// an empty delegate), then its target: "SELF" true for the object holding
// the delegate, otherwise the target object by reference.
bool SaveDelegate(const Variable& value, const DelegateClass* cls, const ValueContext& c)
{
    Object* target = nullptr;
    const Function* function = nullptr;
    if (!cls->GetBinding(value.GetStructMem(), target, function))
    {
        Log::Format(LOG_WARNING, u"Can't save delegate '%s': it calls no reflected member function.\n",
                    c.property->GetName()());
        return false;
    }
    Serializer* s = c.serializer;
    if (!s->Enter(FourCCs::DLGT))
        return false;
    bool ok = s->Write(FourCCs::FUNC, function ? function->GetName() : WString());
    if (ok && function)
        ok = (target == c.owner) ? s->Write(FourCCs::SELF, true) : SaveObjectRef(target, c);
    s->Leave();
    return ok;
}

bool LoadDelegate(Variable& value, const DelegateClass* cls, const ValueContext& c)
{
    Serializer* s = c.serializer;
    if (!s->Enter(FourCCs::DLGT))
        return false;
    value.SetDefaultValue(cls);
    WString name;
    bool ok = s->Read(FourCCs::FUNC, name);
    if (ok && !name.IsEmpty())
    {
        bool self = false;
        Ptr<Object> target;
        if (s->Read(FourCCs::SELF, self) && self)
            target = c.owner;
        else
            ok = LoadObjectRef(target, Object::StaticGetClass(), c);
        const Function* function = target ? target->GetClass()->FindFunction(name, true) : nullptr;
        if (ok && !function)
            Log::Format(LOG_WARNING, u"Delegate function '%s' not found in '%s'.\n", name(),
                        target ? target->GetClass()->GetName()() : u"null");
        // A delegate does not keep the object holding it alive: that would be a cycle.
        ok = ok && function && cls->Bind(value.GetStructMem(), target.Get(), function, target.Get() != c.owner);
        if (ok == false && function)
            Log::Format(LOG_WARNING, u"Delegate function '%s' does not fit '%s'.\n", name(), cls->GetName()());
    }
    s->Leave();
    return ok;
}

// One value of a reflected type of 1 to 17, as a property of that type stores it.
bool SaveValue(const Variable& value, const Class* cls, const ValueContext& c)
{
    using namespace FourCCs;
    Serializer* serializer = c.serializer;
    switch (cls->GetType())
    {
    case KOVEX_TYPE_BOOL: return serializer->Write(VAL, value.GetBool());
    case KOVEX_TYPE_INT32:
    case KOVEX_TYPE_ENUM: return serializer->Write(VAL, int32(value.GetInt()));
    case KOVEX_TYPE_UINT32: return serializer->Write(VAL, uint32(value.GetUInt()));
    case KOVEX_TYPE_FLOAT: return serializer->Write(VAL, value.GetFloat());
    case KOVEX_TYPE_VECTOR2: return serializer->Write(VAL, value.As<Vector2>());
    case KOVEX_TYPE_VECTOR3: return serializer->Write(VAL, value.As<Vector3>());
    case KOVEX_TYPE_VECTOR4:
    case KOVEX_TYPE_QUATERNION: return serializer->Write(VAL, value.As<Vector4>());
    case KOVEX_TYPE_MATRIX2: return serializer->Write(VAL, value.As<Matrix2>());
    case KOVEX_TYPE_MATRIX3: return serializer->Write(VAL, value.As<Matrix3>());
    case KOVEX_TYPE_MATRIX4: return serializer->Write(VAL, value.As<Matrix4>());
    case KOVEX_TYPE_ASTRING:
    case KOVEX_TYPE_WSTRING: return SaveText(value, c);
    case KOVEX_TYPE_OBJECT: return SaveObjectRef(value.GetObject(), c);
    case KOVEX_TYPE_CUSTOM: return static_cast<const Struct*>(cls)->SaveVariable(value, serializer);
    case KOVEX_TYPE_DELEGATE: return cls->IsDelegate() && SaveDelegate(value, static_cast<const DelegateClass*>(cls), c);
    default: return false;
    }
}

bool LoadValue(Variable& value, const Class* cls, const ValueContext& c)
{
    using namespace FourCCs;
    Serializer* serializer = c.serializer;
    bool ok = false;
    switch (cls->GetType())
    {
    case KOVEX_TYPE_BOOL: { bool v; ok = serializer->Read(VAL, v); value = v; break; }
    case KOVEX_TYPE_INT32: { int32 v; ok = serializer->Read(VAL, v); value = int(v); break; }
    case KOVEX_TYPE_ENUM:
    {
        int32 v;
        ok = serializer->Read(VAL, v) && cls->IsEnum();
        if (ok)
            value.SetEnumValue(v, static_cast<const EnumClass*>(cls));
        break;
    }
    case KOVEX_TYPE_UINT32: { uint32 v; ok = serializer->Read(VAL, v); value = (unsigned int)v; break; }
    case KOVEX_TYPE_FLOAT: { float v; ok = serializer->Read(VAL, v); value = v; break; }
    case KOVEX_TYPE_VECTOR2: { Vector2 v; ok = serializer->Read(VAL, v); value = v; break; }
    case KOVEX_TYPE_VECTOR3: { Vector3 v; ok = serializer->Read(VAL, v); value = v; break; }
    case KOVEX_TYPE_VECTOR4: { Vector4 v; ok = serializer->Read(VAL, v); value = v; break; }
    case KOVEX_TYPE_QUATERNION: { Vector4 v; ok = serializer->Read(VAL, v); value = Quaternion(v.x, v.y, v.z, v.w); break; }
    case KOVEX_TYPE_MATRIX2: { Matrix2 v; ok = serializer->Read(VAL, v); value = v; break; }
    case KOVEX_TYPE_MATRIX3: { Matrix3 v; ok = serializer->Read(VAL, v); value = v; break; }
    case KOVEX_TYPE_MATRIX4: { Matrix4 v; ok = serializer->Read(VAL, v); value = v; break; }
    case KOVEX_TYPE_ASTRING:
    case KOVEX_TYPE_WSTRING: ok = LoadText(value, cls->GetType(), c); break;
    case KOVEX_TYPE_OBJECT:
    {
        Ptr<Object> loaded;
        ok = LoadObjectRef(loaded, cls, c);
        value = loaded;
        break;
    }
    case KOVEX_TYPE_CUSTOM:
        ok = static_cast<const Struct*>(cls)->LoadVariable(value, serializer);
        break;
    case KOVEX_TYPE_DELEGATE:
        ok = cls->IsDelegate() && LoadDelegate(value, static_cast<const DelegateClass*>(cls), c);
        break;
    default: return false;
    }
    return ok;
}

// A container: its section, "CNT", then one "ITEM" section per element
// (an array) or per pair, holding "KEY" and "VALU" sections (a map).
bool SaveContainer(const ContainerProperty* property, const void* object, const ValueContext& c)
{
    Serializer* s = c.serializer;
    void* data = const_cast<void*>(object);
    bool isArray = property->GetType() == KOVEX_TYPE_TARRAY;
    Ptr<ArrayMirror> array = isArray ? property->CreateArrayMirror(data) : Ptr<ArrayMirror>();
    Ptr<MapMirror> map = isArray ? Ptr<MapMirror>() : property->CreateMapMirror(data);
    if ((isArray && !array) || (!isArray && !map) || !s->Enter(isArray ? FourCCs::ARRY : FourCCs::MAP))
        return false;
    unsigned count = isArray ? array->Count() : map->Count();
    bool ok = s->Write(FourCCs::CNT, count);
    for (unsigned i = 0; ok && i < count; ++i)
    {
        Variable key, value;
        ok = (isArray ? array->Get(i, value) : map->GetAt(i, key, value)) && s->Enter(FourCCs::ITEM);
        if (!ok)
            break;
        if (isArray)
            ok = SaveValue(value, array->GetItemClass(), c);
        else
        {
            const MapClass* cls = map->GetMapClass();
            ok = s->Enter(FourCCs::KEY) && SaveValue(key, cls->GetKeyClass(), c);
            s->Leave();
            ok = ok && s->Enter(FourCCs::VALU) && SaveValue(value, cls->GetValueClass(), c);
            s->Leave();
        }
        s->Leave();
    }
    s->Leave();
    return ok;
}

// Loads a value in the section `tag` of the current item.
bool LoadInSection(FourCC tag, Variable& value, const Class* cls, const ValueContext& c)
{
    if (!c.serializer->Enter(tag))
        return false;
    bool ok = LoadValue(value, cls, c);
    c.serializer->Leave();
    return ok;
}

bool LoadContainer(const ContainerProperty* property, void* object, const ValueContext& c)
{
    Serializer* s = c.serializer;
    bool isArray = property->GetType() == KOVEX_TYPE_TARRAY;
    Ptr<ArrayMirror> array = isArray ? property->CreateArrayMirror(object) : Ptr<ArrayMirror>();
    Ptr<MapMirror> map = isArray ? Ptr<MapMirror>() : property->CreateMapMirror(object);
    if ((isArray && !array) || (!isArray && !map) || !s->Enter(isArray ? FourCCs::ARRY : FourCCs::MAP))
        return false;
    uint32 count = 0;
    bool ok = s->Read(FourCCs::CNT, count);
    if (ok)
        isArray ? array->Clear() : map->Clear();
    // Items are taken one section at a time, never reserved for by the
    // count: a count beyond the sections present fails at the first missing one.
    for (uint32 i = 0; ok && i < count; ++i)
    {
        if (!s->EnterNext(FourCCs::ITEM))
        {
            Log::Format(LOG_WARNING, u"Container '%s' holds fewer items than its count %u.\n",
                        c.property->GetName()(), count);
            ok = false;
            break;
        }
        Variable key, value;
        if (isArray)
            ok = LoadValue(value, array->GetItemClass(), c) && array->Insert(array->Count(), value);
        else
        {
            const MapClass* cls = map->GetMapClass();
            ok = LoadInSection(FourCCs::KEY, key, cls->GetKeyClass(), c) &&
                 LoadInSection(FourCCs::VALU, value, cls->GetValueClass(), c) && map->Set(key, value);
        }
        s->Leave();
    }
    s->Leave();
    return ok;
}

} // namespace

bool Object::IsObjectDifferent(const Object* base) const { return !SupportSerializeDiff(base) || IsDifferent(base); }

bool Object::SerializeObj(Serializer* serializer, unsigned int flags, Ptr<Object>& out)
{
    out = nullptr;
    return serializer && serializer->LoadObject(out, this, flags);
}

bool Object::SerializeObj(const Object* object, Serializer* serializer, unsigned int flags) const
{
    return serializer && serializer->SaveObject(ConstPtr<Object>(object), flags);
}

bool Property::SaveAString(const Property* property, const void* object, Serializer* serializer)
{
    Variable value;
    return value.GetPropertyValue(property, object) && value.Type() == KOVEX_TYPE_ASTRING &&
           SaveText(value, ValueContext{serializer, property, nullptr});
}

bool Property::SaveWString(const Property* property, const void* object, Serializer* serializer)
{
    Variable value;
    return value.GetPropertyValue(property, object) && value.Type() == KOVEX_TYPE_WSTRING &&
           SaveText(value, ValueContext{serializer, property, nullptr});
}

bool Property::LoadAString(const Property* property, void* object, Serializer* serializer)
{
    Variable value;
    return LoadText(value, KOVEX_TYPE_ASTRING, ValueContext{serializer, property, nullptr}) &&
           value.SetPropertyValue(property, object);
}

bool Property::LoadWString(const Property* property, void* object, Serializer* serializer)
{
    Variable value;
    return LoadText(value, KOVEX_TYPE_WSTRING, ValueContext{serializer, property, nullptr}) &&
           value.SetPropertyValue(property, object);
}

bool Property::SaveObject(const Property* property, const void* object, Serializer* serializer)
{
    Variable value;
    return value.GetPropertyValue(property, object) && value.Type() == KOVEX_TYPE_OBJECT &&
           SaveObjectRef(value.GetObject(), ValueContext{serializer, property, OwnerObject(property, object)});
}

bool Property::LoadObject(const Property* property, void* object, Serializer* serializer)
{
    Ptr<Object> loaded;
    if (property->GetType() != KOVEX_TYPE_OBJECT ||
        !LoadObjectRef(loaded, property->GetClass(), ValueContext{serializer, property, OwnerObject(property, object)}))
        return false;
    return Variable(loaded).SetPropertyValue(property, object);
}

bool Property::SavePropertyValue(const void* object, Serializer* serializer) const
{
    switch (GetType())
    {
    case KOVEX_TYPE_ASTRING: return SaveAString(this, object, serializer);
    case KOVEX_TYPE_WSTRING: return SaveWString(this, object, serializer);
    case KOVEX_TYPE_OBJECT: return SaveObject(this, object, serializer);
    case KOVEX_TYPE_CUSTOM: return SaveStruct(object, this, serializer);
    case KOVEX_TYPE_TARRAY:
    case KOVEX_TYPE_TMAP:
    {
        auto* container = dynamic_cast<const ContainerProperty*>(this);
        return container && SaveContainer(container, object, ValueContext{serializer, this, OwnerObject(this, object)});
    }
    default: break;
    }
    Variable value;
    return value.GetPropertyValue(this, object) &&
           SaveValue(value, GetClass(), ValueContext{serializer, this, OwnerObject(this, object)});
}

bool Property::LoadPropertyValue(void* object, Serializer* serializer) const
{
    switch (GetType())
    {
    case KOVEX_TYPE_ASTRING: return LoadAString(this, object, serializer);
    case KOVEX_TYPE_WSTRING: return LoadWString(this, object, serializer);
    case KOVEX_TYPE_OBJECT: return LoadObject(this, object, serializer);
    case KOVEX_TYPE_CUSTOM: return LoadStruct(object, this, serializer);
    case KOVEX_TYPE_TARRAY:
    case KOVEX_TYPE_TMAP:
    {
        auto* container = dynamic_cast<const ContainerProperty*>(this);
        return container && LoadContainer(container, object, ValueContext{serializer, this, OwnerObject(this, object)});
    }
    default: break;
    }
    Variable value;
    return LoadValue(value, GetClass(), ValueContext{serializer, this, OwnerObject(this, object)}) &&
           value.SetPropertyValue(this, object);
}

bool Struct::LoadValue(void* value, Serializer* serializer) const { return serializer->Read(FourCCs::SKT, value, this); }
bool Struct::SaveValue(const void* value, Serializer* serializer) const { return serializer->Write(FourCCs::SKT, value, this); }

} // namespace KovexEngine
