#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "io/CacheDirectory.h"
#include "kernel/EngineGlobals.h"
#include "kernel/StringConv.h"
#include "support/LogCapture.h"

using namespace KovexEngine;

namespace {

// Restores the root path and XDG_CACHE_HOME whatever the test did.
struct CacheEnvironment
{
    WString root = g_kovexRootPath;
    const char* saved = std::getenv("XDG_CACHE_HOME");
    std::string xdg = saved ? saved : "";
    std::filesystem::path temp;
    CacheEnvironment()
    {
        char pattern[] = "/tmp/kovex-cachedir-XXXXXX";
        temp = ::mkdtemp(pattern);
    }
    ~CacheEnvironment()
    {
        g_kovexRootPath = root;
        if (saved)
            ::setenv("XDG_CACHE_HOME", xdg.c_str(), 1);
        else
            ::unsetenv("XDG_CACHE_HOME");
        std::filesystem::remove_all(temp);
    }
    static std::string Utf8(const WString& text) { return StringConvFuncs::ToAString(text())(); }
};

} // namespace

TEST(CacheDirectory, TheRootWhenWritableElseTheUsersCacheMadeOnDemand)
{
    CacheEnvironment env;
    g_kovexRootPath = StringConvFuncs::ToWString((env.temp.string() + "/").c_str());
    EXPECT_EQ(CacheEnvironment::Utf8(GetEngineCacheDirectory()), env.temp.string() + "/");

    // A root that cannot be written (here: one that does not exist) sends
    // the cache to $XDG_CACHE_HOME/KovexEngine/, made with its parents.
    g_kovexRootPath = u"/nonexistent-kovex-root/data/";
    std::string xdg = env.temp.string() + "/xdg/deeper";
    ::setenv("XDG_CACHE_HOME", xdg.c_str(), 1);
    std::string expected = xdg + "/KovexEngine/";
    EXPECT_EQ(CacheEnvironment::Utf8(GetEngineCacheDirectory()), expected);
    struct stat info;
    ASSERT_EQ(::stat(expected.c_str(), &info), 0);
    EXPECT_TRUE(S_ISDIR(info.st_mode));

    // A cache home that is a file cannot hold the directory: one clear line.
    std::string file = env.temp.string() + "/plain-file";
    FILE* f = std::fopen(file.c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fclose(f);
    ::setenv("XDG_CACHE_HOME", file.c_str(), 1);
    KovexTest::LogCapture log;
    EXPECT_TRUE(GetEngineCacheDirectory().IsEmpty());
    EXPECT_TRUE(log->Contains(u"No writable cache directory.\n"));
}
