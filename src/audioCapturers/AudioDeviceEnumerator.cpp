#include "AudioDeviceEnumerator.h"

#include "Helpers.h"
#include "ResultCodes.h"
#include "ifaces/EndpointWatcher.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>
#include <QtCore/QThread>
#include <QtCore/QThreadPool>
#include <QtCore/QWaitCondition>

#include <deque>
#include <set>

using Orvanta::Ifaces::AudioEndpoint;
using Orvanta::Ifaces::DataFlow;
using Orvanta::Ifaces::DeviceRole;

namespace {
constexpr int eRender = static_cast<int>(DataFlow::Render);
constexpr int eCapture = static_cast<int>(DataFlow::Capture);
constexpr int eConsole = static_cast<int>(DeviceRole::Console);

// How long the destructor's wait sleeps before it looks for calls that a task
// is blocked on.
constexpr unsigned long kBlockedCallPollMs = 10;

bool runOnGlobalPool(std::function<void()> task)
{
    // Null at the end of the process (the pool is gone, or Qt makes none
    // while the application closes down): a late notification then has
    // nowhere to run and is dropped.
    QThreadPool* pool = QThreadPool::globalInstance();
    if (!pool) {
        return false;
    }
    pool->start(std::move(task));
    return true;
}
} // namespace

// The tasks in the order they were raised, and the count of those queued or
// running, so that the object can wait for them before it goes: a task holds
// a plain pointer to it. One runner at a time empties the queue, so the pool
// can never run two tasks out of order.
struct AudioDeviceEnumerator::TaskTracker
{
    QMutex lock;
    QWaitCondition idle;
    std::deque<std::function<void()>> queue;
    int pending = 0;
    bool running = false;
    bool accepting = true;
};

AudioDeviceEnumerator::AudioDeviceEnumerator(QObject* parent)
    : AudioDeviceEnumerator(Orvanta::createPlatformEndpointWatcher(), parent)
{
}

AudioDeviceEnumerator::AudioDeviceEnumerator(std::shared_ptr<Orvanta::Ifaces::EndpointWatcher> watcher, QObject* parent)
    // A closure rather than the function's address: std::function would
    // otherwise export the type information of a plain function pointer.
    : AudioDeviceEnumerator(
        std::move(watcher), [](std::function<void()> task) { return runOnGlobalPool(std::move(task)); }, parent)
{
}

AudioDeviceEnumerator::AudioDeviceEnumerator(
    std::shared_ptr<Orvanta::Ifaces::EndpointWatcher> watcher, TaskRunner runner, QObject* parent)
    : QObject(parent)
    , enumerator(std::move(watcher))
    , runner(std::move(runner))
    , tasks(std::make_unique<TaskTracker>())
{
    enumerator->initializeThread();
}

AudioDeviceEnumerator::~AudioDeviceEnumerator()
{
    stopNotifications();
    enumerator->uninitializeThread();
}

void AudioDeviceEnumerator::stopNotifications()
{
    if (notificationsRegistered) {
        enumerator->unregisterNotifications();
        notificationsRegistered = false;
    }
    QMutexLocker locker(&tasks->lock);
    tasks->accepting = false;
    // A task may be blocked in a signal whose receiver lives on this thread
    // (a blocking queued connection): deliver such calls while waiting, or
    // the two threads would wait for each other.
    const bool ownThread = QThread::currentThread() == thread() && QCoreApplication::instance();
    while (tasks->pending > 0) {
        if (!ownThread) {
            tasks->idle.wait(&tasks->lock);
            continue;
        }
        if (!tasks->idle.wait(&tasks->lock, kBlockedCallPollMs)) {
            locker.unlock();
            QCoreApplication::sendPostedEvents(nullptr, QEvent::MetaCall);
            locker.relock();
        }
    }
}

AudioDeviceEnumerator::DeviceHandle AudioDeviceEnumerator::heldDevice(const QString& id) const
{
    QReadLocker locker(&devicesLock);
    const auto it = devices.find(id);
    return it == devices.end() ? DeviceHandle() : it->second;
}

std::vector<std::pair<QString, AudioDeviceEnumerator::DeviceHandle>> AudioDeviceEnumerator::heldDevices() const
{
    QReadLocker locker(&devicesLock);
    return std::vector<std::pair<QString, DeviceHandle>>(devices.begin(), devices.end());
}

std::shared_ptr<Orvanta::Ifaces::EndpointWatcher> AudioDeviceEnumerator::watcher() const
{
    return enumerator;
}

QString AudioDeviceEnumerator::deviceId(DeviceHandle device) const
{
    std::string id;
    const long hr = device ? device->id(id) : E_POINTER;
    if (hr < 0) {
        qWarning() << "Failed to get IMMDevice id :" << hr;
        return QString();
    }
    return QString::fromStdString(id);
}

QString AudioDeviceEnumerator::defaultCaptureDeviceId() const
{
    QMutexLocker locker(&defaultsLock);
    return defaultCaptureId;
}

QString AudioDeviceEnumerator::defaultRenderDeviceId() const
{
    QMutexLocker locker(&defaultsLock);
    return defaultRenderId;
}

