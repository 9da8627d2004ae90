#include <gtest/gtest.h>

#include "kernel/Containers.h"
#include "kernel/RefCount.h"
#include "kernel/SelfAllocator.h"
#include "kernel/Strings.h"

using namespace KovexEngine;

namespace {

struct Counted : ReferenceObj
{
    explicit Counted(int* alive) : alive(alive) { ++*alive; }
    ~Counted() override { --*alive; }
    int* alive;
};

} // namespace

TEST(TArray, GrowthDoublesFromTheGrowSize)
{
    TArray<int> a;
    EXPECT_EQ(a.Capacity(), 0u);
    a.Add(1);
    EXPECT_EQ(a.Capacity(), 16u);
    for (int i = 0; i < 16; ++i)
        a.Add(i);
    EXPECT_EQ(a.Capacity(), 32u);
    TArray<int> small(3);
    for (int i = 0; i < 4; ++i)
        small.Add(i);
    EXPECT_EQ(small.Capacity(), 6u);
    TArray<int> exact;
    exact.Reserve(5);
    EXPECT_EQ(exact.Capacity(), 5u);
}

TEST(TArray, InsertRemoveAndMoveTailKeepOrder)
{
    TArray<AString> a;
    for (const char* s : {"a", "b", "d"})
        a.Add(AString(s));
    EXPECT_TRUE(a.Insert(2, AString("c")));
    EXPECT_TRUE(a.Insert(0, AString("start")));
    EXPECT_TRUE(a.Insert(99, AString("end")));
    ASSERT_EQ(a.Count(), 6u);
    AString joined;
    joined.Concatenate(a, ",");
    EXPECT_TRUE(joined == "start,a,b,c,d,end");
    a.RemoveAt(0);
    a.RemoveAt(a.Count() - 1);
    a.RemoveRange(1, 2);
    joined.Clear();
    joined.Concatenate(a, ",");
    EXPECT_TRUE(joined == "a,d");
    EXPECT_TRUE(a.MoveTail(1, 4));
    EXPECT_EQ(a.Count(), 5u);
    EXPECT_TRUE(a[4] == "d");
    EXPECT_TRUE(a[1].IsEmpty());
    EXPECT_TRUE(a.MoveTail(4, 1));
    EXPECT_EQ(a.Count(), 2u);
    EXPECT_TRUE(a[1] == "d");
    EXPECT_TRUE(a[2].IsEmpty()) << "slots left behind are cleared";
}

TEST(TArray, AddingAnElementOfItselfSurvivesGrowth)
{
    TArray<AString> a(1);
    a.Add(AString("a string long enough to be on the heap"));
    for (int i = 0; i < 6; ++i)
        a.Add(a[0]);
    for (const AString& s : a)
        EXPECT_TRUE(s == "a string long enough to be on the heap");
    a.Insert(0, a[3]);
    EXPECT_EQ(a.Count(), 8u);
}

TEST(TArray, ElementsAreAssignedSoCountsStayRight)
{
    int alive = 0;
    {
        TArray<Ptr<Counted>> a(2);
        for (int i = 0; i < 10; ++i)
            a.Add(Ptr<Counted>(new Counted(&alive)));
        EXPECT_EQ(alive, 10);
        EXPECT_EQ(a[3]->GetRefCount(), 1) << "growth must not duplicate references";
        a.RemoveAt(3);
        EXPECT_EQ(alive, 9);
        a.Pop();
        EXPECT_EQ(alive, 8);
        TArray<Ptr<Counted>> copy(a);
        EXPECT_EQ(a[0]->GetRefCount(), 2);
        a.Clear();
        EXPECT_EQ(alive, 8);
        EXPECT_GT(a.Capacity(), 0u) << "Clear keeps the storage";
        copy.Free();
        EXPECT_EQ(alive, 0);
        EXPECT_EQ(copy.Capacity(), 0u);
    }
}

TEST(TArray, AbsurdReservationsFail)
{
    TArray<AString> a;
    a.Add(AString("x"));
    EXPECT_FALSE(a.Reserve(0xFFFFFFFFu));
    EXPECT_FALSE(a.SetCount(0xF0000000u));
    EXPECT_EQ(a.Count(), 1u);
    EXPECT_TRUE(a[0] == "x");
    EXPECT_FALSE(a.MoveTail(0, 0xFFFFFFF0u));
}

