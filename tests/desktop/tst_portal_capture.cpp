#include "ConfigurationManager.h"
#include "DeskCaptureBackends.h"
#include "DeskCaptureOption.h"
#include "DeskDuplManager.h"
#include "Helpers.h"
#include "ResultCodes.h"
#include "WinDeskCapture.h"
#include "WinRTCapturer.h"

#include "MessageCapture.h"
#include "fakes/FakeDisplaySystem.h"

#include <QtTest/QtTest>

#include <atomic>
#include <csignal>
#include <thread>

namespace {

const QString ProcessingError
    = QStringLiteral("[WinRTCapturer]: An exception occurred while processing the winrt capture");

QString quoted(const QString& text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

int portalRecord(const char* variable)
{
    QFile file(QString::fromLocal8Bit(qgetenv(variable)));
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

/// Polls the front's newest frame until one of @p width comes (an empty matrix after 20 s).
cv::Mat waitForFrontFrame(WinDeskCapture& front, int width)
{
    QDeadlineTimer deadline(20000);
    while (!deadline.hasExpired()) {
        cv::Mat frame = front.nextFrame();
        if (!frame.empty() && frame.cols == width)
            return frame;
        QTest::qWait(20);
    }
    return cv::Mat();
}

/// The file through which the stand-in portal's user leaves the dialog open.
QString portalHoldFile()
{
    return QFileInfo(QString::fromLocal8Bit(qgetenv("ORVANTA_PORTAL_DIALOGS")))
        .dir()
        .filePath(QStringLiteral("portal-hold"));
}

QByteArray portalHoldState()
{
    QFile file(portalHoldFile());
    return file.open(QIODevice::ReadOnly) ? file.readAll().trimmed() : QByteArray();
}

void setPortalHold(const QByteArray& state)
{
    QFile file(portalHoldFile());
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(state);
}

/// Writes @p content into the stand-in portal's file @p name for one scope.
class PortalSideFile
{
public:
    PortalSideFile(const QString& name, const QByteArray& content)
        : m_file(QFileInfo(QString::fromLocal8Bit(qgetenv("ORVANTA_PORTAL_DIALOGS"))).dir().filePath(name))
    {
        if (m_file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            m_file.write(content);
        m_file.close();
    }
    ~PortalSideFile()
    {
        m_file.remove();
    }

private:
    QFile m_file;
};

/// The restore tokens as the configuration file on disk holds them.
QJsonObject savedRestoreTokens(const QString& configDir)
{
    QFile file(QDir(configDir).filePath(QStringLiteral("global.json")));
    if (!file.open(QIODevice::ReadOnly))
        return QJsonObject();
    return QJsonDocument::fromJson(file.readAll())
        .object()
        .value(QStringLiteral("screenCaptureRestoreTokens"))
        .toObject();
}

/// A context for one output of the desktop, as the registry makes them.
DeskCaptureContext outputContext(const QString& name, const QRect& position)
{
    DeskCaptureContext context;
    context.monitor = 0x1001;
    context.deviceName = name;
    context.position = position;
    context.width = position.width();
    context.height = position.height();
    return context;
}

/// Two outputs side by side, for a registry whose mode 1 is the portal.
std::shared_ptr<Fakes::FakeDisplaySystem> twoOutputs()
{
    auto system = std::make_shared<Fakes::FakeDisplaySystem>();
    auto adapter = system->addAdapter(L"Fake GPU");
    adapter->addOutput(L"\\\\.\\DISPLAY1", 0, 0, 640, 360, 0x1001);
    adapter->addOutput(L"\\\\.\\DISPLAY2", 640, 0, 640, 360, 0x1002);
    return system;
}

/// Makes the portal hand out nodes of @p command for one scope.
class PortalSourceProgram
{
public:
    explicit PortalSourceProgram(const QByteArray& command)
        : m_file(QString::fromLocal8Bit(qgetenv("ORVANTA_PORTAL_SOURCE")))
    {
        if (m_file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            m_file.write(command);
        m_file.close();
    }
    ~PortalSourceProgram()
    {
        m_file.open(QIODevice::WriteOnly | QIODevice::Truncate);
    }

private:
    QFile m_file;
};

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
    void theCursorIsEmbedded();
    void theConsentOutlivesTheProcess();
    void eachOutputKeepsItsOwnConsent();
    void aTokenThePortalFailsOnFallsBackToTheQuestion();
    void aTokenThePortalNoLongerKnowsIsAnsweredAnew();
    void aUserWhoPicksAnotherOutputIsLogged();
    void aPortalWithoutPersistenceIsLoggedOnce();
    void aDmaBufSourceGivesFramesWithItsColours();
    void onlyWhatChangedMovesAndNothingIsLeftBehind();
    void anOpenDialogDoesNotHoldTheRegistry();
    void eachOutputIsAskedOncePerSession();
    void everyTransformGivesThePictureAsTheUserSeesIt_data();
    void everyTransformGivesThePictureAsTheUserSeesIt();
    void stoppingTheServerEndsTheSessionForGood(); // stops the fixture's PipeWire: keep last

private:
    QTemporaryDir m_configDir;
    DeskCaptureOption m_option;
};

void PortalCaptureTest::initTestCase()
{
    QStandardPaths::setTestModeEnabled(true);
    QVERIFY(m_configDir.isValid());
    ConfigurationManager::setConfigPath(m_configDir.path());
    ConfigurationManager::instance()->setGlobalValue("devUpdateInterval", 10);
    m_option.setTotalOfMode(3);
    m_option.setModeNames({"DXGI", "WinRT", "GDI"});
    m_option.setCurMode(1);
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
    WinDeskCapture front(&m_option, nullptr);
    QCOMPARE(front.setCaptureContext(DeskCaptureContext()), 0L);
    QVERIFY(log.contains(QtInfoMsg, QStringLiteral("[WinDeskCapture]: Using WINRT capture monitor  0x0")));
    QVERIFY(log.contains(
        QtWarningMsg, QStringLiteral("The monitor handle is null, we will try to get the primary monitor handle")));
    QCOMPARE(front.originSize(), QSize(640, 360));
    front.setOutputSize(QSize(224, 126));

    const cv::Mat frame = waitForFrontFrame(front, 224);
    QCOMPARE(frame.type(), DeskFrameType);
    QCOMPARE(frame.cols, 224);
    QCOMPARE(frame.rows, 126);
    QCOMPARE(front.outputSize(), QSize(224, 126));

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
    WinDeskCapture front(&m_option, nullptr);
    QCOMPARE(front.setCaptureContext(DeskCaptureContext()), 0L);
    // No size chosen: the first frame comes at the item's size.
    QCOMPARE(waitForFrontFrame(front, 640).rows, 360);
    QCOMPARE(front.outputSize(), QSize(640, 360));
    front.setOutputSize(QSize(320, 180));
    const cv::Mat frame = waitForFrontFrame(front, 320);
    QCOMPARE(frame.cols, 320);
    QCOMPARE(frame.rows, 180);
    front.setOutputSize(QSize(64, 36));
    QCOMPARE(waitForFrontFrame(front, 64).rows, 36);
}

void PortalCaptureTest::theUserIsAskedOnce()
{
    int asked = -1;
    {
        // The first session of this process may ask (once per process, whatever ran before).
        WinRTCapturer capturer;
        QCOMPARE(capturer.setCaptureContext(DeskCaptureContext()), 0L);
        QVERIFY(!waitForFrame(capturer).empty());
        asked = portalRecord("ORVANTA_PORTAL_DIALOGS");
        QVERIFY(asked >= 1);
    }
    for (int i = 0; i < 2; ++i) {
        WinRTCapturer capturer;
        QCOMPARE(capturer.setCaptureContext(DeskCaptureContext()), 0L);
        QVERIFY(!waitForFrame(capturer).empty());
    }
    QCOMPARE(portalRecord("ORVANTA_PORTAL_DIALOGS"), asked);
}

void PortalCaptureTest::theCursorIsEmbedded()
{
    WinRTCapturer capturer;
    QCOMPARE(capturer.setCaptureContext(DeskCaptureContext()), 0L);
    QCOMPARE(portalRecord("ORVANTA_PORTAL_CURSOR"), 2); // embedded in the picture
}

void PortalCaptureTest::theConsentOutlivesTheProcess()
{
    const QString output = QStringLiteral("CONSENT-1");
    const int before = portalRecord("ORVANTA_PORTAL_DIALOGS");
    {
        WinRTCapturer capturer;
        QCOMPARE(capturer.setCaptureContext(outputContext(output, QRect(0, 0, 640, 360))), 0L);
        QVERIFY(!waitForFrame(capturer).empty());
    }
    QCOMPARE(portalRecord("ORVANTA_PORTAL_DIALOGS"), before + 1);
    QCOMPARE(portalRecord("ORVANTA_PORTAL_PERSIST"), 2); // until the user revokes it
    // The token is on disk at once: a process started now finds it.
    const QString first = savedRestoreTokens(m_configDir.path()).value(output).toString();
    QVERIFY(!first.isEmpty());

    // The next session hands it in: nobody is asked, and its new token replaces the old one.
    {
        WinRTCapturer capturer;
        QCOMPARE(capturer.setCaptureContext(outputContext(output, QRect(0, 0, 640, 360))), 0L);
        QVERIFY(!waitForFrame(capturer).empty());
    }
    QCOMPARE(portalRecord("ORVANTA_PORTAL_DIALOGS"), before + 1);
    const QString second = savedRestoreTokens(m_configDir.path()).value(output).toString();
    QVERIFY(!second.isEmpty());
    QVERIFY(second != first);
}

void PortalCaptureTest::eachOutputKeepsItsOwnConsent()
{
    const int before = portalRecord("ORVANTA_PORTAL_DIALOGS");
    const QString left = QStringLiteral("CONSENT-LEFT");
    const QString right = QStringLiteral("CONSENT-RIGHT");
    {
        PortalSideFile position(QStringLiteral("portal-position"), "0,0");
        WinRTCapturer capturer;
        QCOMPARE(capturer.setCaptureContext(outputContext(left, QRect(0, 0, 640, 360))), 0L);
    }
    {
        PortalSideFile position(QStringLiteral("portal-position"), "640,0");
        WinRTCapturer capturer;
        QCOMPARE(capturer.setCaptureContext(outputContext(right, QRect(640, 0, 640, 360))), 0L);
    }
    // One question for each output: the consent for the first does not stand for the second.
    QCOMPARE(portalRecord("ORVANTA_PORTAL_DIALOGS"), before + 2);
    const QJsonObject tokens = savedRestoreTokens(m_configDir.path());
    QVERIFY(!tokens.value(left).toString().isEmpty());
    QVERIFY(!tokens.value(right).toString().isEmpty());
    QVERIFY(tokens.value(left) != tokens.value(right));
    {
        PortalSideFile position(QStringLiteral("portal-position"), "640,0");
        MessageCapture log;
        WinRTCapturer capturer;
        QCOMPARE(capturer.setCaptureContext(outputContext(right, QRect(640, 0, 640, 360))), 0L);
        QVERIFY(log.texts(QtWarningMsg).isEmpty());
    }
    QCOMPARE(portalRecord("ORVANTA_PORTAL_DIALOGS"), before + 2);
}

void PortalCaptureTest::aTokenThePortalFailsOnFallsBackToTheQuestion()
{
    const QString output = QStringLiteral("STALE-1");
    ConfigurationManager::instance()->setGlobalValue(
        QStringList {QStringLiteral("screenCaptureRestoreTokens"), output}, QStringLiteral("forgotten-token"));
    PortalSideFile stale(QStringLiteral("portal-stale-tokens"), "fail");
    const int before = portalRecord("ORVANTA_PORTAL_DIALOGS");
    MessageCapture log;
    WinRTCapturer capturer;
    QCOMPARE(capturer.setCaptureContext(outputContext(output, QRect(0, 0, 640, 360))), 0L);
    QVERIFY(!waitForFrame(capturer).empty());
    QCOMPARE(log.texts(QtInfoMsg).count(QStringLiteral(
                 "[WinRTCapturer]: The portal refused the consent kept for STALE-1; the user was asked again")),
        1);
    QCOMPARE(portalRecord("ORVANTA_PORTAL_DIALOGS"), before + 1);
    const QString kept = savedRestoreTokens(m_configDir.path()).value(output).toString();
    QVERIFY(!kept.isEmpty());
    QVERIFY(kept != QStringLiteral("forgotten-token"));
}

void PortalCaptureTest::aTokenThePortalNoLongerKnowsIsAnsweredAnew()
{
    // Most portals ask the user again over a token they do not know.
    const QString output = QStringLiteral("STALE-2");
    ConfigurationManager::instance()->setGlobalValue(
        QStringList {QStringLiteral("screenCaptureRestoreTokens"), output}, QStringLiteral("forgotten-token"));
    const int before = portalRecord("ORVANTA_PORTAL_DIALOGS");
    WinRTCapturer capturer;
    QCOMPARE(capturer.setCaptureContext(outputContext(output, QRect(0, 0, 640, 360))), 0L);
    QCOMPARE(portalRecord("ORVANTA_PORTAL_DIALOGS"), before + 1);
    const QString kept = savedRestoreTokens(m_configDir.path()).value(output).toString();
    QVERIFY(!kept.isEmpty());
    QVERIFY(kept != QStringLiteral("forgotten-token"));
}

void PortalCaptureTest::aUserWhoPicksAnotherOutputIsLogged()
{
    PortalSideFile position(QStringLiteral("portal-position"), "640,0");
    MessageCapture log;
    WinRTCapturer capturer;
    QCOMPARE(capturer.setCaptureContext(outputContext(QStringLiteral("\\\\.\\DISPLAY1"), QRect(0, 0, 640, 360))), 0L);
    QCOMPARE(log.texts(QtWarningMsg),
        QStringList {
            QStringLiteral("[WinRTCapturer]: The user picked another output than \\\\.\\DISPLAY1 (640x360 at "
                           "0,0): capturing the picked one (640x360 at 640,0) for now, without keeping the choice")});
    QVERIFY(!savedRestoreTokens(m_configDir.path()).contains(QStringLiteral("\\\\.\\DISPLAY1")));
    // What the user picked is what comes.
    QVERIFY(!waitForFrame(capturer).empty());
}

void PortalCaptureTest::aPortalWithoutPersistenceIsLoggedOnce()
{
    PortalSideFile version(QStringLiteral("portal-version"), "3");
    const QString output = QStringLiteral("SESSION-ONLY");
    const int before = portalRecord("ORVANTA_PORTAL_DIALOGS");
    MessageCapture log;
    for (int i = 0; i < 2; ++i) {
        WinRTCapturer capturer;
        QCOMPARE(capturer.setCaptureContext(outputContext(output, QRect(0, 0, 640, 360))), 0L);
    }
    QCOMPARE(log.count(QtWarningMsg,
                 QStringLiteral("[WinRTCapturer]: The desktop portal keeps no consent beyond a session (it needs "
                                "ScreenCast version 4 with restore tokens): the user is asked at every start")),
        1);
    QCOMPARE(portalRecord("ORVANTA_PORTAL_DIALOGS"), before + 2);
    QVERIFY(!savedRestoreTokens(m_configDir.path()).contains(output));
}

void PortalCaptureTest::aDmaBufSourceGivesFramesWithItsColours()
{
    // The portal hands out a source that allocates DMA-BUFs, as compositors do.
    // Whether the GPU imports them or the CPU reads them, the front sees the same frames.
    PortalSourceProgram program(QByteArray(ORVANTA_DMABUF_SOURCE));
    WinDeskCapture front(&m_option, nullptr);
    QCOMPARE(front.setCaptureContext(DeskCaptureContext()), 0L);
    QCOMPARE(front.originSize(), QSize(640, 360));
    front.setOutputSize(QSize(64, 36));
    const cv::Mat frame = waitForFrontFrame(front, 64);
    QCOMPARE(frame.rows, 36);
    // Red, green, blue and white quadrants, in R, G, B order.
    const int quadrants[4][2] = {{8, 8}, {56, 8}, {8, 28}, {56, 28}};
    const int colours[4][3] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 255}};
    for (int q = 0; q < 4; ++q) {
        const cv::Vec4b p = frame.at<cv::Vec4b>(quadrants[q][1], quadrants[q][0]);
        for (int c = 0; c < 3; ++c)
            QVERIFY2(std::abs(p[c] - colours[q][c]) <= 2,
                qPrintable(QStringLiteral("quadrant %1: %2,%3,%4").arg(q).arg(p[0]).arg(p[1]).arg(p[2])));
    }
}

void PortalCaptureTest::onlyWhatChangedMovesAndNothingIsLeftBehind()
{
    // A source in shared memory that names what changed: a black square
    // moving along the middle row. Frames move only those parts to the GPU;
    // had a part been missed, the square would leave a trail of black behind.
    PortalSourceProgram program(QByteArray(ORVANTA_DMABUF_SOURCE) + " --shm");
    WinRTCapturer capturer;
    QCOMPARE(capturer.setCaptureContext(DeskCaptureContext()), 0L);
    capturer.setOutputSize(QSize(640, 360));
    QSet<int> places;
    for (int i = 0; i < 30; ++i) {
        const cv::Mat frame = waitForFrame(capturer);
        QVERIFY(!frame.empty());
        QCOMPARE(frame.cols, 640);
        int black = 0;
        int first = -1;
        for (int x = 0; x < frame.cols; ++x) {
            const cv::Vec4b p = frame.at<cv::Vec4b>(180, x);
            if (p[0] < 8 && p[1] < 8 && p[2] < 8) {
                ++black;
                first = first < 0 ? x : first;
            }
        }
        QVERIFY2(
            black == 16, qPrintable(QStringLiteral("frame %1: %2 black pixels in the middle row").arg(i).arg(black)));
        places.insert(first);
        const cv::Vec4b red = frame.at<cv::Vec4b>(90, 100);
        QVERIFY(red[0] >= 253 && red[1] <= 2 && red[2] <= 2);
        QTest::qWait(10);
    }
    QVERIFY(places.size() > 5); // the square did move
}

void PortalCaptureTest::anOpenDialogDoesNotHoldTheRegistry()
{
    ConfigurationManager::instance()->setGlobalValue("screenCaptureMode", 1);
    DeskDuplManager registry(twoOutputs(), &Orvanta::createDeskCaptureBackend);
    QCOMPARE(registry.allCapturer(), (QList<QString> {"DISPLAY1-A0-O0", "DISPLAY2-A0-O1"}));

    // The user leaves the portal's dialog open until the other thread is done.
    setPortalHold("hold");
    qint64 slowest = -1;
    QString desc;
    QJsonObject metadata;
    std::atomic<bool> sawDialog {false};
    std::atomic<bool> done {false};
    // The user answers when the other thread is done, or after two seconds at most.
    std::thread user([&] {
        QElapsedTimer open;
        open.start();
        while (portalHoldState() != "held" && open.elapsed() < 20000)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        open.restart();
        while (!done.load() && open.elapsed() < 2000)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        setPortalHold(QByteArray());
    });
    std::thread other([&] {
        QElapsedTimer wait;
        wait.start();
        while (portalHoldState() != "held" && wait.elapsed() < 20000)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        sawDialog = portalHoldState() == "held";
        QElapsedTimer call;
        call.start();
        desc = registry.capturerDesc("DISPLAY2-A0-O1");
        metadata = registry.capturerMetadata("DISPLAY2-A0-O1");
        registry.acquireCapturer("DISPLAY2-A0-O1");
        registry.releaseCapturer("DISPLAY2-A0-O1");
        slowest = call.elapsed();
        done = true;
    });
    QSharedPointer<IDeskCapture> front = registry.acquireCapturer("DISPLAY1-A0-O0");
    other.join();
    done = true;
    user.join();

    QVERIFY(sawDialog);
    QVERIFY(front);
    QCOMPARE(desc, QStringLiteral("DISPLAY2 640x360 (OUT2)"));
    QCOMPARE(metadata.value("id").toString(), QStringLiteral("DISPLAY2-A0-O1"));
    QVERIFY2(slowest >= 0 && slowest < 100, qPrintable(QString::number(slowest)));
    QCOMPARE(registry.acquireCapturer("DISPLAY1-A0-O0"), front);
    registry.releaseCapturer("DISPLAY1-A0-O0");
}

void PortalCaptureTest::eachOutputIsAskedOncePerSession()
{
    ConfigurationManager::instance()->setGlobalValue("screenCaptureMode", 1);
    DeskDuplManager registry(twoOutputs(), &Orvanta::createDeskCaptureBackend);
    auto* option = reinterpret_cast<DeskCaptureOption*>(
        quintptr(QCoreApplication::instance()->property("runtime.options.deskCaptureOption").toLongLong()));
    QVERIFY(option);
    QCOMPARE(option->curMode(), 1);

    // Each Start counts once its answer is out; the sessions start on the fronts' workers.
    const QString starts = QFileInfo(QString::fromLocal8Bit(qgetenv("ORVANTA_PORTAL_DIALOGS")))
                               .dir()
                               .filePath(QStringLiteral("portal-starts"));
    auto started = [&starts] {
        QFile file(starts);
        return file.open(QIODevice::ReadOnly) ? file.readAll().trimmed().toInt() : 0;
    };
    const int before = portalRecord("ORVANTA_PORTAL_DIALOGS");
    int expectedStarts = started() + 2;
    QSharedPointer<IDeskCapture> first = registry.acquireCapturer("DISPLAY1-A0-O0");
    QSharedPointer<IDeskCapture> second = registry.acquireCapturer("DISPLAY2-A0-O1");
    QVERIFY(first && second);
    QTRY_COMPARE_WITH_TIMEOUT(started(), expectedStarts, 20000);
    const int asked = portalRecord("ORVANTA_PORTAL_DIALOGS");
    QVERIFY(asked - before <= 2); // at most once for each output, whatever ran before

    // A mode change away and back rebuilds both fronts' back-ends, each with a
    // session of its own; nobody is asked again.
    option->setCurMode(2);
    QTest::qWait(300);
    expectedStarts = started() + 2;
    option->setCurMode(1);
    QTRY_COMPARE_WITH_TIMEOUT(started(), expectedStarts, 20000);
    QCOMPARE(portalRecord("ORVANTA_PORTAL_DIALOGS"), asked);
}

void PortalCaptureTest::everyTransformGivesThePictureAsTheUserSeesIt_data()
{
    QTest::addColumn<int>("transform");
    QTest::addColumn<int>("turns"); // quarter turns counter-clockwise
    QTest::addColumn<bool>("flipped");
    // The transform is what the compositor did to the picture, so the user sees
    // it undone: a turn the other way, and a flip, which undoes itself, as it is.
    const char* names[8] = {"none", "90", "180", "270", "flipped", "flipped-90", "flipped-180", "flipped-270"};
    for (int transform = 0; transform < 8; ++transform) {
        const bool flipped = transform >= 4;
        QTest::newRow(names[transform]) << transform << (flipped ? transform % 4 : (4 - transform % 4) % 4) << flipped;
    }
}

void PortalCaptureTest::everyTransformGivesThePictureAsTheUserSeesIt()
{
    QFETCH(int, transform);
    QFETCH(int, turns);
    QFETCH(bool, flipped);
    // The buffer holds red, green, blue and white quadrants (top left, top
    // right, bottom left, bottom right). What the user sees is that picture
    // mirrored left to right for a flipped transform, then turned.
    enum Colour { Red, Green, Blue, White };
    Colour seen[2][2] = {{Red, Green}, {Blue, White}};
    if (flipped) {
        for (auto& row : seen)
            std::swap(row[0], row[1]);
    }
    for (int turn = 0; turn < turns; ++turn) {
        const Colour before[2][2] = {{seen[0][0], seen[0][1]}, {seen[1][0], seen[1][1]}};
        // A quarter turn counter-clockwise: the top right corner comes to the top left.
        for (int row = 0; row < 2; ++row) {
            for (int column = 0; column < 2; ++column)
                seen[row][column] = before[column][1 - row];
        }
    }
    const int rgb[4][3] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 255}};

