#pragma once

#include "ifaces/DisplayOutput.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Orvanta {
namespace Cpu {

/// Whether @p rotation swaps a picture's width and height.
bool isQuarterTurn(Ifaces::OutputRotation rotation);

/// Whether a picture of an output turned by @p rotation must be turned to be seen upright.
bool isTurned(Ifaces::OutputRotation rotation);

/**
 * Turns a picture of four bytes a pixel as a compositor draws an output turned
 * by @p rotation (Rotate90 a quarter counter-clockwise, Rotate270 a quarter
 * clockwise) into @p turned, as the output's user sees it, rows packed. The
 * turned picture is height x width after a quarter turn.
 */
void turnPicture(const std::uint8_t* pixels, std::size_t bytesPerLine, int width, int height,
    Ifaces::OutputRotation rotation, std::vector<std::uint8_t>& turned);

} // namespace Cpu
} // namespace Orvanta
