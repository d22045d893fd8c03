#pragma once

#include "AudioEndpoint.h"

#include <functional>
#include <memory>
#include <string>

namespace Orvanta {
namespace Ifaces {

/// A snapshot of endpoints, walked by index.
class EndpointCollection
{
public:
    virtual ~EndpointCollection() = default;

    virtual long count(unsigned int& count) const = 0;
    virtual long item(unsigned int index, std::shared_ptr<AudioEndpoint>& endpoint) const = 0;
};

/**
 * Receivers of endpoint notifications. They are called on the platform's own
 * threads and must return at once: copy the arguments and hand the work on.
 * An empty function is not called.
 */
struct EndpointNotifications
{
    std::function<void(const std::string& id, unsigned long newState)> deviceStateChanged;
    std::function<void(const std::string& id)> deviceAdded;
    std::function<void(const std::string& id)> deviceRemoved;
    std::function<void(DataFlow flow, DeviceRole role, const std::string& id)> defaultDeviceChanged;
    std::function<void(const std::string& id)> propertyValueChanged;
};

/**
 * The platform's list of audio endpoints and its change notifications.
 *
 * `open` must succeed before any other operation but the thread set-up.
 * Changes that matter to a consumer arrive as state changes: an endpoint that
 * appears becomes DeviceStateActive, one that goes away DeviceStateNotPresent.
 */
class EndpointWatcher
{
public:
    virtual ~EndpointWatcher() = default;

    /// Prepares the calling thread for endpoint calls (a COM apartment on Windows).
    virtual long initializeThread() = 0;
    virtual void uninitializeThread() = 0;

    /// Connects to the platform's endpoint service.
    virtual long open() = 0;
    /// The endpoints that are active now, of both data flows.
    virtual long activeEndpoints(std::unique_ptr<EndpointCollection>& endpoints) = 0;
    virtual long defaultEndpoint(DataFlow flow, DeviceRole role, std::shared_ptr<AudioEndpoint>& endpoint) = 0;
    /// The endpoint of an identifier; E_NOTFOUND when the platform doesn't know it.
    virtual long endpoint(const std::string& id, std::shared_ptr<AudioEndpoint>& endpoint) = 0;

    /// Starts delivery; replaces earlier receivers.
    virtual long registerNotifications(EndpointNotifications notifications) = 0;
    /// Ends delivery. No receiver is running or will run once this returns.
    virtual long unregisterNotifications() = 0;
};

} // namespace Ifaces

/// The endpoint watcher of the platform the library was built for.
std::shared_ptr<Ifaces::EndpointWatcher> createPlatformEndpointWatcher();

} // namespace Orvanta
