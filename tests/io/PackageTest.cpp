#include <gtest/gtest.h>

#include <zlib.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "io/FileStream.h"
#include "io/Package.h"
#include "kernel/StringConv.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

using namespace KovexEngine;
namespace fs = std::filesystem;

namespace {

using KovexTest::TempDir;

std::string ReadMember(Package& package, const WString& path)
{
    Ptr<Stream> stream = package.CreateStream(path);
    if (!stream || !stream->Open())
        return "<none>";
    std::string out(size_t(stream->GetSize()), '\0');
    if (!out.empty() && !stream->Read(out.data(), int(out.size())))
        return "<read failed>";
    stream->Close();
    return out;
}

std::string Bytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// An independent writer: builds a package byte by byte from the format.
struct Member
{
    std::string name;
    std::string data;
    bool compress;
};

void Put(std::string& out, uint64_t value, int bytes)
{
    for (int i = 0; i < bytes; ++i)
        out.push_back(char((value >> (8 * i)) & 0xFF));
}

std::string Deflate(const std::string& data)
{
    uLongf length = compressBound(uLong(data.size()));
    std::string out(length, '\0');
    compress2(reinterpret_cast<Bytef*>(out.data()), &length, reinterpret_cast<const Bytef*>(data.data()), uLong(data.size()), 6);
    out.resize(length);
    return out;
}

std::string BuildPackage(const std::vector<Member>& members, bool compressTable, uint32_t version = 1000)
{
    std::string file, table;
    for (const Member& m : members)
    {
        std::string stored = m.compress ? Deflate(m.data) : m.data;
        uint64_t offset = file.size();
        file += stored;
        std::string record;
        Put(record, 0, 4);
        Put(record, 0xAAAAAAAA, 4); // padding: any content
        Put(record, offset, 8);
        Put(record, m.data.size(), 8);
        Put(record, m.compress ? stored.size() : 0, 8);
        record.push_back(m.compress ? 1 : 0);
        record.push_back(m.compress ? 6 : 0);
        record.append(22, '\0');
        Put(record, 0x01D9F1D2, 4);
        Put(record, 0x12345678, 4);
        Put(record, m.name.size(), 4);
        record += m.name;
        table += record;
    }
    std::string storedTable = compressTable ? Deflate(table) : table;
    file += storedTable;
    std::string header;
    Put(header, version, 4);
    header += "KVPF";
    Put(header, members.size(), 8);
    Put(header, table.size(), 4);
    Put(header, compressTable ? storedTable.size() : 0, 4);
    header.push_back(compressTable ? 1 : 0);
    header.push_back(0);
    header.append(38, '\0');
    return file + header;
}

bool Takes(Package::File* file)
{
    // Text is compressed, everything else stored raw.
    file->compressionType = file->name.EndsWith(u".txt") ? 1 : 0;
    file->compressionLevel = 6;
    return !file->name.EndsWith(u".skip");
}

} // namespace

