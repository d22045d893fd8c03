#include "D3DTextureResizer.h"
#include "Helpers.h"
#include "ResultCodes.h"
#include "WinRTCapturer.h"
#include "cpu/SoftwareScaler.h"

#include "MessageCapture.h"
#include "fakes/FakeGraphicsCapture.h"

#include <QtTest/QtTest>

#include <thread>

namespace {

const QString ProcessingError
    = QStringLiteral("[WinRTCapturer]: An exception occurred while processing the winrt capture");
const QString ProcessingUnexpected
    = QStringLiteral("[WinRTCapturer]: An unexpected exception occurred while processing the winrt capture ");
const QString InitError = QStringLiteral("[WinRTCapturer]: An exception occurred while initializing the winrt capture");
const QString InitUnexpected
    = QStringLiteral("[WinRTCapturer]: An unexpected exception occurred while initializing the winrt capture ");

QString quoted(const QString& text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

DeskCaptureContext contextFor(DeskMonitorHandle monitor)
{
    DeskCaptureContext context;
    context.monitor = monitor;
    context.deviceName = QStringLiteral("\\\\.\\DISPLAY1");
    return context;
}

bool samePixel(const cv::Mat& m, int x, int y, int r, int g, int b, int tolerance = 1)
{
    const cv::Vec4b p = m.at<cv::Vec4b>(y, x);
    return std::abs(p[0] - r) <= tolerance && std::abs(p[1] - g) <= tolerance && std::abs(p[2] - b) <= tolerance;
}

} // namespace

class WgcCapturerTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void withoutContractTheContextIsRefused();
    void setupRunsInOrderAndStartsCapture();
    void versionIsLoggedInFourFields();
    void capabilityRequestCompletesLater();
    void nullMonitorIsReplacedByThePrimary();
    void itemFailureIsLoggedWithTheCodeText();
    void deviceAndOutputFailuresAreLogged_data();
    void deviceAndOutputFailuresAreLogged();
    void initExceptionsAreCaught();
    void borderlessAndCursorWherePossible();
    void missingBorderPropertyIsWarned();
    void missingOptionsAreNoFailure();
    void borderHandlerOutlivesTheCapturer();

    void sdrOutputGivesAnEightBitPool();
    void hdrOutputGivesAHalfFloatPoolAndEightBitFrames();
    void firstFrameChoosesTheItemSize();
    void outputSizeChangesAtTheNextFrameWithoutAPool();
    void rotationDuringCaptureTurnsTheQuadAndRecreatesThePool();
    void emptyPoolGivesEmptyFramesSilently();
    void contextIsProtectedAndEnteredOncePerFrame();
    void failureEndsTheSessionForGood();
    void unexpectedFailureEndsTheSessionForGood();
    void failureInsideTheSectionLeavesIt();
    void rateIsLoggedAsMeanFrameInterval();
    void pollingBeforeSetupGivesNothing();
};

void WgcCapturerTest::initTestCase()
{
    QStandardPaths::setTestModeEnabled(true);
}

void WgcCapturerTest::withoutContractTheContextIsRefused()
{
    auto fake = std::make_shared<FakeGraphicsCapture>();
    fake->contractPresent = false;
    MessageCapture log;
    WinRTCapturer capturer(fake);

    QCOMPARE(capturer.setCaptureContext(contextFor(0x10)), long(0x80004005L - 0x100000000L));
    QCOMPARE(capturer.setCaptureContext(contextFor(0x10)), E_FAIL);
    QCOMPARE(log.count(QtCriticalMsg, QStringLiteral("[WinRTCapturer]: Current system cannot support")), 2);
    QCOMPARE(fake->callCount("isApiContractPresent:Windows.Foundation.UniversalApiContract:8"), 2);
    QCOMPARE(fake->callCount("createItemForMonitor"), 0);
    QVERIFY(capturer.nextFrame().empty());
}

