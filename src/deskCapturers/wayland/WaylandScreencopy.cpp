#include "WaylandScreencopy.h"

#include "ResultCodes.h"
#include "WaylandConnection.h"
#include "wlr-screencopy-unstable-v1-client-protocol.h"

#include <wayland-client.h>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>

namespace Orvanta {
namespace Wayland {

namespace {

/// Whether a shared-memory format keeps four bytes a pixel in the order B, G, R, padding.
bool isBgrx(std::uint32_t format)
{
    return format == WL_SHM_FORMAT_XRGB8888 || format == WL_SHM_FORMAT_ARGB8888;
}

/// Whether a shared-memory format keeps R, G, B, padding: usable after swapping red and blue.
bool isRgbx(std::uint32_t format)
{
    return format == WL_SHM_FORMAT_XBGR8888 || format == WL_SHM_FORMAT_ABGR8888;
}

} // namespace

struct WaylandScreencopy::Frame
{
    zwlr_screencopy_frame_v1* proxy = nullptr;
    std::uint32_t version = 0;
    bool withDamage = false;
    bool offered = false;
    std::uint32_t format = 0;
    int width = 0;
    int height = 0;
    int stride = 0;
    bool buffersListed = false;
    bool copyRequested = false;
    std::uint32_t flags = 0;
    bool isReady = false;
    bool hasFailed = false;
    std::vector<Ifaces::ScalerRect> damage;

    static void buffer(void* data, zwlr_screencopy_frame_v1*, std::uint32_t format, std::uint32_t width,
        std::uint32_t height, std::uint32_t stride)
    {
        auto* frame = static_cast<Frame*>(data);
        // B, G, R order is taken over R, G, B, which needs a swap at every copy.
        const bool better = isBgrx(format) && !isBgrx(frame->format);
        if ((isBgrx(format) || isRgbx(format)) && (!frame->offered || better)) {
            frame->offered = true;
            frame->format = format;
            frame->width = int(width);
            frame->height = int(height);
            frame->stride = int(stride);
        }
        // Before version 3 the shared-memory offer is the only one.
        if (frame->version < ZWLR_SCREENCOPY_FRAME_V1_BUFFER_DONE_SINCE_VERSION)
            frame->buffersListed = true;
    }

    static void frameFlags(void* data, zwlr_screencopy_frame_v1*, std::uint32_t flags)
    {
        static_cast<Frame*>(data)->flags = flags;
    }

    static void ready(void* data, zwlr_screencopy_frame_v1*, std::uint32_t, std::uint32_t, std::uint32_t)
    {
        static_cast<Frame*>(data)->isReady = true;
    }

    static void failed(void* data, zwlr_screencopy_frame_v1*)
    {
        static_cast<Frame*>(data)->hasFailed = true;
    }

    static void damaged(void* data, zwlr_screencopy_frame_v1*, std::uint32_t x, std::uint32_t y, std::uint32_t width,
        std::uint32_t height)
    {
        static_cast<Frame*>(data)->damage.push_back({int(x), int(y), int(width), int(height)});
    }

    static void dmaBuf(void*, zwlr_screencopy_frame_v1*, std::uint32_t, std::uint32_t, std::uint32_t)
    {
    }

    static void buffersDone(void* data, zwlr_screencopy_frame_v1*)
    {
        static_cast<Frame*>(data)->buffersListed = true;
    }

    static const zwlr_screencopy_frame_v1_listener listener;
};

const zwlr_screencopy_frame_v1_listener WaylandScreencopy::Frame::listener = {&Frame::buffer, &Frame::frameFlags,
    &Frame::ready, &Frame::failed, &Frame::damaged, &Frame::dmaBuf, &Frame::buffersDone};

/// A shared-memory buffer that the compositor copies into, mapped here for as long as it lives.
struct WaylandScreencopy::Buffer
{
    int fd = -1;
    void* memory = MAP_FAILED;
    std::size_t size = 0;
    wl_shm_pool* pool = nullptr;
    wl_buffer* buffer = nullptr;
    std::uint32_t format = 0;
    int width = 0;
    int height = 0;
    int stride = 0;

