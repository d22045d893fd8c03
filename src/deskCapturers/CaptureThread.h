#pragma once

#include <QtCore/QThread>

#include <memory>

namespace Orvanta {
namespace Ifaces {
class CaptureWorkerSetup;
}
} // namespace Orvanta

/**
 * The worker of one WinDeskCapture: an event loop that holds the back-end's
 * thread affinity. On Windows it runs in a COM multithreaded apartment.
 */
class CaptureThread : public QThread
{
public:
    explicit CaptureThread(QObject* parent = nullptr);
    /// The same with a given platform set-up, which the thread takes over.
    CaptureThread(std::unique_ptr<Orvanta::Ifaces::CaptureWorkerSetup> setup, QObject* parent = nullptr);
    ~CaptureThread() override;

protected:
    void run() override;

private:
    void attachToDeskThread();

    std::unique_ptr<Orvanta::Ifaces::CaptureWorkerSetup> m_setup;
};
