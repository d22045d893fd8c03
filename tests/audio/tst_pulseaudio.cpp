#include "AudioCapManager.h"
#include "AudioCapturer.h"
#include "ConfigurationManager.h"
#include "MessageCapture.h"
#include "PulseTestSupport.h"
#include "ResultCodes.h"
#include "ifaces/EndpointMeter.h"
#include "ifaces/EndpointStream.h"
#include "ifaces/EndpointWatcher.h"

#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

using namespace Orvanta::Ifaces;
using PulseTest::pactl;

namespace {

// The band a sine centred on FFT bin k lands in: bands start at bin 0.
constexpr int kBinA = 64; // 1500 Hz at 48000 Hz
constexpr int kBinB = 70; // 1507.32 Hz at 44100 Hz

double binFrequency(int bin, int rate)
{
    return bin * double(rate) / 2048.0;
}

std::shared_ptr<AudioEndpoint> endpointOf(EndpointWatcher& watcher, const std::string& id)
{
    std::shared_ptr<AudioEndpoint> endpoint;
    watcher.endpoint(id, endpoint);
    return endpoint;
}

// True when a delivered spectrum shows @p band strongest on both channels,
// with an amplitude in the given range. A block that the tone fills only in
// part shows the band weaker, so the range is met by the blocks after it.
bool showsBand(const QList<QVector<SoundChannel>>& spectra, int band, float minimum = 0.0f, float maximum = 1e9f)
{
    for (const QVector<SoundChannel>& channels : spectra) {
        if (channels.size() == 2 && PulseTest::strongestBand(channels[0]) == band
            && PulseTest::strongestBand(channels[1]) == band) {
            const float amplitude = channels[0].spectrums[band].amplitude;
            if (amplitude >= minimum && amplitude <= maximum) {
                return true;
            }
        }
    }
    return false;
}

} // namespace

class TestPulseAudio : public QObject
{
    Q_OBJECT

    QTemporaryDir configDir;
    std::unique_ptr<AudioCapManager> manager;
    PulseTest::SpectrumCollector registryEvents;

private slots:
    void initTestCase()
    {
        QStandardPaths::setTestModeEnabled(true);
        QVERIFY(configDir.isValid());
        ConfigurationManager::setConfigPath(configDir.path());
        QVERIFY2(!pactl({"info"}).isNull(), "the fixture's sound server is not running");
    }

    void watcherListsSinksAsOutputs()
    {
        auto watcher = Orvanta::createPlatformEndpointWatcher();
        QCOMPARE(watcher->open(), S_OK);
        std::unique_ptr<EndpointCollection> endpoints;
        QCOMPARE(watcher->activeEndpoints(endpoints), S_OK);
        unsigned int count = 0;
        endpoints->count(count);
        QStringList outputs;
        for (unsigned int i = 0; i < count; ++i) {
            std::shared_ptr<AudioEndpoint> endpoint;
            QCOMPARE(endpoints->item(i, endpoint), S_OK);
            std::string id;
            DataFlow flow = DataFlow::All;
            unsigned long state = 0;
            endpoint->id(id);
            endpoint->dataFlow(flow);
            endpoint->state(state);
            QCOMPARE(state, static_cast<unsigned long>(DeviceStateActive));
            if (flow == DataFlow::Render) {
                outputs << QString::fromStdString(id);
            }
        }
        outputs.sort();
        QCOMPARE(outputs, QStringList({"sinkA", "sinkB"}));

        std::shared_ptr<AudioEndpoint> byDefault;
        QCOMPARE(watcher->defaultEndpoint(DataFlow::Render, DeviceRole::Console, byDefault), S_OK);
        std::string id;
        byDefault->id(id);
        QCOMPARE(id, std::string("sinkA"));
        std::string name;
        QCOMPARE(byDefault->friendlyName(name), S_OK);
        QCOMPARE(name, std::string("SinkA"));
        // The monitors are no endpoints; the default source is a monitor.
        QCOMPARE(watcher->defaultEndpoint(DataFlow::Capture, DeviceRole::Console, byDefault), E_NOTFOUND);
        QCOMPARE(watcher->endpoint("sinkA.monitor", byDefault), E_NOTFOUND);
        QCOMPARE(watcher->endpoint("no-such-sink", byDefault), E_NOTFOUND);
    }

