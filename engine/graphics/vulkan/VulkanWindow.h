#pragma once

// A second window of the Vulkan renderer (GraphicsWindow): its own surface
// and swap chain on the X11 window of its parameters' WindowHandle, its own
// back buffer (the window's size where the parameters give none) and depth
// buffer, which BeginWindow binds. EndWindow presents the back buffer into
// the window with VulkanSwapChain's rules: VSync picks FIFO; a window that
// is minimised, unmapped or of no size is skipped without a line; a resized
// one (or an out-of-date swap chain) resets the window at its new size; a
// destroyed one logs once and its frames go on offscreen. Its buffers have
// one sample whatever the parameters' Extra0 asks.
//
// Threads: as GraphicsWindow: created through its factory (any thread; the
// device side on the graphics side), BeginWindow/EndWindow on the thread
// that draws. Every device call holds the device lock.

#include <memory>

#include "graphics/Renderer.h"

namespace KovexEngine {

class VulkanSwapChain;

class KOVEX_API VulkanGraphicsWindow : public GraphicsWindow
{
    KOVEX_CLASS(VulkanGraphicsWindow)

public:
    VulkanGraphicsWindow();
    ~VulkanGraphicsWindow() override;
    void ReleaseDeviceHandle() override;
    void EndWindow() override;
    // Null before the device handle is made, and once the window is gone.
    VulkanSwapChain* GetSwapChain() const { return m_swapChain.get(); }

protected:
    bool OnCreateSwapChain() override;
    bool OnResetSwapChain() override;
    Ptr<Texture> OnCreateBackBuffer() override;
    Ptr<Texture> OnCreateDepthBuffer() override;

private:
    Ptr<Texture> NewBuffer(GraphicsFormat format, uint32 viewFlags);
    std::unique_ptr<VulkanSwapChain> m_swapChain;
    Ptr<Texture> m_back;
};

class KOVEX_API VulkanGraphicsWindowFactory : public GraphicsWindowFactory
{
protected:
    GraphicsWindow* NewWindow() override;
};

} // namespace KovexEngine
