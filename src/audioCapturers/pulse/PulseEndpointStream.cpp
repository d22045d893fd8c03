#include "PulseEndpointStream.h"

#include "PulseEndpointMeter.h"
#include "PulseFormat.h"
#include "ResultCodes.h"
#include "ServerConnection.h"

namespace Orvanta {
namespace Pulse {

namespace {

// Small fragments, so that packets arrive as soon as the server has them
// rather than in the large chunks an idle sink renders in.
constexpr pa_usec_t kFragmentTime = 20 * PA_USEC_PER_MSEC;

void signalOnStateChange(pa_stream*, void* mainloop)
{
    pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(mainloop), 0);
}

} // namespace

// The server's stream, shared by the stream object and its packet source.
// Touched only with the loop's lock held.
struct RecordStream
{
    std::shared_ptr<ServerConnection> connection;
    std::shared_ptr<PeakLevels> levels;
    pa_stream* stream = nullptr;
    Ifaces::WaveFormatExtensible format {};
    std::uint32_t frameBytes = 0;
    bool peeked = false;

    ~RecordStream()
    {
        if (!stream) {
            return;
        }
        MainloopLock lock(connection->mainloop());
        pa_stream_set_state_callback(stream, nullptr, nullptr);
        if (peeked && pa_stream_get_state(stream) == PA_STREAM_READY) {
            pa_stream_drop(stream);
        }
        pa_stream_disconnect(stream);
        pa_stream_unref(stream);
    }

    bool ready() const
    {
        return stream && pa_stream_get_state(stream) == PA_STREAM_READY;
    }
};

namespace {

class PacketSource : public Ifaces::EndpointCapture
{
public:
    explicit PacketSource(std::shared_ptr<RecordStream> stream)
        : m_stream(std::move(stream))
    {
    }

    long nextPacketSize(std::uint32_t* frames) override
    {
        MainloopLock lock(m_stream->connection->mainloop());
        if (!m_stream->ready()) {
            // A stream that failed reports one packet, whose fetch fails.
            *frames = 1;
            return S_OK;
        }
        const std::size_t readable = pa_stream_readable_size(m_stream->stream);
        if (readable == static_cast<std::size_t>(-1)) {
            *frames = 1;
            return S_OK;
        }
        *frames = static_cast<std::uint32_t>(readable / m_stream->frameBytes);
        if (*frames == 0 && readable > 0) {
            *frames = 1;
        }
        return S_OK;
    }

    long getBuffer(const std::uint8_t** data, std::uint32_t* frames, std::uint32_t* flags) override
    {
        MainloopLock lock(m_stream->connection->mainloop());
        if (!m_stream->ready()) {
            return m_stream->connection->context() ? AUDCLNT_E_DEVICE_INVALIDATED : AUDCLNT_E_SERVICE_NOT_RUNNING;
        }
        if (m_stream->peeked) {
            return AUDCLNT_E_OUT_OF_ORDER;
        }
        *flags = 0;
        for (;;) {
            const void* bytes = nullptr;
            std::size_t size = 0;
            if (pa_stream_peek(m_stream->stream, &bytes, &size) < 0) {
                return AUDCLNT_E_DEVICE_INVALIDATED;
            }
            if (size == 0) {
                *data = nullptr;
                *frames = 0;
                return AUDCLNT_S_BUFFER_EMPTY;
            }
            if (!bytes) {
                // A hole in the recording: nothing to analyse.
                pa_stream_drop(m_stream->stream);
                continue;
            }
            m_stream->peeked = true;
            *data = static_cast<const std::uint8_t*>(bytes);
            *frames = static_cast<std::uint32_t>(size / m_stream->frameBytes);
            m_stream->levels->measure(*data, *frames, m_stream->format);
            return S_OK;
        }
    }

