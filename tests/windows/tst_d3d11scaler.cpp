// The Direct3D 11 scaler through Wine's d3d11: the checked-in shader bytecode,
// an RGBA8 target and the staging read-back, compared with the CPU model of
// the sampling rules. The adapter is driven in the order the resizer logic
// drives it.

#include "ScalerModel.h"
#include "d3d11/D3D11Scaler.h"
#include "win32/WindowsSdkCompat.h"

#include <gtest/gtest.h>

#include <wrl/client.h>

#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

using Microsoft::WRL::ComPtr;
using Orvanta::Ifaces::MappedImage;
using Orvanta::Ifaces::PixelFormat;
using Orvanta::Ifaces::SamplerDescription;
using Orvanta::Ifaces::ScalerSource;
using Orvanta::Ifaces::ScalerVertex;

namespace {

// The quad and sampler the resizer gives every adapter.
std::array<ScalerVertex, 6> quadFor(int rotation)
{
    std::array<ScalerVertex, 6> quad = {{
        {-1.0f, -1.0f, 0.0f, 0.0f, 1.0f},
        {-1.0f, 1.0f, 0.0f, 0.0f, 0.0f},
        {1.0f, -1.0f, 0.0f, 1.0f, 1.0f},
        {1.0f, -1.0f, 0.0f, 1.0f, 1.0f},
        {-1.0f, 1.0f, 0.0f, 0.0f, 0.0f},
        {1.0f, 1.0f, 0.0f, 1.0f, 0.0f},
    }};
    float angle = 0.0f;
    switch (rotation) {
    case 2:
        angle = 1.5707964f;
        break;
    case 3:
        angle = -3.1415927f;
        break;
    case 4:
        angle = 4.712389f;
        break;
    default:
        return quad;
    }
    const float cosine = std::cos(angle);
    const float sine = std::sin(angle);
    for (ScalerVertex& vertex : quad) {
        const float x = vertex.x;
        const float y = vertex.y;
        vertex.x = x * cosine - y * sine;
        vertex.y = x * sine + y * cosine;
    }
    return quad;
}

SamplerDescription resizerSampler()
{
    SamplerDescription description;
    description.filter = D3D11_FILTER_MIN_LINEAR_MAG_MIP_POINT;
    description.addressU = D3D11_TEXTURE_ADDRESS_CLAMP;
    description.addressV = D3D11_TEXTURE_ADDRESS_CLAMP;
    description.addressW = D3D11_TEXTURE_ADDRESS_CLAMP;
    description.comparisonFunc = D3D11_COMPARISON_LESS_EQUAL;
    description.maxLod = std::numeric_limits<float>::max();
    return description;
}

// Odd sizes keep every enlarged pixel centre off the texel edges, where
// nearest sampling could go either way.
constexpr int kSourceWidth = 45;
constexpr int kSourceHeight = 33;

// Smooth ramps in different directions: a turned, mirrored or wrongly
// filtered picture differs by far more than one unit, while the GPU's
// fixed-point filter weights stay within it.
RgbaImage gradientPicture(int width, int height, int phase = 0)
{
    RgbaImage image(width, height);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            std::uint8_t* pixel = image.at(x, y);
            pixel[0] = static_cast<std::uint8_t>(10 + x * 5 + phase);
            pixel[1] = static_cast<std::uint8_t>(5 + y * 7);
            pixel[2] = static_cast<std::uint8_t>((x + y) * 3);
            pixel[3] = static_cast<std::uint8_t>(255 - x * 2);
        }
    }
    return image;
}

std::string sizeText(int width, int height, int rotation)
{
    return std::to_string(width) + "x" + std::to_string(height) + " rotation " + std::to_string(rotation);
}

