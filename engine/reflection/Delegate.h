#pragma once

#include <new>
#include <type_traits>

#include "reflection/FunctionRegistration.h"
#include "reflection/ValueClass.h"
#include "reflection/ValueTraits.h"

namespace KovexEngine {

class Delegate;
class ScriptFuncProxy;

// The class of a delegate signature. It is built without a name; ProcessClass
// names it by BuildName ("Delegate_VOID_F" for void(float)) and registers it.
class KOVEX_API DelegateClass : public ValueClass
{
public:
    explicit DelegateClass(unsigned int size, const char16_t* prefix = u"Delegate_");

    bool IsDelegate() const override { return true; }
    void ProcessClass() override;

    virtual bool HasParameterTypes() const;
    virtual unsigned int GetNumParameters() const;
    virtual const FunctionParameter* GetParameter(unsigned int index) const;
    virtual Delegate* CreateEmptyDelegate() const;
    virtual Delegate* CreateDelegate(ScriptFuncProxy* proxy, Variable* function) const;
    // As it has always been: true only for signatures that differ at every
    // position (return and each parameter) and have as many parameters.
    virtual bool IsMatch(const DelegateClass* other) const;

    const FunctionParameter& GetReturnParam() const { return m_return; }
    bool BuildName(WString& out) const;
    bool GetPrototype(WString& out) const;
    // The name of a signature, without a class: prefix, the return type's
    // short name, then "_" and each parameter's. False (and empty) when a
    // type has no short name.
    static bool BuildName(WString& out, const char16_t* prefix, const FunctionParameter& result,
                          const FunctionParameter* parameters, unsigned int count);

protected:
    FunctionParameter m_return;
    const char16_t* m_prefix;
};

// The abstract callback. Its class is a DelegateClass.
class KOVEX_API Delegate : public HeapObject
{
public:
    virtual const Class* GetNativeClass() const = 0;
    virtual const void* GetNativeClassPointer(const Class* target) const;
    virtual void* GetNativeClassPointer(const Class* target);
    // False for null, for another class, or for another target.
    virtual bool IsEqual(const Delegate* other) const = 0;
    virtual const void* GetScriptFuncVar() const;
    // True when nothing is bound.
    virtual bool IsEmpty() const = 0;

    const Class* GetClass() const { return GetNativeClass(); }
    const WString& GetClassNameW() const { return GetClass()->GetName(); }
    const void* GetClassPointer(const Class* target) const { return GetNativeClassPointer(target); }
    const FunctionParameter& GetReturnParam() const;
    unsigned int GetNumParameters() const;
    const FunctionParameter* GetParameter(unsigned int index) const;

protected:
    Delegate() = default;
    Delegate(const Delegate&) = default;
    Delegate& operator=(const Delegate&) = default;
    // Virtual, so that the typed delegates, whose destructors are public,
    // destroy correctly whatever static type they are deleted through.
    virtual ~Delegate() = default;
};

template <typename Signature> class FunctionSlot;

// What a delegate calls: a free function, or a member function of an object.
template <typename R, typename... A>
class FunctionSlot<R(A...)> : public ReferenceObj
{
public:
    virtual R Invoke(A... args) const = 0;
    virtual bool Equals(const FunctionSlot* other) const = 0;
};

template <typename Signature> class FreeFunctionSlot;
template <typename R, typename... A>
class FreeFunctionSlot<R(A...)> final : public FunctionSlot<R(A...)>
{
public:
    using Pointer = R (*)(A...);
    explicit FreeFunctionSlot(Pointer function) : m_function(function) {}
    R Invoke(A... args) const override { return m_function(args...); }
    bool Equals(const FunctionSlot<R(A...)>* other) const override
    {
        auto* same = dynamic_cast<const FreeFunctionSlot*>(other);
        return same && same->m_function == m_function;
    }

private:
    Pointer m_function;
};

template <typename C, typename Signature> class MemberFunctionSlot;
template <typename C, typename R, typename... A>
class MemberFunctionSlot<C, R(A...)> final : public FunctionSlot<R(A...)>
{
public:
    using Pointer = R (C::*)(A...);
    MemberFunctionSlot(C* object, Pointer function) : m_object(object), m_function(function) {}
    R Invoke(A... args) const override { return (m_object->*m_function)(args...); }
    bool Equals(const FunctionSlot<R(A...)>* other) const override
    {
        auto* same = dynamic_cast<const MemberFunctionSlot*>(other);
        return same && same->m_object == m_object && same->m_function == m_function;
    }

private:
    C* m_object;
    Pointer m_function;
};

// The class of one delegate type D with signature R(A...).
template <typename D, typename R, typename... A>
class TDelegateClass final : public DelegateClass
{
public:
    explicit TDelegateClass(const char16_t* prefix) : DelegateClass(sizeof(D), prefix)
    {
        m_return = FunctionDetail::DescribeReturn<R>();
        unsigned i = 0;
        ((m_parameters[i++] = FunctionDetail::DescribeParameter<A>()), ...);
    }
    bool HasParameterTypes() const override { return true; }
    unsigned int GetNumParameters() const override { return sizeof...(A); }
    const FunctionParameter* GetParameter(unsigned int index) const override
    {
        return index < sizeof...(A) ? &m_parameters[index] : nullptr;
    }
    Delegate* CreateEmptyDelegate() const override { return new D(); }