void WgcCapturerTest::setupRunsInOrderAndStartsCapture()
{
    auto fake = std::make_shared<FakeGraphicsCapture>();
    WinRTCapturer capturer(fake);
    QVERIFY(capturer.init(contextFor(0x10)));

    const std::vector<std::string> expected {
        "isApiContractPresent:Windows.Foundation.UniversalApiContract:8",
        "deviceFamilyVersion",
        "requestCapabilityAccess",
        "createItemForMonitor",
        "queryDxgiDevice",
        "createCaptureDevice",
        "Item::size",
        "queryOutputColorSpace",
        "outputColorSpace",
        "createFreeThreadedPool",
        "Pool::createCaptureSession",
        "isPropertyPresent:Windows.Graphics.Capture.GraphicsCaptureSession.IsBorderRequired",
        "requestBorderlessAccess",
        "isPropertyPresent:Windows.Graphics.Capture.GraphicsCaptureSession.IsCursorCaptureEnabled",
        "Session::startCapture",
    };
    QCOMPARE(fake->calls, expected);
    QCOMPARE(fake->itemMonitor, std::uintptr_t(0x10));
    QCOMPARE(fake->poolStates.size(), std::size_t(1));
    QCOMPARE(fake->poolStates[0].bufferCount, 2);
    QCOMPARE(fake->poolStates[0].size.width, 64);
    QCOMPARE(fake->poolStates[0].size.height, 32);
    QCOMPARE(fake->startCount, 1);
    QCOMPARE(capturer.originSize(), QSize(64, 32));
    QCOMPARE(capturer.setCaptureContext(contextFor(0x10)), 0L);
}

void WgcCapturerTest::versionIsLoggedInFourFields()
{
    auto fake = std::make_shared<FakeGraphicsCapture>();
    const quint64 v = (quint64(10) << 48) | (quint64(1) << 32) | (quint64(19045) << 16) | quint64(2965);
    // Everything that is not a digit is skipped.
    fake->version = "v" + std::to_string(v).insert(4, ".") + " ";
    MessageCapture log;
    WinRTCapturer capturer(fake);
    QVERIFY(capturer.init(contextFor(0x10)));
    QVERIFY(log.contains(QtInfoMsg,
        QStringLiteral("[WinRTCapturer]: System version: \r\n \tMajor Version:  10 \r\n "
                       "\tMinor Version:  1 \r\n \tBuild Number:  19045 \r\n "
                       "\tRevision Number:  2965")));
}

void WgcCapturerTest::capabilityRequestCompletesLater()
{
    auto fake = std::make_shared<FakeGraphicsCapture>();
    MessageCapture log;
    {
        WinRTCapturer capturer(fake);
        QVERIFY(capturer.init(contextFor(0x10)));
    }
    QCOMPARE(fake->capabilityRequests.size(), std::size_t(1));
    QCOMPARE(fake->capabilityRequests[0],
        (std::vector<std::string> {"graphicsCaptureWithoutBorder", "graphicsCaptureProgrammatic"}));
    QCOMPARE(log.texts(QtDebugMsg).filter(QStringLiteral("RequestAccessForCapabilitiesAsync")).size(), 0);
    // init did not wait; the runtime completes the request on a thread of its own,
    // here after the capturer is gone.
    std::thread runtime([fake] { fake->capabilityHandlers[0](1); });
    runtime.join();
    QVERIFY(
        log.contains(QtDebugMsg, QStringLiteral("[WinRTCapturer]: The RequestAccessForCapabilitiesAsync result is 1")));
}

void WgcCapturerTest::nullMonitorIsReplacedByThePrimary()
{
    auto fake = std::make_shared<FakeGraphicsCapture>();
    fake->monitors = {{0x31, 0}, {0x32, 1}, {0x33, 1}};
    MessageCapture log;
    WinRTCapturer capturer(fake);
    QCOMPARE(capturer.setCaptureContext(contextFor(0)), 0L);
    QVERIFY(log.contains(
        QtWarningMsg, QStringLiteral("The monitor handle is null, we will try to get the primary monitor handle")));
    QCOMPARE(fake->itemMonitor, std::uintptr_t(0x32));
    QCOMPARE(capturer.captureContext().monitor, DeskMonitorHandle(0x32));
    QCOMPARE(capturer.captureContext().deviceName, QStringLiteral("\\\\.\\DISPLAY1"));
}

void WgcCapturerTest::itemFailureIsLoggedWithTheCodeText()
{
    auto fake = std::make_shared<FakeGraphicsCapture>();
    fake->results["createItemForMonitor"] = E_INVALIDARG;
    MessageCapture log;
    WinRTCapturer capturer(fake);
    QCOMPARE(capturer.setCaptureContext(contextFor(0x10)), E_FAIL);
    QVERIFY(log.contains(QtCriticalMsg,
        QStringLiteral("Failed to create IGraphicsCaptureItem for monitor ") + quoted(win32ErrorMsg(E_INVALIDARG))));
    QCOMPARE(fake->callCount("queryDxgiDevice"), 0);
    QCOMPARE(log.count(QtCriticalMsg, InitError), 0);
}

