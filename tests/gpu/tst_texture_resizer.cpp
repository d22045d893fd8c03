#include "D3DTextureResizer.h"
#include "Helpers.h"
#include "ResultCodes.h"
#include "cpu/SoftwareScaler.h"
#include "egl/EglDevice.h"
#include "egl/GlesScaler.h"

#include "MessageCapture.h"
#include "ScalerReference.h"
#include "fakes/FakeGpuScaler.h"

#include <QtTest/QtTest>

#include <opencv2/imgproc.hpp>

#include <cstring>
#include <limits>

using Orvanta::Ifaces::PixelFormat;
using Orvanta::Ifaces::ScalerSource;

namespace {

std::shared_ptr<Orvanta::Egl::EglDevice> eglDevice()
{
    // Kept to the very end of the process, past the leak check, so that the
    // GL driver stays loaded while the check reads its frames.
    static auto* device = [] {
        auto* made = new std::shared_ptr<Orvanta::Egl::EglDevice>;
        Orvanta::Egl::EglDevice::create(*made);
        return made;
    }();
    return *device;
}

std::shared_ptr<Orvanta::Ifaces::GpuScaler> makeScaler(const QString& backend)
{
    if (backend == QLatin1String("cpu")) {
        return std::make_shared<Orvanta::Cpu::SoftwareScaler>();
    }
    const auto device = eglDevice();
    if (!device) {
        return nullptr;
    }
    return std::make_shared<Orvanta::Egl::GlesScaler>(device, device->display(), device->context());
}

// A literal followed by the quoted text of a result code, as a QDebug chain prints it.
QString logText(const QString& literal, long code)
{
    return QStringLiteral("%1 \"%2\"").arg(literal, win32ErrorMsg(code));
}

ScalerSource sourceOf(const cv::Mat& image, PixelFormat format)
{
    ScalerSource source;
    source.pixels = image.data;
    source.bytesPerLine = image.step[0];
    source.width = image.cols;
    source.height = image.rows;
    source.format = format;
    return source;
}

cv::Mat gradient(cv::Size size)
{
    cv::Mat image(size, CV_8UC4);
    for (int y = 0; y < size.height; ++y) {
        for (int x = 0; x < size.width; ++x) {
            image.at<cv::Vec4b>(y, x) = cv::Vec4b(uchar(x * 255 / std::max(1, size.width - 1)),
                uchar(y * 255 / std::max(1, size.height - 1)), uchar((x * 7 + y * 3) % 256), 255);
        }
    }
    return image;
}

cv::Mat checkerboard(cv::Size size, int cell)
{
    cv::Mat image(size, CV_8UC4);
    for (int y = 0; y < size.height; ++y) {
        for (int x = 0; x < size.width; ++x) {
            const bool dark = ((x / cell) + (y / cell)) % 2;
            image.at<cv::Vec4b>(y, x) = dark ? cv::Vec4b(10, 20, 30, 255) : cv::Vec4b(240, 200, 160, 255);
        }
    }
    return image;
}

// A picture whose four quadrants differ, to see which way it was turned.
cv::Mat quadrants(cv::Size size)
{
    cv::Mat image(size, CV_8UC4);
    for (int y = 0; y < size.height; ++y) {
        for (int x = 0; x < size.width; ++x) {
            const bool right = x >= size.width / 2;
            const bool bottom = y >= size.height / 2;
            cv::Vec4b colour(255, 0, 0, 255);
            if (right && !bottom) {
                colour = cv::Vec4b(0, 255, 0, 255);
            } else if (!right && bottom) {
                colour = cv::Vec4b(0, 0, 255, 255);
            } else if (right && bottom) {
                colour = cv::Vec4b(255, 255, 255, 255);
            }
            image.at<cv::Vec4b>(y, x) = colour;
        }
    }
    return image;
}

std::uint16_t floatToHalf(float value)
{
    // Exact for the small set of values the tests use (0, 0.5, 1, 2, 4, 8).
    if (value == 0.0f) {
        return 0;
    }
    int exponent = 0;
    const float mantissa = std::frexp(value, &exponent); // value = mantissa * 2^exponent, mantissa in [0.5, 1)
    const int biased = exponent - 1 + 15;
    const int fraction = int((mantissa * 2.0f - 1.0f) * 1024.0f);
    return std::uint16_t((biased << 10) | fraction);
}

} // namespace

class TextureResizerTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    // The logic, against a recording scaler.
    void setContextBuildsThePipelineInOrder();
    void rotationIsIdentityAfterSetup();
    void samplerShrinksLinearlyEnlargesNearestAndClamps();
    void nullScalerSaysWhyBesideTheFixedText();
    void setContextStopsAtTheFirstFailure_data();
    void setContextStopsAtTheFirstFailure();
    void setTargetSizeBindsTargetAndViewport();
    void setTargetSizeFailures_data();
    void setTargetSizeFailures();
    void failedTargetGivesEmptyFramesUntilReplaced();
    void quadForEachRotation_data();
    void quadForEachRotation();
    void rotationLeavesTheTargetAlone();
    void failedVertexBufferKeepsTheRotation();
    void sameSizeSourceIsStillDrawn();
    void sourceViewFailure();
    void stagingFailure();
    void mapFailure();
    void nullMappingIsSilent();
    void readBackSkipsThePitchPadding();
    void everyFrameOwnsItsBuffer();
    void scalersThatDrawIntoMemoryWriteTheFrame();
    void everyOperationIsOneRun();

    // The real scalers: the CPU path and OpenGL ES on Mesa.
    void matchesTheReference_data();
    void matchesTheReference();
    void sameSizeIsAnExactCopy_data();
    void sameSizeIsAnExactCopy();
    void halfTurnDrawsThePictureUpsideDown_data();
    void halfTurnDrawsThePictureUpsideDown();
    void halfFloatSourceClipsAt255_data();
    void halfFloatSourceClipsAt255();
    void blueFirstSourcesComeOutRedFirst_data();
    void blueFirstSourcesComeOutRedFirst();
    void changedPartsAloneAreEnough_data();
    void changedPartsAloneAreEnough();
    void cpuDrawsOnlyTheChangedPartsOfASeries_data();
    void cpuDrawsOnlyTheChangedPartsOfASeries();
    void zeroTargetFailsInTheTexture_data();
    void zeroTargetFailsInTheTexture();

    // Which scaler the platform makes for a device.
    void softwareRenderersPreferTheCpu_data();
    void softwareRenderersPreferTheCpu();
    void platformScalerFollowsTheRenderer();
};

