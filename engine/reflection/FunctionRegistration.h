#pragma once

// The typed reflected functions and the helper that registers them:
//
//   Function* f = AddFunction(cls, u"Clone", &Object::Clone, {u"flags"});
//   f->SetParamDefault(0, new Variable(0u));

#include <cstring>
#include <initializer_list>
#include <tuple>
#include <utility>

#include "reflection/Function.h"
#include "reflection/ValueTraits.h"

namespace KovexEngine {

namespace FunctionDetail {

template <typename P>
FunctionParameterEx DescribeParameter()
{
    using NoRef = std::remove_reference_t<P>;
    FunctionParameterEx parameter;
    parameter.isReference = std::is_reference_v<P>;
    parameter.isPointer = std::is_pointer_v<NoRef>;
    parameter.isConst = std::is_const_v<NoRef> || (std::is_pointer_v<NoRef> && std::is_const_v<std::remove_pointer_t<NoRef>>);
    parameter.cls = ClassOf<std::remove_cv_t<NoRef>>();
    return parameter;
}

template <typename R>
FunctionParameter DescribeReturn()
{
    if constexpr (std::is_void_v<R>)
        return FunctionParameter{false, false, false, Class::GetVoidClass()};
    else
        return DescribeParameter<R>();
}

// A plain variable holding raw data of a type, for conversions.
KOVEX_API bool VariableFromRaw(Variable& out, KOVEX_BASE_TYPE type, const Class* cls, const void* data);

// A Variable's value as a native T, converting by the Variable rules.
template <typename T>
bool FromVariable(const Variable& in, T& out)
{
    const Class* cls = ClassOf<T>();
    KOVEX_BASE_TYPE type = cls->GetType();
    Variable converted;
    const Variable* source = &in;
    if (in.Type() != type)
    {
        if (!converted.Change(type, in))
            return false;
        source = &converted;
    }
    if (type == KOVEX_TYPE_CUSTOM || type == KOVEX_TYPE_DELEGATE || type == KOVEX_TYPE_ENUM)
    {
        if (source->GetClass() != cls || !source->GetStructMem())
            return false;
        ValueTraits<T>::Load(out, *static_cast<const StorageOf<T>*>(source->GetStructMem()));
        return true;
    }
    if (type == KOVEX_TYPE_OBJECT)
    {
        const Object* object = source->GetObject();
        if (object && !object->GetClass()->IsKindOf(cls))
            return false;
    }
    ValueTraits<T>::Load(out, *static_cast<const StorageOf<T>*>(source->GetStorage()));
    return true;
}

template <typename T>
void ToVariable(const T& value, Variable& out)
{
    StorageOf<T> stored{};
    ValueTraits<T>::Store(stored, value);
    const Class* cls = ClassOf<T>();
    VariableFromRaw(out, cls->GetType(), cls, &stored);
}

// The reflected function of `cls` (or a base) over the native function
// pointer whose bytes are at `pointer`; null when none is.
KOVEX_API const Function* FindNative(const Class* cls, const void* pointer, unsigned size);

// Fetches argument `index` of type P from the stack (or its default) into
// `out`. False when it is missing with no default or cannot be converted.
template <typename P>
bool FetchArgument(FunctionStack* stack, const FunctionParameterEx& parameter, unsigned index,
                   std::remove_cv_t<std::remove_reference_t<P>>& out)
{
    using V = std::remove_cv_t<std::remove_reference_t<P>>;
    using S = StorageOf<V>;
    KOVEX_BASE_TYPE wanted = parameter.cls->GetType();
    const void* source = nullptr;
    Variable converted;
    const Variable* fallback = nullptr;
    if (!stack || index >= stack->GetNumParams())
    {
        if (!parameter.defaultValue)
            return false;
        fallback = parameter.defaultValue;
    }
    else
    {
        bool isPointer = false;
        KOVEX_BASE_TYPE type = stack->GetParamType(isPointer, index);
        void* memory = stack->GetParamMem(index);
        if (isPointer && memory)
            memory = *static_cast<void**>(memory);
        if (type == wanted)
        {
            if constexpr (std::is_same_v<S, Ptr<Object>>)
            {
                // An object of the wrong class is refused.
                const Object* object = static_cast<const Ptr<Object>*>(memory)->Get();
                if (object && !object->GetClass()->IsKindOf(parameter.cls))
                    return false;
            }
            else if (type == KOVEX_TYPE_CUSTOM || type == KOVEX_TYPE_ENUM || type == KOVEX_TYPE_DELEGATE)
            {
                if (stack->GetParamClass(index) != parameter.cls)
                    return false;
            }
            source = memory;
        }
        else
        {
            Variable raw;
            if (!VariableFromRaw(raw, type, stack->GetParamClass(index), memory) || !converted.Change(wanted, raw))
                return false;
            source = converted.GetStorage();
        }
    }
    if (fallback)
    {
        if (fallback->Type() != wanted)
        {
            if (!converted.Change(wanted, *fallback))
                return false;
            fallback = &converted;
        }
        source = (wanted == KOVEX_TYPE_CUSTOM || wanted == KOVEX_TYPE_DELEGATE) ? fallback->GetStructMem()
                                                                                : fallback->GetStorage();
    }
    if (!source)
        return false;
    ValueTraits<V>::Load(out, *static_cast<const S*>(source));
    return true;
}

// Stores a result into the stack's return entry.
template <typename R>
void StoreReturn(FunctionStack* stack, const R& result)
{
    using V = std::remove_cv_t<std::remove_reference_t<R>>;
    using S = StorageOf<V>;
    if (!stack || !stack->HasReturn())
        return;
    bool isPointer = false;
    if (stack->GetReturnType(isPointer) == KOVEX_TYPE_VOID)
        return;
    const Class* cls = ClassOf<V>();
    KOVEX_BASE_TYPE type = cls->GetType();
    S stored{};
    ValueTraits<V>::Store(stored, result);
    if (stack->IsVariableStack())
    {
        Variable& out = static_cast<FunctionStackVariable*>(stack)->RetVar();
        if (type == KOVEX_TYPE_CUSTOM || type == KOVEX_TYPE_DELEGATE || type == KOVEX_TYPE_ENUM)
            out.SetStructMem(&stored, cls, true, false);
        else
            VariableFromRaw(out, type, cls, &stored);
    }
    else if (void* memory = stack->GetReturnMem())
    {
        if (isPointer)
            memory = *static_cast<void**>(memory);
        if (memory)
            *static_cast<S*>(memory) = stored;
    }
}

template <typename R, typename... Args>
struct Signature
{
    using Return = R;
    static constexpr unsigned kArity = sizeof...(Args);
    using Values = std::tuple<std::remove_cv_t<std::remove_reference_t<Args>>...>;
};

template <typename F> struct Traits;
template <typename C, typename R, typename... A>
struct Traits<R (C::*)(A...)> : Signature<R, A...>
{
    using Owner = C;
    static constexpr bool kConst = false;
    using ArgList = std::tuple<A...>;
};
template <typename C, typename R, typename... A>
struct Traits<R (C::*)(A...) const> : Signature<R, A...>
{
    using Owner = C;
    static constexpr bool kConst = true;
    using ArgList = std::tuple<A...>;
};
template <typename R, typename... A>
struct Traits<R (*)(A...)> : Signature<R, A...>
{
    using Owner = void;
    static constexpr bool kConst = false;
    using ArgList = std::tuple<A...>;
};

} // namespace FunctionDetail

// A reflected function over a native function pointer F (a member or a
// static function).
template <typename F>
class TNativeFunction final : public Function
{
    using T = FunctionDetail::Traits<F>;
    using R = typename T::Return;
    static constexpr unsigned kArity = T::kArity;
    static constexpr bool kMember = !std::is_void_v<typename T::Owner>;

public:
    TNativeFunction(const WString& name, F function)
        : Function(name, FLAG_NATIVE | (kMember ? FLAG_MEMBER : FLAG_STATIC) | (T::kConst ? FLAG_CONST_MEMBER : 0u)),
          m_function(function)
    {
        CheckFunctionBegin();
    }
    ~TNativeFunction() override
    {
        for (unsigned i = 0; i < kArity; ++i)
            delete m_parameters[i].defaultValue;
    }

