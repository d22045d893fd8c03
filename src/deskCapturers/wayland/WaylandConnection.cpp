#include "WaylandConnection.h"

#include "ResultCodes.h"
#include "wlr-screencopy-unstable-v1-client-protocol.h"
#include "xdg-output-unstable-v1-client-protocol.h"

#include <wayland-client.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace Orvanta {
namespace Wayland {

struct WaylandConnection::Output
{
    WaylandConnection* owner = nullptr;
    std::uint32_t global = 0;
    std::uint32_t version = 0;
    wl_output* proxy = nullptr;
    zxdg_output_v1* xdgOutput = nullptr;
    WaylandOutputInfo info;
    /// Where wl_output puts it; only used when the compositor has no xdg-output.
    int geometryX = 0;
    int geometryY = 0;
    std::int32_t transform = WL_OUTPUT_TRANSFORM_NORMAL;
    bool hasLogicalPosition = false;
    bool hasLogicalSize = false;
    /// Set at the first done event: before it the output is not fully described.
    bool described = false;

    ~Output()
    {
        if (xdgOutput)
            zxdg_output_v1_destroy(xdgOutput);
        if (version >= WL_OUTPUT_RELEASE_SINCE_VERSION)
            wl_output_release(proxy);
        else
            wl_output_destroy(proxy);
    }

    WaylandOutputInfo current() const
    {
        WaylandOutputInfo result = info;
        if (!hasLogicalPosition) {
            result.x = geometryX;
            result.y = geometryY;
        }
        if (!hasLogicalSize) {
            const bool turned = (transform & 1) != 0;
            result.width = turned ? info.modeHeight : info.modeWidth;
            result.height = turned ? info.modeWidth : info.modeHeight;
        }
        return result;
    }
};

namespace {

/**
 * The rotation of an output's pictures, in the blit and duplication back-ends'
 * sense. Wayland counts its transforms counter-clockwise: an output turned
 * by 270 (what sway calls a clockwise quarter turn) is handed out with its
 * user's top left corner at the picture's top right, which a quarter turn
 * counter-clockwise (Rotate90) undoes. Mirrored outputs keep their turn.
 */
Ifaces::OutputRotation rotationFromTransform(std::int32_t transform)
{
    switch (transform & 3) {
    case WL_OUTPUT_TRANSFORM_90:
        return Ifaces::OutputRotation::Rotate270;
    case WL_OUTPUT_TRANSFORM_180:
        return Ifaces::OutputRotation::Rotate180;
    case WL_OUTPUT_TRANSFORM_270:
        return Ifaces::OutputRotation::Rotate90;
    default:
        return Ifaces::OutputRotation::Identity;
    }
}

std::mutex& handleMutex()
{
    static std::mutex mutex;
    return mutex;
}

std::vector<std::string>& handleNames()
{
    static std::vector<std::string> names;
    return names;
}

} // namespace

struct WaylandListeners
{
    using Output = WaylandConnection::Output;

    static void global(
        void* data, wl_registry* registry, std::uint32_t name, const char* interface, std::uint32_t version)
    {
        static_cast<WaylandConnection*>(data)->bindGlobal(registry, name, interface, version);
    }

    static void globalRemove(void* data, wl_registry*, std::uint32_t name)
    {
        static_cast<WaylandConnection*>(data)->removeGlobal(name);
    }

    static void geometry(void* data, wl_output*, std::int32_t x, std::int32_t y, std::int32_t, std::int32_t,
        std::int32_t, const char*, const char*, std::int32_t transform)
    {
        auto* output = static_cast<Output*>(data);
        std::lock_guard<std::mutex> lock(output->owner->m_mutex);
        output->geometryX = x;
        output->geometryY = y;
        output->transform = transform;
        output->info.rotation = rotationFromTransform(transform);
    }

