#include "x11/XcbDuplication.h"

#include "ResultCodes.h"
#include "ifaces/DisplayAdapter.h"
#include "x11/XcbPixelLayout.h"
#include "x11/XcbScreenAdapter.h"

#include <xcb/damage.h>
#include <xcb/shm.h>
#include <xcb/xcb.h>
#include <xcb/xfixes.h>

#include <poll.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace Orvanta {
namespace X11 {

namespace {

template <typename T> struct FreeDeleter
{
    void operator()(T* pointer) const
    {
        std::free(pointer);
    }
};
template <typename T> using Reply = std::unique_ptr<T, FreeDeleter<T>>;

struct ConnectionDeleter
{
    void operator()(xcb_connection_t* connection) const
    {
        xcb_disconnect(connection);
    }
};

/// A System V shared memory segment attached to this process.
class SharedMemory
{
public:
    ~SharedMemory()
    {
        if (m_address) {
            shmdt(m_address);
        }
    }

    bool allocate(std::size_t bytes)
    {
        m_id = shmget(IPC_PRIVATE, bytes, IPC_CREAT | 0600);
        if (m_id < 0) {
            return false;
        }
        void* address = shmat(m_id, nullptr, 0);
        if (address == reinterpret_cast<void*>(-1)) {
            shmctl(m_id, IPC_RMID, nullptr);
            m_id = -1;
            return false;
        }
        m_address = address;
        return true;
    }

    /// Marks the segment for removal once everyone has detached, so that
    /// nothing is left behind if the process ends without cleaning up.
    void removeWhenDetached()
    {
        if (m_id >= 0) {
            shmctl(m_id, IPC_RMID, nullptr);
        }
    }

