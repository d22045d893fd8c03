#include "WasapiEndpointWatcher.h"

#include "WasapiEndpoint.h"

#include <atomic>
#include <mutex>

using Microsoft::WRL::ComPtr;

namespace Orvanta {

std::shared_ptr<Ifaces::EndpointWatcher> createPlatformEndpointWatcher()
{
    return std::make_shared<Wasapi::EndpointWatcher>();
}

namespace Wasapi {

/**
 * The callback object registered with the device enumerator. It hands each
 * notification to the receivers at once; they only copy and queue. The lock
 * is held only around a receiver's call, so that no receiver runs once the
 * notifications are taken away.
 */
class NotificationClient : public IMMNotificationClient
{
public:
    explicit NotificationClient(Ifaces::EndpointNotifications notifications)
        : m_notifications(std::move(notifications))
    {
    }

    void clear()
    {
        std::lock_guard<std::mutex> locker(m_lock);
        m_notifications = Ifaces::EndpointNotifications();
    }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override
    {
        if (!object) {
            return E_POINTER;
        }
        if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, kIidMMNotificationClient)) {
            *object = static_cast<IMMNotificationClient*>(this);
            AddRef();
            return S_OK;
        }
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override
    {
        return ++m_refCount;
    }
    ULONG STDMETHODCALLTYPE Release() override
    {
        const ULONG count = --m_refCount;
        if (count == 0) {
            delete this;
        }
        return count;
    }

    HRESULT STDMETHODCALLTYPE OnDeviceStateChanged(LPCWSTR id, DWORD newState) override
    {
        std::lock_guard<std::mutex> locker(m_lock);
        if (m_notifications.deviceStateChanged) {
            m_notifications.deviceStateChanged(toUtf8(id), newState);
        }
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE OnDeviceAdded(LPCWSTR id) override
    {
        std::lock_guard<std::mutex> locker(m_lock);
        if (m_notifications.deviceAdded) {
            m_notifications.deviceAdded(toUtf8(id));
        }
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE OnDeviceRemoved(LPCWSTR id) override
    {
        std::lock_guard<std::mutex> locker(m_lock);
        if (m_notifications.deviceRemoved) {
            m_notifications.deviceRemoved(toUtf8(id));
        }
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE OnDefaultDeviceChanged(EDataFlow flow, ERole role, LPCWSTR id) override
    {
        std::lock_guard<std::mutex> locker(m_lock);
        if (m_notifications.defaultDeviceChanged) {
            m_notifications.defaultDeviceChanged(
                static_cast<Ifaces::DataFlow>(flow), static_cast<Ifaces::DeviceRole>(role), toUtf8(id));
        }
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE OnPropertyValueChanged(LPCWSTR id, const PROPERTYKEY) override
    {
        std::lock_guard<std::mutex> locker(m_lock);
        if (m_notifications.propertyValueChanged) {
            m_notifications.propertyValueChanged(toUtf8(id));
        }
        return S_OK;
    }

private:
    virtual ~NotificationClient() = default;

    std::atomic<ULONG> m_refCount {1};
    std::mutex m_lock;
    Ifaces::EndpointNotifications m_notifications;
};

namespace {

class DeviceCollection : public Ifaces::EndpointCollection
{
public:
    explicit DeviceCollection(ComPtr<IMMDeviceCollection> collection)
        : m_collection(std::move(collection))
    {
    }

    long count(unsigned int& count) const override
    {
        UINT value = 0;
        const HRESULT hr = m_collection->GetCount(&value);
        if (SUCCEEDED(hr)) {
            count = value;
        }
        return hr;
    }

    long item(unsigned int index, std::shared_ptr<Ifaces::AudioEndpoint>& endpoint) const override
    {
        ComPtr<IMMDevice> device;
        const HRESULT hr = m_collection->Item(index, device.GetAddressOf());
        if (SUCCEEDED(hr)) {
            endpoint = std::make_shared<Endpoint>(std::move(device));
        }
        return hr;
    }

private:
    ComPtr<IMMDeviceCollection> m_collection;
};

} // namespace

EndpointWatcher::EndpointWatcher() = default;

EndpointWatcher::~EndpointWatcher()
{
    unregisterNotifications();
}

long EndpointWatcher::initializeThread()
{
    return CoInitializeEx(nullptr, COINIT_MULTITHREADED);
}

void EndpointWatcher::uninitializeThread()
{
    CoUninitialize();
}

long EndpointWatcher::open()
{
    return CoCreateInstance(kClsidMMDeviceEnumerator, nullptr, CLSCTX_ALL, kIidMMDeviceEnumerator,
        reinterpret_cast<void**>(m_enumerator.ReleaseAndGetAddressOf()));
}

long EndpointWatcher::activeEndpoints(std::unique_ptr<Ifaces::EndpointCollection>& endpoints)
{
    ComPtr<IMMDeviceCollection> collection;
    const HRESULT hr = m_enumerator->EnumAudioEndpoints(eAll, DEVICE_STATE_ACTIVE, collection.GetAddressOf());
    if (SUCCEEDED(hr)) {
        endpoints = std::make_unique<DeviceCollection>(std::move(collection));
    }
    return hr;
}

long EndpointWatcher::defaultEndpoint(
    Ifaces::DataFlow flow, Ifaces::DeviceRole role, std::shared_ptr<Ifaces::AudioEndpoint>& endpoint)
{
    ComPtr<IMMDevice> device;
    const HRESULT hr = m_enumerator->GetDefaultAudioEndpoint(
        static_cast<EDataFlow>(flow), static_cast<ERole>(role), device.GetAddressOf());
    if (SUCCEEDED(hr)) {
        endpoint = std::make_shared<Endpoint>(std::move(device));
    }
    return hr;
}

long EndpointWatcher::endpoint(const std::string& id, std::shared_ptr<Ifaces::AudioEndpoint>& endpoint)
{
    ComPtr<IMMDevice> device;
    const std::wstring wide = toWide(id);
    const HRESULT hr = m_enumerator->GetDevice(wide.c_str(), device.GetAddressOf());
    if (SUCCEEDED(hr)) {
        endpoint = std::make_shared<Endpoint>(std::move(device));
    }
    return hr;
}

long EndpointWatcher::registerNotifications(Ifaces::EndpointNotifications notifications)
{
    unregisterNotifications();
    auto* client = new NotificationClient(std::move(notifications));
    const HRESULT hr = m_enumerator->RegisterEndpointNotificationCallback(client);
    if (FAILED(hr)) {
        client->Release();
        return hr;
    }
    m_client = client;
    return hr;
}

long EndpointWatcher::unregisterNotifications()
{
    if (!m_client) {
        return S_OK;
    }
    const HRESULT hr = m_enumerator->UnregisterEndpointNotificationCallback(m_client);
    m_client->clear();
    m_client->Release();
    m_client = nullptr;
    return hr;
}

} // namespace Wasapi
} // namespace Orvanta
