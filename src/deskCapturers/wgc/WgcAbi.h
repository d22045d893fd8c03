#pragma once

// The Windows Runtime ABI of graphics capture, declared by hand: the
// mingw-w64 headers ship none of Windows.Graphics.Capture, and C++/WinRT is
// not available there. Only what the capture adapter calls is declared; each
// interface lists its vtable in the order of the runtime's metadata, methods
// that are not called included, so that the slots line up.

#include <inspectable.h>
#include <windows.h>

#include <cstdint>

namespace Orvanta {
namespace Wgc {
namespace Abi {

using Boolean = unsigned char; // the runtime's boolean

struct SizeInt32
{
    std::int32_t Width;
    std::int32_t Height;
};

struct EventToken
{
    std::int64_t value;
};

// Windows.Foundation.AsyncStatus
enum AsyncStatus : std::int32_t {
    AsyncStarted = 0,
    AsyncCompleted = 1,
    AsyncCanceled = 2,
    AsyncError = 3,
};

// Windows.Graphics.Capture.GraphicsCaptureAccessKind
enum GraphicsCaptureAccessKind : std::int32_t {
    GraphicsCaptureAccessBorderless = 0,
    GraphicsCaptureAccessProgrammatic = 1,
};

constexpr GUID makeGuid(unsigned long a, unsigned short b, unsigned short c, unsigned char d0, unsigned char d1,
    unsigned char d2, unsigned char d3, unsigned char d4, unsigned char d5, unsigned char d6, unsigned char d7)
{
    return GUID {a, b, c, {d0, d1, d2, d3, d4, d5, d6, d7}};
}

// IIDs
constexpr GUID IID_IApiInformationStatics
    = makeGuid(0x997439FE, 0xF681, 0x4A11, 0xB4, 0x16, 0xC1, 0x3A, 0x47, 0xE8, 0xBA, 0x36);
constexpr GUID IID_IAnalyticsInfoStatics
    = makeGuid(0x1D5EE066, 0x188D, 0x5BA9, 0x43, 0x87, 0xAC, 0xAE, 0xB0, 0xE7, 0xE3, 0x05);
constexpr GUID IID_IAnalyticsVersionInfo
    = makeGuid(0x926130B8, 0x9955, 0x4C74, 0xBD, 0xC1, 0x7C, 0xD0, 0xDE, 0xCF, 0x9B, 0x03);
constexpr GUID IID_IGraphicsCaptureItemInterop
    = makeGuid(0x3628E81B, 0x3CAC, 0x4C60, 0xB7, 0xF4, 0x23, 0xCE, 0x0E, 0x0C, 0x33, 0x56);
constexpr GUID IID_IGraphicsCaptureItem
    = makeGuid(0x79C3F95B, 0x31F7, 0x4EC2, 0xA4, 0x64, 0x63, 0x2E, 0xF5, 0xD3, 0x07, 0x60);
constexpr GUID IID_IDirect3D11CaptureFramePoolStatics2
    = makeGuid(0x589B103F, 0x6BBC, 0x5DF5, 0xA9, 0x91, 0x02, 0xE2, 0x8B, 0x3B, 0x66, 0xD5);
constexpr GUID IID_IDirect3D11CaptureFramePool
    = makeGuid(0x24EB6D22, 0x1975, 0x422E, 0x82, 0xE7, 0x78, 0x0D, 0xBD, 0x8D, 0xDF, 0x24);
constexpr GUID IID_IDirect3D11CaptureFrame
    = makeGuid(0xFA50C623, 0x38DA, 0x4B32, 0xAC, 0xF3, 0xFA, 0x97, 0x34, 0xAD, 0x80, 0x0E);
constexpr GUID IID_IGraphicsCaptureSession
    = makeGuid(0x814E42A9, 0xF70F, 0x4AD7, 0x93, 0x9B, 0xFD, 0xDC, 0xC6, 0xEB, 0x88, 0x0D);
constexpr GUID IID_IGraphicsCaptureSession2
    = makeGuid(0x2C39AE40, 0x7D2E, 0x5044, 0x80, 0x4E, 0x8B, 0x67, 0x99, 0xD4, 0xCF, 0x9E);
constexpr GUID IID_IGraphicsCaptureSession3
    = makeGuid(0xF2CDD966, 0x22AE, 0x5EA1, 0x95, 0x96, 0x3A, 0x28, 0x93, 0x44, 0xC3, 0xBE);
constexpr GUID IID_IGraphicsCaptureAccessStatics
    = makeGuid(0x743ED370, 0x06EC, 0x5040, 0xA5, 0x8A, 0x90, 0x1F, 0x0F, 0x75, 0x70, 0x95);
constexpr GUID IID_IClosable = makeGuid(0x30D5A829, 0x7FA4, 0x4026, 0x83, 0xBB, 0xD7, 0x5B, 0xAE, 0x4E, 0xA9, 0x9E);
constexpr GUID IID_IDirect3DDevice
    = makeGuid(0xA37624AB, 0x8D5F, 0x4650, 0x9D, 0x3E, 0x9E, 0xAE, 0x3D, 0x9B, 0xC6, 0x70);
constexpr GUID IID_IDirect3DDxgiInterfaceAccess
    = makeGuid(0xA9B3D012, 0x3DF2, 0x4EE3, 0xB8, 0xD1, 0x86, 0x95, 0xF4, 0x57, 0xD3, 0xC1);
constexpr GUID IID_IAgileObject = makeGuid(0x94EA2B94, 0xE9CC, 0x49E0, 0xC0, 0xFF, 0xEE, 0x64, 0xCA, 0x8F, 0x5B, 0x90);
// IAsyncOperation<AppCapabilityAccessStatus> and its completion handler: the
// runtime's name-based IIDs of the parameterised interfaces.
constexpr GUID IID_IAsyncOperationAccessStatus
    = makeGuid(0x827CAF42, 0x5FE6, 0x5B5B, 0x84, 0xCE, 0xC4, 0x48, 0x34, 0x13, 0x4D, 0x3D);
constexpr GUID IID_AccessStatusCompletedHandler
    = makeGuid(0x6EA0F2E9, 0xBC97, 0x58E8, 0xA3, 0xA6, 0xC8, 0x29, 0xB9, 0xE5, 0xF2, 0xAA);

// Windows.Foundation.Metadata.IApiInformationStatics
struct IApiInformationStatics : IInspectable
{
    virtual HRESULT STDMETHODCALLTYPE IsTypePresent(HSTRING typeName, Boolean* result) = 0;
    virtual HRESULT STDMETHODCALLTYPE IsMethodPresent(HSTRING typeName, HSTRING methodName, Boolean* result) = 0;
    virtual HRESULT STDMETHODCALLTYPE IsMethodPresentWithArity(
        HSTRING typeName, HSTRING methodName, UINT32 inputParameterCount, Boolean* result)
        = 0;
    virtual HRESULT STDMETHODCALLTYPE IsEventPresent(HSTRING typeName, HSTRING eventName, Boolean* result) = 0;
    virtual HRESULT STDMETHODCALLTYPE IsPropertyPresent(HSTRING typeName, HSTRING propertyName, Boolean* result) = 0;
    virtual HRESULT STDMETHODCALLTYPE IsReadOnlyPropertyPresent(HSTRING typeName, HSTRING propertyName, Boolean* result)
        = 0;
    virtual HRESULT STDMETHODCALLTYPE IsWriteablePropertyPresent(
        HSTRING typeName, HSTRING propertyName, Boolean* result)
        = 0;
    virtual HRESULT STDMETHODCALLTYPE IsEnumNamedValuePresent(HSTRING enumTypeName, HSTRING valueName, Boolean* result)
        = 0;
    virtual HRESULT STDMETHODCALLTYPE IsApiContractPresentByMajor(
        HSTRING contractName, UINT16 majorVersion, Boolean* result)
        = 0;
    virtual HRESULT STDMETHODCALLTYPE IsApiContractPresentByMajorAndMinor(
        HSTRING contractName, UINT16 majorVersion, UINT16 minorVersion, Boolean* result)
        = 0;
};

// Windows.System.Profile.IAnalyticsVersionInfo
struct IAnalyticsVersionInfo : IInspectable
{
    virtual HRESULT STDMETHODCALLTYPE get_DeviceFamily(HSTRING* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_DeviceFamilyVersion(HSTRING* value) = 0;
};

// Windows.System.Profile.IAnalyticsInfoStatics
struct IAnalyticsInfoStatics : IInspectable
{
    virtual HRESULT STDMETHODCALLTYPE get_VersionInfo(IAnalyticsVersionInfo** value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_DeviceForm(HSTRING* value) = 0;
};

// IGraphicsCaptureItemInterop (windows.graphics.capture.interop.h)
struct IGraphicsCaptureItemInterop : IUnknown
{
    virtual HRESULT STDMETHODCALLTYPE CreateForWindow(HWND window, REFIID riid, void** result) = 0;
    virtual HRESULT STDMETHODCALLTYPE CreateForMonitor(HMONITOR monitor, REFIID riid, void** result) = 0;
};

// Windows.Graphics.Capture.IGraphicsCaptureItem
struct IGraphicsCaptureItem : IInspectable
{
    virtual HRESULT STDMETHODCALLTYPE get_DisplayName(HSTRING* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_Size(SizeInt32* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE add_Closed(IUnknown* handler, EventToken* token) = 0;
    virtual HRESULT STDMETHODCALLTYPE remove_Closed(EventToken token) = 0;
};

// Windows.Graphics.DirectX.Direct3D11.IDirect3DDevice
struct IDirect3DDevice : IInspectable
{
    virtual HRESULT STDMETHODCALLTYPE Trim() = 0;
};

// Windows.Graphics.DirectX.Direct3D11.IDirect3DSurface (only passed on)
struct IDirect3DSurface : IInspectable
{
};

// IDirect3DDxgiInterfaceAccess (windows.graphics.directx.direct3d11.interop.h)
struct IDirect3DDxgiInterfaceAccess : IUnknown
{
    virtual HRESULT STDMETHODCALLTYPE GetInterface(REFIID iid, void** p) = 0;
};

// Windows.Foundation.IClosable
struct IClosable : IInspectable
{
    virtual HRESULT STDMETHODCALLTYPE Close() = 0;
};

// Windows.Graphics.Capture.IDirect3D11CaptureFrame
struct IDirect3D11CaptureFrame : IInspectable
{
    virtual HRESULT STDMETHODCALLTYPE get_Surface(IDirect3DSurface** value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_SystemRelativeTime(std::int64_t* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_ContentSize(SizeInt32* value) = 0;
};

// Windows.Graphics.Capture.IGraphicsCaptureSession
struct IGraphicsCaptureSession : IInspectable
{
    virtual HRESULT STDMETHODCALLTYPE StartCapture() = 0;
};

// Windows.Graphics.Capture.IGraphicsCaptureSession2
struct IGraphicsCaptureSession2 : IInspectable
{
    virtual HRESULT STDMETHODCALLTYPE get_IsCursorCaptureEnabled(Boolean* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE put_IsCursorCaptureEnabled(Boolean value) = 0;
};

// Windows.Graphics.Capture.IGraphicsCaptureSession3
struct IGraphicsCaptureSession3 : IInspectable
{
    virtual HRESULT STDMETHODCALLTYPE get_IsBorderRequired(Boolean* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE put_IsBorderRequired(Boolean value) = 0;
};

// Windows.Graphics.Capture.IDirect3D11CaptureFramePool
struct IDirect3D11CaptureFramePool : IInspectable
{
    virtual HRESULT STDMETHODCALLTYPE Recreate(
        IDirect3DDevice* device, std::int32_t pixelFormat, std::int32_t numberOfBuffers, SizeInt32 size)
        = 0;
    virtual HRESULT STDMETHODCALLTYPE TryGetNextFrame(IDirect3D11CaptureFrame** result) = 0;
    virtual HRESULT STDMETHODCALLTYPE add_FrameArrived(IUnknown* handler, EventToken* token) = 0;
    virtual HRESULT STDMETHODCALLTYPE remove_FrameArrived(EventToken token) = 0;
    virtual HRESULT STDMETHODCALLTYPE CreateCaptureSession(IGraphicsCaptureItem* item, IGraphicsCaptureSession** result)
        = 0;
    virtual HRESULT STDMETHODCALLTYPE get_DispatcherQueue(IInspectable** value) = 0;
};

// Windows.Graphics.Capture.IDirect3D11CaptureFramePoolStatics2
struct IDirect3D11CaptureFramePoolStatics2 : IInspectable
{
    virtual HRESULT STDMETHODCALLTYPE CreateFreeThreaded(IDirect3DDevice* device, std::int32_t pixelFormat,
        std::int32_t numberOfBuffers, SizeInt32 size, IDirect3D11CaptureFramePool** result)
        = 0;
};

struct IAsyncOperationAccessStatus;

// Windows.Foundation.AsyncOperationCompletedHandler<AppCapabilityAccessStatus>
struct IAccessStatusCompletedHandler : IUnknown
{
    virtual HRESULT STDMETHODCALLTYPE Invoke(IAsyncOperationAccessStatus* operation, AsyncStatus status) = 0;
};

// Windows.Foundation.IAsyncOperation<AppCapabilityAccessStatus>
struct IAsyncOperationAccessStatus : IInspectable
{
    virtual HRESULT STDMETHODCALLTYPE put_Completed(IAccessStatusCompletedHandler* handler) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_Completed(IAccessStatusCompletedHandler** handler) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetResults(std::int32_t* result) = 0;
};

// Windows.Graphics.Capture.IGraphicsCaptureAccessStatics
struct IGraphicsCaptureAccessStatics : IInspectable
{
    virtual HRESULT STDMETHODCALLTYPE RequestAccessAsync(
        GraphicsCaptureAccessKind kind, IAsyncOperationAccessStatus** operation)
        = 0;
};

} // namespace Abi
} // namespace Wgc
} // namespace Orvanta