void WgcCapturerTest::deviceAndOutputFailuresAreLogged_data()
{
    QTest::addColumn<QString>("operation");
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("withCode");
    QTest::newRow("dxgi device") << "queryDxgiDevice"
                                 << "Failed to get IDXGIDevice interface" << false;
    QTest::newRow("winrt device") << "createCaptureDevice"
                                  << "Failed to get WinRT device" << true;
    QTest::newRow("output6") << "queryOutputColorSpace"
                             << "Failed to get IDXGIOutput6 interface" << true;
    QTest::newRow("output6 desc") << "outputColorSpace"
                                  << "Failed to get IDXGIOutput6 desc" << true;
}

void WgcCapturerTest::deviceAndOutputFailuresAreLogged()
{
    QFETCH(QString, operation);
    QFETCH(QString, text);
    QFETCH(bool, withCode);
    auto fake = std::make_shared<FakeGraphicsCapture>();
    fake->results[operation.toStdString()] = E_NOINTERFACE;
    MessageCapture log;
    WinRTCapturer capturer(fake);
    QCOMPARE(capturer.setCaptureContext(contextFor(0x10)), E_FAIL);
    const QString expected = withCode ? text + QLatin1Char(' ') + quoted(win32ErrorMsg(E_NOINTERFACE)) : text;
    QVERIFY2(log.contains(QtCriticalMsg, expected), qPrintable(log.all().join(QLatin1Char('\n'))));
    QCOMPARE(fake->callCount("createFreeThreadedPool"), 0);
    QCOMPARE(fake->startCount, 0);
}

void WgcCapturerTest::initExceptionsAreCaught()
{
    {
        auto fake = std::make_shared<FakeGraphicsCapture>();
        fake->results["Pool::createCaptureSession"] = E_ACCESSDENIED;
        MessageCapture log;
        WinRTCapturer capturer(fake);
        QCOMPARE(capturer.setCaptureContext(contextFor(0x10)), E_FAIL);
        QVERIFY(log.contains(QtCriticalMsg, InitError + QLatin1Char(' ') + quoted(win32ErrorMsg(E_ACCESSDENIED))));
        QCOMPARE(fake->startCount, 0);
        QVERIFY(capturer.nextFrame().empty());
    }
    {
        auto fake = std::make_shared<FakeGraphicsCapture>();
        fake->throwOnStart = true;
        MessageCapture log;
        WinRTCapturer capturer(fake);
        QCOMPARE(capturer.setCaptureContext(contextFor(0x10)), E_FAIL);
        QCOMPARE(log.count(QtCriticalMsg, InitUnexpected), 1);
    }
}

void WgcCapturerTest::borderlessAndCursorWherePossible()
{
    auto fake = std::make_shared<FakeGraphicsCapture>();
    MessageCapture log;
    WinRTCapturer capturer(fake);
    QVERIFY(capturer.init(contextFor(0x10)));
    QCOMPARE(fake->cursorEnabled, std::vector<bool> {true});
    QVERIFY(fake->borderRequired.empty());
    QCOMPARE(fake->borderlessHandlers.size(), std::size_t(1));

    // Whatever the status, the border goes.
    std::thread runtime([fake] { fake->borderlessHandlers[0](2); });
    runtime.join();
    QVERIFY(log.contains(QtDebugMsg, QStringLiteral("The RequestAccessAsync result is 2")));
    QCOMPARE(fake->borderRequired, std::vector<bool> {false});
}

void WgcCapturerTest::missingBorderPropertyIsWarned()
{
    auto fake = std::make_shared<FakeGraphicsCapture>();
    fake->properties = {};
    MessageCapture log;
    WinRTCapturer capturer(fake);
    QVERIFY(capturer.init(contextFor(0x10)));
    QVERIFY(log.contains(QtWarningMsg,
        QStringLiteral(
            "Cannot supported property \"Windows.Graphics.Capture.GraphicsCaptureSession.IsBorderRequired\"")));
    QCOMPARE(fake->callCount("requestBorderlessAccess"), 0);
    // No cursor property: nothing set, nothing logged.
    QVERIFY(fake->cursorEnabled.empty());
    QCOMPARE(log.texts(QtWarningMsg).size(), 1);
}

