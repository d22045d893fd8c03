#include "Helpers.h"
#include "ResultCodes.h"
#include "WinRTCapturer.h"

#include "MessageCapture.h"

#include <QtTest/QtTest>

#include <csignal>

namespace {

const QString ProcessingError
    = QStringLiteral("[WinRTCapturer]: An exception occurred while processing the winrt capture");

QString quoted(const QString& text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

int portalDialogs()
{
    QFile file(QString::fromLocal8Bit(qgetenv("ORVANTA_PORTAL_DIALOGS")));
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    return file.readAll().trimmed().toInt();
}

/// Polls like the front does until a frame comes (an empty matrix after 20 s).
cv::Mat waitForFrame(WinRTCapturer& capturer)
{
    QDeadlineTimer deadline(20000);
    while (!deadline.hasExpired()) {
        cv::Mat frame = capturer.nextFrame();
        if (!frame.empty())
            return frame;
        QTest::qWait(20);
    }
    return cv::Mat();
}

/// Sets an environment variable for one scope.
class ScopedEnv
{
public:
    ScopedEnv(const char* name, const QByteArray& value)
        : m_name(name)
        , m_old(qgetenv(name))
    {
        qputenv(name, value);
    }
    ~ScopedEnv()
    {
        qputenv(m_name, m_old);
    }

private:
    const char* m_name;
    QByteArray m_old;
};

} // namespace

class PortalCaptureTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void withoutABusThereIsNoSupport();
    void withoutAPortalThereIsNoSupport();
    void framesArriveAtTheRequestedSizeWithTheSourceColours();
    void outputSizeChangesTheNextFrame();
    void theUserIsAskedOnce();
    void stoppingTheServerEndsTheSessionForGood(); // stops the fixture's PipeWire: keep last
};

void PortalCaptureTest::initTestCase()
{
    QStandardPaths::setTestModeEnabled(true);
    QVERIFY2(!qgetenv("DBUS_SESSION_BUS_ADDRESS").isEmpty(), "the PipeWire fixture did not run");
    QVERIFY2(!qgetenv("ORVANTA_PIPEWIRE_PIDFILE").isEmpty(), "the PipeWire fixture did not run");
}

