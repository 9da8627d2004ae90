#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "io/FileStream.h"
#include "io/MemoryStream.h"
#include "io/StreamManager.h"
#include "lifecycle/Engine.h"
#include "kernel/Log.h"
#include "kernel/StringConv.h"
#include "support/LogCapture.h"
#include "support/ReadStream.h"

using namespace KovexEngine;
namespace fs = std::filesystem;

namespace {

class Root
{
public:
    Root()
    {
        char pattern[] = "/tmp/kovex-root-XXXXXX";
        path = std::string(mkdtemp(pattern)) + "/";
        previous = g_kovexRootPath;
        g_kovexRootPath = StringConvFuncs::ToWString(path.c_str());
        StreamManager::Destroy();
    }
    ~Root()
    {
        StreamManager::Destroy();
        g_kovexRootPath = previous;
        fs::remove_all(path);
    }
    void Write(const std::string& relative, const std::string& content) const
    {
        fs::create_directories(fs::path(path + relative).parent_path());
        std::ofstream(path + relative, std::ios::binary) << content;
    }
    WString W(const std::string& relative) const { return StringConvFuncs::ToWString((path + relative).c_str()); }
    std::string path;
    WString previous;
};

std::string ReadAll(const Ptr<Stream>& stream) { return KovexTest::ReadRest(stream); }

bool Everything(Package::File*) { return true; }

} // namespace

TEST(StreamManager, PackageNamesOfPaths)
{
    WString name, rest;
    EXPECT_FALSE(StreamManager::GetPackageName(name, rest, WString(u"[ab")));
    EXPECT_FALSE(StreamManager::GetPackageName(name, rest, WString(u"[a]")));
    ASSERT_TRUE(StreamManager::GetPackageName(name, rest, WString(u"[a]b")));
    EXPECT_TRUE(name == u"a");
    EXPECT_TRUE(rest == u"b");
    ASSERT_TRUE(StreamManager::GetPackageName(name, rest, WString(u"[]]x")));
    EXPECT_TRUE(name == u"]") << "a ] at index 1 is passed over";
    EXPECT_TRUE(rest == u"x");
}

TEST(StreamManager, AbsoluteAndRelativePaths)
{
    Root root;
    StreamManager* manager = StreamManager::Ins();
    KovexTest::LogCapture log;
    WString path(u"textures/../shaders/a.ksl");
    int error = -1;
    ASSERT_TRUE(manager->MakeAbsolutePath(path, &error));
    EXPECT_TRUE(path == root.W("shaders/a.ksl"));
    WString empty;
    EXPECT_FALSE(manager->MakeAbsolutePath(empty, &error));
    EXPECT_EQ(error, 1);
    WString unknown(u"[nowhere]x.txt");
    EXPECT_FALSE(manager->MakeAbsolutePath(unknown, &error));
    EXPECT_EQ(error, 3);
    EXPECT_TRUE(log->Contains(u"Can't find path of package [nowhere] !\n"));
    WString malformed(u"[ab");
    EXPECT_FALSE(manager->MakeAbsolutePath(malformed, &error));
    EXPECT_EQ(error, 2);

    // Naming a file inside a .kpk directory makes its alias known.
    WString inside = root.W("game/core.kpk/shaders/x.ksl");
    ASSERT_TRUE(manager->MakeRelativePath(inside, &error));
    EXPECT_TRUE(inside == u"[core]shaders/x.ksl");
    EXPECT_TRUE(manager->GetPackagePath(WString(u"core")) == root.W("game/core.kpk/"));
    WString back(u"[core]shaders/x.ksl");
    ASSERT_TRUE(manager->MakeAbsolutePath(back, &error));
    EXPECT_TRUE(back == root.W("game/core.kpk/shaders/x.ksl"));
    WString outside = root.W("plain/file.txt");
    EXPECT_FALSE(manager->MakeRelativePath(outside, &error));
    EXPECT_EQ(error, 2);

    EXPECT_TRUE(manager->SetPackagePath(WString(u"core"), root.W("game/core.kpk/")));
    EXPECT_FALSE(manager->SetPackagePath(WString(u"core"), root.W("elsewhere/core.kpk/")));
    EXPECT_TRUE(log->Contains((u"Can't set path '" + root.W("elsewhere/core.kpk/") + u"' to package 'core', the path is assigned to " +
                               root.W("game/core.kpk/") + u" !\n")()));
    manager->UnsetPackagePath(WString(u"core"));
    EXPECT_TRUE(manager->GetPackagePath(WString(u"core")).IsEmpty());
    EXPECT_TRUE(manager->FindPackageNameByPath(root.W("game/core.kpk/")).IsEmpty());
}

