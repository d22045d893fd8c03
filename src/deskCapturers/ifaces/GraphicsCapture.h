#pragma once

#include "ifaces/GpuScaler.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Orvanta {
namespace Ifaces {

class DisplayOutput;
class GraphicsDevice;

/// A width and height in pixels, as the capture runtime counts them.
struct CaptureSize
{
    std::int32_t width = 0;
    std::int32_t height = 0;
};

/// One monitor of the desktop and its flags (bit 0: the primary monitor).
struct MonitorEntry
{
    std::uintptr_t monitor = 0;
    unsigned long flags = 0;
};

/**
 * What the capturer knows of the output it asks an item for. Where the user,
 * not the caller, picks what is captured (the desktop portal), the runtime
 * may skip the question with consent the user gave an earlier session.
 */
struct ItemRequest
{
    /// The monitor, as the platform names it.
    std::uintptr_t monitor = 0;
    /// The consent an earlier session of this output handed out; empty for none.
    std::string restoreToken;
};

/// How long the user's consent to a capture lasts.
enum class CaptureConsent {
    NotAsked, ///< The caller picks the source; nobody is asked.
    PerSession, ///< The user is asked again at the next session or process.
    Persistent, ///< ItemGrant::restoreToken spares the question until the user revokes it.
};

/// What the runtime granted with an item.
struct ItemGrant
{
    CaptureConsent consent = CaptureConsent::NotAsked;
    /// The consent to hand in for the next session of this output; empty for none.
    std::string restoreToken;
    /// True when the runtime refused ItemRequest::restoreToken and asked the user anew.
    bool restoreTokenRefused = false;
    /// Where the source the user picked lies on the desktop, where the runtime says so.
    bool hasSourcePosition = false;
    std::int32_t sourceX = 0;
    std::int32_t sourceY = 0;
};

/**
 * Whether the source the user picked, of @p picked size, can be the output
 * at @p x, @p y of @p width by @p height: the same size either way round (a
 * turned output keeps its unturned size in a stream), and the same top left
 * corner where the runtime tells one. Some back-ends put every monitor at
 * 0,0, so that corner only counts against a source elsewhere.
 */
inline bool isPickedOutput(const ItemGrant& grant, const CaptureSize& picked, std::int32_t x, std::int32_t y,
    std::int32_t width, std::int32_t height)
{
    const bool sameSize
        = (picked.width == width && picked.height == height) || (picked.width == height && picked.height == width);
    if (!sameSize)
        return false;
    const bool cornerUnknown = !grant.hasSourcePosition || (grant.sourceX == 0 && grant.sourceY == 0);
    return cornerUnknown || (grant.sourceX == x && grant.sourceY == y);
}

/**
 * Keeps the user's consent to capture, one restore token per output, from
 * session to session and from process to process (the application's
 * configuration). Used where the user, not the caller, picks the source.
 */
class ConsentStore
{
public:
    virtual ~ConsentStore() = default;

    /// The consent an earlier session of @p output handed out; empty for none.
    virtual std::string restoreToken(const std::string& output) = 0;
    /**
     * Keeps what @p grant handed out for @p output after a session asked with
     * @p request; @p pickedOther (the user picked another output than the one
     * asked for) keeps nothing, so that the next session asks again.
     */
    virtual void keep(const std::string& output, const ItemRequest& request, const ItemGrant& grant, bool pickedOther)
        = 0;
};

/// What can be captured: one monitor, with the size the runtime gives it.
class CaptureItem
{
public:
    virtual ~CaptureItem() = default;

    virtual long size(CaptureSize& size) const = 0;
};

/// The capture runtime's own wrapper of a GPU device; opaque to the logic.
class CaptureDevice
{
public:
    virtual ~CaptureDevice() = default;
};

/**
 * Guards a device's drawing context against the capture runtime's own
 * threads (ID3D10Multithread on Windows). enter() and leave() bracket every
 * use of the context by the capturer.
 */
class DeviceContextGuard
{
public:
    virtual ~DeviceContextGuard() = default;

    virtual bool isProtected() const = 0;
    virtual void setProtected(bool enabled) = 0;
    virtual void enter() = 0;
    virtual void leave() = 0;
};

/**
 * One captured frame, alive only while the capturer works on it: dropping it
 * hands its buffer back to the pool.
 */
class CapturedFrame
{
public:
    virtual ~CapturedFrame() = default;

    /// False when the frame came without a surface; nothing else is asked then.
    virtual bool hasSurface() const = 0;
    /// The surface's texture as a scaler source (a device texture or mapped pixels).
    virtual long texture(ScalerSource& source) = 0;
    /// The drawing context of the device that owns the texture, for the resizer.
    virtual long deviceScaler(std::shared_ptr<GpuScaler>& scaler) = 0;
    /// The guard of that drawing context.
    virtual long contextGuard(std::shared_ptr<DeviceContextGuard>& guard) = 0;
};

/// The optional cursor option of a session; absent on older systems.
class CursorCaptureOption
{
public:
    virtual ~CursorCaptureOption() = default;

