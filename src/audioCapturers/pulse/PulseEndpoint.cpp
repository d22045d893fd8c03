#include "PulseEndpoint.h"

#include "PulseEndpointMeter.h"
#include "PulseEndpointStream.h"
#include "ResultCodes.h"
#include "ServerConnection.h"

namespace Orvanta {
namespace Pulse {

Endpoint::Endpoint(std::shared_ptr<ServerConnection> connection, std::string name, Ifaces::DataFlow flow)
    : m_connection(std::move(connection))
    , m_name(std::move(name))
    , m_flow(flow)
    , m_levels(std::make_shared<PeakLevels>())
{
}

long Endpoint::id(std::string& id) const
{
    id = m_name;
    return S_OK;
}

long Endpoint::state(unsigned long& state) const
{
    // Absent from the server, or no server at all, reads as "not present".
    bool present = false;
    if (m_flow == Ifaces::DataFlow::Capture) {
        std::vector<SourceRecord> records;
        present = m_connection->sources(m_name, records) >= 0 && !records.empty();
    } else {
        std::vector<SinkRecord> records;
        present = m_connection->sinks(m_name, records) >= 0 && !records.empty();
    }
    state = present ? Ifaces::DeviceStateActive : Ifaces::DeviceStateNotPresent;
    return S_OK;
}

long Endpoint::dataFlow(Ifaces::DataFlow& flow) const
{
    flow = m_flow;
    return S_OK;
}

long Endpoint::friendlyName(std::string& name) const
{
    long hr = S_OK;
    std::string description;
    if (m_flow == Ifaces::DataFlow::Capture) {
        std::vector<SourceRecord> records;
        hr = m_connection->sources(m_name, records);
        if (hr >= 0 && !records.empty()) {
            description = records.front().description;
        } else if (hr >= 0) {
            hr = E_NOTFOUND;
        }
    } else {
        std::vector<SinkRecord> records;
        hr = m_connection->sinks(m_name, records);
        if (hr >= 0 && !records.empty()) {
            description = records.front().description;
        } else if (hr >= 0) {
            hr = E_NOTFOUND;
        }
    }
    if (hr >= 0) {
        name = description;
    }
    return hr;
}

long Endpoint::activateStream(std::unique_ptr<Ifaces::EndpointStream>& stream)
{
    stream = std::make_unique<EndpointStream>(m_connection, m_name, m_flow, m_levels);
    return S_OK;
}

long Endpoint::activateVolume(std::shared_ptr<Ifaces::EndpointMeter>& volume)
{
    volume = std::make_shared<EndpointMeter>(m_connection, m_name, m_flow, m_levels);
    return S_OK;
}

long Endpoint::activateMeter(std::shared_ptr<Ifaces::EndpointMeter>& meter)
{
    // The peaks come from the samples of this endpoint's stream.
    meter = std::make_shared<EndpointMeter>(m_connection, m_name, m_flow, m_levels);
    return S_OK;
}

} // namespace Pulse
} // namespace Orvanta
