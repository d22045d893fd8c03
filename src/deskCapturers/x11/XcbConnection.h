#pragma once

#include "ifaces/DisplayOutput.h"

#include <xcb/xcb.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace Orvanta {
namespace X11 {

/// A RandR monitor of an X screen, clamped to the screen.
struct XcbMonitor
{
    xcb_atom_t name = XCB_ATOM_NONE;
    std::string nameText;
    /// The first output the monitor covers; none for a monitor made without one.
    std::uint32_t output = 0;
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    Ifaces::OutputRotation rotation = Ifaces::OutputRotation::Identity;
};

/**
 * One connection to the X server, shared by the objects that enumerate and
 * capture through it.
 *
 * It keeps the RandR monitors of each screen and reads them again only after
 * the server reported a change (a root ConfigureNotify, which is all that
 * adding or removing a monitor sends, or a RandR notification), so that
 * asking for a monitor's rectangle at every frame costs no round trip.
 * Thread-safe.
 */
class XcbConnection
{
public:
    /// Connects to @p displayName (null: $DISPLAY); the result code of the failure, or 0.
    static long open(const char* displayName, std::shared_ptr<XcbConnection>& connection);

    ~XcbConnection();
    XcbConnection(const XcbConnection&) = delete;
    XcbConnection& operator=(const XcbConnection&) = delete;

    xcb_connection_t* get() const;
    int screenCount() const;
    const xcb_screen_t* screen(int index) const;
    std::string vendor() const;
    bool hasShm() const;

    /**
     * The current size of a screen in pixels; false for an unknown screen.
     * It follows RandR's screen-change notifications, not the size the
     * connection began with: docking grows the screen under a running client.
     */
    bool screenSize(int screenIndex, int& width, int& height);
    /// The current monitors of a screen, in the server's order; the result code of a failure, or 0.
    long monitors(int screenIndex, std::vector<XcbMonitor>& monitors);
    /// The monitor named @p name on a screen; false if there is none.
    bool monitor(int screenIndex, xcb_atom_t name, XcbMonitor& monitor);
    /**
     * The monitor named @p name that still covers @p output (none: any); false
     * if there is none. A monitor is known by what it is, never by its place
     * in the list, which changes when another monitor goes.
     */
    bool monitor(int screenIndex, xcb_atom_t name, std::uint32_t output, XcbMonitor& monitor);

    /// The pointer-sized handle of a monitor: its screen in the upper half, its name atom below.
    static std::uintptr_t monitorHandle(int screenIndex, xcb_atom_t name);
    static int screenOfHandle(std::uintptr_t handle);
    static xcb_atom_t nameOfHandle(std::uintptr_t handle);

private:
    explicit XcbConnection(xcb_connection_t* connection);
    void takeChanges();
    long queryMonitors(int screenIndex, std::vector<XcbMonitor>& monitors);

    xcb_connection_t* m_connection = nullptr;
    std::vector<xcb_screen_t*> m_screens;
    std::uint8_t m_randrEventBase = 0;
    bool m_shm = false;

    std::mutex m_mutex;
    std::vector<std::vector<XcbMonitor>> m_monitors;
    /// Width and height of each screen, as the server last announced them.
    std::vector<std::pair<int, int>> m_screenSizes;
    std::vector<bool> m_monitorsValid;
};

/// The DXGI rotation of RandR rotation bits; RandR turns counter-clockwise, DXGI clockwise.
Ifaces::OutputRotation rotationFromRandr(std::uint16_t rotation);

} // namespace X11
} // namespace Orvanta
