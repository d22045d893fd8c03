#pragma once

#include "ifaces/GraphicsCapture.h"

#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Orvanta {
namespace PipeWire {
class PipeWireStream;
}
namespace Portal {

class ScreenCastPortal;

/**
 * The graphics-capture runtime on Linux desktops: the desktop portal's
 * ScreenCast interface chooses and hands out a monitor as a PipeWire stream,
 * which the pool receives.
 *
 * - Availability is a portal on the session bus with a ScreenCast interface.
 * - The portal, not the caller, decides which monitor is captured (the user
 *   picks one). Each item is a session of its own, asked for with the
 *   restore token the caller kept for that output; the grant hands out the
 *   next token and where the picked monitor lies, so that the caller can
 *   tell whether the user picked the output it asked for. A token the
 *   portal fails the session over is dropped and the user asked anew.
 * - The cursor is embedded in the picture where the portal offers that.
 * - A session shows what the compositor sends. Some portal back-ends (the
 *   wlroots one) ask the compositor for changed pictures only, so on an
 *   output where nothing moves the first frame comes with the first change.
 * - The stream's video transform is the rotation, with the mirror that
 *   comes before it for flipped transforms; a pool re-creation asks
 *   the source for the new size.
 * - Frames are scaled with OpenGL ES on the capture device's EGL context, or
 *   on the CPU where no context can be made. DMA-BUFs that the context
 *   imports reach it without a copy; all other buffers are copied once.
 */
class PortalGraphicsCapture final : public Ifaces::GraphicsCaptureSystem,
                                    public std::enable_shared_from_this<PortalGraphicsCapture>
{
public:
    PortalGraphicsCapture();
    ~PortalGraphicsCapture() override;

    bool isApiContractPresent(const std::string& contract, unsigned version) override;
    bool isPropertyPresent(const std::string& type, const std::string& property) override;
    long deviceFamilyVersion(std::string& version) override;
    long requestCapabilityAccess(const std::vector<std::string>& capabilities, AccessHandler completed) override;
    long requestBorderlessAccess(AccessHandler completed) override;
    long enumerateMonitors(std::vector<Ifaces::MonitorEntry>& monitors) override;
    long createItemForMonitor(std::uintptr_t monitor, std::shared_ptr<Ifaces::CaptureItem>& item) override;
    bool userPicksSource() const override;
    long createItemForOutput(const Ifaces::ItemRequest& request, std::shared_ptr<Ifaces::CaptureItem>& item,
        Ifaces::ItemGrant& grant) override;
    long queryDxgiDevice(const std::shared_ptr<Ifaces::GraphicsDevice>& device) override;
    long createCaptureDevice(const std::shared_ptr<Ifaces::GraphicsDevice>& device,
        std::shared_ptr<Ifaces::CaptureDevice>& captureDevice) override;
    long queryOutputColorSpace(const std::shared_ptr<Ifaces::DisplayOutput>& output) override;
    long outputColorSpace(const std::shared_ptr<Ifaces::DisplayOutput>& output, int& colorSpace) override;
    long outputRotation(const std::shared_ptr<Ifaces::DisplayOutput>& output, int& rotation) override;
    long outputMirrored(const std::shared_ptr<Ifaces::DisplayOutput>& output, bool& mirrored) override;
    long createFreeThreadedPool(const Ifaces::CaptureDevice& device, int pixelFormat, int bufferCount,
        Ifaces::CaptureSize size, std::shared_ptr<Ifaces::CaptureFramePool>& pool) override;

    /// A device whose streams come in memory the CPU reads (shared memory, never DMA-BUFs).
    static std::shared_ptr<Ifaces::CaptureDevice> createCpuCaptureDevice();

    /// The monitor handle that stands for "the monitor the portal chooses".
    static constexpr std::uintptr_t PortalMonitor = 1;

private:
    long ensurePortal();

    std::unique_ptr<ScreenCastPortal> m_portal;
    long m_portalResult = 1; // not probed yet
    std::mutex m_streamMutex;
    std::weak_ptr<PipeWire::PipeWireStream> m_stream; // of the newest session, for the rotation
    std::mutex m_threadsMutex;
    std::vector<std::thread> m_completions;

    friend class PortalFramePool;
};

} // namespace Portal
} // namespace Orvanta