    long releaseBuffer(std::uint32_t) override
    {
        MainloopLock lock(m_stream->connection->mainloop());
        if (!m_stream->peeked) {
            return S_OK;
        }
        m_stream->peeked = false;
        if (m_stream->ready()) {
            pa_stream_drop(m_stream->stream);
        }
        return S_OK;
    }

private:
    std::shared_ptr<RecordStream> m_stream;
};

} // namespace

EndpointStream::EndpointStream(std::shared_ptr<ServerConnection> connection, std::string name, Ifaces::DataFlow flow,
    std::shared_ptr<PeakLevels> levels)
    : m_connection(std::move(connection))
    , m_name(std::move(name))
    , m_flow(flow)
    , m_levels(std::move(levels))
{
}

EndpointStream::~EndpointStream() = default;

long EndpointStream::mixFormat(Ifaces::WaveFormatExtensible& format)
{
    DeviceFormat device;
    const long hr = m_connection->deviceFormat(m_name, m_flow == Ifaces::DataFlow::Capture, device);
    if (hr < 0) {
        return hr;
    }
    format = toWaveFormat(device.sampleSpec, device.channelMap);
    return S_OK;
}

long EndpointStream::initialize(
    const Ifaces::WaveFormatExtensible& format, std::uint32_t flags, std::int64_t bufferDuration)
{
    if (m_stream) {
        return AUDCLNT_E_ALREADY_INITIALIZED;
    }
    // Outputs are only recorded in loopback, inputs only directly.
    const bool loopback = (flags & Ifaces::StreamFlagLoopback) != 0;
    if (loopback != (m_flow == Ifaces::DataFlow::Render)) {
        return AUDCLNT_E_WRONG_ENDPOINT_TYPE;
    }
    pa_sample_spec spec {};
    if (!toSampleSpec(format, spec)) {
        return AUDCLNT_E_UNSUPPORTED_FORMAT;
    }
    const pa_channel_map map = toChannelMap(format);

    std::string source = m_name;
    if (m_flow == Ifaces::DataFlow::Render) {
        std::vector<SinkRecord> sinks;
        const long hr = m_connection->sinks(m_name, sinks);
        if (hr < 0) {
            return hr;
        }
        if (sinks.empty() || sinks.front().monitorSource.empty()) {
            return AUDCLNT_E_DEVICE_INVALIDATED;
        }
        source = sinks.front().monitorSource;
    }

    auto stream = std::make_shared<RecordStream>();
    stream->connection = m_connection;
    stream->levels = m_levels;
    stream->format = format;
    stream->frameBytes = static_cast<std::uint32_t>(pa_frame_size(&spec));

    MainloopLock lock(m_connection->mainloop());
    pa_context* context = m_connection->context();
    if (!context) {
        return AUDCLNT_E_SERVICE_NOT_RUNNING;
    }
    stream->stream = pa_stream_new(context, "LibOrvanta capture", &spec, &map);
    if (!stream->stream) {
        return AUDCLNT_E_UNSUPPORTED_FORMAT;
    }
    pa_stream_set_state_callback(stream->stream, &signalOnStateChange, m_connection->mainloop());

    const pa_usec_t duration = bufferDuration > 0 ? static_cast<pa_usec_t>(bufferDuration / 10) : PA_USEC_PER_SEC;
    pa_buffer_attr attributes;
    attributes.maxlength = static_cast<std::uint32_t>(pa_usec_to_bytes(duration, &spec));
    attributes.fragsize = static_cast<std::uint32_t>(pa_usec_to_bytes(kFragmentTime, &spec));
    attributes.tlength = static_cast<std::uint32_t>(-1);
    attributes.prebuf = static_cast<std::uint32_t>(-1);
    attributes.minreq = static_cast<std::uint32_t>(-1);
    const auto streamFlags
        = static_cast<pa_stream_flags_t>(PA_STREAM_DONT_MOVE | PA_STREAM_ADJUST_LATENCY | PA_STREAM_START_CORKED);
    if (pa_stream_connect_record(stream->stream, source.c_str(), &attributes, streamFlags) < 0) {
        return AUDCLNT_E_DEVICE_INVALIDATED;
    }
    for (;;) {
        const pa_stream_state_t state = pa_stream_get_state(stream->stream);
        if (state == PA_STREAM_READY) {
            break;
        }
        if (state == PA_STREAM_FAILED || state == PA_STREAM_TERMINATED) {
            return AUDCLNT_E_DEVICE_INVALIDATED;
        }
        pa_threaded_mainloop_wait(m_connection->mainloop());
    }
    m_stream = std::move(stream);
    return S_OK;
}

long EndpointStream::captureClient(std::unique_ptr<Ifaces::EndpointCapture>& capture)
{
    if (!m_stream) {
        return AUDCLNT_E_NOT_INITIALIZED;
    }
    capture = std::make_unique<PacketSource>(m_stream);
    return S_OK;
}

long EndpointStream::cork(bool paused)
{
    if (!m_stream) {
        return AUDCLNT_E_NOT_INITIALIZED;
    }
    MainloopLock lock(m_connection->mainloop());
    if (!m_stream->ready()) {
        return AUDCLNT_E_DEVICE_INVALIDATED;
    }
    pa_operation* operation = pa_stream_cork(m_stream->stream, paused ? 1 : 0, nullptr, nullptr);
    if (!operation) {
        return AUDCLNT_E_DEVICE_INVALIDATED;
    }
    const bool cancelled = [&] {
        m_connection->waitFor(operation);
        return !m_stream->ready();
    }();
    return cancelled ? AUDCLNT_E_DEVICE_INVALIDATED : S_OK;
}

long EndpointStream::start()
{
    return cork(false);
}

long EndpointStream::stop()
{
    return cork(true);
}

long EndpointStream::initializeThread()
{
    return S_OK;
}

void EndpointStream::uninitializeThread()
{
}

} // namespace Pulse
} // namespace Orvanta
