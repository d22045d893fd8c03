#include "pipewire/PipeWireStream.h"

#include "ResultCodes.h"

#include <pipewire/pipewire.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <unistd.h>

namespace Orvanta {
namespace PipeWire {

namespace {

constexpr int MaxDimension = 16384;

void initialiseOnce()
{
    static std::once_flag once;
    std::call_once(once, [] { pw_init(nullptr, nullptr); });
}

/// One format offer: the 8-bit RGB layouts at @p width by @p height exactly,
/// or, with @p anySize, at any size with that one preferred.
const spa_pod* buildFormat(spa_pod_builder* builder, int width, int height, bool anySize)
{
    spa_rectangle preferred {std::uint32_t(width > 0 ? width : 1920), std::uint32_t(height > 0 ? height : 1080)};
    spa_rectangle smallest {1, 1};
    spa_rectangle largest {MaxDimension, MaxDimension};
    spa_fraction rate {30, 1};
    spa_fraction slowest {0, 1};
    spa_fraction fastest {1000, 1};
    spa_pod_frame frame;
    spa_pod_builder_push_object(builder, &frame, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat);
    spa_pod_builder_add(builder, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video), SPA_FORMAT_mediaSubtype,
        SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw), SPA_FORMAT_VIDEO_format,
        SPA_POD_CHOICE_ENUM_Id(6, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRA,
            SPA_VIDEO_FORMAT_RGBx, SPA_VIDEO_FORMAT_RGBA, SPA_VIDEO_FORMAT_RGB),
        0);
    if (anySize)
        spa_pod_builder_add(
            builder, SPA_FORMAT_VIDEO_size, SPA_POD_CHOICE_RANGE_Rectangle(&preferred, &smallest, &largest), 0);
    else
        spa_pod_builder_add(builder, SPA_FORMAT_VIDEO_size, SPA_POD_Rectangle(&preferred), 0);
    spa_pod_builder_add(
        builder, SPA_FORMAT_VIDEO_framerate, SPA_POD_CHOICE_RANGE_Fraction(&rate, &slowest, &fastest), 0);
    return static_cast<const spa_pod*>(spa_pod_builder_pop(builder, &frame));
}

/// The size asked for first, then any size the source has.
std::uint32_t buildFormats(spa_pod_builder* builder, int width, int height, const spa_pod* params[2])
{
    params[0] = buildFormat(builder, width, height, false);
    params[1] = buildFormat(builder, width, height, true);
    return 2;
}

int rotationFromTransform(std::uint32_t transform)
{
    switch (transform) {
    case SPA_META_TRANSFORMATION_90:
    case SPA_META_TRANSFORMATION_Flipped90:
        return 2;
    case SPA_META_TRANSFORMATION_180:
    case SPA_META_TRANSFORMATION_Flipped180:
        return 3;
    case SPA_META_TRANSFORMATION_270:
    case SPA_META_TRANSFORMATION_Flipped270:
        return 4;
    default:
        return 1;
    }
}

} // namespace

struct PipeWireStream::Loop
{
    pw_thread_loop* threadLoop = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;
    pw_stream* stream = nullptr;
    spa_hook coreListener {};
    spa_hook streamListener {};
    pw_core_events coreEvents {};
    pw_stream_events streamEvents {};

    // Guarded by the thread loop's lock.
    std::vector<std::uint8_t> latest; ///< the newest picture, four bytes a pixel
    std::vector<std::uint8_t> spare; ///< memory for the next copy
    Ifaces::ScalerSource latestSource;
    bool fresh = false;
    long failed = S_OK;
    bool connected = false;
    bool closed = false;
    spa_video_format format = SPA_VIDEO_FORMAT_UNKNOWN;
    int requestedWidth = 0;
    int requestedHeight = 0;

    std::atomic<int> width {0};
    std::atomic<int> height {0};
    std::atomic<int> rotation {1};

    class Lock
    {
    public:
        explicit Lock(pw_thread_loop* loop)
            : m_loop(loop)
        {
            pw_thread_loop_lock(m_loop);
        }
        ~Lock()
        {
            pw_thread_loop_unlock(m_loop);
        }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

    private:
        pw_thread_loop* m_loop;
    };

    static void onCoreError(void* data, std::uint32_t id, int, int res, const char*)
    {
        auto* self = static_cast<Loop*>(data);
        // A lost server outranks whatever the stream reported on its way down.
        if (id == PW_ID_CORE && (res == -EPIPE || self->failed >= 0))
            self->failed = res == -EPIPE ? RPC_E_DISCONNECTED : E_FAIL;
        pw_thread_loop_signal(self->threadLoop, false);
    }

