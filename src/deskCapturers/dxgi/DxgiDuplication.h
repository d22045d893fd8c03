#pragma once

#include "ifaces/DesktopDuplicator.h"
#include "ifaces/OutputDuplication.h"

#include <d3d11.h>
#include <dxgi1_5.h>
#include <wrl/client.h>

#include <memory>

namespace Orvanta {

namespace Ifaces {
class GraphicsDevice;
}

namespace Dxgi {

/**
 * A running IDXGIOutputDuplication. A held frame is handed to the scaler as
 * the desktop texture itself: it never leaves the GPU.
 */
class DxgiDuplication final : public Ifaces::OutputDuplication
{
public:
    explicit DxgiDuplication(Microsoft::WRL::ComPtr<IDXGIOutputDuplication> duplication);
    ~DxgiDuplication() override;

    Ifaces::DuplicationDescription description() const override;
    long acquireNextFrame(unsigned timeoutMilliseconds) override;
    long frameSource(Ifaces::ScalerSource& source) override;
    long releaseFrame() override;

private:
    Microsoft::WRL::ComPtr<IDXGIOutputDuplication> m_duplication;
    Microsoft::WRL::ComPtr<IDXGIResource> m_resource;
    Microsoft::WRL::ComPtr<ID3D11Texture2D> m_texture;
};

/**
 * Desktop duplication through IDXGIOutput5::DuplicateOutput1, on one adapter
 * with the Direct3D 11 device made for the output.
 */
class DxgiDuplicator final : public Ifaces::DesktopDuplicator
{
public:
    /// @p deviceHandle is the capture context's handle of @p device, for the scaler.
    DxgiDuplicator(Microsoft::WRL::ComPtr<IDXGIAdapter1> adapter, Microsoft::WRL::ComPtr<ID3D11Device> device,
        std::shared_ptr<Ifaces::GraphicsDevice> deviceHandle);
    ~DxgiDuplicator() override;

    long enumOutput(unsigned outputIndex) override;
    long queryDuplicationOutput() override;
    long duplicateOutput(
        const std::vector<int>& formats, std::unique_ptr<Ifaces::OutputDuplication>& duplication) override;
    std::shared_ptr<Ifaces::GpuScaler> deviceScaler() override;

private:
    Microsoft::WRL::ComPtr<IDXGIAdapter1> m_adapter;
    Microsoft::WRL::ComPtr<ID3D11Device> m_device;
    std::shared_ptr<Ifaces::GraphicsDevice> m_deviceHandle;
    Microsoft::WRL::ComPtr<IDXGIOutput> m_output;
    Microsoft::WRL::ComPtr<IDXGIOutput5> m_output5;
};

} // namespace Dxgi
} // namespace Orvanta
