#include "serialization/Serializer.h"

#include <cstdarg>
#include <cstring>
#include <unordered_map>

#include "io/StreamManager.h"
#include "kernel/EngineGlobals.h"
#include "kernel/Log.h"
#include "kernel/StringConv.h"
#include "math/Bounds.h"
#include "reflection/ClassIterator.h"
#include "reflection/FunctionRegistration.h"
#include "reflection/ObjectManager.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS_EX(Serializer, u"Engine")

void Serializer::StaticConstructor(Class* cls)
{
    RegisterBases<Serializer, Object>(cls);
    AddFunction(cls, u"GetSelfHdrCode", &Serializer::GetSelfHdrCode);
    cls->ProcessClass();
}

// --- Tags -------------------------------------------------------------------------------------

AString FourCCs::ToString(FourCC tag)
{
    // Built in place and copied once: the XML form names a section by it on
    // every read.
    char text[4];
    unsigned length = 0;
    for (int shift = 24; shift >= 0; shift -= 8)
        if (char c = char((tag >> shift) & 0xFF))
            text[length++] = c;
    return AString(text, length);
}

bool FourCCs::FromString(const char* text, FourCC& out)
{
    size_t length = text ? std::strlen(text) : 0;
    if (length == 0 || length > 4)
        return false;
    out = 0;
    for (size_t i = 0; i < length; ++i)
        out = (out << 8) | uint8(text[i]);
    return true;
}

// --- Layouts and states -------------------------------------------------------------------------

unsigned SerializeMemLayout::GetTypeSize(SerializeMemType type)
{
    switch (type)
    {
    case UInt8: return 1;
    case Int16:
    case UInt16: return 2;
    case Int32:
    case UInt32:
    case Float: return 4;
    default: return 8;
    }
}

SerializeMemLayout& SerializeMemLayout::Add(SerializeMemType type, unsigned offset)
{
    m_fields.Add(Field{type, offset});
    return *this;
}

SerializeMemLayout::SerializeMemLayout(unsigned int recordSize, unsigned int count, ...) : m_size(recordSize)
{
    va_list fields;
    va_start(fields, count);
    for (unsigned i = 0; i < count; ++i)
    {
        int type = va_arg(fields, int);
        int offset = va_arg(fields, int);
        if (type >= UInt8 && type <= Double && offset >= 0)
            Add(SerializeMemType(type), unsigned(offset));
    }
    va_end(fields);
}

SerializeMemLayout& SerializeMemLayout::AddAt(const void* record, const void* field, SerializeMemType type,
                                              unsigned components)
{
    auto offset = static_cast<const uint8*>(field) - static_cast<const uint8*>(record);
    if (offset < 0 || uint64(offset) + uint64(GetTypeSize(type)) * components > m_size)
        return *this;
    for (unsigned i = 0; i < components; ++i)
        Add(type, unsigned(offset) + i * GetTypeSize(type));
    return *this;
}

SerializeMemLayout& SerializeMemLayout::Add(const void* r, const uint8& f) { return AddAt(r, &f, UInt8, 1); }
SerializeMemLayout& SerializeMemLayout::Add(const void* r, const int16& f) { return AddAt(r, &f, Int16, 1); }
SerializeMemLayout& SerializeMemLayout::Add(const void* r, const uint16& f) { return AddAt(r, &f, UInt16, 1); }
SerializeMemLayout& SerializeMemLayout::Add(const void* r, const int32& f) { return AddAt(r, &f, Int32, 1); }
SerializeMemLayout& SerializeMemLayout::Add(const void* r, const uint32& f) { return AddAt(r, &f, UInt32, 1); }
SerializeMemLayout& SerializeMemLayout::Add(const void* r, const int64& f) { return AddAt(r, &f, Int64, 1); }
SerializeMemLayout& SerializeMemLayout::Add(const void* r, const uint64& f) { return AddAt(r, &f, UInt64, 1); }
SerializeMemLayout& SerializeMemLayout::Add(const void* r, const float& f) { return AddAt(r, &f, Float, 1); }
SerializeMemLayout& SerializeMemLayout::Add(const void* r, const double& f) { return AddAt(r, &f, Double, 1); }
SerializeMemLayout& SerializeMemLayout::Add(const void* r, const Vector2& f) { return AddAt(r, &f, Float, 2); }
SerializeMemLayout& SerializeMemLayout::Add(const void* r, const Vector3& f) { return AddAt(r, &f, Float, 3); }
SerializeMemLayout& SerializeMemLayout::Add(const void* r, const Vector4& f) { return AddAt(r, &f, Float, 4); }

