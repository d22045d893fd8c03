#include "DXGICapturer.h"

#include "D3DTextureResizer.h"
#include "Helpers.h"
#include "ResultCodes.h"
#include "ScreenCastConsent.h"
#include "ifaces/DesktopDuplicator.h"
#include "ifaces/RetryClock.h"

#include <QtCore/QDebug>
#include <QtCore/QElapsedTimer>
#include <QtCore/QMetaType>

#include <cstdint>
#include <mutex>
#include <vector>

namespace {

// Offered to the duplication in this order; the system picks one. The float
// format keeps HDR desktops duplicable, the resizer samples them down as they are.
const std::vector<int> kDuplicationFormats = {
    10, // DXGI_FORMAT_R16G16B16A16_FLOAT
    11, // DXGI_FORMAT_R16G16B16A16_UNORM
    24, // DXGI_FORMAT_R10G10B10A2_UNORM
    25, // DXGI_FORMAT_R10G10B10A2_UINT
    87, // DXGI_FORMAT_B8G8R8A8_UNORM
};

constexpr unsigned kRetryWaitMilliseconds = 500;
constexpr int kRebuildTries = 5;

/**
 * Codes that retrying cannot cure within a rebuild: a range of three
 * 0x8004020x codes, access denied (a secure desktop is showing), and the DXGI
 * device and session failures. The DXGI ones are one bit each in a mask
 * counted from DXGI_ERROR_UNSUPPORTED.
 */
bool isNonRecoverable(long result)
{
    const auto code = static_cast<std::uint32_t>(result);
    if (code >= 0x80040200u && code <= 0x80040202u) {
        return true;
    }
    if (code == 0x80070005u) {
        return true;
    }
    const std::uint32_t offset = code - 0x887A0004u;
    return offset <= 36 && ((0x117000000FULL >> offset) & 1u) != 0;
}

class MonotonicClock final : public Orvanta::Ifaces::RetryClock
{
public:
    MonotonicClock()
    {
        m_timer.start();
    }

    std::int64_t milliseconds() override
    {
        return m_timer.elapsed();
    }

private:
    QElapsedTimer m_timer;
};

} // namespace

class DXGICapturerPrivate
{
public:
    DeskAdapterHandle adapter;
    DeskOutputHandle output;
    DeskDeviceHandle device;
    std::shared_ptr<Orvanta::Ifaces::DesktopDuplicator> duplicator;
    bool duplicatorInjected = false;
    std::unique_ptr<Orvanta::Ifaces::OutputDuplication> duplication;
    std::shared_ptr<Orvanta::Ifaces::GpuScaler> deviceContext;
    D3DTextureResizer resizer;
    quint32 outputIndex = 0;
    QSize outputSize = QSize(0, 0);
    QSize originSize;
    // Standard mutexes rather than QMutex: their hand-overs are visible to the
    // thread sanitizer, which cannot see into Qt's contended path.
    std::mutex outputSizeLock;
    std::mutex originSizeLock;
    int rotation = 0;

    // Set once a context named a platform; polls before that find nothing to rebuild.
    bool bound = false;
    std::shared_ptr<Orvanta::Ifaces::RetryClock> clock;
    /// A round of up to five tries is under way while the duplication is lost.
    bool rebuilding = false;
    int tries = 0;
    std::int64_t nextTryAt = 0;
    // Serialises every use of the resizer and its device context: a consumer's
    // setOutputSize rebuilds the render target while the polling thread may be
    // drawing into it. Taken before outputSizeLock.
    std::mutex renderLock;
};

DXGICapturer::DXGICapturer(QObject* parent)
    : d(std::make_unique<DXGICapturerPrivate>())
{
    setParent(parent);
    d->clock = std::make_shared<MonotonicClock>();
    qRegisterMetaType<long>("HRESULT");
}

DXGICapturer::DXGICapturer(DeskCaptureContext context, QObject* parent)
    : DXGICapturer(parent)
{
    setCaptureContext(std::move(context));
}

DXGICapturer::DXGICapturer(std::shared_ptr<Orvanta::Ifaces::DesktopDuplicator> duplicator,
    std::shared_ptr<Orvanta::Ifaces::RetryClock> clock, QObject* parent)
    : DXGICapturer(parent)
{
    d->duplicator = std::move(duplicator);
    d->duplicatorInjected = d->duplicator != nullptr;
    if (clock) {
        d->clock = std::move(clock);
    }
}