void TextureResizerTest::initTestCase()
{
    QVERIFY2(eglDevice(), "no surfaceless EGL context (Mesa's EGL and llvmpipe are required)");
}

void TextureResizerTest::setContextBuildsThePipelineInOrder()
{
    auto fake = std::make_shared<FakeGpuScaler>();
    D3DTextureResizer resizer;
    QVERIFY(resizer.setContext(fake));
    QCOMPARE(fake->calls,
        QStringList({"createVertexShader", "createPixelShader", "createInputLayout", "createSamplerState",
            "createVertexBuffer"}));
    QCOMPARE(fake->vertices.size(), std::size_t(6));
    const D3DTextureResizer::Quad upright = D3DTextureResizer::quad(D3DTextureResizer::RotationIdentity);
    const float expected[6][5]
        = {{-1, -1, 0, 0, 1}, {-1, 1, 0, 0, 0}, {1, -1, 0, 1, 1}, {1, -1, 0, 1, 1}, {-1, 1, 0, 0, 0}, {1, 1, 0, 1, 0}};
    for (int i = 0; i < 6; ++i) {
        QCOMPARE(std::memcmp(&fake->vertices[i], expected[i], sizeof(expected[i])), 0);
        QCOMPARE(std::memcmp(&upright[i], expected[i], sizeof(expected[i])), 0);
    }
}

void TextureResizerTest::rotationIsIdentityAfterSetup()
{
    D3DTextureResizer resizer;
    QCOMPARE(resizer.rotation(), 0);
    QVERIFY(resizer.setContext(std::make_shared<FakeGpuScaler>()));
    QCOMPARE(resizer.rotation(), 1);
}

void TextureResizerTest::samplerShrinksLinearlyEnlargesNearestAndClamps()
{
    auto fake = std::make_shared<FakeGpuScaler>();
    D3DTextureResizer resizer;
    QVERIFY(resizer.setContext(fake));
    QCOMPARE(fake->sampler.filter, 16);
    QCOMPARE(fake->sampler.addressU, 3);
    QCOMPARE(fake->sampler.addressV, 3);
    QCOMPARE(fake->sampler.addressW, 3);
    QCOMPARE(fake->sampler.mipLodBias, 0.0f);
    QCOMPARE(fake->sampler.maxAnisotropy, 0u);
    QCOMPARE(fake->sampler.comparisonFunc, 4);
    for (float channel : fake->sampler.borderColor) {
        QCOMPARE(channel, 0.0f);
    }
    QCOMPARE(fake->sampler.minLod, 0.0f);
    std::uint32_t bits = 0;
    std::memcpy(&bits, &fake->sampler.maxLod, sizeof bits);
    QCOMPARE(bits, 0x7F7FFFFFu);
}

void TextureResizerTest::nullScalerSaysWhyBesideTheFixedText()
{
    D3DTextureResizer resizer;
    MessageCapture log;
    QVERIFY(!resizer.setContext(nullptr));
    QCOMPARE(log.all(),
        QStringList({"debug: [D3DTextureResizer]: There is no device context to draw with: the scaler is null",
            "critical: " + logText("Failed to create D3D11VertexShader", E_POINTER)}));
}

void TextureResizerTest::setContextStopsAtTheFirstFailure_data()
{
    QTest::addColumn<QString>("step");
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("callsMade");
    QTest::newRow("vertex shader") << "createVertexShader"
                                   << "Failed to create D3D11VertexShader" << 1;
    QTest::newRow("pixel shader") << "createPixelShader"
                                  << "Failed to create D3D11PixelShader" << 2;
    QTest::newRow("input layout") << "createInputLayout"
                                  << "Failed to create D3D11InputLayout" << 3;
    QTest::newRow("sampler") << "createSamplerState"
                             << "Failed to create D3D11SamplerState" << 4;
}

void TextureResizerTest::setContextStopsAtTheFirstFailure()
{
    QFETCH(QString, step);
    QFETCH(QString, text);
    QFETCH(int, callsMade);
    auto fake = std::make_shared<FakeGpuScaler>();
    fake->results[step] = E_OUTOFMEMORY;
    D3DTextureResizer resizer;
    MessageCapture log;
    QVERIFY(!resizer.setContext(fake));
    QCOMPARE(log.texts(QtCriticalMsg), QStringList(logText(text, E_OUTOFMEMORY)));
    QCOMPARE(fake->calls.size(), callsMade);
    QCOMPARE(resizer.rotation(), 0);
}

void TextureResizerTest::setTargetSizeBindsTargetAndViewport()
{
    auto fake = std::make_shared<FakeGpuScaler>();
    D3DTextureResizer resizer;
    QVERIFY(resizer.setContext(fake));
    fake->calls.clear();
    QVERIFY(resizer.setTargetSize(cv::Size(320, 180)));
    QCOMPARE(fake->calls, QStringList({"createTargetTexture", "createRenderTargetView", "bindRenderTarget"}));
    QCOMPARE(fake->targetWidth, 320);
    QCOMPARE(fake->targetHeight, 180);
    QCOMPARE(fake->boundWidth, 320);
    QCOMPARE(fake->boundHeight, 180);
    QCOMPARE(resizer.targetSize(), cv::Size(320, 180));
}

