// kovex-pack: makes, lists, extracts and changes package files (.kpk, .kovex).
// The help text below is the manual.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "KovexEngine.h"
#include "PackageCheck.h"

using namespace KovexEngine;
using namespace KovexTools;
namespace fs = std::filesystem;

namespace {

const std::string kHelp = std::string(
    "usage: kovex-pack create  PACKAGE DIR [-f] [-z LEVEL] [-s PATTERN]...\n"
    "       kovex-pack list    PACKAGE\n"
    "       kovex-pack extract PACKAGE DIR [MEMBER...]\n"
    "       kovex-pack add     PACKAGE DIR [-z LEVEL] [-s PATTERN]...\n"
    "       kovex-pack delete  PACKAGE MEMBER...\n"
    "       kovex-pack rename  PACKAGE OLD NEW\n"
    "       kovex-pack rebuild PACKAGE\n"
    "\n"
    "Makes, lists, extracts and changes the engine's package files. Options may\n"
    "come before or after the operands; \"--\" ends them.\n"
    "\n"
    "  -f, --force          create: replace an existing PACKAGE\n"
    "  -z, --level LEVEL    deflate level 1 to 9, or 0 to store every member raw\n"
    "                       (default 6); a member that deflate would not make\n"
    "                       smaller is stored raw anyway\n"
    "  -s, --store PATTERN  store members whose file name matches PATTERN raw\n"
    "                       (data that is compressed already, \"*.jpg\")\n"
    "  -h, --help           this text\n"
    "      --version        the version\n"
    "\n"
    "DIR is read recursively. A symbolic link to a file is stored as the file it\n"
    "points to, under the link's own name; a link to a directory is not followed,\n"
    "so links cannot make a loop, and a broken link is skipped: both are reported.\n"
    "The package being written is never added to itself, and the directory it is\n"
    "written to must exist. delete leaves the deleted members' bytes in the file\n"
    "and says how many a rebuild would reclaim. Progress is shown on standard\n"
    "error, by bytes, when it is a terminal.\n") + kExitStatusHelp;

std::string Utf8(const WString& text) { return StringConvFuncs::ToAString(text()).c_str(); }
WString Wide(const std::string& text) { return StringConvFuncs::ToWString(text.c_str()); }
std::string Quote(const std::string& text) { return "'" + text + "'"; }

CommandLine* g_cl = nullptr;
int Fail(const std::string& message) { return g_cl->Fail(message); }

// Progress by bytes, on a terminal only.
class Progress : public Package::State
{
public:
    explicit Progress(const char* verb) : m_line(verb) {}
    void OnProcessFile(const Package::File* file) override { m_line.Update(done, total, Utf8(file->name)); }
    void Show(const std::string& item) { m_line.Update(done, total, item); }

private:
    ProgressLine m_line;
};

struct Options
{
    int level = 6;
    std::vector<std::string> store;
};
// What the compression delegate reads: set once per run.
Options g_options;

bool Choose(Package::File* file)
{
    file->compressionType = g_options.level > 0 ? Compressor::ZLIB : Compressor::NONE;
    file->compressionLevel = uint8(g_options.level > 0 ? g_options.level : 0);
    WString fileName = file->name.ExtractFileName();
    for (const std::string& pattern : g_options.store)
        if (FindFile::IsWildMatch(fileName(), Wide(pattern)()))
            file->compressionType = Compressor::NONE;
    return true;
}

// The files under `dir`, named relative to it, sorted by name. Links are
// handled as the help says; `exclude` (the package being written) is left out.
bool Collect(const std::string& dir, const std::string& exclude, TArray<Ptr<Package::File>>& files)
{
    std::error_code error;
    if (!fs::is_directory(dir, error))
    {
        Fail(Quote(dir) + (fs::exists(dir, error) ? " is not a directory" : " does not exist"));
        return false;
    }
    TArray<Ptr<FindFile::File>> found;
    fs::recursive_directory_iterator it(dir, error), end;
    for (; !error && it != end; it.increment(error))
    {
        const fs::path& path = it->path();
        std::error_code ignored;
        bool link = it->is_symlink(ignored);
        fs::file_status status = fs::status(path, ignored);
        if (link && !fs::exists(status))
        {
            g_cl->Warn("skipping " + Quote(path.string()) + ": a broken symbolic link");
            continue;
        }
        if (link && fs::is_directory(status))
        {
            g_cl->Warn("not following " + Quote(path.string()) + ": a symbolic link to a directory");
            continue;
        }
        if (!fs::is_regular_file(status))
            continue;
        if (!exclude.empty() && fs::equivalent(path, exclude, ignored))
        {
            g_cl->Warn("leaving out " + Quote(path.string()) + ": it is the package being written");
            continue;
        }
        struct stat info;
        int fd = ::open(path.c_str(), O_RDONLY);
        if (fd < 0 || ::fstat(fd, &info) != 0)
        {
            Fail("cannot read " + Quote(path.string()) + ": " + std::strerror(errno));
            if (fd >= 0)
                ::close(fd);
            return false;
        }
        ::close(fd);
        Ptr<FindFile::File> file(new FindFile::File());
        file->fullPath = Wide(path.string());
        file->relativePath = Wide(path.lexically_relative(dir).generic_string());
        file->size = uint64(info.st_size);
        file->lastWrite = Stream::DateTime::FromUnix(info.st_mtim.tv_sec, info.st_mtim.tv_nsec);
        found.Add(file);
    }
    if (error)
    {
        Fail("cannot read the directory " + Quote(dir) + ": " + error.message());
        return false;
    }
    std::sort(found.begin(), found.end(), [](const Ptr<FindFile::File>& a, const Ptr<FindFile::File>& b) {
        return a->relativePath < b->relativePath;
    });
    Package::Convert(files, found, DelegateC<bool(Package::File*)>(&Choose));
    if (files.IsEmpty())
    {
        Fail(Quote(dir) + " holds no files");
        return false;
    }
    return true;
}

// Opens a package, or says exactly why it cannot. A package always lives on
// the heap: member streams may hold a reference to it.
Ptr<Package> Open(const std::string& path, bool writable)
{
    Ptr<Package> package(new Package(Wide(path)));
    package->SetWritable(writable);
    if (package->Mount(WString()))
        return package;
    std::string why = DiagnosePackage(path, writable);
    Fail(Quote(path) + " " + (why.empty() ? "cannot be opened as a package" : why));
    return Ptr<Package>();
}

uint64 LiveBytes(const Package& package)
{
    uint64 live = 0;
    for (const auto& pair : package.GetFiles())
        live += pair.value->GetSizeInPackage();
    return live;
}

// Bytes in the file that no member, table or header uses any more.
uint64 DeadBytes(const Package& package)
{
    int64 used = int64(Package::kHeaderSize + package.GetHeader().GetSizeInPackage() + LiveBytes(package));
    return package.GetPackageSize() > used ? uint64(package.GetPackageSize() - used) : 0;
}

int Create(const std::string& path, const std::string& dir, bool force)
{
    std::error_code error;
    if (fs::exists(path, error) && !force)
        return Fail(Quote(path) + " exists; use -f to replace it");
    if (fs::is_directory(path, error))
        return Fail(Quote(path) + " is a directory");
    fs::path parent = fs::path(path).parent_path();
    if (!parent.empty() && !fs::is_directory(parent, error))
        return Fail("cannot write " + Quote(path) + ": the directory " + Quote(parent.string()) + " does not exist");
    TArray<Ptr<Package::File>> files;
    if (!Collect(dir, path, files))
        return kExitFailure;
    Progress progress("create");
    errno = 0;
    if (!Package::MakeNewPackage(Wide(path), files, &progress))
    {
        int saved = errno;
        return Fail("cannot write " + Quote(path) + (saved ? std::string(": ") + std::strerror(saved) : std::string()));
    }
    uint64 total = 0, stored = 0;
    for (const Ptr<Package::File>& file : files)
    {
        total += file->size;
        stored += file->GetSizeInPackage();
    }
    std::printf("%s: %u members, %s stored in %s\n", path.c_str(), files.Count(), HumanBytes(total).c_str(),
                HumanBytes(stored).c_str());
    return kExitSuccess;
}

int List(const std::string& path)
{
    Ptr<Package> package = Open(path, false);
    if (!package)
        return kExitFailure;
    uint64 total = 0, stored = 0;
    std::printf("%12s %12s %6s  %s\n", "size", "stored", "ratio", "name");
    for (const auto& pair : package->GetFiles())
    {
        const Package::File* file = pair.value.Get();
        double ratio = file->size ? 100.0 * double(file->GetSizeInPackage()) / double(file->size) : 100.0;
        std::printf("%12llu %12llu %5.1f%%  %s\n", (unsigned long long)file->size,
                    (unsigned long long)file->GetSizeInPackage(), ratio, Utf8(file->name).c_str());
        total += file->size;
        stored += file->GetSizeInPackage();
    }
    std::printf("%12llu %12llu %5.1f%%  %u members\n", (unsigned long long)total, (unsigned long long)stored,
                total ? 100.0 * double(stored) / double(total) : 100.0, package->GetFiles().Count());
    return kExitSuccess;
}

// Writes one member below `base`, or says why not: the system's reason for a
// file that cannot be made, the decompressor's for data that cannot be read.
bool ExtractOne(const std::string& package, const ConstPtr<Package::File>& file, const fs::path& base, Progress& progress)
{
    std::string name = Utf8(file->name);
    fs::path target = base / name;
    std::error_code error;
    fs::create_directories(target.parent_path(), error);
    if (error)
    {
        Fail("cannot extract " + Quote(name) + ": cannot make " + Quote(target.parent_path().string()) + ": " +
             error.message());
        return false;
    }
    int fd = ::open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0)
    {
        Fail("cannot extract " + Quote(name) + ": cannot write " + Quote(target.string()) + ": " + std::strerror(errno));
        return false;
    }
    ::close(fd);
    uint64 before = progress.done;
    errno = 0;
    if (!file->Extract(Ptr<Stream>(new FileStream(Wide(target.string()))), &progress))
    {
        int saved = errno;
        std::string why = file->IsCompressed()
                              ? DiagnoseMemberData(package, file->offset, file->compressedSize, file->size)
                              : std::string();
        if (why.empty())
            why = saved ? std::strerror(saved) : "its data cannot be read from the package";
        Fail("cannot extract " + Quote(name) + ": " + why);
        return false;
    }
    progress.done = before + file->size;
    progress.Show(name);
    return true;
}

