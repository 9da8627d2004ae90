#pragma once

// The wrapper-enum pattern: a struct X with an inner `enum TYPE` and one int,
// reflected through an EnumClass. Both the declaration and the registration
// are generated from one table per enum, a macro taking two callbacks:
//
//   #define KOVEX_ENUM_TABLE_LightType(M, D) M(Omni, 0) M(Spot, 1) D(Sky, 3, "Sky Light")
//   KOVEX_DECLARE_ENUM(LightType, KOVEX_ENUM_TABLE_LightType)     // in a header
//   KOVEX_IMPLEMENT_ENUM(LightType, KOVEX_ENUM_TABLE_LightType)   // in one source file
//
// M(name, value) adds a member; D(name, value, "display") one with a display name.

#include "kernel/Containers.h"
#include "kernel/Strings.h"

namespace KovexEngine {
class Class;
class EnumClass;
struct EnumMember;
}

#define KOVEX_ENUM_VALUE(name, value) name = value,
#define KOVEX_ENUM_VALUE_DISPLAY(name, value, display) name = value,

#define KOVEX_DECLARE_ENUM(X, TABLE) KOVEX_DECLARE_ENUM_EX(X, TABLE, )

// As KOVEX_DECLARE_ENUM, with EXTRA (member declarations) added to the struct:
// the static operations a few wrappers carry besides their members.
#define KOVEX_DECLARE_ENUM_EX(X, TABLE, EXTRA)                                                     \
    struct KOVEX_API X                                                                             \
    {                                                                                              \
        enum TYPE : int                                                                            \
        {                                                                                          \
            TABLE(KOVEX_ENUM_VALUE, KOVEX_ENUM_VALUE_DISPLAY)                                      \
        };                                                                                         \
        static constexpr bool IsWrapperEnum = true;                                                \
        int value = 0;                                                                             \
                                                                                                   \
        constexpr X() = default;                                                                   \
        constexpr X(const X&) = default;                                                           \
        constexpr X(TYPE v) : value(int(v)) {}                                                     \
        constexpr X(int v) : value(v) {}                                                           \
        constexpr X& operator=(const X&) = default;                                                \
        constexpr X& operator=(TYPE v) { value = int(v); return *this; }                           \
        constexpr X& operator=(int v) { value = v; return *this; }                                 \
                                                                                                   \
        constexpr int operator()() const { return value; }                                         \
        constexpr int& operator()() { return value; }                                              \
        constexpr int GetVal() const { return value; }                                             \
        constexpr operator TYPE() const { return TYPE(value); }                                    \
                                                                                                   \
        constexpr X operator&(X o) const { return X(value & o.value); }                            \
        constexpr X operator|(X o) const { return X(value | o.value); }                            \
        constexpr X operator^(X o) const { return X(value ^ o.value); }                            \
        constexpr X operator&(TYPE o) const { return X(value & int(o)); }                          \
        constexpr X operator|(TYPE o) const { return X(value | int(o)); }                          \
        constexpr X operator^(TYPE o) const { return X(value ^ int(o)); }                          \
        constexpr int operator&(int o) const { return value & o; }                                 \
        constexpr int operator|(int o) const { return value | o; }                                 \
        constexpr int operator^(int o) const { return value ^ o; }                                 \
        constexpr unsigned operator&(unsigned o) const { return unsigned(value) & o; }             \
        constexpr unsigned operator|(unsigned o) const { return unsigned(value) | o; }             \
        constexpr unsigned operator^(unsigned o) const { return unsigned(value) ^ o; }             \
        constexpr X& operator&=(X o) { value &= o.value; return *this; }                           \
        constexpr X& operator|=(X o) { value |= o.value; return *this; }                           \
        constexpr X& operator^=(X o) { value ^= o.value; return *this; }                           \
        constexpr X& operator&=(TYPE o) { value &= int(o); return *this; }                         \
        constexpr X& operator|=(TYPE o) { value |= int(o); return *this; }                         \
        constexpr X& operator^=(TYPE o) { value ^= int(o); return *this; }                         \
        constexpr X& operator&=(int o) { value &= o; return *this; }                               \
        constexpr X& operator|=(int o) { value |= o; return *this; }                               \
        constexpr X& operator^=(int o) { value ^= o; return *this; }                               \
                                                                                                   \
        static const ::KovexEngine::Class* StaticGetClass();                                       \
        static bool _InitClass();                                                                  \
        static void StaticConstructor(::KovexEngine::Class* cls);                                  \
        const ::KovexEngine::Class* GetClass() const { return StaticGetClass(); }                  \
        const ::KovexEngine::Class* GetNativeClass() const { return StaticGetClass(); }            \
        const ::KovexEngine::WString& GetClassNameW() const;                                       \
        const void* GetClassPointer(const ::KovexEngine::Class* target) const;                     \
        const void* GetNativeClassPointer(const ::KovexEngine::Class* target) const                \
        {                                                                                          \
            return GetClassPointer(target);                                                        \
        }                                                                                          \
                                                                                                   \
        /* The member name of the value; empty when it is no member. */                            \
        const char16_t* GetName() const;                                                           \
        static const ::KovexEngine::EnumClass* GetSelfEnumClass();                                 \
        static const ::KovexEngine::TArray<::KovexEngine::EnumMember>& GetEnumMembers();           \
        static const ::KovexEngine::EnumMember* GetEnumMember(TYPE v) { return GetEnumMember(int(v)); } \
        static const ::KovexEngine::EnumMember* GetEnumMember(int v);                              \
        static const ::KovexEngine::EnumMember* GetEnumMember(const ::KovexEngine::WString& name); \
        static const ::KovexEngine::EnumMember* GetEnumMemberByIndex(unsigned int index);          \
        static unsigned int GetNumEnumMembers();                                                   \
        EXTRA                                                                                      \
    };

