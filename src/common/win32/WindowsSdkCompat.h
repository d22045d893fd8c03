#pragma once

// The Windows SDK headers as the library's Windows adapters need them.
//
// The adapters include this header instead of the SDK headers below, because
// the mingw-w64 edition of those headers has gaps that would otherwise be
// patched in every adapter:
//
//  - PKEY_Device_FriendlyName and the other device property keys are only
//    declared unless <initguid.h> comes first; with it they are defined in
//    every translation unit as "select any" constants, which the linker folds.
//  - IAudioMeterInformation is only forward-declared: it is defined here, with
//    its IID.
//  - GCC ignores __declspec(uuid(...)): __uuidof and IID_PPV_ARGS work only for
//    interfaces that carry a __CRT_UUID_DECL, and explicit IID constants are
//    given for the ones defined here.
//  - CreateDirect3D11DeviceFromDXGIDevice is missing from the import library
//    (and from Wine's d3d11): it is looked up at run time.

#ifndef NOMINMAX
#define NOMINMAX
#endif

#include <windows.h>

#include <initguid.h>

#include <audioclient.h>
#include <endpointvolume.h>
#include <functiondiscoverykeys_devpkey.h>
#include <mmdeviceapi.h>

#include <d3d11.h>
#include <dxgi1_6.h>
#include <inspectable.h>

// --- IAudioMeterInformation --------------------------------------------------

#ifndef __IAudioMeterInformation_INTERFACE_DEFINED__
#define __IAudioMeterInformation_INTERFACE_DEFINED__

/// Peak meter of an audio endpoint (endpointvolume.h only forward-declares it).
MIDL_INTERFACE("C02216F6-8C67-4B5B-9D00-D008E73E0064")
IAudioMeterInformation : public IUnknown
{
public:
    virtual HRESULT STDMETHODCALLTYPE GetPeakValue(float* peak) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetMeteringChannelCount(UINT * channelCount) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetChannelsPeakValues(UINT32 channelCount, float* peakValues) = 0;
    virtual HRESULT STDMETHODCALLTYPE QueryHardwareSupport(DWORD * hardwareSupportMask) = 0;
};

__CRT_UUID_DECL(IAudioMeterInformation, 0xC02216F6, 0x8C67, 0x4B5B, 0x9D, 0x00, 0xD0, 0x08, 0xE7, 0x3E, 0x00, 0x64)

#endif

namespace Orvanta {
namespace Win32 {

/// IID of IAudioMeterInformation, for calls that take an IID rather than a type.
constexpr IID kIidAudioMeterInformation
    = {0xC02216F6, 0x8C67, 0x4B5B, {0x9D, 0x00, 0xD0, 0x08, 0xE7, 0x3E, 0x00, 0x64}};

/**
 * CreateDirect3D11DeviceFromDXGIDevice of d3d11.dll, looked up at run time:
 * wraps a DXGI device as a Windows runtime IDirect3DDevice. Returns
 * HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND) where the system's d3d11.dll has
 * no such export, and E_POINTER for null arguments.
 */
inline HRESULT createDirect3D11DeviceFromDxgiDevice(IDXGIDevice* dxgiDevice, IInspectable** graphicsDevice)
{
    if (dxgiDevice == nullptr || graphicsDevice == nullptr) {
        return E_POINTER;
    }
    *graphicsDevice = nullptr;
    using Function = HRESULT(WINAPI*)(IDXGIDevice*, IInspectable**);
    // d3d11.dll is already loaded by whoever made the DXGI device; the module
    // reference is not kept, so GetModuleHandleW suffices.
    const HMODULE d3d11 = GetModuleHandleW(L"d3d11.dll");
    if (d3d11 == nullptr) {
        return HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND);
    }
    const auto function = reinterpret_cast<Function>(
        reinterpret_cast<void*>(GetProcAddress(d3d11, "CreateDirect3D11DeviceFromDXGIDevice")));
    if (function == nullptr) {
        return HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND);
    }
    return function(dxgiDevice, graphicsDevice);
}

} // namespace Win32
} // namespace Orvanta
