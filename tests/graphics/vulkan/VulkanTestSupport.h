#pragma once

// The engine on the Vulkan renderer for one test, with the Khronos
// validation layer on: a test fails when the layer reported an error or a
// warning while it ran. Without a Vulkan device the test is skipped.

#include <gtest/gtest.h>

#include <stdlib.h>

#include <functional>
#include <string>
#include <vector>

#include "graphics/GraphicsThread.h"
#include "graphics/Renderer.h"
#include "graphics/TextureFactory.h"
#include "graphics/vulkan/VulkanRenderer.h"
#include "images/Image.h"
#include "kernel/EngineGlobals.h"
#include "lifecycle/Engine.h"

namespace KovexTest {

#define KOVEX_SKIP_WITHOUT_VULKAN()                                                                                  \
    do                                                                                                               \
    {                                                                                                                \
        if (!KovexEngine::VulkanDevice::Probe())                                                                     \
            GTEST_SKIP() << "no Vulkan device on this machine (install mesa-vulkan-drivers for lavapipe)";         \
    } while (0)

class VulkanEngine
{
public:
    explicit VulkanEngine(unsigned width = 64, unsigned height = 32, bool graphicsThread = false,
                          KovexEngine::uint64 windowHandle = 0, KovexEngine::uint32 samples = 0)
    {
        using namespace KovexEngine;
        VulkanDevice::SetValidationRequested(true);
        m_errors = VulkanDevice::GetValidationErrorCount();
        m_warnings = VulkanDevice::GetValidationWarningCount();
        g_IsNullRenderer = false;
        Kovex_Main_Initialize();
        m_ok = Renderer::SetupPlatform(RendererPlatform::Vulkan);
        if (m_ok && graphicsThread)
            m_ok = GraphicsThread::Ins()->Start();
        GraphicsParameters parameters;
        parameters.Width = width;
        parameters.Height = height;
        parameters.WindowHandle = windowHandle;
        parameters.Extra0 = samples;
        if (m_ok)
            Kovex_InitRenderer(parameters);
        m_ok = m_ok && VulkanRenderer::Get() && VulkanRenderer::Get()->GetDevice().IsOpen();
    }
    ~VulkanEngine()
    {
        using namespace KovexEngine;
        Kovex_Main_Terminate();
        Kovex_Renderer_Terminate();
        Kovex_System_Terminate();
        VulkanDevice::SetValidationRequested(false);
        EXPECT_EQ(VulkanDevice::GetValidationErrorCount(), m_errors) << "the validation layer reported errors";
        EXPECT_EQ(VulkanDevice::GetValidationWarningCount(), m_warnings) << "the validation layer warned";
    }
    VulkanEngine(const VulkanEngine&) = delete;
    VulkanEngine& operator=(const VulkanEngine&) = delete;

    bool IsOpen() const { return m_ok; }
    // Warnings a test has accounted for itself, each by its message.
    void AllowWarnings(KovexEngine::uint32 count) { m_warnings += count; }
    KovexEngine::VulkanRenderer& Renderer() { return *KovexEngine::VulkanRenderer::Get(); }
    bool IsValidating() { return Renderer().GetDevice().IsValidating(); }

private:
    bool m_ok = false;
    KovexEngine::uint32 m_errors = 0;
    KovexEngine::uint32 m_warnings = 0;
};

// One subresource of a texture read back as an image of its format.
KovexEngine::Ptr<KovexEngine::Image> ReadBack(KovexEngine::Texture* texture, KovexEngine::uint32 arrayIndex = 0,
                                              KovexEngine::uint32 mip = 0);

// Saves both images as PNG (converted to 8-bit RGBA where they are not) into
// a directory it makes, or as raw bytes where they cannot be converted;
// answers the directory for the failure message.
std::string WriteSideBySide(const std::string& name, const KovexEngine::Ptr<KovexEngine::Image>& actual,
                            const KovexEngine::Ptr<KovexEngine::Image>& expected);

// Work posted to the graphics thread as one command.
struct FrameCommand : KovexEngine::ThreadCommand
{
    std::function<void()> work;
    void Process() override { work(); }
};

// Sets an environment variable for one scope and restores it after.
class ScopedEnv
{
public:
    ScopedEnv(const char* name, const char* value) : m_name(name)
    {
        const char* old = getenv(name);
        m_had = old != nullptr;
        if (old)
            m_old = old;
        setenv(name, value, 1);
    }
    ~ScopedEnv()
    {
        if (m_had)
            setenv(m_name.c_str(), m_old.c_str(), 1);
        else
            unsetenv(m_name.c_str());
    }

private:
    std::string m_name, m_old;
    bool m_had = false;
};

} // namespace KovexTest
