#include "AudioDeviceEnumerator.h"
#include "Helpers.h"
#include "MessageCapture.h"
#include "fakes/FakeEndpointWatcher.h"

#include <QtCore/QMutex>
#include <QtCore/QThreadPool>
#include <QtTest/QtTest>

#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

using namespace Orvanta::Ifaces;

namespace {

// Records the hooks; exposes the protected start-up walk.
class RecordingEnumerator : public AudioDeviceEnumerator
{
public:
    explicit RecordingEnumerator(std::shared_ptr<Fakes::FakeEndpointWatcher> watcher)
        : AudioDeviceEnumerator(watcher)
    {
    }
    RecordingEnumerator(std::shared_ptr<Fakes::FakeEndpointWatcher> watcher, TaskRunner runner)
        : AudioDeviceEnumerator(watcher, std::move(runner))
    {
    }
    ~RecordingEnumerator() override
    {
        stopNotifications();
    }

    long load()
    {
        return loadCurrentDevices();
    }

    QStringList events() const
    {
        QMutexLocker locker(&lock);
        return recorded;
    }
    bool holds(const QString& id) const
    {
        return heldDevice(id) != nullptr;
    }

protected:
    void onDeviceReady(DeviceHandle device, const QString& id) override
    {
        QMutexLocker locker(&lock);
        recorded << QStringLiteral("ready %1 %2").arg(id, device ? QStringLiteral("device") : QStringLiteral("null"));
    }
    void onDeviceLost(const QString& id) override
    {
        QMutexLocker locker(&lock);
        recorded << QStringLiteral("lost %1").arg(id);
    }

private:
    mutable QMutex lock;
    QStringList recorded;
};

void drainPool()
{
    QThreadPool::globalInstance()->waitForDone();
}

// A pool that holds what it is given and, when told, runs it newest first,
// each task on a thread of its own: the worst order a pool may choose.
class ReorderingPool
{
public:
    AudioDeviceEnumerator::TaskRunner runner()
    {
        return [this](std::function<void()> task) {
            std::lock_guard<std::mutex> locker(lock);
            held.push_back(std::move(task));
            return true;
        };
    }
    /// Runs everything held, and what that queues, until nothing is left.
    void runNewestFirst()
    {
        for (;;) {
            std::vector<std::function<void()>> batch;
            {
                std::lock_guard<std::mutex> locker(lock);
                batch.swap(held);
            }
            if (batch.empty()) {
                return;
            }
            for (auto it = batch.rbegin(); it != batch.rend(); ++it) {
                std::thread poolThread(*it);
                poolThread.join();
            }
        }
    }

private:
    std::mutex lock;
    std::vector<std::function<void()>> held;
};

// A child of the application object, so destroyed while the application
// closes down: raises one more endpoint event then, as a platform thread may
// at exit. No task has run before, so the global thread pool does not exist,
// and Qt makes none while the application closes.
class LateEventAtExit : public QObject
{
public:
    LateEventAtExit(RecordingEnumerator* enumerator, QObject* parent)
        : QObject(parent)
        , enumerator(enumerator)
    {
    }
    ~LateEventAtExit() override
    {
        enumerator->OnDeviceStateChanged(QStringLiteral("late"), DeviceStateActive);
        std::fputs("late event raised\n", stderr);
    }

private:
    RecordingEnumerator* enumerator;
};

// The child process of eventWithoutAGlobalPoolIsDropped().
int raiseAnEventWhileTheApplicationCloses(int argc, char* argv[])
{
    auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
    RecordingEnumerator enumerator(watcher);
    QCoreApplication app(argc, argv);
    new LateEventAtExit(&enumerator, &app);
    return 0;
}

} // namespace

class TestAudioDeviceEnumerator : public QObject
{
    Q_OBJECT

private slots:
    void startupWalkReportsActiveOutputsAndSkipsInputs()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        watcher->add("speakers", DataFlow::Render);
        watcher->add("microphone", DataFlow::Capture);
        watcher->add("headphones", DataFlow::Render);
        watcher->add("unplugged", DataFlow::Render, DeviceStateUnplugged);
        watcher->defaultRender = "headphones";
        watcher->defaultCapture = "microphone";

