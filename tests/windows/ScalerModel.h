#pragma once

// An independent CPU model of what the resizer draws, written from the
// sampling rules rather than from the quad: for each target pixel centre the
// source coordinate under the display rotation; bilinear between texel
// centres when the picture shrinks along either axis, the texel under the
// point when it does not; indices clamped to the edge. RGBA8 in and out.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <vector>

struct RgbaImage
{
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> pixels; // R, G, B, A; rows top first, width * 4 bytes each

    RgbaImage() = default;
    RgbaImage(int w, int h)
        : width(w)
        , height(h)
        , pixels(static_cast<std::size_t>(w) * h * 4)
    {
    }
    std::uint8_t* at(int x, int y)
    {
        return pixels.data() + (static_cast<std::size_t>(y) * width + x) * 4;
    }
    const std::uint8_t* at(int x, int y) const
    {
        return pixels.data() + (static_cast<std::size_t>(y) * width + x) * 4;
    }
};

inline RgbaImage modelScale(const RgbaImage& source, int targetWidth, int targetHeight, int rotation)
{
    const bool turned = rotation == 2 || rotation == 4;
    const double texelsAcross = double(turned ? source.height : source.width) / targetWidth;
    const double texelsDown = double(turned ? source.width : source.height) / targetHeight;
    const bool shrinking = std::max(texelsAcross, texelsDown) > 1.0;

    auto texel = [&](int x, int y) {
        return source.at(std::clamp(x, 0, source.width - 1), std::clamp(y, 0, source.height - 1));
    };

    RgbaImage result(targetWidth, targetHeight);
    for (int y = 0; y < targetHeight; ++y) {
        for (int x = 0; x < targetWidth; ++x) {
            const double s = (x + 0.5) / targetWidth;
            const double t = (y + 0.5) / targetHeight;
            double u = s;
            double v = t;
            switch (rotation) {
            case 2: // a quarter turn anticlockwise: the source's right edge is the top
                u = 1.0 - t;
                v = s;
                break;
            case 3: // half a turn
                u = 1.0 - s;
                v = 1.0 - t;
                break;
            case 4: // three quarters: the source's left edge is the top
                u = t;
                v = 1.0 - s;
                break;
            default:
                break;
            }
            std::uint8_t* out = result.at(x, y);
            if (!shrinking) {
                const std::uint8_t* in = texel(int(std::floor(u * source.width)), int(std::floor(v * source.height)));
                std::copy(in, in + 4, out);
                continue;
            }
            const double sx = u * source.width - 0.5;
            const double sy = v * source.height - 0.5;
            const int x0 = int(std::floor(sx));
            const int y0 = int(std::floor(sy));
            const double wx = sx - x0;
            const double wy = sy - y0;
            for (int c = 0; c < 4; ++c) {
                const double top = texel(x0, y0)[c] * (1 - wx) + texel(x0 + 1, y0)[c] * wx;
                const double bottom = texel(x0, y0 + 1)[c] * (1 - wx) + texel(x0 + 1, y0 + 1)[c] * wx;
                out[c] = static_cast<std::uint8_t>(std::lround(std::clamp(top * (1 - wy) + bottom * wy, 0.0, 255.0)));
            }
        }
    }
    return result;
}

/// Largest difference of any channel of any pixel; 256 when the sizes differ.
inline int maxChannelDifference(const RgbaImage& a, const RgbaImage& b)
{
    if (a.width != b.width || a.height != b.height) {
        return 256;
    }
    int largest = 0;
    for (std::size_t i = 0; i < a.pixels.size(); ++i) {
        largest = std::max(largest, std::abs(int(a.pixels[i]) - int(b.pixels[i])));
    }
    return largest;
}
