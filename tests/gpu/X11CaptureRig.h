#pragma once

#include "DXGICapturer.h"
#include "ResultCodes.h"
#include "egl/EglDevice.h"
#include "ifaces/DesktopDuplicator.h"
#include "ifaces/DisplayAdapter.h"
#include "ifaces/DisplayOutput.h"
#include "ifaces/DisplaySystem.h"
#include "ifaces/GraphicsDevice.h"

#include "fakes/FakeDesktopDuplicator.h"

#include <QtTest/QtTest>

#include <xcb/xcb.h>

#include <cstdlib>

/**
 * Holds one EGL device to the very end of the process. The EGL display is
 * shared by all devices and terminated with the last one, which unloads the GL
 * driver; memory that the driver keeps in its globals then shows as leaked to
 * the leak checker, so the tests keep the driver loaded throughout.
 */
inline void pinEglDisplay()
{
    static auto* device = [] {
        auto* made = new std::shared_ptr<Orvanta::Egl::EglDevice>;
        Orvanta::Egl::EglDevice::create(*made);
        return made;
    }();
    Q_UNUSED(device);
}

/// The capture context of the first monitor of the X server named by $DISPLAY.
struct X11Output
{
    std::shared_ptr<Orvanta::Ifaces::DisplaySystem> system;
    DeskCaptureContext context;
    long result = E_FAIL;

    explicit X11Output(unsigned outputIndex = 0)
    {
        system = Orvanta::Ifaces::createPlatformDisplaySystem();
        if ((result = system->open()) < 0) {
            return;
        }
        std::shared_ptr<Orvanta::Ifaces::DisplayAdapter> adapter;
        if ((result = system->enumAdapter(0, adapter)) < 0) {
            return;
        }
        std::shared_ptr<Orvanta::Ifaces::DisplayOutput> output;
        if ((result = adapter->enumOutput(outputIndex, output)) < 0) {
            return;
        }
        std::shared_ptr<Orvanta::Ifaces::GraphicsDevice> device;
        if ((result = adapter->createDevice(output, device)) < 0) {
            return;
        }
        context.adapter = adapter;
        context.device = device;
        context.output = output;
        context.outputIndex = outputIndex;
    }
};

/// A capturer on the real X11 platform whose retries wait for a clock that the test moves.
struct X11Capturer
{
    X11Output output;
    std::shared_ptr<FakeRetryClock> clock = std::make_shared<FakeRetryClock>();
    std::unique_ptr<DXGICapturer> capturer;
    long bindResult = E_FAIL;

    explicit X11Capturer(unsigned outputIndex = 0)
        : output(outputIndex)
    {
        if (output.result < 0) {
            bindResult = output.result;
            return;
        }
        std::shared_ptr<Orvanta::Ifaces::DesktopDuplicator> duplicator
            = Orvanta::Ifaces::createPlatformDesktopDuplicator(output.context.adapter, output.context.device);
        capturer = std::make_unique<DXGICapturer>(duplicator, clock);
        bindResult = capturer->setCaptureContext(output.context);
    }

    /// Polls until a frame comes, as the front's timer would.
    cv::Mat waitForFrame()
    {
        cv::Mat frame;
        for (int poll = 0; poll < 500 && frame.empty(); ++poll) {
            frame = capturer->nextFrame();
            if (frame.empty()) {
                QTest::qWait(10);
            }
        }
        return frame;
    }
};

/// Fills a rectangle of the root window of $DISPLAY with @p rgb (0xRRGGBB), as another client would draw.
inline bool paintRoot(int x, int y, int width, int height, quint32 rgb)
{
    xcb_connection_t* connection = xcb_connect(nullptr, nullptr);
    if (xcb_connection_has_error(connection)) {
        xcb_disconnect(connection);
        return false;
    }
    xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(connection)).data;
    const xcb_gcontext_t gc = xcb_generate_id(connection);
    const quint32 foreground = rgb;
    xcb_create_gc(connection, gc, screen->root, XCB_GC_FOREGROUND, &foreground);
    const xcb_rectangle_t rectangle = {qint16(x), qint16(y), quint16(width), quint16(height)};
    xcb_poly_fill_rectangle(connection, screen->root, gc, 1, &rectangle);
    xcb_free_gc(connection, gc);
    std::free(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
    xcb_disconnect(connection);
    return true;
}
