// The hand-written Windows Runtime declarations of the graphics-capture
// adapter, checked against what the runtime itself uses: the IIDs of plain
// interfaces as the SDK's IDL states them, the IIDs of parameterised
// interfaces as the runtime derives them from their type signatures, and the
// vtable slot of every method the adapter calls (or implements) as the
// method's place in the SDK's IDL gives it.

#include "TypeSignatureIid.h"
#include "wgc/WgcAbi.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>

using namespace Orvanta::Wgc;

namespace {

/// @p guid in the registry form without braces, lower case.
std::string text(const GUID& guid)
{
    char buffer[40];
    std::snprintf(buffer, sizeof buffer, "%08lx-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x",
        static_cast<unsigned long>(guid.Data1), guid.Data2, guid.Data3, guid.Data4[0], guid.Data4[1], guid.Data4[2],
        guid.Data4[3], guid.Data4[4], guid.Data4[5], guid.Data4[6], guid.Data4[7]);
    return buffer;
}

// The generic interfaces, from the SDK's IDL of Windows.Foundation.
const std::string IIterableGeneric = "faa585ea-6214-4217-afda-7f46de5869b3";
const std::string IIteratorGeneric = "6a79e863-4300-459a-9966-cbb660963ee1";
const std::string IMapViewGeneric = "e480ce40-a338-4ada-adcf-272272e48cb9";
const std::string IAsyncOperationGeneric = "9fc2b0bb-e446-44e2-aa61-9cab8f636af2";
const std::string AsyncOperationCompletedHandlerGeneric = "fcdcf02c-e5d8-4478-915a-4d90b74b83a5";

// Signatures of the type arguments: a string, and an enumeration by its full
// name and its underlying type (a signed 32-bit one here).
const std::string StringSignature = "string";
const std::string AccessStatusSignature
    = "enum(Windows.Security.Authorization.AppCapabilityAccess.AppCapabilityAccessStatus;i4)";

/**
 * The vtable slot of a virtual member function. g++ (mingw-w64 included)
 * follows the Itanium C++ ABI, where a pointer to a virtual member holds one
 * plus the function's byte offset in the vtable.
 */
template <typename Method> std::ptrdiff_t slotOf(Method method)
{
    static_assert(sizeof(Method) == 2 * sizeof(std::ptrdiff_t), "an Itanium pointer to member function");
    std::ptrdiff_t words[2];
    std::memcpy(words, &method, sizeof words);
    if ((words[0] & 1) == 0)
        return -1; // not virtual
    return (words[0] - 1) / std::ptrdiff_t(sizeof(void*));
}

// IUnknown takes slots 0 to 2 and IInspectable 3 to 5, so the first method
// of an interface starts at one of these.
constexpr std::ptrdiff_t UnknownFirst = 3;
constexpr std::ptrdiff_t InspectableFirst = 6;

} // namespace

