#pragma once

#include <xcb/xcb.h>

#include <cstddef>
#include <cstdint>

namespace Orvanta {
namespace X11 {

/**
 * Where the channels of a screen's pixels lie, from its root visual.
 *
 * The capture paths hand on four bytes a pixel, B, G, R and padding. A
 * 24-bit screen (and a 32-bit one) already stores its pixels so; a deep
 * screen, such as depth 30 with 10 bits a channel, stores them in the same 32
 * bits with other masks, and its pixels are converted to 8 bits a channel.
 */
class XcbPixelLayout
{
public:
    /// The layout of @p screen's root visual; isSupported() is false where the capture paths can't read it.
    explicit XcbPixelLayout(const xcb_screen_t* screen);

    bool isSupported() const;
    /// True where pixels arrive as B, G, R, padding already.
    bool isPlainBgrx() const;

    /// Writes @p count pixels of this layout as B, G, R, padding; @p from and @p to may be the same.
    void toBgrx(const std::uint8_t* from, std::uint8_t* to, std::size_t count) const;

private:
    struct Channel
    {
        int shift = 0;
        int bits = 0;
    };
    static Channel channelOf(std::uint32_t mask);

    int m_depth = 0;
    Channel m_red;
    Channel m_green;
    Channel m_blue;
};

} // namespace X11
} // namespace Orvanta
