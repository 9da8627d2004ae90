#include "serialization/XmlSerializer.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <rapidxml/rapidxml.hpp>

// rapidxml_print.hpp calls its helpers before declaring them, which newer
// compilers reject in templates; declaring them first fixes the lookup.
namespace rapidxml::internal {
template <class OutIt, class Ch> inline OutIt print_children(OutIt, const xml_node<Ch>*, int, int);
template <class OutIt, class Ch> inline OutIt print_attributes(OutIt, const xml_node<Ch>*, int);
template <class OutIt, class Ch> inline OutIt print_data_node(OutIt, const xml_node<Ch>*, int, int);
template <class OutIt, class Ch> inline OutIt print_cdata_node(OutIt, const xml_node<Ch>*, int, int);
template <class OutIt, class Ch> inline OutIt print_element_node(OutIt, const xml_node<Ch>*, int, int);
template <class OutIt, class Ch> inline OutIt print_declaration_node(OutIt, const xml_node<Ch>*, int, int);
template <class OutIt, class Ch> inline OutIt print_comment_node(OutIt, const xml_node<Ch>*, int, int);
template <class OutIt, class Ch> inline OutIt print_doctype_node(OutIt, const xml_node<Ch>*, int, int);
template <class OutIt, class Ch> inline OutIt print_pi_node(OutIt, const xml_node<Ch>*, int, int);
} // namespace rapidxml::internal
#include <rapidxml/rapidxml_print.hpp>

#include "io/Stream.h"
#include "kernel/CLocale.h"
#include "kernel/Log.h"
#include "kernel/StringConv.h"
#include "reflection/FunctionRegistration.h"
#include "reflection/Property.h"
#include "reflection/Struct.h"
#include "serialization/StructCodec.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS_EX(XmlSerializer, u"Engine")

void XmlSerializer::StaticConstructor(Class* cls)
{
    RegisterBases<XmlSerializer, Serializer>(cls);
    AddFunction(cls, u"GetSelfHdrCode", &XmlSerializer::GetSelfHdrCode);
    cls->ProcessClass();
}

AString XmlSerializer::GetSelfHdrCode() { return AString("XML"); }

using XmlNode = rapidxml::xml_node<char>;
using XmlAttribute = rapidxml::xml_attribute<char>;

struct XmlSerializer::State
{
    std::vector<char> text; // parsed in place while reading
    rapidxml::xml_document<char> document;
    XmlNode* current = nullptr;
    XmlNode* lastLeft = nullptr;
    // After SetPos while writing: the next value of the same name written to
    // `rewriteNode` replaces the attribute that followed `rewriteAfter`.
    XmlNode* rewriteNode = nullptr;
    XmlAttribute* rewriteAfter = nullptr;

    void Reset()
    {
        document.clear();
        current = &document;
        lastLeft = nullptr;
        rewriteNode = nullptr;
        rewriteAfter = nullptr;
    }
};

