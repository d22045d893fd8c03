#include "cpu/WholeTextureResampler.h"

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

namespace Orvanta {
namespace Cpu {

// Pictures between the steps, kept so that a frame allocates nothing.
struct WholeTextureResampler::Scratch
{
    cv::Mat scaled;
    cv::Mat turned;
    cv::Mat flipped;
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
    const bool swapped = source.format != PixelFormat::R8G8B8A8Unorm;
    const bool opaque = source.format == PixelFormat::B8G8R8X8Unorm;
    const bool mirrored = layout.mirroredAcross || layout.mirroredDown;

    // OpenCV's linear resize samples at pixel centres and clamps at the edges
    // like the GPU sampler; the turn and the mirroring are exact pixel moves
    // afterwards, and the channel order is put right on the small picture.
    const cv::Mat picture(source.height, source.width, CV_8UC4, const_cast<void*>(source.pixels), source.bytesPerLine);
    cv::Mat out(height, width, CV_8UC4, target);
    const cv::Size scaledSize = layout.turned ? cv::Size(height, width) : cv::Size(width, height);
    const bool scaleIntoTarget = !layout.turned && !mirrored && !swapped;
    cv::Mat& scaled = scaleIntoTarget ? out : m_scratch->scaled;
    cv::resize(picture, scaled, scaledSize, 0, 0, cv::INTER_LINEAR);

    cv::Mat current = scaled;
    if (layout.turned) {
        cv::Mat& turned = mirrored || swapped ? m_scratch->turned : out;
        cv::transpose(current, turned);
        current = turned;
    }
    if (mirrored) {
        const int axis = layout.mirroredAcross && layout.mirroredDown ? -1 : (layout.mirroredAcross ? 1 : 0);
        cv::Mat& flipped = swapped ? m_scratch->flipped : out;
        cv::flip(current, flipped, axis);
        current = flipped;
    }
    if (swapped) {
        cv::cvtColor(current, out, cv::COLOR_BGRA2RGBA);
    } else if (current.data != out.data) {
        current.copyTo(out);
    }
    if (opaque) {
        const std::size_t count = std::size_t(width) * std::size_t(height);
        for (std::size_t i = 0; i < count; ++i) {
            target[i * 4 + 3] = 255;
        }
    }
    return true;
}

} // namespace Cpu
} // namespace Orvanta
