#pragma once

// An X11 window for the demo's frames when a display is present; the
// renderer presents into it through its swap chain. Without xcb in the
// build, or without a display, there is none and the demo renders offscreen.

#include <cstdint>

class DemoWindow
{
public:
    DemoWindow() = default;
    DemoWindow(const DemoWindow&) = delete;
    DemoWindow& operator=(const DemoWindow&) = delete;
    ~DemoWindow();

    // Opens a mapped window of this size on $DISPLAY; false when there is
    // no display to open.
    bool Open(uint32_t width, uint32_t height);
    // The X11 window id, as GraphicsParameters::WindowHandle takes it; 0
    // when none is open.
    uint64_t Handle() const { return m_window; }

private:
    void* m_connection = nullptr;
    uint32_t m_window = 0;
};