TEST(Package, MakeMountAndReadBackMemberForMember)
{
    TempDir dir;
    std::string big(300000, 'x');
    for (size_t i = 0; i < big.size(); i += 7)
        big[i] = char('a' + i % 26);
    dir.Write("src/readme.txt", "hello package");
    dir.Write("src/data/big.bin", big);
    dir.Write("src/data/empty.bin", "");
    dir.Write("src/data/ignored.skip", "nope");
    dir.Write("src/textures/big.txt", big);
    FindFile find;
    find.AddInclude(WString(u"*"), dir.W("src"), FindFile::Recursive);
    Package::State state;
    ASSERT_TRUE(Package::MakeNewPackage(dir.W("out.kpk"), find, DelegateC<bool(Package::File*)>(&Takes), &state));
    EXPECT_EQ(state.phase, 0);
    EXPECT_EQ(state.done, state.total);
    EXPECT_FALSE(fs::exists(dir.path + "/out.kpk.tmp"));

    Package package(dir.W("out.kpk"));
    ASSERT_TRUE(package.Mount(WString(u"/game/")));
    EXPECT_EQ(package.GetFiles().Count(), 4u);
    EXPECT_EQ(ReadMember(package, WString(u"/game/readme.txt")), "hello package");
    EXPECT_EQ(ReadMember(package, WString(u"/game/data/big.bin")), big);
    EXPECT_EQ(ReadMember(package, WString(u"textures/big.txt")), big) << "a path without the mount directory";
    ConstPtr<Package::File> text = package.GetFile(WString(u"textures/big.txt"));
    ASSERT_NE(text.Get(), nullptr);
    EXPECT_TRUE(text->IsCompressed());
    EXPECT_LT(text->compressedSize, text->size);
    EXPECT_FALSE(package.GetFile(WString(u"data/big.bin"))->IsCompressed());
    EXPECT_TRUE(text->path == u"/game/textures/big.txt");

    KovexTest::LogCapture log;
    EXPECT_EQ(package.CreateStream(WString(u"/game/data/empty.bin")).Get(), nullptr) << "an empty member has no stream";
    EXPECT_EQ(log->entries.Count(), 0u);
    EXPECT_FALSE(package.GetFileDateTime(WString(u"/game/data/empty.bin")) == Stream::DateTime::Invalid);
    EXPECT_EQ(package.CreateStream(WString(u"/game/missing.txt")).Get(), nullptr);
    EXPECT_TRUE(log->Contains(u"Package::CreateStream failed, path=/game/missing.txt\n"));
    EXPECT_TRUE(package.GetFileDateTime(WString(u"/other/readme.txt")) == Stream::DateTime::Invalid);

    // A raw member is read through a view of the package file.
    Ptr<Stream> raw = package.CreateStream(WString(u"/game/data/big.bin"));
    ASSERT_TRUE(raw->Open());
    EXPECT_EQ(package.GetOpenStreamCount(), 1);
    const char* view = static_cast<const char*>(raw->Map(100, 10));
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(std::string(view, 10), big.substr(100, 10));
    EXPECT_FALSE(raw->Write("x", 1));
    raw->Close();
    EXPECT_EQ(package.GetOpenStreamCount(), 0);

    Ptr<Stream> target(new FileStream(dir.W("extracted/big.txt")));
    ASSERT_TRUE(text->Extract(target, nullptr));
    EXPECT_EQ(Bytes(dir.path + "/extracted/big.txt"), big);
}

TEST(Package, AnIndependentlyWrittenPackageMounts)
{
    TempDir dir;
    std::string text(5000, 'q');
    std::string bytes = BuildPackage({{"a/raw.bin", "raw member", false},
                                      {"b\\windows\\style.txt", text, true},
                                      {"c/zero.bin", "", false}},
                                     true);
    std::ofstream(dir.path + "/independent.kovex", std::ios::binary) << bytes;
    Package package(dir.W("independent.kovex"));
    ASSERT_TRUE(package.Mount(WString()));
    EXPECT_EQ(ReadMember(package, WString(u"a/raw.bin")), "raw member");
    EXPECT_EQ(ReadMember(package, WString(u"b/windows/style.txt")), text) << "a name stored with \\ reads back with /";
    EXPECT_EQ(package.GetFile(WString(u"a/raw.bin"))->date.high, 0x12345678u);
    EXPECT_EQ(package.GetHeader().compressionType, 1);
}

TEST(Package, HeadersAreValidated)
{
    TempDir dir;
    KovexTest::LogCapture log;
    auto mounts = [&](const std::string& bytes) {
        std::ofstream(dir.path + "/p.kpk", std::ios::binary | std::ios::trunc) << bytes;
        Package package(dir.W("p.kpk"));
        return package.Mount(WString());
    };
    std::string empty = BuildPackage({}, false);
    ASSERT_EQ(empty.size(), 64u);
    EXPECT_TRUE(mounts(empty)) << "64 bytes, 0 files";
    EXPECT_FALSE(mounts(empty.substr(1))) << "63 bytes";
    EXPECT_TRUE(log->Contains((u"Package: " + StringConvFuncs::ToWString((dir.path + "/p.kpk").c_str()) +
                               u" is not a valid package.\n")()));
    EXPECT_FALSE(mounts(BuildPackage({{"a", "x", false}}, false, 1001)));
    EXPECT_TRUE(mounts(BuildPackage({{"a", "x", false}}, false, 999)));
    std::string wrongMagic = BuildPackage({{"a", "x", false}}, false);
    wrongMagic[wrongMagic.size() - 60] = 'X';
    EXPECT_FALSE(mounts(wrongMagic));
    std::string hugeTable = BuildPackage({{"a", "x", false}}, true);
    Put(hugeTable, 0, 0);
    hugeTable.replace(hugeTable.size() - 44, 4, std::string("\xFF\xFF\x00\x00", 4));
    EXPECT_FALSE(mounts(hugeTable)) << "a table larger than the file";
}

