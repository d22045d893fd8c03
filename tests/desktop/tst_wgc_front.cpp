#include "ConfigurationManager.h"
#include "DeskCaptureBackends.h"
#include "DeskCaptureOption.h"
#include "WinDeskCapture.h"
#include "WinRTCapturer.h"

#include "MessageCapture.h"
#include "fakes/FakeCapture.h"
#include "fakes/FakeGraphicsCapture.h"

#include <QtTest/QtTest>

namespace {

/// Mode 1 is the graphics-capture back-end on the scripted runtime; the other
/// modes are recording fakes.
WinDeskCapture::BackendFactory backends(
    std::shared_ptr<FakeGraphicsCapture> runtime, std::shared_ptr<Fakes::CaptureJournal> journal)
{
    return [runtime, journal](int mode) -> IDeskCapture* {
        if (mode == 1)
            return new WinRTCapturer(runtime, nullptr);
        if (mode == 0 || mode == 2)
            return new Fakes::FakeCapture(journal, mode);
        return nullptr;
    };
}

DeskCaptureContext contextFor(DeskMonitorHandle monitor)
{
    DeskCaptureContext context;
    context.monitor = monitor;
    return context;
}

class ScopedEnv
{
public:
    ScopedEnv(const char* name, const QByteArray& value)
        : m_name(name)
        , m_had(qEnvironmentVariableIsSet(name))
        , m_old(qgetenv(name))
    {
        if (value.isNull())
            qunsetenv(name);
        else
            qputenv(name, value);
    }
    ~ScopedEnv()
    {
        if (m_had)
            qputenv(m_name, m_old);
        else
            qunsetenv(m_name);
    }

private:
    const char* m_name;
    bool m_had;
    QByteArray m_old;
};

} // namespace

class WgcFrontTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void withoutContractTheFrontLogsItsFailure();
    void framesReachTheFrontAtItsSize();
    void zeroSizeBeforeTheFirstFrameIsHandedOn();
    void afterAFailureTheFrontKeepsItsLastFrame();
    void waylandSessionsPointToModeOne_data();
    void waylandSessionsPointToModeOne();

private:
    QTemporaryDir m_configDir;
    DeskCaptureOption m_option;
    std::shared_ptr<FakeGraphicsCapture> m_runtime;
    std::shared_ptr<Fakes::CaptureJournal> m_journal;
};

void WgcFrontTest::initTestCase()
{
    QStandardPaths::setTestModeEnabled(true);
    QVERIFY(m_configDir.isValid());
    ConfigurationManager::setConfigPath(m_configDir.path());
    ConfigurationManager::instance()->setGlobalValue("devUpdateInterval", 5);
    m_option.setTotalOfMode(3);
    m_option.setModeNames({"DXGI", "WinRT", "GDI"});
}

void WgcFrontTest::init()
{
    m_runtime = std::make_shared<FakeGraphicsCapture>();
    m_journal = std::make_shared<Fakes::CaptureJournal>();
    m_option.setCurMode(1);
}

void WgcFrontTest::withoutContractTheFrontLogsItsFailure()
{
    m_runtime->contractPresent = false;
    MessageCapture log;
    WinDeskCapture front(&m_option, backends(m_runtime, m_journal), nullptr);
    QCOMPARE(front.setCaptureContext(contextFor(0x10)), 0L);
    QVERIFY(log.contains(QtCriticalMsg, QStringLiteral("[WinRTCapturer]: Current system cannot support")));
    QVERIFY2(log.contains(QtCriticalMsg, QStringLiteral("Failed to set capture context, monitor:  0x10")),
        qPrintable(log.all().join(QLatin1Char('\n'))));
    QVERIFY(front.nextFrame().empty());
    QCOMPARE(front.outputSize(), QSize(-1, -1));
}

void WgcFrontTest::framesReachTheFrontAtItsSize()
{
    MessageCapture log;
    WinDeskCapture front(&m_option, backends(m_runtime, m_journal), nullptr);
    QCOMPARE(front.setCaptureContext(contextFor(0x10)), 0L);
    QVERIFY(log.contains(QtInfoMsg, QStringLiteral("[WinDeskCapture]: Using WINRT capture monitor  0x10")));
    front.setOutputSize(QSize(32, 16));
    QTRY_VERIFY_WITH_TIMEOUT(!front.nextFrame().empty(), 10000);
    const cv::Mat frame = front.nextFrame();
    QCOMPARE(frame.cols, 32);
    QCOMPARE(frame.rows, 16);
    QCOMPARE(frame.type(), DeskFrameType);
    QCOMPARE(front.originSize(), QSize(64, 32));
}