SerializeMemLayout& SerializeMemLayout::AddVector(unsigned components, unsigned offset)
{
    for (unsigned i = 0; i < components; ++i)
        Add(Float, offset + 4 * i);
    return *this;
}

SerializerState::~SerializerState() = default;
bool SerializerState::allowSaveAsRef(const Object*) { return true; }
bool SerializerState::needSerialize(const Object*) { return true; }
void SerializerState::markSerialized(const Object*) {}
// Resources (objects with files of their own) are written once per run. The
// class is found by name: resources are a layer above this one.
bool SerializerState::canCacheObject(const Object* object)
{
    const Class* resource = Class::GetClass(WString(u"Resource"));
    return object && resource && object->GetClass()->IsKindOf(resource);
}

bool DefaultSerailizerState::needSerialize(const Object* object)
{
    return !canCacheObject(object) || m_written.Find(object) == kNotFound;
}

void DefaultSerailizerState::markSerialized(const Object* object)
{
    if (canCacheObject(object) && m_written.Find(object) == kNotFound)
        m_written.Add(object);
}

Serializer::_Pos::~_Pos() = default;
Serializer_WriteHeader::~Serializer_WriteHeader() { delete m_position; }

bool Serializer_WriteHeader::Begin()
{
    delete m_position;
    m_position = m_serializer->CreatePos();
    m_serializer->GetPos(m_position);
    return WriteHeader(m_serializer);
}

bool Serializer_WriteHeader::End()
{
    if (!m_position)
        return false;
    Serializer::_Pos* here = m_serializer->CreatePos();
    m_serializer->GetPos(here);
    bool ok = m_serializer->SetPos(m_position) && WriteHeader(m_serializer);
    m_serializer->SetPos(here);
    delete here;
    return ok;
}

// --- The serializer ---------------------------------------------------------------------------

struct Serializer::WrittenIds
{
    std::unordered_map<const Object*, unsigned int> ids;
};

Serializer::Serializer() = default;
Serializer::~Serializer() = default;

AString Serializer::GetSelfHdrCode() { return AString("UKN"); }
const char* Serializer::GetHdrCode() const { return "UKN"; }

AString Serializer::GetHdrCode(const uint8 (&h)[8])
{
    if (h[0] != '<' || h[4] != ' ' || h[5] != '/' || h[6] != '>' || h[7] != '\n')
        return AString();
    return AString(reinterpret_cast<const char*>(h + 1), 3);
}

bool Serializer::PushHdr()
{
    const char* code = GetHdrCode();
    uint8 header[8] = {'<', uint8(code[0]), uint8(code[1]), uint8(code[2]), ' ', '/', '>', '\n'};
    return m_stream && m_stream->Write(header, 8);
}

bool Serializer::PopHdr()
{
    uint8 header[8];
    if (!m_stream || !m_stream->Read(header, 8))
        return false;
    return GetHdrCode(header) == GetHdrCode();
}

bool Serializer::AttachStream(const Ptr<Stream>& stream, SerializeMode mode)
{
    if (!stream)
        return false;
    if (mode == MODE_READ)
        stream->SetReadOnly();
    else
        stream->SetWriteOnly();
    if (!stream->IsOpenned() && !stream->Open())
        return false;
    m_stream = stream;
    m_mode = mode;
    return true;
}

