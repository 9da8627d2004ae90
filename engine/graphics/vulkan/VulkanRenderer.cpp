#include "graphics/vulkan/VulkanRenderer.h"

#include "graphics/Shader.h"

#include <string.h>

#include "graphics/vulkan/VulkanFormats.h"
#include "graphics/vulkan/VulkanProgram.h"
#include "graphics/vulkan/VulkanResources.h"
#include "graphics/vulkan/VulkanSwapChain.h"
#include "graphics/InputLayout.h"
#include "graphics/VertexBuffer.h"
#include "kernel/Log.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(VulkanRenderer, u"Engine", Renderer)

namespace {

Renderer* MakeVulkanRenderer() { return new VulkanRenderer(); }
bool VulkanAvailable() { return VulkanDevice::Probe(); }

// Preferred over every other platform this build has.
const bool s_registered = RegisterRendererBackend(
    RendererBackend{RendererPlatform::Vulkan, 100, &VulkanAvailable, &MakeVulkanRenderer});

VulkanTexture* AsVulkan(Texture* texture)
{
    return texture && texture->GetNativeClass() == VulkanTexture::StaticGetClass()
               ? static_cast<VulkanTexture*>(texture)
               : nullptr;
}

} // namespace

VulkanRenderer::VulkanRenderer()
{
    (void)s_registered;
    SetPlatform(RendererPlatform::Vulkan);
    // Known before the device opens, so that Init's defaulting finds them.
    SetDefaultFormat(GraphicsFormat::R8G8B8A8_UNORM, GraphicsFormat::D24_UNORM_S8_UINT);
}

VulkanRenderer::~VulkanRenderer() { CloseDevice(); }

VulkanRenderer* VulkanRenderer::Get()
{
    Renderer* renderer = g_ptrRenderer.Get();
    return renderer && renderer->GetPlatform() == RendererPlatform::Vulkan ? static_cast<VulkanRenderer*>(renderer)
                                                                           : nullptr;
}

// --- Device -----------------------------------------------------------------------------

bool VulkanRenderer::OnCreateDevice(const GraphicsParameters& parameters)
{
    std::lock_guard<std::recursive_mutex> lock(m_device.GetLock());
    if (!m_device.Open())
        return false;
    VkDevice device = m_device.GetDevice();
    VkCommandBufferAllocateInfo allocate = {VK_STRUCTURE_TYPE_COMMAND_BUFFER_ALLOCATE_INFO};
    allocate.commandPool = m_device.GetCommandPool();
    allocate.level = VK_COMMAND_BUFFER_LEVEL_PRIMARY;
    allocate.commandBufferCount = kFramesInFlight;
    VkResult result = vkAllocateCommandBuffers(device, &allocate, m_frameCommands);
    allocate.commandBufferCount = 1;
    if (result == VK_SUCCESS)
        result = vkAllocateCommandBuffers(device, &allocate, &m_nowCommands);
    VkFenceCreateInfo fence = {VK_STRUCTURE_TYPE_FENCE_CREATE_INFO};
    for (uint32 i = 0; i < kFramesInFlight && result == VK_SUCCESS; ++i)
        result = vkCreateFence(device, &fence, nullptr, &m_frameFences[i]);
    VkPhysicalDeviceFeatures features;
    vkGetPhysicalDeviceFeatures(m_device.GetPhysicalDevice(), &features);
    if (result == VK_SUCCESS && !m_pipelines.Init(device, features.depthClamp))
        result = VK_ERROR_INITIALIZATION_FAILED;
    if (result == VK_SUCCESS)
    {
        m_pipelines.LoadDisk(m_device.GetProperties());
        m_programs = std::make_unique<VulkanProgramBinder>(*this);
    }
    if (result == VK_SUCCESS)
    {
        const VulkanDebug& debug = m_device.GetDebug();
        for (uint32 i = 0; i < kFramesInFlight; ++i)
            debug.Name(VK_OBJECT_TYPE_COMMAND_BUFFER, m_frameCommands[i], "Frame commands " + std::to_string(i));
        debug.Name(VK_OBJECT_TYPE_COMMAND_BUFFER, m_nowCommands, std::string("Immediate commands"));
        m_pipelines.SetDebug(&debug);
        CreateTimestampPools();
    }
    if (result != VK_SUCCESS)
    {
        Log::Format(LOG_WARNING, u"Vulkan: frame resources could not be made (%d).\n", int(result));
        CloseDevice();
        return false;
    }

    const VkPhysicalDeviceLimits& limits = m_device.GetProperties().limits;
    HWCapability& caps = *GetHWCapability();
    caps.Profile = D3DShaderProfile::SM_5_0;
    caps.SupportGeometryShader = features.geometryShader;
    caps.SupportTessellation = features.tessellationShader;
    caps.SupportTexture1DArray = true;
    caps.SupportTexture2DArray = true;
    caps.SupportTextureCubeArray = features.imageCubeArray;
    caps.SupportDepthTexture2D = true;
    caps.SupportDepthTextureCube = true;
    caps.SupportDepthTexture2DArray = true;
    caps.SupportHWPCF = true;
    caps.SupportTexArrayHWPCF = true;
    caps.SupportTypelessTex = true;
    caps.SupportInstanceRendering = true;
    caps.SupportIndependentBitDepths = true;
    caps.SupportIndependentWriteMasks = features.independentBlend;
    caps.SupportCopyRegionOfRT = true;
    caps.SupportComputeShader = true;
    caps.SupportLayoutFormatHalfFloat = true;
    caps.SupportNamedConstantBuffer = true;
    caps.NumSimultaneousRTs = limits.maxColorAttachments < 8 ? limits.maxColorAttachments : 8;
    caps.MaxAnisotropy = features.samplerAnisotropy ? uint32(limits.maxSamplerAnisotropy) : 1;
    caps.UpdateMacros();
    // D24S8 is optional in Vulkan; D32 is always there.
    GraphicsFormat depth = (m_device.GetFormatFeatures(VK_FORMAT_D24_UNORM_S8_UINT) &
                            VK_FORMAT_FEATURE_DEPTH_STENCIL_ATTACHMENT_BIT)
                               ? GraphicsFormat::D24_UNORM_S8_UINT
                               : GraphicsFormat::D32_FLOAT;
    SetDefaultFormat(GraphicsFormat::R8G8B8A8_UNORM, depth);
    SetGPUVendor(m_device.GetProperties().deviceName);
    ChooseSamples(parameters.Extra0);
    if (parameters.WindowHandle)
    {
        m_swapChain = std::make_unique<VulkanSwapChain>();
        if (!m_swapChain->Open(*this, parameters.WindowHandle, parameters.VSync))
        {
            CloseDevice();
            return false;
        }
    }
    return true;
}

