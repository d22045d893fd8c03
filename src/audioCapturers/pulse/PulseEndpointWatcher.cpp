#include "PulseEndpointWatcher.h"

#include "PulseEndpoint.h"
#include "ResultCodes.h"
#include "ServerConnection.h"

#include <vector>

namespace Orvanta {

std::shared_ptr<Ifaces::EndpointWatcher> createPlatformEndpointWatcher()
{
    return std::make_shared<Pulse::EndpointWatcher>();
}

namespace Pulse {

namespace {

class EndpointList : public Ifaces::EndpointCollection
{
public:
    explicit EndpointList(std::vector<std::shared_ptr<Ifaces::AudioEndpoint>> endpoints)
        : m_endpoints(std::move(endpoints))
    {
    }

    long count(unsigned int& count) const override
    {
        count = static_cast<unsigned int>(m_endpoints.size());
        return S_OK;
    }

    long item(unsigned int index, std::shared_ptr<Ifaces::AudioEndpoint>& endpoint) const override
    {
        if (index >= m_endpoints.size()) {
            return E_INVALIDARG;
        }
        endpoint = m_endpoints[index];
        return S_OK;
    }

private:
    std::vector<std::shared_ptr<Ifaces::AudioEndpoint>> m_endpoints;
};

} // namespace

EndpointWatcher::EndpointWatcher() = default;

EndpointWatcher::~EndpointWatcher()
{
    if (m_connection) {
        // The connection may outlive this object in the endpoints it made;
        // answers still in flight must find nothing to call.
        MainloopLock lock(m_connection->mainloop());
        m_notifications = Ifaces::EndpointNotifications();
        *m_alive = false;
    }
}

long EndpointWatcher::initializeThread()
{
    return S_OK;
}

void EndpointWatcher::uninitializeThread()
{
}

long EndpointWatcher::open()
{
    if (m_connection) {
        return S_OK;
    }
    auto connection = std::make_shared<ServerConnection>();
    ServerConnection::Handlers handlers;
    handlers.ready = [this, alive = m_alive] {
        if (*alive) {
            serverReady();
        }
    };
    handlers.lost = [this, alive = m_alive] {
        if (*alive) {
            serverLost();
        }
    };
    handlers.event = [this, alive = m_alive](pa_subscription_event_type_t type, std::uint32_t index) {
        if (*alive) {
            serverEvent(type, index);
        }
    };
    const long hr = connection->connect(std::move(handlers));
    if (hr < 0) {
        return hr;
    }
    m_connection = std::move(connection);

    // The names of what exists now, so that later removals can be matched.
    // Asked on the loop's thread, which also handles the server's events, so
    // that an event after the answer always finds the answer recorded.
    pa_threaded_mainloop* mainloop = m_connection->mainloop();
    MainloopLock lock(mainloop);
    int answers = 0;
    const auto answered = [mainloop, &answers] {
        ++answers;
        pa_threaded_mainloop_signal(mainloop, 0);
    };
    m_connection->requestSinks([this, answered](std::vector<SinkRecord> sinks) {
        for (const SinkRecord& sink : sinks) {
            m_sinks.emplace(sink.index, sink.name);
        }
        answered();
    });
    m_connection->requestSources([this, answered](std::vector<SourceRecord> sources) {
        for (const SourceRecord& source : sources) {
            if (!source.isMonitor) {
                m_inputs.emplace(source.index, source.name);
            }
        }
        answered();
    });
    m_connection->requestServer([this, answered](ServerRecord server) {
        m_defaultSink = server.defaultSink;
        m_defaultSource = server.defaultSource;
        answered();
    });
    // Without a server (not there yet, or gone meanwhile) no answer comes;
    // the endpoints are then reported when it is back.
    while (answers < 3 && m_connection->context()) {
        pa_threaded_mainloop_wait(mainloop);
    }
    return S_OK;
}

long EndpointWatcher::activeEndpoints(std::unique_ptr<Ifaces::EndpointCollection>& endpoints)
{
    if (!m_connection) {
        return E_ILLEGAL_METHOD_CALL;
    }
    // What this watcher has recorded, not a fresh query: every endpoint that
    // is not in it yet will be reported by a notification, and every one in
    // it was reported before, so the two never disagree.
    std::vector<std::shared_ptr<Ifaces::AudioEndpoint>> list;
    MainloopLock lock(m_connection->mainloop());
    for (const auto& sink : m_sinks) {
        list.push_back(std::make_shared<Endpoint>(m_connection, sink.second, Ifaces::DataFlow::Render));
    }
    for (const auto& input : m_inputs) {
        list.push_back(std::make_shared<Endpoint>(m_connection, input.second, Ifaces::DataFlow::Capture));
    }
    endpoints = std::make_unique<EndpointList>(std::move(list));
    return S_OK;
}

long EndpointWatcher::defaultEndpoint(
    Ifaces::DataFlow flow, Ifaces::DeviceRole, std::shared_ptr<Ifaces::AudioEndpoint>& endpoint)
{
    if (!m_connection) {
        return E_ILLEGAL_METHOD_CALL;
    }
    ServerRecord server;
    const long hr = m_connection->server(server);
    if (hr < 0) {
        return hr;
    }
    std::string name = flow == Ifaces::DataFlow::Capture ? server.defaultSource : server.defaultSink;
    if (flow == Ifaces::DataFlow::Capture) {
        // A monitor as default source is no input device.
        std::vector<SourceRecord> sources;
        if (name.empty() || m_connection->sources(name, sources) < 0 || sources.empty() || sources.front().isMonitor) {
            return E_NOTFOUND;
        }
    } else {
        std::vector<SinkRecord> sinks;
        if (name.empty() || m_connection->sinks(name, sinks) < 0 || sinks.empty()) {
            return E_NOTFOUND;
        }
    }
    endpoint = std::make_shared<Endpoint>(m_connection, name, flow);
    return S_OK;
}

long EndpointWatcher::endpoint(const std::string& id, std::shared_ptr<Ifaces::AudioEndpoint>& endpoint)
{
    if (!m_connection) {
        return E_ILLEGAL_METHOD_CALL;
    }
    if (id.empty()) {
        return E_INVALIDARG;
    }
    std::vector<SinkRecord> sinks;
    long hr = m_connection->sinks(id, sinks);
    if (hr < 0) {
        return hr;
    }
    // pipewire-pulse answers a sink's query for its monitor's name ("x.monitor")
    // with the sink itself, as both are one node there: only the exact name counts.
    if (!sinks.empty() && sinks.front().name == id) {
        endpoint = std::make_shared<Endpoint>(m_connection, id, Ifaces::DataFlow::Render);
        return S_OK;
    }
    std::vector<SourceRecord> sources;
    hr = m_connection->sources(id, sources);
    if (hr < 0) {
        return hr;
    }
    if (!sources.empty() && !sources.front().isMonitor) {
        endpoint = std::make_shared<Endpoint>(m_connection, id, Ifaces::DataFlow::Capture);
        return S_OK;
    }
    return E_NOTFOUND;
}

long EndpointWatcher::registerNotifications(Ifaces::EndpointNotifications notifications)
{
    if (!m_connection) {
        return E_ILLEGAL_METHOD_CALL;
    }
    MainloopLock lock(m_connection->mainloop());
    m_notifications = std::move(notifications);
    return S_OK;
}

long EndpointWatcher::unregisterNotifications()
{
    if (!m_connection) {
        return S_OK;
    }
    // Receivers run on the loop's thread with the lock held, so none is
    // running once the lock is ours.
    MainloopLock lock(m_connection->mainloop());
    m_notifications = Ifaces::EndpointNotifications();
    return S_OK;
}

void EndpointWatcher::notifyState(const std::string& id, unsigned long state)
{
    if (m_notifications.deviceStateChanged) {
        m_notifications.deviceStateChanged(id, state);
    }
}

void EndpointWatcher::notifyDefault(Ifaces::DataFlow flow, const std::string& id)
{
    if (m_notifications.defaultDeviceChanged) {
        m_notifications.defaultDeviceChanged(flow, Ifaces::DeviceRole::Console, id);
    }
}

void EndpointWatcher::sinkAppeared(std::uint32_t index, const std::string& name)
{
    if (m_sinks.emplace(index, name).second) {
        if (m_notifications.deviceAdded) {
            m_notifications.deviceAdded(name);
        }
        notifyState(name, Ifaces::DeviceStateActive);
    }
}

void EndpointWatcher::sourceAppeared(std::uint32_t index, const std::string& name)
{
    if (m_inputs.emplace(index, name).second) {
        if (m_notifications.deviceAdded) {
            m_notifications.deviceAdded(name);
        }
        notifyState(name, Ifaces::DeviceStateActive);
    }
}

void EndpointWatcher::serverReady()
{
    m_connection->requestSinks([this, alive = m_alive](std::vector<SinkRecord> sinks) {
        if (!*alive) {
            return;
        }
        for (const SinkRecord& sink : sinks) {
            sinkAppeared(sink.index, sink.name);
        }
    });
    m_connection->requestSources([this, alive = m_alive](std::vector<SourceRecord> sources) {
        if (!*alive) {
            return;
        }
        for (const SourceRecord& source : sources) {
            if (!source.isMonitor) {
                sourceAppeared(source.index, source.name);
            }
        }
    });
    refreshDefaults();
}

void EndpointWatcher::serverLost()
{
    const auto sinks = std::move(m_sinks);
    const auto inputs = std::move(m_inputs);
    m_sinks.clear();
    m_inputs.clear();
    for (const auto& sink : sinks) {
        notifyState(sink.second, Ifaces::DeviceStateNotPresent);
    }
    for (const auto& input : inputs) {
        notifyState(input.second, Ifaces::DeviceStateNotPresent);
    }
    if (!m_defaultSink.empty()) {
        m_defaultSink.clear();
        notifyDefault(Ifaces::DataFlow::Render, m_defaultSink);
    }
    if (!m_defaultSource.empty()) {
        m_defaultSource.clear();
        notifyDefault(Ifaces::DataFlow::Capture, m_defaultSource);
    }
}

void EndpointWatcher::refreshDefaults()
{
    m_connection->requestServer([this, alive = m_alive](ServerRecord server) {
        if (!*alive) {
            return;
        }
        if (server.defaultSink != m_defaultSink) {
            m_defaultSink = server.defaultSink;
            notifyDefault(Ifaces::DataFlow::Render, m_defaultSink);
        }
        if (server.defaultSource != m_defaultSource) {
            m_defaultSource = server.defaultSource;
            notifyDefault(Ifaces::DataFlow::Capture, m_defaultSource);
        }
    });
}

void EndpointWatcher::serverEvent(std::uint32_t type, std::uint32_t index)
{
    const std::uint32_t facility = type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
    const std::uint32_t kind = type & PA_SUBSCRIPTION_EVENT_TYPE_MASK;

    if (facility == PA_SUBSCRIPTION_EVENT_SINK) {
        if (kind == PA_SUBSCRIPTION_EVENT_NEW) {
            m_connection->requestSink(index, [this, alive = m_alive](std::vector<SinkRecord> sinks) {
                if (!*alive) {
                    return;
                }
                for (const SinkRecord& sink : sinks) {
                    sinkAppeared(sink.index, sink.name);
                }
            });
        } else if (kind == PA_SUBSCRIPTION_EVENT_REMOVE) {
            const auto it = m_sinks.find(index);
            if (it != m_sinks.end()) {
                const std::string name = it->second;
                m_sinks.erase(it);
                if (m_notifications.deviceRemoved) {
                    m_notifications.deviceRemoved(name);
                }
                notifyState(name, Ifaces::DeviceStateNotPresent);
            }
        } else if (kind == PA_SUBSCRIPTION_EVENT_CHANGE) {
            const auto it = m_sinks.find(index);
            if (it != m_sinks.end() && m_notifications.propertyValueChanged) {
                m_notifications.propertyValueChanged(it->second);
            }
        }
    } else if (facility == PA_SUBSCRIPTION_EVENT_SOURCE) {
        if (kind == PA_SUBSCRIPTION_EVENT_NEW) {
            m_connection->requestSource(index, [this, alive = m_alive](std::vector<SourceRecord> sources) {
                if (!*alive) {
                    return;
                }
                for (const SourceRecord& source : sources) {
                    if (!source.isMonitor) {
                        sourceAppeared(source.index, source.name);
                    }
                }
            });
        } else if (kind == PA_SUBSCRIPTION_EVENT_REMOVE) {
            const auto it = m_inputs.find(index);
            if (it != m_inputs.end()) {
                const std::string name = it->second;
                m_inputs.erase(it);
                if (m_notifications.deviceRemoved) {
                    m_notifications.deviceRemoved(name);
                }
                notifyState(name, Ifaces::DeviceStateNotPresent);
            }
        }
    } else if (facility == PA_SUBSCRIPTION_EVENT_SERVER && kind == PA_SUBSCRIPTION_EVENT_CHANGE) {
        refreshDefaults();
    }
}

} // namespace Pulse
} // namespace Orvanta
