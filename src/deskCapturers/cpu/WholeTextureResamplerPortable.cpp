#include "cpu/WholeTextureResampler.h"

// Builds without the image library: the scaler's own per-pixel path draws.

namespace Orvanta {
namespace Cpu {

struct WholeTextureResampler::Scratch
{
};

WholeTextureResampler::WholeTextureResampler() = default;

WholeTextureResampler::~WholeTextureResampler() = default;

bool WholeTextureResampler::draw(const Ifaces::ScalerSource&, const Layout&, std::uint8_t*, int, int)
{
    return false;
}

} // namespace Cpu
} // namespace Orvanta