    void streamsTakeTheSinksOwnFormat()
    {
        auto watcher = Orvanta::createPlatformEndpointWatcher();
        QCOMPARE(watcher->open(), S_OK);

        std::unique_ptr<EndpointStream> stream;
        QCOMPARE(endpointOf(*watcher, "sinkA")->activateStream(stream), S_OK);
        WaveFormatExtensible format {};
        QCOMPARE(stream->mixFormat(format), S_OK);
        QCOMPARE(format.Format.nSamplesPerSec, 48000u);
        QCOMPARE(format.Format.nChannels, std::uint16_t(2));
        QCOMPARE(format.dwChannelMask, 0x3u);
        if (PulseTest::onPipeWire()) {
            // pipewire-pulse runs every null sink, and so its monitor, in 32-bit float.
            QCOMPARE(format.Format.wBitsPerSample, std::uint16_t(32));
            QVERIFY(sameGuid(format.SubFormat, subFormatIeeeFloat()));
        } else {
            // PulseAudio keeps the daemon's default sample format, 16-bit.
            QCOMPARE(format.Format.wBitsPerSample, std::uint16_t(16));
            QVERIFY(sameGuid(format.SubFormat, subFormatPcm()));
        }
        // An output is recorded only in loopback.
        QCOMPARE(stream->initialize(format, 0, 10000000), AUDCLNT_E_WRONG_ENDPOINT_TYPE);

        QCOMPARE(endpointOf(*watcher, "sinkB")->activateStream(stream), S_OK);
        QCOMPARE(stream->mixFormat(format), S_OK);
        QCOMPARE(format.Format.nSamplesPerSec, 44100u);
        QCOMPARE(format.Format.nChannels, std::uint16_t(6));
        QCOMPARE(format.dwChannelMask, 0x3Fu);
        QCOMPARE(stream->initialize(format, StreamFlagLoopback, 10000000), S_OK);
        std::unique_ptr<EndpointCapture> capture;
        QCOMPARE(stream->captureClient(capture), S_OK);
        QCOMPARE(stream->start(), S_OK);
        // The silent stream of the fixture keeps the monitor delivering.
        std::uint32_t frames = 0;
        QTRY_VERIFY_WITH_TIMEOUT((capture->nextPacketSize(&frames), frames > 0), 10000);
        const std::uint8_t* data = nullptr;
        std::uint32_t flags = 0;
        QCOMPARE(capture->getBuffer(&data, &frames, &flags), S_OK);
        QVERIFY(data);
        QVERIFY(frames > 0);
        QCOMPARE(capture->releaseBuffer(frames), S_OK);
        QCOMPARE(stream->stop(), S_OK);
    }

    void registryStartsOneCapturerPerSink()
    {
        manager = std::make_unique<AudioCapManager>();
        connect(manager.get(), &AudioCapManager::capturerReady, &registryEvents,
            [this](const QString& id) { registryEvents.onId("ready " + id); });
        connect(manager.get(), &AudioCapManager::capturerLost, &registryEvents,
            [this](const QString& id) { registryEvents.onId("lost " + id); });
        QStringList ids = manager->allCapturers();
        ids.sort();
        QCOMPARE(ids, QStringList({"sinkA", "sinkB"}));
        QCOMPARE(manager->defaultCapturer(), QStringLiteral("sinkA"));
        QCOMPARE(manager->capturerDesc("sinkA"), QStringLiteral("SinkA"));
        QCOMPARE(manager->capturerDesc("sinkB"), QStringLiteral("SinkB"));
        QVERIFY(manager->capturerDesc("sinkA.monitor").isNull());
        QCOMPARE(manager->acquireCapturer("sinkB")->Format().Format.nSamplesPerSec, 44100u);
    }

    void sineComesOutAsSpectraAndPeaks_data()
    {
        QTest::addColumn<QString>("sink");
        QTest::addColumn<int>("rate");
        QTest::addColumn<int>("bin");
        QTest::newRow("stereo 48 kHz") << "sinkA" << 48000 << kBinA;
        QTest::newRow("5.1 44.1 kHz") << "sinkB" << 44100 << kBinB;
    }

