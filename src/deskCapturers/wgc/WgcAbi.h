#pragma once

// The Windows Runtime ABI of graphics capture, declared by hand: the
// mingw-w64 headers ship none of Windows.Graphics.Capture, and C++/WinRT is
// not available there. Only what the capture adapter calls or implements is
// declared; each interface lists its vtable in the order of the runtime's
// metadata, methods that are not called included, so that the slots line up.
// The collection interfaces are declared here too: mingw-w64's generic
// IIterator<T> has a GetMany with one parameter too many.

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

// Windows.Security.Authorization.AppCapabilityAccess.AppCapabilityAccessStatus
enum AppCapabilityAccessStatus : std::int32_t {
    AppCapabilityDeniedBySystem = 0,
    AppCapabilityNotDeclaredByApp = 1,
    AppCapabilityDeniedByUser = 2,
    AppCapabilityUserPromptRequired = 3,
    AppCapabilityAllowed = 4,
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
inline constexpr GUID IID_Unknown
    = makeGuid(0x00000000, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46);
inline constexpr GUID IID_Inspectable
    = makeGuid(0xAF86E2E0, 0xB12D, 0x4C6A, 0x9C, 0x5A, 0xD7, 0xAA, 0x65, 0x10, 0x1E, 0x90);
inline constexpr GUID IID_IApiInformationStatics
    = makeGuid(0x997439FE, 0xF681, 0x4A11, 0xB4, 0x16, 0xC1, 0x3A, 0x47, 0xE8, 0xBA, 0x36);
inline constexpr GUID IID_IAnalyticsInfoStatics
    = makeGuid(0x1D5EE066, 0x188D, 0x5BA9, 0x43, 0x87, 0xAC, 0xAE, 0xB0, 0xE7, 0xE3, 0x05);
inline constexpr GUID IID_IAnalyticsVersionInfo
    = makeGuid(0x926130B8, 0x9955, 0x4C74, 0xBD, 0xC1, 0x7C, 0xD0, 0xDE, 0xCF, 0x9B, 0x03);
inline constexpr GUID IID_IGraphicsCaptureItemInterop
    = makeGuid(0x3628E81B, 0x3CAC, 0x4C60, 0xB7, 0xF4, 0x23, 0xCE, 0x0E, 0x0C, 0x33, 0x56);
inline constexpr GUID IID_IGraphicsCaptureItem
    = makeGuid(0x79C3F95B, 0x31F7, 0x4EC2, 0xA4, 0x64, 0x63, 0x2E, 0xF5, 0xD3, 0x07, 0x60);
inline constexpr GUID IID_IDirect3D11CaptureFramePoolStatics2
    = makeGuid(0x589B103F, 0x6BBC, 0x5DF5, 0xA9, 0x91, 0x02, 0xE2, 0x8B, 0x3B, 0x66, 0xD5);
inline constexpr GUID IID_IDirect3D11CaptureFramePool
    = makeGuid(0x24EB6D22, 0x1975, 0x422E, 0x82, 0xE7, 0x78, 0x0D, 0xBD, 0x8D, 0xDF, 0x24);
inline constexpr GUID IID_IDirect3D11CaptureFrame
    = makeGuid(0xFA50C623, 0x38DA, 0x4B32, 0xAC, 0xF3, 0xFA, 0x97, 0x34, 0xAD, 0x80, 0x0E);
inline constexpr GUID IID_IGraphicsCaptureSession
    = makeGuid(0x814E42A9, 0xF70F, 0x4AD7, 0x93, 0x9B, 0xFD, 0xDC, 0xC6, 0xEB, 0x88, 0x0D);
inline constexpr GUID IID_IGraphicsCaptureSession2
    = makeGuid(0x2C39AE40, 0x7D2E, 0x5044, 0x80, 0x4E, 0x8B, 0x67, 0x99, 0xD4, 0xCF, 0x9E);
inline constexpr GUID IID_IGraphicsCaptureSession3
    = makeGuid(0xF2CDD966, 0x22AE, 0x5EA1, 0x95, 0x96, 0x3A, 0x28, 0x93, 0x44, 0xC3, 0xBE);
inline constexpr GUID IID_IGraphicsCaptureAccessStatics
    = makeGuid(0x743ED370, 0x06EC, 0x5040, 0xA5, 0x8A, 0x90, 0x1F, 0x0F, 0x75, 0x70, 0x95);
inline constexpr GUID IID_IClosable
    = makeGuid(0x30D5A829, 0x7FA4, 0x4026, 0x83, 0xBB, 0xD7, 0x5B, 0xAE, 0x4E, 0xA9, 0x9E);
inline constexpr GUID IID_IDirect3DDevice
    = makeGuid(0xA37624AB, 0x8D5F, 0x4650, 0x9D, 0x3E, 0x9E, 0xAE, 0x3D, 0x9B, 0xC6, 0x70);
inline constexpr GUID IID_IDirect3DDxgiInterfaceAccess
    = makeGuid(0xA9B3D012, 0x3DF2, 0x4EE3, 0xB8, 0xD1, 0x86, 0x95, 0xF4, 0x57, 0xD3, 0xC1);
inline constexpr GUID IID_IAgileObject
    = makeGuid(0x94EA2B94, 0xE9CC, 0x49E0, 0xC0, 0xFF, 0xEE, 0x64, 0xCA, 0x8F, 0x5B, 0x90);
inline constexpr GUID IID_IDirect3DSurface
    = makeGuid(0x0BF4A146, 0x13C1, 0x4694, 0xBE, 0xE3, 0x7A, 0xBF, 0x15, 0xEA, 0xF5, 0x86);
inline constexpr GUID IID_IAppCapabilityStatics
    = makeGuid(0x7C353E2A, 0x46EE, 0x44E5, 0xAF, 0x3D, 0x6A, 0xD3, 0xFC, 0x49, 0xBD, 0x22);

// The parameterised interfaces have no IID of their own: the runtime derives
// one from the type signature of each instance (a name-based UUID, SHA-1 over
// the signature), so these are the values for exactly the instances below.

// IAsyncOperation<AppCapabilityAccessStatus> and its completion handler.
inline constexpr GUID IID_IAsyncOperationAccessStatus
    = makeGuid(0x827CAF42, 0x5FE6, 0x5B5B, 0x84, 0xCE, 0xC4, 0x48, 0x34, 0x13, 0x4D, 0x3D);
inline constexpr GUID IID_AccessStatusCompletedHandler
    = makeGuid(0x6EA0F2E9, 0xBC97, 0x58E8, 0xA3, 0xA6, 0xC8, 0x29, 0xB9, 0xE5, 0xF2, 0xAA);
// IIterable<String> and IIterator<String>.
inline constexpr GUID IID_IIterableString
    = makeGuid(0xE2FCC7C1, 0x3BFC, 0x5A0B, 0xB2, 0xB0, 0x72, 0xE7, 0x69, 0xD1, 0xCB, 0x7E);
inline constexpr GUID IID_IIteratorString
    = makeGuid(0x8C304EBB, 0x6615, 0x50A4, 0x88, 0x29, 0x87, 0x9E, 0xCD, 0x44, 0x32, 0x36);
// IMapView<String, AppCapabilityAccessStatus>, the IAsyncOperation of it and
// that operation's completion handler.
inline constexpr GUID IID_IAccessStatusMapView
    = makeGuid(0x20366438, 0x9FAB, 0x5C12, 0x87, 0xEB, 0xDA, 0x86, 0x7E, 0x38, 0x3F, 0xE7);
inline constexpr GUID IID_IAsyncOperationAccessStatusMap
    = makeGuid(0xA66001F3, 0xE332, 0x531A, 0xBF, 0x49, 0x4E, 0xDD, 0x3A, 0xF8, 0x8D, 0xE7);
inline constexpr GUID IID_AccessStatusMapCompletedHandler
    = makeGuid(0xBDF03EAD, 0xA75B, 0x510C, 0x87, 0xD2, 0x5B, 0x57, 0x53, 0xBD, 0xF1, 0xBD);

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

// Windows.Graphics.DirectX.Direct3D11.Direct3DMultisampleDescription
struct Direct3DMultisampleDescription
{
    std::int32_t Count;
    std::int32_t Quality;
};

// Windows.Graphics.DirectX.Direct3D11.Direct3DSurfaceDescription
struct Direct3DSurfaceDescription
{
    std::int32_t Width;
    std::int32_t Height;
    std::int32_t Format; // a DirectXPixelFormat value
    Direct3DMultisampleDescription MultisampleDescription;
};

// Windows.Graphics.DirectX.Direct3D11.IDirect3DSurface (only passed on)
struct IDirect3DSurface : IInspectable
{
    virtual HRESULT STDMETHODCALLTYPE get_Description(Direct3DSurfaceDescription* value) = 0;
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

// Windows.Foundation.Collections.IIterator<String>
struct IIteratorString : IInspectable
{
    virtual HRESULT STDMETHODCALLTYPE get_Current(HSTRING* current) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_HasCurrent(Boolean* hasCurrent) = 0;
    virtual HRESULT STDMETHODCALLTYPE MoveNext(Boolean* hasCurrent) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetMany(UINT32 capacity, HSTRING* items, UINT32* actual) = 0;
};

// Windows.Foundation.Collections.IIterable<String>
struct IIterableString : IInspectable
{
    virtual HRESULT STDMETHODCALLTYPE First(IIteratorString** first) = 0;
};

// Windows.Foundation.Collections.IMapView<String, AppCapabilityAccessStatus>
// (only passed on)
struct IAccessStatusMapView : IInspectable
{
    virtual HRESULT STDMETHODCALLTYPE Lookup(HSTRING key, AppCapabilityAccessStatus* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_Size(UINT32* size) = 0;
    virtual HRESULT STDMETHODCALLTYPE HasKey(HSTRING key, Boolean* found) = 0;
    virtual HRESULT STDMETHODCALLTYPE Split(IAccessStatusMapView** first, IAccessStatusMapView** second) = 0;
};

struct IAsyncOperationAccessStatusMap;

// Windows.Foundation.AsyncOperationCompletedHandler<
//     IMapView<String, AppCapabilityAccessStatus>>
struct IAccessStatusMapCompletedHandler : IUnknown
{
    virtual HRESULT STDMETHODCALLTYPE Invoke(IAsyncOperationAccessStatusMap* operation, AsyncStatus status) = 0;
};

// Windows.Foundation.IAsyncOperation<IMapView<String, AppCapabilityAccessStatus>>
struct IAsyncOperationAccessStatusMap : IInspectable
{
    virtual HRESULT STDMETHODCALLTYPE put_Completed(IAccessStatusMapCompletedHandler* handler) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_Completed(IAccessStatusMapCompletedHandler** handler) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetResults(IAccessStatusMapView** result) = 0;
};

// Windows.Security.Authorization.AppCapabilityAccess.IAppCapabilityStatics
struct IAppCapabilityStatics : IInspectable
{
    virtual HRESULT STDMETHODCALLTYPE RequestAccessForCapabilitiesAsync(
        IIterableString* capabilityNames, IAsyncOperationAccessStatusMap** operation)
        = 0;
    virtual HRESULT STDMETHODCALLTYPE RequestAccessForCapabilitiesForUserAsync(
        IInspectable* user, IIterableString* capabilityNames, IAsyncOperationAccessStatusMap** operation)
        = 0;
    virtual HRESULT STDMETHODCALLTYPE Create(HSTRING capabilityName, IInspectable** result) = 0;
    virtual HRESULT STDMETHODCALLTYPE CreateWithProcessIdForUser(
        IInspectable* user, HSTRING capabilityName, UINT32 pid, IInspectable** result)
        = 0;
};

} // namespace Abi
} // namespace Wgc
} // namespace Orvanta
