#pragma once

#include "ifaces/ScreenGrabber.h"

#include <vector>

namespace Orvanta {
namespace Gdi {

/**
 * Copies rectangles of the screen device context with BitBlt and GetDIBits.
 * Device contexts and bitmap live for one call; the pixels are kept until
 * the next one.
 */
class GdiScreenGrabber : public Ifaces::ScreenGrabber
{
public:
    bool monitorRect(std::uintptr_t monitor, Ifaces::ScreenRect& rect) override;
    bool grab(std::uintptr_t monitor, const Ifaces::ScreenRect& rect, Ifaces::ScreenImage& image) override;
    bool picturesAreTurned() const override;

private:
    std::vector<unsigned char> m_pixels;
};

} // namespace Gdi
} // namespace Orvanta
