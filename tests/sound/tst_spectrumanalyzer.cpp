#include "AudioCapturer_p.h"
#include "SoundTestSupport.h"
#include "SpectrumAnalyzer.h"

#include "MessageCapture.h"

#include <QtTest/QtTest>

#include <cmath>
#include <random>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/samplefmt.h>
}

using namespace SoundTest;
using Orvanta::Ifaces::WaveFormatExtensible;
namespace WaveFormatTag = Orvanta::Ifaces::WaveFormatTag;

Q_DECLARE_METATYPE(SampleType)

namespace {

AVSampleFormat avFormatOf(SampleType type)
{
    switch (type) {
    case SampleType::U8:
        return AV_SAMPLE_FMT_U8;
    case SampleType::S16:
        return AV_SAMPLE_FMT_S16;
    case SampleType::S32:
        return AV_SAMPLE_FMT_S32;
    case SampleType::Float:
        return AV_SAMPLE_FMT_FLT;
    case SampleType::Double:
        return AV_SAMPLE_FMT_DBL;
    }
    return AV_SAMPLE_FMT_NONE;
}

QVector<QVector<SoundChannel>> feed(SpectrumAnalyzer& analyzer, const QByteArray& bytes)
{
    return analyzer.process(reinterpret_cast<const unsigned char*>(bytes.constData()), bytes.size());
}

WaveFormatExtensible plainFormat(std::uint16_t tag, std::uint16_t bits)
{
    WaveFormatExtensible format {};
    format.Format.wFormatTag = tag;
    format.Format.wBitsPerSample = bits;
    format.Format.nChannels = 2;
    // A plain format leaves SubFormat unread, so fill it with something else.
    format.SubFormat = Orvanta::Ifaces::subFormatIeeeFloat();
    return format;
}

QString hexCode(int code)
{
    return QString::number(code, 16);
}

} // namespace

class SpectrumAnalyzerTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    // The wave format's mapping onto FFmpeg's terms.
    void sampleFormatTable_data();
    void sampleFormatTable();
    void twentyFourBitPcmIsUnknown();
    void extensibleWithOtherSubFormatIsUnknown();
    void channelMaskKeepsItsLowBits();

    // The analyzer.
    void defaults();
    void noFormatGivesNothing();
    void nullOrEmptyInputLeavesCacheAlone();
    void twoAndAHalfBlocks();
    void secondSetInputFormatDiscardsPartialBlock();
    void setVolumeClamps();
    void zeroVolumeLeavesMagnitudesUndivided();
    void volumeDividesMagnitudes();
    void bandLayout_data();
    void bandLayout();
    void lowRatesAreClampedToTheBins();
    void everyFormatAndLayout_data();
    void everyFormatAndLayout();
    void randomPacketSizesGiveIdenticalSpectra();
    void failedConversionDropsBlockAndClearsCache();
    void optionFailuresAreLogged_data();
    void optionFailuresAreLogged();
    void silentBlockGivesNegativeInfinity();
    void windowIsSymmetricHann();
};

void SpectrumAnalyzerTest::initTestCase()
{
    qRegisterMetaType<SampleType>();
}

void SpectrumAnalyzerTest::sampleFormatTable_data()
{
    QTest::addColumn<int>("tag");
    QTest::addColumn<bool>("pcmSubFormat");
    QTest::addColumn<int>("bits");
    QTest::addColumn<int>("expected");
    QTest::newRow("pcm 8") << 1 << false << 8 << int(AV_SAMPLE_FMT_U8);
    QTest::newRow("pcm 16") << 1 << false << 16 << int(AV_SAMPLE_FMT_S16);
    QTest::newRow("pcm 32") << 1 << false << 32 << int(AV_SAMPLE_FMT_S32);
    QTest::newRow("pcm 64") << 1 << false << 64 << -1;
    QTest::newRow("float 32") << 3 << true << 32 << int(AV_SAMPLE_FMT_FLT);
    QTest::newRow("float 64") << 3 << true << 64 << int(AV_SAMPLE_FMT_DBL);
    QTest::newRow("float 16") << 3 << true << 16 << -1;
    QTest::newRow("extensible pcm 8") << 65534 << true << 8 << 0;
    QTest::newRow("extensible pcm 16") << 65534 << true << 16 << 1;
    QTest::newRow("extensible pcm 32") << 65534 << true << 32 << 2;
    QTest::newRow("extensible float 32") << 65534 << false << 32 << 3;
    QTest::newRow("extensible float 64") << 65534 << false << 64 << 4;
    QTest::newRow("extensible float 8") << 65534 << false << 8 << -1;
    QTest::newRow("other tag") << 2 << true << 16 << -1;
}

