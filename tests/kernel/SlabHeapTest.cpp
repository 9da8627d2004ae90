#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "kernel/SlabHeap.h"

using namespace KovexEngine;

namespace {

struct Block
{
    unsigned char* p;
    size_t size;
    unsigned char tag;
};

// Fills a block with its tag; false when another block has written over it.
void Fill(const Block& b) { std::memset(b.p, b.tag, b.size); }
bool Intact(const Block& b)
{
    for (size_t i = 0; i < b.size; ++i)
        if (b.p[i] != b.tag)
            return false;
    return true;
}

} // namespace

// Blocks of every size class and beyond: aligned, never overlapping, each
// keeping what was written into it while others come and go.
TEST(SlabHeap, BlocksAreAlignedDisjointAndKeepTheirBytes)
{
    SlabHeap heap;
    std::mt19937 rng(3);
    std::vector<Block> live;
    const size_t sizes[] = {1, 8, 63, 64, 65, 200, 456, 700, 4095, 4096, 4097, 20000};
    for (int round = 0; round < 20000; ++round)
    {
        if (live.empty() || rng() % 3)
        {
            size_t size = sizes[rng() % std::size(sizes)];
            Block b{static_cast<unsigned char*>(heap.Allocate(size)), size, static_cast<unsigned char>(rng())};
            ASSERT_NE(b.p, nullptr);
            ASSERT_EQ(reinterpret_cast<uintptr_t>(b.p) % (size > SlabHeap::kMaxBlock ? 16 : SlabHeap::kGranule), 0u);
            Fill(b);
            live.push_back(b);
        }
        else
        {
            size_t i = rng() % live.size();
            ASSERT_TRUE(Intact(live[i])) << "round " << round;
            heap.Free(live[i].p, live[i].size);
            live[i] = live.back();
            live.pop_back();
        }
    }
    for (const Block& b : live)
    {
        ASSERT_TRUE(Intact(b));
        heap.Free(b.p, b.size);
    }
    EXPECT_EQ(heap.GetStats().liveBlocks, 0u);
    heap.Free(nullptr, 64); // as delete of null does: nothing
}

// The point of the heap: one size made in a row lies side by side; an
// emptied chunk goes back unless it is its size's last; freed blocks are
// used again.
TEST(SlabHeap, NeighboursShareChunksAndEmptyChunksGoBack)
{
    SlabHeap heap;
    std::vector<void*> blocks;
    for (int i = 0; i < 100; ++i)
        blocks.push_back(heap.Allocate(456));
    for (size_t i = 1; i < blocks.size(); ++i)
        EXPECT_EQ(static_cast<char*>(blocks[i]) - static_cast<char*>(blocks[i - 1]), 512);
    EXPECT_EQ(heap.GetStats().chunks, 1u);

    // Enough 4 KB blocks for three chunks.
    std::vector<void*> big;
    const size_t perChunk = SlabHeap::kChunkSize / 4096 - 1;
    for (size_t i = 0; i < 3 * perChunk; ++i)
        big.push_back(heap.Allocate(4096));
    EXPECT_EQ(heap.GetStats().chunks, 4u);
    for (void* b : big)
        heap.Free(b, 4096);
    EXPECT_EQ(heap.GetStats().chunks, 2u) << "one empty chunk stays for its size";

    void* last = blocks.back();
    heap.Free(last, 456);
    EXPECT_EQ(heap.Allocate(456), last);
    EXPECT_EQ(heap.GetStats().liveBlocks, 100u);
    for (void* b : blocks)
        heap.Free(b, 456);
    EXPECT_EQ(heap.GetStats().liveBlocks, 0u);

    // Large blocks are the ordinary heap's.
    void* huge = heap.Allocate(SlabHeap::kMaxBlock + 1);
    EXPECT_EQ(heap.GetStats().liveBlocks, 0u);
    heap.Free(huge, SlabHeap::kMaxBlock + 1);
}

// Threads allocating, writing, checking and freeing blocks of mixed sizes in
// one heap.
TEST(SlabHeapThreads, ConcurrentUseKeepsEveryBlockIntact)
{
    SlabHeap heap;
    constexpr int kThreads = 4, kRounds = 20000;
    std::vector<int> failures(kThreads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            std::mt19937 rng(unsigned(t + 1));
            std::vector<Block> live;
            for (int round = 0; round < kRounds; ++round)
            {
                if (live.size() < 64 && (live.empty() || rng() % 2))
                {
                    size_t size = 16 + rng() % 900;
                    Block b{static_cast<unsigned char*>(heap.Allocate(size)), size,
                            static_cast<unsigned char>(t * 50 + round % 50)};
                    Fill(b);
                    live.push_back(b);
                }
                else
                {
                    size_t i = rng() % live.size();
                    failures[size_t(t)] += Intact(live[i]) ? 0 : 1;
                    heap.Free(live[i].p, live[i].size);
                    live[i] = live.back();
                    live.pop_back();
                }
            }
            for (const Block& b : live)
            {
                failures[size_t(t)] += Intact(b) ? 0 : 1;
                heap.Free(b.p, b.size);
            }
        });
    for (std::thread& t : threads)
        t.join();
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(failures[size_t(t)], 0) << "thread " << t;
    EXPECT_EQ(heap.GetStats().liveBlocks, 0u);
}
