#pragma once

#include "WasapiCompat.h"
#include "ifaces/AudioEndpoint.h"

#include <wrl/client.h>

namespace Orvanta {
namespace Wasapi {

/// An IMMDevice as an endpoint.
class Endpoint : public Ifaces::AudioEndpoint
{
public:
    explicit Endpoint(Microsoft::WRL::ComPtr<IMMDevice> device);

    long id(std::string& id) const override;
    long state(unsigned long& state) const override;
    long dataFlow(Ifaces::DataFlow& flow) const override;
    long friendlyName(std::string& name) const override;
    long activateStream(std::unique_ptr<Ifaces::EndpointStream>& stream) override;
    long activateVolume(std::shared_ptr<Ifaces::EndpointMeter>& volume) override;
    long activateMeter(std::shared_ptr<Ifaces::EndpointMeter>& meter) override;

private:
    Microsoft::WRL::ComPtr<IMMDevice> m_device;
};

} // namespace Wasapi
} // namespace Orvanta