DXGICapturer::~DXGICapturer()
{
    // The session goes before the device it was made with.
    d->duplication.reset();
}

QSize DXGICapturer::outputSize()
{
    std::lock_guard<std::mutex> lock(d->outputSizeLock);
    return d->outputSize;
}

QSize DXGICapturer::originSize()
{
    std::lock_guard<std::mutex> lock(d->originSizeLock);
    return d->originSize;
}

cv::Mat DXGICapturer::nextFrame()
{
    cv::Mat frame;
    requireNextFrame(frame);
    return frame;
}

void DXGICapturer::setOutputSize(QSize size)
{
    {
        std::lock_guard<std::mutex> lock(d->outputSizeLock);
        d->outputSize = size;
    }
    makeOutputContext();
}

QString DXGICapturer::scalerName()
{
    return d->resizer.scalerName();
}

long DXGICapturer::setCaptureContext(DeskCaptureContext context)
{
    d->adapter = context.adapter;
    d->output = context.output;
    d->device = context.device;
    d->outputIndex = context.outputIndex;
    d->rebuilding = false;
    if (!d->duplicatorInjected) {
        d->duplication.reset();
        d->duplicator = Orvanta::Ifaces::createPlatformDesktopDuplicator(d->adapter, d->device, d->output);
        if (d->duplicator)
            d->duplicator->keepConsentIn(std::make_shared<ScreenCastConsent>());
    }
    if (!d->duplicator) {
        d->bound = false;
        qCritical() << "[DXGICapturer]: Failed to create DXGIDupliation: " << win32ErrorMsg(E_POINTER);
        return E_POINTER;
    }
    d->bound = true;
    d->deviceContext = d->duplicator->deviceScaler();
    if (d->deviceContext) {
        // The platform picks the scaler (the CPU one where the GPU is a software renderer); say which.
        qInfo() << (d->deviceContext->drawsOnCpu() ? "[DXGICapturer]: Frames are scaled on the CPU"
                                                   : "[DXGICapturer]: Frames are scaled on the GPU");
    }

    {
        std::lock_guard<std::mutex> render(d->renderLock);
        // A resizer that fails here shows itself later as frames that don't come.
        d->resizer.setContext(d->deviceContext);
    }

    long result = remakeDupl();
    if (result < 0) {
        qCritical() << "[DXGICapturer]: Failed to create DXGIDupliation: " << win32ErrorMsg(result);
        return result;
    }
    loadDuplInfo();
    result = makeOutputContext();
    if (result < 0) {
        qCritical() << "[DXGICapturer]: Failed to make output context: " << win32ErrorMsg(result);
    }
    return result;
}

long DXGICapturer::remakeDupl()
{
    long result = d->duplicator->enumOutput(d->outputIndex);
    if (result < 0) {
        qCritical() << "[DXGICapturer]: Failed to enum DXGIOutput interface:" << d->outputIndex;
        return result;
    }
    result = d->duplicator->queryDuplicationOutput();
    if (result < 0) {
        qCritical() << "Failed to query IDXGIOutput1 interface for " << d->outputIndex
                    << ", reason: " << win32ErrorMsg(result);
        return result;
    }

    d->duplication.reset();
    result = d->duplicator->duplicateOutput(kDuplicationFormats, d->duplication);
    if (result < 0 || !d->duplication) {
        d->duplication.reset();
        result = result < 0 ? result : E_POINTER;
        qCritical() << "An error occurred when creating the IDXGIOutputDuplication by using IDXGIOutput5"
                    << win32ErrorMsg(result);
        return result;
    }

    const Orvanta::Ifaces::DuplicationDescription description = d->duplication->description();
    if (description.width == 0 || description.height == 0) {
        // Kept in spite of the words: the next acquire decides what becomes of it.
        qCritical() << "The desktop replication port on output " << d->outputIndex
                    << " is abnormal and will be discarded";
        return result;
    }
    if (description.format == 10) {
        qInfo() << "The output index" << d->outputIndex << "has been used DXGI_FORMAT_R16G16B16A16_FLOAT format";
    } else {
        qInfo() << "The output index" << d->outputIndex << "has been used " << description.format << " format";
    }
    loadDuplInfo();
    return makeOutputContext();
}

