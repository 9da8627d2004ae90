#pragma once

#include <memory>

#include "io/Stream.h"
#include "kernel/SharedString.h"
#include "reflection/Object.h"

namespace KovexEngine {

class Aabb;
class Obb;
class Sphere;
class Struct;
class Serializer;

// Four characters as one word, first character in the most significant byte:
// "OBID" is 0x4F424944 and "CLS" 0x00434C53.
namespace FourCCs {
template <unsigned N>
constexpr FourCC Make(const char (&text)[N])
{
    static_assert(N >= 2 && N <= 5, "a tag has one to four characters");
    FourCC tag = 0;
    for (unsigned i = 0; i + 1 < N; ++i)
        tag = tag << 8 | uint8(text[i]);
    return tag;
}
// The text of a tag: the bytes from the most significant down, zero bytes left out.
KOVEX_API AString ToString(FourCC tag);
// False for an empty text or one of more than four characters.
KOVEX_API bool FromString(const char* text, FourCC& out);

inline constexpr FourCC OBID = Make("OBID");
inline constexpr FourCC VLD = Make("VLD");
inline constexpr FourCC CLS = Make("CLS");
inline constexpr FourCC PRSZ = Make("PRSZ");
inline constexpr FourCC PROP = Make("PROP");
inline constexpr FourCC NAME = Make("NAME");
inline constexpr FourCC VAL = Make("VAL");
inline constexpr FourCC SKT = Make("SKT");
inline constexpr FourCC OBJ = Make("OBJ");
inline constexpr FourCC REF = Make("REF");
inline constexpr FourCC PATH = Make("PATH");
inline constexpr FourCC HSPH = Make("HSPH");
inline constexpr FourCC DATA = Make("DATA");
// Containers and delegates as property values (and as items of containers).
inline constexpr FourCC ARRY = Make("ARRY"); // section: an array; "CNT", then "ITEM" sections
inline constexpr FourCC MAP = Make("MAP");   // section: a map; "CNT", then "ITEM" sections
inline constexpr FourCC CNT = Make("CNT");   // number of "ITEM" sections that follow
inline constexpr FourCC ITEM = Make("ITEM"); // section: one element, or one pair of a map
inline constexpr FourCC KEY = Make("KEY");   // section in a map's "ITEM": the key
inline constexpr FourCC VALU = Make("VALU"); // section in a map's "ITEM": the value
inline constexpr FourCC DLGT = Make("DLGT"); // section: a delegate; its target, then "FUNC"
inline constexpr FourCC SELF = Make("SELF"); // bool: the target is the object that holds the delegate
inline constexpr FourCC FUNC = Make("FUNC"); // name of the reflected function a delegate calls
} // namespace FourCCs

// The layout of a plain record stored raw (binary) or field by field (XML).
class KOVEX_API SerializeMemLayout
{
public:
    enum SerializeMemType : uint8
    {
        UInt8 = 0,
        Int16 = 1,
        UInt16 = 2,
        Int32 = 3,
        UInt32 = 4,
        Int64 = 5,
        UInt64 = 6,
        Float = 7,
        Double = 8,
    };
    struct Field
    {
        SerializeMemType type;
        unsigned offset;
    };

    explicit SerializeMemLayout(unsigned int recordSize) : m_size(recordSize) {}
    // A record of `recordSize` bytes with `count` fields, each given by two
    // further int arguments: its SerializeMemType and its byte offset.
    SerializeMemLayout(unsigned int recordSize, unsigned int count, ...);
    static unsigned GetTypeSize(SerializeMemType type);

    SerializeMemLayout& Add(SerializeMemType type, unsigned offset);
    // A field of `record` by its own type, at its offset in the record (a
    // vector adds one float per component). A field outside the record's
    // first `size` bytes is not added.
    SerializeMemLayout& Add(const void* record, const uint8& field);
    SerializeMemLayout& Add(const void* record, const int16& field);
    SerializeMemLayout& Add(const void* record, const uint16& field);
    SerializeMemLayout& Add(const void* record, const int32& field);
    SerializeMemLayout& Add(const void* record, const uint32& field);
    SerializeMemLayout& Add(const void* record, const int64& field);
    SerializeMemLayout& Add(const void* record, const uint64& field);
    SerializeMemLayout& Add(const void* record, const float& field);
    SerializeMemLayout& Add(const void* record, const double& field);
    SerializeMemLayout& Add(const void* record, const Vector2& field);
    SerializeMemLayout& Add(const void* record, const Vector3& field);
    SerializeMemLayout& Add(const void* record, const Vector4& field);
    SerializeMemLayout& AddVector(unsigned components, unsigned offset);
    unsigned int GetSize() const { return m_size; }
    const TArray<Field>& GetFields() const { return m_fields; }

private:
    SerializeMemLayout& AddAt(const void* record, const void* field, SerializeMemType type, unsigned components);

