#include "portal/PortalGraphicsCapture.h"

#include "ResultCodes.h"
#include "cpu/SoftwareScaler.h"
#include "egl/EglDevice.h"
#include "egl/GlesScaler.h"
#include "pipewire/PipeWireStream.h"
#include "portal/ScreenCastPortal.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <atomic>
#include <cctype>

namespace Orvanta {

namespace Ifaces {
std::shared_ptr<GraphicsCaptureSystem> createPlatformGraphicsCapture()
{
    return std::make_shared<Portal::PortalGraphicsCapture>();
}
} // namespace Ifaces

namespace Portal {

namespace {

constexpr int RequestCompleted = 1; // Windows.Foundation.AsyncStatus::Completed

class PortalItem final : public Ifaces::CaptureItem
{
public:
    PortalItem(std::shared_ptr<ScreenCastPortal> portal, ScreenCastPortal::Stream stream, int fd, bool cursorEmbedded)
        : portal(std::move(portal))
        , stream(stream)
        , fd(fd)
        , cursorEmbedded(cursorEmbedded)
    {
    }
    ~PortalItem() override
    {
        if (fd >= 0)
            ::close(fd);
    }
    long size(Ifaces::CaptureSize& size) const override
    {
        size.width = stream.width;
        size.height = stream.height;
        return S_OK;
    }
    /// The PipeWire connection, handed over once.
    int takeFd()
    {
        const int taken = fd;
        fd = -1;
        return taken;
    }

    std::shared_ptr<ScreenCastPortal> portal;
    ScreenCastPortal::Stream stream;
    int fd;
    bool cursorEmbedded;
};

/// Serialises the drawing context between capturers that share a device.
class ContextMutex final : public Ifaces::DeviceContextGuard
{
public:
    bool isProtected() const override
    {
        return m_protected;
    }
    void setProtected(bool enabled) override
    {
        m_protected = enabled;
    }
    void enter() override
    {
        m_mutex.lock();
    }
    void leave() override
    {
        m_mutex.unlock();
    }

private:
    std::recursive_mutex m_mutex;
    std::atomic<bool> m_protected {false};
};

class PortalDevice final : public Ifaces::CaptureDevice
{
public:
    std::shared_ptr<Ifaces::GpuScaler> scaler;
    std::shared_ptr<Ifaces::DeviceContextGuard> guard = std::make_shared<ContextMutex>();
    /// What the scaler imports from DMA-BUFs without a copy.
    std::vector<Ifaces::DmaBufFormat> importable;
};

class PortalFrame final : public Ifaces::CapturedFrame
{
public:
    PortalFrame(std::unique_ptr<PipeWire::PipeWireStream::Frame> frame, const PortalDevice& device)
        : m_frame(std::move(frame))
        , m_scaler(device.scaler)
        , m_guard(device.guard)
    {
    }
    bool hasSurface() const override
    {
        return m_frame->hasPicture();
    }
    long texture(Ifaces::ScalerSource& source) override
    {
        source = m_frame->source();
        return S_OK;
    }
    long deviceScaler(std::shared_ptr<Ifaces::GpuScaler>& scaler) override
    {
        scaler = m_scaler;
        return scaler ? S_OK : E_POINTER;
    }
    long contextGuard(std::shared_ptr<Ifaces::DeviceContextGuard>& guard) override
    {
        guard = m_guard;
        return S_OK;
    }

private:
    std::unique_ptr<PipeWire::PipeWireStream::Frame> m_frame;
    std::shared_ptr<Ifaces::GpuScaler> m_scaler;
    std::shared_ptr<Ifaces::DeviceContextGuard> m_guard;
};

class CursorAlwaysEmbedded final : public Ifaces::CursorCaptureOption
{
public:
    long setCursorCaptureEnabled(bool enabled) override
    {
        // The portal fixed the cursor mode when the source was chosen.
        return enabled ? S_OK : E_NOTIMPL;
    }
};

class PortalSession final : public Ifaces::CaptureSession
{
public:
    PortalSession(std::shared_ptr<PipeWire::PipeWireStream> stream, bool cursorEmbedded)
        : m_stream(std::move(stream))
        , m_cursorEmbedded(cursorEmbedded)
    {
    }
    long startCapture() override
    {
        return m_stream->start();
    }
    std::shared_ptr<Ifaces::CursorCaptureOption> cursorOption() override
    {
        if (!m_cursorEmbedded)
            return nullptr;
        return std::make_shared<CursorAlwaysEmbedded>();
    }
    std::shared_ptr<Ifaces::BorderOption> borderOption() override
    {
        return nullptr; // portals draw no capture border
    }

private:
    std::shared_ptr<PipeWire::PipeWireStream> m_stream;
    bool m_cursorEmbedded;
};

} // namespace

class PortalFramePool final : public Ifaces::CaptureFramePool
{
public:
    PortalFramePool(std::weak_ptr<PortalGraphicsCapture> system, const PortalDevice& device, Ifaces::CaptureSize size)
        : m_system(std::move(system))
        , m_device(device)
        , m_size(size)
    {
    }
    ~PortalFramePool() override
    {
        close();
    }