    static void mode(void* data, wl_output*, std::uint32_t flags, std::int32_t width, std::int32_t height, std::int32_t)
    {
        if (!(flags & WL_OUTPUT_MODE_CURRENT))
            return;
        auto* output = static_cast<Output*>(data);
        std::lock_guard<std::mutex> lock(output->owner->m_mutex);
        output->info.modeWidth = width;
        output->info.modeHeight = height;
    }

    static void done(void* data, wl_output*)
    {
        auto* output = static_cast<Output*>(data);
        std::lock_guard<std::mutex> lock(output->owner->m_mutex);
        output->described = true;
    }

    static void scale(void*, wl_output*, std::int32_t)
    {
    }

    static void name(void* data, wl_output*, const char* name)
    {
        auto* output = static_cast<Output*>(data);
        std::lock_guard<std::mutex> lock(output->owner->m_mutex);
        output->info.name = name;
    }

    static void description(void* data, wl_output*, const char* description)
    {
        auto* output = static_cast<Output*>(data);
        std::lock_guard<std::mutex> lock(output->owner->m_mutex);
        output->info.description = description;
    }

    static void logicalPosition(void* data, zxdg_output_v1*, std::int32_t x, std::int32_t y)
    {
        auto* output = static_cast<Output*>(data);
        std::lock_guard<std::mutex> lock(output->owner->m_mutex);
        output->info.x = x;
        output->info.y = y;
        output->hasLogicalPosition = true;
    }

    static void logicalSize(void* data, zxdg_output_v1*, std::int32_t width, std::int32_t height)
    {
        auto* output = static_cast<Output*>(data);
        std::lock_guard<std::mutex> lock(output->owner->m_mutex);
        output->info.width = width;
        output->info.height = height;
        output->hasLogicalSize = true;
    }

    static void xdgDone(void*, zxdg_output_v1*)
    {
    }

    static void xdgName(void* data, zxdg_output_v1*, const char* name)
    {
        // Compositors older than wl_output version 4 name their outputs only here.
        auto* output = static_cast<Output*>(data);
        std::lock_guard<std::mutex> lock(output->owner->m_mutex);
        if (output->version < WL_OUTPUT_NAME_SINCE_VERSION)
            output->info.name = name;
    }