    void sineComesOutAsSpectraAndPeaks()
    {
        QFETCH(QString, sink);
        QFETCH(int, rate);
        QFETCH(int, bin);
        QSharedPointer<AudioCapturer> capturer = manager->acquireCapturer(sink);
        QVERIFY(capturer);
        PulseTest::SpectrumCollector collector;
        connect(
            capturer.data(), &AudioCapturer::spectrumsChanged, &collector, &PulseTest::SpectrumCollector::onSpectrums);
        connect(capturer.data(), &AudioCapturer::channelsPeakValuesChanged, &collector,
            &PulseTest::SpectrumCollector::onPeaks);

        PulseTest::SinePlayer player(sink, binFrequency(bin, rate), rate, 0.5);
        QVERIFY(player.started());
        QTRY_VERIFY_WITH_TIMEOUT(showsBand(collector.spectra(), bin), 15000);
        const QVector<SoundChannel> last = collector.spectra().last();
        QCOMPARE(last[0].spectrums.size(), rate == 48000 ? 341 : 371);
        QCOMPARE(last[0].channel, quint64(1));
        QCOMPARE(last[1].channel, quint64(2));

        if (sink == QLatin1String("sinkA")) {
            // A centred sine of half full scale: about half of 512.
            QTRY_VERIFY_WITH_TIMEOUT(showsBand(collector.spectra(), bin, 230.0f, 280.0f), 15000);
            const QVector<QVector<QString>> expected {{"0.500", "-3.010"}, {"0.500", "-3.010"}};
            QTRY_VERIFY_WITH_TIMEOUT(collector.peaks().contains(expected), 15000);
        } else {
            // The 5.1 sink reports six metering channels; the fronts carry the sine.
            const auto frontsAtHalf = [&collector] {
                for (const auto& peaks : collector.peaks()) {
                    if (peaks.size() == 6 && peaks[0][0] == "0.500" && peaks[1][0] == "0.500") {
                        return true;
                    }
                }
                return false;
            };
            QTRY_VERIFY_WITH_TIMEOUT(frontsAtHalf(), 15000);
        }
    }

    void sinkVolumeIsCorrected()
    {
        QSharedPointer<AudioCapturer> capturer = manager->acquireCapturer("sinkA");
        auto watcher = Orvanta::createPlatformEndpointWatcher();
        QCOMPARE(watcher->open(), S_OK);
        std::shared_ptr<EndpointMeter> volume;
        QCOMPARE(endpointOf(*watcher, "sinkA")->activateVolume(volume), S_OK);
        float level = 0;
        QCOMPARE(volume->masterVolumeLevelScalar(&level), S_OK);
        QCOMPARE(level, 1.0f);

        QVERIFY(!pactl({"set-sink-volume", "sinkA", "50%"}).isNull());
        QCOMPARE(volume->masterVolumeLevelScalar(&level), S_OK);
        QVERIFY2(qAbs(level - 0.125f) < 0.001f, qPrintable(QString::number(level)));

        PulseTest::SpectrumCollector collector;
        connect(
            capturer.data(), &AudioCapturer::spectrumsChanged, &collector, &PulseTest::SpectrumCollector::onSpectrums);
        connect(capturer.data(), &AudioCapturer::channelsPeakValuesChanged, &collector,
            &PulseTest::SpectrumCollector::onPeaks);
        {
            PulseTest::SinePlayer player("sinkA", binFrequency(kBinA, 48000), 48000, 0.5);
            // The monitor carries an eighth of the signal; the correction restores it.
            QTRY_VERIFY_WITH_TIMEOUT(
                collector.peaks().contains(QVector<QVector<QString>>({{"0.062", "-12.041"}, {"0.062", "-12.041"}}))
                    || collector.peaks().contains(
                        QVector<QVector<QString>>({{"0.063", "-12.041"}, {"0.063", "-12.041"}})),
                15000);
            collector.clear();
            QTRY_VERIFY_WITH_TIMEOUT(showsBand(collector.spectra(), kBinA, 200.0f, 310.0f), 15000);
        }
        QVERIFY(!pactl({"set-sink-volume", "sinkA", "100%"}).isNull());
    }