class D3D11ScalerTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(D3D11CreateDevice(nullptr, D3D_DRIVER_TYPE_HARDWARE, nullptr, D3D11_CREATE_DEVICE_BGRA_SUPPORT,
                      nullptr, 0, D3D11_SDK_VERSION, &m_device, nullptr, &m_context),
            S_OK);
        m_scaler = std::make_unique<Orvanta::D3D11::D3D11Scaler>(m_device.Get(), m_context.Get());
    }

    void preparePipeline()
    {
        ASSERT_EQ(m_scaler->createVertexShader(), S_OK);
        ASSERT_EQ(m_scaler->createPixelShader(), S_OK);
        ASSERT_EQ(m_scaler->createInputLayout(), S_OK);
        ASSERT_EQ(m_scaler->createSamplerState(resizerSampler()), S_OK);
        setRotation(1);
    }

    void setRotation(int rotation)
    {
        const auto quad = quadFor(rotation);
        ASSERT_EQ(m_scaler->createVertexBuffer(quad.data(), quad.size()), S_OK);
    }

    void setTargetSize(int width, int height)
    {
        ASSERT_EQ(m_scaler->createTargetTexture(width, height), S_OK);
        ASSERT_EQ(m_scaler->createRenderTargetView(), S_OK);
        m_scaler->bindRenderTarget(width, height);
        m_targetWidth = width;
        m_targetHeight = height;
    }

    ComPtr<ID3D11Texture2D> deviceTexture(
        const void* pixels, int width, int height, DXGI_FORMAT format, UINT bytesPerPixel)
    {
        D3D11_TEXTURE2D_DESC description = {};
        description.Width = width;
        description.Height = height;
        description.MipLevels = 1;
        description.ArraySize = 1;
        description.Format = format;
        description.SampleDesc.Count = 1;
        description.Usage = D3D11_USAGE_DEFAULT;
        description.BindFlags = D3D11_BIND_SHADER_RESOURCE | D3D11_BIND_RENDER_TARGET;
        D3D11_SUBRESOURCE_DATA data = {};
        data.pSysMem = pixels;
        data.SysMemPitch = width * bytesPerPixel;
        ComPtr<ID3D11Texture2D> texture;
        EXPECT_EQ(m_device->CreateTexture2D(&description, &data, &texture), S_OK);
        return texture;
    }

    ComPtr<ID3D11Texture2D> deviceTexture(const RgbaImage& image)
    {
        return deviceTexture(image.pixels.data(), image.width, image.height, DXGI_FORMAT_R8G8B8A8_UNORM, 4);
    }

    static ScalerSource textureSource(ID3D11Texture2D* texture, int width, int height, PixelFormat format)
    {
        ScalerSource source;
        source.nativeTexture = texture;
        source.width = width;
        source.height = height;
        source.format = format;
        return source;
    }

    // Draw, then read back through a fresh staging texture, as the resizer does.
    RgbaImage drawAndReadBack(const ScalerSource& source)
    {
        RgbaImage result;
        EXPECT_EQ(m_scaler->createSourceView(source), S_OK);
        m_scaler->draw();
        m_scaler->releaseSourceView();
        EXPECT_NE(m_scaler->nativeTarget(), nullptr);

        EXPECT_EQ(m_scaler->createStagingTexture(), S_OK);
        m_scaler->copyTargetToStaging();
        MappedImage mapped;
        EXPECT_EQ(m_scaler->mapStaging(mapped), S_OK);
        if (mapped.data == nullptr) {
            ADD_FAILURE() << "the staging texture mapped to no memory";
            m_scaler->releaseStaging();
            return result;
        }
        EXPECT_GE(mapped.rowPitch, static_cast<std::size_t>(m_targetWidth) * 4);
        result = RgbaImage(m_targetWidth, m_targetHeight);
        for (int row = 0; row < m_targetHeight; ++row) {
            std::memcpy(result.at(0, row), mapped.data + mapped.rowPitch * row, std::size_t(m_targetWidth) * 4);
        }
        m_scaler->unmapStaging();
        m_scaler->releaseStaging();
        return result;
    }

    ComPtr<ID3D11Device> m_device;
    ComPtr<ID3D11DeviceContext> m_context;
    std::unique_ptr<Orvanta::D3D11::D3D11Scaler> m_scaler;
    int m_targetWidth = 0;
    int m_targetHeight = 0;
};

} // namespace

TEST_F(D3D11ScalerTest, ShrinksAndEnlargesAtEveryRotationLikeTheModel)
{
    preparePipeline();
    const RgbaImage picture = gradientPicture(kSourceWidth, kSourceHeight);
    const ComPtr<ID3D11Texture2D> texture = deviceTexture(picture);
    const ScalerSource source = textureSource(texture.Get(), kSourceWidth, kSourceHeight, PixelFormat::R8G8B8A8Unorm);

    // Sizes as the caller gives them for an upright picture; for a quarter
    // turn the caller swaps width and height itself.
    const std::array<std::array<int, 2>, 7> sizes = {{
        {20, 15}, // shrinking
        {16, 9}, // shrinking, another aspect
        {44, 32}, // shrinking by a little
        {90, 66}, // enlarging twice
        {100, 70}, // enlarging by an odd factor
        {135, 99}, // enlarging three times
        {30, 50}, // shrinking across, enlarging down: filtered as shrinking
    }};
    for (int rotation = 1; rotation <= 4; ++rotation) {
        setRotation(rotation);
        for (const auto& size : sizes) {
            const bool turned = rotation == 2 || rotation == 4;
            const int width = turned ? size[1] : size[0];
            const int height = turned ? size[0] : size[1];
            setTargetSize(width, height);
            const RgbaImage drawn = drawAndReadBack(source);
            const RgbaImage expected = modelScale(picture, width, height, rotation);
            EXPECT_LE(maxChannelDifference(drawn, expected), 1) << sizeText(width, height, rotation);
        }
    }
}

