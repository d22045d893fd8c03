#pragma once

#include "orvanta_global.h"

#include <QtCore/QMutex>
#include <QtCore/QObject>
#include <QtCore/QReadWriteLock>
#include <QtCore/QString>

#include <functional>
#include <map>
#include <memory>
#include <utility>
#include <vector>

namespace Orvanta {
namespace Ifaces {
class AudioEndpoint;
class EndpointWatcher;
} // namespace Ifaces
} // namespace Orvanta

/**
 * Keeps the list of active output endpoints current and says, through two
 * hooks, when one becomes usable or stops being so.
 *
 * Notifications arrive on the platform's threads; each is copied at once into
 * a task for the global QThreadPool. The tasks run one at a time and in the
 * order their notifications came, so that a sink that is reloaded (gone, then
 * back at once) is dropped and then added, never the other way round. State
 * tasks hold a mutex across the hooks. Input endpoints are never listed.
 *
 * A derived class calls loadCurrentDevices() once its own object is complete,
 * so that the hooks reach its overrides, and calls stopNotifications() first
 * thing in its destructor, so that no task reaches a half-destroyed object.
 */
class LIBORVANTA_EXPORT AudioDeviceEnumerator : public QObject
{
    Q_OBJECT

public:
    /// Reference-counted handle of one endpoint of the platform.
    using DeviceHandle = std::shared_ptr<Orvanta::Ifaces::AudioEndpoint>;
    /// Hands a task to a thread; false when it cannot, and the task is then
    /// dropped. The default hands it to the global QThreadPool, and fails
    /// once that is gone at the end of the process.
    using TaskRunner = std::function<bool(std::function<void()>)>;

    /// Watches the platform's endpoints; the derived class starts the watch with loadCurrentDevices().
    explicit AudioDeviceEnumerator(QObject* parent = nullptr);
    /// Watches the endpoints that @p watcher reports instead of the platform's.
    explicit AudioDeviceEnumerator(
        std::shared_ptr<Orvanta::Ifaces::EndpointWatcher> watcher, QObject* parent = nullptr);
    /// Runs its tasks through @p runner instead of the global thread pool.
    AudioDeviceEnumerator(
        std::shared_ptr<Orvanta::Ifaces::EndpointWatcher> watcher, TaskRunner runner, QObject* parent = nullptr);
    ~AudioDeviceEnumerator() override;

    /// The platform's identifier of @p device; null, with a warning, when it has none.
    QString deviceId(DeviceHandle device) const;
    /// The identifier of the default input endpoint as last reported; null when unknown.
    QString defaultCaptureDeviceId() const;
    /// The identifier of the default output endpoint as last reported; null when unknown.
    QString defaultRenderDeviceId() const;

    // Notification entry points, called by the platform's watcher. They only
    // queue work and return 0 (S_OK) at once.

    /// Endpoint @p id changed to @p newState (the Windows DEVICE_STATE_* values).
    long OnDeviceStateChanged(const QString& id, unsigned long newState);
    /// Endpoint @p id was added; nothing to do until it becomes active.
    long OnDeviceAdded(const QString& id);
    /// Endpoint @p id was removed; its state change has already been handled.
    long OnDeviceRemoved(const QString& id);
    /// @p flow and @p role carry the values of the Windows EDataFlow and ERole.
    long OnDefaultDeviceChanged(int flow, int role, const QString& id);
    /// A property of endpoint @p id changed; ignored.
    long OnPropertyValueChanged(const QString& id);

protected:
    /// Opens the watcher, holds every active output endpoint (calling
    /// onDeviceReady() for each) and registers for notifications; a negative
    /// code when the watcher cannot be opened.
    long loadCurrentDevices();
    /// Hook: endpoint @p id became usable. Runs on a pool thread under the state mutex.
    virtual void onDeviceReady(DeviceHandle device, const QString& id);
    /// Hook: endpoint @p id stopped being usable. Runs on a pool thread under the state mutex.
    virtual void onDeviceLost(const QString& id);
    /// Called after the hooks of one state task (or of one pass over the
    /// endpoints) have run and the state mutex is released: the place for
    /// work that must not hold it, such as signals. The base does nothing.
    virtual void onDeviceEventsSettled();

    /// Ends the notifications and waits for every queued task. Safe to repeat.
    /// On this object's own thread, queued calls to that thread are delivered
    /// while it waits, so that a task blocked in a signal with a blocking
    /// queued connection to this thread can finish.
    void stopNotifications();
    /// The held endpoint of @p id, or null.
    DeviceHandle heldDevice(const QString& id) const;
    /// Every held endpoint, in identifier order.
    std::vector<std::pair<QString, DeviceHandle>> heldDevices() const;
    /// The watcher that reports the endpoints.
    std::shared_ptr<Orvanta::Ifaces::EndpointWatcher> watcher() const;
    /// Calls onDeviceReady() once more for every held endpoint, serialised
    /// with the state tasks, so that it never meets an endpoint that a task is
    /// dropping.
    void readyHeldDevicesAgain();

private:
    long addDevice(const QString& id);
    void removeDevice(const QString& id);
    QString defDeviceId(int flow);
    void stateTask(const QString& id, unsigned long newState);
    void defaultTask(int flow, int role, const QString& id);
    void reconcileTask(const std::vector<std::pair<QString, DeviceHandle>>& present);
    void queueTask(std::function<void()> task);
    void runQueuedTasks();

    std::shared_ptr<Orvanta::Ifaces::EndpointWatcher> enumerator;
    TaskRunner runner;
    std::map<QString, DeviceHandle> devices;
    QString defaultRenderId;
    QString defaultCaptureId;
    QMutex mutex;

    // Short locks for readers on other threads: the device map and the
    // default identifiers are read by the application while tasks write them.
    mutable QReadWriteLock devicesLock;
    mutable QMutex defaultsLock;

    struct TaskTracker;
    std::unique_ptr<TaskTracker> tasks;
    bool notificationsRegistered = false;
};