void TextureResizerTest::setTargetSizeFailures_data()
{
    QTest::addColumn<QString>("step");
    QTest::addColumn<QString>("text");
    QTest::newRow("texture") << "createTargetTexture" << logText("Failed to create D3D11Texture", E_INVALIDARG);
    QTest::newRow("view") << "createRenderTargetView"
                          << logText("Failed to create D3D11RenderTargetView", E_INVALIDARG);
}

void TextureResizerTest::setTargetSizeFailures()
{
    QFETCH(QString, step);
    QFETCH(QString, text);
    auto fake = std::make_shared<FakeGpuScaler>();
    D3DTextureResizer resizer;
    QVERIFY(resizer.setContext(fake));
    QVERIFY(resizer.setTargetSize(cv::Size(64, 32)));
    fake->results[step] = E_INVALIDARG;
    fake->calls.clear();
    MessageCapture log;
    QVERIFY(!resizer.setTargetSize(cv::Size(128, 64)));
    QCOMPARE(log.texts(QtCriticalMsg), QStringList(text));
    QVERIFY(!fake->calls.contains(QStringLiteral("bindRenderTarget")));
    QCOMPARE(resizer.targetSize(), cv::Size(64, 32)); // the old size stays
}

void TextureResizerTest::failedTargetGivesEmptyFramesUntilReplaced()
{
    auto fake = std::make_shared<FakeGpuScaler>();
    D3DTextureResizer resizer;
    QVERIFY(resizer.setContext(fake));
    fake->results[QStringLiteral("createRenderTargetView")] = E_FAIL;
    {
        MessageCapture log;
        QVERIFY(!resizer.setTargetSize(cv::Size(16, 8)));
        QCOMPARE(log.texts(QtCriticalMsg), QStringList(logText("Failed to create D3D11RenderTargetView", E_FAIL)));
    }
    const cv::Mat pixels = gradient(cv::Size(32, 16));
    {
        MessageCapture log;
        QVERIFY(resizer.resizeToCVMat(sourceOf(pixels, PixelFormat::R8G8B8A8Unorm)).empty());
        QCOMPARE(log.texts(QtCriticalMsg), QStringList("[D3DTextureResizer]: Failed to resize D3D11Texture"));
    }
    fake->results.clear();
    QVERIFY(resizer.setTargetSize(cv::Size(16, 8)));
    const cv::Mat frame = resizer.resizeToCVMat(sourceOf(pixels, PixelFormat::R8G8B8A8Unorm));
    QCOMPARE(frame.size(), cv::Size(16, 8));
}

void TextureResizerTest::quadForEachRotation_data()
{
    QTest::addColumn<int>("rotation");
    QTest::addColumn<float>("angle");
    QTest::addColumn<bool>("turned");
    QTest::newRow("unspecified") << 0 << 0.0f << false;
    QTest::newRow("identity") << 1 << 0.0f << false;
    QTest::newRow("90") << 2 << 1.5707964f << true;
    QTest::newRow("180") << 3 << -3.1415927f << true;
    QTest::newRow("270") << 4 << 4.712389f << true;
    QTest::newRow("unknown") << 9 << 0.0f << false;
}

void TextureResizerTest::quadForEachRotation()
{
    QFETCH(int, rotation);
    QFETCH(float, angle);
    QFETCH(bool, turned);
    auto fake = std::make_shared<FakeGpuScaler>();
    D3DTextureResizer resizer;
    QVERIFY(resizer.setContext(fake));
    resizer.setRotation(rotation);
    QCOMPARE(resizer.rotation(), rotation);
    const D3DTextureResizer::Quad upright = D3DTextureResizer::quad(1);
    QCOMPARE(fake->vertices.size(), std::size_t(6));
    for (int i = 0; i < 6; ++i) {
        const auto& vertex = fake->vertices[i];
        float x = upright[i].x, y = upright[i].y;
        if (turned) {
            const float c = std::cos(angle), s = std::sin(angle);
            const float rx = x * c - y * s;
            const float ry = x * s + y * c;
            x = rx;
            y = ry;
        }
        QCOMPARE(vertex.x, x);
        QCOMPARE(vertex.y, y);
        QCOMPARE(vertex.z, 0.0f);
        QCOMPARE(vertex.u, upright[i].u); // coordinates travel with their corner
        QCOMPARE(vertex.v, upright[i].v);
    }
    if (rotation == 3) {
        // Half a turn sends each corner to the opposite one.
        QVERIFY(std::abs(fake->vertices[0].x - 1.0f) < 1e-6f && std::abs(fake->vertices[0].y - 1.0f) < 1e-6f);
        QVERIFY(std::abs(fake->vertices[5].x + 1.0f) < 1e-6f && std::abs(fake->vertices[5].y + 1.0f) < 1e-6f);
    }
}

void TextureResizerTest::rotationLeavesTheTargetAlone()
{
    auto fake = std::make_shared<FakeGpuScaler>();
    D3DTextureResizer resizer;
    QVERIFY(resizer.setContext(fake));
    QVERIFY(resizer.setTargetSize(cv::Size(320, 180)));
    fake->calls.clear();
    resizer.setRotation(D3DTextureResizer::Rotation90);
    QCOMPARE(fake->calls, QStringList("createVertexBuffer"));
    QCOMPARE(resizer.targetSize(), cv::Size(320, 180));
    QCOMPARE(fake->targetWidth, 320);
    QCOMPARE(fake->targetHeight, 180);
}

