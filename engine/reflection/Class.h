#pragma once

#include <type_traits>

#include "kernel/Containers.h"
#include "kernel/RefCount.h"
#include "kernel/Strings.h"
#include "reflection/BaseType.h"
#include "reflection/NameIndex.h"

namespace KovexEngine {

class Function;
class FunctionStack;
class Property;

// The run-time description of a reflected type. Classes form a registry with
// a name index; each is built on the first call of its StaticGetClass and
// lives until Class::Destroy.
class KOVEX_API Class : public HeapObject
{
public:
    using Creator = void* (*)();

    enum : uint32
    {
        FLAG_EXPORT_FOR_SCRIPT = 0x1,
        FLAG_FINAL_SCRIPT_CLASS = 0x2,
        // More than one base somewhere in the hierarchy: pointers need adjusting.
        FLAG_MULTI_INHERITANCE = 0x10000,
        // A Struct whose fields lie contiguously.
        FLAG_CONTIGUOUS_STRUCT = 0x20000,
    };

    Class(const char16_t* name, Creator creator, unsigned int size, const char16_t* module);
    Class(const Class&) = delete;
    Class& operator=(const Class&) = delete;
    virtual ~Class();

    // Records a direct base at the byte offset of its part in this class.
    virtual void SetBaseClass(const Class* base, unsigned int offset);
    // Rebuilds the transitive base map and the multiple-inheritance flag.
    virtual void ProcessClass();
    // A new instance, or null for an abstract class.
    virtual void* Create() const;
    virtual bool IsAbstract() const;
    virtual const Function* FindOverrideFunc(const WString& name) const;
    // Takes ownership; records this class as the owner.
    virtual void AddProperty(Property* property);
    virtual void AddFunction(Function* function);
    virtual bool IsBaseType() const;
    virtual bool IsStruct() const;
    virtual bool IsDelegate() const;
    virtual bool IsEnum() const;
    virtual bool IsValueClass() const;
    virtual bool IsScriptClass() const;
    virtual KOVEX_BASE_TYPE GetType() const;
    virtual unsigned int GetMemorySize(bool withFunctions, bool withProperties) const;

    uint32 GetFlags() const { return m_flags; }
    void SetFlags(uint32 flags) { m_flags = flags; }
    bool IsExportForScript() const { return (m_flags & FLAG_EXPORT_FOR_SCRIPT) != 0; }
    bool IsFinalScriptClass() const { return (m_flags & FLAG_FINAL_SCRIPT_CLASS) != 0; }
    bool IsMultiInheritance() const { return (m_flags & FLAG_MULTI_INHERITANCE) != 0; }
    unsigned int GetSize() const { return m_size; }
    const WString& GetName() const { return m_name; }
    const WString& GetModule() const { return m_module; }
    const WString& GetAttribute() const { return m_attribute; }
    void SetAttribute(const WString& attribute) { m_attribute = attribute; }
    void* GetScriptTypeInfo() const { return m_scriptTypeInfo; }
    void SetScriptTypeInfo(void* info) { m_scriptTypeInfo = info; }

    const TArray<const Class*>& GetDerivedClasses() const { return m_derived; }
    // Direct bases with their offsets.
    const TMap<const Class*, int>& GetBaseClasses() const { return m_bases; }
    // Every base, each with depth << 16 | accumulated offset.
    const TMap<const Class*, int>& GetAllBaseClasses() const { return m_allBases; }

    const TMap<WString, const Function*>& GetFunctionMap() const { return m_functions; }
    const TMap<WString, const Property*>& GetPropertyMap() const { return m_properties; }
    // The properties in the order they were registered.
    const TArray<const Property*>& GetPropertyArray() const { return m_propertyArray; }
    // Own members first; with `inherited`, those of every base in the order
    // of the all-bases table. The first match or null.
    const Property* FindProperty(const WString& name, bool inherited) const;
    const Function* FindFunction(const WString& name, bool inherited) const;
    // Appends each function whose flags share a bit with `mask`.
    void FindFunctions(TArray<const Function*>& out, uint32 mask, bool inherited) const;
    // Own properties, then those of every base.
    void GetAllProperties(TArray<const Property*>& out) const;
    // Calls a static function by name; false when it is missing or there is no stack.
    bool StaticInvoke(const WString& name, FunctionStack* stack, bool inherited) const;