bool VulkanRenderer::OnResetDevice(const GraphicsParameters& parameters)
{
    if (m_lost)
    {
        // A device that answers again goes on; one that stays lost is only
        // good for destroying.
        if (!m_device.IsOpen() || vkDeviceWaitIdle(m_device.GetDevice()) != VK_SUCCESS)
        {
            Log::Print(LOG_WARNING, u"Vulkan: the device is still lost; destroy the renderer.\n");
            return false;
        }
        m_lost = false;
        for (bool& told : m_toldLost)
            told = false;
    }
    ChooseSamples(parameters.Extra0);
    // A swap chain that cannot be remade (a window of no size) leaves frames offscreen until the next reset.
    if (m_swapChain && m_swapChain->IsOpen() && !m_swapChain->Recreate())
        Log::Print(LOG_WARNING, u"Vulkan: the window's swap chain could not be remade; frames are not shown.\n");
    return m_device.IsOpen();
}

void VulkanRenderer::CloseDevice()
{
    std::lock_guard<std::recursive_mutex> lock(m_device.GetLock());
    VkDevice device = m_device.GetDevice();
    m_swapChain.reset();
    m_mainBackBuffer = Ptr<Texture>();
    if (device)
    {
        vkDeviceWaitIdle(device);
        // Commands still being recorded are never submitted: everything
        // waiting on them goes too.
        m_recording = false;
        m_completed = ~uint64(0);
        CollectGarbage();
        m_completed = m_submitted = 0;
        if (m_programs)
            m_programs->Destroy();
        m_pipelines.Destroy();
        for (uint32 i = 0; i < kFramesInFlight; ++i)
        {
            if (m_frameFences[i])
                vkDestroyFence(device, m_frameFences[i], nullptr);
            if (m_timestampPools[i])
                vkDestroyQueryPool(device, m_timestampPools[i], nullptr);
        }
        // The command buffers go with the pool.
    }
    for (uint32 i = 0; i < kFramesInFlight; ++i)
    {
        m_frameFences[i] = VK_NULL_HANDLE;
        m_frameCommands[i] = VK_NULL_HANDLE;
        m_frameSerial[i] = 0;
        m_timestampPools[i] = VK_NULL_HANDLE;
        m_timestampsPending[i] = false;
    }
    m_perfDepth = 0;
    m_openEvents.clear();
    m_nowCommands = VK_NULL_HANDLE;
    m_bound.Clear();
    m_programs.reset();
    m_device.Close();
}

void VulkanRenderer::OnDestroying()
{
    Renderer::OnDestroying();
    m_bound.Clear();
}

void VulkanRenderer::OnDestroyed()
{
    Renderer::OnDestroyed();
    // Every factory has released its objects by now.
    CloseDevice();
}

// --- Frames -------------------------------------------------------------------------------

bool VulkanRenderer::WaitFrame(uint32 slot)
{
    if (!m_frameSerial[slot])
        return true;
    VkResult result = vkWaitForFences(m_device.GetDevice(), 1, &m_frameFences[slot], VK_TRUE, UINT64_MAX);
    if (result == VK_ERROR_DEVICE_LOST)
        EnterDeviceLost();
    if (result != VK_SUCCESS)
    {
        Log::Format(LOG_WARNING, u"Vulkan: waiting for a frame failed (%d).\n", int(result));
        return false;
    }
    // Frames are waited in the order they were submitted, so every one
    // before this one is complete too.
    if (m_frameSerial[slot] > m_completed)
        m_completed = m_frameSerial[slot];
    m_frameSerial[slot] = 0;
    ReadFrameTimestamps(slot);
    return true;
}

void VulkanRenderer::CollectGarbage()
{
    size_t kept = 0;
    for (size_t i = 0; i < m_garbage.size(); ++i)
    {
        if (m_garbage[i].serial <= m_completed)
            m_garbage[i].destroy();
        else
            m_garbage[kept++] = std::move(m_garbage[i]);
    }
    m_garbage.resize(kept);
}

VkCommandBuffer VulkanRenderer::GetFrameCommands()
{
    std::lock_guard<std::recursive_mutex> lock(m_device.GetLock());
    if (!m_device.IsOpen() || RefuseWhileLost(LostKind::Recording))
        return VK_NULL_HANDLE;
    VkCommandBuffer cmd = m_frameCommands[m_slot];
    if (m_recording)
        return cmd;
    // The slot's last frame must be done before its buffer is reused.
    if (!WaitFrame(m_slot))
        return VK_NULL_HANDLE;
    CollectGarbage();
    vkResetFences(m_device.GetDevice(), 1, &m_frameFences[m_slot]);
    VkCommandBufferBeginInfo begin = {VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO};
    begin.flags = VK_COMMAND_BUFFER_USAGE_ONE_TIME_SUBMIT_BIT;
    if (vkBeginCommandBuffer(cmd, &begin) != VK_SUCCESS)
        return VK_NULL_HANDLE;
    m_recording = true;
    ++m_begun;
    BeginFrameTimestamps(cmd);
    return cmd;
}

