// Capture modes 0 and 2 on a compositor that lets no client copy its outputs:
// ORVANTA_IGNORE_SCREENCOPY hides sway's screencopy, so that the fixture's
// outputs HEADLESS-1 (1280x720 at 0,0, #c03020) and HEADLESS-2 (1920x1080 at
// 1280,0, #2060c0) are read through the real desktop portal's screen cast.

#include "ConfigurationManager.h"
#include "DeskDuplManager.h"
#include "MessageCapture.h"
#include "ResultCodes.h"
#include "ScreenCastConsent.h"
#include "WaylandFixture.h"
#include "ifaces/DesktopDuplicator.h"
#include "ifaces/DisplayAdapter.h"
#include "ifaces/DisplayOutput.h"
#include "ifaces/OutputDuplication.h"
#include "wayland/WaylandDisplaySystem.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QProcess>
#include <QtCore/QScopeGuard>
#include <QtCore/QStandardPaths>
#include <QtCore/QTemporaryDir>
#include <QtGui/QColor>
#include <QtGui/QImage>
#include <QtGui/QPainter>
#include <QtTest/QTest>

#include <opencv2/core.hpp>

#include <functional>
#include <memory>

namespace {

struct Output
{
    QString name;
    QString capturerId;
    QSize size;
    QColor colour;
};

const Output Left {
    QStringLiteral("HEADLESS-1"), QStringLiteral("HEADLESS-1-A0-O0"), QSize(1280, 720), QColor(0xc0, 0x30, 0x20)};
const Output Right {
    QStringLiteral("HEADLESS-2"), QStringLiteral("HEADLESS-2-A0-O1"), QSize(1920, 1080), QColor(0x20, 0x60, 0xc0)};

/// How many screen casts the portal started so far: asked for, or restored from kept consent.
int portalSessions()
{
    return questions() + restoredSessions();
}

/// Paints @p output in @p colour through the compositor, which draws it anew.
bool paint(const QString& output, const QColor& colour)
{
    QProcess process;
    process.start(QStringLiteral("swaymsg"),
        {QStringLiteral("-s"), qEnvironmentVariable("SWAYSOCK"), QStringLiteral("output"), output, QStringLiteral("bg"),
            colour.name(), QStringLiteral("solid_color")});
    return process.waitForFinished(10000) && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

/// Whether a scaler source's middle pixel is @p colour, in the source's byte order.
bool middleIs(const Orvanta::Ifaces::ScalerSource& source, const QColor& colour)
{
    const auto* pixel = static_cast<const std::uint8_t*>(source.pixels)
        + source.bytesPerLine * std::size_t(source.height / 2) + std::size_t(source.width / 2) * 4;
    const bool rgb = source.format == Orvanta::Ifaces::PixelFormat::R8G8B8A8Unorm;
    const int red = rgb ? pixel[0] : pixel[2];
    const int blue = rgb ? pixel[2] : pixel[0];
    return red == colour.red() && pixel[1] == colour.green() && blue == colour.blue();
}

/**
 * Polls @p capturer until a frame shows @p output's colour, repainting the
 * output now and then: the portal's back-end sends a new cast's first
 * picture with the output's first change. The frame, or an empty one after 20 s.
 */
cv::Mat waitForColour(IDeskCapture& capturer, const Output& output)
{
    QElapsedTimer waiting;
    waiting.start();
    QElapsedTimer sincePaint;
    sincePaint.start();
    while (waiting.elapsed() < 20000) {
        const cv::Mat frame = capturer.nextFrame();
        if (pixelIs(frame, frame.rows / 2, frame.cols / 2, output.colour, 3))
            return frame;
        if (sincePaint.elapsed() > 300) {
            paint(output.name, output.colour);
            sincePaint.restart();
        }
        QTest::qWait(20);
    }
    return cv::Mat();
}

/// Acquires from @p duplication until a picture comes whose middle is @p colour, painting it meanwhile.
bool waitForPicture(Orvanta::Ifaces::OutputDuplication& duplication, const Output& output, const QColor& colour)
{
    QElapsedTimer waiting;
    waiting.start();
    while (waiting.elapsed() < 20000) {
        if (duplication.acquireNextFrame(300) == S_OK) {
            Orvanta::Ifaces::ScalerSource source;
            const bool shown = duplication.frameSource(source) == S_OK && source.pixels && middleIs(source, colour);
            duplication.releaseFrame();
            if (shown)
                return true;
        }
        paint(output.name, colour);
    }
    return false;
}

} // namespace

class TestWaylandScreenCast : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();

    void eachOutputGivesItsColour_data();
    void eachOutputGivesItsColour();
    void aStillOutputAnswersNothingChanged();
    void aTurnedOutputComesAsItsUserSeesIt_data();
    void aTurnedOutputComesAsItsUserSeesIt();
    void aChangingPictureArrives();
    void aSecondSessionOfAnOutputAsksNobody_data();
    void aSecondSessionOfAnOutputAsksNobody();

private:
    std::unique_ptr<Orvanta::Ifaces::OutputDuplication> duplicate(const Output& output);