void PortalCaptureTest::withoutABusThereIsNoSupport()
{
    QTemporaryDir dir;
    ScopedEnv bus("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + dir.filePath(QStringLiteral("no-bus")).toLocal8Bit());
    MessageCapture log;
    WinRTCapturer capturer;
    QCOMPARE(capturer.setCaptureContext(DeskCaptureContext()), E_FAIL);
    QCOMPARE(log.count(QtCriticalMsg, QStringLiteral("[WinRTCapturer]: Current system cannot support")), 1);
    QVERIFY(capturer.nextFrame().empty());
}

void PortalCaptureTest::withoutAPortalThereIsNoSupport()
{
    // A session bus of its own, where nobody offers the portal.
    QTemporaryDir dir;
    const QString address = QStringLiteral("unix:path=") + dir.filePath(QStringLiteral("bus"));
    QProcess daemon;
    daemon.start(QStringLiteral("dbus-daemon"),
        {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--address=") + address});
    QVERIFY(daemon.waitForStarted());
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(dir.filePath(QStringLiteral("bus"))), 10000);
    {
        ScopedEnv bus("DBUS_SESSION_BUS_ADDRESS", address.toLocal8Bit());
        MessageCapture log;
        WinRTCapturer capturer;
        QCOMPARE(capturer.setCaptureContext(DeskCaptureContext()), E_FAIL);
        QCOMPARE(log.count(QtCriticalMsg, QStringLiteral("[WinRTCapturer]: Current system cannot support")), 1);
    }
    daemon.terminate();
    QVERIFY(daemon.waitForFinished(10000));
}

void PortalCaptureTest::framesArriveAtTheRequestedSizeWithTheSourceColours()
{
    MessageCapture log;
    WinRTCapturer capturer;
    QCOMPARE(capturer.setCaptureContext(DeskCaptureContext()), 0L);
    QVERIFY(log.contains(
        QtWarningMsg, QStringLiteral("The monitor handle is null, we will try to get the primary monitor handle")));
    QCOMPARE(capturer.originSize(), QSize(640, 360));
    capturer.setOutputSize(QSize(224, 126));

    const cv::Mat frame = waitForFrame(capturer);
    QCOMPARE(frame.type(), DeskFrameType);
    QCOMPARE(frame.cols, 224);
    QCOMPARE(frame.rows, 126);
    QCOMPARE(capturer.outputSize(), QSize(224, 126));

    // The source's colour bars at 75 %: white, yellow, cyan, green, magenta, red,
    // blue across the top two thirds, in R, G, B order; full white below.
    const int bars[7][3]
        = {{191, 191, 191}, {191, 191, 0}, {0, 191, 191}, {0, 191, 0}, {191, 0, 191}, {191, 0, 0}, {0, 0, 191}};
    for (int bar = 0; bar < 7; ++bar) {
        const cv::Vec4b p = frame.at<cv::Vec4b>(30, bar * 32 + 16);
        for (int c = 0; c < 3; ++c)
            QVERIFY2(std::abs(p[c] - bars[bar][c]) <= 2,
                qPrintable(QStringLiteral("bar %1: %2,%3,%4").arg(bar).arg(p[0]).arg(p[1]).arg(p[2])));
    }
    const cv::Vec4b white = frame.at<cv::Vec4b>(115, 56);
    QVERIFY(white[0] >= 253 && white[1] >= 253 && white[2] >= 253);
}

void PortalCaptureTest::outputSizeChangesTheNextFrame()
{
    WinRTCapturer capturer;
    QCOMPARE(capturer.setCaptureContext(DeskCaptureContext()), 0L);
    QCOMPARE(waitForFrame(capturer).cols, 640);
    QCOMPARE(capturer.outputSize(), QSize(640, 360));
    capturer.setOutputSize(QSize(320, 180));
    const cv::Mat frame = waitForFrame(capturer);
    QCOMPARE(frame.cols, 320);
    QCOMPARE(frame.rows, 180);
}

void PortalCaptureTest::theUserIsAskedOnce()
{
    const int before = portalDialogs();
    QVERIFY(before >= 1); // earlier cases opened sessions
    for (int i = 0; i < 2; ++i) {
        WinRTCapturer capturer;
        QCOMPARE(capturer.setCaptureContext(DeskCaptureContext()), 0L);
        QVERIFY(!waitForFrame(capturer).empty());
    }
    QCOMPARE(portalDialogs(), before);
}

void PortalCaptureTest::stoppingTheServerEndsTheSessionForGood()
{
    WinRTCapturer capturer;
    QCOMPARE(capturer.setCaptureContext(DeskCaptureContext()), 0L);
    QVERIFY(!waitForFrame(capturer).empty());

    QFile pidFile(QString::fromLocal8Bit(qgetenv("ORVANTA_PIPEWIRE_PIDFILE")));
    QVERIFY(pidFile.open(QIODevice::ReadOnly));
    const qint64 pid = pidFile.readAll().trimmed().toLongLong();
    QVERIFY(pid > 0);
    MessageCapture log;
    QCOMPARE(::kill(pid_t(pid), SIGTERM), 0);

    QTRY_VERIFY_WITH_TIMEOUT(
        (capturer.nextFrame(),
            log.count(QtCriticalMsg, ProcessingError + QLatin1Char(' ') + quoted(win32ErrorMsg(RPC_E_DISCONNECTED)))
                == 1),
        20000);
    for (int poll = 0; poll < 3; ++poll) {
        log.clear();
        QVERIFY(capturer.nextFrame().empty());
        QCOMPARE(log.messages().size(), 1);
        QCOMPARE(log.count(QtCriticalMsg, ProcessingError + QLatin1Char(' ') + quoted(win32ErrorMsg(RO_E_CLOSED))), 1);
    }
}

QTEST_GUILESS_MAIN(PortalCaptureTest)
#include "tst_portal_capture.moc"