    PortalSourceProgram program(QByteArray(ORVANTA_DMABUF_SOURCE) + " --transform " + QByteArray::number(transform));
    WinDeskCapture front(&m_option, nullptr);
    QCOMPARE(front.setCaptureContext(DeskCaptureContext()), 0L);
    front.setOutputSize(QSize(40, 40));
    // The first frames may come before the stream has named its transform.
    QString got;
    QString expected;
    for (int row = 0; row < 2; ++row) {
        for (int column = 0; column < 2; ++column)
            expected += QString::number(int(seen[row][column]));
    }
    QDeadlineTimer deadline(10000);
    while (got != expected && !deadline.hasExpired()) {
        const cv::Mat frame = waitForFrontFrame(front, 40);
        QVERIFY(!frame.empty());
        QCOMPARE(frame.rows, 40);
        got.clear();
        for (int row = 0; row < 2; ++row) {
            for (int column = 0; column < 2; ++column) {
                const cv::Vec4b p = frame.at<cv::Vec4b>(row * 20 + 10, column * 20 + 10);
                int colour = -1;
                for (int c = 0; c < 4; ++c) {
                    if (std::abs(p[0] - rgb[c][0]) <= 2 && std::abs(p[1] - rgb[c][1]) <= 2
                        && std::abs(p[2] - rgb[c][2]) <= 2)
                        colour = c;
                }
                got += colour < 0 ? QStringLiteral("?") : QString::number(colour);
            }
        }
        if (got != expected)
            QTest::qWait(20);
    }
    QCOMPARE(got, expected);
}

