#include "ConfigurationManager.h"
#include "DXGICapturer.h"
#include "DeskDuplManager.h"
#include "Helpers.h"
#include "ResultCodes.h"
#include "x11/XcbDuplication.h"

#include "MessageCapture.h"
#include "X11CaptureRig.h"

#include <QtCore/QStandardPaths>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

/**
 * Duplication on the X server of the test fixture: one screen of 3840 by
 * 1080 split into the monitors LEFT and RIGHT, 1920 by 1080 each.
 */
class XcbDuplicationTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void idleScreenTimesOutSilently();
    void paintingProducesFramesOfTheRequestedSize();
    void eachMonitorSeesItsOwnPart();
    void withoutGpuDeviceScalesOnTheCpu();
    void captureFrontDeliversInModeZero();

private:
    QTemporaryDir m_home;
};

void XcbDuplicationTest::initTestCase()
{
    QVERIFY2(!qEnvironmentVariableIsEmpty("DISPLAY"), "the xvfb fixture did not provide DISPLAY");
    QStandardPaths::setTestModeEnabled(true);
    pinEglDisplay();
    QVERIFY(m_home.isValid());
}

void XcbDuplicationTest::idleScreenTimesOutSilently()
{
    X11Capturer rig;
    QCOMPARE(rig.bindResult, S_OK);
    QCOMPARE(rig.capturer->originSize(), QSize(1920, 1080));
    rig.capturer->setOutputSize(QSize(160, 90));
    // Making the damage object reports the whole screen once.
    QVERIFY(!rig.waitForFrame().empty());

    MessageCapture log;
    for (int poll = 0; poll < 30; ++poll) {
        QVERIFY(rig.capturer->nextFrame().empty());
        QTest::qWait(5);
    }
    QVERIFY2(log.messages().isEmpty(), qPrintable(log.all().join(QLatin1Char('\n'))));

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
    QCOMPARE(source.width, 1920);
    QCOMPARE(source.height, 1080);
    QCOMPARE(source.format, Orvanta::Ifaces::PixelFormat::B8G8R8X8Unorm);
    QVERIFY(source.pixels);
    QCOMPARE(duplication->acquireNextFrame(0), DXGI_ERROR_INVALID_CALL); // one frame at a time
    QCOMPARE(duplication->releaseFrame(), S_OK);
    QCOMPARE(duplication->releaseFrame(), DXGI_ERROR_INVALID_CALL);
    QCOMPARE(duplication->frameSource(source), DXGI_ERROR_INVALID_CALL);
    for (int poll = 0; poll < 10; ++poll) {
        QCOMPARE(duplication->acquireNextFrame(0), DXGI_ERROR_WAIT_TIMEOUT);
    }
    QCOMPARE(duplication->acquireNextFrame(20), DXGI_ERROR_WAIT_TIMEOUT);
    const Orvanta::Ifaces::DuplicationDescription description = duplication->description();
    QCOMPARE(description.width, 1920u);
    QCOMPARE(description.height, 1080u);
    QCOMPARE(description.format, 87);
}

void XcbDuplicationTest::paintingProducesFramesOfTheRequestedSize()
{
    X11Capturer rig;
    QCOMPARE(rig.bindResult, S_OK);
    rig.capturer->setOutputSize(QSize(320, 180));
    QVERIFY(!rig.waitForFrame().empty());

    QVERIFY(paintRoot(0, 0, 960, 1080, 0xFF0000));
    QVERIFY(paintRoot(960, 0, 960, 1080, 0x0000FF));
    cv::Mat frame;
    for (int round = 0; round < 50; ++round) {
        const cv::Mat next = rig.waitForFrame();
        if (!next.empty()) {
            frame = next;
        }
        if (!frame.empty() && frame.at<cv::Vec4b>(90, 240) == cv::Vec4b(0, 0, 255, 255)) {
            break;
        }
    }
    QVERIFY(!frame.empty());
    QCOMPARE(frame.type(), CV_8UC4);
    QCOMPARE(frame.cols, 320);
    QCOMPARE(frame.rows, 180);
    QCOMPARE(frame.at<cv::Vec4b>(90, 80), cv::Vec4b(255, 0, 0, 255));
    QCOMPARE(frame.at<cv::Vec4b>(90, 240), cv::Vec4b(0, 0, 255, 255));

    QVERIFY(paintRoot(0, 0, 1920, 1080, 0x20C040));
    frame = rig.waitForFrame();
    QVERIFY(!frame.empty());
    QCOMPARE(frame.at<cv::Vec4b>(5, 5), cv::Vec4b(0x20, 0xC0, 0x40, 255));
    QCOMPARE(frame.at<cv::Vec4b>(175, 315), cv::Vec4b(0x20, 0xC0, 0x40, 255));
}

