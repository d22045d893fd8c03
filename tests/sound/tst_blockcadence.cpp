// The publication count is one counter for the whole process. These cases
// run in a program of their own, and each first brings the count to a whole
// multiple of three, so that each holds alone as well as after the others.

#include "AudioCapturer.h"
#include "AudioCapturer_p.h"
#include "SoundTestSupport.h"

#include "MessageCapture.h"

#include <QtTest/QtTest>

using namespace SoundTest;

namespace {

/// Feeds whole blocks until the capturer publishes, at most three: afterwards
/// the process-wide block count stands at a multiple of three.
bool alignToPublication(PreparedCapturer& prepared, const QByteArray& block)
{
    QSignalSpy spy(prepared.capturer.get(), &AudioCapturer::spectrumsChanged);
    for (int i = 0; i < 3 && spy.isEmpty(); ++i)
        prepared.feed(block);
    return spy.size() == 1;
}

} // namespace

class BlockCadenceTest : public QObject
{
    Q_OBJECT

private slots:
    void everyThirdBlockOfALoneCapturer();
    void failedConversionDoesNotCount();
    void capturersShareTheCount();
};

void BlockCadenceTest::everyThirdBlockOfALoneCapturer()
{
    PreparedCapturer prepared(waveFormat(SampleType::S16, 2, 48000, 0x3));
    const QByteArray block = sineFrames(SampleType::S16, 2, 48000, 1000, 0.5, 2048);
    QVERIFY(alignToPublication(prepared, block));
    QSignalSpy spy(prepared.capturer.get(), &AudioCapturer::spectrumsChanged);

    QVector<int> publishedAfter;
    for (int n = 1; n <= 10; ++n) {
        const int before = spy.size();
        prepared.feed(block);
        if (spy.size() != before)
            publishedAfter.append(n);
    }
    QCOMPARE(publishedAfter, QVector<int>({3, 6, 9}));

    // A packet that completes several blocks publishes each third one.
    spy.clear();
    prepared.feed(block + block + block + block + block);
    QCOMPARE(spy.size(), 2); // blocks 12 and 15 after the alignment
}

void BlockCadenceTest::failedConversionDoesNotCount()
{
    PreparedCapturer prepared(waveFormat(SampleType::S16, 2, 48000, 0x3));
    const QByteArray block = sineFrames(SampleType::S16, 2, 48000, 1000, 0.5, 2048);
    // The next publication is after three good blocks.
    QVERIFY(alignToPublication(prepared, block));
    QSignalSpy spy(prepared.capturer.get(), &AudioCapturer::spectrumsChanged);

    prepared.feed(block);
    prepared.feed(block);
    QCOMPARE(spy.size(), 0);

    swr_close(prepared.d->swrContext.get());
    {
        MessageCapture messages;
        prepared.feed(block);
        prepared.feed(block);
        QCOMPARE(messages.texts(QtCriticalMsg).size(), 2);
    }
    QCOMPARE(spy.size(), 0);
    QVERIFY(swr_init(prepared.d->swrContext.get()) >= 0);

    prepared.feed(block);
    QCOMPARE(spy.size(), 1);
}

void BlockCadenceTest::capturersShareTheCount()
{
    PreparedCapturer first(waveFormat(SampleType::S16, 2, 48000, 0x3));
    PreparedCapturer second(waveFormat(SampleType::Float, 1, 44100, 0x4));
    const QByteArray firstBlock = sineFrames(SampleType::S16, 2, 48000, 1000, 0.5, 2048);
    const QByteArray secondBlock = sineFrames(SampleType::Float, 1, 44100, 1000, 0.5, 2048);
    QVERIFY(alignToPublication(first, firstBlock));
    QSignalSpy firstSpy(first.capturer.get(), &AudioCapturer::spectrumsChanged);
    QSignalSpy secondSpy(second.capturer.get(), &AudioCapturer::spectrumsChanged);

    // Two blocks of the first, then one of the second: the second publishes.
    first.feed(firstBlock);
    first.feed(firstBlock);
    second.feed(secondBlock);
    QCOMPARE(firstSpy.size(), 0);
    QCOMPARE(secondSpy.size(), 1);
    QCOMPARE(secondSpy.first().first().value<QVector<SoundChannel>>()[0].spectrums.size(), 371);

    // Interleaved one by one, the third block is always the second's: the
    // first capturer goes unpublished while the other runs.
    for (int i = 0; i < 3; ++i) {
        first.feed(firstBlock);
        first.feed(firstBlock);
        second.feed(secondBlock);
    }
    QCOMPARE(firstSpy.size(), 0);
    QCOMPARE(secondSpy.size(), 4);
}

QTEST_GUILESS_MAIN(BlockCadenceTest)
#include "tst_blockcadence.moc"
