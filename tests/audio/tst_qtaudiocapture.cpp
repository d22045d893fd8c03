#include "AudioReader.h"
#include "CrossThreadSpy.h"
#include "MessageCapture.h"
#include "PulseTestSupport.h"
#include "QtAudioCapture.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtMultimedia/QAudioDeviceInfo>
#include <QtMultimedia/QAudioInput>
#include <QtTest/QtTest>

extern "C" {
#include <libavutil/samplefmt.h>
}

namespace {

QAudioFormat formatOf(QAudioFormat::SampleType type, int bits)
{
    QAudioFormat format;
    format.setSampleType(type);
    format.setSampleSize(bits);
    format.setSampleRate(48000);
    format.setChannelCount(2);
    format.setCodec(QStringLiteral("audio/pcm"));
    return format;
}

QAudioDeviceInfo inputDevice(const QString& name)
{
    const auto devices = QAudioDeviceInfo::availableDevices(QAudio::AudioInput);
    for (const QAudioDeviceInfo& device : devices) {
        if (device.deviceName() == name) {
            return device;
        }
    }
    return QAudioDeviceInfo();
}

/// Indexes of this process's connections to the sound server.
QStringList clientsOfThisProcess()
{
    const QString listing
        = PulseTest::pactl({QStringLiteral("--format=json"), QStringLiteral("list"), QStringLiteral("clients")});
    const QString ownPid = QString::number(QCoreApplication::applicationPid());
    QStringList indexes;
    const QJsonArray clients = QJsonDocument::fromJson(listing.toUtf8()).array();
    for (const QJsonValue& client : clients) {
        const QJsonObject object = client.toObject();
        if (object.value(QStringLiteral("properties"))
                .toObject()
                .value(QStringLiteral("application.process.id"))
                .toString()
            == ownPid) {
            indexes.append(QString::number(object.value(QStringLiteral("index")).toInt()));
        }
    }
    return indexes;
}

/// Whether a thread of libpulse's threaded main loop runs in this process.
bool pulseMainLoopThreadRuns()
{
    const QDir tasks(QStringLiteral("/proc/self/task"));
    const QStringList threads = tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& thread : threads) {
        QFile name(tasks.filePath(thread + QStringLiteral("/comm")));
        if (name.open(QIODevice::ReadOnly) && name.readAll().trimmed() == "threaded-ml") {
            return true;
        }
    }
    return false;
}

// A sink that cannot be opened.
class UnopenableReader : public AudioReader
{
public:
    using AudioReader::AudioReader;
    bool open(OpenMode mode) override
    {
        Q_UNUSED(mode)
        return false;
    }
};

// A sink that counts the instances alive.
class CountedReader : public AudioReader
{
public:
    static QAtomicInt alive;
    CountedReader(QtAudioCapture* owner, QObject* parent)
        : AudioReader(owner, parent)
    {
        alive.ref();
    }
    ~CountedReader() override
    {
        alive.deref();
    }
};
QAtomicInt CountedReader::alive;

} // namespace

class TestQtAudioCapture : public QObject
{
    Q_OBJECT

private slots:
    // Qt Multimedia's PulseAudio back-end (Qt 5.15) keeps one connection for
    // the whole process. Its destructor, run among the exit handlers,
    // disconnects that connection without holding its main loop's lock while
    // the loop's thread still runs; the disconnection wakes that thread, and
    // about one exit in a hundred aborts inside libpulse ("Invalid write to
    // eventfd" in pa_fdsem_post, or "!m->rebuild_pollfds" in
    // pa_mainloop_poll). Dropped by the server first, the back-end takes the
    // failure on its loop's thread, then releases the connection on this
    // thread with the loop stopped, and leaves nothing for the exit.
    void cleanupTestCase()
    {
        const QStringList clients = clientsOfThisProcess();
        // A back-end that holds a connection runs its loop's thread.
        QVERIFY(clients.isEmpty() || pulseMainLoopThreadRuns());
        if (PulseTest::onPipeWire()) {
            // pipewire-pulse cannot end a single client (it has no protocol
            // for pacmd, and pactl cannot): the server goes instead. This
            // program has the server of its own fixture.
            QVERIFY(PulseTest::stopServer());
        } else {
            for (const QString& client : clients) {
                QCOMPARE(QProcess::execute(QStringLiteral("pacmd"), {QStringLiteral("kill-client"), client}), 0);
            }
        }
        QTRY_VERIFY_WITH_TIMEOUT(!pulseMainLoopThreadRuns(), 10000);
    }

