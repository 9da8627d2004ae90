#include <gtest/gtest.h>

#include "kernel/Log.h"
#include "kernel/MemoryTracker.h"
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
