#include "DXGICapturer.h"
#include "Helpers.h"
#include "ResultCodes.h"
#include "ifaces/DesktopDuplicator.h"
#include "ifaces/DisplayAdapter.h"
#include "ifaces/DisplayOutput.h"
#include "ifaces/DisplaySystem.h"
#include "ifaces/GraphicsDevice.h"
#include "x11/XcbDuplication.h"

#include "MessageCapture.h"
#include "XvfbServer.h"
#include "fakes/FakeDesktopDuplicator.h"

#include <QtTest/QtTest>

namespace {

/// The capture context of the first monitor of the X server named by $DISPLAY.
struct X11Output
{
    std::shared_ptr<Orvanta::Ifaces::DisplaySystem> system;
    DeskCaptureContext context;
    long result = E_FAIL;

    X11Output()
    {
        system = Orvanta::Ifaces::createPlatformDisplaySystem();
        if ((result = system->open()) < 0) {
            return;
        }
        std::shared_ptr<Orvanta::Ifaces::DisplayAdapter> adapter;
        if ((result = system->enumAdapter(0, adapter)) < 0) {
            return;
        }
        std::shared_ptr<Orvanta::Ifaces::DisplayOutput> output;
        if ((result = adapter->enumOutput(0, output)) < 0) {
            return;
        }
        std::shared_ptr<Orvanta::Ifaces::GraphicsDevice> device;
        if ((result = adapter->createDevice(output, device)) < 0) {
            return;
        }
        context.adapter = adapter;
        context.device = device;
        context.output = output;
        context.outputIndex = 0;
    }
};

/// A capturer on the real X11 platform that counts its waits instead of sleeping.
struct X11Capturer
{
    X11Output output;
    std::shared_ptr<FakeSleeper> sleeper = std::make_shared<FakeSleeper>();
    std::unique_ptr<DXGICapturer> capturer;
    long bindResult = E_FAIL;

    X11Capturer()
    {
        if (output.result < 0) {
            bindResult = output.result;
            return;
        }
        std::shared_ptr<Orvanta::Ifaces::DesktopDuplicator> duplicator
            = Orvanta::Ifaces::createPlatformDesktopDuplicator(output.context.adapter, output.context.device);
        capturer = std::make_unique<DXGICapturer>(duplicator, sleeper);
        bindResult = capturer->setCaptureContext(output.context);
    }

    /// Polls until a frame comes, as the front's timer would.
    cv::Mat waitForFrame()
    {
        cv::Mat frame;
        for (int poll = 0; poll < 500 && frame.empty(); ++poll) {
            frame = capturer->nextFrame();
            if (frame.empty()) {
                QTest::qWait(10);
            }
        }
        return frame;
    }
};

} // namespace

class XcbDuplicationTest : public QObject
{
    Q_OBJECT

private slots:
    void idleScreenTimesOutSilently();
    void paintingProducesFramesOfTheRequestedSize();
    void shrinkingTheScreenRebuildsTheDuplication();
    void killedServerLeavesTheCapturerLost();
    void captureFrontUsesDuplicationInModeZero();
};

