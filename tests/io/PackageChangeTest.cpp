// Changing packages: what a change leaves on disk when it completes, fails
// or is cut short, and what open member streams read meanwhile.

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>

#include "io/FileStream.h"
#include "io/MemoryStream.h"
#include "io/Package.h"
#include "kernel/StringConv.h"
#include "support/LogCapture.h"
#include "support/ReadStream.h"
#include "support/TempDir.h"

using namespace KovexEngine;
namespace fs = std::filesystem;

namespace {

using KovexTest::ReadRest;
using KovexTest::TempDir;
using Contents = std::map<std::string, std::string>;

std::string Bytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// Every member of the package at `path`, or an empty map when it does not mount.
Contents Mounted(const WString& path)
{
    KovexTest::LogCapture quiet;
    Package package(path);
    Contents out;
    if (!package.Mount(WString()))
        return out;
    for (const auto& pair : package.GetFiles())
    {
        Ptr<Stream> stream = package.CreateStream(pair.key);
        AString utf8;
        StringConvFuncs::UTF16toUTF8(utf8, pair.key(), pair.key.Length());
        out[utf8()] = stream && stream->Open() ? ReadRest(stream) : "<none>";
    }
    return out;
}

// A member to add from the file "in/<name>".
Ptr<Package::File> Source(const TempDir& dir, const std::string& name, uint8 type)
{
    Ptr<Package::File> file(new Package::File());
    file->name = StringConvFuncs::ToWString(name.c_str());
    file->path = dir.W("in/" + name);
    file->compressionType = type;
    file->compressionLevel = 6;
    return file;
}

// The same, writing the file first.
Ptr<Package::File> Source(const TempDir& dir, const std::string& name, const std::string& content, uint8 type)
{
    dir.Write("in/" + name, content);
    return Source(dir, name, type);
}

// What differs between two packages' contents, in short.
std::string Difference(const Contents& got, const Contents& want)
{
    std::string out;
    for (const auto& [name, content] : want)
    {
        auto found = got.find(name);
        if (found == got.end())
            out += name + " missing; ";
        else if (found->second != content)
            out += name + " differs (" + std::to_string(found->second.size()) + " bytes); ";
    }
    for (const auto& [name, content] : got)
        if (!want.count(name))
            out += name + " unexpected; ";
    return out.empty() ? "same" : out;
}

std::string Text(size_t length, unsigned seed)
{
    std::string out;
    static const char* words[] = {"alpha ", "beta ", "gamma ", "delta ", "omega\n"};
    while (out.size() < length)
        out += words[(out.size() * 7 + seed + out.size() / 11) % 5];
    out.resize(length);
    return out;
}

// Makes a package of the given members, each deflated when `deflated` says so.
void Make(const TempDir& dir, const std::string& package, const Contents& members, const std::string& deflated)
{
    TArray<Ptr<Package::File>> files;
    for (const auto& [name, content] : members)
        files.Add(Source(dir, name, content, deflated.find(name) != std::string::npos ? 1 : 0));
    ASSERT_TRUE(Package::MakeNewPackage(dir.W(package), files, nullptr));
}

} // namespace

