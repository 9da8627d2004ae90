#include <gtest/gtest.h>

#include <map>
#include <random>
#include <vector>

#include "graphics/vulkan/VulkanMemory.h"
#include "graphics/vulkan/VulkanTestSupport.h"
#include "support/LogCapture.h"

using namespace KovexEngine;

namespace {

// The reference: one flag per byte. First fit is the lowest aligned offset
// whose `size` bytes are all free.
struct Model
{
    std::vector<bool> used;
    explicit Model(size_t size) : used(size, false) {}
    uint64 FirstFit(uint64 size, uint64 alignment) const
    {
        for (uint64 start = 0; start + size <= used.size(); start += alignment)
        {
            uint64 i = 0;
            while (i < size && !used[start + i])
                ++i;
            if (i == size)
                return start;
        }
        return RangeAllocator::kNone;
    }
    void Mark(uint64 offset, uint64 size, bool value)
    {
        for (uint64 i = 0; i < size; ++i)
            used[offset + i] = value;
    }
    uint64 FreeBytes() const
    {
        uint64 n = 0;
        for (bool b : used)
            n += !b;
        return n;
    }
};

} // namespace

TEST(VulkanAllocator, RandomAllocationsAndFreesMatchAReferenceModel)
{
    constexpr uint64 kSize = 4096;
    std::mt19937 random(1234);
    for (int round = 0; round < 4; ++round)
    {
        RangeAllocator ranges(kSize);
        Model model(kSize);
        std::map<uint64, uint64> live;
        for (int step = 0; step < 3000; ++step)
        {
            if (live.empty() || random() % 100 < 55)
            {
                const uint64 size = 1 + random() % (round == 3 ? 700 : 96);
                const uint64 alignment = uint64(1) << (random() % 7);
                const uint64 expected = model.FirstFit(size, alignment);
                const uint64 got = ranges.Allocate(size, alignment);
                ASSERT_EQ(got, expected) << "step " << step << " size " << size << " alignment " << alignment;
                if (got != RangeAllocator::kNone)
                {
                    model.Mark(got, size, true);
                    live[got] = size;
                }
            }
            else
            {
                auto it = live.begin();
                std::advance(it, random() % live.size());
                ASSERT_TRUE(ranges.Free(it->first));
                EXPECT_FALSE(ranges.Free(it->first)) << "a second free of one range";
                model.Mark(it->first, it->second, false);
                live.erase(it);
            }
            ASSERT_EQ(ranges.GetFreeBytes(), model.FreeBytes());
            ASSERT_EQ(ranges.GetNumAllocations(), live.size());
            // Free ranges are maximal: no two touch.
            uint64 end = RangeAllocator::kNone;
            for (const auto& [offset, size] : ranges.GetFreeRanges())
            {
                ASSERT_NE(offset, end) << "adjacent free ranges were not merged";
                end = offset + size;
            }
        }
        for (const auto& [offset, size] : live)
            ASSERT_TRUE(ranges.Free(offset));
        EXPECT_TRUE(ranges.IsEmpty());
        ASSERT_EQ(ranges.GetNumFreeRanges(), 1u) << "everything free is one range again";
        EXPECT_EQ(ranges.GetFreeRanges().begin()->second, kSize);
    }
}

TEST(VulkanAllocator, EdgesOfTheRanges)
{
    RangeAllocator ranges(100);
    EXPECT_EQ(ranges.Allocate(0, 1), RangeAllocator::kNone) << "nothing to allocate";
    EXPECT_EQ(ranges.Allocate(101, 1), RangeAllocator::kNone);
    EXPECT_EQ(ranges.Allocate(8, 3), RangeAllocator::kNone) << "an alignment that is no power of two";
    EXPECT_EQ(ranges.Allocate(10, 1), 0u);
    EXPECT_EQ(ranges.Allocate(10, 16), 16u) << "padding before an aligned start";
    EXPECT_EQ(ranges.Allocate(6, 1), 10u) << "the padding stays free for a later fit";
    EXPECT_EQ(ranges.Allocate(74, 1), 26u);
    EXPECT_EQ(ranges.GetFreeBytes(), 0u);
    EXPECT_EQ(ranges.Allocate(1, 1), RangeAllocator::kNone);
    // Freeing the middle between two free neighbours merges all three.
    EXPECT_TRUE(ranges.Free(0));
    EXPECT_TRUE(ranges.Free(16));
    EXPECT_EQ(ranges.GetNumFreeRanges(), 2u);
    EXPECT_TRUE(ranges.Free(10));
    ASSERT_EQ(ranges.GetNumFreeRanges(), 1u);
    EXPECT_EQ(ranges.GetFreeRanges().begin()->second, 26u);
    EXPECT_FALSE(ranges.Free(5)) << "not the start of an allocation";
}

TEST(VulkanAllocator, ObjectsShareDeviceBlocksAndAForcedFailureFailsOneObject)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    KovexTest::VulkanEngine engine;
    ASSERT_TRUE(engine.IsOpen());
    VulkanMemory& memory = engine.Renderer().GetDevice().GetMemory();
    TextureFactory* factory = TextureFactory::Get();
    const uint32 before = memory.GetNumDeviceAllocations();
    std::vector<Ptr<Texture>> textures;
    for (int i = 0; i < 40; ++i)
    {
        textures.push_back(factory->Create2DRT(32 + i, 16, GraphicsFormat::R8G8B8A8_UNORM));
        ASSERT_TRUE(textures.back() && textures.back()->IsCreated());
    }
    EXPECT_LE(memory.GetNumDeviceAllocations(), before + 1) << "forty textures, at most one new block";

    // A request that no block has room for, and the device refuses the new
    // block: that texture fails, with the line, and nothing else does.
    memory.SetBlockSize(1 << 20);
    memory.FailNextDeviceAllocations(1);
    {
        KovexTest::LogCapture log;
        Ptr<Texture> big = factory->Create2DRT(4096, 4096, GraphicsFormat::R8G8B8A8_UNORM);
        ASSERT_TRUE(big);
        EXPECT_TRUE(big->IsFailed());
        bool logged = false;
        for (const auto& entry : log->entries)
            logged |= std::u16string(entry.text.c_str()).find(u"Vulkan: device memory allocation of") == 0 &&
                      entry.level == LOG_WARNING;
        EXPECT_TRUE(logged) << "the refusal is logged";
        EXPECT_TRUE(log->Contains(u"Vulkan: no memory for a texture of 4096 x 4096 (format 5).\n"));
    }
    EXPECT_TRUE(textures.back()->IsCreated());
    Ptr<Texture> again = factory->Create2DRT(1024, 1024, GraphicsFormat::R8G8B8A8_UNORM);
    ASSERT_TRUE(again);
    EXPECT_TRUE(again->IsCreated()) << "only the forced allocation fails";
    memory.SetBlockSize(0);
}
