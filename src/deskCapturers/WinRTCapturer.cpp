#include "WinRTCapturer.h"

#include "ScreenCastConsent.h"

#include "D3DTextureResizer.h"
#include "Helpers.h"
#include "ResultCodes.h"
#include "ifaces/GraphicsCapture.h"

#include <QtCore/QDebug>
#include <QtCore/QMutexLocker>

#include <string>
#include <utility>
#include <vector>

using namespace Orvanta::Ifaces;

namespace {

constexpr unsigned long MonitorInfoPrimary = 0x1; // MONITORINFOF_PRIMARY
constexpr int HdrColorSpace = 12; // DXGI_COLOR_SPACE_RGB_FULL_G2084_NONE_P2020
constexpr int PixelFormatHdr = 10; // DirectXPixelFormat::R16G16B16A16Float
constexpr int PixelFormatSdr = 87; // DirectXPixelFormat::B8G8R8A8UIntNormalized
constexpr int PoolBuffers = 2;
constexpr qint64 RateLogIntervalMs = 3000;

/// A failed runtime call: what the runtime's projection would have thrown.
class CaptureError
{
public:
    explicit CaptureError(long code)
        : m_code(code)
    {
    }
    long code() const
    {
        return m_code;
    }
    QString message() const
    {
        return win32ErrorMsg(m_code);
    }

private:
    long m_code;
};

void check(long result)
{
    if (result < 0)
        throw CaptureError(result);
}

/// Keeps the device context entered for exactly one scope, also when a step throws:
/// a section left entered would block the runtime's own threads for good.
class ContextSection
{
public:
    explicit ContextSection(DeviceContextGuard& guard)
        : m_guard(guard)
    {
        m_guard.enter();
    }
    ~ContextSection()
    {
        m_guard.leave();
    }
    ContextSection(const ContextSection&) = delete;
    ContextSection& operator=(const ContextSection&) = delete;

private:
    DeviceContextGuard& m_guard;
};

/// The digits of @p text read as one decimal number; everything else is skipped.
quint64 versionNumber(const std::string& text)
{
    quint64 value = 0;
    for (const char c : text) {
        if (c >= '0' && c <= '9')
            value = value * 10u + static_cast<quint64>(c - '0');
    }
    return value;
}

/// The name under which the consent of @p context's output is kept.
QString consentName(const DeskCaptureContext& context)
{
    // A context without a name stands for the primary monitor.
    return context.deviceName.isEmpty() ? QStringLiteral("primary") : context.deviceName;
}

void logSystemVersion(const std::string& version)
{
    const quint64 v = versionNumber(version);
    qInfo() << "[WinRTCapturer]: System version: \r\n"
            << "\tMajor Version: " << ((v >> 48) & 0xFFFFu) << "\r\n"
            << "\tMinor Version: " << ((v >> 32) & 0xFFFFu) << "\r\n"
            << "\tBuild Number: " << ((v >> 16) & 0xFFFFu) << "\r\n"
            << "\tRevision Number: " << (v & 0xFFFFu);
}

} // namespace

WinRTCapturer::WinRTCapturer(QObject* parent)
    : WinRTCapturer(createPlatformGraphicsCapture(), parent)
{
}

WinRTCapturer::WinRTCapturer(std::shared_ptr<GraphicsCaptureSystem> captureSystem, QObject* parent)
    : system(std::move(captureSystem))
{
    setParent(parent);
}

WinRTCapturer::~WinRTCapturer()
{
    delete resizer;
}