bool VulkanRenderer::SubmitFrame(bool wait, VkSemaphore waitOn, VkSemaphore signal)
{
    std::lock_guard<std::recursive_mutex> lock(m_device.GetLock());
    if (!m_device.IsOpen() || RefuseWhileLost(LostKind::Submission))
        return false;
    bool ok = true;
    if (m_recording)
    {
        VkCommandBuffer cmd = m_frameCommands[m_slot];
        m_recording = false;
        CloseOpenEvents(cmd);
        if (VkQueryPool pool = m_timestampPools[m_slot])
            vkCmdWriteTimestamp(cmd, VK_PIPELINE_STAGE_BOTTOM_OF_PIPE_BIT, pool, 1);
        VkResult result = vkEndCommandBuffer(cmd);
        VkSubmitInfo submit = {VK_STRUCTURE_TYPE_SUBMIT_INFO};
        submit.commandBufferCount = 1;
        submit.pCommandBuffers = &cmd;
        const VkPipelineStageFlags stage = VK_PIPELINE_STAGE_TRANSFER_BIT;
        submit.waitSemaphoreCount = waitOn ? 1 : 0;
        submit.pWaitSemaphores = &waitOn;
        submit.pWaitDstStageMask = &stage;
        submit.signalSemaphoreCount = signal ? 1 : 0;
        submit.pSignalSemaphores = &signal;
        if (result == VK_SUCCESS)
            result = vkQueueSubmit(m_device.GetQueue(), 1, &submit, m_frameFences[m_slot]);
        if (result == VK_SUCCESS)
        {
            m_frameSerial[m_slot] = ++m_submitted;
            m_timestampsPending[m_slot] = m_timestampPools[m_slot] != VK_NULL_HANDLE;
            m_slot = (m_slot + 1) % kFramesInFlight;
            if (m_simulateLost.exchange(false))
                result = VK_ERROR_DEVICE_LOST;
        }
        if (result == VK_ERROR_DEVICE_LOST)
        {
            EnterDeviceLost();
            return false;
        }
        if (result != VK_SUCCESS)
        {
            Log::Format(LOG_WARNING, u"Vulkan: submitting a frame failed (%d).\n", int(result));
            ok = false;
        }
    }
    if (wait)
    {
        VkResult result = vkQueueWaitIdle(m_device.GetQueue());
        if (result == VK_ERROR_DEVICE_LOST)
            EnterDeviceLost();
        if (result != VK_SUCCESS)
            ok = false;
        else
        {
            m_completed = m_submitted;
            for (uint32 i = 0; i < kFramesInFlight; ++i)
            {
                m_frameSerial[i] = 0;
                ReadFrameTimestamps(i);
            }
            CollectGarbage();
        }
    }
    return ok;
}

bool VulkanRenderer::RunNow(const std::function<void(VkCommandBuffer)>& record)
{
    std::lock_guard<std::recursive_mutex> lock(m_device.GetLock());
    if (!m_device.IsOpen() || RefuseWhileLost(LostKind::ReadBack) || !SubmitFrame(false))
        return false;
    VkCommandBuffer cmd = m_nowCommands;
    VkCommandBufferBeginInfo begin = {VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO};
    begin.flags = VK_COMMAND_BUFFER_USAGE_ONE_TIME_SUBMIT_BIT;
    VkResult result = vkBeginCommandBuffer(cmd, &begin);
    if (result == VK_SUCCESS)
    {
        record(cmd);
        result = vkEndCommandBuffer(cmd);
    }
    VkSubmitInfo submit = {VK_STRUCTURE_TYPE_SUBMIT_INFO};
    submit.commandBufferCount = 1;
    submit.pCommandBuffers = &cmd;
    if (result == VK_SUCCESS)
        result = vkQueueSubmit(m_device.GetQueue(), 1, &submit, VK_NULL_HANDLE);
    if (result == VK_SUCCESS)
    {
        ++m_submitted;
        result = vkQueueWaitIdle(m_device.GetQueue());
    }
    if (result == VK_ERROR_DEVICE_LOST)
        EnterDeviceLost();
    if (result != VK_SUCCESS)
    {
        Log::Format(LOG_WARNING, u"Vulkan: immediate commands failed (%d).\n", int(result));
        return false;
    }
    m_completed = m_submitted;
    return true;
}

bool VulkanRenderer::Upload(const void* data, uint64 size, const std::function<void(VkCommandBuffer, VkBuffer)>& record)
{
    std::lock_guard<std::recursive_mutex> lock(m_device.GetLock());
    VkBuffer staging = VK_NULL_HANDLE;
    VulkanAllocation memory;
    if (!CreateTransferBuffer(size, staging, memory))
        return false;
    memcpy(memory.Mapped, data, size);
    VkCommandBuffer cmd = GetFrameCommands();
    if (!cmd)
    {
        DestroyTransferBuffer(staging, memory);
        return false;
    }
    record(cmd, staging);
    DeferDestroy([this, staging, memory]() mutable { DestroyTransferBuffer(staging, memory); });
    return true;
}

void VulkanRenderer::DeferDestroy(std::function<void()> destroy)
{
    std::lock_guard<std::recursive_mutex> lock(m_device.GetLock());
    // Whatever the frame being recorded (or the last one submitted) uses is
    // free once the next submission is complete.
    if (m_submitted <= m_completed && !m_recording)
    {
        destroy();
        return;
    }
    m_garbage.push_back(Garbage{m_submitted + 1, std::move(destroy)});
}

void VulkanRenderer::Transition(VkCommandBuffer cmd, VulkanTexture& texture, VkImageLayout layout)
{
    VkImageLayout current = texture.GetLayout();
    TransitionImage(cmd, texture.GetImage(), VulkanFormats::AspectOf(texture.GetVkFormat()), current, layout);
    texture.SetLayout(current);
}

void VulkanRenderer::TransitionImage(VkCommandBuffer cmd, VkImage image, VkImageAspectFlags aspects,
                                     VkImageLayout& current, VkImageLayout layout)
{
    // Transfer writes (clears, copies) in a row still need a barrier between
    // them; other uses of an unchanged layout order themselves.
    if (!image || (current == layout && layout != VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL))
        return;
    VkImageMemoryBarrier barrier = {VK_STRUCTURE_TYPE_IMAGE_MEMORY_BARRIER};
    // Whole-pipeline barriers: correct for every use; the pipelines to come
    // narrow them where drawing makes it worth it.
    barrier.srcAccessMask = VK_ACCESS_MEMORY_WRITE_BIT;
    barrier.dstAccessMask = VK_ACCESS_MEMORY_READ_BIT | VK_ACCESS_MEMORY_WRITE_BIT;
    barrier.oldLayout = current;
    barrier.newLayout = layout;
    barrier.srcQueueFamilyIndex = VK_QUEUE_FAMILY_IGNORED;
    barrier.dstQueueFamilyIndex = VK_QUEUE_FAMILY_IGNORED;
    barrier.image = image;
    barrier.subresourceRange.aspectMask = aspects;
    barrier.subresourceRange.levelCount = VK_REMAINING_MIP_LEVELS;
    barrier.subresourceRange.layerCount = VK_REMAINING_ARRAY_LAYERS;
    vkCmdPipelineBarrier(cmd, VK_PIPELINE_STAGE_ALL_COMMANDS_BIT, VK_PIPELINE_STAGE_ALL_COMMANDS_BIT, 0, 0, nullptr,
                         0, nullptr, 1, &barrier);
    current = layout;
}

