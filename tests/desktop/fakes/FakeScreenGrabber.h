#pragma once

#include "ifaces/ScreenGrabber.h"

#include <opencv2/core.hpp>

#include <map>

namespace Fakes {

/// A virtual desktop held in memory, B, G, R, X as a screen gives it.
class FakeScreenGrabber : public Orvanta::Ifaces::ScreenGrabber
{
public:
    explicit FakeScreenGrabber(cv::Mat desktop)
        : desktop(std::move(desktop))
    {
    }

    bool monitorRect(std::uintptr_t monitor, Orvanta::Ifaces::ScreenRect& rect) override
    {
        const auto found = monitors.find(monitor);
        if (found == monitors.end())
            return false;
        rect = found->second;
        return true;
    }

    bool grab(std::uintptr_t, const Orvanta::Ifaces::ScreenRect& rect, Orvanta::Ifaces::ScreenImage& image) override
    {
        ++grabs;
        lastRect = rect;
        const cv::Rect area(int(rect.left), int(rect.top), int(rect.right - rect.left), int(rect.bottom - rect.top));
        if (failGrab || area.width <= 0 || area.height <= 0
            || (area & cv::Rect(0, 0, desktop.cols, desktop.rows)) != area)
            return false;
        // The grabber's own memory, overwritten by the next grab, as a real one is.
        desktop(area).copyTo(buffer);
        image.pixels = buffer.data;
        image.width = buffer.cols;
        image.height = buffer.rows;
        image.bytesPerLine = buffer.step;
        return true;
    }

    bool picturesAreTurned() const override
    {
        return turned;
    }

    cv::Mat desktop;
    cv::Mat buffer;
    /// Whether the desktop holds turned monitors as their users see them.
    bool turned = false;
    std::map<std::uintptr_t, Orvanta::Ifaces::ScreenRect> monitors;
    Orvanta::Ifaces::ScreenRect lastRect;
    bool failGrab = false;
    int grabs = 0;
};

} // namespace Fakes
