#include <gtest/gtest.h>

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "graphics/vulkan/VulkanSwapChain.h"
#include "graphics/vulkan/VulkanWindow.h"
#include "graphics/vulkan/VulkanTestSupport.h"
#include "support/LogCapture.h"

#ifdef KOVEX_TEST_XCB
#include <xcb/xcb.h>
#endif

using namespace KovexEngine;
using KovexTest::VulkanEngine;

#ifdef KOVEX_TEST_XCB
namespace {

// An Xvfb server of its own on a free display number, for one test.
class Xvfb
{
public:
    Xvfb()
    {
        if (access("/usr/bin/Xvfb", X_OK) != 0)
            return;
        // Xvfb picks a free display number itself and writes it to the pipe,
        // so tests running side by side never share a server.
        int fds[2];
        if (pipe(fds) != 0)
            return;
        pid_t pid = fork();
        if (pid == 0)
        {
            close(fds[0]);
            if (!freopen("/dev/null", "w", stderr))
                _exit(127);
            std::string fd = std::to_string(fds[1]);
            execl("/usr/bin/Xvfb", "Xvfb", "-displayfd", fd.c_str(), "-screen", "0", "640x480x24", "-nolisten", "tcp",
                  (char*)nullptr);
            _exit(127);
        }
        close(fds[1]);
        m_pid = pid > 0 ? pid : 0;
        std::string number;
        struct pollfd wait = {fds[0], POLLIN, 0};
        char c = 0;
        while (m_pid && poll(&wait, 1, 5000) == 1 && read(fds[0], &c, 1) == 1 && c != '\n')
            number += c;
        close(fds[0]);
        if (!number.empty())
        {
            m_display = ":" + number;
            xcb_connection_t* connection = xcb_connect(m_display.c_str(), nullptr);
            if (!xcb_connection_has_error(connection))
                m_connection = connection;
            else
                xcb_disconnect(connection);
        }
        if (!m_connection)
            Stop();
        if (m_connection)
            m_env = std::make_unique<KovexTest::ScopedEnv>("DISPLAY", m_display.c_str());
    }
    ~Xvfb()
    {
        m_env.reset();
        if (m_connection)
            xcb_disconnect(m_connection);
        Stop();
    }
    bool IsUp() const { return m_connection != nullptr; }

