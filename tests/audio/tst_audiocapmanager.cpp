#include "AudioCapManager.h"
#include "AudioCapturer.h"
#include "ConfigurationManager.h"
#include "CrossThreadSpy.h"
#include "Helpers.h"
#include "MessageCapture.h"
#include "fakes/FakeDevice.h"

#include <QtCore/QPointer>
#include <QtCore/QTemporaryDir>
#include <QtCore/QThreadPool>
#include <QtTest/QtTest>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

using namespace Orvanta::Ifaces;

namespace {

struct Device
{
    std::shared_ptr<Fakes::FakeEndpoint> endpoint;
    std::shared_ptr<Fakes::StreamScript> script;
    std::shared_ptr<Fakes::FakeMeter> meter;
};

Device addDevice(Fakes::FakeEndpointWatcher& watcher, const std::string& id, DataFlow flow = DataFlow::Render)
{
    Device device {
        watcher.add(id, flow), std::make_shared<Fakes::StreamScript>(), std::make_shared<Fakes::FakeMeter>()};
    device.script->mixFormat = Fakes::pcm16Stereo();
    Fakes::attachStream(*device.endpoint, device.script, device.meter);
    return device;
}

void drainPool()
{
    QThreadPool::globalInstance()->waitForDone();
}

QString quoted(const QString& text)
{
    return QStringLiteral("\"%1\"").arg(text);
}

// Lives on the test's thread and takes the registry's signals by blocking queued connections.
class BlockingReceiver : public QObject
{
    Q_OBJECT
public:
    QStringList ids;

public slots:
    void onReady(const QString& id)
    {
        ids << id;
    }
};

// Aborts the test program when the scope it guards runs longer than @p seconds:
// a deadlock then fails the test instead of hanging it.
class DeadlockGuard
{
public:
    explicit DeadlockGuard(int seconds)
        : watchdog([this, seconds] {
            std::unique_lock<std::mutex> locker(lock);
            if (!finished.wait_for(locker, std::chrono::seconds(seconds), [this] { return done; })) {
                std::fputs("deadlock: the guarded scope did not return\n", stderr);
                std::abort();
            }
        })
    {
    }
    ~DeadlockGuard()
    {
        {
            std::lock_guard<std::mutex> locker(lock);
            done = true;
        }
        finished.notify_all();
        watchdog.join();
    }

private:
    std::mutex lock;
    std::condition_variable finished;
    bool done = false;
    std::thread watchdog;
};

} // namespace

class TestAudioCapManager : public QObject
{
    Q_OBJECT

    QTemporaryDir configDir;

private slots:
    void initTestCase()
    {
        QStandardPaths::setTestModeEnabled(true);
        QVERIFY(configDir.isValid());
        ConfigurationManager::setConfigPath(configDir.path());
    }

    void constructionStartsOneCapturerPerActiveOutput()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        Device speakers = addDevice(*watcher, "speakers");
        Device headphones = addDevice(*watcher, "headphones");
        addDevice(*watcher, "microphone", DataFlow::Capture);
        watcher->defaultRender = "headphones";