bool WinRTCapturer::init(DeskCaptureContext newContext)
{
    try {
        if (!system || !system->isApiContractPresent("Windows.Foundation.UniversalApiContract", 8)) {
            qCritical() << "[WinRTCapturer]: Current system cannot support";
            return false;
        }

        std::string version;
        check(system->deviceFamilyVersion(version));
        logSystemVersion(version);

        const std::vector<std::string> capabilities {"graphicsCaptureWithoutBorder", "graphicsCaptureProgrammatic"};
        check(system->requestCapabilityAccess(capabilities, [](int status) {
            qDebug() << "[WinRTCapturer]: The RequestAccessForCapabilitiesAsync result is" << status;
        }));

        if (newContext.monitor == 0) {
            qWarning() << "The monitor handle is null, we will try to get the primary monitor handle";
            std::vector<MonitorEntry> monitors;
            check(system->enumerateMonitors(monitors));
            for (const MonitorEntry& entry : monitors) {
                if (entry.flags & MonitorInfoPrimary) {
                    newContext.monitor = static_cast<DeskMonitorHandle>(entry.monitor);
                    break;
                }
            }
        }

        // Only where the user picks the monitor is there consent to keep.
        const bool userPicks = system->userPicksSource();
        const QString output = consentName(newContext);
        ItemRequest request;
        request.monitor = newContext.monitor;
        if (userPicks)
            request.restoreToken = ScreenCastConsent::restoreToken(output);
        std::shared_ptr<CaptureItem> item;
        ItemGrant grant;
        long hr = system->createItemForOutput(request, item, grant);
        if (hr < 0 || !item) {
            qCritical() << "Failed to create IGraphicsCaptureItem for monitor"
                        << win32ErrorMsg(hr < 0 ? hr : E_POINTER);
            return false;
        }
        CaptureSize pickedSize;
        const bool pickedOther = userPicks && !newContext.position.isEmpty() && item->size(pickedSize) >= 0
            && !isPickedOutput(grant, pickedSize, newContext.position.x(), newContext.position.y(),
                newContext.position.width(), newContext.position.height());
        if (userPicks)
            ScreenCastConsent::keep(output, request, grant, pickedOther);
        if (pickedOther) {
            const QRect& row = newContext.position;
            QString picked = QStringLiteral("%1x%2").arg(pickedSize.width).arg(pickedSize.height);
            if (grant.hasSourcePosition && (grant.sourceX != 0 || grant.sourceY != 0))
                picked += QStringLiteral(" at %1,%2").arg(grant.sourceX).arg(grant.sourceY);
            qWarning().noquote() << QStringLiteral("[WinRTCapturer]: The user picked another output than %1 (%2x%3 at "
                                                   "%4,%5): capturing the picked one (%6) for now, without keeping "
                                                   "the choice")
                                        .arg(output)
                                        .arg(row.width())
                                        .arg(row.height())
                                        .arg(row.x())
                                        .arg(row.y())
                                        .arg(picked);
        }

        if (system->queryDxgiDevice(newContext.device) != 0) {
            qCritical() << "Failed to get IDXGIDevice interface";
            return false;
        }

        std::shared_ptr<CaptureDevice> device;
        hr = system->createCaptureDevice(newContext.device, device);
        if (hr < 0 || !device) {
            qCritical() << "Failed to get WinRT device" << win32ErrorMsg(hr < 0 ? hr : E_POINTER);
            return false;
        }

        CaptureSize size;
        check(item->size(size));

        hr = system->queryOutputColorSpace(newContext.output);
        if (hr < 0) {
            qCritical() << "Failed to get IDXGIOutput6 interface" << win32ErrorMsg(hr);
            return false;
        }
        int colorSpace = 0;
        hr = system->outputColorSpace(newContext.output, colorSpace);
        if (hr < 0) {
            qCritical() << "Failed to get IDXGIOutput6 desc" << win32ErrorMsg(hr);
            return false;
        }
        const int format = colorSpace == HdrColorSpace ? PixelFormatHdr : PixelFormatSdr;

        std::shared_ptr<CaptureFramePool> pool;
        check(system->createFreeThreadedPool(*device, format, PoolBuffers, size, pool));
        if (!pool)
            throw CaptureError(E_POINTER);
        std::shared_ptr<CaptureSession> newSession;
        check(pool->createCaptureSession(*item, newSession));
        if (!newSession)
            throw CaptureError(E_POINTER);

        framePool = std::move(pool);
        session = std::move(newSession);
        session2 = session->cursorOption();
        session3 = session->borderOption();
        d3dDevice = std::move(device);
        context = newContext;
        pixelFormatValue = format;
        itemWidth.store(size.width);
        itemHeight.store(size.height);

        borderlessAndEnableCursor();

        check(session->startCapture());

        frameTimer.start();
        logTimer.start();
        return true;
    } catch (const CaptureError& error) {
        qCritical() << "[WinRTCapturer]: An exception occurred while initializing the winrt capture" << error.message();
    } catch (...) {
        qCritical() << "[WinRTCapturer]: An unexpected exception occurred while initializing the winrt capture ";
    }
    return false;
}

void WinRTCapturer::borderlessAndEnableCursor()
{
    if (session3) {
        if (system->isPropertyPresent("Windows.Graphics.Capture.GraphicsCaptureSession", "IsBorderRequired")) {
            // The handler runs on a runtime thread, possibly after this capturer is
            // gone or its session was dropped: it keeps the option object alive itself.
            std::shared_ptr<BorderOption> border = session3;
            check(system->requestBorderlessAccess([border](int status) {
                qDebug() << "The RequestAccessAsync result is" << status;
                border->setBorderRequired(false);
            }));
        } else {
            qWarning()
                << "Cannot supported property \"Windows.Graphics.Capture.GraphicsCaptureSession.IsBorderRequired\"";
        }
    }
    if (session2) {
        if (system->isPropertyPresent("Windows.Graphics.Capture.GraphicsCaptureSession", "IsCursorCaptureEnabled"))
            check(session2->setCursorCaptureEnabled(true));
    }
}

