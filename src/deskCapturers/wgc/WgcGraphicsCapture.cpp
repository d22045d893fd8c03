#include "wgc/WgcGraphicsCapture.h"

#include "ResultCodes.h"
#include "dxgi/DxgiDisplaySystem.h"
#include "wgc/WgcAbi.h"
#include "wgc/WgcComObject.h"
#include "wgc/WgcRuntime.h"
#include "wgc/WgcStringIterable.h"

#include <d3d10.h>
#include <d3d11.h>
#include <dxgi1_6.h>
#include <wrl/client.h>

#include <atomic>
#include <mutex>
#include <string>

namespace Orvanta {

namespace Ifaces {
std::shared_ptr<GraphicsCaptureSystem> createPlatformGraphicsCapture()
{
    return std::make_shared<Wgc::WgcGraphicsCapture>();
}
} // namespace Ifaces

namespace Wgc {

using Microsoft::WRL::ComPtr;

namespace {

template <typename T> long activationFactory(const wchar_t* className, REFIID iid, ComPtr<T>& factory)
{
    const Runtime& runtime = Runtime::instance();
    if (!runtime.getActivationFactory)
        return REGDB_E_CLASSNOTREG;
    HString name(std::wstring {className});
    if (name.result() < 0)
        return name.result();
    return runtime.getActivationFactory(name.get(), iid, reinterpret_cast<void**>(factory.ReleaseAndGetAddressOf()));
}

template <typename T> long query(IUnknown* from, REFIID iid, ComPtr<T>& to)
{
    if (!from)
        return E_POINTER;
    return from->QueryInterface(iid, reinterpret_cast<void**>(to.ReleaseAndGetAddressOf()));
}

using AccessCompletion = AsyncCompletion<Abi::IAccessStatusCompletedHandler, Abi::IAsyncOperationAccessStatus,
    Abi::IID_AccessStatusCompletedHandler>;
using AccessMapCompletion = AsyncCompletion<Abi::IAccessStatusMapCompletedHandler, Abi::IAsyncOperationAccessStatusMap,
    Abi::IID_AccessStatusMapCompletedHandler>;

class Item final : public Ifaces::CaptureItem
{
public:
    explicit Item(ComPtr<Abi::IGraphicsCaptureItem> item)
        : item(std::move(item))
    {
    }
    long size(Ifaces::CaptureSize& size) const override
    {
        Abi::SizeInt32 value {0, 0};
        const HRESULT hr = item->get_Size(&value);
        size.width = value.Width;
        size.height = value.Height;
        return hr;
    }

    ComPtr<Abi::IGraphicsCaptureItem> item;
};

/// The runtime's device, with the scaler of the Direct3D device it wraps,
/// made once and shared by every frame of that device. Pools and frames keep
/// it alive for as long as they need it.
class DeviceState
{
public:
    DeviceState(ComPtr<Abi::IDirect3DDevice> device, std::shared_ptr<Ifaces::GraphicsDevice> graphicsDevice)
        : device(std::move(device))
        , graphicsDevice(std::move(graphicsDevice))
    {
    }

    std::shared_ptr<Ifaces::GpuScaler> scalerFor(ID3D11Device* frameDevice)
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!scaler || frameDevice != scalerDevice) {
            scaler = Ifaces::createPlatformGpuScaler(
                std::make_shared<Dxgi::DxgiGraphicsDevice>(ComPtr<ID3D11Device>(frameDevice)));
            scalerDevice = frameDevice;
        }
        return scaler;
    }

    ComPtr<Abi::IDirect3DDevice> device;
    std::shared_ptr<Ifaces::GraphicsDevice> graphicsDevice;
    std::mutex mutex;
    std::shared_ptr<Ifaces::GpuScaler> scaler;
    ID3D11Device* scalerDevice = nullptr;
};

class Device final : public Ifaces::CaptureDevice
{
public:
    explicit Device(std::shared_ptr<DeviceState> state)
        : state(std::move(state))
    {
    }