namespace {

struct XmlPos : Serializer::_Pos
{
    XmlNode* node = nullptr;
    XmlNode* lastLeft = nullptr;
    XmlAttribute* lastAttribute = nullptr;
};

// The deepest element nesting of the text, found without recursion; tags,
// quoted attribute values, comments and declarations are stepped over.
unsigned MeasureNesting(const char* text, const char* end)
{
    unsigned depth = 0, deepest = 0;
    for (const char* p = text; p < end; ++p)
    {
        if (*p != '<')
            continue;
        ++p;
        if (p >= end)
            break;
        if (*p == '/')
        {
            if (depth)
                --depth;
        }
        else if (*p != '!' && *p != '?')
        {
            deepest = std::max(deepest, ++depth);
            for (; p < end && *p != '>'; ++p)
                if (*p == '"' || *p == '\'')
                {
                    char quote = *p++;
                    while (p < end && *p != quote)
                        ++p;
                }
                else if (*p == '/' && p + 1 < end && p[1] == '>')
                    --depth;
            continue;
        }
        while (p < end && *p != '>')
            ++p;
    }
    return deepest;
}

// --- Value text ---------------------------------------------------------------------------------

void AppendFloats(std::string& out, const float* values, unsigned count)
{
    char buffer[32];
    for (unsigned i = 0; i < count; ++i)
    {
        if (i)
            out += ',';
        out.append(buffer, CLocale::FormatDouble(buffer, sizeof buffer, 'g', double(values[i]), -1, false, false, false));
    }
}

void AppendValue(std::string& out, bool v) { out += v ? '1' : '0'; }
void AppendValue(std::string& out, int64 v)
{
    char buffer[24];
    out.append(buffer, size_t(std::snprintf(buffer, sizeof buffer, "%" PRId64, v)));
}
void AppendValue(std::string& out, uint64 v)
{
    char buffer[24];
    out.append(buffer, size_t(std::snprintf(buffer, sizeof buffer, "%" PRIu64, v)));
}
void AppendValue(std::string& out, uint8 v) { AppendValue(out, int64(v)); }
void AppendValue(std::string& out, int16 v) { AppendValue(out, int64(v)); }
void AppendValue(std::string& out, uint16 v) { AppendValue(out, int64(v)); }
void AppendValue(std::string& out, int32 v) { AppendValue(out, int64(v)); }
void AppendValue(std::string& out, uint32 v) { AppendValue(out, uint64(v)); }
void AppendValue(std::string& out, float v) { AppendFloats(out, &v, 1); }
void AppendValue(std::string& out, double v)
{
    char buffer[32];
    out.append(buffer, CLocale::FormatDouble(buffer, sizeof buffer, 'g', v, -1, false, false, false));
}
void AppendValue(std::string& out, const Vector2& v) { AppendFloats(out, v.Data(), 2); }
void AppendValue(std::string& out, const Vector3& v) { AppendFloats(out, v.Data(), 3); }
void AppendValue(std::string& out, const Vector4& v) { AppendFloats(out, v.Data(), 4); }
void AppendValue(std::string& out, const Matrix2& v) { AppendFloats(out, v.Data(), 4); }
void AppendValue(std::string& out, const Matrix3& v) { AppendFloats(out, v.Data(), 9); }
void AppendValue(std::string& out, const Matrix4& v) { AppendFloats(out, v.Data(), 16); }

template <typename T>
bool ParseValue(const char* text, unsigned length, T& out)
{
    return AString(text, length).AsValue(out);
}
template <>
bool ParseValue(const char* text, unsigned length, bool& out)
{
    AString word(text, length);
    if (word.IsValidBool())
        return word.AsValue(out);
    int32 number = 0;
    if (!word.AsValue(number))
        return false;
    out = number != 0;
    return true;
}

// Splits "a,b;c" style text: the next token ends at any of `stops`.
struct Tokens
{
    const char* at;
    const char* end;

