// Proves that ThreadSanitizer, as the test suites run it, still reports races
// in the library's threads: each case runs a program with one planted data
// race under one of the suites' suppression files and passes only when the
// race is reported with stacks through the library and Qt's thread start.

#include <QtCore/QFileInfo>
#include <QtCore/QProcess>
#include <QtCore/QProcessEnvironment>
#include <QtTest/QtTest>

class TestRaceCanary : public QObject
{
    Q_OBJECT

private slots:
    void plantedRaceIsReported_data()
    {
        QTest::addColumn<QString>("mode");
        QTest::addColumn<QString>("suppressions");
        QTest::addColumn<QStringList>("frames");

        struct Canary
        {
            const char* mode;
            QStringList frames;
        };
        const Canary canaries[] = {
            // Two AudioCapturer threads, started by QThread::start.
            {"qthread", {"plantedRaceOnCaptureThreads", "AudioCapturerPrivate::run", "QThread::start"}},
            // A state task of the enumerator on a thread of the global
            // QThreadPool, which Qt names "Thread (pooled)".
            {"pool",
                {"plantedRaceOnPoolTask", "AudioDeviceEnumerator::stateTask", "'Thread (pooled)'", "QThread::start"}},
            // A std::thread in the registry while a capture thread polls.
            {"stdthread",
                {"plantedRaceBesideCaptureThread", "AudioCapManager::capturerDesc", "AudioCapturerPrivate::run",
                    "QThread::start"}},
        };
        const QStringList files = QString::fromUtf8(ORVANTA_TSAN_SUPPRESSIONS).split('|', Qt::SkipEmptyParts);
        QVERIFY(!files.isEmpty());
        for (const Canary& canary : canaries) {
            for (const QString& file : files) {
                const QString suite = QFileInfo(file).dir().dirName();
                QTest::addRow("%s-%s", canary.mode, qPrintable(suite)) << canary.mode << file << canary.frames;
            }
        }
    }

    void plantedRaceIsReported()
    {
        QFETCH(QString, mode);
        QFETCH(QString, suppressions);
        QFETCH(QStringList, frames);
        QVERIFY(QFileInfo::exists(suppressions));

        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        // The suites' own options, with every report kept: ThreadSanitizer
        // exits with 66 when it reported anything that no suppression took.
        environment.insert(QStringLiteral("TSAN_OPTIONS"),
            QStringLiteral("ignore_noninstrumented_modules=1 halt_on_error=0 exitcode=66 suppressions=")
                + suppressions);
        QProcess program;
        program.setProcessEnvironment(environment);
        program.setProcessChannelMode(QProcess::SeparateChannels);
        program.start(QStringLiteral(ORVANTA_RACE_CANARY), {mode});
        QVERIFY2(program.waitForFinished(120000), "the racing program did not end");
        const QString report = QString::fromLocal8Bit(program.readAllStandardError());

        QVERIFY2(program.exitStatus() == QProcess::NormalExit, qPrintable(report));
        QVERIFY2(report.contains(QLatin1String("WARNING: ThreadSanitizer: data race")), qPrintable(report));
        QVERIFY2(!report.contains(QLatin1String("racecanary:")), qPrintable(report));
        for (const QString& frame : frames) {
            QVERIFY2(report.contains(frame), qPrintable(frame + QLatin1String(" missing from:\n") + report));
        }
        QCOMPARE(program.exitCode(), 66);
    }
};

QTEST_GUILESS_MAIN(TestRaceCanary)
#include "tst_racecanary.moc"