void SpectrumAnalyzerTest::sampleFormatTable()
{
    QFETCH(int, tag);
    QFETCH(bool, pcmSubFormat);
    QFETCH(int, bits);
    QFETCH(int, expected);
    WaveFormatExtensible format = plainFormat(static_cast<std::uint16_t>(tag), static_cast<std::uint16_t>(bits));
    format.SubFormat = pcmSubFormat ? Orvanta::Ifaces::subFormatPcm() : Orvanta::Ifaces::subFormatIeeeFloat();
    if (tag != WaveFormatTag::Extensible) {
        // The plain tags ignore SubFormat whatever it holds.
        format.SubFormat = Orvanta::Ifaces::Guid {0xdeadbeefu, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
    }
    QCOMPARE(int(AudioCapturerPrivate::convertSampleFormat(format)), expected);
}

void SpectrumAnalyzerTest::twentyFourBitPcmIsUnknown()
{
    QCOMPARE(int(AudioCapturerPrivate::convertSampleFormat(plainFormat(WaveFormatTag::Pcm, 24))), -1);
    WaveFormatExtensible extensible = plainFormat(WaveFormatTag::Extensible, 24);
    extensible.SubFormat = Orvanta::Ifaces::subFormatPcm();
    QCOMPARE(int(AudioCapturerPrivate::convertSampleFormat(extensible)), -1);
}

void SpectrumAnalyzerTest::extensibleWithOtherSubFormatIsUnknown()
{
    for (std::uint16_t bits : {8, 16, 32, 64}) {
        WaveFormatExtensible format = plainFormat(WaveFormatTag::Extensible, bits);
        format.SubFormat = Orvanta::Ifaces::subFormatPcm();
        format.SubFormat.Data1 = 0x00000092u; // another audio sub-type
        QCOMPARE(int(AudioCapturerPrivate::convertSampleFormat(format)), -1);
    }
}

void SpectrumAnalyzerTest::channelMaskKeepsItsLowBits()
{
    WaveFormatExtensible format {};
    format.dwChannelMask = 3;
    QCOMPARE(AudioCapturerPrivate::convertToAvChannelLayout(format), std::uint64_t(3));
    format.dwChannelMask = 0x3F | (1u << 18);
    QCOMPARE(AudioCapturerPrivate::convertToAvChannelLayout(format), std::uint64_t(0x3F));
    format.dwChannelMask = 0x80000000u | (1u << 17) | 1u;
    QCOMPARE(AudioCapturerPrivate::convertToAvChannelLayout(format), std::uint64_t((1u << 17) | 1u));
    // FFmpeg names the same speakers by the same bits.
    QCOMPARE(std::uint64_t(AV_CH_TOP_BACK_RIGHT), std::uint64_t(1u << 17));
    QCOMPARE(std::uint64_t(AV_CH_LAYOUT_5POINT1_BACK), std::uint64_t(0x3F));
    QCOMPARE(std::uint64_t(AV_CH_LAYOUT_7POINT1), std::uint64_t(0x63F));
}

void SpectrumAnalyzerTest::defaults()
{
    SpectrumAnalyzer analyzer;
    QCOMPARE(analyzer.volumeScale(), 1.0);
    QCOMPARE(analyzer.cacheFillLevel(), 0);
    QCOMPARE(analyzer.lowerFrequency, 20);
    QCOMPARE(analyzer.upperFrequency, 16000);
    QVERIFY(!analyzer.swrContext);
    QVERIFY(!analyzer.cacheFrame);
    QCOMPARE(analyzer.window.size(), 2048);
    QCOMPARE(analyzer.fftInput.size(), 2048);
    QVERIFY(analyzer.reservedReal.isEmpty());
    QVERIFY(analyzer.reservedImag.isEmpty());
}

void SpectrumAnalyzerTest::noFormatGivesNothing()
{
    SpectrumAnalyzer analyzer;
    const QByteArray bytes = sineFrames(SampleType::S16, 2, 48000, 1000, 0.5, 4096);
    QVERIFY(feed(analyzer, bytes).isEmpty());
    QCOMPARE(analyzer.cacheFillLevel(), 0);
}

void SpectrumAnalyzerTest::nullOrEmptyInputLeavesCacheAlone()
{
    SpectrumAnalyzer analyzer;
    analyzer.setInputFormat(AV_SAMPLE_FMT_S16, 48000, AV_CH_LAYOUT_STEREO);
    QVERIFY(feed(analyzer, sineFrames(SampleType::S16, 2, 48000, 1000, 0.5, 100)).isEmpty());
    QCOMPARE(analyzer.cacheFillLevel(), 400);

    QVERIFY(analyzer.process(nullptr, 4096).isEmpty());
    QCOMPARE(analyzer.cacheFillLevel(), 400);
    const unsigned char byte = 0;
    QVERIFY(analyzer.process(&byte, 0).isEmpty());
    QVERIFY(analyzer.process(&byte, -5).isEmpty());
    QCOMPARE(analyzer.cacheFillLevel(), 400);
}

void SpectrumAnalyzerTest::twoAndAHalfBlocks()
{
    SpectrumAnalyzer analyzer;
    analyzer.setInputFormat(AV_SAMPLE_FMT_S16, 48000, AV_CH_LAYOUT_STEREO);
    const int blockBytes = 2048 * 2 * 2;
    const QByteArray bytes = sineFrames(SampleType::S16, 2, 48000, 1000, 0.5, 2048 * 3);

    const auto first = feed(analyzer, bytes.left(blockBytes * 5 / 2));
    QCOMPARE(first.size(), 2);
    QCOMPARE(analyzer.cacheFillLevel(), blockBytes / 2);
    for (const auto& spectrum : first) {
        QCOMPARE(spectrum.size(), 2);
        QCOMPARE(spectrum[0].channel, quint64(1));
        QCOMPARE(spectrum[1].channel, quint64(2));
        QCOMPARE(spectrum[0].spectrums.size(), 682);
        QCOMPARE(spectrum[1].spectrums.size(), 682);
    }

    const auto third = feed(analyzer, bytes.mid(blockBytes * 5 / 2));
    QCOMPARE(third.size(), 1);
    QCOMPARE(analyzer.cacheFillLevel(), 0);
    QCOMPARE(loudestBand(third[0][0].spectrums), 43);
}

void SpectrumAnalyzerTest::secondSetInputFormatDiscardsPartialBlock()
{
    SpectrumAnalyzer analyzer;
    analyzer.setInputFormat(AV_SAMPLE_FMT_S16, 48000, AV_CH_LAYOUT_STEREO);
    QVERIFY(feed(analyzer, QByteArray(6000, '\x7f')).isEmpty());
    QCOMPARE(analyzer.cacheFillLevel(), 6000);

    analyzer.setInputFormat(AV_SAMPLE_FMT_S16, 48000, AV_CH_LAYOUT_STEREO);
    QCOMPARE(analyzer.cacheFillLevel(), 0);
    // A whole block of silence now completes one block, with nothing of the
    // discarded bytes in it.
    const auto result = feed(analyzer, QByteArray(8192, '\0'));
    QCOMPARE(result.size(), 1);
    for (const Spectrum& band : result[0][0].spectrums)
        QCOMPARE(band.amplitude, 0.0f);
}

void SpectrumAnalyzerTest::setVolumeClamps()
{
    SpectrumAnalyzer analyzer;
    analyzer.setVolume(2.0);
    QCOMPARE(analyzer.volumeScale(), 1.0);
    analyzer.setVolume(-1.0);
    QCOMPARE(analyzer.volumeScale(), 0.0);
    analyzer.setVolume(0.25);
    QCOMPARE(analyzer.volumeScale(), 0.25);
}

void SpectrumAnalyzerTest::zeroVolumeLeavesMagnitudesUndivided()
{
    const QByteArray bytes = sineFrames(SampleType::Float, 2, 48000, 1000, 0.5, 2048);
    SpectrumAnalyzer reference;
    reference.setInputFormat(AV_SAMPLE_FMT_FLT, 48000, AV_CH_LAYOUT_STEREO);
    SpectrumAnalyzer silenced;
    silenced.setInputFormat(AV_SAMPLE_FMT_FLT, 48000, AV_CH_LAYOUT_STEREO);
    silenced.setVolume(-1.0);
    QCOMPARE(silenced.volumeScale(), 0.0);

    const auto expected = feed(reference, bytes);
    const auto actual = feed(silenced, bytes);
    QCOMPARE(actual.size(), 1);
    for (int i = 0; i < expected[0][0].spectrums.size(); ++i)
        QCOMPARE(actual[0][0].spectrums[i].amplitude, expected[0][0].spectrums[i].amplitude);
}

void SpectrumAnalyzerTest::volumeDividesMagnitudes()
{
    const QByteArray bytes = sineFrames(SampleType::Float, 2, 48000, 1000, 0.5, 2048);
    SpectrumAnalyzer reference;
    reference.setInputFormat(AV_SAMPLE_FMT_FLT, 48000, AV_CH_LAYOUT_STEREO);
    SpectrumAnalyzer halved;
    halved.setInputFormat(AV_SAMPLE_FMT_FLT, 48000, AV_CH_LAYOUT_STEREO);
    halved.setVolume(0.5);

    const Spectrum expected = feed(reference, bytes)[0][1].spectrums[43];
    const Spectrum actual = feed(halved, bytes)[0][1].spectrums[43];
    QVERIFY(std::abs(actual.amplitude - 2.0f * expected.amplitude) < 1e-3f * actual.amplitude);
    QVERIFY(std::abs(actual.decibel - (expected.decibel + 6.0206f)) < 1e-3f);
}

void SpectrumAnalyzerTest::bandLayout_data()
{
    QTest::addColumn<int>("rate");
    QTest::addColumn<int>("bands");
    QTest::addColumn<int>("firstBin");
    QTest::addColumn<double>("lastFrequency");
    QTest::newRow("44100") << 44100 << 743 << 0 << 31924.10;
    QTest::newRow("48000") << 48000 << 682 << 0 << 31890.73;
    // trunc(16000 / 96000 * 2048) = 341; label 340 / 1025 * 96000.
    QTest::newRow("96000") << 96000 << 341 << 0 << 31843.90;
    // trunc(16000 / 192000 * 2048) = 170; label 169 / 1025 * 192000.
    QTest::newRow("192000") << 192000 << 170 << 0 << 31656.59;
}

void SpectrumAnalyzerTest::bandLayout()
{
    QFETCH(int, rate);
    QFETCH(int, bands);
    QFETCH(int, firstBin);
    QFETCH(double, lastFrequency);
    SpectrumAnalyzer analyzer;
    analyzer.setInputFormat(AV_SAMPLE_FMT_FLT, rate, AV_CH_LAYOUT_STEREO);
    const auto result = feed(analyzer, QByteArray(2048 * 2 * 4, '\0'));
    QCOMPARE(result.size(), 1);
    for (const SoundChannel& channel : result[0]) {
        QCOMPARE(channel.spectrums.size(), bands);
        QCOMPARE(channel.spectrums.first().frequency, float(firstBin) / 1025.0f * float(rate));
        QVERIFY2(std::abs(channel.spectrums.last().frequency - lastFrequency) < 0.006,
            qPrintable(QString::number(channel.spectrums.last().frequency, 'f', 3)));
    }
}

void SpectrumAnalyzerTest::lowRatesAreClampedToTheBins()
{
    // At 22050 Hz the upper bound would be bin 1486 of 1025.
    SpectrumAnalyzer analyzer;
    analyzer.setInputFormat(AV_SAMPLE_FMT_S16, 22050, AV_CH_LAYOUT_STEREO);
    const auto result = feed(analyzer, sineFrames(SampleType::S16, 2, 22050, 1000, 0.5, 2048));
    QCOMPARE(result.size(), 1);
    // The lower bound stays trunc(20 / 22050 * 2048) = 1; the upper one stops at the last bin.
    QCOMPARE(result[0][0].spectrums.size(), 1024);
    QCOMPARE(result[0][1].spectrums.size(), 1024);
    QCOMPARE(result[0][0].spectrums.last().frequency, 1024.0f / 1025.0f * 22050.0f);
    // 1 kHz at 22050 Hz is bin 92.9, band 92 after the lower bin 1.
    QCOMPARE(loudestBand(result[0][0].spectrums), 92);

    SpectrumAnalyzer veryLow;
    veryLow.setInputFormat(AV_SAMPLE_FMT_S16, 8000, AV_CH_LAYOUT_STEREO);
    const auto low = feed(veryLow, QByteArray(8192, '\0'));
    QCOMPARE(low.size(), 1);
    QCOMPARE(low[0][0].spectrums.size(), 1025 - 5);
}

void SpectrumAnalyzerTest::everyFormatAndLayout_data()
{
    QTest::addColumn<SampleType>("type");
    QTest::addColumn<int>("channels");
    const QList<QPair<SampleType, const char*>> types {{SampleType::U8, "u8"}, {SampleType::S16, "s16"},
        {SampleType::S32, "s32"}, {SampleType::Float, "float"}, {SampleType::Double, "double"}};
    const QList<QPair<int, const char*>> layouts {{1, "mono"}, {2, "stereo"}, {6, "5.1"}, {8, "7.1"}};
    for (const auto& type : types) {
        for (const auto& layout : layouts) {
            QTest::newRow(qPrintable(QStringLiteral("%1 %2").arg(type.second, layout.second)))
                << type.first << layout.first;
        }
    }
}

void SpectrumAnalyzerTest::everyFormatAndLayout()
{
    QFETCH(SampleType, type);
    QFETCH(int, channels);
    const QByteArray bytes = sineFrames(type, channels, 48000, 1000.0, 0.25, 2048);

    // Through the analyzer, with FFmpeg's format numbers.
    SpectrumAnalyzer analyzer;
    analyzer.setInputFormat(avFormatOf(type), 48000, maskOfChannels(channels));
    const auto analyzed = feed(analyzer, bytes);
    QCOMPARE(analyzed.size(), 1);
    QCOMPARE(analyzed[0].size(), 2);
    for (const SoundChannel& channel : analyzed[0]) {
        QCOMPARE(channel.spectrums.size(), 682);
        QCOMPARE(loudestBand(channel.spectrums), 43);
    }

    // Through the capturer, with the wave format the endpoint reports.
    const WaveFormatExtensible format = waveFormat(type, channels, 48000, maskOfChannels(channels));
    QCOMPARE(int(AudioCapturerPrivate::convertSampleFormat(format)), int(avFormatOf(type)));
    PreparedCapturer prepared(format);
    QCOMPARE(prepared.converterResult, S_OK);
    QCOMPARE(prepared.d->blockSizeInBytes(), static_cast<unsigned int>(bytes.size()));
    QVector<QVector<SoundChannel>> published;
    connect(prepared.capturer.get(), &AudioCapturer::spectrumsChanged, this,
        [&](const QVector<SoundChannel>& spectra) { published.append(spectra); });
    for (int i = 0; i < 3; ++i)
        prepared.feed(bytes);
    QCOMPARE(published.size(), 1);
    for (const SoundChannel& channel : published[0]) {
        QCOMPARE(channel.spectrums.size(), 341);
        QCOMPARE(loudestBand(channel.spectrums), 43);
    }
}

void SpectrumAnalyzerTest::randomPacketSizesGiveIdenticalSpectra()
{
    const QByteArray stream = noiseFrames(2, 2048 * 6 + 1000, 42);
    SpectrumAnalyzer whole;
    whole.setInputFormat(AV_SAMPLE_FMT_S16, 48000, AV_CH_LAYOUT_STEREO);
    const auto expected = feed(whole, stream);
    QCOMPARE(expected.size(), 6);

    std::mt19937 generator(7);
    for (int round = 0; round < 5; ++round) {
        SpectrumAnalyzer pieces;
        pieces.setInputFormat(AV_SAMPLE_FMT_S16, 48000, AV_CH_LAYOUT_STEREO);
        std::uniform_int_distribution<int> packetSize(1, 3 * 8192);
        QVector<QVector<SoundChannel>> actual;
        for (int offset = 0; offset < stream.size();) {
            const int size = std::min(packetSize(generator), int(stream.size()) - offset);
            actual += feed(pieces, stream.mid(offset, size));
            offset += size;
        }
        QCOMPARE(actual.size(), expected.size());
        QCOMPARE(pieces.cacheFillLevel(), whole.cacheFillLevel());
        for (int block = 0; block < expected.size(); ++block) {
            for (int channel = 0; channel < 2; ++channel) {
                const auto& a = actual[block][channel].spectrums;
                const auto& e = expected[block][channel].spectrums;
                QCOMPARE(a.size(), e.size());
                QVERIFY(std::memcmp(a.constData(), e.constData(), sizeof(Spectrum) * size_t(a.size())) == 0);
            }
        }
    }
}

void SpectrumAnalyzerTest::failedConversionDropsBlockAndClearsCache()
{
    SpectrumAnalyzer analyzer;
    analyzer.setInputFormat(AV_SAMPLE_FMT_S16, 48000, AV_CH_LAYOUT_STEREO);
    // An uninitialised converter refuses to convert.
    swr_close(analyzer.swrContext.get());

    MessageCapture messages;
    const QByteArray bytes = sineFrames(SampleType::S16, 2, 48000, 1000, 0.5, 2048 + 512);
    QVERIFY(feed(analyzer, bytes).isEmpty());
    QCOMPARE(analyzer.cacheFillLevel(), 512 * 4);
    QCOMPARE(
        messages.count(QtCriticalMsg,
            QStringLiteral("[SpectrumAnalyzer]: Failed to resample the input data, errCode: %1").arg(AVERROR(EINVAL))),
        1);

    // Once the converter works again, the next full block is analysed.
    QVERIFY(swr_init(analyzer.swrContext.get()) >= 0);
    QCOMPARE(feed(analyzer, sineFrames(SampleType::S16, 2, 48000, 1000, 0.5, 1536)).size(), 1);
    QCOMPARE(analyzer.cacheFillLevel(), 0);
}

void SpectrumAnalyzerTest::optionFailuresAreLogged_data()
{
    QTest::addColumn<int>("format");
    QTest::addColumn<int>("rate");
    QTest::addColumn<quint64>("layout");
    QTest::addColumn<QString>("message");
    // Whether the cache frame of the earlier format survives: a failure
    // before the frame's step leaves it alone, one in that step frees it.
    QTest::addColumn<bool>("cacheFrameKept");
    QTest::newRow("no channels") << int(AV_SAMPLE_FMT_S16) << 48000 << quint64(0)
                                 << QStringLiteral(
                                        "[SpectrumAnalyzer]: Failed to set swrContext in_channel_layout, errCode: 0x "
                                        "\"%1\"")
                                        .arg(hexCode(AVERROR(EINVAL)))
                                 << true;
    QTest::newRow("negative rate") << int(AV_SAMPLE_FMT_S16) << -1 << quint64(AV_CH_LAYOUT_STEREO)
                                   << QStringLiteral(
                                          "[SpectrumAnalyzer]: Failed to set swrContext in_sample_rate, errCode: 0x "
                                          "\"%1\"")
                                          .arg(hexCode(AVERROR(ERANGE)))
                                   << true;
    QTest::newRow("format out of range")
        << 1000 << 48000 << quint64(AV_CH_LAYOUT_STEREO)
        << QStringLiteral("[SpectrumAnalyzer]: Failed to set swrContext in_sample_fmt, errCode: 0x \"%1\"")
               .arg(hexCode(AVERROR(ERANGE)))
        << true;
    QTest::newRow("zero rate")
        << int(AV_SAMPLE_FMT_S16) << 0 << quint64(AV_CH_LAYOUT_STEREO)
        << QStringLiteral("[SpectrumAnalyzer]: Failed to init swrContext: 0x \"%1\"").arg(hexCode(AVERROR(EINVAL)))
        << true;
    // The converter takes "no format" as its own; the cache frame cannot.
    QTest::newRow("no format") << -1 << 48000 << quint64(AV_CH_LAYOUT_STEREO)
                               << QStringLiteral("[SpectrumAnalyzer]: Failed to get cache frame buffer: 0x \"%1\"")
                                      .arg(hexCode(AVERROR(EINVAL)))
                               << false;
}

void SpectrumAnalyzerTest::optionFailuresAreLogged()
{
    QFETCH(int, format);
    QFETCH(int, rate);
    QFETCH(quint64, layout);
    QFETCH(QString, message);
    QFETCH(bool, cacheFrameKept);

    SpectrumAnalyzer analyzer;
    analyzer.setInputFormat(AV_SAMPLE_FMT_S16, 48000, AV_CH_LAYOUT_STEREO);
    QVERIFY(analyzer.swrContext);
    const AVFrame* const earlierFrame = analyzer.cacheFrame.get();
    QVERIFY(earlierFrame);

    MessageCapture messages;
    analyzer.setInputFormat(format, rate, layout);
    QCOMPARE(messages.texts(QtCriticalMsg), QStringList {message});
    QVERIFY(!analyzer.swrContext);
    if (cacheFrameKept) {
        QCOMPARE(analyzer.cacheFrame.get(), earlierFrame);
    } else {
        QVERIFY(!analyzer.cacheFrame);
    }
    // Without a converter nothing comes out.
    QVERIFY(feed(analyzer, QByteArray(3 * 8192, '\0')).isEmpty());
}

void SpectrumAnalyzerTest::silentBlockGivesNegativeInfinity()
{
    SpectrumAnalyzer analyzer;
    analyzer.setInputFormat(AV_SAMPLE_FMT_S32, 48000, AV_CH_LAYOUT_STEREO);
    const auto result = feed(analyzer, QByteArray(2048 * 2 * 4, '\0'));
    QCOMPARE(result.size(), 1);
    for (const SoundChannel& channel : result[0]) {
        for (const Spectrum& band : channel.spectrums) {
            QCOMPARE(band.amplitude, 0.0f);
            QVERIFY(std::isinf(band.decibel) && band.decibel < 0);
        }
    }
}

void SpectrumAnalyzerTest::windowIsSymmetricHann()
{
    SpectrumAnalyzer analyzer;
    QCOMPARE(analyzer.window[0], 0.0f);
    QCOMPARE(analyzer.window[2047], 0.0f);
    for (int i = 0; i < 2048; ++i) {
        QCOMPARE(analyzer.window[i], analyzer.window[2047 - i]);
        QCOMPARE(analyzer.window[i], static_cast<float>((1.0 - std::cos(i * 6.283185307179586 / 2047.0)) * 0.5));
    }
}

QTEST_GUILESS_MAIN(SpectrumAnalyzerTest)
#include "tst_spectrumanalyzer.moc"