TEST_F(D3D11ScalerTest, UnspecifiedRotationDrawsUpright)
{
    preparePipeline();
    setRotation(0);
    const RgbaImage picture = gradientPicture(kSourceWidth, kSourceHeight);
    const ComPtr<ID3D11Texture2D> texture = deviceTexture(picture);
    setTargetSize(20, 15);
    const RgbaImage drawn
        = drawAndReadBack(textureSource(texture.Get(), kSourceWidth, kSourceHeight, PixelFormat::R8G8B8A8Unorm));
    EXPECT_LE(maxChannelDifference(drawn, modelScale(picture, 20, 15, 1)), 1);
}

TEST_F(D3D11ScalerTest, SameSizeSourceIsStillDrawn)
{
    preparePipeline();
    setTargetSize(kSourceWidth, kSourceHeight);
    const RgbaImage first = gradientPicture(kSourceWidth, kSourceHeight, 0);
    const RgbaImage second = gradientPicture(kSourceWidth, kSourceHeight, 3);
    const ComPtr<ID3D11Texture2D> firstTexture = deviceTexture(first);
    const ComPtr<ID3D11Texture2D> secondTexture = deviceTexture(second);

    const RgbaImage drawnFirst
        = drawAndReadBack(textureSource(firstTexture.Get(), kSourceWidth, kSourceHeight, PixelFormat::R8G8B8A8Unorm));
    EXPECT_EQ(maxChannelDifference(drawnFirst, first), 0);
    // Nothing is cached or short-cut: the next source replaces every pixel.
    const RgbaImage drawnSecond
        = drawAndReadBack(textureSource(secondTexture.Get(), kSourceWidth, kSourceHeight, PixelFormat::R8G8B8A8Unorm));
    EXPECT_EQ(maxChannelDifference(drawnSecond, second), 0);
}

TEST_F(D3D11ScalerTest, HalfTurnKeepsTheTargetSizeAndTurnsThePicture)
{
    preparePipeline();
    setRotation(3);
    setTargetSize(kSourceWidth, kSourceHeight);
    const RgbaImage picture = gradientPicture(kSourceWidth, kSourceHeight);
    const ComPtr<ID3D11Texture2D> texture = deviceTexture(picture);
    const RgbaImage drawn
        = drawAndReadBack(textureSource(texture.Get(), kSourceWidth, kSourceHeight, PixelFormat::R8G8B8A8Unorm));
    ASSERT_EQ(drawn.width, kSourceWidth);
    ASSERT_EQ(drawn.height, kSourceHeight);
    for (int y = 0; y < kSourceHeight; ++y) {
        for (int x = 0; x < kSourceWidth; ++x) {
            const std::uint8_t* in = picture.at(kSourceWidth - 1 - x, kSourceHeight - 1 - y);
            ASSERT_EQ(0, std::memcmp(drawn.at(x, y), in, 4)) << "pixel " << x << "," << y;
        }
    }
}

TEST_F(D3D11ScalerTest, BgraDesktopTextureComesOutInRgbaOrder)
{
    preparePipeline();
    const RgbaImage picture = gradientPicture(kSourceWidth, kSourceHeight);
    std::vector<std::uint8_t> bgra(picture.pixels);
    for (std::size_t i = 0; i < bgra.size(); i += 4) {
        std::swap(bgra[i], bgra[i + 2]);
    }
    const ComPtr<ID3D11Texture2D> texture
        = deviceTexture(bgra.data(), kSourceWidth, kSourceHeight, DXGI_FORMAT_B8G8R8A8_UNORM, 4);
    setTargetSize(20, 15);
    const RgbaImage drawn
        = drawAndReadBack(textureSource(texture.Get(), kSourceWidth, kSourceHeight, PixelFormat::B8G8R8A8Unorm));
    EXPECT_LE(maxChannelDifference(drawn, modelScale(picture, 20, 15, 1)), 1);
}

