// Outputs and screen copies against a real Wayland compositor: the fixture's
// headless sway, whose outputs HEADLESS-1 (1280x720 at 0,0, painted #c03020)
// and HEADLESS-2 (1920x1080 at 1280,0, painted #2060c0) stand still.

#include "ConfigurationManager.h"
#include "DeskCaptureBackends.h"
#include "DeskDuplManager.h"
#include "MessageCapture.h"
#include "ResultCodes.h"
#include "ifaces/DesktopDuplicator.h"
#include "ifaces/DisplayAdapter.h"
#include "ifaces/DisplayOutput.h"
#include "ifaces/OutputDuplication.h"
#include "ifaces/ScreenGrabber.h"
#include "wayland/WaylandConnection.h"
#include "wayland/WaylandDisplaySystem.h"
#include "wayland/WaylandScreenGrabber.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QProcess>
#include <QtCore/QRegularExpression>
#include <QtCore/QScopeGuard>
#include <QtCore/QStandardPaths>
#include <QtCore/QTemporaryDir>
#include <QtGui/QImage>
#include <QtGui/QPainter>
#include <QtTest/QTest>

#include <opencv2/core.hpp>

#include <memory>

using Orvanta::Ifaces::OutputDescription;

namespace {

const QColor kFirstColour(0xc0, 0x30, 0x20);
const QColor kSecondColour(0x20, 0x60, 0xc0);

/// Runs swaymsg against the fixture's compositor; its standard output, or a null array on failure.
QByteArray swaymsg(const QStringList& arguments)
{
    QProcess process;
    process.start(QStringLiteral("swaymsg"), QStringList {"-s", qEnvironmentVariable("SWAYSOCK")} + arguments);
    if (!process.waitForFinished(10000) || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
        return QByteArray();
    return process.readAllStandardOutput();
}

/// Whether a frame's pixel (R, G, B, A) is @p colour, within what scaling may round.
bool pixelIs(const cv::Mat& frame, int row, int col, const QColor& colour)
{
    if (frame.empty() || row >= frame.rows || col >= frame.cols)
        return false;
    const cv::Vec4b pixel = frame.at<cv::Vec4b>(row, col);
    return qAbs(pixel[0] - colour.red()) <= 2 && qAbs(pixel[1] - colour.green()) <= 2
        && qAbs(pixel[2] - colour.blue()) <= 2;
}

/// Whether a B, G, R, padding picture's pixel is @p colour.
bool bgrxIs(const std::uint8_t* pixels, std::size_t bytesPerLine, int row, int col, const QColor& colour)
{
    const std::uint8_t* pixel = pixels + bytesPerLine * std::size_t(row) + std::size_t(col) * 4;
    return pixel[2] == colour.red() && pixel[1] == colour.green() && pixel[0] == colour.blue();
}

/// A wallpaper client that paints one output as long as it lives.
class Wallpaper
{
public:
    Wallpaper(const QString& output, const QStringList& arguments)
    {
        m_process.start(QStringLiteral("swaybg"), QStringList {"-o", output} + arguments);
    }
    ~Wallpaper()
    {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
    bool isRunning()
    {
        return m_process.waitForStarted(5000);
    }

private:
    QProcess m_process;
};

/// The compositor's output named @p name through a display system of its own.
std::shared_ptr<Orvanta::Ifaces::DisplayOutput> findOutput(
    Orvanta::Ifaces::DisplayAdapter& adapter, const QString& name, unsigned* index = nullptr)
{
    for (unsigned number = 0;; ++number) {
        std::shared_ptr<Orvanta::Ifaces::DisplayOutput> output;
        if (adapter.enumOutput(number, output) < 0)
            return nullptr;
        OutputDescription description;
        if (output->describe(description) == S_OK && QString::fromStdWString(description.deviceName) == name) {
            if (index)
                *index = number;
            return output;
        }
    }
}

/// The names of the outputs the adapter lists now.
QStringList outputNames(Orvanta::Ifaces::DisplayAdapter& adapter)
{
    QStringList names;
    for (unsigned number = 0;; ++number) {
        std::shared_ptr<Orvanta::Ifaces::DisplayOutput> output;
        if (adapter.enumOutput(number, output) < 0)
            return names;
        OutputDescription description;
        if (output->describe(description) == S_OK)
            names << QString::fromStdWString(description.deviceName);
    }
}

void addCopyModeRows()
{
    QTest::addColumn<int>("mode");
    QTest::newRow("duplication") << 0;
    QTest::newRow("blit") << 2;
}

} // namespace

class TestWaylandDisplay : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void rowsNameEveryOutput();
    void outputsDescribeThemselves();
    void addedAndRemovedOutputsAreFollowed();
    void eachOutputGivesItsColour_data();
    void eachOutputGivesItsColour();
    void turnedOutputComesAsItsUserSeesIt_data();
    void turnedOutputComesAsItsUserSeesIt();
    void stillOutputGivesOneFrameThenWaits();
    void outputTakenAwayWhileCapturing();

private:
    QTemporaryDir m_configDir;
    QTemporaryDir m_pictures;
};

void TestWaylandDisplay::initTestCase()
{
    QVERIFY2(!qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"), "the wayland fixture gives the compositor");
    QVERIFY2(!qEnvironmentVariableIsEmpty("SWAYSOCK"), "the wayland fixture gives sway's socket");
    QStandardPaths::setTestModeEnabled(true);
    QVERIFY(m_configDir.isValid());
    QVERIFY(m_pictures.isValid());
    ConfigurationManager::setConfigPath(m_configDir.path());
    ConfigurationManager::instance()->setGlobalValue("devUpdateInterval", 20);
}

void TestWaylandDisplay::init()
{
    ConfigurationManager::instance()->setGlobalValue("screenCaptureMode", 2);
}

void TestWaylandDisplay::rowsNameEveryOutput()
{
    MessageCapture messages;
    DeskDuplManager registry;
    QCOMPARE(registry.allCapturer(), (QList<QString> {"HEADLESS-1-A0-O0", "HEADLESS-2-A0-O1"}));
    QCOMPARE(registry.defaultCapturer(), QStringLiteral("HEADLESS-1-A0-O0"));
    QCOMPARE(registry.capturerDesc("HEADLESS-1-A0-O0"), QStringLiteral("1280x720 (OUT1)"));
    QCOMPARE(registry.capturerDesc("HEADLESS-2-A0-O1"), QStringLiteral("1920x1080 (OUT2)"));
    const QJsonObject first {{"id", "HEADLESS-1-A0-O0"}, {"deviceName", "HEADLESS-1"}, {"width", 1280}, {"height", 720},
        {"x", 0}, {"y", 0}, {"desc", "1280x720 (OUT1)"}};
    const QJsonObject second {{"id", "HEADLESS-2-A0-O1"}, {"deviceName", "HEADLESS-2"}, {"width", 1920},
        {"height", 1080}, {"x", 1280}, {"y", 0}, {"desc", "1920x1080 (OUT2)"}};
    QCOMPARE(registry.capturerMetadata("HEADLESS-1-A0-O0"), first);
    QCOMPARE(registry.capturerMetadata("HEADLESS-2-A0-O1"), second);
    QVERIFY(messages.contains(
        QtInfoMsg, QStringLiteral("GPU:  \"Wayland compositor %1\"").arg(qEnvironmentVariable("WAYLAND_DISPLAY"))));
    QVERIFY(messages.contains(QtInfoMsg, "DXGIAdapter index:  0"));
    QVERIFY(messages.contains(QtInfoMsg, "A total of 2 desktop replication interfaces were built"));
    QVERIFY(messages.texts(QtCriticalMsg).isEmpty());
    QVERIFY(messages.texts(QtWarningMsg).isEmpty());
}

void TestWaylandDisplay::outputsDescribeThemselves()
{
    Orvanta::Wayland::WaylandDisplaySystem system;
    QCOMPARE(system.open(), S_OK);
    QVERIFY(system.hasAdministratorRights());
    QVERIFY(system.devicesOptional());
    std::shared_ptr<Orvanta::Ifaces::DisplayAdapter> adapter;
    QCOMPARE(system.enumAdapter(0, adapter), S_OK);
    std::shared_ptr<Orvanta::Ifaces::DisplayAdapter> none;
    QCOMPARE(system.enumAdapter(1, none), DXGI_ERROR_NOT_FOUND);

    std::shared_ptr<Orvanta::Ifaces::DisplayOutput> output;
    QCOMPARE(adapter->enumOutput(1, output), S_OK);
    OutputDescription description;
    QCOMPARE(output->describe(description), S_OK);
    QCOMPARE(QString::fromStdWString(description.deviceName), QStringLiteral("HEADLESS-2"));
    QCOMPARE(description.left, 1280L);
    QCOMPARE(description.top, 0L);
    QCOMPARE(description.right, 3200L);
    QCOMPARE(description.bottom, 1080L);
    QCOMPARE(description.rotation, Orvanta::Ifaces::OutputRotation::Identity);
    QVERIFY(description.monitor != 0);
    QCOMPARE(adapter->enumOutput(2, output), DXGI_ERROR_NOT_FOUND);

    // A grabber of its own connection finds the same output by its handle.
    Orvanta::Wayland::WaylandScreenGrabber grabber;
    Orvanta::Ifaces::ScreenRect rect;
    QVERIFY(grabber.monitorRect(description.monitor, rect));
    QCOMPARE(rect.left, 1280L);
    QCOMPARE(rect.right, 3200L);
    QCOMPARE(rect.bottom, 1080L);
    QVERIFY(!grabber.picturesAreTurned());
    Orvanta::Ifaces::ScreenImage image;
    QVERIFY(grabber.grab(description.monitor, rect, image));
    QCOMPARE(image.width, 1920);
    QCOMPARE(image.height, 1080);
    QVERIFY(bgrxIs(image.pixels, image.bytesPerLine, 0, 0, kSecondColour));
    QVERIFY(bgrxIs(image.pixels, image.bytesPerLine, 1079, 1919, kSecondColour));
    QVERIFY(!grabber.monitorRect(description.monitor + 1000, rect));
}

void TestWaylandDisplay::addedAndRemovedOutputsAreFollowed()
{
    Orvanta::Wayland::WaylandDisplaySystem system;
    QCOMPARE(system.open(), S_OK);
    std::shared_ptr<Orvanta::Ifaces::DisplayAdapter> adapter;
    QCOMPARE(system.enumAdapter(0, adapter), S_OK);
    const QStringList before = outputNames(*adapter);
    QCOMPARE(before.size(), 2);

    QVERIFY(!swaymsg({"create_output"}).isNull());
    QTRY_COMPARE_WITH_TIMEOUT(outputNames(*adapter).size(), 3, 5000);
    const QString added = outputNames(*adapter).constLast();
    QVERIFY(added.startsWith(QLatin1String("HEADLESS-")));
    QVERIFY(!before.contains(added));
    auto disable = qScopeGuard([&added] { swaymsg({"output", added, "disable"}); });
    unsigned index = 0;
    const std::shared_ptr<Orvanta::Ifaces::DisplayOutput> output = findOutput(*adapter, added, &index);
    QVERIFY(output);
    QCOMPARE(index, 2u);
    OutputDescription description;
    QCOMPARE(output->describe(description), S_OK);
    QVERIFY(description.right - description.left > 0);

    QVERIFY(!swaymsg({"output", added, "disable"}).isNull());
    QTRY_COMPARE_WITH_TIMEOUT(outputNames(*adapter), before, 5000);
    QCOMPARE(output->describe(description), DXGI_ERROR_NOT_CURRENTLY_AVAILABLE);

    // Switched on again, it is the same output, known by its name.
    QVERIFY(!swaymsg({"output", added, "enable"}).isNull());
    QTRY_COMPARE_WITH_TIMEOUT(output->describe(description), S_OK, 5000);
    QCOMPARE(QString::fromStdWString(description.deviceName), added);
}

void TestWaylandDisplay::eachOutputGivesItsColour_data()
{
    addCopyModeRows();
}

void TestWaylandDisplay::eachOutputGivesItsColour()
{
    QFETCH(int, mode);
    ConfigurationManager::instance()->setGlobalValue("screenCaptureMode", mode);
    MessageCapture messages;
    DeskDuplManager registry;
    QSharedPointer<IDeskCapture> first = registry.acquireCapturer("HEADLESS-1-A0-O0");
    QSharedPointer<IDeskCapture> second = registry.acquireCapturer("HEADLESS-2-A0-O1");
    QVERIFY(first && second);
    first->setOutputSize(QSize(64, 36));
    second->setOutputSize(QSize(64, 36));
    QCOMPARE(first->originSize(), QSize(1280, 720));
    QCOMPARE(second->originSize(), QSize(1920, 1080));
    QTRY_VERIFY_WITH_TIMEOUT(pixelIs(first->nextFrame(), 18, 32, kFirstColour), 10000);
    QTRY_VERIFY_WITH_TIMEOUT(pixelIs(second->nextFrame(), 18, 32, kSecondColour), 10000);
    for (const QSharedPointer<IDeskCapture>& capturer : {first, second}) {
        const cv::Mat frame = capturer->nextFrame();
        QCOMPARE(frame.type(), CV_8UC4);
        QCOMPARE(frame.cols, 64);
        QCOMPARE(frame.rows, 36);
        const QColor colour = capturer == first ? kFirstColour : kSecondColour;
        QVERIFY(pixelIs(frame, 0, 0, colour));
        QVERIFY(pixelIs(frame, 35, 63, colour));
    }
    QVERIFY(messages.texts(QtWarningMsg).isEmpty());
}

void TestWaylandDisplay::turnedOutputComesAsItsUserSeesIt_data()
{
    addCopyModeRows();
}

void TestWaylandDisplay::turnedOutputComesAsItsUserSeesIt()
{
    QFETCH(int, mode);
    ConfigurationManager::instance()->setGlobalValue("screenCaptureMode", mode);
    // The picture as the user of the turned output sees it: green, with red in the top left quarter.
    const QColor red(255, 0, 0);
    const QColor green(0, 255, 0);
    QImage picture(720, 1280, QImage::Format_RGB32);
    picture.fill(green);
    QPainter(&picture).fillRect(QRect(0, 0, 360, 640), red);
    const QString file = m_pictures.filePath(QStringLiteral("turned.png"));
    QVERIFY(picture.save(file));

    QVERIFY(!swaymsg({"output", "HEADLESS-1", "transform", "90"}).isNull());
    auto restore = qScopeGuard([] { swaymsg({"output", "HEADLESS-1", "transform", "normal"}); });
    Wallpaper wallpaper(QStringLiteral("HEADLESS-1"), {"-i", file, "-m", "stretch"});
    QVERIFY(wallpaper.isRunning());

    DeskDuplManager registry;
    QCOMPARE(registry.capturerMetadata("HEADLESS-1-A0-O0").value("width").toInt(), 720);
    QCOMPARE(registry.capturerMetadata("HEADLESS-1-A0-O0").value("height").toInt(), 1280);
    QSharedPointer<IDeskCapture> turned = registry.acquireCapturer("HEADLESS-1-A0-O0");
    QVERIFY(turned);
    QCOMPARE(turned->originSize(), QSize(720, 1280));
    turned->setOutputSize(QSize(72, 128));
    QTRY_VERIFY_WITH_TIMEOUT(pixelIs(turned->nextFrame(), 10, 10, red), 10000);
    const cv::Mat frame = turned->nextFrame();
    QCOMPARE(frame.cols, 72);
    QCOMPARE(frame.rows, 128);
    QVERIFY(pixelIs(frame, 60, 30, red));
    QVERIFY(pixelIs(frame, 10, 60, green));
    QVERIFY(pixelIs(frame, 120, 10, green));
    QVERIFY(pixelIs(frame, 120, 60, green));
}

void TestWaylandDisplay::stillOutputGivesOneFrameThenWaits()
{
    Orvanta::Wayland::WaylandDisplaySystem system;
    QCOMPARE(system.open(), S_OK);
    std::shared_ptr<Orvanta::Ifaces::DisplayAdapter> adapter;
    QCOMPARE(system.enumAdapter(0, adapter), S_OK);
    const std::shared_ptr<Orvanta::Ifaces::DisplayOutput> output = findOutput(*adapter, "HEADLESS-2");
    QVERIFY(output);
    auto duplicator = Orvanta::Ifaces::createPlatformDesktopDuplicator(adapter, nullptr, output);
    QVERIFY(duplicator);
    QCOMPARE(duplicator->enumOutput(1), S_OK);
    QCOMPARE(duplicator->queryDuplicationOutput(), S_OK);
    std::unique_ptr<Orvanta::Ifaces::OutputDuplication> duplication;
    QCOMPARE(duplicator->duplicateOutput({28}, duplication), DXGI_ERROR_UNSUPPORTED);
    QCOMPARE(duplicator->duplicateOutput({87}, duplication), S_OK);
    QCOMPARE(duplication->description().width, 1920u);
    QCOMPARE(duplication->description().height, 1080u);
    QCOMPARE(duplication->description().rotation, int(Orvanta::Ifaces::OutputRotation::Identity));

    // The output is still, yet its picture comes at once.
    QCOMPARE(duplication->acquireNextFrame(5000), S_OK);
    Orvanta::Ifaces::ScalerSource source;
    QCOMPARE(duplication->frameSource(source), S_OK);
    QCOMPARE(source.width, 1920);
    QCOMPARE(source.height, 1080);
    QVERIFY(!source.changedRects);
    const auto* pixels = static_cast<const std::uint8_t*>(source.pixels);
    QVERIFY(bgrxIs(pixels, source.bytesPerLine, 540, 960, kSecondColour));
    QCOMPARE(duplication->acquireNextFrame(10), DXGI_ERROR_INVALID_CALL);
    QCOMPARE(duplication->releaseFrame(), S_OK);

    // Then nothing changes: every acquire waits its whole timeout for nothing.
    for (int attempt = 0; attempt < 3; ++attempt) {
        QElapsedTimer waited;
        waited.start();
        QCOMPARE(duplication->acquireNextFrame(200), DXGI_ERROR_WAIT_TIMEOUT);
        QVERIFY(waited.elapsed() >= 150);
    }

    // A new picture arrives, with the part that changed.
    const QColor yellow(0xe0, 0xd0, 0x10);
    {
        Wallpaper wallpaper(QStringLiteral("HEADLESS-2"), {"-c", yellow.name()});
        QVERIFY(wallpaper.isRunning());
        long result = DXGI_ERROR_WAIT_TIMEOUT;
        QElapsedTimer waiting;
        waiting.start();
        while (waiting.elapsed() < 10000) {
            result = duplication->acquireNextFrame(500);
            if (result != S_OK)
                continue;
            QCOMPARE(duplication->frameSource(source), S_OK);
            pixels = static_cast<const std::uint8_t*>(source.pixels);
            if (bgrxIs(pixels, source.bytesPerLine, 540, 960, yellow))
                break;
            QCOMPARE(duplication->releaseFrame(), S_OK);
            result = DXGI_ERROR_WAIT_TIMEOUT;
        }
        QCOMPARE(result, S_OK);
        QVERIFY(bgrxIs(pixels, source.bytesPerLine, 0, 0, yellow));
        QVERIFY(source.changedRects);
        QVERIFY(source.changedRectCount > 0);
        QCOMPARE(duplication->releaseFrame(), S_OK);
    }
}

void TestWaylandDisplay::outputTakenAwayWhileCapturing()
{
    // An output of its own, so that the fixture's two stay as they are.
    QVERIFY(!swaymsg({"create_output"}).isNull());
    Orvanta::Wayland::WaylandDisplaySystem probe;
    QCOMPARE(probe.open(), S_OK);
    std::shared_ptr<Orvanta::Ifaces::DisplayAdapter> adapter;
    QCOMPARE(probe.enumAdapter(0, adapter), S_OK);
    QTRY_COMPARE_WITH_TIMEOUT(outputNames(*adapter).size(), 3, 5000);
    const QString added = outputNames(*adapter).constLast();
    auto disable = qScopeGuard([&added] { swaymsg({"output", added, "disable"}); });
    const QColor green(0x10, 0xc0, 0x40);
    Wallpaper wallpaper(added, {"-c", green.name()});
    QVERIFY(wallpaper.isRunning());

    ConfigurationManager::instance()->setGlobalValue("screenCaptureMode", 0);
    DeskDuplManager registry;
    const QString id = QStringLiteral("%1-A0-O2").arg(added);
    QCOMPARE(registry.allCapturer().size(), 3);
    QVERIFY(registry.allCapturer().contains(id));
    QSharedPointer<IDeskCapture> capturer = registry.acquireCapturer(id);
    QSharedPointer<IDeskCapture> staying = registry.acquireCapturer("HEADLESS-2-A0-O1");
    QVERIFY(capturer && staying);
    capturer->setOutputSize(QSize(64, 36));
    staying->setOutputSize(QSize(64, 36));
    QTRY_VERIFY_WITH_TIMEOUT(pixelIs(capturer->nextFrame(), 18, 32, green), 10000);

    MessageCapture messages;
    QVERIFY(!swaymsg({"output", added, "disable"}).isNull());
    QTRY_VERIFY_WITH_TIMEOUT(
        messages.contains(QtCriticalMsg, "[DXGICapturer]: Failed to enum DXGIOutput interface: 2"), 10000);
    // The other output goes on as before.
    QTRY_VERIFY_WITH_TIMEOUT(pixelIs(staying->nextFrame(), 18, 32, kSecondColour), 10000);

    QVERIFY(!swaymsg({"output", added, "enable"}).isNull());
    const QColor violet(0x80, 0x20, 0xa0);
    Wallpaper again(added, {"-c", violet.name()});
    QVERIFY(again.isRunning());
    QTRY_VERIFY_WITH_TIMEOUT(pixelIs(capturer->nextFrame(), 18, 32, violet), 15000);
}

QTEST_GUILESS_MAIN(TestWaylandDisplay)
#include "tst_wayland_display.moc"