void DXGICapturer::loadDuplInfo()
{
    if (!d->duplication) {
        return;
    }
    const Orvanta::Ifaces::DuplicationDescription description = d->duplication->description();
    {
        std::lock_guard<std::mutex> lock(d->originSizeLock);
        d->originSize = QSize(int(description.width), int(description.height));
    }
    // Recorded only: frames come out as the duplication gives them.
    if (description.rotation != d->rotation) {
        qDebug() << "[DXGICapturer]: "
                 << "current rotation : " << description.rotation;
        d->rotation = description.rotation;
    }
}

long DXGICapturer::makeOutputContext()
{
    std::lock_guard<std::mutex> render(d->renderLock);
    QSize size;
    {
        std::lock_guard<std::mutex> lock(d->outputSizeLock);
        size = d->outputSize;
        if (size.width() == 0 || size.height() == 0) {
            size = originSize();
            d->outputSize = size;
        }
    }
    return d->resizer.setTargetSize(cv::Size(size.width(), size.height())) ? S_OK : E_FAIL;
}

long DXGICapturer::initRenderCtx()
{
    std::lock_guard<std::mutex> render(d->renderLock);
    return d->resizer.setContext(d->deviceContext) ? S_OK : E_FAIL;
}

bool DXGICapturer::requireNextFrame(cv::Mat& frame)
{
    frame = cv::Mat();
    if (!d->bound) {
        // Not bound to an output yet: there is nothing to rebuild.
        return false;
    }
    if (!d->duplication) {
        if (d->rebuilding) {
            continueRebuild();
        } else {
            startRebuild();
        }
        return false;
    }

    long result = d->duplication->acquireNextFrame(0);
    if (result == DXGI_ERROR_WAIT_TIMEOUT) {
        return false;
    }
    if (result == DXGI_ERROR_ACCESS_LOST) {
        qInfo() << "[DXGICapturer]: DXGIOutputDuplication access lost: " << d->outputIndex;
        d->duplication.reset();
        result = remakeDupl();
        if (result >= 0) {
            qInfo() << "[DXGICapturer]: The DXGIOutputDuplication has rebuilded: " << d->outputIndex;
        } else if (result == E_ACCESSDENIED) {
            qWarning() << "[DXGICapturer]: Failed to rebuild the duplication in the first place, We will rebuild it "
                          "in 0.5 seconds";
            startRebuild();
        }
        return false;
    }
    if (result < 0) {
        d->duplication.reset();
        qCritical() << "[DXGICapturer]: An error occurred while acquiring next frame: " << win32ErrorMsg(result);
        startRebuild();
        return false;
    }

    // Whatever changed, the picture or only the pointer, a frame is made.
    Orvanta::Ifaces::ScalerSource source;
    result = d->duplication->frameSource(source);
    if (result < 0) {
        d->duplication->releaseFrame();
        qCritical() << "[DXGICapturer]: Failed to query D3D11Texture from the desktop frame: " << win32ErrorMsg(result);
        return false;
    }
    {
        std::lock_guard<std::mutex> render(d->renderLock);
        frame = d->resizer.resizeToCVMat(source);
    }
    // The read-back is complete here, so the frame can go back at once.
    d->duplication->releaseFrame();
    return !frame.empty();
}

void DXGICapturer::startRebuild()
{
    // Every front of a registry polls on one thread: a capturer that slept
    // through its waits would hold all the others' frames for as long.
    d->rebuilding = true;
    d->tries = 0;
    d->nextTryAt = d->clock->milliseconds() + kRetryWaitMilliseconds;
}

void DXGICapturer::continueRebuild()
{
    if (d->clock->milliseconds() < d->nextTryAt) {
        return;
    }
    const long result = remakeDupl();
    if (result >= 0) {
        d->rebuilding = false;
        return;
    }
    if (isNonRecoverable(result)) {
        qWarning() << "[DXGICapturer]: Detected a non-recoverable error, stopping retries:" << win32ErrorMsg(result);
        d->rebuilding = false;
        return;
    }
    qWarning() << "[DXGICapturer]: Failed to rebuild the duplication, retrying in 0.5 seconds:"
               << win32ErrorMsg(result);
    if (++d->tries >= kRebuildTries) {
        // The next poll begins a new round, half a second later again.
        d->rebuilding = false;
        return;
    }
    d->nextTryAt = d->clock->milliseconds() + kRetryWaitMilliseconds;
}
