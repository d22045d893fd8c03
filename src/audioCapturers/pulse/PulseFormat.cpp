#include "PulseFormat.h"

#include <bitset>
#include <cstdint>

namespace Orvanta {
namespace Pulse {

namespace {

// The speaker bits of a wave format, from bit 0 up.
constexpr pa_channel_position_t kSpeakerPositions[] = {
    PA_CHANNEL_POSITION_FRONT_LEFT,
    PA_CHANNEL_POSITION_FRONT_RIGHT,
    PA_CHANNEL_POSITION_FRONT_CENTER,
    PA_CHANNEL_POSITION_LFE,
    PA_CHANNEL_POSITION_REAR_LEFT,
    PA_CHANNEL_POSITION_REAR_RIGHT,
    PA_CHANNEL_POSITION_FRONT_LEFT_OF_CENTER,
    PA_CHANNEL_POSITION_FRONT_RIGHT_OF_CENTER,
    PA_CHANNEL_POSITION_REAR_CENTER,
    PA_CHANNEL_POSITION_SIDE_LEFT,
    PA_CHANNEL_POSITION_SIDE_RIGHT,
    PA_CHANNEL_POSITION_TOP_CENTER,
    PA_CHANNEL_POSITION_TOP_FRONT_LEFT,
    PA_CHANNEL_POSITION_TOP_FRONT_CENTER,
    PA_CHANNEL_POSITION_TOP_FRONT_RIGHT,
    PA_CHANNEL_POSITION_TOP_REAR_LEFT,
    PA_CHANNEL_POSITION_TOP_REAR_CENTER,
    PA_CHANNEL_POSITION_TOP_REAR_RIGHT,
};
constexpr int kSpeakerCount = sizeof(kSpeakerPositions) / sizeof(kSpeakerPositions[0]);

constexpr std::uint16_t kWaveFormatALaw = 6;
constexpr std::uint16_t kWaveFormatMuLaw = 7;

int speakerBit(pa_channel_position_t position)
{
    if (position == PA_CHANNEL_POSITION_MONO) {
        return 2; // front centre
    }
    for (int bit = 0; bit < kSpeakerCount; ++bit) {
        if (kSpeakerPositions[bit] == position) {
            return bit;
        }
    }
    return -1;
}

// 0 when a position has no speaker bit or occurs twice.
std::uint32_t speakerMask(const pa_channel_map& map)
{
    std::uint32_t mask = 0;
    for (unsigned int i = 0; i < map.channels; ++i) {
        const int bit = speakerBit(map.map[i]);
        if (bit < 0 || (mask & (1u << bit)) != 0) {
            return 0;
        }
        mask |= 1u << bit;
    }
    return mask;
}

} // namespace

Ifaces::WaveFormatExtensible toWaveFormat(const pa_sample_spec& spec, const pa_channel_map& map)
{
    Ifaces::WaveFormatExtensible format {};
    format.Format.wFormatTag = Ifaces::WaveFormatTag::Extensible;
    format.Format.nChannels = spec.channels;
    format.Format.nSamplesPerSec = spec.rate;
    format.Format.cbSize = 22;
    format.SubFormat = Ifaces::subFormatPcm();

    std::uint16_t bits = 16;
    switch (spec.format) {
    case PA_SAMPLE_U8:
        bits = 8;
        break;
    case PA_SAMPLE_S16LE:
    case PA_SAMPLE_S16BE:
        bits = 16;
        break;
    case PA_SAMPLE_S32LE:
    case PA_SAMPLE_S32BE:
        bits = 32;
        break;
    case PA_SAMPLE_FLOAT32LE:
    case PA_SAMPLE_FLOAT32BE:
        bits = 32;
        format.SubFormat = Ifaces::subFormatIeeeFloat();
        break;
    case PA_SAMPLE_S24LE:
    case PA_SAMPLE_S24BE:
    case PA_SAMPLE_S24_32LE:
    case PA_SAMPLE_S24_32BE:
        bits = 24;
        break;
    case PA_SAMPLE_ALAW:
    case PA_SAMPLE_ULAW:
        // Plain formats of their own, with no extensible form.
        format.Format.wFormatTag = spec.format == PA_SAMPLE_ALAW ? kWaveFormatALaw : kWaveFormatMuLaw;
        format.Format.cbSize = 0;
        format.SubFormat = Ifaces::Guid {};
        bits = 8;
        break;
    default:
        break;
    }
    format.Format.wBitsPerSample = bits;
    format.Format.nBlockAlign = static_cast<std::uint16_t>(spec.channels * bits / 8);
    format.Format.nAvgBytesPerSec = format.Format.nBlockAlign * spec.rate;
    if (format.Format.wFormatTag == Ifaces::WaveFormatTag::Extensible) {
        format.Samples.wValidBitsPerSample = bits;
        format.dwChannelMask = speakerMask(map);
    }
    return format;
}

bool toSampleSpec(const Ifaces::WaveFormatExtensible& format, pa_sample_spec& spec)
{
    bool integer = false;
    bool floating = false;
    switch (format.Format.wFormatTag) {
    case Ifaces::WaveFormatTag::Pcm:
        integer = true;
        break;
    case Ifaces::WaveFormatTag::IeeeFloat:
        floating = true;
        break;
    case Ifaces::WaveFormatTag::Extensible:
        integer = Ifaces::sameGuid(format.SubFormat, Ifaces::subFormatPcm());
        floating = Ifaces::sameGuid(format.SubFormat, Ifaces::subFormatIeeeFloat());
        break;
    case kWaveFormatALaw:
        spec.format = PA_SAMPLE_ALAW;
        break;
    case kWaveFormatMuLaw:
        spec.format = PA_SAMPLE_ULAW;
        break;
    default:
        return false;
    }
    const int bits = format.Format.wBitsPerSample;
    if (integer) {
        switch (bits) {
        case 8:
            spec.format = PA_SAMPLE_U8;
            break;
        case 16:
            spec.format = PA_SAMPLE_S16LE;
            break;
        case 24:
            spec.format = PA_SAMPLE_S24LE;
            break;
        case 32:
            spec.format = PA_SAMPLE_S32LE;
            break;
        default:
            return false;
        }
    } else if (floating) {
        if (bits != 32) {
            return false;
        }
        spec.format = PA_SAMPLE_FLOAT32LE;
    } else if (format.Format.wFormatTag == Ifaces::WaveFormatTag::Extensible) {
        return false;
    }
    spec.rate = format.Format.nSamplesPerSec;
    spec.channels = static_cast<std::uint8_t>(format.Format.nChannels);
    return format.Format.nChannels > 0 && format.Format.nChannels <= PA_CHANNELS_MAX && pa_sample_spec_valid(&spec);
}

pa_channel_map toChannelMap(const Ifaces::WaveFormatExtensible& format)
{
    pa_channel_map map;
    const unsigned int channels = format.Format.nChannels;
    const std::uint32_t mask = format.Format.wFormatTag == Ifaces::WaveFormatTag::Extensible ? format.dwChannelMask : 0;
    if (mask != 0 && std::bitset<32>(mask).count() == channels) {
        pa_channel_map_init(&map);
        for (int bit = 0; bit < kSpeakerCount; ++bit) {
            if (mask & (1u << bit)) {
                map.map[map.channels++] = kSpeakerPositions[bit];
            }
        }
        if (map.channels == channels) {
            return map;
        }
    }
    if (channels == 1) {
        pa_channel_map_init_mono(&map);
    } else if (!pa_channel_map_init_extend(&map, channels, PA_CHANNEL_MAP_WAVEEX)) {
        pa_channel_map_init(&map);
    }
    return map;
}

} // namespace Pulse
} // namespace Orvanta
