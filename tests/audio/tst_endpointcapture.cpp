#include "AudioCapturer.h"
#include "AudioCapturer_p.h"
#include "ConfigurationManager.h"
#include "CrossThreadSpy.h"
#include "Helpers.h"
#include "MessageCapture.h"
#include "fakes/FakeDevice.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QPointer>
#include <QtCore/QTemporaryDir>
#include <QtCore/QThread>
#include <QtTest/QtTest>

#include <functional>

#include <cmath>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

using namespace Orvanta::Ifaces;

namespace {

// One block of 16-bit stereo frames of a sine at @p frequency.
std::vector<std::uint8_t> sineBlock16(int frames, double frequency, int rate, double amplitude = 0.5)
{
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(frames) * 4);
    auto* samples = reinterpret_cast<qint16*>(bytes.data());
    for (int i = 0; i < frames; ++i) {
        const auto value
            = static_cast<qint16>(std::lround(amplitude * 32767.0 * std::sin(2.0 * M_PI * frequency * i / rate)));
        samples[2 * i] = value;
        samples[2 * i + 1] = value;
    }
    return bytes;
}

struct Rig
{
    std::shared_ptr<Fakes::FakeEndpointWatcher> watcher = std::make_shared<Fakes::FakeEndpointWatcher>();
    std::shared_ptr<Fakes::StreamScript> script = std::make_shared<Fakes::StreamScript>();
    std::shared_ptr<Fakes::FakeMeter> meter = std::make_shared<Fakes::FakeMeter>();
    std::shared_ptr<Fakes::FakeEndpoint> endpoint;

    explicit Rig(DataFlow flow = DataFlow::Render, bool withMeter = true)
    {
        endpoint = watcher->add("speakers", flow);
        script->mixFormat = Fakes::pcm16Stereo();
        Fakes::attachStream(*endpoint, script, withMeter ? meter : nullptr);
    }
};

// Lives on a thread of its own and counts what reaches it.
class Receiver : public QObject
{
    Q_OBJECT
public:
    std::atomic<int> spectra {0};
    std::atomic<int> peaks {0};
    QVector<QVector<QString>> lastPeaks;
    QThread* deliveredOn = nullptr;

public slots:
    void onSpectrums(QVector<SoundChannel> spectrums)
    {
        if (spectrums.size() == 2) {
            ++spectra;
        }
        deliveredOn = QThread::currentThread();
    }
    void onPeaks(const QVector<QVector<QString>>& values)
    {
        lastPeaks = values;
        ++peaks;
    }
};

// The peak interval that the capture loop of a capturer read from the
// configuration as it started: the loop runs until it has polled once, then
// stops, so that the value is read after the thread wrote it.
int peakIntervalOfARunningCapturer()
{
    Rig rig;
    AudioCapturer capturer(0, 16000);
    if (capturer.load(rig.endpoint) != S_OK) {
        return -1;
    }
    capturer.start();
    QElapsedTimer waited;
    waited.start();
    while (rig.script->polls().empty() && waited.elapsed() < 10000) {
        QThread::msleep(5);
    }
    capturer.requestInterruption();
    capturer.wait();
    return AudioCapturerPrivate::get(&capturer)->peakInterval;
}

// Exposes the protected device hook.
class SelectingCapturer : public AudioCapturer
{
public:
    DeviceHandle select(std::shared_ptr<EndpointWatcher> watcher)
    {
        return DeviceSelect(std::move(watcher));
    }
};

} // namespace

