#pragma once

#include "AudioDeviceEnumerator.h"
#include "orvanta_global.h"

#include <QtCore/QHash>
#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QPair>
#include <QtCore/QSharedPointer>
#include <QtCore/QString>
#include <QtCore/QVector>

class AudioCapturer;

/**
 * The registry of endpoint capturers: one running AudioCapturer per active
 * output endpoint, keyed by the endpoint's identifier, from the moment the
 * endpoint is found until it is gone, whether anyone listens or not.
 *
 * capturerReady and capturerLost are emitted on a thread of the global
 * QThreadPool, in the order of the endpoints' changes, once the state task
 * that made them has released the registry's locks: a receiver may block the
 * emitting thread, with a blocking queued connection, and call back into the
 * registry.
 */
class LIBORVANTA_EXPORT AudioCapManager : public AudioDeviceEnumerator
{
    Q_OBJECT

public:
    /// The process's registry, created by the first call, which must come
    /// from one thread before any other can call.
    static AudioCapManager* instance();

    /// A registry over the platform's endpoints; it starts a capturer on each active output at once.
    explicit AudioCapManager(QObject* parent = nullptr);
    /// A registry over the endpoints that @p watcher reports.
    explicit AudioCapManager(std::shared_ptr<Orvanta::Ifaces::EndpointWatcher> watcher, QObject* parent = nullptr);
    ~AudioCapManager() override;

    /// The running capturer of @p id, or null. Has no side effect and needs
    /// no matching release: the caller releases by dropping the pointer.
    QSharedPointer<AudioCapturer> acquireCapturer(const QString& id);
    /// Does nothing; kept for callers that pair it with acquireCapturer().
    void releaseCapturer(const QString& id);
    /// The identifiers of the running capturers, in no particular order.
    QList<QString> allCapturers();
    /// The default output endpoint's identifier, or some registered one when
    /// there is no default; null when nothing is registered.
    QString defaultCapturer() const;
    /// The endpoint's display name, null when unknown.
    QString capturerDesc(const QString& id);

signals:
    /// A capturer for endpoint @p id is running (pool thread, see above).
    void capturerReady(QString id);
    /// The capturer of endpoint @p id is gone from the registry (pool thread, see above).
    void capturerLost(QString id);

protected:
    /// Loads and starts a capturer for @p device, then emits capturerReady().
    void onDeviceReady(DeviceHandle device, const QString& id) override;
    /// Drops the capturer of @p id, then emits capturerLost().
    void onDeviceLost(const QString& id) override;
    void onDeviceEventsSettled() override;

private:
    struct CapturerEntry
    {
        QSharedPointer<AudioCapturer> capturer;
        qint32 refCount;
    };

    QSharedPointer<AudioCapturer> capturer(const QString& id);
    void loadCapturers();
    void queueSignal(bool ready, const QString& id);
    void emitSettledSignals();

    QHash<QString, CapturerEntry> capturers;
    // The hash is written by pool tasks and read by the application.
    mutable QMutex capturersLock;
    // Signals of the hooks, emitted once the state mutex is released; true for ready.
    QVector<QPair<bool, QString>> settledSignals;
    QMutex emitLock;
};
