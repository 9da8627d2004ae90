#pragma once

// Reflection of TArray<T> and TMap<K, V> fields through mirrors: typed views
// that let tools and serializers read and change a container without knowing
// its element types. Values cross as Variables.

#include "reflection/FunctionRegistration.h"
#include "reflection/PropertyRegistration.h"
#include "reflection/ValueClass.h"
#include "reflection/Variable.h"

namespace KovexEngine {

class ArrayClass;
class MapClass;

class KOVEX_API ArrayMirror : public ReferenceObj
{
public:
    explicit ArrayMirror(const ArrayClass* cls) : m_class(cls) {}
    static const Class* StaticGetClass();
    virtual const Class* GetNativeClass() const { return StaticGetClass(); }

    const ArrayClass* GetArrayClass() const { return m_class; }
    const Class* GetItemClass() const;

    virtual unsigned int Count() const = 0;
    // False for an index out of range or a value that does not convert.
    virtual bool Get(unsigned int index, Variable& out) const = 0;
    virtual bool Set(unsigned int index, const Variable& value) = 0;
    // Inserts before `index` (appends at Count()).
    virtual bool Insert(unsigned int index, const Variable& value) = 0;
    virtual bool Remove(unsigned int index) = 0;
    virtual bool SetCount(unsigned int count) = 0;
    virtual void Clear() = 0;

private:
    const ArrayClass* m_class;
};

class KOVEX_API MapMirror : public ReferenceObj
{
public:
    explicit MapMirror(const MapClass* cls) : m_class(cls) {}
    static const Class* StaticGetClass();
    virtual const Class* GetNativeClass() const { return StaticGetClass(); }

    const MapClass* GetMapClass() const { return m_class; }

    virtual unsigned int Count() const = 0;
    virtual bool GetAt(unsigned int index, Variable& key, Variable& value) const = 0;
    // The value of a key; false when it is absent or does not convert.
    virtual bool Find(const Variable& key, Variable& value) const = 0;
    // Sets the value of a present key, or inserts the pair.
    virtual bool Set(const Variable& key, const Variable& value) = 0;
    virtual bool Remove(const Variable& key) = 0;
    virtual void Clear() = 0;

private:
    const MapClass* m_class;
};

// The class of TArray<T> fields: "TArray<item>".
class KOVEX_API ArrayClass : public ValueClass
{
public:
    // Accessors that reach an array of an owner object without a pointer to
    // it (an array computed or kept elsewhere). `owner` is the object the
    // mirror was made for; a missing accessor makes its operation fail.
    struct Funcs
    {
        unsigned int (*count)(const void* owner) = nullptr;
        bool (*get)(const void* owner, unsigned int index, Variable& out) = nullptr;
        bool (*set)(void* owner, unsigned int index, const Variable& value) = nullptr;
        bool (*insert)(void* owner, unsigned int index, const Variable& value) = nullptr;
        bool (*remove)(void* owner, unsigned int index) = nullptr;
        bool (*setCount)(void* owner, unsigned int count) = nullptr;
        void (*clear)(void* owner) = nullptr;
    };

    ArrayClass(const Class* item, unsigned int size);
    const Class* GetItemClass() const { return m_item; }
    static WString GetArrayClassName(const Class* item);

    // A mirror over a new array of its own, over the array at `data`, or
    // over the array that `funcs` reach in `owner`. Null here; the class of
    // each item type makes real ones.
    virtual Ptr<ArrayMirror> CreateMirror() const;
    virtual Ptr<ArrayMirror> CreateMirrorRef(void* data) const;
    virtual Ptr<ArrayMirror> CreateMirrorFunc(void* owner, const Funcs& funcs) const;

private:
    const Class* m_item;
};

// The class of TMap<K, V> fields: "TMap<key, value>".
class KOVEX_API MapClass : public ValueClass
{
public:
    // Accessors that reach a map of an owner object (see ArrayClass::Funcs).
    struct Funcs
    {
        unsigned int (*count)(const void* owner) = nullptr;
        bool (*getAt)(const void* owner, unsigned int index, Variable& key, Variable& value) = nullptr;
        bool (*find)(const void* owner, const Variable& key, Variable& value) = nullptr;
        bool (*set)(void* owner, const Variable& key, const Variable& value) = nullptr;
        bool (*remove)(void* owner, const Variable& key) = nullptr;
        void (*clear)(void* owner) = nullptr;
    };

    MapClass(const Class* key, const Class* value, unsigned int size);
    const Class* GetKeyClass() const { return m_key; }
    const Class* GetValueClass() const { return m_value; }
    static WString GetMapClassName(const Class* key, const Class* value);

    virtual Ptr<MapMirror> CreateMirror() const;
    virtual Ptr<MapMirror> CreateMirrorRef(void* data) const;
    virtual Ptr<MapMirror> CreateMirrorFunc(void* owner, const Funcs& funcs) const;

private:
    const Class* m_key;
    const Class* m_value;
};

// A mirror over an array reached through accessor functions.
class KOVEX_API ArrayMirrorFunc final : public ArrayMirror
{
public:
    ArrayMirrorFunc(const ArrayClass* cls, void* owner, const ArrayClass::Funcs& funcs)
        : ArrayMirror(cls), m_owner(owner), m_funcs(funcs)
    {
    }
    static const Class* StaticGetClass();
    const Class* GetNativeClass() const override { return StaticGetClass(); }