void WgcCapturerTest::missingOptionsAreNoFailure()
{
    auto fake = std::make_shared<FakeGraphicsCapture>();
    fake->hasBorderOption = false;
    fake->hasCursorOption = false;
    MessageCapture log;
    WinRTCapturer capturer(fake);
    QVERIFY(capturer.init(contextFor(0x10)));
    QCOMPARE(fake->callCount("isPropertyPresent:Windows.Graphics.Capture.GraphicsCaptureSession.IsBorderRequired"), 0);
    QCOMPARE(fake->callCount("requestBorderlessAccess"), 0);
    QVERIFY(log.texts(QtWarningMsg).isEmpty());
    QCOMPARE(fake->startCount, 1);
}

void WgcCapturerTest::borderHandlerOutlivesTheCapturer()
{
    auto fake = std::make_shared<FakeGraphicsCapture>();
    {
        WinRTCapturer capturer(fake);
        QVERIFY(capturer.init(contextFor(0x10)));
        fake->results["Pool::tryGetNextFrame"] = E_FAIL;
        QVERIFY(capturer.nextFrame().empty()); // drops the session and its options
    }
    std::thread runtime([fake] { fake->borderlessHandlers[0](1); });
    runtime.join();
    QCOMPARE(fake->borderRequired, std::vector<bool> {false});
}

void WgcCapturerTest::sdrOutputGivesAnEightBitPool()
{
    auto fake = std::make_shared<FakeGraphicsCapture>();
    fake->colour[0] = 1.0f;
    fake->colour[1] = 0.5f;
    fake->colour[2] = 0.0f;
    WinRTCapturer capturer(fake);
    QVERIFY(capturer.init(contextFor(0x10)));
    QCOMPARE(capturer.pixelFormat(), 87);
    QCOMPARE(fake->poolStates[0].pixelFormat, 87);
    const cv::Mat m = capturer.nextFrame();
    QCOMPARE(m.type(), DeskFrameType);
    QVERIFY(samePixel(m, 3, 3, 255, 128, 0));
}

void WgcCapturerTest::hdrOutputGivesAHalfFloatPoolAndEightBitFrames()
{
    auto fake = std::make_shared<FakeGraphicsCapture>();
    fake->colorSpace = 12;
    fake->colour[0] = 4.0f; // far above the 8-bit range: clipped, not tone mapped
    fake->colour[1] = 0.5f;
    fake->colour[2] = 0.0f;
    fake->colour[3] = 1.0f;
    WinRTCapturer capturer(fake);
    QVERIFY(capturer.init(contextFor(0x10)));
    QCOMPARE(capturer.pixelFormat(), 10);
    QCOMPARE(fake->poolStates[0].pixelFormat, 10);
    const cv::Mat m = capturer.nextFrame();
    QCOMPARE(m.type(), DeskFrameType);
    QCOMPARE(m.cols, 64);
    QCOMPARE(m.rows, 32);
    QVERIFY(samePixel(m, 10, 10, 255, 128, 0));
    // The re-created pool keeps the format.
    QCOMPARE(fake->poolStates.back().pixelFormat, 10);
}

void WgcCapturerTest::firstFrameChoosesTheItemSize()
{
    auto fake = std::make_shared<FakeGraphicsCapture>();
    WinRTCapturer capturer(fake);
    QVERIFY(capturer.init(contextFor(0x10)));
    QCOMPARE(capturer.outputSize(), QSize(0, 0));
    QCOMPARE(capturer.originSize(), QSize(64, 32));
    const cv::Mat m = capturer.nextFrame();
    QCOMPARE(m.cols, 64);
    QCOMPARE(m.rows, 32);
    QCOMPARE(capturer.outputSize(), QSize(64, 32));
}

void WgcCapturerTest::outputSizeChangesAtTheNextFrameWithoutAPool()
{
    auto fake = std::make_shared<FakeGraphicsCapture>();
    WinRTCapturer capturer(fake);
    QVERIFY(capturer.init(contextFor(0x10)));
    capturer.setOutputSize(QSize(16, 8));
    cv::Mat m = capturer.nextFrame();
    QCOMPARE(m.cols, 16);
    QCOMPARE(m.rows, 8);
    // The first frame re-creates the pool once: the rotation starts unknown.
    QCOMPARE(fake->poolStates.size(), std::size_t(2));

    capturer.setOutputSize(QSize(20, 10));
    QCOMPARE(capturer.outputSize(), QSize(20, 10));
    m = capturer.nextFrame();
    QCOMPARE(m.cols, 20);
    QCOMPARE(m.rows, 10);
    QCOMPARE(fake->poolStates.size(), std::size_t(2));
    QVERIFY(samePixel(m, 19, 9, 255, 128, 0));
}

