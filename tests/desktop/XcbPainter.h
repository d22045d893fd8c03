#pragma once

#include <QtCore/QRect>
#include <QtGui/QColor>

#include <opencv2/core.hpp>
#include <xcb/xcb.h>

#include <vector>

/**
 * Paints rectangles of one colour on the X server of $DISPLAY: each is a
 * window without decoration whose background the server fills. Every call
 * returns only once the server has done the work, so a capture that follows
 * sees it.
 */
class XcbPainter
{
public:
    XcbPainter();
    ~XcbPainter();
    XcbPainter(const XcbPainter&) = delete;
    XcbPainter& operator=(const XcbPainter&) = delete;

    bool isValid() const;
    int screenWidth() const;
    int screenHeight() const;

    /// A rectangle in @p colour, above everything painted before.
    xcb_window_t fill(const QRect& rect, const QColor& colour);
    /// Repaints a rectangle made by fill() in another colour.
    void recolour(xcb_window_t window, const QColor& colour);
    /// Removes every rectangle.
    void clear();

    /// Whether a captured frame (R, G, B, A) shows @p colour at @p row, @p col.
    static bool pixelIs(const cv::Mat& frame, int row, int col, const QColor& colour);

private:
    void sync();

    xcb_connection_t* m_connection = nullptr;
    xcb_screen_t* m_screen = nullptr;
    std::vector<xcb_window_t> m_windows;
};
