#pragma once

#include "reflection/Class.h"
#include "reflection/Variable.h"

namespace KovexEngine {

struct FunctionParameter
{
    bool isPointer = false;
    bool isReference = false;
    bool isConst = false;
    const Class* cls = nullptr;
};

struct KOVEX_API FunctionParameterEx : FunctionParameter
{
    const char16_t* name = nullptr;
    const Variable* defaultValue = nullptr;

    // The bytes the parameter accounts for: 16, the name with its
    // terminator (in characters) and the default's own size.
    unsigned int SizeOfParameter() const;
};

// The arguments and the return value of one reflected call. The memory of
// the entries is the caller's, usually on its stack, so a call allocates
// nothing for its frame.
class KOVEX_API FunctionStack
{
public:
    explicit FunctionStack(unsigned int entrySize) : m_entrySize(entrySize) {}
    FunctionStack(const FunctionStack&) = delete;
    FunctionStack& operator=(const FunctionStack&) = delete;
    virtual ~FunctionStack();

    // Stores the counts and returns the bytes the entries need.
    unsigned int Init(unsigned int count, bool hasReturn);
    // Takes the entries' memory (of Init's size, suitably aligned) and zeroes it.
    void Assign(void* memory);

    unsigned int GetNumParams() const { return m_count; }
    bool HasReturn() const { return m_hasReturn; }
    virtual void* GetParamMem(unsigned int index) = 0;
    virtual const Class* GetParamClass(unsigned int index) const = 0;
    virtual KOVEX_BASE_TYPE GetParamType(bool& isPointer, unsigned int index) const = 0;
    virtual bool IsVariableStack() const = 0;
    virtual bool IsNativeStack() const = 0;

    void* GetReturnMem() { return m_hasReturn ? GetParamMem(m_count) : nullptr; }
    const Class* GetReturnClass() const { return m_hasReturn ? GetParamClass(m_count) : nullptr; }
    // KOVEX_TYPE_VOID without a return entry.
    KOVEX_BASE_TYPE GetReturnType(bool& isPointer) const;

protected:
    void* Entry(unsigned int index) const { return static_cast<char*>(m_memory) + size_t(index) * m_entrySize; }

    bool m_hasReturn = false;
    unsigned int m_entrySize;
    unsigned int m_totalSize = 0;
    unsigned int m_count = 0;
    void* m_memory = nullptr;
};

// Each entry is a Variable: the argument is a value with its own type.
class KOVEX_API FunctionStackVariable final : public FunctionStack
{
public:
    FunctionStackVariable() : FunctionStack(sizeof(Variable)) {}
    ~FunctionStackVariable() override;

    Variable& Var(unsigned int index) { return *static_cast<Variable*>(Entry(index)); }
    Variable& RetVar() { return Var(m_count); }

    void* GetParamMem(unsigned int index) override;
    const Class* GetParamClass(unsigned int index) const override;
    KOVEX_BASE_TYPE GetParamType(bool& isPointer, unsigned int index) const override;
    bool IsVariableStack() const override { return true; }
    bool IsNativeStack() const override { return false; }
};

// A FunctionStackVariable with room for up to N arguments on the caller's
// stack: Init and Assign are done.
template <unsigned int N>
class TFunctionStack
{
public:
    TFunctionStack(unsigned int count, bool hasReturn)
    {
        unsigned size = m_stack.Init(count <= N ? count : N, hasReturn);
        (void)size;
        m_stack.Assign(m_memory);
    }
    FunctionStackVariable* operator->() { return &m_stack; }
    FunctionStackVariable& operator*() { return m_stack; }
    FunctionStackVariable* Get() { return &m_stack; }

private:
    alignas(Variable) unsigned char m_memory[sizeof(Variable) * (N + 1)];
    FunctionStackVariable m_stack;
};

// Each entry points at a value the caller owns.
class KOVEX_API FunctionStackNative final : public FunctionStack
{
public:
    struct Entry
    {
        bool isPointer;
        const Class* cls;
        void* data;
    };

    FunctionStackNative() : FunctionStack(sizeof(Entry)) {}

