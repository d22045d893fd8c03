// Fragments of the guide's chapter on capture modes.
#include "snippets.h"

#include <LibOrvanta/DeskCaptureOption.h>
#include <LibOrvanta/DeskDuplManager.h>
#include <LibOrvanta/IDeskCapture.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>

namespace snippets {

void chooseCaptureMode()
{
    //! [capture-mode]
    DeskDuplManager desk; // reads "screenCaptureMode" and publishes its option object
    const QVariant address = qApp->property("runtime.options.deskCaptureOption");
    auto* option = reinterpret_cast<DeskCaptureOption*>(quintptr(address.toLongLong()));

    option->setCurMode(0); // saved as "screenCaptureMode"; running capturers switch

    QSharedPointer<IDeskCapture> screen = desk.acquireCapturer(desk.defaultCapturer());
    if (screen) {
        screen->setOutputSize(QSize(160, 90));
        // "GPU" or "CPU" once the capturer has chosen its scaler.
        qInfo() << option->modeName(option->curMode()) << screen->scalerName();
        screen.reset();
        desk.releaseCapturer(desk.defaultCapturer());
    }
    //! [capture-mode]
}

} // namespace snippets
