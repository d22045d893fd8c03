#pragma once

#include "WasapiCompat.h"
#include "ifaces/EndpointWatcher.h"

#include <wrl/client.h>

namespace Orvanta {
namespace Wasapi {

class NotificationClient;

/// IMMDeviceEnumerator and its notification callback behind the watcher port.
class EndpointWatcher : public Ifaces::EndpointWatcher
{
public:
    EndpointWatcher();
    ~EndpointWatcher() override;

    long initializeThread() override;
    void uninitializeThread() override;
    long open() override;
    long activeEndpoints(std::unique_ptr<Ifaces::EndpointCollection>& endpoints) override;
    long defaultEndpoint(
        Ifaces::DataFlow flow, Ifaces::DeviceRole role, std::shared_ptr<Ifaces::AudioEndpoint>& endpoint) override;
    long endpoint(const std::string& id, std::shared_ptr<Ifaces::AudioEndpoint>& endpoint) override;
    long registerNotifications(Ifaces::EndpointNotifications notifications) override;
    long unregisterNotifications() override;

private:
    Microsoft::WRL::ComPtr<IMMDeviceEnumerator> m_enumerator;
    NotificationClient* m_client = nullptr;
};

} // namespace Wasapi
} // namespace Orvanta