void XcbDuplicationTest::eachMonitorSeesItsOwnPart()
{
    X11Capturer left(0);
    X11Capturer right(1);
    QCOMPARE(left.bindResult, S_OK);
    QCOMPARE(right.bindResult, S_OK);
    QCOMPARE(right.capturer->originSize(), QSize(1920, 1080));
    left.capturer->setOutputSize(QSize(192, 108));
    right.capturer->setOutputSize(QSize(192, 108));
    QVERIFY(!left.waitForFrame().empty());
    QVERIFY(!right.waitForFrame().empty());

    QVERIFY(paintRoot(0, 0, 1920, 1080, 0x000000));
    cv::Mat leftFrame;
    for (int round = 0; round < 50; ++round) {
        const cv::Mat next = left.waitForFrame();
        if (!next.empty()) {
            leftFrame = next;
        }
        if (!leftFrame.empty() && leftFrame.at<cv::Vec4b>(54, 96) == cv::Vec4b(0, 0, 0, 255)) {
            break;
        }
    }
    QCOMPARE(leftFrame.at<cv::Vec4b>(54, 96), cv::Vec4b(0, 0, 0, 255));
    while (!left.capturer->nextFrame().empty()) { }

    QVERIFY(paintRoot(1920, 0, 1920, 1080, 0xFFFF00));
    QVERIFY(paintRoot(1920, 0, 960, 540, 0x00FFFF)); // the right monitor's top-left quarter
    cv::Mat frame;
    for (int round = 0; round < 50; ++round) {
        const cv::Mat next = right.waitForFrame();
        if (!next.empty()) {
            frame = next;
        }
        if (!frame.empty() && frame.at<cv::Vec4b>(20, 20) == cv::Vec4b(0, 255, 255, 255)
            && frame.at<cv::Vec4b>(80, 150) == cv::Vec4b(255, 255, 0, 255)) {
            break;
        }
    }
    QVERIFY(!frame.empty());
    QCOMPARE(frame.at<cv::Vec4b>(20, 20), cv::Vec4b(0, 255, 255, 255));
    QCOMPARE(frame.at<cv::Vec4b>(80, 150), cv::Vec4b(255, 255, 0, 255));

    // Drawing on the right monitor alone gives the left one nothing new.
    for (int poll = 0; poll < 10; ++poll) {
        QVERIFY(left.capturer->nextFrame().empty());
    }
}

void XcbDuplicationTest::withoutGpuDeviceScalesOnTheCpu()
{
    X11Output output;
    QCOMPARE(output.result, S_OK);
    DeskCaptureContext context = output.context;
    context.device.reset(); // as when no GPU context could be made for the output
    DXGICapturer capturer(context);
    QCOMPARE(capturer.originSize(), QSize(1920, 1080));
    capturer.setOutputSize(QSize(96, 54));
    QVERIFY(paintRoot(0, 0, 1920, 1080, 0x405060));
    cv::Mat frame;
    for (int poll = 0; poll < 500; ++poll) {
        const cv::Mat next = capturer.nextFrame();
        if (!next.empty()) {
            frame = next;
            if (frame.at<cv::Vec4b>(27, 48) == cv::Vec4b(0x40, 0x50, 0x60, 255)) {
                break;
            }
        }
        QTest::qWait(10);
    }
    QCOMPARE(frame.cols, 96);
    QCOMPARE(frame.rows, 54);
    QCOMPARE(frame.at<cv::Vec4b>(27, 48), cv::Vec4b(0x40, 0x50, 0x60, 255));
}

void XcbDuplicationTest::captureFrontDeliversInModeZero()
{
    ConfigurationManager::setConfigPath(m_home.path());
    DeskDuplManager manager;
    const QString id = manager.defaultCapturer();
    QVERIFY(!id.isEmpty());
    QSharedPointer<IDeskCapture> capturer = manager.acquireCapturer(id);
    QVERIFY(capturer);
    QCOMPARE(capturer->originSize(), QSize(1920, 1080));
    capturer->setOutputSize(QSize(240, 135));
    QVERIFY(paintRoot(0, 0, 1920, 1080, 0x336699));
    // The front's timer polls on this thread.
    QTRY_VERIFY_WITH_TIMEOUT(!capturer->nextFrame().empty()
            && capturer->nextFrame().at<cv::Vec4b>(60, 120) == cv::Vec4b(0x33, 0x66, 0x99, 255),
        20000);
    const cv::Mat frame = capturer->nextFrame();
    QCOMPARE(frame.cols, 240);
    QCOMPARE(frame.rows, 135);
    manager.releaseCapturer(id);
}

QTEST_GUILESS_MAIN(XcbDuplicationTest)
#include "tst_xcb_duplication.moc"