    static void onStateChanged(void* data, pw_stream_state, pw_stream_state state, const char*)
    {
        auto* self = static_cast<Loop*>(data);
        switch (state) {
        case PW_STREAM_STATE_ERROR:
            if (self->failed >= 0)
                self->failed = E_FAIL;
            break;
        case PW_STREAM_STATE_UNCONNECTED:
            if (self->connected && self->failed >= 0)
                self->failed = RPC_E_DISCONNECTED;
            break;
        case PW_STREAM_STATE_PAUSED:
        case PW_STREAM_STATE_STREAMING:
            self->connected = true;
            break;
        default:
            break;
        }
        pw_thread_loop_signal(self->threadLoop, false);
    }

    static void onParamChanged(void* data, std::uint32_t id, const spa_pod* param)
    {
        auto* self = static_cast<Loop*>(data);
        if (id != SPA_PARAM_Format || !param)
            return;
        std::uint32_t mediaType = 0;
        std::uint32_t mediaSubtype = 0;
        if (spa_format_parse(param, &mediaType, &mediaSubtype) < 0 || mediaType != SPA_MEDIA_TYPE_video
            || mediaSubtype != SPA_MEDIA_SUBTYPE_raw)
            return;
        spa_video_info_raw info {};
        if (spa_format_video_raw_parse(param, &info) < 0)
            return;
        self->format = info.format;
        self->width = int(info.size.width);
        self->height = int(info.size.height);

        std::uint8_t buffer[1024];
        spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer, sizeof(buffer));
        const spa_pod* params[3];
        params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(&builder, SPA_TYPE_OBJECT_ParamBuffers,
            SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers, SPA_POD_CHOICE_RANGE_Int(4, 2, 16),
            SPA_PARAM_BUFFERS_dataType, SPA_POD_CHOICE_FLAGS_Int((1 << SPA_DATA_MemPtr) | (1 << SPA_DATA_MemFd))));
        params[1] = static_cast<const spa_pod*>(
            spa_pod_builder_add_object(&builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type,
                SPA_POD_Id(SPA_META_Header), SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_header))));
        params[2] = static_cast<const spa_pod*>(spa_pod_builder_add_object(&builder, SPA_TYPE_OBJECT_ParamMeta,
            SPA_PARAM_Meta, SPA_PARAM_META_type, SPA_POD_Id(SPA_META_VideoTransform), SPA_PARAM_META_size,
            SPA_POD_Int(sizeof(spa_meta_videotransform))));
        pw_stream_update_params(self->stream, params, 3);
    }

    static void onProcess(void* data)
    {
        auto* self = static_cast<Loop*>(data);
        // Drain: only the newest buffer is worth keeping. Its pixels are copied
        // out and every buffer goes straight back, because sources stall while
        // a consumer holds on to their buffers between cycles.
        pw_buffer* newest = nullptr;
        while (pw_buffer* buffer = pw_stream_dequeue_buffer(self->stream)) {
            if (newest)
                pw_stream_queue_buffer(self->stream, newest);
            newest = buffer;
        }
        if (!newest)
            return;
        if (auto* transform = static_cast<spa_meta_videotransform*>(
                spa_buffer_find_meta_data(newest->buffer, SPA_META_VideoTransform, sizeof(spa_meta_videotransform))))
            self->rotation = rotationFromTransform(transform->transform);
        self->copyOut(newest->buffer);
        pw_stream_queue_buffer(self->stream, newest);
    }

    /// Copies the picture of @p buffer into the newest-frame slot, as four bytes a pixel.
    void copyOut(const spa_buffer* buffer)
    {
        if (buffer->n_datas < 1)
            return;
        if (auto* header = static_cast<spa_meta_header*>(
                spa_buffer_find_meta_data(buffer, SPA_META_Header, sizeof(spa_meta_header)))) {
            if (header->flags & SPA_META_HEADER_FLAG_CORRUPTED)
                return;
        }
        const spa_data& data = buffer->datas[0];
        const int w = width;
        const int h = height;
        if (!data.data || !data.chunk || w <= 0 || h <= 0 || data.chunk->size == 0)
            return;

        Ifaces::PixelFormat pixelFormat = Ifaces::PixelFormat::Unknown;
        std::size_t pixelBytes = 4;
        switch (format) {
        case SPA_VIDEO_FORMAT_BGRx:
            pixelFormat = Ifaces::PixelFormat::B8G8R8X8Unorm;
            break;
        case SPA_VIDEO_FORMAT_BGRA:
            pixelFormat = Ifaces::PixelFormat::B8G8R8A8Unorm;
            break;
        case SPA_VIDEO_FORMAT_RGBx:
        case SPA_VIDEO_FORMAT_RGBA:
            pixelFormat = Ifaces::PixelFormat::R8G8B8A8Unorm;
            break;
        case SPA_VIDEO_FORMAT_RGB:
            pixelFormat = Ifaces::PixelFormat::R8G8B8A8Unorm;
            pixelBytes = 3;
            break;
        default:
            return;
        }
        const std::size_t row = std::size_t(w) * pixelBytes;
        const std::size_t stride = data.chunk->stride > 0 ? std::size_t(data.chunk->stride) : row;
        const std::size_t offset = data.maxsize ? data.chunk->offset % data.maxsize : 0;
        if (stride < row || offset + stride * std::size_t(h - 1) + row > data.maxsize)
            return;
        const auto* pixels = static_cast<const std::uint8_t*>(data.data) + offset;

        std::vector<std::uint8_t> slot = std::move(spare);
        slot.resize(std::size_t(w) * std::size_t(h) * 4);
        for (int y = 0; y < h; ++y) {
            const std::uint8_t* in = pixels + stride * std::size_t(y);
            std::uint8_t* out = slot.data() + std::size_t(y) * std::size_t(w) * 4;
            if (pixelBytes == 4) {
                std::memcpy(out, in, row);
            } else {
                // Three-byte pixels have no GPU upload format of their own: widen them.
                for (int x = 0; x < w; ++x, in += 3, out += 4) {
                    out[0] = in[0];
                    out[1] = in[1];
                    out[2] = in[2];
                    out[3] = 0xFF;
                }
            }
        }
        spare = std::move(latest);
        latest = std::move(slot);
        latestSource = Ifaces::ScalerSource();
        latestSource.width = w;
        latestSource.height = h;
        latestSource.bytesPerLine = std::size_t(w) * 4;
        latestSource.format = pixelFormat;
        fresh = true;
    }
};

