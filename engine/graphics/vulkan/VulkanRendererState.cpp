// The Vulkan renderer's target state beyond drawing: groups applied with
// their clear, the scissor box, clears of read-write resources, sample
// counts and the lost-device state.

#include "graphics/vulkan/VulkanRenderer.h"

#include <string.h>

#include "graphics/vulkan/VulkanFormats.h"
#include "graphics/vulkan/VulkanResources.h"
#include "kernel/Log.h"

namespace KovexEngine {

namespace {

VulkanTexture* AsVulkanTexture(Texture* texture)
{
    return texture && texture->GetNativeClass() == VulkanTexture::StaticGetClass()
               ? static_cast<VulkanTexture*>(texture)
               : nullptr;
}

} // namespace

// --- Targets -------------------------------------------------------------------------------

void VulkanRenderer::ApplyRTGroup(const RenderTargetGroup& group)
{
    m_bound = group;
    if (group.ClearOnApply)
        ClearGroup(group);
}

// A group that asks for it starts empty: colour (0, 0, 0, 0), depth 1,
// stencil 0, each target at the slice the group names.
void VulkanRenderer::ClearGroup(const RenderTargetGroup& group)
{
    std::lock_guard<std::recursive_mutex> lock(m_device.GetLock());
    VkCommandBuffer cmd = GetFrameCommands();
    if (!cmd)
        return;
    for (unsigned i = 0; i < RenderTargetGroup::kMaxTargets; ++i)
        if (VulkanTexture* target = AsVulkanTexture(group.RenderTargets[i].Get()))
            ClearColor(cmd, *target, Vector4(0, 0, 0, 0), int(group.ArrayIndices[i]));
    if (VulkanTexture* depth = AsVulkanTexture(group.DepthBuffer.Get()))
        ClearDepth(cmd, *depth, VK_IMAGE_ASPECT_DEPTH_BIT | VK_IMAGE_ASPECT_STENCIL_BIT, 1.0f, 0,
                   int(group.DepthArrayIndex));
}

// The box is read at each draw, with the rasterizer state of that draw.
void VulkanRenderer::ApplyScissorRect(const Rect&) {}

bool VulkanRenderer::FillScissor(VkRect2D& scissor, VkExtent2D extent) const
{
    scissor = {{0, 0}, extent};
    const RasterizerState* state = GetCurRasterizerState().Get();
    if (!state || !state->GetDesc().ScissorEnable)
        return true;
    const Rect& box = GetScissorRect();
    const int64 left = box.left < 0 ? 0 : box.left, top = box.top < 0 ? 0 : box.top;
    const int64 right = box.right > int64(extent.width) ? int64(extent.width) : box.right;
    const int64 bottom = box.bottom > int64(extent.height) ? int64(extent.height) : box.bottom;
    if (right <= left || bottom <= top)
        return false;
    scissor.offset = {int32(left), int32(top)};
    scissor.extent = {uint32(right - left), uint32(bottom - top)};
    return true;
}

// --- Read-write clears ---------------------------------------------------------------------

void VulkanRenderer::ClearUAV(GraphicsResource* resource, uint32 index, uint32 value)
{
    if (auto* buffer = dynamic_cast<VulkanRWBuffer*>(resource))
    {
        // Every 32-bit word of the buffer (its current copy) becomes `value`;
        // a tail shorter than a word is left as it was.
        VulkanBufferMemory& memory = buffer->GetDeviceMemory();
        const uint64 size = memory.GetSize() & ~uint64(3);
        std::lock_guard<std::recursive_mutex> lock(m_device.GetLock());
        VkCommandBuffer cmd = memory.GetBuffer() && size ? GetFrameCommands() : VK_NULL_HANDLE;
        if (!cmd)
            return;
        VkMemoryBarrier before = {VK_STRUCTURE_TYPE_MEMORY_BARRIER};
        before.srcAccessMask = VK_ACCESS_MEMORY_WRITE_BIT;
        before.dstAccessMask = VK_ACCESS_TRANSFER_WRITE_BIT;
        vkCmdPipelineBarrier(cmd, VK_PIPELINE_STAGE_ALL_COMMANDS_BIT, VK_PIPELINE_STAGE_TRANSFER_BIT, 0, 1, &before, 0,
                             nullptr, 0, nullptr);
        vkCmdFillBuffer(cmd, memory.GetBuffer(), memory.GetOffset(), size, value);
        VkMemoryBarrier after = {VK_STRUCTURE_TYPE_MEMORY_BARRIER};
        after.srcAccessMask = VK_ACCESS_TRANSFER_WRITE_BIT;
        after.dstAccessMask = VK_ACCESS_MEMORY_READ_BIT | VK_ACCESS_MEMORY_WRITE_BIT;
        vkCmdPipelineBarrier(cmd, VK_PIPELINE_STAGE_TRANSFER_BIT, VK_PIPELINE_STAGE_ALL_COMMANDS_BIT, 0, 1, &after, 0,
                             nullptr, 0, nullptr);
        return;
    }
    VulkanTexture* target = AsVulkanTexture(dynamic_cast<Texture*>(resource));
    if (!target || !target->IsUnorderedAccessView() || index >= target->GetDesc().ArraySize)
        return;
    // The value reaches every channel as its bits: exact for 32-bit channels;
    // a narrower float or normalised channel gets those bits read as a float.
    float bits = 0;
    memcpy(&bits, &value, 4);
    std::lock_guard<std::recursive_mutex> lock(m_device.GetLock());
    if (VkCommandBuffer cmd = GetFrameCommands())
    {
        Transition(cmd, *target, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL);
        VkClearColorValue clear = {};
        for (uint32& channel : clear.uint32)
            channel = value;
        if (VulkanFormats::GetClearKind(target->GetDesc().Format) == VulkanFormats::ClearKind::Float)
            for (float& channel : clear.float32)
                channel = bits;
        VkImageSubresourceRange range = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 1, index, 1};
        vkCmdClearColorImage(cmd, target->GetImage(), VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, &clear, 1, &range);
    }
}

