#pragma once

#include "ifaces/GpuScaler.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct wl_event_queue;
struct wl_shm;
struct zwlr_screencopy_manager_v1;

namespace Orvanta {
namespace Wayland {

class WaylandConnection;

/**
 * Copies one output of a compositor into shared memory of this process,
 * through the wlroots screencopy protocol, on an event queue of its own.
 *
 * The memory is made once and kept while the output keeps its size and pixel
 * format. A copy with damage waits until the compositor drew something new
 * on the output; one that is still waiting when the timeout passes goes on
 * waiting, so that asking again costs the compositor nothing. Not
 * thread-safe: one thread uses it at a time.
 */
class WaylandScreencopy
{
public:
    WaylandScreencopy(std::shared_ptr<WaylandConnection> connection, std::string outputName);
    ~WaylandScreencopy();
    WaylandScreencopy(const WaylandScreencopy&) = delete;
    WaylandScreencopy& operator=(const WaylandScreencopy&) = delete;

    /**
     * Copies the output's newest picture; with @p withDamage only once it
     * changed. S_OK with a picture, DXGI_ERROR_WAIT_TIMEOUT when none came
     * within @p timeoutMilliseconds, DXGI_ERROR_ACCESS_LOST when the output
     * went or the compositor refused the copy, DXGI_ERROR_UNSUPPORTED without
     * screencopy or a usable pixel format, DXGI_ERROR_SESSION_DISCONNECTED on
     * a broken connection.
     */
    long capture(bool withDamage, unsigned timeoutMilliseconds);

    /// The picture of the last successful capture: B, G, R and padding, top line first.
    const std::uint8_t* pixels() const;
    int width() const;
    int height() const;
    std::size_t bytesPerLine() const;
    /// The parts that changed since the capture before, for a capture with damage.
    const std::vector<Ifaces::ScalerRect>& changedRects() const;

private:
    struct Frame;
    struct Buffer;
    long begin(bool withDamage);
    long finish();
    void endFrame();

    std::shared_ptr<WaylandConnection> m_connection;
    std::string m_outputName;
    wl_event_queue* m_queue = nullptr;
    zwlr_screencopy_manager_v1* m_manager = nullptr;
    wl_shm* m_shm = nullptr;
    std::unique_ptr<Frame> m_frame;
    std::unique_ptr<Buffer> m_buffer;
    std::vector<Ifaces::ScalerRect> m_changed;
};

} // namespace Wayland
} // namespace Orvanta