void WgcFrontTest::zeroSizeBeforeTheFirstFrameIsHandedOn()
{
    m_runtime->framesAvailable = false;
    WinDeskCapture front(&m_option, backends(m_runtime, m_journal), nullptr);
    QCOMPARE(front.setCaptureContext(contextFor(0x10)), 0L);
    QCOMPARE(front.outputSize(), QSize(0, 0));
    m_option.setCurMode(2);
    QTRY_COMPARE_WITH_TIMEOUT(m_journal->made, 1, 10000);
    QTRY_COMPARE_WITH_TIMEOUT(m_journal->sizesSet.size(), 1, 10000);
    QCOMPARE(m_journal->sizesSet.first(), QSize(0, 0));
}

void WgcFrontTest::afterAFailureTheFrontKeepsItsLastFrame()
{
    WinDeskCapture front(&m_option, backends(m_runtime, m_journal), nullptr);
    QCOMPARE(front.setCaptureContext(contextFor(0x10)), 0L);
    QTRY_VERIFY_WITH_TIMEOUT(!front.nextFrame().empty(), 10000);
    const cv::Mat last = front.nextFrame();
    MessageCapture log;
    m_runtime->results["Pool::tryGetNextFrame"] = E_FAIL;
    const QString closed = QStringLiteral("[WinRTCapturer]: An exception occurred while processing the winrt capture ");
    QTRY_VERIFY_WITH_TIMEOUT(log.texts(QtCriticalMsg).filter(closed).size() >= 3, 10000);
    QVERIFY(m_runtime->poolClosed);
    const cv::Mat still = front.nextFrame();
    QCOMPARE(still.data, last.data);
}

void WgcFrontTest::waylandSessionsPointToModeOne_data()
{
    QTest::addColumn<QByteArray>("waylandDisplay");
    QTest::addColumn<QByteArray>("sessionType");
    QTest::addColumn<int>("mode");
    QTest::addColumn<QString>("obstacle");
    // Where no compositor answers, the screen-copying modes say so; a session
    // that calls itself Wayland without a compositor's socket is an X one.
#ifdef Q_OS_WIN
    const QString unreachable;
#else
    const QString unreachable = QStringLiteral("the Wayland compositor cannot be reached");
#endif
    QTest::newRow("unreachable wayland display, blit")
        << QByteArray("orvanta-no-such-display") << QByteArray() << 2 << unreachable;
    QTest::newRow("unreachable wayland display, duplication")
        << QByteArray("orvanta-no-such-display") << QByteArray("wayland") << 0 << unreachable;
    QTest::newRow("wayland session without its socket, duplication")
        << QByteArray() << QByteArray("wayland") << 0 << QString();
    QTest::newRow("wayland, graphics capture")
        << QByteArray("orvanta-no-such-display") << QByteArray("wayland") << 1 << QString();
    QTest::newRow("x11 session, blit") << QByteArray() << QByteArray("x11") << 2 << QString();
}

void WgcFrontTest::waylandSessionsPointToModeOne()
{
    QFETCH(QByteArray, waylandDisplay);
    QFETCH(QByteArray, sessionType);
    QFETCH(int, mode);
    QFETCH(QString, obstacle);
    QTemporaryDir runtime;
    QVERIFY(runtime.isValid());
    ScopedEnv display("WAYLAND_DISPLAY", waylandDisplay);
    ScopedEnv session("XDG_SESSION_TYPE", sessionType);
    ScopedEnv runtimeDir("XDG_RUNTIME_DIR", runtime.path().toLocal8Bit());
    MessageCapture log;
    std::unique_ptr<IDeskCapture> backend(Orvanta::createDeskCaptureBackend(mode));
    QVERIFY(backend);
    const QString line = QStringLiteral("[WinDeskCapture]: Capture mode %1 cannot read the screen here: %2; choose "
                                        "capture mode 1 (WinRT), which captures through the desktop portal")
                             .arg(mode)
                             .arg(obstacle);
    QCOMPARE(log.count(QtWarningMsg, line), obstacle.isEmpty() ? 0 : 1);
    QCOMPARE(log.texts(QtWarningMsg).size(), obstacle.isEmpty() ? 0 : 1);
}

QTEST_GUILESS_MAIN(WgcFrontTest)
#include "tst_wgc_front.moc"