TEST_F(D3D11ScalerTest, HalfFloatSourceSaturatesInTheByteTarget)
{
    preparePipeline();
    // IEEE half floats: 0, 0.25, 0.5, 1, 2, 4.
    const std::uint16_t zero = 0x0000, quarter = 0x3400, half = 0x3800, one = 0x3C00, two = 0x4000, four = 0x4400;
    const std::array<std::array<std::uint16_t, 4>, 4> texels = {{
        {two, half, zero, one},
        {four, one, quarter, two},
        {zero, zero, zero, zero},
        {one, one, one, one},
    }};
    // A 4x4 picture whose rows repeat the four texels, given as CPU pixels.
    std::vector<std::uint16_t> pixels;
    for (int y = 0; y < 4; ++y) {
        for (const auto& texel : texels) {
            pixels.insert(pixels.end(), texel.begin(), texel.end());
        }
    }
    ScalerSource source;
    source.pixels = pixels.data();
    source.bytesPerLine = 4 * 8;
    source.width = 4;
    source.height = 4;
    source.format = PixelFormat::R16G16B16A16Float;
    setTargetSize(4, 4);
    const RgbaImage drawn = drawAndReadBack(source);
    ASSERT_EQ(drawn.width, 4);
    const std::array<std::array<int, 4>, 4> expected = {{
        {255, 128, 0, 255},
        {255, 255, 64, 255},
        {0, 0, 0, 0},
        {255, 255, 255, 255},
    }};
    for (int y = 0; y < 4; ++y) {
        for (int x = 0; x < 4; ++x) {
            for (int c = 0; c < 4; ++c) {
                EXPECT_NEAR(drawn.at(x, y)[c], expected[x][c], 1) << x << "," << y << " channel " << c;
            }
        }
    }
}

TEST_F(D3D11ScalerTest, CpuPixelsWithWidePitchAreUploaded)
{
    preparePipeline();
    const RgbaImage picture = gradientPicture(kSourceWidth, kSourceHeight);
    const std::size_t pitch = kSourceWidth * 4 + 24;
    std::vector<std::uint8_t> padded(pitch * kSourceHeight, 0xEE);
    for (int y = 0; y < kSourceHeight; ++y) {
        std::memcpy(padded.data() + pitch * y, picture.at(0, y), kSourceWidth * 4);
    }
    ScalerSource source;
    source.pixels = padded.data();
    source.bytesPerLine = pitch;
    source.width = kSourceWidth;
    source.height = kSourceHeight;
    source.format = PixelFormat::R8G8B8A8Unorm;
    setTargetSize(90, 66);
    EXPECT_LE(maxChannelDifference(drawAndReadBack(source), modelScale(picture, 90, 66, 1)), 1);
}

TEST_F(D3D11ScalerTest, BadCpuSourcesAreRefused)
{
    preparePipeline();
    std::vector<std::uint8_t> pixels(16 * 4);
    ScalerSource source;
    EXPECT_EQ(m_scaler->createSourceView(source), E_POINTER);
    source.pixels = pixels.data();
    source.width = 4;
    source.height = 4;
    source.bytesPerLine = 8; // shorter than a row
    source.format = PixelFormat::R8G8B8A8Unorm;
    EXPECT_EQ(m_scaler->createSourceView(source), E_INVALIDARG);
    source.bytesPerLine = 16;
    source.format = PixelFormat::Unknown;
    EXPECT_EQ(m_scaler->createSourceView(source), E_INVALIDARG);
}

TEST_F(D3D11ScalerTest, EmptyTargetSizeFailsInTextureCreation)
{
    preparePipeline();
    EXPECT_LT(m_scaler->createTargetTexture(0, 15), 0);
    EXPECT_EQ(m_scaler->nativeTarget(), nullptr);
    EXPECT_EQ(m_scaler->createRenderTargetView(), E_POINTER);
    EXPECT_LT(m_scaler->createTargetTexture(20, 0), 0);
    EXPECT_EQ(m_scaler->createStagingTexture(), E_POINTER);
    MappedImage mapped;
    EXPECT_EQ(m_scaler->mapStaging(mapped), E_POINTER);
    EXPECT_EQ(mapped.data, nullptr);

    // A later valid size recovers.
    setTargetSize(20, 15);
    const RgbaImage picture = gradientPicture(kSourceWidth, kSourceHeight);
    const ComPtr<ID3D11Texture2D> texture = deviceTexture(picture);
    const RgbaImage drawn
        = drawAndReadBack(textureSource(texture.Get(), kSourceWidth, kSourceHeight, PixelFormat::R8G8B8A8Unorm));
    EXPECT_LE(maxChannelDifference(drawn, modelScale(picture, 20, 15, 1)), 1);
}