    // Windows that overlap hide each other's pixels from xcb_get_image: a
    // second one goes elsewhere.
    xcb_window_t CreateWindow(uint16_t width, uint16_t height, int16_t x = 10, int16_t y = 20)
    {
        xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(m_connection)).data;
        xcb_window_t window = xcb_generate_id(m_connection);
        xcb_create_window(m_connection, XCB_COPY_FROM_PARENT, window, screen->root, x, y, width, height, 0,
                          XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual, 0, nullptr);
        xcb_map_window(m_connection, window);
        xcb_flush(m_connection);
        return window;
    }
    void Resize(xcb_window_t window, uint32_t width, uint32_t height)
    {
        uint32_t size[] = {width, height};
        xcb_configure_window(m_connection, window, XCB_CONFIG_WINDOW_WIDTH | XCB_CONFIG_WINDOW_HEIGHT, size);
        xcb_aux_sync();
    }
    // Unmapped is what a minimised window is to the renderer.
    void SetMapped(xcb_window_t window, bool mapped)
    {
        if (mapped)
            xcb_map_window(m_connection, window);
        else
            xcb_unmap_window(m_connection, window);
        xcb_aux_sync();
    }
    void Destroy(xcb_window_t window)
    {
        xcb_destroy_window(m_connection, window);
        xcb_aux_sync();
    }
    // Waits (up to 3 s: presenting may finish on the driver's thread) until
    // every pixel of the window is `bgr`; answers the last pixel seen wrong.
    bool WindowIs(xcb_window_t window, uint16_t width, uint16_t height, const uint8_t bgr[3], std::string& seen)
    {
        for (int attempt = 0; attempt < 60; ++attempt)
        {
            xcb_get_image_reply_t* image = xcb_get_image_reply(
                m_connection,
                xcb_get_image(m_connection, XCB_IMAGE_FORMAT_Z_PIXMAP, window, 0, 0, width, height, ~0u), nullptr);
            bool same = image != nullptr;
            if (image)
            {
                const uint8_t* p = xcb_get_image_data(image);
                int length = xcb_get_image_data_length(image);
                same = length >= int(width) * height * 4;
                for (int i = 0; same && i < int(width) * height; ++i)
                    for (int c = 0; c < 3 && same; ++c)
                        if (abs(int(p[i * 4 + c]) - int(bgr[c])) > 1)
                        {
                            same = false;
                            seen = "pixel " + std::to_string(i) + " is B" + std::to_string(p[i * 4]) + " G" +
                                   std::to_string(p[i * 4 + 1]) + " R" + std::to_string(p[i * 4 + 2]);
                        }
                free(image);
            }
            if (same)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }

private:
    void xcb_aux_sync() { free(xcb_get_input_focus_reply(m_connection, xcb_get_input_focus(m_connection), nullptr)); }
    void Stop()
    {
        if (!m_pid)
            return;
        kill(m_pid, SIGTERM);
        waitpid(m_pid, nullptr, 0);
        m_pid = 0;
    }

    std::string m_display;
    pid_t m_pid = 0;
    xcb_connection_t* m_connection = nullptr;
    std::unique_ptr<KovexTest::ScopedEnv> m_env;
};

#define KOVEX_SKIP_WITHOUT_XVFB(x)                                                                                   \
    do                                                                                                               \
    {                                                                                                                \
        if (!(x).IsUp())                                                                                             \
            GTEST_SKIP() << "no Xvfb on this machine (install xvfb)";                                                \
    } while (0)

// Window pixels are the UNORM bytes of the clear: 0.2, 0.6, 0.9 -> 51, 153, 230.
const Vector4 kBlue(0.2f, 0.6f, 0.9f, 1.0f);
const uint8_t kBlueBGR[3] = {230, 153, 51};
const Vector4 kRed(1.0f, 0.0f, 0.0f, 1.0f);
const uint8_t kRedBGR[3] = {0, 0, 255};

void ClearAndPresent(VulkanRenderer& r, const Vector4& colour)
{
    r.Clear(GraphicsClearMode::Target, colour, 1.0f, 0);
    r.Present();
}

// The renderer opened on a new window of the server, counting its resets.
struct OnWindow
{
    OnWindow(Xvfb& x, uint16_t width, uint16_t height)
        : window(x.CreateWindow(width, height)), engine(width, height, false, window)
    {
        if (engine.IsOpen())
            engine.Renderer().RegisterDeviceResetDelegate(this, [this] { ++resets; });
    }
    ~OnWindow()
    {
        if (engine.IsOpen())
            engine.Renderer().UnregisterDeviceResetDelegate(this);
    }
    xcb_window_t window;
    VulkanEngine engine;
    int resets = 0;
};

} // namespace

TEST(VulkanWindow, PresentsTheClearColourAndFollowsAResize)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    Xvfb x;
    KOVEX_SKIP_WITHOUT_XVFB(x);
    OnWindow w(x, 160, 90);
    ASSERT_TRUE(w.engine.IsOpen());
    VulkanRenderer& r = w.engine.Renderer();
    const xcb_window_t window = w.window;
    const int& resets = w.resets;
    std::string seen;

    ClearAndPresent(r, kBlue);
    EXPECT_TRUE(x.WindowIs(window, 160, 90, kBlueBGR, seen)) << seen;
    ClearAndPresent(r, kRed);
    EXPECT_TRUE(x.WindowIs(window, 160, 90, kRedBGR, seen)) << seen;
    EXPECT_EQ(resets, 0);

    // The frame that finds the new size recreates; the next one fills it.
    x.Resize(window, 240, 120);
    ClearAndPresent(r, kRed);
    EXPECT_EQ(resets, 1);
    EXPECT_EQ(r.GetParamters().Width, 240u);
    EXPECT_EQ(r.GetParamters().Height, 120u);
    ClearAndPresent(r, kBlue);
    EXPECT_TRUE(x.WindowIs(window, 240, 120, kBlueBGR, seen)) << seen;
    EXPECT_EQ(resets, 1);
}