    // Both servers report a sink's volume on PulseAudio's cubic scale, and
    // both put the monitor after the volume, so the adapter reports the
    // linear gain (the cube of the slider): the factor by which the monitor's
    // signal was scaled, which the correction divides out. Its threshold of
    // 0.01 then lies at the cube root, 21.54 % on the user's slider: at 21 %
    // (gain 0.00926) the magnitudes stay undivided, at 22 % (gain 0.01065)
    // they are restored.
    void volumeCorrectionStartsAt22PercentOfTheSlider_data()
    {
        QTest::addColumn<QString>("slider");
        QTest::addColumn<float>("gain");
        QTest::addColumn<float>("minimum");
        QTest::addColumn<float>("maximum");
        // A half-scale sine at full volume shows about 256 in its band (see sinkVolumeIsCorrected).
        QTest::newRow("21 %, undivided") << "21%" << 0.0092610f << 256 * 0.0092610f * 0.8f << 256 * 0.0092610f * 1.25f;
        QTest::newRow("22 %, restored") << "22%" << 0.0106480f << 200.0f << 310.0f;
    }

    void volumeCorrectionStartsAt22PercentOfTheSlider()
    {
        QFETCH(QString, slider);
        QFETCH(float, gain);
        QFETCH(float, minimum);
        QFETCH(float, maximum);
        QSharedPointer<AudioCapturer> capturer = manager->acquireCapturer("sinkA");
        QVERIFY(capturer);
        auto watcher = Orvanta::createPlatformEndpointWatcher();
        QCOMPARE(watcher->open(), S_OK);
        std::shared_ptr<EndpointMeter> volume;
        QCOMPARE(endpointOf(*watcher, "sinkA")->activateVolume(volume), S_OK);

        QVERIFY(!pactl({"set-sink-volume", "sinkA", slider}).isNull());
        float level = 0;
        QCOMPARE(volume->masterVolumeLevelScalar(&level), S_OK);
        QVERIFY2(qAbs(level - gain) < 0.0001f, qPrintable(QString::number(level, 'f', 6)));

        PulseTest::SpectrumCollector collector;
        connect(
            capturer.data(), &AudioCapturer::spectrumsChanged, &collector, &PulseTest::SpectrumCollector::onSpectrums);
        {
            PulseTest::SinePlayer player("sinkA", binFrequency(kBinA, 48000), 48000, 0.5);
            // Blocks read before the new volume reached the capturer's cache
            // are left behind: only the range of this volume counts.
            QTRY_VERIFY_WITH_TIMEOUT(showsBand(collector.spectra(), kBinA, minimum, maximum), 15000);
        }
        QVERIFY(!pactl({"set-sink-volume", "sinkA", "100%"}).isNull());
    }