void TextureResizerTest::failedVertexBufferKeepsTheRotation()
{
    auto fake = std::make_shared<FakeGpuScaler>();
    D3DTextureResizer resizer;
    QVERIFY(resizer.setContext(fake));
    QVERIFY(resizer.setTargetSize(cv::Size(8, 8)));
    fake->results[QStringLiteral("createVertexBuffer")] = E_OUTOFMEMORY;
    MessageCapture log;
    resizer.setRotation(D3DTextureResizer::Rotation180);
    QCOMPARE(resizer.rotation(), 1);
    QCOMPARE(log.texts(QtCriticalMsg), QStringList(logText("Failed to create D3D11Buffer", E_OUTOFMEMORY)));
    // Without a quad nothing is drawn and no frame comes.
    const cv::Mat pixels = gradient(cv::Size(8, 8));
    QVERIFY(resizer.resizeToCVMat(sourceOf(pixels, PixelFormat::R8G8B8A8Unorm)).empty());
}

void TextureResizerTest::sameSizeSourceIsStillDrawn()
{
    auto fake = std::make_shared<FakeGpuScaler>();
    D3DTextureResizer resizer;
    QVERIFY(resizer.setContext(fake));
    QVERIFY(resizer.setTargetSize(cv::Size(16, 16)));
    fake->calls.clear();
    const cv::Mat pixels = gradient(cv::Size(16, 16));
    const cv::Mat frame = resizer.resizeToCVMat(sourceOf(pixels, PixelFormat::B8G8R8A8Unorm));
    QCOMPARE(frame.size(), cv::Size(16, 16));
    QCOMPARE(fake->calls,
        QStringList({"createSourceView", "draw", "releaseSourceView", "createStagingTexture", "copyTargetToStaging",
            "mapStaging", "unmapStaging", "releaseStaging"}));
    QCOMPARE(fake->lastSource.pixels, static_cast<const void*>(pixels.data));
    QCOMPARE(fake->lastSource.format, PixelFormat::B8G8R8A8Unorm);
    QCOMPARE(fake->stagingAlive, 0); // a staging copy per frame, gone with the call
}

void TextureResizerTest::sourceViewFailure()
{
    auto fake = std::make_shared<FakeGpuScaler>();
    D3DTextureResizer resizer;
    QVERIFY(resizer.setContext(fake));
    QVERIFY(resizer.setTargetSize(cv::Size(16, 16)));
    fake->results[QStringLiteral("createSourceView")] = E_INVALIDARG;
    MessageCapture log;
    const cv::Mat pixels = gradient(cv::Size(16, 16));
    QVERIFY(!resizer.resize(sourceOf(pixels, PixelFormat::R8G8B8A8Unorm)));
    QVERIFY(resizer.resizeToCVMat(sourceOf(pixels, PixelFormat::R8G8B8A8Unorm)).empty());
    QCOMPARE(log.texts(QtCriticalMsg),
        QStringList({logText("Failed to create D3D11DhaderResourceView", E_INVALIDARG),
            logText("Failed to create D3D11DhaderResourceView", E_INVALIDARG),
            "[D3DTextureResizer]: Failed to resize D3D11Texture"}));
    QVERIFY(!fake->calls.contains(QStringLiteral("draw")));
}

void TextureResizerTest::stagingFailure()
{
    auto fake = std::make_shared<FakeGpuScaler>();
    D3DTextureResizer resizer;
    QVERIFY(resizer.setContext(fake));
    QVERIFY(resizer.setTargetSize(cv::Size(16, 16)));
    fake->results[QStringLiteral("createStagingTexture")] = E_OUTOFMEMORY;
    MessageCapture log;
    const cv::Mat pixels = gradient(cv::Size(16, 16));
    QVERIFY(resizer.resizeToCVMat(sourceOf(pixels, PixelFormat::R8G8B8A8Unorm)).empty());
    QCOMPARE(log.texts(QtCriticalMsg),
        QStringList(logText("[D3DTextureResizer]: Failed to create temp D3D11Texture ", E_OUTOFMEMORY)));
}

void TextureResizerTest::mapFailure()
{
    auto fake = std::make_shared<FakeGpuScaler>();
    D3DTextureResizer resizer;
    QVERIFY(resizer.setContext(fake));
    QVERIFY(resizer.setTargetSize(cv::Size(16, 16)));
    fake->results[QStringLiteral("mapStaging")] = DXGI_ERROR_DEVICE_REMOVED;
    MessageCapture log;
    const cv::Mat pixels = gradient(cv::Size(16, 16));
    QVERIFY(resizer.resizeToCVMat(sourceOf(pixels, PixelFormat::R8G8B8A8Unorm)).empty());
    QCOMPARE(log.texts(QtCriticalMsg),
        QStringList(logText("[D3DTextureResizer]: Failed to map the temp texture: ", DXGI_ERROR_DEVICE_REMOVED)));
    QCOMPARE(fake->stagingAlive, 0);
}

void TextureResizerTest::nullMappingIsSilent()
{
    auto fake = std::make_shared<FakeGpuScaler>();
    D3DTextureResizer resizer;
    QVERIFY(resizer.setContext(fake));
    QVERIFY(resizer.setTargetSize(cv::Size(16, 16)));
    fake->mapNull = true;
    MessageCapture log;
    const cv::Mat pixels = gradient(cv::Size(16, 16));
    QVERIFY(resizer.resizeToCVMat(sourceOf(pixels, PixelFormat::R8G8B8A8Unorm)).empty());
    QVERIFY(log.messages().isEmpty());
    QVERIFY(fake->calls.contains(QStringLiteral("unmapStaging")));
}

