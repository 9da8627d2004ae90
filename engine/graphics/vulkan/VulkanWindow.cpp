#include "graphics/vulkan/VulkanWindow.h"

#include "graphics/TextureFactory.h"
#include "graphics/vulkan/VulkanRenderer.h"
#include "graphics/vulkan/VulkanResources.h"
#include "graphics/vulkan/VulkanSwapChain.h"
#include "kernel/Log.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(VulkanGraphicsWindow, u"Engine", GraphicsWindow)

VulkanGraphicsWindow::VulkanGraphicsWindow() = default;

VulkanGraphicsWindow::~VulkanGraphicsWindow() { VulkanGraphicsWindow::ReleaseDeviceHandle(); }

GraphicsWindow* VulkanGraphicsWindowFactory::NewWindow() { return new VulkanGraphicsWindow(); }

GraphicsFactory* VulkanRenderer::NewWindowFactory() { return new VulkanGraphicsWindowFactory(); }

bool VulkanGraphicsWindow::OnCreateSwapChain()
{
    VulkanRenderer* renderer = VulkanRenderer::Get();
    const GraphicsParameters& parameters = GetParameters();
    if (!renderer || !renderer->GetDevice().IsOpen())
    {
        Log::Print(LOG_WARNING, u"Vulkan: no open device to make a window's swap chain on.\n");
        return false;
    }
    if (!parameters.WindowHandle)
    {
        Log::Print(LOG_WARNING, u"Vulkan: a window without a window handle.\n");
        return false;
    }
    std::lock_guard<std::recursive_mutex> lock(renderer->GetDevice().GetLock());
    m_swapChain = std::make_unique<VulkanSwapChain>();
    if (!m_swapChain->Open(*renderer, parameters.WindowHandle, parameters.VSync))
    {
        m_swapChain.reset();
        return false;
    }
    // Buffers of the window's size unless the parameters ask for another.
    GraphicsParameters sized = parameters;
    if (!sized.Width || !sized.Height)
    {
        sized.Width = m_swapChain->GetWidth();
        sized.Height = m_swapChain->GetHeight();
    }
    if (sized.BackBufferFormat == GraphicsFormat::UNKNOWN)
        sized.BackBufferFormat = renderer->GetDefaultBackBufferFormat();
    SetParameters(sized);
    return true;
}

bool VulkanGraphicsWindow::OnResetSwapChain()
{
    VulkanRenderer* renderer = VulkanRenderer::Get();
    if (!renderer || !m_swapChain || !m_swapChain->IsOpen())
        return true; // buffers only: the window is gone or was never shown
    std::lock_guard<std::recursive_mutex> lock(renderer->GetDevice().GetLock());
    if (!m_swapChain->Recreate())
        Log::Print(LOG_WARNING, u"Vulkan: a window's swap chain could not be remade; its frames are not shown.\n");
    return true;
}

Ptr<Texture> VulkanGraphicsWindow::NewBuffer(GraphicsFormat format, uint32 viewFlags)
{
    VulkanRenderer* renderer = VulkanRenderer::Get();
    if (!renderer)
        return Ptr<Texture>();
    const GraphicsParameters& parameters = GetParameters();
    Ptr<VulkanTexture> texture(new VulkanTexture());
    texture->SetDesc(TextureFactory::Make2DDesc(parameters.Width ? parameters.Width : 1,
                                                parameters.Height ? parameters.Height : 1, format, viewFlags));
    return renderer->InitializeATexture(texture.Get());
}

Ptr<Texture> VulkanGraphicsWindow::OnCreateBackBuffer()
{
    GraphicsFormat format = GetParameters().BackBufferFormat;
    if (format == GraphicsFormat::UNKNOWN && VulkanRenderer::Get())
        format = VulkanRenderer::Get()->GetDefaultBackBufferFormat();
    m_back = NewBuffer(format, TextureViewFlags::SHADER_RESOURCE | TextureViewFlags::RENDER_TARGET);
    return m_back;
}

Ptr<Texture> VulkanGraphicsWindow::OnCreateDepthBuffer()
{
    return NewBuffer(GetParameters().DepthStencilFormat, TextureViewFlags::DEPTH_STENCIL);
}

void VulkanGraphicsWindow::ReleaseDeviceHandle()
{
    GraphicsWindow::ReleaseDeviceHandle();
    m_back = Ptr<Texture>();
    VulkanRenderer* renderer = VulkanRenderer::Get();
    if (renderer && m_swapChain)
    {
        std::lock_guard<std::recursive_mutex> lock(renderer->GetDevice().GetLock());
        m_swapChain.reset();
    }
    else
        m_swapChain.release(); // the device, and what it made, went first
}

void VulkanGraphicsWindow::EndWindow()
{
    GraphicsWindow::EndWindow();
    VulkanRenderer* renderer = VulkanRenderer::Get();
    auto* back = dynamic_cast<VulkanTexture*>(m_back.Get());
    if (!renderer)
        return;
    std::lock_guard<std::recursive_mutex> lock(renderer->GetDevice().GetLock());
    uint32 width = 0, height = 0;
    if (!VulkanSwapChain::PresentFrame(*renderer, m_swapChain.get(), back, width, height))
        return;
    GraphicsParameters parameters = GetParameters();
    parameters.Width = width;
    parameters.Height = height;
    Reset(parameters);
}

} // namespace KovexEngine
