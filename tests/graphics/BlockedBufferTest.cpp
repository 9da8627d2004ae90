#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "graphics/GraphicsBuffer.h"

using namespace KovexEngine;

namespace {

class PlainBuffer : public GraphicsBuffer
{
public:
    bool CreateDeviceHandle() override { return true; }
    void ReleaseDeviceHandle() override {}

protected:
    bool DeviceMap(MappedSubresource&, MapType, uint32) override { return false; }
    void DeviceUnmap(uint32) override {}
};

Ptr<GraphicsBuffer> MakeBuffer(uint32 width)
{
    Ptr<GraphicsBuffer> buffer(new PlainBuffer());
    buffer->SetByteWidth(width);
    Ptr<GraphicsStream2> stream(new GraphicsStream2());
    stream->ExtendTo(width, false);
    buffer->SetStream(Ptr<GraphicsStream>(stream.Get()));
    return buffer;
}

using Blocks = TArray<BlockedGraphicsBuffer::Block>;

// Sorted by offset, and no two entries touch (they would have merged).
bool SortedAndCoalesced(const Blocks& list)
{
    for (unsigned i = 1; i < list.Count(); ++i)
        if (list[i - 1].offset + list[i - 1].size >= list[i].offset)
            return false;
    return true;
}

enum : uint8 { kFree = 0, kUsed = 1, kRecycled = 2 };

// What every byte is, by the three lists; false when a byte is claimed twice
// or by nobody.
bool Paint(const BlockedGraphicsBuffer& b, uint32 width, std::vector<uint8>& owner)
{
    std::vector<int> claims(width, 0);
    owner.assign(width, kFree);
    auto paint = [&](const Blocks& list, uint8 what) {
        for (const auto& block : list)
            for (uint32 i = block.offset; i < block.offset + block.size && i < width; ++i)
            {
                ++claims[i];
                owner[i] = what;
            }
    };
    paint(b.GetFreeBlocks(), kFree);
    paint(b.GetUsedBlocks(), kUsed);
    paint(b.GetRecycledBlocks(), kRecycled);
    for (int c : claims)
        if (c != 1)
            return false;
    return true;
}

} // namespace

TEST(BlockedBuffer, AppendKeepsTheListSortedAndMerged)
{
    Blocks list;
    BlockedGraphicsBuffer::AppendToBlocks(list, 100, 10);
    BlockedGraphicsBuffer::AppendToBlocks(list, 0, 10);
    BlockedGraphicsBuffer::AppendToBlocks(list, 50, 10);
    ASSERT_EQ(list.Count(), 3u);
    EXPECT_EQ(list[0].offset, 0u);
    BlockedGraphicsBuffer::AppendToBlocks(list, 60, 40); // bridges 50..60 and 100..110
    ASSERT_EQ(list.Count(), 2u);
    EXPECT_EQ(list[1].offset, 50u);
    EXPECT_EQ(list[1].size, 60u);
    BlockedGraphicsBuffer::AppendToBlocks(list, 40, 10); // grows 50.. downward
    EXPECT_EQ(list[1].offset, 40u);
    EXPECT_EQ(list[1].size, 70u);
    EXPECT_TRUE(SortedAndCoalesced(list));
}