// The members named, in the order given; false, with a message that ends in
// `consequence`, at the first name the package lacks.
bool FindMembers(const Package& package, const std::string& path, const std::vector<std::string>& members,
                 const char* consequence, TArray<ConstPtr<Package::File>>& chosen)
{
    for (const std::string& member : members)
    {
        ConstPtr<Package::File> file = package.GetFile(Wide(member));
        if (!file)
        {
            Fail("no member " + Quote(member) + " in " + Quote(path) + consequence);
            return false;
        }
        chosen.Add(file);
    }
    return true;
}

int Extract(const std::string& path, const std::string& dir, const std::vector<std::string>& members)
{
    Ptr<Package> package = Open(path, false);
    if (!package)
        return kExitFailure;
    TArray<ConstPtr<Package::File>> chosen;
    if (!FindMembers(*package, path, members, "", chosen))
        return kExitFailure;
    if (members.empty())
        for (const auto& pair : package->GetFiles())
            chosen.Add(pair.value);
    Progress progress("extract");
    for (const ConstPtr<Package::File>& file : chosen)
        progress.total += file->size;
    for (const ConstPtr<Package::File>& file : chosen)
        if (!ExtractOne(path, file, fs::path(dir), progress))
            return kExitFailure;
    std::printf("%u members extracted\n", chosen.Count());
    return kExitSuccess;
}