    std::shared_ptr<DeviceState> state;
};

class ContextGuard final : public Ifaces::DeviceContextGuard
{
public:
    explicit ContextGuard(ComPtr<ID3D10Multithread> multithread)
        : m_multithread(std::move(multithread))
    {
    }
    bool isProtected() const override
    {
        return m_multithread->GetMultithreadProtected() != FALSE;
    }
    void setProtected(bool enabled) override
    {
        m_multithread->SetMultithreadProtected(enabled ? TRUE : FALSE);
    }
    void enter() override
    {
        m_multithread->Enter();
    }
    void leave() override
    {
        m_multithread->Leave();
    }

private:
    ComPtr<ID3D10Multithread> m_multithread;
};

class Frame final : public Ifaces::CapturedFrame
{
public:
    Frame(ComPtr<Abi::IDirect3D11CaptureFrame> frame, std::shared_ptr<DeviceState> device)
        : m_frame(std::move(frame))
        , m_device(std::move(device))
    {
        m_frame->get_Surface(m_surface.GetAddressOf());
    }
    ~Frame() override
    {
        // Hand the buffer back to the pool now, not when the last reference goes.
        ComPtr<Abi::IClosable> closable;
        if (query(m_frame.Get(), Abi::IID_IClosable, closable) >= 0)
            closable->Close();
    }

