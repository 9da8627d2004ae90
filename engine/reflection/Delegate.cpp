#include "reflection/Delegate.h"

namespace KovexEngine {

DelegateClass::DelegateClass(unsigned int size, const char16_t* prefix)
    : ValueClass(u"", size, u"Engine", KOVEX_TYPE_DELEGATE), m_prefix(prefix)
{
}

void DelegateClass::ProcessClass()
{
    Class::ProcessClass();
    WString name;
    if (GetName().IsEmpty() && BuildName(name))
        SetNameAndRegister(name);
}

bool DelegateClass::HasParameterTypes() const { return false; }
unsigned int DelegateClass::GetNumParameters() const { return 0; }
const FunctionParameter* DelegateClass::GetParameter(unsigned int) const { return nullptr; }
Delegate* DelegateClass::CreateEmptyDelegate() const { return nullptr; }
Delegate* DelegateClass::CreateDelegate(ScriptFuncProxy*, Variable*) const { return nullptr; }

namespace {
bool SameParameter(const FunctionParameter& a, const FunctionParameter& b)
{
    return a.isPointer == b.isPointer && a.isReference == b.isReference && a.isConst == b.isConst && a.cls == b.cls;
}
} // namespace

bool DelegateClass::IsMatch(const DelegateClass* other) const
{
    if (!other || !HasParameterTypes() || !other->HasParameterTypes())
        return false;
    if (SameParameter(m_return, other->m_return))
        return false;
    if (GetNumParameters() != other->GetNumParameters())
        return false;
    for (unsigned i = 0; i < GetNumParameters(); ++i)
        if (SameParameter(*GetParameter(i), *other->GetParameter(i)))
            return false;
    return true;
}

bool DelegateClass::GetBinding(const void*, Object*&, const Function*&) const { return false; }
bool DelegateClass::Bind(void*, Object*, const Function*, bool) const { return false; }

bool DelegateClass::AcceptsFunction(const Function* function) const
{
    if (!function || !HasParameterTypes() || function->GetNumParameters() != GetNumParameters())
        return false;
    const Class* result = function->GetReturnParam().cls;
    if (result != m_return.cls)
        return false;
    for (unsigned i = 0; i < GetNumParameters(); ++i)
        if (!GetParameter(i)->cls || function->GetParamClass(i) != GetParameter(i)->cls)
            return false;
    return true;
}

bool DelegateClass::BuildName(WString& out, const char16_t* prefix, const FunctionParameter& result,
                              const FunctionParameter* parameters, unsigned int count)
{
    out = prefix;
    WString shortName;
    if (!Class::GetTypeShortName(shortName, result.cls))
    {
        out.Clear();
        return false;
    }
    out.Append(shortName);
    for (unsigned i = 0; i < count; ++i)
    {
        if (!Class::GetTypeShortName(shortName, parameters[i].cls))
        {
            out.Clear();
            return false;
        }
        out.Append(u'_');
        out.Append(shortName);
    }
    return true;
}

bool DelegateClass::BuildName(WString& out) const
{
    unsigned count = GetNumParameters();
    FunctionParameter parameters[16];
    if (count > 16)
    {
        out.Clear();
        return false;
    }
    for (unsigned i = 0; i < count; ++i)
        parameters[i] = *GetParameter(i);
    return BuildName(out, m_prefix, m_return, parameters, count);
}

bool DelegateClass::GetPrototype(WString& out) const
{
    out.Clear();
    if (!m_return.cls)
        return false;
    out.Append(u"DelegateS<");
    Function::PrintType(out, m_return);
    out.Append(u'(');
    for (unsigned i = 0; i < GetNumParameters(); ++i)
    {
        if (i)
            out.Append(u", ");
        Function::PrintType(out, *GetParameter(i));
    }
    out.Append(u")>");
    return true;
}

const void* Delegate::GetNativeClassPointer(const Class* target) const
{
    return GetNativeClass()->GetClassPointer(static_cast<const void*>(this), target);
}

void* Delegate::GetNativeClassPointer(const Class* target)
{
    return GetNativeClass()->GetClassPointer(static_cast<void*>(this), target);
}

const void* Delegate::GetScriptFuncVar() const { return nullptr; }

const FunctionParameter& Delegate::GetReturnParam() const
{
    return static_cast<const DelegateClass*>(GetClass())->GetReturnParam();
}

unsigned int Delegate::GetNumParameters() const
{
    return static_cast<const DelegateClass*>(GetClass())->GetNumParameters();
}

const FunctionParameter* Delegate::GetParameter(unsigned int index) const
{
    return static_cast<const DelegateClass*>(GetClass())->GetParameter(index);
}

} // namespace KovexEngine