int Add(const std::string& path, const std::string& dir)
{
    Ptr<Package> package = Open(path, true);
    if (!package)
        return kExitFailure;
    TArray<Ptr<Package::File>> files;
    if (!Collect(dir, path, files))
        return kExitFailure;
    unsigned replaced = 0;
    for (const Ptr<Package::File>& file : files)
        if (package->GetFile(file->name))
            ++replaced;
    Progress progress("add");
    if (!package->AddFiles(files, &progress))
        return Fail("cannot add to " + Quote(path) + "; it is unchanged");
    std::printf("%u members added, %u replaced\n", files.Count() - replaced, replaced);
    return kExitSuccess;
}

int Delete(const std::string& path, const std::vector<std::string>& members)
{
    Ptr<Package> package = Open(path, true);
    if (!package)
        return kExitFailure;
    TArray<ConstPtr<Package::File>> chosen;
    if (!FindMembers(*package, path, members, "; nothing deleted", chosen))
        return kExitFailure;
    for (const ConstPtr<Package::File>& file : chosen)
        if (!package->Delete(file))
            return Fail("cannot delete " + Quote(Utf8(file->name)));
    if (!package->RebuildFileTable())
        return Fail("cannot write the table of " + Quote(path));
    uint64 dead = DeadBytes(*package);
    std::printf("%u members deleted; 'kovex-pack rebuild %s' would reclaim %s\n", chosen.Count(), path.c_str(),
                HumanBytes(dead).c_str());
    return kExitSuccess;
}

