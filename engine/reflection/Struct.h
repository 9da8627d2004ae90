#pragma once

#include <new>

#include "reflection/PropertyRegistration.h"
#include "reflection/ValueClass.h"

namespace KovexEngine {

class Serializer;
class Variable;

// A plain value type described by its fields.
class KOVEX_API Struct : public ValueClass
{
public:
    Struct(const char16_t* name, unsigned int size, const char16_t* module, KOVEX_BASE_TYPE type = KOVEX_TYPE_CUSTOM);

    bool IsStruct() const override { return true; }
    // Properties with the field flag become the struct's fields too.
    void AddProperty(Property* property) override;
    // Sorts the fields by offset and finds out whether they lie contiguously.
    void ProcessClass() override;

    // The default value of the struct, in a Variable.
    virtual bool GetDefaultVariable(Variable& out) const;
    // The struct's own load and save functions, when it has them (a member
    // `bool Load(Serializer*)` and `bool Save(Serializer*) const`).
    virtual bool HasOwnSerialization() const { return false; }
    virtual bool LoadValue(void* value, Serializer* serializer) const;
    virtual bool SaveValue(const void* value, Serializer* serializer) const;
    // The same through a Variable: LoadVariable stores a default value of
    // the struct in `out` and reads into it; SaveVariable refuses a value
    // of another class.
    virtual bool LoadVariable(Variable& out, Serializer* serializer) const;
    virtual bool SaveVariable(const Variable& value, Serializer* serializer) const;
    virtual void* NewArray(unsigned int count) const = 0;
    virtual void DeleteArray(void* array) const = 0;

    const TArray<const Property*>& GetStructFields() const { return m_fields; }
    unsigned int GetSerializeOffset() const { return m_serializeOffset; }
    unsigned int GetSerializeSize() const { return m_serializeSize; }

    // The fields of types 2 to 11 (and nested structs) joined by commas.
    bool ToString(WString& out, const void* data) const;
    // Reads the fields back from such text; numbers may be expressions.
    bool FromString(const WString& text, void* data) const;
    bool IsStructStringable() const;
    static bool IsFieldStringable(const Property* field);

private:
    bool FromTokens(const TArray<WString>& tokens, unsigned& index, void* data) const;

    TArray<const Property*> m_fields;
    unsigned int m_serializeOffset = 0xFFFFFFFFu;
    unsigned int m_serializeSize = 0;
};

// The struct class of a native type T.
template <typename T>
class TStruct final : public Struct
{
public:
    using EqualFunction = bool (*)(const T&, const T&);
    using CompareFunction = bool (*)(const T&, const T&, float);

    TStruct(const char16_t* name, const char16_t* module, KOVEX_BASE_TYPE type = KOVEX_TYPE_CUSTOM)
        : Struct(name, sizeof(T), module, type)
    {
        if constexpr (requires(const T& a) { { a == a } -> std::convertible_to<bool>; })
            m_equal = [](const T& a, const T& b) { return bool(a == b); };
    }

    void SetCompareFunction(CompareFunction compare) { m_compare = compare; }

    void Delete(void* data) const override { delete static_cast<T*>(data); }
    void Copy(void* destination, const void* source) const override
    {
        *static_cast<T*>(destination) = *static_cast<const T*>(source);
    }
    void* Clone(const void* source) const override
    {
        return source ? new T(*static_cast<const T*>(source)) : new T();
    }
    bool IsEqual(const void* a, const void* b) const override
    {
        return m_equal && m_equal(*static_cast<const T*>(a), *static_cast<const T*>(b));
    }
    bool Compare(const void* a, const void* b, float epsilon) const override
    {
        return m_compare && m_compare(*static_cast<const T*>(a), *static_cast<const T*>(b), epsilon);
    }
    void CopyConstruct(void* destination, const void* source) const override
    {
        new (destination) T(*static_cast<const T*>(source));
    }
    void DefaultConstruct(void* destination) const override { new (destination) T(); }
    void DestroyInPlace(void* data) const override { static_cast<T*>(data)->~T(); }
    void* NewArray(unsigned int count) const override { return new (std::nothrow) T[count]; }
    bool HasOwnSerialization() const override
    {
        return requires(T& t, const T& c, Serializer* s) {
            { t.Load(s) } -> std::convertible_to<bool>;
            { c.Save(s) } -> std::convertible_to<bool>;
        };
    }
    bool LoadValue(void* value, Serializer* serializer) const override
    {
        if constexpr (requires(T& t, Serializer* s) { { t.Load(s) } -> std::convertible_to<bool>; })
            return static_cast<T*>(value)->Load(serializer);
        else
            return Struct::LoadValue(value, serializer);
    }
    bool SaveValue(const void* value, Serializer* serializer) const override
    {
        if constexpr (requires(const T& t, Serializer* s) { { t.Save(s) } -> std::convertible_to<bool>; })
            return static_cast<const T*>(value)->Save(serializer);
        else
            return Struct::SaveValue(value, serializer);
    }
    void DeleteArray(void* array) const override { delete[] static_cast<T*>(array); }

private:
    EqualFunction m_equal = nullptr;
    CompareFunction m_compare = nullptr;
};

// Registers a struct field (a property with the field flag).
template <typename Owner, typename T>
Property* AddStructField(Class* cls, const char16_t* name, T Owner::*field, const char16_t* metadata = nullptr)
{
    return AddField(cls, name, field, Property::FLAG_STRUCT_FIELD, metadata);
}

} // namespace KovexEngine

// In one source file, for a type whose body has KOVEX_STRUCT(X); the
// StaticConstructor is written by hand and ends with cls->ProcessClass().
#define KOVEX_REGISTER_STRUCT(X, MODULE, TYPE)                                   \
    const ::KovexEngine::Class* X::StaticGetClass()                              \
    {                                                                            \
        static const ::KovexEngine::Class* slot = nullptr;                       \
        if (slot)                                                                \
            return slot;                                                         \
        auto* cls = new ::KovexEngine::TStruct<X>(u"" #X, MODULE, TYPE);         \
        slot = cls;                                                              \
        cls->SetRegistrySlot(&slot);                                             \
        StaticConstructor(cls);                                                  \
        return slot;                                                             \
    }                                                                            \
    bool X::_InitClass() { return StaticGetClass() != nullptr; }                 \
    static const bool s_kovexStructInited_##X = X::_InitClass();