    bool hasSurface() const override
    {
        return m_surface != nullptr;
    }
    long texture(Ifaces::ScalerSource& source) override
    {
        ComPtr<Abi::IDirect3DDxgiInterfaceAccess> access;
        long hr = query(m_surface.Get(), Abi::IID_IDirect3DDxgiInterfaceAccess, access);
        if (hr < 0)
            return hr;
        hr = access->GetInterface(
            __uuidof(ID3D11Texture2D), reinterpret_cast<void**>(m_texture.ReleaseAndGetAddressOf()));
        if (hr < 0)
            return hr;
        D3D11_TEXTURE2D_DESC desc {};
        m_texture->GetDesc(&desc);
        source = Ifaces::ScalerSource();
        source.nativeTexture = m_texture.Get();
        source.width = int(desc.Width);
        source.height = int(desc.Height);
        source.format = static_cast<Ifaces::PixelFormat>(desc.Format);
        return S_OK;
    }
    long deviceScaler(std::shared_ptr<Ifaces::GpuScaler>& scaler) override
    {
        if (!m_texture)
            return E_POINTER;
        ComPtr<ID3D11Device> device;
        m_texture->GetDevice(device.GetAddressOf());
        scaler = m_device->scalerFor(device.Get());
        return scaler ? S_OK : E_FAIL;
    }
    long contextGuard(std::shared_ptr<Ifaces::DeviceContextGuard>& guard) override
    {
        if (!m_texture)
            return E_POINTER;
        ComPtr<ID3D11Device> device;
        m_texture->GetDevice(device.GetAddressOf());
        ComPtr<ID3D11DeviceContext> context;
        device->GetImmediateContext(context.GetAddressOf());
        ComPtr<ID3D10Multithread> multithread;
        const long hr = query(context.Get(), __uuidof(ID3D10Multithread), multithread);
        if (hr < 0)
            return hr;
        guard = std::make_shared<ContextGuard>(std::move(multithread));
        return S_OK;
    }

private:
    ComPtr<Abi::IDirect3D11CaptureFrame> m_frame;
    ComPtr<Abi::IDirect3DSurface> m_surface;
    ComPtr<ID3D11Texture2D> m_texture;
    std::shared_ptr<DeviceState> m_device;
};

class CursorOption final : public Ifaces::CursorCaptureOption
{
public:
    explicit CursorOption(ComPtr<Abi::IGraphicsCaptureSession2> session)
        : m_session(std::move(session))
    {
    }
    long setCursorCaptureEnabled(bool enabled) override
    {
        return m_session->put_IsCursorCaptureEnabled(enabled ? 1 : 0);
    }

private:
    ComPtr<Abi::IGraphicsCaptureSession2> m_session;
};

class BorderOption final : public Ifaces::BorderOption
{
public:
    explicit BorderOption(ComPtr<Abi::IGraphicsCaptureSession3> session)
        : m_session(std::move(session))
    {
    }
    long setBorderRequired(bool required) override
    {
        return m_session->put_IsBorderRequired(required ? 1 : 0);
    }

private:
    ComPtr<Abi::IGraphicsCaptureSession3> m_session;
};

class Session final : public Ifaces::CaptureSession
{
public:
    explicit Session(ComPtr<Abi::IGraphicsCaptureSession> session)
        : m_session(std::move(session))
    {
    }
    long startCapture() override
    {
        return m_session->StartCapture();
    }
    std::shared_ptr<Ifaces::CursorCaptureOption> cursorOption() override
    {
        ComPtr<Abi::IGraphicsCaptureSession2> session2;
        if (query(m_session.Get(), Abi::IID_IGraphicsCaptureSession2, session2) < 0)
            return nullptr;
        return std::make_shared<CursorOption>(std::move(session2));
    }
    std::shared_ptr<Ifaces::BorderOption> borderOption() override
    {
        ComPtr<Abi::IGraphicsCaptureSession3> session3;
        if (query(m_session.Get(), Abi::IID_IGraphicsCaptureSession3, session3) < 0)
            return nullptr;
        return std::make_shared<BorderOption>(std::move(session3));
    }

private:
    ComPtr<Abi::IGraphicsCaptureSession> m_session;
};

class Pool final : public Ifaces::CaptureFramePool
{
public:
    Pool(ComPtr<Abi::IDirect3D11CaptureFramePool> pool, std::shared_ptr<DeviceState> device)
        : m_pool(std::move(pool))
        , m_device(std::move(device))
    {
    }
    long createCaptureSession(
        const Ifaces::CaptureItem& item, std::shared_ptr<Ifaces::CaptureSession>& session) override
    {
        const auto* captureItem = dynamic_cast<const Item*>(&item);
        if (!captureItem)
            return E_INVALIDARG;
        ComPtr<Abi::IGraphicsCaptureSession> created;
        const long hr = m_pool->CreateCaptureSession(captureItem->item.Get(), created.GetAddressOf());
        if (hr >= 0)
            session = std::make_shared<Session>(std::move(created));
        return hr;
    }
    long tryGetNextFrame(std::unique_ptr<Ifaces::CapturedFrame>& frame) override
    {
        frame.reset();
        ComPtr<Abi::IDirect3D11CaptureFrame> next;
        const long hr = m_pool->TryGetNextFrame(next.GetAddressOf());
        if (hr >= 0 && next)
            frame.reset(new Frame(std::move(next), m_device));
        return hr;
    }
    long recreate(
        const Ifaces::CaptureDevice& device, int pixelFormat, int bufferCount, Ifaces::CaptureSize size) override
    {
        const auto* captureDevice = dynamic_cast<const Device*>(&device);
        if (!captureDevice)
            return E_INVALIDARG;
        return m_pool->Recreate(
            captureDevice->state->device.Get(), pixelFormat, bufferCount, Abi::SizeInt32 {size.width, size.height});
    }
    long close() override
    {
        ComPtr<Abi::IClosable> closable;
        const long hr = query(m_pool.Get(), Abi::IID_IClosable, closable);
        return hr < 0 ? hr : closable->Close();
    }

private:
    ComPtr<Abi::IDirect3D11CaptureFramePool> m_pool;
    std::shared_ptr<DeviceState> m_device;
};

IDXGIOutput* dxgiOutput(const std::shared_ptr<Ifaces::DisplayOutput>& output)
{
    const auto* dxgi = dynamic_cast<const Dxgi::DxgiOutput*>(output.get());
    return dxgi ? dxgi->get() : nullptr;
}

ID3D11Device* d3dDevice(const std::shared_ptr<Ifaces::GraphicsDevice>& device)
{
    const auto* dxgi = dynamic_cast<const Dxgi::DxgiGraphicsDevice*>(device.get());
    return dxgi ? dxgi->get() : nullptr;
}

BOOL CALLBACK collectMonitor(HMONITOR monitor, HDC, LPRECT, LPARAM data)
{
    auto* monitors = reinterpret_cast<std::vector<Ifaces::MonitorEntry>*>(data);
    MONITORINFOEXW info {};
    info.cbSize = sizeof(info);
    unsigned long flags = 0;
    if (::GetMonitorInfoW(monitor, &info))
        flags = info.dwFlags;
    monitors->push_back(Ifaces::MonitorEntry {reinterpret_cast<std::uintptr_t>(monitor), flags});
    return TRUE;
}

} // namespace

WgcGraphicsCapture::WgcGraphicsCapture() = default;
WgcGraphicsCapture::~WgcGraphicsCapture() = default;

bool WgcGraphicsCapture::isApiContractPresent(const std::string& contract, unsigned version)
{
    ComPtr<Abi::IApiInformationStatics> api;
    if (activationFactory(L"Windows.Foundation.Metadata.ApiInformation", Abi::IID_IApiInformationStatics, api) < 0)
        return false;
    HString name = HString::fromUtf8(contract);
    Abi::Boolean present = 0;
    if (name.result() < 0 || api->IsApiContractPresentByMajor(name.get(), UINT16(version), &present) < 0)
        return false;
    return present != 0;
}

