#include "reflection/Variable.h"

#include <cmath>
#include <climits>
#include <cstring>
#include <new>

#include "kernel/StringConv.h"
#include "math/Matrix.h"
#include "math/Quaternion.h"
#include "reflection/EnumClass.h"
#include "reflection/Object.h"
#include "reflection/Property.h"

namespace KovexEngine {
namespace {

bool IsStructLike(KOVEX_BASE_TYPE type)
{
    return type == KOVEX_TYPE_CUSTOM || type == KOVEX_TYPE_ENUM || type == KOVEX_TYPE_DELEGATE;
}

const ValueClass* AsValueClass(const Class* cls)
{
    return cls && cls->IsValueClass() ? static_cast<const ValueClass*>(cls) : nullptr;
}

int32 RoundToInt32(float v)
{
    if (!(v > float(INT32_MIN)))
        return v != v ? 0 : INT32_MIN;
    if (v >= 2147483648.0f)
        return INT32_MAX;
    return int32(std::lround(v));
}

uint32 RoundToUInt32(float v)
{
    if (!(v > 0.0f))
        return 0;
    if (v >= 4294967296.0f)
        return UINT32_MAX;
    return uint32(std::llround(v));
}

// The size of the value of a plain type, for the typed copies.
constexpr unsigned PlainSize(KOVEX_BASE_TYPE type)
{
    switch (type)
    {
    case KOVEX_TYPE_BOOL: return sizeof(bool);
    case KOVEX_TYPE_INT32:
    case KOVEX_TYPE_UINT32:
    case KOVEX_TYPE_FLOAT: return 4;
    case KOVEX_TYPE_VECTOR2: return sizeof(Vector2);
    case KOVEX_TYPE_VECTOR3: return sizeof(Vector3);
    case KOVEX_TYPE_VECTOR4: return sizeof(Vector4);
    case KOVEX_TYPE_QUATERNION: return sizeof(Quaternion);
    case KOVEX_TYPE_MATRIX2: return sizeof(Matrix2);
    case KOVEX_TYPE_MATRIX3: return sizeof(Matrix3);
    case KOVEX_TYPE_MATRIX4: return sizeof(Matrix4);
    default: return 0;
    }
}

bool FloatsEqual(const void* a, const void* b, unsigned bytes)
{
    const float* x = static_cast<const float*>(a);
    const float* y = static_cast<const float*>(b);
    for (unsigned i = 0; i < bytes / 4; ++i)
        if (x[i] != y[i])
            return false;
    return true;
}

// Prints a value of type 1 to 11 through the string overloads of its width.
template <typename S>
bool PrintPlain(S& out, KOVEX_BASE_TYPE type, const void* v)
{
    switch (type)
    {
    case KOVEX_TYPE_BOOL: out.SetBool(*static_cast<const bool*>(v)); return true;
    case KOVEX_TYPE_INT32: out.Set(int(*static_cast<const int32*>(v))); return true;
    case KOVEX_TYPE_UINT32: out.Set((unsigned int)(*static_cast<const uint32*>(v))); return true;
    case KOVEX_TYPE_FLOAT: out.Set(*static_cast<const float*>(v)); return true;
    case KOVEX_TYPE_VECTOR2: out.Set(*static_cast<const Vector2*>(v)); return true;
    case KOVEX_TYPE_VECTOR3: out.Set(*static_cast<const Vector3*>(v)); return true;
    case KOVEX_TYPE_VECTOR4: out.Set(*static_cast<const Vector4*>(v)); return true;
    case KOVEX_TYPE_QUATERNION: out.Set(*static_cast<const Quaternion*>(v)); return true;
    case KOVEX_TYPE_MATRIX2: out.Set(*static_cast<const Matrix2*>(v)); return true;
    case KOVEX_TYPE_MATRIX3: out.Set(*static_cast<const Matrix3*>(v)); return true;
    case KOVEX_TYPE_MATRIX4: out.Set(*static_cast<const Matrix4*>(v)); return true;
    default: return false;
    }
}

const Ptr<Object> s_nullObject;

} // namespace

// --- Storage ----------------------------------------------------------------------------

void Variable::Destroy()
{
    KOVEX_BASE_TYPE type = Type();
    switch (type)
    {
    case KOVEX_TYPE_ASTRING: reinterpret_cast<AString*>(m_storage)->~AString(); break;
    case KOVEX_TYPE_WSTRING: reinterpret_cast<WString*>(m_storage)->~WString(); break;
    case KOVEX_TYPE_OBJECT: reinterpret_cast<Ptr<Object>*>(m_storage)->~Ptr(); break;
    case KOVEX_TYPE_CUSTOM:
    case KOVEX_TYPE_ENUM:
    case KOVEX_TYPE_DELEGATE:
        if (const ValueClass* vc = AsValueClass(m_class))
        {
            if (m_tag & FLAG_MANAGED)
                vc->Delete(HeldPointer());
            else if (!(m_tag & (FLAG_HEAP | FLAG_REFERENCE)))
                vc->DestroyInPlace(m_storage); // an inline value still owns its members
        }
        break;
    default: break;
    }
    m_tag = 0;
    m_class = nullptr;
}

void Variable::Clear()
{
    Destroy();
    std::memset(m_storage, 0, sizeof m_storage);
}

Variable::Variable(const Variable& other) { *this = other; }

Variable& Variable::operator=(const Variable& other)
{
    if (this == &other)
        return *this;
    Clear();
    KOVEX_BASE_TYPE type = other.Type();
    switch (type)
    {
    case KOVEX_TYPE_ASTRING: new (m_storage) AString(other.As<AString>()); break;
    case KOVEX_TYPE_WSTRING: new (m_storage) WString(other.As<WString>()); break;
    case KOVEX_TYPE_OBJECT: new (m_storage) Ptr<Object>(other.As<Ptr<Object>>()); break;
    case KOVEX_TYPE_CUSTOM:
    case KOVEX_TYPE_ENUM:
    case KOVEX_TYPE_DELEGATE:
        m_tag = other.m_tag & ~FORM_MASK;
        m_class = other.m_class;
        AssignStructData(other);
        return *this;
    default: std::memcpy(m_storage, other.m_storage, sizeof m_storage); break;
    }
    m_tag = other.m_tag;
    m_class = other.m_class;
    return *this;
}

void Variable::AssignStructData(const Variable& other)
{
    const ValueClass* vc = AsValueClass(other.m_class);
    if (!vc)
        return;
    if (other.m_tag & FLAG_REFERENCE)
    {
        // A reference stays a reference to the same data, owned by nobody new.
        SetHeldPointer(other.HeldPointer());
        m_tag |= FLAG_REFERENCE;
    }
    else if (other.m_tag & FLAG_HEAP)
    {
        SetHeldPointer(vc->Clone(other.HeldPointer()));
        m_tag |= FLAG_HEAP | FLAG_MANAGED;
    }
    else
        vc->CopyConstruct(m_storage, other.m_storage);
}

template <typename T>
Variable& Variable::StorePlain(const T& value, KOVEX_BASE_TYPE type)
{
    Clear();
    static_assert(sizeof(T) <= kStorageSize);
    new (m_storage) T(value);
    m_tag = uint32(type);
    return *this;
}

Variable& Variable::operator=(bool v) { return StorePlain(v, KOVEX_TYPE_BOOL); }
Variable& Variable::operator=(int v) { return StorePlain(int32(v), KOVEX_TYPE_INT32); }
Variable& Variable::operator=(unsigned int v) { return StorePlain(uint32(v), KOVEX_TYPE_UINT32); }
Variable& Variable::operator=(float v) { return StorePlain(v, KOVEX_TYPE_FLOAT); }
Variable& Variable::operator=(const Vector2& v) { return StorePlain(v, KOVEX_TYPE_VECTOR2); }
Variable& Variable::operator=(const Vector3& v) { return StorePlain(v, KOVEX_TYPE_VECTOR3); }
Variable& Variable::operator=(const Vector4& v) { return StorePlain(v, KOVEX_TYPE_VECTOR4); }
Variable& Variable::operator=(const Quaternion& v) { return StorePlain(v, KOVEX_TYPE_QUATERNION); }
Variable& Variable::operator=(const Matrix2& v) { return StorePlain(v, KOVEX_TYPE_MATRIX2); }
Variable& Variable::operator=(const Matrix3& v) { return StorePlain(v, KOVEX_TYPE_MATRIX3); }
Variable& Variable::operator=(const Matrix4& v) { return StorePlain(v, KOVEX_TYPE_MATRIX4); }
Variable& Variable::operator=(const AString& v) { return StorePlain(v, KOVEX_TYPE_ASTRING); }
Variable& Variable::operator=(const WString& v) { return StorePlain(v, KOVEX_TYPE_WSTRING); }
Variable& Variable::operator=(const Ptr<Object>& v) { return StorePlain(v, KOVEX_TYPE_OBJECT); }
Variable& Variable::operator=(Object* v) { return StorePlain(Ptr<Object>(v), KOVEX_TYPE_OBJECT); }

Variable& Variable::operator=(const char* v)
{
    // Keep the text alive across Clear when it points into this variable.
    AString text(v);
    return StorePlain(text, KOVEX_TYPE_ASTRING);
}

Variable& Variable::operator=(const char16_t* v)
{
    WString text(v);
    return StorePlain(text, KOVEX_TYPE_WSTRING);
}

// --- Queries ------------------------------------------------------------------------------

Object* Variable::GetObject() const
{
    return Type() == KOVEX_TYPE_OBJECT ? As<Ptr<Object>>().Get() : nullptr;
}

bool Variable::IsValidObject() const { return GetObject() != nullptr; }

bool Variable::IsValidStructData() const { return Type() == KOVEX_TYPE_CUSTOM && GetStructMem() != nullptr; }

void* Variable::GetPointer()
{
    KOVEX_BASE_TYPE type = Type();
    if (type >= KOVEX_TYPE_BOOL && type <= KOVEX_TYPE_WSTRING)
        return m_storage;
    if (type == KOVEX_TYPE_OBJECT)
        return GetObject();
    if (IsStructLike(type))
        return GetStructMem();
    return nullptr;
}

bool Variable::operator==(const Variable& other) const
{
    KOVEX_BASE_TYPE type = Type();
    if (type != other.Type())
        return false;
    switch (type)
    {
    case KOVEX_TYPE_BOOL: return GetBool() == other.GetBool();
    case KOVEX_TYPE_INT32: return GetInt() == other.GetInt();
    case KOVEX_TYPE_UINT32: return GetUInt() == other.GetUInt();
    case KOVEX_TYPE_ASTRING: return As<AString>() == other.As<AString>();
    case KOVEX_TYPE_WSTRING: return As<WString>() == other.As<WString>();
    case KOVEX_TYPE_OBJECT: return GetObject() == other.GetObject();
    case KOVEX_TYPE_CUSTOM:
    case KOVEX_TYPE_ENUM:
    case KOVEX_TYPE_DELEGATE: return IsStructDataEqual(other);
    default:
        if (unsigned size = PlainSize(type))
            return FloatsEqual(m_storage, other.m_storage, size);
        return true;
    }
}

bool Variable::IsStructDataEqual(const Variable& other) const
{
    if (!m_class || !other.m_class || m_class != other.m_class)
        return false;
    const ValueClass* vc = AsValueClass(m_class);
    const void* a = GetStructMem();
    const void* b = other.GetStructMem();
    if (!vc || !a || !b)
        return false;
    return vc->IsEqual(a, b);
}

unsigned int Variable::GetMemerySize() const
{
    unsigned size = unsigned(sizeof(Variable));
    if (Object* object = GetObject())
        size += object->GetClass()->GetSize();
    if ((m_tag & FLAG_MANAGED) && m_class)
        size += m_class->GetSize();
    return size;
}

// --- Struct-like values --------------------------------------------------------------------

void Variable::SetStructDataMem(const void* data, const Class* cls, bool copy, bool own)
{
    const ValueClass* vc = AsValueClass(cls);
    m_tag &= ~FORM_MASK;
    m_class = cls;
    if (!copy)
    {
        SetHeldPointer(const_cast<void*>(data));
        m_tag |= FLAG_REFERENCE | (own ? FLAG_MANAGED : 0u);
        return;
    }
    if (!vc || !data)
    {
        SetHeldPointer(nullptr);
        m_tag |= FLAG_REFERENCE;
        return;
    }
    if (cls->GetSize() <= kStorageSize)
    {
        std::memset(m_storage, 0, sizeof m_storage);
        vc->CopyConstruct(m_storage, data);
    }
    else
    {
        SetHeldPointer(vc->Clone(data));
        m_tag |= FLAG_HEAP | FLAG_MANAGED;
    }
}

bool Variable::SetStructMem(const void* data, const Class* cls, bool copy, bool own)
{
    if (!cls || !(cls->IsStruct() || cls->IsDelegate() || cls->IsEnum()))
        return false;
    KOVEX_BASE_TYPE type = cls->GetType();
    if (type >= KOVEX_TYPE_VECTOR2 && type <= KOVEX_TYPE_MATRIX4)
    {
        Clear();
        if (data)
            std::memcpy(m_storage, data, PlainSize(type));
        m_tag = uint32(type);
        m_class = cls;
        return true;
    }
    if (!IsStructLike(type))
        return true;
    Clear();
    m_tag = uint32(type);
    SetStructDataMem(data, cls, copy, own);
    return true;
}

void Variable::SetEnumValue(int value, const EnumClass* cls)
{
    if (!cls)
        return;
    Clear();
    *reinterpret_cast<int32*>(m_storage) = value;
    m_class = cls;
    m_tag = KOVEX_TYPE_ENUM;
}

void Variable::SetDefaultValue(const Class* cls)
{
    Clear();
    if (!cls)
        return;
    KOVEX_BASE_TYPE type = cls->GetType();
    switch (type)
    {
    case KOVEX_TYPE_QUATERNION: new (m_storage) Quaternion(); break;
    case KOVEX_TYPE_MATRIX2: new (m_storage) Matrix2(); break;
    case KOVEX_TYPE_MATRIX3: new (m_storage) Matrix3(); break;
    case KOVEX_TYPE_MATRIX4: new (m_storage) Matrix4(); break;
    case KOVEX_TYPE_ASTRING: new (m_storage) AString(); break;
    case KOVEX_TYPE_WSTRING: new (m_storage) WString(); break;
    case KOVEX_TYPE_OBJECT: new (m_storage) Ptr<Object>(); break;
    case KOVEX_TYPE_CUSTOM:
    case KOVEX_TYPE_ENUM:
    case KOVEX_TYPE_DELEGATE:
        if (const ValueClass* vc = AsValueClass(cls))
        {
            m_class = cls;
            if (cls->GetSize() <= kStorageSize)
                vc->DefaultConstruct(m_storage);
            else
            {
                SetHeldPointer(vc->Clone(nullptr));
                m_tag = FLAG_HEAP | FLAG_MANAGED;
            }
        }
        break;
    default: break;
    }
    if (type >= KOVEX_TYPE_VECTOR2 && type <= KOVEX_TYPE_MATRIX4 && cls->IsStruct())
        m_class = cls;
    m_tag |= uint32(type);
}

// --- Text ---------------------------------------------------------------------------------

bool Variable::ToString(WString& out) const
{
    out.Clear();
    KOVEX_BASE_TYPE type = Type();
    switch (type)
    {
    case KOVEX_TYPE_BOOL: out.Format(u"%d", GetBool() ? 1 : 0); return true;
    case KOVEX_TYPE_INT32: out.Format(u"%d", GetInt()); return true;
    case KOVEX_TYPE_UINT32: out.Format(u"%u", GetUInt()); return true;
    case KOVEX_TYPE_ASTRING: StringConvFuncs::UTF8toUTF16(out, As<AString>()(), As<AString>().Length()); return true;
    case KOVEX_TYPE_WSTRING: out = As<WString>(); return true;
    case KOVEX_TYPE_OBJECT:
        if (Object* object = GetObject())
            return object->ToString(out);
        out = u"null";
        return true;
    case KOVEX_TYPE_ENUM:
        if (m_class && m_class->IsEnum())
        {
            out = static_cast<const EnumClass*>(m_class)->GetMemberName(GetInt());
            return true;
        }
        return false;
    default: return PrintPlain(out, type, m_storage);
    }
}

WString Variable::ToString() const
{
    WString out;
    ToString(out);
    return out;
}

bool Variable::GetAString(AString& out) const
{
    if (Type() == KOVEX_TYPE_ASTRING)
        out = As<AString>();
    else if (Type() == KOVEX_TYPE_WSTRING)
        StringConvFuncs::UTF16toUTF8(out, As<WString>()(), As<WString>().Length());
    else
        return false;
    return true;
}

bool Variable::GetWString(WString& out) const
{
    if (Type() == KOVEX_TYPE_WSTRING)
        out = As<WString>();
    else if (Type() == KOVEX_TYPE_ASTRING)
        StringConvFuncs::UTF8toUTF16(out, As<AString>()(), As<AString>().Length());
    else
        return false;
    return true;
}

bool Variable::CopyRef(const Variable& other)
{
    if (this == &other)
        return false;
    if (other.Type() == KOVEX_TYPE_OBJECT)
    {
        *this = other.As<Ptr<Object>>();
        return true;
    }
    if (other.Type() == KOVEX_TYPE_CUSTOM)
        return SetStructMem(other.GetStructMem(), other.m_class, false, false);
    Clear();
    return false;
}

// --- Conversion ------------------------------------------------------------------------------

bool Variable::Change(KOVEX_BASE_TYPE type, const Variable& source)
{
    KOVEX_BASE_TYPE from = source.Type();
    bool isText = from == KOVEX_TYPE_ASTRING || from == KOVEX_TYPE_WSTRING;
    const void* v = source.m_storage;
    Variable result;
    switch (type)
    {
    case KOVEX_TYPE_BOOL:
        if (from == KOVEX_TYPE_BOOL) result = source.GetBool();
        else if (from == KOVEX_TYPE_INT32) result = source.GetInt() != 0;
        else if (from == KOVEX_TYPE_UINT32) result = source.GetUInt() != 0;
        else if (from == KOVEX_TYPE_ASTRING) result = source.As<AString>().AsBool();
        else if (from == KOVEX_TYPE_WSTRING) result = source.As<WString>().AsBool();
        else return false;
        break;
    case KOVEX_TYPE_INT32:
    {
        int32 i = 0;
        if (from == KOVEX_TYPE_BOOL) i = source.GetBool() ? 1 : 0;
        else if (from == KOVEX_TYPE_INT32) i = source.GetInt();
        else if (from == KOVEX_TYPE_FLOAT) i = RoundToInt32(source.GetFloat());
        else if (from == KOVEX_TYPE_ASTRING) { if (!source.As<AString>().AsValue(i)) return false; }
        else if (from == KOVEX_TYPE_WSTRING) { if (!source.As<WString>().AsValue(i)) return false; }
        else return false;
        result = int(i);
        break;
    }
    case KOVEX_TYPE_UINT32:
    {
        uint32 u = 0;
        if (from == KOVEX_TYPE_BOOL) u = source.GetBool() ? 1u : 0u;
        else if (from == KOVEX_TYPE_UINT32) u = source.GetUInt();
        else if (from == KOVEX_TYPE_FLOAT) u = RoundToUInt32(source.GetFloat());
        else if (from == KOVEX_TYPE_ASTRING) { if (!source.As<AString>().AsValue(u)) return false; }
        else if (from == KOVEX_TYPE_WSTRING) { if (!source.As<WString>().AsValue(u)) return false; }
        else return false;
        result = (unsigned int)u;
        break;
    }
    case KOVEX_TYPE_FLOAT:
    {
        float f = 0;
        if (from == KOVEX_TYPE_INT32) f = float(source.GetInt());
        else if (from == KOVEX_TYPE_UINT32) f = float(source.GetUInt());
        else if (from == KOVEX_TYPE_FLOAT || from == KOVEX_TYPE_VECTOR2 || from == KOVEX_TYPE_VECTOR3 ||
                 from == KOVEX_TYPE_VECTOR4)
            f = *static_cast<const float*>(v);
        else if (from == KOVEX_TYPE_ASTRING) { if (!source.As<AString>().AsValue(f)) return false; }
        else if (from == KOVEX_TYPE_WSTRING) { if (!source.As<WString>().AsValue(f)) return false; }
        else return false;
        result = f;
        break;
    }
    case KOVEX_TYPE_VECTOR2:
    case KOVEX_TYPE_VECTOR3:
    case KOVEX_TYPE_VECTOR4:
    {
        unsigned n = type == KOVEX_TYPE_VECTOR2 ? 2 : (type == KOVEX_TYPE_VECTOR3 ? 3 : 4);
        float c[4] = {0, 0, 0, 0};
        const float* s = static_cast<const float*>(v);
        if (from == KOVEX_TYPE_FLOAT)
            for (unsigned i = 0; i < n; ++i)
                c[i] = s[0];
        else if (from == KOVEX_TYPE_VECTOR2 || from == KOVEX_TYPE_VECTOR3 || from == KOVEX_TYPE_VECTOR4 ||
                 (from == KOVEX_TYPE_QUATERNION && type == KOVEX_TYPE_VECTOR4))
        {
            unsigned have = from == KOVEX_TYPE_VECTOR2 ? 2 : (from == KOVEX_TYPE_VECTOR3 ? 3 : 4);
            for (unsigned i = 0; i < n && i < have; ++i)
                c[i] = s[i];
        }
        else if (isText)
        {
            bool ok;
            if (type == KOVEX_TYPE_VECTOR2)
                ok = from == KOVEX_TYPE_ASTRING ? source.As<AString>().AsValue(*reinterpret_cast<Vector2*>(c))
                                                : source.As<WString>().AsValue(*reinterpret_cast<Vector2*>(c));
            else if (type == KOVEX_TYPE_VECTOR3)
                ok = from == KOVEX_TYPE_ASTRING ? source.As<AString>().AsValue(*reinterpret_cast<Vector3*>(c))
                                                : source.As<WString>().AsValue(*reinterpret_cast<Vector3*>(c));
            else
                ok = from == KOVEX_TYPE_ASTRING ? source.As<AString>().AsValue(*reinterpret_cast<Vector4*>(c))
                                                : source.As<WString>().AsValue(*reinterpret_cast<Vector4*>(c));
            if (!ok)
                return false;
        }
        else
            return false;
        if (type == KOVEX_TYPE_VECTOR2) result = Vector2(c[0], c[1]);
        else if (type == KOVEX_TYPE_VECTOR3) result = Vector3(c[0], c[1], c[2]);
        else result = Vector4(c[0], c[1], c[2], c[3]);
        break;
    }
    case KOVEX_TYPE_ASTRING:
    {
        AString text;
        if (from >= KOVEX_TYPE_BOOL && from <= KOVEX_TYPE_MATRIX4) PrintPlain(text, from, v);
        else if (!source.GetAString(text)) return false;
        result = text;
        break;
    }
    case KOVEX_TYPE_WSTRING:
    {
        WString text;
        if (from >= KOVEX_TYPE_BOOL && from <= KOVEX_TYPE_MATRIX4) PrintPlain(text, from, v);
        else if (!source.GetWString(text)) return false;
        result = text;
        break;
    }
    default: return false;
    }
    *this = result;
    return true;
}

// --- Properties ---------------------------------------------------------------------------

bool Variable::GetPropertyValue(const Property* property, const void* object)
{
    if (!property || !object)
        return false;
    KOVEX_BASE_TYPE type = property->GetType();
    const Class* cls = property->GetClass();
    if (IsStructLike(type))
    {
        Clear();
        if (type == KOVEX_TYPE_CUSTOM && property->IsPointer())
        {
            // The getter hands out the address of the struct: refer to it.
            m_tag = uint32(type) | FLAG_REFERENCE;
            m_class = cls;
            return property->GetPropertyValue(object, m_storage);
        }
        SetDefaultValue(cls);
        return property->GetPropertyValue(object, GetStructMem());
    }
    // Plain values are written whole by the getter; only the types that own
    // something need a constructed empty value to be assigned to.
    Destroy();
    switch (type)
    {
    case KOVEX_TYPE_ASTRING: new (m_storage) AString(); break;
    case KOVEX_TYPE_WSTRING: new (m_storage) WString(); break;
    case KOVEX_TYPE_OBJECT: new (m_storage) Ptr<Object>(); break;
    case KOVEX_TYPE_BOOL:
    case KOVEX_TYPE_INT32:
    case KOVEX_TYPE_UINT32:
    case KOVEX_TYPE_FLOAT:
    case KOVEX_TYPE_VECTOR2:
    case KOVEX_TYPE_VECTOR3:
    case KOVEX_TYPE_VECTOR4:
    case KOVEX_TYPE_QUATERNION:
    case KOVEX_TYPE_MATRIX2:
    case KOVEX_TYPE_MATRIX3:
    case KOVEX_TYPE_MATRIX4: break;
    default:
        std::memset(m_storage, 0, sizeof m_storage);
        return false;
    }
    m_tag = uint32(type);
    m_class = cls;
    return property->GetPropertyValue(object, m_storage);
}

bool Variable::SetPropertyValue(const Property* property, void* object) const
{
    if (!property || !object)
        return false;
    KOVEX_BASE_TYPE type = property->GetType();
    if (Type() == type)
    {
        if (type == KOVEX_TYPE_OBJECT)
        {
            Object* value = GetObject();
            if (!value)
                return property->SetPropertyValue(object, &s_nullObject);
            // A reference of the wrong class is refused, silently.
            if (!value->GetClass()->IsKindOf(property->GetClass()))
                return false;
            return property->SetPropertyValue(object, m_storage);
        }
        if (IsStructLike(type))
        {
            if (m_class != property->GetClass())
                return false;
            return property->SetPropertyValue(object, GetStructMem());
        }
        return property->SetPropertyValue(object, m_storage);
    }
    Variable converted;
    if (!converted.Change(type, *this))
        return false;
    return converted.SetPropertyValue(property, object);
}

} // namespace KovexEngine
