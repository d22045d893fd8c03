#include "WasapiEndpointStream.h"

#include <cstring>

using Microsoft::WRL::ComPtr;

namespace Orvanta {
namespace Wasapi {

namespace {

class CaptureClient : public Ifaces::EndpointCapture
{
public:
    explicit CaptureClient(ComPtr<IAudioCaptureClient> client)
        : m_client(std::move(client))
    {
    }

    long nextPacketSize(std::uint32_t* frames) override
    {
        UINT32 value = 0;
        const HRESULT hr = m_client->GetNextPacketSize(&value);
        *frames = SUCCEEDED(hr) ? value : 0;
        return hr;
    }

    long getBuffer(const std::uint8_t** data, std::uint32_t* frames, std::uint32_t* flags) override
    {
        BYTE* bytes = nullptr;
        UINT32 count = 0;
        DWORD bufferFlags = 0;
        const HRESULT hr = m_client->GetBuffer(&bytes, &count, &bufferFlags, nullptr, nullptr);
        if (SUCCEEDED(hr)) {
            *data = bytes;
            *frames = count;
            *flags = bufferFlags;
        }
        return hr;
    }

    long releaseBuffer(std::uint32_t frames) override
    {
        return m_client->ReleaseBuffer(frames);
    }

private:
    ComPtr<IAudioCaptureClient> m_client;
};

} // namespace

EndpointStream::EndpointStream(ComPtr<IAudioClient> client)
    : m_client(std::move(client))
{
}

long EndpointStream::mixFormat(Ifaces::WaveFormatExtensible& format)
{
    WAVEFORMATEX* mix = nullptr;
    const HRESULT hr = m_client->GetMixFormat(&mix);
    if (FAILED(hr)) {
        return hr;
    }
    format = WAVEFORMATEXTENSIBLE {};
    const std::size_t size
        = mix->wFormatTag == WAVE_FORMAT_EXTENSIBLE ? sizeof(WAVEFORMATEXTENSIBLE) : sizeof(WAVEFORMATEX);
    std::memcpy(&format, mix, size);
    CoTaskMemFree(mix);
    return S_OK;
}

long EndpointStream::initialize(
    const Ifaces::WaveFormatExtensible& format, std::uint32_t flags, std::int64_t bufferDuration)
{
    return m_client->Initialize(
        AUDCLNT_SHAREMODE_SHARED, flags, bufferDuration, 0, reinterpret_cast<const WAVEFORMATEX*>(&format), nullptr);
}

long EndpointStream::captureClient(std::unique_ptr<Ifaces::EndpointCapture>& capture)
{
    ComPtr<IAudioCaptureClient> client;
    const HRESULT hr = m_client->GetService(kIidAudioCaptureClient, reinterpret_cast<void**>(client.GetAddressOf()));
    if (SUCCEEDED(hr)) {
        capture = std::make_unique<CaptureClient>(std::move(client));
    }
    return hr;
}

long EndpointStream::start()
{
    return m_client->Start();
}

long EndpointStream::stop()
{
    return m_client->Stop();
}

long EndpointStream::initializeThread()
{
    return CoInitializeEx(nullptr, COINIT_MULTITHREADED);
}

void EndpointStream::uninitializeThread()
{
    CoUninitialize();
}

} // namespace Wasapi
} // namespace Orvanta
