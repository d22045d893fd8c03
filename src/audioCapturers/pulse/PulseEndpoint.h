#pragma once

#include "ifaces/AudioEndpoint.h"

#include <memory>
#include <string>

namespace Orvanta {
namespace Pulse {

class PeakLevels;
class ServerConnection;

/**
 * An endpoint of the sound server: a sink (an output, recorded through its
 * monitor source) or a source that is not a monitor (an input). The sink or
 * source name is the identifier.
 */
class Endpoint : public Ifaces::AudioEndpoint
{
public:
    Endpoint(std::shared_ptr<ServerConnection> connection, std::string name, Ifaces::DataFlow flow);

    long id(std::string& id) const override;
    long state(unsigned long& state) const override;
    long dataFlow(Ifaces::DataFlow& flow) const override;
    long friendlyName(std::string& name) const override;
    long activateStream(std::unique_ptr<Ifaces::EndpointStream>& stream) override;
    long activateVolume(std::shared_ptr<Ifaces::EndpointMeter>& volume) override;
    long activateMeter(std::shared_ptr<Ifaces::EndpointMeter>& meter) override;

private:
    std::shared_ptr<ServerConnection> m_connection;
    std::string m_name;
    Ifaces::DataFlow m_flow;
    std::shared_ptr<PeakLevels> m_levels;
};

} // namespace Pulse
} // namespace Orvanta