        MessageCapture capture;
        AudioCapManager manager(watcher);
        QStringList ids = manager.allCapturers();
        ids.sort();
        QCOMPARE(ids, QStringList({"headphones", "speakers"}));
        QCOMPARE(manager.defaultCapturer(), QStringLiteral("headphones"));
        QVERIFY(capture.contains(QtInfoMsg, "The audio capture has readied:  " + quoted("speakers")));
        QVERIFY(capture.contains(QtInfoMsg, "The audio capture has readied:  " + quoted("headphones")));
        QSharedPointer<AudioCapturer> capturer = manager.acquireCapturer("speakers");
        QVERIFY(capturer);
        QVERIFY(capturer->isRunning());
        QCOMPARE(capturer->thread(), QThread::currentThread());
        QCOMPARE(speakers.script->starts, 1);
        QCOMPARE(QMetaType::type("QSharedPointer<AudioCapturer>") != QMetaType::UnknownType, true);
        const QVariant asVariant = QVariant::fromValue(capturer);
        QCOMPARE(asVariant.value<QObject*>(), static_cast<QObject*>(capturer.data()));
    }

    void onlyTheTwoSignalsAreMethods()
    {
        const QMetaObject& meta = AudioCapManager::staticMetaObject;
        QStringList own;
        for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
            own << QString::fromLatin1(meta.method(i).methodSignature());
        }
        QCOMPARE(own, QStringList({"capturerReady(QString)", "capturerLost(QString)"}));
    }

    void acquireUnknownGivesNull()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        addDevice(*watcher, "speakers");
        MessageCapture capture;
        AudioCapManager manager(watcher);
        capture.clear();
        QVERIFY(manager.acquireCapturer("nothing").isNull());
        QVERIFY(capture.messages().isEmpty());
    }

    void releaseChangesNothing()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        addDevice(*watcher, "speakers");
        AudioCapManager manager(watcher);
        QSharedPointer<AudioCapturer> first = manager.acquireCapturer("speakers");
        manager.releaseCapturer("speakers");
        manager.releaseCapturer("speakers");
        manager.releaseCapturer("unknown");
        manager.releaseCapturer(QString());
        QCOMPARE(manager.allCapturers(), QList<QString>({"speakers"}));
        QSharedPointer<AudioCapturer> second = manager.acquireCapturer("speakers");
        QCOMPARE(second.data(), first.data());
        QVERIFY(second->isRunning());
    }

    void noActiveOutputGivesNoDefaultAndNoCapturers()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        addDevice(*watcher, "microphone", DataFlow::Capture);
        watcher->defaultCapture = "microphone";
        AudioCapManager manager(watcher);
        QVERIFY(manager.defaultCapturer().isNull());
        QVERIFY(manager.allCapturers().isEmpty());
    }

    void capturersWithoutDefaultGiveSomeKey()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        addDevice(*watcher, "speakers");
        addDevice(*watcher, "hdmi");
        AudioCapManager manager(watcher);
        QVERIFY(manager.defaultRenderDeviceId().isNull());
        const QString id = manager.defaultCapturer();
        QVERIFY(manager.allCapturers().contains(id));
        QCOMPARE(id, manager.allCapturers().first());
    }

    void defaultWhoseLoadFailedIsStillGiven()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        addDevice(*watcher, "speakers");
        Device broken = addDevice(*watcher, "broken");
        broken.script->startResult = E_FAIL;
        watcher->defaultRender = "broken";
        AudioCapManager manager(watcher);
        QCOMPARE(manager.defaultCapturer(), QStringLiteral("broken"));
        QVERIFY(manager.acquireCapturer("broken").isNull());
    }

    void failedLoadGetsSecondAttemptThenLostWithoutReady()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        Device broken = addDevice(*watcher, "broken");
        broken.script->startResult = E_FAIL;
        MessageCapture capture;
        AudioCapManager manager(watcher);
        QCOMPARE(broken.script->starts, 2);
        QCOMPARE(capture.count(QtCriticalMsg, "Failed to load audio capture:  " + quoted("broken")), 2);
        QVERIFY(manager.allCapturers().isEmpty());
        QCOMPARE(manager.capturerDesc("broken"), QStringLiteral("Fake broken"));

        CrossThreadSpy ready(&manager, &AudioCapManager::capturerReady);
        CrossThreadSpy lost(&manager, &AudioCapManager::capturerLost);
        watcher->notifyState("broken", DeviceStateNotPresent);
        drainPool();
        QCOMPARE(ready.count(), 0);
        QCOMPARE(lost.count(), 1);
        QCOMPARE(lost.first().first().toString(), QStringLiteral("broken"));
        QVERIFY(capture.contains(QtInfoMsg, "The audio capture has lost:  " + quoted("broken")));
    }

    void secondAttemptCanSucceed()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        Device flaky = addDevice(*watcher, "flaky");
        // The first stream can't be activated, the second can.
        auto script = flaky.script;
        int activations = 0;
        flaky.endpoint->activations.stream = [script, &activations](std::unique_ptr<EndpointStream>& stream) {
            if (++activations == 1) {
                return AUDCLNT_E_DEVICE_IN_USE;
            }
            stream = std::make_unique<Fakes::FakeStream>(script);
            return S_OK;
        };
        AudioCapManager manager(watcher);
        QCOMPARE(activations, 2);
        QCOMPARE(manager.allCapturers(), QList<QString>({"flaky"}));
    }

    void secondAttemptNeverReadiesAnEndpointThatIsBeingDropped()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        Device first = addDevice(*watcher, "a-first");
        Device dropped = addDevice(*watcher, "b-dropped");
        // Both fail in the walk. While the second attempt loads the first one,
        // the other endpoint goes away, and its task gets time to run.
        auto firstScript = first.script;
        int firstActivations = 0;
        first.endpoint->activations.stream = [&](std::unique_ptr<EndpointStream>& stream) {
            if (++firstActivations == 1) {
                return AUDCLNT_E_DEVICE_IN_USE;
            }
            watcher->remove("b-dropped");
            watcher->notifyState("b-dropped", DeviceStateNotPresent);
            QThread::msleep(300);
            stream = std::make_unique<Fakes::FakeStream>(firstScript);
            return S_OK;
        };
        auto droppedScript = dropped.script;
        int droppedActivations = 0;
        dropped.endpoint->activations.stream = [&](std::unique_ptr<EndpointStream>& stream) {
            if (++droppedActivations == 1) {
                return AUDCLNT_E_DEVICE_IN_USE;
            }
            stream = std::make_unique<Fakes::FakeStream>(droppedScript);
            return S_OK;
        };

        MessageCapture capture;
        AudioCapManager manager(watcher);
        drainPool();
        QCOMPARE(manager.allCapturers(), QList<QString>({"a-first"}));
        // Whether or not it got its capturer before it went, "ready" never follows "lost".
        const QStringList infos = capture.texts(QtInfoMsg);
        const int lostAt = infos.indexOf("The audio capture has lost:  " + quoted("b-dropped"));
        QVERIFY(lostAt >= 0);
        QCOMPARE(infos.lastIndexOf("The audio capture has readied:  " + quoted("b-dropped")) > lostAt, false);
    }

    void blockingQueuedReceiverDoesNotDeadlockTheDestructor()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        BlockingReceiver receiver;
        {
            DeadlockGuard guard(20);
            AudioCapManager manager(watcher);
            connect(&manager, &AudioCapManager::capturerReady, &receiver, &BlockingReceiver::onReady,
                Qt::BlockingQueuedConnection);
            Device usb = addDevice(*watcher, "usb");
            // The task emits while this thread is already in the destructor.
            watcher->notifyState("usb", DeviceStateActive);
        }
        QCOMPARE(receiver.ids, QStringList {"usb"});
    }

    void loadFailureOfTheWalkIsLogged()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        watcher->enumResult = E_OUTOFMEMORY;
        MessageCapture capture;
        AudioCapManager manager(watcher);
        QVERIFY(capture.contains(
            QtCriticalMsg, "Failed to load current audio devices " + quoted(win32ErrorMsg(E_OUTOFMEMORY))));
        QVERIFY(manager.allCapturers().isEmpty());
    }

    void notificationsReadyAndLoseCapturers()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        AudioCapManager manager(watcher);
        CrossThreadSpy ready(&manager, &AudioCapManager::capturerReady);
        CrossThreadSpy lost(&manager, &AudioCapManager::capturerLost);

        Device usb = addDevice(*watcher, "usb");
        watcher->notifyState("usb", DeviceStateActive);
        drainPool();
        QCOMPARE(ready.count(), 1);
        QCOMPARE(ready.first().first().toString(), QStringLiteral("usb"));
        QSharedPointer<AudioCapturer> capturer = manager.acquireCapturer("usb");
        QVERIFY(capturer);
        QVERIFY(capturer->isRunning());
        // Made on a pool thread, handed to the registry's thread for its deletion.
        QCOMPARE(capturer->thread(), manager.thread());

        // "Active" again for a held endpoint removes it.
        watcher->notifyState("usb", DeviceStateActive);
        drainPool();
        QCOMPARE(lost.count(), 1);
        QCOMPARE(lost.first().first().toString(), QStringLiteral("usb"));
        QVERIFY(manager.acquireCapturer("usb").isNull());

        // The application's copy keeps the old capturer; dropping it ends its thread.
        QPointer<AudioCapturer> watched(capturer.data());
        capturer.reset();
        QTRY_VERIFY_WITH_TIMEOUT(watched.isNull(), 10000);
        QCOMPARE(usb.script->stops, 1);

        // And the next notification brings a new one.
        watcher->notifyState("usb", DeviceStateActive);
        drainPool();
        QCOMPARE(ready.count(), 2);
        QVERIFY(manager.acquireCapturer("usb"));
    }

    void droppingTheLastPointerAfterLostEndsTheThread()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        Device speakers = addDevice(*watcher, "speakers");
        AudioCapManager manager(watcher);
        QSharedPointer<AudioCapturer> capturer = manager.acquireCapturer("speakers");
        QVERIFY(capturer->isRunning());
        CrossThreadSpy lost(&manager, &AudioCapManager::capturerLost);
        watcher->notifyState("speakers", DeviceStateUnplugged);
        drainPool();
        QCOMPARE(lost.count(), 1);
        // Still ours, still running.
        QVERIFY(capturer->isRunning());
        QPointer<AudioCapturer> watched(capturer.data());
        QSignalSpy finished(capturer.data(), &QThread::finished);
        capturer.reset();
        QVERIFY(!watched.isNull()); // the deletion is posted, not done
        QTRY_VERIFY_WITH_TIMEOUT(watched.isNull(), 10000);
        QCOMPARE(finished.count(), 1);
    }

    void failedCaptureStaysRegisteredWithoutSignal()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        Device speakers = addDevice(*watcher, "speakers");
        AudioCapManager manager(watcher);
        CrossThreadSpy ready(&manager, &AudioCapManager::capturerReady);
        CrossThreadSpy lost(&manager, &AudioCapManager::capturerLost);
        QSharedPointer<AudioCapturer> capturer = manager.acquireCapturer("speakers");
        MessageCapture capture;
        {
            std::lock_guard<std::mutex> locker(speakers.script->lock);
            speakers.script->getBufferResult = AUDCLNT_E_DEVICE_INVALIDATED;
        }
        QTRY_VERIFY_WITH_TIMEOUT(capturer->isFinished(), 10000);
        drainPool();
        QCOMPARE(manager.allCapturers(), QList<QString>({"speakers"}));
        QCOMPARE(manager.acquireCapturer("speakers").data(), capturer.data());
        QCOMPARE(ready.count(), 0);
        QCOMPARE(lost.count(), 0);
    }

    void capturerDescription()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        Device speakers = addDevice(*watcher, "speakers");
        speakers.endpoint->name = "Built-in Audio Analogue Stereo";
        Device named = addDevice(*watcher, "unnamed");
        named.endpoint->nameResult = E_FAIL;
        AudioCapManager manager(watcher);
        QCOMPARE(manager.capturerDesc("speakers"), QStringLiteral("Built-in Audio Analogue Stereo"));
        QVERIFY(manager.capturerDesc("unnamed").isNull());
        QVERIFY(manager.capturerDesc("unknown").isNull());
    }

    void destructionEndsEveryCaptureThread()
    {
        auto watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
        addDevice(*watcher, "a");
        addDevice(*watcher, "b");
        QSharedPointer<AudioCapturer> kept;
        {
            AudioCapManager manager(watcher);
            kept = manager.acquireCapturer("a");
            QVERIFY(kept->isRunning());
        }
        QVERIFY(kept->isFinished());
        QVERIFY(!watcher->isRegistered());
    }
};

QTEST_GUILESS_MAIN(TestAudioCapManager)
#include "tst_audiocapmanager.moc"