    unsigned int Count() const override;
    bool Get(unsigned int index, Variable& out) const override;
    bool Set(unsigned int index, const Variable& value) override;
    bool Insert(unsigned int index, const Variable& value) override;
    bool Remove(unsigned int index) override;
    bool SetCount(unsigned int count) override;
    void Clear() override;

private:
    void* m_owner;
    ArrayClass::Funcs m_funcs;
};

// A mirror over a map reached through accessor functions.
class KOVEX_API MapMirrorFunc final : public MapMirror
{
public:
    MapMirrorFunc(const MapClass* cls, void* owner, const MapClass::Funcs& funcs)
        : MapMirror(cls), m_owner(owner), m_funcs(funcs)
    {
    }
    static const Class* StaticGetClass();
    const Class* GetNativeClass() const override { return StaticGetClass(); }

    unsigned int Count() const override;
    bool GetAt(unsigned int index, Variable& key, Variable& value) const override;
    bool Find(const Variable& key, Variable& value) const override;
    bool Set(const Variable& key, const Variable& value) override;
    bool Remove(const Variable& key) override;
    void Clear() override;

private:
    void* m_owner;
    MapClass::Funcs m_funcs;
};

namespace ContainerDetail {
using FunctionDetail::FromVariable;
using FunctionDetail::ToVariable;
} // namespace ContainerDetail

template <typename T>
class TArrayMirror final : public ArrayMirror
{
public:
    TArrayMirror(const ArrayClass* cls, TArray<T>* array, bool owned) : ArrayMirror(cls), m_array(array), m_owned(owned) {}
    ~TArrayMirror() override
    {
        if (m_owned)
            delete m_array;
    }
    unsigned int Count() const override { return m_array->Count(); }
    bool Get(unsigned int index, Variable& out) const override
    {
        if (index >= m_array->Count())
            return false;
        ContainerDetail::ToVariable((*m_array)[index], out);
        return true;
    }
    bool Set(unsigned int index, const Variable& value) override
    {
        return index < m_array->Count() && ContainerDetail::FromVariable(value, (*m_array)[index]);
    }
    bool Insert(unsigned int index, const Variable& value) override
    {
        T item{};
        if (index > m_array->Count() || !ContainerDetail::FromVariable(value, item))
            return false;
        return m_array->Insert(index, item);
    }
    bool Remove(unsigned int index) override
    {
        if (index >= m_array->Count())
            return false;
        m_array->RemoveAt(index);
        return true;
    }
    bool SetCount(unsigned int count) override { return m_array->SetCount(count); }
    void Clear() override { m_array->Clear(); }

private:
    TArray<T>* m_array;
    bool m_owned;
};

template <typename K, typename V>
class TMapMirror final : public MapMirror
{
public:
    TMapMirror(const MapClass* cls, TMap<K, V>* map, bool owned) : MapMirror(cls), m_map(map), m_owned(owned) {}
    ~TMapMirror() override
    {
        if (m_owned)
            delete m_map;
    }
    unsigned int Count() const override { return m_map->Count(); }
    bool GetAt(unsigned int index, Variable& key, Variable& value) const override
    {
        if (index >= m_map->Count())
            return false;
        ContainerDetail::ToVariable((*m_map)[index].key, key);
        ContainerDetail::ToVariable((*m_map)[index].value, value);
        return true;
    }
    bool Find(const Variable& key, Variable& value) const override
    {
        K k{};
        if (!ContainerDetail::FromVariable(key, k))
            return false;
        const V* found = m_map->FindValue(k);
        if (!found)
            return false;
        ContainerDetail::ToVariable(*found, value);
        return true;
    }
    bool Set(const Variable& key, const Variable& value) override
    {
        K k{};
        V v{};
        return ContainerDetail::FromVariable(key, k) && ContainerDetail::FromVariable(value, v) && m_map->Set(k, v);
    }
    bool Remove(const Variable& key) override
    {
        K k{};
        return ContainerDetail::FromVariable(key, k) && m_map->Remove(k);
    }
    void Clear() override { m_map->Clear(); }

private:
    TMap<K, V>* m_map;
    bool m_owned;
};

template <typename T>
class TArrayClass final : public ArrayClass
{
public:
    TArrayClass() : ArrayClass(ClassOf<T>(), sizeof(TArray<T>)) {}
    Ptr<ArrayMirror> CreateMirror() const override { return Ptr<ArrayMirror>(new TArrayMirror<T>(this, new TArray<T>(), true)); }
    Ptr<ArrayMirror> CreateMirrorRef(void* data) const override
    {
        return data ? Ptr<ArrayMirror>(new TArrayMirror<T>(this, static_cast<TArray<T>*>(data), false)) : Ptr<ArrayMirror>();
    }
    Ptr<ArrayMirror> CreateMirrorFunc(void* owner, const Funcs& funcs) const override
    {
        return Ptr<ArrayMirror>(new ArrayMirrorFunc(this, owner, funcs));
    }
};

template <typename K, typename V>
class TMapClass final : public MapClass
{
public:
    TMapClass() : MapClass(ClassOf<K>(), ClassOf<V>(), sizeof(TMap<K, V>)) {}
    Ptr<MapMirror> CreateMirror() const override { return Ptr<MapMirror>(new TMapMirror<K, V>(this, new TMap<K, V>(), true)); }
    Ptr<MapMirror> CreateMirrorRef(void* data) const override
    {
        return data ? Ptr<MapMirror>(new TMapMirror<K, V>(this, static_cast<TMap<K, V>*>(data), false)) : Ptr<MapMirror>();
    }
    Ptr<MapMirror> CreateMirrorFunc(void* owner, const Funcs& funcs) const override
    {
        return Ptr<MapMirror>(new MapMirrorFunc(this, owner, funcs));
    }
};

// The class of a container type, one per module, shared by name.
KOVEX_API const Class* FindContainerClass(const WString& name);

template <typename T>
const Class* ArrayClassOf()
{
    static const Class* slot = nullptr;
    if (!slot)
    {
        const Class* existing = FindContainerClass(ArrayClass::GetArrayClassName(ClassOf<T>()));
        if (existing)
            slot = existing;
        else
            slot = new TArrayClass<T>();
        const_cast<Class*>(slot)->SetRegistrySlot(&slot);
    }
    return slot;
}

template <typename K, typename V>
const Class* MapClassOf()
{
    static const Class* slot = nullptr;
    if (!slot)
    {
        const Class* existing = FindContainerClass(MapClass::GetMapClassName(ClassOf<K>(), ClassOf<V>()));
        if (existing)
            slot = existing;
        else
            slot = new TMapClass<K, V>();
        const_cast<Class*>(slot)->SetRegistrySlot(&slot);
    }
    return slot;
}

// A property over a container field, or over a container reached through
// accessor functions; either way it is reached through a mirror.
class KOVEX_API ContainerProperty final : public NativeProperty
{
public:
    ContainerProperty(const WString& name, const Class* type, int offset, uint32 flags)
        : NativeProperty(name, type, flags, offset, false, false)
    {
    }
    ContainerProperty(const WString& name, const Class* type, const ArrayClass::Funcs& funcs, uint32 flags)
        : NativeProperty(name, type, flags, -1, false, false), m_arrayFuncs(funcs), m_hasFuncs(true)
    {
    }
    ContainerProperty(const WString& name, const Class* type, const MapClass::Funcs& funcs, uint32 flags)
        : NativeProperty(name, type, flags, -1, false, false), m_mapFuncs(funcs), m_hasFuncs(true)
    {
    }
    // Saved and loaded when a mirror can read and refill the container.
    void ProcessProperty() override;
    // A mirror over the container of `object` (pointing at the owning class's part).
    Ptr<ArrayMirror> CreateArrayMirror(void* object) const;
    Ptr<MapMirror> CreateMapMirror(void* object) const;

private:
    ArrayClass::Funcs m_arrayFuncs;
    MapClass::Funcs m_mapFuncs;
    bool m_hasFuncs = false;
};

template <typename Owner, typename T>
Property* AddArrayField(Class* cls, const char16_t* name, TArray<T> Owner::*field, uint32 flags = 0)
{
    auto* property = new ContainerProperty(WString(name), ArrayClassOf<T>(),
                                           int(std::bit_cast<std::ptrdiff_t>(field)), flags);
    property->ProcessProperty();
    cls->AddProperty(property);
    return property;
}

// A container reached through accessors: Owner is the owning class, T the item type.
template <typename Owner, typename T>
Property* AddArrayFuncs(Class* cls, const char16_t* name, const ArrayClass::Funcs& funcs, uint32 flags = 0)
{
    auto* property = new ContainerProperty(WString(name), ArrayClassOf<T>(), funcs, flags);
    property->ProcessProperty();
    cls->AddProperty(property);
    return property;
}

template <typename Owner, typename K, typename V>
Property* AddMapFuncs(Class* cls, const char16_t* name, const MapClass::Funcs& funcs, uint32 flags = 0)
{
    auto* property = new ContainerProperty(WString(name), MapClassOf<K, V>(), funcs, flags);
    property->ProcessProperty();
    cls->AddProperty(property);
    return property;
}

template <typename Owner, typename K, typename V>
Property* AddMapField(Class* cls, const char16_t* name, TMap<K, V> Owner::*field, uint32 flags = 0)
{
    auto* property = new ContainerProperty(WString(name), MapClassOf<K, V>(),
                                           int(std::bit_cast<std::ptrdiff_t>(field)), flags);
    property->ProcessProperty();
    cls->AddProperty(property);
    return property;
}

} // namespace KovexEngine
