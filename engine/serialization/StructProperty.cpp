// How struct values (type 15) of properties go through a Serializer.

#include "reflection/Property.h"
#include "reflection/Struct.h"
#include "reflection/Variable.h"
#include "serialization/Serializer.h"

namespace KovexEngine {

namespace {
const Struct* StructOf(const Property* property)
{
    const Class* type = property ? property->GetClass() : nullptr;
    return type && property->GetType() == KOVEX_TYPE_CUSTOM && type->IsStruct() ? static_cast<const Struct*>(type)
                                                                                  : nullptr;
}

// A plain field holding the value itself: it can be read and written in place.
bool IsPlainStructField(const Property* property)
{
    const auto* native = dynamic_cast<const NativeProperty*>(property);
    return native && !native->UsesAccessors() && !native->IsPointer() && native->GetOffset() >= 0;
}
} // namespace

bool Struct::LoadVariable(Variable& out, Serializer* serializer) const
{
    out.SetDefaultValue(this);
    return out.GetClass() == this && LoadValue(out.GetStructMem(), serializer);
}

bool Struct::SaveVariable(const Variable& value, Serializer* serializer) const
{
    if (value.GetClass() != this || !value.GetStructMem())
        return false;
    return SaveValue(value.GetStructMem(), serializer);
}

bool Property::LoadStruct(void* object, const Property* property, Serializer* serializer)
{
    const Struct* type = StructOf(property);
    Variable value;
    return type && object && serializer && type->LoadVariable(value, serializer) &&
           value.SetPropertyValue(property, object);
}

bool Property::SaveStruct(const void* object, const Property* property, Serializer* serializer)
{
    const Struct* type = StructOf(property);
    Variable value;
    return type && object && serializer && value.GetPropertyValue(property, object) &&
           type->SaveVariable(value, serializer);
}

bool NativeProperty::LoadStructFast(void* object, const Property* property, Serializer* serializer)
{
    const Struct* type = StructOf(property);
    if (!type || !object || !serializer)
        return false;
    if (IsPlainStructField(property))
        return type->LoadValue(static_cast<uint8*>(object) + property->GetOffset(), serializer);
    return LoadStruct(object, property, serializer);
}

bool NativeProperty::SaveStructFast(const void* object, const Property* property, Serializer* serializer)
{
    const Struct* type = StructOf(property);
    if (!type || !object || !serializer)
        return false;
    if (IsPlainStructField(property))
        return type->SaveValue(static_cast<const uint8*>(object) + property->GetOffset(), serializer);
    return SaveStruct(object, property, serializer);
}

bool NativeProperty::LoadPropertyValue(void* object, Serializer* serializer) const
{
    if (GetType() == KOVEX_TYPE_CUSTOM)
        return LoadStructFast(object, this, serializer);
    return Property::LoadPropertyValue(object, serializer);
}

bool NativeProperty::SavePropertyValue(const void* object, Serializer* serializer) const
{
    if (GetType() == KOVEX_TYPE_CUSTOM)
        return SaveStructFast(object, this, serializer);
    return Property::SavePropertyValue(object, serializer);
}

} // namespace KovexEngine
