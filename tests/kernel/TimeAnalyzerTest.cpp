#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <thread>

#include "kernel/TimeAnalyzer.h"
#include "support/LogCapture.h"

using namespace KovexEngine;

TEST(TimeAnalyzer, NestedSpansCountEveryCallAndTimeTheOuterOnly)
{
    TimeAnalyzer analyzer;
    analyzer.Begin(7, "Outer");
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    analyzer.Begin(7, "ignored second name");
    analyzer.End(7);
    TimeAnalyzer::Entry entry;
    ASSERT_TRUE(analyzer.GetEntry(7, entry));
    EXPECT_EQ(entry.calls, 2u);
    EXPECT_EQ(entry.totalTicks, 0) << "the inner End closes nothing yet";
    EXPECT_TRUE(entry.name == "Outer");
    analyzer.End(7);
    ASSERT_TRUE(analyzer.GetEntry(7, entry));
    EXPECT_GE(Timer::TicksToSeconds(entry.totalTicks), 0.005);
    EXPECT_EQ(entry.depth, 0u);
    analyzer.End(7);
    analyzer.End(99);
    ASSERT_TRUE(analyzer.GetEntry(7, entry));
    EXPECT_EQ(entry.depth, 0u) << "an unmatched End is ignored";
    EXPECT_FALSE(analyzer.GetEntry(99, entry));
}

TEST(TimeAnalyzer, AnalyzeSortsByTimeAndScalesBothNumbers)
{
    TimeAnalyzer analyzer;
    analyzer.Begin(1, "short");
    analyzer.End(1);
    analyzer.Begin(1, "short");
    analyzer.End(1);
    analyzer.Begin(2, "long");
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
    analyzer.End(2);
    AString report;
    analyzer.Analyze(report, 0.5);
    EXPECT_TRUE(report.StartsWith("  time(ms)    calls    name  \n"));
    unsigned longAt = report.IndexOf("long"), shortAt = report.IndexOf("short");
    ASSERT_NE(longAt, kNotFound);
    EXPECT_LT(longAt, shortAt) << "greatest total first";
    EXPECT_NE(report.IndexOf("    1.000 short \n"), kNotFound) << "two calls times 0.5";
    EXPECT_NE(report.IndexOf("    0.500 long \n"), kNotFound);
    TimeAnalyzer::Entry entry;
    analyzer.GetEntry(2, entry);
    AString line;
    line.Format(" %8.3f %8.3f %s \n", Timer::TicksToSeconds(entry.totalTicks) * 1000.0 * 0.5, 0.5, "long");
    EXPECT_NE(report.IndexOf(line), kNotFound);

    analyzer.Reset();
    ASSERT_TRUE(analyzer.GetEntry(1, entry));
    EXPECT_EQ(entry.calls, 0u);
    EXPECT_TRUE(entry.name == "short") << "names survive a reset";
    analyzer.Clear();
    EXPECT_FALSE(analyzer.GetEntry(1, entry));
}

TEST(TimeAnalyzer, OutputDeltaTimeLogsWhenItLeavesScope)
{
    KovexTest::LogCapture log;
    {
        OutputDeltaTime timing;
    }
    {
        OutputDeltaTime custom(u"load took %.1f ms\n");
    }
    ASSERT_EQ(log->entries.Count(), 2u);
    EXPECT_TRUE(log->entries[0].text.StartsWith(u"Delta Time is "));
    EXPECT_TRUE(log->entries[0].text.EndsWith(u" ms.\n"));
    EXPECT_EQ(log->entries[0].level, unsigned(LOG_INFO));
    EXPECT_TRUE(log->entries[1].text.StartsWith(u"load took "));
}

TEST(TimeAnalyzer, SharedAnalyzerIsSafeAcrossThreads)
{
    std::thread a([] {
        for (int i = 0; i < 2000; ++i)
        {
            g_TimeAnalyzer.Begin(500, "threaded");
            g_TimeAnalyzer.End(500);
        }
    });
    for (int i = 0; i < 2000; ++i)
    {
        g_TimeAnalyzer.Begin(501, "main");
        g_TimeAnalyzer.End(501);
        // As the renderer adds GPU frame times from its own thread.
        g_TimeAnalyzer.Add(500, "threaded", 0.0);
    }
    a.join();
    TimeAnalyzer::Entry entry;
    ASSERT_TRUE(g_TimeAnalyzer.GetEntry(500, entry));
    EXPECT_EQ(entry.calls, 4000u);
}

// Spans timed elsewhere (GPU frames) are added whole: one call each, and
// values that cannot be a duration are dropped.
TEST(TimeAnalyzer, AddedSpansCountAsCallsAndRejectNonsense)
{
    TimeAnalyzer analyzer;
    analyzer.Add(9, "GPU", 0.002);
    analyzer.Add(9, "other name", 0.001);
    analyzer.Add(9, "GPU", -1.0);
    analyzer.Add(9, "GPU", std::nan(""));
    TimeAnalyzer::Entry entry;
    ASSERT_TRUE(analyzer.GetEntry(9, entry));
    EXPECT_EQ(entry.calls, 2u);
    EXPECT_TRUE(entry.name == "GPU");
    EXPECT_NEAR(Timer::TicksToSeconds(entry.totalTicks), 0.003, 1e-6);
    EXPECT_EQ(entry.depth, 0u);
}
