// Counts heap allocations on the capturer's block path. The program replaces
// the global allocation functions, so it runs on its own. Under a sanitizer,
// which owns malloc, only the C++ allocations are counted.

#include "AudioCapturer.h"
#include "AudioCapturer_p.h"
#include "SoundTestSupport.h"

#include <QtTest/QtTest>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ORVANTA_COUNT_MALLOC 0
#else
#define ORVANTA_COUNT_MALLOC 1
#endif

namespace {
std::atomic<bool> g_counting {false};
std::atomic<long> g_allocations {0};

inline void countAllocation()
{
    if (g_counting.load(std::memory_order_relaxed))
        g_allocations.fetch_add(1, std::memory_order_relaxed);
}
} // namespace

#if ORVANTA_COUNT_MALLOC
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
void __libc_free(void* pointer);
void* __libc_memalign(size_t alignment, size_t size);

void* malloc(size_t size)
{
    countAllocation();
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size)
{
    countAllocation();
    return __libc_calloc(count, size);
}

void* realloc(void* pointer, size_t size)
{
    countAllocation();
    return __libc_realloc(pointer, size);
}

void free(void* pointer)
{
    __libc_free(pointer);
}

void* memalign(size_t alignment, size_t size)
{
    countAllocation();
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size)
{
    countAllocation();
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** out, size_t alignment, size_t size)
{
    countAllocation();
    void* pointer = __libc_memalign(alignment, size);
    if (!pointer)
        return ENOMEM;
    *out = pointer;
    return 0;
}
}
// operator new goes through malloc above and is counted there.
#define ORVANTA_NEW_COUNTS()
#else
#define ORVANTA_NEW_COUNTS() countAllocation()
#endif

void* operator new(size_t size)
{
    ORVANTA_NEW_COUNTS();
    if (void* pointer = std::malloc(size ? size : 1))
        return pointer;
    throw std::bad_alloc();
}

void* operator new[](size_t size)
{
    ORVANTA_NEW_COUNTS();
    if (void* pointer = std::malloc(size ? size : 1))
        return pointer;
    throw std::bad_alloc();
}

void* operator new(size_t size, const std::nothrow_t&) noexcept
{
    ORVANTA_NEW_COUNTS();
    return std::malloc(size ? size : 1);
}

void* operator new[](size_t size, const std::nothrow_t&) noexcept
{
    ORVANTA_NEW_COUNTS();
    return std::malloc(size ? size : 1);
}

void operator delete(void* pointer) noexcept
{
    std::free(pointer);
}

void operator delete[](void* pointer) noexcept
{
    std::free(pointer);
}

void operator delete(void* pointer, size_t) noexcept
{
    std::free(pointer);
}

void operator delete[](void* pointer, size_t) noexcept
{
    std::free(pointer);
}

using namespace SoundTest;

class BlockAllocationsTest : public QObject
{
    Q_OBJECT

private slots:
    void counterSeesAllocations();
    void steadyStateBlocksAllocateNothing_data();
    void steadyStateBlocksAllocateNothing();
};

void BlockAllocationsTest::counterSeesAllocations()
{
    g_allocations = 0;
    g_counting = true;
    auto* vector = new QVector<float>(100);
    const QByteArray bytes(1000, 'x');
    void* raw = std::malloc(64);
    g_counting = false;
    std::free(raw);
    delete vector;
    QVERIFY(g_allocations >= (ORVANTA_COUNT_MALLOC ? 3 : 1));
}

void BlockAllocationsTest::steadyStateBlocksAllocateNothing_data()
{
    QTest::addColumn<int>("packetBytes");
    QTest::newRow("whole blocks") << 8192;
    QTest::newRow("10 ms packets") << 1920;
    QTest::newRow("odd packets") << 777;
}

void BlockAllocationsTest::steadyStateBlocksAllocateNothing()
{
    QFETCH(int, packetBytes);
    auto meter = std::make_shared<FakeEndpointMeter>();
    meter->volume = 0.5f;
    PreparedCapturer prepared(waveFormat(SampleType::S16, 2, 48000, 0x3), meter);
    const int blockBytes = int(prepared.d->blockSizeInBytes());
    const QByteArray stream = noiseFrames(2, 2048 * 101, 77);
    QVector<QByteArray> packets;
    for (int offset = 0; offset < stream.size(); offset += packetBytes)
        packets.append(stream.mid(offset, packetBytes));

    // The first block makes the reusable frame and sizes the result buffers.
    int packet = 0;
    for (int taken = 0; taken < blockBytes; taken += packets[packet++].size())
        prepared.feed(packets[packet]);
    const int readsBefore = meter->volumeReads;

    // A receiver that takes each spectrum and lets it go, as a queued
    // connection's event does once delivered.
    int published = 0;
    float loudest = 0.0f;
    connect(prepared.capturer.get(), &AudioCapturer::spectrumsChanged, this, [&](const QVector<SoundChannel>& spectra) {
        ++published;
        loudest = std::max(loudest, spectra[0].spectrums[100].amplitude);
    });

    g_allocations = 0;
    g_counting = true;
    for (; packet < packets.size(); ++packet) {
        // The volume is read on the way, as in a live capture.
        if (packet % 50 == 0)
            prepared.d->volumeTimer.invalidate();
        prepared.feed(packets[packet]);
    }
    g_counting = false;
    const long allocations = g_allocations;

    QVERIFY(meter->volumeReads > readsBefore);
    QVERIFY2(allocations == 0, qPrintable(QStringLiteral("%1 allocations over 100 blocks").arg(allocations)));
    // The blocks did go through: a third of them were published.
    QVERIFY(published >= 33);
    QVERIFY(loudest > 0.0f);
}

QTEST_GUILESS_MAIN(BlockAllocationsTest)
#include "tst_blockallocations.moc"
