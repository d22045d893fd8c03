#include "XcbScreenGrabber.h"

#include "XcbConnection.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cstdlib>
#include <cstring>

namespace Orvanta {

namespace X11 {

namespace {

/// Whether @p ends cut @p height rows into bands that are not empty.
bool validBands(const std::vector<int>& ends, int height)
{
    int previous = 0;
    for (const int end : ends) {
        if (end <= previous || end > height)
            return false;
        previous = end;
    }
    return previous == height;
}

} // namespace

XcbScreenGrabber::XcbScreenGrabber(std::string displayName)
    : m_displayName(std::move(displayName))
{
}

XcbScreenGrabber::~XcbScreenGrabber()
{
    releaseSegment();
}

bool XcbScreenGrabber::connect()
{
    if (m_connection && !xcb_connection_has_error(m_connection->get()))
        return true;
    releaseSegment();
    m_connection.reset();
    m_layouts.clear();
    if (XcbConnection::open(m_displayName.empty() ? nullptr : m_displayName.c_str(), m_connection) < 0)
        return false;
    // A root visual lasts as long as the connection: read it once, not at every grab.
    for (int index = 0; index < m_connection->screenCount(); ++index)
        m_layouts.emplace_back(m_connection->screen(index));
    return true;
}

bool XcbScreenGrabber::monitorRect(std::uintptr_t monitor, Ifaces::ScreenRect& rect)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!connect())
        return false;
    XcbMonitor found;
    if (!m_connection->monitor(XcbConnection::screenOfHandle(monitor), XcbConnection::nameOfHandle(monitor), found))
        return false;
    rect.left = found.x;
    rect.top = found.y;
    rect.right = found.x + found.width;
    rect.bottom = found.y + found.height;
    return true;
}

bool XcbScreenGrabber::reserveSegment(std::size_t size)
{
    if (m_segmentMemory && m_segmentSize >= size)
        return true;
    releaseSegment();
    xcb_connection_t* connection = m_connection->get();

    const int id = shmget(IPC_PRIVATE, size, IPC_CREAT | 0600);
    if (id < 0)
        return false;
    void* memory = shmat(id, nullptr, 0);
    if (memory == reinterpret_cast<void*>(-1)) {
        shmctl(id, IPC_RMID, nullptr);
        return false;
    }
    const xcb_shm_seg_t segment = xcb_generate_id(connection);
    xcb_generic_error_t* error
        = xcb_request_check(connection, xcb_shm_attach_checked(connection, segment, std::uint32_t(id), 0));
    // Marked for removal at once: the segment goes when both sides have detached,
    // even if this process dies.
    shmctl(id, IPC_RMID, nullptr);
    if (error) {
        std::free(error);
        shmdt(memory);
        return false;
    }
    m_segment = segment;
    m_segmentMemory = static_cast<unsigned char*>(memory);
    m_segmentSize = size;
    return true;
}

void XcbScreenGrabber::releaseSegment()
{
    if (!m_segmentMemory)
        return;
    if (m_connection && !xcb_connection_has_error(m_connection->get())) {
        xcb_shm_detach(m_connection->get(), m_segment);
        xcb_flush(m_connection->get());
    }
    shmdt(m_segmentMemory);
    m_segmentMemory = nullptr;
    m_segmentSize = 0;
    m_segment = 0;
}

bool XcbScreenGrabber::grab(std::uintptr_t monitor, const Ifaces::ScreenRect& rect, Ifaces::ScreenImage& image)
{
    return grabInBands(
        monitor, rect, {int(rect.bottom - rect.top)}, image, [](const Ifaces::ScreenImage&, int, int) {});
}

bool XcbScreenGrabber::grabInBands(std::uintptr_t monitor, const Ifaces::ScreenRect& rect,
    const std::vector<int>& bandEnds, Ifaces::ScreenImage& image, const BandArrived& arrived)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const long width = rect.right - rect.left;
    const long height = rect.bottom - rect.top;
    if (width <= 0 || height <= 0 || !connect())
        return false;
    const int screenIndex = XcbConnection::screenOfHandle(monitor);
    const xcb_screen_t* screen = m_connection->screen(screenIndex);
    int screenWidth = 0;
    int screenHeight = 0;
    if (!screen || !m_connection->screenSize(screenIndex, screenWidth, screenHeight) || rect.left < 0 || rect.top < 0
        || rect.right > screenWidth || rect.bottom > screenHeight)
        return false;
    // 32 bits a pixel: B, G, R and a spare byte, or deeper channels converted below.
    const XcbPixelLayout& layout = m_layouts[std::size_t(screenIndex)];
    if (!layout.isSupported())
        return false;

    xcb_connection_t* connection = m_connection->get();
    const std::size_t bytesPerLine = std::size_t(width) * 4;
    const std::size_t size = bytesPerLine * std::size_t(height);
    image.width = int(width);
    image.height = int(height);
    image.bytesPerLine = bytesPerLine;

    if (m_connection->hasShm() && reserveSegment(size)) {
        image.pixels = m_segmentMemory;
        const std::vector<int> ends = validBands(bandEnds, int(height)) ? bandEnds : std::vector<int> {int(height)};
        // Every band is asked for at once: the server copies the next band
        // while the caller works on the one before.
        std::vector<xcb_shm_get_image_cookie_t> requests;
        requests.reserve(ends.size());
        int first = 0;
        for (const int end : ends) {
            requests.push_back(xcb_shm_get_image(connection, screen->root, std::int16_t(rect.left),
                std::int16_t(rect.top + first), std::uint16_t(width), std::uint16_t(end - first), ~0u,
                XCB_IMAGE_FORMAT_Z_PIXMAP, m_segment, std::uint32_t(std::size_t(first) * bytesPerLine)));
            first = end;
        }
        first = 0;
        for (std::size_t band = 0; band < ends.size(); ++band) {
            xcb_generic_error_t* error = nullptr;
            xcb_shm_get_image_reply_t* reply = xcb_shm_get_image_reply(connection, requests[band], &error);
            std::free(error);
            if (!reply) {
                for (std::size_t rest = band + 1; rest < ends.size(); ++rest)
                    xcb_discard_reply(connection, requests[rest].sequence);
                return false;
            }
            std::free(reply);
            unsigned char* bandPixels = m_segmentMemory + std::size_t(first) * bytesPerLine;
            if (!layout.isPlainBgrx())
                layout.toBgrx(bandPixels, bandPixels, std::size_t(width) * std::size_t(ends[band] - first));
            arrived(image, first, ends[band]);
            first = ends[band];
        }
        return true;
    }

    xcb_generic_error_t* error = nullptr;
    xcb_get_image_reply_t* reply = xcb_get_image_reply(connection,
        xcb_get_image(connection, XCB_IMAGE_FORMAT_Z_PIXMAP, screen->root, std::int16_t(rect.left),
            std::int16_t(rect.top), std::uint16_t(width), std::uint16_t(height), ~0u),
        &error);
    std::free(error);
    if (!reply)
        return false;
    if (std::size_t(xcb_get_image_data_length(reply)) < size) {
        std::free(reply);
        return false;
    }
    m_plainCopy.assign(xcb_get_image_data(reply), xcb_get_image_data(reply) + size);
    std::free(reply);
    if (!layout.isPlainBgrx())
        layout.toBgrx(m_plainCopy.data(), m_plainCopy.data(), std::size_t(width) * std::size_t(height));
    image.pixels = m_plainCopy.data();
    arrived(image, 0, int(height));
    return true;
}

bool XcbScreenGrabber::picturesAreTurned() const
{
    return true;
}

} // namespace X11
} // namespace Orvanta
