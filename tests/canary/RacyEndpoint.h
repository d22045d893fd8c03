#pragma once

#include "fakes/FakeDevice.h"

#include <functional>
#include <map>
#include <memory>
#include <string>

// Endpoint ports whose methods run a hook on whatever thread the library
// calls them from. The racing program puts an unguarded write in the hook.

namespace Canary {

using namespace Orvanta::Ifaces;

using Hook = std::function<void()>;

/// A stream that never has a packet: every poll of the capture loop runs the hook.
class PollingCapture : public EndpointCapture
{
public:
    explicit PollingCapture(Hook onPoll)
        : onPoll(std::move(onPoll))
    {
    }

    long nextPacketSize(std::uint32_t* frames) override
    {
        onPoll();
        *frames = 0;
        return S_OK;
    }
    long getBuffer(const std::uint8_t** data, std::uint32_t* frames, std::uint32_t* flags) override
    {
        *data = nullptr;
        *frames = 0;
        *flags = 0;
        return AUDCLNT_S_BUFFER_EMPTY;
    }
    long releaseBuffer(std::uint32_t) override
    {
        return S_OK;
    }

private:
    Hook onPoll;
};

class PollingStream : public Fakes::FakeStream
{
public:
    PollingStream(std::shared_ptr<Fakes::StreamScript> script, Hook onPoll)
        : FakeStream(std::move(script))
        , onPoll(std::move(onPoll))
    {
    }

    long captureClient(std::unique_ptr<EndpointCapture>& capture) override
    {
        capture = std::make_unique<PollingCapture>(onPoll);
        return S_OK;
    }

private:
    Hook onPoll;
};

/// An active output endpoint whose stream polls run @p onPoll and whose
/// name lookups run @p onName. Each endpoint has its own script and meter,
/// so that two capture threads share no lock through them.
class HookedEndpoint : public Fakes::FakeEndpoint
{
public:
    HookedEndpoint(const std::string& id, Hook onPoll, Hook onName = {})
        : FakeEndpoint(id, DataFlow::Render)
        , onName(std::move(onName))
    {
        auto script = std::make_shared<Fakes::StreamScript>();
        script->mixFormat = Fakes::pcm16Stereo();
        auto meter = std::make_shared<Fakes::FakeMeter>();
        activations.stream = [script, onPoll](std::unique_ptr<EndpointStream>& stream) {
            stream = std::make_unique<PollingStream>(script, onPoll);
            return S_OK;
        };
        activations.volume = [meter](std::shared_ptr<EndpointMeter>& volume) {
            volume = meter;
            return S_OK;
        };
        activations.meter = [meter](std::shared_ptr<EndpointMeter>& out) {
            out = meter;
            return S_OK;
        };
    }

    long friendlyName(std::string& out) const override
    {
        if (onName) {
            onName();
        }
        return FakeEndpoint::friendlyName(out);
    }

private:
    Hook onName;
};

/// A fixed set of endpoints; looking one up by identifier runs @p onLookup.
class HookedWatcher : public EndpointWatcher
{
public:
    explicit HookedWatcher(Hook onLookup = {})
        : onLookup(std::move(onLookup))
    {
    }

    void add(std::shared_ptr<HookedEndpoint> endpoint)
    {
        endpoints[endpoint->endpointId] = std::move(endpoint);
    }

    long initializeThread() override
    {
        return S_OK;
    }
    void uninitializeThread() override
    {
    }
    long open() override
    {
        return S_OK;
    }
    long activeEndpoints(std::unique_ptr<EndpointCollection>& out) override
    {
        auto collection = std::make_unique<Fakes::FakeCollection>();
        for (const auto& entry : endpoints) {
            collection->items.push_back(entry.second);
        }
        out = std::move(collection);
        return S_OK;
    }
    long defaultEndpoint(DataFlow, DeviceRole, std::shared_ptr<AudioEndpoint>&) override
    {
        return E_NOTFOUND;
    }
    long endpoint(const std::string& id, std::shared_ptr<AudioEndpoint>& out) override
    {
        if (onLookup) {
            onLookup();
        }
        const auto it = endpoints.find(id);
        if (it == endpoints.end()) {
            return E_NOTFOUND;
        }
        out = it->second;
        return S_OK;
    }
    long registerNotifications(EndpointNotifications) override
    {
        return S_OK;
    }
    long unregisterNotifications() override
    {
        return S_OK;
    }

private:
    Hook onLookup;
    std::map<std::string, std::shared_ptr<HookedEndpoint>> endpoints;
};

} // namespace Canary
