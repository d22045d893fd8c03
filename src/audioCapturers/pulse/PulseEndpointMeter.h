#pragma once

#include "ifaces/AudioEndpoint.h"
#include "ifaces/EndpointMeter.h"
#include "ifaces/WaveFormat.h"

#include <pulse/volume.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Orvanta {
namespace Pulse {

class ServerConnection;

/**
 * Per-channel peaks of what an endpoint's capture stream has carried since
 * they were last read. The stream measures each packet it hands out; the
 * meter takes the values, which starts a new period.
 */
class PeakLevels
{
public:
    void measure(const std::uint8_t* data, std::uint32_t frames, const Ifaces::WaveFormatExtensible& format);
    void take(std::uint32_t count, float* peaks);

private:
    std::mutex m_lock;
    std::vector<float> m_peaks;
};

/**
 * Master volume and peak meter of a sink or input source. The volume is the
 * linear gain of the device's average volume, clamped to 0–1: the monitor
 * already carries the signal after it, so a consumer can undo it.
 */
class EndpointMeter : public Ifaces::EndpointMeter
{
public:
    EndpointMeter(std::shared_ptr<ServerConnection> connection, std::string name, Ifaces::DataFlow flow,
        std::shared_ptr<PeakLevels> levels);

    long masterVolumeLevelScalar(float* level) override;
    long meteringChannelCount(std::uint32_t* count) override;
    long channelsPeakValues(std::uint32_t count, float* peaks) override;

private:
    long deviceVolume(pa_cvolume& volume, std::uint32_t& channels) const;

    std::shared_ptr<ServerConnection> m_connection;
    std::string m_name;
    Ifaces::DataFlow m_flow;
    std::shared_ptr<PeakLevels> m_levels;
};

} // namespace Pulse
} // namespace Orvanta
