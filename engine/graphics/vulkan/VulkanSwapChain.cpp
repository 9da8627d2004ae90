#include "graphics/vulkan/VulkanSwapChain.h"

#include <stdlib.h>

#include "graphics/vulkan/VulkanRenderer.h"
#include "graphics/vulkan/VulkanResources.h"
#include "kernel/Log.h"

#ifdef KOVEX_HAVE_XCB
#include <xcb/xcb.h>
#include <vulkan/vulkan_xcb.h>
#endif

namespace KovexEngine {

#ifdef KOVEX_HAVE_XCB

namespace {
xcb_connection_t* Connection(void* connection) { return static_cast<xcb_connection_t*>(connection); }
} // namespace

bool VulkanSwapChain::IsSupported() { return true; }

bool VulkanSwapChain::Open(VulkanRenderer& renderer, uint64 window, bool vsync)
{
    Close();
    m_renderer = &renderer;
    m_vsync = vsync;
    m_window = uint32(window);
    if (window > 0xffffffffu)
    {
        Log::Format(LOG_WARNING, u"Vulkan: the window handle %llu is no X11 window id.\n", (unsigned long long)window);
        return false;
    }
    xcb_connection_t* connection = xcb_connect(nullptr, nullptr);
    if (xcb_connection_has_error(connection))
    {
        xcb_disconnect(connection);
        const char* display = getenv("DISPLAY");
        Log::Format(LOG_WARNING, u"Vulkan: no X11 display '%S' for the window.\n", display ? display : "");
        return false;
    }
    m_connection = connection;
    uint32 width = 0, height = 0;
    if (!QueryWindowSize(width, height))
    {
        Log::Format(LOG_WARNING, u"Vulkan: the X11 window %u does not exist.\n", m_window);
        Close();
        return false;
    }
    VulkanDevice& device = renderer.GetDevice();
    VkXcbSurfaceCreateInfoKHR info = {VK_STRUCTURE_TYPE_XCB_SURFACE_CREATE_INFO_KHR};
    info.connection = connection;
    info.window = m_window;
    VkResult result = vkCreateXcbSurfaceKHR(device.GetInstance(), &info, nullptr, &m_surface);
    VkBool32 presentable = VK_FALSE;
    if (result == VK_SUCCESS)
        result = vkGetPhysicalDeviceSurfaceSupportKHR(device.GetPhysicalDevice(), device.GetQueueFamily(), m_surface,
                                                      &presentable);
    if (result != VK_SUCCESS || !presentable)
    {
        Log::Format(LOG_WARNING, u"Vulkan: no surface on the X11 window %u (%d).\n", m_window, int(result));
        Close();
        return false;
    }
    VkSemaphoreCreateInfo semaphore = {VK_STRUCTURE_TYPE_SEMAPHORE_CREATE_INFO};
    for (VkSemaphore& s : m_acquired)
        if (vkCreateSemaphore(device.GetDevice(), &semaphore, nullptr, &s) != VK_SUCCESS)
        {
            Close();
            return false;
        }
    if (!CreateSwapChain())
    {
        Close();
        return false;
    }
    return true;
}

bool VulkanSwapChain::QueryWindowSize(uint32& width, uint32& height)
{
    xcb_connection_t* connection = Connection(m_connection);
    if (!connection)
        return false;
    xcb_get_geometry_reply_t* reply = xcb_get_geometry_reply(connection, xcb_get_geometry(connection, m_window), nullptr);
    if (!reply)
        return false;
    width = reply->width;
    height = reply->height;
    free(reply);
    return true;
}

bool VulkanSwapChain::IsViewable()
{
    xcb_connection_t* connection = Connection(m_connection);
    xcb_get_window_attributes_reply_t* reply =
        xcb_get_window_attributes_reply(connection, xcb_get_window_attributes(connection, m_window), nullptr);
    if (!reply)
        return false;
    const bool viewable = reply->map_state == XCB_MAP_STATE_VIEWABLE;
    free(reply);
    return viewable;
}

bool VulkanSwapChain::CreateSwapChain()
{
    VulkanDevice& device = m_renderer->GetDevice();
    VkPhysicalDevice physical = device.GetPhysicalDevice();
    VkSurfaceCapabilitiesKHR caps;
    if (vkGetPhysicalDeviceSurfaceCapabilitiesKHR(physical, m_surface, &caps) != VK_SUCCESS)
        return false;
    uint32 count = 0;
    vkGetPhysicalDeviceSurfaceFormatsKHR(physical, m_surface, &count, nullptr);
    std::vector<VkSurfaceFormatKHR> formats(count);
    vkGetPhysicalDeviceSurfaceFormatsKHR(physical, m_surface, &count, formats.data());
    if (formats.empty())
        return false;
    // UNORM, so that the window holds the back buffer's bytes (the engine
    // has no sRGB formats; an sRGB surface would encode them a second time).
    VkSurfaceFormatKHR format = formats[0];
    bool unorm = false;
    for (const VkSurfaceFormatKHR& f : formats)
        if (!unorm && (f.format == VK_FORMAT_B8G8R8A8_UNORM || f.format == VK_FORMAT_R8G8B8A8_UNORM))
        {
            format = f;
            unorm = true;
        }
    if (!unorm)
        Log::Format(LOG_WARNING, u"Vulkan: the window offers no UNORM format; its colours are encoded (format %d).\n",
                    int(format.format));
    vkGetPhysicalDeviceSurfacePresentModesKHR(physical, m_surface, &count, nullptr);
    std::vector<VkPresentModeKHR> modes(count);
    vkGetPhysicalDeviceSurfacePresentModesKHR(physical, m_surface, &count, modes.data());
    auto has = [&](VkPresentModeKHR mode) {
        for (VkPresentModeKHR m : modes)
            if (m == mode)
                return true;
        return false;
    };
    // FIFO is always there; without vsync the lowest latency that does not tear, else the one that may.
    m_mode = VK_PRESENT_MODE_FIFO_KHR;
    if (!m_vsync && has(VK_PRESENT_MODE_MAILBOX_KHR))
        m_mode = VK_PRESENT_MODE_MAILBOX_KHR;
    else if (!m_vsync && has(VK_PRESENT_MODE_IMMEDIATE_KHR))
        m_mode = VK_PRESENT_MODE_IMMEDIATE_KHR;

    VkExtent2D extent = caps.currentExtent;
    if (extent.width == 0xffffffffu)
    {
        uint32 width = 0, height = 0;
        QueryWindowSize(width, height);
        extent = {width, height};
    }
    // A minimised (zero-size) window has no swap chain until it has a size.
    if (extent.width == 0 || extent.height == 0)
        return false;
    uint32 images = caps.minImageCount + 1;
    if (caps.maxImageCount && images > caps.maxImageCount)
        images = caps.maxImageCount;
    if (images > 8)
        images = 8;
    VkSwapchainCreateInfoKHR info = {VK_STRUCTURE_TYPE_SWAPCHAIN_CREATE_INFO_KHR};
    info.surface = m_surface;
    info.minImageCount = images;
    info.imageFormat = format.format;
    info.imageColorSpace = format.colorSpace;
    info.imageExtent = extent;
    info.imageArrayLayers = 1;
    info.imageUsage = VK_IMAGE_USAGE_TRANSFER_DST_BIT | VK_IMAGE_USAGE_COLOR_ATTACHMENT_BIT;
    info.imageSharingMode = VK_SHARING_MODE_EXCLUSIVE;
    info.preTransform = caps.currentTransform;
    info.compositeAlpha = (caps.supportedCompositeAlpha & VK_COMPOSITE_ALPHA_OPAQUE_BIT_KHR)
                              ? VK_COMPOSITE_ALPHA_OPAQUE_BIT_KHR
                              : VkCompositeAlphaFlagBitsKHR(caps.supportedCompositeAlpha & -caps.supportedCompositeAlpha);
    info.presentMode = m_mode;
    info.clipped = VK_TRUE;
    info.oldSwapchain = m_swapChain;
    VkSwapchainKHR swapChain = VK_NULL_HANDLE;
    VkResult result = vkCreateSwapchainKHR(device.GetDevice(), &info, nullptr, &swapChain);
    DestroySwapChain();
    if (result != VK_SUCCESS)
    {
        Log::Format(LOG_WARNING, u"Vulkan: the swap chain could not be made (%d).\n", int(result));
        return false;
    }
    m_swapChain = swapChain;
    m_format = format.format;
    m_width = extent.width;
    m_height = extent.height;
    m_imageCount = 8;
    vkGetSwapchainImagesKHR(device.GetDevice(), m_swapChain, &m_imageCount, m_images);
    VkSemaphoreCreateInfo semaphore = {VK_STRUCTURE_TYPE_SEMAPHORE_CREATE_INFO};
    for (uint32 i = 0; i < m_imageCount; ++i)
        if (vkCreateSemaphore(device.GetDevice(), &semaphore, nullptr, &m_rendered[i]) != VK_SUCCESS)
            return false;
    return true;
}

bool VulkanSwapChain::Recreate()
{
    if (!m_surface)
        return false;
    // Images still being presented belong to the old chain until the device is idle.
    vkDeviceWaitIdle(m_renderer->GetDevice().GetDevice());
    return CreateSwapChain();
}

void VulkanSwapChain::DestroySwapChain()
{
    if (!m_renderer)
        return;
    VkDevice device = m_renderer->GetDevice().GetDevice();
    if (!device)
        return;
    if (m_swapChain)
        vkDeviceWaitIdle(device);
    for (VkSemaphore& s : m_rendered)
    {
        if (s)
            vkDestroySemaphore(device, s, nullptr);
        s = VK_NULL_HANDLE;
    }
    if (m_swapChain)
        vkDestroySwapchainKHR(device, m_swapChain, nullptr);
    m_swapChain = VK_NULL_HANDLE;
    m_imageCount = 0;
}

void VulkanSwapChain::Close()
{
    DestroySwapChain();
    if (m_renderer && m_renderer->GetDevice().GetDevice())
    {
        for (VkSemaphore& s : m_acquired)
        {
            if (s)
                vkDestroySemaphore(m_renderer->GetDevice().GetDevice(), s, nullptr);
            s = VK_NULL_HANDLE;
        }
        if (m_surface)
            vkDestroySurfaceKHR(m_renderer->GetDevice().GetInstance(), m_surface, nullptr);
    }
    m_surface = VK_NULL_HANDLE;
    if (m_connection)
        xcb_disconnect(Connection(m_connection));
    m_connection = nullptr;
}

VulkanSwapChain::Result VulkanSwapChain::Present(VulkanTexture& backBuffer)
{
    VulkanRenderer& renderer = *m_renderer;
    uint32 width = 0, height = 0;
    if (!QueryWindowSize(width, height))
    {
        Log::Format(LOG_WARNING, u"Vulkan: the X11 window %u is gone; frames are no longer shown.\n", m_window);
        renderer.SubmitFrame(true);
        Close();
        return Result::Gone;
    }
    if (width == 0 || height == 0 || !IsViewable())
    {
        renderer.SubmitFrame(false);
        return Result::Skipped;
    }
    if (m_checkSize && (width != m_width || height != m_height))
    {
        renderer.SubmitFrame(false);
        return Result::OutOfDate;
    }
    VkCommandBuffer cmd = renderer.GetFrameCommands();
    if (!cmd)
        return Result::Failed;
    VkSemaphore acquired = m_acquired[renderer.GetFrameSlot()];
    uint32 index = 0;
    VkResult result = VK_ERROR_OUT_OF_DATE_KHR;
    if (!m_forceOutOfDate)
    {
        result = vkAcquireNextImageKHR(renderer.GetDevice().GetDevice(), m_swapChain, UINT64_MAX, acquired,
                                       VK_NULL_HANDLE, &index);
        m_driverReports += result == VK_ERROR_OUT_OF_DATE_KHR || result == VK_SUBOPTIMAL_KHR;
    }
    m_forceOutOfDate = false;
    if (result == VK_ERROR_OUT_OF_DATE_KHR)
    {
        renderer.SubmitFrame(false);
        return Result::OutOfDate;
    }
    // Suboptimal (what a resized window gives here) still presents this
    // frame; the chain is remade after it.
    const bool suboptimal = result == VK_SUBOPTIMAL_KHR;
    if (result != VK_SUCCESS && !suboptimal)
    {
        Log::Format(LOG_WARNING, u"Vulkan: acquiring a window image failed (%d).\n", int(result));
        renderer.SubmitFrame(false);
        return Result::Failed;
    }
    renderer.Transition(cmd, backBuffer, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL);
    VkImageMemoryBarrier barrier = {VK_STRUCTURE_TYPE_IMAGE_MEMORY_BARRIER};
    barrier.srcAccessMask = 0;
    barrier.dstAccessMask = VK_ACCESS_TRANSFER_WRITE_BIT;
    barrier.oldLayout = VK_IMAGE_LAYOUT_UNDEFINED;
    barrier.newLayout = VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL;
    barrier.srcQueueFamilyIndex = VK_QUEUE_FAMILY_IGNORED;
    barrier.dstQueueFamilyIndex = VK_QUEUE_FAMILY_IGNORED;
    barrier.image = m_images[index];
    barrier.subresourceRange = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 1, 0, 1};
    vkCmdPipelineBarrier(cmd, VK_PIPELINE_STAGE_TRANSFER_BIT, VK_PIPELINE_STAGE_TRANSFER_BIT, 0, 0, nullptr, 0,
                         nullptr, 1, &barrier);
    // A blit converts the back buffer's channel order to the window's and
    // scales when the two sizes differ for one frame.
    VkImageBlit blit = {};
    blit.srcSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 0, 1};
    blit.srcOffsets[1] = {int32(backBuffer.GetDesc().Width), int32(backBuffer.GetDesc().Height), 1};
    blit.dstSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 0, 1};
    blit.dstOffsets[1] = {int32(m_width), int32(m_height), 1};
    vkCmdBlitImage(cmd, backBuffer.GetImage(), VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL, m_images[index],
                   VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, 1, &blit, VK_FILTER_NEAREST);
    barrier.srcAccessMask = VK_ACCESS_TRANSFER_WRITE_BIT;
    barrier.dstAccessMask = 0;
    barrier.oldLayout = VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL;
    barrier.newLayout = VK_IMAGE_LAYOUT_PRESENT_SRC_KHR;
    vkCmdPipelineBarrier(cmd, VK_PIPELINE_STAGE_TRANSFER_BIT, VK_PIPELINE_STAGE_BOTTOM_OF_PIPE_BIT, 0, 0, nullptr, 0,
                         nullptr, 1, &barrier);
    if (!renderer.SubmitFrame(false, acquired, m_rendered[index]))
        return Result::Failed;
    VkPresentInfoKHR present = {VK_STRUCTURE_TYPE_PRESENT_INFO_KHR};
    present.waitSemaphoreCount = 1;
    present.pWaitSemaphores = &m_rendered[index];
    present.swapchainCount = 1;
    present.pSwapchains = &m_swapChain;
    present.pImageIndices = &index;
    result = vkQueuePresentKHR(renderer.GetDevice().GetQueue(), &present);
    if (result == VK_SUBOPTIMAL_KHR)
        ++m_presented;
    m_driverReports += result == VK_ERROR_OUT_OF_DATE_KHR || result == VK_SUBOPTIMAL_KHR;
    if (result == VK_ERROR_OUT_OF_DATE_KHR || result == VK_SUBOPTIMAL_KHR)
        return Result::OutOfDate;
    if (result != VK_SUCCESS)
    {
        Log::Format(LOG_WARNING, u"Vulkan: presenting failed (%d).\n", int(result));
        return Result::Failed;
    }
    ++m_presented;
    return suboptimal ? Result::OutOfDate : Result::Presented;
}

