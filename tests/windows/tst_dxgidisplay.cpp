// DXGI enumeration, the per-output Direct3D 11 device, desktop duplication
// and the platform scaler on that device, through Wine's dxgi and d3d11.
//
// Wine offers one adapter with one output, \\.\DISPLAY1, covering the X
// screen (scripts/test-windows.sh starts it at 1280x720), and answers
// DuplicateOutput1 with E_NOTIMPL.

#include "ScalerModel.h"
#include "d3d11/D3D11Scaler.h"
#include "dxgi/DxgiDisplaySystem.h"
#include "ifaces/DesktopDuplicator.h"
#include "ifaces/OutputDuplication.h"
#include "win32/WindowsSdkCompat.h"

#include <shlobj.h>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

using namespace Orvanta;

namespace {

class DxgiDisplayTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_system = Ifaces::createPlatformDisplaySystem();
        ASSERT_TRUE(m_system);
        ASSERT_EQ(m_system->open(), S_OK);
        ASSERT_EQ(m_system->enumAdapter(0, m_adapter), S_OK);
        ASSERT_TRUE(m_adapter);
        ASSERT_EQ(m_adapter->enumOutput(0, m_output), S_OK);
        ASSERT_TRUE(m_output);
    }

    std::shared_ptr<Ifaces::DisplaySystem> m_system;
    std::shared_ptr<Ifaces::DisplayAdapter> m_adapter;
    std::shared_ptr<Ifaces::DisplayOutput> m_output;
};

} // namespace

TEST_F(DxgiDisplayTest, PlatformSystemIsDxgiAndNeedsDevices)
{
    EXPECT_NE(dynamic_cast<Dxgi::DxgiDisplaySystem*>(m_system.get()), nullptr);
    EXPECT_FALSE(m_system->devicesOptional());
    // IsUserAnAdmin: Wine's user is an administrator.
    EXPECT_TRUE(m_system->hasAdministratorRights());
    EXPECT_EQ(m_system->hasAdministratorRights(), IsUserAnAdmin() != FALSE);
}

TEST_F(DxgiDisplayTest, AdaptersEndWithNotFound)
{
    EXPECT_FALSE(m_adapter->description().empty());
    std::shared_ptr<Ifaces::DisplayAdapter> next;
    unsigned index = 1;
    while (m_system->enumAdapter(index, next) == S_OK) {
        ++index;
        ASSERT_LT(index, 16u);
    }
    EXPECT_EQ(m_system->enumAdapter(index, next), DXGI_ERROR_NOT_FOUND);
}

TEST_F(DxgiDisplayTest, OutputDescribesNameRectangleMonitorAndRotation)
{
    Ifaces::OutputDescription description;
    ASSERT_EQ(m_output->describe(description), S_OK);
    EXPECT_EQ(description.deviceName, L"\\\\.\\DISPLAY1");
    EXPECT_EQ(description.left, 0);
    EXPECT_EQ(description.top, 0);
    EXPECT_EQ(description.right, GetSystemMetrics(SM_CXSCREEN));
    EXPECT_EQ(description.bottom, GetSystemMetrics(SM_CYSCREEN));
    EXPECT_GT(description.right, 0);
    EXPECT_EQ(description.rotation, Ifaces::OutputRotation::Identity);

    // The monitor handle is the one USER knows for that rectangle.
    const POINT origin = {description.left, description.top};
    EXPECT_EQ(description.monitor, reinterpret_cast<std::uintptr_t>(MonitorFromPoint(origin, MONITOR_DEFAULTTONULL)));

    std::shared_ptr<Ifaces::DisplayOutput> none;
    unsigned index = 1;
    while (m_adapter->enumOutput(index, none) == S_OK) {
        ++index;
        ASSERT_LT(index, 16u);
    }
    EXPECT_EQ(m_adapter->enumOutput(index, none), DXGI_ERROR_NOT_FOUND);
}

TEST_F(DxgiDisplayTest, EveryOutputGetsItsOwnDevice)
{
    std::shared_ptr<Ifaces::GraphicsDevice> first;
    std::shared_ptr<Ifaces::GraphicsDevice> second;
    ASSERT_EQ(m_adapter->createDevice(m_output, first), S_OK);
    ASSERT_EQ(m_adapter->createDevice(m_output, second), S_OK);
    const auto* firstDevice = dynamic_cast<Dxgi::DxgiGraphicsDevice*>(first.get());
    const auto* secondDevice = dynamic_cast<Dxgi::DxgiGraphicsDevice*>(second.get());
    ASSERT_NE(firstDevice, nullptr);
    ASSERT_NE(secondDevice, nullptr);
    EXPECT_NE(firstDevice->get(), secondDevice->get());
    // The first of the offered feature levels. (Wine accepts the video
    // support flag but does not report it back through GetCreationFlags.)
    EXPECT_EQ(firstDevice->get()->GetFeatureLevel(), D3D_FEATURE_LEVEL_11_0);
}

