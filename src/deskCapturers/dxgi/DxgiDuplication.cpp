#include "dxgi/DxgiDuplication.h"

#include "dxgi/DxgiDisplaySystem.h"

using Microsoft::WRL::ComPtr;

namespace Orvanta {
namespace Dxgi {

namespace {

Ifaces::PixelFormat pixelFormatOf(DXGI_FORMAT format)
{
    switch (format) {
    case DXGI_FORMAT_R16G16B16A16_FLOAT:
        return Ifaces::PixelFormat::R16G16B16A16Float;
    case DXGI_FORMAT_R16G16B16A16_UNORM:
        return Ifaces::PixelFormat::R16G16B16A16Unorm;
    case DXGI_FORMAT_R10G10B10A2_UNORM:
        return Ifaces::PixelFormat::R10G10B10A2Unorm;
    case DXGI_FORMAT_R8G8B8A8_UNORM:
        return Ifaces::PixelFormat::R8G8B8A8Unorm;
    case DXGI_FORMAT_B8G8R8A8_UNORM:
        return Ifaces::PixelFormat::B8G8R8A8Unorm;
    case DXGI_FORMAT_B8G8R8X8_UNORM:
        return Ifaces::PixelFormat::B8G8R8X8Unorm;
    default:
        // A device texture is sampled in its own format; the number is only informative.
        return Ifaces::PixelFormat::Unknown;
    }
}

} // namespace

DxgiDuplication::DxgiDuplication(ComPtr<IDXGIOutputDuplication> duplication)
    : m_duplication(std::move(duplication))
{
}

DxgiDuplication::~DxgiDuplication()
{
    if (m_resource) {
        m_texture.Reset();
        m_resource.Reset();
        m_duplication->ReleaseFrame();
    }
}

Ifaces::DuplicationDescription DxgiDuplication::description() const
{
    DXGI_OUTDUPL_DESC desc = {};
    m_duplication->GetDesc(&desc);
    Ifaces::DuplicationDescription description;
    description.width = desc.ModeDesc.Width;
    description.height = desc.ModeDesc.Height;
    description.format = static_cast<int>(desc.ModeDesc.Format);
    description.rotation = static_cast<int>(desc.Rotation);
    return description;
}

long DxgiDuplication::acquireNextFrame(unsigned timeoutMilliseconds)
{
    DXGI_OUTDUPL_FRAME_INFO info = {};
    ComPtr<IDXGIResource> resource;
    const HRESULT result = m_duplication->AcquireNextFrame(timeoutMilliseconds, &info, &resource);
    if (SUCCEEDED(result)) {
        m_resource = std::move(resource);
    }
    return result;
}

long DxgiDuplication::frameSource(Ifaces::ScalerSource& source)
{
    if (!m_resource) {
        return DXGI_ERROR_INVALID_CALL;
    }
    const HRESULT result = m_resource.As(&m_texture);
    if (FAILED(result)) {
        return result;
    }
    D3D11_TEXTURE2D_DESC desc = {};
    m_texture->GetDesc(&desc);
    source = Ifaces::ScalerSource();
    source.nativeTexture = m_texture.Get();
    source.width = static_cast<int>(desc.Width);
    source.height = static_cast<int>(desc.Height);
    source.format = pixelFormatOf(desc.Format);
    return S_OK;
}

long DxgiDuplication::releaseFrame()
{
    m_texture.Reset();
    m_resource.Reset();
    return m_duplication->ReleaseFrame();
}

DxgiDuplicator::DxgiDuplicator(
    ComPtr<IDXGIAdapter1> adapter, ComPtr<ID3D11Device> device, std::shared_ptr<Ifaces::GraphicsDevice> deviceHandle)
    : m_adapter(std::move(adapter))
    , m_device(std::move(device))
    , m_deviceHandle(std::move(deviceHandle))
{
}

DxgiDuplicator::~DxgiDuplicator() = default;

long DxgiDuplicator::enumOutput(unsigned outputIndex)
{
    m_output5.Reset();
    m_output.Reset();
    return m_adapter->EnumOutputs(outputIndex, &m_output);
}

long DxgiDuplicator::queryDuplicationOutput()
{
    m_output5.Reset();
    if (!m_output) {
        return E_POINTER;
    }
    return m_output.As(&m_output5);
}

long DxgiDuplicator::duplicateOutput(
    const std::vector<int>& formats, std::unique_ptr<Ifaces::OutputDuplication>& duplication)
{
    duplication.reset();
    if (!m_output5 || !m_device) {
        return E_POINTER;
    }
    std::vector<DXGI_FORMAT> offered;
    offered.reserve(formats.size());
    for (int format : formats) {
        offered.push_back(static_cast<DXGI_FORMAT>(format));
    }
    ComPtr<IDXGIOutputDuplication> made;
    const HRESULT result
        = m_output5->DuplicateOutput1(m_device.Get(), 0, static_cast<UINT>(offered.size()), offered.data(), &made);
    if (FAILED(result)) {
        return result;
    }
    duplication = std::make_unique<DxgiDuplication>(std::move(made));
    return result;
}

std::shared_ptr<Ifaces::GpuScaler> DxgiDuplicator::deviceScaler()
{
    return Ifaces::createPlatformGpuScaler(m_deviceHandle);
}

} // namespace Dxgi

std::unique_ptr<Ifaces::DesktopDuplicator> Ifaces::createPlatformDesktopDuplicator(
    std::shared_ptr<DisplayAdapter> adapter, std::shared_ptr<GraphicsDevice> device, std::shared_ptr<DisplayOutput>)
{
    // DXGI numbers its outputs as EnumOutputs counts them; the index is what finds one again.
    const auto dxgiAdapter = std::dynamic_pointer_cast<Dxgi::DxgiAdapter>(adapter);
    const auto dxgiDevice = std::dynamic_pointer_cast<Dxgi::DxgiGraphicsDevice>(device);
    if (!dxgiAdapter || !dxgiDevice) {
        return nullptr;
    }
    return std::make_unique<Dxgi::DxgiDuplicator>(dxgiAdapter->get(), dxgiDevice->get(), std::move(device));
}

} // namespace Orvanta
