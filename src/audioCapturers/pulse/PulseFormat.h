#pragma once

#include "ifaces/WaveFormat.h"

#include <pulse/channelmap.h>
#include <pulse/sample.h>

namespace Orvanta {
namespace Pulse {

/**
 * Translation between the server's sample specifications and wave formats.
 *
 * A sink's format is always described as an extensible wave format: integer
 * or float samples by their sub-format, the channels by a speaker mask in
 * ascending bit order. Formats without a wave counterpart (24-bit packed,
 * A-law, mu-law) keep their sample width or tag, so that a consumer can see
 * that it needs to ask for another; the server converts to whatever the
 * record stream asks for.
 */
Ifaces::WaveFormatExtensible toWaveFormat(const pa_sample_spec& spec, const pa_channel_map& map);

/// The server's sample format, rate and channel count for @p format; false when the server has no such format.
bool toSampleSpec(const Ifaces::WaveFormatExtensible& format, pa_sample_spec& spec);

/// The channel map for @p format: its speaker mask in bit order, or the
/// usual wave order for its channel count when it has no usable mask.
pa_channel_map toChannelMap(const Ifaces::WaveFormatExtensible& format);

} // namespace Pulse
} // namespace Orvanta
