#pragma once

#include "ifaces/GpuScaler.h"

#include <cstdint>
#include <memory>

namespace Orvanta {
namespace Cpu {

/**
 * Bilinear drawing of a whole 8-bit source onto a whole RGBA8 target, where
 * each target axis runs along one source axis, forwards or backwards: the
 * scaler's quad at any quarter turn. Samples lie at pixel centres and clamp to
 * the edge, as the GPU sampler's do; results are within one unit of exact
 * arithmetic.
 *
 * Builds with a vectorised image library draw here; the others report that
 * they cannot, and the scaler's own per-pixel path draws instead.
 */
class WholeTextureResampler final
{
public:
    struct Layout
    {
        bool turned = false; ///< target columns follow source lines
        bool mirroredAcross = false; ///< the source axis under target columns runs backwards
        bool mirroredDown = false; ///< the source axis under target lines runs backwards
    };

    WholeTextureResampler();
    ~WholeTextureResampler();
    WholeTextureResampler(const WholeTextureResampler&) = delete;
    WholeTextureResampler& operator=(const WholeTextureResampler&) = delete;

    /**
     * Draws @p source (R8G8B8A8, B8G8R8A8 or B8G8R8X8) into @p target, tightly
     * packed RGBA of @p width by @p height. False when this build has no such
     * path or the format is another one; the target is then untouched.
     */
    bool draw(const Ifaces::ScalerSource& source, const Layout& layout, std::uint8_t* target, int width, int height);

private:
    struct Scratch;
    std::unique_ptr<Scratch> m_scratch;
};

} // namespace Cpu
} // namespace Orvanta