TEST(Package, HostileTablesFailCleanly)
{
    TempDir dir;
    KovexTest::LogCapture log;
    auto mounts = [&](const std::string& bytes) {
        std::ofstream(dir.path + "/h.kpk", std::ios::binary | std::ios::trunc) << bytes;
        Package package(dir.W("h.kpk"));
        return package.Mount(WString());
    };
    EXPECT_FALSE(mounts(BuildPackage({{"../escape.txt", "x", false}}, false))) << "a name that climbs out";
    EXPECT_FALSE(mounts(BuildPackage({{"/absolute", "x", false}}, false)));
    EXPECT_FALSE(mounts(BuildPackage({{"a//b", "x", false}}, false)));
    EXPECT_TRUE(log->Contains((u"Package: " + StringConvFuncs::ToWString((dir.path + "/h.kpk").c_str()) +
                               u" load package file table failed.\n")()));

    // A member whose block points past the data area.
    std::string outside = BuildPackage({{"a", "abc", false}}, false);
    size_t record = outside.size() - 64 - (68 + 1);
    Put(outside, 0, 0);
    for (int i = 0; i < 8; ++i)
        outside[record + 8 + i] = i == 0 ? char(0xF0) : 0;
    EXPECT_FALSE(mounts(outside));

    // A compression type with no compressor, whose small "compressed" block
    // fits but whose size, read raw, runs past the end of the file.
    std::string unknown = BuildPackage({{"a", "abcd", false}}, false);
    record = unknown.size() - 64 - (68 + 1);
    unknown[record + 16 + 1] = 0x04;  // size 1024 + 4
    unknown[record + 24] = 1;         // compressed size 1
    unknown[record + 32] = 3;         // type 3: none such
    EXPECT_FALSE(mounts(unknown));

    // An absurd member count.
    std::string count = BuildPackage({{"a", "abc", false}}, false);
    for (int i = 0; i < 8; ++i)
        count[count.size() - 56 + i] = char(0xFF);
    EXPECT_FALSE(mounts(count));

    // A truncated package: the header is gone.
    std::string whole = BuildPackage({{"a", "abc", false}, {"b", "defg", false}}, true);
    for (size_t cut = 1; cut < whole.size(); cut += 7)
        EXPECT_FALSE(mounts(whole.substr(0, cut)) && cut < whole.size() - 64) << cut;

    // A corrupt deflate stream inside a member.
    std::string corrupt = BuildPackage({{"z.txt", std::string(4000, 'z'), true}}, false);
    corrupt[5] = char(corrupt[5] ^ 0x5A);
    corrupt[9] = char(corrupt[9] ^ 0x3C);
    std::ofstream(dir.path + "/c.kpk", std::ios::binary) << corrupt;
    Package package(dir.W("c.kpk"));
    ASSERT_TRUE(package.Mount(WString()));
    EXPECT_EQ(package.CreateStream(WString(u"z.txt")).Get(), nullptr);
    EXPECT_TRUE(log->Contains(u"Decompress stream failed, internal error, z.txt\n"));
}

