#pragma once

#include "IDeskCapture.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QMutex>
#include <QtCore/QSize>

#include <atomic>
#include <memory>

class D3DTextureResizer;

namespace Orvanta {
namespace Ifaces {
class BorderOption;
class CaptureDevice;
class CaptureFramePool;
class CaptureSession;
class CursorCaptureOption;
class GraphicsCaptureSystem;
struct ItemGrant;
struct ItemRequest;
} // namespace Ifaces
} // namespace Orvanta

/**
 * Capture mode 1: the platform's graphics-capture runtime (Windows.Graphics.Capture
 * on Windows, the desktop portal's screen cast with a PipeWire stream elsewhere).
 *
 * init() makes a capture item for the context's monitor, a free-threaded pool
 * of two buffers and a session, and starts delivery; nextFrame() then takes
 * the newest frame without waiting and scales it on the GPU. The capturer
 * follows the display's rotation by turning the quad and re-creating the pool,
 * and a mirrored source by mirroring the quad.
 *
 * Any failure while polling ends the session for good: the pool is closed and
 * every later poll logs once and returns an empty matrix. Only a new capturer
 * brings capture back.
 *
 * Where the user picks the monitor (the desktop portal), the consent is kept
 * per output in the global configuration value "screenCaptureRestoreTokens":
 * an object with one restore token per output, under the output's platform
 * name (context.deviceName, "primary" for a context without one). The name
 * and not the capturer identifier, so that the consent follows the monitor
 * when outputs are added or reordered. A session of an output hands in its
 * token, so the user is asked once per output and not at every start; the
 * token it gets back replaces the kept one at once. A token the portal no
 * longer honours makes it ask again, and the new answer is kept. The log says:
 * - once per process, as a warning, when the portal keeps no consent beyond
 *   a session;
 * - at info level, when the portal refused a kept token;
 * - as a warning, when the user picked another output than the context's:
 *   one of another size, or one that the portal places elsewhere on the
 *   desktop (a place of 0,0 counts as unknown: some portals give it for every
 *   monitor). That source is captured for this session, but its token is not
 *   kept, so the next start asks again.
 */
class WinRTCapturer : public IDeskCapture
{
    Q_OBJECT

public:
    /// Uses the graphics-capture runtime of this platform; nothing of it is touched yet.
    explicit WinRTCapturer(QObject* parent = nullptr);
    WinRTCapturer(std::shared_ptr<Orvanta::Ifaces::GraphicsCaptureSystem> system, QObject* parent = nullptr);
    ~WinRTCapturer() override;

    /// The global configuration value that keeps the restore tokens, one per output.
    static constexpr const char* RestoreTokensKey = "screenCaptureRestoreTokens";

    /// The whole setup; false when capture cannot start on @p context.
    bool init(DeskCaptureContext context);
    /// Turns off the capture border and turns on the cursor, where the system can.
    void borderlessAndEnableCursor();

    QSize outputSize() override;
    QSize originSize() override;
    cv::Mat nextFrame() override;
    long setCaptureContext(DeskCaptureContext context) override;
    void setOutputSize(QSize size) override;
    QString scalerName() override;

    /// The pool's pixel format, a DirectXPixelFormat value: 10 on HDR outputs, 87 otherwise.
    int pixelFormat() const;
    /// The context init() kept, with the monitor it actually captures.
    DeskCaptureContext captureContext() const;

private:
    cv::Mat captureFrame();
    void endSession();

    std::shared_ptr<Orvanta::Ifaces::GraphicsCaptureSystem> system;

    std::shared_ptr<Orvanta::Ifaces::CaptureFramePool> framePool;
    std::shared_ptr<Orvanta::Ifaces::CaptureSession> session;
    std::shared_ptr<Orvanta::Ifaces::CursorCaptureOption> session2;
    std::shared_ptr<Orvanta::Ifaces::BorderOption> session3;
    std::shared_ptr<Orvanta::Ifaces::CaptureDevice> d3dDevice;
    // Read by consumers' threads through originSize() while init() may write it.
    std::atomic<qint32> itemWidth {0};
    std::atomic<qint32> itemHeight {0};
    qint32 pixelFormatValue = 0;
    DeskCaptureContext context;
    D3DTextureResizer* resizer = nullptr;
    QSize outputSizeValue {0, 0};
    /// The resizer's scaler, under outputSizeLock: the resizer itself is
    /// made and used on the capture thread only.
    QString scalerNameValue;
    QMutex outputSizeLock;
    qint32 rotation = 0;
    bool poolRecreated = false;
    QElapsedTimer frameTimer;
    QElapsedTimer logTimer;
    qint64 frameMsSum = 0;
    qint64 frameCount = 0;
};
