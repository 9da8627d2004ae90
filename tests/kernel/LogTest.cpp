#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "kernel/Log.h"
#include "kernel/MemoryTracker.h"
#include "kernel/StringConv.h"
#include "support/LogCapture.h"

using namespace KovexEngine;

TEST(Log, ProxiesTakeOnlyTheLevelsTheirMaskAllows)
{
    KovexTest::LogCapture capture;
    capture->SetLevelMask(~(1u << LOG_WARNING));
    Log::Print(LOG_WARNING, u"hidden");
    Log::Print(LOG_ERROR, u"shown");
    Log::Format(LOG_NOTICE, u"%d-%s", 3, u"x");
    Log::Format(LOG_WARNING, u"%d", 4);
    Log::Print(LOG_INFO, nullptr);
    ASSERT_EQ(capture->entries.Count(), 2u);
    EXPECT_TRUE(capture->entries[0].text == u"shown");
    EXPECT_EQ(capture->entries[1].level, unsigned(LOG_NOTICE));
    EXPECT_TRUE(capture->entries[1].text == u"3-x");
}

TEST(Log, BannersAreExact)
{
    EXPECT_TRUE(WString(LogProxy::GetBanner(1)) == u"<<<Info>>>\n");
    EXPECT_TRUE(WString(LogProxy::GetBanner(2)) == u"<<<Notice>>>\n");
    EXPECT_TRUE(WString(LogProxy::GetBanner(3)) == u"<<<Warning>>>\n");
    EXPECT_TRUE(WString(LogProxy::GetBanner(4)) == u"<<<Error>>>\n");
    EXPECT_TRUE(WString(LogProxy::GetBanner(5)) == u"<<<Critical>>>\n");
    EXPECT_EQ(LogProxy::GetBanner(6), nullptr);
}

TEST(Log, ReportLeaksPrintsExactlyTwoLines)
{
    KovexTest::LogCapture capture;
    MemoryTracker::ReportLeaks();
    ASSERT_EQ(capture->entries.Count(), 2u);
    EXPECT_TRUE(capture->entries[0].text == u"==================Memory Leaks==================\n");
    EXPECT_TRUE(capture->entries[1].text == u"==================End==================\n");
    EXPECT_EQ(capture->entries[0].level, unsigned(LOG_INFO));
    EXPECT_EQ(MemoryTracker::BeginCapture(), nullptr);
}

namespace {

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

struct SequenceProxy : LogProxy
{
    SequenceProxy(std::string* sequence, char id) : sequence(sequence), id(id) {}
    void Print(unsigned, const char16_t*) override { *sequence += id; }
    std::string* sequence;
    char id;
};

} // namespace

TEST(Log, ProxiesAreCalledInTheOrderAdded)
{
    std::string sequence;
    Ptr<LogProxy> a(new SequenceProxy(&sequence, 'a')), b(new SequenceProxy(&sequence, 'b'));
    Log::AddProxy(a);
    Log::AddProxy(b);
    Log::Print(LOG_INFO, u"x");
    Log::RemoveProxy(a);
    Log::Print(LOG_INFO, u"y");
    Log::RemoveProxy(b);
    Log::RemoveProxy(b);
    EXPECT_EQ(sequence, "abb");
}

TEST(LogFile, WritesInRunsOfAtLeast1024Characters)
{
    char pattern[] = "/tmp/kovex-log-XXXXXX";
    std::string dir = mkdtemp(pattern);
    std::string path = dir + "/nested/deeper/engine.log";
    {
        LogProxy_File file(StringConvFuncs::ToWString(path.c_str()));
        ASSERT_TRUE(file.IsOpen()) << "directories along the path are created";
        EXPECT_EQ(ReadFile(path), "") << "the file starts empty";
        file.Print(LOG_WARNING, u"first");
        EXPECT_EQ(file.GetBufferedLength(), 14u + 5u + 2u) << "banner, text and a two-character line break";
        EXPECT_EQ(ReadFile(path), "") << "below the threshold nothing is written";
        file.Print(LOG_INFO, u"");
        EXPECT_EQ(file.GetBufferedLength(), 21u) << "empty text adds nothing";
        std::u16string filler(1000, u'x');
        file.Print(77, filler.c_str());
        EXPECT_EQ(file.GetBufferedLength(), 1023u) << "a level with no banner adds only the text";
        EXPECT_EQ(ReadFile(path), "") << "1023 characters stay in the buffer";
        file.Print(77, u"!");
        EXPECT_EQ(file.GetBufferedLength(), 0u) << "reaching 1024 writes the run";
        std::string written = ReadFile(path);
        EXPECT_EQ(written.size(), 1026u);
        EXPECT_EQ(written.substr(0, 21), "<<<Warning>>>\nfirst\r\n");
        file.Print(LOG_ERROR, u"tail \u00E9");
        EXPECT_EQ(ReadFile(path).size(), 1026u);
    }
    std::string final = ReadFile(path);
    EXPECT_EQ(final.substr(1026), "<<<Error>>>\ntail \xC3\xA9\r\n") << "the last run is written at the end";
    std::filesystem::remove_all(dir);
}

TEST(LogFile, AnUnopenablePathFailsWithItsLogLine)
{
    KovexTest::LogCapture log;
    LogProxy_File file(WString(u"/proc/no-such-dir/engine.log"));
    EXPECT_FALSE(file.IsOpen());
    ASSERT_EQ(log->entries.Count(), 1u);
    EXPECT_EQ(log->entries[0].level, unsigned(LOG_WARNING));
    EXPECT_TRUE(log->entries[0].text.StartsWith(u"Create File /proc/no-such-dir/engine.log failed, error = "));
    file.Print(LOG_INFO, u"dropped");
    EXPECT_FALSE(file.Flush());
}

TEST(LogConsole, WritesToItsDescriptorAndClosesOnRequest)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    LogProxy_Console::Init(reinterpret_cast<void*>(intptr_t(fds[1])));
    ASSERT_NE(LogProxy_Console::Get(), nullptr);
    LogProxy_Console::Init(nullptr);
    EXPECT_EQ(LogProxy_Console::Get()->GetTextAttr(LOG_WARNING), 6u);
    EXPECT_EQ(LogProxy_Console::Get()->GetTextAttr(9), 1u);
    LogProxy_Console::Get()->Print(LOG_ERROR, u"to the console\n");
    char buffer[64] = {};
    ssize_t n = read(fds[0], buffer, sizeof buffer - 1);
    EXPECT_EQ(std::string(buffer, size_t(n > 0 ? n : 0)), "to the console\n") << "no colour codes into a pipe";

    std::thread closer([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        LogProxy_Console::NotifyClose();
    });
    LogProxy_Console::WaitCloseAndDestroy();
    closer.join();
    EXPECT_EQ(LogProxy_Console::Get(), nullptr);
    LogProxy_Console::Init(reinterpret_cast<void*>(intptr_t(fds[1])));
    LogProxy_Console::NotifyClose();
    EXPECT_EQ(LogProxy_Console::Get(), nullptr) << "a close with nobody waiting destroys the console";
    close(fds[0]);
    close(fds[1]);
}