    static void xdgDescription(void* data, zxdg_output_v1*, const char* description)
    {
        auto* output = static_cast<Output*>(data);
        std::lock_guard<std::mutex> lock(output->owner->m_mutex);
        if (output->version < WL_OUTPUT_DESCRIPTION_SINCE_VERSION)
            output->info.description = description;
    }
};

namespace {

const wl_registry_listener registryListener = {&WaylandListeners::global, &WaylandListeners::globalRemove};
const wl_output_listener outputListener = {&WaylandListeners::geometry, &WaylandListeners::mode,
    &WaylandListeners::done, &WaylandListeners::scale, &WaylandListeners::name, &WaylandListeners::description};
const zxdg_output_v1_listener xdgOutputListener = {&WaylandListeners::logicalPosition, &WaylandListeners::logicalSize,
    &WaylandListeners::xdgDone, &WaylandListeners::xdgName, &WaylandListeners::xdgDescription};

} // namespace

long WaylandConnection::open(const char* displayName, std::shared_ptr<WaylandConnection>& connection)
{
    connection.reset();
    wl_display* display = wl_display_connect(displayName);
    if (!display)
        return DXGI_ERROR_NOT_CURRENTLY_AVAILABLE;
    std::shared_ptr<WaylandConnection> made(new WaylandConnection(display));
    if (displayName && *displayName)
        made->m_displayName = displayName;
    else if (const char* fromEnvironment = std::getenv("WAYLAND_DISPLAY"); fromEnvironment && *fromEnvironment)
        made->m_displayName = fromEnvironment;
    else
        made->m_displayName = "wayland-0";

    made->m_registry = wl_display_get_registry(display);
    wl_registry_add_listener(made->m_registry, &registryListener, made.get());
    // The first round trip announces the globals, the second what the outputs say about themselves.
    if (wl_display_roundtrip(display) < 0 || wl_display_roundtrip(display) < 0)
        return DXGI_ERROR_SESSION_DISCONNECTED;

    made->m_wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (made->m_wakeFd < 0)
        return E_FAIL;
    made->m_thread = std::thread(&WaylandConnection::run, made.get());
    connection = std::move(made);
    return S_OK;
}

WaylandConnection::WaylandConnection(wl_display* display)
    : m_display(display)
{
}

WaylandConnection::~WaylandConnection()
{
    if (m_thread.joinable()) {
        m_stopping = true;
        const std::uint64_t one = 1;
        if (::write(m_wakeFd, &one, sizeof one) < 0) {
            // The thread looks at the socket at least every few hundred milliseconds anyway.
        }
        m_thread.join();
    }
    if (m_wakeFd >= 0)
        ::close(m_wakeFd);
    m_outputs.clear();
    if (m_xdgOutputManager)
        zxdg_output_manager_v1_destroy(m_xdgOutputManager);
    if (m_screencopy)
        zwlr_screencopy_manager_v1_destroy(m_screencopy);
    if (m_shm)
        wl_shm_destroy(m_shm);
    if (m_registry)
        wl_registry_destroy(m_registry);
    wl_display_disconnect(m_display);
}

void WaylandConnection::run()
{
    // Reads the socket for every queue and dispatches the connection's own;
    // the captures' queues are dispatched by their threads.
    while (!m_stopping) {
        while (wl_display_prepare_read(m_display) != 0) {
            if (wl_display_dispatch_pending(m_display) < 0) {
                m_broken = true;
                return;
            }
        }
        wl_display_flush(m_display);
        pollfd descriptors[2] = {{wl_display_get_fd(m_display), POLLIN, 0}, {m_wakeFd, POLLIN, 0}};
        const int ready = ::poll(descriptors, 2, 500);
        if (ready > 0 && (descriptors[0].revents & (POLLIN | POLLERR | POLLHUP))) {
            if (wl_display_read_events(m_display) < 0) {
                m_broken = true;
                return;
            }
        } else {
            wl_display_cancel_read(m_display);
        }
        if (wl_display_dispatch_pending(m_display) < 0) {
            m_broken = true;
            return;
        }
    }
}

void WaylandConnection::bindGlobal(
    wl_registry* registry, std::uint32_t name, const char* interface, std::uint32_t version)
{
    if (std::strcmp(interface, wl_output_interface.name) == 0) {
        auto output = std::make_unique<Output>();
        output->owner = this;
        output->global = name;
        // Version 4 adds the output's name and description.
        output->version = std::min<std::uint32_t>(version, 4);
        output->proxy
            = static_cast<wl_output*>(wl_registry_bind(registry, name, &wl_output_interface, output->version));
        wl_output_add_listener(output->proxy, &outputListener, output.get());
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_xdgOutputManager)
            addXdgOutput(*output);
        m_outputs[name] = std::move(output);
    } else if (std::strcmp(interface, zxdg_output_manager_v1_interface.name) == 0) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_xdgOutputManager = static_cast<zxdg_output_manager_v1*>(
            wl_registry_bind(registry, name, &zxdg_output_manager_v1_interface, std::min<std::uint32_t>(version, 3)));
        for (auto& entry : m_outputs)
            addXdgOutput(*entry.second);
    } else if (std::strcmp(interface, wl_shm_interface.name) == 0) {
        m_shm = static_cast<wl_shm*>(wl_registry_bind(registry, name, &wl_shm_interface, 1));
    } else if (std::strcmp(interface, zwlr_screencopy_manager_v1_interface.name) == 0) {
        m_screencopyVersion = std::min<std::uint32_t>(version, 3);
        m_screencopy = static_cast<zwlr_screencopy_manager_v1*>(
            wl_registry_bind(registry, name, &zwlr_screencopy_manager_v1_interface, m_screencopyVersion));
    }
}

