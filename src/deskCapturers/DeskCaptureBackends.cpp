#include "DeskCaptureBackends.h"

#include "DXGICapturer.h"
#include "GDICapturer.h"
#include "WinRTCapturer.h"
#include "ifaces/ScreenGrabber.h"

#include <QtCore/QDebug>
#include <QtCore/QtGlobal>

#include <string>

namespace Orvanta {

IDeskCapture* createDeskCaptureBackend(int mode)
{
    if (mode == 0 || mode == 2) {
        const std::string obstacle = Ifaces::platformScreenReadingObstacle();
        if (!obstacle.empty())
            qWarning().noquote() << QStringLiteral("[WinDeskCapture]: Capture mode %1 cannot read the screen here: %2; "
                                                   "choose capture mode 1 (WinRT), which captures through the desktop "
                                                   "portal")
                                        .arg(mode)
                                        .arg(QString::fromStdString(obstacle));
        const std::string path = Ifaces::platformScreenReadingPath();
        if (!path.empty())
            qInfo().noquote() << QStringLiteral("[WinDeskCapture]: Capture mode %1 reads the screen through %2")
                                     .arg(mode)
                                     .arg(QString::fromStdString(path));
    }
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