    bool Next(const char* stops, const char*& token, unsigned& length, char& stop)
    {
        if (at > end)
            return false;
        token = at;
        while (at < end && !std::strchr(stops, *at))
            ++at;
        length = unsigned(at - token);
        stop = at < end ? *at : '\0';
        ++at;
        return true;
    }
};

// `count` values joined by ",", the last one followed by `last` (the end
// of the text is '\0').
template <typename T>
bool ParseList(Tokens& tokens, const char* stops, char last, T* out, unsigned count)
{
    for (unsigned i = 0; i < count; ++i)
    {
        const char* token;
        unsigned length;
        char stop;
        if (!tokens.Next(stops, token, length, stop) || stop != (i + 1 == count ? last : ',') ||
            !ParseValue(token, length, out[i]))
            return false;
    }
    return true;
}

// "count;" at the front of array text; the count cannot exceed what the
// remaining text could hold, so a forged count allocates nothing.
bool ParseCount(Tokens& tokens, unsigned& count)
{
    const char* token;
    unsigned length;
    char stop;
    if (!tokens.Next(";", token, length, stop) || stop != ';' || !ParseValue(token, length, count))
        return false;
    return count <= uint64(tokens.end - tokens.at) + 1;
}

// Opens array text: its count, which must fit a caller's buffer of
// `capacity` when nothing is allocated.
bool OpenArray(const char* text, unsigned length, bool allocate, unsigned capacity, Tokens& tokens, unsigned& stored)
{
    tokens = Tokens{text, text + length};
    return text && ParseCount(tokens, stored) && (allocate || stored <= capacity);
}

// --- Plain records ------------------------------------------------------------------------------

bool AppendField(std::string& out, const uint8* record, const SerializeMemLayout::Field& field)
{
    const uint8* at = record + field.offset;
    auto load = [at](auto v) {
        std::memcpy(&v, at, sizeof v);
        return v;
    };
    switch (field.type)
    {
    case SerializeMemLayout::UInt8: AppendValue(out, load(uint8())); return true;
    case SerializeMemLayout::Int16: AppendValue(out, load(int16())); return true;
    case SerializeMemLayout::UInt16: AppendValue(out, load(uint16())); return true;
    case SerializeMemLayout::Int32: AppendValue(out, load(int32())); return true;
    case SerializeMemLayout::UInt32: AppendValue(out, load(uint32())); return true;
    case SerializeMemLayout::Int64: AppendValue(out, load(int64())); return true;
    case SerializeMemLayout::UInt64: AppendValue(out, load(uint64())); return true;
    case SerializeMemLayout::Float: AppendValue(out, load(float())); return true;
    case SerializeMemLayout::Double: AppendValue(out, load(double())); return true;
    }
    return false;
}

bool ParseField(const char* text, unsigned length, uint8* record, const SerializeMemLayout::Field& field)
{
    auto store = [&](auto v) {
        if (!ParseValue(text, length, v))
            return false;
        std::memcpy(record + field.offset, &v, sizeof v);
        return true;
    };
    switch (field.type)
    {
    case SerializeMemLayout::UInt8: return store(uint8());
    case SerializeMemLayout::Int16: return store(int16());
    case SerializeMemLayout::UInt16: return store(uint16());
    case SerializeMemLayout::Int32: return store(int32());
    case SerializeMemLayout::UInt32: return store(uint32());
    case SerializeMemLayout::Int64: return store(int64());
    case SerializeMemLayout::UInt64: return store(uint64());
    case SerializeMemLayout::Float: return store(float());
    case SerializeMemLayout::Double: return store(double());
    }
    return false;
}

bool IsUsableLayout(const SerializeMemLayout& layout)
{
    if (layout.GetSize() == 0 || layout.GetFields().IsEmpty())
        return false;
    for (const SerializeMemLayout::Field& field : layout.GetFields())
        if (uint64(field.offset) + SerializeMemLayout::GetTypeSize(field.type) > layout.GetSize())
            return false;
    return true;
}

bool AppendRecord(std::string& out, const uint8* record, const SerializeMemLayout& layout)
{
    bool first = true;
    for (const SerializeMemLayout::Field& field : layout.GetFields())
    {
        if (!first)
            out += ',';
        first = false;
        if (!AppendField(out, record, field))
            return false;
    }
    out += ';';
    return true;
}

bool ParseRecord(Tokens& tokens, uint8* record, const SerializeMemLayout& layout)
{
    const auto& fields = layout.GetFields();
    for (unsigned i = 0; i < fields.Count(); ++i)
    {
        const char* token;
        unsigned length;
        char stop;
        if (!tokens.Next(",;", token, length, stop) || stop != (i + 1 == fields.Count() ? ';' : ',') ||
            !ParseField(token, length, record, fields[i]))
            return false;
    }
    return true;
}

// --- Structs, as text ---------------------------------------------------------------------------

bool AppendStruct(std::string& out, const uint8* data, const Struct* type, unsigned depth);

// A string member ends at its ";": a ";" or "\\" inside it is escaped by a
// backslash, so that the text reads back to the same string.
void AppendEscaped(std::string& out, const char* text, unsigned length)
{
    for (unsigned i = 0; i < length; ++i)
    {
        if (text[i] == ';' || text[i] == '\\')
            out += '\\';
        out += text[i];
    }
}

bool AppendMember(std::string& out, const uint8* at, const Property* field, unsigned depth)
{
    switch (field->GetType())
    {
    case KOVEX_TYPE_BOOL: AppendValue(out, *reinterpret_cast<const bool*>(at)); break;
    case KOVEX_TYPE_INT32:
    case KOVEX_TYPE_ENUM: AppendValue(out, *reinterpret_cast<const int32*>(at)); break;
    case KOVEX_TYPE_UINT32: AppendValue(out, *reinterpret_cast<const uint32*>(at)); break;
    case KOVEX_TYPE_FLOAT: AppendValue(out, *reinterpret_cast<const float*>(at)); break;
    case KOVEX_TYPE_VECTOR2: AppendFloats(out, reinterpret_cast<const float*>(at), 2); break;
    case KOVEX_TYPE_VECTOR3: AppendFloats(out, reinterpret_cast<const float*>(at), 3); break;
    case KOVEX_TYPE_VECTOR4:
    case KOVEX_TYPE_QUATERNION:
    case KOVEX_TYPE_MATRIX2: AppendFloats(out, reinterpret_cast<const float*>(at), 4); break;
    case KOVEX_TYPE_MATRIX3: AppendFloats(out, reinterpret_cast<const float*>(at), 9); break;
    case KOVEX_TYPE_MATRIX4: AppendFloats(out, reinterpret_cast<const float*>(at), 16); break;
    case KOVEX_TYPE_ASTRING:
    {
        const AString& text = *reinterpret_cast<const AString*>(at);
        AppendEscaped(out, text(), text.Length());
        break;
    }
    case KOVEX_TYPE_WSTRING:
    {
        const WString& text = *reinterpret_cast<const WString*>(at);
        AString utf8;
        StringConvFuncs::UTF16toUTF8(utf8, text(), text.Length());
        AppendEscaped(out, utf8(), utf8.Length());
        break;
    }
    case KOVEX_TYPE_CUSTOM:
        // A nested struct's members follow in place, each with its ";".
        if (!field->GetClass()->IsStruct())
            return false;
        return AppendStruct(out, at, static_cast<const Struct*>(field->GetClass()), depth + 1);
    default: return false;
    }
    out += ';';
    return true;
}

bool AppendStruct(std::string& out, const uint8* data, const Struct* type, unsigned depth)
{
    if (!type || depth > StructCodec::kMaxDepth)
        return false;
    for (const Property* field : type->GetStructFields())
        if (field->GetOffset() < 0 || !AppendMember(out, data + field->GetOffset(), field, depth))
            return false;
    return true;
}

// --- Structs, read back from their text ------------------------------------------------------------

// The next member's text, up to its ";", with escapes resolved.
bool NextMember(Tokens& tokens, std::string& member)
{
    member.clear();
    for (; tokens.at < tokens.end; ++tokens.at)
    {
        char c = *tokens.at;
        if (c == ';')
        {
            ++tokens.at;
            return true;
        }
        if (c == '\\' && tokens.at + 1 < tokens.end)
            c = *++tokens.at;
        member += c;
    }
    return false;
}

// Exactly `count` floats joined by commas.
bool ParseFloats(const std::string& text, float* out, unsigned count)
{
    Tokens parts{text.data(), text.data() + text.size()};
    return ParseList(parts, ",", '\0', out, count);
}

bool ParseStruct(Tokens& tokens, uint8* data, const Struct* type, unsigned depth, const Property*& failed);

// Reads one member into `at`; on failure `failed` names the field.
bool ParseMember(Tokens& tokens, uint8* at, const Property* field, unsigned depth, const Property*& failed)
{
    failed = field;
    KOVEX_BASE_TYPE kind = field->GetType();
    if (kind == KOVEX_TYPE_CUSTOM)
        return field->GetClass()->IsStruct() &&
               ParseStruct(tokens, at, static_cast<const Struct*>(field->GetClass()), depth + 1, failed);
    std::string member;
    if (!NextMember(tokens, member))
        return false;
    const char* text = member.data();
    unsigned length = unsigned(member.size());
    auto parse = [&](auto& value) { return ParseValue(text, length, value); };
    bool ok = false;
    switch (kind)
    {
    case KOVEX_TYPE_BOOL:
    {
        bool value = false;
        ok = parse(value);
        if (ok)
            *reinterpret_cast<bool*>(at) = value;
        break;
    }
    case KOVEX_TYPE_INT32:
    case KOVEX_TYPE_ENUM: ok = parse(*reinterpret_cast<int32*>(at)); break;
    case KOVEX_TYPE_UINT32: ok = parse(*reinterpret_cast<uint32*>(at)); break;
    case KOVEX_TYPE_FLOAT: ok = ParseFloats(member, reinterpret_cast<float*>(at), 1); break;
    case KOVEX_TYPE_VECTOR2: ok = ParseFloats(member, reinterpret_cast<float*>(at), 2); break;
    case KOVEX_TYPE_VECTOR3: ok = ParseFloats(member, reinterpret_cast<float*>(at), 3); break;
    case KOVEX_TYPE_VECTOR4:
    case KOVEX_TYPE_QUATERNION:
    case KOVEX_TYPE_MATRIX2: ok = ParseFloats(member, reinterpret_cast<float*>(at), 4); break;
    case KOVEX_TYPE_MATRIX3: ok = ParseFloats(member, reinterpret_cast<float*>(at), 9); break;
    case KOVEX_TYPE_MATRIX4: ok = ParseFloats(member, reinterpret_cast<float*>(at), 16); break;
    case KOVEX_TYPE_ASTRING:
        reinterpret_cast<AString*>(at)->Set(text, length);
        ok = true;
        break;
    case KOVEX_TYPE_WSTRING:
        StringConvFuncs::UTF8toUTF16(*reinterpret_cast<WString*>(at), text, length);
        ok = true;
        break;
    default: break;
    }
    return ok;
}

// Members in field order, as AppendStruct wrote them.
bool ParseStruct(Tokens& tokens, uint8* data, const Struct* type, unsigned depth, const Property*& failed)
{
    failed = nullptr;
    if (depth > StructCodec::kMaxDepth)
        return false;
    for (const Property* field : type->GetStructFields())
    {
        failed = field;
        if (field->GetOffset() < 0 || !ParseMember(tokens, data + field->GetOffset(), field, depth, failed))
            return false;
    }
    return true;
}

// The members written per value (nested structs counted by their own): each
// ends with a ";", which bounds a count of values read from a text.
uint64 MemberCount(const Struct* type, unsigned depth)
{
    uint64 count = 0;
    if (depth <= StructCodec::kMaxDepth)
        for (const Property* field : type->GetStructFields())
            count += field->GetType() == KOVEX_TYPE_CUSTOM && field->GetClass()->IsStruct()
                         ? MemberCount(static_cast<const Struct*>(field->GetClass()), depth + 1)
                         : 1;
    return count;
}

// One value from the text, read into a copy first, so that a bad text leaves
// the value as it was; the failure names the field. A `whole` text holds
// this one value and nothing behind it.
bool ReadStructText(FourCC tag, Tokens& tokens, void* value, const Struct* type, bool whole)
{
    void* scratch = type->Clone(value);
    if (!scratch)
        return false;
    const Property* failed = nullptr;
    bool ok = ParseStruct(tokens, static_cast<uint8*>(scratch), type, 0, failed);
    if (!ok)
        Log::Format(LOG_WARNING, u"XmlSerializer: field '%s' of struct '%s' in \"%S\" is missing or unreadable.\n",
                    failed ? failed->GetName()() : u"",
                    (failed && failed->GetOwnerClass() ? failed->GetOwnerClass() : type)->GetName()(),
                    FourCCs::ToString(tag)());
    else if (whole && tokens.at < tokens.end)
    {
        Log::Format(LOG_WARNING, u"XmlSerializer: \"%S\" holds more than one struct '%s'.\n", FourCCs::ToString(tag)(),
                    type->GetName()());
        ok = false;
    }
    if (ok)
        type->Copy(value, scratch);
    type->Delete(scratch);
    return ok;
}

} // namespace

