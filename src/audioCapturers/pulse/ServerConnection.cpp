#include "ServerConnection.h"

#include "ResultCodes.h"

namespace Orvanta {
namespace Pulse {

namespace {

// How long to wait between attempts to reach a server that went away.
constexpr pa_usec_t kRetryInterval = 250 * PA_USEC_PER_MSEC;

std::string text(const char* value)
{
    return value ? std::string(value) : std::string();
}

SinkRecord toRecord(const pa_sink_info* info)
{
    SinkRecord record;
    record.index = info->index;
    record.name = text(info->name);
    record.description = text(info->description);
    record.monitorSource = text(info->monitor_source_name);
    record.sampleSpec = info->sample_spec;
    record.channelMap = info->channel_map;
    record.volume = info->volume;
    return record;
}

SourceRecord toRecord(const pa_source_info* info)
{
    SourceRecord record;
    record.index = info->index;
    record.name = text(info->name);
    record.description = text(info->description);
    record.isMonitor = info->monitor_of_sink != PA_INVALID_INDEX;
    record.sampleSpec = info->sample_spec;
    record.channelMap = info->channel_map;
    record.volume = info->volume;
    return record;
}

// One query in flight. A blocking query keeps it on its stack and is woken by
// the loop; a query of the loop's own thread owns it on the heap, and it is
// freed by the answer or, when the server goes first, by the cancellation.
template <class Answer> struct Request
{
    Answer answer {};
    std::function<void(Answer)> done;
    pa_threaded_mainloop* mainloop = nullptr;
    bool owned = false;
    bool answered = false;

    void finish()
    {
        answered = true;
        if (owned) {
            if (done) {
                done(std::move(answer));
            }
            delete this;
        } else {
            pa_threaded_mainloop_signal(mainloop, 0);
        }
    }
};

template <class Info, class Record> void listCallback(pa_context*, const Info* info, int eol, void* userdata)
{
    auto* request = static_cast<Request<std::vector<Record>>*>(userdata);
    if (eol == 0 && info) {
        request->answer.push_back(toRecord(info));
        return;
    }
    // eol < 0 is an error answer, such as an unknown name: an empty list.
    request->finish();
}

void serverCallback(pa_context*, const pa_server_info* info, void* userdata)
{
    auto* request = static_cast<Request<ServerRecord>*>(userdata);
    if (info) {
        request->answer.defaultSink = text(info->default_sink_name);
        request->answer.defaultSource = text(info->default_source_name);
    }
    request->finish();
}

template <class Answer> void blockingStateCallback(pa_operation*, void* userdata)
{
    pa_threaded_mainloop_signal(static_cast<Request<Answer>*>(userdata)->mainloop, 0);
}

template <class Answer> void ownedStateCallback(pa_operation* operation, void* userdata)
{
    // After the answer the request is gone; only a cancelled one is still ours.
    if (pa_operation_get_state(operation) == PA_OPERATION_CANCELLED) {
        delete static_cast<Request<Answer>*>(userdata);
    }
}

} // namespace

MainloopLock::MainloopLock(pa_threaded_mainloop* mainloop)
    : m_mainloop(mainloop)
{
    pa_threaded_mainloop_lock(m_mainloop);
}

MainloopLock::~MainloopLock()
{
    pa_threaded_mainloop_unlock(m_mainloop);
}

ServerConnection::ServerConnection() = default;

ServerConnection::~ServerConnection()
{
    if (!m_mainloop) {
        return;
    }
    {
        MainloopLock lock(m_mainloop);
        m_stopping = true;
        if (m_retry) {
            pa_threaded_mainloop_get_api(m_mainloop)->time_free(m_retry);
            m_retry = nullptr;
        }
        dropContext();
    }
    pa_threaded_mainloop_stop(m_mainloop);
    pa_threaded_mainloop_free(m_mainloop);
}

long ServerConnection::connect(Handlers handlers)
{
    m_mainloop = pa_threaded_mainloop_new();
    if (!m_mainloop) {
        return E_OUTOFMEMORY;
    }
    if (pa_threaded_mainloop_start(m_mainloop) < 0) {
        pa_threaded_mainloop_free(m_mainloop);
        m_mainloop = nullptr;
        return E_FAIL;
    }
    MainloopLock lock(m_mainloop);
    m_handlers = std::move(handlers);
    if (startContext()) {
        while (m_context && !m_ready) {
            pa_threaded_mainloop_wait(m_mainloop);
        }
    }
    // A server that is not there yet (a session that starts before its sound
    // server, or one restarting) is waited for like one that went away.
    m_connected = true;
    if (!m_ready) {
        scheduleRetry();
    }
    return S_OK;
}

pa_context* ServerConnection::context() const
{
    return m_ready ? m_context : nullptr;
}

bool ServerConnection::startContext()
{
    m_context = pa_context_new(pa_threaded_mainloop_get_api(m_mainloop), "LibOrvanta");
    if (!m_context) {
        return false;
    }
    pa_context_set_state_callback(m_context, &ServerConnection::contextStateChanged, this);
    if (pa_context_connect(m_context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        dropContext();
        return false;
    }
    return true;
}

void ServerConnection::dropContext()
{
    if (!m_context) {
        return;
    }
    pa_context_set_state_callback(m_context, nullptr, nullptr);
    pa_context_set_subscribe_callback(m_context, nullptr, nullptr);
    pa_context_disconnect(m_context);
    pa_context_unref(m_context);
    m_context = nullptr;
    m_ready = false;
}

void ServerConnection::scheduleRetry()
{
    if (m_stopping || m_retry) {
        return;
    }
    struct timeval when;
    pa_gettimeofday(&when);
    pa_timeval_add(&when, kRetryInterval);
    pa_mainloop_api* api = pa_threaded_mainloop_get_api(m_mainloop);
    m_retry = api->time_new(api, &when, &ServerConnection::retryTimer, this);
}

void ServerConnection::retryTimer(pa_mainloop_api* api, pa_time_event* event, const struct timeval*, void* self)
{
    auto* connection = static_cast<ServerConnection*>(self);
    api->time_free(event);
    connection->m_retry = nullptr;
    if (connection->m_stopping) {
        return;
    }
    if (!connection->startContext()) {
        connection->scheduleRetry();
    }
}

void ServerConnection::contextStateChanged(pa_context* context, void* self)
{
    auto* connection = static_cast<ServerConnection*>(self);
    switch (pa_context_get_state(context)) {
    case PA_CONTEXT_READY: {
        connection->m_ready = true;
        pa_context_set_subscribe_callback(context, &ServerConnection::subscriptionEvent, connection);
        const auto mask = static_cast<pa_subscription_mask_t>(
            PA_SUBSCRIPTION_MASK_SINK | PA_SUBSCRIPTION_MASK_SOURCE | PA_SUBSCRIPTION_MASK_SERVER);
        if (pa_operation* operation = pa_context_subscribe(context, mask, nullptr, nullptr)) {
            pa_operation_unref(operation);
        }
        if (connection->m_connected && connection->m_handlers.ready) {
            connection->m_handlers.ready();
        }
        break;
    }
    case PA_CONTEXT_FAILED:
    case PA_CONTEXT_TERMINATED: {
        const bool wasReady = connection->m_ready;
        connection->dropContext();
        if (connection->m_connected) {
            if (wasReady && connection->m_handlers.lost) {
                connection->m_handlers.lost();
            }
            connection->scheduleRetry();
        }
        break;
    }
    default:
        break;
    }
    pa_threaded_mainloop_signal(connection->m_mainloop, 0);
}

void ServerConnection::subscriptionEvent(
    pa_context*, pa_subscription_event_type_t type, std::uint32_t index, void* self)
{
    auto* connection = static_cast<ServerConnection*>(self);
    if (connection->m_handlers.event) {
        connection->m_handlers.event(type, index);
    }
}

namespace {
void signalMainloop(pa_operation*, void* mainloop)
{
    pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(mainloop), 0);
}
} // namespace

void ServerConnection::waitFor(pa_operation* operation)
{
    // Woken by the end of the operation, whether answered or cancelled.
    pa_operation_set_state_callback(operation, &signalMainloop, m_mainloop);
    while (pa_operation_get_state(operation) == PA_OPERATION_RUNNING) {
        pa_threaded_mainloop_wait(m_mainloop);
    }
    pa_operation_unref(operation);
}

namespace {

template <class Answer, class Start> long blockingQuery(ServerConnection& connection, Answer& answer, Start start)
{
    MainloopLock lock(connection.mainloop());
    pa_context* context = connection.context();
    if (!context) {
        return AUDCLNT_E_SERVICE_NOT_RUNNING;
    }
    Request<Answer> request;
    request.mainloop = connection.mainloop();
    pa_operation* operation = start(context, &request);
    if (!operation) {
        return E_FAIL;
    }
    connection.waitFor(operation);
    if (!request.answered) {
        return AUDCLNT_E_SERVICE_NOT_RUNNING;
    }
    answer = std::move(request.answer);
    return S_OK;
}

template <class Answer, class Start> void ownedQuery(pa_context* context, std::function<void(Answer)> done, Start start)
{
    if (!context) {
        return;
    }
    auto* request = new Request<Answer>;
    request->owned = true;
    request->done = std::move(done);
    pa_operation* operation = start(context, request);
    if (!operation) {
        delete request;
        return;
    }
    pa_operation_set_state_callback(operation, &ownedStateCallback<Answer>, request);
    pa_operation_unref(operation);
}

} // namespace

long ServerConnection::sinks(const std::string& name, std::vector<SinkRecord>& records)
{
    return blockingQuery(*this, records, [&name](pa_context* context, void* request) {
        auto callback = &listCallback<pa_sink_info, SinkRecord>;
        return name.empty() ? pa_context_get_sink_info_list(context, callback, request)
                            : pa_context_get_sink_info_by_name(context, name.c_str(), callback, request);
    });
}

long ServerConnection::sources(const std::string& name, std::vector<SourceRecord>& records)
{
    return blockingQuery(*this, records, [&name](pa_context* context, void* request) {
        auto callback = &listCallback<pa_source_info, SourceRecord>;
        return name.empty() ? pa_context_get_source_info_list(context, callback, request)
                            : pa_context_get_source_info_by_name(context, name.c_str(), callback, request);
    });
}

namespace {

template <typename Record> long firstFormat(long hr, const std::vector<Record>& records, DeviceFormat& format)
{
    if (hr < 0) {
        return hr;
    }
    if (records.empty()) {
        return AUDCLNT_E_DEVICE_INVALIDATED;
    }
    format.sampleSpec = records.front().sampleSpec;
    format.channelMap = records.front().channelMap;
    format.volume = records.front().volume;
    return S_OK;
}

} // namespace

long ServerConnection::deviceFormat(const std::string& name, bool isSource, DeviceFormat& format)
{
    if (isSource) {
        std::vector<SourceRecord> sources;
        const long hr = this->sources(name, sources);
        return firstFormat(hr, sources, format);
    }
    std::vector<SinkRecord> sinks;
    const long hr = this->sinks(name, sinks);
    return firstFormat(hr, sinks, format);
}

long ServerConnection::server(ServerRecord& record)
{
    return blockingQuery(*this, record, [](pa_context* context, void* request) {
        return pa_context_get_server_info(context, &serverCallback, request);
    });
}

void ServerConnection::requestSink(std::uint32_t index, std::function<void(std::vector<SinkRecord>)> done)
{
    ownedQuery(context(), std::move(done), [index](pa_context* context, void* request) {
        return pa_context_get_sink_info_by_index(context, index, &listCallback<pa_sink_info, SinkRecord>, request);
    });
}

void ServerConnection::requestSinks(std::function<void(std::vector<SinkRecord>)> done)
{
    ownedQuery(context(), std::move(done), [](pa_context* context, void* request) {
        return pa_context_get_sink_info_list(context, &listCallback<pa_sink_info, SinkRecord>, request);
    });
}

void ServerConnection::requestSource(std::uint32_t index, std::function<void(std::vector<SourceRecord>)> done)
{
    ownedQuery(context(), std::move(done), [index](pa_context* context, void* request) {
        return pa_context_get_source_info_by_index(
            context, index, &listCallback<pa_source_info, SourceRecord>, request);
    });
}

void ServerConnection::requestSources(std::function<void(std::vector<SourceRecord>)> done)
{
    ownedQuery(context(), std::move(done), [](pa_context* context, void* request) {
        return pa_context_get_source_info_list(context, &listCallback<pa_source_info, SourceRecord>, request);
    });
}

void ServerConnection::requestServer(std::function<void(ServerRecord)> done)
{
    ownedQuery(context(), std::move(done), [](pa_context* context, void* request) {
        return pa_context_get_server_info(context, &serverCallback, request);
    });
}

} // namespace Pulse
} // namespace Orvanta
