#include "XcbPixelLayout.h"

#include <cstring>

namespace Orvanta {
namespace X11 {

XcbPixelLayout::XcbPixelLayout(const xcb_screen_t* screen)
{
    if (!screen)
        return;
    for (auto depths = xcb_screen_allowed_depths_iterator(screen); depths.rem; xcb_depth_next(&depths)) {
        for (auto visuals = xcb_depth_visuals_iterator(depths.data); visuals.rem; xcb_visualtype_next(&visuals)) {
            const xcb_visualtype_t* visual = visuals.data;
            if (visual->visual_id != screen->root_visual)
                continue;
            if (visual->_class != XCB_VISUAL_CLASS_TRUE_COLOR && visual->_class != XCB_VISUAL_CLASS_DIRECT_COLOR)
                return;
            m_depth = screen->root_depth;
            m_red = channelOf(visual->red_mask);
            m_green = channelOf(visual->green_mask);
            m_blue = channelOf(visual->blue_mask);
            return;
        }
    }
}

XcbPixelLayout::Channel XcbPixelLayout::channelOf(std::uint32_t mask)
{
    Channel channel;
    if (!mask)
        return channel;
    while (!(mask & 1u)) {
        mask >>= 1;
        ++channel.shift;
    }
    while (mask & 1u) {
        mask >>= 1;
        ++channel.bits;
    }
    return channel;
}

bool XcbPixelLayout::isSupported() const
{
    // Every depth from 24 to 32 keeps a pixel in 32 bits, with at least 8 bits a channel.
    return m_depth >= 24 && m_depth <= 32 && m_red.bits >= 8 && m_green.bits >= 8 && m_blue.bits >= 8;
}

bool XcbPixelLayout::isPlainBgrx() const
{
    return m_red.shift == 16 && m_red.bits == 8 && m_green.shift == 8 && m_green.bits == 8 && m_blue.shift == 0
        && m_blue.bits == 8;
}

void XcbPixelLayout::toBgrx(const std::uint8_t* from, std::uint8_t* to, std::size_t count) const
{
    // The top 8 bits of each channel: 10-bit values lose their two lowest bits.
    const int redShift = m_red.shift + m_red.bits - 8;
    const int greenShift = m_green.shift + m_green.bits - 8;
    const int blueShift = m_blue.shift + m_blue.bits - 8;
    for (std::size_t index = 0; index < count; ++index) {
        std::uint32_t pixel;
        std::memcpy(&pixel, from + index * 4, 4);
        to[index * 4 + 0] = std::uint8_t(pixel >> blueShift);
        to[index * 4 + 1] = std::uint8_t(pixel >> greenShift);
        to[index * 4 + 2] = std::uint8_t(pixel >> redShift);
        to[index * 4 + 3] = 0xFF;
    }
}

} // namespace X11
} // namespace Orvanta