// --- The serializer ---------------------------------------------------------------------------------

XmlSerializer::XmlSerializer() : m_state(new State()) { m_state->Reset(); }

XmlSerializer::~XmlSerializer()
{
    if (m_stream)
        InternalClose();
    delete m_state;
}

Serializer::_Pos* XmlSerializer::CreatePos() { return new XmlPos(); }

void XmlSerializer::GetPos(_Pos* position)
{
    auto* p = static_cast<XmlPos*>(position);
    if (!p)
        return;
    p->node = m_state->current;
    p->lastLeft = m_state->lastLeft;
    p->lastAttribute = m_state->current ? m_state->current->last_attribute() : nullptr;
}

bool XmlSerializer::SetPos(const _Pos* position)
{
    auto* p = static_cast<const XmlPos*>(position);
    if (!p || !p->node)
        return false;
    m_state->current = p->node;
    m_state->lastLeft = p->lastLeft;
    // Writing goes back to the attribute that followed the position, so a
    // count written ahead of its list is replaced in place, not repeated.
    m_state->rewriteNode = m_mode == MODE_WRITE ? p->node : nullptr;
    m_state->rewriteAfter = p->lastAttribute;
    return true;
}

bool XmlSerializer::Open(const Ptr<Stream>& stream, SerializeMode mode)
{
    if (!AttachStream(stream, mode))
        return false;
    m_state->Reset();
    m_state->text.clear();
    if (mode == MODE_WRITE)
        return true;

    auto fail = [&] {
        m_state->Reset();
        m_state->text.clear();
        stream->Close();
        m_stream = nullptr;
        return false;
    };
    int64 size = stream->GetSize();
    if (size < 8 || size - 8 >= int64(DataStream::kMaxSize) || !PopHdr())
        return fail();
    std::vector<char>& text = m_state->text;
    text.resize(size_t(size - 8) + 1);
    if (size > 8 && !stream->Read(text.data(), int(size - 8)))
        return fail();
    text.back() = '\0';
    if (MeasureNesting(text.data(), text.data() + text.size() - 1) > kMaxNesting)
    {
        Log::Format(LOG_ERROR, 512, u"Parse xml error = %s \n", u"elements nested too deeply");
        return fail();
    }
    try
    {
        m_state->document.parse<0>(text.data());
    }
    catch (const rapidxml::parse_error& error)
    {
        WString what;
        StringConvFuncs::UTF8toUTF16(what, error.what(), unsigned(std::strlen(error.what())));
        Log::Format(LOG_ERROR, 512, u"Parse xml error = %s \n", what());
        return fail();
    }
    m_state->current = &m_state->document;
    return true;
}