    int id() const
    {
        return m_id;
    }
    void* address() const
    {
        return m_address;
    }

private:
    int m_id = -1;
    void* m_address = nullptr;
};

bool sameRectangle(const Ifaces::OutputDescription& a, const Ifaces::OutputDescription& b)
{
    return a.left == b.left && a.top == b.top && a.right == b.right && a.bottom == b.bottom;
}

} // namespace

struct XcbDuplication::State
{
    std::unique_ptr<xcb_connection_t, ConnectionDeleter> connection;
    std::shared_ptr<Ifaces::DisplayOutput> output;
    Ifaces::OutputDescription geometry;
    xcb_window_t root = XCB_NONE;
    std::uint16_t screenWidth = 0;
    std::uint16_t screenHeight = 0;
    xcb_damage_damage_t damage = XCB_NONE;
    std::uint8_t damageEventBase = 0;
    xcb_shm_seg_t segment = XCB_NONE;
    SharedMemory memory;
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    xcb_xfixes_region_t region = XCB_NONE;
    /// The monitor's picture, kept between frames: only damaged parts are fetched into it.
    std::vector<std::uint8_t> picture;
    std::vector<Ifaces::ScalerRect> changed;
    bool fetchWhole = true;
    bool changedAll = true;
    bool damaged = false;
    bool reconfigured = false;
    bool frameHeld = false;
    /// How the screen keeps its pixels; deep screens are converted to 8 bits a channel when fetched.
    std::unique_ptr<XcbPixelLayout> layout;
};

long XcbDuplication::create(const char* displayName, std::shared_ptr<Ifaces::DisplayOutput> output,
    std::unique_ptr<Ifaces::OutputDuplication>& duplication)
{
    duplication.reset();
    if (!output) {
        return E_POINTER;
    }
    auto state = std::make_unique<State>();
    state->output = std::move(output);
    long result = state->output->describe(state->geometry);
    if (result < 0) {
        return result;
    }

    int screenNumber = 0;
    state->connection.reset(xcb_connect(displayName, &screenNumber));
    xcb_connection_t* connection = state->connection.get();
    if (xcb_connection_has_error(connection)) {
        return DXGI_ERROR_SESSION_DISCONNECTED;
    }
    xcb_screen_iterator_t screens = xcb_setup_roots_iterator(xcb_get_setup(connection));
    for (int i = 0; i < screenNumber && screens.rem; ++i) {
        xcb_screen_next(&screens);
    }
    if (!screens.rem) {
        return DXGI_ERROR_NOT_FOUND;
    }
    state->root = screens.data->root;
    state->layout = std::make_unique<XcbPixelLayout>(screens.data);
    if (!state->layout->isSupported()) {
        return DXGI_ERROR_UNSUPPORTED;
    }

    const xcb_query_extension_reply_t* shm = xcb_get_extension_data(connection, &xcb_shm_id);
    const xcb_query_extension_reply_t* damage = xcb_get_extension_data(connection, &xcb_damage_id);
    const xcb_query_extension_reply_t* fixes = xcb_get_extension_data(connection, &xcb_xfixes_id);
    if (!shm || !shm->present || !damage || !damage->present || !fixes || !fixes->present) {
        return DXGI_ERROR_UNSUPPORTED;
    }
    state->damageEventBase = damage->first_event;
    // DAMAGE works in terms of XFIXES regions; both versions must be agreed first.
    Reply<xcb_xfixes_query_version_reply_t> fixesVersion(
        xcb_xfixes_query_version_reply(connection, xcb_xfixes_query_version(connection, 5, 0), nullptr));
    Reply<xcb_damage_query_version_reply_t> damageVersion(
        xcb_damage_query_version_reply(connection, xcb_damage_query_version(connection, 1, 1), nullptr));
    if (!fixesVersion || !damageVersion) {
        return DXGI_ERROR_UNSUPPORTED;
    }

    // Size changes of the screen arrive as ConfigureNotify on the root window.
    const std::uint32_t events = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    xcb_change_window_attributes(connection, state->root, XCB_CW_EVENT_MASK, &events);
    Reply<xcb_get_geometry_reply_t> rootGeometry(
        xcb_get_geometry_reply(connection, xcb_get_geometry(connection, state->root), nullptr));
    if (!rootGeometry) {
        return xcb_connection_has_error(connection) ? DXGI_ERROR_SESSION_DISCONNECTED : E_FAIL;
    }
    state->screenWidth = rootGeometry->width;
    state->screenHeight = rootGeometry->height;

    // The monitor may reach past a screen that shrank; only the visible part is fetched.
    state->x = std::clamp<long>(state->geometry.left, 0, state->screenWidth);
    state->y = std::clamp<long>(state->geometry.top, 0, state->screenHeight);
    state->width = int(std::clamp<long>(state->geometry.right, 0, state->screenWidth)) - state->x;
    state->height = int(std::clamp<long>(state->geometry.bottom, 0, state->screenHeight)) - state->y;
    if (state->width <= 0 || state->height <= 0) {
        return DXGI_ERROR_NOT_CURRENTLY_AVAILABLE;
    }

    const std::size_t pictureBytes = std::size_t(state->width) * std::size_t(state->height) * 4;
    if (!state->memory.allocate(pictureBytes)) {
        return E_OUTOFMEMORY;
    }
    state->picture.assign(pictureBytes, 0);
    state->segment = xcb_generate_id(connection);
    // Writable: the server puts the fetched pictures into it.
    Reply<xcb_generic_error_t> attachError(xcb_request_check(
        connection, xcb_shm_attach_checked(connection, state->segment, std::uint32_t(state->memory.id()), 0)));
    state->memory.removeWhenDetached();
    if (attachError) {
        state->segment = XCB_NONE;
        return DXGI_ERROR_UNSUPPORTED;
    }

    // One event when the damage goes from empty to non-empty; subtracting it
    // on each acquire re-arms it. The first event covers the whole screen, so
    // the first acquire delivers a frame.
    state->damage = xcb_generate_id(connection);
    Reply<xcb_generic_error_t> damageError(xcb_request_check(connection,
        xcb_damage_create_checked(connection, state->damage, state->root, XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY)));
    if (damageError) {
        state->damage = XCB_NONE;
        return DXGI_ERROR_UNSUPPORTED;
    }
    state->region = xcb_generate_id(connection);
    xcb_xfixes_create_region(connection, state->region, 0, nullptr);
    xcb_flush(connection);

    duplication.reset(new XcbDuplication(std::move(state)));
    return S_OK;
}

XcbDuplication::XcbDuplication(std::unique_ptr<State> state)
    : m_state(std::move(state))
{
}

XcbDuplication::~XcbDuplication()
{
    xcb_connection_t* connection = m_state->connection.get();
    if (connection && !xcb_connection_has_error(connection)) {
        if (m_state->damage != XCB_NONE) {
            xcb_damage_destroy(connection, m_state->damage);
        }
        if (m_state->region != XCB_NONE) {
            xcb_xfixes_destroy_region(connection, m_state->region);
        }
        if (m_state->segment != XCB_NONE) {
            xcb_shm_detach(connection, m_state->segment);
        }
        // The server must have let go of the segment before it is detached here.
        Reply<xcb_get_input_focus_reply_t> sync(
            xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
    }
}

Ifaces::DuplicationDescription XcbDuplication::description() const
{
    Ifaces::DuplicationDescription description;
    description.width = unsigned(m_state->width);
    description.height = unsigned(m_state->height);
    description.format = 87; // DXGI_FORMAT_B8G8R8A8_UNORM: the byte order of a 24-bit X screen
    description.rotation = int(m_state->geometry.rotation);
    return description;
}

long XcbDuplication::processEvents()
{
    xcb_connection_t* connection = m_state->connection.get();
    while (xcb_generic_event_t* raw = xcb_poll_for_event(connection)) {
        Reply<xcb_generic_event_t> event(raw);
        const std::uint8_t type = event->response_type & 0x7F;
        if (type == m_state->damageEventBase + XCB_DAMAGE_NOTIFY) {
            m_state->damaged = true;
        } else if (type == XCB_CONFIGURE_NOTIFY) {
            const auto* configure = reinterpret_cast<const xcb_configure_notify_event_t*>(event.get());
            if (configure->window == m_state->root) {
                if (configure->width != m_state->screenWidth || configure->height != m_state->screenHeight) {
                    m_state->reconfigured = true;
                }
                // Monitors are laid out anew without a size change, too.
                if (geometryChanged()) {
                    m_state->reconfigured = true;
                }
            }
        }
    }
    if (xcb_connection_has_error(connection)) {
        return DXGI_ERROR_SESSION_DISCONNECTED;
    }
    return m_state->reconfigured ? DXGI_ERROR_ACCESS_LOST : S_OK;
}

long XcbDuplication::fetch(const Ifaces::ScalerRect& piece)
{
    xcb_connection_t* connection = m_state->connection.get();
    xcb_generic_error_t* rawError = nullptr;
    Reply<xcb_shm_get_image_reply_t> image(xcb_shm_get_image_reply(connection,
        xcb_shm_get_image(connection, m_state->root, std::int16_t(m_state->x + piece.x),
            std::int16_t(m_state->y + piece.y), std::uint16_t(piece.width), std::uint16_t(piece.height), ~0u,
            XCB_IMAGE_FORMAT_Z_PIXMAP, m_state->segment, 0),
        &rawError));
    Reply<xcb_generic_error_t> error(rawError);
    if (xcb_connection_has_error(connection)) {
        return DXGI_ERROR_SESSION_DISCONNECTED;
    }
    if (!image || error) {
        // The rectangle no longer lies on the screen: the layout changed under us.
        return DXGI_ERROR_ACCESS_LOST;
    }
    if (image->depth < 24 || image->depth > 32) {
        return DXGI_ERROR_UNSUPPORTED;
    }
    if (!m_state->layout->isPlainBgrx()) {
        // A deep screen: its channels become 8 bits where the piece comes in.
        std::uint8_t* memory = static_cast<std::uint8_t*>(m_state->memory.address());
        m_state->layout->toBgrx(memory, memory, std::size_t(piece.width) * std::size_t(piece.height));
    }
    // The server packs the piece's lines; they go to their place in the picture.
    const std::size_t lineBytes = std::size_t(piece.width) * 4;
    const std::size_t pictureLine = std::size_t(m_state->width) * 4;
    const auto* from = static_cast<const std::uint8_t*>(m_state->memory.address());
    std::uint8_t* to = m_state->picture.data() + std::size_t(piece.y) * pictureLine + std::size_t(piece.x) * 4;
    if (lineBytes == pictureLine) {
        std::memcpy(to, from, lineBytes * std::size_t(piece.height));
    } else {
        for (int line = 0; line < piece.height; ++line) {
            std::memcpy(to + pictureLine * std::size_t(line), from + lineBytes * std::size_t(line), lineBytes);
        }
    }
    return S_OK;
}

bool XcbDuplication::geometryChanged() const
{
    Ifaces::OutputDescription now;
    if (m_state->output->describe(now) < 0) {
        return true;
    }
    return !sameRectangle(now, m_state->geometry) || now.rotation != m_state->geometry.rotation;
}

long XcbDuplication::acquireNextFrame(unsigned timeoutMilliseconds)
{
    xcb_connection_t* connection = m_state->connection.get();
    if (m_state->frameHeld) {
        return DXGI_ERROR_INVALID_CALL;
    }
    long result = processEvents();
    if (result < 0) {
        return result;
    }
    if (!m_state->damaged && timeoutMilliseconds > 0) {
        pollfd descriptor = {xcb_get_file_descriptor(connection), POLLIN, 0};
        ::poll(&descriptor, 1, int(std::min<unsigned>(timeoutMilliseconds, 0x7FFFFFFF)));
        result = processEvents();
        if (result < 0) {
            return result;
        }
    }
    if (!m_state->damaged) {
        return DXGI_ERROR_WAIT_TIMEOUT;
    }

    // Re-arm first: whatever is drawn after the subtraction reports anew.
    // The damage moves into the region, which says what to fetch.
    m_state->damaged = false;
    m_state->changed.clear();
    if (m_state->fetchWhole) {
        xcb_damage_subtract(connection, m_state->damage, XCB_NONE, XCB_NONE);
        result = fetch({0, 0, m_state->width, m_state->height});
        if (result < 0) {
            return result;
        }
        m_state->fetchWhole = false;
        m_state->changedAll = true;
        m_state->frameHeld = true;
        return S_OK;
    }

    xcb_damage_subtract(connection, m_state->damage, XCB_NONE, m_state->region);
    Reply<xcb_xfixes_fetch_region_reply_t> region(
        xcb_xfixes_fetch_region_reply(connection, xcb_xfixes_fetch_region(connection, m_state->region), nullptr));
    if (!region) {
        return xcb_connection_has_error(connection) ? DXGI_ERROR_SESSION_DISCONNECTED : DXGI_ERROR_ACCESS_LOST;
    }
    const xcb_rectangle_t* rectangles = xcb_xfixes_fetch_region_rectangles(region.get());
    const int count = xcb_xfixes_fetch_region_rectangles_length(region.get());
    // Many small pieces cost a round trip each; past a few, their bounding box is cheaper.
    constexpr int kMostPieces = 8;
    auto add = [this](const xcb_rectangle_t& piece) {
        const int x0 = std::max(int(piece.x) - m_state->x, 0);
        const int y0 = std::max(int(piece.y) - m_state->y, 0);
        const int x1 = std::min(int(piece.x) + int(piece.width) - m_state->x, m_state->width);
        const int y1 = std::min(int(piece.y) + int(piece.height) - m_state->y, m_state->height);
        if (x1 > x0 && y1 > y0) {
            m_state->changed.push_back({x0, y0, x1 - x0, y1 - y0});
        }
    };
    if (count > kMostPieces) {
        add(region->extents);
    } else {
        for (int i = 0; i < count; ++i) {
            add(rectangles[i]);
        }
    }
    if (m_state->changed.empty()) {
        // Drawing elsewhere on the screen: nothing new on this monitor.
        return DXGI_ERROR_WAIT_TIMEOUT;
    }
    for (const Ifaces::ScalerRect& piece : m_state->changed) {
        result = fetch(piece);
        if (result < 0) {
            return result;
        }
    }
    m_state->changedAll = false;
    m_state->frameHeld = true;
    return S_OK;
}

long XcbDuplication::frameSource(Ifaces::ScalerSource& source)
{
    if (!m_state->frameHeld) {
        return DXGI_ERROR_INVALID_CALL;
    }
    source = Ifaces::ScalerSource();
    source.pixels = m_state->picture.data();
    source.bytesPerLine = std::size_t(m_state->width) * 4;
    source.width = m_state->width;
    source.height = m_state->height;
    source.format = Ifaces::PixelFormat::B8G8R8X8Unorm;
    if (!m_state->changedAll) {
        source.changedRects = m_state->changed.data();
        source.changedRectCount = m_state->changed.size();
    }
    return S_OK;
}

long XcbDuplication::releaseFrame()
{
    if (!m_state->frameHeld) {
        return DXGI_ERROR_INVALID_CALL;
    }
    m_state->frameHeld = false;
    return S_OK;
}

XcbDuplicator::XcbDuplicator(std::shared_ptr<Ifaces::DisplayAdapter> adapter,
    std::shared_ptr<Ifaces::GraphicsDevice> device, std::shared_ptr<Ifaces::DisplayOutput> monitor)
    : m_adapter(std::move(adapter))
    , m_device(std::move(device))
    , m_monitor(std::dynamic_pointer_cast<XcbMonitorOutput>(monitor))
{
}

XcbDuplicator::~XcbDuplicator() = default;

long XcbDuplicator::enumOutput(unsigned outputIndex)
{
    m_output.reset();
    if (!m_adapter) {
        return E_POINTER;
    }
    if (m_monitor) {
        // After an unplug the indices shift: the index would name another monitor.
        if (!m_monitor->isPresent()) {
            return DXGI_ERROR_NOT_FOUND;
        }
        m_output = m_monitor;
        return S_OK;
    }
    return m_adapter->enumOutput(outputIndex, m_output);
}

long XcbDuplicator::queryDuplicationOutput()
{
    return m_output ? S_OK : E_NOINTERFACE;
}

long XcbDuplicator::duplicateOutput(
    const std::vector<int>& formats, std::unique_ptr<Ifaces::OutputDuplication>& duplication)
{
    // An X screen of depth 24 has one layout, B, G, R, padding; it is offered
    // as B8G8R8A8 when the caller accepts that.
    if (std::find(formats.begin(), formats.end(), 87) == formats.end()) {
        duplication.reset();
        return DXGI_ERROR_UNSUPPORTED;
    }
    return XcbDuplication::create(nullptr, m_output, duplication);
}

std::shared_ptr<Ifaces::GpuScaler> XcbDuplicator::deviceScaler()
{
    return Ifaces::createPlatformGpuScaler(m_device);
}

} // namespace X11

} // namespace Orvanta
