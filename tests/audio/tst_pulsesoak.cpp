#include "AudioCapManager.h"
#include "AudioCapturer.h"
#include "ConfigurationManager.h"
#include "PulseTestSupport.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QPointer>
#include <QtCore/QTemporaryDir>
#include <QtCore/QThreadPool>
#include <QtTest/QtTest>

namespace {

// Resident memory of this process in kB, from /proc/self/status.
long residentKilobytes()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly)) {
        return -1;
    }
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:")) {
            return line.mid(6).trimmed().split(' ').first().toLong();
        }
    }
    return -1;
}

int threadCount()
{
    return QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size();
}

} // namespace

// A sink loaded and unloaded many times while the registry captures it and
// the fixture's sinks: nothing may pile up. Memory is checked by the
// sanitizer builds' leak checker.
class TestPulseSoak : public QObject
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
        // Idle pool threads go at once, so that the thread count can settle.
        QThreadPool::globalInstance()->setExpiryTimeout(10);
    }

    void twoHundredSinkCyclesLeakNothing()
    {
        constexpr int kCycles = 200;
        AudioCapManager manager;
        QCOMPARE(manager.allCapturers().size(), 2);
        QThreadPool::globalInstance()->waitForDone();
        const int baseline = threadCount();
        const long residentBefore = residentKilobytes();

        PulseTest::SpectrumCollector events;
        QList<QPointer<AudioCapturer>> transient;
        connect(&manager, &AudioCapManager::capturerReady, &events, [&](const QString& id) {
            events.onId("ready " + id);
            if (id == QLatin1String("sinkSoak")) {
                transient << QPointer<AudioCapturer>(manager.acquireCapturer(id).data());
            }
        });
        connect(&manager, &AudioCapManager::capturerLost, &events,
            [&events](const QString& id) { events.onId("lost " + id); });

        for (int cycle = 0; cycle < kCycles; ++cycle) {
            const QString module = PulseTest::pactl({"load-module", "module-null-sink", "sink_name=sinkSoak"});
            QVERIFY(!module.isEmpty());
            QTRY_COMPARE_WITH_TIMEOUT(events.ids().size(), 2 * cycle + 1, 15000);
            QVERIFY(!PulseTest::pactl({"unload-module", module}).isNull());
            QTRY_COMPARE_WITH_TIMEOUT(events.ids().size(), 2 * cycle + 2, 15000);
        }
        const QStringList ids = events.ids();
        QCOMPARE(ids.count("ready sinkSoak"), kCycles);
        QCOMPARE(ids.count("lost sinkSoak"), kCycles);
        QCOMPARE(transient.size(), kCycles);

        // Every transient capturer is deleted; the fixture's two still run.
        QTRY_VERIFY_WITH_TIMEOUT(std::all_of(transient.cbegin(), transient.cend(),
                                     [](const QPointer<AudioCapturer>& p) { return p.isNull(); }),
            15000);
        QStringList running = manager.allCapturers();
        running.sort();
        QCOMPARE(running, QStringList({"sinkA", "sinkB"}));
        QVERIFY(manager.acquireCapturer("sinkA")->isRunning());
        QThreadPool::globalInstance()->waitForDone();
        QTRY_VERIFY_WITH_TIMEOUT(threadCount() <= baseline, 15000);
        // Reported, not asserted: the allocator keeps what it had grown to.
        qInfo() << "resident kB before and after the cycles:" << residentBefore << residentKilobytes();
    }
};

QTEST_GUILESS_MAIN(TestPulseSoak)
#include "tst_pulsesoak.moc"