    void sampleFormatMapping_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<int>("bits");
        QTest::addColumn<int>("expected");
        QTest::newRow("signed 16") << int(QAudioFormat::SignedInt) << 16 << int(AV_SAMPLE_FMT_S16);
        QTest::newRow("signed 32") << int(QAudioFormat::SignedInt) << 32 << int(AV_SAMPLE_FMT_S32);
        QTest::newRow("unsigned 8") << int(QAudioFormat::UnSignedInt) << 8 << int(AV_SAMPLE_FMT_U8);
        QTest::newRow("float 32") << int(QAudioFormat::Float) << 32 << int(AV_SAMPLE_FMT_FLT);
        QTest::newRow("float 64") << int(QAudioFormat::Float) << 64 << int(AV_SAMPLE_FMT_DBL);
        QTest::newRow("signed 8") << int(QAudioFormat::SignedInt) << 8 << -1;
        QTest::newRow("signed 24") << int(QAudioFormat::SignedInt) << 24 << -1;
        QTest::newRow("unsigned 16") << int(QAudioFormat::UnSignedInt) << 16 << -1;
        QTest::newRow("unknown") << int(QAudioFormat::Unknown) << 16 << -1;
    }

    void sampleFormatMapping()
    {
        QFETCH(int, type);
        QFETCH(int, bits);
        QFETCH(int, expected);
        QCOMPARE(QtAudioCapture::sampleFormatOf(formatOf(static_cast<QAudioFormat::SampleType>(type), bits)), expected);
    }

    void unwatchedDataIsTakenUnanalysed()
    {
        QtAudioCapture owner;
        AudioReader reader(&owner, nullptr);
        reader.spectrumAnalyzer().setInputFormat(AV_SAMPLE_FMT_S16, 48000, 3);
        QVERIFY(reader.open(QIODevice::WriteOnly));
        CrossThreadSpy spectra(&reader, &AudioReader::spectrumChanged);
        const QByteArray chunk = PulseTest::sine16(1000.0, 48000, 0.25, 0.5); // 12000 frames
        QCOMPARE(reader.write(chunk), qint64(chunk.size()));
        QCOMPARE(reader.spectrumAnalyzer().cacheFillLevel(), 0);
        QCOMPARE(spectra.count(), 0);
        QCOMPARE(reader.write(nullptr, 0), qint64(0));

        // Once someone listens, the bytes are analysed.
        QObject listener;
        connect(&owner, &IAudioCapture::spectrumsChanged, &listener, [](QVector<SoundChannel>) {});
        QCOMPARE(reader.write(chunk.left(1000)), qint64(1000));
        QCOMPARE(reader.spectrumAnalyzer().cacheFillLevel(), 1000);
    }

    void chunkOfThreeBlocksGivesThreeSignals()
    {
        QtAudioCapture owner;
        QObject listener;
        connect(&owner, &IAudioCapture::spectrumsChanged, &listener, [](QVector<SoundChannel>) {});
        AudioReader reader(&owner, nullptr);
        reader.spectrumAnalyzer().setInputFormat(AV_SAMPLE_FMT_S16, 48000, 3);
        QVERIFY(reader.open(QIODevice::WriteOnly));
        CrossThreadSpy spectra(&reader, &AudioReader::spectrumChanged);
        const QByteArray chunk = PulseTest::sine16(1500.0, 48000, 3 * 2048 / 48000.0, 0.5);
        QCOMPARE(chunk.size(), 3 * 2048 * 4);
        QCOMPARE(reader.write(chunk), qint64(chunk.size()));
        QCOMPARE(spectra.count(), 3);
        const auto channels = spectra.first().first().value<QVector<SoundChannel>>();
        QCOMPARE(channels.size(), 2);
        QCOMPARE(channels[0].spectrums.size(), 682);
        QCOMPARE(PulseTest::strongestBand(channels[0]), 64);
    }

    void unknownPreferredFormatGivesNoCapture()
    {
        MessageCapture capture;
        QtAudioCapture owner;
        // A null device has no usable preferred format.
        QVERIFY(owner.capture(QAudioDeviceInfo()));
        QVERIFY(capture.contains(QtCriticalMsg, QStringLiteral("[QtAudioCapture]: Unknown sample format -1")));
        QVERIFY(owner.currentInput());
        QVERIFY(owner.currentReader());
        QVERIFY(!owner.currentReader()->isOpen());
        QCOMPARE(owner.currentInput()->state(), QAudio::StoppedState);
    }

    void failedStartThenStopAndCaptureLeavesNoReaderBehind()
    {
        MessageCapture messages;
        {
            QtAudioCapture owner;
            owner.setReaderFactory([](QtAudioCapture* capture) { return new CountedReader(capture, nullptr); });
            QVERIFY(owner.capture(QAudioDeviceInfo()));
            owner.stop();
            QVERIFY(owner.capture(QAudioDeviceInfo()));
            QCOMPARE(messages.count(QtCriticalMsg, QStringLiteral("[QtAudioCapture]: Unknown sample format -1")), 2);
            // The first reader goes with its input, on the worker.
            QTRY_COMPARE_WITH_TIMEOUT(CountedReader::alive.loadAcquire(), 1, 10000);
            QVERIFY(owner.currentReader());
            owner.stop();
            QTRY_VERIFY_WITH_TIMEOUT(!owner.currentReader(), 10000);
            QCOMPARE(CountedReader::alive.loadAcquire(), 0);
            QVERIFY(owner.capture(QAudioDeviceInfo()));
        }
        // And the destructor drops the last one.
        QCOMPARE(CountedReader::alive.loadAcquire(), 0);
    }

    void readerThatFailsToOpenIsLoggedAndNothingStarts()
    {
        QVERIFY2(!PulseTest::pactl({"info"}).isNull(), "the fixture's sound server is not running");
        const QAudioDeviceInfo monitor = inputDevice(QStringLiteral("sinkA.monitor"));
        QVERIFY(!monitor.isNull());

        MessageCapture messages;
        QtAudioCapture capture;
        capture.setReaderFactory([](QtAudioCapture* owner) { return new UnopenableReader(owner, nullptr); });
        QVERIFY(capture.capture(monitor));
        QCOMPARE(messages.texts(QtCriticalMsg),
            QStringList {QStringLiteral("[QtAudioCapture]: Failed to open the QtAudioReader instance")});
        QVERIFY(capture.currentInput());
        QVERIFY(capture.currentReader());
        QVERIFY(!capture.currentReader()->isOpen());
        QCOMPARE(capture.currentInput()->state(), QAudio::StoppedState);
    }

    void monitorSourceDeliversSpectraOfTheSine()
    {
        QVERIFY2(!PulseTest::pactl({"info"}).isNull(), "the fixture's sound server is not running");
        const QAudioDeviceInfo monitor = inputDevice(QStringLiteral("sinkA.monitor"));
        QVERIFY(!monitor.isNull());

        QtAudioCapture capture;
        PulseTest::SpectrumCollector collector;
        connect(&capture, &IAudioCapture::spectrumsChanged, &collector, &PulseTest::SpectrumCollector::onSpectrums);
        QVERIFY(capture.capture(monitor));
        QVERIFY(capture.currentInput());
        const int rate = monitor.preferredFormat().sampleRate();
        QCOMPARE(rate, 48000);
        PulseTest::SinePlayer player(QStringLiteral("sinkA"), 64 * 48000.0 / 2048.0, 48000, 0.5);
        QVERIFY(player.started());
        QTRY_VERIFY_WITH_TIMEOUT(!collector.spectra().isEmpty()
                && PulseTest::strongestBand(collector.spectra().last()[0]) == 64
                && PulseTest::strongestBand(collector.spectra().last()[1]) == 64,
            15000);

        // The reader goes only when this thread has taken the input's destroyed().
        capture.stop();
        QVERIFY(!capture.currentInput());
        QVERIFY(capture.currentReader());
        QTRY_VERIFY_WITH_TIMEOUT(!capture.currentReader(), 10000);

        // And the worker serves the next capture.
        collector.clear();
        capture.start();
        QTRY_VERIFY_WITH_TIMEOUT(!collector.spectra().isEmpty(), 15000);
    }
};

QTEST_GUILESS_MAIN(TestQtAudioCapture)
#include "tst_qtaudiocapture.moc"