void TextureResizerTest::readBackSkipsThePitchPadding()
{
    auto fake = std::make_shared<FakeGpuScaler>();
    fake->extraPitch = 52;
    D3DTextureResizer resizer;
    QVERIFY(resizer.setContext(fake));
    QVERIFY(resizer.setTargetSize(cv::Size(7, 5)));
    const cv::Mat pixels = gradient(cv::Size(16, 16));
    const cv::Mat frame = resizer.resizeToCVMat(sourceOf(pixels, PixelFormat::R8G8B8A8Unorm));
    QCOMPARE(frame.type(), CV_8UC4);
    QCOMPARE(frame.rows, 5);
    QCOMPARE(frame.cols, 7);
    for (int y = 0; y < 5; ++y) {
        for (int x = 0; x < 7; ++x) {
            QCOMPARE(frame.at<cv::Vec4b>(y, x), cv::Vec4b(uchar(x), uchar(y), uchar(y), 0xEE));
        }
    }
}

void TextureResizerTest::everyFrameOwnsItsBuffer()
{
    auto scaler = makeScaler(QStringLiteral("cpu"));
    D3DTextureResizer resizer;
    QVERIFY(resizer.setContext(scaler));
    QVERIFY(resizer.setTargetSize(cv::Size(8, 8)));
    const cv::Mat first = gradient(cv::Size(8, 8));
    const cv::Mat second = checkerboard(cv::Size(8, 8), 2);
    const cv::Mat a = resizer.resizeToCVMat(sourceOf(first, PixelFormat::R8G8B8A8Unorm));
    const cv::Mat b = resizer.resizeToCVMat(sourceOf(second, PixelFormat::R8G8B8A8Unorm));
    QVERIFY(a.data != b.data);
    QCOMPARE(maxChannelDifference(a, first), 0);
    QCOMPARE(maxChannelDifference(b, second), 0);
}

void TextureResizerTest::scalersThatDrawIntoMemoryWriteTheFrame()
{
    // A CPU scaler draws the frame itself: no target or staging copy is read back.
    class MemoryScaler : public FakeGpuScaler
    {
    public:
        bool drawsIntoMemory() const override
        {
            return true;
        }
        void drawInto(std::uint8_t* pixels, std::size_t rowPitch) override
        {
            calls << QStringLiteral("drawInto");
            for (int y = 0; y < 5; ++y) {
                for (int x = 0; x < 7; ++x) {
                    std::uint8_t* pixel = pixels + std::size_t(y) * rowPitch + std::size_t(x) * 4;
                    pixel[0] = std::uint8_t(x);
                    pixel[1] = std::uint8_t(y);
                    pixel[2] = 1;
                    pixel[3] = 2;
                }
            }
        }
    };
    auto scaler = std::make_shared<MemoryScaler>();
    D3DTextureResizer resizer;
    QVERIFY(resizer.setContext(scaler));
    QVERIFY(resizer.setTargetSize(cv::Size(7, 5)));
    scaler->calls.clear();
    const cv::Mat pixels = gradient(cv::Size(16, 16));
    const cv::Mat frame = resizer.resizeToCVMat(sourceOf(pixels, PixelFormat::R8G8B8A8Unorm));
    QCOMPARE(scaler->calls,
        QStringList(
            {QStringLiteral("createSourceView"), QStringLiteral("drawInto"), QStringLiteral("releaseSourceView")}));
    QCOMPARE(frame.size(), cv::Size(7, 5));
    for (int y = 0; y < 5; ++y) {
        for (int x = 0; x < 7; ++x) {
            QCOMPARE(frame.at<cv::Vec4b>(y, x), cv::Vec4b(uchar(x), uchar(y), 1, 2));
        }
    }
}

void TextureResizerTest::everyOperationIsOneRun()
{
    // Records the depth of runs at each call: every call must come inside one,
    // and each public operation opens exactly one outermost run.
    class RunCounter : public FakeGpuScaler
    {
    public:
        void beginUse() override
        {
            if (depth++ == 0) {
                ++runs;
            }
        }
        void endUse() override
        {
            --depth;
        }
        long createVertexShader() override
        {
            outside += depth == 0;
            return FakeGpuScaler::createVertexShader();
        }
        long createTargetTexture(int width, int height) override
        {
            outside += depth == 0;
            return FakeGpuScaler::createTargetTexture(width, height);
        }
        long createVertexBuffer(const Orvanta::Ifaces::ScalerVertex* data, std::size_t count) override
        {
            outside += depth == 0;
            return FakeGpuScaler::createVertexBuffer(data, count);
        }
        void draw() override
        {
            outside += depth == 0;
            FakeGpuScaler::draw();
        }
        long mapStaging(Orvanta::Ifaces::MappedImage& image) override
        {
            outside += depth == 0;
            return FakeGpuScaler::mapStaging(image);
        }
        int depth = 0;
        int runs = 0;
        int outside = 0;
    };
    auto counter = std::make_shared<RunCounter>();
    D3DTextureResizer resizer;
    QVERIFY(resizer.setContext(counter));
    QCOMPARE(counter->runs, 1);
    QVERIFY(resizer.setTargetSize(cv::Size(8, 8)));
    QCOMPARE(counter->runs, 2);
    resizer.setRotation(D3DTextureResizer::Rotation90);
    QCOMPARE(counter->runs, 3);
    const cv::Mat pixels = gradient(cv::Size(8, 8));
    QVERIFY(!resizer.resizeToCVMat(sourceOf(pixels, PixelFormat::R8G8B8A8Unorm)).empty());
    QCOMPARE(counter->runs, 4);
    QCOMPARE(counter->depth, 0);
    QCOMPARE(counter->outside, 0);
}