long AudioDeviceEnumerator::loadCurrentDevices()
{
    long hr = enumerator->open();
    if (hr < 0) {
        qCritical() << "Failed to create MMDeviceEnumerator instance " << win32ErrorMsg(hr);
        return hr;
    }

    std::unique_ptr<Orvanta::Ifaces::EndpointCollection> collection;
    hr = enumerator->activeEndpoints(collection);
    if (hr < 0) {
        qCritical() << "Failed to enum audio endpoints " << win32ErrorMsg(hr);
        return hr;
    }

    unsigned int count = 0;
    collection->count(count);
    for (unsigned int i = 0; i < count; ++i) {
        std::shared_ptr<AudioEndpoint> device;
        hr = collection->item(i, device);
        if (hr < 0) {
            qCritical() << "Failed to get IMMDevice " << win32ErrorMsg(hr);
            continue;
        }
        DataFlow flow = DataFlow::Render;
        device->dataFlow(flow);
        const QString id = deviceId(device);
        if (flow == DataFlow::Capture) {
            qDebug() << "The IMMDevice data flow is capture, the device will be continued, id:" << id;
            continue;
        }
        {
            QWriteLocker locker(&devicesLock);
            devices.emplace(id, device);
        }
        onDeviceReady(device, id);
    }

    const QString captureId = defDeviceId(eCapture);
    const QString renderId = defDeviceId(eRender);
    {
        QMutexLocker locker(&defaultsLock);
        defaultCaptureId = captureId;
        defaultRenderId = renderId;
    }

    Orvanta::Ifaces::EndpointNotifications notifications;
    notifications.deviceStateChanged = [this](const std::string& id, unsigned long newState) {
        OnDeviceStateChanged(QString::fromStdString(id), newState);
    };
    notifications.deviceAdded = [this](const std::string& id) {
        OnDeviceAdded(QString::fromStdString(id));
    };
    notifications.deviceRemoved = [this](const std::string& id) {
        OnDeviceRemoved(QString::fromStdString(id));
    };
    notifications.defaultDeviceChanged = [this](DataFlow flow, DeviceRole role, const std::string& id) {
        OnDefaultDeviceChanged(static_cast<int>(flow), static_cast<int>(role), QString::fromStdString(id));
    };
    notifications.propertyValueChanged = [this](const std::string& id) {
        OnPropertyValueChanged(QString::fromStdString(id));
    };
    hr = enumerator->registerNotifications(std::move(notifications));
    if (hr < 0) {
        qCritical() << "Failed to register endpoint notification callback " << win32ErrorMsg(hr);
        return hr;
    }
    notificationsRegistered = true;

    // Endpoints that came or went between the walk and the registration had
    // no notification to tell of them: a second look, queued behind any
    // notification raised before it, settles them.
    std::unique_ptr<Orvanta::Ifaces::EndpointCollection> current;
    if (enumerator->activeEndpoints(current) >= 0) {
        std::vector<std::pair<QString, DeviceHandle>> present;
        unsigned int currentCount = 0;
        current->count(currentCount);
        for (unsigned int i = 0; i < currentCount; ++i) {
            std::shared_ptr<AudioEndpoint> device;
            if (current->item(i, device) < 0) {
                continue;
            }
            DataFlow flow = DataFlow::Render;
            device->dataFlow(flow);
            std::string platformId;
            if (flow != DataFlow::Capture && device->id(platformId) >= 0) {
                present.emplace_back(QString::fromStdString(platformId), device);
            }
        }
        queueTask([this, present = std::move(present)] { reconcileTask(present); });
    }
    return hr;
}

QString AudioDeviceEnumerator::defDeviceId(int flow)
{
    std::shared_ptr<AudioEndpoint> device;
    const long hr = enumerator->defaultEndpoint(static_cast<DataFlow>(flow), DeviceRole::Console, device);
    if (hr < 0) {
        qWarning() << "Not found default MMDevice" << win32ErrorMsg(hr);
        return QString();
    }
    return deviceId(device);
}

void AudioDeviceEnumerator::onDeviceReady(DeviceHandle device, const QString& id)
{
    Q_UNUSED(id)
    device.reset();
}

void AudioDeviceEnumerator::onDeviceLost(const QString& id)
{
    Q_UNUSED(id)
}

long AudioDeviceEnumerator::addDevice(const QString& id)
{
    {
        QReadLocker locker(&devicesLock);
        if (devices.count(id) != 0) {
            return S_OK;
        }
    }

    const std::string platformId = id.toStdString();
    std::shared_ptr<AudioEndpoint> device;
    long hr = enumerator->endpoint(platformId, device);
    if (hr < 0) {
        qCritical() << "[AudioDeviceEnumerator]: Failed to get IMMDevice " << id;
        return S_OK;
    }
    DataFlow flow = DataFlow::Render;
    device->dataFlow(flow);
    if (flow == DataFlow::Capture) {
        qDebug() << "The IMMDevice data flow is capture of id:" << id;
        return S_OK;
    }

    device.reset();
    hr = enumerator->endpoint(platformId, device);
    if (hr < 0) {
        qCritical() << "Failed to get IMMDevice by id " << win32ErrorMsg(hr);
        return hr;
    }
    unsigned long state = 0;
    hr = device->state(state);
    if (hr < 0) {
        qCritical() << "Failed to get IMMDevice state " << win32ErrorMsg(hr);
        return hr;
    }
    if (state == Orvanta::Ifaces::DeviceStateActive) {
        {
            QWriteLocker locker(&devicesLock);
            devices.emplace(id, device);
        }
        onDeviceReady(device, id);
        return S_OK;
    }
    qInfo() << "Unable to add inactive IMMDevice" << id;
    return S_OK;
}