#else // no xcb: offscreen only

bool VulkanSwapChain::IsSupported() { return false; }
bool VulkanSwapChain::Open(VulkanRenderer&, uint64, bool)
{
    Log::Print(LOG_WARNING, u"Vulkan: this build has no X11 windows; render offscreen.\n");
    return false;
}
bool VulkanSwapChain::Recreate() { return false; }
void VulkanSwapChain::Close() {}
bool VulkanSwapChain::QueryWindowSize(uint32&, uint32&) { return false; }
VulkanSwapChain::Result VulkanSwapChain::Present(VulkanTexture&) { return Result::Failed; }
bool VulkanSwapChain::CreateSwapChain() { return false; }
bool VulkanSwapChain::IsViewable() { return false; }
void VulkanSwapChain::DestroySwapChain() {}

#endif

bool VulkanSwapChain::PresentFrame(VulkanRenderer& renderer, VulkanSwapChain* chain, VulkanTexture* backBuffer,
                                   uint32& width, uint32& height)
{
    if (!chain || !chain->IsOpen() || !backBuffer)
    {
        renderer.SubmitFrame(false);
        return false;
    }
    if (chain->Present(*backBuffer) != Result::OutOfDate)
        return false;
    return chain->QueryWindowSize(width, height) && width != 0 && height != 0;
}

} // namespace KovexEngine