void TextureResizerTest::matchesTheReference_data()
{
    QTest::addColumn<QString>("backend");
    QTest::addColumn<QString>("pattern");
    QTest::addColumn<QSize>("sourceSize");
    QTest::addColumn<QSize>("targetSize");
    QTest::addColumn<int>("rotation");
    const QList<QPair<QSize, QSize>> sizes = {
        {QSize(1920, 1080), QSize(320, 180)}, // the usual shrink
        {QSize(97, 61), QSize(40, 23)}, // odd ratios
        {QSize(40, 24), QSize(64, 96)}, // enlarging
        {QSize(64, 32), QSize(16, 64)}, // shrinking one way, enlarging the other
        {QSize(33, 33), QSize(33, 33)}, // one to one
    };
    // "cpu16" feeds 16-bit pixels, which the CPU path draws triangle by
    // triangle instead of by its shortcut for 8-bit pixels at quarter turns.
    for (const QString backend : {QStringLiteral("cpu"), QStringLiteral("cpu16"), QStringLiteral("gles")}) {
        for (const QString pattern : {QStringLiteral("gradient"), QStringLiteral("checkerboard")}) {
            for (const auto& size : sizes) {
                for (int rotation = 1; rotation <= 4; ++rotation) {
                    const QByteArray name = QStringLiteral("%1 %2 %3x%4 to %5x%6 rotation %7")
                                                .arg(backend, pattern)
                                                .arg(size.first.width())
                                                .arg(size.first.height())
                                                .arg(size.second.width())
                                                .arg(size.second.height())
                                                .arg(rotation)
                                                .toLatin1();
                    QTest::newRow(name.constData()) << backend << pattern << size.first << size.second << rotation;
                }
            }
        }
    }
}

void TextureResizerTest::matchesTheReference()
{
    QFETCH(QString, backend);
    QFETCH(QString, pattern);
    QFETCH(QSize, sourceSize);
    QFETCH(QSize, targetSize);
    QFETCH(int, rotation);
    const cv::Size source(sourceSize.width(), sourceSize.height());
    const cv::Size target(targetSize.width(), targetSize.height());
    const cv::Mat pixels = pattern == QLatin1String("gradient") ? gradient(source) : checkerboard(source, 5);

    const bool wide = backend == QLatin1String("cpu16");
    auto scaler = makeScaler(wide ? QStringLiteral("cpu") : backend);
    QVERIFY(scaler);
    D3DTextureResizer resizer;
    QVERIFY(resizer.setContext(scaler));
    QVERIFY(resizer.setTargetSize(target));
    resizer.setRotation(rotation);
    cv::Mat widePixels;
    pixels.convertTo(widePixels, CV_16UC4, 257.0); // 255 becomes 65535: the same values
    const cv::Mat frame = wide ? resizer.resizeToCVMat(sourceOf(widePixels, PixelFormat::R16G16B16A16Unorm))
                               : resizer.resizeToCVMat(sourceOf(pixels, PixelFormat::R8G8B8A8Unorm));
    QCOMPARE(frame.type(), CV_8UC4);
    QCOMPARE(frame.size(), target);
    const cv::Mat expected = referenceScale(pixels, target, rotation);
    const int difference = maxChannelDifference(frame, expected);
    QVERIFY2(difference <= 1, qPrintable(QStringLiteral("largest difference %1").arg(difference)));
}

void TextureResizerTest::sameSizeIsAnExactCopy_data()
{
    QTest::addColumn<QString>("backend");
    QTest::newRow("cpu") << "cpu";
    QTest::newRow("gles") << "gles";
}

void TextureResizerTest::sameSizeIsAnExactCopy()
{
    QFETCH(QString, backend);
    D3DTextureResizer resizer;
    QVERIFY(resizer.setContext(makeScaler(backend)));
    QVERIFY(resizer.setTargetSize(cv::Size(50, 30)));
    const cv::Mat pixels = checkerboard(cv::Size(50, 30), 1);
    const cv::Mat frame = resizer.resizeToCVMat(sourceOf(pixels, PixelFormat::R8G8B8A8Unorm));
    QCOMPARE(maxChannelDifference(frame, pixels), 0);
}

void TextureResizerTest::halfTurnDrawsThePictureUpsideDown_data()
{
    sameSizeIsAnExactCopy_data();
}

void TextureResizerTest::halfTurnDrawsThePictureUpsideDown()
{
    QFETCH(QString, backend);
    D3DTextureResizer resizer;
    QVERIFY(resizer.setContext(makeScaler(backend)));
    QVERIFY(resizer.setTargetSize(cv::Size(80, 40)));
    resizer.setRotation(D3DTextureResizer::Rotation180);
    QCOMPARE(resizer.targetSize(), cv::Size(80, 40));
    const cv::Mat pixels = quadrants(cv::Size(160, 80));
    const cv::Mat frame = resizer.resizeToCVMat(sourceOf(pixels, PixelFormat::R8G8B8A8Unorm));
    QCOMPARE(frame.size(), cv::Size(80, 40));
    // Top left now shows the source's bottom right, and so on.
    QCOMPARE(frame.at<cv::Vec4b>(5, 5), pixels.at<cv::Vec4b>(75, 155));
    QCOMPARE(frame.at<cv::Vec4b>(5, 75), pixels.at<cv::Vec4b>(75, 5));
    QCOMPARE(frame.at<cv::Vec4b>(35, 5), pixels.at<cv::Vec4b>(5, 155));
    QCOMPARE(frame.at<cv::Vec4b>(35, 75), pixels.at<cv::Vec4b>(5, 5));
    cv::Mat flipped;
    cv::flip(referenceScale(pixels, cv::Size(80, 40), 1), flipped, -1);
    QVERIFY(maxChannelDifference(frame, flipped) <= 1);
}