void WaylandConnection::addXdgOutput(Output& output)
{
    if (output.xdgOutput)
        return;
    output.xdgOutput = zxdg_output_manager_v1_get_xdg_output(m_xdgOutputManager, output.proxy);
    zxdg_output_v1_add_listener(output.xdgOutput, &xdgOutputListener, &output);
}

void WaylandConnection::removeGlobal(std::uint32_t name)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_outputs.find(name);
    if (found != m_outputs.end())
        m_outputs.erase(found);
}

wl_display* WaylandConnection::display() const
{
    return m_display;
}

std::string WaylandConnection::displayName() const
{
    return m_displayName;
}

bool WaylandConnection::isBroken() const
{
    return m_broken || wl_display_get_error(m_display) != 0;
}

std::vector<WaylandOutputInfo> WaylandConnection::outputs()
{
    std::vector<WaylandOutputInfo> result;
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& entry : m_outputs) {
        if (entry.second->described && !entry.second->info.name.empty())
            result.push_back(entry.second->current());
    }
    return result;
}

bool WaylandConnection::output(const std::string& name, WaylandOutputInfo& info)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& entry : m_outputs) {
        if (entry.second->described && entry.second->info.name == name) {
            info = entry.second->current();
            return true;
        }
    }
    return false;
}

bool WaylandConnection::hasScreencopy() const
{
    const char* ignored = std::getenv("ORVANTA_IGNORE_SCREENCOPY");
    if (ignored && std::string(ignored) == "1")
        return false;
    return m_screencopy != nullptr && m_shm != nullptr;
}

wl_shm* WaylandConnection::shm() const
{
    return m_shm;
}

zwlr_screencopy_manager_v1* WaylandConnection::screencopyManager() const
{
    return m_screencopy;
}

std::uint32_t WaylandConnection::screencopyVersion() const
{
    return m_screencopyVersion;
}

bool WaylandConnection::withOutput(const std::string& name, const std::function<void(wl_output*)>& use)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& entry : m_outputs) {
        if (entry.second->described && entry.second->info.name == name) {
            use(entry.second->proxy);
            return true;
        }
    }
    return false;
}

int WaylandConnection::dispatchQueue(wl_event_queue* queue, int timeoutMilliseconds)
{
    if (wl_display_prepare_read_queue(m_display, queue) != 0)
        return wl_display_dispatch_queue_pending(m_display, queue);
    if (wl_display_flush(m_display) < 0 && errno != EAGAIN) {
        wl_display_cancel_read(m_display);
        return -1;
    }
    pollfd descriptor = {wl_display_get_fd(m_display), POLLIN, 0};
    if (::poll(&descriptor, 1, std::max(timeoutMilliseconds, 0)) > 0) {
        if (wl_display_read_events(m_display) < 0)
            return -1;
    } else {
        wl_display_cancel_read(m_display);
    }
    return wl_display_dispatch_queue_pending(m_display, queue);
}

std::uintptr_t WaylandConnection::handleOfName(const std::string& name)
{
    // Output names outlive the globals that carry them: an output switched off
    // and on again is announced anew under the same name, and keeps its handle.
    std::lock_guard<std::mutex> lock(handleMutex());
    std::vector<std::string>& names = handleNames();
    const auto found = std::find(names.begin(), names.end(), name);
    if (found != names.end())
        return std::uintptr_t(found - names.begin()) + 1;
    names.push_back(name);
    return names.size();
}

std::string WaylandConnection::nameOfHandle(std::uintptr_t handle)
{
    std::lock_guard<std::mutex> lock(handleMutex());
    const std::vector<std::string>& names = handleNames();
    if (handle == 0 || handle > names.size())
        return {};
    return names[handle - 1];
}

} // namespace Wayland
} // namespace Orvanta