void XmlSerializer::InternalClose()
{
    if (m_mode == MODE_WRITE && m_stream)
    {
        std::string out;
        out.reserve(1024);
        rapidxml::print(std::back_inserter(out), m_state->document, 0);
        if (PushHdr() && !out.empty())
            m_stream->Write(out.data(), int(out.size()));
    }
    m_state->Reset();
    m_state->text.clear();
    m_state->text.shrink_to_fit();
    if (m_stream)
        m_stream->Close();
    m_stream = nullptr;
}

// --- Sections ---------------------------------------------------------------------------------------

bool XmlSerializer::InternalEnter(FourCC tag)
{
    State& s = *m_state;
    if (tag == 0 || !s.current || !m_stream)
        return false;
    AString name = FourCCs::ToString(tag);
    s.rewriteNode = nullptr;
    if (m_mode == MODE_WRITE)
    {
        char* stored = s.document.allocate_string(name(), name.Length());
        XmlNode* child = s.document.allocate_node(rapidxml::node_element, stored, nullptr, name.Length());
        s.current->append_node(child);
        s.current = child;
        return true;
    }
    XmlNode* found = nullptr;
    if (s.lastLeft)
        found = s.lastLeft->next_sibling(name(), name.Length());
    if (!found)
        found = s.current->first_node(name(), name.Length());
    if (!found)
        return false;
    s.current = found;
    s.lastLeft = nullptr;
    return true;
}

