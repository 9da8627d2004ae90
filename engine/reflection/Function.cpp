#include "reflection/Function.h"

#include <cstring>
#include <new>

#include "math/Matrix.h"
#include "math/Quaternion.h"
#include "reflection/ClassIterator.h"
#include "reflection/FunctionRegistration.h"
#include "reflection/Object.h"

namespace KovexEngine {

// --- Stacks --------------------------------------------------------------------------------

FunctionStack::~FunctionStack() = default;

unsigned int FunctionStack::Init(unsigned int count, bool hasReturn)
{
    m_count = count;
    m_hasReturn = hasReturn;
    m_totalSize = (count + (hasReturn ? 1 : 0)) * m_entrySize;
    return m_totalSize;
}

void FunctionStack::Assign(void* memory)
{
    m_memory = memory;
    if (memory)
        std::memset(memory, 0, m_totalSize);
}

KOVEX_BASE_TYPE FunctionStack::GetReturnType(bool& isPointer) const
{
    isPointer = false;
    if (!m_hasReturn)
        return KOVEX_TYPE_VOID;
    return GetParamType(isPointer, m_count);
}

FunctionStackVariable::~FunctionStackVariable()
{
    if (!m_memory)
        return;
    // Zeroed memory is an empty Variable: destroying every entry is safe.
    for (unsigned i = 0; i < m_count + (m_hasReturn ? 1 : 0); ++i)
        Var(i).~Variable();
}

void* FunctionStackVariable::GetParamMem(unsigned int index)
{
    Variable& v = Var(index);
    KOVEX_BASE_TYPE type = v.Type();
    if (type == KOVEX_TYPE_CUSTOM || type == KOVEX_TYPE_ENUM || type == KOVEX_TYPE_DELEGATE)
        return v.GetStructMem();
    return v.GetStorage();
}

const Class* FunctionStackVariable::GetParamClass(unsigned int index) const
{
    return const_cast<FunctionStackVariable*>(this)->Var(index).GetClass();
}

KOVEX_BASE_TYPE FunctionStackVariable::GetParamType(bool& isPointer, unsigned int index) const
{
    isPointer = false;
    return const_cast<FunctionStackVariable*>(this)->Var(index).Type();
}

void FunctionStackNative::SetParam(const Variable& value, unsigned int index)
{
    Entry& entry = At(index);
    entry.isPointer = false;
    if (value.Type() == KOVEX_TYPE_OBJECT)
    {
        Object* object = value.GetObject();
        entry.cls = object ? object->GetClass() : nullptr;
        entry.data = const_cast<void*>(value.GetStorage());
        return;
    }
    entry.cls = value.GetClass();
    KOVEX_BASE_TYPE type = value.Type();
    entry.data = const_cast<void*>(type == KOVEX_TYPE_CUSTOM || type == KOVEX_TYPE_ENUM || type == KOVEX_TYPE_DELEGATE
                                       ? value.GetStructMem()
                                       : value.GetStorage());
    if (!entry.cls)
    {
        // Plain values carry no class of their own: name it by the type.
        switch (type)
        {
        case KOVEX_TYPE_BOOL: entry.cls = Class::GetBoolClass(); break;
        case KOVEX_TYPE_INT32: entry.cls = Class::GetInt32Class(); break;
        case KOVEX_TYPE_UINT32: entry.cls = Class::GetUInt32Class(); break;
        case KOVEX_TYPE_FLOAT: entry.cls = Class::GetFloatClass(); break;
        case KOVEX_TYPE_VECTOR2: entry.cls = Vector2::StaticGetClass(); break;
        case KOVEX_TYPE_VECTOR3: entry.cls = Vector3::StaticGetClass(); break;
        case KOVEX_TYPE_VECTOR4: entry.cls = Vector4::StaticGetClass(); break;
        case KOVEX_TYPE_QUATERNION: entry.cls = Quaternion::StaticGetClass(); break;
        case KOVEX_TYPE_MATRIX2: entry.cls = Matrix2::StaticGetClass(); break;
        case KOVEX_TYPE_MATRIX3: entry.cls = Matrix3::StaticGetClass(); break;
        case KOVEX_TYPE_MATRIX4: entry.cls = Matrix4::StaticGetClass(); break;
        case KOVEX_TYPE_ASTRING: entry.cls = Class::GetAStringClass(); break;
        case KOVEX_TYPE_WSTRING: entry.cls = Class::GetWStringClass(); break;
        default: break;
        }
    }
}

void FunctionStackNative::SetRetVal(const Variable& value)
{
    if (m_hasReturn)
        SetParam(value, m_count);
}

void* FunctionStackNative::GetParamMem(unsigned int index) { return At(index).data; }

const Class* FunctionStackNative::GetParamClass(unsigned int index) const { return At(index).cls; }

KOVEX_BASE_TYPE FunctionStackNative::GetParamType(bool& isPointer, unsigned int index) const
{
    const Entry& entry = At(index);
    isPointer = entry.isPointer;
    if (!entry.cls)
        return entry.data ? KOVEX_TYPE_OBJECT : KOVEX_TYPE_UNKNOWN; // a null object has no class
    return entry.cls->GetType();
}

// --- Functions -------------------------------------------------------------------------------

Function::Function(const WString& name, uint32 flags) : m_name(name), m_flags(flags) {}

Function::~Function() = default;

unsigned int Function::SizeOfFunction() const
{
    unsigned size = unsigned(sizeof(*this)) + m_name.HeapLen() * unsigned(sizeof(char16_t));
    for (unsigned i = 0; i < GetNumParameters(); ++i)
        size += GetParameter(i)->SizeOfParameter();
    return size;
}

unsigned int FunctionParameterEx::SizeOfParameter() const
{
    unsigned size = 16;
    if (name)
        size += WString::TextLength(name) + 1;
    if (defaultValue)
        size += defaultValue->GetMemerySize();
    return size;
}

void Function::CheckFunctionBegin() {}
bool Function::IsNative(const void*, unsigned int) const { return false; }

const Function* FunctionDetail::FindNative(const Class* cls, const void* pointer, unsigned size)
{
    if (!cls || !pointer)
        return nullptr;
    for (FunctionIterator it(cls, &Class::GetFunctionMap); it.hasNext();)
    {
        const Function* function = it.Next();
        if (function->IsNative(pointer, size))
            return function;
    }
    return nullptr;
}

KOVEX_BASE_TYPE Function::GetParamType(unsigned int index) const
{
    const Class* cls = GetParamClass(index);
    return cls ? cls->GetType() : KOVEX_TYPE_UNKNOWN;
}

const Class* Function::GetParamClass(unsigned int index) const
{
    const FunctionParameterEx* p = GetParameter(index);
    return p ? p->cls : nullptr;
}

const char16_t* Function::GetParamName(unsigned int index) const
{
    const FunctionParameterEx* p = GetParameter(index);
    return p ? p->name : nullptr;
}

const Variable* Function::GetParamDefault(unsigned int index) const
{
    const FunctionParameterEx* p = GetParameter(index);
    return p ? p->defaultValue : nullptr;
}

void Function::SetParamName(unsigned int index, const char16_t* name)
{
    if (FunctionParameterEx* p = GetParameter(index))
        p->name = name;
}

bool Function::SetParamDefault(unsigned int index, Variable* value)
{
    FunctionParameterEx* p = GetParameter(index);
    if (!p || !value || !p->cls)
    {
        delete value;
        return false;
    }
    KOVEX_BASE_TYPE wanted = p->cls->GetType();
    KOVEX_BASE_TYPE type = value->Type();
    if (type != wanted)
    {
        Variable converted;
        if ((type == KOVEX_TYPE_INT32 && wanted == KOVEX_TYPE_UINT32) ||
            (type == KOVEX_TYPE_UINT32 && wanted == KOVEX_TYPE_INT32))
        {
            // The same bits, re-tagged.
            uint32 bits = value->GetUInt();
            if (wanted == KOVEX_TYPE_UINT32)
                *value = (unsigned int)bits;
            else
                *value = int(int32(bits));
        }
        else if (converted.Change(wanted, *value))
            *value = converted;
        else
        {
            delete value;
            return false;
        }
    }
    delete p->defaultValue;
    p->defaultValue = value;
    CheckFunctionEnd();
    return true;
}

bool Function::GetDefParamString(WString& out, unsigned int index) const
{
    const Variable* value = GetParamDefault(index);
    if (!value)
    {
        out.Clear();
        return false;
    }
    return value->ToString(out);
}

void Function::CheckFunctionEnd()
{
    m_firstDefault = kNotFound;
    for (unsigned i = 0; i < GetNumParameters(); ++i)
        if (GetParameter(i)->defaultValue && m_firstDefault == kNotFound)
            m_firstDefault = i;
}

void Function::PrintType(WString& out, const FunctionParameter& parameter)
{
    if (parameter.isConst)
        out.Append(u"const ");
    const Class* cls = parameter.cls;
    if (!cls)
        out.Append(u"void");
    else
    {
        const WString& name = cls->GetName();
        const char16_t* text = name.IsValid() ? name() : Class::GetTypeName(cls->GetType());
        if (cls->IsKindOf(Object::StaticGetClass()))
        {
            out.Append(u"Ptr<");
            out.Append(text);
            out.Append(u">");
        }
        else
            out.Append(text);
    }
    if (parameter.isPointer)
        out.Append(u'*');
    if (parameter.isReference)
        out.Append(u'&');
}

bool Function::GetPrototype(WString& out, bool withClass) const
{
    out.Clear();
    out.Reserve(256);
    if (IsStaticFunction())
        out.Append(u"static ");
    PrintType(out, m_return);
    out.Append(u' ');
    if (withClass && m_owner)
    {
        out.Append(m_owner->GetName());
        out.Append(u"::");
    }
    out.Append(m_name);
    out.Append(u'(');
    for (unsigned i = 0; i < GetNumParameters(); ++i)
    {
        const FunctionParameterEx* p = GetParameter(i);
        if (i)
            out.Append(u", ");
        PrintType(out, *p);
        if (p->name)
        {
            out.Append(u' ');
            out.Append(p->name);
        }
        WString value;
        if (p->defaultValue && p->defaultValue->ToString(value) && value.IsValid())
        {
            out.Append(u" = ");
            out.Append(value);
        }
    }
    out.Append(u')');
    return true;
}

namespace FunctionDetail {

bool VariableFromRaw(Variable& out, KOVEX_BASE_TYPE type, const Class* cls, const void* data)
{
    if (!data)
    {
        out.Clear();
        return type == KOVEX_TYPE_OBJECT;
    }
    switch (type)
    {
    case KOVEX_TYPE_BOOL: out = *static_cast<const bool*>(data); return true;
    case KOVEX_TYPE_INT32: out = int(*static_cast<const int32*>(data)); return true;
    case KOVEX_TYPE_UINT32: out = (unsigned int)(*static_cast<const uint32*>(data)); return true;
    case KOVEX_TYPE_FLOAT: out = *static_cast<const float*>(data); return true;
    case KOVEX_TYPE_VECTOR2: out = *static_cast<const Vector2*>(data); return true;
    case KOVEX_TYPE_VECTOR3: out = *static_cast<const Vector3*>(data); return true;
    case KOVEX_TYPE_VECTOR4: out = *static_cast<const Vector4*>(data); return true;
    case KOVEX_TYPE_QUATERNION: out = *static_cast<const Quaternion*>(data); return true;
    case KOVEX_TYPE_MATRIX2: out = *static_cast<const Matrix2*>(data); return true;
    case KOVEX_TYPE_MATRIX3: out = *static_cast<const Matrix3*>(data); return true;
    case KOVEX_TYPE_MATRIX4: out = *static_cast<const Matrix4*>(data); return true;
    case KOVEX_TYPE_ASTRING: out = *static_cast<const AString*>(data); return true;
    case KOVEX_TYPE_WSTRING: out = *static_cast<const WString*>(data); return true;
    case KOVEX_TYPE_OBJECT: out = *static_cast<const Ptr<Object>*>(data); return true;
    case KOVEX_TYPE_CUSTOM:
    case KOVEX_TYPE_ENUM:
    case KOVEX_TYPE_DELEGATE: return out.SetStructMem(data, cls, true, false);
    default: return false;
    }
}

} // namespace FunctionDetail

} // namespace KovexEngine
