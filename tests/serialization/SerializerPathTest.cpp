#include <gtest/gtest.h>

#include <filesystem>

#include "io/StreamManager.h"
#include "lifecycle/Engine.h"
#include "kernel/StringConv.h"
#include "serialization/Serializer.h"
#include "support/LogCapture.h"

using namespace KovexEngine;

namespace {

// A temporary engine root with the stream manager made afresh over it.
class PathRoot
{
public:
    PathRoot()
    {
        char pattern[] = "/tmp/kovex-paths-XXXXXX";
        path = std::string(mkdtemp(pattern)) + "/";
        previous = g_kovexRootPath;
        g_kovexRootPath = W("");
        StreamManager::Destroy();
    }
    ~PathRoot()
    {
        StreamManager::Destroy();
        g_kovexRootPath = previous;
        std::filesystem::remove_all(path);
    }
    WString W(const std::string& relative) const { return StringConvFuncs::ToWString((path + relative).c_str()); }

    std::string path;
    WString previous;
};

WString Made(const WString& path, const WString& base)
{
    WString out(path);
    Serializer::MakePath(out, base);
    return out;
}

WString Unmade(const char16_t* path, const WString& base)
{
    WString out(path);
    Serializer::UnmakePath(out, base);
    return out;
}

} // namespace

TEST(SerializerPaths, ReferencesAreStoredRelativeToTheFileAndComeBackAbsolute)
{
    PathRoot root;
    const WString coreMaps = root.W("game/core.kpk/maps/");

    // Beside the file, in the same package.
    EXPECT_TRUE(Made(root.W("game/core.kpk/maps/x/y.mi"), coreMaps) == u"./x/y.mi");
    EXPECT_TRUE(Unmade(u"./x/y.mi", coreMaps) == root.W("game/core.kpk/maps/x/y.mi"));
    // Elsewhere in the same package: from the package's root.
    EXPECT_TRUE(Made(root.W("game/core.kpk/tex/a.dds"), coreMaps) == u"@tex/a.dds");
    EXPECT_TRUE(Unmade(u"@tex/a.dds", coreMaps) == root.W("game/core.kpk/tex/a.dds"));
    // In another package: by its alias.
    EXPECT_TRUE(Made(root.W("game/art.kpk/t.dds"), coreMaps) == u"[art]t.dds");
    EXPECT_TRUE(Unmade(u"[art]t.dds", coreMaps) == root.W("game/art.kpk/t.dds"));
    // Outside packages: beside the file, else from the engine root.
    const WString levels = root.W("levels/");
    EXPECT_TRUE(Made(root.W("levels/a/tex.dds"), levels) == u"./a/tex.dds");
    EXPECT_TRUE(Made(root.W("other/x.dds"), levels) == u"other/x.dds");
    EXPECT_TRUE(Unmade(u"other/x.dds", levels) == root.W("other/x.dds"));
    EXPECT_TRUE(Made(WString(), levels).IsEmpty());

    KovexTest::LogCapture log;
    Unmade(u"@tex/a.dds", levels);
    EXPECT_TRUE(log->Contains((u"Can't find package name of " + levels + u".\n")()));
}
