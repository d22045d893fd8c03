#pragma once

#include <cstdint>

namespace Orvanta {
namespace Ifaces {

/**
 * The two level readings that the spectrum computation takes from an audio
 * endpoint: its master volume, to undo the volume's effect on the
 * magnitudes, and the per-channel peak meter.
 *
 * A capturer holds the port twice, once as its volume source and once as its
 * meter, since an endpoint may offer the one without the other; an adapter
 * that offers both is usually handed in for both roles.
 *
 * Results follow the HRESULT convention: negative means failure, and the out
 * values are then not to be used.
 */
class EndpointMeter
{
public:
    virtual ~EndpointMeter() = default;

    /// The endpoint's master volume as a scalar from 0 to 1.
    virtual long masterVolumeLevelScalar(float* level) = 0;

    /// Number of channels the peak meter reports.
    virtual long meteringChannelCount(std::uint32_t* count) = 0;

    /// Writes `count` linear peak values, one per metering channel, in the
    /// meter's channel order.
    virtual long channelsPeakValues(std::uint32_t count, float* peaks) = 0;
};

} // namespace Ifaces
} // namespace Orvanta
