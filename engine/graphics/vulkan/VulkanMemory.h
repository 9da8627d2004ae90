#pragma once

// Device memory for the Vulkan backend: a few large blocks per memory type,
// sub-allocated first-fit with coalescing, so that no texture or buffer costs
// a device allocation of its own (drivers cap their number, and each is slow).
//
// Threads: RangeAllocator is plain data, one thread at a time.
// VulkanMemory::Allocate, Free and the counters are safe from any thread
// (one lock); Init and Destroy belong to the thread that opens and closes
// the device.

#include <map>
#include <mutex>
#include <vector>

#include <vulkan/vulkan.h>

#include "kernel/Export.h"
#include "kernel/Types.h"

namespace KovexEngine {

// First-fit ranges of [0, size): a sorted map of free ranges, merged with
// their neighbours on free. O(free ranges) per call, which stays short
// because neighbours always merge.
class KOVEX_API RangeAllocator
{
public:
    static constexpr uint64 kNone = ~uint64(0);

    explicit RangeAllocator(uint64 size = 0);
    // The aligned offset of `size` bytes (alignment a power of two, 0 or 1
    // for none), or kNone when no free range holds them. Padding before the
    // aligned start stays free.
    uint64 Allocate(uint64 size, uint64 alignment);
    // Gives back what Allocate answered; false for an offset not in use.
    bool Free(uint64 offset);

    uint64 GetSize() const { return m_size; }
    uint64 GetFreeBytes() const { return m_freeBytes; }
    size_t GetNumFreeRanges() const { return m_free.size(); }
    size_t GetNumAllocations() const { return m_used.size(); }
    bool IsEmpty() const { return m_used.empty(); }
    // Free ranges by offset, for tests.
    const std::map<uint64, uint64>& GetFreeRanges() const { return m_free; }

private:
    void InsertFree(uint64 offset, uint64 size);
    uint64 m_size = 0;
    uint64 m_freeBytes = 0;
    std::map<uint64, uint64> m_free; // offset -> size
    std::map<uint64, uint64> m_used; // offset -> size
};

// One sub-allocation: the block's memory, where in it, and its mapping for
// host-visible memory (null otherwise).
struct VulkanAllocation
{
    VkDeviceMemory Memory = VK_NULL_HANDLE;
    uint64 Offset = 0;
    uint64 Size = 0;
    uint8* Mapped = nullptr;
    uint32 Pool = ~0u;
    uint32 Block = ~0u;
    bool IsValid() const { return Memory != VK_NULL_HANDLE; }
};

class VulkanDebug;

class KOVEX_API VulkanMemory
{
public:
    static constexpr uint64 kDefaultBlockSize = 64ull << 20;

    void Init(VkPhysicalDevice physical, VkDevice device);
    // Names the blocks made from now on; null names nothing.
    void SetDebug(const VulkanDebug* debug) { m_debug = debug; }
    // Frees every block; what is still allocated is lost (a leak the caller
    // has already logged).
    void Destroy();

    // Memory for a resource of these requirements with at least `required`
    // properties. `linear` keeps buffers and optimally tiled images in
    // separate blocks, so bufferImageGranularity never applies. False, with
    // a log line, when no type fits or the device refuses a new block.
    bool Allocate(const VkMemoryRequirements& requirements, VkMemoryPropertyFlags required, bool linear,
                  VulkanAllocation& out);
    // Empty blocks are kept for reuse; Trim returns them to the device.
    void Free(VulkanAllocation& allocation);
    void Trim();

    // New blocks are this large (requests above it get a block of their own
    // size); for tests that need to reach a new block quickly.
    void SetBlockSize(uint64 bytes);
    // The next `count` device allocations fail as if the device were out of
    // memory (tests of the failure path).
    void FailNextDeviceAllocations(uint32 count);

    uint32 GetNumDeviceAllocations();
    uint64 GetAllocatedBytes();

private:
    struct Block
    {
        VkDeviceMemory memory = VK_NULL_HANDLE;
        uint8* mapped = nullptr;
        RangeAllocator ranges;
    };
    struct Pool
    {
        uint32 typeIndex = 0;
        bool linear = false;
        std::vector<Block> blocks;
    };
    bool FindType(uint32 typeBits, VkMemoryPropertyFlags required, uint32& index) const;
    bool NewBlock(Pool& pool, uint64 size);

    std::mutex m_lock;
    const VulkanDebug* m_debug = nullptr;
    VkDevice m_device = VK_NULL_HANDLE;
    VkPhysicalDeviceMemoryProperties m_properties = {};
    std::vector<Pool> m_pools;
    uint64 m_blockSize = kDefaultBlockSize;
    uint32 m_failNext = 0;
    uint32 m_deviceAllocations = 0;
    uint64 m_allocatedBytes = 0;
};

} // namespace KovexEngine
