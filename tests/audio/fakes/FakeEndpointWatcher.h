#pragma once

#include "ResultCodes.h"
#include "ifaces/AudioEndpoint.h"
#include "ifaces/EndpointWatcher.h"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Fakes {

using namespace Orvanta::Ifaces;

/// Builds the activations of a fake endpoint; tests that open streams set it.
struct EndpointActivations
{
    std::function<long(std::unique_ptr<EndpointStream>&)> stream;
    std::function<long(std::shared_ptr<EndpointMeter>&)> volume;
    std::function<long(std::shared_ptr<EndpointMeter>&)> meter;
};

/// A scripted endpoint: every answer is a field that the test sets.
class FakeEndpoint : public AudioEndpoint
{
public:
    FakeEndpoint(std::string id, DataFlow flow, unsigned long state = DeviceStateActive)
        : endpointId(std::move(id))
        , flow(flow)
        , endpointState(state)
        , name("Fake " + endpointId)
    {
    }

    long id(std::string& out) const override
    {
        if (idResult >= 0) {
            out = endpointId;
        }
        return idResult;
    }
    long state(unsigned long& out) const override
    {
        if (stateResult >= 0) {
            out = endpointState;
        }
        return stateResult;
    }
    long dataFlow(DataFlow& out) const override
    {
        if (dataFlowResult >= 0) {
            out = flow;
        }
        return dataFlowResult;
    }
    long friendlyName(std::string& out) const override
    {
        if (nameResult >= 0) {
            out = name;
        }
        return nameResult;
    }
    long activateStream(std::unique_ptr<EndpointStream>& stream) override
    {
        return activations.stream ? activations.stream(stream) : E_NOINTERFACE;
    }
    long activateVolume(std::shared_ptr<EndpointMeter>& volume) override
    {
        return activations.volume ? activations.volume(volume) : E_NOINTERFACE;
    }
    long activateMeter(std::shared_ptr<EndpointMeter>& meter) override
    {
        return activations.meter ? activations.meter(meter) : E_NOINTERFACE;
    }

    std::string endpointId;
    DataFlow flow;
    unsigned long endpointState;
    std::string name;
    long idResult = S_OK;
    long stateResult = S_OK;
    long dataFlowResult = S_OK;
    long nameResult = S_OK;
    EndpointActivations activations;
};

class FakeCollection : public EndpointCollection
{
public:
    long count(unsigned int& out) const override
    {
        out = static_cast<unsigned int>(items.size());
        return S_OK;
    }
    long item(unsigned int index, std::shared_ptr<AudioEndpoint>& out) const override
    {
        if (index < itemResults.size() && itemResults[index] < 0) {
            return itemResults[index];
        }
        out = items.at(index);
        return S_OK;
    }

    std::vector<std::shared_ptr<AudioEndpoint>> items;
    std::vector<long> itemResults;
};

/**
 * The platform's endpoint list, scripted. Endpoints listed in `endpoints` are
 * what the platform knows; those active among them are enumerated. Notifications
 * are delivered from a thread of their own, like the platform's.
 */
class FakeEndpointWatcher : public EndpointWatcher
{
public:
    std::shared_ptr<FakeEndpoint> add(const std::string& id, DataFlow flow, unsigned long state = DeviceStateActive)
    {
        std::lock_guard<std::mutex> locker(lock);
        auto endpoint = std::make_shared<FakeEndpoint>(id, flow, state);
        endpoints[id] = endpoint;
        order.push_back(id);
        return endpoint;
    }
    void remove(const std::string& id)
    {
        std::lock_guard<std::mutex> locker(lock);
        endpoints.erase(id);
    }