TEST(PackageChange, AnInPlaceReplacementLeavesAPackageThatMounts)
{
    TempDir dir;
    Contents before = {{"a.txt", Text(20000, 1)}, {"b.bin", "bbbb"}};
    Make(dir, "p.kpk", before, "a.txt");
    uint64 oldOffset, dataEnd;
    {
        Package package(dir.W("p.kpk"));
        package.SetWritable(true);
        ASSERT_TRUE(package.Mount(WString()));
        oldOffset = package.GetFile(WString(u"a.txt"))->offset;
        dataEnd = uint64(package.GetPackageSize()) - 64 - package.GetHeader().GetSizeInPackage();
        // Raw over deflated, smaller than the deflated block: it goes in place,
        // and its record changes, so a deflated table changes its length.
        TArray<Ptr<Package::File>> files;
        files.Add(Source(dir, "a.txt", "raw and short", 0));
        ASSERT_TRUE(package.AddFiles(files, nullptr));
        EXPECT_EQ(package.GetFile(WString(u"a.txt"))->offset, oldOffset) << "the block was reused";
    }
    Contents after = Mounted(dir.W("p.kpk"));
    EXPECT_EQ(after, (Contents{{"a.txt", "raw and short"}, {"b.bin", "bbbb"}}));
    // The file ends with its header, right behind the table.
    std::string bytes = Bytes(dir.path + "/p.kpk");
    ASSERT_GE(bytes.size(), 64u);
    uint32_t tableSize, packedSize;
    std::memcpy(&tableSize, bytes.data() + bytes.size() - 64 + 16, 4);
    std::memcpy(&packedSize, bytes.data() + bytes.size() - 64 + 20, 4);
    uint32_t stored = bytes[bytes.size() - 64 + 24] ? packedSize : tableSize;
    EXPECT_EQ(bytes.size(), dataEnd + stored + 64) << "nothing stale behind the header";
}

TEST(PackageChange, MemberStreamsKeepReadingTheirOwnFile)
{
    TempDir dir;
    std::string first(5000, '1'), second(5000, '2');
    Make(dir, "p.kpk", {{"first.bin", first}, {"second.bin", second}}, "");
    dir.Write("decoy.bin", std::string(40000, 'X'));
    auto decoy = [&] {
        Ptr<FileStream> stream(new FileStream(dir.W("decoy.bin")));
        stream->SetReadOnly();
        EXPECT_TRUE(stream->Open());
        return stream;
    };

    // Unmounted under an open member, and the descriptor number reused.
    {
        Package package(dir.W("p.kpk"));
        ASSERT_TRUE(package.Mount(WString()));
        Ptr<Stream> read = package.CreateStream(WString(u"second.bin"));
        Ptr<Stream> mapped = package.CreateStream(WString(u"second.bin"));
        ASSERT_TRUE(read && read->Open() && mapped && mapped->Open());
        EXPECT_EQ(package.GetOpenStreamCount(), 2);
        package.Unmount();
        Ptr<FileStream> other = decoy();
        EXPECT_EQ(ReadRest(read), second);
        const char* view = static_cast<const char*>(mapped->Map(0, 5000));
        ASSERT_NE(view, nullptr);
        EXPECT_EQ(std::string(view, 5000), second);
        mapped->Unmap();
        read->Close();
        mapped->Close();
        EXPECT_EQ(package.GetOpenStreamCount(), 0);
    }

    // Rebuilt under an open member: every block moves.
    {
        Package package(dir.W("p.kpk"));
        package.SetWritable(true);
        ASSERT_TRUE(package.Mount(WString()));
        Ptr<Stream> read = package.CreateStream(WString(u"second.bin"));
        ASSERT_TRUE(read && read->Open());
        ASSERT_TRUE(package.Delete(package.GetFile(WString(u"first.bin"))));
        ASSERT_TRUE(package.RebuildPackage(nullptr));
        Ptr<FileStream> other = decoy();
        EXPECT_EQ(ReadRest(read), second);
        EXPECT_EQ(package.GetFile(WString(u"second.bin"))->offset, 0u);
    }

    // The package object itself is gone before its member is closed.
    Ptr<Stream> orphan;
    {
        Ptr<Package> package(new Package(dir.W("p.kpk")));
        ASSERT_TRUE(package->Mount(WString()));
        orphan = package->CreateStream(WString(u"second.bin"));
        ASSERT_TRUE(orphan && orphan->Open());
    }
    Ptr<FileStream> other = decoy();
    EXPECT_EQ(ReadRest(orphan), second);
    orphan->Close();
}

