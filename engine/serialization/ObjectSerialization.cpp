// How reflected objects, their property lists and their property values go
// through a Serializer.

#include "kernel/Log.h"
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

namespace {
// Containers and delegates have no stored form yet; they are left out of
// the list rather than failing the whole object.
bool HasSerializableValue(const Property* property)
{
    KOVEX_BASE_TYPE type = property->GetType();
    return type != KOVEX_TYPE_TARRAY && type != KOVEX_TYPE_TMAP && type != KOVEX_TYPE_DELEGATE;
}
} // namespace

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
    TArray<const Property*> properties;
    GetClass()->GetAllProperties(properties);
    const Class* owner = nullptr;
    const void* pointer = nullptr;
    const void* basePointer = nullptr;
    Variable mine, theirs;
    for (const Property* property : properties)
    {
        if (!property->CanSerializeProperty() || !HasSerializableValue(property))
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
        if (!serializer->Enter(FourCCs::PROP))
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

bool Property::SavePropertyValue(const void* object, Serializer* serializer) const
{
    Variable value;
    if (!value.GetPropertyValue(this, object))
        return false;
    using namespace FourCCs;
    switch (GetType())
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
    case KOVEX_TYPE_WSTRING:
    {
        WString text;
        value.GetWString(text);
        if (HasFlag(FLAG_FILE_PATH))
            serializer->MakePath(text);
        return serializer->Write(VAL, text);
    }
    case KOVEX_TYPE_OBJECT: return serializer->SaveObject(ConstPtr<Object>(value.GetObject()), 1);
    case KOVEX_TYPE_CUSTOM: return SaveStruct(object, this, serializer);
    default: return false;
    }
}

bool Property::LoadPropertyValue(void* object, Serializer* serializer) const
{
    using namespace FourCCs;
    Variable value;
    bool ok = false;
    switch (GetType())
    {
    case KOVEX_TYPE_BOOL: { bool v; ok = serializer->Read(VAL, v); value = v; break; }
    case KOVEX_TYPE_INT32: { int32 v; ok = serializer->Read(VAL, v); value = int(v); break; }
    case KOVEX_TYPE_ENUM:
    {
        int32 v;
        ok = serializer->Read(VAL, v) && GetClass()->IsEnum();
        if (ok)
            value.SetEnumValue(v, static_cast<const EnumClass*>(GetClass()));
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
    case KOVEX_TYPE_WSTRING:
    {
        WString text;
        ok = serializer->Read(VAL, text);
        if (ok && HasFlag(FLAG_FILE_PATH))
            serializer->UnmakePath(text);
        value = text;
        break;
    }
    case KOVEX_TYPE_OBJECT:
    {
        Ptr<Object> loaded;
        if (!serializer->LoadObject(loaded, nullptr, 1))
            return false;
        // What the file holds must be of the property's class.
        if (loaded && !loaded->GetClass()->IsKindOf(GetClass()))
            return false;
        value = loaded;
        ok = true;
        break;
    }
    case KOVEX_TYPE_CUSTOM: return LoadStruct(object, this, serializer);
    default: return false;
    }
    return ok && value.SetPropertyValue(this, object);
}

bool Struct::LoadValue(void* value, Serializer* serializer) const { return serializer->Read(FourCCs::SKT, value, this); }
bool Struct::SaveValue(const void* value, Serializer* serializer) const { return serializer->Write(FourCCs::SKT, value, this); }

} // namespace KovexEngine
