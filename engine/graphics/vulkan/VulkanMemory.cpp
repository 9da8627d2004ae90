#include "graphics/vulkan/VulkanMemory.h"

#include "graphics/vulkan/VulkanDebug.h"

#include <iterator>

#include "kernel/Log.h"

namespace KovexEngine {

// --- RangeAllocator ------------------------------------------------------------------

RangeAllocator::RangeAllocator(uint64 size) : m_size(size), m_freeBytes(size)
{
    if (size)
        m_free.emplace(0, size);
}

uint64 RangeAllocator::Allocate(uint64 size, uint64 alignment)
{
    if (size == 0 || size > m_freeBytes)
        return kNone;
    if (alignment == 0)
        alignment = 1;
    if (alignment & (alignment - 1))
        return kNone;
    for (auto it = m_free.begin(); it != m_free.end(); ++it)
    {
        const uint64 start = it->first, length = it->second;
        const uint64 aligned = (start + alignment - 1) & ~(alignment - 1);
        const uint64 padding = aligned - start;
        if (padding >= length || length - padding < size)
            continue;
        const uint64 tail = length - padding - size;
        m_free.erase(it);
        if (padding)
            m_free.emplace(start, padding);
        if (tail)
            m_free.emplace(aligned + size, tail);
        m_used.emplace(aligned, size);
        m_freeBytes -= size;
        return aligned;
    }
    return kNone;
}

bool RangeAllocator::Free(uint64 offset)
{
    auto it = m_used.find(offset);
    if (it == m_used.end())
        return false;
    const uint64 size = it->second;
    m_used.erase(it);
    m_freeBytes += size;
    InsertFree(offset, size);
    return true;
}

void RangeAllocator::InsertFree(uint64 offset, uint64 size)
{
    auto next = m_free.lower_bound(offset);
    if (next != m_free.begin())
    {
        auto previous = std::prev(next);
        if (previous->first + previous->second == offset)
        {
            offset = previous->first;
            size += previous->second;
            m_free.erase(previous);
        }
    }
    if (next != m_free.end() && offset + size == next->first)
    {
        size += next->second;
        m_free.erase(next);
    }
    m_free.emplace(offset, size);
}

// --- VulkanMemory ----------------------------------------------------------------------

void VulkanMemory::Init(VkPhysicalDevice physical, VkDevice device)
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_device = device;
    vkGetPhysicalDeviceMemoryProperties(physical, &m_properties);
}

void VulkanMemory::Destroy()
{
    std::lock_guard<std::mutex> lock(m_lock);
    for (Pool& pool : m_pools)
        for (Block& block : pool.blocks)
            if (block.memory)
                vkFreeMemory(m_device, block.memory, nullptr);
    m_pools.clear();
    m_deviceAllocations = 0;
    m_allocatedBytes = 0;
    m_device = VK_NULL_HANDLE;
}

bool VulkanMemory::FindType(uint32 typeBits, VkMemoryPropertyFlags required, uint32& index) const
{
    for (uint32 i = 0; i < m_properties.memoryTypeCount; ++i)
        if ((typeBits & (1u << i)) && (m_properties.memoryTypes[i].propertyFlags & required) == required)
        {
            index = i;
            return true;
        }
    return false;
}

bool VulkanMemory::NewBlock(Pool& pool, uint64 size)
{
    if (m_failNext)
    {
        --m_failNext;
        Log::Format(LOG_WARNING, u"Vulkan: device memory allocation of %I64u bytes failed (%d).\n",
                    (unsigned long long)size, int(VK_ERROR_OUT_OF_DEVICE_MEMORY));
        return false;
    }
    VkMemoryAllocateInfo info = {VK_STRUCTURE_TYPE_MEMORY_ALLOCATE_INFO};
    info.allocationSize = size;
    info.memoryTypeIndex = pool.typeIndex;
    Block block;
    VkResult result = vkAllocateMemory(m_device, &info, nullptr, &block.memory);
    if (result != VK_SUCCESS)
    {
        Log::Format(LOG_WARNING, u"Vulkan: device memory allocation of %I64u bytes failed (%d).\n",
                    (unsigned long long)size, int(result));
        return false;
    }
    if (m_properties.memoryTypes[pool.typeIndex].propertyFlags & VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT)
    {
        void* mapped = nullptr;
        result = vkMapMemory(m_device, block.memory, 0, VK_WHOLE_SIZE, 0, &mapped);
        if (result != VK_SUCCESS)
        {
            vkFreeMemory(m_device, block.memory, nullptr);
            Log::Format(LOG_WARNING, u"Vulkan: mapping a memory block failed (%d).\n", int(result));
            return false;
        }
        block.mapped = static_cast<uint8*>(mapped);
    }
    block.ranges = RangeAllocator(size);
    if (m_debug)
        m_debug->Name(VK_OBJECT_TYPE_DEVICE_MEMORY, block.memory,
                      VulkanMemoryBlockName(size, pool.typeIndex, block.mapped != nullptr));
    ++m_deviceAllocations;
    m_allocatedBytes += size;
    // A slot Trim emptied is reused, so the indices of live allocations stay.
    for (Block& slot : pool.blocks)
        if (!slot.memory)
        {
            slot = std::move(block);
            return true;
        }
    pool.blocks.push_back(std::move(block));
    return true;
}