// The log lies below the stream layer and reaches it through a hook; a
// relative log file still lands under the root.
TEST(StreamManager, LogFilesTakeTheirPathsFromTheRoot)
{
    Root root;
    LogProxy_File file(WString(u"logs/../logs/run.log"));
    ASSERT_TRUE(file.IsOpen());
    EXPECT_EQ(std::string(file.GetPath()()), root.path + "logs/run.log");
    EXPECT_TRUE(fs::exists(root.path + "logs/run.log"));
}

TEST(StreamManager, LooseAndPackedAssetsHaveOnePath)
{
    Root root;
    root.Write("loose/art.kpk/tex/a.dds", "loose texture");
    root.Write("src/tex/b.dds", "packed texture");
    root.Write("src/tex/c.dds", "packed only");
    root.Write("plain.txt", "plain file");
    FindFile find;
    find.AddInclude(WString(u"*"), root.W("src"), FindFile::Recursive);
    ASSERT_TRUE(Package::MakeNewPackage(root.W("data/core.kpk"), find, DelegateC<bool(Package::File*)>(&Everything), nullptr));

    StreamManager* manager = StreamManager::Ins();
    manager->InitPackagePaths(root.W(""), true, true);
    EXPECT_TRUE(manager->GetPackagePath(WString(u"art")) == root.W("loose/art.kpk/"));
    EXPECT_TRUE(manager->GetPackagePath(WString(u"core")) == root.W("data/core.kpk/")) << "mounted from the recursive scan";
    EXPECT_EQ(manager->GetPackageCount(), 1u);

    EXPECT_EQ(ReadAll(manager->OpenStream(WString(u"[art]tex/a.dds"))), "loose texture");
    EXPECT_EQ(ReadAll(manager->OpenStream(WString(u"[core]tex/b.dds"))), "packed texture");
    EXPECT_EQ(ReadAll(manager->OpenStream(WString(u"plain.txt"))), "plain file");
    EXPECT_EQ(manager->OpenStream(WString(u"[core]tex/missing.dds")).Get(), nullptr);
    EXPECT_EQ(manager->OpenStream(WString(u"loose")).Get(), nullptr) << "a directory is no stream";

    manager->SetSource(StreamSource::Package);
    EXPECT_EQ(manager->OpenStream(WString(u"[art]tex/a.dds")).Get(), nullptr) << "a loose file is in no package";
    EXPECT_EQ(manager->OpenStream(WString(u"plain.txt")).Get(), nullptr);
    EXPECT_EQ(ReadAll(manager->OpenStream(WString(u"[core]tex/c.dds"))), "packed only");
    EXPECT_FALSE(manager->GetFileDateTime(WString(u"[core]tex/c.dds")) == Stream::DateTime::Invalid);
    manager->SetSource(StreamSource::File);
    EXPECT_EQ(manager->OpenStream(WString(u"[core]tex/c.dds")).Get(), nullptr) << "on disk only";
    EXPECT_TRUE(manager->GetFileDateTime(WString(u"plain.txt")) == Stream::DateTime::Invalid)
        << "with source File the path is taken literally";
    manager->SetSource(StreamSource::Package_File);
    EXPECT_EQ(ReadAll(manager->OpenStream(WString(u"plain.txt"))), "plain file");

    Ptr<Package> package = manager->GetPackage(root.W("data/core.kpk"));
    ASSERT_NE(package.Get(), nullptr);
    const auto* files = &package->GetFiles();
    EXPECT_TRUE(manager->Mount(package, package->GetMountDir()));
    EXPECT_EQ(&package->GetFiles(), files);
    manager->Unmount(root.W("data/core.kpk"));
    EXPECT_EQ(manager->GetPackageCount(), 0u);
    EXPECT_TRUE(manager->GetPackagePath(WString(u"core")).IsEmpty());
}

