#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

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

namespace {

// Takes every proxy out of the log for the life of a test, and puts them back.
class QuietLog
{
public:
    QuietLog()
    {
        if (Log::ms_proxis)
            for (const Ptr<LogProxy>& proxy : *Log::ms_proxis)
                m_saved.push_back(proxy);
        for (const Ptr<LogProxy>& proxy : m_saved)
            Log::RemoveProxy(proxy);
    }
    ~QuietLog()
    {
        for (const Ptr<LogProxy>& proxy : m_saved)
            Log::AddProxy(proxy);
    }

private:
    std::vector<Ptr<LogProxy>> m_saved;
};

} // namespace

// The resource thread logs each load while the main thread logs its frame:
// every line reaches the file whole, while proxies come and go meanwhile.
TEST(LogThreads, ThreadsLogThroughOneFileWhileProxiesComeAndGo)
{
    QuietLog quiet;
    char pattern[] = "/tmp/kovex-log-XXXXXX";
    std::string dir = mkdtemp(pattern);
    std::string path = dir + "/threads.log";
    Ptr<LogProxy_File> file(new LogProxy_File(StringConvFuncs::ToWString(path.c_str())));
    ASSERT_TRUE(file->IsOpen());
    Log::AddProxy(Ptr<LogProxy>(file.Get()));

    constexpr int kLines = 20000;
    std::atomic<bool> writing{true};
    std::thread churn([&] {
        // Adds and removes a proxy for as long as the writers write.
        int rounds = 0;
        while (writing.load() || rounds < 100)
        {
            KovexTest::LogCapture capture;
            capture->SetLevelMask(1u << LOG_NOTICE);
            ++rounds;
        }
    });
    auto writer = [](char16_t tag) {
        char16_t line[] = u"x line of a thread";
        line[0] = tag;
        for (int i = 0; i < kLines; ++i)
            Log::Print(LOG_INFO, line);
    };
    std::thread a(writer, u'a'), b(writer, u'b');
    a.join();
    b.join();
    writing = false;
    churn.join();
    Log::RemoveProxy(Ptr<LogProxy>(file.Get()));
    file = nullptr; // writes the last run

    std::ifstream in(path);
    std::string line;
    int counts[2] = {0, 0}, torn = 0;
    while (std::getline(in, line))
    {
        if (line == "<<<Info>>>")
            continue;
        if (line == "a line of a thread\r")
            ++counts[0];
        else if (line == "b line of a thread\r")
            ++counts[1];
        else
            ++torn;
    }
    EXPECT_EQ(counts[0], kLines);
    EXPECT_EQ(counts[1], kLines);
    EXPECT_EQ(torn, 0);
    std::filesystem::remove_all(dir);
}

TEST(LogThreads, ALevelMaskChangedAfterAddingIsObeyed)
{
    QuietLog quiet;
    KovexTest::LogCapture capture;
    EXPECT_TRUE(Log::IsLevelWanted(LOG_INFO));
    capture->SetLevelMask(1u << LOG_ERROR);
    EXPECT_FALSE(Log::IsLevelWanted(LOG_INFO)) << "nobody takes it any more";
    EXPECT_TRUE(Log::IsLevelWanted(LOG_ERROR));
    Log::Format(LOG_INFO, u"%d", 1);
    Log::Format(LOG_ERROR, u"%d", 2);
    ASSERT_EQ(capture->entries.Count(), 1u);
    EXPECT_TRUE(capture->entries[0].text == u"2");
}