    long initializeThread() override
    {
        ++threadInitialisations;
        return S_OK;
    }
    void uninitializeThread() override
    {
        ++threadUninitialisations;
    }
    long open() override
    {
        ++openCalls;
        return openResult;
    }
    long activeEndpoints(std::unique_ptr<EndpointCollection>& out) override
    {
        if (enumResult < 0) {
            return enumResult;
        }
        std::lock_guard<std::mutex> locker(lock);
        auto collection = std::make_unique<FakeCollection>();
        for (const std::string& id : order) {
            const auto it = endpoints.find(id);
            if (it != endpoints.end() && it->second->endpointState == DeviceStateActive) {
                collection->items.push_back(it->second);
            }
        }
        collection->itemResults = itemResults;
        out = std::move(collection);
        return S_OK;
    }
    long defaultEndpoint(DataFlow flow, DeviceRole, std::shared_ptr<AudioEndpoint>& out) override
    {
        std::lock_guard<std::mutex> locker(lock);
        const std::string& id = flow == DataFlow::Capture ? defaultCapture : defaultRender;
        const auto it = endpoints.find(id);
        if (id.empty() || it == endpoints.end()) {
            return E_NOTFOUND;
        }
        out = it->second;
        return S_OK;
    }
    long endpoint(const std::string& id, std::shared_ptr<AudioEndpoint>& out) override
    {
        std::lock_guard<std::mutex> locker(lock);
        ++lookups;
        if (lookups == failLookupNumber) {
            return lookupFailure;
        }
        const auto it = endpoints.find(id);
        if (it == endpoints.end()) {
            return E_NOTFOUND;
        }
        out = it->second;
        return S_OK;
    }
    long registerNotifications(EndpointNotifications receivers) override
    {
        // Changes made here reach no receiver: the platform has not been
        // told of one yet.
        if (beforeRegistration) {
            beforeRegistration();
        }
        std::lock_guard<std::mutex> locker(lock);
        if (registerResult >= 0) {
            notifications = std::move(receivers);
            registered = true;
        }
        return registerResult;
    }
    long unregisterNotifications() override
    {
        std::lock_guard<std::mutex> locker(lock);
        notifications = EndpointNotifications();
        registered = false;
        ++unregisterCalls;
        return S_OK;
    }

    // Delivery, each from a new thread that is joined before returning.
    void notifyState(const std::string& id, unsigned long state)
    {
        deliver([&](EndpointNotifications& n) {
            if (n.deviceStateChanged) {
                n.deviceStateChanged(id, state);
            }
        });
    }
    void notifyDefault(DataFlow flow, DeviceRole role, const std::string& id)
    {
        deliver([&](EndpointNotifications& n) {
            if (n.defaultDeviceChanged) {
                n.defaultDeviceChanged(flow, role, id);
            }
        });
    }
    void notifyAdded(const std::string& id)
    {
        deliver([&](EndpointNotifications& n) {
            if (n.deviceAdded) {
                n.deviceAdded(id);
            }
        });
    }
    void notifyRemoved(const std::string& id)
    {
        deliver([&](EndpointNotifications& n) {
            if (n.deviceRemoved) {
                n.deviceRemoved(id);
            }
        });
    }
    void notifyProperty(const std::string& id)
    {
        deliver([&](EndpointNotifications& n) {
            if (n.propertyValueChanged) {
                n.propertyValueChanged(id);
            }
        });
    }

    bool isRegistered()
    {
        std::lock_guard<std::mutex> locker(lock);
        return registered;
    }

    /// Runs as the receivers are registered, before they can be called.
    std::function<void()> beforeRegistration;
    long openResult = S_OK;
    long enumResult = S_OK;
    long registerResult = S_OK;
    std::vector<long> itemResults;
    /// The n-th call of endpoint() (counted from 1) fails with lookupFailure.
    int failLookupNumber = 0;
    long lookupFailure = E_FAIL;
    std::string defaultRender;
    std::string defaultCapture;
    int openCalls = 0;
    int lookups = 0;
    int unregisterCalls = 0;
    int threadInitialisations = 0;
    int threadUninitialisations = 0;

private:
    void deliver(const std::function<void(EndpointNotifications&)>& call)
    {
        std::thread platformThread([&] {
            EndpointNotifications copy;
            {
                std::lock_guard<std::mutex> locker(lock);
                copy = notifications;
            }
            call(copy);
        });
        platformThread.join();
    }

    std::mutex lock;
    std::map<std::string, std::shared_ptr<FakeEndpoint>> endpoints;
    std::vector<std::string> order;
    EndpointNotifications notifications;
    bool registered = false;
};

} // namespace Fakes
