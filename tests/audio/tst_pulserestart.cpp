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

namespace {

// Records the events of the fixture's sinks. While a PipeWire server starts,
// before the fixture has loaded its null sinks, pipewire-pulse offers a
// stand-in sink, "auto_null", that comes and goes again: the registry
// captures it like any sink, and the tests leave it out of their counts.
// PulseAudio started with the fixture's script has no such sink.
QStringList sortedCapturers(AudioCapManager& manager)
{
    QStringList ids = manager.allCapturers();
    ids.sort();
    return ids;
}

void recordSinkEvent(PulseTest::SpectrumCollector& events, const char* kind, const QString& id)
{
    if (id != QLatin1String("auto_null")) {
        events.onId(QLatin1String(kind) + id);
    }
}

// Records the registry's events of the fixture's sinks into @p events.
void recordSinkEvents(AudioCapManager& manager, PulseTest::SpectrumCollector& events)
{
    QObject::connect(&manager, &AudioCapManager::capturerReady, &events,
        [&events](const QString& id) { recordSinkEvent(events, "ready ", id); });
    QObject::connect(&manager, &AudioCapManager::capturerLost, &events,
        [&events](const QString& id) { recordSinkEvent(events, "lost ", id); });
}

} // namespace

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
        recordSinkEvents(manager, events);

        QStringList ids = manager.allCapturers();
        ids.sort();
        QCOMPARE(ids, QStringList({"sinkA", "sinkB"}));
        QPointer<AudioCapturer> oldA(manager.acquireCapturer("sinkA").data());
        QPointer<AudioCapturer> oldB(manager.acquireCapturer("sinkB").data());

        QVERIFY(PulseTest::stopServer());
        QTRY_VERIFY_WITH_TIMEOUT(events.ids().contains("lost sinkA") && events.ids().contains("lost sinkB"), 15000);
        QVERIFY(manager.allCapturers().isEmpty());
        QVERIFY(manager.defaultCapturer().isNull());
        // Without a server nothing waits for one.
        QVERIFY(manager.capturerDesc("sinkA").isNull());
        QVERIFY(manager.acquireCapturer("sinkA").isNull());
        // The registry let them go and their threads ended.
        QTRY_VERIFY_WITH_TIMEOUT(oldA.isNull() && oldB.isNull(), 15000);

        events.clear();
        QVERIFY(PulseTest::startServer());
        QTRY_VERIFY_WITH_TIMEOUT(events.ids().contains("ready sinkA") && events.ids().contains("ready sinkB"), 15000);
        QTRY_COMPARE_WITH_TIMEOUT(sortedCapturers(manager), QStringList({"sinkA", "sinkB"}), 15000);
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

    // A session that starts before its sound server (a login race, a server
    // being restarted): the registry waits for the server as it does for one
    // that went away, and readies a capturer for every output once it is there.
    void registryMadeBeforeTheServerReadiesEveryOutputOnceItAppears()
    {
        QVERIFY(PulseTest::stopServer());
        MessageCapture capture;
        AudioCapManager manager;
        PulseTest::SpectrumCollector events;
        recordSinkEvents(manager, events);
        QVERIFY(manager.allCapturers().isEmpty());
        QVERIFY(manager.defaultCapturer().isNull());

        QVERIFY(PulseTest::startServer());
        QTRY_VERIFY_WITH_TIMEOUT(events.ids().contains("ready sinkA") && events.ids().contains("ready sinkB"), 15000);
        QTRY_COMPARE_WITH_TIMEOUT(sortedCapturers(manager), QStringList({"sinkA", "sinkB"}), 15000);
        QVERIFY(!events.ids().contains("lost sinkA"));
        QTRY_COMPARE_WITH_TIMEOUT(manager.defaultCapturer(), QStringLiteral("sinkA"), 15000);
        QCOMPARE(manager.capturerDesc("sinkB"), QStringLiteral("SinkB"));
        // While the server was away only the defaults were missing.
        QCOMPARE(
            capture.count(QtWarningMsg,
                QStringLiteral("Not found default MMDevice \"%1\"").arg(win32ErrorMsg(AUDCLNT_E_SERVICE_NOT_RUNNING))),
            2);
        QVERIFY(capture.texts(QtCriticalMsg).isEmpty());
    }

    void repeatedLossesLeaveNothingBehind()
    {
        AudioCapManager manager;
        PulseTest::SpectrumCollector events;
        recordSinkEvents(manager, events);
        for (int round = 0; round < 3; ++round) {
            events.clear();
            QVERIFY(PulseTest::stopServer());
            QTRY_COMPARE_WITH_TIMEOUT(events.ids().size(), 2, 15000);
            QVERIFY(PulseTest::startServer());
            QTRY_COMPARE_WITH_TIMEOUT(events.ids().size(), 4, 15000);
            QTRY_COMPARE_WITH_TIMEOUT(sortedCapturers(manager), QStringList({"sinkA", "sinkB"}), 15000);
        }
    }
};

QTEST_GUILESS_MAIN(TestPulseRestart)
#include "tst_pulserestart.moc"
