#include <gtest/gtest.h>

#include <vector>

#include "kernel/Strings.h"
#include "resources/ResourceCache.h"

using namespace KovexEngine;

namespace {

using DateTime = Stream::DateTime;

// Stand-ins for resources: a value that a replacement copies into.
struct Item
{
    int contents = 0;
    bool acceptsCopies = true;
};

bool CopyInto(Item* stored, Item* value, void*)
{
    if (!stored->acceptsCopies)
        return false;
    stored->contents = value->contents;
    return true;
}

void Collect(Item* item, void* context) { static_cast<std::vector<Item*>*>(context)->push_back(item); }

const WString kPath(u"/data/a.mt");

} // namespace

TEST(ResourceCache, DefaultHoldsOneValuePerPath)
{
    DefaultCacheInterface<WString, Item*> cache;
    cache.SetCopyFunction(&CopyInto);
    Item first, second, replacement{42};
    cache.Add(&first, kPath, DateTime::FromTicks(1));
    EXPECT_EQ(cache.Find(kPath, DateTime::FromTicks(99)), &first) << "dates do not matter";
    cache.Add(&second, kPath, DateTime::Invalid);
    EXPECT_EQ(cache.Find(kPath, DateTime::Invalid), &second);
    EXPECT_EQ(cache.Count(), 1u);

    cache.Remove(&first, kPath); // no longer the cached one: nothing happens
    EXPECT_EQ(cache.Find(kPath, DateTime::Invalid), &second);
    EXPECT_TRUE(cache.Replace(kPath, &replacement, nullptr));
    EXPECT_EQ(second.contents, 42) << "holders of the cached object see the new contents";
    EXPECT_FALSE(cache.Replace(WString(u"/data/other.mt"), &replacement, nullptr));

    std::vector<Item*> cleared;
    cache.Clear(&Collect, &cleared);
    EXPECT_EQ(cleared, std::vector<Item*>{&second});
    EXPECT_EQ(cache.Find(kPath, DateTime::Invalid), nullptr);
    cache.Remove(&second, kPath);
}

TEST(ResourceCache, TimeMaskedKeepsAVersionPerFileDate)
{
    TimeMaskedCacheInterface<WString, Item*> cache;
    cache.SetCopyFunction(&CopyInto);
    Item old, current, older;
    cache.Add(&old, kPath, DateTime::FromTicks(100));
    cache.Add(&current, kPath, DateTime::FromTicks(200));
    cache.Add(&older, kPath, DateTime::FromTicks(50)); // a late add of an older file keeps the head
    EXPECT_EQ(cache.VersionCount(kPath), 3u);
    EXPECT_EQ(cache.Find(kPath, DateTime::Invalid), &current);
    EXPECT_EQ(cache.Find(kPath, DateTime::FromTicks(100)), &old);
    EXPECT_EQ(cache.Find(kPath, DateTime::FromTicks(150)), nullptr) << "a changed file misses";

    // Removing the head promotes the newest remaining version.
    cache.Remove(&current, kPath);
    EXPECT_EQ(cache.Find(kPath, DateTime::Invalid), &old);
    cache.Remove(&old, kPath);
    cache.Remove(&older, kPath);
    EXPECT_EQ(cache.VersionCount(kPath), 0u);
    EXPECT_EQ(cache.Find(kPath, DateTime::Invalid), nullptr);
}

TEST(ResourceCache, TimeMaskedReplaceRedatesTheVersionsItCopiedInto)
{
    TimeMaskedCacheInterface<WString, Item*> cache;
    Item only, replacement{7};
    cache.Add(&only, kPath, DateTime::FromTicks(10));
    EXPECT_FALSE(cache.Replace(kPath, &replacement, nullptr)) << "no copy function";
    cache.SetCopyFunction(&CopyInto);
    EXPECT_FALSE(cache.Replace(kPath, &replacement, nullptr)) << "a single version is left alone";
    EXPECT_EQ(only.contents, 0);

    Item refusing{0, false};
    cache.Add(&refusing, kPath, DateTime::FromTicks(20));
    EXPECT_TRUE(cache.Replace(kPath, &replacement, nullptr));
    EXPECT_EQ(only.contents, 7);
    EXPECT_EQ(refusing.contents, 0);
    // The copied version no longer answers to its file date; the other is the head.
    EXPECT_EQ(cache.Find(kPath, DateTime::FromTicks(10)), nullptr);
    EXPECT_EQ(cache.Find(kPath, DateTime::Zero), &only);
    EXPECT_EQ(cache.Find(kPath, DateTime::Invalid), &refusing);

    std::vector<Item*> cleared;
    cache.Clear(&Collect, &cleared);
    EXPECT_EQ(cleared.size(), 2u);
    EXPECT_EQ(cache.VersionCount(kPath), 0u);
}
