#include "reflection/Struct.h"

#include <algorithm>

#include "reflection/Variable.h"

namespace KovexEngine {

Struct::Struct(const char16_t* name, unsigned int size, const char16_t* module, KOVEX_BASE_TYPE type)
    : ValueClass(name, size, module, type)
{
}

void Struct::AddProperty(Property* property)
{
    Class::AddProperty(property);
    if (property && property->HasFlag(Property::FLAG_STRUCT_FIELD))
        m_fields.Add(property);
}

void Struct::ProcessClass()
{
    Class::ProcessClass();
    std::stable_sort(m_fields.begin(), m_fields.end(),
                     [](const Property* a, const Property* b) { return a->GetOffset() < b->GetOffset(); });
    m_flags &= ~uint32(FLAG_CONTIGUOUS_STRUCT);
    m_serializeOffset = 0xFFFFFFFFu;
    m_serializeSize = 0;
    if (m_fields.IsEmpty())
        return;
    for (const Property* field : m_fields)
        if (!field->IsNativeProperty() || field->GetOffset() < 0 || !field->GetClass())
            return;
    m_serializeOffset = unsigned(m_fields[0]->GetOffset());
    bool contiguous = true;
    unsigned end = m_serializeOffset;
    for (const Property* field : m_fields)
    {
        if (unsigned(field->GetOffset()) != end)
            contiguous = false;
        end = unsigned(field->GetOffset()) + field->GetClass()->GetSize();
    }
    m_serializeSize = end - m_serializeOffset;
    if (contiguous)
        m_flags |= FLAG_CONTIGUOUS_STRUCT;
}

bool Struct::GetDefaultVariable(Variable& out) const
{
    out.SetDefaultValue(this);
    return true;
}

bool Struct::IsFieldStringable(const Property* field)
{
    KOVEX_BASE_TYPE type = field->GetType();
    if (type >= KOVEX_TYPE_FLOAT && type <= KOVEX_TYPE_MATRIX4)
        return true;
    return type == KOVEX_TYPE_CUSTOM && field->GetClass()->IsStruct() &&
           static_cast<const Struct*>(field->GetClass())->IsStructStringable();
}

bool Struct::IsStructStringable() const
{
    if (m_fields.IsEmpty())
        return false;
    for (const Property* field : m_fields)
        if (!IsFieldStringable(field))
            return false;
    return true;
}

bool Struct::ToString(WString& out, const void* data) const
{
    out.Clear();
    bool first = true;
    for (const Property* field : m_fields)
    {
        KOVEX_BASE_TYPE type = field->GetType();
        if (type == KOVEX_TYPE_CUSTOM && field->GetClass()->IsStruct())
        {
            Variable value;
            if (!value.GetPropertyValue(field, data))
                return false;
            WString nested;
            static_cast<const Struct*>(field->GetClass())->ToString(nested, value.GetStructMem());
            if (!first)
                out.Append(u',');
            out.Append(nested);
            first = false;
        }
        else if (type >= KOVEX_TYPE_INT32 && type <= KOVEX_TYPE_MATRIX4)
        {
            Variable value;
            if (!value.GetPropertyValue(field, data))
                return false;
            if (!first)
                out.Append(u',');
            out.Append(value.ToString());
            first = false;
        }
    }
    return true;
}

bool Struct::FromString(const WString& text, void* data) const
{
    TArray<WString> tokens;
    text.GetTokens(tokens, ", \t");
    unsigned index = 0;
    return FromTokens(tokens, index, data);
}

bool Struct::FromTokens(const TArray<WString>& tokens, unsigned& index, void* data) const
{
    if (index + m_fields.Count() > tokens.Count())
        return false;
    for (const Property* field : m_fields)
    {
        KOVEX_BASE_TYPE type = field->GetType();
        Variable value;
        if (type == KOVEX_TYPE_FLOAT || type == KOVEX_TYPE_INT32 || type == KOVEX_TYPE_UINT32)
        {
            if (index >= tokens.Count())
                return false;
            float number = 0;
            if (!tokens[index++].EvalNumber(number))
                return false;
            if (type == KOVEX_TYPE_FLOAT)
                value = number;
            else if (type == KOVEX_TYPE_INT32)
                value = int(std::floor(number));
            else
                value = (unsigned int)(number > 0 ? std::floor(number) : 0.0f);
        }
        else
        {
            if (!value.GetPropertyValue(field, data))
                return false;
            if (type == KOVEX_TYPE_CUSTOM && field->GetClass()->IsStruct())
            {
                if (!static_cast<const Struct*>(field->GetClass())->FromTokens(tokens, index, value.GetStructMem()))
                    return false;
            }
            else if (type >= KOVEX_TYPE_VECTOR2 && type <= KOVEX_TYPE_MATRIX4)
            {
                // Each component is one token.
                unsigned components = field->GetClass()->GetSize() / 4;
                float* c = static_cast<float*>(value.GetPointer());
                for (unsigned i = 0; i < components; ++i)
                {
                    if (index >= tokens.Count() || !tokens[index++].EvalNumber(c[i]))
                        return false;
                }
            }
            else
                return false;
        }
        if (!value.SetPropertyValue(field, data))
            return false;
    }
    return true;
}

} // namespace KovexEngine