void VulkanRenderer::Present()
{
    std::lock_guard<std::recursive_mutex> lock(m_device.GetLock());
    uint32 width = 0, height = 0;
    if (!VulkanSwapChain::PresentFrame(*this, m_swapChain.get(), AsVulkan(m_mainBackBuffer.Get()), width, height))
        return;
    GraphicsParameters parameters = m_parameters;
    parameters.Width = width;
    parameters.Height = height;
    Reset(parameters);
}

bool VulkanRenderer::CreateTransferBuffer(uint64 size, VkBuffer& buffer, VulkanAllocation& memory)
{
    VkDevice device = m_device.GetDevice();
    VkBufferCreateInfo info = {VK_STRUCTURE_TYPE_BUFFER_CREATE_INFO};
    info.size = size ? size : 1;
    info.usage = VK_BUFFER_USAGE_TRANSFER_SRC_BIT | VK_BUFFER_USAGE_TRANSFER_DST_BIT;
    info.sharingMode = VK_SHARING_MODE_EXCLUSIVE;
    VkResult result = device ? vkCreateBuffer(device, &info, nullptr, &buffer) : VK_ERROR_DEVICE_LOST;
    if (result != VK_SUCCESS)
    {
        Log::Format(LOG_WARNING, u"Vulkan: a transfer buffer of %I64u bytes could not be made (%d).\n",
                    (unsigned long long)size, int(result));
        buffer = VK_NULL_HANDLE;
        return false;
    }
    VkMemoryRequirements requirements;
    vkGetBufferMemoryRequirements(device, buffer, &requirements);
    if (!m_device.GetMemory().Allocate(requirements,
                                       VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT | VK_MEMORY_PROPERTY_HOST_COHERENT_BIT,
                                       true, memory) ||
        vkBindBufferMemory(device, buffer, memory.Memory, memory.Offset) != VK_SUCCESS)
    {
        DestroyTransferBuffer(buffer, memory);
        return false;
    }
    return true;
}

void VulkanRenderer::DestroyTransferBuffer(VkBuffer& buffer, VulkanAllocation& memory)
{
    if (buffer)
        vkDestroyBuffer(m_device.GetDevice(), buffer, nullptr);
    buffer = VK_NULL_HANDLE;
    m_device.GetMemory().Free(memory);
}

// --- Clears -----------------------------------------------------------------------------------

void VulkanRenderer::ClearColor(VkCommandBuffer cmd, VulkanTexture& texture, const Vector4& color, int layer)
{
    if (!texture.GetImage() || VulkanFormats::IsDepthFormat(texture.GetVkFormat()))
        return;
    Transition(cmd, texture, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL);
    // A typeless target is cleared as its render-target view reads it.
    const TextureDesc& desc = texture.GetDesc();
    const uint32 viewFormat = GraphicsFormat::IsTypeless(int(desc.Format)) && desc.TypelessRtvDsvFormat
                                  ? desc.TypelessRtvDsvFormat
                                  : desc.Format;
    VkClearColorValue value = VulkanFormats::MakeClearColor(viewFormat, color.x, color.y, color.z, color.w);
    VkImageSubresourceRange range = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 1, layer < 0 ? 0u : uint32(layer),
                                     layer < 0 ? VK_REMAINING_ARRAY_LAYERS : 1u};
    vkCmdClearColorImage(cmd, texture.GetImage(), VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, &value, 1, &range);
    // The samples the next draw loads must hold the clear too.
    if (VkImage twin = texture.GetMultisampleImage())
    {
        TransitionImage(cmd, twin, VK_IMAGE_ASPECT_COLOR_BIT, texture.MultisampleLayout(),
                        VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL);
        const VkImageSubresourceRange whole = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 1, 0, 1};
        vkCmdClearColorImage(cmd, twin, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, &value, 1, &whole);
    }
}

void VulkanRenderer::ClearDepth(VkCommandBuffer cmd, VulkanTexture& texture, VkImageAspectFlags aspects, float depth,
                                uint32 stencil, int layer)
{
    aspects &= VulkanFormats::AspectOf(texture.GetVkFormat()) & ~VK_IMAGE_ASPECT_COLOR_BIT;
    if (!texture.GetImage() || !aspects)
        return;
    Transition(cmd, texture, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL);
    VkClearDepthStencilValue value = {depth, stencil};
    VkImageSubresourceRange range = {aspects, 0, 1, layer < 0 ? 0u : uint32(layer),
                                     layer < 0 ? VK_REMAINING_ARRAY_LAYERS : 1u};
    vkCmdClearDepthStencilImage(cmd, texture.GetImage(), VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, &value, 1, &range);
}

void VulkanRenderer::Clear(GraphicsClearMode mode, const Vector4& color, float depth, uint32 stencil)
{
    std::lock_guard<std::recursive_mutex> lock(m_device.GetLock());
    VkCommandBuffer cmd = GetFrameCommands();
    if (!cmd)
        return;
    const uint32 bits = uint32(mode);
    if (bits & uint32(GraphicsClearMode::Target))
        for (unsigned i = 0; i < RenderTargetGroup::kMaxTargets; ++i)
            if (VulkanTexture* target = AsVulkan(m_bound.RenderTargets[i].Get()))
                ClearColor(cmd, *target, color, int(m_bound.ArrayIndices[i]));
    VkImageAspectFlags aspects = 0;
    if (bits & uint32(GraphicsClearMode::Depth))
        aspects |= VK_IMAGE_ASPECT_DEPTH_BIT;
    if (bits & uint32(GraphicsClearMode::Stencil))
        aspects |= VK_IMAGE_ASPECT_STENCIL_BIT;
    if (aspects)
        if (VulkanTexture* target = AsVulkan(m_bound.DepthBuffer.Get()))
            ClearDepth(cmd, *target, aspects, depth, stencil, int(m_bound.DepthArrayIndex));
}

