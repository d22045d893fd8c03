#pragma once

#include "ifaces/ScreenGrabber.h"

#include <opencv2/core.hpp>

#include <map>
#include <vector>

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
        if (!delivered.empty())
            buffer = buffer(cv::Rect(cv::Point(), delivered)).clone();
        image.pixels = buffer.data;
        image.width = buffer.cols;
        image.height = buffer.rows;
        image.bytesPerLine = buffer.step;
        return true;
    }

    /// Copies band by band when asked to; the rows of a band are copied just before it is handed on.
    bool grabInBands(std::uintptr_t monitor, const Orvanta::Ifaces::ScreenRect& rect, const std::vector<int>& bandEnds,
        Orvanta::Ifaces::ScreenImage& image, const BandArrived& arrived) override
    {
        bandEndsAsked = bandEnds;
        if (!inBands)
            return ScreenGrabber::grabInBands(monitor, rect, bandEnds, image, arrived);
        ++grabs;
        lastRect = rect;
        const cv::Rect area(int(rect.left), int(rect.top), int(rect.right - rect.left), int(rect.bottom - rect.top));
        if (area.width <= 0 || area.height <= 0 || (area & cv::Rect(0, 0, desktop.cols, desktop.rows)) != area
            || bandEnds.empty() || bandEnds.back() != area.height)
            return false;
        // Rows not yet copied hold what no screen shows, so that reading them early shows.
        buffer.create(area.size(), desktop.type());
        buffer.setTo(cv::Scalar(0, 255, 255, 255));
        image.pixels = buffer.data;
        image.width = buffer.cols;
        image.height = buffer.rows;
        image.bytesPerLine = buffer.step;
        int first = 0;
        for (std::size_t band = 0; band < bandEnds.size(); ++band) {
            if (failGrab || int(band) == failingBand)
                return false;
            desktop(area).rowRange(first, bandEnds[band]).copyTo(buffer.rowRange(first, bandEnds[band]));
            arrived(image, first, bandEnds[band]);
            ++bandsHandedOn;
            first = bandEnds[band];
        }
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
    /// Whether grabInBands() copies band by band, or in one piece as grabbers without bands do.
    bool inBands = true;
    /// The band that fails to arrive; -1 for none.
    int failingBand = -1;
    std::vector<int> bandEndsAsked;
    /// Where not empty, grab() hands on only this much of the rectangle, from its top left.
    cv::Size delivered;
    int bandsHandedOn = 0;
};

} // namespace Fakes
