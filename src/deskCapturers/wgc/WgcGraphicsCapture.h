#pragma once

#include "ifaces/GraphicsCapture.h"

#include <memory>

namespace Orvanta {
namespace Wgc {

/**
 * The graphics-capture runtime on Windows: Windows.Graphics.Capture through
 * its ABI interfaces (declared in WgcAbi.h), activated by class name.
 *
 * Nothing is linked that older systems lack: the runtime's string and
 * activation functions and CreateDirect3D11DeviceFromDXGIDevice are looked
 * up at run time, so on a system without them the runtime is simply absent
 * (the contract test says no, activations fail with REGDB_E_CLASSNOTREG).
 * The apartment is the caller's: the capture worker runs in the
 * multithreaded one.
 */
class WgcGraphicsCapture final : public Ifaces::GraphicsCaptureSystem
{
public:
    WgcGraphicsCapture();
    ~WgcGraphicsCapture() override;

    bool isApiContractPresent(const std::string& contract, unsigned version) override;
    bool isPropertyPresent(const std::string& type, const std::string& property) override;
    long deviceFamilyVersion(std::string& version) override;
    long requestCapabilityAccess(const std::vector<std::string>& capabilities, AccessHandler completed) override;
    long requestBorderlessAccess(AccessHandler completed) override;
    long enumerateMonitors(std::vector<Ifaces::MonitorEntry>& monitors) override;
    long createItemForMonitor(std::uintptr_t monitor, std::shared_ptr<Ifaces::CaptureItem>& item) override;
    long queryDxgiDevice(const std::shared_ptr<Ifaces::GraphicsDevice>& device) override;
    long createCaptureDevice(const std::shared_ptr<Ifaces::GraphicsDevice>& device,
        std::shared_ptr<Ifaces::CaptureDevice>& captureDevice) override;
    long queryOutputColorSpace(const std::shared_ptr<Ifaces::DisplayOutput>& output) override;
    long outputColorSpace(const std::shared_ptr<Ifaces::DisplayOutput>& output, int& colorSpace) override;
    long outputRotation(const std::shared_ptr<Ifaces::DisplayOutput>& output, int& rotation) override;
    long outputMirrored(const std::shared_ptr<Ifaces::DisplayOutput>& output, bool& mirrored) override;
    long createFreeThreadedPool(const Ifaces::CaptureDevice& device, int pixelFormat, int bufferCount,
        Ifaces::CaptureSize size, std::shared_ptr<Ifaces::CaptureFramePool>& pool) override;
};

} // namespace Wgc
} // namespace Orvanta
