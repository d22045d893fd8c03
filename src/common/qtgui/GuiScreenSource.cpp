#include "qtgui/GuiScreenSource.h"

#include <QtGui/QGuiApplication>
#include <QtGui/QScreen>

namespace Orvanta {
namespace QtGui {

std::vector<Ifaces::ScreenSize> GuiScreenSource::screenSizes() const
{
    std::vector<Ifaces::ScreenSize> sizes;
    // A console program has no screens to ask, and asking would abort it.
    if (!qobject_cast<QGuiApplication*>(QCoreApplication::instance())) {
        return sizes;
    }
    const QList<QScreen*> screens = QGuiApplication::screens();
    for (const QScreen* screen : screens) {
        const QRect geometry = screen->geometry();
        sizes.push_back({geometry.width(), geometry.height()});
    }
    return sizes;
}

} // namespace QtGui
} // namespace Orvanta