    bool IsRoot() const { return m_bases.IsEmpty(); }
    // True for this class and each of its bases. A binary search on
    // pointers: no string is compared.
    bool IsKindOf(const Class* other) const { return other == this || m_allBases.Find(other) != kNotFound; }
    bool IsKindOf(const WString& name) const;
    bool IsExactKindOf(const Class* other) const { return other == this; }
    bool IsExactKindOf(const WString& name) const { return m_name == name; }
    bool operator==(const Class& other) const { return this == &other; }
    bool operator!=(const Class& other) const { return this != &other; }
    // 0 for this class, the depth of a base, or kNotFound.
    unsigned int ComputeDistance(const Class* base) const;
    // The address of the `target` part of an object of this class, or null
    // when `target` is no base. A null object or target gives the object.
    void* GetClassPointer(void* object, const Class* target) const;
    const void* GetClassPointer(const void* object, const Class* target) const;

    // --- The registry ---------------------------------------------------------
    // Creates the class list and the name map; repeated calls do nothing.
    static void Setup();
    // Deletes every class. Their StaticGetClass slots are cleared, so a class
    // asked for afterwards is built anew rather than read from freed memory.
    static void Destroy();
    static const TArray<const Class*>& GetClassArray();
    static bool ClassExists(const WString& name);
    static const Class* GetClass(const WString& name);
    // An instance of the named class; an unknown name logs
    // "Class::Create('%s'): unknown class name!" at level 5 and gives null.
    static void* Create(const WString& name);
    static void GetRootClasses(TArray<const Class*>& out);
    static bool GetTypeShortName(WString& out, const Class* cls);
    static const char16_t* GetTypeName(KOVEX_BASE_TYPE type);

    // The classes of plain values, built on first use.
    static const Class* GetVoidClass();
    static const Class* GetBoolClass();
    static const Class* GetInt32Class();
    static const Class* GetUInt32Class();
    static const Class* GetFloatClass();
    static const Class* GetAStringClass();
    static const Class* GetWStringClass();

    // Where a StaticGetClass keeps the class; each is cleared by Destroy.
    // (A template's class may be kept by one slot in each module using it.)
    void SetRegistrySlot(const Class** slot) { m_slots.Add(slot); }

    static TArray<const Class*>* ms_pClassArray;
    static TMap<WString, const Class*>* ms_pClassNameMap;

protected:
    void RegisterClassName();
    // For classes named only once built (delegate classes).
    void SetNameAndRegister(const WString& name)
    {
        m_name = name;
        RegisterClassName();
    }

    uint32 m_flags = 0;
    uint32 m_size = 0;
    WString m_name;
    WString m_module;
    WString m_attribute;
    TArray<const Class*> m_derived;
    TMap<const Class*, int> m_bases;
    TMap<const Class*, int> m_allBases;
    Creator m_creator = nullptr;
    TMap<WString, const Function*> m_functions;
    TMap<WString, const Property*> m_properties;
    TNameIndex<Function> m_functionIndex;
    TNameIndex<Property> m_propertyIndex;
    TArray<const Property*> m_propertyArray;
    void* m_scriptTypeInfo = nullptr;
    TArray<const Class**> m_slots{2};
};

// The byte offset of the Base part within a Derived object (no virtual bases).
template <typename Derived, typename Base>
unsigned int BaseOffsetOf()
{
    constexpr uintptr_t kProbe = 0x10000;
    const Derived* derived = reinterpret_cast<const Derived*>(kProbe);
    return unsigned(reinterpret_cast<uintptr_t>(static_cast<const Base*>(derived)) - kProbe);
}

// Whether the registry can make instances of X: not for abstract classes or
// those without a default constructor.
template <typename X>
inline constexpr bool kIsCreatable = !std::is_abstract_v<X> && std::is_default_constructible_v<X>;

template <typename X>
void* NewInstance()
{
    if constexpr (kIsCreatable<X>)
        return new X();
    else
        return nullptr;
}

template <typename Derived, typename... Bases>
void RegisterBases(Class* cls)
{
    (cls->SetBaseClass(Bases::StaticGetClass(), BaseOffsetOf<Derived, Bases>()), ...);
}

} // namespace KovexEngine

