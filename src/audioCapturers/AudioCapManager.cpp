#include "AudioCapManager.h"

#include "AudioCapturer.h"
#include "Helpers.h"
#include "ifaces/AudioEndpoint.h"

#include <QtCore/QDebug>
#include <QtCore/QMetaType>

#include <string>

AudioCapManager* AudioCapManager::instance()
{
    static std::unique_ptr<AudioCapManager> registry;
    if (!registry) {
        registry.reset(new AudioCapManager());
    }
    return registry.get();
}

AudioCapManager::AudioCapManager(QObject* parent)
    : AudioDeviceEnumerator(parent)
{
    loadCapturers();
}

AudioCapManager::AudioCapManager(std::shared_ptr<Orvanta::Ifaces::EndpointWatcher> watcher, QObject* parent)
    : AudioDeviceEnumerator(std::move(watcher), parent)
{
    loadCapturers();
}

void AudioCapManager::loadCapturers()
{
    qRegisterMetaType<QSharedPointer<AudioCapturer>>("QSharedPointer<AudioCapturer>");
    if (!QMetaType::hasRegisteredConverterFunction<QSharedPointer<AudioCapturer>, QObject*>()) {
        QMetaType::registerConverter<QSharedPointer<AudioCapturer>, QObject*>(
            [](const QSharedPointer<AudioCapturer>& capturer) -> QObject* { return capturer.data(); });
    }

    const long hr = loadCurrentDevices();
    emitSettledSignals();
    if (hr < 0) {
        qCritical() << "Failed to load current audio devices" << win32ErrorMsg(hr);
        return;
    }
    // A second pass: an endpoint whose load failed in the walk gets another attempt.
    readyHeldDevicesAgain();
}

AudioCapManager::~AudioCapManager()
{
    stopNotifications();
    QHash<QString, CapturerEntry> released;
    {
        QMutexLocker locker(&capturersLock);
        released.swap(capturers);
    }
    // The deletions are only posted, and at exit no event loop may run them:
    // end the capture threads here, so that none outlives the registry.
    for (const CapturerEntry& entry : qAsConst(released)) {
        entry.capturer->requestInterruption();
        entry.capturer->wait();
    }
}

QSharedPointer<AudioCapturer> AudioCapManager::acquireCapturer(const QString& id)
{
    return capturer(id);
}

void AudioCapManager::releaseCapturer(const QString& id)
{
    Q_UNUSED(id)
}

QList<QString> AudioCapManager::allCapturers()
{
    QMutexLocker locker(&capturersLock);
    QList<QString> ids;
    ids.reserve(capturers.size());
    for (auto it = capturers.cbegin(); it != capturers.cend(); ++it) {
        ids.append(it.key());
    }
    return ids;
}

QString AudioCapManager::defaultCapturer() const
{
    QMutexLocker locker(&capturersLock);
    if (capturers.isEmpty()) {
        return QString();
    }
    QString id = defaultRenderDeviceId();
    if (id.isEmpty()) {
        id = capturers.cbegin().key();
    }
    return id;
}

QString AudioCapManager::capturerDesc(const QString& id)
{
    const DeviceHandle device = heldDevice(id);
    if (!device) {
        return QString();
    }
    std::string name;
    if (device->friendlyName(name) < 0) {
        return QString();
    }
    return QString::fromStdString(name);
}

QSharedPointer<AudioCapturer> AudioCapManager::capturer(const QString& id)
{
    QMutexLocker locker(&capturersLock);
    const auto it = capturers.constFind(id);
    return it == capturers.cend() ? QSharedPointer<AudioCapturer>() : it->capturer;
}

void AudioCapManager::onDeviceReady(DeviceHandle device, const QString& id)
{
    {
        QMutexLocker locker(&capturersLock);
        if (capturers.contains(id)) {
            return;
        }
    }

    QSharedPointer<AudioCapturer> capturer(new AudioCapturer(0, 16000, nullptr), &QObject::deleteLater);
    // A pool thread has no event loop to run the posted deletion; the
    // registry's own thread has.
    if (capturer->thread() != thread()) {
        capturer->moveToThread(thread());
    }
    if (capturer->load(std::move(device)) < 0) {
        qCritical() << "Failed to load audio capture: " << id;
        return;
    }
    capturer->start(QThread::InheritPriority);
    {
        QMutexLocker locker(&capturersLock);
        capturers.insert(id, CapturerEntry {capturer, 0});
    }
    qInfo() << "The audio capture has readied: " << id;
    queueSignal(true, id);
}

void AudioCapManager::onDeviceLost(const QString& id)
{
    QSharedPointer<AudioCapturer> released;
    {
        QMutexLocker locker(&capturersLock);
        if (!capturers.isEmpty()) {
            released = capturers.take(id).capturer;
        }
    }
    released.reset();
    qInfo() << "The audio capture has lost: " << id;
    queueSignal(false, id);
}

void AudioCapManager::queueSignal(bool ready, const QString& id)
{
    QMutexLocker locker(&capturersLock);
    settledSignals.append(qMakePair(ready, id));
}

void AudioCapManager::onDeviceEventsSettled()
{
    emitSettledSignals();
}

void AudioCapManager::emitSettledSignals()
{
    // Emitted with none of the registry's locks held, so that a receiver may
    // block the emitting thread (a blocking queued connection) and call back
    // into the registry. The emission lock only keeps the order of signals
    // from the constructor's pass and from the first tasks.
    QMutexLocker emitLocker(&emitLock);
    QVector<QPair<bool, QString>> pending;
    {
        QMutexLocker locker(&capturersLock);
        pending.swap(settledSignals);
    }
    for (const auto& signal : qAsConst(pending)) {
        if (signal.first) {
            emit capturerReady(signal.second);
        } else {
            emit capturerLost(signal.second);
        }
    }
}