bool WgcGraphicsCapture::isPropertyPresent(const std::string& type, const std::string& property)
{
    ComPtr<Abi::IApiInformationStatics> api;
    if (activationFactory(L"Windows.Foundation.Metadata.ApiInformation", Abi::IID_IApiInformationStatics, api) < 0)
        return false;
    HString typeName = HString::fromUtf8(type);
    HString propertyName = HString::fromUtf8(property);
    Abi::Boolean present = 0;
    if (typeName.result() < 0 || propertyName.result() < 0
        || api->IsPropertyPresent(typeName.get(), propertyName.get(), &present) < 0)
        return false;
    return present != 0;
}

long WgcGraphicsCapture::deviceFamilyVersion(std::string& version)
{
    ComPtr<Abi::IAnalyticsInfoStatics> analytics;
    long hr = activationFactory(L"Windows.System.Profile.AnalyticsInfo", Abi::IID_IAnalyticsInfoStatics, analytics);
    if (hr < 0)
        return hr;
    ComPtr<Abi::IAnalyticsVersionInfo> info;
    hr = analytics->get_VersionInfo(info.GetAddressOf());
    if (hr < 0)
        return hr;
    HString text;
    hr = info->get_DeviceFamilyVersion(text.put());
    if (hr < 0)
        return hr;
    version = text.toUtf8();
    return S_OK;
}

long WgcGraphicsCapture::requestCapabilityAccess(const std::vector<std::string>& capabilities, AccessHandler completed)
{
    ComPtr<Abi::IAppCapabilityStatics> appCapability;
    long hr = activationFactory(L"Windows.Security.Authorization.AppCapabilityAccess.AppCapability",
        Abi::IID_IAppCapabilityStatics, appCapability);
    if (hr < 0)
        return hr;
    ComPtr<Abi::IIterableString> names;
    hr = StringIterable::create(capabilities, names);
    if (hr < 0)
        return hr;
    ComPtr<Abi::IAsyncOperationAccessStatusMap> operation;
    hr = appCapability->RequestAccessForCapabilitiesAsync(names.Get(), operation.GetAddressOf());
    if (hr < 0)
        return hr;
    // The answer per capability stays with the operation: what the caller
    // learns is how the request ended.
    const ComPtr<Abi::IAccessStatusMapCompletedHandler> handler = AccessMapCompletion::create(
        [completed = std::move(completed)](Abi::IAsyncOperationAccessStatusMap*, Abi::AsyncStatus status) {
            if (completed)
                completed(int(status));
        });
    return operation->put_Completed(handler.Get());
}

long WgcGraphicsCapture::requestBorderlessAccess(AccessHandler completed)
{
    ComPtr<Abi::IGraphicsCaptureAccessStatics> access;
    long hr = activationFactory(
        L"Windows.Graphics.Capture.GraphicsCaptureAccess", Abi::IID_IGraphicsCaptureAccessStatics, access);
    if (hr < 0)
        return hr;
    ComPtr<Abi::IAsyncOperationAccessStatus> operation;
    hr = access->RequestAccessAsync(Abi::GraphicsCaptureAccessBorderless, operation.GetAddressOf());
    if (hr < 0)
        return hr;
    const ComPtr<Abi::IAccessStatusCompletedHandler> handler = AccessCompletion::create(
        [completed = std::move(completed)](Abi::IAsyncOperationAccessStatus* finished, Abi::AsyncStatus status) {
            std::int32_t result = -1; // no answer: the request failed or was cancelled
            if (status == Abi::AsyncCompleted && finished)
                finished->GetResults(&result);
            if (completed)
                completed(int(result));
        });
    return operation->put_Completed(handler.Get());
}

long WgcGraphicsCapture::enumerateMonitors(std::vector<Ifaces::MonitorEntry>& monitors)
{
    monitors.clear();
    if (!::EnumDisplayMonitors(nullptr, nullptr, &collectMonitor, reinterpret_cast<LPARAM>(&monitors)))
        return long(HRESULT_FROM_WIN32(::GetLastError()));
    return S_OK;
}

