#include "XcbConnection.h"

#include "ResultCodes.h"

#include <xcb/randr.h>
#include <xcb/shm.h>

#include <algorithm>
#include <cstdlib>

static_assert(sizeof(std::uintptr_t) >= 8, "monitor handles keep the screen in the upper 32 bits");

namespace Orvanta {
namespace X11 {

namespace {

template <typename Reply> using ReplyPtr = std::unique_ptr<Reply, decltype(&std::free)>;

template <typename Reply> ReplyPtr<Reply> owned(Reply* reply)
{
    return ReplyPtr<Reply>(reply, &std::free);
}

} // namespace

Ifaces::OutputRotation rotationFromRandr(std::uint16_t rotation)
{
    if (rotation & XCB_RANDR_ROTATION_ROTATE_90)
        return Ifaces::OutputRotation::Rotate270;
    if (rotation & XCB_RANDR_ROTATION_ROTATE_180)
        return Ifaces::OutputRotation::Rotate180;
    if (rotation & XCB_RANDR_ROTATION_ROTATE_270)
        return Ifaces::OutputRotation::Rotate90;
    return Ifaces::OutputRotation::Identity;
}

long XcbConnection::open(const char* displayName, std::shared_ptr<XcbConnection>& connection)
{
    connection.reset();
    xcb_connection_t* raw = xcb_connect(displayName, nullptr);
    std::shared_ptr<XcbConnection> made(new XcbConnection(raw));
    if (xcb_connection_has_error(raw))
        return DXGI_ERROR_NOT_CURRENTLY_AVAILABLE;

    // Monitors came with RandR 1.5.
    const xcb_query_extension_reply_t* randr = xcb_get_extension_data(raw, &xcb_randr_id);
    if (!randr || !randr->present)
        return DXGI_ERROR_UNSUPPORTED;
    auto version = owned(xcb_randr_query_version_reply(raw, xcb_randr_query_version(raw, 1, 5), nullptr));
    if (!version || (version->major_version == 1 && version->minor_version < 5))
        return DXGI_ERROR_UNSUPPORTED;
    made->m_randrEventBase = randr->first_event;

    const xcb_query_extension_reply_t* shm = xcb_get_extension_data(raw, &xcb_shm_id);
    if (shm && shm->present) {
        auto shmVersion = owned(xcb_shm_query_version_reply(raw, xcb_shm_query_version(raw), nullptr));
        made->m_shm = shmVersion != nullptr;
    }

    for (auto it = xcb_setup_roots_iterator(xcb_get_setup(raw)); it.rem; xcb_screen_next(&it)) {
        xcb_screen_t* screen = it.data;
        made->m_screens.push_back(screen);
        const std::uint32_t mask = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
        xcb_change_window_attributes(raw, screen->root, XCB_CW_EVENT_MASK, &mask);
        xcb_randr_select_input(raw, screen->root,
            XCB_RANDR_NOTIFY_MASK_SCREEN_CHANGE | XCB_RANDR_NOTIFY_MASK_CRTC_CHANGE
                | XCB_RANDR_NOTIFY_MASK_OUTPUT_CHANGE);
    }
    xcb_flush(raw);
    for (const xcb_screen_t* screen : made->m_screens)
        made->m_screenSizes.emplace_back(screen->width_in_pixels, screen->height_in_pixels);
    made->m_monitors.resize(made->m_screens.size());
    made->m_monitorsValid.assign(made->m_screens.size(), false);
    connection = std::move(made);
    return S_OK;
}

XcbConnection::XcbConnection(xcb_connection_t* connection)
    : m_connection(connection)
{
}

XcbConnection::~XcbConnection()
{
    xcb_disconnect(m_connection);
}

xcb_connection_t* XcbConnection::get() const
{
    return m_connection;
}

int XcbConnection::screenCount() const
{
    return int(m_screens.size());
}

const xcb_screen_t* XcbConnection::screen(int index) const
{
    return index >= 0 && index < screenCount() ? m_screens[std::size_t(index)] : nullptr;
}

std::string XcbConnection::vendor() const
{
    const xcb_setup_t* setup = xcb_get_setup(m_connection);
    return std::string(xcb_setup_vendor(setup), std::size_t(xcb_setup_vendor_length(setup)));
}

bool XcbConnection::hasShm() const
{
    return m_shm;
}

std::uintptr_t XcbConnection::monitorHandle(int screenIndex, xcb_atom_t name)
{
    return (std::uintptr_t(std::uint32_t(screenIndex)) << 32) | std::uintptr_t(name);
}

int XcbConnection::screenOfHandle(std::uintptr_t handle)
{
    return int(handle >> 32);
}

xcb_atom_t XcbConnection::nameOfHandle(std::uintptr_t handle)
{
    return xcb_atom_t(handle & 0xffffffffu);
}

void XcbConnection::takeChanges()
{
    while (xcb_generic_event_t* event = xcb_poll_for_event(m_connection)) {
        const std::uint8_t type = event->response_type & 0x7f;
        if (type == XCB_CONFIGURE_NOTIFY || type == m_randrEventBase + XCB_RANDR_SCREEN_CHANGE_NOTIFY
            || type == m_randrEventBase + XCB_RANDR_NOTIFY)
            std::fill(m_monitorsValid.begin(), m_monitorsValid.end(), false);
        if (type == m_randrEventBase + XCB_RANDR_SCREEN_CHANGE_NOTIFY) {
            const auto* change = reinterpret_cast<const xcb_randr_screen_change_notify_event_t*>(event);
            // The sizes are in the root's own orientation, as the clamping needs them.
            const bool turned = change->rotation & (XCB_RANDR_ROTATION_ROTATE_90 | XCB_RANDR_ROTATION_ROTATE_270);
            for (std::size_t index = 0; index < m_screens.size(); ++index) {
                if (m_screens[index]->root == change->root)
                    m_screenSizes[index] = turned ? std::make_pair(int(change->height), int(change->width))
                                                  : std::make_pair(int(change->width), int(change->height));
            }
        }
        if (type == XCB_CONFIGURE_NOTIFY) {
            // The root's own size, which the server also announces this way.
            const auto* configure = reinterpret_cast<const xcb_configure_notify_event_t*>(event);
            for (std::size_t index = 0; index < m_screens.size(); ++index) {
                if (m_screens[index]->root == configure->window)
                    m_screenSizes[index] = std::make_pair(int(configure->width), int(configure->height));
            }
        }
        std::free(event);
    }
}

bool XcbConnection::screenSize(int screenIndex, int& width, int& height)
{
    if (!screen(screenIndex))
        return false;
    std::lock_guard<std::mutex> lock(m_mutex);
    takeChanges();
    width = m_screenSizes[std::size_t(screenIndex)].first;
    height = m_screenSizes[std::size_t(screenIndex)].second;
    return true;
}

long XcbConnection::monitors(int screenIndex, std::vector<XcbMonitor>& monitors)
{
    if (!screen(screenIndex))
        return DXGI_ERROR_NOT_FOUND;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (xcb_connection_has_error(m_connection))
        return DXGI_ERROR_DEVICE_REMOVED;
    takeChanges();
    const std::size_t index = std::size_t(screenIndex);
    if (!m_monitorsValid[index]) {
        std::vector<XcbMonitor> fresh;
        if (const long result = queryMonitors(screenIndex, fresh); result < 0)
            return result;
        m_monitors[index] = std::move(fresh);
        m_monitorsValid[index] = true;
    }
    monitors = m_monitors[index];
    return S_OK;
}

bool XcbConnection::monitor(int screenIndex, xcb_atom_t name, XcbMonitor& monitor)
{
    return this->monitor(screenIndex, name, XCB_NONE, monitor);
}

bool XcbConnection::monitor(int screenIndex, xcb_atom_t name, std::uint32_t output, XcbMonitor& monitor)
{
    std::vector<XcbMonitor> all;
    if (monitors(screenIndex, all) < 0)
        return false;
    const auto found = std::find_if(all.begin(), all.end(),
        [name, output](const XcbMonitor& m) { return m.name == name && (output == XCB_NONE || m.output == output); });
    if (found == all.end())
        return false;
    monitor = *found;
    return true;
}

long XcbConnection::queryMonitors(int screenIndex, std::vector<XcbMonitor>& monitors)
{
    const xcb_screen_t* root = screen(screenIndex);
    auto reply = owned(
        xcb_randr_get_monitors_reply(m_connection, xcb_randr_get_monitors(m_connection, root->root, 1), nullptr));
    if (!reply)
        return E_FAIL;

    struct Pending
    {
        XcbMonitor monitor;
        xcb_get_atom_name_cookie_t name;
        bool hasOutput = false;
        xcb_randr_get_output_info_cookie_t output;
    };
    std::vector<Pending> pending;
    for (auto it = xcb_randr_get_monitors_monitors_iterator(reply.get()); it.rem; xcb_randr_monitor_info_next(&it)) {
        const xcb_randr_monitor_info_t* info = it.data;
        Pending entry;
        entry.monitor.name = info->name;
        // User-defined monitors survive a shrinking screen and may then lie
        // partly or wholly outside it.
        const int left = std::max<int>(info->x, 0);
        const int top = std::max<int>(info->y, 0);
        const int right = std::min<int>(info->x + info->width, m_screenSizes[std::size_t(screenIndex)].first);
        const int bottom = std::min<int>(info->y + info->height, m_screenSizes[std::size_t(screenIndex)].second);
        entry.monitor.x = left;
        entry.monitor.y = top;
        entry.monitor.width = std::max(right - left, 0);
        entry.monitor.height = std::max(bottom - top, 0);
        entry.name = xcb_get_atom_name(m_connection, info->name);
        if (xcb_randr_monitor_info_outputs_length(info) > 0) {
            entry.hasOutput = true;
            entry.monitor.output = xcb_randr_monitor_info_outputs(info)[0];
            entry.output = xcb_randr_get_output_info(m_connection, entry.monitor.output, XCB_CURRENT_TIME);
        }
        pending.push_back(entry);
    }

    for (Pending& entry : pending) {
        if (auto name = owned(xcb_get_atom_name_reply(m_connection, entry.name, nullptr)))
            entry.monitor.nameText.assign(
                xcb_get_atom_name_name(name.get()), std::size_t(xcb_get_atom_name_name_length(name.get())));
        if (!entry.hasOutput)
            continue;
        auto output = owned(xcb_randr_get_output_info_reply(m_connection, entry.output, nullptr));
        if (!output || output->crtc == XCB_NONE)
            continue;
        auto crtc = owned(xcb_randr_get_crtc_info_reply(
            m_connection, xcb_randr_get_crtc_info(m_connection, output->crtc, XCB_CURRENT_TIME), nullptr));
        if (crtc)
            entry.monitor.rotation = rotationFromRandr(crtc->rotation);
    }

    monitors.clear();
    for (const Pending& entry : pending)
        monitors.push_back(entry.monitor);
    return S_OK;
}

} // namespace X11
} // namespace Orvanta