// --- The registration pattern ---------------------------------------------------------
//
// In the class body:       KOVEX_CLASS(X)
// In one source file:      KOVEX_REGISTER_CLASS(X, u"Engine", Base1, Base2...)
//                          or KOVEX_REGISTER_CLASS_EX(X, u"Engine") followed by a
//                          hand-written X::StaticConstructor(Class*) that calls
//                          KovexEngine::RegisterBases<X, Bases...>(cls), adds
//                          members and ends with cls->ProcessClass().
//
// The class registers when the library loads and is built on the first
// StaticGetClass. An abstract class (or one without a default constructor)
// gets a null creator.

#define KOVEX_CLASS(X)                                                                  \
public:                                                                                 \
    static const ::KovexEngine::Class* StaticGetClass();                                \
    static bool _InitClass();                                                           \
    static void* CreateClassInstance();                                                 \
    const ::KovexEngine::Class* GetNativeClass() const override;                        \
    const void* GetNativeClassPointer(const ::KovexEngine::Class* target) const override; \
    void* GetNativeClassPointer(const ::KovexEngine::Class* target) override;           \
                                                                                        \
private:                                                                                \
    static void StaticConstructor(::KovexEngine::Class* cls);                           \
    static const ::KovexEngine::Class* ms_pClass;                                       \
    static bool ms_bClassInited;                                                        \
                                                                                        \
public:

#define KOVEX_CLASS_STATICS(X, MODULE)                                                  \
    const ::KovexEngine::Class* X::ms_pClass = nullptr;                                 \
    const ::KovexEngine::Class* X::StaticGetClass()                                     \
    {                                                                                   \
        if (ms_pClass)                                                                  \
            return ms_pClass;                                                           \
        ::KovexEngine::Class::Creator creator =                                         \
            ::KovexEngine::kIsCreatable<X> ? &X::CreateClassInstance : nullptr;         \
        auto* cls = new ::KovexEngine::Class(u"" #X, creator, sizeof(X), MODULE);       \
        ms_pClass = cls;                                                                \
        cls->SetRegistrySlot(&ms_pClass);                                               \
        StaticConstructor(cls);                                                         \
        return ms_pClass;                                                               \
    }                                                                                   \
    bool X::_InitClass() { return StaticGetClass() != nullptr; }                        \
    bool X::ms_bClassInited = X::_InitClass();                                          \
    void* X::CreateClassInstance() { return ::KovexEngine::NewInstance<X>(); }          \
    const ::KovexEngine::Class* X::GetNativeClass() const { return StaticGetClass(); }  \
    const void* X::GetNativeClassPointer(const ::KovexEngine::Class* target) const      \
    {                                                                                   \
        return StaticGetClass()->GetClassPointer(static_cast<const void*>(this), target); \
    }                                                                                   \
    void* X::GetNativeClassPointer(const ::KovexEngine::Class* target)                  \
    {                                                                                   \
        return StaticGetClass()->GetClassPointer(static_cast<void*>(this), target);     \
    }

#define KOVEX_REGISTER_CLASS_EX(X, MODULE) KOVEX_CLASS_STATICS(X, MODULE)

#define KOVEX_REGISTER_CLASS(X, MODULE, ...)                                            \
    KOVEX_CLASS_STATICS(X, MODULE)                                                      \
    void X::StaticConstructor(::KovexEngine::Class* cls)                                \
    {                                                                                   \
        ::KovexEngine::RegisterBases<X __VA_OPT__(, ) __VA_ARGS__>(cls);                \
        cls->ProcessClass();                                                            \
    }
