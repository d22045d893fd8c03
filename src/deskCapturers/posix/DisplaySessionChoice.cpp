#include "DisplaySessionChoice.h"

#include "ifaces/DesktopDuplicator.h"
#include "ifaces/DisplaySystem.h"
#include "ifaces/ScreenGrabber.h"
#include "portal/ScreenCastDuplication.h"
#include "portal/ScreenCastScreenGrabber.h"
#include "wayland/WaylandCompositorAdapter.h"
#include "wayland/WaylandConnection.h"
#include "wayland/WaylandDisplaySystem.h"
#include "wayland/WaylandDuplication.h"
#include "wayland/WaylandScreenGrabber.h"
#include "x11/XcbDisplaySystem.h"
#include "x11/XcbDuplication.h"
#include "x11/XcbScreenGrabber.h"

#include <sys/stat.h>

#include <cctype>
#include <cstdlib>

namespace Orvanta {

namespace Posix {

namespace {

std::string environment(const char* name)
{
    const char* value = std::getenv(name);
    return value ? std::string(value) : std::string();
}

} // namespace

bool isWaylandSession()
{
    if (!environment("WAYLAND_DISPLAY").empty())
        return true;
    std::string type = environment("XDG_SESSION_TYPE");
    for (char& c : type)
        c = char(std::tolower(static_cast<unsigned char>(c)));
    const std::string runtime = environment("XDG_RUNTIME_DIR");
    if (type != "wayland" || runtime.empty())
        return false;
    struct stat socket = {};
    return ::stat((runtime + "/wayland-0").c_str(), &socket) == 0 && S_ISSOCK(socket.st_mode);
}

bool readsScreenThroughScreenCast()
{
    if (!isWaylandSession())
        return false;
    std::shared_ptr<Wayland::WaylandConnection> connection;
    return Wayland::WaylandConnection::open(nullptr, connection) >= 0 && !connection->hasScreencopy();
}

std::string screenReadingObstacle()
{
    if (!isWaylandSession())
        return {};
    std::shared_ptr<Wayland::WaylandConnection> connection;
    if (Wayland::WaylandConnection::open(nullptr, connection) < 0)
        return "the Wayland compositor cannot be reached";
    return {};
}

std::string screenReadingPath()
{
    if (!isWaylandSession())
        return {};
    std::shared_ptr<Wayland::WaylandConnection> connection;
    if (Wayland::WaylandConnection::open(nullptr, connection) < 0)
        return {};
    if (connection->hasScreencopy())
        return "the compositor's wlr-screencopy-unstable-v1";
    return "the desktop portal's screen cast, one session per output";
}

} // namespace Posix

std::shared_ptr<Ifaces::DisplaySystem> Ifaces::createPlatformDisplaySystem()
{
    if (Posix::isWaylandSession())
        return std::make_shared<Wayland::WaylandDisplaySystem>();
    return std::make_shared<X11::XcbDisplaySystem>();
}

std::unique_ptr<Ifaces::ScreenGrabber> Ifaces::createPlatformScreenGrabber()
{
    if (Posix::readsScreenThroughScreenCast())
        return std::make_unique<Portal::ScreenCastScreenGrabber>(std::make_unique<Wayland::WaylandScreenGrabber>());
    if (Posix::isWaylandSession())
        return std::make_unique<Wayland::WaylandScreenGrabber>();
    return std::make_unique<X11::XcbScreenGrabber>();
}

std::string Ifaces::platformScreenReadingObstacle()
{
    return Posix::screenReadingObstacle();
}

std::string Ifaces::platformScreenReadingPath()
{
    return Posix::screenReadingPath();
}

std::unique_ptr<Ifaces::DesktopDuplicator> Ifaces::createPlatformDesktopDuplicator(
    std::shared_ptr<DisplayAdapter> adapter, std::shared_ptr<GraphicsDevice> device,
    std::shared_ptr<DisplayOutput> output)
{
    if (!adapter)
        return nullptr;
    // The adapter tells which display system the row came from, whatever the session is now.
    if (const auto compositor = std::dynamic_pointer_cast<Wayland::WaylandCompositorAdapter>(adapter)) {
        if (!compositor->connection()->hasScreencopy())
            return std::make_unique<Portal::ScreenCastDuplicator>(
                std::move(adapter), std::move(device), std::move(output));
        return std::make_unique<Wayland::WaylandDuplicator>(std::move(adapter), std::move(device), std::move(output));
    }
    return std::make_unique<X11::XcbDuplicator>(std::move(adapter), std::move(device), std::move(output));
}

} // namespace Orvanta
