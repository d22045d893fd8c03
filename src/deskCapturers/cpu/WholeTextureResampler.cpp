#include "cpu/WholeTextureResampler.h"

#include "cpu/ChannelOrder.h"

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

namespace Orvanta {
namespace Cpu {

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
