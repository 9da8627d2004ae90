// The renderer's labels and GPU frame timestamps, apart from the frame code.

#include <math.h>

#include "graphics/vulkan/VulkanRenderer.h"
#include "kernel/Log.h"
#include "kernel/TimeAnalyzer.h"

namespace KovexEngine {

// The frame's commands when a label would be recorded; else null.
VkCommandBuffer VulkanRenderer::PerfCommands()
{
    if (!m_perfEnabled || !m_device.GetDebug().IsEnabled())
        return VK_NULL_HANDLE;
    return GetFrameCommands();
}

void VulkanRenderer::BeginPerfEvent(uint32 color, const char16_t* name)
{
    std::lock_guard<std::recursive_mutex> lock(m_device.GetLock());
    if (VkCommandBuffer cmd = PerfCommands())
    {
        m_device.GetDebug().BeginLabel(cmd, color, name);
        ++m_perfDepth;
    }
}

void VulkanRenderer::EndPerfEvent()
{
    std::lock_guard<std::recursive_mutex> lock(m_device.GetLock());
    // Depth counts only what this frame's commands opened, so a stray End
    // (or one whose Begin was closed by a submission) never unbalances them.
    if (m_perfDepth == 0 || !m_recording)
        return;
    m_device.GetDebug().EndLabel(m_frameCommands[m_slot]);
    --m_perfDepth;
}

void VulkanRenderer::EnablePerf(bool enabled)
{
    std::lock_guard<std::recursive_mutex> lock(m_device.GetLock());
    m_perfEnabled = enabled;
}

void VulkanRenderer::SetMarker(uint32 color, const char16_t* name)
{
    std::lock_guard<std::recursive_mutex> lock(m_device.GetLock());
    if (VkCommandBuffer cmd = PerfCommands())
        m_device.GetDebug().InsertLabel(cmd, color, name);
}

void VulkanRenderer::CreateTimestampPools()
{
    if (m_device.GetTimestampBits() == 0)
    {
        Log::Print(LOG_INFO, u"Vulkan: the queue has no timestamps; no GPU frame times.\n");
        return;
    }
    VkQueryPoolCreateInfo info = {VK_STRUCTURE_TYPE_QUERY_POOL_CREATE_INFO};
    info.queryType = VK_QUERY_TYPE_TIMESTAMP;
    info.queryCount = 2; // frame start, frame end
    for (uint32 i = 0; i < kFramesInFlight; ++i)
    {
        if (vkCreateQueryPool(m_device.GetDevice(), &info, nullptr, &m_timestampPools[i]) != VK_SUCCESS)
        {
            m_timestampPools[i] = VK_NULL_HANDLE;
            Log::Print(LOG_WARNING, u"Vulkan: a timestamp query pool could not be made; no GPU frame times.\n");
            continue;
        }
        m_device.GetDebug().Name(VK_OBJECT_TYPE_QUERY_POOL, m_timestampPools[i],
                                 "Frame timestamps " + std::to_string(i));
    }
}

void VulkanRenderer::BeginFrameTimestamps(VkCommandBuffer cmd)
{
    if (VkQueryPool pool = m_timestampPools[m_slot])
    {
        vkCmdResetQueryPool(cmd, pool, 0, 2);
        vkCmdWriteTimestamp(cmd, VK_PIPELINE_STAGE_TOP_OF_PIPE_BIT, pool, 0);
    }
}

void VulkanRenderer::ReadFrameTimestamps(uint32 slot)
{
    if (!m_timestampsPending[slot])
        return;
    m_timestampsPending[slot] = false;
    uint64 ticks[2] = {};
    // The frame's fence has signalled, so the results are there: no wait bit.
    VkResult result = vkGetQueryPoolResults(m_device.GetDevice(), m_timestampPools[slot], 0, 2, sizeof(ticks), ticks,
                                            sizeof(uint64), VK_QUERY_RESULT_64_BIT);
    if (result != VK_SUCCESS)
        return;
    uint32 bits = m_device.GetTimestampBits();
    uint64 mask = bits >= 64 ? ~uint64(0) : (uint64(1) << bits) - 1;
    // Masked difference: a counter that wrapped within the frame still counts.
    uint64 elapsed = (ticks[1] - ticks[0]) & mask;
    double ms = double(elapsed) * double(m_device.GetProperties().limits.timestampPeriod) / 1.0e6;
    if (!isfinite(ms))
        return;
    m_gpuFrameMs.store(ms, std::memory_order_relaxed);
    g_TimeAnalyzer.Add(kGpuFrameSection, "GPU Frame", ms / 1000.0);
}

} // namespace KovexEngine