PipeWireStream::PipeWireStream()
    : m_loop(new Loop)
{
}

PipeWireStream::~PipeWireStream()
{
    close();
}

long PipeWireStream::open(int fd, std::uint32_t nodeId, int width, int height, std::shared_ptr<PipeWireStream>& result,
    const char* targetName)
{
    result.reset();
    initialiseOnce();
    std::shared_ptr<PipeWireStream> self(new PipeWireStream);
    Loop& loop = *self->m_loop;

    loop.threadLoop = pw_thread_loop_new("orvanta-capture", nullptr);
    if (!loop.threadLoop) {
        if (fd >= 0)
            ::close(fd);
        return E_OUTOFMEMORY;
    }
    loop.context = pw_context_new(pw_thread_loop_get_loop(loop.threadLoop), nullptr, 0);
    if (!loop.context) {
        if (fd >= 0)
            ::close(fd);
        return E_OUTOFMEMORY;
    }
    if (pw_thread_loop_start(loop.threadLoop) < 0) {
        if (fd >= 0)
            ::close(fd);
        return E_FAIL;
    }

    Loop::Lock lock(loop.threadLoop);
    loop.core
        = fd >= 0 ? pw_context_connect_fd(loop.context, fd, nullptr, 0) : pw_context_connect(loop.context, nullptr, 0);
    if (!loop.core)
        return RPC_E_DISCONNECTED;
    loop.coreEvents.version = PW_VERSION_CORE_EVENTS;
    loop.coreEvents.error = &Loop::onCoreError;
    pw_core_add_listener(loop.core, &loop.coreListener, &loop.coreEvents, &loop);

    pw_properties* props = pw_properties_new(
        PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Capture", PW_KEY_MEDIA_ROLE, "Screen", nullptr);
    if (targetName && *targetName)
        pw_properties_set(props, PW_KEY_TARGET_OBJECT, targetName);
    loop.stream = pw_stream_new(loop.core, "orvanta-screen", props);
    if (!loop.stream)
        return E_OUTOFMEMORY;
    loop.streamEvents.version = PW_VERSION_STREAM_EVENTS;
    loop.streamEvents.state_changed = &Loop::onStateChanged;
    loop.streamEvents.param_changed = &Loop::onParamChanged;
    loop.streamEvents.process = &Loop::onProcess;
    pw_stream_add_listener(loop.stream, &loop.streamListener, &loop.streamEvents, &loop);

    std::uint8_t buffer[2048];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer, sizeof(buffer));
    const spa_pod* params[2];
    const std::uint32_t count = buildFormats(&builder, width, height, params);
    loop.requestedWidth = width;
    loop.requestedHeight = height;
    const auto flags = static_cast<pw_stream_flags>(
        PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_INACTIVE);
    const std::uint32_t target = (targetName && *targetName) ? PW_ID_ANY : nodeId;
    if (pw_stream_connect(loop.stream, PW_DIRECTION_INPUT, target, flags, params, count) < 0)
        return E_FAIL;
    result = std::move(self);
    return S_OK;
}