    long createCaptureSession(
        const Ifaces::CaptureItem& item, std::shared_ptr<Ifaces::CaptureSession>& session) override
    {
        if (m_closed)
            return RO_E_CLOSED;
        auto* portalItem = dynamic_cast<PortalItem*>(const_cast<Ifaces::CaptureItem*>(&item));
        if (!portalItem)
            return E_INVALIDARG;
        std::shared_ptr<PipeWire::PipeWireStream> stream;
        PipeWire::PipeWireStream::Request request;
        request.width = m_size.width;
        request.height = m_size.height;
        request.importable = m_device.importable;
        const long hr
            = PipeWire::PipeWireStream::open(portalItem->takeFd(), portalItem->stream.nodeId, request, stream);
        if (hr < 0)
            return hr;
        m_portal = portalItem->portal;
        m_stream = stream;
        if (auto system = m_system.lock()) {
            std::lock_guard<std::mutex> lock(system->m_streamMutex);
            system->m_stream = stream;
        }
        session = std::make_shared<PortalSession>(std::move(stream), portalItem->cursorEmbedded);
        return S_OK;
    }

    long tryGetNextFrame(std::unique_ptr<Ifaces::CapturedFrame>& frame) override
    {
        frame.reset();
        if (m_closed)
            return RO_E_CLOSED;
        if (!m_stream)
            return S_OK;
        std::unique_ptr<PipeWire::PipeWireStream::Frame> buffer;
        const long hr = m_stream->takeNewest(buffer);
        if (hr < 0)
            return hr;
        if (buffer)
            frame.reset(new PortalFrame(std::move(buffer), m_device));
        return S_OK;
    }

    long recreate(const Ifaces::CaptureDevice&, int, int, Ifaces::CaptureSize size) override
    {
        if (m_closed)
            return RO_E_CLOSED;
        m_size = size;
        return m_stream ? m_stream->renegotiate(size.width, size.height) : S_OK;
    }

