#include "CaptureThread.h"

#include "Helpers.h"
#include "ifaces/CaptureWorkerSetup.h"

#include <QtCore/QDebug>

CaptureThread::CaptureThread(QObject* parent)
    : CaptureThread(Orvanta::Ifaces::createPlatformCaptureWorkerSetup(), parent)
{
}

CaptureThread::CaptureThread(std::unique_ptr<Orvanta::Ifaces::CaptureWorkerSetup> setup, QObject* parent)
    : QThread(parent)
    , m_setup(std::move(setup))
{
}

CaptureThread::~CaptureThread() = default;

void CaptureThread::run()
{
    qInfo() << "[WinDeskCapture]: Capture thread handle : " << QThread::currentThreadId();
    const bool apartment = m_setup && m_setup->hasApartment();
    if (apartment) {
        // The result decides nothing: a thread already in an apartment still works.
        const long result = m_setup->enterApartment();
        qInfo() << "[WinDeskCapture]: COM library initialize result: " << win32ErrorMsg(result);
        attachToDeskThread();
    }
    exec();
    if (apartment)
        m_setup->leaveApartment();
}

void CaptureThread::attachToDeskThread()
{
    // Only looks at the input desktop and reports; the thread keeps the
    // desktop it has. The second warning comes on success as well.
    const std::uintptr_t desktop = m_setup->openInputDesktop();
    if (!desktop) {
        qWarning() << "Failed to open the input desktop handle " << win32ErrorMsg(m_setup->lastError());
        return;
    }
    qWarning() << "Failed to attached the input desktop" << win32ErrorMsg(m_setup->lastError());
    m_setup->closeDesktop(desktop);
}