#define KOVEX_ENUM_ADD(name, value) cls->AddMember(value, u"" #name);
#define KOVEX_ENUM_ADD_DISPLAY(name, value, display) cls->AddMember(value, u"" #name, u"" display);

#define KOVEX_IMPLEMENT_ENUM(X, TABLE)                                                             \
    const ::KovexEngine::Class* X::StaticGetClass()                                                \
    {                                                                                              \
        static const ::KovexEngine::Class* slot = nullptr;                                         \
        if (slot)                                                                                  \
            return slot;                                                                           \
        auto* cls = new ::KovexEngine::EnumClass(u"" #X, u"Engine");                               \
        slot = cls;                                                                                \
        cls->SetRegistrySlot(&slot);                                                               \
        StaticConstructor(cls);                                                                    \
        return slot;                                                                               \
    }                                                                                              \
    bool X::_InitClass() { return StaticGetClass() != nullptr; }                                   \
    static const bool s_kovexEnumInited_##X = X::_InitClass();                                     \
    void X::StaticConstructor(::KovexEngine::Class* base)                                          \
    {                                                                                              \
        auto* cls = static_cast<::KovexEngine::EnumClass*>(base);                                  \
        cls->SetFlags(1);                                                                          \
        TABLE(KOVEX_ENUM_ADD, KOVEX_ENUM_ADD_DISPLAY)                                              \
        cls->ProcessClass();                                                                       \
    }                                                                                              \
    const ::KovexEngine::WString& X::GetClassNameW() const { return StaticGetClass()->GetName(); } \
    const void* X::GetClassPointer(const ::KovexEngine::Class* target) const                       \
    {                                                                                              \
        return StaticGetClass()->GetClassPointer(static_cast<const void*>(this), target);          \
    }                                                                                              \
    const ::KovexEngine::EnumClass* X::GetSelfEnumClass()                                          \
    {                                                                                              \
        return static_cast<const ::KovexEngine::EnumClass*>(StaticGetClass());                     \
    }                                                                                              \
    const char16_t* X::GetName() const { return GetSelfEnumClass()->GetMemberName(value); }        \
    const ::KovexEngine::TArray<::KovexEngine::EnumMember>& X::GetEnumMembers()                    \
    {                                                                                              \
        return GetSelfEnumClass()->GetMembers();                                                   \
    }                                                                                              \
    const ::KovexEngine::EnumMember* X::GetEnumMember(int v) { return GetSelfEnumClass()->GetMember(v); } \
    const ::KovexEngine::EnumMember* X::GetEnumMember(const ::KovexEngine::WString& name)          \
    {                                                                                              \
        return GetSelfEnumClass()->GetMember(name);                                                \
    }                                                                                              \
    const ::KovexEngine::EnumMember* X::GetEnumMemberByIndex(unsigned int index)                   \
    {                                                                                              \
        return GetSelfEnumClass()->GetMemberByIndex(index);                                        \
    }                                                                                              \
    unsigned int X::GetNumEnumMembers() { return GetSelfEnumClass()->GetNumMembers(); }