class TestEndpointCapture : public QObject
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

    // First, so that nothing else has registered the argument types yet.
    void receiverOnAnotherThreadGetsEverySignal()
    {
        Rig rig;
        AudioCapturer capturer(0, 16000);
        QThread receiverThread;
        Receiver receiver;
        receiver.moveToThread(&receiverThread);
        receiverThread.start();
        connect(&capturer, &AudioCapturer::spectrumsChanged, &receiver, &Receiver::onSpectrums);
        connect(&capturer, &AudioCapturer::channelsPeakValuesChanged, &receiver, &Receiver::onPeaks);
        QCOMPARE(capturer.load(rig.endpoint), S_OK);

        CrossThreadSpy spectra(&capturer, &AudioCapturer::spectrumsChanged);
        for (int i = 0; i < 9; ++i) {
            rig.script->push(sineBlock16(2048, 1000.0, 48000));
        }
        capturer.start();
        QTRY_COMPARE_WITH_TIMEOUT(spectra.count(), 3, 10000);
        QTRY_COMPARE_WITH_TIMEOUT(receiver.spectra.load(), 3, 10000);
        QTRY_VERIFY_WITH_TIMEOUT(receiver.peaks.load() > 0, 10000);
        QVERIFY(QMetaType::type("QVector<QVector<QString> >") != QMetaType::UnknownType);
        QVERIFY(QMetaType::type("QVector<SoundChannel>") != QMetaType::UnknownType);
        QVERIFY(QMetaType::type("QVector<Spectrum>") != QMetaType::UnknownType);
        QCOMPARE(receiver.deliveredOn, &receiverThread);
        receiverThread.quit();
        receiverThread.wait();
    }

    void loadOpensOutputInLoopback()
    {
        Rig rig;
        AudioCapturer capturer(0, 16000);
        QCOMPARE(capturer.load(rig.endpoint), S_OK);
        QCOMPARE(rig.script->initializedFlags, StreamFlagLoopback);
        QCOMPARE(rig.script->bufferDuration, std::int64_t(10000000));
        QCOMPARE(rig.script->starts, 1);
        QCOMPARE(capturer.Format().Format.nSamplesPerSec, 48000u);
        QCOMPARE(capturer.Format().Format.wBitsPerSample, std::uint16_t(16));
    }

    void captureEndpointIsOpenedWithoutLoopback()
    {
        Rig rig(DataFlow::Capture);
        AudioCapturer capturer(0, 16000);
        QCOMPARE(capturer.load(rig.endpoint), S_OK);
        QCOMPARE(rig.script->initializedFlags, 0u);
    }

    void extensibleFormatIsKeptWhole()
    {
        Rig rig;
        rig.script->mixFormat = Fakes::floatExtensible(6, 44100);
        AudioCapturer capturer(0, 16000);
        QCOMPARE(capturer.load(rig.endpoint), S_OK);
        const WaveFormatExtensible format = capturer.Format();
        QCOMPARE(format.Format.wFormatTag, WaveFormatTag::Extensible);
        QCOMPARE(format.dwChannelMask, 0x3Fu);
        QVERIFY(sameGuid(format.SubFormat, subFormatIeeeFloat()));
        QCOMPARE(rig.script->initializedFormat.dwChannelMask, 0x3Fu);
    }

    void channelMaskThatMissesTheChannelCountFallsBackToTheDefaultLayout_data()
    {
        QTest::addColumn<quint32>("mask");
        QTest::newRow("six speakers for two channels") << 0x3Fu;
        QTest::newRow("one speaker for two channels") << 0x4u;
    }

    void channelMaskThatMissesTheChannelCountFallsBackToTheDefaultLayout()
    {
        QFETCH(quint32, mask);
        Rig rig;
        rig.script->mixFormat = Fakes::floatExtensible(2, 48000);
        rig.script->mixFormat.dwChannelMask = mask;
        AudioCapturer capturer(0, 16000);
        QCOMPARE(capturer.load(rig.endpoint), S_OK);
        // The mask is handed on as the endpoint gave it ...
        QCOMPARE(capturer.Format().dwChannelMask, mask);
        // ... but the converter reads the block as plain stereo.
        AVChannelLayout layout {};
        QCOMPARE(
            av_opt_get_chlayout(AudioCapturerPrivate::get(&capturer)->swrContext.get(), "in_chlayout", 0, &layout), 0);
        QCOMPARE(layout.nb_channels, 2);
        AVChannelLayout stereo {};
        av_channel_layout_default(&stereo, 2);
        QCOMPARE(av_channel_layout_compare(&layout, &stereo), 0);
        av_channel_layout_uninit(&layout);
        av_channel_layout_uninit(&stereo);
    }

    void plainFormatDropsTheExtensiblePart()
    {
        Rig rig;
        WaveFormatExtensible mix = Fakes::pcm16Stereo();
        mix.dwChannelMask = 0x3; // not part of a plain format
        rig.script->mixFormat = mix;
        AudioCapturer capturer(0, 16000);
        QCOMPARE(capturer.load(rig.endpoint), S_OK);
        QCOMPARE(capturer.Format().dwChannelMask, 0u);
    }

    void unmappedFormatFallsBackTo16BitPcm_data()
    {
        QTest::addColumn<int>("tag");
        QTest::addColumn<int>("bits");
        QTest::addColumn<bool>("extensible");
        QTest::newRow("pcm 24") << int(WaveFormatTag::Pcm) << 24 << false;
        QTest::newRow("extensible pcm 24") << int(WaveFormatTag::Extensible) << 24 << true;
        QTest::newRow("a-law") << 6 << 8 << false;
    }

    void unmappedFormatFallsBackTo16BitPcm()
    {
        QFETCH(int, tag);
        QFETCH(int, bits);
        QFETCH(bool, extensible);
        Rig rig;
        WaveFormatExtensible mix {};
        mix.Format.wFormatTag = static_cast<std::uint16_t>(tag);
        mix.Format.nChannels = 6;
        mix.Format.nSamplesPerSec = 44100;
        mix.Format.wBitsPerSample = static_cast<std::uint16_t>(bits);
        mix.Format.nBlockAlign = static_cast<std::uint16_t>(6 * bits / 8);
        mix.Format.nAvgBytesPerSec = mix.Format.nBlockAlign * 44100;
        if (extensible) {
            mix.Format.cbSize = 22;
            mix.dwChannelMask = 0x3F;
            mix.SubFormat = subFormatPcm();
        }
        rig.script->mixFormat = mix;
        rig.script->only16BitPcm = true;
        AudioCapturer capturer(0, 16000);
        QCOMPARE(capturer.load(rig.endpoint), S_OK);
        const WaveFormatExtensible& asked = rig.script->initializedFormat;
        QCOMPARE(asked.Format.wFormatTag, WaveFormatTag::Pcm);
        QCOMPARE(asked.Format.wBitsPerSample, std::uint16_t(16));
        QCOMPARE(asked.Format.cbSize, std::uint16_t(0));
        QCOMPARE(asked.Format.nChannels, std::uint16_t(6));
        QCOMPARE(asked.Format.nSamplesPerSec, 44100u);
        QCOMPARE(asked.Format.nBlockAlign, std::uint16_t(12));
        QCOMPARE(asked.Format.nAvgBytesPerSec, 12u * 44100u);
        QVERIFY(sameGuid(asked.SubFormat, subFormatPcm()));
        QCOMPARE(asked.dwChannelMask, extensible ? 0x3Fu : 0u);
    }

    void refusedFallbackFailsInitialisation()
    {
        Rig rig;
        WaveFormatExtensible mix = Fakes::pcm16Stereo();
        mix.Format.wBitsPerSample = 24;
        rig.script->mixFormat = mix;
        rig.script->initializeResult = AUDCLNT_E_UNSUPPORTED_FORMAT;
        MessageCapture capture;
        AudioCapturer capturer(0, 16000);
        QCOMPARE(capturer.load(rig.endpoint), AUDCLNT_E_UNSUPPORTED_FORMAT);
        QCOMPARE(rig.script->initializedFormat.Format.wBitsPerSample, std::uint16_t(16));
        QVERIFY(capture.contains(QtCriticalMsg,
            QStringLiteral("Failed to init IAudioClient:  \"%1\"").arg(win32ErrorMsg(AUDCLNT_E_UNSUPPORTED_FORMAT))));
    }

    void loadFailuresAreLoggedAndReturned()
    {
        // Each step of load() that fails ends it with that step's line and code.
        auto expectFailure = [](const std::function<void(Rig&)>& breakStep, long code, const char* step) {
            Rig rig;
            breakStep(rig);
            MessageCapture capture;
            AudioCapturer capturer;
            QCOMPARE(capturer.load(rig.endpoint), code);
            const QString line = QStringLiteral("%1 \"%2\"").arg(QLatin1String(step), win32ErrorMsg(code));
            QVERIFY2(capture.contains(QtCriticalMsg, line), qPrintable(capture.all().join(QLatin1Char('\n'))));
        };
        expectFailure([](Rig& rig) { rig.endpoint->dataFlowResult = E_NOINTERFACE; }, E_NOINTERFACE,
            "Failed to get data flow of IMMEndpoint ");
        expectFailure([](Rig& rig) { rig.endpoint->activations.stream = nullptr; }, E_NOINTERFACE,
            "Failed to active IAudioClient");
        expectFailure([](Rig& rig) { rig.endpoint->activations.volume = nullptr; }, E_NOINTERFACE,
            "Failed to active the IAudioEndpointVolume interface ");
        expectFailure([](Rig& rig) { rig.script->mixFormatResult = AUDCLNT_E_DEVICE_INVALIDATED; },
            AUDCLNT_E_DEVICE_INVALIDATED, "Failed to get mix format of IAudioClient ");
        expectFailure([](Rig& rig) { rig.script->captureClientResult = AUDCLNT_E_WRONG_ENDPOINT_TYPE; },
            AUDCLNT_E_WRONG_ENDPOINT_TYPE, "Failed to get AudioClient service ");
        expectFailure([](Rig& rig) { rig.script->startResult = AUDCLNT_E_NOT_INITIALIZED; }, AUDCLNT_E_NOT_INITIALIZED,
            "Failed to start audio client capture ");
        {
            MessageCapture capture;
            AudioCapturer capturer;
            QCOMPARE(capturer.load(nullptr), E_POINTER);
            QVERIFY(capture.contains(QtCriticalMsg,
                QStringLiteral("%1 \"%2\"").arg("Failed to query IMMEndpoint interface ", win32ErrorMsg(E_POINTER))));
        }
    }

    void failedMeterLeavesNoPeakSignal()
    {
        Rig rig(DataFlow::Render, false);
        MessageCapture capture;
        AudioCapturer capturer(0, 16000);
        QCOMPARE(capturer.load(rig.endpoint), S_OK);
        QCOMPARE(capture.texts(QtWarningMsg),
            QStringList({"[AudioCapturer]: Failed to activate IAudioMeterInformation interface",
                "[AudioCapturer]: Effects that rely on peakValues will not be available"}));
        QVERIFY(
            !capture.contains(QtInfoMsg, "[AudioCapturer]: Succeeded to activate IAudioMeterInformation interface"));

        CrossThreadSpy spectra(&capturer, &AudioCapturer::spectrumsChanged);
        CrossThreadSpy peaks(&capturer, &AudioCapturer::channelsPeakValuesChanged);
        for (int i = 0; i < 6; ++i) {
            rig.script->push(sineBlock16(2048, 1000.0, 48000));
        }
        capturer.start();
        QTRY_VERIFY_WITH_TIMEOUT(spectra.count() >= 2, 10000);
        // Several peak intervals have passed by the time the polls pile up.
        QTRY_VERIFY_WITH_TIMEOUT(rig.script->polls().size() >= 3, 10000);
        QCOMPARE(peaks.count(), 0);
    }

    void meterChannelCountFailureDropsTheMeter()
    {
        Rig rig;
        rig.meter->countResult = E_FAIL;
        MessageCapture capture;
        AudioCapturer capturer(0, 16000);
        QCOMPARE(capturer.load(rig.endpoint), S_OK);
        QVERIFY(capture.contains(QtInfoMsg, "[AudioCapturer]: Succeeded to activate IAudioMeterInformation interface"));
        QCOMPARE(capture.texts(QtWarningMsg),
            QStringList({"[AudioCapturer]: Failed to get metering channel count",
                "[AudioCapturer]: Effects that rely on peakValues will not be available"}));
        CrossThreadSpy peaks(&capturer, &AudioCapturer::channelsPeakValuesChanged);
        capturer.start();
        QTRY_VERIFY_WITH_TIMEOUT(rig.script->polls().size() >= 3, 10000);
        QCOMPARE(peaks.count(), 0);
    }

    void peaksArePublishedAsStrings()
    {
        Rig rig;
        AudioCapturer capturer(0, 16000);
        QCOMPARE(capturer.load(rig.endpoint), S_OK);
        CrossThreadSpy peaks(&capturer, &AudioCapturer::channelsPeakValuesChanged);
        capturer.start();
        QTRY_VERIFY_WITH_TIMEOUT(peaks.count() >= 1, 10000);
        const auto values = peaks.first().first().value<QVector<QVector<QString>>>();
        QCOMPARE(values, (QVector<QVector<QString>> {{"0.500", "-3.010"}, {"0.250", "-6.021"}}));
    }

    void defaultPeakIntervalIs33Milliseconds()
    {
        ConfigurationManager::instance()->setAppConfig("devUpdateInterval", QJsonValue());
        QVERIFY(ConfigurationManager::instance()->appConfig("devUpdateInterval").isUndefined()
            || ConfigurationManager::instance()->appConfig("devUpdateInterval").isNull());
        QCOMPARE(peakIntervalOfARunningCapturer(), 33);
    }

    void configuredPeakIntervalIsHonoured()
    {
        ConfigurationManager::instance()->setAppConfig("devUpdateInterval", 400);
        const auto restore
            = qScopeGuard([] { ConfigurationManager::instance()->setAppConfig("devUpdateInterval", QJsonValue()); });
        QCOMPARE(peakIntervalOfARunningCapturer(), 400);

        Rig rig;
        AudioCapturer capturer(0, 16000);
        QCOMPARE(capturer.load(rig.endpoint), S_OK);
        CrossThreadSpy peaks(&capturer, &AudioCapturer::channelsPeakValuesChanged);
        QElapsedTimer sinceStart;
        sinceStart.start();
        capturer.start();
        QTRY_VERIFY_WITH_TIMEOUT(peaks.count() >= 1, 10000);
        QVERIFY(sinceStart.elapsed() >= 400);
        // Drained passes sleep 150 ms each, so two or more passed before the first peak test.
        QVERIFY(rig.script->polls().size() >= 2);
    }

    void drainedStreamIsPolledEvery150Milliseconds()
    {
        Rig rig;
        AudioCapturer capturer(0, 16000);
        QCOMPARE(capturer.load(rig.endpoint), S_OK);
        capturer.start();
        QTRY_VERIFY_WITH_TIMEOUT(rig.script->polls().size() >= 4, 10000);
        const std::vector<qint64> polls = rig.script->polls();
        for (std::size_t i = 1; i < polls.size(); ++i) {
            QVERIFY2(polls[i] - polls[i - 1] >= 149, qPrintable(QString::number(polls[i] - polls[i - 1])));
        }
    }

    void destructionDuringTheSleepReturnsWithinIt()
    {
        Rig rig;
        QElapsedTimer destruction;
        {
            AudioCapturer capturer(0, 16000);
            QCOMPARE(capturer.load(rig.endpoint), S_OK);
            capturer.start();
            QTRY_VERIFY_WITH_TIMEOUT(rig.script->polls().size() >= 2, 10000);
            destruction.start();
        }
        // One sleep of 150 ms at most, with room for a loaded machine.
        QVERIFY2(destruction.elapsed() < 150 + 250, qPrintable(QString::number(destruction.elapsed())));
        QCOMPARE(rig.script->stops, 1);
        QCOMPARE(rig.script->threadInitialisations, 1);
        QCOMPARE(rig.script->threadUninitialisations, 1);
    }

    void everyThirdBlockIsPublished()
    {
        Rig rig;
        AudioCapturer capturer(0, 16000);
        QCOMPARE(capturer.load(rig.endpoint), S_OK);
        CrossThreadSpy spectra(&capturer, &AudioCapturer::spectrumsChanged);
        capturer.start();
        // One block at a time, so that each signal can be matched to its block.
        QList<int> publishingBlocks;
        for (int block = 1; block <= 12; ++block) {
            rig.script->push(sineBlock16(2048, 1000.0, 48000));
            QTRY_COMPARE_WITH_TIMEOUT(rig.script->released(), block, 10000);
            if (spectra.count() > publishingBlocks.size()) {
                publishingBlocks << block;
            }
        }
        QCOMPARE(publishingBlocks.size(), 4);
        for (int i = 1; i < publishingBlocks.size(); ++i) {
            QCOMPARE(publishingBlocks[i] - publishingBlocks[i - 1], 3);
        }
        const auto channels = spectra.last().first().value<QVector<SoundChannel>>();
        QCOMPARE(channels.size(), 2);
        QCOMPARE(channels[0].spectrums.size(), 341);
        // 1000 Hz lies at bin 1000 / 48000 * 2048 = 42.67, labelled on the 1025 scale.
        int strongest = 0;
        for (int i = 0; i < channels[0].spectrums.size(); ++i) {
            if (channels[0].spectrums[i].amplitude > channels[0].spectrums[strongest].amplitude) {
                strongest = i;
            }
        }
        QCOMPARE(strongest, 43);
    }

    void packetsSplitAcrossBlocksAreJoined()
    {
        Rig rig;
        AudioCapturer capturer(0, 16000);
        QCOMPARE(capturer.load(rig.endpoint), S_OK);
        CrossThreadSpy spectra(&capturer, &AudioCapturer::spectrumsChanged);
        // Three blocks' frames in odd packet sizes.
        const std::vector<std::uint8_t> all = sineBlock16(3 * 2048, 1000.0, 48000);
        std::size_t at = 0;
        const std::size_t sizes[] = {4 * 7, 4 * 1000, 4 * 3001, 4 * 2136};
        for (std::size_t size : sizes) {
            rig.script->push(std::vector<std::uint8_t>(all.begin() + at, all.begin() + at + size));
            at += size;
        }
        QCOMPARE(at, all.size());
        capturer.start();
        QTRY_COMPARE_WITH_TIMEOUT(rig.script->released(), 4, 10000);
        QTRY_COMPARE_WITH_TIMEOUT(spectra.count(), 1, 10000);
    }

    void failedGetBufferEndsTheThreadQuietly()
    {
        Rig rig;
        AudioCapturer capturer(0, 16000);
        QCOMPARE(capturer.load(rig.endpoint), S_OK);
        CrossThreadSpy spectra(&capturer, &AudioCapturer::spectrumsChanged);
        QSignalSpy finished(&capturer, &QThread::finished);
        MessageCapture capture;
        rig.script->getBufferResult = AUDCLNT_E_DEVICE_INVALIDATED;
        capturer.start();
        QTRY_VERIFY_WITH_TIMEOUT(capturer.isFinished(), 10000);
        QVERIFY(capture.contains(
            QtCriticalMsg, QStringLiteral("An error was happended. code:  %1").arg(AUDCLNT_E_DEVICE_INVALIDATED)));
        QCOMPARE(spectra.count(), 0);
        QCOMPARE(rig.script->threadUninitialisations, 1);
    }

    void deviceSelectGivesTheDefaultOutput()
    {
        Rig rig;
        rig.watcher->defaultRender = "speakers";
        SelectingCapturer capturer;
        const auto device = capturer.select(rig.watcher);
        QVERIFY(device);
        std::string id;
        device->id(id);
        QCOMPARE(id, std::string("speakers"));
        rig.watcher->defaultRender.clear();
        QVERIFY(!capturer.select(rig.watcher));
    }
};

QTEST_GUILESS_MAIN(TestEndpointCapture)
#include "tst_endpointcapture.moc"