TEST(Package, AddRenameDeleteAndRebuild)
{
    TempDir dir;
    dir.Write("v1/a.txt", std::string(2000, 'a'));
    dir.Write("v1/b.bin", "bbbb");
    FindFile find;
    find.AddInclude(WString(u"*"), dir.W("v1"), 0);
    ASSERT_TRUE(Package::MakeNewPackage(dir.W("p.kpk"), find, DelegateC<bool(Package::File*)>(&Takes), nullptr));

    Package package(dir.W("p.kpk"));
    ASSERT_TRUE(package.Mount(WString()));
    uint64 oldOffset = package.GetFile(WString(u"b.bin"))->offset;

    dir.Write("new/b.bin", "BB");          // smaller: rewritten in place
    dir.Write("new/c.bin", "cccccccccc");  // new: appended
    dir.Write("new/a.txt", std::string(9000, 'x') + "unique tail"); // larger: appended
    TArray<Ptr<Package::File>> files;
    for (const char* name : {"b.bin", "c.bin", "a.txt"})
    {
        Ptr<Package::File> file(new Package::File());
        file->name = StringConvFuncs::ToWString(name);
        file->path = dir.W(std::string("new/") + name);
        file->compressionType = file->name.EndsWith(u".txt") ? 1 : 0;
        files.Add(file);
    }
    ASSERT_TRUE(package.AddFiles(files, nullptr));
    EXPECT_EQ(package.GetFile(WString(u"b.bin"))->offset, oldOffset) << "the smaller file reused its block";
    EXPECT_EQ(ReadMember(package, WString(u"b.bin")), "BB");
    EXPECT_EQ(ReadMember(package, WString(u"c.bin")), "cccccccccc");
    package.Unmount();
    package.SetWritable(false);
    ASSERT_TRUE(package.Mount(WString()));
    EXPECT_EQ(ReadMember(package, WString(u"c.bin")), "cccccccccc") << "appended members are found after remounting";
    EXPECT_EQ(ReadMember(package, WString(u"a.txt")), std::string(9000, 'x') + "unique tail");
    int64 withHoles = package.GetPackageSize();

    package.Unmount();
    package.SetWritable(true);
    ASSERT_TRUE(package.Mount(WString()));
    ConstPtr<Package::File> c = package.GetFile(WString(u"c.bin"));
    EXPECT_TRUE(package.Rename(c, WString(u"renamed/c.bin")));
    EXPECT_FALSE(package.Rename(c, WString(u"a.txt")));
    EXPECT_TRUE(package.Delete(package.GetFile(WString(u"b.bin"))));
    ASSERT_TRUE(package.RebuildPackage(nullptr));
    EXPECT_LT(package.GetPackageSize(), withHoles) << "holes are gone";
    EXPECT_EQ(ReadMember(package, WString(u"renamed/c.bin")), "cccccccccc");
    EXPECT_EQ(c->name, WString(u"renamed/c.bin")) << "member objects keep their identity";
    package.Unmount();
    ASSERT_TRUE(package.Mount(WString()));
    EXPECT_EQ(package.GetFiles().Count(), 2u);
    EXPECT_EQ(package.GetFile(WString(u"b.bin")).Get(), nullptr);
    EXPECT_EQ(ReadMember(package, WString(u"a.txt")), std::string(9000, 'x') + "unique tail");
    EXPECT_FALSE(fs::exists(dir.path + "/p.kpk.tmp"));

    // Deleting without a rebuild is forgotten at the next mount.
    package.Unmount();
    package.SetWritable(true);
    ASSERT_TRUE(package.Mount(WString()));
    EXPECT_TRUE(package.Delete(package.GetFile(WString(u"a.txt"))));
    package.Unmount();
    ASSERT_TRUE(package.Mount(WString()));
    EXPECT_NE(package.GetFile(WString(u"a.txt")).Get(), nullptr);
}

TEST(Package, EmptyPackagesAndPackagesInMemory)
{
    TempDir dir;
    TArray<Ptr<Package::File>> none;
    ASSERT_TRUE(Package::MakeNewPackage(dir.W("empty.kpk"), none, nullptr));
    std::string bytes = Bytes(dir.path + "/empty.kpk");
    ASSERT_EQ(bytes.size(), 64u);
    EXPECT_EQ(bytes[24], 0) << "an empty table is stored raw";

    std::string image = BuildPackage({{"m/one.txt", std::string(3000, '1'), true}, {"m/two.bin", "two", false}}, true);
    auto* data = new DataStream(unsigned(image.size()));
    std::memcpy(data->GetPointer(), image.data(), image.size());
    Ptr<Stream> memory(new MemoryStream(data, true));
    Package package(memory, WString(u"memory.kpk"));
    ASSERT_TRUE(package.Mount(WString(u"mem")));
    EXPECT_EQ(ReadMember(package, WString(u"mem/m/one.txt")), std::string(3000, '1'));
    EXPECT_EQ(ReadMember(package, WString(u"mem/m/two.bin")), "two");
}

TEST(Package, ConcurrentReadersShareOnePackage)
{
    TempDir dir;
    for (int i = 0; i < 8; ++i)
        dir.Write("src/f" + std::to_string(i) + (i % 2 ? ".txt" : ".bin"), std::string(20000 + i, char('a' + i)));
    FindFile find;
    find.AddInclude(WString(u"*"), dir.W("src"), 0);
    ASSERT_TRUE(Package::MakeNewPackage(dir.W("p.kpk"), find, DelegateC<bool(Package::File*)>(&Takes), nullptr));
    Package package(dir.W("p.kpk"));
    ASSERT_TRUE(package.Mount(WString()));
    std::vector<std::thread> readers;
    std::atomic<int> good{0};
    for (int t = 0; t < 4; ++t)
        readers.emplace_back([&, t] {
            for (int round = 0; round < 20; ++round)
            {
                int i = (t + round) % 8;
                std::string name = "f" + std::to_string(i) + (i % 2 ? ".txt" : ".bin");
                if (ReadMember(package, StringConvFuncs::ToWString(name.c_str())) == std::string(20000 + i, char('a' + i)))
                    ++good;
            }
        });
    for (auto& r : readers)
        r.join();
    EXPECT_EQ(good.load(), 80);
}