void VulkanRenderer::ClearSingle(Texture* texture, const Vector4& color)
{
    VulkanTexture* target = AsVulkan(texture);
    if (!target)
        return;
    std::lock_guard<std::recursive_mutex> lock(m_device.GetLock());
    if (VkCommandBuffer cmd = GetFrameCommands())
    {
        if (VulkanFormats::IsDepthFormat(target->GetVkFormat()))
            ClearDepth(cmd, *target, VK_IMAGE_ASPECT_DEPTH_BIT | VK_IMAGE_ASPECT_STENCIL_BIT, color.x,
                       uint32(color.y), -1);
        else
            ClearColor(cmd, *target, color, -1);
    }
}

void VulkanRenderer::ClearSingle(Texture* texture, uint32 arrayIndex, const Vector4& color)
{
    VulkanTexture* target = AsVulkan(texture);
    if (!target || arrayIndex >= target->GetDesc().ArraySize)
        return;
    std::lock_guard<std::recursive_mutex> lock(m_device.GetLock());
    if (VkCommandBuffer cmd = GetFrameCommands())
    {
        if (VulkanFormats::IsDepthFormat(target->GetVkFormat()))
            ClearDepth(cmd, *target, VK_IMAGE_ASPECT_DEPTH_BIT | VK_IMAGE_ASPECT_STENCIL_BIT, color.x,
                       uint32(color.y), int(arrayIndex));
        else
            ClearColor(cmd, *target, color, int(arrayIndex));
    }
}

void* VulkanRenderer::GetStageRecord(uint32) { return nullptr; }

// Programs are not compiled for Vulkan yet, so a geometry has nothing to be
// drawn with: said once, then nothing.
void VulkanRenderer::Draw(GeometryRDI*) { DrawWithoutProgram(); }
void VulkanRenderer::DrawInstanced(GeometryRDI*, uint32) { DrawWithoutProgram(); }

void VulkanRenderer::DrawWithoutProgram()
{
    if (!m_toldNoPrograms.exchange(true))
        Log::Print(LOG_WARNING, u"Vulkan: Draw needs programs, which are not compiled for Vulkan yet.\n");
}

// --- State ------------------------------------------------------------------------------------

void VulkanRenderer::ApplyViewport(const Viewport& viewport) { m_viewport = viewport; }
void VulkanRenderer::ApplyBlendState(BlendState*, BlendState*) {}
void VulkanRenderer::ApplyRasterizerState(RasterizerState*, RasterizerState*) {}
void VulkanRenderer::ApplyDepthStencilState(DepthStencilState*, DepthStencilState*) {}
void VulkanRenderer::ClearTextures() {}

bool VulkanRenderer::CheckTextureFormat(GraphicsFormat format, TextureDimension dimension, uint32 view,
                                        GraphicsResourceUsage usage, uint32 cpu)
{
    const uint32 value = uint32(format);
    VkFormat vk = VulkanFormats::ToVkFormat(value);
    if (vk == VK_FORMAT_UNDEFINED)
        return false;
    if (!m_device.IsOpen())
        return false;
    VkFormatFeatureFlags features = m_device.GetFormatFeatures(vk);
    // Staging textures are buffers: any format Vulkan has is bytes there.
    if (usage == GraphicsResourceUsage::Staging)
        return view == 0;
    VkFormatFeatureFlags needed = VK_FORMAT_FEATURE_TRANSFER_SRC_BIT | VK_FORMAT_FEATURE_TRANSFER_DST_BIT;
    if (view & TextureViewFlags::SHADER_RESOURCE)
        needed |= VK_FORMAT_FEATURE_SAMPLED_IMAGE_BIT;
    if (view & TextureViewFlags::RENDER_TARGET)
    {
        if (!VulkanFormats::CanBeColorTarget(value))
            return false;
        needed |= VK_FORMAT_FEATURE_COLOR_ATTACHMENT_BIT;
    }
    if (view & TextureViewFlags::DEPTH_STENCIL)
    {
        if (!VulkanFormats::IsDepthFormat(vk))
            return false;
        needed |= VK_FORMAT_FEATURE_DEPTH_STENCIL_ATTACHMENT_BIT;
    }
    if (view & TextureViewFlags::UNORDERED_ACCESS)
        needed |= VK_FORMAT_FEATURE_STORAGE_IMAGE_BIT;
    return (features & needed) == needed;
}

GraphicsFormatLayout VulkanRenderer::GetRenderTargetLayout(GraphicsFormat format)
{
    return VulkanFormats::CanBeColorTarget(uint32(format)) ? GraphicsFormat::GetLayout(format)
                                                          : GraphicsFormatLayout(GraphicsFormatLayout::UNSUPPORTED);
}

// --- Buffers and factories ---------------------------------------------------------------------

Ptr<Texture> VulkanRenderer::NewBuffer(GraphicsFormat format, uint32 viewFlags)
{
    // Without a window the back buffer is an offscreen target of the size
    // asked for (at least one pixel).
    Ptr<VulkanTexture> texture(new VulkanTexture());
    TextureDesc desc = TextureFactory::Make2DDesc(m_parameters.Width ? m_parameters.Width : 1,
                                                  m_parameters.Height ? m_parameters.Height : 1, format, viewFlags);
    texture->SetDesc(desc);
    texture->SetSampleCount(m_samples);
    return InitializeATexture(texture.Get());
}

Ptr<Texture> VulkanRenderer::CreateBackBuffer()
{
    // Kept: Present copies it into the window.
    m_mainBackBuffer =
        NewBuffer(m_parameters.BackBufferFormat, TextureViewFlags::SHADER_RESOURCE | TextureViewFlags::RENDER_TARGET);
    return m_mainBackBuffer;
}

Ptr<Texture> VulkanRenderer::CreateDepthBuffer()
{
    return NewBuffer(m_parameters.DepthStencilFormat, TextureViewFlags::DEPTH_STENCIL);
}

