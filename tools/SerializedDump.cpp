// kovex-dump: shows and converts files written by the engine's serializers.
// The help text is the manual. Conversion goes through the engine's own load
// and save, so it covers the classes this build knows and those of the
// libraries loaded with --load.

#include <dlfcn.h>

#include <rapidxml/rapidxml.hpp>

#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "KovexEngine.h"
#include "ToolEngine.h"

using namespace KovexEngine;
using namespace KovexTools;

namespace {

const std::string kHelp = std::string(
    "usage: kovex-dump [--data DIR] [--load LIB]... FILE\n"
    "       kovex-dump [--data DIR] [--load LIB]... to-xml IN OUT\n"
    "       kovex-dump [--data DIR] [--load LIB]... to-bin IN OUT\n"
    "\n"
    "The first form shows a serialized file on standard output: the section tree\n"
    "of a binary file, each section with its size, its first bytes in hex and,\n"
    "below them, the tagged values those bytes decode to where the sizes allow\n"
    "(integers, floats, strings); or the document of an XML file. A FILE whose\n"
    "name ends in \".node\" (either form) is shown as its scene tree instead: a\n"
    "line per node, indented by depth, with its name, class, modifiers, local\n"
    "translation, rotation (degrees) and scale, and its world box. to-xml and\n"
    "to-bin load the object graph of IN's OBJ section and save it to OUT in the\n"
    "other form. FILE or IN \"-\" is standard input, OUT \"-\" standard output.\n"
    "\n"
    "      --data DIR   the engine's data root (default: the usual search)\n"
    "      --load LIB   first load the shared library LIB, whose reflected\n"
    "                   classes register as it loads (may be repeated)\n"
    "  -h, --help       this text\n"
    "      --version    the version\n") + kExitStatusHelp;

CommandLine* g_cl = nullptr;
int Fail(const std::string& message) { return g_cl->Fail(message); }
std::string Quote(const std::string& text) { return "'" + text + "'"; }

const char kXmlHeader[] = "<XML />";

Ptr<Stream> OverBytes(const std::string& bytes)
{
    auto* data = new DataStream(unsigned(bytes.size()));
    if (!bytes.empty())
        std::memcpy(data->GetPointer(), bytes.data(), bytes.size());
    return Ptr<Stream>(new MemoryStream(data, true));
}

bool IsXml(const std::string& bytes) { return bytes.compare(0, sizeof kXmlHeader - 1, kXmlHeader) == 0; }

// Why a file that is not accepted is not: for XML the parser's complaint and
// its line, for anything else a general word.
std::string WhyUnreadable(const std::string& bytes)
{
    if (!IsXml(bytes))
        return "is not a serialized file, or is damaged";
    std::vector<char> text(bytes.begin() + 8 <= bytes.end() ? bytes.begin() + 8 : bytes.end(), bytes.end());
    text.push_back('\0');
    try
    {
        rapidxml::xml_document<char> document;
        document.parse<0>(text.data());
    }
    catch (const rapidxml::parse_error& error)
    {
        size_t offset = size_t(error.where<char>() - text.data());
        size_t line = 1;
        for (size_t i = 0; i < 8 && i < bytes.size(); ++i)
            line += bytes[i] == '\n';
        for (size_t i = 0; i < offset && i < text.size(); ++i)
            line += text[i] == '\n';
        return "is damaged: XML error on line " + std::to_string(line) + ": " + error.what();
    }
    return "is damaged: its XML is not a serialized document";
}

// --- Decoding the bytes a section shows -------------------------------------------------------

uint32 Le32(const uint8* p) { return uint32(p[0]) | uint32(p[1]) << 8 | uint32(p[2]) << 16 | uint32(p[3]) << 24; }

// A tag is a multi-character constant stored little-endian: "VAL" is
// 4c 41 56 00. Its text, or empty when the bytes are not one.
std::string TagAt(const uint8* p, size_t available)
{
    if (available < 4)
        return std::string();
    std::string text;
    bool ended = false;
    for (int i = 3; i >= 0; --i)
    {
        uint8 c = p[i];
        if (c == 0)
        {
            if (!text.empty())
                return std::string(); // a zero inside the name
            continue;
        }
        if (!((c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_'))
            return std::string();
        text += char(c);
        ended = true;
    }
    return ended && text.size() >= 2 ? text : std::string();
}

std::string Number32(const uint8* p)
{
    int32 value = int32(Le32(p));
    if (value > -1000000 && value < 1000000)
        return std::to_string(value);
    float f;
    std::memcpy(&f, p, 4);
    char text[48];
    if (std::isnormal(f) && std::fabs(f) > 1e-6f && std::fabs(f) < 1e12f)
        std::snprintf(text, sizeof text, "%g", double(f));
    else
        std::snprintf(text, sizeof text, "0x%08x", Le32(p));
    return text;
}

std::string Number64(const uint8* p)
{
    double d;
    std::memcpy(&d, p, 8);
    char text[48];
    if (std::isnormal(d) && std::fabs(d) > 1e-9 && std::fabs(d) < 1e15)
        std::snprintf(text, sizeof text, "%g", d);
    else
        std::snprintf(text, sizeof text, "%lld", (long long)(uint64(Le32(p)) | uint64(Le32(p + 4)) << 32));
    return text;
}

bool Printable(const uint8* p, size_t n)
{
    for (size_t i = 0; i < n; ++i)
        if (p[i] < 0x20 && p[i] != '\t' && p[i] != '\n')
            return false;
    return true;
}

// Reads tag and value after tag while the value's size can be told: by a
// length in front (strings), by the next tag, or by the end of the section.
// `complete` says whether the bytes are the whole section.
constexpr size_t kStringShown = 64;
std::string DecodeValues(const std::vector<uint8>& bytes, bool complete)
{
    std::string out;
    size_t at = 0;
    while (at < bytes.size())
    {
        std::string tag = TagAt(bytes.data() + at, bytes.size() - at);
        if (tag.empty())
            break;
        const uint8* value = bytes.data() + at + 4;
        size_t left = bytes.size() - at - 4;
        std::string item;
        size_t used = 0;
        uint32 length = left >= 4 ? Le32(value) : 0;
        if (left >= 4 && length > 0 && length <= 1u << 20 && Printable(value + 4, std::min<size_t>(length, left - 4)) &&
            (length <= left - 4 || !complete) && (length > left - 4 || length == left - 4 || !TagAt(value + 4 + length, left - 4 - length).empty()))
        {
            size_t shown = std::min<size_t>(length, left - 4);
            // A long string is shown by its start; the rest is still passed over.
            size_t printed = std::min<size_t>(shown, kStringShown);
            if (shown == 0)
                item = tag + " (a string of " + std::to_string(length) + " bytes)";
            else
                item = tag + " \"" + std::string(reinterpret_cast<const char*>(value + 4), printed) +
                       (printed < length ? "\"..." : "\"");
            used = 4 + shown;
            if (shown < length)
            {
                out += (out.empty() ? "" : ", ") + item;
                return out;
            }
        }
        else if ((left == 4 && complete) || (left >= 8 && !TagAt(value + 4, left - 4).empty()))
        {
            item = tag + " " + Number32(value);
            used = 4;
        }
        else if ((left == 8 && complete) || (left >= 12 && !TagAt(value + 8, left - 8).empty()))
        {
            item = tag + " " + Number64(value);
            used = 8;
        }
        else if (complete && left == 1)
        {
            item = tag + " " + std::to_string(value[0]);
            used = 1;
        }
        else if (complete && left == 2)
        {
            item = tag + " " + std::to_string(int16(value[0] | value[1] << 8));
            used = 2;
        }
        else if (left == 0 && complete)
        {
            item = tag;
        }
        else
        {
            out += (out.empty() ? "" : ", ") + tag + " ...";
            return out;
        }
        out += (out.empty() ? "" : ", ") + item;
        at += 4 + used;
    }
    if (at < bytes.size() && !out.empty())
        out += ", ...";
    return out;
}

// The tree is listed with this many bytes of each section, which the values
// are decoded from; the hex shown stops at kHexShown.
constexpr unsigned kDecodedBytes = 4096;
constexpr size_t kHexShown = 24;

// Shows each section line of the tree with its first bytes in hex and, under
// it, the values its bytes decode to.
std::string Annotate(const std::string& tree)
{
    std::istringstream lines(tree);
    std::string line, out;
    while (std::getline(lines, line))
    {
        size_t mark = line.find(" bytes)  ");
        if (mark == std::string::npos)
        {
            out += line + "\n";
            continue;
        }
        std::istringstream hex(line.substr(mark + 9));
        std::vector<uint8> bytes;
        std::string token;
        bool complete = true;
        while (hex >> token)
        {
            if (token == "...")
            {
                complete = false;
                break;
            }
            bytes.push_back(uint8(std::stoul(token, nullptr, 16)));
        }
        // At most kHexShown bytes of hex: a 3-character column each.
        out += line.substr(0, mark + 9 + std::min(bytes.size(), kHexShown) * 3 - 1);
        out += bytes.size() > kHexShown || !complete ? " ...\n" : "\n";
        std::string decoded = DecodeValues(bytes, complete);
        if (!decoded.empty())
            out += std::string(line.find_first_not_of(' '), ' ') + "    = " + decoded + "\n";
    }
    return out;
}

// --- Commands ------------------------------------------------------------------------------------

std::string UncreatableClass(const std::string& bytes);

std::string Utf8(const WString& text) { return std::string(StringConvFuncs::ToAString(text())()); }

std::string Vec(const Vector3& v)
{
    char buffer[96];
    std::snprintf(buffer, sizeof buffer, "(%g, %g, %g)", double(v.x), double(v.y), double(v.z));
    return buffer;
}

// A ".node" file as its tree, each node's world box after a full update.
int DumpNodeTree(const std::string& path, Serializer* reader, const std::string& bytes)
{
    TakeEngineMessages();
    Ptr<Object> object;
    bool entered = reader->Enter(FourCCs::OBJ);
    bool loaded = entered && reader->LoadObject(object, nullptr, 0);
    Ptr<Node> root(DynamicCast<Node>(object.Get()));
    if (!loaded || !root)
    {
        std::string why = !entered ? "it has no OBJ section" : UncreatableClass(bytes);
        std::vector<std::string> messages = TakeEngineMessages();
        if (why.empty() && !messages.empty())
            why = messages.front();
        if (why.empty() && loaded)
            why = "it holds no node";
        return Fail("cannot load the scene tree of " + Quote(path) + (why.empty() ? "" : ": " + why));
    }
    root->ForceUpdate(0);
    std::string out;
    for (Node::Iterator it(root, true); it.hasNext();)
    {
        Ptr<Node> node = it.Next();
        unsigned depth = 0;
        for (const Node* up = node.Get(); up != root.Get(); up = up->GetParent())
            ++depth;
        out.append(depth * 2, ' ');
        out += Quote(Utf8(node->GetName())) + " " + Utf8(node->GetClassNameW());
        for (unsigned i = 0; i < node->GetNumModifiers(); ++i)
            out += (i ? ", " : " [") + Utf8(node->GetModifierByIndex(i)->GetClassNameW()) +
                   (i + 1 == node->GetNumModifiers() ? "]" : "");
        out += "  T" + Vec(node->GetLocalTrans()) + " R" + Vec(node->GetLocalRotDegree()) + " S" +
               Vec(node->GetLocalScale());
        const Aabb& box = node->GetFinalAabb();
        out += box.IsEmpty() ? "  box empty\n" : "  box " + Vec(box.min) + " - " + Vec(box.max) + "\n";
    }
    std::fwrite(out.data(), 1, out.size(), stdout);
    return kExitSuccess;
}

int Dump(const std::string& path)
{
    std::string bytes;
    if (!g_cl->ReadInput(path, bytes, DataStream::kMaxSize))
        return kExitFailure;
    Serializer* serializer = Serializer::OpenReadStream(OverBytes(bytes));
    if (!serializer)
        return Fail(Quote(path) + " " + WhyUnreadable(bytes));
    if (path.size() > 5 && path.compare(path.size() - 5, 5, ".node") == 0)
    {
        int status = DumpNodeTree(path, serializer, bytes);
        delete serializer;
        return status;
    }
    if (auto* binary = DynamicCast<BinSerializer>(static_cast<Object*>(serializer)))
    {
        AString tree;
        binary->DumpTree(tree, kDecodedBytes);
        std::string annotated = Annotate(std::string(tree(), tree.Length()));
        std::fwrite(annotated.data(), 1, annotated.size(), stdout);
    }
    else
        std::fwrite(bytes.data() + 8, 1, bytes.size() - 8, stdout);
    delete serializer;
    return kExitSuccess;
}

// The first class named in the file that this build cannot create.
std::string UncreatableClass(const std::string& bytes)
{
    std::vector<std::string> names;
    if (IsXml(bytes))
    {
        std::regex attribute("CLS=\"([^\"]*)\"");
        for (std::sregex_iterator it(bytes.begin(), bytes.end(), attribute), end; it != end; ++it)
            names.push_back((*it)[1]);
    }
    else
    {
        // The tag "CLS" and a length-prefixed name.
        for (size_t at = bytes.find(std::string("SLC\0", 4)); at != std::string::npos && at + 8 <= bytes.size();
             at = bytes.find(std::string("SLC\0", 4), at + 1))
        {
            uint32 length = Le32(reinterpret_cast<const uint8*>(bytes.data() + at + 4));
            if (length && length <= 256 && length <= bytes.size() - at - 8)
                names.push_back(bytes.substr(at + 8, length));
        }
    }
    for (const std::string& name : names)
    {
        const Class* cls = Class::GetClass(StringConvFuncs::ToWString(name.c_str()));
        if (!cls)
            return "no class " + Quote(name) + " is known to this build";
        if (!cls->IsKindOf(Object::StaticGetClass()))
            return "class " + Quote(name) + " is not an object class and cannot be created";
    }
    return std::string();
}

int Convert(const std::string& from, const std::string& to, bool xml)
{
    std::string bytes;
    if (!g_cl->ReadInput(from, bytes, DataStream::kMaxSize))
        return kExitFailure;
    Serializer* reader = Serializer::OpenReadStream(OverBytes(bytes));
    if (!reader)
        return Fail(Quote(from) + " " + WhyUnreadable(bytes));
    TakeEngineMessages();
    Ptr<Object> object;
    bool entered = reader->Enter(FourCCs::OBJ);
    bool loaded = entered && reader->LoadObject(object, nullptr, 0);
    delete reader;
    if (!loaded)
    {
        std::string why = entered ? UncreatableClass(bytes) : "it has no OBJ section";
        std::vector<std::string> messages = TakeEngineMessages();
        if (why.empty() && !messages.empty())
            why = messages.front();
        return Fail("cannot load the object graph of " + Quote(from) + (why.empty() ? "" : ": " + why));
    }

    auto* data = new DataStream();
    Ptr<Stream> stream(new MemoryStream(data, false));
    stream->SetWriteable(true);
    Serializer::SetDefaultSerializer(xml);
    Serializer* writer = Serializer::OpenWriteStream(stream);
    bool saved = writer && writer->Enter(FourCCs::OBJ) && writer->SaveObject(ConstPtr<Object>(object.Get()), 0);
    if (writer)
    {
        writer->Leave();
        writer->Close();
        delete writer;
    }
    stream = nullptr;
    std::string why;
    if (!saved)
        why = "the object graph could not be saved";
    else if (to == "-")
    {
        saved = std::fwrite(data->GetPointer(), 1, data->GetLength(), stdout) == data->GetLength() && std::fflush(stdout) == 0;
        if (!saved)
            why = std::strerror(errno);
    }
    else
    {
        std::ofstream out(to, std::ios::binary | std::ios::trunc);
        if (out)
            out.write(reinterpret_cast<const char*>(data->GetPointer()), std::streamsize(data->GetLength()));
        saved = bool(out);
        if (!saved)
            why = std::strerror(errno);
    }
    delete data;
    return saved ? kExitSuccess : Fail("cannot write " + Quote(to) + ": " + why);
}

} // namespace

int main(int argc, char** argv)
{
    CommandLine cl("kovex-dump", kHelp);
    AddDataOption(cl);
    cl.Add(0, "load", true);
    g_cl = &cl;
    int status = cl.Parse(argc, argv);
    if (status >= 0)
        return status;
    const std::vector<std::string>& args = cl.Operands();
    bool convert = !args.empty() && (args[0] == "to-xml" || args[0] == "to-bin");
    if (args.empty())
        return cl.UsageError("no FILE given");
    if (convert && args.size() != 3)
        return cl.UsageError(args[0] + " needs IN and OUT");
    if (!convert && args.size() != 1)
        return cl.UsageError("unknown command " + Quote(args[0]));
    // The libraries stay loaded to the end: the registry holds their classes.
    for (const std::string& library : cl.Values("load"))
        if (!dlopen(library.c_str(), RTLD_NOW | RTLD_GLOBAL))
            return Fail("cannot load " + Quote(library) + ": " + dlerror());
    if (!StartEngine(cl))
    {
        StopEngine();
        return kExitFailure;
    }
    status = convert ? Convert(args[1], args[2], args[0] == "to-xml") : Dump(args[0]);
    StopEngine();
    return status;
}