long WgcGraphicsCapture::createItemForMonitor(std::uintptr_t monitor, std::shared_ptr<Ifaces::CaptureItem>& item)
{
    ComPtr<Abi::IGraphicsCaptureItemInterop> interop;
    long hr = activationFactory(
        L"Windows.Graphics.Capture.GraphicsCaptureItem", Abi::IID_IGraphicsCaptureItemInterop, interop);
    if (hr < 0)
        return hr;
    ComPtr<Abi::IGraphicsCaptureItem> created;
    hr = interop->CreateForMonitor(reinterpret_cast<HMONITOR>(monitor), Abi::IID_IGraphicsCaptureItem,
        reinterpret_cast<void**>(created.GetAddressOf()));
    if (hr >= 0)
        item = std::make_shared<Item>(std::move(created));
    return hr;
}

long WgcGraphicsCapture::queryDxgiDevice(const std::shared_ptr<Ifaces::GraphicsDevice>& device)
{
    ComPtr<IDXGIDevice> dxgiDevice;
    return query(d3dDevice(device), __uuidof(IDXGIDevice), dxgiDevice);
}

long WgcGraphicsCapture::createCaptureDevice(
    const std::shared_ptr<Ifaces::GraphicsDevice>& device, std::shared_ptr<Ifaces::CaptureDevice>& captureDevice)
{
    ComPtr<IDXGIDevice> dxgiDevice;
    long hr = query(d3dDevice(device), __uuidof(IDXGIDevice), dxgiDevice);
    if (hr < 0)
        return hr;
    const Runtime& runtime = Runtime::instance();
    if (!runtime.createDeviceFromDxgi)
        return Runtime::missing();
    ComPtr<IInspectable> inspectable;
    hr = runtime.createDeviceFromDxgi(dxgiDevice.Get(), inspectable.GetAddressOf());
    if (hr < 0)
        return hr;
    ComPtr<Abi::IDirect3DDevice> direct3DDevice;
    hr = query(inspectable.Get(), Abi::IID_IDirect3DDevice, direct3DDevice);
    if (hr >= 0)
        captureDevice = std::make_shared<Device>(std::make_shared<DeviceState>(std::move(direct3DDevice), device));
    return hr;
}

long WgcGraphicsCapture::queryOutputColorSpace(const std::shared_ptr<Ifaces::DisplayOutput>& output)
{
    ComPtr<IDXGIOutput6> output6;
    return query(dxgiOutput(output), __uuidof(IDXGIOutput6), output6);
}

long WgcGraphicsCapture::outputColorSpace(const std::shared_ptr<Ifaces::DisplayOutput>& output, int& colorSpace)
{
    ComPtr<IDXGIOutput6> output6;
    long hr = query(dxgiOutput(output), __uuidof(IDXGIOutput6), output6);
    if (hr < 0)
        return hr;
    DXGI_OUTPUT_DESC1 desc {};
    hr = output6->GetDesc1(&desc);
    if (hr >= 0)
        colorSpace = int(desc.ColorSpace);
    return hr;
}

long WgcGraphicsCapture::outputRotation(const std::shared_ptr<Ifaces::DisplayOutput>& output, int& rotation)
{
    if (!output)
        return E_POINTER;
    Ifaces::OutputDescription description;
    const long hr = output->describe(description);
    if (hr >= 0)
        rotation = int(description.rotation);
    return hr;
}

long WgcGraphicsCapture::outputMirrored(const std::shared_ptr<Ifaces::DisplayOutput>&, bool& mirrored)
{
    mirrored = false; // Windows turns outputs but does not mirror them
    return S_OK;
}

long WgcGraphicsCapture::createFreeThreadedPool(const Ifaces::CaptureDevice& device, int pixelFormat, int bufferCount,
    Ifaces::CaptureSize size, std::shared_ptr<Ifaces::CaptureFramePool>& pool)
{
    const auto* captureDevice = dynamic_cast<const Device*>(&device);
    if (!captureDevice)
        return E_INVALIDARG;
    ComPtr<Abi::IDirect3D11CaptureFramePoolStatics2> statics;
    long hr = activationFactory(
        L"Windows.Graphics.Capture.Direct3D11CaptureFramePool", Abi::IID_IDirect3D11CaptureFramePoolStatics2, statics);
    if (hr < 0)
        return hr;
    ComPtr<Abi::IDirect3D11CaptureFramePool> created;
    hr = statics->CreateFreeThreaded(captureDevice->state->device.Get(), pixelFormat, bufferCount,
        Abi::SizeInt32 {size.width, size.height}, created.GetAddressOf());
    if (hr >= 0)
        pool = std::make_shared<Pool>(std::move(created), captureDevice->state);
    return hr;
}

} // namespace Wgc
} // namespace Orvanta
