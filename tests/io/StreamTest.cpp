#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "io/FileStream.h"
#include "io/FindFile.h"
#include "io/MemoryStream.h"
#include "kernel/StringConv.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

using namespace KovexEngine;
namespace fs = std::filesystem;

namespace {

using KovexTest::TempDir;

std::string ReadAll(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

} // namespace

TEST(DataStream, LengthPositionAndAutoExtend)
{
    DataStream data(4);
    EXPECT_EQ(data.GetLength(), 4u);
    EXPECT_TRUE(data.SetPosition(4)) << "the end itself is a position";
    EXPECT_FALSE(data.SetPosition(5));
    EXPECT_EQ(data.GetPosition(), 4u);
    EXPECT_FALSE(data.Write("x", 1)) << "no auto-extend: nothing is written";
    EXPECT_EQ(data.GetLength(), 4u);
    data.SetAutoExtend(true);
    EXPECT_TRUE(data.Write("hello", 5));
    EXPECT_EQ(data.GetLength(), 9u);
    EXPECT_EQ(data.GetCapacity(), 18u) << "twice position + size";
    data.SetPosition(4);
    char out[6] = {};
    EXPECT_TRUE(data.Read(out, 5));
    EXPECT_STREQ(out, "hello");
    EXPECT_FALSE(data.Read(out, 1)) << "no short reads";
    DataStream copy(data);
    EXPECT_EQ(copy.GetLength(), 9u);
    EXPECT_EQ(copy.GetCapacity(), 9u) << "a copy holds exactly the length";
    EXPECT_EQ(std::memcmp(copy.GetPointer(4), "hello", 5), 0);
    data.SetLength(2, true);
    EXPECT_EQ(data.GetPosition(), 2u) << "shrinking clamps the position";
    EXPECT_FALSE(data.Reserve(0xFFFFFFFFu, true)) << "absurd sizes are refused";
    data.ReleaseData();
    EXPECT_TRUE(data.IsEmpty());
    EXPECT_EQ(data.GetPointer(), nullptr);
}

TEST(Stream, AccessBitsChangeOnlyWhileClosedAndUnfixed)
{
    TempDir dir;
    Ptr<FileStream> file(new FileStream(dir.W("a.bin")));
    EXPECT_TRUE(file->IsReadOnly()) << "a new stream is readable only";
    file->SetWriteOnly();
    EXPECT_TRUE(file->IsWriteOnly());
    ASSERT_TRUE(file->Open());
    file->SetReadable(true);
    EXPECT_TRUE(file->IsWriteOnly()) << "an open stream keeps its access";
    file->Close();
    Ptr<MemoryStream> memory(new MemoryStream(16u));
    memory->SetReadOnly();
    EXPECT_TRUE(memory->IsReadWrite()) << "fixed at construction";
}

TEST(FileStream, WritesCreateDirectoriesAndReadsBack)
{
    TempDir dir;
    Ptr<FileStream> out(new FileStream(dir.W("deep/er/file.bin")));
    out->SetWriteOnly();
    ASSERT_TRUE(out->Open()) << "missing directories are created";
    EXPECT_FALSE(out->Write("", 0)) << "a write of 0 bytes fails";
    ASSERT_TRUE(out->Write("0123456789", 10));
    out->Close();
    EXPECT_EQ(ReadAll(dir.path + "/deep/er/file.bin"), "0123456789");

    Ptr<FileStream> in(new FileStream(dir.W("deep/er/file.bin")));
    ASSERT_TRUE(in->Open());
    EXPECT_EQ(in->GetSize(), 10);
    char buffer[16] = {};
    EXPECT_FALSE(in->Read(buffer, 0));
    in->SetPosition(3);
    ASSERT_TRUE(in->Read(buffer, 4));
    EXPECT_EQ(std::string(buffer, 4), "3456");
    EXPECT_EQ(in->GetPosition(), 7);
    EXPECT_FALSE(in->Read(buffer, 4)) << "no short reads";
    in->SetPosition(11);
    EXPECT_LE(in->GetPosition(), 10) << "a position beyond the size is refused";
    in->Seek(-2, Stream::End);
    EXPECT_EQ(in->GetPosition(), 8);
    EXPECT_FALSE(in->EndOfStream());

    const char* view = static_cast<const char*>(in->Map(5, 5));
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(std::string(view, 5), "56789");
    EXPECT_TRUE(in->IsMapped());
    in->Unmap();
    EXPECT_EQ(in->Map(8, 5), nullptr) << "no view past the end of the file";
    in->Close();

    AString text;
    EXPECT_TRUE(in->LoadText(text)) << "a closed stream opens for the read";
    EXPECT_TRUE(text == "0123456789");
    EXPECT_FALSE(in->IsOpenned());
}

TEST(FileStream, FailuresLogAndDatesRoundTrip)
{
    TempDir dir;
    KovexTest::LogCapture log;
    Ptr<FileStream> missing(new FileStream(dir.W("nope.bin")));
    EXPECT_FALSE(missing->Open());
    ASSERT_EQ(log->entries.Count(), 1u);
    EXPECT_EQ(log->entries[0].level, unsigned(LOG_WARNING));
    EXPECT_TRUE(log->entries[0].text.StartsWith(u"Create File "));
    EXPECT_TRUE(log->entries[0].text.EndsWith(u"nope.bin failed, error = 2.\n"));
    EXPECT_EQ(missing->GetSize(), -1);
    EXPECT_EQ(missing->GetPosition(), 0);
    EXPECT_TRUE(log->Contains(u"FileStream: GetPosition() failed, because the stream is not openned.\n"));

    std::ofstream(dir.path + "/dated.bin") << "x";
    Ptr<FileStream> dated(new FileStream(dir.W("dated.bin")));
    dated->SetReadWrite();
    Stream::DateTime stamp = Stream::DateTime::FromUnix(1700000000, 0);
    EXPECT_TRUE(dated->SetDateTime(stamp));
    EXPECT_TRUE(dated->GetDateTime() == stamp);
    WString text;
    stamp.ToString(text);
    EXPECT_TRUE(text == u"2023-11-14 22:13:20");
    Stream::DateTime::Invalid.ToString(text);
    EXPECT_TRUE(text == u"Error Time");
    EXPECT_TRUE(Stream::DateTime::Zero < stamp);
    EXPECT_TRUE(FileStream::FileExists(dir.W("dated.bin")));
    EXPECT_FALSE(FileStream::FileExists(dir.W("")));
    EXPECT_TRUE(FileStream::DirectoryExists(dir.W("")));
}

TEST(FileStream, AttachedDescriptorsStayOpen)
{
    TempDir dir;
    std::ofstream(dir.path + "/attached.bin") << "abc";
    int fd = ::open((dir.path + "/attached.bin").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    {
        Ptr<FileStream> stream(new FileStream(reinterpret_cast<void*>(intptr_t(fd)), true, false));
        EXPECT_EQ(stream->GetFlags() & 0x1008u, 0x1008u);
        ASSERT_TRUE(stream->Open());
        char c;
        EXPECT_TRUE(stream->Read(&c, 1));
        stream->Close();
    }
    EXPECT_EQ(::lseek(fd, 0, SEEK_CUR), 1) << "the descriptor was not closed";
    ::close(fd);
}

TEST(FileMappingStream, ReadsAndGrowsThroughItsOwnPosition)
{
    TempDir dir;
    std::ofstream(dir.path + "/map.bin") << "abcdefgh";
    Ptr<FileMappingStream> stream(new FileMappingStream(dir.W("map.bin")));
    stream->SetReadWrite();
    ASSERT_TRUE(stream->Open());
    stream->Seek(2, Stream::Begin);
    char buffer[4] = {};
    ASSERT_TRUE(stream->Read(buffer, 3));
    EXPECT_EQ(std::string(buffer, 3), "cde");
    EXPECT_EQ(stream->GetPosition(), 2) << "the caller moves the position";
    ASSERT_TRUE(stream->Write("XY", 2));
    stream->Seek(8, Stream::Begin);
    ASSERT_TRUE(stream->Write("12", 2)) << "beyond the end the file grows";
    stream->Close();
    EXPECT_EQ(ReadAll(dir.path + "/map.bin"), "abXYefgh12");
}

TEST(MemoryStream, OwnedAndBorrowedData)
{
    Ptr<MemoryStream> owned(new MemoryStream(0u));
    ASSERT_TRUE(owned->Open());
    EXPECT_TRUE(owned->Write("data", 4));
    EXPECT_EQ(owned->GetSize(), 4);
    owned->Seek(0, Stream::Begin);
    char buffer[4];
    EXPECT_TRUE(owned->Read(buffer, 4));
    owned->Seek(5, Stream::Begin);
    EXPECT_EQ(owned->GetPosition(), 4) << "a seek past the length is refused";

    DataStream borrowed(3);
    std::memcpy(borrowed.GetPointer(), "abc", 3);
    {
        Ptr<MemoryStream> view(new MemoryStream(&borrowed, false));
        EXPECT_TRUE(view->IsReadOnly());
        ASSERT_TRUE(view->Open());
        EXPECT_FALSE(borrowed.GetAutoExtend());
        view->Seek(2, Stream::Begin);
        EXPECT_FALSE(view->Write("zz", 2)) << "read-only: no auto-extend past the length";
        EXPECT_EQ(std::string(static_cast<char*>(view->Map(1, 2)), 2), "bc");
    }
    EXPECT_EQ(borrowed.GetLength(), 3u) << "the caller's DataStream survives the stream";
}

TEST(ProxyStream, ShowsAStretchOfItsSource)
{
    TempDir dir;
    std::ofstream(dir.path + "/source.bin") << "0123456789";
    Ptr<Stream> source(new FileStream(dir.W("source.bin")));
    source->SetReadWrite();
    Ptr<ProxyStream> proxy(new ProxyStream(source, 2, 5));
    EXPECT_TRUE(proxy->IsReadWrite()) << "access bits come from the source";
    ASSERT_TRUE(proxy->Open());
    EXPECT_EQ(proxy->GetSize(), 5);
    char buffer[8] = {};
    ASSERT_TRUE(proxy->Read(buffer, 3));
    EXPECT_EQ(std::string(buffer, 3), "234");
    EXPECT_FALSE(proxy->Read(buffer, 3)) << "nothing beyond the stretch";
    KovexTest::LogCapture log;
    proxy->Seek(4, Stream::Begin);
    EXPECT_FALSE(proxy->Write("AB", 2));
    EXPECT_TRUE(log->Contains(u"Write data to ProxyStream failed, can't extend length automatic.\n"));
    proxy->Seek(1, Stream::Begin);
    EXPECT_TRUE(proxy->Write("AB", 2));
    proxy->Close();
    EXPECT_FALSE(source->IsOpenned()) << "the proxy opened it, the proxy closed it";
    EXPECT_EQ(ReadAll(dir.path + "/source.bin"), "012AB56789");

    source->Open();
    Ptr<ProxyStream> second(new ProxyStream(source, 0, 3));
    ASSERT_TRUE(second->Open());
    second->Close();
    EXPECT_TRUE(source->IsOpenned()) << "a source open before stays open";
}

TEST(ResourceStream, BlobsByNameAndType)
{
    static const char blob[] = "embedded bytes";
    ASSERT_TRUE(ResourceStream::Register(u"greeting", u"TEXT", blob, sizeof blob - 1));
    ASSERT_TRUE(ResourceStream::Register(7u, 10u, blob, 8));
    Ptr<ResourceStream> stream(new ResourceStream(nullptr, u"greeting", u"TEXT"));
    ASSERT_TRUE(stream->Open());
    AString text;
    ASSERT_TRUE(stream->LoadText(text));
    EXPECT_TRUE(text == "embedded bytes");
    EXPECT_FALSE(stream->Write("x", 1));
    Ptr<ResourceStream> numbered(new ResourceStream(nullptr, 7u, 10u));
    EXPECT_EQ(numbered->GetSize(), 8);
    Ptr<ResourceStream> missing(new ResourceStream(nullptr, u"absent", u"TEXT"));
    EXPECT_FALSE(missing->Open());
}

TEST(ProcessSharedStream, NamedBlocksAreShared)
{
    const char16_t* name = u"kovex-test-shared-block";
    ProcessSharedStream::Unlink(name);
    KovexTest::LogCapture log;
    Ptr<ProcessSharedStream> absent(new ProcessSharedStream(name, 64, true, true, false));
    EXPECT_FALSE(absent->Open());
    EXPECT_EQ(log->entries.Count(), 0u) << "a missing block without createAlways logs nothing";
    Ptr<ProcessSharedStream> writer(new ProcessSharedStream(name, 64, true, true, true));
    ASSERT_TRUE(writer->Open());
    EXPECT_TRUE(writer->Write("shared", 6));
    Ptr<ProcessSharedStream> reader(new ProcessSharedStream(name, 64, true, false, false));
    ASSERT_TRUE(reader->Open());
    char buffer[6];
    ASSERT_TRUE(reader->Read(buffer, 6));
    EXPECT_EQ(std::string(buffer, 6), "shared");
    reader->Seek(0, Stream::End);
    EXPECT_EQ(reader->GetPosition(), 6) << "an end-relative seek to the end is refused";
    reader->Seek(-4, Stream::End);
    EXPECT_EQ(reader->GetPosition(), 60);
    EXPECT_EQ(reader->Map(60, 8), nullptr) << "no view beyond the block";
    EXPECT_FALSE(reader->Write("x", 1));
    ProcessSharedStream::Unlink(name);
}

TEST(FindFile, WildcardsIncludesAndExcludes)
{
    EXPECT_FALSE(FindFile::IsWildMatch(u"a.b", u"a?b")) << "? does not match a dot";
    EXPECT_TRUE(FindFile::IsWildMatch(u"abc", u"*"));
    EXPECT_TRUE(FindFile::IsWildMatch(u"ab", u"ab*"));
    EXPECT_TRUE(FindFile::IsWildMatch(u"Texture.DDS", u"*.dds"));
    EXPECT_TRUE(FindFile::IsWildMatch(u"aXbXc", u"a*b*c"));
    EXPECT_FALSE(FindFile::IsWildMatch(u"abc", u"a*d"));
    EXPECT_TRUE(FindFile::IsWildMatch(u"mississippi", u"*sip*"));

    TempDir dir;
    fs::create_directories(dir.path + "/data/sub/skip");
    for (const char* f : {"data/a.dds", "data/b.png", "data/sub/c.dds", "data/sub/skip/d.dds", "data/sub/e.DDS"})
        std::ofstream(dir.path + "/" + f) << "12345";
    FindFile find;
    KovexTest::LogCapture log;
    EXPECT_FALSE(find.AddInclude(WString(u"a/b"), dir.W("data"), 0));
    EXPECT_TRUE(log->Contains(u"FindFile: add include failed, strName can't include '\\' or '/'.\n"));
    EXPECT_FALSE(find.AddExclude(WString(), WString()));
    EXPECT_TRUE(find.AddInclude(WString(u"*.dds"), dir.W("data"), FindFile::Recursive));
    EXPECT_TRUE(find.AddExclude(WString(u"skip"), WString()));
    find.Execute();
    TArray<Ptr<FindFile::File>> files;
    find.GetResults(files);
    ASSERT_EQ(files.Count(), 3u);
    bool sawNested = false;
    for (auto& file : files)
    {
        EXPECT_EQ(file->size, 5u);
        if (file->relativePath == u"sub/c.dds")
            sawNested = true;
    }
    EXPECT_TRUE(sawNested);
    FindFile first;
    first.AddInclude(WString(u"*.dds"), dir.W("data"), FindFile::Recursive | FindFile::FirstOnly);
    first.Execute();
    EXPECT_EQ(first.GetResultMap().Count(), 1u);
}
