#include "cpu/PictureTurn.h"

#include <opencv2/core.hpp>

namespace Orvanta {
namespace Cpu {

bool isQuarterTurn(Ifaces::OutputRotation rotation)
{
    return rotation == Ifaces::OutputRotation::Rotate90 || rotation == Ifaces::OutputRotation::Rotate270;
}

bool isTurned(Ifaces::OutputRotation rotation)
{
    return isQuarterTurn(rotation) || rotation == Ifaces::OutputRotation::Rotate180;
}

void turnPicture(const std::uint8_t* pixels, std::size_t bytesPerLine, int width, int height,
    Ifaces::OutputRotation rotation, std::vector<std::uint8_t>& turned)
{
    turned.resize(std::size_t(width) * std::size_t(height) * 4);
    const bool quarter = isQuarterTurn(rotation);
    const cv::Mat from(height, width, CV_8UC4, const_cast<std::uint8_t*>(pixels), bytesPerLine);
    cv::Mat to(quarter ? width : height, quarter ? height : width, CV_8UC4, turned.data());
    int code = cv::ROTATE_180;
    if (rotation == Ifaces::OutputRotation::Rotate90)
        code = cv::ROTATE_90_COUNTERCLOCKWISE;
    else if (rotation == Ifaces::OutputRotation::Rotate270)
        code = cv::ROTATE_90_CLOCKWISE;
    // Into the caller's buffer: cv::rotate keeps a destination of the right size and type.
    cv::rotate(from, to, code);
}

} // namespace Cpu
} // namespace Orvanta