bool XmlSerializer::InternalEnterNext(FourCC tag)
{
    // After a section was left only a later sibling may follow: no wrapping
    // back to the first.
    State& s = *m_state;
    if (m_mode == MODE_READ && s.lastLeft)
    {
        AString name = FourCCs::ToString(tag);
        if (!s.lastLeft->next_sibling(name(), name.Length()))
            return false;
    }
    return InternalEnter(tag);
}

unsigned int XmlSerializer::CountSections(FourCC tag) const
{
    const State& s = *m_state;
    unsigned count = 0;
    if (m_mode != MODE_READ || !s.current || tag == 0)
        return 0;
    AString name = FourCCs::ToString(tag);
    for (XmlNode* child = s.current->first_node(name(), name.Length()); child;
         child = child->next_sibling(name(), name.Length()))
        ++count;
    return count;
}

void XmlSerializer::InternalLeave()
{
    State& s = *m_state;
    if (!s.current || s.current == &s.document)
        return;
    s.rewriteNode = nullptr;
    if (m_mode == MODE_READ)
        s.lastLeft = s.current;
    s.current = s.current->parent();
}

// --- Values -----------------------------------------------------------------------------------------

bool XmlSerializer::WriteText(FourCC tag, const char* text, unsigned length)
{
    State& s = *m_state;
    if (m_mode != MODE_WRITE || !s.current || s.current == &s.document || tag == 0)
        return false;
    AString name = FourCCs::ToString(tag);
    char* value = s.document.allocate_string(text, length);
    if (s.rewriteNode == s.current)
    {
        s.rewriteNode = nullptr;
        XmlAttribute* target = s.rewriteAfter ? s.rewriteAfter->next_attribute() : s.current->first_attribute();
        if (target && target->name_size() == name.Length() && std::memcmp(target->name(), name(), name.Length()) == 0)
        {
            target->value(value, length);
            return true;
        }
    }
    char* stored = s.document.allocate_string(name(), name.Length());
    s.current->append_attribute(s.document.allocate_attribute(stored, value, name.Length(), length));
    return true;
}