TEST(Package, AFailedRebuildLeavesTheOriginalWhole)
{
    TempDir dir;
    dir.Write("src/a.bin", "original a");
    dir.Write("src/b.txt", std::string(4000, 'b'));
    FindFile find;
    find.AddInclude(WString(u"*"), dir.W("src"), 0);
    ASSERT_TRUE(Package::MakeNewPackage(dir.W("p.kpk"), find, DelegateC<bool(Package::File*)>(&Takes), nullptr));
    std::string before = Bytes(dir.path + "/p.kpk");
    // The temporary file cannot be made: a directory stands in its place.
    fs::create_directories(dir.path + "/p.kpk.tmp");
    {
        KovexTest::LogCapture log;
        Package package(dir.W("p.kpk"));
        package.SetWritable(true);
        ASSERT_TRUE(package.Mount(WString()));
        EXPECT_FALSE(package.RebuildPackage(nullptr));
        EXPECT_EQ(ReadMember(package, WString(u"a.bin")), "original a") << "still readable after the failure";
    }
    EXPECT_EQ(Bytes(dir.path + "/p.kpk"), before) << "not one byte of the original changed";

    // A new package that cannot be completed leaves an old one in place.
    TArray<Ptr<Package::File>> broken;
    Ptr<Package::File> missing(new Package::File());
    missing->name = u"gone.bin";
    missing->path = dir.W("src/does-not-exist.bin");
    broken.Add(missing);
    fs::remove_all(dir.path + "/p.kpk.tmp");
    EXPECT_FALSE(Package::MakeNewPackage(dir.W("p.kpk"), broken, nullptr));
    EXPECT_EQ(Bytes(dir.path + "/p.kpk"), before);
    EXPECT_FALSE(fs::exists(dir.path + "/p.kpk.tmp"));
}

TEST(Package, ConcurrentReadersWhileThePackageIsRemountedAndChanged)
{
    TempDir dir;
    constexpr int kMembers = 6, kReaders = 3, kReadsPerReader = 1000;
    auto content = [](int i) { return std::string(4000 + 131 * i, char('k' + i)) + std::to_string(i); };
    auto name = [](int i) { return "f" + std::to_string(i) + (i % 2 ? ".txt" : ".bin"); };
    for (int i = 0; i < kMembers; ++i)
        dir.Write("src/" + name(i), content(i));
    FindFile find;
    find.AddInclude(WString(u"*"), dir.W("src"), 0);
    ASSERT_TRUE(Package::MakeNewPackage(dir.W("p.kpk"), find, DelegateC<bool(Package::File*)>(&Takes), nullptr));
    Package package(dir.W("p.kpk"));
    package.SetWritable(true);
    ASSERT_TRUE(package.Mount(WString()));

    std::atomic<int> readersLeft{kReaders}, wrong{0}, good{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < kReaders; ++t)
        readers.emplace_back([&, t] {
            for (int round = 0; round < kReadsPerReader; ++round)
            {
                int i = (round * 5 + t) % kMembers;
                std::string got = ReadMember(package, StringConvFuncs::ToWString(name(i).c_str()));
                if (got == content(i))
                    ++good;
                else if (got != "<none>") // unmounted just then
                    ++wrong;
            }
            --readersLeft;
        });
    // Remounts, and rewrites a member with the same bytes, which moves it.
    TArray<Ptr<Package::File>> again;
    Ptr<Package::File> file(new Package::File());
    file->name = u"f1.txt";
    file->path = dir.W("src/f1.txt");
    file->compressionType = 0;
    again.Add(file);
    for (int cycle = 0; readersLeft.load() > 0; ++cycle)
    {
        if (cycle % 4 == 3)
            EXPECT_TRUE(package.AddFiles(again, nullptr));
        package.Unmount();
        std::this_thread::yield();
        EXPECT_TRUE(package.Mount(WString()));
    }
    for (auto& reader : readers)
        reader.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_GT(good.load(), 0);
    EXPECT_EQ(ReadMember(package, WString(u"f1.txt")), content(1));
}
