// Capture mode 1 on a Wayland desktop, against the real desktop portal and
// its wlr back-end on headless sway: each output through a session of its own,
// the user's consent kept per output, the user's choice of output.
#include "ConfigurationManager.h"
#include "DeskCaptureContext.h"
#include "WinRTCapturer.h"

#include "MessageCapture.h"
#include "TestFiles.h"
#include "WaylandFixture.h"

#include <QtGui/QImage>
#include <QtGui/QPainter>
#include <QtTest/QtTest>

#include <memory>

namespace {

const QString PickedAnother = QStringLiteral("[WinRTCapturer]: The user picked another output than");

struct Output
{
    QString name;
    QRect position;
    QColor colour;
};

/// The fixture's desktop: two outputs, each painted one colour.
const Output Left {QStringLiteral("HEADLESS-1"), QRect(0, 0, 1280, 720), QColor(0xc0, 0x30, 0x20)};
const Output Right {QStringLiteral("HEADLESS-2"), QRect(1280, 0, 1920, 1080), QColor(0x20, 0x60, 0xc0)};

DeskCaptureContext contextOf(const Output& output, const QRect& position)
{
    DeskCaptureContext context;
    context.monitor = 0x1001;
    context.deviceName = output.name;
    context.position = position;
    context.width = position.width();
    context.height = position.height();
    return context;
}

DeskCaptureContext contextOf(const Output& output)
{
    return contextOf(output, output.position);
}

bool near(const cv::Vec4b& pixel, const QColor& colour)
{
    return std::abs(pixel[0] - colour.red()) <= 3 && std::abs(pixel[1] - colour.green()) <= 3
        && std::abs(pixel[2] - colour.blue()) <= 3;
}

QString describe(const cv::Vec4b& pixel)
{
    return QStringLiteral("%1,%2,%3").arg(pixel[0]).arg(pixel[1]).arg(pixel[2]);
}

/**
 * A wallpaper drawn on one output by a client of the test, for as long as it
 * lives. The portal's back-end asks the compositor for changed pictures only,
 * so a session on a still output gets its first frame once something is drawn.
 */
class Wallpaper
{
public:
    Wallpaper(const QString& output, const QStringList& arguments)
    {
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_process.setStandardOutputFile(QProcess::nullDevice());
        m_process.start(QStringLiteral("swaybg"), QStringList {QStringLiteral("-o"), output} + arguments);
        m_process.waitForStarted(10000);
    }
    ~Wallpaper()
    {
        m_process.terminate();
        if (!m_process.waitForFinished(5000)) {
            m_process.kill();
            m_process.waitForFinished(5000);
        }
    }
    bool isRunning() const
    {
        return m_process.state() == QProcess::Running;
    }

private:
    QProcess m_process;
};

/// Runs swaymsg with @p arguments; true when it succeeded.
bool sway(const QStringList& arguments)
{
    QProcess process;
    process.start(QStringLiteral("swaymsg"), arguments);
    return process.waitForFinished(10000) && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

/**
 * Polls @p capturer until @p accept takes a frame, calling @p repaint now and
 * then meanwhile; the last frame seen (maybe empty) after 20 s.
 */
template <typename Repaint, typename Accept>
cv::Mat waitForFrame(WinRTCapturer& capturer, Repaint repaint, Accept accept)
{
    QDeadlineTimer deadline(20000);
    cv::Mat last;
    QElapsedTimer sinceRepaint;
    sinceRepaint.start();
    while (!deadline.hasExpired()) {
        cv::Mat frame = capturer.nextFrame();
        if (!frame.empty()) {
            last = frame;
            if (accept(frame))
                return frame;
        }
        if (sinceRepaint.elapsed() > 300) {
            repaint();
            sinceRepaint.restart();
        }
        QTest::qWait(20);
    }
    return last;
}

cv::Mat waitForColour(WinRTCapturer& capturer, const Output& output)
{
    // Nothing moves on the fixture's outputs: the same colour is drawn again now and then.
    std::unique_ptr<Wallpaper> paint;
    return waitForFrame(
        capturer,
        [&] {
            paint.reset();
            paint.reset(new Wallpaper(output.name, {QStringLiteral("-c"), output.colour.name()}));
        },
        [&](const cv::Mat& frame) { return near(frame.at<cv::Vec4b>(frame.rows / 2, frame.cols / 2), output.colour); });
}

} // namespace

class WaylandPortalTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();
    void eachOutputGivesItsColour_data();
    void eachOutputGivesItsColour();
    void bothOutputsAtOnceEachGiveTheirOwn();
    void aStillOutputGivesItsFirstPictureAtItsFirstChange();
    void aSecondSessionOfAnOutputAsksNobody();
    void aStaleTokenFallsBackToTheQuestion();
    void aUserWhoPicksTheOtherOutputIsLogged();
    void aTurnedOutputGivesThePictureAsTheUserSeesIt_data();
    void aTurnedOutputGivesThePictureAsTheUserSeesIt();

private:
    QString savedToken(const QString& output);