GraphicsFactory* VulkanRenderer::CreateBlendStateFactory() { return new BlendStateFactory(); }
GraphicsFactory* VulkanRenderer::CreateSamplerStateFactory() { return new SamplerStateFactory(); }
GraphicsFactory* VulkanRenderer::CreateRasterizerStateFactory() { return new RasterizerStateFactory(); }
GraphicsFactory* VulkanRenderer::CreateDepthStencilStateFactory() { return new DepthStencilStateFactory(); }
GraphicsFactory* VulkanRenderer::CreateVertexBufferFactory() { return new VulkanVertexBufferFactory(); }
GraphicsFactory* VulkanRenderer::CreateIndexBufferFactory() { return new VulkanIndexBufferFactory(); }
GraphicsFactory* VulkanRenderer::CreateConstantBufferFactory() { return new VulkanConstantBufferFactory(); }
GraphicsFactory* VulkanRenderer::CreateRWBufferFactory() { return new VulkanRWBufferFactory(); }
GraphicsFactory* VulkanRenderer::CreateShaderFactory() { return new VulkanShaderFactory(); }
GraphicsFactory* VulkanRenderer::CreateWindowFactory() { return NewWindowFactory(); }
// Vulkan has no input-layout objects: the layout is part of each pipeline.
GraphicsFactory* VulkanRenderer::CreateInputLayoutFactory() { return new InputLayoutFactory(); }
GraphicsFactory* VulkanRenderer::CreateProgramCompiler() { return MakeProgramCompiler(); }

GraphicsFactory* VulkanRenderer::CreateTextureFactory() { return new VulkanTextureFactory(); }

// --- Drawing ---------------------------------------------------------------------------------

VkShaderModule VulkanRenderer::CreateShaderModule(const uint32* code, size_t bytes)
{
    VkShaderModuleCreateInfo info = {VK_STRUCTURE_TYPE_SHADER_MODULE_CREATE_INFO};
    info.codeSize = bytes;
    info.pCode = code;
    VkShaderModule module = VK_NULL_HANDLE;
    VkResult result = m_device.IsOpen() && code && bytes && bytes % 4 == 0
                          ? vkCreateShaderModule(m_device.GetDevice(), &info, nullptr, &module)
                          : VK_ERROR_INITIALIZATION_FAILED;
    if (result != VK_SUCCESS)
    {
        Log::Format(LOG_WARNING, u"Vulkan: a shader module of %u bytes was refused (%d).\n", unsigned(bytes),
                    int(result));
        return VK_NULL_HANDLE;
    }
    return module;
}

void VulkanRenderer::DestroyShaderModule(VkShaderModule module)
{
    if (module && m_device.IsOpen())
        DeferDestroy([device = m_device.GetDevice(), module] { vkDestroyShaderModule(device, module, nullptr); });
}

bool VulkanRenderer::DrawVertices(VkShaderModule vertex, VkShaderModule pixel, VertexBuffer* buffer,
                                  uint32 vertexCount, GraphicsTopology topology, IndexBuffer* indices)
{
    auto* source = dynamic_cast<VulkanVertexBuffer*>(buffer);
    auto* indexSource = dynamic_cast<VulkanIndexBuffer*>(indices);
    std::lock_guard<std::recursive_mutex> lock(m_device.GetLock());
    if (!source || !source->GetDeviceMemory().GetBuffer() || !source->GetVertexStream())
    {
        Log::Print(LOG_WARNING, u"Vulkan: a draw without a Vulkan vertex buffer.\n");
        return false;
    }
    if (indices && (!indexSource || !indexSource->GetDeviceMemory().GetBuffer() || !indexSource->GetIndexStream()))
    {
        Log::Print(LOG_WARNING, u"Vulkan: a draw with an index buffer that has no Vulkan buffer.\n");
        return false;
    }
    const uint32 available = indexSource ? indexSource->GetIndexStream()->GetIndexCount()
                                         : source->GetVertexStream()->GetVertexCount();
    if (vertexCount > available)
    {
        Log::Format(LOG_WARNING, u"Vulkan: a draw of %u %s from a buffer of %u.\n", vertexCount,
                    indexSource ? u"indices" : u"vertices", available);
        return false;
    }
    if (!source->GetDeviceMemory().Refresh(*source) ||
        (indexSource && !indexSource->GetDeviceMemory().Refresh(*indexSource)))
        return false;
    Ptr<VertexDecl> layout = VertexDeclManager::Ins()->Create(source->GetVertexStream()->GetElements());
    VulkanPipelineKey key;
    key.Vertex = vertex;
    key.Pixel = pixel;
    key.Layout = layout.Get();
    key.Topology = topology;
    struct Recorder final : VulkanDrawRecorder
    {
        VulkanVertexBuffer* source;
        VulkanIndexBuffer* indexSource;
        uint32 count;
        bool Prepare(VkCommandBuffer) override { return true; }
        void Record(VkCommandBuffer cmd, VkPipeline pipeline) override
        {
            vkCmdBindPipeline(cmd, VK_PIPELINE_BIND_POINT_GRAPHICS, pipeline);
            VkBuffer vertexBuffer = source->GetDeviceMemory().GetBuffer();
            VkDeviceSize offset = source->GetDeviceMemory().GetOffset();
            vkCmdBindVertexBuffers(cmd, 0, 1, &vertexBuffer, &offset);
            if (indexSource)
            {
                VulkanBufferMemory& memory = indexSource->GetDeviceMemory();
                vkCmdBindIndexBuffer(cmd, memory.GetBuffer(), memory.GetOffset(),
                                     indexSource->GetIndexStream()->GetFormat() == IndexBuffer::Index32
                                         ? VK_INDEX_TYPE_UINT32
                                         : VK_INDEX_TYPE_UINT16);
                vkCmdDrawIndexed(cmd, count, 1, 0, 0, 0);
            }
            else
                vkCmdDraw(cmd, count, 1, 0, 0);
        }
    } recorder;
    recorder.source = source;
    recorder.indexSource = indexSource;
    recorder.count = vertexCount;
    return RecordDraw(key, recorder);
}