    void loadedAndUnloadedSinkIsReadiedAndLost()
    {
        registryEvents.clear();
        MessageCapture capture;
        const QString module = pactl({"load-module", "module-null-sink", "sink_name=sinkC"});
        QVERIFY(!module.isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(registryEvents.ids().contains("ready sinkC"), 15000);
        QVERIFY(manager->acquireCapturer("sinkC"));
        QVERIFY(capture.contains(QtInfoMsg, "The audio capture has readied:  \"sinkC\""));
        QVERIFY(!pactl({"unload-module", module}).isNull());
        QTRY_VERIFY_WITH_TIMEOUT(registryEvents.ids().contains("lost sinkC"), 15000);
        QVERIFY(manager->acquireCapturer("sinkC").isNull());
        QCOMPARE(registryEvents.ids(), QStringList({"ready sinkC", "lost sinkC"}));
        QVERIFY(capture.contains(QtInfoMsg, "The audio capture has lost:  \"sinkC\""));
    }

    // A sink unloaded and loaded again a hundred times with no pause. Both
    // servers announce each reload as a removal, then an addition, of a sink
    // of the same name (PulseAudio at a new index; pipewire-pulse at a new
    // index too, its node being made anew): the registry must take them in
    // that order every time and end with a running capturer.
    void sinkReloadedAHundredTimesIsNeverLost()
    {
        registryEvents.clear();
        const QStringList load {"load-module", "module-null-sink", "sink_name=sinkFlap"};
        QString module = pactl(load);
        QVERIFY(!module.isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(registryEvents.ids().contains("ready sinkFlap"), 15000);
        constexpr int kReloads = 100;
        // One shell runs the pairs back to back; it prints the last module's index.
        QProcess flapper;
        flapper.start(QStringLiteral("/bin/sh"),
            {QStringLiteral("-c"),
                QStringLiteral("m=%1; for i in $(seq %2); do pactl unload-module $m || exit 1; "
                               "m=$(pactl load-module module-null-sink sink_name=sinkFlap) || exit 1; done; echo $m")
                    .arg(module)
                    .arg(kReloads)});
        QVERIFY(flapper.waitForFinished(60000));
        QCOMPARE(flapper.exitCode(), 0);
        module = QString::fromUtf8(flapper.readAllStandardOutput()).trimmed();
        QVERIFY(!module.isEmpty());

        // A sink that is gone again before the watcher has read it is never
        // announced, and one gone before its stream opened is lost without
        // having been ready: the registry never says "ready" twice without a
        // "lost" between, and ends with a running capturer.
        const auto flaps = [this] {
            return registryEvents.ids().filter(QStringLiteral("sinkFlap"));
        };
        // Events reach the registry in the server's order: once a sink loaded
        // after the flapping is ready, every reload before it has been taken.
        const QString mark = pactl({"load-module", "module-null-sink", "sink_name=sinkMark"});
        QVERIFY(!mark.isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(registryEvents.ids().contains("ready sinkMark"), 15000);
        QVERIFY(!pactl({"unload-module", mark}).isNull());
        QTRY_VERIFY_WITH_TIMEOUT(
            flaps().last() == QLatin1String("ready sinkFlap") && manager->acquireCapturer("sinkFlap"), 15000);
        const QStringList announced = flaps();
        for (int i = 1; i < announced.size(); ++i) {
            QVERIFY(announced[i] != QLatin1String("ready sinkFlap") || announced[i - 1] != announced[i]);
        }
        QVERIFY(manager->acquireCapturer("sinkFlap")->isRunning());
        const int pairs = announced.count("lost sinkFlap");
        QVERIFY(!pactl({"unload-module", module}).isNull());
        QTRY_COMPARE_WITH_TIMEOUT(flaps().last(), QStringLiteral("lost sinkFlap"), 15000);
        QVERIFY(manager->acquireCapturer("sinkFlap").isNull());
        qInfo() << "reload pairs announced:" << pairs << "of" << kReloads;
    }

    // A sink asked for 24-bit samples, which the capture cannot take as
    // they are. PulseAudio runs it in s24le and the capturer falls back to
    // 16-bit; pipewire-pulse ignores the format and runs it in 32-bit float,
    // which the capturer takes as it is.
    void sinkAskedFor24BitIsCapturedInAFormatTheCaptureTakes()
    {
        registryEvents.clear();
        const QString module = pactl(
            {"load-module", "module-null-sink", "sink_name=sink24", "format=s24le", "rate=48000", "channels=2"});
        QVERIFY(!module.isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(registryEvents.ids().contains("ready sink24"), 15000);
        QSharedPointer<AudioCapturer> capturer = manager->acquireCapturer("sink24");
        QVERIFY(capturer);
        if (PulseTest::onPipeWire()) {
            QCOMPARE(capturer->Format().Format.wFormatTag, WaveFormatTag::Extensible);
            QVERIFY(sameGuid(capturer->Format().SubFormat, subFormatIeeeFloat()));
            QCOMPARE(capturer->Format().Format.wBitsPerSample, std::uint16_t(32));
        } else {
            QCOMPARE(capturer->Format().Format.wFormatTag, WaveFormatTag::Pcm);
            QCOMPARE(capturer->Format().Format.wBitsPerSample, std::uint16_t(16));
        }
        PulseTest::SpectrumCollector collector;
        connect(
            capturer.data(), &AudioCapturer::spectrumsChanged, &collector, &PulseTest::SpectrumCollector::onSpectrums);
        {
            PulseTest::SinePlayer player("sink24", binFrequency(kBinA, 48000), 48000, 0.5);
            QTRY_VERIFY_WITH_TIMEOUT(showsBand(collector.spectra(), kBinA), 15000);
        }
        QVERIFY(!pactl({"unload-module", module}).isNull());
        QTRY_VERIFY_WITH_TIMEOUT(registryEvents.ids().contains("lost sink24"), 15000);
    }

    void defaultSinkChangeMovesNoCapturer()
    {
        QSharedPointer<AudioCapturer> before = manager->acquireCapturer("sinkA");
        QVERIFY(!pactl({"set-default-sink", "sinkB"}).isNull());
        QTRY_COMPARE_WITH_TIMEOUT(manager->defaultCapturer(), QStringLiteral("sinkB"), 15000);
        QCOMPARE(manager->acquireCapturer("sinkA").data(), before.data());
        QVERIFY(before->isRunning());
        // Still recording sinkA: a sine there still shows.
        PulseTest::SpectrumCollector collector;
        connect(
            before.data(), &AudioCapturer::spectrumsChanged, &collector, &PulseTest::SpectrumCollector::onSpectrums);
        {
            PulseTest::SinePlayer player("sinkA", binFrequency(kBinA, 48000), 48000, 0.5);
            QTRY_VERIFY_WITH_TIMEOUT(showsBand(collector.spectra(), kBinA), 15000);
        }
        QVERIFY(!pactl({"set-default-sink", "sinkA"}).isNull());
        QTRY_COMPARE_WITH_TIMEOUT(manager->defaultCapturer(), QStringLiteral("sinkA"), 15000);
    }

    void inputSourcesAreSkipped()
    {
        registryEvents.clear();
        MessageCapture capture;
        // pipewire-pulse has no module-null-source; its null sink becomes an
        // input source when given that media class.
        const QString module = PulseTest::onPipeWire()
            ? pactl({"load-module", "module-null-sink", "sink_name=micA", "media.class=Audio/Source/Virtual"})
            : pactl({"load-module", "module-null-source", "source_name=micA"});
        QVERIFY(!module.isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(
            capture.contains(QtDebugMsg, "The IMMDevice data flow is capture of id: \"micA\""), 15000);
        QVERIFY(!pactl({"unload-module", module}).isNull());
        QVERIFY(manager->acquireCapturer("micA").isNull());
        // Its removal reaches the state task, which holds nothing for it.
        QTest::qWait(0);
        QVERIFY(!registryEvents.ids().contains("ready micA"));
    }

    void failedStreamEndsItsThreadUntilTheSinkReturns()
    {
        QSharedPointer<AudioCapturer> capturer = manager->acquireCapturer("sinkB");
        QVERIFY(capturer && capturer->isRunning());
        registryEvents.clear();
        MessageCapture capture;

        // The server ends the capturer's stream while the sink stays.
        QString monitorIndex;
        for (const QString& line : pactl({"list", "short", "sources"}).split('\n')) {
            const QStringList fields = line.split('\t');
            if (fields.size() > 1 && fields[1] == QLatin1String("sinkB.monitor")) {
                monitorIndex = fields[0];
            }
        }
        QVERIFY(!monitorIndex.isEmpty());
        int killed = 0;
        for (const QString& line : pactl({"list", "short", "source-outputs"}).split('\n')) {
            const QStringList fields = line.split('\t');
            if (fields.size() > 1 && fields[1] == monitorIndex) {
                QVERIFY(PulseTest::killSourceOutput(fields[0]));
                ++killed;
            }
        }
        QCOMPARE(killed, 1);
        QTRY_VERIFY_WITH_TIMEOUT(capturer->isFinished(), 15000);
        QVERIFY(capture.contains(
            QtCriticalMsg, QStringLiteral("An error was happended. code:  %1").arg(AUDCLNT_E_DEVICE_INVALIDATED)));
        // Still registered, silent, and not replaced.
        QCOMPARE(manager->acquireCapturer("sinkB").data(), capturer.data());
        QVERIFY(registryEvents.ids().isEmpty());

        // Announced anew, the sink gets a new capturer.
        QString module;
        for (const QString& line : pactl({"list", "short", "modules"}).split('\n')) {
            if (line.contains(QLatin1String("sink_name=sinkB"))) {
                module = line.split('\t').first();
            }
        }
        QVERIFY(!module.isEmpty());
        QVERIFY(!pactl({"unload-module", module}).isNull());
        QTRY_VERIFY_WITH_TIMEOUT(registryEvents.ids().contains("lost sinkB"), 15000);
        QVERIFY(!pactl({"load-module", "module-null-sink", "sink_name=sinkB", "rate=44100", "channels=6",
                           "channel_map=surround-51", "sink_properties=device.description=SinkB"})
                     .isNull());
        QTRY_VERIFY_WITH_TIMEOUT(registryEvents.ids().contains("ready sinkB"), 15000);
        QSharedPointer<AudioCapturer> renewed = manager->acquireCapturer("sinkB");
        QVERIFY(renewed && renewed.data() != capturer.data());
        QVERIFY(renewed->isRunning());
    }

    void cleanupTestCase()
    {
        manager.reset();
    }
};

QTEST_GUILESS_MAIN(TestPulseAudio)
#include "tst_pulseaudio.moc"