        MessageCapture capture;
        RecordingEnumerator enumerator(watcher);
        QCOMPARE(watcher->threadInitialisations, 1);
        QCOMPARE(enumerator.load(), S_OK);
        QCOMPARE(enumerator.events(), QStringList({"ready speakers device", "ready headphones device"}));
        QVERIFY(capture.contains(QtDebugMsg,
            QStringLiteral("The IMMDevice data flow is capture, the device will be continued, id: \"microphone\"")));
        QCOMPARE(enumerator.defaultRenderDeviceId(), QStringLiteral("headphones"));
        QCOMPARE(enumerator.defaultCaptureDeviceId(), QStringLiteral("microphone"));
        QVERIFY(watcher->isRegistered());
        QVERIFY(enumerator.holds("speakers"));
        QVERIFY(!enumerator.holds("microphone"));
    }

    void startupFailuresAreLoggedAndReturned()
    {
        {
            auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
            watcher->openResult = REGDB_E_CLASSNOTREG;
            MessageCapture capture;
            RecordingEnumerator enumerator(watcher);
            QCOMPARE(enumerator.load(), REGDB_E_CLASSNOTREG);
            QVERIFY(capture.contains(QtCriticalMsg,
                QStringLiteral("Failed to create MMDeviceEnumerator instance  \"%1\"")
                    .arg(win32ErrorMsg(REGDB_E_CLASSNOTREG))));
            QVERIFY(!watcher->isRegistered());
        }
        {
            auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
            watcher->enumResult = E_OUTOFMEMORY;
            MessageCapture capture;
            RecordingEnumerator enumerator(watcher);
            QCOMPARE(enumerator.load(), E_OUTOFMEMORY);
            QVERIFY(capture.contains(QtCriticalMsg,
                QStringLiteral("Failed to enum audio endpoints  \"%1\"").arg(win32ErrorMsg(E_OUTOFMEMORY))));
        }
        {
            auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
            watcher->add("first", DataFlow::Render);
            watcher->add("second", DataFlow::Render);
            watcher->itemResults = {E_FAIL, S_OK};
            watcher->registerResult = E_ACCESSDENIED;
            MessageCapture capture;
            RecordingEnumerator enumerator(watcher);
            QCOMPARE(enumerator.load(), E_ACCESSDENIED);
            QCOMPARE(enumerator.events(), QStringList({"ready second device"}));
            QVERIFY(capture.contains(
                QtCriticalMsg, QStringLiteral("Failed to get IMMDevice  \"%1\"").arg(win32ErrorMsg(E_FAIL))));
            QVERIFY(capture.contains(QtCriticalMsg,
                QStringLiteral("Failed to register endpoint notification callback  \"%1\"")
                    .arg(win32ErrorMsg(E_ACCESSDENIED))));
        }
    }

    void activeNotificationForUnknownOutputAddsIt()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        RecordingEnumerator enumerator(watcher);
        QCOMPARE(enumerator.load(), S_OK);
        watcher->add("usb", DataFlow::Render);
        QCOMPARE(enumerator.OnDeviceStateChanged("usb", DeviceStateActive), S_OK);
        drainPool();
        QCOMPARE(enumerator.events(), QStringList({"ready usb device"}));
        QVERIFY(enumerator.holds("usb"));

        // Delivered from a platform thread as well.
        watcher->add("hdmi", DataFlow::Render);
        watcher->notifyState("hdmi", DeviceStateActive);
        drainPool();
        QCOMPARE(enumerator.events(), QStringList({"ready usb device", "ready hdmi device"}));
    }

    void repeatedActiveNotificationRemovesHeldEndpoint()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        watcher->add("speakers", DataFlow::Render);
        RecordingEnumerator enumerator(watcher);
        QCOMPARE(enumerator.load(), S_OK);
        watcher->notifyState("speakers", DeviceStateActive);
        drainPool();
        QCOMPARE(enumerator.events(), QStringList({"ready speakers device", "lost speakers"}));
        QVERIFY(!enumerator.holds("speakers"));
        // The next notification brings it back.
        watcher->notifyState("speakers", DeviceStateActive);
        drainPool();
        QCOMPARE(enumerator.events().last(), QStringLiteral("ready speakers device"));
        QVERIFY(enumerator.holds("speakers"));
    }

    void nonActiveStateRemovesHeldEndpoint()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        watcher->add("speakers", DataFlow::Render);
        RecordingEnumerator enumerator(watcher);
        QCOMPARE(enumerator.load(), S_OK);
        watcher->notifyState("speakers", DeviceStateNotPresent);
        drainPool();
        QCOMPARE(enumerator.events(), QStringList({"ready speakers device", "lost speakers"}));
    }

    void nonActiveStateForUnknownIdentifierDoesNothing()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        RecordingEnumerator enumerator(watcher);
        QCOMPARE(enumerator.load(), S_OK);
        MessageCapture capture;
        watcher->notifyState("ghost", DeviceStateUnplugged);
        watcher->notifyState("ghost", DeviceStateDisabled);
        drainPool();
        QVERIFY(enumerator.events().isEmpty());
        QCOMPARE(watcher->lookups, 0);
        QVERIFY(capture.messages().isEmpty());
    }

    void captureEndpointTurningActiveIsSkipped()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        RecordingEnumerator enumerator(watcher);
        QCOMPARE(enumerator.load(), S_OK);
        watcher->add("webcam-mic", DataFlow::Capture);
        MessageCapture capture;
        watcher->notifyState("webcam-mic", DeviceStateActive);
        drainPool();
        QVERIFY(enumerator.events().isEmpty());
        QVERIFY(!enumerator.holds("webcam-mic"));
        QCOMPARE(capture.texts(QtDebugMsg),
            QStringList({QStringLiteral("The IMMDevice data flow is capture of id: \"webcam-mic\"")}));
    }

    void addDeviceFailures()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        RecordingEnumerator enumerator(watcher);
        QCOMPARE(enumerator.load(), S_OK);
        MessageCapture capture;

        // Unknown to the platform: the first lookup fails.
        watcher->notifyState("vanished", DeviceStateActive);
        drainPool();
        QVERIFY(capture.contains(
            QtCriticalMsg, QStringLiteral("[AudioDeviceEnumerator]: Failed to get IMMDevice  \"vanished\"")));

        // The second lookup fails.
        watcher->add("flaky", DataFlow::Render);
        watcher->failLookupNumber = watcher->lookups + 2;
        watcher->lookupFailure = E_OUTOFMEMORY;
        watcher->notifyState("flaky", DeviceStateActive);
        drainPool();
        QVERIFY(capture.contains(
            QtCriticalMsg, QStringLiteral("Failed to get IMMDevice by id  \"%1\"").arg(win32ErrorMsg(E_OUTOFMEMORY))));

        // The state can't be read.
        auto broken = watcher->add("broken", DataFlow::Render);
        broken->stateResult = E_FAIL;
        watcher->notifyState("broken", DeviceStateActive);
        drainPool();
        QVERIFY(capture.contains(
            QtCriticalMsg, QStringLiteral("Failed to get IMMDevice state  \"%1\"").arg(win32ErrorMsg(E_FAIL))));

        // Inactive by the time the task asks.
        watcher->add("sleepy", DataFlow::Render, DeviceStateDisabled);
        watcher->notifyState("sleepy", DeviceStateActive);
        drainPool();
        QVERIFY(capture.contains(QtInfoMsg, QStringLiteral("Unable to add inactive IMMDevice \"sleepy\"")));

        QVERIFY(enumerator.events().isEmpty());
    }

    void defaultChanges()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        watcher->add("speakers", DataFlow::Render);
        watcher->add("mic", DataFlow::Capture);
        watcher->defaultRender = "speakers";
        watcher->defaultCapture = "mic";
        RecordingEnumerator enumerator(watcher);
        QCOMPARE(enumerator.load(), S_OK);

        // The communications role changes nothing.
        watcher->notifyDefault(DataFlow::Render, DeviceRole::Communications, "other");
        watcher->notifyDefault(DataFlow::Capture, DeviceRole::Communications, "other");
        watcher->notifyDefault(DataFlow::Render, DeviceRole::Multimedia, "other");
        watcher->notifyDefault(DataFlow::All, DeviceRole::Console, "other");
        drainPool();
        QCOMPARE(enumerator.defaultRenderDeviceId(), QStringLiteral("speakers"));
        QCOMPARE(enumerator.defaultCaptureDeviceId(), QStringLiteral("mic"));

        watcher->notifyDefault(DataFlow::Render, DeviceRole::Console, "headphones");
        watcher->notifyDefault(DataFlow::Capture, DeviceRole::Console, "headset-mic");
        drainPool();
        QCOMPARE(enumerator.defaultRenderDeviceId(), QStringLiteral("headphones"));
        QCOMPARE(enumerator.defaultCaptureDeviceId(), QStringLiteral("headset-mic"));
        // No hook for a default change.
        QCOMPARE(enumerator.events(), QStringList({"ready speakers device"}));
    }

    void addedRemovedAndPropertyNotificationsHaveNoEffect()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        watcher->add("speakers", DataFlow::Render);
        RecordingEnumerator enumerator(watcher);
        QCOMPARE(enumerator.load(), S_OK);
        watcher->add("new", DataFlow::Render);
        watcher->notifyAdded("new");
        watcher->notifyRemoved("speakers");
        watcher->notifyProperty("speakers");
        QCOMPARE(enumerator.OnDeviceAdded("speakers"), S_OK);
        QCOMPARE(enumerator.OnDeviceRemoved("speakers"), S_OK);
        QCOMPARE(enumerator.OnPropertyValueChanged("speakers"), S_OK);
        drainPool();
        QCOMPARE(enumerator.events(), QStringList({"ready speakers device"}));
        QVERIFY(enumerator.holds("speakers"));
        QVERIFY(!enumerator.holds("new"));
    }

    void noDefaultOutputGivesNullIdentifier()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        watcher->add("speakers", DataFlow::Render);
        MessageCapture capture;
        RecordingEnumerator enumerator(watcher);
        QCOMPARE(enumerator.load(), S_OK);
        QVERIFY(enumerator.defaultRenderDeviceId().isNull());
        QVERIFY(enumerator.defaultCaptureDeviceId().isNull());
        QCOMPARE(capture.count(
                     QtWarningMsg, QStringLiteral("Not found default MMDevice \"%1\"").arg(win32ErrorMsg(E_NOTFOUND))),
            2);
    }

    void deviceIdFailureIsAWarning()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        auto endpoint = watcher->add("speakers", DataFlow::Render);
        endpoint->idResult = E_OUTOFMEMORY;
        RecordingEnumerator enumerator(watcher);
        MessageCapture capture;
        QVERIFY(enumerator.deviceId(endpoint).isNull());
        QVERIFY(capture.contains(QtWarningMsg, QStringLiteral("Failed to get IMMDevice id : %1").arg(E_OUTOFMEMORY)));
        endpoint->idResult = S_OK;
        QCOMPARE(enumerator.deviceId(endpoint), QStringLiteral("speakers"));
    }

    void tasksOfOneEndpointRunInTheOrderRaised()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        watcher->add("sink", DataFlow::Render);
        ReorderingPool pool;
        RecordingEnumerator enumerator(watcher, pool.runner());
        QCOMPARE(enumerator.load(), S_OK);
        pool.runNewestFirst();
        QCOMPARE(enumerator.events(), QStringList {"ready sink device"});

        // A reloaded sink: gone, then back at once.
        watcher->notifyState("sink", DeviceStateNotPresent);
        watcher->notifyState("sink", DeviceStateActive);
        pool.runNewestFirst();
        QCOMPARE(enumerator.events(), QStringList({"ready sink device", "lost sink", "ready sink device"}));
        QVERIFY(enumerator.holds("sink"));
    }

    void changesBetweenOpenAndRegistrationAreSettled()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        watcher->add("kept", DataFlow::Render);
        watcher->add("unplugged", DataFlow::Render);
        watcher->beforeRegistration = [&watcher] {
            watcher->remove("unplugged");
            watcher->add("plugged", DataFlow::Render);
            watcher->add("microphone", DataFlow::Capture);
        };
        RecordingEnumerator enumerator(watcher);
        QCOMPARE(enumerator.load(), S_OK);
        drainPool();
        QCOMPARE(enumerator.events(),
            QStringList({"ready kept device", "ready unplugged device", "lost unplugged", "ready plugged device"}));
        QVERIFY(enumerator.holds("plugged"));
        QVERIFY(!enumerator.holds("unplugged"));
        QVERIFY(!enumerator.holds("microphone"));
    }

    void eventWithoutAGlobalPoolIsDropped()
    {
        QProcess child;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("ORVANTA_LATE_EVENT_CHILD"), QStringLiteral("1"));
        child.setProcessEnvironment(environment);
        child.start(QCoreApplication::applicationFilePath(), QStringList());
        QVERIFY(child.waitForFinished(30000));
        const QByteArray errors = child.readAllStandardError();
        QVERIFY2(child.exitStatus() == QProcess::NormalExit && child.exitCode() == 0, errors.constData());
        QVERIFY2(errors.contains("late event raised"), errors.constData());
    }

    void destructionEndsNotificationsAndWaitsForTasks()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        {
            RecordingEnumerator enumerator(watcher);
            QCOMPARE(enumerator.load(), S_OK);
            for (int i = 0; i < 50; ++i) {
                const std::string id = "dev" + std::to_string(i);
                watcher->add(id, DataFlow::Render);
                enumerator.OnDeviceStateChanged(QString::fromStdString(id), DeviceStateActive);
            }
        }
        QVERIFY(!watcher->isRegistered());
        QVERIFY(watcher->unregisterCalls >= 1);
        QCOMPARE(watcher->threadUninitialisations, 1);
    }
};

int main(int argc, char* argv[])
{
    if (qEnvironmentVariableIsSet("ORVANTA_LATE_EVENT_CHILD")) {
        return raiseAnEventWhileTheApplicationCloses(argc, argv);
    }
    QCoreApplication app(argc, argv);
    TestAudioDeviceEnumerator test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}
#include "tst_audiodeviceenumerator.moc"
