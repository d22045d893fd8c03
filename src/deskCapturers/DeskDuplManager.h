#pragma once

#include "IDeskDuplManager.h"
#include "orvanta_global.h"

#include <functional>
#include <memory>
#include <mutex>

class DeskDuplManagerPrivate;

namespace Orvanta {
namespace Ifaces {
class DisplaySystem;
}
} // namespace Orvanta

/**
 * The registry of the machine's display outputs.
 *
 * Construction sets up the capture mode (from the global value
 * "screenCaptureMode", published to the application through the property
 * "runtime.options.deskCaptureOption" of the QCoreApplication object) and
 * enumerates every output of every adapter once. Capturers are made at the
 * first acquire of an identifier; they run on the thread that constructed
 * the registry, which therefore needs an event loop.
 *
 * A row counts one reference of its own from enumeration on: the first
 * acquire gives a count of 2, and its release leaves the capturer running.
 */
class LIBORVANTA_EXPORT DeskDuplManager : public IDeskDuplManager
{
    Q_OBJECT

public:
    /// The registry of the platform's outputs (X11 through XCB on Linux, DXGI on Windows).
    explicit DeskDuplManager(QObject* parent = nullptr);
    /**
     * The same over a given display system, building back-ends with
     * @p backends (mode to new back-end, null where there is none).
     */
    DeskDuplManager(std::shared_ptr<Orvanta::Ifaces::DisplaySystem> displaySystem,
        std::function<IDeskCapture*(int mode)> backends, QObject* parent = nullptr);
    ~DeskDuplManager() override;

    QList<QString> allCapturer() override;
    QString defaultCapturer() override;
    QSharedPointer<IDeskCapture> acquireCapturer(QString id) override;
    void releaseCapturer(QString id) override;
    QString capturerDesc(QString id) override;
    QJsonObject capturerMetadata(QString id) override;

private:
    void load();
    int enumOutputs(DeskAdapterHandle adapter, unsigned int adapterIndex);
    /// Gives the row its front; called with @p locker held, which it releases while the front is built.
    void makeCapturer(QString id, std::unique_lock<std::mutex>& locker);
    QSharedPointer<IDeskCapture> makeFront(const DeskCaptureContext& context);

    std::unique_ptr<DeskDuplManagerPrivate> d;
};
