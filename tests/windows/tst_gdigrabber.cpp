// The screen blit adapter and the capture worker set-up through Wine's GDI
// and USER. Wine's screen device context shows the Win32 windows it draws
// itself, not what other X clients put on the root, so the test paints one
// window of known colour and blits the monitor rectangle under it.

#include "gdi/GdiScreenGrabber.h"
#include "ifaces/CaptureWorkerSetup.h"
#include "ifaces/ScreenGrabber.h"
#include "win32/Win32CaptureWorkerSetup.h"
#include "win32/WindowsSdkCompat.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

using namespace Orvanta;

namespace {

constexpr COLORREF kWindowColour = RGB(200, 30, 60);
constexpr int kLeft = 100;
constexpr int kTop = 80;
constexpr int kWidth = 64;
constexpr int kHeight = 48;

struct WindowDeleter
{
    void operator()(HWND window) const
    {
        DestroyWindow(window);
    }
};
using Window = std::unique_ptr<std::remove_pointer_t<HWND>, WindowDeleter>;

struct BrushDeleter
{
    void operator()(HBRUSH brush) const
    {
        DeleteObject(brush);
    }
};

void pumpMessages()
{
    MSG message;
    while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
        TranslateMessage(&message);
        DispatchMessageW(&message);
    }
}

// A borderless, topmost window filled with kWindowColour.
class ColouredWindow
{
public:
    ColouredWindow()
        : m_brush(CreateSolidBrush(kWindowColour))
    {
        WNDCLASSW windowClass = {};
        windowClass.lpfnWndProc = DefWindowProcW;
        windowClass.hInstance = GetModuleHandleW(nullptr);
        windowClass.hbrBackground = m_brush.get();
        windowClass.lpszClassName = L"GrabberTestWindow";
        RegisterClassW(&windowClass);
        m_window.reset(CreateWindowExW(WS_EX_TOPMOST, L"GrabberTestWindow", L"", WS_POPUP | WS_VISIBLE, kLeft, kTop,
            kWidth, kHeight, nullptr, nullptr, windowClass.hInstance, nullptr));
        if (m_window) {
            ShowWindow(m_window.get(), SW_SHOW);
            UpdateWindow(m_window.get());
            RedrawWindow(m_window.get(), nullptr, nullptr, RDW_INVALIDATE | RDW_ERASE | RDW_UPDATENOW);
            pumpMessages();
            GdiFlush();
        }
    }
    ~ColouredWindow()
    {
        m_window.reset();
        UnregisterClassW(L"GrabberTestWindow", GetModuleHandleW(nullptr));
    }
    HWND get() const
    {
        return m_window.get();
    }

private:
    std::unique_ptr<std::remove_pointer_t<HBRUSH>, BrushDeleter> m_brush;
    Window m_window;
};

BOOL CALLBACK collectMonitor(HMONITOR monitor, HDC, LPRECT, LPARAM data)
{
    reinterpret_cast<std::vector<HMONITOR>*>(data)->push_back(monitor);
    return TRUE;
}

std::vector<HMONITOR> monitors()
{
    std::vector<HMONITOR> found;
    EnumDisplayMonitors(nullptr, nullptr, collectMonitor, reinterpret_cast<LPARAM>(&found));
    return found;
}

} // namespace

TEST(GdiScreenGrabber, PlatformGrabberIsGdi)
{
    const auto grabber = Ifaces::createPlatformScreenGrabber();
    EXPECT_NE(dynamic_cast<Gdi::GdiScreenGrabber*>(grabber.get()), nullptr);
}

TEST(GdiScreenGrabber, MonitorRectanglesOfEveryMonitor)
{
    const std::vector<HMONITOR> found = monitors();
    ASSERT_FALSE(found.empty());
    Gdi::GdiScreenGrabber grabber;
    for (HMONITOR monitor : found) {
        Ifaces::ScreenRect rect;
        ASSERT_TRUE(grabber.monitorRect(reinterpret_cast<std::uintptr_t>(monitor), rect));
        MONITORINFO info = {};
        info.cbSize = sizeof(info);
        ASSERT_TRUE(GetMonitorInfoW(monitor, &info));
        EXPECT_EQ(rect.left, info.rcMonitor.left);
        EXPECT_EQ(rect.top, info.rcMonitor.top);
        EXPECT_EQ(rect.right, info.rcMonitor.right);
        EXPECT_EQ(rect.bottom, info.rcMonitor.bottom);
    }
    // The primary monitor covers the whole Xvfb screen.
    Ifaces::ScreenRect primary;
    const POINT origin = {0, 0};
    ASSERT_TRUE(grabber.monitorRect(
        reinterpret_cast<std::uintptr_t>(MonitorFromPoint(origin, MONITOR_DEFAULTTOPRIMARY)), primary));
    EXPECT_EQ(primary.right - primary.left, GetSystemMetrics(SM_CXSCREEN));
    EXPECT_EQ(primary.bottom - primary.top, GetSystemMetrics(SM_CYSCREEN));
}