    QTemporaryDir m_configDir;
};

void WaylandPortalTest::initTestCase()
{
    QVERIFY2(!qgetenv("WAYLAND_DISPLAY").isEmpty(), "the Wayland fixture did not run");
    QVERIFY2(QFile::exists(fixtureFile("ORVANTA_WAYLAND_CHOICE")), "the Wayland fixture did not run");
    QVERIFY(m_configDir.isValid());
    QStandardPaths::setTestModeEnabled(true);
    ConfigurationManager::setConfigPath(m_configDir.path());
    ConfigurationManager::instance();
}

void WaylandPortalTest::cleanup()
{
    choose(Left.name);
}

QString WaylandPortalTest::savedToken(const QString& output)
{
    // As a process started now would find it: in the file.
    const QJsonObject global
        = QJsonDocument::fromJson(readFile(QDir(m_configDir.path()).filePath(QStringLiteral("global.json")))).object();
    return global.value(QStringLiteral("screenCaptureRestoreTokens")).toObject().value(output).toString();
}

void WaylandPortalTest::eachOutputGivesItsColour_data()
{
    QTest::addColumn<int>("index");
    QTest::newRow("HEADLESS-1") << 0;
    QTest::newRow("HEADLESS-2") << 1;
}

void WaylandPortalTest::eachOutputGivesItsColour()
{
    QFETCH(int, index);
    const Output& output = index == 0 ? Left : Right;
    choose(output.name);
    MessageCapture log;
    WinRTCapturer capturer;
    QCOMPARE(capturer.setCaptureContext(contextOf(output)), 0L);
    QCOMPARE(capturer.originSize(), output.position.size());
    capturer.setOutputSize(QSize(64, 36));
    const cv::Mat frame = waitForColour(capturer, output);
    QVERIFY(!frame.empty());
    QCOMPARE(frame.cols, 64);
    QCOMPARE(frame.rows, 36);
    for (const QPoint& at : {QPoint(2, 2), QPoint(61, 2), QPoint(32, 18), QPoint(2, 33), QPoint(61, 33)}) {
        const cv::Vec4b pixel = frame.at<cv::Vec4b>(at.y(), at.x());
        QVERIFY2(near(pixel, output.colour), qPrintable(describe(pixel)));
    }
    for (const QString& warning : log.texts(QtWarningMsg))
        QVERIFY2(!warning.startsWith(PickedAnother), qPrintable(warning));
}

void WaylandPortalTest::bothOutputsAtOnceEachGiveTheirOwn()
{
    // Two rows capture side by side, each through a session of its own.
    choose(Left.name);
    WinRTCapturer left;
    QCOMPARE(left.setCaptureContext(contextOf(Left)), 0L);
    choose(Right.name);
    WinRTCapturer right;
    QCOMPARE(right.setCaptureContext(contextOf(Right)), 0L);
    left.setOutputSize(QSize(16, 9));
    right.setOutputSize(QSize(16, 9));
    QVERIFY(!waitForColour(left, Left).empty());
    QVERIFY(!waitForColour(right, Right).empty());
    // Both go on delivering their own output, not the one picked last.
    QVERIFY(!waitForColour(left, Left).empty());
    QCOMPARE(left.originSize(), Left.position.size());
    QCOMPARE(right.originSize(), Right.position.size());
}