TEST(VulkanWindow, OutOfDateRecreatesAndAClosedWindowStopsPresenting)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    Xvfb x;
    KOVEX_SKIP_WITHOUT_XVFB(x);
    OnWindow w(x, 128, 72);
    ASSERT_TRUE(w.engine.IsOpen());
    VulkanRenderer& r = w.engine.Renderer();
    ASSERT_NE(r.GetSwapChain(), nullptr);
    // Without VSync a mode that does not wait for the vertical blank.
    EXPECT_NE(r.GetSwapChain()->GetPresentMode(), VK_PRESENT_MODE_FIFO_KHR);
    const xcb_window_t window = w.window;
    const int& resets = w.resets;
    std::string seen;

    r.GetSwapChain()->ForceOutOfDate();
    ClearAndPresent(r, kRed);
    EXPECT_EQ(resets, 1);
    ClearAndPresent(r, kBlue);
    EXPECT_TRUE(x.WindowIs(window, 128, 72, kBlueBGR, seen)) << seen;

    KovexTest::LogCapture log;
    x.Destroy(window);
    ClearAndPresent(r, kRed);
    bool told = false;
    for (const auto& entry : log->entries)
        told |= entry.text.IndexOf(u"is gone") != kNotFound;
    EXPECT_TRUE(told);
    EXPECT_FALSE(r.GetSwapChain()->IsOpen());
    // Frames go on offscreen.
    ClearAndPresent(r, kBlue);
}

// A second window has its own swap chain (FIFO with VSync) and buffers;
// both windows show their own frame. Unmapped, it is skipped without a
// line; mapped again it presents; resized, it follows; destroyed, it logs
// once and frames go on.
TEST(VulkanWindow, ASecondWindowPresentsBesideTheFirst)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    Xvfb x;
    KOVEX_SKIP_WITHOUT_XVFB(x);
    OnWindow w(x, 120, 80);
    ASSERT_TRUE(w.engine.IsOpen());
    VulkanRenderer& r = w.engine.Renderer();
    const xcb_window_t second = x.CreateWindow(96, 64, 300, 200);
    GraphicsParameters parameters;
    parameters.WindowHandle = second;
    parameters.VSync = true;
    Ptr<GraphicsWindow> window = GraphicsWindowFactory::Get()->Create(parameters);
    ASSERT_TRUE(window && window->IsCreated());
    auto* vulkanWindow = dynamic_cast<VulkanGraphicsWindow*>(window.Get());
    ASSERT_NE(vulkanWindow, nullptr);
    VulkanSwapChain* chain = vulkanWindow->GetSwapChain();
    ASSERT_NE(chain, nullptr);
    EXPECT_EQ(chain->GetPresentMode(), VK_PRESENT_MODE_FIFO_KHR);
    EXPECT_TRUE(chain->GetFormat() == VK_FORMAT_B8G8R8A8_UNORM || chain->GetFormat() == VK_FORMAT_R8G8B8A8_UNORM);
    EXPECT_EQ(window->GetParameters().Width, 96u) << "buffers of the window's size";
    EXPECT_EQ(window->GetGroup().RenderTargets[0]->GetWidth(), 96u);
    std::string seen;

    auto frame = [&](const Vector4& first, const Vector4& other) {
        r.BeginFrame();
        r.Clear(GraphicsClearMode::Target, first, 1.0f, 0);
        window->BeginWindow();
        r.Clear(GraphicsClearMode::Target, other, 1.0f, 0);
        window->EndWindow();
        r.Present();
    };
    frame(kRed, kBlue);
    EXPECT_TRUE(x.WindowIs(w.window, 120, 80, kRedBGR, seen)) << seen;
    EXPECT_TRUE(x.WindowIs(second, 96, 64, kBlueBGR, seen)) << seen;
    EXPECT_EQ(chain->GetPresentedCount(), 1u);

    {
        KovexTest::LogCapture log;
        x.SetMapped(second, false);
        frame(kBlue, kRed);
        frame(kBlue, kRed);
        EXPECT_EQ(chain->GetPresentedCount(), 1u) << "an unmapped window is skipped";
        EXPECT_EQ(log->entries.Count(), 0u);
        EXPECT_TRUE(x.WindowIs(w.window, 120, 80, kBlueBGR, seen)) << seen;
    }
    x.SetMapped(second, true);
    frame(kBlue, kRed);
    EXPECT_EQ(chain->GetPresentedCount(), 2u);
    EXPECT_TRUE(x.WindowIs(second, 96, 64, kRedBGR, seen)) << seen;

    // The frame that finds the new size remakes the window's buffers; the
    // main window's parameters stay.
    x.Resize(second, 72, 40);
    frame(kBlue, kRed);
    EXPECT_EQ(window->GetParameters().Width, 72u);
    EXPECT_EQ(window->GetParameters().Height, 40u);
    EXPECT_EQ(window->GetGroup().RenderTargets[0]->GetWidth(), 72u);
    EXPECT_EQ(r.GetParamters().Width, 120u);
    frame(kBlue, kBlue);
    EXPECT_TRUE(x.WindowIs(second, 72, 40, kBlueBGR, seen)) << seen;

    KovexTest::LogCapture log;
    x.Destroy(second);
    frame(kRed, kBlue);
    frame(kRed, kBlue);
    int told = 0;
    for (const auto& entry : log->entries)
        told += entry.text.IndexOf(u"is gone") != kNotFound;
    EXPECT_EQ(told, 1);
    EXPECT_TRUE(x.WindowIs(w.window, 120, 80, kRedBGR, seen)) << seen;
    window = Ptr<GraphicsWindow>();
}

