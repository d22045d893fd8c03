#pragma once

#include "WasapiCompat.h"
#include "ifaces/EndpointStream.h"

#include <wrl/client.h>

namespace Orvanta {
namespace Wasapi {

/// An IAudioClient in shared mode, polled through its IAudioCaptureClient.
class EndpointStream : public Ifaces::EndpointStream
{
public:
    explicit EndpointStream(Microsoft::WRL::ComPtr<IAudioClient> client);

    long mixFormat(Ifaces::WaveFormatExtensible& format) override;
    long initialize(
        const Ifaces::WaveFormatExtensible& format, std::uint32_t flags, std::int64_t bufferDuration) override;
    long captureClient(std::unique_ptr<Ifaces::EndpointCapture>& capture) override;
    long start() override;
    long stop() override;
    long initializeThread() override;
    void uninitializeThread() override;

private:
    Microsoft::WRL::ComPtr<IAudioClient> m_client;
};

} // namespace Wasapi
} // namespace Orvanta
