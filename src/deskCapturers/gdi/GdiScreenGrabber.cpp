#include "GdiScreenGrabber.h"

#include <windows.h>

#include <memory>

namespace Orvanta {

std::unique_ptr<Ifaces::ScreenGrabber> Ifaces::createPlatformScreenGrabber()
{
    return std::make_unique<Gdi::GdiScreenGrabber>();
}

std::string Ifaces::platformScreenReadingObstacle()
{
    return {};
}

std::string Ifaces::platformScreenReadingPath()
{
    return {};
}

namespace Gdi {

namespace {

struct ScreenDcReleaser
{
    void operator()(HDC dc) const
    {
        ReleaseDC(nullptr, dc);
    }
};
struct DcDeleter
{
    void operator()(HDC dc) const
    {
        DeleteDC(dc);
    }
};
struct BitmapDeleter
{
    void operator()(HBITMAP bitmap) const
    {
        DeleteObject(bitmap);
    }
};

using ScreenDc = std::unique_ptr<std::remove_pointer_t<HDC>, ScreenDcReleaser>;
using MemoryDc = std::unique_ptr<std::remove_pointer_t<HDC>, DcDeleter>;
using Bitmap = std::unique_ptr<std::remove_pointer_t<HBITMAP>, BitmapDeleter>;

} // namespace

bool GdiScreenGrabber::monitorRect(std::uintptr_t monitor, Ifaces::ScreenRect& rect)
{
    MONITORINFO info = {};
    info.cbSize = sizeof(MONITORINFO);
    if (!GetMonitorInfoW(reinterpret_cast<HMONITOR>(monitor), &info))
        return false;
    rect.left = info.rcMonitor.left;
    rect.top = info.rcMonitor.top;
    rect.right = info.rcMonitor.right;
    rect.bottom = info.rcMonitor.bottom;
    return true;
}

bool GdiScreenGrabber::grab(std::uintptr_t, const Ifaces::ScreenRect& rect, Ifaces::ScreenImage& image)
{
    const int width = int(rect.right - rect.left);
    const int height = int(rect.bottom - rect.top);
    if (width <= 0 || height <= 0)
        return false;

    ScreenDc screen(GetDC(nullptr));
    MemoryDc memory(CreateCompatibleDC(screen.get()));
    Bitmap bitmap(CreateCompatibleBitmap(screen.get(), width, height));
    const HGDIOBJ previous = SelectObject(memory.get(), bitmap.get());
    BitBlt(memory.get(), 0, 0, width, height, screen.get(), rect.left, rect.top, SRCCOPY);

    BITMAPINFO info = {};
    info.bmiHeader.biSize = sizeof(BITMAPINFOHEADER);
    info.bmiHeader.biWidth = width;
    // Negative: rows from the top down.
    info.bmiHeader.biHeight = -height;
    info.bmiHeader.biPlanes = 1;
    info.bmiHeader.biBitCount = 32;
    info.bmiHeader.biCompression = BI_RGB;
    m_pixels.resize(std::size_t(width) * std::size_t(height) * 4);
    // The bitmap must not be selected into a context while GetDIBits reads it.
    SelectObject(memory.get(), previous);
    const int lines = GetDIBits(memory.get(), bitmap.get(), 0, UINT(height), m_pixels.data(), &info, DIB_RGB_COLORS);
    if (lines == 0)
        return false;
    image.pixels = m_pixels.data();
    image.width = width;
    image.height = height;
    image.bytesPerLine = std::size_t(width) * 4;
    return true;
}

bool GdiScreenGrabber::picturesAreTurned() const
{
    // The blit capturer turns the copied pixels by the output's rotation itself.
    return false;
}

} // namespace Gdi
} // namespace Orvanta
