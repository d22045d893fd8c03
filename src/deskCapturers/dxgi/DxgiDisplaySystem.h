#pragma once

#include "ifaces/DisplayAdapter.h"
#include "ifaces/DisplayOutput.h"
#include "ifaces/DisplaySystem.h"
#include "ifaces/GraphicsDevice.h"

#include <d3d11.h>
#include <dxgi1_2.h>
#include <wrl/client.h>

namespace Orvanta {
namespace Dxgi {

/// The Direct3D 11 device made for one output; back-ends take the device from here.
class DxgiGraphicsDevice : public Ifaces::GraphicsDevice
{
public:
    explicit DxgiGraphicsDevice(Microsoft::WRL::ComPtr<ID3D11Device> device);
    ID3D11Device* get() const;

private:
    Microsoft::WRL::ComPtr<ID3D11Device> m_device;
};

/// A display output of DXGI.
class DxgiOutput : public Ifaces::DisplayOutput
{
public:
    explicit DxgiOutput(Microsoft::WRL::ComPtr<IDXGIOutput> output);
    long describe(Ifaces::OutputDescription& description) const override;
    IDXGIOutput* get() const;

private:
    Microsoft::WRL::ComPtr<IDXGIOutput> m_output;
};

/// A DXGI adapter, making one Direct3D 11 device per output.
class DxgiAdapter : public Ifaces::DisplayAdapter
{
public:
    explicit DxgiAdapter(Microsoft::WRL::ComPtr<IDXGIAdapter1> adapter);
    std::wstring description() const override;
    long enumOutput(unsigned int index, std::shared_ptr<Ifaces::DisplayOutput>& output) override;
    long createDevice(
        const std::shared_ptr<Ifaces::DisplayOutput>& output, std::shared_ptr<Ifaces::GraphicsDevice>& device) override;
    IDXGIAdapter1* get() const;

private:
    Microsoft::WRL::ComPtr<IDXGIAdapter1> m_adapter;
};

/// The adapters and outputs of DXGI; every output needs a device of its own.
class DxgiDisplaySystem : public Ifaces::DisplaySystem
{
public:
    bool hasAdministratorRights() const override;
    long open() override;
    long enumAdapter(unsigned int index, std::shared_ptr<Ifaces::DisplayAdapter>& adapter) override;
    bool devicesOptional() const override;

private:
    Microsoft::WRL::ComPtr<IDXGIFactory1> m_factory;
};

} // namespace Dxgi
} // namespace Orvanta