TEST(StreamManager, LoaderThreadsThatAskFirstMeetOneManager)
{
    for (int round = 0; round < 50; ++round)
    {
        StreamManager::Destroy();
        std::atomic<int> ready{0};
        StreamManager* seen[4] = {};
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&, t] {
                ready.fetch_add(1);
                while (ready.load() < 4)
                    std::this_thread::yield();
                seen[t] = StreamManager::Ins();
            });
        for (std::thread& thread : threads)
            thread.join();
        for (StreamManager* manager : seen)
            EXPECT_EQ(manager, StreamManager::Ins());
    }
}

TEST(StreamManager, LoaderThreadsOpenWhileAliasesAreLearnt)
{
    Root root;
    for (int i = 0; i < 4; ++i)
        root.Write("pk" + std::to_string(i) + ".kpk/file.txt", "content " + std::to_string(i));
    StreamManager* manager = StreamManager::Ins();
    std::vector<std::thread> loaders;
    std::atomic<int> good{0};
    for (int t = 0; t < 4; ++t)
        loaders.emplace_back([&, t] {
            for (int round = 0; round < 50; ++round)
            {
                int i = (t + round) % 4;
                WString path = root.W("pk" + std::to_string(i) + ".kpk/file.txt");
                WString relative(path);
                if (manager->MakeRelativePath(relative, nullptr) &&
                    ReadAll(manager->OpenStream(relative)) == "content " + std::to_string(i))
                    ++good;
            }
        });
    for (auto& l : loaders)
        l.join();
    EXPECT_EQ(good.load(), 200);
}

namespace {

bool TextDeflated(Package::File* file)
{
    file->compressionType = file->name.EndsWith(u".txt") ? 1 : 0;
    return true;
}

std::string MemberText(int package, int member)
{
    return std::string(3000 + 97 * member, char('a' + package * 8 + member)) + "#" + std::to_string(package * 10 + member);
}

} // namespace