void Serializer::Close()
{
    m_highestId = 0;
    m_readObjects.Clear();
    m_writtenObjects.reset();
    InternalClose();
}

bool Serializer::Read(FourCC tag, char*& value)
{
    AString text;
    if (!Read(tag, text))
        return false;
    value = new char[text.Length() + 1];
    std::memcpy(value, text(), text.Length() + 1);
    return true;
}

bool Serializer::Write(FourCC tag, const char* value) { return Write(tag, AString(value)); }

bool Serializer::Read(FourCC tag, WString& value)
{
    AString text;
    if (!Read(tag, text))
        return false;
    StringConvFuncs::UTF8toUTF16(value, text(), text.Length());
    return true;
}

bool Serializer::Write(FourCC tag, const WString& value)
{
    AString text;
    StringConvFuncs::UTF16toUTF8(text, value(), value.Length());
    return Write(tag, text);
}

bool Serializer::Read(FourCC tag, TSharedString<AString>& value)
{
    AString text;
    if (!Read(tag, text))
        return false;
    value = TSharedString<AString>(text);
    return true;
}

bool Serializer::Write(FourCC tag, const TSharedString<AString>& value) { return Write(tag, value.Get()); }

bool Serializer::Read(FourCC tag, TSharedString<WString>& value)
{
    WString text;
    if (!Read(tag, text))
        return false;
    value = TSharedString<WString>(text);
    return true;
}

bool Serializer::Write(FourCC tag, const TSharedString<WString>& value) { return Write(tag, value.Get()); }

bool Serializer::Read(FourCC tag, Quaternion& value) { return Read(tag, reinterpret_cast<Vector4&>(value)); }
bool Serializer::Write(FourCC tag, const Quaternion& value) { return Write(tag, reinterpret_cast<const Vector4&>(value)); }

// A sphere is a Vector4 (centre and radius); boxes are their corners and axes.
bool Serializer::Read(FourCC tag, Sphere& value)
{
    Vector4 v;
    if (!Read(tag, v))
        return false;
    value = Sphere(v.XYZ(), v.w);
    return true;
}

bool Serializer::Write(FourCC tag, const Sphere& value) { return Write(tag, Vector4(value.center, value.radius)); }

bool Serializer::Read(FourCC tag, Aabb& value)
{
    float corners[6];
    float* data = corners;
    unsigned count = 6; // the buffer's capacity going in
    if (!Read(tag, data, count, false) || count != 6)
        return false;
    value = Aabb(Vector3(corners[0], corners[1], corners[2]), Vector3(corners[3], corners[4], corners[5]));
    return true;
}

bool Serializer::Write(FourCC tag, const Aabb& value)
{
    float corners[6] = {value.min.x, value.min.y, value.min.z, value.max.x, value.max.y, value.max.z};
    return Write(tag, corners, 6u);
}

bool Serializer::Read(FourCC tag, Obb& value)
{
    float values[15];
    float* data = values;
    unsigned count = 15;
    if (!Read(tag, data, count, false) || count != 15)
        return false;
    value.center = Vector3(values[0], values[1], values[2]);
    std::memcpy(value.axes.m, values + 3, 9 * sizeof(float));
    value.extent = Vector3(values[12], values[13], values[14]);
    return true;
}

bool Serializer::Write(FourCC tag, const Obb& value)
{
    float values[15] = {value.center.x, value.center.y, value.center.z};
    std::memcpy(values + 3, value.axes.m, 9 * sizeof(float));
    values[12] = value.extent.x;
    values[13] = value.extent.y;
    values[14] = value.extent.z;
    return Write(tag, values, 15u);
}

// --- Objects -----------------------------------------------------------------------------------

bool Serializer::SaveObjId(const ConstPtr<Object>& object)
{
    if (!m_writtenObjects)
        m_writtenObjects = std::make_unique<WrittenIds>();
    auto [at, isNew] = m_writtenObjects->ids.try_emplace(object.Get(), m_highestId + 1);
    if (isNew)
        ++m_highestId;
    Write(FourCCs::OBID, at->second);
    return isNew;
}

