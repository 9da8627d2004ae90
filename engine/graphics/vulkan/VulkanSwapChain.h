#pragma once

// A swap chain on an X11 window, reached through xcb.
//
// Window handles: GraphicsParameters::WindowHandle carries the X11 window id
// (an xcb_window_t). The swap chain opens its own xcb connection to $DISPLAY,
// so the application's connection and event loop stay its own; the window
// must exist on that display when the renderer opens.
//
// Colour: the surface format is B8G8R8A8_UNORM where offered, so the bytes in
// the window are the back buffer's bytes (no sRGB encoding on the way).
//
// Presenting copies the back buffer (an ordinary texture the renderer draws
// into) into the acquired image within the frame's commands; the submit waits
// for the acquire and signals the image's semaphore that the present waits
// for. A window that changed size, or a surface that reports out of date or
// suboptimal (at acquire, after presenting that frame; or at present),
// answers OutOfDate: the owner recreates the swap chain at the
// window's size. A window destroyed under it answers Gone and the swap chain
// closes; later presents only submit.
//
// Threads: the renderer calls it from Present, on the thread that draws,
// holding the device lock, so objects created on other threads meanwhile are
// safe.

#include "graphics/vulkan/VulkanDevice.h"

namespace KovexEngine {

class VulkanRenderer;
class VulkanTexture;

class VulkanSwapChain
{
public:
    enum class Result
    {
        Presented,
        Skipped,
        OutOfDate,
        Gone,
        Failed
    };

    VulkanSwapChain() = default;
    ~VulkanSwapChain() { Close(); }
    VulkanSwapChain(const VulkanSwapChain&) = delete;
    VulkanSwapChain& operator=(const VulkanSwapChain&) = delete;

    // The instance and device extensions a window needs; false when this
    // build or the loader cannot make xcb surfaces.
    static bool IsSupported();

    // Opens on the X11 window `window` of $DISPLAY. False, with a log line,
    // when the display, the window or the surface cannot be had.
    bool Open(VulkanRenderer& renderer, uint64 window, bool vsync);
    // A new swap chain at the window's current size.
    bool Recreate();
    void Close();
    bool IsOpen() const { return m_swapChain != VK_NULL_HANDLE; }

    // The window's current size; false when the window is gone.
    bool QueryWindowSize(uint32& width, uint32& height);
    uint32 GetWidth() const { return m_width; }
    uint32 GetHeight() const { return m_height; }
    VkPresentModeKHR GetPresentMode() const { return m_mode; }
    VkFormat GetFormat() const { return m_format; }
    // Images presented since it opened.
    uint32 GetPresentedCount() const { return m_presented; }
    // Suboptimal or out-of-date answers the driver gave (forced ones aside).
    uint32 GetDriverReports() const { return m_driverReports; }

    // Copies `backBuffer` into the next image, submits the frame and presents.
    Result Present(VulkanTexture& backBuffer);
    // An owner's present: the frame is submitted whatever happens (only
    // submitted without an open `chain`); true, with the window's size, when
    // the owner must reset at that size. A window of no size keeps the old
    // chain until it has one.
    static bool PresentFrame(VulkanRenderer& renderer, VulkanSwapChain* chain, VulkanTexture* backBuffer,
                             uint32& width, uint32& height);

    // For tests: the next acquire reports out of date.
    void ForceOutOfDate() { m_forceOutOfDate = true; }
    // For tests: without the window-size check before acquiring, only the
    // driver's own reports (suboptimal, out of date) find a resize.
    void SetWindowSizeCheck(bool check) { m_checkSize = check; }

private:
    bool CreateSwapChain();
    void DestroySwapChain();
    bool IsViewable();

    VulkanRenderer* m_renderer = nullptr;
    void* m_connection = nullptr; // xcb_connection_t
    uint32 m_window = 0;
    bool m_vsync = false;
    VkSurfaceKHR m_surface = VK_NULL_HANDLE;
    VkSwapchainKHR m_swapChain = VK_NULL_HANDLE;
    VkPresentModeKHR m_mode = VK_PRESENT_MODE_FIFO_KHR;
    VkFormat m_format = VK_FORMAT_UNDEFINED;
    uint32 m_width = 0, m_height = 0;
    uint32 m_imageCount = 0;
    VkImage m_images[8] = {};
    VkSemaphore m_rendered[8] = {};
    VkSemaphore m_acquired[4] = {};
    bool m_forceOutOfDate = false;
    uint32 m_presented = 0;
    uint32 m_driverReports = 0;
    bool m_checkSize = true;
};

} // namespace KovexEngine