TEST_F(DxgiDisplayTest, DuplicationIsNotImplementedByWine)
{
    std::shared_ptr<Ifaces::GraphicsDevice> device;
    ASSERT_EQ(m_adapter->createDevice(m_output, device), S_OK);
    std::unique_ptr<Ifaces::DesktopDuplicator> duplicator = Ifaces::createPlatformDesktopDuplicator(m_adapter, device);
    ASSERT_TRUE(duplicator);
    ASSERT_EQ(duplicator->enumOutput(0), S_OK);
    ASSERT_EQ(duplicator->queryDuplicationOutput(), S_OK);

    std::unique_ptr<Ifaces::OutputDuplication> duplication;
    EXPECT_EQ(duplicator->duplicateOutput({DXGI_FORMAT_B8G8R8A8_UNORM}, duplication), E_NOTIMPL);
    EXPECT_FALSE(duplication);
    EXPECT_EQ(duplicator->enumOutput(1), DXGI_ERROR_NOT_FOUND);
    EXPECT_EQ(duplicator->queryDuplicationOutput(), E_POINTER);
}

TEST_F(DxgiDisplayTest, DuplicatorNeedsDxgiObjects)
{
    EXPECT_FALSE(Ifaces::createPlatformDesktopDuplicator(m_adapter, nullptr));
    EXPECT_FALSE(Ifaces::createPlatformDesktopDuplicator(nullptr, nullptr));
}

TEST_F(DxgiDisplayTest, DeviceScalerDrawsOnTheOutputsDevice)
{
    std::shared_ptr<Ifaces::GraphicsDevice> device;
    ASSERT_EQ(m_adapter->createDevice(m_output, device), S_OK);
    std::unique_ptr<Ifaces::DesktopDuplicator> duplicator = Ifaces::createPlatformDesktopDuplicator(m_adapter, device);
    ASSERT_TRUE(duplicator);
    std::shared_ptr<Ifaces::GpuScaler> scaler = duplicator->deviceScaler();
    ASSERT_NE(dynamic_cast<D3D11::D3D11Scaler*>(scaler.get()), nullptr);

    Ifaces::SamplerDescription sampler;
    sampler.filter = D3D11_FILTER_MIN_LINEAR_MAG_MIP_POINT;
    sampler.addressU = sampler.addressV = sampler.addressW = D3D11_TEXTURE_ADDRESS_CLAMP;
    sampler.comparisonFunc = D3D11_COMPARISON_LESS_EQUAL;
    sampler.maxLod = 3.402823466e+38f;
    const Ifaces::ScalerVertex quad[6]
        = {{-1, -1, 0, 0, 1}, {-1, 1, 0, 0, 0}, {1, -1, 0, 1, 1}, {1, -1, 0, 1, 1}, {-1, 1, 0, 0, 0}, {1, 1, 0, 1, 0}};
    ASSERT_EQ(scaler->createVertexShader(), S_OK);
    ASSERT_EQ(scaler->createPixelShader(), S_OK);
    ASSERT_EQ(scaler->createInputLayout(), S_OK);
    ASSERT_EQ(scaler->createSamplerState(sampler), S_OK);
    ASSERT_EQ(scaler->createVertexBuffer(quad, 6), S_OK);
    ASSERT_EQ(scaler->createTargetTexture(8, 6), S_OK);
    ASSERT_EQ(scaler->createRenderTargetView(), S_OK);
    scaler->bindRenderTarget(8, 6);

    // A BGRX picture, as a desktop gives it, uploaded from memory.
    RgbaImage picture(17, 13);
    std::vector<std::uint8_t> bgrx(picture.pixels.size());
    for (int y = 0; y < 13; ++y) {
        for (int x = 0; x < 17; ++x) {
            std::uint8_t* rgba = picture.at(x, y);
            rgba[0] = std::uint8_t(x * 12);
            rgba[1] = std::uint8_t(y * 15);
            rgba[2] = std::uint8_t(100 + x + y);
            rgba[3] = 255;
            std::uint8_t* out = bgrx.data() + (y * 17 + x) * 4;
            out[0] = rgba[2];
            out[1] = rgba[1];
            out[2] = rgba[0];
            out[3] = 0;
        }
    }
    Ifaces::ScalerSource source;
    source.pixels = bgrx.data();
    source.bytesPerLine = 17 * 4;
    source.width = 17;
    source.height = 13;
    source.format = Ifaces::PixelFormat::B8G8R8X8Unorm;
    ASSERT_EQ(scaler->createSourceView(source), S_OK);
    scaler->draw();
    scaler->releaseSourceView();
    ASSERT_EQ(scaler->createStagingTexture(), S_OK);
    scaler->copyTargetToStaging();
    Ifaces::MappedImage mapped;
    ASSERT_EQ(scaler->mapStaging(mapped), S_OK);
    ASSERT_NE(mapped.data, nullptr);
    RgbaImage drawn(8, 6);
    for (int row = 0; row < 6; ++row) {
        std::memcpy(drawn.at(0, row), mapped.data + mapped.rowPitch * row, 8 * 4);
    }
    scaler->unmapStaging();
    scaler->releaseStaging();
    // The padding byte reads as opaque.
    EXPECT_LE(maxChannelDifference(drawn, modelScale(picture, 8, 6, 1)), 1);
}

TEST(PlatformGpuScaler, WithoutADirect3DDeviceDrawsOnTheCpu)
{
    std::shared_ptr<Ifaces::GpuScaler> scaler = Ifaces::createPlatformGpuScaler(nullptr);
    ASSERT_TRUE(scaler);
    EXPECT_EQ(dynamic_cast<D3D11::D3D11Scaler*>(scaler.get()), nullptr);
    EXPECT_EQ(scaler->createVertexShader(), S_OK);
}
