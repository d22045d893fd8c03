#include "dxgi/DxgiAdapterSource.h"

#include "win32/Utf8.h"

#include <dxgi.h>
#include <wrl/client.h>

namespace Orvanta {
namespace Dxgi {

namespace {

class DxgiAdapterList final : public Ifaces::GraphicsAdapterList
{
public:
    explicit DxgiAdapterList(Microsoft::WRL::ComPtr<IDXGIFactory1> factory)
        : m_factory(std::move(factory))
    {
    }

    long describe(unsigned int index, Ifaces::GraphicsAdapterDescription& description) const override
    {
        Microsoft::WRL::ComPtr<IDXGIAdapter1> adapter;
        const HRESULT enumerated = m_factory->EnumAdapters1(index, adapter.GetAddressOf());
        if (FAILED(enumerated)) {
            return enumerated;
        }
        DXGI_ADAPTER_DESC1 desc = {};
        const HRESULT described = adapter->GetDesc1(&desc);
        if (FAILED(described)) {
            return described;
        }
        const std::size_t length = wcsnlen(desc.Description, sizeof(desc.Description) / sizeof(desc.Description[0]));
        description.description = Win32::toUtf8(std::wstring(desc.Description, length));
        description.software = (desc.Flags & DXGI_ADAPTER_FLAG_SOFTWARE) != 0;
        return S_OK;
    }

private:
    Microsoft::WRL::ComPtr<IDXGIFactory1> m_factory;
};

} // namespace

std::unique_ptr<Ifaces::GraphicsAdapterList> DxgiAdapterSource::open() const
{
    Microsoft::WRL::ComPtr<IDXGIFactory1> factory;
    if (FAILED(CreateDXGIFactory1(__uuidof(IDXGIFactory1), reinterpret_cast<void**>(factory.GetAddressOf())))
        || !factory) {
        return nullptr;
    }
    return std::make_unique<DxgiAdapterList>(std::move(factory));
}

} // namespace Dxgi

const Ifaces::GraphicsAdapterSource& platformGraphicsAdapterSource()
{
    static const Dxgi::DxgiAdapterSource source;
    return source;
}

} // namespace Orvanta
