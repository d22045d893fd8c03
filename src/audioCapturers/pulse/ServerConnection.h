#pragma once

#include <pulse/pulseaudio.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Orvanta {
namespace Pulse {

/// Holds the threaded main loop's lock for a scope. Never taken on the loop's own thread.
class MainloopLock
{
public:
    explicit MainloopLock(pa_threaded_mainloop* mainloop);
    ~MainloopLock();
    MainloopLock(const MainloopLock&) = delete;
    MainloopLock& operator=(const MainloopLock&) = delete;

private:
    pa_threaded_mainloop* m_mainloop;
};

struct SinkRecord
{
    std::uint32_t index = PA_INVALID_INDEX;
    std::string name;
    std::string description;
    std::string monitorSource;
    pa_sample_spec sampleSpec {};
    pa_channel_map channelMap {};
    pa_cvolume volume {};
};

struct SourceRecord
{
    std::uint32_t index = PA_INVALID_INDEX;
    std::string name;
    std::string description;
    bool isMonitor = false;
    pa_sample_spec sampleSpec {};
    pa_channel_map channelMap {};
    pa_cvolume volume {};
};

/// What the stream and the meter need of one sink or source.
struct DeviceFormat
{
    pa_sample_spec sampleSpec {};
    pa_channel_map channelMap {};
    pa_cvolume volume {};
};

struct ServerRecord
{
    std::string defaultSink;
    std::string defaultSource;
};

/**
 * One client connection to the sound server, run by a threaded main loop.
 *
 * The connection survives the server: when the server goes away, `lost` is
 * called, and the connection tries again (as it does from the start when
 * there is no server yet) every few hundred milliseconds until
 * the server is back, when `ready` is called. Handlers run on the loop's
 * thread with its lock held; they must not block.
 *
 * The blocking queries may be called from any thread but the loop's; they
 * take the lock themselves and fail with AUDCLNT_E_SERVICE_NOT_RUNNING while
 * there is no server, rather than wait for one.
 */
class ServerConnection
{
public:
    struct Handlers
    {
        std::function<void()> ready;
        std::function<void()> lost;
        std::function<void(pa_subscription_event_type_t type, std::uint32_t index)> event;
    };

    ServerConnection();
    ~ServerConnection();
    ServerConnection(const ServerConnection&) = delete;
    ServerConnection& operator=(const ServerConnection&) = delete;

    /// Starts the loop and connects, waiting for the outcome. Without a
    /// server it still succeeds: the connection keeps trying, and `ready`
    /// is called when the server appears.
    long connect(Handlers handlers);

    pa_threaded_mainloop* mainloop() const
    {
        return m_mainloop;
    }
    /// The live context, or null between servers. Lock held.
    pa_context* context() const;

    /// Waits, lock held, until @p operation is no longer running; unrefs it.
    void waitFor(pa_operation* operation);

    // Blocking queries; @p name empty means all.
    long sinks(const std::string& name, std::vector<SinkRecord>& records);
    long sources(const std::string& name, std::vector<SourceRecord>& records);
    /// The source (@p isSource) or sink named @p name; AUDCLNT_E_DEVICE_INVALIDATED once it is gone.
    long deviceFormat(const std::string& name, bool isSource, DeviceFormat& format);
    long server(ServerRecord& record);

    // The same queries for the loop's thread: @p done runs there when the
    // answer is in, not at all if the server goes first.
    void requestSink(std::uint32_t index, std::function<void(std::vector<SinkRecord>)> done);
    void requestSinks(std::function<void(std::vector<SinkRecord>)> done);
    void requestSource(std::uint32_t index, std::function<void(std::vector<SourceRecord>)> done);
    void requestSources(std::function<void(std::vector<SourceRecord>)> done);
    void requestServer(std::function<void(ServerRecord)> done);

private:
    static void contextStateChanged(pa_context* context, void* self);
    static void subscriptionEvent(
        pa_context* context, pa_subscription_event_type_t type, std::uint32_t index, void* self);
    static void retryTimer(pa_mainloop_api* api, pa_time_event* event, const struct timeval* tv, void* self);

    bool startContext();
    void dropContext();
    void scheduleRetry();

    pa_threaded_mainloop* m_mainloop = nullptr;
    pa_context* m_context = nullptr;
    pa_time_event* m_retry = nullptr;
    Handlers m_handlers;
    bool m_ready = false;
    bool m_connected = false;
    bool m_stopping = false;
};

} // namespace Pulse
} // namespace Orvanta
