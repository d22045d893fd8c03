#include "WasapiEndpointMeter.h"

namespace Orvanta {
namespace Wasapi {

EndpointMeter::EndpointMeter(
    Microsoft::WRL::ComPtr<IAudioEndpointVolume> volume, Microsoft::WRL::ComPtr<IAudioMeterInformation> meter)
    : m_volume(std::move(volume))
    , m_meter(std::move(meter))
{
}

long EndpointMeter::masterVolumeLevelScalar(float* level)
{
    return m_volume ? m_volume->GetMasterVolumeLevelScalar(level) : E_NOINTERFACE;
}

long EndpointMeter::meteringChannelCount(std::uint32_t* count)
{
    if (!m_meter) {
        return E_NOINTERFACE;
    }
    UINT channels = 0;
    const HRESULT hr = m_meter->GetMeteringChannelCount(&channels);
    if (SUCCEEDED(hr)) {
        *count = channels;
    }
    return hr;
}

long EndpointMeter::channelsPeakValues(std::uint32_t count, float* peaks)
{
    return m_meter ? m_meter->GetChannelsPeakValues(count, peaks) : E_NOINTERFACE;
}

} // namespace Wasapi
} // namespace Orvanta