    unsigned int m_size;
    TArray<Field> m_fields;
};

// Decides how referred resources are treated during one save.
class KOVEX_API SerializerState : public ReferenceObj
{
public:
    ~SerializerState() override;
    virtual bool allowSaveAsRef(const Object* object);
    virtual bool needSerialize(const Object* object);
    virtual void markSerialized(const Object* object);
    virtual bool canCacheObject(const Object* object);
};

// Each cached resource is written once in one save run.
class KOVEX_API DefaultSerailizerState : public SerializerState
{
public:
    bool needSerialize(const Object* object) override;
    void markSerialized(const Object* object) override;

private:
    TArray<const Object*> m_written;
};

// The one interface of all persistent data: a tree of sections entered by
// tag, holding tagged values. Values are asked for by tag, so a reader that
// asks for a value an older file lacks gets false and goes on.
class KOVEX_API Serializer : public Object
{
    KOVEX_CLASS(Serializer)

public:
    enum SerializeMode
    {
        MODE_READ = 0,
        MODE_WRITE = 1,
    };

    class KOVEX_API _Pos
    {
    public:
        virtual ~_Pos();
    };

    ~Serializer() override;

    static AString GetSelfHdrCode();
    virtual const char* GetHdrCode() const;

    virtual _Pos* CreatePos() = 0;
    virtual void GetPos(_Pos* position) = 0;
    virtual bool SetPos(const _Pos* position) = 0;
    virtual bool Open(const Ptr<Stream>& stream, SerializeMode mode) = 0;

    // --- Values (each form implements every overload) -------------------------
#define KOVEX_SERIALIZER_SCALARS(X) \
    X(bool) X(uint8) X(int16) X(uint16) X(int32) X(uint32) X(int64) X(uint64) X(float) X(double) \
    X(Vector2) X(Vector3) X(Vector4) X(Matrix2) X(Matrix3) X(Matrix4)
#define KOVEX_SERIALIZER_ARRAYS(X) X(uint8) X(int16) X(uint16) X(int32) X(uint32) X(float)
#define KOVEX_SERIALIZER_DECLARE_SCALAR(T) \
    virtual bool Read(FourCC tag, T& value) = 0; \
    virtual bool Write(FourCC tag, const T& value) = 0;
#define KOVEX_SERIALIZER_DECLARE_ARRAY(T) \
    virtual bool Read(FourCC tag, T*& values, unsigned int& count, bool allocate) = 0; \
    virtual bool Write(FourCC tag, const T* values, unsigned int count) = 0;
    KOVEX_SERIALIZER_SCALARS(KOVEX_SERIALIZER_DECLARE_SCALAR)
    KOVEX_SERIALIZER_ARRAYS(KOVEX_SERIALIZER_DECLARE_ARRAY)
    virtual bool Read(FourCC tag, AString& value) = 0;
    virtual bool Write(FourCC tag, const AString& value) = 0;
    // A FourCC value travels as an unsigned int.
    bool ReadTag(FourCC tag, FourCC& value) { return Read(tag, reinterpret_cast<uint32&>(value)); }
    bool WriteTag(FourCC tag, const FourCC& value) { return Write(tag, static_cast<const uint32&>(value)); }
    // A new terminated copy, freed by the caller with delete[].
    bool Read(FourCC tag, char*& value);
    bool Write(FourCC tag, const char* value);
    // Plain records.
    virtual bool Read(FourCC tag, void* record, const SerializeMemLayout& layout) = 0;
    virtual bool Write(FourCC tag, const void* record, const SerializeMemLayout& layout) = 0;
    virtual bool Read(FourCC tag, void*& records, unsigned int& count, const SerializeMemLayout& layout, bool allocate) = 0;
    virtual bool Write(FourCC tag, const void* records, unsigned int count, const SerializeMemLayout& layout) = 0;
    // Structs, described by their reflected fields.
    virtual bool Read(FourCC tag, void* value, const Struct* type) = 0;
    virtual bool Write(FourCC tag, const void* value, const Struct* type) = 0;
    virtual bool Read(FourCC tag, void*& values, unsigned int& count, const Struct* type, bool allocate) = 0;
    virtual bool Write(FourCC tag, const void* values, unsigned int count, const Struct* type) = 0;

    // Non-virtual conveniences.
    bool Read(FourCC tag, WString& value);
    bool Write(FourCC tag, const WString& value);
    bool Read(FourCC tag, TSharedString<AString>& value);
    bool Write(FourCC tag, const TSharedString<AString>& value);
    bool Read(FourCC tag, TSharedString<WString>& value);
    bool Write(FourCC tag, const TSharedString<WString>& value);
    bool Read(FourCC tag, Quaternion& value);
    bool Write(FourCC tag, const Quaternion& value);
    bool Read(FourCC tag, Sphere& value);
    bool Write(FourCC tag, const Sphere& value);
    bool Read(FourCC tag, Aabb& value);
    bool Write(FourCC tag, const Aabb& value);
    bool Read(FourCC tag, Obb& value);
    bool Write(FourCC tag, const Obb& value);
#undef KOVEX_SERIALIZER_DECLARE_SCALAR
#undef KOVEX_SERIALIZER_DECLARE_ARRAY