void XcbDuplicationTest::idleScreenTimesOutSilently()
{
    XvfbServer server(640, 480);
    QVERIFY2(server.started(), "Xvfb could not be started");
    X11Capturer rig;
    QCOMPARE(rig.bindResult, S_OK);
    rig.capturer->setOutputSize(QSize(160, 120));
    // Making the damage object reports the whole screen once.
    QVERIFY(!rig.waitForFrame().empty());

    MessageCapture log;
    for (int poll = 0; poll < 30; ++poll) {
        QVERIFY(rig.capturer->nextFrame().empty());
        QTest::qWait(5);
    }
    QVERIFY2(log.messages().isEmpty(), qPrintable(log.all().join(QLatin1Char('\n'))));
    QVERIFY(rig.sleeper->waits.isEmpty());

    // Underneath, the session answers with the timeout code.
    X11Output output;
    QCOMPARE(output.result, S_OK);
    std::unique_ptr<Orvanta::Ifaces::OutputDuplication> duplication;
    QCOMPARE(Orvanta::X11::XcbDuplication::create(nullptr, output.context.output, duplication), S_OK);
    long acquired = DXGI_ERROR_WAIT_TIMEOUT;
    for (int poll = 0; poll < 500 && acquired == DXGI_ERROR_WAIT_TIMEOUT; ++poll) {
        acquired = duplication->acquireNextFrame(10);
    }
    QCOMPARE(acquired, S_OK);
    Orvanta::Ifaces::ScalerSource source;
    QCOMPARE(duplication->frameSource(source), S_OK);
    QCOMPARE(source.width, 640);
    QCOMPARE(source.height, 480);
    QCOMPARE(source.format, Orvanta::Ifaces::PixelFormat::B8G8R8X8Unorm);
    QVERIFY(source.pixels);
    QCOMPARE(duplication->releaseFrame(), S_OK);
    for (int poll = 0; poll < 10; ++poll) {
        QCOMPARE(duplication->acquireNextFrame(0), DXGI_ERROR_WAIT_TIMEOUT);
    }
    QCOMPARE(duplication->acquireNextFrame(20), DXGI_ERROR_WAIT_TIMEOUT);
    const Orvanta::Ifaces::DuplicationDescription description = duplication->description();
    QCOMPARE(description.width, 640u);
    QCOMPARE(description.height, 480u);
    QCOMPARE(description.format, 87);
}

void XcbDuplicationTest::paintingProducesFramesOfTheRequestedSize()
{
    XvfbServer server(640, 480);
    QVERIFY2(server.started(), "Xvfb could not be started");
    X11Capturer rig;
    QCOMPARE(rig.bindResult, S_OK);
    QCOMPARE(rig.capturer->originSize(), QSize(640, 480));
    rig.capturer->setOutputSize(QSize(160, 120));
    QVERIFY(!rig.waitForFrame().empty());

    QVERIFY(server.paint(0, 0, 320, 480, 0xFF0000));
    QVERIFY(server.paint(320, 0, 320, 480, 0x0000FF));
    cv::Mat frame = rig.waitForFrame();
    QVERIFY(!frame.empty());
    QCOMPARE(frame.type(), CV_8UC4);
    QCOMPARE(frame.cols, 160);
    QCOMPARE(frame.rows, 120);
    // Both rectangles may come in one frame or two; wait for the blue one too.
    for (int round = 0; round < 50 && frame.at<cv::Vec4b>(60, 120) != cv::Vec4b(0, 0, 255, 255); ++round) {
        const cv::Mat next = rig.waitForFrame();
        if (!next.empty()) {
            frame = next;
        }
    }
    QCOMPARE(frame.at<cv::Vec4b>(60, 40), cv::Vec4b(255, 0, 0, 255));
    QCOMPARE(frame.at<cv::Vec4b>(60, 120), cv::Vec4b(0, 0, 255, 255));

    QVERIFY(server.paint(0, 0, 640, 480, 0x20C040));
    frame = rig.waitForFrame();
    QVERIFY(!frame.empty());
    QCOMPARE(frame.at<cv::Vec4b>(5, 5), cv::Vec4b(0x20, 0xC0, 0x40, 255));
    QCOMPARE(frame.at<cv::Vec4b>(115, 155), cv::Vec4b(0x20, 0xC0, 0x40, 255));
}