bool Serializer::SaveObject(const ConstPtr<Object>& object, unsigned int flags)
{
    if (!object)
        return Write(FourCCs::VLD, false);
    if (!SaveObjId(object))
        return true;
    return ObjectManager::Ins()->SaveObject(object.Get(), this, flags);
}

bool Serializer::LoadObject(Ptr<Object>& out, Object* outer, unsigned int flags)
{
    bool valid = true;
    if (Read(FourCCs::VLD, valid) && !valid)
    {
        out = nullptr;
        return true;
    }
    uint32 id = 0xFFFFFFFFu;
    bool hasId = Read(FourCCs::OBID, id);
    if (hasId)
        if (Ptr<Object>* known = m_readObjects.FindValue(id))
        {
            out = *known;
            return true;
        }
    // Nesting in a file is bounded: a hostile one must not exhaust the stack.
    if (m_depth >= kMaxObjectDepth)
    {
        Log::Print(LOG_ERROR, u"Serializer: objects nested too deeply.\n");
        out = nullptr;
        return false;
    }
    ++m_depth;
    out = ObjectManager::Ins()->LoadObject(outer, this, flags);
    --m_depth;
    if (out && hasId)
        m_readObjects.Set(id, out);
    return out.Get() != nullptr;
}

void Serializer::ClearSerializedObj()
{
    m_highestId = 0;
    m_readObjects.Clear();
    m_writtenObjects.reset();
}

// --- Paths ---------------------------------------------------------------------------------------

void Serializer::MakePath(WString& path, const WString& baseDir)
{
    if (path.IsEmpty())
        return;
    StreamManager* manager = StreamManager::Ins();
    WString relPath(path), relBase(baseDir);
    manager->MakeRelativePath(relPath, nullptr);
    manager->MakeRelativePath(relBase, nullptr);
    WString pathAlias, pathRest, baseAlias, baseRest;
    bool pathPackaged = StreamManager::GetPackageName(pathAlias, pathRest, relPath);
    bool basePackaged = StreamManager::GetPackageName(baseAlias, baseRest, relBase);
    bool done = false;
    if (pathPackaged && basePackaged && pathAlias == baseAlias)
    {
        if (!pathRest.StartsWith(baseRest()))
            path = u"@" + pathRest;
        else
            path = u"./" + pathRest.SubString(baseRest.Length());
        done = true;
    }
    else if (!pathPackaged && !basePackaged)
    {
        WString absPath(path), absBase(baseDir);
        manager->MakeAbsolutePath(absPath, nullptr);
        manager->MakeAbsolutePath(absBase, nullptr);
        if (absBase.IsValid() && absPath.StartsWith(absBase()))
        {
            path = u"./" + absPath.SubString(absBase.Length());
            done = true;
        }
    }
    else if (pathPackaged)
    {
        path = relPath;
        done = true;
    }
    if (!done && g_kovexRootPath.IsValid() && path.Length() > g_kovexRootPath.Length() &&
        path.StartsWith(g_kovexRootPath()))
        path = path.SubString(g_kovexRootPath.Length());
    path.ConvertSlashes();
}

void Serializer::UnmakePath(WString& path, const WString& baseDir)
{
    if (path.IsEmpty())
        return;
    StreamManager* manager = StreamManager::Ins();
    if (path()[0] == u'@')
    {
        WString relBase(baseDir), alias, rest;
        manager->MakeRelativePath(relBase, nullptr);
        StreamManager::GetPackageName(alias, rest, relBase);
        if (alias.IsEmpty())
        {
            Log::Format(LOG_WARNING, u"Can't find package name of %s.\n", baseDir());
            return;
        }
        WString aliasPath = manager->GetPackagePath(alias);
        if (aliasPath.IsEmpty())
        {
            Log::Format(LOG_WARNING, u"Can't find path of package %s.\n", alias());
            return;
        }
        path = aliasPath + path.SubString(1);
        path.FormatDir();
        path.ConvertSlashes();
        return;
    }
    if (path()[0] == u'.' && path.Length() > 2)
    {
        if (path.StartsWith(u"./") || path.StartsWith(u".\\"))
            path = baseDir + path.SubString(2);
        else if (path.Length() >= 4 && (path.StartsWith(u"../") || path.StartsWith(u"..\\")))
            path = baseDir + path;
    }
    manager->MakeAbsolutePath(path, nullptr);
}