    long close() override
    {
        if (m_closed)
            return S_OK;
        m_closed = true;
        if (m_stream)
            m_stream->close();
        m_stream.reset();
        if (m_portal)
            m_portal->closeSession();
        m_portal.reset();
        return S_OK;
    }

private:
    std::weak_ptr<PortalGraphicsCapture> m_system;
    PortalDevice m_device;
    Ifaces::CaptureSize m_size;
    std::shared_ptr<PipeWire::PipeWireStream> m_stream;
    std::shared_ptr<ScreenCastPortal> m_portal;
    bool m_closed = false;
};

PortalGraphicsCapture::PortalGraphicsCapture() = default;

PortalGraphicsCapture::~PortalGraphicsCapture()
{
    std::lock_guard<std::mutex> lock(m_threadsMutex);
    for (std::thread& thread : m_completions)
        thread.join();
}

long PortalGraphicsCapture::ensurePortal()
{
    if (m_portalResult <= 0)
        return m_portalResult;
    m_portalResult = ScreenCastPortal::connect(m_portal);
    if (m_portalResult >= 0)
        m_portalResult = m_portal->probe();
    if (m_portalResult > 0)
        m_portalResult = S_OK;
    return m_portalResult;
}

bool PortalGraphicsCapture::isApiContractPresent(const std::string&, unsigned)
{
    // What stands for the runtime's contract here: a portal with screen casting.
    return ensurePortal() >= 0;
}

bool PortalGraphicsCapture::isPropertyPresent(const std::string& type, const std::string& property)
{
    if (type != "Windows.Graphics.Capture.GraphicsCaptureSession" || ensurePortal() < 0)
        return false;
    if (property == "IsCursorCaptureEnabled")
        return (m_portal->availableCursorModes() & ScreenCastPortal::CursorEmbedded) != 0;
    return false;
}

long PortalGraphicsCapture::deviceFamilyVersion(std::string& version)
{
    // The kernel release in the runtime's layout: four 16-bit fields of one number.
    utsname name {};
    if (::uname(&name) != 0)
        return E_FAIL;
    unsigned long long fields[4] = {0, 0, 0, 0};
    int field = -1;
    bool inNumber = false;
    for (const char* c = name.release; *c && field < 4; ++c) {
        if (std::isdigit(static_cast<unsigned char>(*c))) {
            if (!inNumber) {
                ++field;
                inNumber = true;
                if (field >= 4)
                    break;
            }
            fields[field] = (fields[field] * 10 + unsigned(*c - '0')) & 0xFFFFu;
        } else {
            inNumber = false;
        }
    }
    const unsigned long long packed = (fields[0] << 48) | (fields[1] << 32) | (fields[2] << 16) | fields[3];
    version = std::to_string(packed);
    return S_OK;
}

long PortalGraphicsCapture::requestCapabilityAccess(const std::vector<std::string>&, AccessHandler completed)
{
    // The portal asks the user when the session starts; there is nothing to ask
    // beforehand. The answer still comes on a thread of its own, as callers expect.
    if (!completed)
        return S_OK;
    std::lock_guard<std::mutex> lock(m_threadsMutex);
    m_completions.emplace_back([handler = std::move(completed)] { handler(RequestCompleted); });
    return S_OK;
}

long PortalGraphicsCapture::requestBorderlessAccess(AccessHandler)
{
    return E_NOTIMPL;
}

long PortalGraphicsCapture::enumerateMonitors(std::vector<Ifaces::MonitorEntry>& monitors)
{
    // The portal shows the monitors to the user; to the caller there is one
    // source, the one chosen, and it counts as primary.
    monitors.assign(1, Ifaces::MonitorEntry {PortalMonitor, 1});
    return S_OK;
}

long PortalGraphicsCapture::createItemForMonitor(std::uintptr_t monitor, std::shared_ptr<Ifaces::CaptureItem>& item)
{
    Ifaces::ItemRequest request;
    request.monitor = monitor;
    Ifaces::ItemGrant grant;
    return createItemForOutput(request, item, grant);
}

bool PortalGraphicsCapture::userPicksSource() const
{
    return true;
}

long PortalGraphicsCapture::createItemForOutput(
    const Ifaces::ItemRequest& request, std::shared_ptr<Ifaces::CaptureItem>& item, Ifaces::ItemGrant& grant)
{
    item.reset();
    grant = Ifaces::ItemGrant();
    long hr = ensurePortal();
    if (hr < 0)
        return hr;
    // Each item has a bus connection of its own: its session lives as long as the item's pool.
    std::unique_ptr<ScreenCastPortal> connection;
    hr = ScreenCastPortal::connect(connection);
    if (hr < 0)
        return hr;
    hr = connection->probe();
    if (hr < 0)
        return hr;
    std::shared_ptr<ScreenCastPortal> portal(std::move(connection));
    const bool embedCursor = (portal->availableCursorModes() & ScreenCastPortal::CursorEmbedded) != 0;
    ScreenCastPortal::Stream stream;
    std::string nextToken;
    hr = portal->openMonitorSession(embedCursor, request.restoreToken, stream, nextToken);
    // A portal that fails the session over a token it no longer knows gets the
    // plain question. The user's own no, or no answer at all, stands.
    if (hr == E_FAIL && !request.restoreToken.empty()) {
        grant.restoreTokenRefused = true;
        stream = ScreenCastPortal::Stream();
        nextToken.clear();
        hr = portal->openMonitorSession(embedCursor, std::string(), stream, nextToken);
    }
    if (hr < 0)
        return hr;
    grant.consent = nextToken.empty() ? Ifaces::CaptureConsent::PerSession : Ifaces::CaptureConsent::Persistent;
    grant.restoreToken = nextToken;
    grant.hasSourcePosition = stream.hasPosition;
    grant.sourceX = stream.x;
    grant.sourceY = stream.y;
    int fd = -1;
    hr = portal->openPipeWireRemote(fd);
    if (hr < 0) {
        portal->closeSession();
        return hr;
    }
    item = std::make_shared<PortalItem>(std::move(portal), stream, fd, embedCursor);
    return S_OK;
}

long PortalGraphicsCapture::queryDxgiDevice(const std::shared_ptr<Ifaces::GraphicsDevice>&)
{
    return S_OK; // any device will do: without one, a context of our own is made
}

long PortalGraphicsCapture::createCaptureDevice(
    const std::shared_ptr<Ifaces::GraphicsDevice>& device, std::shared_ptr<Ifaces::CaptureDevice>& captureDevice)
{
    auto result = std::make_shared<PortalDevice>();
    std::shared_ptr<Egl::EglDevice> egl = std::dynamic_pointer_cast<Egl::EglDevice>(device);
    if (!egl && (Egl::EglDevice::cpuScalingWithoutDevice() || Egl::EglDevice::create(egl) < 0))
        egl.reset();
    // On a software renderer the CPU scaler is the faster one; the stream then
    // negotiates buffers in shared memory, which it reads in place.
    if (egl && !egl->prefersCpuScaling()) {
        auto scaler = std::make_shared<Egl::GlesScaler>(egl, egl->display(), egl->context());
        result->importable = scaler->importableDmaBufFormats(PipeWire::PipeWireStream::dmaBufFourccs());
        result->scaler = std::move(scaler);
    } else {
        result->scaler = std::make_shared<Cpu::SoftwareScaler>();
    }
    captureDevice = std::move(result);
    return S_OK;
}

std::shared_ptr<Ifaces::CaptureDevice> PortalGraphicsCapture::createCpuCaptureDevice()
{
    auto device = std::make_shared<PortalDevice>();
    device->scaler = std::make_shared<Cpu::SoftwareScaler>();
    return device;
}

long PortalGraphicsCapture::queryOutputColorSpace(const std::shared_ptr<Ifaces::DisplayOutput>&)
{
    return S_OK;
}

long PortalGraphicsCapture::outputColorSpace(const std::shared_ptr<Ifaces::DisplayOutput>&, int& colorSpace)
{
    colorSpace = 0; // DXGI_COLOR_SPACE_RGB_FULL_G22_NONE_P709: the portal's streams are 8-bit sRGB
    return S_OK;
}

long PortalGraphicsCapture::outputRotation(const std::shared_ptr<Ifaces::DisplayOutput>&, int& rotation)
{
    std::lock_guard<std::mutex> lock(m_streamMutex);
    const auto stream = m_stream.lock();
    rotation = stream ? stream->rotation() : 1;
    return S_OK;
}

long PortalGraphicsCapture::outputMirrored(const std::shared_ptr<Ifaces::DisplayOutput>&, bool& mirrored)
{
    std::lock_guard<std::mutex> lock(m_streamMutex);
    const auto stream = m_stream.lock();
    mirrored = stream && stream->isMirrored();
    return S_OK;
}

long PortalGraphicsCapture::createFreeThreadedPool(const Ifaces::CaptureDevice& device, int, int,
    Ifaces::CaptureSize size, std::shared_ptr<Ifaces::CaptureFramePool>& pool)
{
    const auto* portalDevice = dynamic_cast<const PortalDevice*>(&device);
    if (!portalDevice)
        return E_INVALIDARG;
    pool = std::make_shared<PortalFramePool>(weak_from_this(), *portalDevice, size);
    return S_OK;
}

} // namespace Portal
} // namespace Orvanta