    // --- Sections ---------------------------------------------------------------
    bool Enter(FourCC tag) { return InternalEnter(tag); }
    // When reading: the section with this tag right after the one just left
    // (the first one when none was left here), and never the first again, so
    // that a run of repeated sections is read once and its end is seen.
    // When writing it is Enter.
    bool EnterNext(FourCC tag) { return InternalEnterNext(tag); }
    void Leave() { InternalLeave(); }
    void Close();
    // While reading: how many sections of `tag` lie directly inside the
    // current one. A count read from the file is never trusted beyond it.
    virtual unsigned int CountSections(FourCC tag) const = 0;

    // --- Objects ----------------------------------------------------------------
    // An object graph: each object is stored once per file; later references
    // store only its number. A null pointer is stored as "VLD" false.
    bool SaveObject(const ConstPtr<Object>& object, unsigned int flags);
    bool LoadObject(Ptr<Object>& out, Object* outer, unsigned int flags);
    // Writes the object's number; true when the object was new.
    bool SaveObjId(const ConstPtr<Object>& object);
    void ClearSerializedObj();

    // --- Paths ------------------------------------------------------------------
    // An absolute path in a form relative to a base directory ("./x",
    // "@rest" in the same package, "[alias]rest" in another), and back.
    static void MakePath(WString& path, const WString& baseDir);
    static void UnmakePath(WString& path, const WString& baseDir);
    void MakePath(WString& path) const;
    void UnmakePath(WString& path) const;

    // --- Forms --------------------------------------------------------------------
    static Serializer* OpenReadStream(const Ptr<Stream>& stream);
    static Serializer* OpenWriteStream(const Ptr<Stream>& stream);
    static Serializer* CreateDefaultSerialzier();
    // A new serializer of the form `form`, owned by the caller (delete it);
    // null when the class is not a serializer form.
    static Serializer* Create(const Class* form);
    static const Class* GetDefaultSerializer();
    static void SetDefaultSerializer(const Class* cls);
    static void SetDefaultSerializer(bool useXml);
    static const Class* FindSerializer(const AString& code);
    // The three letters of an 8-byte header "<XYZ />\n", or empty.
    static AString GetHdrCode(const uint8 (&header)[8]);

    SerializeMode GetMode() const { return m_mode; }
    const Ptr<Stream>& GetStream() const { return m_stream; }
    unsigned int GetLoadFlags() const { return m_loadFlags; }
    void SetLoadFlags(unsigned int flags) { m_loadFlags = flags; }
    const Ptr<SerializerState>& GetState() const { return m_state; }
    void SetState(const Ptr<SerializerState>& state) { m_state = state; }

    // Deepest object nesting a load follows before it refuses the file.
    static constexpr unsigned kMaxObjectDepth = 256;

protected:
    Serializer();
    virtual void InternalClose() = 0;
    virtual bool InternalEnter(FourCC tag) = 0;
    virtual bool InternalEnterNext(FourCC tag) = 0;
    virtual void InternalLeave() = 0;

    bool PushHdr();
    bool PopHdr();
    // Opens the stream for the mode's access and takes it and the mode.
    bool AttachStream(const Ptr<Stream>& stream, SerializeMode mode);

    Ptr<SerializerState> m_state;
    SerializeMode m_mode = MODE_READ;
    Ptr<Stream> m_stream;
    unsigned int m_highestId = 0;
    unsigned int m_loadFlags = 0;
    TMap<unsigned int, Ptr<Object>> m_readObjects;
    // Written objects and their ids: a hash map, since a save of n objects
    // asks it n times (defined in the source).
    struct WrittenIds;
    std::unique_ptr<WrittenIds> m_writtenObjects;
    unsigned m_depth = 0;
};

// Writes a value that is known only after what follows it: Begin writes a
// place-holder, End goes back and writes the real value.
class KOVEX_API Serializer_WriteHeader
{
public:
    explicit Serializer_WriteHeader(Serializer* serializer) : m_serializer(serializer) {}
    virtual ~Serializer_WriteHeader();
    Serializer_WriteHeader(const Serializer_WriteHeader&) = delete;
    Serializer_WriteHeader& operator=(const Serializer_WriteHeader&) = delete;

    virtual bool WriteHeader(Serializer* serializer) const = 0;
    bool Begin();
    bool End();

private:
    Serializer* m_serializer;
    Serializer::_Pos* m_position = nullptr;
};

class KOVEX_API Serializer_WriteSize : public Serializer_WriteHeader
{
public:
    Serializer_WriteSize(Serializer* serializer, const unsigned int& size, FourCC tag)
        : Serializer_WriteHeader(serializer), m_size(size), m_tag(tag)
    {
    }
    bool WriteHeader(Serializer* serializer) const override { return serializer->Write(m_tag, m_size); }

private:
    const unsigned int& m_size;
    FourCC m_tag;
};

} // namespace KovexEngine