void TextureResizerTest::halfFloatSourceClipsAt255_data()
{
    sameSizeIsAnExactCopy_data();
}

void TextureResizerTest::halfFloatSourceClipsAt255()
{
    QFETCH(QString, backend);
    // Columns: HDR white at 4, 2, 8 in each channel; plain 0.5 grey; black.
    const float columns[5][4] = {{4, 4, 4, 1}, {2, 0.5f, 0, 1}, {8, 1, 0.5f, 2}, {0.5f, 0.5f, 0.5f, 1}, {0, 0, 0, 1}};
    cv::Mat pixels(4, 5, CV_16UC4);
    for (int y = 0; y < 4; ++y) {
        for (int x = 0; x < 5; ++x) {
            for (int c = 0; c < 4; ++c) {
                pixels.at<cv::Vec<std::uint16_t, 4>>(y, x)[c] = floatToHalf(columns[x][c]);
            }
        }
    }
    D3DTextureResizer resizer;
    QVERIFY(resizer.setContext(makeScaler(backend)));
    QVERIFY(resizer.setTargetSize(cv::Size(5, 4)));
    const cv::Mat frame = resizer.resizeToCVMat(sourceOf(pixels, PixelFormat::R16G16B16A16Float));
    QCOMPARE(frame.type(), CV_8UC4);
    QCOMPARE(frame.size(), cv::Size(5, 4));
    for (int y = 0; y < 4; ++y) {
        QCOMPARE(frame.at<cv::Vec4b>(y, 0), cv::Vec4b(255, 255, 255, 255));
        QCOMPARE(frame.at<cv::Vec4b>(y, 1), cv::Vec4b(255, 128, 0, 255));
        QCOMPARE(frame.at<cv::Vec4b>(y, 2), cv::Vec4b(255, 255, 128, 255));
        QCOMPARE(frame.at<cv::Vec4b>(y, 3), cv::Vec4b(128, 128, 128, 255));
        QCOMPARE(frame.at<cv::Vec4b>(y, 4), cv::Vec4b(0, 0, 0, 255));
    }
}

void TextureResizerTest::blueFirstSourcesComeOutRedFirst_data()
{
    sameSizeIsAnExactCopy_data();
}

void TextureResizerTest::blueFirstSourcesComeOutRedFirst()
{
    QFETCH(QString, backend);
    // What an X server hands out: B, G, R and a padding byte of 0.
    cv::Mat pixels(6, 6, CV_8UC4, cv::Scalar(30, 20, 10, 0));
    D3DTextureResizer resizer;
    QVERIFY(resizer.setContext(makeScaler(backend)));
    QVERIFY(resizer.setTargetSize(cv::Size(3, 3)));
    cv::Mat frame = resizer.resizeToCVMat(sourceOf(pixels, PixelFormat::B8G8R8X8Unorm));
    QCOMPARE(frame.at<cv::Vec4b>(1, 1), cv::Vec4b(10, 20, 30, 255));
    frame = resizer.resizeToCVMat(sourceOf(pixels, PixelFormat::B8G8R8A8Unorm));
    QCOMPARE(frame.at<cv::Vec4b>(1, 1), cv::Vec4b(10, 20, 30, 0));
}

void TextureResizerTest::changedPartsAloneAreEnough_data()
{
    sameSizeIsAnExactCopy_data();
}

void TextureResizerTest::changedPartsAloneAreEnough()
{
    QFETCH(QString, backend);
    D3DTextureResizer resizer;
    QVERIFY(resizer.setContext(makeScaler(backend)));
    QVERIFY(resizer.setTargetSize(cv::Size(64, 48)));
    cv::Mat pixels = gradient(cv::Size(256, 192));
    ScalerSource source = sourceOf(pixels, PixelFormat::R8G8B8A8Unorm);
    QVERIFY(!resizer.resizeToCVMat(source).empty());

    // Two parts change in place; the source names them.
    pixels(cv::Rect(10, 20, 50, 40)).setTo(cv::Scalar(255, 0, 0, 255));
    pixels(cv::Rect(200, 150, 56, 42)).setTo(cv::Scalar(0, 0, 255, 255));
    const Orvanta::Ifaces::ScalerRect changed[] = {{10, 20, 50, 40}, {200, 150, 56, 42}};
    source.changedRects = changed;
    source.changedRectCount = 2;
    const cv::Mat frame = resizer.resizeToCVMat(source);
    QVERIFY(maxChannelDifference(frame, referenceScale(pixels, cv::Size(64, 48), 1)) <= 1);

    // Without the hint everything is taken anew.
    pixels.setTo(cv::Scalar(7, 8, 9, 255));
    source.changedRects = nullptr;
    source.changedRectCount = 0;
    QCOMPARE(resizer.resizeToCVMat(source).at<cv::Vec4b>(24, 32), cv::Vec4b(7, 8, 9, 255));
}

void TextureResizerTest::cpuDrawsOnlyTheChangedPartsOfASeries_data()
{
    QTest::addColumn<int>("rotation");
    for (int rotation = 1; rotation <= 4; ++rotation) {
        QTest::newRow(qPrintable(QStringLiteral("rotation %1").arg(rotation))) << rotation;
    }
}