// The driver's own report of a resize: with the renderer's size check off,
// the acquire answers suboptimal (lavapipe under Xvfb does), that frame is
// still shown, and the swap chain is remade at the new size.
TEST(VulkanWindow, ASuboptimalAcquireRemakesTheSwapChain)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    Xvfb x;
    KOVEX_SKIP_WITHOUT_XVFB(x);
    OnWindow w(x, 100, 60);
    ASSERT_TRUE(w.engine.IsOpen());
    VulkanRenderer& r = w.engine.Renderer();
    VulkanSwapChain* chain = r.GetSwapChain();
    ASSERT_NE(chain, nullptr);
    chain->SetWindowSizeCheck(false);
    std::string seen;
    ClearAndPresent(r, kRed);
    EXPECT_EQ(w.resets, 0);
    x.Resize(w.window, 140, 50);
    // Only the driver can tell now; one that never does leaves the size.
    for (int frame = 0; frame < 3 && w.resets == 0; ++frame)
        ClearAndPresent(r, kBlue);
    if (w.resets == 0 && chain->GetDriverReports() == 0)
        GTEST_SKIP() << "this driver reports no suboptimal or out-of-date swap chain on a resize";
    EXPECT_EQ(w.resets, 1);
    EXPECT_EQ(chain->GetWidth(), 140u);
    EXPECT_EQ(r.GetParamters().Width, 140u);
    EXPECT_EQ(r.GetParamters().Height, 50u);
    ClearAndPresent(r, kBlue);
    EXPECT_TRUE(x.WindowIs(w.window, 140, 50, kBlueBGR, seen)) << seen;
    EXPECT_EQ(w.resets, 1);
}

TEST(VulkanWindow, AWindowThatDoesNotExistFailsToOpen)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    Xvfb x;
    KOVEX_SKIP_WITHOUT_XVFB(x);
    KovexTest::LogCapture log;
    VulkanEngine engine(64, 32, false, 0x7ffffff0);
    EXPECT_FALSE(engine.IsOpen());
}

#else

TEST(VulkanWindow, PresentsTheClearColourAndFollowsAResize) { GTEST_SKIP() << "built without xcb"; }

#endif