QSize WinRTCapturer::outputSize()
{
    QMutexLocker locker(&outputSizeLock);
    return outputSizeValue;
}

QSize WinRTCapturer::originSize()
{
    return QSize(itemWidth.load(), itemHeight.load());
}

QString WinRTCapturer::scalerName()
{
    QMutexLocker locker(&outputSizeLock);
    return scalerNameValue;
}

long WinRTCapturer::setCaptureContext(DeskCaptureContext newContext)
{
    return init(std::move(newContext)) ? 0 : E_FAIL;
}

void WinRTCapturer::setOutputSize(QSize size)
{
    QMutexLocker locker(&outputSizeLock);
    outputSizeValue = size;
}

int WinRTCapturer::pixelFormat() const
{
    return pixelFormatValue;
}

DeskCaptureContext WinRTCapturer::captureContext() const
{
    return context;
}

cv::Mat WinRTCapturer::nextFrame()
{
    // Not set up (init failed or never ran): nothing to poll.
    if (!framePool)
        return cv::Mat();
    try {
        return captureFrame();
    } catch (const CaptureError& error) {
        qCritical() << "[WinRTCapturer]: An exception occurred while processing the winrt capture" << error.message();
    } catch (...) {
        qCritical() << "[WinRTCapturer]: An unexpected exception occurred while processing the winrt capture ";
    }
    endSession();
    return cv::Mat();
}

cv::Mat WinRTCapturer::captureFrame()
{
    std::unique_ptr<CapturedFrame> frame;
    check(framePool->tryGetNextFrame(frame));
    if (!frame || !frame->hasSurface())
        return cv::Mat();

    ScalerSource source;
    check(frame->texture(source));
    std::shared_ptr<GpuScaler> scaler;
    check(frame->deviceScaler(scaler));
    std::shared_ptr<DeviceContextGuard> guard;
    check(frame->contextGuard(guard));
    if (!scaler || !guard)
        throw CaptureError(E_POINTER);
    if (!guard->isProtected())
        guard->setProtected(true);

    cv::Mat m;
    {
        ContextSection section(*guard);

        if (!resizer) {
            resizer = new D3DTextureResizer;
            resizer->setContext(scaler);
            QMutexLocker locker(&outputSizeLock);
            scalerNameValue = resizer->scalerName();
        }

        QSize size;
        {
            QMutexLocker locker(&outputSizeLock);
            size = outputSizeValue;
            if (size.width() == 0 || size.height() == 0) {
                size = QSize(itemWidth.load(), itemHeight.load());
                outputSizeValue = size;
            }
        }
        const cv::Size target(size.width(), size.height());
        if (resizer->targetSize() != target)
            resizer->setTargetSize(target);

        poolRecreated = false;
        int current = 0;
        check(system->outputRotation(context.output, current));
        bool currentlyMirrored = false;
        check(system->outputMirrored(context.output, currentlyMirrored));
        if (current != rotation) {
            resizer->setRotation(current, currentlyMirrored);
            rotation = current;
            CaptureSize poolSize {itemWidth.load(), itemHeight.load()};
            if (current == D3DTextureResizer::Rotation90 || current == D3DTextureResizer::Rotation270)
                std::swap(poolSize.width, poolSize.height);
            check(framePool->recreate(*d3dDevice, pixelFormatValue, PoolBuffers, poolSize));
            poolRecreated = true;
        } else if (currentlyMirrored != resizer->isMirrored()) {
            // A mirror alone keeps the picture's size: only the quad changes.
            resizer->setRotation(current, currentlyMirrored);
        }

        m = resizer->resizeToCVMat(source);
    }

    frameMsSum += frameTimer.restart();
    ++frameCount;
    if (logTimer.elapsed() >= RateLogIntervalMs) {
        qInfo() << "[[loop]][WinRTCapturer]: FPS: " << double(frameMsSum) / double(frameCount);
        frameMsSum = 0;
        frameCount = 0;
        logTimer.restart();
    }
    return m;
}

void WinRTCapturer::endSession()
{
    session.reset();
    session2.reset();
    session3.reset();
    // The pool stays: each later poll fails on the closed pool and logs once.
    framePool->close();
}
