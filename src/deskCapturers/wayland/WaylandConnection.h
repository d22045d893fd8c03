#pragma once

#include "ifaces/DisplayOutput.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct wl_display;
struct wl_event_queue;
struct wl_output;
struct wl_registry;
struct wl_shm;
struct zwlr_screencopy_manager_v1;
struct zxdg_output_manager_v1;

namespace Orvanta {
namespace Wayland {

/// What a compositor says about one of its outputs.
struct WaylandOutputInfo
{
    std::string name;
    std::string description;
    /// The output on the compositor's logical desktop.
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    /// The current mode: the size of the pictures the output is drawn into, before any turning.
    int modeWidth = 0;
    int modeHeight = 0;
    Ifaces::OutputRotation rotation = Ifaces::OutputRotation::Identity;
};

/**
 * One connection to a Wayland compositor, shared by the objects that enumerate
 * and capture through it.
 *
 * A thread of its own reads the socket and keeps the outputs up to date as
 * the compositor announces them, changes them or takes them away, so that
 * asking for an output costs no round trip. Captures run on event queues of
 * their own and read the same socket through dispatchQueue(). Thread-safe.
 */
class WaylandConnection
{
public:
    /// Connects to @p displayName (null: $WAYLAND_DISPLAY); the result code of the failure, or 0.
    static long open(const char* displayName, std::shared_ptr<WaylandConnection>& connection);

    ~WaylandConnection();
    WaylandConnection(const WaylandConnection&) = delete;
    WaylandConnection& operator=(const WaylandConnection&) = delete;

    wl_display* display() const;
    /// The socket's name, as the compositor's clients know it.
    std::string displayName() const;
    bool isBroken() const;

    /// The outputs that are fully described, in the order the compositor announced them.
    std::vector<WaylandOutputInfo> outputs();
    /// The output named @p name; false if there is none now.
    bool output(const std::string& name, WaylandOutputInfo& info);

    /**
     * Whether the compositor lets clients copy its outputs (wlr-screencopy).
     * The environment variable ORVANTA_IGNORE_SCREENCOPY set to 1 makes it
     * false whatever the compositor offers, so that the screen-cast path of
     * the duplication and blit modes can be tried on any compositor.
     */
    bool hasScreencopy() const;
    wl_shm* shm() const;
    zwlr_screencopy_manager_v1* screencopyManager() const;
    std::uint32_t screencopyVersion() const;

    /**
     * Runs @p use with the proxy of the output named @p name, which stays
     * alive while it runs; false, without running it, if there is no such output.
     */
    bool withOutput(const std::string& name, const std::function<void(wl_output*)>& use);

    /**
     * Dispatches the events of @p queue, reading the socket for at most
     * @p timeoutMilliseconds when none are waiting. The number of events
     * dispatched, or -1 once the connection broke.
     */
    int dispatchQueue(wl_event_queue* queue, int timeoutMilliseconds);

    /// The pointer-sized handle of the output named @p name, the same for the whole process.
    static std::uintptr_t handleOfName(const std::string& name);
    /// The name behind a handle; empty for an unknown one.
    static std::string nameOfHandle(std::uintptr_t handle);

    struct Output;

private:
    explicit WaylandConnection(wl_display* display);
    void run();
    void bindGlobal(wl_registry* registry, std::uint32_t name, const char* interface, std::uint32_t version);
    void removeGlobal(std::uint32_t name);
    void addXdgOutput(Output& output);

    wl_display* m_display = nullptr;
    std::string m_displayName;
    wl_registry* m_registry = nullptr;
    wl_shm* m_shm = nullptr;
    zwlr_screencopy_manager_v1* m_screencopy = nullptr;
    std::uint32_t m_screencopyVersion = 0;
    zxdg_output_manager_v1* m_xdgOutputManager = nullptr;

    std::mutex m_mutex;
    /// By the compositor's name of the global, which grows with each announcement.
    std::map<std::uint32_t, std::unique_ptr<Output>> m_outputs;

    int m_wakeFd = -1;
    std::atomic<bool> m_stopping {false};
    std::atomic<bool> m_broken {false};
    std::thread m_thread;

    friend struct WaylandListeners;
};

} // namespace Wayland
} // namespace Orvanta
