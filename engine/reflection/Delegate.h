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
    // The reflected member function and object a delegate value at `data`
    // calls: both null for an empty delegate; false when it calls something
    // reflection cannot name (a free function, an unreflected method).
    virtual bool GetBinding(const void* data, Object*& target, const Function*& function) const;
    // Binds the delegate value at `data` to a reflected member function of
    // `target`. False when the function's signature is not the delegate's.
    // With `keepAlive` the delegate holds a reference to its target.
    virtual bool Bind(void* data, Object* target, const Function* function, bool keepAlive) const;
    // Whether `function` takes and returns what this signature does.
    bool AcceptsFunction(const Function* function) const;

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
    // The reflected member function and object called, when there is one.
    virtual bool GetBinding(Object*&, const Function*&) const { return false; }
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
    // Names the function when the object's class has it reflected.
    bool GetBinding(Object*& target, const Function*& function) const override
    {
        if constexpr (std::is_base_of_v<Object, C>)
        {
            target = static_cast<Object*>(m_object);
            function = FunctionDetail::FindNative(target->GetClass(), &m_function, sizeof(m_function));
            return function != nullptr;
        }
        else
            return false;
    }

private:
    C* m_object;
    Pointer m_function;
};

// A reflected member function of an object, called through a FunctionStack:
// what a delegate becomes when it is loaded from a file by name.
template <typename Signature> class ReflectedFunctionSlot;
template <typename R, typename... A>
class ReflectedFunctionSlot<R(A...)> final : public FunctionSlot<R(A...)>
{
public:
    ReflectedFunctionSlot(Object* target, const Function* function, bool keepAlive)
        : m_target(target), m_function(function), m_keepAlive(keepAlive ? target : nullptr)
    {
    }
    R Invoke(A... args) const override
    {
        TFunctionStack<sizeof...(A)> stack(sizeof...(A), !std::is_void_v<R>);
        unsigned index = 0;
        (FunctionDetail::ToVariable(static_cast<const std::remove_cvref_t<A>&>(args), stack->Var(index++)), ...);
        bool called = m_function->Invoke(static_cast<void*>(m_target), stack.Get());
        if constexpr (!std::is_void_v<R>)
        {
            std::remove_cvref_t<R> result{};
            if (called)
                FunctionDetail::FromVariable(stack->RetVar(), result);
            return result;
        }
        else
            (void)called;
    }
    bool Equals(const FunctionSlot<R(A...)>* other) const override
    {
        auto* same = dynamic_cast<const ReflectedFunctionSlot*>(other);
        return same && same->m_target == m_target && same->m_function == m_function;
    }
    bool GetBinding(Object*& target, const Function*& function) const override
    {
        target = m_target;
        function = m_function;
        return true;
    }

private:
    Object* m_target;
    const Function* m_function;
    Ptr<Object> m_keepAlive; // null when the target owns the delegate
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
    bool GetBinding(const void* data, Object*& target, const Function*& function) const override
    {
        return data && static_cast<const D*>(data)->GetBinding(target, function);
    }
    bool Bind(void* data, Object* target, const Function* function, bool keepAlive) const override
    {
        return data && static_cast<D*>(data)->BindReflected(target, function, keepAlive);
    }

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
    // Calls a reflected member function of `target` (see DelegateClass::Bind).
    bool BindReflected(Object* target, const Function* function, bool keepAlive)
    {
        // Only a signature whose types reflection knows can cross a FunctionStack.
        if constexpr ((Reflected<std::remove_cvref_t<A>> && ...) &&
                      (std::is_void_v<R> || Reflected<std::remove_cvref_t<R>>))
        {
            if (!target || !function || !function->IsMemberFunction() ||
                !static_cast<const DelegateClass*>(GetNativeClass())->AcceptsFunction(function))
                return false;
            m_slot = new ReflectedFunctionSlot<R(A...)>(target, function, keepAlive);
            return true;
        }
        else
            return false;
    }
    bool GetBinding(Object*& target, const Function*& function) const
    {
        target = nullptr;
        function = nullptr;
        return !m_slot || m_slot->GetBinding(target, function);
    }
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
