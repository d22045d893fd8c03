#pragma once

#include "ifaces/EndpointWatcher.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace Orvanta {
namespace Pulse {

class ServerConnection;

/**
 * The sound server's sinks and input sources as endpoints.
 *
 * Sinks and sources appearing or going away become "active" and "not present"
 * state changes; a changed default sink or source becomes a default change of
 * the console role. When the server itself goes away every endpoint is
 * reported not present; when it is back, every endpoint is reported active.
 * Monitor sources are no endpoints of their own: they are how sinks are
 * recorded.
 */
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
    // Loop thread, lock held.
    void serverReady();
    void serverLost();
    void serverEvent(std::uint32_t type, std::uint32_t index);
    void refreshDefaults();
    void sinkAppeared(std::uint32_t index, const std::string& name);
    void sourceAppeared(std::uint32_t index, const std::string& name);
    void notifyState(const std::string& id, unsigned long state);
    void notifyDefault(Ifaces::DataFlow flow, const std::string& id);

    std::shared_ptr<ServerConnection> m_connection;
    // False once this object is gone; read and written with the loop's lock held.
    std::shared_ptr<bool> m_alive = std::make_shared<bool>(true);
    Ifaces::EndpointNotifications m_notifications;
    // Names by server index, as removals carry only the index.
    std::map<std::uint32_t, std::string> m_sinks;
    std::map<std::uint32_t, std::string> m_inputs;
    std::string m_defaultSink;
    std::string m_defaultSource;
};

} // namespace Pulse
} // namespace Orvanta
