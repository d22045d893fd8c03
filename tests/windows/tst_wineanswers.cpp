// The capture logic fed with the answers that Wine's adapters give, which
// the Wine tests assert (tst_dxgidisplay, tst_wasapiendpoints).
//
// Duplication: the output is found and offers IDXGIOutput5, but
// DuplicateOutput1 answers E_NOTIMPL. The capturer reports the code from its
// set-up, and polling keeps failing the same way with empty frames: E_NOTIMPL
// is not on the stop list, so every poll spends the full five tries.
//
// Audio: the mix format of an endpoint is extensible 32-bit float stereo,
// which the capturer's conversion takes as packed float with the stereo
// layout.

#include "AudioCapturer_p.h"
#include "DXGICapturer.h"
#include "Helpers.h"
#include "ResultCodes.h"

#include "MessageCapture.h"
#include "fakes/FakeDesktopDuplicator.h"

#include <QtTest/QtTest>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
}

namespace {

QString logText(const QString& literal, long code)
{
    return QStringLiteral("%1 \"%2\"").arg(literal, win32ErrorMsg(code));
}

const QString kDuplicateText
    = QStringLiteral("An error occurred when creating the IDXGIOutputDuplication by using IDXGIOutput5");
const QString kRetryText
    = QStringLiteral("[DXGICapturer]: Failed to rebuild the duplication, retrying in 0.5 seconds:");

} // namespace

class WineAnswersTest : public QObject
{
    Q_OBJECT

private slots:
    void duplicationNotImplementedFailsTheSetUp();
    void pollingAfterwardsTriesFiveTimesAndGivesNothing();
    void endpointMixFormatMapsToPackedFloatStereo();
};

void WineAnswersTest::duplicationNotImplementedFailsTheSetUp()
{
    auto script = std::make_shared<DuplicationScript>();
    auto clock = std::make_shared<FakeRetryClock>();
    script->duplicateResults = {E_NOTIMPL};
    DXGICapturer capturer(std::make_shared<FakeDesktopDuplicator>(script), clock);

    MessageCapture log;
    DeskCaptureContext context;
    context.outputIndex = 0;
    QCOMPARE(capturer.setCaptureContext(context), E_NOTIMPL);
    QCOMPARE(log.texts(QtCriticalMsg),
        QStringList({logText(kDuplicateText, E_NOTIMPL),
            logText("[DXGICapturer]: Failed to create DXGIDupliation: ", E_NOTIMPL)}));
    QVERIFY(script->recorded().contains(QStringLiteral("duplicateOutput")));
    QCOMPARE(script->sessionsAlive, 0);
}

void WineAnswersTest::pollingAfterwardsTriesFiveTimesAndGivesNothing()
{
    auto script = std::make_shared<DuplicationScript>();
    auto clock = std::make_shared<FakeRetryClock>();
    script->duplicateResults = QList<long>(QVector<long>(6, E_NOTIMPL).toList());
    DXGICapturer capturer(std::make_shared<FakeDesktopDuplicator>(script), clock);
    DeskCaptureContext context;
    context.outputIndex = 0;
    QCOMPARE(capturer.setCaptureContext(context), E_NOTIMPL);

    MessageCapture log;
    QVERIFY(capturer.nextFrame().empty());
    // Five tries, half a second apart by the clock.
    for (int tries = 0; tries < 5; ++tries) {
        clock->advance(500);
        QVERIFY(capturer.nextFrame().empty());
    }
    QCOMPARE(script->sessionsAlive, 0);
    QCOMPARE(script->sessionsMade, 0);
    QCOMPARE(log.texts(QtWarningMsg), QStringList(QVector<QString>(5, logText(kRetryText, E_NOTIMPL)).toList()));
}

void WineAnswersTest::endpointMixFormatMapsToPackedFloatStereo()
{
    // Field by field as Wine's winepulse reports the null sink's mix format.
    Orvanta::Ifaces::WaveFormatExtensible format = {};
    format.Format.wFormatTag = Orvanta::Ifaces::WaveFormatTag::Extensible;
    format.Format.nChannels = 2;
    format.Format.nSamplesPerSec = 44100;
    format.Format.wBitsPerSample = 32;
    format.Format.nBlockAlign = 8;
    format.Format.nAvgBytesPerSec = 44100 * 8;
    format.Format.cbSize = 22;
    format.Samples.wValidBitsPerSample = 32;
    format.dwChannelMask = 0x3; // front left, front right
    format.SubFormat = Orvanta::Ifaces::subFormatIeeeFloat();

    QCOMPARE(int(AudioCapturerPrivate::convertSampleFormat(format)), int(AV_SAMPLE_FMT_FLT));
    QCOMPARE(AudioCapturerPrivate::convertToAvChannelLayout(format), std::uint64_t(AV_CH_LAYOUT_STEREO));
}

QTEST_GUILESS_MAIN(WineAnswersTest)
#include "tst_wineanswers.moc"