void WaylandPortalTest::aStillOutputGivesItsFirstPictureAtItsFirstChange()
{
    // The wlr back-end asks the compositor for changed pictures only: a session
    // on an output where nothing moves may get no picture until something
    // does. Whether the compositor repaints on its own in between (a client
    // that went away, another output's change) is its business, so the test
    // only holds that the first change brings the right picture at the latest,
    // and that whatever came before it was the output's too.
    choose(Right.name);
    WinRTCapturer capturer;
    QCOMPARE(capturer.setCaptureContext(contextOf(Right)), 0L);
    capturer.setOutputSize(QSize(16, 9));
    QElapsedTimer still;
    still.start();
    while (still.elapsed() < 500) {
        const cv::Mat early = capturer.nextFrame();
        if (!early.empty()) {
            const cv::Vec4b pixel = early.at<cv::Vec4b>(early.rows / 2, early.cols / 2);
            QVERIFY2(near(pixel, Right.colour), qPrintable(describe(pixel)));
        }
        QTest::qWait(20);
    }
    QVERIFY(!waitForColour(capturer, Right).empty());
}

void WaylandPortalTest::aSecondSessionOfAnOutputAsksNobody()
{
    choose(Right.name);
    const int asked = questions();
    const int restored = restoredSessions();
    {
        WinRTCapturer capturer;
        QCOMPARE(capturer.setCaptureContext(contextOf(Right)), 0L);
        capturer.setOutputSize(QSize(32, 18));
        QVERIFY(!waitForColour(capturer, Right).empty());
    }
    const QString first = savedToken(Right.name);
    QVERIFY(!first.isEmpty());
    const int afterFirst = questions();
    QVERIFY(afterFirst <= asked + 1); // an earlier test may have asked already

    // The user would now pick another output; the kept consent spares the question.
    choose(Left.name);
    MessageCapture log;
    WinRTCapturer capturer;
    QCOMPARE(capturer.setCaptureContext(contextOf(Right)), 0L);
    capturer.setOutputSize(QSize(32, 18));
    QVERIFY(!waitForColour(capturer, Right).empty());
    QCOMPARE(questions(), afterFirst);
    QTRY_VERIFY_WITH_TIMEOUT(restoredSessions() > restored, 5000);
    QVERIFY(log.texts(QtWarningMsg).filter(PickedAnother).isEmpty());
    QVERIFY(!savedToken(Right.name).isEmpty());
}

void WaylandPortalTest::aStaleTokenFallsBackToTheQuestion()
{
    // A token the portal does not know (the user revoked it, or another desktop gave it).
    ConfigurationManager::instance()->setGlobalValue(
        QStringList {QStringLiteral("screenCaptureRestoreTokens"), Left.name},
        QStringLiteral("6d1a7c0e-0000-4000-8000-000000000000"));
    choose(Left.name);
    const int asked = questions();
    WinRTCapturer capturer;
    QCOMPARE(capturer.setCaptureContext(contextOf(Left)), 0L);
    capturer.setOutputSize(QSize(32, 18));
    QVERIFY(!waitForColour(capturer, Left).empty());
    QCOMPARE(questions(), asked + 1);
    const QString kept = savedToken(Left.name);
    QVERIFY(!kept.isEmpty());
    QVERIFY(kept != QStringLiteral("6d1a7c0e-0000-4000-8000-000000000000"));
}