TEST(TMap, SortedInsertionWithDuplicatesBehind)
{
    TMap<WString, int> map;
    EXPECT_TRUE(map.Insert(WString(u"beta"), 2));
    EXPECT_TRUE(map.Insert(WString(u"alpha"), 1));
    EXPECT_TRUE(map.Insert(WString(u"gamma"), 3));
    EXPECT_FALSE(map.Insert(WString(u"beta"), 20)) << "an existing key reports false";
    ASSERT_EQ(map.Count(), 4u);
    EXPECT_TRUE(map[0].key == u"alpha");
    EXPECT_EQ(map[1].value, 2);
    EXPECT_EQ(map[2].value, 20) << "the duplicate stands behind the old pair";
    EXPECT_TRUE(map[3].key == u"gamma");
    unsigned found = map.Find(WString(u"beta"));
    EXPECT_TRUE(found == 1 || found == 2);
    EXPECT_EQ(map.Find(WString(u"delta")), kNotFound);
    EXPECT_EQ(*map.FindValue(WString(u"gamma")), 3);
    EXPECT_TRUE(map.Remove(WString(u"alpha")));
    EXPECT_FALSE(map.Remove(WString(u"alpha")));
}

TEST(TMap, BinarySearchFindsEveryKeyAtEverySize)
{
    for (unsigned n = 0; n < 70; ++n)
    {
        TMap<unsigned, unsigned> map;
        for (unsigned i = 0; i < n; ++i)
            map.Insert((i * 37u) % 101u * 2u, i);
        for (unsigned i = 0; i < n; ++i)
        {
            unsigned key = (i * 37u) % 101u * 2u;
            unsigned index = map.Find(key);
            ASSERT_NE(index, kNotFound) << "n=" << n << " key=" << key;
            EXPECT_EQ(map[index].key, key);
            EXPECT_EQ(map.Find(key + 1), kNotFound);
        }
        for (unsigned i = 1; i < map.Count(); ++i)
            EXPECT_LT(map[i - 1].key, map[i].key);
    }
}

TEST(TMap, StringKeysOrderByUnsignedValue)
{
    TMap<AString, int> map;
    map.Insert(AString("\xE9"), 1);
    map.Insert(AString("z"), 2);
    EXPECT_TRUE(map[0].key == "z");
    TMap<int, int> unsorted;
    unsorted.SetUnsorted(true);
    unsorted.Insert(5, 0);
    unsorted.Insert(1, 0);
    EXPECT_EQ(unsorted[0].key, 5);
    EXPECT_TRUE(unsorted.Set(5, 9));
}

namespace {
struct NamedItem : ReferenceObj
{
    explicit NamedItem(const char16_t* n) : name(n) {}
    const WString& GetName() const { return name; }
    WString name;
};
} // namespace

TEST(TResNamedMap, LooksUpByNameAndRebuildsOnStructuralChange)
{
    TResNamedMap<Ptr<NamedItem>> map;
    Ptr<NamedItem> a(new NamedItem(u"a")), b(new NamedItem(u"b"));
    map.Add(a);
    map.Add(b);
    EXPECT_EQ(map.FindIndex(WString(u"b")), 1u);
    EXPECT_EQ(map.FindIndex(WString(u"zz")), kNotFound);
    // A rename without a change in count keeps the stale index.
    b->name = u"renamed";
    EXPECT_EQ(map.FindIndex(WString(u"b")), 1u);
    EXPECT_EQ(map.FindIndex(WString(u"renamed")), kNotFound);
    // A structural change drops it.
    map.Insert(0, Ptr<NamedItem>(new NamedItem(u"first")));
    EXPECT_EQ(map.FindIndex(WString(u"renamed")), 2u);
    EXPECT_EQ(map.FindIndex(WString(u"b")), kNotFound);
    ASSERT_NE(map.Find(WString(u"first")), nullptr);
    EXPECT_TRUE((*map.Find(WString(u"first")))->name == u"first");
    map.RemoveAt(0);
    EXPECT_EQ(map.FindIndex(WString(u"a")), 0u);
}

TEST(TSelfAllocator, ReusesBlocks)
{
    struct Fade { double weight[4]; };
    Fade* a = TSelfAllocator<Fade>::New();
    Fade* b = TSelfAllocator<Fade>::New();
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    unsigned made = TSelfAllocator<Fade>::GetBlockCount();
    TSelfAllocator<Fade>::Delete(a);
    TSelfAllocator<Fade>::Delete(nullptr);
    EXPECT_EQ(TSelfAllocator<Fade>::GetFreeCount(), 1u);
    EXPECT_EQ(TSelfAllocator<Fade>::New(), a);
    EXPECT_EQ(TSelfAllocator<Fade>::GetBlockCount(), made);
    TSelfAllocator<Fade>::Delete(a);
    TSelfAllocator<Fade>::Delete(b);
}

TEST(TStack, PushPopTop)
{
    TStack<int> s;
    s.Push(1);
    s.Push(2);
    EXPECT_EQ(s.Top(), 2);
    s.Pop();
    EXPECT_EQ(s.Top(), 1);
}
