#pragma once

// The typed native properties and the helpers that register them in a
// class's StaticConstructor:
//
//   AddField(cls, u"Legs", &Dog::m_legs, flags, u"Category=Scene;");
//   AddAccessor(cls, u"Name", &NamedObject::GetName, &NamedObject::SetName);

#include <bit>
#include <cstddef>

#include "reflection/Property.h"
#include "reflection/ValueTraits.h"

namespace KovexEngine {

template <typename Owner, typename T>
class TFieldProperty final : public NativeProperty
{
public:
    TFieldProperty(const WString& name, T Owner::*field, uint32 flags)
        : NativeProperty(name, ClassOf<T>(), flags, OffsetOf(field), true, true), m_field(field)
    {
    }
    bool GetPropertyValue(const void* object, void* out) const override
    {
        ValueTraits<T>::Store(*static_cast<StorageOf<T>*>(out), static_cast<const Owner*>(object)->*m_field);
        return true;
    }
    bool SetPropertyValue(void* object, const void* value) const override
    {
        ValueTraits<T>::Load(static_cast<Owner*>(object)->*m_field, *static_cast<const StorageOf<T>*>(value));
        return true;
    }

private:
    static int OffsetOf(T Owner::*field)
    {
        // A data member pointer is its byte offset in the Itanium C++ ABI.
        static_assert(sizeof(field) == sizeof(std::ptrdiff_t));
        return int(std::bit_cast<std::ptrdiff_t>(field));
    }

    T Owner::*m_field;
};

// One element of a fixed-size array field, shown as a property of its own
// (slots such as RenderTarget0 to RenderTarget7 over one array).
template <typename Owner, typename T, size_t N>
class TArrayElementProperty final : public NativeProperty
{
public:
    TArrayElementProperty(const WString& name, T (Owner::*array)[N], size_t index, uint32 flags)
        : NativeProperty(name, ClassOf<T>(), flags, OffsetOf(array, index), true, true), m_array(array),
          m_index(index)
    {
    }
    bool GetPropertyValue(const void* object, void* out) const override
    {
        ValueTraits<T>::Store(*static_cast<StorageOf<T>*>(out), (static_cast<const Owner*>(object)->*m_array)[m_index]);
        return true;
    }
    bool SetPropertyValue(void* object, const void* value) const override
    {
        ValueTraits<T>::Load((static_cast<Owner*>(object)->*m_array)[m_index], *static_cast<const StorageOf<T>*>(value));
        return true;
    }

private:
    static int OffsetOf(T (Owner::*array)[N], size_t index)
    {
        static_assert(sizeof(array) == sizeof(std::ptrdiff_t));
        return int(std::bit_cast<std::ptrdiff_t>(array) + std::ptrdiff_t(index * sizeof(T)));
    }

    T (Owner::*m_array)[N];
    size_t m_index;
};

template <typename Owner, typename T, typename Getter, typename Setter>
class TAccessorProperty final : public NativeProperty
{
public:
    TAccessorProperty(const WString& name, Getter getter, Setter setter, uint32 flags)
        : NativeProperty(name, ClassOf<T>(), flags, -1, getter != nullptr, setter != nullptr), m_getter(getter),
          m_setter(setter)
    {
    }
    bool UsesAccessors() const override { return true; }
    bool GetPropertyValue(const void* object, void* out) const override
    {
        if (!m_getter)
            return false;
        ValueTraits<T>::Store(*static_cast<StorageOf<T>*>(out), (static_cast<const Owner*>(object)->*m_getter)());
        return true;
    }
    bool SetPropertyValue(void* object, const void* value) const override
    {
        if (!m_setter)
            return false;
        T native{};
        ValueTraits<T>::Load(native, *static_cast<const StorageOf<T>*>(value));
        (static_cast<Owner*>(object)->*m_setter)(native);
        return true;
    }

private:
    Getter m_getter;
    Setter m_setter;
};

template <typename T>
using PropertyValue = std::remove_cvref_t<T>;

// Registers a plain field.
template <typename Owner, typename T>
Property* AddField(Class* cls, const char16_t* name, T Owner::*field, uint32 flags = 0, const char16_t* metadata = nullptr)
{
    auto* property = new TFieldProperty<Owner, T>(WString(name), field, flags);
    if (metadata)
        property->SetMetadata(WString(metadata));
    property->ProcessProperty();
    cls->AddProperty(property);
    return property;
}

// Registers element `index` of an array field; null for an index beyond
// the array.
template <typename Owner, typename T, size_t N>
Property* AddArrayElement(Class* cls, const char16_t* name, T (Owner::*array)[N], size_t index, uint32 flags = 0,
                          const char16_t* metadata = nullptr)
{
    if (index >= N)
        return nullptr;
    auto* property = new TArrayElementProperty<Owner, T, N>(WString(name), array, index, flags);
    if (metadata)
        property->SetMetadata(WString(metadata));
    property->ProcessProperty();
    cls->AddProperty(property);
    return property;
}

// Registers a getter and a setter (either may be null).
template <typename Owner, typename R, typename A>
Property* AddAccessor(Class* cls, const char16_t* name, R (Owner::*getter)() const, void (Owner::*setter)(A),
                      uint32 flags = 0, const char16_t* metadata = nullptr)
{
    using T = PropertyValue<R>;
    static_assert(std::is_same_v<T, PropertyValue<A>>, "getter and setter disagree on the type");
    auto* property = new TAccessorProperty<Owner, T, R (Owner::*)() const, void (Owner::*)(A)>(WString(name), getter,
                                                                                                setter, flags);
    if (metadata)
        property->SetMetadata(WString(metadata));
    property->ProcessProperty();
    cls->AddProperty(property);
    return property;
}

// A read-only property through a getter.
template <typename Owner, typename R>
Property* AddGetter(Class* cls, const char16_t* name, R (Owner::*getter)() const, uint32 flags = 0,
                    const char16_t* metadata = nullptr)
{
    using T = PropertyValue<R>;
    using Setter = void (Owner::*)(const T&);
    auto* property =
        new TAccessorProperty<Owner, T, R (Owner::*)() const, Setter>(WString(name), getter, Setter(nullptr), flags);
    if (metadata)
        property->SetMetadata(WString(metadata));
    property->ProcessProperty();
    cls->AddProperty(property);
    return property;
}

} // namespace KovexEngine
