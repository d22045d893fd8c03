#pragma once

#include "ifaces/ScreenGrabber.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace Orvanta {
namespace Wayland {

class WaylandConnection;
class WaylandScreencopy;

/**
 * Copies the outputs of a Wayland compositor through screencopy, each grab
 * the output's newest picture. The connection is made at first use; each
 * output keeps its shared memory from grab to grab.
 */
class WaylandScreenGrabber : public Ifaces::ScreenGrabber
{
public:
    /// Connects to @p displayName at first use; empty means $WAYLAND_DISPLAY.
    explicit WaylandScreenGrabber(std::string displayName = {});
    ~WaylandScreenGrabber() override;

    /// The output's position on the desktop, and the size of its pictures before turning.
    bool monitorRect(std::uintptr_t monitor, Ifaces::ScreenRect& rect) override;
    bool grab(std::uintptr_t monitor, const Ifaces::ScreenRect& rect, Ifaces::ScreenImage& image) override;
    /// False: the compositor hands out an output's picture unturned.
    bool picturesAreTurned() const override;

private:
    bool connect();

    std::mutex m_mutex;
    std::string m_displayName;
    std::shared_ptr<WaylandConnection> m_connection;
    std::map<std::string, std::unique_ptr<WaylandScreencopy>> m_copies;
};

} // namespace Wayland
} // namespace Orvanta
