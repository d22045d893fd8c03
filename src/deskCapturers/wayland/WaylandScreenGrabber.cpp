#include "WaylandScreenGrabber.h"

#include "ResultCodes.h"
#include "WaylandConnection.h"
#include "WaylandScreencopy.h"

namespace Orvanta {
namespace Wayland {

namespace {

/// How long a grab waits for the compositor's next picture of the output.
constexpr unsigned kGrabTimeoutMilliseconds = 1000;

} // namespace

WaylandScreenGrabber::WaylandScreenGrabber(std::string displayName)
    : m_displayName(std::move(displayName))
{
}

WaylandScreenGrabber::~WaylandScreenGrabber()
{
    // The copies use the connection's queue machinery: they go first.
    m_copies.clear();
}

bool WaylandScreenGrabber::connect()
{
    if (m_connection && !m_connection->isBroken())
        return true;
    m_copies.clear();
    m_connection.reset();
    return WaylandConnection::open(m_displayName.empty() ? nullptr : m_displayName.c_str(), m_connection) >= 0;
}

bool WaylandScreenGrabber::monitorRect(std::uintptr_t monitor, Ifaces::ScreenRect& rect)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!connect())
        return false;
    WaylandOutputInfo info;
    if (!m_connection->output(WaylandConnection::nameOfHandle(monitor), info))
        return false;
    rect.left = info.x;
    rect.top = info.y;
    rect.right = info.x + info.modeWidth;
    rect.bottom = info.y + info.modeHeight;
    return true;
}

bool WaylandScreenGrabber::grab(std::uintptr_t monitor, const Ifaces::ScreenRect& rect, Ifaces::ScreenImage& image)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (rect.right <= rect.left || rect.bottom <= rect.top || !connect())
        return false;
    const std::string name = WaylandConnection::nameOfHandle(monitor);
    WaylandOutputInfo info;
    if (name.empty() || !m_connection->output(name, info))
        return false;
    std::unique_ptr<WaylandScreencopy>& copy = m_copies[name];
    if (!copy)
        copy = std::make_unique<WaylandScreencopy>(m_connection, name);
    if (copy->capture(false, kGrabTimeoutMilliseconds) < 0)
        return false;
    // The rectangle lies on the output's picture, counted from the output's place on the desktop.
    const long x = rect.left - info.x;
    const long y = rect.top - info.y;
    if (x < 0 || y < 0 || rect.right - info.x > copy->width() || rect.bottom - info.y > copy->height())
        return false;
    image.pixels = copy->pixels() + std::size_t(y) * copy->bytesPerLine() + std::size_t(x) * 4;
    image.width = int(rect.right - rect.left);
    image.height = int(rect.bottom - rect.top);
    image.bytesPerLine = copy->bytesPerLine();
    return true;
}

bool WaylandScreenGrabber::picturesAreTurned() const
{
    return false;
}

} // namespace Wayland
} // namespace Orvanta
