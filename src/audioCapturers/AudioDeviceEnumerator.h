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
 * a task on the global QThreadPool. State tasks run one at a time, under a
 * mutex that they hold across the hooks. Input endpoints are never listed.
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

    explicit AudioDeviceEnumerator(QObject* parent = nullptr);
    /// Watches the endpoints that @p watcher reports instead of the platform's.
    explicit AudioDeviceEnumerator(
        std::shared_ptr<Orvanta::Ifaces::EndpointWatcher> watcher, QObject* parent = nullptr);
    ~AudioDeviceEnumerator() override;

    QString deviceId(DeviceHandle device) const;
    QString defaultCaptureDeviceId() const;
    QString defaultRenderDeviceId() const;

    // Notification entry points. They only queue work and return S_OK at once.
    long OnDeviceStateChanged(const QString& id, unsigned long newState);
    long OnDeviceAdded(const QString& id);
    long OnDeviceRemoved(const QString& id);
    /// @p flow and @p role carry the values of the Windows EDataFlow and ERole.
    long OnDefaultDeviceChanged(int flow, int role, const QString& id);
    long OnPropertyValueChanged(const QString& id);

protected:
    long loadCurrentDevices();
    virtual void onDeviceReady(DeviceHandle device, const QString& id);
    virtual void onDeviceLost(const QString& id);

    /// Ends the notifications and waits for every queued task. Safe to repeat.
    void stopNotifications();
    /// The held endpoint of @p id, or null.
    DeviceHandle heldDevice(const QString& id) const;
    /// Every held endpoint, in identifier order.
    std::vector<std::pair<QString, DeviceHandle>> heldDevices() const;
    std::shared_ptr<Orvanta::Ifaces::EndpointWatcher> watcher() const;

private:
    long addDevice(const QString& id);
    void removeDevice(const QString& id);
    QString defDeviceId(int flow);
    void stateTask(const QString& id, unsigned long newState);
    void defaultTask(int flow, int role, const QString& id);
    void queueTask(std::function<void()> task);

    std::shared_ptr<Orvanta::Ifaces::EndpointWatcher> enumerator;
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
