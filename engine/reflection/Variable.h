#pragma once

#include "kernel/RefCount.h"
#include "kernel/Strings.h"
#include "reflection/BaseType.h"

namespace KovexEngine {

class Class;
class EnumClass;
class Object;
class Property;
class Struct;

// The tagged value that crosses every reflected boundary. Values of up to 64
// bytes live in the variable itself; a larger struct is copied to the heap,
// and a variable can also refer to data it does not own.
class KOVEX_API Variable
{
public:
    enum : uint32
    {
        TYPE_MASK = 0xFF,
        // The storage points to a heap copy of more than 64 bytes.
        FLAG_HEAP = 0x1000,
        // The storage points to data that belongs to somebody else.
        FLAG_REFERENCE = 0x2000,
        // This variable owns the pointed-to data and deletes it.
        FLAG_MANAGED = 0x4000,
        FORM_MASK = FLAG_HEAP | FLAG_REFERENCE | FLAG_MANAGED,
    };
    static constexpr unsigned kStorageSize = 64;

    Variable() = default;
    Variable(const Variable& other);
    Variable(bool value) { *this = value; }
    Variable(int value) { *this = value; }
    Variable(unsigned int value) { *this = value; }
    Variable(float value) { *this = value; }
    Variable(const char* value) { *this = value; }
    Variable(const AString& value) { *this = value; }
    Variable(const char16_t* value) { *this = value; }
    Variable(const WString& value) { *this = value; }
    Variable(const Vector2& value) { *this = value; }
    Variable(const Vector3& value) { *this = value; }
    Variable(const Vector4& value) { *this = value; }
    Variable(const Quaternion& value) { *this = value; }
    Variable(const Matrix2& value) { *this = value; }
    Variable(const Matrix3& value) { *this = value; }
    Variable(const Matrix4& value) { *this = value; }
    Variable(const Ptr<Object>& value) { *this = value; }
    Variable(Object* value) { *this = value; }
    ~Variable() { Destroy(); }

    Variable& operator=(const Variable& other);
    Variable& operator=(bool value);
    Variable& operator=(int value);
    Variable& operator=(unsigned int value);
    Variable& operator=(float value);
    Variable& operator=(const char* value);
    Variable& operator=(const AString& value);
    Variable& operator=(const char16_t* value);
    Variable& operator=(const WString& value);
    Variable& operator=(const Vector2& value);
    Variable& operator=(const Vector3& value);
    Variable& operator=(const Vector4& value);
    Variable& operator=(const Quaternion& value);
    Variable& operator=(const Matrix2& value);
    Variable& operator=(const Matrix3& value);
    Variable& operator=(const Matrix4& value);
    Variable& operator=(const Ptr<Object>& value);
    Variable& operator=(Object* value);

    bool operator==(const Variable& other) const;
    bool operator!=(const Variable& other) const { return !(*this == other); }

    KOVEX_BASE_TYPE Type() const { return KOVEX_BASE_TYPE(m_tag & TYPE_MASK); }
    uint32 GetTag() const { return m_tag; }
    const Class* GetClass() const { return m_class; }
    bool IsPtr() const { return (m_tag & FLAG_HEAP) != 0; }
    bool IsPtrType() const { return (m_tag & FLAG_REFERENCE) != 0; }
    bool IsManaged() const { return (m_tag & FLAG_MANAGED) != 0; }
    bool IsValidObject() const;
    bool IsValidStructData() const;
    bool IsValidObjectOrStructData() const { return IsValidObject() || IsValidStructData(); }

    // The value: the storage for types 1 to 13, the object for 14, the data
    // of a struct-like value for 15 to 17; null otherwise.
    void* GetPointer();
    const void* GetPointer() const { return const_cast<Variable*>(this)->GetPointer(); }
    void* GetStructMem() { return (m_tag & (FLAG_HEAP | FLAG_REFERENCE)) ? HeldPointer() : m_storage; }
    const void* GetStructMem() const { return const_cast<Variable*>(this)->GetStructMem(); }
    // The raw storage, whatever it holds.
    void* GetStorage() { return m_storage; }
    const void* GetStorage() const { return m_storage; }

    // Typed reads of plain values; the caller checks the type.
    bool GetBool() const { return *reinterpret_cast<const bool*>(m_storage); }
    int32 GetInt() const { return *reinterpret_cast<const int32*>(m_storage); }
    uint32 GetUInt() const { return *reinterpret_cast<const uint32*>(m_storage); }
    float GetFloat() const { return *reinterpret_cast<const float*>(m_storage); }
    Object* GetObject() const;
    template <typename T> const T& As() const { return *reinterpret_cast<const T*>(m_storage); }

    // Destroys the value and zeroes everything.
    void Clear();
    void SetEnumValue(int value, const EnumClass* cls);
    // Stores struct-like data of `cls` (a struct, delegate or enum class): a
    // copy, or a reference to `data` (owned with `own`).
    bool SetStructMem(const void* data, const Class* cls, bool copy, bool own);
    // The default value of a class's type.
    void SetDefaultValue(const Class* cls);
    unsigned int GetMemerySize() const;

    // Text of the value: numbers and bools with "%d"/"%u" (true prints 1),
    // vectors and matrices comma-separated, objects by their ToString (or
    // "null"), enums by member name. False, with empty text, otherwise.
    bool ToString(WString& out) const;
    WString ToString() const;
    bool GetAString(AString& out) const;
    bool GetWString(WString& out) const;
    bool GetString(WString& out) const { return GetWString(out); }

    // Shares an object or refers to a struct's data; false for anything else.
    bool CopyRef(const Variable& other);
    // Converts `source` to `type` by the fixed conversion table; on failure
    // this variable is left untouched and the result is false.
    bool Change(KOVEX_BASE_TYPE type, const Variable& source);

    // Reads a property of `object` (pointing at its owning class's part).
    bool GetPropertyValue(const Property* property, const void* object);
    // Writes into a property, converting when the types differ.
    bool SetPropertyValue(const Property* property, void* object) const;

private:
    void Destroy();
    void* HeldPointer() const { return *reinterpret_cast<void* const*>(m_storage); }
    void SetHeldPointer(void* p) { *reinterpret_cast<void**>(m_storage) = p; }
    void SetStructDataMem(const void* data, const Class* cls, bool copy, bool own);
    void AssignStructData(const Variable& other);
    bool IsStructDataEqual(const Variable& other) const;
    template <typename T> Variable& StorePlain(const T& value, KOVEX_BASE_TYPE type);

    alignas(16) unsigned char m_storage[kStorageSize] = {};
    const Class* m_class = nullptr;
    uint32 m_tag = 0;
};

} // namespace KovexEngine
