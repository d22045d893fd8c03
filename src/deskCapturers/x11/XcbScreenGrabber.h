#pragma once

#include "XcbPixelLayout.h"
#include "ifaces/ScreenGrabber.h"

#include <xcb/shm.h>
#include <xcb/xcb.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Orvanta {
namespace X11 {

class XcbConnection;

/**
 * Copies rectangles of an X screen, through a shared-memory segment where
 * the server offers MIT-SHM and a plain get-image otherwise. The connection
 * is made at first use; the segment is kept and grows as needed.
 */
class XcbScreenGrabber : public Ifaces::ScreenGrabber
{
public:
    /// Connects to @p displayName at first use; empty means $DISPLAY.
    explicit XcbScreenGrabber(std::string displayName = {});
    ~XcbScreenGrabber() override;

    bool monitorRect(std::uintptr_t monitor, Ifaces::ScreenRect& rect) override;
    bool grab(std::uintptr_t monitor, const Ifaces::ScreenRect& rect, Ifaces::ScreenImage& image) override;
    bool grabInBands(std::uintptr_t monitor, const Ifaces::ScreenRect& rect, const std::vector<int>& bandEnds,
        Ifaces::ScreenImage& image, const BandArrived& arrived) override;
    /// True: the X server composes a turned monitor into the root as its user sees it.
    bool picturesAreTurned() const override;

private:
    bool connect();
    bool reserveSegment(std::size_t size);
    void releaseSegment();

    std::mutex m_mutex;
    std::string m_displayName;
    std::shared_ptr<XcbConnection> m_connection;
    std::vector<XcbPixelLayout> m_layouts; // one a screen of the connection
    xcb_shm_seg_t m_segment = 0;
    unsigned char* m_segmentMemory = nullptr;
    std::size_t m_segmentSize = 0;
    std::vector<unsigned char> m_plainCopy;
};

} // namespace X11
} // namespace Orvanta