long PipeWireStream::failure() const
{
    if (m_loop->closed)
        return RO_E_CLOSED;
    return m_loop->failed;
}

long PipeWireStream::start()
{
    if (!m_loop->threadLoop)
        return RO_E_CLOSED;
    Loop::Lock lock(m_loop->threadLoop);
    const long hr = failure();
    if (hr < 0)
        return hr;
    return pw_stream_set_active(m_loop->stream, true) < 0 ? E_FAIL : S_OK;
}

long PipeWireStream::takeNewest(std::unique_ptr<Frame>& frame)
{
    frame.reset();
    if (!m_loop->threadLoop)
        return RO_E_CLOSED;
    Loop::Lock lock(m_loop->threadLoop);
    const long hr = failure();
    if (hr < 0)
        return hr;
    if (!m_loop->fresh)
        return S_OK;
    m_loop->fresh = false;
    frame.reset(new Frame(shared_from_this(), std::move(m_loop->latest), m_loop->latestSource));
    m_loop->latest.clear();
    return S_OK;
}

long PipeWireStream::renegotiate(int width, int height)
{
    if (!m_loop->threadLoop)
        return RO_E_CLOSED;
    Loop::Lock lock(m_loop->threadLoop);
    const long hr = failure();
    if (hr < 0)
        return hr;
    // Compared with what was asked, not with what came: a source that cannot
    // give the size is not asked again (some sources stall on every new format).
    if (width == m_loop->requestedWidth && height == m_loop->requestedHeight)
        return S_OK;
    m_loop->requestedWidth = width;
    m_loop->requestedHeight = height;
    std::uint8_t buffer[2048];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer, sizeof(buffer));
    const spa_pod* params[2];
    const std::uint32_t count = buildFormats(&builder, width, height, params);
    return pw_stream_update_params(m_loop->stream, params, count) < 0 ? E_FAIL : S_OK;
}

int PipeWireStream::rotation() const
{
    return m_loop->rotation;
}

void PipeWireStream::negotiatedSize(int& width, int& height) const
{
    width = m_loop->width;
    height = m_loop->height;
}

void PipeWireStream::close()
{
    Loop& loop = *m_loop;
    if (!loop.threadLoop)
        return;
    {
        Loop::Lock lock(loop.threadLoop);
        loop.closed = true;
    }
    pw_thread_loop_stop(loop.threadLoop);
    if (loop.stream) {
        spa_hook_remove(&loop.streamListener);
        pw_stream_destroy(loop.stream);
        loop.stream = nullptr;
    }
    if (loop.core) {
        spa_hook_remove(&loop.coreListener);
        pw_core_disconnect(loop.core);
        loop.core = nullptr;
    }
    if (loop.context) {
        pw_context_destroy(loop.context);
        loop.context = nullptr;
    }
    pw_thread_loop_destroy(loop.threadLoop);
    loop.threadLoop = nullptr;
}

PipeWireStream::Frame::Frame(
    std::shared_ptr<PipeWireStream> stream, std::vector<std::uint8_t> pixels, const Ifaces::ScalerSource& source)
    : m_stream(std::move(stream))
    , m_pixels(std::move(pixels))
    , m_source(source)
{
    m_source.pixels = m_pixels.empty() ? nullptr : m_pixels.data();
}

PipeWireStream::Frame::~Frame()
{
    // Hand the memory back for the next copy, saving an allocation a frame.
    Loop& loop = *m_stream->m_loop;
    if (!loop.threadLoop || m_pixels.empty())
        return;
    Loop::Lock lock(loop.threadLoop);
    if (loop.spare.capacity() < m_pixels.capacity())
        loop.spare = std::move(m_pixels);
}

bool PipeWireStream::Frame::hasPixels() const
{
    return m_source.pixels != nullptr;
}

const Ifaces::ScalerSource& PipeWireStream::Frame::source() const
{
    return m_source;
}

} // namespace PipeWire
} // namespace Orvanta