TEST(BlockedBuffer, RecycledRangesWaitForTheTick)
{
    BlockedGraphicsBuffer::Destroy();
    Ptr<BlockedGraphicsBuffer> b = BlockedGraphicsBuffer::Create(MakeBuffer(256));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(b->M_Require(0), BlockedGraphicsBuffer::kNone) << "nothing to hand out";
    EXPECT_EQ(b->GetUsedBlocks().Count(), 0u) << "zero-size requests leave no pair that could never come back";
    EXPECT_EQ(b->M_Require(100), 0u);
    EXPECT_EQ(b->M_Require(100), 100u);
    EXPECT_EQ(b->M_Require(100), BlockedGraphicsBuffer::kNone);
    EXPECT_TRUE(b->GetBuffer()->GetStream()->IsDirty());
    EXPECT_TRUE(b->M_Recycle(0, 100));
    EXPECT_FALSE(b->M_Recycle(0, 100)) << "not in use any more";
    EXPECT_FALSE(b->M_Recycle(BlockedGraphicsBuffer::kNone, 4));
    EXPECT_EQ(b->M_Require(100), BlockedGraphicsBuffer::kNone) << "not free before the tick";
    BlockedGraphicsBuffer::M_Tick();
    GraphicsBufferBlock block;
    ASSERT_TRUE(b->M_Require(block, 100));
    EXPECT_EQ(block.Offset, 0u);
    EXPECT_EQ(block.Owner.Get(), b.Get());
    block = GraphicsBufferBlock();
    // Two free blocks that both fit: a slice of each, the last one returned.
    b->Reset();
    EXPECT_EQ(b->M_Require(64), 0u);
    EXPECT_EQ(b->M_Require(64), 64u);
    b->M_Recycle(0, 64);
    BlockedGraphicsBuffer::M_Tick();
    EXPECT_EQ(b->GetFreeBlocks().Count(), 2u);
    EXPECT_EQ(b->M_Require(32), 128u);
    EXPECT_EQ(b->GetUsedBlocks().Count(), 3u) << "the slice of the first block stays used";
    // An instance only the list holds goes at the tick.
    b = nullptr;
    EXPECT_EQ(BlockedGraphicsBuffer::GetNumInstances(), 1u);
    BlockedGraphicsBuffer::M_Tick();
    EXPECT_EQ(BlockedGraphicsBuffer::GetNumInstances(), 0u);
}

// Random requests and recycles against a byte map: every byte belongs to
// exactly one list, a range handed out was free before and is used after,
// nothing is free again before the tick, and the free list stays sorted and
// coalesced.
TEST(BlockedBuffer, RandomWorkloadAgainstAByteModel)
{
    BlockedGraphicsBuffer::Destroy();
    constexpr uint32 kWidth = 2048;
    Ptr<BlockedGraphicsBuffer> b = BlockedGraphicsBuffer::Create(MakeBuffer(kWidth));
    std::mt19937 random(1234);
    std::vector<std::pair<uint32, uint32>> live;
    std::vector<uint8> before, after;
    unsigned handedOut = 0;
    for (int step = 0; step < 8000; ++step)
    {
        // Slices taken off earlier free blocks come back only by Reset.
        if (step % 500 == 499)
        {
            b->Reset();
            live.clear();
        }
        int op = int(random() % 10);
        ASSERT_TRUE(Paint(*b, kWidth, before)) << step;
        if (op < 5)
        {
            uint32 size = 1 + random() % 200;
            uint32 offset = b->M_Require(size);
            ASSERT_TRUE(Paint(*b, kWidth, after)) << step;
            if (offset == BlockedGraphicsBuffer::kNone)
            {
                EXPECT_EQ(before, after) << step;
                continue;
            }
            ++handedOut;
            ASSERT_LE(offset + size, kWidth);
            for (uint32 i = offset; i < offset + size; ++i)
            {
                ASSERT_EQ(before[i], kFree) << step;
                ASSERT_EQ(after[i], kUsed) << step;
            }
            live.emplace_back(offset, size);
        }
        else if (op < 9 && !live.empty())
        {
            size_t pick = random() % live.size();
            auto [offset, size] = live[pick];
            live.erase(live.begin() + long(pick));
            ASSERT_TRUE(b->M_Recycle(offset, size)) << step;
            ASSERT_TRUE(Paint(*b, kWidth, after));
            for (uint32 i = offset; i < offset + size; ++i)
                ASSERT_EQ(after[i], kRecycled) << step;
        }
        else
        {
            BlockedGraphicsBuffer::M_Tick();
            EXPECT_TRUE(b->GetRecycledBlocks().IsEmpty());
        }
        ASSERT_TRUE(SortedAndCoalesced(b->GetFreeBlocks())) << step;
        ASSERT_TRUE(SortedAndCoalesced(b->GetRecycledBlocks())) << step;
    }
    EXPECT_GT(handedOut, 1500u) << "the workload must keep allocating";
    BlockedGraphicsBuffer::Destroy();
}
