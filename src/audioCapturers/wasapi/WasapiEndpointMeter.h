#pragma once

#include "WasapiCompat.h"
#include "ifaces/EndpointMeter.h"

#include <wrl/client.h>

namespace Orvanta {
namespace Wasapi {

/// IAudioEndpointVolume and IAudioMeterInformation behind the meter port;
/// either may be absent, and its readings then fail with E_NOINTERFACE.
class EndpointMeter : public Ifaces::EndpointMeter
{
public:
    EndpointMeter(
        Microsoft::WRL::ComPtr<IAudioEndpointVolume> volume, Microsoft::WRL::ComPtr<IAudioMeterInformation> meter);

    long masterVolumeLevelScalar(float* level) override;
    long meteringChannelCount(std::uint32_t* count) override;
    long channelsPeakValues(std::uint32_t count, float* peaks) override;

private:
    Microsoft::WRL::ComPtr<IAudioEndpointVolume> m_volume;
    Microsoft::WRL::ComPtr<IAudioMeterInformation> m_meter;
};

} // namespace Wasapi
} // namespace Orvanta
