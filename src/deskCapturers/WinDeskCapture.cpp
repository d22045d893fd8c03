#include "WinDeskCapture.h"

#include "CaptureThread.h"
#include "ConfigurationManager.h"
#include "DeskCaptureBackends.h"
#include "DeskCaptureOption.h"

#include <QtCore/QDebug>
#include <QtCore/QTimerEvent>

namespace {

constexpr int kDefaultIntervalMilliseconds = 33;

void* monitorPointer(DeskMonitorHandle monitor)
{
    return reinterpret_cast<void*>(monitor);
}

} // namespace

WinDeskCapture::WinDeskCapture(DeskCaptureOption* option, QObject* parent)
    : WinDeskCapture(option, &Orvanta::createDeskCaptureBackend, parent)
{
}

WinDeskCapture::WinDeskCapture(DeskCaptureOption* option, BackendFactory backends, QObject* parent)
    : option(option)
    , backends(std::move(backends))
{
    setParent(parent);
    if (option)
        connect(option, &DeskCaptureOption::curModeChanged, this, &WinDeskCapture::onCaptureModeChanged,
            Qt::QueuedConnection);

    thread = new CaptureThread;
    thread->start(QThread::InheritPriority);

    // Read once: a later change of the interval doesn't reach a running capturer.
    int interval = ConfigurationManager::instance()
                       ->appConfig(QStringLiteral("devUpdateInterval"))
                       .toInt(kDefaultIntervalMilliseconds);
    if (interval <= 0) {
        // 0 would poll without a pause and a negative value never start the timer.
        qWarning().nospace() << "[WinDeskCapture]: The devUpdateInterval " << interval
                             << " is not a positive number of milliseconds, using " << kDefaultIntervalMilliseconds;
        interval = kDefaultIntervalMilliseconds;
    }
    timerId = startTimer(interval, Qt::PreciseTimer);
    qInfo() << "WinDeskCapture timer has started, id: " << timerId;
}

WinDeskCapture::~WinDeskCapture()
{
    shutdown();
}

void WinDeskCapture::shutdown()
{
    if (shutDown)
        return;
    shutDown = true;
    // A thread that has ended took its timers with it, and killing them from
    // another thread is not allowed.
    if (QThread::currentThread() == QObject::thread())
        killTimer(timerId);
    qInfo() << "WinDeskCapture timer has stopped, id: " << timerId;
    IDeskCapture* old = nullptr;
    {
        std::lock_guard<std::mutex> locker(capturerLock);
        old = capturer;
        capturer = nullptr;
    }
    delete old;
    thread->quit();
    thread->wait();
    // The thread has finished; deleting it now doesn't depend on an event loop.
    delete thread;
    thread = nullptr;
}

bool WinDeskCapture::handedToOwnThread(std::function<void()> work)
{
    if (QThread::currentThread() == QObject::thread())
        return false;
    // The timer uses the back-end on the front's thread, so only that thread may replace it.
    QMetaObject::invokeMethod(this, std::move(work), Qt::QueuedConnection);
    return true;
}

void WinDeskCapture::setContext(const DeskCaptureContext& newContext)
{
    if (handedToOwnThread([this, newContext] { setContext(newContext); }))
        return;
    if (shutDown)
        return;
    context = newContext;
    qDebug() << "[WinDeskCapture]: " << QStringLiteral("0x%1").arg(quintptr(context.monitor), 0, 16)
             << ", worker thread: " << QStringLiteral("0x%1  ").arg(reinterpret_cast<quintptr>(thread), 0, 16);
    rebuildBackend();
}

long WinDeskCapture::setCaptureContext(DeskCaptureContext newContext)
{
    // A back-end that refuses the context shows as a front without frames,
    // not in this result.
    setContext(newContext);
    return 0;
}

void WinDeskCapture::onCaptureModeChanged()
{
    if (handedToOwnThread([this] { onCaptureModeChanged(); }))
        return;
    if (shutDown)
        return;
    rebuildBackend();
}

void WinDeskCapture::rebuildBackend()
{
    const int mode = option ? option->curMode() : -1;
    QSize previousSize(-1, -1);

    IDeskCapture* old = nullptr;
    {
        std::lock_guard<std::mutex> locker(capturerLock);
        old = capturer;
        capturer = nullptr;
    }
    if (old) {
        previousSize = old->outputSize();
        delete old;
    }

    IDeskCapture* made = backends ? backends(mode) : nullptr;
    if (made) {
        switch (mode) {
        case 0:
            qInfo() << "[WinDeskCapture]: Using DXGI capture monitor " << monitorPointer(context.monitor);
            break;
        case 1:
            qInfo() << "[WinDeskCapture]: Using WINRT capture monitor " << monitorPointer(context.monitor);
            break;
        case 2:
            qInfo() << "[WinDeskCapture]: Using GDI capture monitor " << monitorPointer(context.monitor);
            break;
        default:
            break;
        }
    }
    if (!made) {
        qWarning() << "[WinDeskCapture]: Capturer is null, monitor: " << monitorPointer(context.monitor);
        return;
    }

    made->moveToThread(thread);
    if (made->setCaptureContext(context) < 0) {
        // No fall-back to another mode: the front stays empty until the mode
        // or the context changes again.
        qCritical() << "Failed to set capture context, monitor: " << monitorPointer(context.monitor);
        delete made;
        return;
    }
    if (previousSize != QSize(-1, -1))
        made->setOutputSize(previousSize);

    std::lock_guard<std::mutex> locker(capturerLock);
    capturer = made;
}

void WinDeskCapture::timerEvent(QTimerEvent* event)
{
    if (event->timerId() == timerId)
        acquireNextFrame();
}

void WinDeskCapture::acquireNextFrame()
{
    // Runs on the thread that replaces the back-end, so it needs no lock to use it.
    if (!capturer)
        return;
    capturer->moveToThread(thread);
    const cv::Mat m = capturer->nextFrame();
    if (m.empty())
        return;
    std::lock_guard<std::mutex> locker(frameLock);
    frame = m;
}

cv::Mat WinDeskCapture::nextFrame()
{
    {
        std::lock_guard<std::mutex> locker(capturerLock);
        if (!capturer)
            return cv::Mat();
    }
    std::lock_guard<std::mutex> locker(frameLock);
    return frame;
}

QString WinDeskCapture::scalerName()
{
    std::lock_guard<std::mutex> locker(capturerLock);
    return capturer ? capturer->scalerName() : QString();
}

QSize WinDeskCapture::outputSize()
{
    std::lock_guard<std::mutex> locker(capturerLock);
    return capturer ? capturer->outputSize() : QSize(-1, -1);
}

QSize WinDeskCapture::originSize()
{
    std::lock_guard<std::mutex> locker(capturerLock);
    return capturer ? capturer->originSize() : QSize(-1, -1);
}

void WinDeskCapture::setOutputSize(QSize size)
{
    std::lock_guard<std::mutex> locker(capturerLock);
    if (capturer)
        capturer->setOutputSize(size);
}