TEST_F(D3D11ScalerTest, FailedQuadLeavesNoBufferAndDrawsNothing)
{
    preparePipeline();
    setTargetSize(16, 9);
    const RgbaImage first = gradientPicture(kSourceWidth, kSourceHeight, 0);
    const ComPtr<ID3D11Texture2D> firstTexture = deviceTexture(first);
    const RgbaImage drawnFirst
        = drawAndReadBack(textureSource(firstTexture.Get(), kSourceWidth, kSourceHeight, PixelFormat::R8G8B8A8Unorm));
    EXPECT_LE(maxChannelDifference(drawnFirst, modelScale(first, 16, 9, 1)), 1);

    EXPECT_EQ(m_scaler->createVertexBuffer(nullptr, 6), E_POINTER);
    const auto quad = quadFor(1);
    EXPECT_EQ(m_scaler->createVertexBuffer(quad.data(), 0), E_INVALIDARG);
    // More vertices than a 32-bit byte width holds are refused before any is read.
    EXPECT_EQ(m_scaler->createVertexBuffer(quad.data(), std::size_t(0xFFFFFFFFu)), E_INVALIDARG);

    // The old quad is gone too: a draw now leaves the target as it was.
    const RgbaImage second = gradientPicture(kSourceWidth, kSourceHeight, 20);
    const ComPtr<ID3D11Texture2D> secondTexture = deviceTexture(second);
    const RgbaImage drawnSecond
        = drawAndReadBack(textureSource(secondTexture.Get(), kSourceWidth, kSourceHeight, PixelFormat::R8G8B8A8Unorm));
    EXPECT_EQ(maxChannelDifference(drawnSecond, drawnFirst), 0);
}

TEST_F(D3D11ScalerTest, EveryVertexOfALongerListIsDrawn)
{
    preparePipeline();
    // The quad twice over, the second copy turned by half a circle: the later
    // triangles cover the earlier ones, so the picture comes out turned.
    const auto upright = quadFor(1);
    const auto turned = quadFor(3);
    std::vector<ScalerVertex> vertices(upright.begin(), upright.end());
    vertices.insert(vertices.end(), turned.begin(), turned.end());
    ASSERT_EQ(m_scaler->createVertexBuffer(vertices.data(), vertices.size()), S_OK);
    setTargetSize(20, 15);
    const RgbaImage picture = gradientPicture(kSourceWidth, kSourceHeight);
    const ComPtr<ID3D11Texture2D> texture = deviceTexture(picture);
    const RgbaImage drawn
        = drawAndReadBack(textureSource(texture.Get(), kSourceWidth, kSourceHeight, PixelFormat::R8G8B8A8Unorm));
    EXPECT_LE(maxChannelDifference(drawn, modelScale(picture, 20, 15, 3)), 1);
}

TEST_F(D3D11ScalerTest, TargetIsTheDeviceTextureOfTheRequestedSize)
{
    preparePipeline();
    setTargetSize(37, 21);
    auto* target = static_cast<ID3D11Texture2D*>(m_scaler->nativeTarget());
    ASSERT_NE(target, nullptr);
    D3D11_TEXTURE2D_DESC description = {};
    target->GetDesc(&description);
    EXPECT_EQ(description.Width, 37u);
    EXPECT_EQ(description.Height, 21u);
    EXPECT_EQ(description.Format, DXGI_FORMAT_R8G8B8A8_UNORM);
    EXPECT_EQ(description.MipLevels, 1u);
    EXPECT_EQ(description.Usage, D3D11_USAGE_DEFAULT);
    EXPECT_EQ(description.BindFlags, UINT(D3D11_BIND_RENDER_TARGET | D3D11_BIND_SHADER_RESOURCE));
    EXPECT_EQ(description.CPUAccessFlags, 0u);
}

TEST_F(D3D11ScalerTest, ManyFramesEachWithItsOwnStagingTexture)
{
    preparePipeline();
    setTargetSize(16, 9);
    for (int frame = 0; frame < 20; ++frame) {
        const RgbaImage picture = gradientPicture(kSourceWidth, kSourceHeight, frame);
        const ComPtr<ID3D11Texture2D> texture = deviceTexture(picture);
        const RgbaImage drawn
            = drawAndReadBack(textureSource(texture.Get(), kSourceWidth, kSourceHeight, PixelFormat::R8G8B8A8Unorm));
        ASSERT_LE(maxChannelDifference(drawn, modelScale(picture, 16, 9, 1)), 1) << "frame " << frame;
    }
}
