// kovex-pack: makes, lists, extracts and changes package files (.kpk, .kovex).
//
//   kovex-pack create  PACKAGE DIR [-z LEVEL] [-s PATTERN]...
//   kovex-pack list    PACKAGE
//   kovex-pack extract PACKAGE DIR [MEMBER...]
//   kovex-pack add     PACKAGE DIR [-z LEVEL] [-s PATTERN]...
//   kovex-pack delete  PACKAGE MEMBER...
//   kovex-pack rename  PACKAGE OLD NEW
//   kovex-pack rebuild PACKAGE
//
// -z sets the deflate level (1 to 9) of compressed members, 0 stores every
// member raw; the default is 6. -s stores members matching a pattern raw
// (already compressed data such as "*.jpg"). Progress is shown on large jobs.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "KovexEngine.h"

using namespace KovexEngine;

namespace {

std::string Utf8(const WString& text) { return StringConvFuncs::ToAString(text()).c_str(); }
WString Wide(const char* text) { return StringConvFuncs::ToWString(text); }

int Fail(const std::string& message)
{
    std::fprintf(stderr, "kovex-pack: %s\n", message.c_str());
    return 1;
}

// Reports progress on stderr when the job is large enough to wait for.
class Progress : public Package::State
{
public:
    explicit Progress(const char* verb) : m_verb(verb) {}
    ~Progress() override
    {
        if (m_shown)
            std::fprintf(stderr, "\r%s: done.%20s\n", m_verb, "");
    }
    void OnProcessFile(const Package::File* file) override
    {
        if (total < (8u << 20))
            return;
        unsigned percent = total ? unsigned(done * 100 / total) : 100;
        std::fprintf(stderr, "\r%s: %3u%%  %-40.40s", m_verb, percent, Utf8(file->name).c_str());
        m_shown = true;
    }

private:
    const char* m_verb;
    bool m_shown = false;
};

struct Options
{
    int level = 6;
    std::vector<std::string> store;
};

// What the compression delegate reads: set per run of the tool.
Options g_options;

bool Choose(Package::File* file)
{
    file->compressionType = g_options.level > 0 ? Compressor::ZLIB : Compressor::NONE;
    file->compressionLevel = uint8(g_options.level > 0 ? g_options.level : 0);
    WString fileName = file->name.ExtractFileName();
    for (const std::string& pattern : g_options.store)
        if (FindFile::IsWildMatch(fileName(), Wide(pattern.c_str())()))
            file->compressionType = Compressor::NONE;
    return true;
}

bool ParseOptions(int argc, char** argv, int first, Options& options, std::string& error)
{
    for (int i = first; i < argc; ++i)
    {
        if (std::strcmp(argv[i], "-z") == 0 && i + 1 < argc)
        {
            char* end = nullptr;
            long level = std::strtol(argv[++i], &end, 10);
            if (*end || level < 0 || level > 9)
            {
                error = "the level after -z must be 0 to 9";
                return false;
            }
            options.level = int(level);
        }
        else if (std::strcmp(argv[i], "-s") == 0 && i + 1 < argc)
            options.store.push_back(argv[++i]);
        else
        {
            error = std::string("unknown option '") + argv[i] + "'";
            return false;
        }
    }
    return true;
}

bool Collect(const char* directory, TArray<Ptr<Package::File>>& files)
{
    FindFile find;
    if (!find.AddInclude(WString(u"*"), Wide(directory), FindFile::Recursive))
        return false;
    find.Execute();
    TArray<Ptr<FindFile::File>> found;
    find.GetResults(found);
    Package::Convert(files, found, DelegateC<bool(Package::File*)>(&Choose));
    return true;
}

int Create(const char* package, const char* directory)
{
    if (!FileStream::DirectoryExists(Wide(directory)))
        return Fail(std::string("no directory '") + directory + "'");
    TArray<Ptr<Package::File>> files;
    Collect(directory, files);
    if (files.IsEmpty())
        return Fail(std::string("'") + directory + "' holds no files");
    Progress progress("create");
    if (!Package::MakeNewPackage(Wide(package), files, &progress))
        return Fail(std::string("could not write '") + package + "'");
    std::printf("%s: %u members\n", package, files.Count());
    return 0;
}

bool Open(Package& package, bool writable)
{
    package.SetWritable(writable);
    return package.Mount(WString());
}

int List(const char* path)
{
    Package package(Wide(path));
    if (!Open(package, false))
        return Fail(std::string("'") + path + "' is not a package that can be read");
    uint64 total = 0, stored = 0;
    std::printf("%12s %12s %6s  %s\n", "size", "stored", "ratio", "name");
    for (const auto& pair : package.GetFiles())
    {
        const Package::File* file = pair.value.Get();
        double ratio = file->size ? 100.0 * double(file->GetSizeInPackage()) / double(file->size) : 100.0;
        std::printf("%12llu %12llu %5.1f%%  %s\n", (unsigned long long)file->size,
                    (unsigned long long)file->GetSizeInPackage(), ratio, Utf8(file->name).c_str());
        total += file->size;
        stored += file->GetSizeInPackage();
    }
    std::printf("%12llu %12llu %5.1f%%  %u members\n", (unsigned long long)total, (unsigned long long)stored,
                total ? 100.0 * double(stored) / double(total) : 100.0, package.GetFiles().Count());
    return 0;
}

int Extract(const char* path, const char* directory, int count, char** members)
{
    Package package(Wide(path));
    if (!Open(package, false))
        return Fail(std::string("'") + path + "' is not a package that can be read");
    WString base = Wide(directory);
    if (!base.EndsWith(u"/"))
        base.Append(u'/');
    Progress progress("extract");
    unsigned extracted = 0;
    auto one = [&](const ConstPtr<Package::File>& file) {
        Ptr<Stream> target(new FileStream(base + file->name));
        if (!file->Extract(target, &progress))
            return false;
        ++extracted;
        return true;
    };
    if (count == 0)
    {
        for (const auto& pair : package.GetFiles())
            if (!one(pair.value))
                return Fail("could not extract '" + Utf8(pair.value->name) + "'");
    }
    for (int i = 0; i < count; ++i)
    {
        ConstPtr<Package::File> file = package.GetFile(Wide(members[i]));
        if (!file)
            return Fail(std::string("no member '") + members[i] + "'");
        if (!one(file))
            return Fail(std::string("could not extract '") + members[i] + "'");
    }
    std::printf("%u members extracted\n", extracted);
    return 0;
}

int Add(const char* path, const char* directory)
{
    Package package(Wide(path));
    if (!Open(package, true))
        return Fail(std::string("'") + path + "' is not a package that can be written");
    TArray<Ptr<Package::File>> files;
    Collect(directory, files);
    if (files.IsEmpty())
        return Fail(std::string("'") + directory + "' holds no files");
    Progress progress("add");
    if (!package.AddFiles(files, &progress))
        return Fail(std::string("could not add to '") + path + "'");
    std::printf("%u members added\n", files.Count());
    return 0;
}

int Delete(const char* path, int count, char** members)
{
    Package package(Wide(path));
    if (!Open(package, true))
        return Fail(std::string("'") + path + "' is not a package that can be written");
    for (int i = 0; i < count; ++i)
    {
        ConstPtr<Package::File> file = package.GetFile(Wide(members[i]));
        if (!file)
            return Fail(std::string("no member '") + members[i] + "'");
        if (!package.Delete(file))
            return Fail(std::string("could not delete '") + members[i] + "'");
    }
    if (!package.RebuildFileTable())
        return Fail(std::string("could not write the table of '") + path + "'");
    return 0;
}

int Rename(const char* path, const char* from, const char* to)
{
    Package package(Wide(path));
    if (!Open(package, true))
        return Fail(std::string("'") + path + "' is not a package that can be written");
    ConstPtr<Package::File> file = package.GetFile(Wide(from));
    if (!file)
        return Fail(std::string("no member '") + from + "'");
    if (!Package::IsSafeName(Wide(to)))
        return Fail(std::string("'") + to + "' is not a member name");
    if (!package.Rename(file, Wide(to)) || !package.RebuildFileTable())
        return Fail(std::string("could not rename '") + from + "'");
    return 0;
}

int Rebuild(const char* path)
{
    Package package(Wide(path));
    if (!Open(package, true))
        return Fail(std::string("'") + path + "' is not a package that can be written");
    int64 before = package.GetPackageSize();
    Progress progress("rebuild");
    if (!package.RebuildPackage(&progress))
        return Fail(std::string("could not rebuild '") + path + "'; it is unchanged");
    std::printf("%lld bytes, was %lld\n", (long long)package.GetPackageSize(), (long long)before);
    return 0;
}

void Usage()
{
    std::fprintf(stderr,
                 "usage: kovex-pack create  PACKAGE DIR [-z LEVEL] [-s PATTERN]...\n"
                 "       kovex-pack list    PACKAGE\n"
                 "       kovex-pack extract PACKAGE DIR [MEMBER...]\n"
                 "       kovex-pack add     PACKAGE DIR [-z LEVEL] [-s PATTERN]...\n"
                 "       kovex-pack delete  PACKAGE MEMBER...\n"
                 "       kovex-pack rename  PACKAGE OLD NEW\n"
                 "       kovex-pack rebuild PACKAGE\n");
}

int Run(int argc, char** argv)
{
    if (argc < 3)
    {
        Usage();
        return 2;
    }
    std::string command = argv[1];
    const char* package = argv[2];
    std::string error;
    if (command == "create" || command == "add")
    {
        if (argc < 4 || !ParseOptions(argc, argv, 4, g_options, error))
        {
            if (!error.empty())
                Fail(error);
            Usage();
            return 2;
        }
        return command == "create" ? Create(package, argv[3]) : Add(package, argv[3]);
    }
    if (command == "list" && argc == 3)
        return List(package);
    if (command == "extract" && argc >= 4)
        return Extract(package, argv[3], argc - 4, argv + 4);
    if (command == "delete" && argc >= 4)
        return Delete(package, argc - 3, argv + 3);
    if (command == "rename" && argc == 5)
        return Rename(package, argv[3], argv[4]);
    if (command == "rebuild" && argc == 3)
        return Rebuild(package);
    Usage();
    return 2;
}

// The engine's own log lines are for developers; the tool states failures itself.
struct Quiet : LogProxy
{
    void Print(unsigned, const char16_t*) override {}
};

} // namespace

int main(int argc, char** argv)
{
    Log::AddProxy(Ptr<LogProxy>(new Quiet()));
    Kovex_System_Initialize();
    g_kovexRootPath = u"/";
    int result = Run(argc, argv);
    Kovex_System_Terminate();
    Kovex_System_Cleanup();
    return result;
}
