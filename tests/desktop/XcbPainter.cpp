#include "XcbPainter.h"

#include <cstdlib>

namespace {

std::uint32_t pixelOf(const QColor& colour, int depth)
{
    if (depth == 30) {
        // Xvfb's depth-30 TrueColor visual: 10 bits each, the 8 of the colour on top.
        const auto wide = [](int channel) {
            return (std::uint32_t(channel) << 2) | (std::uint32_t(channel) >> 6);
        };
        return (wide(colour.red()) << 20) | (wide(colour.green()) << 10) | wide(colour.blue());
    }
    // The depth-24 TrueColor visual of Xvfb: 8 bits each of red, green, blue.
    return (std::uint32_t(colour.red()) << 16) | (std::uint32_t(colour.green()) << 8) | std::uint32_t(colour.blue());
}

} // namespace

XcbPainter::XcbPainter()
{
    m_connection = xcb_connect(nullptr, nullptr);
    if (xcb_connection_has_error(m_connection))
        return;
    m_screen = xcb_setup_roots_iterator(xcb_get_setup(m_connection)).data;
}

XcbPainter::~XcbPainter()
{
    if (m_screen)
        clear();
    xcb_disconnect(m_connection);
}

bool XcbPainter::isValid() const
{
    return m_screen != nullptr;
}

int XcbPainter::screenWidth() const
{
    return m_screen ? m_screen->width_in_pixels : 0;
}

int XcbPainter::screenHeight() const
{
    return m_screen ? m_screen->height_in_pixels : 0;
}

xcb_window_t XcbPainter::fill(const QRect& rect, const QColor& colour)
{
    const xcb_window_t window = xcb_generate_id(m_connection);
    const std::uint32_t values[] = {pixelOf(colour, m_screen->root_depth), 1};
    xcb_create_window(m_connection, XCB_COPY_FROM_PARENT, window, m_screen->root, std::int16_t(rect.x()),
        std::int16_t(rect.y()), std::uint16_t(rect.width()), std::uint16_t(rect.height()), 0,
        XCB_WINDOW_CLASS_INPUT_OUTPUT, m_screen->root_visual, XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT, values);
    xcb_map_window(m_connection, window);
    m_windows.push_back(window);
    sync();
    return window;
}

void XcbPainter::recolour(xcb_window_t window, const QColor& colour)
{
    const std::uint32_t value = pixelOf(colour, m_screen->root_depth);
    xcb_change_window_attributes(m_connection, window, XCB_CW_BACK_PIXEL, &value);
    xcb_clear_area(m_connection, 0, window, 0, 0, 0, 0);
    sync();
}

void XcbPainter::clear()
{
    for (xcb_window_t window : m_windows)
        xcb_destroy_window(m_connection, window);
    m_windows.clear();
    sync();
}

void XcbPainter::sync()
{
    // A round trip: the server has handled everything sent before it.
    std::free(xcb_get_input_focus_reply(m_connection, xcb_get_input_focus(m_connection), nullptr));
}

bool XcbPainter::pixelIs(const cv::Mat& frame, int row, int col, const QColor& colour)
{
    if (frame.empty() || row >= frame.rows || col >= frame.cols)
        return false;
    const cv::Vec4b pixel = frame.at<cv::Vec4b>(row, col);
    return pixel[0] == colour.red() && pixel[1] == colour.green() && pixel[2] == colour.blue();
}
