#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "kernel/RefCount.h"

using namespace KovexEngine;

namespace {

struct Tracked : ReferenceObj
{
    explicit Tracked(int* deaths) : deaths(deaths) {}
    ~Tracked() override { ++*deaths; }
    int* deaths;
    int payload = 0;
};

// Holds the only reference to another object; assigning that object through
// a Ptr that the holder owns exercises the order of add and release.
struct Holder : ReferenceObj
{
    Ptr<Holder> next;
};

} // namespace

TEST(RefCount, FirstPtrOwnsAndLastReleaseDeletes)
{
    int deaths = 0;
    auto* raw = new Tracked(&deaths);
    EXPECT_EQ(raw->GetRefCount(), 0);
    {
        Ptr<Tracked> a(raw);
        EXPECT_EQ(raw->GetRefCount(), 1);
        Ptr<Tracked> b = a;
        EXPECT_EQ(raw->GetRefCount(), 2);
        b = raw;
        EXPECT_EQ(raw->GetRefCount(), 2) << "assigning the same pointer changes no count";
        b = nullptr;
        EXPECT_EQ(raw->GetRefCount(), 1);
        Ptr<Tracked> moved(std::move(a));
        EXPECT_EQ(raw->GetRefCount(), 1);
        EXPECT_EQ(a.Get(), nullptr);
        ConstPtr<Tracked> reader(moved);
        EXPECT_EQ(raw->GetRefCount(), 2);
    }
    EXPECT_EQ(deaths, 1);
}

TEST(RefCount, CopiesStartUnowned)
{
    int deaths = 0;
    Ptr<Tracked> a(new Tracked(&deaths));
    a->payload = 7;
    Ptr<Tracked> b(new Tracked(*a));
    EXPECT_EQ(b->GetRefCount(), 1) << "a copy does not inherit its source's count";
    EXPECT_EQ(b->payload, 7);
    *b = *a;
    EXPECT_EQ(b->GetRefCount(), 1) << "assignment copies the value, not the owners";
    EXPECT_EQ(a->GetRefCount(), 1);
    a = nullptr;
    b = nullptr;
    EXPECT_EQ(deaths, 2);
}

TEST(RefCount, AssignmentAddsBeforeItReleases)
{
    // root -> middle -> leaf; root.next = leaf releases middle, whose death
    // would release leaf too if the new reference were not taken first.
    Ptr<Holder> root(new Holder());
    root->next = new Holder();
    root->next->next = new Holder();
    Holder* leaf = root->next->next.Get();
    root->next = root->next->next;
    EXPECT_EQ(root->next.Get(), leaf);
    EXPECT_EQ(leaf->GetRefCount(), 1);
}

TEST(RefCount, CountsAreAtomicAcrossThreads)
{
    int deaths = 0;
    Ptr<Tracked> shared(new Tracked(&deaths));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&shared] {
            for (int i = 0; i < 20000; ++i)
            {
                Ptr<Tracked> copy(shared);
                (void)copy;
            }
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(shared->GetRefCount(), 1);
    shared = nullptr;
    EXPECT_EQ(deaths, 1);
}

#ifndef NDEBUG
TEST(RefCountDeathTest, StackObjectGivenToAPtrIsDiagnosed)
{
    // The mistake: a Ptr would delete this stack object at its last release.
    EXPECT_DEATH(
        {
            Holder onStack;
            Ptr<Holder> owner(&onStack);
        },
        "lies on the stack, and a Ptr now owns it");
    // The same object on the heap is fine, from any thread.
    Ptr<Holder> heap(new Holder());
    std::thread([&] { Ptr<Holder> other(heap); }).join();
    EXPECT_EQ(heap->GetRefCount(), 1);
}
#endif