// --- Samples ------------------------------------------------------------------------------

uint32 VulkanRenderer::SupportedSampleCount(uint32 wanted) const
{
    if (!m_device.IsOpen() || wanted <= 1)
        return 1;
    const VkPhysicalDeviceLimits& limits = m_device.GetProperties().limits;
    const VkSampleCountFlags counts = limits.framebufferColorSampleCounts & limits.framebufferDepthSampleCounts &
                                      limits.framebufferStencilSampleCounts;
    for (uint32 count = 64; count > 1; count >>= 1)
        if (count <= wanted && (counts & count))
            return count;
    return 1;
}

void VulkanRenderer::ChooseSamples(uint32 wanted)
{
    m_samples = SupportedSampleCount(wanted);
    if (wanted > 1 && m_samples != wanted)
        Log::Format(LOG_WARNING, u"Vulkan: %u samples per pixel are not supported here; using %u.\n", wanted,
                    m_samples);
}

// --- Device loss --------------------------------------------------------------------------

void VulkanRenderer::EnterDeviceLost()
{
    if (m_lost)
        return;
    m_lost = true;
    m_recording = false;
    m_perfDepth = 0;
    m_openEvents.clear();
    Log::Print(LOG_ERROR, u"Vulkan: the device is lost; nothing is drawn until the renderer is reset.\n");
    NotifyDeviceLost();
}

bool VulkanRenderer::RefuseWhileLost(LostKind kind)
{
    if (!m_lost)
        return false;
    static const char16_t* const kWhat[] = {u"recording", u"submitting", u"reading back"};
    if (!m_toldLost[int(kind)])
    {
        m_toldLost[int(kind)] = true;
        Log::Format(LOG_WARNING, u"Vulkan: %s refused: the device is lost.\n", kWhat[int(kind)]);
    }
    return true;
}

} // namespace KovexEngine
