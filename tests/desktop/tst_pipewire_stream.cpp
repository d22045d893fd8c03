// The screen-cast stream against a real PipeWire server: DMA-BUF negotiation
// with a source that allocates DMA-BUFs, the buffers held for a GPU that
// imports them, the copy for one that does not, and the fall-back to shared
// memory when a DMA-BUF cannot be read.
#include "ResultCodes.h"
#include "pipewire/PipeWireStream.h"

#include <QtTest/QtTest>

#include <sys/mman.h>

#include <memory>

using Orvanta::PipeWire::PipeWireStream;
namespace Ifaces = Orvanta::Ifaces;

namespace {

constexpr int Width = 64;
constexpr int Height = 36;
const std::uint32_t Xrgb = Ifaces::drmFourcc('X', 'R', '2', '4');

/// The test source program, for the life of one test.
class DmaBufSource
{
public:
    /// What the source offers: DMA-BUFs a reader can map, ones it cannot, or shared memory only.
    enum Kind { Mappable, Unmappable, SharedMemory };

    explicit DmaBufSource(const QString& name, Kind kind = Mappable)
    {
        QStringList arguments {"--name", name, "--size", QStringLiteral("%1x%2").arg(Width).arg(Height)};
        if (kind == Unmappable)
            arguments << "--unmappable";
        else if (kind == SharedMemory)
            arguments << "--shm";
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_process.start(QStringLiteral(ORVANTA_DMABUF_SOURCE), arguments);
    }
    ~DmaBufSource()
    {
        m_process.terminate();
        if (!m_process.waitForFinished(5000))
            m_process.kill();
        m_process.waitForFinished(5000);
    }
    /// True once the source's node can be found by name.
    bool started()
    {
        if (!m_process.waitForStarted(5000))
            return false;
        QDeadlineTimer deadline(20000);
        while (!m_process.canReadLine() && !deadline.hasExpired() && m_process.state() == QProcess::Running)
            m_process.waitForReadyRead(100);
        return m_process.readLine().trimmed() == "ready";
    }

private:
    QProcess m_process;
};

std::shared_ptr<PipeWireStream> openStream(const QString& node, std::vector<Ifaces::DmaBufFormat> importable)
{
    PipeWireStream::Request request;
    request.width = Width;
    request.height = Height;
    request.targetName = node.toStdString();
    request.importable = std::move(importable);
    std::shared_ptr<PipeWireStream> stream;
    if (PipeWireStream::open(-1, 0, request, stream) < 0 || stream->start() < 0)
        return nullptr;
    return stream;
}

/// The next frame of @p stream (null after 20 s).
std::unique_ptr<PipeWireStream::Frame> waitForFrame(PipeWireStream& stream)
{
    QDeadlineTimer deadline(20000);
    while (!deadline.hasExpired()) {
        std::unique_ptr<PipeWireStream::Frame> frame;
        if (stream.takeNewest(frame) < 0)
            return nullptr;
        if (frame && frame->hasPicture())
            return frame;
        QTest::qWait(5);
    }
    return nullptr;
}

/// Pixel (x, y) of four-byte rows as "B,G,R".
QString bgrAt(const std::uint8_t* pixels, std::size_t stride, int x, int y)
{
    const std::uint8_t* p = pixels + stride * std::size_t(y) + std::size_t(x) * 4;
    return QStringLiteral("%1,%2,%3").arg(p[0]).arg(p[1]).arg(p[2]);
}

/// Where the source's black square starts in its middle row, or -1.
int squareX(const Ifaces::ScalerSource& source)
{
    const auto* row = static_cast<const std::uint8_t*>(source.pixels) + source.bytesPerLine * std::size_t(Height / 2);
    for (int x = 0; x < Width; ++x) {
        if (row[x * 4] == 0 && row[x * 4 + 1] == 0 && row[x * 4 + 2] == 0)
            return x;
    }
    return -1;
}

/// True when one of the changed parts of @p source covers the square at @p x.
bool changeCovers(const Ifaces::ScalerSource& source, int x)
{
    for (std::size_t i = 0; i < source.changedRectCount; ++i) {
        const Ifaces::ScalerRect& rect = source.changedRects[i];
        if (rect.x <= x && rect.x + rect.width >= x + 16 && rect.y <= Height / 2 && rect.y + rect.height > Height / 2)
            return true;
    }
    return false;
}

void verifyQuadrants(const std::uint8_t* pixels, std::size_t stride)
{
    QCOMPARE(bgrAt(pixels, stride, 2, 2), QStringLiteral("0,0,255")); // red
    QCOMPARE(bgrAt(pixels, stride, Width - 3, 2), QStringLiteral("0,255,0")); // green
    QCOMPARE(bgrAt(pixels, stride, 2, Height - 3), QStringLiteral("255,0,0")); // blue
    QCOMPARE(bgrAt(pixels, stride, Width - 3, Height - 3), QStringLiteral("255,255,255"));
}

/// Maps the first plane of a held DMA-BUF frame and checks its picture.
void verifyDmaBufPicture(const PipeWireStream::Frame& frame)
{
    const Ifaces::DmaBufImage* image = frame.source().dmaBuf;
    QVERIFY(image);
    QCOMPARE(image->planeCount, 1);
    const std::size_t length = image->planes[0].offset + std::size_t(image->planes[0].stride) * Height;
    void* mapped = ::mmap(nullptr, length, PROT_READ, MAP_SHARED, image->planes[0].fd, 0);
    QVERIFY(mapped != MAP_FAILED);
    verifyQuadrants(static_cast<const std::uint8_t*>(mapped) + image->planes[0].offset, image->planes[0].stride);
    ::munmap(mapped, length);
}

} // namespace

class PipeWireStreamTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void importableDmaBufsAreHeldNotCopied();
    void heldFramesGoBackToTheSource();
    void aFrameMayOutliveItsStream_data();
    void aFrameMayOutliveItsStream();
    void sharedMemoryIsReadWhereItIs();
    void framesSayWhatChangedSinceTheFrameTakenBefore();
    void dmaBufsTheGpuCannotImportAreCopied();
    void anUnreadableDmaBufFallsBackToSharedMemory();
    void aSourceWithoutDmaBufsGivesSharedMemory();

private:
    /// A new DMA-BUF source in @p source, and a stream from it (null when either fails).
    std::shared_ptr<PipeWireStream> streamFromNewSource(std::unique_ptr<DmaBufSource>& source,
        std::vector<Ifaces::DmaBufFormat> importable, DmaBufSource::Kind kind = DmaBufSource::Mappable)
    {
        const QString name
            = QStringLiteral("test-dmabufsrc-%1-%2").arg(QCoreApplication::applicationPid()).arg(++m_sources);
        source.reset(new DmaBufSource(name, kind));
        if (!source->started())
            return nullptr;
        return openStream(name, std::move(importable));
    }

    int m_sources = 0;
};

void PipeWireStreamTest::initTestCase()
{
    QVERIFY2(!qgetenv("ORVANTA_PIPEWIRE_PIDFILE").isEmpty(), "the PipeWire fixture did not run");
}

void PipeWireStreamTest::importableDmaBufsAreHeldNotCopied()
{
    std::unique_ptr<DmaBufSource> source;
    auto stream = streamFromNewSource(source, {{Xrgb, {Ifaces::DmaBufLinearModifier}}});
    QVERIFY(stream);
    auto frame = waitForFrame(*stream);
    QVERIFY(frame);
    QVERIFY(stream->negotiatedDmaBuf());
    QVERIFY(frame->isDmaBuf());
    QVERIFY(!frame->source().pixels);
    QCOMPARE(frame->source().width, Width);
    QCOMPARE(frame->source().height, Height);
    QCOMPARE(frame->source().format, Ifaces::PixelFormat::B8G8R8X8Unorm);
    QCOMPARE(frame->source().dmaBuf->fourcc, Xrgb);
    QCOMPARE(frame->source().dmaBuf->modifier, Ifaces::DmaBufLinearModifier);
    QCOMPARE(frame->source().dmaBuf->planes[0].stride, std::uint32_t(Width * 4));
    verifyDmaBufPicture(*frame);
}

void PipeWireStreamTest::heldFramesGoBackToTheSource()
{
    std::unique_ptr<DmaBufSource> source;
    auto stream = streamFromNewSource(source, {{Xrgb, {Ifaces::DmaBufLinearModifier}}});
    QVERIFY(stream);
    // One frame kept for the whole test, as a slow reader would: the others
    // still come, because every frame let go returns its buffer.
    auto kept = waitForFrame(*stream);
    QVERIFY(kept);
    QVERIFY(kept->isDmaBuf());
    for (int i = 0; i < 60; ++i) {
        auto frame = waitForFrame(*stream);
        QVERIFY2(frame, qPrintable(QStringLiteral("frame %1 did not come").arg(i)));
        QVERIFY(frame->isDmaBuf());
    }
    verifyDmaBufPicture(*kept);
}

void PipeWireStreamTest::aFrameMayOutliveItsStream_data()
{
    QTest::addColumn<bool>("sharedMemory");
    QTest::newRow("DMA-BUF") << false;
    QTest::newRow("shared memory") << true;
}

void PipeWireStreamTest::aFrameMayOutliveItsStream()
{
    QFETCH(bool, sharedMemory);
    std::unique_ptr<DmaBufSource> source;
    auto stream = streamFromNewSource(source, {{Xrgb, {Ifaces::DmaBufLinearModifier}}},
        sharedMemory ? DmaBufSource::SharedMemory : DmaBufSource::Mappable);
    QVERIFY(stream);
    auto frame = waitForFrame(*stream);
    QVERIFY(frame);
    QVERIFY(frame->isHeld());
    stream->close();
    std::unique_ptr<PipeWireStream::Frame> none;
    QCOMPARE(stream->takeNewest(none), RO_E_CLOSED);
    // The frame's own descriptor or mapping still reaches the picture after
    // the stream let go of its buffers.
    if (sharedMemory)
        verifyQuadrants(static_cast<const std::uint8_t*>(frame->source().pixels), frame->source().bytesPerLine);
    else
        verifyDmaBufPicture(*frame);
    stream.reset();
    frame.reset();
}

