#include "AudioCapturer.h"
#include "AudioCapturer_p.h"
#include "IAudioCapture.h"
#include "SoundMetaTypes.h"
#include "SoundTestSupport.h"

#include "MessageCapture.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QMetaMethod>
#include <QtCore/QMutex>
#include <QtCore/QProcess>
#include <QtCore/QTextStream>
#include <QtTest/QtTest>

#include <atomic>
#include <climits>
#include <cmath>
#include <random>

extern "C" {
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

using namespace SoundTest;
using Orvanta::Ifaces::WaveFormatExtensible;

namespace {

/// Feeds whole blocks until the capturer publishes, so that the
/// process-wide block count stands at a multiple of three afterwards.
void alignToPublication(PreparedCapturer& prepared, const QByteArray& block)
{
    QSignalSpy spy(prepared.capturer.get(), &AudioCapturer::spectrumsChanged);
    for (int i = 0; i < 3 && spy.isEmpty(); ++i)
        prepared.feed(block);
    QVERIFY(!spy.isEmpty());
}

/// Spectra of the blocks that the capturer publishes while `bytes` are fed
/// in packets of the given sizes (cycled).
QVector<QVector<SoundChannel>> publishedWhileFeeding(
    PreparedCapturer& prepared, const QByteArray& bytes, const std::vector<int>& packetSizes)
{
    QVector<QVector<SoundChannel>> published;
    const auto connection = QObject::connect(prepared.capturer.get(), &AudioCapturer::spectrumsChanged,
        [&](const QVector<SoundChannel>& spectra) { published.append(spectra); });
    size_t next = 0;
    for (int offset = 0; offset < bytes.size();) {
        const int size = std::min(packetSizes[next++ % packetSizes.size()], int(bytes.size()) - offset);
        prepared.feed(bytes.mid(offset, size));
        offset += size;
    }
    QObject::disconnect(connection);
    return published;
}

QStringList repeated(int times, const QString& text)
{
    QStringList texts;
    for (int i = 0; i < times; ++i)
        texts.append(text);
    return texts;
}

/// Publications seen after each of three blocks fed one by one.
QVector<int> publicationsOverThreeBlocks(PreparedCapturer& prepared, const QByteArray& block)
{
    QSignalSpy spy(prepared.capturer.get(), &AudioCapturer::spectrumsChanged);
    QVector<int> seen;
    for (int i = 0; i < 3; ++i) {
        prepared.feed(block);
        seen.append(spy.size());
    }
    return seen;
}

/// Caps the size of FFmpeg's allocations for its lifetime, so that the
/// frame calls of the block path fail as they would out of memory.
class FFmpegAllocationLimit
{
public:
    explicit FFmpegAllocationLimit(size_t bytes)
    {
        av_max_alloc(bytes);
    }
    ~FFmpegAllocationLimit()
    {
        // FFmpeg's own default.
        av_max_alloc(INT_MAX);
    }
    FFmpegAllocationLimit(const FFmpegAllocationLimit&) = delete;
    FFmpegAllocationLimit& operator=(const FFmpegAllocationLimit&) = delete;
};

/// What four blocks fed while FFmpeg may allocate at most @p bytes at once
/// leave behind: the critical lines logged, the spectra published, and
/// whether each block was taken whole (the fill level back at zero).
struct BlocksUnderLimit
{
    QStringList criticals;
    int publications = 0;
    bool everyBlockTaken = true;
};

BlocksUnderLimit feedFourBlocksUnderLimit(PreparedCapturer& prepared, const QByteArray& block, size_t bytes)
{
    MessageCapture messages;
    QSignalSpy spy(prepared.capturer.get(), &AudioCapturer::spectrumsChanged);
    BlocksUnderLimit result;
    {
        const FFmpegAllocationLimit limit(bytes);
        for (int i = 0; i < 4; ++i) {
            result.everyBlockTaken = result.everyBlockTaken && prepared.feed(block) == 0u;
        }
    }
    result.criticals = messages.texts(QtCriticalMsg);
    result.publications = spy.size();
    return result;
}

// Argument that turns this program into the probe of
// firstPeakSignalReachesAnotherThread().
const char kPeakSignalProbe[] = "--first-peak-signal-probe";

/// Runs in a process of its own, where no type has been registered yet:
/// builds a capturer, connects a receiver on another thread automatically and
/// publishes peaks once. Prints what arrived; the exit code says whether it
/// was all there.
int firstPeakSignalProbe()
{
    QTextStream out(stdout);
    if (QMetaType::type("QVector<QVector<QString> >") != QMetaType::UnknownType) {
        out << "registered before any capturer existed\n";
        return 2;
    }
    auto meter = std::make_shared<FakeEndpointMeter>();
    meter->peaks = {0.5f, 0.25f};
    PreparedCapturer prepared(waveFormat(SampleType::S16, 2, 48000, 0x3), meter);

    QThread receiverThread;
    receiverThread.start();
    QObject receiver;
    receiver.moveToThread(&receiverThread);
    QMutex lock;
    QVector<QVector<QString>> received;
    QObject::connect(prepared.capturer.get(), &AudioCapturer::channelsPeakValuesChanged, &receiver,
        [&](const QVector<QVector<QString>>& values) {
            QMutexLocker locker(&lock);
            received = values;
        });
    prepared.d->handlePeakValues();

    QElapsedTimer waited;
    waited.start();
    bool arrived = false;
    while (!arrived && waited.elapsed() < 10000) {
        QThread::msleep(5);
        QMutexLocker locker(&lock);
        arrived = !received.isEmpty();
    }
    receiverThread.quit();
    receiverThread.wait();

    QStringList flat;
    for (const QVector<QString>& pair : qAsConst(received))
        flat.append(QStringList(pair.toList()).join(QLatin1Char(' ')));
    out << flat.join(QLatin1String(" | ")) << '\n';
    return arrived ? 0 : 1;
}

QStringList methodSignatures(const QMetaObject& metaObject)
{
    QStringList signatures;
    for (int i = metaObject.methodOffset(); i < metaObject.methodCount(); ++i)
        signatures.append(QString::fromLatin1(metaObject.method(i).methodSignature()));
    return signatures;
}

} // namespace

class AudioCapturerTest : public QObject
{
    Q_OBJECT

private slots:
    // The records and their signals.
    void signalsAreTheWholeMetaObject();
    void recordTypesAreRegisteredByName();
    void firstPeakSignalReachesAnotherThread();
    void recordLayout();
    void interfaceSignalIsDeliveredQueued();

    // Set-up.
    void constructorTouchesNoDevice();
    void prepareAnalysisSizesTheBuffers();
    void bandLayout_data();
    void bandLayout();
    void lowRatesAreClampedToTheBins();
    void converterFailureIsLogged();
    void plainFormatWithoutMaskUsesDefaultLayout();

    // Blocks.
    void packetsOfAnySizeGiveTheSameBlocks();
    void randomPacketSizesGiveIdenticalSpectra();
    void emptyPacketKeepsFillLevel();
    void silentBlockGivesNegativeInfinity();
    void fullScaleSineAtVolumeOne();
    void monoDeviceGivesTwoChannels();
    void volumeBelowOnePercentLeavesMagnitudesUndivided();
    void volumeIsReadAgainOnlyWhenOld();
    void volumeOfExactlyTheIntervalIsKept();
    void failedVolumeReadKeepsLastVolume();
    void noVolumeSourceKeepsFullVolume();
    void failedConversionIsLoggedAndDropsBlock();
    void failedFrameAllocationIsLoggedAndDropsBlock();
    void failedFrameBufferIsLoggedAndDropsBlock();
    void failedFrameWritabilityIsLoggedAndDropsBlock();
    void resultBuffersAlternate();
    void keptSpectraDoNotChange();
    void queuedReceiverKeepsItsSnapshot();

    // Peaks.
    void peakStrings();
    void zeroPeakGivesNegativeInfinityText();
    void failedPeakReadGivesZeros();
    void noMeterNoPeakSignal();
};

void AudioCapturerTest::signalsAreTheWholeMetaObject()
{
    QCOMPARE(methodSignatures(AudioCapturer::staticMetaObject),
        QStringList({QStringLiteral("spectrumsChanged(QVector<SoundChannel>)"),
            QStringLiteral("channelsPeakValuesChanged(QVector<QVector<QString> >)")}));
    QCOMPARE(methodSignatures(IAudioCapture::staticMetaObject),
        QStringList({QStringLiteral("spectrumsChanged(QVector<SoundChannel>)")}));
    QCOMPARE(AudioCapturer::staticMetaObject.propertyCount(), AudioCapturer::staticMetaObject.propertyOffset());
    QCOMPARE(IAudioCapture::staticMetaObject.propertyCount(), IAudioCapture::staticMetaObject.propertyOffset());
    QCOMPARE(AudioCapturer::staticMetaObject.superClass(), &QThread::staticMetaObject);
    QCOMPARE(IAudioCapture::staticMetaObject.superClass(), &QObject::staticMetaObject);
    QCOMPARE(AudioCapturer::staticMetaObject.method(AudioCapturer::staticMetaObject.methodOffset())
                 .parameterNames()
                 .value(0),
        QByteArray("spectrums"));
}

void AudioCapturerTest::recordTypesAreRegisteredByName()
{
    AudioCapturer capturer(0, 16000);
    for (const char* name : {"QVector<Spectrum>", "QVector<SoundChannel>"}) {
        const int id = QMetaType::type(name);
        QVERIFY2(id != QMetaType::UnknownType, name);
        const QMetaType::TypeFlags flags = QMetaType::typeFlags(id);
        QVERIFY(flags & QMetaType::MovableType);
        QVERIFY(flags & QMetaType::NeedsConstruction);
        QVERIFY(flags & QMetaType::NeedsDestruction);
    }
    QCOMPARE(QMetaType::type("QVector<SoundChannel>"), qMetaTypeId<QVector<SoundChannel>>());
    // Registering again is harmless.
    AudioCapturer another(0, 16000);
    QCOMPARE(QMetaType::type("QVector<SoundChannel>"), qMetaTypeId<QVector<SoundChannel>>());
}

void AudioCapturerTest::firstPeakSignalReachesAnotherThread()
{
    // Earlier cases here registered the type already, so the probe runs in a
    // fresh process of this program.
    QProcess probe;
    probe.start(QCoreApplication::applicationFilePath(), {QString::fromLatin1(kPeakSignalProbe)});
    QVERIFY(probe.waitForFinished(30000));
    const QString errors = QString::fromLocal8Bit(probe.readAllStandardError());
    QCOMPARE(
        QString::fromLocal8Bit(probe.readAllStandardOutput()).trimmed(), QStringLiteral("0.500 -3.010 | 0.250 -6.021"));
    QCOMPARE(probe.exitStatus(), QProcess::NormalExit);
    QCOMPARE(probe.exitCode(), 0);
    QVERIFY2(!errors.contains(QLatin1String("Cannot queue arguments")), qPrintable(errors));

    // Registered by name, as the queued delivery needs it.
    AudioCapturer capturer(0, 16000);
    QCOMPARE(QMetaType::type("QVector<QVector<QString> >"), qMetaTypeId<QVector<QVector<QString>>>());
}

void AudioCapturerTest::recordLayout()
{
    QCOMPARE(sizeof(Spectrum), 3 * sizeof(float));
    QCOMPARE(offsetof(Spectrum, frequency), size_t(0));
    QCOMPARE(offsetof(Spectrum, amplitude), sizeof(float));
    QCOMPARE(offsetof(Spectrum, decibel), 2 * sizeof(float));
    QCOMPARE(sizeof(SoundChannel::channel), size_t(8));
    QCOMPARE(AudioCapturer::samplesSize, quint32(2048));
    QCOMPARE(AudioCapturer::VOLUME_UPDATE_INTERVAL_MS, 100);
}

void AudioCapturerTest::interfaceSignalIsDeliveredQueued()
{
    Orvanta::registerSoundChannelListMetaType();
    QObject parent;
    auto* capture = new IAudioCapture(&parent);
    QCOMPARE(capture->parent(), &parent);

    QVector<SoundChannel> sent(2);
    sent[0].channel = 1;
    sent[1].channel = 2;
    sent[0].spectrums = {{10.0f, 0.0f, -qInf()}};
    sent[1].spectrums = {{10.0f, 2.0f, 6.0206f}};

    QVector<SoundChannel> received;
    QObject receiver;
    connect(
        capture, &IAudioCapture::spectrumsChanged, &receiver,
        [&](const QVector<SoundChannel>& spectra) { received = spectra; }, Qt::QueuedConnection);
    emit capture->spectrumsChanged(sent);
    QVERIFY(received.isEmpty());
    QTRY_COMPARE(received.size(), 2);
    QCOMPARE(received[1].channel, quint64(2));
    QCOMPARE(received[1].spectrums[0].amplitude, 2.0f);
    QVERIFY(std::isinf(received[0].spectrums[0].decibel));
}

void AudioCapturerTest::constructorTouchesNoDevice()
{
    AudioCapturer capturer;
    AudioCapturerPrivate* d = AudioCapturerPrivate::get(&capturer);
    QCOMPARE(d->lowerBound, 20);
    QCOMPARE(d->upperBound, 20000);
    QCOMPARE(d->window.size(), 2048);
    QVERIFY(std::all_of(d->window.cbegin(), d->window.cend(), [](float x) { return x == 0.0f; }));
    QCOMPARE(d->fftInput.size(), 2048);
    QCOMPARE(d->cachedVolume.load(), 1.0f);
    QVERIFY(d->useFront);
    QVERIFY(!d->fft);
    QVERIFY(!d->swrContext);
    QVERIFY(!d->reusableFrame);
    QVERIFY(!d->endpointVolume);
    QVERIFY(!d->meterInfo);
    QCOMPARE(d->meterChannelCount, 0u);
    QVERIFY(!d->volumeTimer.isValid());
}

void AudioCapturerTest::prepareAnalysisSizesTheBuffers()
{
    AudioCapturer capturer(0, 16000);
    AudioCapturerPrivate* d = AudioCapturerPrivate::get(&capturer);
    d->prepareAnalysis();
    QVERIFY(d->fft);
    QCOMPARE(d->fftReal.size(), 1025);
    QCOMPARE(d->fftImag.size(), 1025);
    QCOMPARE(d->window[0], 0.0f);
    QCOMPARE(d->window[2047], 0.0f);
    QCOMPARE(d->window[1023], static_cast<float>((1.0 - std::cos(1023 * 6.283185307179586 / 2047.0)) * 0.5));
    for (const QVector<SoundChannel>* channels : {&d->channelsFront, &d->channelsBack}) {
        QCOMPARE(channels->size(), 2);
        for (const SoundChannel& channel : *channels)
            QVERIFY(channel.spectrums.capacity() >= 2048);
    }
    QVERIFY(d->volumeTimer.isValid());
}

void AudioCapturerTest::bandLayout_data()
{
    QTest::addColumn<int>("rate");
    QTest::addColumn<int>("bands");
    QTest::addColumn<double>("lastFrequency");
    QTest::newRow("44100") << 44100 << 371 << 15919.03;
    QTest::newRow("48000") << 48000 << 341 << 15921.95;
    QTest::newRow("96000") << 96000 << 170 << 15828.29;
    QTest::newRow("192000") << 192000 << 85 << 15734.63;
}

void AudioCapturerTest::bandLayout()
{
    QFETCH(int, rate);
    QFETCH(int, bands);
    QFETCH(double, lastFrequency);
    PreparedCapturer prepared(waveFormat(SampleType::Float, 2, rate, 0x3));
    QCOMPARE(prepared.d->lowerBound, 0);
    QCOMPARE(prepared.d->upperBound, bands);
    QCOMPARE(prepared.d->bandFrequencies.size(), bands);
    QVERIFY(std::abs(prepared.d->bandFrequencies.last().frequency - lastFrequency) < 0.006);

    QSignalSpy spy(prepared.capturer.get(), &AudioCapturer::spectrumsChanged);
    const QByteArray silence(int(prepared.d->blockSizeInBytes()), '\0');
    for (int i = 0; i < 3; ++i)
        prepared.feed(silence);
    QCOMPARE(spy.size(), 1);
    const auto channels = spy.first().first().value<QVector<SoundChannel>>();
    QCOMPARE(channels.size(), 2);
    for (const SoundChannel& channel : channels) {
        QCOMPARE(channel.spectrums.size(), bands);
        QCOMPARE(channel.spectrums.first().frequency, 0.0f);
        QVERIFY2(std::abs(channel.spectrums.last().frequency - lastFrequency) < 0.006,
            qPrintable(QString::number(channel.spectrums.last().frequency, 'f', 3)));
        QCOMPARE(channel.spectrums.last().frequency, prepared.d->bandFrequencies.last().frequency);
    }
}

void AudioCapturerTest::lowRatesAreClampedToTheBins()
{
    // At 8000 Hz the upper bound would be bin 2050 of 1025.
    PreparedCapturer prepared(waveFormat(SampleType::S16, 2, 8000, 0x3));
    QCOMPARE(prepared.converterResult, S_OK);
    QCOMPARE(prepared.d->lowerBound, 0);
    QCOMPARE(prepared.d->upperBound, 1025);

    QSignalSpy spy(prepared.capturer.get(), &AudioCapturer::spectrumsChanged);
    const QByteArray block = sineFrames(SampleType::S16, 2, 8000, 1000, 0.5, 2048);
    for (int i = 0; i < 3; ++i)
        prepared.feed(block);
    QCOMPARE(spy.size(), 1);
    const auto channels = spy.first().first().value<QVector<SoundChannel>>();
    QCOMPARE(channels[0].spectrums.size(), 1025);
    QCOMPARE(channels[0].spectrums.last().frequency, 1024.0f / 1025.0f * 8000.0f);
    QCOMPARE(loudestBand(channels[0].spectrums), 256); // 1 kHz is bin 256 at 8 kHz

    // Bounds that both lie beyond the bins leave no band rather than a negative count.
    PreparedCapturer above(
        waveFormat(SampleType::S16, 2, 8000, 0x3), std::make_shared<FakeEndpointMeter>(), 9000, 12000);
    QCOMPARE(above.d->bandCount(), 0);
}

void AudioCapturerTest::converterFailureIsLogged()
{
    MessageCapture messages;
    PreparedCapturer prepared(waveFormat(SampleType::S16, 2, 0, 0x3));
    QCOMPARE(prepared.converterResult, E_FAIL);
    QCOMPARE(messages.texts(QtCriticalMsg),
        QStringList {QStringLiteral("Failed to init swrContext: 0x \"%1\"").arg(QString::number(AVERROR(EINVAL), 16))});

    // Blocks that reach a capturer without a working converter are dropped, not read.
    const QString dropped = QStringLiteral("Failed to resample the input data, errCode: %1").arg(AVERROR(EINVAL));
    QSignalSpy spy(prepared.capturer.get(), &AudioCapturer::spectrumsChanged);
    const QByteArray block(int(prepared.d->blockSizeInBytes()), '\0');
    for (int i = 0; i < 3; ++i)
        prepared.feed(block);
    prepared.d->swrContext.reset();
    for (int i = 0; i < 3; ++i)
        prepared.feed(block);
    QCOMPARE(spy.size(), 0);
    QCOMPARE(messages.count(QtCriticalMsg, dropped), 6);
}

void AudioCapturerTest::plainFormatWithoutMaskUsesDefaultLayout()
{
    WaveFormatExtensible format = waveFormat(SampleType::S16, 2, 48000, 0);
    format.Format.wFormatTag = Orvanta::Ifaces::WaveFormatTag::Pcm;
    format.Format.cbSize = 0;
    PreparedCapturer prepared(format);
    QCOMPARE(prepared.converterResult, S_OK);
    QSignalSpy spy(prepared.capturer.get(), &AudioCapturer::spectrumsChanged);
    const QByteArray block = sineFrames(SampleType::S16, 2, 48000, 1000, 0.5, 2048);
    for (int i = 0; i < 3; ++i)
        prepared.feed(block);
    QCOMPARE(spy.size(), 1);
    QCOMPARE(loudestBand(spy.first().first().value<QVector<SoundChannel>>()[1].spectrums), 43);
}

void AudioCapturerTest::packetsOfAnySizeGiveTheSameBlocks()
{
    const WaveFormatExtensible format = waveFormat(SampleType::S16, 2, 48000, 0x3);
    const QByteArray stream = noiseFrames(2, 2048 * 9, 5);

    PreparedCapturer whole(format);
    alignToPublication(whole, QByteArray(int(whole.d->blockSizeInBytes()), '\0'));
    const auto expected = publishedWhileFeeding(whole, stream, {int(stream.size())});
    QCOMPARE(expected.size(), 3);
    QCOMPARE(whole.fill, 0u);

    for (const int packet : {1, 3, 4, 1000, 8192, 8193, 3 * 8192 + 5}) {
        PreparedCapturer pieces(format);
        alignToPublication(pieces, QByteArray(int(pieces.d->blockSizeInBytes()), '\0'));
        const auto actual = publishedWhileFeeding(pieces, stream, {packet});
        QCOMPARE(actual.size(), expected.size());
        for (int block = 0; block < expected.size(); ++block) {
            for (int channel = 0; channel < 2; ++channel) {
                QVERIFY(std::memcmp(actual[block][channel].spectrums.constData(),
                            expected[block][channel].spectrums.constData(), 341 * sizeof(Spectrum))
                    == 0);
            }
        }
    }
}

void AudioCapturerTest::randomPacketSizesGiveIdenticalSpectra()
{
    const WaveFormatExtensible format = waveFormat(SampleType::S16, 2, 48000, 0x3);
    const QByteArray stream = noiseFrames(2, 2048 * 12 + 700, 9);

    PreparedCapturer whole(format);
    alignToPublication(whole, QByteArray(int(whole.d->blockSizeInBytes()), '\0'));
    const auto expected = publishedWhileFeeding(whole, stream, {int(stream.size())});
    QCOMPARE(expected.size(), 4);

    std::mt19937 generator(1234);
    std::uniform_int_distribution<int> packetSize(1, 20000);
    for (int round = 0; round < 4; ++round) {
        std::vector<int> sizes(64);
        for (int& size : sizes)
            size = packetSize(generator);
        PreparedCapturer pieces(format);
        alignToPublication(pieces, QByteArray(int(pieces.d->blockSizeInBytes()), '\0'));
        const auto actual = publishedWhileFeeding(pieces, stream, sizes);
        QCOMPARE(actual.size(), expected.size());
        QCOMPARE(pieces.fill, whole.fill);
        for (int block = 0; block < expected.size(); ++block) {
            for (int channel = 0; channel < 2; ++channel) {
                QCOMPARE(actual[block][channel].channel, expected[block][channel].channel);
                QVERIFY(std::memcmp(actual[block][channel].spectrums.constData(),
                            expected[block][channel].spectrums.constData(), 341 * sizeof(Spectrum))
                    == 0);
            }
        }
    }
}

void AudioCapturerTest::emptyPacketKeepsFillLevel()
{
    PreparedCapturer prepared(waveFormat(SampleType::S16, 2, 48000, 0x3));
    QCOMPARE(prepared.feed(QByteArray(100, '\1')), 100u);
    QCOMPARE(prepared.d->processSamples(nullptr, 0, prepared.block, 100), 100u);
}

void AudioCapturerTest::silentBlockGivesNegativeInfinity()
{
    PreparedCapturer prepared(waveFormat(SampleType::S16, 2, 48000, 0x3));
    QSignalSpy spy(prepared.capturer.get(), &AudioCapturer::spectrumsChanged);
    const QByteArray silence(int(prepared.d->blockSizeInBytes()), '\0');
    for (int i = 0; i < 3; ++i)
        prepared.feed(silence);
    QCOMPARE(spy.size(), 1);
    const auto channels = spy.first().first().value<QVector<SoundChannel>>();
    for (const SoundChannel& channel : channels) {
        QCOMPARE(channel.spectrums.size(), 341);
        for (const Spectrum& band : channel.spectrums) {
            QCOMPARE(band.amplitude, 0.0f);
            QVERIFY(std::isinf(band.decibel));
            QVERIFY(band.decibel < 0.0f);
        }
    }
}

void AudioCapturerTest::fullScaleSineAtVolumeOne()
{
    // Bin 100 of 2048 at 48 kHz; a float stream keeps the full scale exact.
    const double hz = 100.0 * 48000.0 / 2048.0;
    PreparedCapturer prepared(waveFormat(SampleType::Float, 2, 48000, 0x3));
    QSignalSpy spy(prepared.capturer.get(), &AudioCapturer::spectrumsChanged);
    for (int i = 0; i < 3; ++i)
        prepared.feed(sineFrames(SampleType::Float, 2, 48000, hz, 1.0, 2048, i * 2048));
    QCOMPARE(spy.size(), 1);
    const auto channels = spy.first().first().value<QVector<SoundChannel>>();
    for (const SoundChannel& channel : channels) {
        const Spectrum& band = channel.spectrums[100];
        QVERIFY2(std::abs(band.amplitude - 512.0f) < 1.0f, qPrintable(QString::number(band.amplitude)));
        QVERIFY2(std::abs(band.decibel - 54.19f) < 0.02f, qPrintable(QString::number(band.decibel)));
        QCOMPARE(loudestBand(channel.spectrums), 100);
    }
}

void AudioCapturerTest::monoDeviceGivesTwoChannels()
{
    PreparedCapturer prepared(waveFormat(SampleType::S16, 1, 48000, 0x4));
    QCOMPARE(prepared.d->blockSizeInBytes(), 4096u);
    QSignalSpy spy(prepared.capturer.get(), &AudioCapturer::spectrumsChanged);
    for (int i = 0; i < 3; ++i)
        prepared.feed(sineFrames(SampleType::S16, 1, 48000, 1000, 0.5, 2048, i * 2048));
    QCOMPARE(spy.size(), 1);
    const auto channels = spy.first().first().value<QVector<SoundChannel>>();
    QCOMPARE(channels.size(), 2);
    QCOMPARE(channels[0].channel, quint64(1));
    QCOMPARE(channels[1].channel, quint64(2));
    QCOMPARE(channels[0].spectrums.size(), 341);
    QCOMPARE(channels[1].spectrums.size(), 341);
    QCOMPARE(loudestBand(channels[0].spectrums), 43);
    QCOMPARE(loudestBand(channels[1].spectrums), 43);
}

void AudioCapturerTest::volumeBelowOnePercentLeavesMagnitudesUndivided()
{
    const WaveFormatExtensible format = waveFormat(SampleType::Float, 2, 48000, 0x3);
    const QByteArray block = sineFrames(SampleType::Float, 2, 48000, 1000, 0.5, 2048);
    auto amplitudeAt = [&](float volume) {
        auto meter = std::make_shared<FakeEndpointMeter>();
        meter->volume = volume;
        PreparedCapturer prepared(format, meter);
        QVector<SoundChannel> last;
        QObject::connect(prepared.capturer.get(), &AudioCapturer::spectrumsChanged,
            [&](const QVector<SoundChannel>& spectra) { last = spectra; });
        for (int i = 0; i < 3; ++i) {
            // An invalid timer makes the next block read the volume.
            prepared.d->volumeTimer.invalidate();
            prepared.feed(block);
        }
        return last.isEmpty() ? -1.0f : last[0].spectrums[43].amplitude;
    };

    const float full = amplitudeAt(1.0f);
    QVERIFY(full > 0.0f);
    QCOMPARE(amplitudeAt(0.009f), full);
    QCOMPARE(amplitudeAt(0.0f), full);
    const float onePercent = amplitudeAt(0.01f);
    QVERIFY2(std::abs(onePercent / full - 100.0f) < 0.01f, qPrintable(QString::number(onePercent / full)));
    const float half = amplitudeAt(0.5f);
    QVERIFY(std::abs(half / full - 2.0f) < 1e-4f);
}

void AudioCapturerTest::volumeIsReadAgainOnlyWhenOld()
{
    auto meter = std::make_shared<FakeEndpointMeter>();
    meter->volume = 0.5f;
    PreparedCapturer prepared(waveFormat(SampleType::S16, 2, 48000, 0x3), meter);
    const QByteArray silence(int(prepared.d->blockSizeInBytes()), '\0');

    // The timer started with the analysis, so a fresh cache is kept.
    prepared.feed(silence);
    QCOMPARE(meter->volumeReads, 0);
    QCOMPARE(prepared.d->cachedVolume.load(), 1.0f);

    QTest::qWait(AudioCapturer::VOLUME_UPDATE_INTERVAL_MS + 20);
    prepared.feed(silence);
    QCOMPARE(meter->volumeReads, 1);
    QCOMPARE(prepared.d->cachedVolume.load(), 0.5f);
    QVERIFY(prepared.d->volumeTimer.elapsed() <= AudioCapturer::VOLUME_UPDATE_INTERVAL_MS);

    prepared.d->volumeTimer.invalidate();
    prepared.feed(silence);
    QCOMPARE(meter->volumeReads, 2);
}

void AudioCapturerTest::volumeOfExactlyTheIntervalIsKept()
{
    QVERIFY(!AudioCapturerPrivate::volumeCacheExpired(true, 0));
    QVERIFY(!AudioCapturerPrivate::volumeCacheExpired(true, 100));
    QVERIFY(AudioCapturerPrivate::volumeCacheExpired(true, 101));
    QVERIFY(AudioCapturerPrivate::volumeCacheExpired(false, 0));
}

void AudioCapturerTest::failedVolumeReadKeepsLastVolume()
{
    auto meter = std::make_shared<FakeEndpointMeter>();
    meter->volume = 0.25f;
    PreparedCapturer prepared(waveFormat(SampleType::S16, 2, 48000, 0x3), meter);
    prepared.d->updateVolumeCache();
    QCOMPARE(prepared.d->cachedVolume.load(), 0.25f);

    meter->volume = 0.75f;
    meter->volumeResult = AUDCLNT_E_DEVICE_INVALIDATED;
    prepared.d->volumeTimer.invalidate();
    const QByteArray silence(int(prepared.d->blockSizeInBytes()), '\0');
    MessageCapture messages;
    prepared.feed(silence);
    QCOMPARE(prepared.d->cachedVolume.load(), 0.25f);
    // Neither the value nor the timer moved, so the next block tries again.
    QVERIFY(!prepared.d->volumeTimer.isValid());
    const int reads = meter->volumeReads;
    prepared.feed(silence);
    QCOMPARE(meter->volumeReads, reads + 1);
    QVERIFY(messages.messages().isEmpty());

    meter->volumeResult = S_OK;
    prepared.feed(silence);
    QCOMPARE(prepared.d->cachedVolume.load(), 0.75f);
    QVERIFY(prepared.d->volumeTimer.isValid());
}

void AudioCapturerTest::noVolumeSourceKeepsFullVolume()
{
    PreparedCapturer prepared(waveFormat(SampleType::S16, 2, 48000, 0x3), nullptr);
    QVERIFY(!prepared.d->endpointVolume);
    prepared.d->volumeTimer.invalidate();
    prepared.feed(QByteArray(int(prepared.d->blockSizeInBytes()), '\0'));
    QCOMPARE(prepared.d->cachedVolume.load(), 1.0f);
}

void AudioCapturerTest::failedConversionIsLoggedAndDropsBlock()
{
    PreparedCapturer prepared(waveFormat(SampleType::S16, 2, 48000, 0x3));
    const QByteArray block = sineFrames(SampleType::S16, 2, 48000, 1000, 0.5, 2048);
    alignToPublication(prepared, block);

    swr_close(prepared.d->swrContext.get());
    MessageCapture messages;
    QSignalSpy spy(prepared.capturer.get(), &AudioCapturer::spectrumsChanged);
    const bool frontBefore = prepared.d->useFront;
    // Four, so that a third block that counted would publish, and the fourth
    // would move the count off its multiple of three.
    for (int i = 0; i < 4; ++i)
        QCOMPARE(prepared.feed(block), 0u);
    QCOMPARE(spy.size(), 0);
    QCOMPARE(prepared.d->useFront, frontBefore);
    QCOMPARE(messages.texts(QtCriticalMsg),
        repeated(4, QStringLiteral("Failed to resample the input data, errCode: %1").arg(AVERROR(EINVAL))));

    // The dropped blocks left the count alone: the third good block publishes, not an earlier one.
    QVERIFY(swr_init(prepared.d->swrContext.get()) >= 0);
    QCOMPARE(publicationsOverThreeBlocks(prepared, block), QVector<int>({0, 0, 1}));
}

void AudioCapturerTest::failedFrameAllocationIsLoggedAndDropsBlock()
{
    PreparedCapturer prepared(waveFormat(SampleType::S16, 2, 48000, 0x3));
    const QByteArray block = sineFrames(SampleType::S16, 2, 48000, 1000, 0.5, 2048);
    alignToPublication(prepared, block);
    // As before the first block: no frame yet.
    prepared.d->reusableFrame.reset();

    const BlocksUnderLimit dropped = feedFourBlocksUnderLimit(prepared, block, 1);
    QCOMPARE(dropped.criticals, repeated(4, QStringLiteral("Failed to allocate reusable AVFrame")));
    QCOMPARE(dropped.publications, 0);
    QVERIFY(dropped.everyBlockTaken);
    QVERIFY(!prepared.d->reusableFrame);

    // The next block tries again, and the dropped ones did not count.
    QCOMPARE(publicationsOverThreeBlocks(prepared, block), QVector<int>({0, 0, 1}));
    QVERIFY(prepared.d->reusableFrame);
}

void AudioCapturerTest::failedFrameBufferIsLoggedAndDropsBlock()
{
    PreparedCapturer prepared(waveFormat(SampleType::S16, 2, 48000, 0x3));
    const QByteArray block = sineFrames(SampleType::S16, 2, 48000, 1000, 0.5, 2048);
    alignToPublication(prepared, block);
    prepared.d->reusableFrame.reset();

    // The frame itself fits; its sample planes of 8 KiB each do not.
    const BlocksUnderLimit dropped = feedFourBlocksUnderLimit(prepared, block, 4096);
    QCOMPARE(
        dropped.criticals, repeated(4, QStringLiteral("Failed to get frame buffer, errCode: %1").arg(AVERROR(ENOMEM))));
    QCOMPARE(dropped.publications, 0);
    QVERIFY(dropped.everyBlockTaken);
    // The frame without a buffer was freed: the next block starts afresh.
    QVERIFY(!prepared.d->reusableFrame);

    QCOMPARE(publicationsOverThreeBlocks(prepared, block), QVector<int>({0, 0, 1}));
    QVERIFY(prepared.d->reusableFrame);
}

void AudioCapturerTest::failedFrameWritabilityIsLoggedAndDropsBlock()
{
    PreparedCapturer prepared(waveFormat(SampleType::S16, 2, 48000, 0x3));
    const QByteArray block = sineFrames(SampleType::S16, 2, 48000, 1000, 0.5, 2048);
    alignToPublication(prepared, block);
    QVERIFY(prepared.d->reusableFrame);
    const AVFrame* const frame = prepared.d->reusableFrame.get();

    // A second reference to the frame's buffer makes it read-only, so that
    // making it writable needs a new buffer, which does not fit.
    Orvanta::AVFramePtr sharer(av_frame_alloc());
    QCOMPARE(av_frame_ref(sharer.get(), prepared.d->reusableFrame.get()), 0);
    const BlocksUnderLimit dropped = feedFourBlocksUnderLimit(prepared, block, 4096);
    QCOMPARE(dropped.criticals,
        repeated(4, QStringLiteral("Failed to make frame writable, errCode: %1").arg(AVERROR(ENOMEM))));
    QCOMPARE(dropped.publications, 0);
    QVERIFY(dropped.everyBlockTaken);
    // The frame is kept for the next block.
    QCOMPARE(prepared.d->reusableFrame.get(), frame);

    QCOMPARE(publicationsOverThreeBlocks(prepared, block), QVector<int>({0, 0, 1}));
}

void AudioCapturerTest::resultBuffersAlternate()
{
    PreparedCapturer prepared(waveFormat(SampleType::S16, 2, 48000, 0x3));
    const QByteArray block = sineFrames(SampleType::S16, 2, 48000, 1000, 0.5, 2048);
    QVERIFY(prepared.d->useFront);
    prepared.feed(block);
    QVERIFY(!prepared.d->useFront);
    QCOMPARE(prepared.d->channelsFront[0].spectrums.size(), 341);
    QCOMPARE(prepared.d->channelsBack[0].spectrums.size(), 0);
    prepared.feed(block);
    QVERIFY(prepared.d->useFront);
    QCOMPARE(prepared.d->channelsBack[0].spectrums.size(), 341);
    QCOMPARE(prepared.d->channelsBack[1].channel, quint64(2));
}

void AudioCapturerTest::keptSpectraDoNotChange()
{
    PreparedCapturer prepared(waveFormat(SampleType::S16, 2, 48000, 0x3));
    const QByteArray loud = sineFrames(SampleType::S16, 2, 48000, 1000, 0.5, 2048);
    const QByteArray silence(int(prepared.d->blockSizeInBytes()), '\0');
    alignToPublication(prepared, silence);

    QVector<SoundChannel> kept;
    const auto connection = connect(
        prepared.capturer.get(), &AudioCapturer::spectrumsChanged, this, [&](const QVector<SoundChannel>& spectra) {
            if (kept.isEmpty())
                kept = spectra;
        });
    for (int i = 0; i < 3; ++i)
        prepared.feed(loud);
    disconnect(connection);
    QCOMPARE(kept.size(), 2);
    const QVector<Spectrum> snapshot(kept[0].spectrums.cbegin(), kept[0].spectrums.cend());

    // Many more blocks of silence go through both result buffers.
    for (int i = 0; i < 12; ++i)
        prepared.feed(silence);
    QCOMPARE(kept[0].spectrums.size(), snapshot.size());
    QVERIFY(std::memcmp(kept[0].spectrums.constData(), snapshot.constData(), sizeof(Spectrum) * 341) == 0);
    QVERIFY(kept[0].spectrums[43].amplitude > 1.0f);
    QCOMPARE(prepared.d->channelsFront[0].spectrums[43].amplitude, 0.0f);
    QCOMPARE(prepared.d->channelsBack[0].spectrums[43].amplitude, 0.0f);
}

void AudioCapturerTest::queuedReceiverKeepsItsSnapshot()
{
    PreparedCapturer prepared(waveFormat(SampleType::S16, 2, 48000, 0x3));
    const QByteArray loud = sineFrames(SampleType::S16, 2, 48000, 1000, 0.5, 2048);
    const QByteArray silence(int(prepared.d->blockSizeInBytes()), '\0');

    // Start from a whole multiple of three, so that the first publication is the third loud block.
    alignToPublication(prepared, silence);

    // The receiver lives on this thread; the blocks are computed on another,
    // as on a capture thread, so the spectra arrive queued.
    QObject receiver;
    QVector<SoundChannel> kept;
    int received = 0;
    connect(
        prepared.capturer.get(), &AudioCapturer::spectrumsChanged, &receiver,
        [&](const QVector<SoundChannel>& spectra) {
            if (received++ == 0)
                kept = spectra;
        },
        Qt::QueuedConnection);

    std::atomic<bool> stop {false};
    std::atomic<int> blocks {0};
    std::unique_ptr<QThread> worker(QThread::create([&] {
        // Loud blocks first, so that the kept spectrum is a loud one; silence after.
        for (int i = 0; i < 3; ++i) {
            prepared.feed(loud);
            ++blocks;
        }
        while (!stop) {
            prepared.feed(silence);
            ++blocks;
            QThread::msleep(2);
        }
    }));
    worker->start();
    // Stops the worker on every way out, failed checks included.
    const auto stopWorkerOnExit = qScopeGuard([&] {
        stop = true;
        worker->wait();
    });

    QTRY_VERIFY_WITH_TIMEOUT(received >= 1, 10000);
    const QVector<Spectrum> snapshot(kept[0].spectrums.cbegin(), kept[0].spectrums.cend());
    QVERIFY(snapshot[43].amplitude > 1.0f);

    // Held for a while, as a slow consumer would, while blocks go on.
    QTest::qWait(1000);
    QTRY_VERIFY_WITH_TIMEOUT(received >= 10, 20000);
    stop = true;
    worker->wait();
    QVERIFY(blocks > 30);

    QCOMPARE(kept[0].spectrums.size(), snapshot.size());
    QVERIFY(std::memcmp(kept[0].spectrums.constData(), snapshot.constData(), sizeof(Spectrum) * 341) == 0);
}

void AudioCapturerTest::peakStrings()
{
    auto meter = std::make_shared<FakeEndpointMeter>();
    meter->peaks = {0.5f, 1.0f, 0.25f};
    PreparedCapturer prepared(waveFormat(SampleType::S16, 2, 48000, 0x3), meter);
    QSignalSpy spy(prepared.capturer.get(), &AudioCapturer::channelsPeakValuesChanged);
    prepared.d->handlePeakValues();
    QCOMPARE(spy.size(), 1);
    const auto values = spy.first().first().value<QVector<QVector<QString>>>();
    QCOMPARE(values.size(), 3);
    QCOMPARE(values[0], QVector<QString>({QStringLiteral("0.500"), QStringLiteral("-3.010")}));
    QCOMPARE(values[1], QVector<QString>({QStringLiteral("1.000"), QStringLiteral("0.000")}));
    QCOMPARE(values[2], QVector<QString>({QStringLiteral("0.250"), QStringLiteral("-6.021")}));
}

void AudioCapturerTest::zeroPeakGivesNegativeInfinityText()
{
    auto meter = std::make_shared<FakeEndpointMeter>();
    meter->peaks = {0.0f, 0.5f};
    PreparedCapturer prepared(waveFormat(SampleType::S16, 2, 48000, 0x3), meter);
    QSignalSpy spy(prepared.capturer.get(), &AudioCapturer::channelsPeakValuesChanged);
    prepared.d->handlePeakValues();
    QCOMPARE(spy.size(), 1);
    const auto values = spy.first().first().value<QVector<QVector<QString>>>();
    QCOMPARE(values[0][0], QStringLiteral("0.000"));
    QCOMPARE(values[0][1], QString::number(-qInf(), 'f', 3));
    QCOMPARE(values[1][1], QStringLiteral("-3.010"));
}

void AudioCapturerTest::failedPeakReadGivesZeros()
{
    auto meter = std::make_shared<FakeEndpointMeter>();
    meter->peaks = {0.5f, 0.5f};
    meter->peaksResult = E_FAIL;
    PreparedCapturer prepared(waveFormat(SampleType::S16, 2, 48000, 0x3), meter);
    QSignalSpy spy(prepared.capturer.get(), &AudioCapturer::channelsPeakValuesChanged);
    prepared.d->handlePeakValues();
    QCOMPARE(spy.size(), 1);
    const auto values = spy.first().first().value<QVector<QVector<QString>>>();
    QCOMPARE(values.size(), 2);
    for (const auto& pair : values)
        QCOMPARE(pair, QVector<QString>({QStringLiteral("0.000"), QString::number(-qInf(), 'f', 3)}));
}

void AudioCapturerTest::noMeterNoPeakSignal()
{
    PreparedCapturer prepared(waveFormat(SampleType::S16, 2, 48000, 0x3));
    prepared.d->meterInfo.reset();
    prepared.d->meterChannelCount = 0;
    QSignalSpy peaks(prepared.capturer.get(), &AudioCapturer::channelsPeakValuesChanged);
    QSignalSpy spectra(prepared.capturer.get(), &AudioCapturer::spectrumsChanged);
    const QByteArray block = sineFrames(SampleType::S16, 2, 48000, 1000, 0.5, 2048);
    for (int i = 0; i < 9; ++i) {
        prepared.d->handlePeakValues();
        prepared.feed(block);
    }
    QCOMPARE(peaks.size(), 0);
    QCOMPARE(spectra.size(), 3);
}

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    if (argc > 1 && qstrcmp(argv[1], kPeakSignalProbe) == 0)
        return firstPeakSignalProbe();
    AudioCapturerTest test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}
#include "tst_audiocapturer.moc"