    QTemporaryDir m_configDir;
    Orvanta::Wayland::WaylandDisplaySystem m_system;
};

void TestWaylandScreenCast::initTestCase()
{
    QVERIFY2(!qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"), "the wayland fixture gives the compositor");
    QVERIFY2(QFile::exists(fixtureFile("ORVANTA_WAYLAND_CHOICE")), "the wayland fixture gives the chooser's file");
    qputenv("ORVANTA_IGNORE_SCREENCOPY", "1");
    QStandardPaths::setTestModeEnabled(true);
    QVERIFY(m_configDir.isValid());
    ConfigurationManager::setConfigPath(m_configDir.path());
    ConfigurationManager::instance()->setGlobalValue("devUpdateInterval", 20);
    QCOMPARE(m_system.open(), S_OK);
}

void TestWaylandScreenCast::cleanup()
{
    choose(Left.name);
}

std::unique_ptr<Orvanta::Ifaces::OutputDuplication> TestWaylandScreenCast::duplicate(const Output& output)
{
    std::shared_ptr<Orvanta::Ifaces::DisplayAdapter> adapter;
    if (m_system.enumAdapter(0, adapter) < 0)
        return nullptr;
    for (unsigned index = 0;; ++index) {
        std::shared_ptr<Orvanta::Ifaces::DisplayOutput> found;
        if (adapter->enumOutput(index, found) < 0)
            return nullptr;
        Orvanta::Ifaces::OutputDescription description;
        if (found->describe(description) < 0 || QString::fromStdWString(description.deviceName) != output.name)
            continue;
        auto duplicator = Orvanta::Ifaces::createPlatformDesktopDuplicator(adapter, nullptr, found);
        if (!duplicator)
            return nullptr;
        duplicator->keepConsentIn(std::make_shared<ScreenCastConsent>());
        std::unique_ptr<Orvanta::Ifaces::OutputDuplication> duplication;
        choose(output.name);
        if (duplicator->enumOutput(index) < 0 || duplicator->queryDuplicationOutput() < 0
            || duplicator->duplicateOutput({87}, duplication) < 0)
            return nullptr;
        return duplication;
    }
}

void TestWaylandScreenCast::eachOutputGivesItsColour_data()
{
    addCopyModeRows();
}

void TestWaylandScreenCast::eachOutputGivesItsColour()
{
    QFETCH(int, mode);
    ConfigurationManager::instance()->setGlobalValue("screenCaptureMode", mode);
    MessageCapture messages;
    DeskDuplManager registry;
    for (const Output& output : {Left, Right}) {
        const int sessions = portalSessions();
        choose(output.name);
        QSharedPointer<IDeskCapture> capturer = registry.acquireCapturer(output.capturerId);
        QVERIFY(capturer);
        capturer->setOutputSize(QSize(64, 36));
        QCOMPARE(capturer->originSize(), output.size);
        const cv::Mat frame = waitForColour(*capturer, output);
        QCOMPARE(frame.cols, 64);
        QCOMPARE(frame.rows, 36);
        QVERIFY(pixelIs(frame, 0, 0, output.colour, 3));
        QVERIFY(pixelIs(frame, 35, 63, output.colour, 3));
        QVERIFY2(portalSessions() > sessions, "the picture came through the desktop portal");
    }
    QVERIFY(messages.texts(QtInfoMsg).contains(
        QStringLiteral("[WinDeskCapture]: Capture mode %1 reads the screen through the desktop "
                       "portal's screen cast, one session per output")
            .arg(mode)));
    QCOMPARE(messages.texts(QtWarningMsg), QStringList());
}

void TestWaylandScreenCast::aTurnedOutputComesAsItsUserSeesIt_data()
{
    addCopyModeRows();
}

void TestWaylandScreenCast::aTurnedOutputComesAsItsUserSeesIt()
{
    QFETCH(int, mode);
    ConfigurationManager::instance()->setGlobalValue("screenCaptureMode", mode);
    // Four quadrants, drawn upright on the turned output by the compositor's own wallpaper.
    const auto& colours = QuadrantColours;
    QTemporaryDir dir;
    const QString file = quadrantPicture(dir);
    QVERIFY(!file.isEmpty());
    auto swaymsg = [](const QStringList& arguments) {
        QProcess process;
        process.start(QStringLiteral("swaymsg"),
            QStringList {QStringLiteral("-s"), qEnvironmentVariable("SWAYSOCK")} + arguments);
        return process.waitForFinished(10000) && process.exitStatus() == QProcess::NormalExit
            && process.exitCode() == 0;
    };
    const QStringList showPicture {
        QStringLiteral("output"), Left.name, QStringLiteral("bg"), file, QStringLiteral("stretch")};
    QVERIFY(swaymsg({QStringLiteral("output"), Left.name, QStringLiteral("transform"), QStringLiteral("90")}));
    QVERIFY(swaymsg(showPicture));
    auto restore = qScopeGuard([&] {
        swaymsg({QStringLiteral("output"), Left.name, QStringLiteral("transform"), QStringLiteral("normal")});
        paint(Left.name, Left.colour);
    });

    const int sessions = portalSessions();
    choose(Left.name);
    DeskDuplManager registry;
    QSharedPointer<IDeskCapture> capturer = registry.acquireCapturer(Left.capturerId);
    QVERIFY(capturer);
    capturer->setOutputSize(QSize(36, 64));
    auto quadrantsOf = [&](const cv::Mat& frame) {
        QString seen;
        if (frame.cols != 36 || frame.rows != 64)
            return seen;
        for (const QPoint& at : {QPoint(9, 16), QPoint(27, 16), QPoint(9, 48), QPoint(27, 48)}) {
            int found = -1;
            for (int c = 0; c < 4; ++c) {
                if (pixelIs(frame, at.y(), at.x(), colours[c], 3))
                    found = c;
            }
            seen += found < 0 ? QStringLiteral("?") : QString::number(found);
        }
        return seen;
    };
    // The portal's back-end sends a picture when the output changes: the wallpaper is drawn again meanwhile.
    QElapsedTimer waiting;
    waiting.start();
    QString seen;
    while (waiting.elapsed() < 20000 && seen != QStringLiteral("0123")) {
        seen = quadrantsOf(capturer->nextFrame());
        if (seen != QStringLiteral("0123")) {
            swaymsg(showPicture);
            QTest::qWait(200);
        }
    }
    QCOMPARE(seen, QStringLiteral("0123"));
    QCOMPARE(capturer->originSize(), QSize(720, 1280));
    QVERIFY2(portalSessions() > sessions, "the picture came through the desktop portal");
}

void TestWaylandScreenCast::aStillOutputAnswersNothingChanged()
{
    const int sessions = portalSessions();
    std::unique_ptr<Orvanta::Ifaces::OutputDuplication> duplication = duplicate(Right);
    QVERIFY(duplication);
    QVERIFY(portalSessions() > sessions);
    QCOMPARE(duplication->description().width, 1920u);
    QCOMPARE(duplication->description().height, 1080u);
    QVERIFY(waitForPicture(*duplication, Right, Right.colour));
    // Once the repaints have settled, the still output answers "nothing changed" for the whole timeout.
    QTest::qWait(300);
    while (duplication->acquireNextFrame(200) == S_OK)
        QCOMPARE(duplication->releaseFrame(), S_OK);
    for (int attempt = 0; attempt < 3; ++attempt) {
        QElapsedTimer waited;
        waited.start();
        QCOMPARE(duplication->acquireNextFrame(200), DXGI_ERROR_WAIT_TIMEOUT);
        QVERIFY(waited.elapsed() >= 150);
    }
}

void TestWaylandScreenCast::aChangingPictureArrives()
{
    const int sessions = portalSessions();
    std::unique_ptr<Orvanta::Ifaces::OutputDuplication> duplication = duplicate(Left);
    QVERIFY(duplication);
    QVERIFY(portalSessions() > sessions);
    QVERIFY(waitForPicture(*duplication, Left, Left.colour));
    const QColor yellow(0xe0, 0xd0, 0x10);
    const auto restore = qScopeGuard([] { paint(Left.name, Left.colour); });
    QVERIFY(waitForPicture(*duplication, Left, yellow));
    QVERIFY(waitForPicture(*duplication, Left, Left.colour));
}

void TestWaylandScreenCast::aSecondSessionOfAnOutputAsksNobody_data()
{
    addCopyModeRows();
}

void TestWaylandScreenCast::aSecondSessionOfAnOutputAsksNobody()
{
    QFETCH(int, mode);
    ConfigurationManager::instance()->setGlobalValue("screenCaptureMode", mode);
    {
        choose(Right.name);
        DeskDuplManager registry;
        QSharedPointer<IDeskCapture> capturer = registry.acquireCapturer(Right.capturerId);
        QVERIFY(capturer);
        capturer->setOutputSize(QSize(16, 9));
        QVERIFY(!waitForColour(*capturer, Right).empty());
    }
    const int asked = questions();
    const int sessions = portalSessions();
    // The user would now pick another output; the kept consent spares the question.
    choose(Left.name);
    DeskDuplManager registry;
    QSharedPointer<IDeskCapture> capturer = registry.acquireCapturer(Right.capturerId);
    QVERIFY(capturer);
    capturer->setOutputSize(QSize(16, 9));
    QVERIFY(!waitForColour(*capturer, Right).empty());
    QTRY_VERIFY_WITH_TIMEOUT(portalSessions() > sessions, 5000);
    QCOMPARE(questions(), asked);
}

QTEST_GUILESS_MAIN(TestWaylandScreenCast)
#include "tst_wayland_screencast.moc"
