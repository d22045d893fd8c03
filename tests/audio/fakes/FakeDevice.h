#pragma once

#include "FakeEndpointStream.h"
#include "FakeEndpointWatcher.h"

namespace Fakes {

/// Gives @p endpoint a stream run by @p script and, when set, @p meter for
/// volume and peaks; a null meter leaves the endpoint without a peak meter.
inline void attachStream(
    FakeEndpoint& endpoint, std::shared_ptr<StreamScript> script, std::shared_ptr<FakeMeter> meter = {})
{
    endpoint.activations.stream = [script](std::unique_ptr<EndpointStream>& stream) {
        stream = std::make_unique<FakeStream>(script);
        return S_OK;
    };
    endpoint.activations.volume = [meter](std::shared_ptr<EndpointMeter>& volume) {
        volume = meter ? std::shared_ptr<EndpointMeter>(meter) : std::make_shared<FakeMeter>();
        return S_OK;
    };
    endpoint.activations.meter = [meter](std::shared_ptr<EndpointMeter>& out) {
        if (!meter) {
            return E_NOINTERFACE;
        }
        out = meter;
        return S_OK;
    };
}

} // namespace Fakes
