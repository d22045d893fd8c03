// The SDK gaps filled by WindowsSdkCompat.h, checked against the real
// system components under Wine.

#include "win32/WindowsSdkCompat.h"

#include <gtest/gtest.h>

#include <wrl/client.h>

#include <algorithm>
#include <string>
#include <vector>

using Microsoft::WRL::ComPtr;

// Defined in sdkcompat_otherunit.cpp, which includes the same header.
const PROPERTYKEY* friendlyNameKeyOfOtherUnit();

namespace {

class ComApartment : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
    }
    void TearDown() override
    {
        CoUninitialize();
    }
};

ComPtr<IMMDevice> defaultRenderEndpoint()
{
    ComPtr<IMMDeviceEnumerator> enumerator;
    EXPECT_EQ(CoCreateInstance(__uuidof(MMDeviceEnumerator), nullptr, CLSCTX_ALL, IID_PPV_ARGS(&enumerator)), S_OK);
    ComPtr<IMMDevice> device;
    if (enumerator) {
        EXPECT_EQ(enumerator->GetDefaultAudioEndpoint(eRender, eConsole, &device), S_OK);
    }
    return device;
}

} // namespace

TEST(WindowsSdkCompat, AudioMeterInformationHasItsIid)
{
    const GUID expected = {0xC02216F6, 0x8C67, 0x4B5B, {0x9D, 0x00, 0xD0, 0x08, 0xE7, 0x3E, 0x00, 0x64}};
    EXPECT_TRUE(IsEqualGUID(__uuidof(IAudioMeterInformation), expected));
    EXPECT_TRUE(IsEqualGUID(Orvanta::Win32::kIidAudioMeterInformation, expected));
    // The vtable has IUnknown's three entries and the meter's four.
    EXPECT_EQ(sizeof(IAudioMeterInformation), sizeof(void*));
}

TEST(WindowsSdkCompat, FriendlyNameKeyIsDefinedOnceAcrossUnits)
{
    const GUID fmtid = {0xa45c254e, 0xdf1c, 0x4efd, {0x80, 0x20, 0x67, 0xd1, 0x46, 0xa8, 0x50, 0xe0}};
    EXPECT_TRUE(IsEqualGUID(PKEY_Device_FriendlyName.fmtid, fmtid));
    EXPECT_EQ(PKEY_Device_FriendlyName.pid, 14u);
    // "Select any" definitions fold into one object.
    EXPECT_EQ(friendlyNameKeyOfOtherUnit(), &PKEY_Device_FriendlyName);
}

TEST_F(ComApartment, FriendlyNameKeyReadsTheEndpointNames)
{
    ComPtr<IMMDeviceEnumerator> enumerator;
    ASSERT_EQ(CoCreateInstance(__uuidof(MMDeviceEnumerator), nullptr, CLSCTX_ALL, IID_PPV_ARGS(&enumerator)), S_OK);
    ComPtr<IMMDeviceCollection> devices;
    ASSERT_EQ(enumerator->EnumAudioEndpoints(eAll, DEVICE_STATE_ACTIVE, &devices), S_OK);
    UINT count = 0;
    ASSERT_EQ(devices->GetCount(&count), S_OK);

    std::vector<std::wstring> names;
    for (UINT index = 0; index < count; ++index) {
        ComPtr<IMMDevice> device;
        ASSERT_EQ(devices->Item(index, &device), S_OK);
        ComPtr<IPropertyStore> properties;
        ASSERT_EQ(device->OpenPropertyStore(STGM_READ, &properties), S_OK);
        PROPVARIANT value;
        PropVariantInit(&value);
        ASSERT_EQ(properties->GetValue(PKEY_Device_FriendlyName, &value), S_OK);
        ASSERT_EQ(value.vt, VT_LPWSTR);
        names.emplace_back(value.pwszVal);
        PropVariantClear(&value);
    }
    // The test sound server's null sink, and its monitor as a capture endpoint.
    EXPECT_NE(std::find(names.begin(), names.end(), L"SinkA"), names.end());
    EXPECT_NE(std::find(names.begin(), names.end(), L"Monitor of SinkA"), names.end());
}

TEST_F(ComApartment, MeterActivationUsesTheIid)
{
    ComPtr<IMMDevice> device = defaultRenderEndpoint();
    ASSERT_TRUE(device);
    ComPtr<IAudioMeterInformation> meter;
    const HRESULT result = device->Activate(__uuidof(IAudioMeterInformation), CLSCTX_ALL, nullptr, &meter);
    // Wine's endpoints have no peak meter and answer E_NOINTERFACE; on Windows
    // the meter comes and reports at least one channel.
    if (result == E_NOINTERFACE) {
        EXPECT_FALSE(meter);
    } else {
        ASSERT_EQ(result, S_OK);
        UINT channels = 0;
        EXPECT_EQ(meter->GetMeteringChannelCount(&channels), S_OK);
        EXPECT_GE(channels, 1u);
    }
}

TEST(WindowsSdkCompat, DeviceFromDxgiDeviceIsLookedUpAtRunTime)
{
    ComPtr<ID3D11Device> device;
    ASSERT_EQ(D3D11CreateDevice(nullptr, D3D_DRIVER_TYPE_HARDWARE, nullptr, D3D11_CREATE_DEVICE_BGRA_SUPPORT, nullptr,
                  0, D3D11_SDK_VERSION, &device, nullptr, nullptr),
        S_OK);
    ComPtr<IDXGIDevice> dxgiDevice;
    ASSERT_EQ(device.As(&dxgiDevice), S_OK);

    ComPtr<IInspectable> graphicsDevice;
    const HRESULT result
        = Orvanta::Win32::createDirect3D11DeviceFromDxgiDevice(dxgiDevice.Get(), graphicsDevice.GetAddressOf());
    const bool exported = GetProcAddress(GetModuleHandleW(L"d3d11.dll"), "CreateDirect3D11DeviceFromDXGIDevice");
    if (exported) {
        EXPECT_EQ(result, S_OK);
        EXPECT_TRUE(graphicsDevice);
    } else {
        // Wine's d3d11 has no such export: the program still loads and runs.
        EXPECT_EQ(result, HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND));
        EXPECT_FALSE(graphicsDevice);
    }
    EXPECT_EQ(Orvanta::Win32::createDirect3D11DeviceFromDxgiDevice(nullptr, graphicsDevice.GetAddressOf()), E_POINTER);
    EXPECT_EQ(Orvanta::Win32::createDirect3D11DeviceFromDxgiDevice(dxgiDevice.Get(), nullptr), E_POINTER);
}
