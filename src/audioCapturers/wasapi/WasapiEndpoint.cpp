#include "WasapiEndpoint.h"

#include "WasapiEndpointMeter.h"
#include "WasapiEndpointStream.h"

using Microsoft::WRL::ComPtr;

namespace Orvanta {
namespace Wasapi {

Endpoint::Endpoint(ComPtr<IMMDevice> device)
    : m_device(std::move(device))
{
}

long Endpoint::id(std::string& id) const
{
    LPWSTR text = nullptr;
    const HRESULT hr = m_device->GetId(&text);
    if (FAILED(hr)) {
        return hr;
    }
    id = toUtf8(text);
    CoTaskMemFree(text);
    return S_OK;
}

long Endpoint::state(unsigned long& state) const
{
    DWORD value = 0;
    const HRESULT hr = m_device->GetState(&value);
    if (SUCCEEDED(hr)) {
        state = value;
    }
    return hr;
}

long Endpoint::dataFlow(Ifaces::DataFlow& flow) const
{
    ComPtr<IMMEndpoint> endpoint;
    HRESULT hr = m_device->QueryInterface(kIidMMEndpoint, reinterpret_cast<void**>(endpoint.GetAddressOf()));
    if (FAILED(hr)) {
        return hr;
    }
    EDataFlow value = eRender;
    hr = endpoint->GetDataFlow(&value);
    if (SUCCEEDED(hr)) {
        flow = static_cast<Ifaces::DataFlow>(value);
    }
    return hr;
}

long Endpoint::friendlyName(std::string& name) const
{
    ComPtr<IPropertyStore> store;
    HRESULT hr = m_device->OpenPropertyStore(STGM_READ, store.GetAddressOf());
    if (FAILED(hr)) {
        return hr;
    }
    PROPVARIANT value;
    PropVariantInit(&value);
    hr = store->GetValue(PKEY_Device_FriendlyName, &value);
    if (SUCCEEDED(hr)) {
        name = value.vt == VT_LPWSTR ? toUtf8(value.pwszVal) : std::string();
    }
    PropVariantClear(&value);
    return hr;
}

long Endpoint::activateStream(std::unique_ptr<Ifaces::EndpointStream>& stream)
{
    ComPtr<IAudioClient> client;
    const HRESULT hr
        = m_device->Activate(kIidAudioClient, CLSCTX_ALL, nullptr, reinterpret_cast<void**>(client.GetAddressOf()));
    if (SUCCEEDED(hr)) {
        stream = std::make_unique<EndpointStream>(std::move(client));
    }
    return hr;
}

long Endpoint::activateVolume(std::shared_ptr<Ifaces::EndpointMeter>& volume)
{
    ComPtr<IAudioEndpointVolume> endpointVolume;
    const HRESULT hr = m_device->Activate(
        kIidAudioEndpointVolume, CLSCTX_ALL, nullptr, reinterpret_cast<void**>(endpointVolume.GetAddressOf()));
    if (SUCCEEDED(hr)) {
        volume = std::make_shared<EndpointMeter>(std::move(endpointVolume), nullptr);
    }
    return hr;
}

long Endpoint::activateMeter(std::shared_ptr<Ifaces::EndpointMeter>& meter)
{
    ComPtr<IAudioMeterInformation> meterInformation;
    const HRESULT hr = m_device->Activate(
        kIidAudioMeterInformation, CLSCTX_ALL, nullptr, reinterpret_cast<void**>(meterInformation.GetAddressOf()));
    if (SUCCEEDED(hr)) {
        meter = std::make_shared<EndpointMeter>(nullptr, std::move(meterInformation));
    }
    return hr;
}

} // namespace Wasapi
} // namespace Orvanta
