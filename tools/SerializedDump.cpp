// kovex-dump: shows and converts files written by the engine's serializers.
//
//   kovex-dump FILE               the section tree of a binary file, or the
//                                 document of an XML file, on stdout
//   kovex-dump to-xml IN OUT      loads the object graph of IN's "OBJ" section
//   kovex-dump to-bin IN OUT      and saves it to OUT in the other form
//   kovex-dump --load LIB ...     first loads the shared library LIB (any
//                                 number of times), whose reflected classes
//                                 register as it loads
//
// Conversion goes through the engine's own load and save, so it covers the
// classes this build knows and those of the libraries loaded; an unknown
// class fails the conversion.

#include <dlfcn.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "KovexEngine.h"

using namespace KovexEngine;

namespace {

int Fail(const std::string& message)
{
    std::fprintf(stderr, "kovex-dump: %s\n", message.c_str());
    return 1;
}

bool ReadFile(const char* path, std::string& out)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return true;
}

Ptr<Stream> OverBytes(const std::string& bytes)
{
    auto* data = new DataStream(unsigned(bytes.size()));
    if (!bytes.empty())
        std::memcpy(data->GetPointer(), bytes.data(), bytes.size());
    return Ptr<Stream>(new MemoryStream(data, true));
}

int Dump(const char* path)
{
    std::string bytes;
    if (!ReadFile(path, bytes))
        return Fail(std::string("cannot read ") + path);
    Serializer* serializer = Serializer::OpenReadStream(OverBytes(bytes));
    if (!serializer)
        return Fail(std::string(path) + " is not a serialized file, or is damaged");
    if (auto* binary = DynamicCast<BinSerializer>(static_cast<Object*>(serializer)))
    {
        AString tree;
        binary->DumpTree(tree);
        std::fwrite(tree(), 1, tree.Length(), stdout);
    }
    else
        std::fwrite(bytes.data() + 8, 1, bytes.size() - 8, stdout);
    delete serializer;
    return 0;
}

int Convert(const char* from, const char* to, bool xml)
{
    std::string bytes;
    if (!ReadFile(from, bytes))
        return Fail(std::string("cannot read ") + from);
    Serializer* reader = Serializer::OpenReadStream(OverBytes(bytes));
    if (!reader)
        return Fail(std::string(from) + " is not a serialized file, or is damaged");
    Ptr<Object> object;
    bool loaded = reader->Enter(FourCCs::OBJ) && reader->LoadObject(object, nullptr, 0);
    delete reader;
    if (!loaded)
        return Fail(std::string("cannot load the object graph of ") + from);

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
    if (saved)
    {
        std::ofstream out(to, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data->GetPointer()), std::streamsize(data->GetLength()));
        saved = bool(out);
    }
    delete data;
    return saved ? 0 : Fail(std::string("cannot write ") + to);
}

} // namespace

int main(int argc, char** argv)
{
    // The libraries stay loaded to the end: the registry holds their classes.
    while (argc > 2 && std::strcmp(argv[1], "--load") == 0)
    {
        if (!dlopen(argv[2], RTLD_NOW | RTLD_GLOBAL))
            return Fail(std::string("cannot load ") + argv[2] + ": " + dlerror());
        argv += 2;
        argc -= 2;
    }
    std::string command = argc > 1 ? argv[1] : "";
    if (argc == 2 && command != "to-xml" && command != "to-bin")
    {
        Kovex_System_Initialize();
        int result = Dump(argv[1]);
        Kovex_System_Terminate();
        return result;
    }
    if (argc == 4 && (command == "to-xml" || command == "to-bin"))
    {
        Kovex_System_Initialize();
        int result = Convert(argv[2], argv[3], command == "to-xml");
        Kovex_System_Terminate();
        return result;
    }
    std::fprintf(stderr, "usage: kovex-dump [--load LIB]... FILE\n       kovex-dump [--load LIB]... to-xml|to-bin IN OUT\n");
    return 2;
}