void Serializer::MakePath(WString& path) const
{
    MakePath(path, m_stream ? m_stream->GetPath().ExtractDir() : WString());
}

void Serializer::UnmakePath(WString& path) const
{
    UnmakePath(path, m_stream ? m_stream->GetPath().ExtractDir() : WString());
}

// --- Choosing a form -------------------------------------------------------------------------------

namespace {
const Class* s_defaultSerializer = nullptr;
} // namespace

const Class* Serializer::GetDefaultSerializer()
{
    if (!s_defaultSerializer)
        s_defaultSerializer = Class::GetClass(WString(u"BinSerializer"));
    return s_defaultSerializer;
}

void Serializer::SetDefaultSerializer(const Class* cls)
{
    if (!cls || cls == s_defaultSerializer || cls->IsAbstract() || !cls->IsKindOf(Serializer::StaticGetClass()))
        return;
    s_defaultSerializer = cls;
}

void Serializer::SetDefaultSerializer(bool useXml)
{
    SetDefaultSerializer(Class::GetClass(WString(useXml ? u"XmlSerializer" : u"BinSerializer")));
}

Serializer* Serializer::CreateDefaultSerialzier() { return Create(GetDefaultSerializer()); }

Serializer* Serializer::Create(const Class* form)
{
    void* created = form && form->IsKindOf(Serializer::StaticGetClass()) ? form->Create() : nullptr;
    return created ? DynamicCast<Serializer>(static_cast<Object*>(form->GetClassPointer(created, Object::StaticGetClass())))
                   : nullptr;
}

const Class* Serializer::FindSerializer(const AString& code)
{
    for (DerivedClassIterator it(Serializer::StaticGetClass(), true); it.hasNext();)
    {
        const Class* cls = it.Next();
        if (cls->IsAbstract())
            continue;
        const Function* function = cls->FindFunction(WString(u"GetSelfHdrCode"), false);
        if (!function)
            continue;
        TFunctionStack<1> stack(0, true);
        if (function->Invoke(nullptr, stack.Get()) && stack->RetVar().Type() == KOVEX_TYPE_ASTRING &&
            stack->RetVar().As<AString>() == code)
            return cls;
    }
    return nullptr;
}

Serializer* Serializer::OpenWriteStream(const Ptr<Stream>& stream)
{
    if (!stream)
        return nullptr;
    Serializer* serializer = CreateDefaultSerialzier();
    if (serializer && !serializer->Open(stream, MODE_WRITE))
    {
        delete serializer;
        return nullptr;
    }
    return serializer;
}

Serializer* Serializer::OpenReadStream(const Ptr<Stream>& stream)
{
    if (!stream)
        return nullptr;
    if (!stream->IsOpenned())
    {
        stream->SetReadOnly();
        if (!stream->Open())
            return nullptr;
    }
    uint8 header[8];
    if (!stream->Read(header, 8))
    {
        stream->Close();
        return nullptr;
    }
    const Class* cls = FindSerializer(GetHdrCode(header));
    if (!cls)
    {
        stream->Close();
        return nullptr;
    }
    Serializer* serializer = Create(cls);
    stream->Close(); // the serializer reopens it from the start
    if (serializer && !serializer->Open(stream, MODE_READ))
    {
        delete serializer;
        stream->Close();
        return nullptr;
    }
    return serializer;
}

} // namespace KovexEngine
