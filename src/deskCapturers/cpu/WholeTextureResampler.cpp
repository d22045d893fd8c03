#include "cpu/WholeTextureResampler.h"

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <cstring>

namespace Orvanta {
namespace Cpu {

namespace {

/// Swaps the first and third byte of each little-endian word; with @p alpha
/// 0xFF000000 the fourth byte becomes 255 as well.
inline std::uint32_t swapRedAndBlue(std::uint32_t word, std::uint32_t alpha)
{
    return (word & 0xFF00FF00u) | ((word >> 16) & 0xFFu) | ((word & 0xFFu) << 16) | alpha;
}

/// B, G, R, A becomes R, G, B, A in place; with @p opaque the fourth byte becomes 255.
void swapRedAndBlue(std::uint8_t* pixels, std::size_t count, bool opaque)
{
    // Eight pixels a step: a loop of fixed length, which the compiler
    // vectorises even where it leaves loops of unknown length alone.
    const std::uint32_t alpha = opaque ? 0xFF000000u : 0u;
    std::size_t i = 0;
    for (; i + 8 <= count; i += 8) {
        std::uint32_t words[8];
        std::memcpy(words, pixels + i * 4, sizeof words);
        for (std::uint32_t& word : words) {
            word = swapRedAndBlue(word, alpha);
        }
        std::memcpy(pixels + i * 4, words, sizeof words);
    }
    for (; i < count; ++i) {
        std::uint32_t word;
        std::memcpy(&word, pixels + i * 4, sizeof word);
        word = swapRedAndBlue(word, alpha);
        std::memcpy(pixels + i * 4, &word, sizeof word);
    }
}

} // namespace

// The scaled picture before a turn, kept so that a frame allocates nothing.
struct WholeTextureResampler::Scratch
{
    cv::Mat scaled;
};

WholeTextureResampler::WholeTextureResampler()
    : m_scratch(std::make_unique<Scratch>())
{
}

WholeTextureResampler::~WholeTextureResampler() = default;

bool WholeTextureResampler::draw(
    const Ifaces::ScalerSource& source, const Layout& layout, std::uint8_t* target, int width, int height)
{
    using Ifaces::PixelFormat;
    if (source.format != PixelFormat::R8G8B8A8Unorm && source.format != PixelFormat::B8G8R8A8Unorm
        && source.format != PixelFormat::B8G8R8X8Unorm) {
        return false;
    }

    // OpenCV's linear resize samples at pixel centres and clamps at the edges
    // like the GPU sampler. It writes the target itself unless the picture is
    // turned; the turn and the mirroring are exact pixel moves afterwards,
    // and the channel order is put right on the small picture, all in place.
    const cv::Mat picture(source.height, source.width, CV_8UC4, const_cast<void*>(source.pixels), source.bytesPerLine);
    cv::Mat out(height, width, CV_8UC4, target);
    if (layout.turned) {
        cv::resize(picture, m_scratch->scaled, cv::Size(height, width), 0, 0, cv::INTER_LINEAR);
        cv::transpose(m_scratch->scaled, out);
    } else {
        cv::resize(picture, out, cv::Size(width, height), 0, 0, cv::INTER_LINEAR);
    }
    if (layout.mirroredAcross || layout.mirroredDown) {
        const int axis = layout.mirroredAcross && layout.mirroredDown ? -1 : (layout.mirroredAcross ? 1 : 0);
        cv::flip(out, out, axis);
    }
    if (source.format != PixelFormat::R8G8B8A8Unorm) {
        swapRedAndBlue(target, std::size_t(width) * std::size_t(height), source.format == PixelFormat::B8G8R8X8Unorm);
    }
    return true;
}

} // namespace Cpu
} // namespace Orvanta