    void CheckFunctionBegin() override
    {
        m_return = FunctionDetail::DescribeReturn<R>();
        Describe(std::make_index_sequence<kArity>());
    }
    unsigned int GetNumParameters() const override { return kArity; }
    FunctionParameterEx* GetParameter(unsigned int index) const override
    {
        return index < kArity ? const_cast<FunctionParameterEx*>(&m_parameters[index]) : nullptr;
    }

    bool Invoke(void* object, FunctionStack* stack) const override
    {
        return Call(object, stack, std::make_index_sequence<kArity>());
    }
    bool IsNative(const void* pointer, unsigned int size) const override
    {
        return size == sizeof(F) && std::memcmp(pointer, &m_function, sizeof(F)) == 0;
    }

private:
    template <size_t... I>
    void Describe(std::index_sequence<I...>)
    {
        ((m_parameters[I] = FunctionDetail::DescribeParameter<std::tuple_element_t<I, typename T::ArgList>>()), ...);
    }

    template <size_t... I>
    bool Call(void* object, FunctionStack* stack, std::index_sequence<I...>) const
    {
        typename T::Values values;
        bool ok = (FunctionDetail::FetchArgument<std::tuple_element_t<I, typename T::ArgList>>(
                       stack, m_parameters[I], unsigned(I), std::get<I>(values)) &&
                   ...);
        if (!ok)
            return false;
        if constexpr (kMember)
        {
            using Owner = typename T::Owner;
            if (!object)
                return false;
            Owner* self;
            if constexpr (std::is_base_of_v<Object, Owner>)
                self = DynamicCast<Owner>(static_cast<Object*>(object));
            else
                self = static_cast<Owner*>(object);
            if (!self)
                return false;
            if constexpr (std::is_void_v<R>)
                (self->*m_function)(std::get<I>(values)...);
            else
                FunctionDetail::StoreReturn<R>(stack, (self->*m_function)(std::get<I>(values)...));
        }
        else
        {
            if constexpr (std::is_void_v<R>)
                m_function(std::get<I>(values)...);
            else
                FunctionDetail::StoreReturn<R>(stack, m_function(std::get<I>(values)...));
        }
        return true;
    }

    F m_function;
    FunctionParameterEx m_parameters[kArity > 0 ? kArity : 1];
};

// Registers a function with its parameter names.
template <typename F>
Function* AddFunction(Class* cls, const char16_t* name, F function, std::initializer_list<const char16_t*> names = {})
{
    auto* reflected = new TNativeFunction<F>(WString(name), function);
    unsigned index = 0;
    for (const char16_t* parameter : names)
        reflected->SetParamName(index++, parameter);
    reflected->CheckFunctionEnd();
    cls->AddFunction(reflected);
    return reflected;
}

} // namespace KovexEngine