bool VulkanRenderer::RecordDraw(VulkanPipelineKey& key, VulkanDrawRecorder& recorder)
{
    std::lock_guard<std::recursive_mutex> lock(m_device.GetLock());
    if (!m_device.GetBeginRendering())
    {
        Log::Print(LOG_WARNING, u"Vulkan: drawing needs VK_KHR_dynamic_rendering, which this device lacks.\n");
        return false;
    }
    key.Blend = GetCurBlendState().Get();
    key.Rasterizer = GetCurRasterizerState().Get();
    key.DepthStencil = GetCurDepthStencilState().Get();
    key.ColorCount = 0;
    VulkanTexture* colors[RenderTargetGroup::kMaxTargets] = {};
    VkImageView views[RenderTargetGroup::kMaxTargets] = {};
    VkExtent2D extent = {~0u, ~0u};
    auto fit = [&extent](Texture* t) {
        extent.width = t->GetWidth() < extent.width ? t->GetWidth() : extent.width;
        extent.height = t->GetHeight() < extent.height ? t->GetHeight() : extent.height;
    };
    while (key.ColorCount < RenderTargetGroup::kMaxTargets)
    {
        VulkanTexture* target = AsVulkan(m_bound.RenderTargets[key.ColorCount].Get());
        if (!target)
            break;
        views[key.ColorCount] = target->GetTargetView(m_bound.ArrayIndices[key.ColorCount]);
        if (!views[key.ColorCount])
        {
            Log::Format(LOG_WARNING, u"Vulkan: render target %u has no view of slice %u to draw into.\n",
                        key.ColorCount, m_bound.ArrayIndices[key.ColorCount]);
            return false;
        }
        colors[key.ColorCount] = target;
        key.Colors[key.ColorCount++] = target->GetTargetFormat();
        fit(target);
    }
    VulkanTexture* depth = AsVulkan(m_bound.DepthBuffer.Get());
    VkImageView depthView = depth ? depth->GetTargetView(m_bound.DepthArrayIndex) : VK_NULL_HANDLE;
    if (depth && !depthView)
    {
        Log::Format(LOG_WARNING, u"Vulkan: the depth buffer has no view of slice %u to draw into.\n",
                    m_bound.DepthArrayIndex);
        return false;
    }
    if (depth)
    {
        key.Depth = depth->GetTargetFormat();
        fit(depth);
    }
    if (extent.width == ~0u)
    {
        Log::Print(LOG_WARNING, u"Vulkan: a draw with no target bound.\n");
        return false;
    }
    // Every attachment has the samples of the first; a multisampled colour
    // target draws into its twin.
    key.Samples = key.ColorCount ? colors[0]->GetSampleCount() : depth->GetSampleCount();
    for (uint32 i = 0; i <= key.ColorCount; ++i)
    {
        VulkanTexture* t = i < key.ColorCount ? colors[i] : depth;
        if (t && t->GetSampleCount() != key.Samples)
        {
            Log::Format(LOG_WARNING, u"Vulkan: a draw into targets of %u and %u samples.\n", key.Samples,
                        t->GetSampleCount());
            return false;
        }
    }
    VkPipeline pipeline = m_pipelines.Get(key);
    VkCommandBuffer cmd = pipeline ? GetFrameCommands() : VK_NULL_HANDLE;
    if (!cmd || !recorder.Prepare(cmd))
        return false;

    VkRenderingAttachmentInfoKHR attachments[RenderTargetGroup::kMaxTargets] = {};
    for (uint32 i = 0; i < key.ColorCount; ++i)
    {
        Transition(cmd, *colors[i], VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL);
        attachments[i].sType = VK_STRUCTURE_TYPE_RENDERING_ATTACHMENT_INFO_KHR;
        attachments[i].imageView = views[i];
        attachments[i].imageLayout = VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL;
        attachments[i].loadOp = VK_ATTACHMENT_LOAD_OP_LOAD;
        attachments[i].storeOp = VK_ATTACHMENT_STORE_OP_STORE;
        if (VkImage twin = colors[i]->GetMultisampleImage())
        {
            TransitionImage(cmd, twin, VK_IMAGE_ASPECT_COLOR_BIT, colors[i]->MultisampleLayout(),
                            VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL);
            attachments[i].imageView = colors[i]->GetMultisampleView();
            attachments[i].resolveMode = VK_RESOLVE_MODE_AVERAGE_BIT;
            attachments[i].resolveImageView = views[i];
            attachments[i].resolveImageLayout = VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL;
        }
    }
    VkRenderingAttachmentInfoKHR depthAttachment = {VK_STRUCTURE_TYPE_RENDERING_ATTACHMENT_INFO_KHR};
    if (depth)
    {
        Transition(cmd, *depth, VK_IMAGE_LAYOUT_DEPTH_STENCIL_ATTACHMENT_OPTIMAL);
        depthAttachment.imageView = depthView;
        depthAttachment.imageLayout = VK_IMAGE_LAYOUT_DEPTH_STENCIL_ATTACHMENT_OPTIMAL;
        depthAttachment.loadOp = VK_ATTACHMENT_LOAD_OP_LOAD;
        depthAttachment.storeOp = VK_ATTACHMENT_STORE_OP_STORE;
    }
    VkRenderingInfoKHR rendering = {VK_STRUCTURE_TYPE_RENDERING_INFO_KHR};
    rendering.renderArea.extent = extent;
    rendering.layerCount = 1;
    rendering.colorAttachmentCount = key.ColorCount;
    rendering.pColorAttachments = attachments;
    rendering.pDepthAttachment = depth ? &depthAttachment : nullptr;
    rendering.pStencilAttachment = depth && VulkanFormats::HasStencil(key.Depth) ? &depthAttachment : nullptr;
    m_device.GetBeginRendering()(cmd, &rendering);

    // y up: the viewport starts at its bottom edge with a negative height.
    const uint32 width = m_viewport.Width ? m_viewport.Width : extent.width;
    const uint32 height = m_viewport.Height ? m_viewport.Height : extent.height;
    VkViewport viewport = {float(m_viewport.TopLeftX), float(m_viewport.TopLeftY + height), float(width),
                           -float(height), m_viewport.MinDepth, m_viewport.MaxDepth};
    vkCmdSetViewport(cmd, 0, 1, &viewport);
    VkRect2D scissor = {{0, 0}, extent};
    if (!FillScissor(scissor, extent))
    {
        // Cut to nothing: the pass still ran its layout changes; nothing is drawn.
        m_device.GetEndRendering()(cmd);
        return true;
    }
    vkCmdSetScissor(cmd, 0, 1, &scissor);
    vkCmdSetStencilReference(cmd, VK_STENCIL_FACE_FRONT_AND_BACK, GetCurStencilRef());
    const Vector4& factor = GetCurBlendState()->Factor;
    const float constants[4] = {factor.x, factor.y, factor.z, factor.w};
    vkCmdSetBlendConstants(cmd, constants);
    recorder.Record(cmd, pipeline);
    m_device.GetEndRendering()(cmd);
    return true;
}