namespace {

// Runs `change` in a child process whose files may not grow past `limit`
// bytes. With `die` the child is killed by the write that crosses it, as by a
// crash; otherwise that write fails, as on a full disk. Returns the child's
// exit code, or -1 when it was killed.
int UnderFileSizeLimit(rlim_t limit, bool die, const std::function<bool()>& change)
{
    pid_t child = fork();
    if (child == 0)
    {
        signal(SIGXFSZ, die ? SIG_DFL : SIG_IGN);
        rlimit cap{limit, limit};
        setrlimit(RLIMIT_FSIZE, &cap);
        _exit(change() ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Cuts `change` short at every stretch of the size it writes, by a crash and
// by a full disk, and checks that the package then holds either everything
// as before or everything as after.
void CheckInterruptions(const TempDir& dir, const std::function<bool()>& change, const Contents& before,
                        const Contents& after)
{
    std::string path = dir.path + "/p.kpk";
    std::string original = Bytes(path);
    auto restore = [&] {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << original;
    };
    ASSERT_EQ(UnderFileSizeLimit(RLIM_INFINITY, false, change), 0);
    ASSERT_TRUE(Mounted(dir.W("p.kpk")) == after) << Difference(Mounted(dir.W("p.kpk")), after);
    size_t written = Bytes(path).size();
    restore();

    std::vector<rlim_t> limits;
    for (size_t step = 0; step < 48; ++step)
        limits.push_back(rlim_t(written * step / 48));
    for (size_t tail : {65u, 64u, 63u, 1u})
        limits.push_back(rlim_t(written - tail));
    for (bool die : {true, false})
        for (rlim_t limit : limits)
        {
            int result = UnderFileSizeLimit(limit, die, change);
            Contents now = Mounted(dir.W("p.kpk"));
            EXPECT_TRUE(now == before || now == after)
                << (die ? "killed" : "disk full") << " at " << limit << " of " << written
                << " bytes; against before: " << Difference(now, before) << " against after: " << Difference(now, after);
            if (!die)
            {
                EXPECT_EQ(result, 1) << "a failed write fails the change, at " << limit;
                EXPECT_TRUE(now == before) << Difference(now, before);
                EXPECT_FALSE(fs::exists(path + ".tmp")) << "nothing is left behind, at " << limit;
            }
            restore();
        }
    // A change cut short does not stand in the way of the next one.
    ASSERT_EQ(UnderFileSizeLimit(RLIM_INFINITY, false, change), 0);
    EXPECT_TRUE(Mounted(dir.W("p.kpk")) == after) << Difference(Mounted(dir.W("p.kpk")), after);
}

} // namespace

TEST(PackageChange, AddFilesCutShortLeavesTheOldPackageOrTheNew)
{
    TempDir dir;
    Contents before = {{"a.txt", Text(30000, 2)}, {"b.bin", std::string(9000, 'b')}, {"c.bin", Text(7000, 3)}};
    Make(dir, "p.kpk", before, "a.txt");
    Contents after = before;
    after["b.bin"] = std::string(3000, 'B');  // smaller: in place
    after["a.txt"] = Text(60000, 4);          // larger: appended
    after["d.bin"] = std::string(12000, 'd'); // new: appended
    for (const char* name : {"b.bin", "a.txt", "d.bin"})
        dir.Write(std::string("in/") + name, after[name]);
    // The child writes nothing but the package.
    auto change = [&] {
        Package package(dir.W("p.kpk"));
        package.SetWritable(true);
        if (!package.Mount(WString()))
            return false;
        TArray<Ptr<Package::File>> files;
        files.Add(Source(dir, "b.bin", uint8(0)));
        files.Add(Source(dir, "a.txt", uint8(1)));
        files.Add(Source(dir, "d.bin", uint8(0)));
        return package.AddFiles(files, nullptr);
    };
    CheckInterruptions(dir, change, before, after);
}

TEST(PackageChange, RenameAndDeleteCutShortLeaveTheOldPackageOrTheNew)
{
    TempDir dir;
    Contents before = {{"a.txt", Text(30000, 5)}, {"b.bin", std::string(9000, 'b')}, {"c.bin", Text(7000, 6)}};
    Make(dir, "p.kpk", before, "a.txt");
    Contents after = {{"a.txt", before["a.txt"]}, {"a/much/longer/name/for/c.bin", before["c.bin"]}};
    auto change = [&] {
        Package package(dir.W("p.kpk"));
        package.SetWritable(true);
        if (!package.Mount(WString()))
            return false;
        return package.Rename(package.GetFile(WString(u"c.bin")), WString(u"a/much/longer/name/for/c.bin")) &&
               package.Delete(package.GetFile(WString(u"b.bin"))) && package.RebuildFileTable();
    };
    CheckInterruptions(dir, change, before, after);
}

TEST(PackageChange, RebuildCutShortLeavesTheOldPackageOrTheNew)
{
    TempDir dir;
    Contents before = {{"a.txt", Text(30000, 7)}, {"b.bin", std::string(9000, 'b')}, {"c.bin", Text(7000, 8)}};
    Make(dir, "p.kpk", before, "a.txt");
    Contents after = {{"a.txt", before["a.txt"]}, {"c.bin", before["c.bin"]}};
    auto change = [&] {
        Package package(dir.W("p.kpk"));
        package.SetWritable(true);
        return package.Mount(WString()) && package.Delete(package.GetFile(WString(u"b.bin"))) &&
               package.RebuildPackage(nullptr);
    };
    CheckInterruptions(dir, change, before, after);
}

TEST(PackageChange, APackageInMemoryChangesTheSameWay)
{
    TempDir dir;
    Make(dir, "p.kpk", {{"a.txt", Text(20000, 9)}, {"b.bin", "bbbb"}}, "a.txt");
    std::string image = Bytes(dir.path + "/p.kpk");
    auto* data = new DataStream(unsigned(image.size()));
    std::memcpy(data->GetPointer(), image.data(), image.size());
    Ptr<Stream> memory(new MemoryStream(data, true));
    Package package(memory, WString(u"memory.kpk"));
    ASSERT_TRUE(package.Mount(WString()));
    Ptr<Stream> early = package.CreateStream(WString(u"b.bin"));
    ASSERT_TRUE(early && early->Open());

    TArray<Ptr<Package::File>> files;
    files.Add(Source(dir, "a.txt", "short now", 0)); // in place, and the table changes length
    files.Add(Source(dir, "c.bin", std::string(5000, 'c'), 0));
    ASSERT_TRUE(package.AddFiles(files, nullptr));
    ASSERT_TRUE(package.Rename(package.GetFile(WString(u"c.bin")), WString(u"dir/c.bin")));
    ASSERT_TRUE(package.RebuildFileTable());
    EXPECT_EQ(ReadRest(early), "bbbb") << "a member opened before the changes";
    early->Close();

    auto read = [&](const char16_t* name) {
        Ptr<Stream> stream = package.CreateStream(WString(name));
        return stream && stream->Open() ? ReadRest(stream) : std::string("<none>");
    };
    EXPECT_EQ(read(u"a.txt"), "short now");
    EXPECT_EQ(read(u"dir/c.bin"), std::string(5000, 'c'));
    ASSERT_TRUE(package.RebuildPackage(nullptr));
    // What the package stream now holds mounts afresh, with nothing stale at its end.
    const Ptr<Stream>& stream = package.GetPackage();
    std::string bytes(size_t(stream->GetSize()), '\0');
    stream->Seek(0, Stream::Begin);
    ASSERT_TRUE(stream->Read(bytes.data(), int(bytes.size())));
    std::ofstream(dir.path + "/copy.kpk", std::ios::binary) << bytes;
    EXPECT_EQ(Mounted(dir.W("copy.kpk")),
              (Contents{{"a.txt", "short now"}, {"b.bin", "bbbb"}, {"dir/c.bin", std::string(5000, 'c')}}));
}