int Rename(const std::string& path, const std::string& from, const std::string& to)
{
    Ptr<Package> package = Open(path, true);
    if (!package)
        return kExitFailure;
    ConstPtr<Package::File> file = package->GetFile(Wide(from));
    if (!file)
        return Fail("no member " + Quote(from) + " in " + Quote(path));
    if (!Package::IsSafeName(Wide(to)))
        return Fail(Quote(to) + " is not a safe member name (absolute, empty, or with \"..\")");
    if (package->GetFile(Wide(to)))
        return Fail("a member " + Quote(to) + " exists already");
    if (!package->Rename(file, Wide(to)) || !package->RebuildFileTable())
        return Fail("cannot rename " + Quote(from));
    return kExitSuccess;
}

int Rebuild(const std::string& path)
{
    Ptr<Package> package = Open(path, true);
    if (!package)
        return kExitFailure;
    int64 before = package->GetPackageSize();
    Progress progress("rebuild");
    if (!package->RebuildPackage(&progress))
        return Fail("cannot rebuild " + Quote(path) + "; it is unchanged");
    int64 after = package->GetPackageSize();
    std::printf("%lld bytes, was %lld (%s reclaimed)\n", (long long)after, (long long)before,
                HumanBytes(before > after ? uint64(before - after) : 0).c_str());
    return kExitSuccess;
}

int Run(CommandLine& cl)
{
    const std::vector<std::string>& args = cl.Operands();
    if (args.empty())
        return cl.UsageError("no command given");
    const std::string& command = args[0];
    size_t operands = args.size() - 1;
    auto need = [&](bool ok, const char* what) { return ok ? -1 : cl.UsageError(command + " needs " + what); };
    bool creates = command == "create" || command == "add";
    if (!creates && (cl.Has("level") || cl.Has("store")))
        return cl.UsageError("-z and -s apply to create and add only");
    if (command != "create" && cl.Has("force"))
        return cl.UsageError("-f applies to create only");
    if (creates)
    {
        std::string level = cl.Value("level", "6");
        char* end = nullptr;
        long value = std::strtol(level.c_str(), &end, 10);
        if (level.empty() || *end || value < 0 || value > 9)
            return cl.UsageError("the level after -z must be 0 to 9");
        g_options.level = int(value);
        g_options.store = cl.Values("store");
    }
    int status = -1;
    if (command == "create")
        status = need(operands == 2, "PACKAGE and DIR");
    else if (command == "add")
        status = need(operands == 2, "PACKAGE and DIR");
    else if (command == "list" || command == "rebuild")
        status = need(operands == 1, "PACKAGE alone");
    else if (command == "extract")
        status = need(operands >= 2, "PACKAGE and DIR");
    else if (command == "delete")
        status = need(operands >= 2, "PACKAGE and at least one MEMBER");
    else if (command == "rename")
        status = need(operands == 3, "PACKAGE, OLD and NEW");
    else
        return cl.UsageError("unknown command " + Quote(command));
    if (status >= 0)
        return status;
    const std::string& package = args[1];
    std::vector<std::string> rest(args.begin() + 2, args.end());
    if (command == "create")
        return Create(package, rest[0], cl.Has("force"));
    if (command == "add")
        return Add(package, rest[0]);
    if (command == "list")
        return List(package);
    if (command == "rebuild")
        return Rebuild(package);
    if (command == "extract")
        return Extract(package, rest[0], std::vector<std::string>(rest.begin() + 1, rest.end()));
    if (command == "delete")
        return Delete(package, rest);
    return Rename(package, rest[0], rest[1]);
}

// The engine's own log lines are for developers; the tool states failures itself.
struct Quiet : LogProxy
{
    void Print(unsigned, const char16_t*) override {}
};

} // namespace

int main(int argc, char** argv)
{
    CommandLine cl("kovex-pack", kHelp);
    cl.Add('f', "force", false);
    cl.Add('z', "level", true);
    cl.Add('s', "store", true);
    g_cl = &cl;
    int status = cl.Parse(argc, argv);
    if (status >= 0)
        return status;
    Log::AddProxy(Ptr<LogProxy>(new Quiet()));
    Kovex_System_Initialize();
    g_kovexRootPath = u"/";
    status = Run(cl);
    Kovex_System_Terminate();
    Kovex_System_Cleanup();
    return status;
}
