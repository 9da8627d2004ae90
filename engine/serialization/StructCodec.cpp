#include "serialization/StructCodec.h"

#include <cstring>

#include "kernel/Log.h"
#include "kernel/Strings.h"
#include "reflection/Property.h"
#include "reflection/Struct.h"

namespace KovexEngine {
namespace StructCodec {
namespace {

bool IsRawType(KOVEX_BASE_TYPE type)
{
    return (type >= KOVEX_TYPE_BOOL && type <= KOVEX_TYPE_MATRIX4) || type == KOVEX_TYPE_ENUM;
}

const Struct* NestedStruct(const Property* field)
{
    const Class* cls = field->GetClass();
    return cls && cls->IsStruct() ? static_cast<const Struct*>(cls) : nullptr;
}

bool PlainAt(const Struct* type, unsigned depth)
{
    if (depth > kMaxDepth)
        return false;
    for (const Property* field : type->GetStructFields())
    {
        if (IsRawType(field->GetType()))
            continue;
        const Struct* nested = field->GetType() == KOVEX_TYPE_CUSTOM ? NestedStruct(field) : nullptr;
        if (!nested || !PlainAt(nested, depth + 1))
            return false;
    }
    return true;
}

void RefuseField(const Property* field, const Struct* type)
{
    Log::Format(LOG_WARNING, u"Serializer: field '%s' of struct '%s' has a type that cannot be serialized.\n",
                field->GetName()(), type->GetName()());
}

// Strings longer than this are not credible in a struct and are refused
// before any allocation.
constexpr uint32 kMaxStringLength = 0x10000000u;

// A byte from a file is made a valid bool before anything reads it as one.
void NormalizeBools(uint8* data, const Struct* type, unsigned depth)
{
    if (depth > kMaxDepth)
        return;
    for (const Property* field : type->GetStructFields())
    {
        uint8* at = data + field->GetOffset();
        if (field->GetType() == KOVEX_TYPE_BOOL)
            *at = *at != 0;
        else if (field->GetType() == KOVEX_TYPE_CUSTOM && NestedStruct(field))
            NormalizeBools(at, NestedStruct(field), depth + 1);
    }
}

uint64 MinEncodedSizeAt(const Struct* type, unsigned depth)
{
    if (depth > kMaxDepth)
        return 0;
    if ((type->GetFlags() & Class::FLAG_CONTIGUOUS_STRUCT) && PlainAt(type, depth))
        return type->GetSerializeSize();
    uint64 size = 0;
    for (const Property* field : type->GetStructFields())
    {
        KOVEX_BASE_TYPE kind = field->GetType();
        if (IsRawType(kind))
            size += field->GetClass()->GetSize();
        else if (kind == KOVEX_TYPE_ASTRING || kind == KOVEX_TYPE_WSTRING)
            size += 4;
        else if (kind == KOVEX_TYPE_CUSTOM && NestedStruct(field))
            size += MinEncodedSizeAt(NestedStruct(field), depth + 1);
    }
    return size;
}

} // namespace

uint64 MinEncodedSize(const Struct* type)
{
    return type ? MinEncodedSizeAt(type, 0) : 0;
}

bool IsPlain(const Struct* type)
{
    return type && PlainAt(type, 0);
}

bool EncodeBinary(Sink& sink, const uint8* data, const Struct* type, unsigned depth)
{
    if (!type || depth > kMaxDepth)
        return false;
    if ((type->GetFlags() & Class::FLAG_CONTIGUOUS_STRUCT) && IsPlain(type))
        return sink.Put(data + type->GetSerializeOffset(), type->GetSerializeSize());
    for (const Property* field : type->GetStructFields())
    {
        // A field behind accessors has no place in the value's memory.
        if (field->GetOffset() < 0)
        {
            RefuseField(field, type);
            return false;
        }
        const uint8* at = data + field->GetOffset();
        KOVEX_BASE_TYPE kind = field->GetType();
        if (IsRawType(kind))
        {
            if (!sink.Put(at, field->GetClass()->GetSize()))
                return false;
        }
        else if (kind == KOVEX_TYPE_ASTRING)
        {
            const AString& text = *reinterpret_cast<const AString*>(at);
            uint32 length = text.Length();
            if (!sink.Put(&length, 4) || !sink.Put(text(), length))
                return false;
        }
        else if (kind == KOVEX_TYPE_WSTRING)
        {
            const WString& text = *reinterpret_cast<const WString*>(at);
            uint32 length = text.Length();
            if (!sink.Put(&length, 4) || !sink.Put(text(), uint64(length) * 2))
                return false;
        }
        else if (kind == KOVEX_TYPE_CUSTOM && NestedStruct(field))
        {
            if (!EncodeBinary(sink, at, NestedStruct(field), depth + 1))
                return false;
        }
        else
        {
            RefuseField(field, type);
            return false;
        }
    }
    return true;
}

bool DecodeBinary(Source& source, uint8* data, const Struct* type, unsigned depth)
{
    if (!type || depth > kMaxDepth)
        return false;
    if ((type->GetFlags() & Class::FLAG_CONTIGUOUS_STRUCT) && IsPlain(type))
    {
        if (!source.Take(data + type->GetSerializeOffset(), type->GetSerializeSize()))
            return false;
        NormalizeBools(data, type, depth);
        return true;
    }
    for (const Property* field : type->GetStructFields())
    {
        if (field->GetOffset() < 0)
        {
            RefuseField(field, type);
            return false;
        }
        uint8* at = data + field->GetOffset();
        KOVEX_BASE_TYPE kind = field->GetType();
        if (IsRawType(kind))
        {
            if (!source.Take(at, field->GetClass()->GetSize()))
                return false;
            if (kind == KOVEX_TYPE_BOOL)
                *at = *at != 0;
        }
        else if (kind == KOVEX_TYPE_ASTRING || kind == KOVEX_TYPE_WSTRING)
        {
            uint32 length = 0;
            if (!source.Take(&length, 4))
                return false;
            uint64 unit = kind == KOVEX_TYPE_ASTRING ? 1 : 2;
            if (length > kMaxStringLength || uint64(length) * unit > source.Remaining())
                return false;
            if (kind == KOVEX_TYPE_ASTRING)
            {
                AString& text = *reinterpret_cast<AString*>(at);
                if (!text.SetLength(length) || !source.Take(text(), length))
                    return false;
            }
            else
            {
                WString& text = *reinterpret_cast<WString*>(at);
                if (!text.SetLength(length) || !source.Take(text(), uint64(length) * 2))
                    return false;
            }
        }
        else if (kind == KOVEX_TYPE_CUSTOM && NestedStruct(field))
        {
            if (!DecodeBinary(source, at, NestedStruct(field), depth + 1))
                return false;
        }
        else
        {
            RefuseField(field, type);
            return false;
        }
    }
    return true;
}

} // namespace StructCodec
} // namespace KovexEngine
