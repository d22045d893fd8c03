#include "DXGICapturer.h"
#include "Helpers.h"
#include "ResultCodes.h"

#include "MessageCapture.h"
#include "X11CaptureRig.h"
#include "XvfbServer.h"

#include <QtTest/QtTest>

/// Cases that change or kill the X server, each on a private server of its own.
class XcbRecoveryTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void shrinkingTheScreenRebuildsTheDuplication();
    void killedServerLeavesTheCapturerLost();
};

void XcbRecoveryTest::initTestCase()
{
    pinEglDisplay();
}

void XcbRecoveryTest::shrinkingTheScreenRebuildsTheDuplication()
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

    QVERIFY(paintRoot(0, 0, 1024, 720, 0xFFFFFF));
    const cv::Mat frame = rig.waitForFrame();
    QCOMPARE(frame.cols, 1280);
    QCOMPARE(frame.rows, 720);
    QCOMPARE(frame.at<cv::Vec4b>(360, 640), cv::Vec4b(255, 255, 255, 255));
}

void XcbRecoveryTest::killedServerLeavesTheCapturerLost()
{
    XvfbServer server(320, 240);
    QVERIFY2(server.started(), "Xvfb could not be started");
    X11Capturer rig;
    QCOMPARE(rig.bindResult, S_OK);
    QVERIFY(!rig.waitForFrame().empty());

    server.kill();
    MessageCapture log;
    QVERIFY(rig.capturer->nextFrame().empty()); // the failure; a round of tries begins
    for (int round = 0; round < 5; ++round) {
        rig.clock->advance(500);
        QVERIFY(rig.capturer->nextFrame().empty()); // its try, which stops at once
        QVERIFY(rig.capturer->nextFrame().empty()); // the next round begins
    }
    QVERIFY2(log.contains(QtCriticalMsg,
                 QStringLiteral("[DXGICapturer]: An error occurred while acquiring next frame:  \"%1\"")
                     .arg(win32ErrorMsg(DXGI_ERROR_SESSION_DISCONNECTED))),
        qPrintable(log.all().join(QLatin1Char('\n'))));
    // Every round is one try that stops at once: the server is gone for good.
    QCOMPARE(log.texts(QtWarningMsg).size(), 5);
    for (const QString& warning : log.texts(QtWarningMsg)) {
        QVERIFY2(
            warning.startsWith(QStringLiteral("[DXGICapturer]: Detected a non-recoverable error, stopping retries:")),
            qPrintable(warning));
    }
    QCOMPARE(rig.capturer->originSize(), QSize(320, 240));
}

QTEST_GUILESS_MAIN(XcbRecoveryTest)
#include "tst_xcb_recovery.moc"
