#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "lifecycle/Engine.h"
#include "kernel/Log.h"
#include "kernel/StringConv.h"
#include "math/MathUtil.h"
#include "reflection/ObjectManager.h"
#include "support/LogCapture.h"

using namespace KovexEngine;
namespace fs = std::filesystem;

namespace {

std::string Root() { return StringConvFuncs::ToAString(g_kovexRootPath()).c_str(); }

// Where a program with no "Data" above it finds its data: an installation
// of this build, if there is one, else this source tree.
std::string FallbackRoot()
{
    fs::path chosen = fs::is_directory(KOVEX_INSTALL_DATA) ? KOVEX_INSTALL_DATA : KOVEX_SOURCE_DATA;
    return fs::canonical(chosen).string() + "/";
}

void TerminateAll()
{
    Kovex_Main_Terminate();
    Kovex_Renderer_Terminate();
    Kovex_System_Terminate();
}

// A temporary directory tree, removed afterwards.
class TempTree
{
public:
    TempTree()
    {
        char pattern[] = "/tmp/kovex-root-XXXXXX";
        base = mkdtemp(pattern);
    }
    ~TempTree() { fs::remove_all(base); }
    fs::path base;
};

struct ProbeResult
{
    int status = -1;
    std::string root;
};

// Runs a copy of the probe program placed at `where`.
ProbeResult RunProbeAt(const fs::path& where, const char* mode)
{
    fs::create_directories(where.parent_path());
    fs::copy_file(KOVEX_ROOT_PROBE, where, fs::copy_options::overwrite_existing);
    std::string command = "'" + where.string() + "' " + mode;
    ProbeResult result;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe)
        return result;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0)
        result.root.append(buffer, n);
    int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

} // namespace

TEST(Engine, RootPathNormalisesSlashesAndParentSteps)
{
    EXPECT_TRUE(Kovex_SetRootPath(u"D:\\game\\data\\"));
    EXPECT_EQ(Root(), "D:/game/data/");
    EXPECT_TRUE(Kovex_SetRootPath(u"D:/game/data"));
    EXPECT_EQ(Root(), "D:/game/data") << "no trailing slash is added";
    EXPECT_TRUE(Kovex_SetRootPath(u"a/b/../c"));
    EXPECT_EQ(Root(), "a/c");
    EXPECT_TRUE(Kovex_SetRootPath(u"/srv/x\\..\\y/"));
    EXPECT_EQ(Root(), "/srv/y/");
}

TEST(Engine, RootPathWarnsWhenItCannotServeRelativeLoads)
{
    TempTree tree;
    std::string existing = tree.base.string();
    KovexTest::LogCapture log;
    // Each path is still taken as given.
    EXPECT_TRUE(Kovex_SetRootPath(StringConvFuncs::ToWString((existing + "/").c_str())()));
    EXPECT_TRUE(log->entries.IsEmpty()) << "an existing directory with its slash is quiet";
    EXPECT_TRUE(Kovex_SetRootPath(StringConvFuncs::ToWString(existing.c_str())()));
    EXPECT_EQ(Root(), existing);
    ASSERT_EQ(log->entries.Count(), 1u);
    EXPECT_EQ(log->entries[0].level, unsigned(LOG_WARNING));
    EXPECT_TRUE(log->Contains(StringConvFuncs::ToWString(
        ("Root path " + existing + " has no trailing slash; relative paths will not resolve under it.\n").c_str())()));
    EXPECT_TRUE(Kovex_SetRootPath(u"/no/such/kovex/root/"));
    EXPECT_EQ(Root(), "/no/such/kovex/root/");
    EXPECT_TRUE(log->Contains(u"Root path /no/such/kovex/root/ is not an existing directory.\n"));
    g_kovexRootPath.Clear();
}

TEST(Engine, DataDirectoryIsFoundFromTheExecutableUpwards)
{
    TempTree tree;
    fs::create_directories(tree.base / "a" / "Data");
    ProbeResult r = RunProbeAt(tree.base / "a" / "b" / "app", "root");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.root, (tree.base / "a" / "Data").string() + "/");

    // Beside the executable wins over the parent.
    fs::create_directories(tree.base / "a" / "b" / "Data");
    r = RunProbeAt(tree.base / "a" / "b" / "app", "root");
    EXPECT_EQ(r.root, (tree.base / "a" / "b" / "Data").string() + "/");

    // Loading with no root searches the same way.
    r = RunProbeAt(tree.base / "a" / "b" / "c" / "app", "load");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.root, (tree.base / "a" / "b" / "Data").string() + "/");
}

TEST(Engine, PlainFileNamedDataEndsTheSearchWithFailure)
{
    TempTree tree;
    fs::create_directories(tree.base / "a" / "Data");
    fs::create_directories(tree.base / "a" / "b");
    std::ofstream(tree.base / "a" / "b" / "Data") << "not a directory";
    // The upward search ends there; what is found next is the data the
    // library was built with, never the parent's directory.
    std::string fallback = FallbackRoot();
    ProbeResult r = RunProbeAt(tree.base / "a" / "b" / "app", "root");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.root, fallback) << "the parent's directory is not taken";
    r = RunProbeAt(tree.base / "a" / "b" / "app", "load");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.root, fallback);
}