void WgcCapturerTest::rotationDuringCaptureTurnsTheQuadAndRecreatesThePool()
{
    auto fake = std::make_shared<FakeGraphicsCapture>();
    WinRTCapturer capturer(fake);
    QVERIFY(capturer.init(contextFor(0x10)));
    capturer.setOutputSize(QSize(32, 16));
    QVERIFY(!capturer.nextFrame().empty());
    QCOMPARE(fake->poolStates.size(), std::size_t(2));
    QCOMPARE(fake->poolStates[1].size.width, 64);
    QCOMPARE(fake->poolStates[1].size.height, 32);

    fake->rotation = 2;
    // The frame in the pool still has the old buffers: what the runtime has at hand.
    const cv::Mat turned = capturer.nextFrame();
    QCOMPARE(fake->poolStates.size(), std::size_t(3));
    QCOMPARE(fake->poolStates[2].size.width, 32);
    QCOMPARE(fake->poolStates[2].size.height, 64);
    QCOMPARE(fake->poolStates[2].bufferCount, 2);
    QCOMPARE(turned.cols, 32);
    QCOMPARE(turned.rows, 16);
    QCOMPARE(capturer.outputSize(), QSize(32, 16));

    // Later frames come in the swapped buffers and are drawn with the turned quad.
    const cv::Mat next = capturer.nextFrame();
    QCOMPARE(fake->poolStates.size(), std::size_t(3));
    QCOMPARE(next.cols, 32);
    QCOMPARE(next.rows, 16);

    // The picture is what a resizer turned by 90 degrees makes of the same source.
    D3DTextureResizer reference;
    QVERIFY(reference.setContext(std::make_shared<Orvanta::Cpu::SoftwareScaler>()));
    QVERIFY(reference.setTargetSize(cv::Size(32, 16)));
    reference.setRotation(2);
    const std::vector<std::uint8_t> pixels = fake->framePixels(87, {32, 64});
    Orvanta::Ifaces::ScalerSource source;
    source.pixels = pixels.data();
    source.width = 32;
    source.height = 64;
    source.bytesPerLine = 32 * 4;
    source.format = Orvanta::Ifaces::PixelFormat::B8G8R8A8Unorm;
    const cv::Mat expected = reference.resizeToCVMat(source);
    QCOMPARE(cv::norm(next, expected, cv::NORM_INF), 0.0);
}

void WgcCapturerTest::emptyPoolGivesEmptyFramesSilently()
{
    auto fake = std::make_shared<FakeGraphicsCapture>();
    WinRTCapturer capturer(fake);
    QVERIFY(capturer.init(contextFor(0x10)));
    MessageCapture log;
    fake->framesAvailable = false;
    QVERIFY(capturer.nextFrame().empty());
    fake->framesAvailable = true;
    fake->frameWithoutSurface = true;
    QVERIFY(capturer.nextFrame().empty());
    QVERIFY(log.messages().isEmpty());
    QCOMPARE(fake->guardEnters, 0);
    QCOMPARE(capturer.outputSize(), QSize(0, 0));
    fake->frameWithoutSurface = false;
    QVERIFY(!capturer.nextFrame().empty());
    QVERIFY(!fake->poolClosed);
}

void WgcCapturerTest::contextIsProtectedAndEnteredOncePerFrame()
{
    auto fake = std::make_shared<FakeGraphicsCapture>();
    WinRTCapturer capturer(fake);
    QVERIFY(capturer.init(contextFor(0x10)));
    QVERIFY(!capturer.nextFrame().empty());
    QVERIFY(!capturer.nextFrame().empty());
    QCOMPARE(fake->setProtectedCalls, 1);
    QVERIFY(fake->guardProtected);
    QCOMPARE(fake->guardEnters, 2);
    QCOMPARE(fake->guardLeaves, 2);
}