void XcbDuplicationTest::shrinkingTheScreenRebuildsTheDuplication()
{
    XvfbServer server(1280, 720);
    QVERIFY2(server.started(), "Xvfb could not be started");
    X11Capturer rig;
    QCOMPARE(rig.bindResult, S_OK);
    QCOMPARE(rig.capturer->originSize(), QSize(1280, 720));
    QCOMPARE(rig.capturer->outputSize(), QSize(1280, 720));
    QVERIFY(!rig.waitForFrame().empty());

    MessageCapture log;
    QVERIFY(
        server.xrandr({"--newmode", "1024x720_t", "60", "1024", "1025", "1026", "1027", "720", "721", "722", "723"}));
    QVERIFY(server.xrandr({"--addmode", "screen", "1024x720_t"}));
    QVERIFY(server.xrandr({"--output", "screen", "--mode", "1024x720_t", "--fb", "1024x720"}));

    const QString rebuilt = QStringLiteral("[DXGICapturer]: The DXGIOutputDuplication has rebuilded:  0");
    for (int poll = 0; poll < 500 && !log.contains(QtInfoMsg, rebuilt); ++poll) {
        rig.capturer->nextFrame();
        QTest::qWait(10);
    }
    QVERIFY2(log.contains(QtInfoMsg, QStringLiteral("[DXGICapturer]: DXGIOutputDuplication access lost:  0")),
        qPrintable(log.all().join(QLatin1Char('\n'))));
    QVERIFY(log.contains(QtInfoMsg, rebuilt));
    QCOMPARE(rig.capturer->originSize(), QSize(1024, 720));
    QCOMPARE(rig.capturer->outputSize(), QSize(1280, 720));
    QVERIFY(rig.sleeper->waits.isEmpty());

    QVERIFY(server.paint(0, 0, 1024, 720, 0xFFFFFF));
    const cv::Mat frame = rig.waitForFrame();
    QCOMPARE(frame.cols, 1280);
    QCOMPARE(frame.rows, 720);
    QCOMPARE(frame.at<cv::Vec4b>(360, 640), cv::Vec4b(255, 255, 255, 255));
}

void XcbDuplicationTest::killedServerLeavesTheCapturerLost()
{
    XvfbServer server(320, 240);
    QVERIFY2(server.started(), "Xvfb could not be started");
    X11Capturer rig;
    QCOMPARE(rig.bindResult, S_OK);
    QVERIFY(!rig.waitForFrame().empty());

    server.kill();
    MessageCapture log;
    for (int poll = 0; poll < 5; ++poll) {
        QVERIFY(rig.capturer->nextFrame().empty());
    }
    QVERIFY2(log.contains(QtCriticalMsg,
                 QStringLiteral("[DXGICapturer]: An error occurred while acquiring next frame:  \"%1\"")
                     .arg(win32ErrorMsg(DXGI_ERROR_SESSION_DISCONNECTED))),
        qPrintable(log.all().join(QLatin1Char('\n'))));
    // Every later poll is one try that stops at once: the server is gone for good.
    QCOMPARE(rig.sleeper->waits.size(), 5);
    QCOMPARE(log.texts(QtWarningMsg).size(), 5);
    for (const QString& warning : log.texts(QtWarningMsg)) {
        QVERIFY2(
            warning.startsWith(QStringLiteral("[DXGICapturer]: Detected a non-recoverable error, stopping retries:")),
            qPrintable(warning));
    }
    QCOMPARE(rig.capturer->originSize(), QSize(320, 240));
}

void XcbDuplicationTest::captureFrontUsesDuplicationInModeZero()
{
    XvfbServer server(320, 240);
    QVERIFY2(server.started(), "Xvfb could not be started");
    X11Output output;
    QCOMPARE(output.result, S_OK);
    DXGICapturer capturer(output.context);
    QCOMPARE(capturer.originSize(), QSize(320, 240));
    QCOMPARE(capturer.outputSize(), QSize(320, 240));
    QVERIFY(server.paint(0, 0, 320, 240, 0x102030));
    cv::Mat frame;
    for (int poll = 0; poll < 500; ++poll) {
        const cv::Mat next = capturer.nextFrame();
        if (!next.empty()) {
            frame = next;
            if (frame.at<cv::Vec4b>(120, 160) == cv::Vec4b(0x10, 0x20, 0x30, 255)) {
                break;
            }
        }
        QTest::qWait(10);
    }
    QVERIFY(!frame.empty());
    QCOMPARE(frame.at<cv::Vec4b>(120, 160), cv::Vec4b(0x10, 0x20, 0x30, 255));
}

QTEST_GUILESS_MAIN(XcbDuplicationTest)
#include "tst_xcb_duplication.moc"
