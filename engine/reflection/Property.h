#pragma once

#include "reflection/Class.h"

namespace KovexEngine {

class EnumClass;
class Serializer;
struct EnumMember;

// A reflected field or accessor pair of a class. Values cross it in their
// storage form: the plain value for types 1 to 13, a Ptr<Object> for 14, the
// struct's memory for 15 and 17, and an int for 16.
class KOVEX_API Property : public HeapObject
{
public:
    enum : uint32
    {
        FLAG_NATIVE = 0x1,
        FLAG_SCRIPT = 0x2,
        FLAG_STRUCT_FIELD = 0x4,
        FLAG_GETTER = 0x10,
        FLAG_SETTER = 0x20,
        FLAG_SERIALIZE = 0x40,
        FLAG_NO_COPY = 0x80,
        FLAG_SHARE_ON_CLONE = 0x100,
        FLAG_CLONE_IF_CLONABLE = 0x200,
        FLAG_READ_ONLY = 0x400,
        // A path: saved relative to the file, loaded back absolute.
        FLAG_FILE_PATH = 0x1000,   // an object or string stored as a path to its file
        FLAG_EXPANDED = 0x4000,    // editors show the referred object's own properties
        FLAG_SAVE_AS_FILE = 0x8000, // editors offer to save the referred object to a file of its own
        FLAG_POINTER = 0x10000,
    };

    Property(const WString& name, const Class* type, uint32 flags = 0);
    Property(const Property&) = delete;
    Property& operator=(const Property&) = delete;
    virtual ~Property();

    // The byte offset of a plain field in its owner, or -1.
    virtual int GetOffset() const;
    virtual unsigned int SizeOfProperty() const;
    // Reads the value of `object` (pointing at the owning class's part) into
    // `out`, which holds the value in its storage form.
    virtual bool GetPropertyValue(const void* object, void* out) const;
    virtual bool SetPropertyValue(void* object, const void* value) const;
    virtual void ProcessProperty();
    // The value of `object`'s property in a "PROP" section, by its type.
    virtual bool LoadPropertyValue(void* object, Serializer* serializer) const;
    virtual bool SavePropertyValue(const void* object, Serializer* serializer) const;

    // The stored forms of the text and object types: the value under "VAL"
    // (a path property relative to the file), or an object by reference
    // with its class name. Each reads or writes through the accessors.
    static bool LoadAString(const Property* property, void* object, Serializer* serializer);
    static bool SaveAString(const Property* property, const void* object, Serializer* serializer);
    static bool LoadWString(const Property* property, void* object, Serializer* serializer);
    static bool SaveWString(const Property* property, const void* object, Serializer* serializer);
    static bool LoadObject(const Property* property, void* object, Serializer* serializer);
    static bool SaveObject(const Property* property, const void* object, Serializer* serializer);

    const Class* GetOwnerClass() const { return m_owner; }
    void SetOwnerClass(const Class* owner) { m_owner = owner; }
    const Class* GetClass() const { return m_type; }
    KOVEX_BASE_TYPE GetType() const { return m_baseType; }
    uint32 GetFlags() const { return m_flags; }
    void SetFlags(uint32 flags) { m_flags = flags; }
    bool HasFlag(uint32 mask) const { return (m_flags & mask) != 0; }
    const WString& GetName() const { return m_name; }
    // "Key=Value;" entries for tools: Category, Display, Ext.
    const WString& GetMetadata() const { return m_metadata; }
    void SetMetadata(const WString& metadata) { m_metadata = metadata; }
    bool GetAttribute(const char16_t* key, WString& out) const { return m_metadata.GetAttribute(out, key); }

    bool IsNativeProperty() const { return HasFlag(FLAG_NATIVE); }
    bool IsScriptProperty() const { return HasFlag(FLAG_SCRIPT); }
    bool CanGetProperty() const { return HasFlag(FLAG_GETTER); }
    bool CanSetProperty() const { return HasFlag(FLAG_SETTER); }
    bool CanAccessProperty() const { return HasFlag(FLAG_GETTER) && HasFlag(FLAG_SETTER); }
    bool CanSerializeProperty() const { return HasFlag(FLAG_SERIALIZE); }
    bool IsReadOnly() const { return HasFlag(FLAG_READ_ONLY); }
    bool IsPointer() const { return HasFlag(FLAG_POINTER); }
    // The members of an enum property's class, or the empty list.
    const TArray<EnumMember>& GetEnums() const;

    // The stored form of a struct property (type 15): the struct's
    // LoadVariable into a temporary, then the setter; SaveStruct reads the
    // value through the getter and writes it with SaveVariable.
    static bool LoadStruct(void* object, const Property* property, Serializer* serializer);
    static bool SaveStruct(const void* object, const Property* property, Serializer* serializer);

protected:
    const Class* m_owner = nullptr;
    const Class* m_type;
    KOVEX_BASE_TYPE m_baseType; // the type class's, asked once
    uint32 m_flags;
    WString m_name;
    WString m_metadata;
};

// A property of native code: a field at an offset or an accessor pair. The
// typed forms below supply the reading and writing.
class KOVEX_API NativeProperty : public Property
{
public:
    NativeProperty(const WString& name, const Class* type, uint32 flags, int offset, bool canGet, bool canSet);
    int GetOffset() const override { return m_offset; }
    // Getter and setter flags from what the property can do; serialisable
    // when it can both read and write a type that has a stored form.
    void ProcessProperty() override;
    // True when values pass through accessor functions rather than a field.
    virtual bool UsesAccessors() const { return false; }

    // Struct values go through the adapters below; other types as Property's.
    bool LoadPropertyValue(void* object, Serializer* serializer) const override;
    bool SavePropertyValue(const void* object, Serializer* serializer) const override;
    // A struct in a plain field (no accessors, a real offset) is read and
    // written in place; otherwise as LoadStruct and SaveStruct do.
    static bool LoadStructFast(void* object, const Property* property, Serializer* serializer);
    static bool SaveStructFast(const void* object, const Property* property, Serializer* serializer);

private:
    int m_offset;
    bool m_canGet;
    bool m_canSet;
};

} // namespace KovexEngine
