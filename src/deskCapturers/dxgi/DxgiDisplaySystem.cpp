#include "DxgiDisplaySystem.h"

#include <shlobj.h>

using Microsoft::WRL::ComPtr;

namespace Orvanta {

std::shared_ptr<Ifaces::DisplaySystem> Ifaces::createPlatformDisplaySystem()
{
    return std::make_shared<Dxgi::DxgiDisplaySystem>();
}

namespace Dxgi {

DxgiGraphicsDevice::DxgiGraphicsDevice(ComPtr<ID3D11Device> device)
    : m_device(std::move(device))
{
}

ID3D11Device* DxgiGraphicsDevice::get() const
{
    return m_device.Get();
}

DxgiOutput::DxgiOutput(ComPtr<IDXGIOutput> output)
    : m_output(std::move(output))
{
}

long DxgiOutput::describe(Ifaces::OutputDescription& description) const
{
    DXGI_OUTPUT_DESC desc = {};
    const HRESULT result = m_output->GetDesc(&desc);
    if (FAILED(result))
        return result;
    description.deviceName = desc.DeviceName;
    description.left = desc.DesktopCoordinates.left;
    description.top = desc.DesktopCoordinates.top;
    description.right = desc.DesktopCoordinates.right;
    description.bottom = desc.DesktopCoordinates.bottom;
    description.monitor = reinterpret_cast<std::uintptr_t>(desc.Monitor);
    description.rotation = static_cast<Ifaces::OutputRotation>(desc.Rotation);
    return S_OK;
}

IDXGIOutput* DxgiOutput::get() const
{
    return m_output.Get();
}

DxgiAdapter::DxgiAdapter(ComPtr<IDXGIAdapter1> adapter)
    : m_adapter(std::move(adapter))
{
}

std::wstring DxgiAdapter::description() const
{
    DXGI_ADAPTER_DESC1 desc = {};
    if (FAILED(m_adapter->GetDesc1(&desc)))
        return std::wstring();
    return desc.Description;
}

long DxgiAdapter::enumOutput(unsigned int index, std::shared_ptr<Ifaces::DisplayOutput>& output)
{
    ComPtr<IDXGIOutput> raw;
    const HRESULT result = m_adapter->EnumOutputs(index, &raw);
    if (FAILED(result))
        return result;
    output = std::make_shared<DxgiOutput>(std::move(raw));
    return S_OK;
}

long DxgiAdapter::createDevice(
    const std::shared_ptr<Ifaces::DisplayOutput>&, std::shared_ptr<Ifaces::GraphicsDevice>& device)
{
    static const D3D_FEATURE_LEVEL levels[]
        = {D3D_FEATURE_LEVEL_11_0, D3D_FEATURE_LEVEL_10_1, D3D_FEATURE_LEVEL_10_0, D3D_FEATURE_LEVEL_9_1};
    ComPtr<ID3D11Device> made;
    // The immediate context is not kept: back-ends ask the device for it.
    const HRESULT result = D3D11CreateDevice(m_adapter.Get(), D3D_DRIVER_TYPE_UNKNOWN, nullptr,
        D3D11_CREATE_DEVICE_VIDEO_SUPPORT, levels, 4, D3D11_SDK_VERSION, &made, nullptr, nullptr);
    if (FAILED(result))
        return result;
    device = std::make_shared<DxgiGraphicsDevice>(std::move(made));
    return S_OK;
}

IDXGIAdapter1* DxgiAdapter::get() const
{
    return m_adapter.Get();
}

bool DxgiDisplaySystem::hasAdministratorRights() const
{
    return IsUserAnAdmin() != FALSE;
}

long DxgiDisplaySystem::open()
{
    return CreateDXGIFactory1(__uuidof(IDXGIFactory1), reinterpret_cast<void**>(m_factory.ReleaseAndGetAddressOf()));
}

long DxgiDisplaySystem::enumAdapter(unsigned int index, std::shared_ptr<Ifaces::DisplayAdapter>& adapter)
{
    ComPtr<IDXGIAdapter1> raw;
    const HRESULT result = m_factory->EnumAdapters1(index, &raw);
    if (FAILED(result))
        return result;
    adapter = std::make_shared<DxgiAdapter>(std::move(raw));
    return S_OK;
}

bool DxgiDisplaySystem::devicesOptional() const
{
    return false;
}

} // namespace Dxgi
} // namespace Orvanta