void AudioDeviceEnumerator::removeDevice(const QString& id)
{
    DeviceHandle released;
    {
        QWriteLocker locker(&devicesLock);
        const auto it = devices.find(id);
        if (it != devices.end()) {
            released = std::move(it->second);
            devices.erase(it);
        }
    }
    released.reset();
    onDeviceLost(id);
}

void AudioDeviceEnumerator::onDeviceEventsSettled()
{
}

void AudioDeviceEnumerator::readyHeldDevicesAgain()
{
    {
        QMutexLocker locker(&mutex);
        for (const auto& held : heldDevices()) {
            onDeviceReady(held.second, held.first);
        }
    }
    onDeviceEventsSettled();
}

void AudioDeviceEnumerator::reconcileTask(const std::vector<std::pair<QString, DeviceHandle>>& present)
{
    {
        QMutexLocker locker(&mutex);
        std::set<QString> presentIds;
        for (const auto& endpoint : present) {
            presentIds.insert(endpoint.first);
        }
        for (const auto& held : heldDevices()) {
            if (presentIds.count(held.first) == 0) {
                removeDevice(held.first);
            }
        }
        for (const auto& endpoint : present) {
            bool inserted = false;
            {
                QWriteLocker devicesLocker(&devicesLock);
                inserted = devices.emplace(endpoint.first, endpoint.second).second;
            }
            if (inserted) {
                onDeviceReady(endpoint.second, endpoint.first);
            }
        }
    }
    onDeviceEventsSettled();
}

void AudioDeviceEnumerator::queueTask(std::function<void()> task)
{
    {
        QMutexLocker locker(&tasks->lock);
        if (!tasks->accepting) {
            return;
        }
        ++tasks->pending;
        tasks->queue.push_back(std::move(task));
        if (tasks->running) {
            return;
        }
        tasks->running = true;
    }
    if (!runner([this] { runQueuedTasks(); })) {
        QMutexLocker locker(&tasks->lock);
        tasks->pending -= static_cast<int>(tasks->queue.size());
        tasks->queue.clear();
        tasks->running = false;
        if (tasks->pending == 0) {
            tasks->idle.wakeAll();
        }
    }
}

void AudioDeviceEnumerator::runQueuedTasks()
{
    QMutexLocker locker(&tasks->lock);
    while (!tasks->queue.empty()) {
        std::function<void()> task = std::move(tasks->queue.front());
        tasks->queue.pop_front();
        locker.unlock();
        task();
        task = nullptr;
        locker.relock();
        --tasks->pending;
    }
    tasks->running = false;
    if (tasks->pending == 0) {
        tasks->idle.wakeAll();
    }
}

long AudioDeviceEnumerator::OnDeviceStateChanged(const QString& id, unsigned long newState)
{
    queueTask([this, id, newState] { stateTask(id, newState); });
    return S_OK;
}

long AudioDeviceEnumerator::OnDeviceAdded(const QString& id)
{
    Q_UNUSED(id)
    return S_OK;
}

long AudioDeviceEnumerator::OnDeviceRemoved(const QString& id)
{
    Q_UNUSED(id)
    return S_OK;
}

long AudioDeviceEnumerator::OnDefaultDeviceChanged(int flow, int role, const QString& id)
{
    queueTask([this, flow, role, id] { defaultTask(flow, role, id); });
    return S_OK;
}

long AudioDeviceEnumerator::OnPropertyValueChanged(const QString& id)
{
    Q_UNUSED(id)
    return S_OK;
}

void AudioDeviceEnumerator::stateTask(const QString& id, unsigned long newState)
{
    {
        QMutexLocker locker(&mutex);
        bool held = false;
        {
            QReadLocker devicesLocker(&devicesLock);
            held = devices.count(id) != 0;
        }
        if (newState == Orvanta::Ifaces::DeviceStateActive) {
            // An "active" notification for an endpoint already held drops it; it
            // comes back with the next notification.
            if (held) {
                removeDevice(id);
            } else {
                addDevice(id);
            }
        } else if (held) {
            removeDevice(id);
        }
    }
    onDeviceEventsSettled();
}

void AudioDeviceEnumerator::defaultTask(int flow, int role, const QString& id)
{
    if (role != eConsole) {
        return;
    }
    QMutexLocker locker(&defaultsLock);
    if (flow == eRender) {
        defaultRenderId = id;
    } else if (flow == eCapture) {
        defaultCaptureId = id;
    }
}