void WgcCapturerTest::failureEndsTheSessionForGood()
{
    auto fake = std::make_shared<FakeGraphicsCapture>();
    WinRTCapturer capturer(fake);
    QVERIFY(capturer.init(contextFor(0x10)));
    QVERIFY(!capturer.nextFrame().empty());

    MessageCapture log;
    fake->results["Pool::tryGetNextFrame"] = DXGI_ERROR_DEVICE_REMOVED;
    QVERIFY(capturer.nextFrame().empty());
    QCOMPARE(log.messages().size(), 1);
    QCOMPARE(
        log.count(QtCriticalMsg, ProcessingError + QLatin1Char(' ') + quoted(win32ErrorMsg(DXGI_ERROR_DEVICE_REMOVED))),
        1);
    QVERIFY(fake->poolClosed);
    QCOMPARE(fake->callCount("Pool::close"), 1);

    // The cause is gone, but the session is not coming back: each poll fails on
    // the closed pool, logs once and gives nothing.
    fake->results.erase("Pool::tryGetNextFrame");
    for (int poll = 1; poll <= 3; ++poll) {
        log.clear();
        QVERIFY(capturer.nextFrame().empty());
        QCOMPARE(log.messages().size(), 1);
        QCOMPARE(log.count(QtCriticalMsg, ProcessingError + QLatin1Char(' ') + quoted(win32ErrorMsg(RO_E_CLOSED))), 1);
    }
    QCOMPARE(fake->poolStates.size(), std::size_t(2));
    QCOMPARE(fake->guardEnters, fake->guardLeaves);
}

void WgcCapturerTest::unexpectedFailureEndsTheSessionForGood()
{
    auto fake = std::make_shared<FakeGraphicsCapture>();
    WinRTCapturer capturer(fake);
    QVERIFY(capturer.init(contextFor(0x10)));
    MessageCapture log;
    fake->throwOnPoll = true;
    QVERIFY(capturer.nextFrame().empty());
    QCOMPARE(log.count(QtCriticalMsg, ProcessingUnexpected), 1);
    QVERIFY(fake->poolClosed);
    fake->throwOnPoll = false;
    log.clear();
    QVERIFY(capturer.nextFrame().empty());
    QCOMPARE(log.messages().size(), 1);
    QCOMPARE(log.count(QtCriticalMsg, ProcessingError + QLatin1Char(' ') + quoted(win32ErrorMsg(RO_E_CLOSED))), 1);
}

void WgcCapturerTest::failureInsideTheSectionLeavesIt()
{
    auto fake = std::make_shared<FakeGraphicsCapture>();
    WinRTCapturer capturer(fake);
    QVERIFY(capturer.init(contextFor(0x10)));
    MessageCapture log;
    fake->results["outputRotation"] = E_FAIL;
    QVERIFY(capturer.nextFrame().empty());
    QCOMPARE(log.count(QtCriticalMsg, ProcessingError + QLatin1Char(' ') + quoted(win32ErrorMsg(E_FAIL))), 1);
    QCOMPARE(fake->guardEnters, 1);
    QCOMPARE(fake->guardLeaves, 1);
    QVERIFY(fake->poolClosed);
}

void WgcCapturerTest::rateIsLoggedAsMeanFrameInterval()
{
    auto fake = std::make_shared<FakeGraphicsCapture>();
    WinRTCapturer capturer(fake);
    QVERIFY(capturer.init(contextFor(0x10)));
    capturer.setOutputSize(QSize(8, 4));
    MessageCapture log;
    const QString prefix = QStringLiteral("[[loop]][WinRTCapturer]: FPS:  ");
    auto rateLines = [&] {
        QStringList lines;
        for (const QString& text : log.texts(QtInfoMsg)) {
            if (text.startsWith(prefix))
                lines << text;
        }
        return lines;
    };
    QTRY_VERIFY_WITH_TIMEOUT((capturer.nextFrame(), QTest::qWait(20), !rateLines().isEmpty()), 20000);
    const QString line = rateLines().first();
    bool ok = false;
    const double meanMs = line.mid(prefix.size()).toDouble(&ok);
    QVERIFY2(ok, qPrintable(line));
    // Frames came about every 20 ms or more: a mean interval in milliseconds, not a rate.
    QVERIFY2(meanMs >= 15.0, qPrintable(line));
}

void WgcCapturerTest::pollingBeforeSetupGivesNothing()
{
    auto fake = std::make_shared<FakeGraphicsCapture>();
    MessageCapture log;
    WinRTCapturer capturer(fake);
    QVERIFY(capturer.nextFrame().empty());
    QCOMPARE(capturer.outputSize(), QSize(0, 0));
    QCOMPARE(capturer.originSize(), QSize(0, 0));
    QVERIFY(log.messages().isEmpty());
    QVERIFY(fake->calls.empty());
}

QTEST_GUILESS_MAIN(WgcCapturerTest)
#include "tst_wgc_capturer.moc"