void WaylandPortalTest::aUserWhoPicksTheOtherOutputIsLogged()
{
    // A first start for this output: the user is asked, and picks the other one.
    ConfigurationManager::instance()->setGlobalValue(
        QStringList {QStringLiteral("screenCaptureRestoreTokens"), Left.name}, QString());
    ConfigurationManager::instance()->saveGlobalValues();
    choose(Right.name);
    MessageCapture log;
    WinRTCapturer capturer;
    QCOMPARE(capturer.setCaptureContext(contextOf(Left)), 0L);
    QCOMPARE(log.texts(QtWarningMsg).filter(PickedAnother),
        QStringList {
            QStringLiteral("[WinRTCapturer]: The user picked another output than HEADLESS-1 (1280x720 at 0,0): "
                           "capturing the picked one (1920x1080) for now, without keeping the choice")});
    // What the user picked is what comes, for this session only.
    capturer.setOutputSize(QSize(32, 18));
    QVERIFY(!waitForColour(capturer, Right).empty());
    QCOMPARE(savedToken(Left.name), QString());
}

void WaylandPortalTest::aTurnedOutputGivesThePictureAsTheUserSeesIt_data()
{
    QTest::addColumn<QString>("transform");
    QTest::newRow("90") << QStringLiteral("90");
    QTest::newRow("270") << QStringLiteral("270");
    QTest::newRow("flipped-90") << QStringLiteral("flipped-90");
}

void WaylandPortalTest::aTurnedOutputGivesThePictureAsTheUserSeesIt()
{
    QFETCH(QString, transform);
    // A picture with four quadrants, drawn upright on the turned output.
    const auto& colours = QuadrantColours;
    QTemporaryDir dir;
    const QString file = quadrantPicture(dir);
    QVERIFY(!file.isEmpty());

    QVERIFY(sway({QStringLiteral("output"), Left.name, QStringLiteral("transform"), transform}));
    QVERIFY(sway({QStringLiteral("output"), Left.name, QStringLiteral("bg"), file, QStringLiteral("stretch")}));
    auto restore = qScopeGuard([] {
        sway({QStringLiteral("output"), Left.name, QStringLiteral("transform"), QStringLiteral("normal")});
        sway({QStringLiteral("output"), Left.name, QStringLiteral("bg"), Left.colour.name(),
            QStringLiteral("solid_color")});
    });

    choose(Left.name);
    MessageCapture log;
    WinRTCapturer capturer;
    QCOMPARE(capturer.setCaptureContext(contextOf(Left, QRect(0, 0, 720, 1280))), 0L);
    // The turned output is the one the user picked, whichever way round the stream counts its size.
    QVERIFY(log.texts(QtWarningMsg).filter(PickedAnother).isEmpty());
    capturer.setOutputSize(QSize(36, 64));
    auto quadrantsOf = [&](const cv::Mat& frame) {
        QString seen;
        for (const QPoint& at : {QPoint(9, 16), QPoint(27, 16), QPoint(9, 48), QPoint(27, 48)}) {
            const cv::Vec4b pixel = frame.at<cv::Vec4b>(at.y(), at.x());
            int found = -1;
            for (int c = 0; c < 4; ++c) {
                if (near(pixel, colours[c]))
                    found = c;
            }
            seen += found < 0 ? QStringLiteral("?") : QString::number(found);
        }
        return seen;
    };
    // Frames may come before the stream names its transform; the picture settles.
    // The wallpaper is drawn again now and then: a session gets pictures only
    // when something changes.
    const cv::Mat frame = waitForFrame(
        capturer,
        [&] {
            sway({QStringLiteral("output"), Left.name, QStringLiteral("bg"), file, QStringLiteral("stretch")});
        },
        [&](const cv::Mat& frame) { return quadrantsOf(frame) == QStringLiteral("0123"); });
    QVERIFY(!frame.empty());
    QCOMPARE(frame.cols, 36);
    QCOMPARE(frame.rows, 64);
    QCOMPARE(quadrantsOf(frame), QStringLiteral("0123"));
}

QTEST_GUILESS_MAIN(WaylandPortalTest)
#include "tst_wayland_portal.moc"
