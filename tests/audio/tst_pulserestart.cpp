#include "AudioCapManager.h"
#include "AudioCapturer.h"
#include "ConfigurationManager.h"
#include "Helpers.h"
#include "MessageCapture.h"
#include "PulseTestSupport.h"
#include "ResultCodes.h"

#include <QtCore/QPointer>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

// The sound server going away and coming back, under a registry that runs
// throughout. This program has a daemon of its own, since it kills it.
class TestPulseRestart : public QObject
{
    Q_OBJECT

    QTemporaryDir configDir;

private slots:
    void initTestCase()
    {
        QStandardPaths::setTestModeEnabled(true);
        QVERIFY(configDir.isValid());
        ConfigurationManager::setConfigPath(configDir.path());
        QVERIFY2(!PulseTest::pactl({"info"}).isNull(), "the fixture's sound server is not running");
    }

    void serverLossReportsEveryCapturerLostAndItsReturnReadiesThemAgain()
    {
        AudioCapManager manager;
        PulseTest::SpectrumCollector events;
        connect(&manager, &AudioCapManager::capturerReady, &events,
            [&events](const QString& id) { events.onId("ready " + id); });
        connect(&manager, &AudioCapManager::capturerLost, &events,
            [&events](const QString& id) { events.onId("lost " + id); });

        QStringList ids = manager.allCapturers();
        ids.sort();
        QCOMPARE(ids, QStringList({"sinkA", "sinkB"}));
        QPointer<AudioCapturer> oldA(manager.acquireCapturer("sinkA").data());
        QPointer<AudioCapturer> oldB(manager.acquireCapturer("sinkB").data());

        QVERIFY(PulseTest::fixtureScript("pulse-stop.sh"));
        QTRY_VERIFY_WITH_TIMEOUT(events.ids().contains("lost sinkA") && events.ids().contains("lost sinkB"), 15000);
        QVERIFY(manager.allCapturers().isEmpty());
        QVERIFY(manager.defaultCapturer().isNull());
        // Without a server nothing waits for one.
        QVERIFY(manager.capturerDesc("sinkA").isNull());
        QVERIFY(manager.acquireCapturer("sinkA").isNull());
        // The registry let them go and their threads ended.
        QTRY_VERIFY_WITH_TIMEOUT(oldA.isNull() && oldB.isNull(), 15000);

        events.clear();
        QVERIFY(PulseTest::fixtureScript("pulse-start.sh"));
        QTRY_VERIFY_WITH_TIMEOUT(events.ids().contains("ready sinkA") && events.ids().contains("ready sinkB"), 15000);
        ids = manager.allCapturers();
        ids.sort();
        QCOMPARE(ids, QStringList({"sinkA", "sinkB"}));
        QTRY_COMPARE_WITH_TIMEOUT(manager.defaultCapturer(), QStringLiteral("sinkA"), 15000);
        QCOMPARE(manager.capturerDesc("sinkA"), QStringLiteral("SinkA"));

        // The new capturer hears the new server.
        QSharedPointer<AudioCapturer> capturer = manager.acquireCapturer("sinkA");
        QVERIFY(capturer);
        PulseTest::SpectrumCollector collector;
        connect(
            capturer.data(), &AudioCapturer::spectrumsChanged, &collector, &PulseTest::SpectrumCollector::onSpectrums);
        PulseTest::SinePlayer player("sinkA", 64 * 48000.0 / 2048.0, 48000, 0.5);
        QVERIFY(player.started());
        QTRY_VERIFY_WITH_TIMEOUT(
            !collector.spectra().isEmpty() && PulseTest::strongestBand(collector.spectra().last()[0]) == 64, 15000);
    }

    void registryWithoutServerHoldsNothingAndReturns()
    {
        QVERIFY(PulseTest::fixtureScript("pulse-stop.sh"));
        {
            MessageCapture capture;
            AudioCapManager manager;
            QVERIFY(manager.allCapturers().isEmpty());
            QVERIFY(manager.defaultCapturer().isNull());
            QVERIFY(capture.contains(QtCriticalMsg,
                QStringLiteral("Failed to create MMDeviceEnumerator instance  \"%1\"")
                    .arg(win32ErrorMsg(AUDCLNT_E_SERVICE_NOT_RUNNING))));
            QVERIFY(capture.contains(QtCriticalMsg,
                QStringLiteral("Failed to load current audio devices \"%1\"")
                    .arg(win32ErrorMsg(AUDCLNT_E_SERVICE_NOT_RUNNING))));
        }
        QVERIFY(PulseTest::fixtureScript("pulse-start.sh"));
        QVERIFY(!PulseTest::pactl({"info"}).isNull());
    }

    void repeatedLossesLeaveNothingBehind()
    {
        AudioCapManager manager;
        PulseTest::SpectrumCollector events;
        connect(&manager, &AudioCapManager::capturerReady, &events,
            [&events](const QString& id) { events.onId("ready " + id); });
        connect(&manager, &AudioCapManager::capturerLost, &events,
            [&events](const QString& id) { events.onId("lost " + id); });
        for (int round = 0; round < 3; ++round) {
            events.clear();
            QVERIFY(PulseTest::fixtureScript("pulse-stop.sh"));
            QTRY_COMPARE_WITH_TIMEOUT(events.ids().size(), 2, 15000);
            QVERIFY(PulseTest::fixtureScript("pulse-start.sh"));
            QTRY_COMPARE_WITH_TIMEOUT(events.ids().size(), 4, 15000);
            QCOMPARE(manager.allCapturers().size(), 2);
        }
    }
};

QTEST_GUILESS_MAIN(TestPulseRestart)
#include "tst_pulserestart.moc"
