#include "PulseEndpointMeter.h"

#include "ResultCodes.h"
#include "ServerConnection.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace Orvanta {
namespace Pulse {

namespace {

template <class Sample> Sample readSample(const std::uint8_t* at)
{
    Sample value;
    std::memcpy(&value, at, sizeof(Sample));
    return value;
}

// Magnitude of one sample as a fraction of full scale.
float magnitude(const std::uint8_t* at, bool floating, int bits)
{
    if (floating) {
        return std::fabs(readSample<float>(at));
    }
    switch (bits) {
    case 8:
        return std::fabs((static_cast<int>(*at) - 128) / 128.0f);
    case 16:
        return std::fabs(readSample<std::int16_t>(at) / 32768.0f);
    case 24: {
        const std::int32_t value = static_cast<std::int32_t>(static_cast<std::uint32_t>(at[0]) << 8
            | static_cast<std::uint32_t>(at[1]) << 16 | static_cast<std::uint32_t>(at[2]) << 24);
        return std::fabs((value >> 8) / 8388608.0f);
    }
    case 32:
        return std::fabs(static_cast<float>(readSample<std::int32_t>(at) / 2147483648.0));
    default:
        return 0.0f;
    }
}

} // namespace

void PeakLevels::measure(const std::uint8_t* data, std::uint32_t frames, const Ifaces::WaveFormatExtensible& format)
{
    const int channels = format.Format.nChannels;
    const int bits = format.Format.wBitsPerSample;
    const bool floating = format.Format.wFormatTag == Ifaces::WaveFormatTag::IeeeFloat
        || (format.Format.wFormatTag == Ifaces::WaveFormatTag::Extensible
            && Ifaces::sameGuid(format.SubFormat, Ifaces::subFormatIeeeFloat()));
    const int sampleBytes = bits / 8;
    if (!data || channels == 0 || sampleBytes == 0) {
        return;
    }
    std::lock_guard<std::mutex> locker(m_lock);
    if (m_peaks.size() < static_cast<std::size_t>(channels)) {
        m_peaks.resize(channels, 0.0f);
    }
    const std::uint8_t* at = data;
    for (std::uint32_t frame = 0; frame < frames; ++frame) {
        for (int channel = 0; channel < channels; ++channel) {
            m_peaks[channel] = std::max(m_peaks[channel], std::min(1.0f, magnitude(at, floating, bits)));
            at += sampleBytes;
        }
    }
}

void PeakLevels::take(std::uint32_t count, float* peaks)
{
    std::lock_guard<std::mutex> locker(m_lock);
    for (std::uint32_t i = 0; i < count; ++i) {
        peaks[i] = i < m_peaks.size() ? m_peaks[i] : 0.0f;
    }
    std::fill(m_peaks.begin(), m_peaks.end(), 0.0f);
}

EndpointMeter::EndpointMeter(std::shared_ptr<ServerConnection> connection, std::string name, Ifaces::DataFlow flow,
    std::shared_ptr<PeakLevels> levels)
    : m_connection(std::move(connection))
    , m_name(std::move(name))
    , m_flow(flow)
    , m_levels(std::move(levels))
{
}

long EndpointMeter::deviceVolume(pa_cvolume& volume, std::uint32_t& channels) const
{
    DeviceFormat format;
    const long hr = m_connection->deviceFormat(m_name, m_flow == Ifaces::DataFlow::Capture, format);
    if (hr < 0) {
        return hr;
    }
    volume = format.volume;
    channels = format.sampleSpec.channels;
    return S_OK;
}

long EndpointMeter::masterVolumeLevelScalar(float* level)
{
    pa_cvolume volume {};
    std::uint32_t channels = 0;
    const long hr = deviceVolume(volume, channels);
    if (hr < 0) {
        return hr;
    }
    // The linear gain, not the slider's position: PulseAudio and PipeWire's
    // pipewire-pulse both keep volumes on PulseAudio's cubic scale (50 % on
    // the slider is a gain of 0.125) and both record a sink's monitor after
    // its volume, so the gain is the factor that the spectrum's correction
    // must divide out. Its threshold of 0.01 then falls at 21.5 % of the slider.
    const double linear = pa_sw_volume_to_linear(pa_cvolume_avg(&volume));
    *level = static_cast<float>(std::min(1.0, std::max(0.0, linear)));
    return S_OK;
}

long EndpointMeter::meteringChannelCount(std::uint32_t* count)
{
    pa_cvolume volume {};
    std::uint32_t channels = 0;
    const long hr = deviceVolume(volume, channels);
    if (hr >= 0) {
        *count = channels;
    }
    return hr;
}

long EndpointMeter::channelsPeakValues(std::uint32_t count, float* peaks)
{
    if (!peaks) {
        return E_POINTER;
    }
    m_levels->take(count, peaks);
    return S_OK;
}

} // namespace Pulse
} // namespace Orvanta
