#include <gtest/gtest.h>

#include "kernel/Strings.h"

using namespace KovexEngine;

namespace {
AString FormatDir(const char* path)
{
    AString s(path);
    EXPECT_TRUE(s.FormatDir());
    return s;
}
} // namespace

TEST(StringPath, FileNamesDirectoriesAndExtensions)
{
    AString path("C:\\game/data\\model.mesh.xml");
    EXPECT_TRUE(path.ExtractFileName() == "model.mesh.xml");
    EXPECT_TRUE(path.ExtractDir() == "C:\\game/data\\");
    EXPECT_TRUE(path.GetFileExt() == ".xml");
    AString out;
    path.GetFileExtNoDot(out);
    EXPECT_TRUE(out == "xml");
    EXPECT_TRUE(path.CheckFileExt(".XML"));
    EXPECT_TRUE(path.CheckFileExt("xml"));
    EXPECT_FALSE(path.CheckFileExt("mesh"));
    EXPECT_FALSE(AString("noext").CheckFileExt(""));
    AString noSeparator("file.txt");
    EXPECT_TRUE(noSeparator.ExtractFileName() == "file.txt");
    EXPECT_TRUE(noSeparator.ExtractDir().IsEmpty());
    EXPECT_TRUE(AString("dir.v2/file").GetFileExt() == ".v2/file") << "the whole text is searched";
    AString removed(path);
    removed.RemoveFileExt();
    EXPECT_TRUE(removed == "C:\\game/data\\model.mesh");
    AString self("a/b/c");
    self.ExtractToLastSlash();
    EXPECT_TRUE(self == "a/b/");
}

TEST(StringPath, ParentDirectories)
{
    EXPECT_TRUE(AString("/usr/local/bin/app").ExtractLastDir() == "/usr/local/bin/");
    EXPECT_TRUE(AString("/usr/local/bin/").ExtractLastDir() == "/usr/local/");
    EXPECT_TRUE(AString("/usr/").ExtractLastDir().IsEmpty()) << "a separator at index 0 gives nothing";
    EXPECT_TRUE(AString("name").ExtractLastDir().IsEmpty());
    EXPECT_TRUE(AString("C:\\a\\b\\").ExtractLastDir() == "C:\\a\\");
    AString out;
    AString("a/b/c/").ExtractLastDirName(out);
    EXPECT_TRUE(out == "b");
    AString("a/b/c.txt").ExtractDirName(out);
    EXPECT_TRUE(out == "b");
    AString("a/b/c/").ExtractDirName(out);
    EXPECT_TRUE(out == "c");
}

TEST(StringPath, SlashesAndCase)
{
    AString s("a\\b\\c");
    s.ConvertSlashes();
    EXPECT_TRUE(s == "a/b/c");
    s.ConvertBackslashes();
    EXPECT_TRUE(s == "a\\b\\c");
    AString d("data/Textures/stone.dds");
    d.MakeDirUpper();
    EXPECT_TRUE(d == "DATA/TEXTURES/stone.dds");
}

TEST(StringPath, FormatDirFoldsParentSteps)
{
    EXPECT_TRUE(FormatDir("a/b/../c") == "a/c");
    EXPECT_TRUE(FormatDir("x/../y") == "/y") << "the leading separator of the piece stays";
    EXPECT_TRUE(FormatDir("../a") == "../a") << "a parent step at the start stays";
    EXPECT_TRUE(FormatDir("a/b/c/../../d/") == "a/d/");
    EXPECT_TRUE(FormatDir("D:\\game\\data\\..\\x") == "D:\\game\\x");
    EXPECT_TRUE(FormatDir("no/parent/steps") == "no/parent/steps");
    EXPECT_TRUE(FormatDir("/root/a/../../b") == "/b");
    EXPECT_TRUE(FormatDir("a/../../b") == "/../b");
    WString w(u"/data/shaders/../textures/");
    w.FormatDir();
    EXPECT_TRUE(w == u"/data/textures/");
}