    virtual long setCursorCaptureEnabled(bool enabled) = 0;
};

/// The optional border option of a session; absent on older systems.
class BorderOption
{
public:
    virtual ~BorderOption() = default;

    virtual long setBorderRequired(bool required) = 0;
};

/// Delivery of frames of one item into one pool.
class CaptureSession
{
public:
    virtual ~CaptureSession() = default;

    virtual long startCapture() = 0;
    /// The session's cursor option, or null where the system lacks it.
    virtual std::shared_ptr<CursorCaptureOption> cursorOption() = 0;
    /// The session's border option, or null where the system lacks it.
    virtual std::shared_ptr<BorderOption> borderOption() = 0;
};

/**
 * A pool of frame buffers that needs no dispatcher queue: it may be polled
 * from any thread. After close() every operation fails.
 */
class CaptureFramePool
{
public:
    virtual ~CaptureFramePool() = default;

    virtual long createCaptureSession(const CaptureItem& item, std::shared_ptr<CaptureSession>& session) = 0;
    /// The newest frame, or null in @p frame when none is there. Never waits.
    virtual long tryGetNextFrame(std::unique_ptr<CapturedFrame>& frame) = 0;
    /// New buffers of @p size (a renegotiation where the source is a stream).
    virtual long recreate(const CaptureDevice& device, int pixelFormat, int bufferCount, CaptureSize size) = 0;
    virtual long close() = 0;
};

/**
 * The graphics-capture runtime of the platform: availability, consent, items
 * for monitors and frame pools. Every operation reports in the HRESULT
 * convention (negative is failure); completion handlers run on threads of the
 * runtime and may come after the call returned.
 */
class GraphicsCaptureSystem
{
public:
    using AccessHandler = std::function<void(int status)>;

    virtual ~GraphicsCaptureSystem() = default;

    virtual bool isApiContractPresent(const std::string& contract, unsigned version) = 0;
    virtual bool isPropertyPresent(const std::string& type, const std::string& property) = 0;
    /// The system's version as a decimal string.
    virtual long deviceFamilyVersion(std::string& version) = 0;

    /// Asks for @p capabilities; @p completed gets the request's completion status
    /// (a Windows.Foundation.AsyncStatus value) later.
    virtual long requestCapabilityAccess(const std::vector<std::string>& capabilities, AccessHandler completed) = 0;
    /// Asks for capture without a border; @p completed gets the answer (an
    /// AppCapabilityAccessStatus value, or -1 when the request did not complete) later.
    virtual long requestBorderlessAccess(AccessHandler completed) = 0;

    /// The monitors of the desktop, in the platform's order.
    virtual long enumerateMonitors(std::vector<MonitorEntry>& monitors) = 0;
    virtual long createItemForMonitor(std::uintptr_t monitor, std::shared_ptr<CaptureItem>& item) = 0;
    /// Whether the user, not the caller, picks what an item captures (and
    /// createItemForOutput() takes and hands out consent).
    virtual bool userPicksSource() const
    {
        return false;
    }
    /**
     * An item for the output of @p request, with what the runtime granted in
     * @p grant. Runtimes where the caller picks the monitor need nothing more
     * than createItemForMonitor().
     */
    virtual long createItemForOutput(const ItemRequest& request, std::shared_ptr<CaptureItem>& item, ItemGrant& grant)
    {
        grant = ItemGrant();
        return createItemForMonitor(request.monitor, item);
    }

    /// Checks that @p device can be shared with the runtime (IDXGIDevice).
    virtual long queryDxgiDevice(const std::shared_ptr<GraphicsDevice>& device) = 0;
    /// Wraps @p device for the runtime.
    virtual long createCaptureDevice(
        const std::shared_ptr<GraphicsDevice>& device, std::shared_ptr<CaptureDevice>& captureDevice)
        = 0;

    /// Checks that @p output can describe its colour space (IDXGIOutput6).
    virtual long queryOutputColorSpace(const std::shared_ptr<DisplayOutput>& output) = 0;
    /// The output's colour space, a DXGI_COLOR_SPACE_TYPE value.
    virtual long outputColorSpace(const std::shared_ptr<DisplayOutput>& output, int& colorSpace) = 0;
    /// The rotation the frames are delivered in now, a DXGI_MODE_ROTATION value.
    virtual long outputRotation(const std::shared_ptr<DisplayOutput>& output, int& rotation) = 0;
    /// Whether the frames come mirrored left to right, before the rotation is applied.
    virtual long outputMirrored(const std::shared_ptr<DisplayOutput>& output, bool& mirrored) = 0;

    virtual long createFreeThreadedPool(const CaptureDevice& device, int pixelFormat, int bufferCount, CaptureSize size,
        std::shared_ptr<CaptureFramePool>& pool)
        = 0;
};

/// The graphics-capture runtime of the platform the library was built for.
std::shared_ptr<GraphicsCaptureSystem> createPlatformGraphicsCapture();

} // namespace Ifaces
} // namespace Orvanta