bool VulkanMemory::Allocate(const VkMemoryRequirements& requirements, VkMemoryPropertyFlags required, bool linear,
                            VulkanAllocation& out)
{
    std::lock_guard<std::mutex> lock(m_lock);
    out = VulkanAllocation();
    uint32 typeIndex = 0;
    if (!FindType(requirements.memoryTypeBits, required, typeIndex))
    {
        Log::Format(LOG_WARNING, u"Vulkan: no memory type has the properties 0x%x (types 0x%x).\n", unsigned(required),
                    unsigned(requirements.memoryTypeBits));
        return false;
    }
    uint32 poolIndex = 0;
    while (poolIndex < m_pools.size() &&
           (m_pools[poolIndex].typeIndex != typeIndex || m_pools[poolIndex].linear != linear))
        ++poolIndex;
    if (poolIndex == m_pools.size())
    {
        Pool pool;
        pool.typeIndex = typeIndex;
        pool.linear = linear;
        m_pools.push_back(std::move(pool));
    }
    Pool& pool = m_pools[poolIndex];
    auto take = [&](uint32 blockIndex) {
        Block& block = pool.blocks[blockIndex];
        if (!block.memory)
            return false;
        uint64 offset = block.ranges.Allocate(requirements.size, requirements.alignment);
        if (offset == RangeAllocator::kNone)
            return false;
        out.Memory = block.memory;
        out.Offset = offset;
        out.Size = requirements.size;
        out.Mapped = block.mapped ? block.mapped + offset : nullptr;
        out.Pool = poolIndex;
        out.Block = blockIndex;
        return true;
    };
    for (uint32 i = 0; i < pool.blocks.size(); ++i)
        if (take(i))
            return true;
    uint64 size = requirements.size > m_blockSize ? requirements.size : m_blockSize;
    if (!NewBlock(pool, size))
        return false;
    for (uint32 i = 0; i < pool.blocks.size(); ++i)
        if (take(i))
            return true;
    return false;
}

void VulkanMemory::Free(VulkanAllocation& allocation)
{
    if (!allocation.IsValid())
        return;
    std::lock_guard<std::mutex> lock(m_lock);
    if (allocation.Pool < m_pools.size() && allocation.Block < m_pools[allocation.Pool].blocks.size())
    {
        Block& block = m_pools[allocation.Pool].blocks[allocation.Block];
        if (block.memory == allocation.Memory && !block.ranges.Free(allocation.Offset))
            Log::Format(LOG_WARNING, u"Vulkan: freeing memory at offset %I64u that is not in use.\n",
                        (unsigned long long)allocation.Offset);
    }
    allocation = VulkanAllocation();
}

void VulkanMemory::Trim()
{
    std::lock_guard<std::mutex> lock(m_lock);
    for (Pool& pool : m_pools)
        for (Block& block : pool.blocks)
            if (block.memory && block.ranges.IsEmpty())
            {
                vkFreeMemory(m_device, block.memory, nullptr);
                --m_deviceAllocations;
                m_allocatedBytes -= block.ranges.GetSize();
                block = Block();
            }
}

void VulkanMemory::SetBlockSize(uint64 bytes)
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_blockSize = bytes ? bytes : kDefaultBlockSize;
}

void VulkanMemory::FailNextDeviceAllocations(uint32 count)
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_failNext = count;
}

uint32 VulkanMemory::GetNumDeviceAllocations()
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_deviceAllocations;
}

uint64 VulkanMemory::GetAllocatedBytes()
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_allocatedBytes;
}

} // namespace KovexEngine