void PortalCaptureTest::stoppingTheServerEndsTheSessionForGood()
{
    WinDeskCapture front(&m_option, nullptr);
    QCOMPARE(front.setCaptureContext(DeskCaptureContext()), 0L);
    front.setOutputSize(QSize(32, 18));
    const cv::Mat last = waitForFrontFrame(front, 32);
    QVERIFY(!last.empty());

    QFile pidFile(QString::fromLocal8Bit(qgetenv("ORVANTA_PIPEWIRE_PIDFILE")));
    QVERIFY(pidFile.open(QIODevice::ReadOnly));
    const qint64 pid = pidFile.readAll().trimmed().toLongLong();
    QVERIFY(pid > 0);
    MessageCapture log;
    QCOMPARE(::kill(pid_t(pid), SIGTERM), 0);

    // The back-end polls on the front's timer: the first failing poll reports the
    // lost server, and every later poll fails on the closed pool, one line each.
    const QString lost = ProcessingError + QLatin1Char(' ') + quoted(win32ErrorMsg(RPC_E_DISCONNECTED));
    const QString closed = ProcessingError + QLatin1Char(' ') + quoted(win32ErrorMsg(RO_E_CLOSED));
    QTRY_VERIFY_WITH_TIMEOUT(log.count(QtCriticalMsg, closed) >= 5, 20000);
    const QStringList critical = log.texts(QtCriticalMsg);
    QCOMPARE(critical.first(), lost);
    QCOMPARE(critical.count(lost), 1);
    QCOMPARE(critical.count(closed), critical.size() - 1);

    // Consumers keep the last picture; the session does not come back.
    const cv::Mat kept = front.nextFrame();
    QCOMPARE(kept.cols, 32);
    QCOMPARE(kept.rows, 18);
    QTest::qWait(200);
    QCOMPARE(front.nextFrame().data, kept.data);
}

QTEST_GUILESS_MAIN(PortalCaptureTest)
#include "tst_portal_capture.moc"