// --- Read-back -----------------------------------------------------------------------------------

bool VulkanRenderer::ReadTexture(Texture* texture, uint32 arrayIndex, uint32 mip, std::vector<uint8>& out)
{
    out.clear();
    VulkanTexture* source = AsVulkan(texture);
    if (!source || !source->GetImage() || !source->IsCreated())
    {
        Log::Print(LOG_WARNING, u"Vulkan: read-back of a texture that has no Vulkan image.\n");
        return false;
    }
    if (source->GetSampleCount() > 1 && !source->GetMultisampleImage())
    {
        Log::Print(LOG_WARNING, u"Vulkan: a multisampled depth buffer cannot be read back.\n");
        return false;
    }
    const TextureDesc& desc = source->GetDesc();
    if (arrayIndex >= desc.ArraySize ||
        mip >= (desc.MipLevels ? desc.MipLevels : 1))
    {
        Log::Format(LOG_WARNING, u"Vulkan: read-back of slice %u, mip %u is outside the texture.\n", arrayIndex, mip);
        return false;
    }
    uint32 rowBytes = 0, rows = 0;
    desc.GetRowPitch(rowBytes, rows, mip, desc.Format);
    const uint32 depth = desc.GetMipDepth(mip);
    const uint64 size = uint64(rowBytes) * rows * depth;
    std::lock_guard<std::recursive_mutex> lock(m_device.GetLock());
    VkBuffer buffer = VK_NULL_HANDLE;
    VulkanAllocation memory;
    if (!CreateTransferBuffer(size, buffer, memory))
        return false;
    const VkImageAspectFlags aspects = VulkanFormats::AspectOf(source->GetVkFormat());
    bool ok = RunNow([&](VkCommandBuffer cmd) {
        Transition(cmd, *source, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL);
        VkBufferImageCopy region = {};
        // Depth with stencil reads back its depth only: one aspect per copy.
        region.imageSubresource.aspectMask =
            aspects & VK_IMAGE_ASPECT_DEPTH_BIT ? VK_IMAGE_ASPECT_DEPTH_BIT : VK_IMAGE_ASPECT_COLOR_BIT;
        region.imageSubresource.mipLevel = mip;
        region.imageSubresource.baseArrayLayer = desc.Dimension == TextureDimension::_3D ? 0 : arrayIndex;
        region.imageSubresource.layerCount = 1;
        region.imageExtent = {desc.GetMipWidth(mip), desc.GetMipHeight(mip), depth};
        vkCmdCopyImageToBuffer(cmd, source->GetImage(), VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL, buffer, 1, &region);
        VkMemoryBarrier toHost = {VK_STRUCTURE_TYPE_MEMORY_BARRIER};
        toHost.srcAccessMask = VK_ACCESS_TRANSFER_WRITE_BIT;
        toHost.dstAccessMask = VK_ACCESS_HOST_READ_BIT;
        vkCmdPipelineBarrier(cmd, VK_PIPELINE_STAGE_TRANSFER_BIT, VK_PIPELINE_STAGE_HOST_BIT, 0, 1, &toHost, 0,
                             nullptr, 0, nullptr);
    });
    if (ok)
        out.assign(memory.Mapped, memory.Mapped + size);
    DestroyTransferBuffer(buffer, memory);
    return ok;
}

bool VulkanRenderer::ReadBuffer(GraphicsBuffer* buffer, std::vector<uint8>& out)
{
    out.clear();
    VulkanBufferMemory* device = nullptr;
    if (auto* vb = dynamic_cast<VulkanVertexBuffer*>(buffer))
        device = &vb->GetDeviceMemory();
    else if (auto* ib = dynamic_cast<VulkanIndexBuffer*>(buffer))
        device = &ib->GetDeviceMemory();
    else if (auto* cb = dynamic_cast<VulkanConstantBuffer*>(buffer))
        device = &cb->GetDeviceMemory();
    else if (auto* rw = dynamic_cast<VulkanRWBuffer*>(buffer))
        device = &rw->GetDeviceMemory();
    if (!device || !device->GetBuffer())
    {
        Log::Print(LOG_WARNING, u"Vulkan: read-back of a buffer that has no Vulkan buffer.\n");
        return false;
    }
    std::lock_guard<std::recursive_mutex> lock(m_device.GetLock());
    VkBuffer transfer = VK_NULL_HANDLE;
    VulkanAllocation memory;
    if (!CreateTransferBuffer(device->GetSize(), transfer, memory))
        return false;
    bool ok = RunNow([&](VkCommandBuffer cmd) {
        VkMemoryBarrier before = {VK_STRUCTURE_TYPE_MEMORY_BARRIER};
        before.srcAccessMask = VK_ACCESS_MEMORY_WRITE_BIT | VK_ACCESS_HOST_WRITE_BIT;
        before.dstAccessMask = VK_ACCESS_TRANSFER_READ_BIT;
        vkCmdPipelineBarrier(cmd, VK_PIPELINE_STAGE_ALL_COMMANDS_BIT | VK_PIPELINE_STAGE_HOST_BIT,
                             VK_PIPELINE_STAGE_TRANSFER_BIT, 0, 1, &before, 0, nullptr, 0, nullptr);
        VkBufferCopy region = {device->GetOffset(), 0, device->GetSize()};
        vkCmdCopyBuffer(cmd, device->GetBuffer(), transfer, 1, &region);
        VkMemoryBarrier toHost = {VK_STRUCTURE_TYPE_MEMORY_BARRIER};
        toHost.srcAccessMask = VK_ACCESS_TRANSFER_WRITE_BIT;
        toHost.dstAccessMask = VK_ACCESS_HOST_READ_BIT;
        vkCmdPipelineBarrier(cmd, VK_PIPELINE_STAGE_TRANSFER_BIT, VK_PIPELINE_STAGE_HOST_BIT, 0, 1, &toHost, 0,
                             nullptr, 0, nullptr);
    });
    if (ok)
        out.assign(memory.Mapped, memory.Mapped + device->GetSize());
    DestroyTransferBuffer(transfer, memory);
    return ok;
}

} // namespace KovexEngine
