#include "AudioReader.h"
#include "MessageCapture.h"
#include "PulseTestSupport.h"
#include "QtAudioCapture.h"

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

} // namespace

class TestQtAudioCapture : public QObject
{
    Q_OBJECT

private slots:
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
        QSignalSpy spectra(&reader, &AudioReader::spectrumChanged);
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
        QSignalSpy spectra(&reader, &AudioReader::spectrumChanged);
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