TEST(StreamManager, LoaderThreadsReadWhilePackagesComeAndGo)
{
    constexpr int kPackages = 2, kMembers = 6, kLoaders = 3, kOpensPerLoader = 1500;
    Root root;
    for (int p = 0; p < kPackages; ++p)
    {
        std::string source = "src" + std::to_string(p) + "/";
        for (int m = 0; m < kMembers; ++m)
            root.Write(source + "m" + std::to_string(m) + (m % 2 ? ".txt" : ".bin"), MemberText(p, m));
        FindFile find;
        find.AddInclude(WString(u"*"), root.W(source), 0);
        ASSERT_TRUE(Package::MakeNewPackage(root.W("pk" + std::to_string(p) + ".kpk"), find,
                                            DelegateC<bool(Package::File*)>(&TextDeflated), nullptr));
    }
    root.Write("decoy.bin", std::string(20000, 'X'));
    StreamManager* manager = StreamManager::Ins();
    manager->SetSource(StreamSource::Package);
    auto mountPath = [&](int p) { return root.W("pk" + std::to_string(p) + ".kpk"); };
    for (int p = 0; p < kPackages; ++p)
        ASSERT_TRUE(manager->Mount(mountPath(p), mountPath(p) + u"/"));

    std::atomic<int> loadersLeft{kLoaders}, wrong{0}, read{0};
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    std::vector<std::thread> loaders;
    for (int t = 0; t < kLoaders; ++t)
        loaders.emplace_back([&, t] {
            // A stream opened in one round is read in the next, across
            // whatever the main thread did meanwhile.
            Ptr<Stream> held;
            std::string expected;
            for (int round = 0; round < kOpensPerLoader && std::chrono::steady_clock::now() < deadline; ++round)
            {
                if (held)
                {
                    std::string got = ReadAll(held);
                    got == expected ? ++read : ++wrong;
                    held->Close();
                    held = nullptr;
                }
                int p = (t + round) % kPackages, m = (round * 7 + t) % kMembers;
                std::string name = "[pk" + std::to_string(p) + "]m" + std::to_string(m) + (m % 2 ? ".txt" : ".bin");
                held = manager->OpenStream(StringConvFuncs::ToWString(name.c_str()));
                expected = MemberText(p, m);
                if (held && round % 3 == 0)
                {
                    // Half now, half later.
                    std::string part(size_t(held->GetSize() / 2), '\0');
                    if (!held->Read(part.data(), int(part.size())))
                        ++wrong;
                    expected = expected.substr(part.size());
                    if (part != MemberText(p, m).substr(0, part.size()))
                        ++wrong;
                }
            }
            if (held)
                ReadAll(held) == expected ? ++read : ++wrong;
            --loadersLeft;
        });
    int cycles = 0;
    while (loadersLeft.load() > 0)
    {
        int p = cycles++ % kPackages;
        manager->Unmount(mountPath(p));
        // Takes the descriptor number the package file just gave up.
        Ptr<FileStream> decoy(new FileStream(root.W("decoy.bin")));
        decoy->SetReadOnly();
        decoy->Open();
        std::this_thread::yield();
        manager->Mount(mountPath(p), mountPath(p) + u"/");
    }
    for (auto& loader : loaders)
        loader.join();
    EXPECT_EQ(wrong.load(), 0) << "a member stream never reads another file";
    EXPECT_GT(read.load(), 0);
    EXPECT_GT(cycles, 0);
}

TEST(StringPersistence, CountsThenCharactersInBothWidths)
{
    Ptr<MemoryStream> memory(new MemoryStream(0u));
    ASSERT_TRUE(memory->Open());
    AString narrow("narrow text");
    WString wide(u"wide \u00E9\U0001F600 text");
    ASSERT_TRUE(narrow.Save(*memory));
    ASSERT_TRUE(wide.Save(*memory));
    ASSERT_TRUE(WString().Save(*memory));
    EXPECT_EQ(memory->GetSize(), int64(4 + 11 + 4 + 2 * 13 + 4)) << "every 16-bit unit is written";
    memory->Seek(0, Stream::Begin);
    AString narrowBack;
    WString wideBack(u"not empty");
    WString emptyBack(u"also not empty");
    ASSERT_TRUE(narrowBack.Load(*memory));
    ASSERT_TRUE(wideBack.Load(*memory));
    ASSERT_TRUE(emptyBack.Load(*memory));
    EXPECT_TRUE(narrowBack == narrow);
    EXPECT_TRUE(wideBack == wide);
    EXPECT_TRUE(emptyBack.IsEmpty());

    DataStream data;
    data.SetAutoExtend(true);
    uint8 negative[4] = {0xFF, 0xFF, 0xFF, 0xFF};
    data.Write(negative, 4);
    uint8 huge[4] = {0xFF, 0xFF, 0xFF, 0x0F};
    data.Write(huge, 4);
    data.SetPosition(0);
    AString text;
    EXPECT_FALSE(text.Load(data)) << "a negative count";
    EXPECT_FALSE(text.Load(data)) << "a count beyond what the source holds";
    EXPECT_EQ(text.HeapLen(), 0u) << "and nothing was allocated for it";
}
