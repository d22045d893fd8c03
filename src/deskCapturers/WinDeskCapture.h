#pragma once

#include "DeskCaptureContext.h"
#include "IDeskCapture.h"

#include <QtCore/QPointer>
#include <mutex>

#include <functional>

class CaptureThread;
class DeskCaptureOption;

/**
 * The capturer that the registry hands out, one per display output in use.
 *
 * It owns the back-end of the current capture mode, pulls a frame from it on
 * a timer of the constructing thread and keeps the newest one for consumers,
 * who never wait for a capture. A mode change swaps the back-end and keeps
 * the consumer's output size; the object itself stays.
 */
class WinDeskCapture : public IDeskCapture
{
    Q_OBJECT

public:
    /// Makes the back-end of a capture mode; null where the mode has none.
    using BackendFactory = std::function<IDeskCapture*(int mode)>;

    WinDeskCapture(DeskCaptureOption* option, QObject* parent);
    WinDeskCapture(DeskCaptureOption* option, BackendFactory backends, QObject* parent);
    ~WinDeskCapture() override;

    /// Binds the front to @p context; from another thread, the work is handed to the front's own.
    void setContext(const DeskCaptureContext& context);
    /**
     * Stops polling for good: the timer, the back-end and the worker go, and
     * the front stays empty. Runs on the front's thread or once that thread
     * has ended; afterwards the object may be deleted on any thread.
     */
    void shutdown();

    QSize outputSize() override;
    QSize originSize() override;
    cv::Mat nextFrame() override;
    long setCaptureContext(DeskCaptureContext context) override;
    void setOutputSize(QSize size) override;
    /// The current back-end's answer.
    QString scalerName() override;

public slots:
    /// Rebuilds the back-end for the current mode; from another thread, on the front's thread later.
    void onCaptureModeChanged();
    void acquireNextFrame();

protected:
    void timerEvent(QTimerEvent* event) override;

private:
    /// True if the call came from a thread other than the front's and was queued to it.
    bool handedToOwnThread(std::function<void()> work);
    void rebuildBackend();

private:
    /// Guards `frame` for a header copy only.
    std::mutex frameLock;
    cv::Mat frame;
    /// The back-end. Replaced only on the constructing thread; consumers read
    /// it under `capturerLock`, which a capture never holds.
    IDeskCapture* capturer = nullptr;
    std::mutex capturerLock;
    CaptureThread* thread = nullptr;
    DeskCaptureContext context;
    QPointer<DeskCaptureOption> option;
    int timerId = 0;
    BackendFactory backends;
    bool shutDown = false;
};