    ~Buffer()
    {
        if (buffer)
            wl_buffer_destroy(buffer);
        if (pool)
            wl_shm_pool_destroy(pool);
        if (memory != MAP_FAILED)
            ::munmap(memory, size);
        if (fd >= 0)
            ::close(fd);
    }

    bool fits(const Frame& frame) const
    {
        return buffer && format == frame.format && width == frame.width && height == frame.height
            && stride == frame.stride;
    }

    bool make(wl_shm* shm, const Frame& frame)
    {
        if (frame.width <= 0 || frame.height <= 0 || frame.stride < frame.width * 4)
            return false;
        size = std::size_t(frame.stride) * std::size_t(frame.height);
        fd = ::memfd_create("orvanta-screencopy", MFD_CLOEXEC);
        if (fd < 0 || ::ftruncate(fd, off_t(size)) < 0)
            return false;
        memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (memory == MAP_FAILED)
            return false;
        pool = wl_shm_create_pool(shm, fd, std::int32_t(size));
        buffer = wl_shm_pool_create_buffer(pool, 0, frame.width, frame.height, frame.stride, frame.format);
        format = frame.format;
        width = frame.width;
        height = frame.height;
        stride = frame.stride;
        return true;
    }
};

WaylandScreencopy::WaylandScreencopy(std::shared_ptr<WaylandConnection> connection, std::string outputName)
    : m_connection(std::move(connection))
    , m_outputName(std::move(outputName))
{
    m_queue = wl_display_create_queue(m_connection->display());
    // Wrappers put what is made through them on this queue alone, which only this object dispatches.
    if (m_connection->hasScreencopy()) {
        m_manager
            = static_cast<zwlr_screencopy_manager_v1*>(wl_proxy_create_wrapper(m_connection->screencopyManager()));
        wl_proxy_set_queue(reinterpret_cast<wl_proxy*>(m_manager), m_queue);
        m_shm = static_cast<wl_shm*>(wl_proxy_create_wrapper(m_connection->shm()));
        wl_proxy_set_queue(reinterpret_cast<wl_proxy*>(m_shm), m_queue);
    }
}

WaylandScreencopy::~WaylandScreencopy()
{
    endFrame();
    m_buffer.reset();
    if (m_manager)
        wl_proxy_wrapper_destroy(m_manager);
    if (m_shm)
        wl_proxy_wrapper_destroy(m_shm);
    wl_display_flush(m_connection->display());
    if (m_queue)
        wl_event_queue_destroy(m_queue);
}

void WaylandScreencopy::endFrame()
{
    if (m_frame && m_frame->proxy)
        zwlr_screencopy_frame_v1_destroy(m_frame->proxy);
    m_frame.reset();
}

long WaylandScreencopy::begin(bool withDamage)
{
    auto frame = std::make_unique<Frame>();
    frame->withDamage = withDamage;
    frame->version = m_connection->screencopyVersion();
    const bool found = m_connection->withOutput(m_outputName, [&](wl_output* output) {
        frame->proxy = zwlr_screencopy_manager_v1_capture_output(m_manager, 0, output);
        zwlr_screencopy_frame_v1_add_listener(frame->proxy, &Frame::listener, frame.get());
    });
    if (!found)
        return DXGI_ERROR_ACCESS_LOST;
    m_frame = std::move(frame);
    return S_OK;
}

long WaylandScreencopy::capture(bool withDamage, unsigned timeoutMilliseconds)
{
    if (!m_manager || !m_queue)
        return DXGI_ERROR_UNSUPPORTED;
    if (m_connection->isBroken())
        return DXGI_ERROR_SESSION_DISCONNECTED;
    if (m_frame && m_frame->withDamage != withDamage)
        endFrame();
    if (!m_frame) {
        if (const long result = begin(withDamage); result < 0)
            return result;
    }

    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMilliseconds);
    bool timedOut = false;
    for (;;) {
        Frame& frame = *m_frame;
        if (frame.buffersListed && !frame.copyRequested) {
            if (!frame.offered) {
                endFrame();
                return DXGI_ERROR_UNSUPPORTED;
            }
            if (!m_buffer || !m_buffer->fits(frame)) {
                m_buffer = std::make_unique<Buffer>();
                if (!m_buffer->make(m_shm, frame)) {
                    m_buffer.reset();
                    endFrame();
                    return E_OUTOFMEMORY;
                }
            }
            if (frame.withDamage)
                zwlr_screencopy_frame_v1_copy_with_damage(frame.proxy, m_buffer->buffer);
            else
                zwlr_screencopy_frame_v1_copy(frame.proxy, m_buffer->buffer);
            frame.copyRequested = true;
        }
        if (frame.isReady)
            return finish();
        if (frame.hasFailed) {
            endFrame();
            return DXGI_ERROR_ACCESS_LOST;
        }
        // Even without time to wait, what already arrived is taken: a pending
        // copy then moves on from call to call.
        if (timedOut)
            return DXGI_ERROR_WAIT_TIMEOUT;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        timedOut = left <= 0;
        if (m_connection->dispatchQueue(m_queue, int(std::clamp<long long>(left, 0, 0x7FFFFFFF))) < 0)
            return DXGI_ERROR_SESSION_DISCONNECTED;
    }
}

long WaylandScreencopy::finish()
{
    const Frame& frame = *m_frame;
    auto* memory = static_cast<std::uint8_t*>(m_buffer->memory);
    const std::size_t stride = std::size_t(m_buffer->stride);
    const int height = m_buffer->height;
    if (frame.flags & ZWLR_SCREENCOPY_FRAME_V1_FLAGS_Y_INVERT) {
        std::vector<std::uint8_t> line(stride);
        for (int top = 0, bottom = height - 1; top < bottom; ++top, --bottom) {
            std::memcpy(line.data(), memory + stride * std::size_t(top), stride);
            std::memcpy(memory + stride * std::size_t(top), memory + stride * std::size_t(bottom), stride);
            std::memcpy(memory + stride * std::size_t(bottom), line.data(), stride);
        }
    }
    if (isRgbx(m_buffer->format)) {
        for (int y = 0; y < height; ++y) {
            std::uint8_t* pixel = memory + stride * std::size_t(y);
            for (int x = 0; x < m_buffer->width; ++x, pixel += 4)
                std::swap(pixel[0], pixel[2]);
        }
    }
    m_changed.clear();
    for (Ifaces::ScalerRect piece : frame.damage) {
        if (frame.flags & ZWLR_SCREENCOPY_FRAME_V1_FLAGS_Y_INVERT)
            piece.y = height - piece.y - piece.height;
        const int x0 = std::clamp(piece.x, 0, m_buffer->width);
        const int y0 = std::clamp(piece.y, 0, height);
        const int x1 = std::clamp(piece.x + piece.width, 0, m_buffer->width);
        const int y1 = std::clamp(piece.y + piece.height, 0, height);
        if (x1 > x0 && y1 > y0)
            m_changed.push_back({x0, y0, x1 - x0, y1 - y0});
    }
    endFrame();
    return S_OK;
}

const std::uint8_t* WaylandScreencopy::pixels() const
{
    return m_buffer ? static_cast<const std::uint8_t*>(m_buffer->memory) : nullptr;
}

int WaylandScreencopy::width() const
{
    return m_buffer ? m_buffer->width : 0;
}

int WaylandScreencopy::height() const
{
    return m_buffer ? m_buffer->height : 0;
}

std::size_t WaylandScreencopy::bytesPerLine() const
{
    return m_buffer ? std::size_t(m_buffer->stride) : 0;
}

const std::vector<Ifaces::ScalerRect>& WaylandScreencopy::changedRects() const
{
    return m_changed;
}

} // namespace Wayland
} // namespace Orvanta
