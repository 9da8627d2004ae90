#include "DemoWindow.h"

#include <cstdio>
#include <cstdlib>

#ifdef KOVEX_DEMO_XCB
#include <xcb/xcb.h>

bool DemoWindow::Open(uint32_t width, uint32_t height)
{
    const char* display = std::getenv("DISPLAY");
    if (!display || !*display)
        return false;
    xcb_connection_t* connection = xcb_connect(nullptr, nullptr);
    if (xcb_connection_has_error(connection))
    {
        std::printf("No window: the display %s does not open; rendering offscreen.\n", display);
        xcb_disconnect(connection);
        return false;
    }
    xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(connection)).data;
    xcb_window_t window = xcb_generate_id(connection);
    uint32_t background = screen->black_pixel;
    xcb_create_window(connection, XCB_COPY_FROM_PARENT, window, screen->root, 0, 0, uint16_t(width),
                      uint16_t(height), 0, XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual, XCB_CW_BACK_PIXEL,
                      &background);
    const char title[] = "KovexEngine demo";
    xcb_change_property(connection, XCB_PROP_MODE_REPLACE, window, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8,
                        sizeof(title) - 1, title);
    xcb_map_window(connection, window);
    xcb_flush(connection);
    m_connection = connection;
    m_window = window;
    return true;
}

DemoWindow::~DemoWindow()
{
    if (!m_connection)
        return;
    xcb_connection_t* connection = static_cast<xcb_connection_t*>(m_connection);
    xcb_destroy_window(connection, m_window);
    xcb_flush(connection);
    xcb_disconnect(connection);
}

#else

bool DemoWindow::Open(uint32_t, uint32_t) { return false; }
DemoWindow::~DemoWindow() = default;

#endif