const char* XmlSerializer::FindText(FourCC tag, unsigned* length) const
{
    const State& s = *m_state;
    if (m_mode != MODE_READ || !s.current || s.current == &s.document || tag == 0)
        return nullptr;
    AString name = FourCCs::ToString(tag);
    XmlAttribute* attribute = s.current->first_attribute(name(), name.Length());
    if (!attribute)
        return nullptr;
    if (length)
        *length = unsigned(attribute->value_size());
    return attribute->value();
}

#define KOVEX_XML_SCALAR(T) \
    bool XmlSerializer::Read(FourCC tag, T& value) \
    { \
        unsigned length = 0; \
        const char* text = FindText(tag, &length); \
        return text && ParseValue(text, length, value); \
    } \
    bool XmlSerializer::Write(FourCC tag, const T& value) \
    { \
        std::string text; \
        AppendValue(text, value); \
        return WriteText(tag, text.data(), unsigned(text.size())); \
    }
KOVEX_SERIALIZER_SCALARS(KOVEX_XML_SCALAR)
#undef KOVEX_XML_SCALAR

bool XmlSerializer::Read(FourCC tag, AString& value)
{
    unsigned length = 0;
    const char* text = FindText(tag, &length);
    if (!text)
        return false;
    value.Set(text, length);
    return true;
}

bool XmlSerializer::Write(FourCC tag, const AString& value) { return WriteText(tag, value(), value.Length()); }

template <typename T>
bool XmlSerializer::WriteArray(FourCC tag, const T* values, unsigned int count)
{
    if (!values && count)
        return false;
    std::string text;
    AppendValue(text, uint32(count));
    text += ';';
    for (unsigned i = 0; i < count; ++i)
    {
        if (i)
            text += ',';
        AppendValue(text, values[i]);
    }
    if (count)
        text += ';';
    return WriteText(tag, text.data(), unsigned(text.size()));
}

template <typename T>
bool XmlSerializer::ReadArray(FourCC tag, T*& values, unsigned int& count, bool allocate)
{
    if (!values && !allocate)
        return false;
    unsigned length = 0, stored = 0;
    const char* text = FindText(tag, &length);
    Tokens tokens{};
    if (!OpenArray(text, length, allocate, count, tokens, stored))
        return false;
    if (stored == 0)
    {
        count = 0;
        return true;
    }
    T* target = allocate ? new (std::nothrow) T[stored] : values;
    if (!target)
        return false;
    if (!ParseList(tokens, ",;", ';', target, stored))
    {
        if (allocate)
            delete[] target;
        return false;
    }
    values = target;
    count = stored;
    return true;
}

#define KOVEX_XML_ARRAY(T) \
    bool XmlSerializer::Read(FourCC tag, T*& values, unsigned int& count, bool allocate) { return ReadArray(tag, values, count, allocate); } \
    bool XmlSerializer::Write(FourCC tag, const T* values, unsigned int count) { return WriteArray(tag, values, count); }
KOVEX_SERIALIZER_ARRAYS(KOVEX_XML_ARRAY)
#undef KOVEX_XML_ARRAY

bool XmlSerializer::Write(FourCC tag, const void* record, const SerializeMemLayout& layout)
{
    if (!record || !IsUsableLayout(layout))
        return false;
    std::string text;
    return AppendRecord(text, static_cast<const uint8*>(record), layout) &&
           WriteText(tag, text.data(), unsigned(text.size()));
}

