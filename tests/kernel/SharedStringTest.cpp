#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "kernel/SharedString.h"

using namespace KovexEngine;

TEST(SharedString, EqualTextsShareOneProxy)
{
    TSharedString<WString> a(u"AmbientColor-test");
    TSharedString<WString> b(WString(u"AmbientColor-test"));
    TSharedString<WString> c(u"DiffuseColor-test");
    EXPECT_EQ(a.GetProxy(), b.GetProxy());
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a == c);
    EXPECT_TRUE(a.Get() == u"AmbientColor-test");
    TSharedString<AString> n("AmbientColor-test");
    EXPECT_TRUE(n.Get() == "AmbientColor-test");
    TSharedString<WString> empty;
    EXPECT_TRUE(empty.IsEmpty());
    EXPECT_FALSE(empty == a);
}

TEST(SharedString, GarbageCollectionRemovesUnreferencedEntries)
{
    SharedStringPool::PerformGarbageCollection();
    unsigned before = SharedStringPool::GetCount(true);
    {
        TSharedString<WString> a(u"collect-me-1");
        TSharedString<WString> b(u"collect-me-2");
        TSharedString<WString> again(u"collect-me-1");
        EXPECT_EQ(SharedStringPool::GetCount(true), before + 2);
        SharedStringPool::PerformGarbageCollection();
        EXPECT_EQ(SharedStringPool::GetCount(true), before + 2) << "entries in use stay";
    }
    SharedStringPool::PerformGarbageCollection();
    EXPECT_EQ(SharedStringPool::GetCount(true), before);
}

TEST(SharedString, TableStaysSortedUnderConcurrentInterning)
{
    std::vector<std::thread> threads;
    std::vector<const void*> proxies(4 * 200);
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t, &proxies] {
            for (int i = 0; i < 200; ++i)
            {
                AString text;
                text.Format("concurrent-%d", i);
                TSharedString<AString> s(text);
                proxies[size_t(t * 200 + i)] = s.GetProxy();
                TSharedString<AString> again(text);
                EXPECT_EQ(s.GetProxy(), again.GetProxy());
            }
        });
    for (auto& t : threads)
        t.join();
    SharedStringPool::PerformGarbageCollection();
}

TEST(SharedString, DestroyThenInternAgain)
{
    TSharedString<WString> survivor(u"outlives-the-table");
    SharedStringPool::Destroy();
    EXPECT_EQ(SharedStringPool::GetCount(true), 0u);
    EXPECT_TRUE(survivor.Get() == u"outlives-the-table") << "handles keep their text";
    TSharedString<WString> fresh(u"outlives-the-table");
    EXPECT_TRUE(fresh.Get() == survivor.Get());
    EXPECT_EQ(SharedStringPool::GetCount(true), 1u);
}
