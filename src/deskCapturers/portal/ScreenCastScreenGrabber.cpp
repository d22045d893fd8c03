#include "portal/ScreenCastScreenGrabber.h"

#include "portal/OutputCast.h"
#include "wayland/WaylandConnection.h"

#include <chrono>
#include <thread>

namespace Orvanta {
namespace Portal {

namespace {

/// How long the grab that opened a cast waits for the stream's first picture.
/// Later grabs never wait: a still output's first picture may come only with
/// its first change, and a tick must not stall until then.
constexpr auto kFirstPictureTimeout = std::chrono::milliseconds(200);
constexpr auto kPollInterval = std::chrono::milliseconds(4);

} // namespace

ScreenCastScreenGrabber::Cast::~Cast()
{
    // The picture's buffer goes back to the stream before the stream ends.
    frame.reset();
}

ScreenCastScreenGrabber::ScreenCastScreenGrabber(std::unique_ptr<Ifaces::ScreenGrabber> outputs)
    : m_outputs(std::move(outputs))
{
}

ScreenCastScreenGrabber::~ScreenCastScreenGrabber() = default;

bool ScreenCastScreenGrabber::monitorRect(std::uintptr_t monitor, Ifaces::ScreenRect& rect)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_outputs->monitorRect(monitor, rect);
}

bool ScreenCastScreenGrabber::takeNewest(Cast& cast)
{
    std::unique_ptr<Ifaces::CapturedFrame> frame;
    if (cast.stream->takeNewest(frame) < 0)
        return false;
    if (!frame || !frame->hasSurface())
        return true;
    Ifaces::ScalerSource source;
    if (frame->texture(source) < 0 || !source.pixels)
        return true;
    cast.frame.reset();
    cast.frame = std::move(frame);
    cast.source = source;
    if (source.format == Ifaces::PixelFormat::R8G8B8A8Unorm) {
        cast.swapped.resize(std::size_t(source.width) * std::size_t(source.height) * 4);
        for (int y = 0; y < source.height; ++y) {
            const auto* from = static_cast<const unsigned char*>(source.pixels) + std::size_t(y) * source.bytesPerLine;
            unsigned char* to = cast.swapped.data() + std::size_t(y) * std::size_t(source.width) * 4;
            for (int x = 0; x < source.width; ++x, from += 4, to += 4) {
                to[0] = from[2];
                to[1] = from[1];
                to[2] = from[0];
                to[3] = from[3];
            }
        }
        cast.source.pixels = cast.swapped.data();
        cast.source.bytesPerLine = std::size_t(source.width) * 4;
        cast.source.format = Ifaces::PixelFormat::B8G8R8A8Unorm;
    }
    return true;
}

bool ScreenCastScreenGrabber::grab(std::uintptr_t monitor, const Ifaces::ScreenRect& rect, Ifaces::ScreenImage& image)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Ifaces::ScreenRect output;
    if (rect.right <= rect.left || rect.bottom <= rect.top || !m_outputs->monitorRect(monitor, output))
        return false;
    const std::string name = Wayland::WaylandConnection::nameOfHandle(monitor);
    if (name.empty())
        return false;
    Cast& cast = m_casts[name];
    const bool opening = !cast.stream;
    if (opening) {
        OutputCast::Output wanted;
        wanted.name = name;
        wanted.x = int(output.left);
        wanted.y = int(output.top);
        wanted.width = int(output.right - output.left);
        wanted.height = int(output.bottom - output.top);
        if (OutputCast::open(wanted, m_consent, cast.stream) < 0) {
            m_casts.erase(name);
            return false;
        }
    }
    const auto deadline = std::chrono::steady_clock::now() + kFirstPictureTimeout;
    for (;;) {
        if (!takeNewest(cast)) {
            // The stream ended: the next grab opens a new session.
            m_casts.erase(name);
            return false;
        }
        if (cast.frame || !opening || std::chrono::steady_clock::now() >= deadline)
            break;
        std::this_thread::sleep_for(kPollInterval);
    }
    if (!cast.frame)
        return false;
    // The rectangle lies on the output's picture, counted from the output's place on the desktop.
    const Ifaces::ScalerSource& source = cast.source;
    const long x = rect.left - output.left;
    const long y = rect.top - output.top;
    if (x < 0 || y < 0 || rect.right - output.left > source.width || rect.bottom - output.top > source.height)
        return false;
    image.pixels
        = static_cast<const unsigned char*>(source.pixels) + std::size_t(y) * source.bytesPerLine + std::size_t(x) * 4;
    image.width = int(rect.right - rect.left);
    image.height = int(rect.bottom - rect.top);
    image.bytesPerLine = source.bytesPerLine;
    return true;
}

bool ScreenCastScreenGrabber::picturesAreTurned() const
{
    return false;
}

void ScreenCastScreenGrabber::keepConsentIn(std::shared_ptr<Ifaces::ConsentStore> store)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_consent = std::move(store);
}

} // namespace Portal
} // namespace Orvanta
