#pragma once

#include "reflection/Class.h"

namespace KovexEngine {

class FunctionStack;
class Property;
class ScriptObject;
class Serializer;
class Variable;

// The root of the reflected, reference-counted classes.
class KOVEX_API Object : public ReferenceObj
{
public:
    Object() = default;
    Object(const Object& other) : ReferenceObj(other) {}
    Object& operator=(const Object&) { return *this; }
    ~Object() override;

    static const Class* StaticGetClass();
    static bool _InitClass();
    virtual const Class* GetNativeClass() const;
    virtual const void* GetNativeClassPointer(const Class* target) const;
    virtual void* GetNativeClassPointer(const Class* target);
    // A copy made by the class's creator and filled by Duplicate; null when
    // the class is abstract or the copy fails.
    virtual Ptr<Object> Clone(unsigned int flags) const;
    virtual bool Duplicate(Object* destination, unsigned int flags) const;
    // The object's contents; the base reads and writes its property list.
    virtual bool Load(Serializer* serializer);
    virtual bool Save(Serializer* serializer) const;
    virtual bool LoadDiff(Serializer* serializer);
    virtual bool SaveDiff(Serializer* serializer, const Object* base) const;
    virtual void PostLoad();
    virtual void PostSave();
    // True when `other` has exactly this object's class.
    virtual bool SupportSerializeDiff(const Object* other) const;
    // True when some reflected property differs from `other`'s.
    virtual bool IsDifferent(const Object* other) const;
    virtual bool ToString(WString& out) const;
    virtual bool FromString(const WString& text);
    virtual bool IsClonable() const;
    virtual Ptr<Object> InternalCreateRefObjFromThis(const Class* cls);
    // A new object of the class by its creator, as an Object wherever that
    // base sits in it; null for an abstract or unknown class.
    static Ptr<Object> CreateObject(const Class* cls);

    // The script side's class when there is one, else the native class.
    const Class* GetClass() const;
    ScriptObject* GetScriptObject() const { return m_scriptObject; }

    const WString& GetClassNameW() const { return GetClass()->GetName(); }
    void* GetClassPointer(const Class* target) { return GetClass()->GetClassPointer(static_cast<void*>(this), target); }
    const void* GetClassPointer(const Class* target) const
    {
        return GetClass()->GetClassPointer(static_cast<const void*>(this), target);
    }
    bool IsKindOf(const Class* cls) const { return GetClass()->IsKindOf(cls); }
    bool IsKindOf(const WString& name) const { return GetClass()->IsKindOf(name); }
    // The exact class, by name (the spelling is the interface's).
    bool IsExtractKindOf(const WString& name) const { return GetClass()->IsExactKindOf(name); }
    // Copies the reflected properties into an object of the same class:
    // objects are shared with property flag 0x100, kept when 0x200 is set and
    // they are not clonable, and cloned otherwise.
    bool CopyProperties(Object* destination, unsigned int flags) const;

    // Compares every readable property of types 1 to 16 with `other`'s (of
    // the same class); true when one differs or the classes do.
    bool HasDiffProps(const Object* other) const;

    // The saved properties (flag 0x40) as a list: "PRSZ" count, then one
    // "PROP" section each with "NAME" and the value. An unknown property in
    // a file is skipped with "Invalid Property '%s' in '%s'.\n".
    bool LoadProperties(Serializer* serializer);
    bool SaveProperties(Serializer* serializer) const;
    // The difference form: only the properties whose values differ from
    // `base` (all of them when it is null or of another class), in the
    // property-list layout, so loading it applies them over a copy of base.
    bool SaveDiffProps(Serializer* serializer, const Object* base) const;
    bool LoadDiffProps(Serializer* serializer) { return LoadProperties(serializer); }
    // Whether a difference form against `base` is needed at all: true when
    // no difference can be made (null, another class) or the objects differ.
    bool IsObjectDifferent(const Object* base) const;

    // An object from the serializer's object graph (its number, or its class
    // name and body), created through this object as its outer. True with a
    // null `out` for a stored null pointer; false when nothing loads.
    bool SerializeObj(Serializer* serializer, unsigned int flags, Ptr<Object>& out);
    // Saves `object` into the graph: a null mark, a number already given, or
    // the number, class name and body.
    bool SerializeObj(const Object* object, Serializer* serializer, unsigned int flags) const;

    const Property* FindProperty(const WString& name) const;
    // False for an unknown property; reads through the owning class's part.
    bool GetProperty(const WString& name, Variable& out) const;
    bool SetProperty(const WString& name, const Variable& value);
    bool GetProperty(const Property* property, Variable& out) const;
    bool SetProperty(const Property* property, const Variable& value);
    // Calls a reflected function by name. A missing function logs
    // "Can't invoke function [%s], because it does not exist !\n" at level 3.
    bool Invoke(const WString& name, FunctionStack* stack);

    static void* CreateClassInstance();

private:
    static void StaticConstructor(Class* cls);
    static const Class* ms_pClass;
    static bool ms_bClassInited;

    ScriptObject* m_scriptObject = nullptr;
};

// An object with a name and a pointer for its client's use.
class KOVEX_API NamedObject : public Object
{
    KOVEX_CLASS(NamedObject)

    NamedObject() = default;
    explicit NamedObject(const WString& name) : m_name(name) {}

    const WString& GetName() const { return m_name; }
    void SetName(const WString& name);
    void* GetClientData() const { return m_clientData; }
    void SetClientData(void* data) { m_clientData = data; }

    // Called after the name has changed, with the old name.
    virtual void OnNameChanged(const WString& oldName);

private:
    WString m_name;
    void* m_clientData = nullptr;
};

// Casts a reflected object to a class by its registry, with pointer
// adjustment under multiple inheritance; null when it is no such class.
template <typename T>
T* DynamicCast(Object* object)
{
    return object ? static_cast<T*>(object->GetNativeClassPointer(T::StaticGetClass())) : nullptr;
}

template <typename T>
const T* DynamicCast(const Object* object)
{
    return object ? static_cast<const T*>(object->GetNativeClassPointer(T::StaticGetClass())) : nullptr;
}

} // namespace KovexEngine
