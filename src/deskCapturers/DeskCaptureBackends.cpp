#include "DeskCaptureBackends.h"

#include "DXGICapturer.h"
#include "GDICapturer.h"
#include "WinRTCapturer.h"

#include <QtCore/QDebug>
#include <QtCore/QtGlobal>

namespace Orvanta {

namespace {

/// On a Wayland desktop the X server only sees its own clients' windows, so
/// the duplication and blit modes cannot capture the screen there.
bool isWaylandSession()
{
    return !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY")
        || qEnvironmentVariable("XDG_SESSION_TYPE").compare(QLatin1String("wayland"), Qt::CaseInsensitive) == 0;
}

} // namespace

IDeskCapture* createDeskCaptureBackend(int mode)
{
    if ((mode == 0 || mode == 2) && isWaylandSession())
        qWarning() << "[WinDeskCapture]: This is a Wayland session: capture mode" << mode
                   << "reads the X server, which cannot see the screen here; choose capture mode 1 (WinRT), which "
                      "captures through the desktop portal";
    switch (mode) {
    case 0:
        return new DXGICapturer(nullptr);
    case 1:
        return new WinRTCapturer(nullptr);
    case 2:
        return new GDICapturer;
    default:
        return nullptr;
    }
}

} // namespace Orvanta