bool XmlSerializer::Read(FourCC tag, void* record, const SerializeMemLayout& layout)
{
    if (!record || !IsUsableLayout(layout))
        return false;
    unsigned length = 0;
    const char* text = FindText(tag, &length);
    if (!text)
        return false;
    // Parsed aside first, so a bad text leaves the record as it was.
    std::vector<uint8> scratch(static_cast<const uint8*>(record), static_cast<const uint8*>(record) + layout.GetSize());
    Tokens tokens{text, text + length};
    if (!ParseRecord(tokens, scratch.data(), layout))
        return false;
    std::memcpy(record, scratch.data(), scratch.size());
    return true;
}

bool XmlSerializer::Write(FourCC tag, const void* records, unsigned int count, const SerializeMemLayout& layout)
{
    if ((!records && count) || !IsUsableLayout(layout))
        return false;
    std::string text;
    AppendValue(text, uint32(count));
    text += ';';
    for (unsigned i = 0; i < count; ++i)
        if (!AppendRecord(text, static_cast<const uint8*>(records) + uint64(i) * layout.GetSize(), layout))
            return false;
    return WriteText(tag, text.data(), unsigned(text.size()));
}

bool XmlSerializer::Read(FourCC tag, void*& records, unsigned int& count, const SerializeMemLayout& layout, bool allocate)
{
    if ((!records && !allocate) || !IsUsableLayout(layout))
        return false;
    unsigned length = 0, stored = 0;
    const char* text = FindText(tag, &length);
    Tokens tokens{};
    if (!OpenArray(text, length, allocate, count, tokens, stored))
        return false;
    if (stored == 0)
    {
        count = 0;
        return true;
    }
    // Each field of each record ends with a separator in the text.
    uint64 bytes = uint64(stored) * layout.GetSize();
    if (bytes > DataStream::kMaxSize ||
        uint64(stored) * layout.GetFields().Count() > uint64(tokens.end - tokens.at) + 1)
        return false;
    uint8* target = allocate ? new (std::nothrow) uint8[size_t(bytes)]() : static_cast<uint8*>(records);
    if (!target)
        return false;
    for (unsigned i = 0; i < stored; ++i)
        if (!ParseRecord(tokens, target + uint64(i) * layout.GetSize(), layout))
        {
            if (allocate)
                delete[] target;
            return false;
        }
    records = target;
    count = stored;
    return true;
}

bool XmlSerializer::Write(FourCC tag, const void* value, const Struct* type)
{
    std::string text;
    return value && type && AppendStruct(text, static_cast<const uint8*>(value), type, 0) &&
           WriteText(tag, text.data(), unsigned(text.size()));
}

bool XmlSerializer::Write(FourCC tag, const void* values, unsigned int count, const Struct* type)
{
    if ((!values && count) || !type)
        return false;
    std::string text;
    AppendValue(text, uint32(count));
    text += ';';
    for (unsigned i = 0; i < count; ++i)
        if (!AppendStruct(text, static_cast<const uint8*>(values) + uint64(i) * type->GetSize(), type, 0))
            return false;
    return WriteText(tag, text.data(), unsigned(text.size()));
}

bool XmlSerializer::Read(FourCC tag, void* value, const Struct* type)
{
    if (!value || !type)
        return false;
    unsigned length = 0;
    const char* text = FindText(tag, &length);
    if (!text)
        return false;
    Tokens tokens{text, text + length};
    return ReadStructText(tag, tokens, value, type, true);
}

bool XmlSerializer::Read(FourCC tag, void*& values, unsigned int& count, const Struct* type, bool allocate)
{
    if (!type || (!values && !allocate) || type->GetSize() == 0)
        return false;
    unsigned length = 0, stored = 0;
    const char* text = FindText(tag, &length);
    Tokens tokens{};
    if (!OpenArray(text, length, allocate, count, tokens, stored))
        return false;
    // Each value writes at least one ";" a member.
    if (uint64(stored) * std::max<uint64>(1, MemberCount(type, 0)) > uint64(tokens.end - tokens.at) + 1)
        return false;
    void* target = allocate && stored ? type->NewArray(stored) : values;
    if (!target)
        return false;
    for (unsigned i = 0; i < stored; ++i)
        if (!ReadStructText(tag, tokens, static_cast<uint8*>(target) + uint64(i) * type->GetSize(), type, false))
        {
            if (target != values)
                type->DeleteArray(target);
            return false;
        }
    count = stored;
    if (stored)
        values = target;
    return true;
}

} // namespace KovexEngine