void PipeWireStreamTest::sharedMemoryIsReadWhereItIs()
{
    std::unique_ptr<DmaBufSource> source;
    auto stream = streamFromNewSource(source, {}, DmaBufSource::SharedMemory);
    QVERIFY(stream);
    auto frame = waitForFrame(*stream);
    QVERIFY(frame);
    QVERIFY(!stream->negotiatedDmaBuf());
    QVERIFY(frame->isHeld());
    QVERIFY(!frame->isDmaBuf());
    QCOMPARE(frame->source().bytesPerLine, std::size_t(Width * 4));
    QVERIFY(frame->source().series);
    verifyQuadrants(static_cast<const std::uint8_t*>(frame->source().pixels), frame->source().bytesPerLine);
}

void PipeWireStreamTest::framesSayWhatChangedSinceTheFrameTakenBefore()
{
    std::unique_ptr<DmaBufSource> source;
    auto stream = streamFromNewSource(source, {}, DmaBufSource::SharedMemory);
    QVERIFY(stream);
    // The first frame: nothing before it, so anything changed.
    auto frame = waitForFrame(*stream);
    QVERIFY(frame);
    QVERIFY(!frame->source().changedRects);
    int before = squareX(frame->source());
    QVERIFY(before >= 0);
    frame.reset();
    // Each later frame names the parts changed since the one taken before,
    // however many the stream skipped: the square's old and new places.
    int named = 0;
    for (int i = 0; i < 20; ++i) {
        frame = waitForFrame(*stream);
        QVERIFY(frame);
        const Ifaces::ScalerSource& picture = frame->source();
        const int now = squareX(picture);
        QVERIFY(now >= 0);
        verifyQuadrants(static_cast<const std::uint8_t*>(picture.pixels), picture.bytesPerLine);
        if (picture.changedRects) {
            ++named;
            for (std::size_t r = 0; r < picture.changedRectCount; ++r) {
                const Ifaces::ScalerRect& rect = picture.changedRects[r];
                QVERIFY(rect.y >= Height / 2 - 4 && rect.y + rect.height <= Height / 2 + 4);
            }
            QVERIFY2(changeCovers(picture, before) && changeCovers(picture, now),
                qPrintable(QStringLiteral("square from %1 to %2").arg(before).arg(now)));
        }
        before = now;
        frame.reset();
    }
    // More than a few parts at once are "anything" again; most frames name theirs.
    QVERIFY(named >= 10);
}

void PipeWireStreamTest::dmaBufsTheGpuCannotImportAreCopied()
{
    std::unique_ptr<DmaBufSource> source;
    auto stream = streamFromNewSource(source, {});
    QVERIFY(stream);
    auto frame = waitForFrame(*stream);
    QVERIFY(frame);
    QVERIFY(stream->negotiatedDmaBuf());
    QVERIFY(!frame->isDmaBuf());
    QVERIFY(frame->source().pixels);
    QCOMPARE(frame->source().format, Ifaces::PixelFormat::B8G8R8X8Unorm);
    verifyQuadrants(static_cast<const std::uint8_t*>(frame->source().pixels), frame->source().bytesPerLine);
}

void PipeWireStreamTest::anUnreadableDmaBufFallsBackToSharedMemory()
{
    std::unique_ptr<DmaBufSource> source;
    auto stream = streamFromNewSource(source, {}, DmaBufSource::Unmappable);
    QVERIFY(stream);
    auto frame = waitForFrame(*stream);
    QVERIFY(frame);
    QVERIFY(!stream->negotiatedDmaBuf());
    QVERIFY(!frame->isDmaBuf());
    verifyQuadrants(static_cast<const std::uint8_t*>(frame->source().pixels), frame->source().bytesPerLine);
}

void PipeWireStreamTest::aSourceWithoutDmaBufsGivesSharedMemory()
{
    // The fixture's video test source knows nothing of modifiers.
    auto stream = openStream(QStringLiteral("test-videotestsrc"), {{Xrgb, {Ifaces::DmaBufLinearModifier}}});
    QVERIFY(stream);
    auto frame = waitForFrame(*stream);
    QVERIFY(frame);
    QVERIFY(!stream->negotiatedDmaBuf());
    QVERIFY(!frame->isDmaBuf());
    QVERIFY(frame->source().pixels);
    // It says nothing of what changes either: every frame may have changed anywhere.
    for (int i = 0; i < 3; ++i) {
        frame = waitForFrame(*stream);
        QVERIFY(frame);
        QVERIFY(!frame->source().changedRects);
    }
}

QTEST_GUILESS_MAIN(PipeWireStreamTest)
#include "tst_pipewire_stream.moc"