void TextureResizerTest::cpuDrawsOnlyTheChangedPartsOfASeries()
{
    QFETCH(int, rotation);
    D3DTextureResizer resizer;
    QVERIFY(resizer.setContext(makeScaler(QStringLiteral("cpu"))));
    QVERIFY(resizer.setTargetSize(cv::Size(64, 48)));
    resizer.setRotation(rotation);
    cv::Mat pixels = gradient(cv::Size(256, 192));
    ScalerSource source = sourceOf(pixels, PixelFormat::B8G8R8X8Unorm);
    int series = 0; // a stream's pictures, as a screen cast delivers them
    source.series = &series;
    QVERIFY(!resizer.resizeToCVMat(source).empty());

    // One part changes and is named; another changes unnamed, which only a
    // scaler that draws the whole picture again would show.
    const cv::Rect named(10, 20, 50, 40);
    const cv::Rect unnamed(180, 120, 60, 60);
    pixels(named).setTo(cv::Scalar(255, 0, 0, 255));
    cv::Mat expectedSource = pixels.clone();
    pixels(unnamed).setTo(cv::Scalar(0, 0, 255, 255));
    const Orvanta::Ifaces::ScalerRect changed[] = {{named.x, named.y, named.width, named.height}};
    source.changedRects = changed;
    source.changedRectCount = 1;
    const cv::Mat frame = resizer.resizeToCVMat(source);
    QCOMPARE(frame.size(), cv::Size(64, 48));
    cv::Mat expected = referenceScale(expectedSource, cv::Size(64, 48), rotation);
    cv::cvtColor(expected, expected, cv::COLOR_BGRA2RGBA);
    QVERIFY2(maxChannelDifference(frame, expected) <= 1,
        qPrintable(QStringLiteral("largest difference %1").arg(maxChannelDifference(frame, expected))));

    // Another series is drawn whole.
    int otherSeries = 0;
    source.series = &otherSeries;
    expected = referenceScale(pixels, cv::Size(64, 48), rotation);
    cv::cvtColor(expected, expected, cv::COLOR_BGRA2RGBA);
    QVERIFY(maxChannelDifference(resizer.resizeToCVMat(source), expected) <= 1);
}

void TextureResizerTest::zeroTargetFailsInTheTexture_data()
{
    QTest::addColumn<QString>("backend");
    QTest::addColumn<QSize>("size");
    for (const QString backend : {QStringLiteral("cpu"), QStringLiteral("gles")}) {
        QTest::newRow(qPrintable(backend + " width 0")) << backend << QSize(0, 10);
        QTest::newRow(qPrintable(backend + " height 0")) << backend << QSize(10, 0);
    }
}

void TextureResizerTest::zeroTargetFailsInTheTexture()
{
    QFETCH(QString, backend);
    QFETCH(QSize, size);
    D3DTextureResizer resizer;
    QVERIFY(resizer.setContext(makeScaler(backend)));
    MessageCapture log;
    QVERIFY(!resizer.setTargetSize(cv::Size(size.width(), size.height())));
    QCOMPARE(log.texts(QtCriticalMsg), QStringList(logText("Failed to create D3D11Texture", E_INVALIDARG)));
}

void TextureResizerTest::softwareRenderersPreferTheCpu_data()
{
    QTest::addColumn<QString>("renderer");
    QTest::addColumn<QString>("override");
    QTest::addColumn<bool>("cpu");
    const QString llvmpipe = QStringLiteral("llvmpipe (LLVM 15.0.6, 256 bits)");
    const QString radeon = QStringLiteral("AMD Radeon RX 6600 (navi23, LLVM 15.0.6, DRM 3.49, 6.1.0-13-amd64)");
    QTest::newRow("llvmpipe") << llvmpipe << QString() << true;
    QTest::newRow("softpipe") << QStringLiteral("softpipe") << QString() << true;
    QTest::newRow("radeon") << radeon << QString() << false;
    QTest::newRow("intel") << QStringLiteral("Mesa Intel(R) UHD Graphics 620 (KBL GT2)") << QString() << false;
    QTest::newRow("unknown") << QString() << QString() << false;
    QTest::newRow("llvmpipe told gpu") << llvmpipe << QStringLiteral("gpu") << false;
    QTest::newRow("radeon told cpu") << radeon << QStringLiteral("cpu") << true;
    QTest::newRow("other words are no override") << llvmpipe << QStringLiteral("GPU!") << true;
}

void TextureResizerTest::softwareRenderersPreferTheCpu()
{
    QFETCH(QString, renderer);
    QFETCH(QString, override);
    QFETCH(bool, cpu);
    const QByteArray word = override.toLatin1();
    QCOMPARE(Orvanta::Egl::EglDevice::prefersCpuScaling(
                 renderer.toStdString(), override.isNull() ? nullptr : word.constData()),
        cpu);
}

void TextureResizerTest::platformScalerFollowsTheRenderer()
{
    // The suite runs on Mesa's llvmpipe, where the CPU scaler is the faster.
    const auto device = eglDevice();
    QVERIFY2(device->renderer().rfind("llvmpipe", 0) == 0, device->renderer().c_str());
    const QByteArray saved = qgetenv("ORVANTA_SCALER");
    qunsetenv("ORVANTA_SCALER");
    const auto chosen = Orvanta::Ifaces::createPlatformGpuScaler(device);
    qputenv("ORVANTA_SCALER", "gpu");
    const auto forced = Orvanta::Ifaces::createPlatformGpuScaler(device);
    if (saved.isNull()) {
        qunsetenv("ORVANTA_SCALER");
    } else {
        qputenv("ORVANTA_SCALER", saved);
    }
    QVERIFY(chosen->drawsOnCpu());
    QVERIFY(std::dynamic_pointer_cast<Orvanta::Cpu::SoftwareScaler>(chosen));
    QVERIFY(!forced->drawsOnCpu());
    QVERIFY(std::dynamic_pointer_cast<Orvanta::Egl::GlesScaler>(forced));
    QVERIFY(Orvanta::Ifaces::createPlatformGpuScaler(nullptr)->drawsOnCpu());
}

QTEST_GUILESS_MAIN(TextureResizerTest)
#include "tst_texture_resizer.moc"