TEST(GdiScreenGrabber, UnknownMonitorHasNoRectangle)
{
    Gdi::GdiScreenGrabber grabber;
    Ifaces::ScreenRect rect;
    EXPECT_FALSE(grabber.monitorRect(0, rect));
}

TEST(GdiScreenGrabber, BlitsTheWindowUnderTheRectangle)
{
    ColouredWindow window;
    ASSERT_NE(window.get(), nullptr);
    Gdi::GdiScreenGrabber grabber;
    const POINT origin = {0, 0};
    const auto monitor = reinterpret_cast<std::uintptr_t>(MonitorFromPoint(origin, MONITOR_DEFAULTTOPRIMARY));

    // A rectangle a little larger than the window: its inside is the window's
    // colour in B, G, R order, rows from the top.
    const Ifaces::ScreenRect rect = {kLeft - 8, kTop - 8, kLeft + kWidth + 8, kTop + kHeight + 8};
    Ifaces::ScreenImage image;
    ASSERT_TRUE(grabber.grab(monitor, rect, image));
    ASSERT_NE(image.pixels, nullptr);
    EXPECT_EQ(image.width, kWidth + 16);
    EXPECT_EQ(image.height, kHeight + 16);
    EXPECT_EQ(image.bytesPerLine, std::size_t(kWidth + 16) * 4);

    int matching = 0;
    for (int y = 8; y < 8 + kHeight; ++y) {
        for (int x = 8; x < 8 + kWidth; ++x) {
            const unsigned char* pixel = image.pixels + y * image.bytesPerLine + x * 4;
            if (pixel[0] == GetBValue(kWindowColour) && pixel[1] == GetGValue(kWindowColour)
                && pixel[2] == GetRValue(kWindowColour)) {
                ++matching;
            }
        }
    }
    EXPECT_EQ(matching, kWidth * kHeight);
    // Outside the window the colour is not the window's.
    const unsigned char* corner = image.pixels;
    EXPECT_FALSE(corner[0] == GetBValue(kWindowColour) && corner[1] == GetGValue(kWindowColour)
        && corner[2] == GetRValue(kWindowColour));
}

TEST(GdiScreenGrabber, EmptyRectangleIsRefused)
{
    Gdi::GdiScreenGrabber grabber;
    Ifaces::ScreenImage image;
    EXPECT_FALSE(grabber.grab(0, Ifaces::ScreenRect {10, 10, 10, 20}, image));
    EXPECT_FALSE(grabber.grab(0, Ifaces::ScreenRect {10, 10, 5, 20}, image));
    EXPECT_EQ(image.pixels, nullptr);
}

TEST(Win32CaptureWorkerSetup, WorkerThreadEntersTheApartmentAndOpensTheInputDesktop)
{
    const auto setup = Ifaces::createPlatformCaptureWorkerSetup();
    ASSERT_NE(dynamic_cast<Win32::CaptureWorkerSetup*>(setup.get()), nullptr);
    EXPECT_TRUE(setup->hasApartment());

    long entered = E_FAIL;
    long again = E_FAIL;
    long otherModel = S_OK;
    std::uintptr_t desktop = 0;
    std::thread worker([&] {
        entered = setup->enterApartment();
        again = setup->enterApartment();
        // The thread is in the multithreaded apartment now.
        otherModel = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        if (SUCCEEDED(otherModel)) {
            CoUninitialize();
        }
        desktop = setup->openInputDesktop();
        if (desktop != 0) {
            setup->closeDesktop(desktop);
        }
        setup->leaveApartment();
        setup->leaveApartment();
    });
    worker.join();
    EXPECT_EQ(entered, S_OK);
    EXPECT_EQ(again, S_FALSE);
    EXPECT_EQ(otherModel, RPC_E_CHANGED_MODE);
    EXPECT_NE(desktop, 0u);
}

TEST(Win32CaptureWorkerSetup, LastErrorIsTheThreadsLastError)
{
    const auto setup = Ifaces::createPlatformCaptureWorkerSetup();
    SetLastError(ERROR_ACCESS_DENIED);
    EXPECT_EQ(setup->lastError(), long(ERROR_ACCESS_DENIED));
}