TEST(TypeSignatureIid, Sha1MatchesItsPublishedTestVectors)
{
    using TypeSignatureIid::hex;
    using TypeSignatureIid::sha1;
    EXPECT_EQ(hex(sha1("")), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
    EXPECT_EQ(hex(sha1("abc")), "a9993e364706816aba3e25717850c26c9cd0d89d");
    // 56 bytes: the padding spills into a second block.
    EXPECT_EQ(hex(sha1("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq")),
        "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
    EXPECT_EQ(hex(sha1(std::string(1000000, 'a'))), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
}

TEST(TypeSignatureIid, DerivesTheKnownIidsOfStringCollections)
{
    EXPECT_EQ(TypeSignatureIid::iidOf(TypeSignatureIid::pinterface(IIterableGeneric, {StringSignature})),
        "e2fcc7c1-3bfc-5a0b-b2b0-72e769d1cb7e");
    EXPECT_EQ(TypeSignatureIid::iidOf(TypeSignatureIid::pinterface(IIteratorGeneric, {StringSignature})),
        "8c304ebb-6615-50a4-8829-879ecd443236");
    // IAsyncOperation<Boolean>, as the SDK's headers give it.
    EXPECT_EQ(TypeSignatureIid::iidOf(TypeSignatureIid::pinterface(IAsyncOperationGeneric, {"b1"})),
        "cdb5efb3-5788-509d-9be1-71ccb8a3362a");
}

TEST(WgcAbi, ParameterisedIidsAreDerivedFromTheirSignatures)
{
    using TypeSignatureIid::iidOf;
    using TypeSignatureIid::pinterface;
    const std::string mapView = pinterface(IMapViewGeneric, {StringSignature, AccessStatusSignature});

    EXPECT_EQ(text(Abi::IID_IIterableString), iidOf(pinterface(IIterableGeneric, {StringSignature})));
    EXPECT_EQ(text(Abi::IID_IIteratorString), iidOf(pinterface(IIteratorGeneric, {StringSignature})));
    EXPECT_EQ(
        text(Abi::IID_IAsyncOperationAccessStatus), iidOf(pinterface(IAsyncOperationGeneric, {AccessStatusSignature})));
    EXPECT_EQ(text(Abi::IID_AccessStatusCompletedHandler),
        iidOf(pinterface(AsyncOperationCompletedHandlerGeneric, {AccessStatusSignature})));
    EXPECT_EQ(text(Abi::IID_IAccessStatusMapView), iidOf(mapView));
    EXPECT_EQ(text(Abi::IID_IAsyncOperationAccessStatusMap), iidOf(pinterface(IAsyncOperationGeneric, {mapView})));
    EXPECT_EQ(text(Abi::IID_AccessStatusMapCompletedHandler),
        iidOf(pinterface(AsyncOperationCompletedHandlerGeneric, {mapView})));
}

TEST(WgcAbi, PlainIidsAreThoseOfTheSdk)
{
    // Typed in from the SDK's IDL and headers.
    EXPECT_EQ(text(Abi::IID_Unknown), "00000000-0000-0000-c000-000000000046");
    EXPECT_EQ(text(Abi::IID_Inspectable), "af86e2e0-b12d-4c6a-9c5a-d7aa65101e90");
    EXPECT_EQ(text(Abi::IID_IAgileObject), "94ea2b94-e9cc-49e0-c0ff-ee64ca8f5b90");
    EXPECT_EQ(text(Abi::IID_IClosable), "30d5a829-7fa4-4026-83bb-d75bae4ea99e");
    EXPECT_EQ(text(Abi::IID_IApiInformationStatics), "997439fe-f681-4a11-b416-c13a47e8ba36");
    EXPECT_EQ(text(Abi::IID_IAnalyticsInfoStatics), "1d5ee066-188d-5ba9-4387-acaeb0e7e305");
    EXPECT_EQ(text(Abi::IID_IAnalyticsVersionInfo), "926130b8-9955-4c74-bdc1-7cd0decf9b03");
    EXPECT_EQ(text(Abi::IID_IGraphicsCaptureItemInterop), "3628e81b-3cac-4c60-b7f4-23ce0e0c3356");
    EXPECT_EQ(text(Abi::IID_IGraphicsCaptureItem), "79c3f95b-31f7-4ec2-a464-632ef5d30760");
    EXPECT_EQ(text(Abi::IID_IDirect3D11CaptureFramePoolStatics2), "589b103f-6bbc-5df5-a991-02e28b3b66d5");
    EXPECT_EQ(text(Abi::IID_IDirect3D11CaptureFramePool), "24eb6d22-1975-422e-82e7-780dbd8ddf24");
    EXPECT_EQ(text(Abi::IID_IDirect3D11CaptureFrame), "fa50c623-38da-4b32-acf3-fa9734ad800e");
    EXPECT_EQ(text(Abi::IID_IGraphicsCaptureSession), "814e42a9-f70f-4ad7-939b-fddcc6eb880d");
    EXPECT_EQ(text(Abi::IID_IGraphicsCaptureSession2), "2c39ae40-7d2e-5044-804e-8b6799d4cf9e");
    EXPECT_EQ(text(Abi::IID_IGraphicsCaptureSession3), "f2cdd966-22ae-5ea1-9596-3a289344c3be");
    EXPECT_EQ(text(Abi::IID_IGraphicsCaptureAccessStatics), "743ed370-06ec-5040-a58a-901f0f757095");
    EXPECT_EQ(text(Abi::IID_IDirect3DDevice), "a37624ab-8d5f-4650-9d3e-9eae3d9bc670");
    EXPECT_EQ(text(Abi::IID_IDirect3DSurface), "0bf4a146-13c1-4694-bee3-7abf15eaf586");
    EXPECT_EQ(text(Abi::IID_IDirect3DDxgiInterfaceAccess), "a9b3d012-3df2-4ee3-b8d1-8695f457d3c1");
    EXPECT_EQ(text(Abi::IID_IAppCapabilityStatics), "7c353e2a-46ee-44e5-af3d-6ad3fc49bd22");
}

TEST(WgcAbi, PlainIidsAgreeWithTheMingwHeaders)
{
    // Where the cross compiler's own headers declare the interface.
    EXPECT_EQ(text(Abi::IID_Unknown), text(__uuidof(IUnknown)));
    EXPECT_EQ(text(Abi::IID_Inspectable), text(__uuidof(IInspectable)));
    EXPECT_EQ(text(Abi::IID_IAgileObject), text(__uuidof(IAgileObject)));
}

TEST(WgcAbi, MethodsSitInTheSlotsOfTheSdkOrder)
{
    // Each method at its place in the interface's IDL, counted from 0.
    EXPECT_EQ(slotOf(&Abi::IApiInformationStatics::IsTypePresent), InspectableFirst + 0);
    EXPECT_EQ(slotOf(&Abi::IApiInformationStatics::IsPropertyPresent), InspectableFirst + 4);
    EXPECT_EQ(slotOf(&Abi::IApiInformationStatics::IsApiContractPresentByMajor), InspectableFirst + 8);
    EXPECT_EQ(slotOf(&Abi::IApiInformationStatics::IsApiContractPresentByMajorAndMinor), InspectableFirst + 9);

    EXPECT_EQ(slotOf(&Abi::IAnalyticsInfoStatics::get_VersionInfo), InspectableFirst + 0);
    EXPECT_EQ(slotOf(&Abi::IAnalyticsVersionInfo::get_DeviceFamilyVersion), InspectableFirst + 1);

    EXPECT_EQ(slotOf(&Abi::IGraphicsCaptureItemInterop::CreateForMonitor), UnknownFirst + 1);
    EXPECT_EQ(slotOf(&Abi::IGraphicsCaptureItem::get_Size), InspectableFirst + 1);
    EXPECT_EQ(slotOf(&Abi::IGraphicsCaptureItem::remove_Closed), InspectableFirst + 3);

    EXPECT_EQ(slotOf(&Abi::IDirect3DDevice::Trim), InspectableFirst + 0);
    EXPECT_EQ(slotOf(&Abi::IDirect3DSurface::get_Description), InspectableFirst + 0);
    EXPECT_EQ(slotOf(&Abi::IDirect3DDxgiInterfaceAccess::GetInterface), UnknownFirst + 0);
    EXPECT_EQ(slotOf(&Abi::IClosable::Close), InspectableFirst + 0);

    EXPECT_EQ(slotOf(&Abi::IDirect3D11CaptureFrame::get_Surface), InspectableFirst + 0);
    EXPECT_EQ(slotOf(&Abi::IDirect3D11CaptureFrame::get_ContentSize), InspectableFirst + 2);
    EXPECT_EQ(slotOf(&Abi::IGraphicsCaptureSession::StartCapture), InspectableFirst + 0);
    EXPECT_EQ(slotOf(&Abi::IGraphicsCaptureSession2::put_IsCursorCaptureEnabled), InspectableFirst + 1);
    EXPECT_EQ(slotOf(&Abi::IGraphicsCaptureSession3::put_IsBorderRequired), InspectableFirst + 1);

    EXPECT_EQ(slotOf(&Abi::IDirect3D11CaptureFramePool::Recreate), InspectableFirst + 0);
    EXPECT_EQ(slotOf(&Abi::IDirect3D11CaptureFramePool::TryGetNextFrame), InspectableFirst + 1);
    EXPECT_EQ(slotOf(&Abi::IDirect3D11CaptureFramePool::CreateCaptureSession), InspectableFirst + 4);
    EXPECT_EQ(slotOf(&Abi::IDirect3D11CaptureFramePool::get_DispatcherQueue), InspectableFirst + 5);
    EXPECT_EQ(slotOf(&Abi::IDirect3D11CaptureFramePoolStatics2::CreateFreeThreaded), InspectableFirst + 0);

    EXPECT_EQ(slotOf(&Abi::IGraphicsCaptureAccessStatics::RequestAccessAsync), InspectableFirst + 0);
    EXPECT_EQ(slotOf(&Abi::IAppCapabilityStatics::RequestAccessForCapabilitiesAsync), InspectableFirst + 0);
    EXPECT_EQ(slotOf(&Abi::IAppCapabilityStatics::CreateWithProcessIdForUser), InspectableFirst + 3);

    EXPECT_EQ(slotOf(&Abi::IAsyncOperationAccessStatus::put_Completed), InspectableFirst + 0);
    EXPECT_EQ(slotOf(&Abi::IAsyncOperationAccessStatus::GetResults), InspectableFirst + 2);
    EXPECT_EQ(slotOf(&Abi::IAccessStatusCompletedHandler::Invoke), UnknownFirst + 0);
    EXPECT_EQ(slotOf(&Abi::IAsyncOperationAccessStatusMap::put_Completed), InspectableFirst + 0);
    EXPECT_EQ(slotOf(&Abi::IAsyncOperationAccessStatusMap::GetResults), InspectableFirst + 2);
    EXPECT_EQ(slotOf(&Abi::IAccessStatusMapCompletedHandler::Invoke), UnknownFirst + 0);
    EXPECT_EQ(slotOf(&Abi::IAccessStatusMapView::Split), InspectableFirst + 3);

    EXPECT_EQ(slotOf(&Abi::IIterableString::First), InspectableFirst + 0);
    EXPECT_EQ(slotOf(&Abi::IIteratorString::get_Current), InspectableFirst + 0);
    EXPECT_EQ(slotOf(&Abi::IIteratorString::get_HasCurrent), InspectableFirst + 1);
    EXPECT_EQ(slotOf(&Abi::IIteratorString::MoveNext), InspectableFirst + 2);
    EXPECT_EQ(slotOf(&Abi::IIteratorString::GetMany), InspectableFirst + 3);
}

TEST(WgcAbi, ValueTypesHaveTheRuntimesLayout)
{
    EXPECT_EQ(sizeof(Abi::Boolean), 1u);
    EXPECT_EQ(sizeof(Abi::AsyncStatus), 4u);
    EXPECT_EQ(sizeof(Abi::AppCapabilityAccessStatus), 4u);
    EXPECT_EQ(sizeof(Abi::GraphicsCaptureAccessKind), 4u);
    EXPECT_EQ(sizeof(Abi::SizeInt32), 8u);
    EXPECT_EQ(sizeof(Abi::EventToken), 8u);
    EXPECT_EQ(sizeof(Abi::Direct3DSurfaceDescription), 20u);

    EXPECT_EQ(Abi::AsyncCompleted, 1);
    EXPECT_EQ(Abi::AsyncError, 3);
    EXPECT_EQ(Abi::AppCapabilityAllowed, 4);
    EXPECT_EQ(Abi::GraphicsCaptureAccessBorderless, 0);
}