    // Points the entry at the variable's value; objects go with their real class.
    void SetParam(const Variable& value, unsigned int index);
    void SetRetVal(const Variable& value);

    void* GetParamMem(unsigned int index) override;
    const Class* GetParamClass(unsigned int index) const override;
    KOVEX_BASE_TYPE GetParamType(bool& isPointer, unsigned int index) const override;
    bool IsVariableStack() const override { return false; }
    bool IsNativeStack() const override { return true; }

private:
    Entry& At(unsigned int index) const { return *static_cast<Entry*>(FunctionStack::Entry(index)); }
};

// A reflected callable of a class.
class KOVEX_API Function : public HeapObject
{
public:
    enum : uint32
    {
        FLAG_SCRIPT = 1u << 24,
        FLAG_NATIVE = 1u << 25,
        FLAG_MEMBER = 1u << 26,
        FLAG_STATIC = 1u << 27,
        FLAG_OVERRIDE_MEMBER = 1u << 28,
        FLAG_CONST_MEMBER = 1u << 29,
    };

    Function(const WString& name, uint32 flags);
    Function(const Function&) = delete;
    Function& operator=(const Function&) = delete;
    virtual ~Function();

    // Calls the function on `object` (which may point at any part of it:
    // the pointer is adjusted to the declaring class).
    virtual bool Invoke(void* object, FunctionStack* stack) const = 0;
    virtual unsigned int GetNumParameters() const = 0;
    virtual FunctionParameterEx* GetParameter(unsigned int index) const = 0;
    virtual unsigned int SizeOfFunction() const;
    virtual bool GetPrototype(WString& out, bool withClass) const;
    virtual void CheckFunctionBegin();
    // Whether this function calls the native function pointer whose `size`
    // bytes are at `pointer`.
    virtual bool IsNative(const void* pointer, unsigned int size) const;

    const WString& GetName() const { return m_name; }
    uint32 GetFlags() const { return m_flags; }
    const Class* GetOwnerClass() const { return m_owner; }
    void SetOwnerClass(const Class* owner) { m_owner = owner; }
    const FunctionParameter& GetReturnParam() const { return m_return; }
    bool IsScriptFunction() const { return (m_flags & FLAG_SCRIPT) != 0; }
    bool IsNativeFunction() const { return (m_flags & FLAG_NATIVE) != 0; }
    bool IsMemberFunction() const { return (m_flags & FLAG_MEMBER) != 0; }
    bool IsStaticFunction() const { return (m_flags & FLAG_STATIC) != 0; }
    bool IsOverrideMemberFunction() const { return (m_flags & FLAG_OVERRIDE_MEMBER) != 0; }
    bool IsConstMemberFunction() const { return (m_flags & FLAG_CONST_MEMBER) != 0; }
    bool IsVoidFunction() const { return !m_return.cls || m_return.cls->GetType() == KOVEX_TYPE_VOID; }
    bool HasDefParams() const { return m_firstDefault != kNotFound; }
    unsigned int GetFirstDefaultIndex() const { return m_firstDefault; }

    KOVEX_BASE_TYPE GetParamType(unsigned int index) const;
    const Class* GetParamClass(unsigned int index) const;
    const char16_t* GetParamName(unsigned int index) const;
    const Variable* GetParamDefault(unsigned int index) const;
    void SetParamName(unsigned int index, const char16_t* name);
    // Takes ownership of the default. Its type must be the parameter's; an
    // int32 and a uint32 swap by re-tagging, anything else is converted.
    // False (and the default deleted) when it cannot be made to fit.
    bool SetParamDefault(unsigned int index, Variable* value);
    bool GetDefParamString(WString& out, unsigned int index) const;
    // Records the first parameter with a default.
    void CheckFunctionEnd();

    // Prints a parameter's type: "const ", the name ("Ptr<X>" for objects),
    // then "*" and "&".
    static void PrintType(WString& out, const FunctionParameter& parameter);

protected:
    WString m_name;
    uint32 m_flags;
    uint32 m_firstDefault = kNotFound;
    const Class* m_owner = nullptr;
    FunctionParameter m_return;
};

} // namespace KovexEngine
