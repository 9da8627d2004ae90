// The renderer's labels and GPU frame timestamps, apart from the frame code.

#include <math.h>

#include "graphics/vulkan/VulkanRenderer.h"
#include "kernel/Log.h"
#include "kernel/TimeAnalyzer.h"
#include "graphics/vulkan/VulkanDebug.h"

namespace KovexEngine {

// The frame's commands when an event would be recorded (as a label, as
// timestamps or both); else null.
VkCommandBuffer VulkanRenderer::PerfCommands()
{
    if (!m_perfEnabled || (!m_device.GetDebug().IsEnabled() && !m_timestampPools[m_slot]))
        return VK_NULL_HANDLE;
    return GetFrameCommands();
}

int VulkanRenderer::EventSection(const std::string& name)
{
    for (size_t i = 0; i < m_eventNames.size(); ++i)
        if (m_eventNames[i] == name)
            return kGpuEventSectionBase + int(i);
    if (m_eventNames.size() >= kMaxEventNames)
        return -1;
    m_eventNames.push_back(name);
    return kGpuEventSectionBase + int(m_eventNames.size() - 1);
}

int VulkanRenderer::GetGpuEventSection(const char16_t* name)
{
    std::lock_guard<std::recursive_mutex> lock(m_device.GetLock());
    const std::string text = VulkanUtf8(name ? name : u"");
    for (size_t i = 0; i < m_eventNames.size(); ++i)
        if (m_eventNames[i] == text)
            return kGpuEventSectionBase + int(i);
    return -1;
}

void VulkanRenderer::BeginPerfEvent(uint32 color, const char16_t* name)
{
    std::lock_guard<std::recursive_mutex> lock(m_device.GetLock());
    VkCommandBuffer cmd = PerfCommands();
    if (!cmd)
        return;
    m_device.GetDebug().BeginLabel(cmd, color, name);
    int32 timed = -1;
    std::vector<TimedEvent>& events = m_timedEvents[m_slot];
    if (VkQueryPool pool = m_timestampPools[m_slot]; pool && events.size() < kMaxTimedEvents)
    {
        const std::string text = VulkanUtf8(name ? name : u"");
        const int section = EventSection(text);
        if (section >= 0)
        {
            timed = int32(events.size());
            events.push_back(TimedEvent{section, "GPU " + text});
            vkCmdWriteTimestamp(cmd, VK_PIPELINE_STAGE_TOP_OF_PIPE_BIT, pool, 2 + 2 * uint32(timed));
        }
    }
    m_openEvents.push_back(timed);
    ++m_perfDepth;
}

void VulkanRenderer::EndPerfEvent()
{
    std::lock_guard<std::recursive_mutex> lock(m_device.GetLock());
    // Depth counts only what this frame's commands opened, so a stray End
    // (or one whose Begin was closed by a submission) never unbalances them.
    if (m_perfDepth == 0 || !m_recording)
        return;
    VkCommandBuffer cmd = m_frameCommands[m_slot];
    m_device.GetDebug().EndLabel(cmd);
    const int32 timed = m_openEvents.back();
    m_openEvents.pop_back();
    if (timed >= 0)
        vkCmdWriteTimestamp(cmd, VK_PIPELINE_STAGE_BOTTOM_OF_PIPE_BIT, m_timestampPools[m_slot],
                            2 + 2 * uint32(timed) + 1);
    --m_perfDepth;
}

void VulkanRenderer::CloseOpenEvents(VkCommandBuffer cmd)
{
    while (m_perfDepth > 0)
    {
        m_device.GetDebug().EndLabel(cmd);
        const int32 timed = m_openEvents.empty() ? -1 : m_openEvents.back();
        if (!m_openEvents.empty())
            m_openEvents.pop_back();
        if (timed >= 0)
            vkCmdWriteTimestamp(cmd, VK_PIPELINE_STAGE_BOTTOM_OF_PIPE_BIT, m_timestampPools[m_slot],
                                2 + 2 * uint32(timed) + 1);
        --m_perfDepth;
    }
    m_openEvents.clear();
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
    info.queryCount = 2 + 2 * kMaxTimedEvents; // frame start and end, then each event's
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
        vkCmdResetQueryPool(cmd, pool, 0, 2 + 2 * kMaxTimedEvents);
        vkCmdWriteTimestamp(cmd, VK_PIPELINE_STAGE_TOP_OF_PIPE_BIT, pool, 0);
        m_timedEvents[m_slot].clear();
    }
}

void VulkanRenderer::ReadFrameTimestamps(uint32 slot)
{
    if (!m_timestampsPending[slot])
        return;
    m_timestampsPending[slot] = false;
    const std::vector<TimedEvent>& events = m_timedEvents[slot];
    const uint32 count = 2 + 2 * uint32(events.size());
    uint64 ticks[2 + 2 * kMaxTimedEvents] = {};
    // The frame's fence has signalled, so the results are there: no wait bit.
    VkResult result = vkGetQueryPoolResults(m_device.GetDevice(), m_timestampPools[slot], 0, count,
                                            sizeof(uint64) * count, ticks, sizeof(uint64), VK_QUERY_RESULT_64_BIT);
    if (result != VK_SUCCESS)
        return;
    uint32 bits = m_device.GetTimestampBits();
    uint64 mask = bits >= 64 ? ~uint64(0) : (uint64(1) << bits) - 1;
    const double period = double(m_device.GetProperties().limits.timestampPeriod);
    // Masked difference: a counter that wrapped within the span still counts.
    auto span = [&](uint32 first) { return double((ticks[first + 1] - ticks[first]) & mask) * period / 1.0e6; };
    double ms = span(0);
    if (isfinite(ms))
    {
        m_gpuFrameMs.store(ms, std::memory_order_relaxed);
        g_TimeAnalyzer.Add(kGpuFrameSection, "GPU Frame", ms / 1000.0);
    }
    for (size_t i = 0; i < events.size(); ++i)
    {
        const double eventMs = span(2 + 2 * uint32(i));
        if (isfinite(eventMs))
            g_TimeAnalyzer.Add(events[i].section, events[i].name.c_str(), eventMs / 1000.0);
    }
}

} // namespace KovexEngine
