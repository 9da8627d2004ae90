#pragma once

// How a native C++ type appears to reflection: its class, and how its value
// passes through the storage form that Variable and properties use.

#include <type_traits>

#include "kernel/RefCount.h"
#include "math/Matrix.h"
#include "math/Quaternion.h"
#include "reflection/Object.h"

namespace KovexEngine {

template <typename T> struct TEnumWrapperTag;

// Types with a StaticGetClass that are not Objects: structs, wrapper enums,
// delegates.
template <typename T>
concept ReflectedValue = !std::is_base_of_v<Object, T> && requires { T::StaticGetClass(); };

template <typename T>
concept WrapperEnum = requires { typename T::TYPE; requires std::is_same_v<decltype(T::IsWrapperEnum), const bool>; };

template <typename T, typename = void>
struct ValueTraits; // no reflection for this type

#define KOVEX_PLAIN_VALUE_TRAITS(T, GETCLASS)                            \
    template <>                                                          \
    struct ValueTraits<T>                                                \
    {                                                                    \
        using Storage = T;                                               \
        static const Class* GetClass() { return Class::GETCLASS(); }     \
        static void Store(Storage& out, const T& value) { out = value; } \
        static void Load(T& out, const Storage& in) { out = in; }        \
    };
KOVEX_PLAIN_VALUE_TRAITS(bool, GetBoolClass)
KOVEX_PLAIN_VALUE_TRAITS(int32, GetInt32Class)
KOVEX_PLAIN_VALUE_TRAITS(uint32, GetUInt32Class)
KOVEX_PLAIN_VALUE_TRAITS(float, GetFloatClass)
KOVEX_PLAIN_VALUE_TRAITS(AString, GetAStringClass)
KOVEX_PLAIN_VALUE_TRAITS(WString, GetWStringClass)
#undef KOVEX_PLAIN_VALUE_TRAITS

template <>
struct ValueTraits<void>
{
    static const Class* GetClass() { return Class::GetVoidClass(); }
};

// Structs (the math types among them), wrapper enums and delegates are
// stored as themselves; a wrapper enum's storage is its int.
template <ReflectedValue T>
struct ValueTraits<T>
{
    using Storage = std::conditional_t<WrapperEnum<T>, int32, T>;
    static const Class* GetClass() { return T::StaticGetClass(); }
    static void Store(Storage& out, const T& value)
    {
        if constexpr (WrapperEnum<T>)
            out = value.GetVal();
        else
            out = value;
    }
    static void Load(T& out, const Storage& in)
    {
        if constexpr (WrapperEnum<T>)
            out = T(in);
        else
            out = in;
    }
};

// Objects travel as Ptr<Object>, whether the native form is T* or Ptr<T>.
template <typename T>
    requires std::is_base_of_v<Object, T>
struct ValueTraits<T*>
{
    using Storage = Ptr<Object>;
    static const Class* GetClass() { return T::StaticGetClass(); }
    static void Store(Storage& out, T* value) { out = static_cast<Object*>(value); }
    static void Load(T*& out, const Storage& in) { out = DynamicCast<T>(in.Get()); }
};

template <typename T>
    requires std::is_base_of_v<Object, T>
struct ValueTraits<Ptr<T>>
{
    using Storage = Ptr<Object>;
    static const Class* GetClass() { return T::StaticGetClass(); }
    static void Store(Storage& out, const Ptr<T>& value) { out = static_cast<Object*>(value.Get()); }
    static void Load(Ptr<T>& out, const Storage& in) { out = DynamicCast<T>(in.Get()); }
};

template <typename T>
using StorageOf = typename ValueTraits<T>::Storage;

// Whether a type is known to reflection at all.
template <typename T>
concept Reflected = requires { ValueTraits<T>::GetClass(); };

// The class of a native type; null for a type reflection does not know
// (such a type may still appear in a delegate's signature).
template <typename T>
const Class* ClassOf()
{
    if constexpr (Reflected<T>)
        return ValueTraits<T>::GetClass();
    else
        return nullptr;
}

} // namespace KovexEngine