    void Delete(void* data) const override { delete static_cast<D*>(data); }
    void Copy(void* destination, const void* source) const override
    {
        *static_cast<D*>(destination) = *static_cast<const D*>(source);
    }
    void* Clone(const void* source) const override { return source ? new D(*static_cast<const D*>(source)) : new D(); }
    bool IsEqual(const void* a, const void* b) const override
    {
        return static_cast<const D*>(a)->IsEqual(static_cast<const D*>(b));
    }
    bool Compare(const void* a, const void* b, float) const override { return IsEqual(a, b); }
    void CopyConstruct(void* destination, const void* source) const override
    {
        new (destination) D(*static_cast<const D*>(source));
    }
    void DefaultConstruct(void* destination) const override { new (destination) D(); }
    void DestroyInPlace(void* data) const override { static_cast<D*>(data)->~D(); }

private:
    FunctionParameter m_parameters[sizeof...(A) > 0 ? sizeof...(A) : 1];
};

template <typename Derived, typename Signature> class TDelegate;

// The common body of the typed delegates: one reference-counted slot; an
// empty delegate calls nothing and returns the zero value.
template <typename Derived, typename R, typename... A>
class TDelegate<Derived, R(A...)> : public Delegate
{
public:
    using Slot = FunctionSlot<R(A...)>;

    TDelegate() = default;
    explicit TDelegate(R (*function)(A...)) : m_slot(function ? new FreeFunctionSlot<R(A...)>(function) : nullptr) {}
    template <typename C>
    TDelegate(C* object, R (C::*function)(A...))
        : m_slot(object && function ? new MemberFunctionSlot<C, R(A...)>(object, function) : nullptr)
    {
    }

    R operator()(A... args) const
    {
        if (m_slot)
            return m_slot->Invoke(args...);
        if constexpr (!std::is_void_v<R>)
            return R{};
    }
    bool IsEmpty() const override { return !m_slot; }
    void Clear() { m_slot = nullptr; }
    bool IsEqual(const Delegate* other) const override
    {
        if (!other || other->GetNativeClass() != GetNativeClass())
            return false;
        auto* same = static_cast<const TDelegate*>(other);
        if (!m_slot || !same->m_slot)
            return !m_slot && !same->m_slot;
        return m_slot->Equals(same->m_slot.Get());
    }
    bool operator==(const TDelegate& other) const { return IsEqual(&other); }
    const Class* GetNativeClass() const override { return Derived::StaticGetClass(); }

private:
    Ptr<Slot> m_slot;
};

template <typename Signature> class DelegateS;
template <typename Signature> class DelegateC;

// A delegate that a Variable can hold (class names "Delegate_...").
template <typename R, typename... A>
class DelegateS<R(A...)> final : public TDelegate<DelegateS<R(A...)>, R(A...)>
{
public:
    using TDelegate<DelegateS<R(A...)>, R(A...)>::TDelegate;
    static const Class* StaticGetClass() { return GetDelegateClass<DelegateS>(u"Delegate_"); }

    template <typename D>
    static const Class* GetDelegateClass(const char16_t* prefix)
    {
        static const Class* slot = nullptr;
        if (slot)
            return slot;
        // Another module may have built the class of this signature already.
        FunctionParameter result = FunctionDetail::DescribeReturn<R>();
        FunctionParameter parameters[] = {FunctionDetail::DescribeParameter<A>()..., FunctionParameter()};
        WString name;
        const Class* existing = nullptr;
        if (DelegateClass::BuildName(name, prefix, result, parameters, sizeof...(A)))
            existing = Class::GetClass(name);
        if (existing && existing->IsDelegate())
        {
            slot = existing;
            const_cast<Class*>(existing)->SetRegistrySlot(&slot);
            return slot;
        }
        auto* cls = new TDelegateClass<D, R, A...>(prefix);
        slot = cls;
        cls->SetRegistrySlot(&slot);
        cls->ProcessClass();
        return slot;
    }
};

// A delegate called by value, with comparison (class names "DelegateC_...").
template <typename R, typename... A>
class DelegateC<R(A...)> final : public TDelegate<DelegateC<R(A...)>, R(A...)>
{
public:
    using TDelegate<DelegateC<R(A...)>, R(A...)>::TDelegate;
    static const Class* StaticGetClass() { return DelegateS<R(A...)>::template GetDelegateClass<DelegateC>(u"DelegateC_"); }
};

} // namespace KovexEngine