TEST(Engine, ProgramAwayFromItsDataFindsTheDataItWasBuiltWith)
{
    if (fs::exists("/Data") || fs::exists("/tmp/Data"))
        GTEST_SKIP() << "a Data directory above /tmp would be found";
    TempTree tree;
    ProbeResult r = RunProbeAt(tree.base / "deep" / "er" / "app", "root");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.root, FallbackRoot());
}

TEST(Engine, LoadRequiredDataKeepsOrReplacesTheRoot)
{
    Kovex_Main_Initialize();
    ASSERT_TRUE(Kovex_SetRootPath(u"/games/one/"));
    EXPECT_TRUE(Kovex_Main_LoadRequiredData(nullptr));
    EXPECT_EQ(Root(), "/games/one/") << "a null argument keeps the root";
    EXPECT_TRUE(Kovex_Main_LoadRequiredData(u"/games/one/"));
    EXPECT_EQ(Root(), "/games/one/");
    EXPECT_TRUE(Kovex_Main_LoadRequiredData(u"/Games/One\\"));
    EXPECT_EQ(Root(), "/Games/One/") << "another spelling sets the root again";
    TerminateAll();
    EXPECT_EQ(Root(), "") << "terminating the main layer forgets the root";
}

TEST(Engine, LayersInitialiseOnceAndReviveAfterTerminate)
{
    EXPECT_FALSE(Kovex_Main_IsInited());
    Kovex_SetCacheStrategy(KOVEX_CACHE_TIME_MASKED);
    Kovex_Main_Initialize();
    EXPECT_TRUE(Kovex_System_IsInited());
    EXPECT_TRUE(Kovex_Renderer_IsInited());
    EXPECT_TRUE(Kovex_Main_IsInited());
    EXPECT_EQ(g_kovexMainThreadId, Kovex_GetCurrentThreadId());
    EXPECT_TRUE(Math::IsInited());
    EXPECT_TRUE(Log::HasProxies());
    EXPECT_EQ(g_FrameIndex, 0u);

    Kovex_SetCacheStrategy(KOVEX_CACHE_DEFAULT);
    EXPECT_EQ(Kovex_GetCacheStrategy(), KOVEX_CACHE_TIME_MASKED) << "ignored once the system layer stands";

    Kovex_FrameBegin();
    Kovex_FrameEnd();
    Kovex_FrameBegin();
    Kovex_FrameEnd();
    EXPECT_EQ(g_FrameIndex, 2u);
    Kovex_Main_Initialize();
    EXPECT_EQ(g_FrameIndex, 2u) << "a second initialisation leaves the frame index alone";

    TerminateAll();
    EXPECT_FALSE(Kovex_Main_IsInited());
    EXPECT_FALSE(Kovex_Renderer_IsInited());
    EXPECT_FALSE(Kovex_System_IsInited());
    Kovex_SetCacheStrategy(KOVEX_CACHE_DEFAULT);
    EXPECT_EQ(Kovex_GetCacheStrategy(), KOVEX_CACHE_DEFAULT);

    Kovex_Main_Initialize();
    EXPECT_EQ(g_FrameIndex, 0u) << "a fresh initialisation restarts the count";
    TerminateAll();
}

TEST(Engine, FrameClockAdvancesWithoutARenderer)
{
    Kovex_Main_Initialize();
    EXPECT_EQ(g_kovexTimer.GetElapsedTime(), 0.0);
    g_GraphicsCommandCounter = 17;
    uint64 before = g_FrameIndex;
    double elapsed = 0;
    for (int i = 0; i < 50; ++i)
    {
        Kovex_FrameBegin();
        EXPECT_GE(g_kovexTimer.GetDeltaTime(), 0.0);
        elapsed += g_kovexTimer.GetDeltaTime();
        EXPECT_EQ(g_kovexTimer.GetDeltaTime32(), float(g_kovexTimer.GetDeltaTime()));
        Kovex_FrameEnd();
    }
    EXPECT_EQ(g_FrameIndex, before + 50);
    EXPECT_EQ(g_GraphicsCommandCounter, 0u);
    EXPECT_NEAR(g_kovexTimer.GetElapsedTime(), elapsed, 1e-9) << "elapsed is the sum of the deltas";
    EXPECT_GT(g_kovexTimer.GetElapsedTime(), 0.0);
    TerminateAll();
}

TEST(Engine, CleanupAfterTerminateLeavesNothingBehind)
{
    // The cleanups end the process's use of the registries: run them in a
    // child process so that the other tests keep theirs.
    EXPECT_EXIT(
        {
            Kovex_Main_Initialize();
            TerminateAll();
            Kovex_Main_Cleanup();
            Kovex_Renderer_Cleanup();
            Kovex_System_Cleanup();
            bool ok = !Log::HasProxies() && Log::ms_proxis == nullptr && Class::ms_pClassArray == nullptr &&
                      ObjectManager::ms_singleton == nullptr;
            Log::Print(LOG_ERROR, u"no list: nothing happens");
            // The engine can be brought up again: classes are rebuilt on demand.
            Kovex_Main_Initialize();
            ok = ok && Class::GetClass(WString(u"ThreadCommand2")) != nullptr;
            TerminateAll();
            std::exit(ok ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(Engine, SelfFileNameIsThisExecutable)
{
    WString self;
    Kovex_GetSelfFileName(self);
    AString utf8 = StringConvFuncs::ToAString(self());
    EXPECT_EQ(fs::path(utf8.c_str()), fs::canonical("/proc/self/exe"));
}
