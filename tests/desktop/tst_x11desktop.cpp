// Desktop capture against a real X server: the "desktop_xvfb" fixture's Xvfb, whose
// 3840x1080 screen is split into the RandR monitors LEFT and RIGHT.

#include "../gpu/XvfbServer.h"
#include "ConfigurationManager.h"
#include "DeskCaptureBackends.h"
#include "DeskCaptureOption.h"
#include "DeskDuplManager.h"
#include "GDICapturer.h"
#include "Helpers.h"
#include "MessageCapture.h"
#include "ResultCodes.h"
#include "XcbPainter.h"
#include "egl/EglDevice.h"
#include "ifaces/DisplayAdapter.h"
#include "ifaces/DisplayOutput.h"
#include "x11/XcbConnection.h"
#include "x11/XcbDisplaySystem.h"
#include "x11/XcbScreenGrabber.h"

#include <GLES3/gl3.h>
#include <xcb/randr.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QPointer>
#include <QtCore/QProcess>
#include <QtCore/QRegularExpression>
#include <QtCore/QScopeGuard>
#include <QtCore/QStandardPaths>
#include <QtCore/QTemporaryDir>
#include <QtTest/QTest>

#include <atomic>
#include <thread>

namespace {

/// Runs xrandr on the fixture's display; true if it succeeded.
bool xrandr(const QStringList& arguments)
{
    QProcess process;
    process.start(QStringLiteral("xrandr"), arguments);
    return process.waitForFinished(30000) && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

/// Lays the fixture's monitors out as it made them: LEFT, then RIGHT.
void restoreMonitors()
{
    xrandr({"--delmonitor", "LEFT"});
    xrandr({"--delmonitor", "RIGHT"});
    xrandr({"--setmonitor", "LEFT", "1920/508x1080/285+0+0", "screen"});
    xrandr({"--setmonitor", "RIGHT", "1920/508x1080/285+1920+0", "none"});
}

/// An X11 monitor that RandR reports turned by a quarter: the root holds its picture as its user sees it.
class TurnedOutput : public Orvanta::Ifaces::DisplayOutput
{
public:
    explicit TurnedOutput(std::shared_ptr<Orvanta::Ifaces::DisplayOutput> output)
        : m_output(std::move(output))
    {
    }

    long describe(Orvanta::Ifaces::OutputDescription& description) const override
    {
        const long result = m_output->describe(description);
        description.rotation = Orvanta::Ifaces::OutputRotation::Rotate90;
        return result;
    }

private:
    std::shared_ptr<Orvanta::Ifaces::DisplayOutput> m_output;
};

/// An X screen whose monitors all report a quarter turn.
class TurnedAdapter : public Orvanta::Ifaces::DisplayAdapter
{
public:
    explicit TurnedAdapter(std::shared_ptr<Orvanta::Ifaces::DisplayAdapter> adapter)
        : m_adapter(std::move(adapter))
    {
    }

    std::wstring description() const override
    {
        return m_adapter->description();
    }

    long enumOutput(unsigned int index, std::shared_ptr<Orvanta::Ifaces::DisplayOutput>& output) override
    {
        const long result = m_adapter->enumOutput(index, output);
        if (output)
            output = std::make_shared<TurnedOutput>(output);
        return result;
    }

    long createDevice(const std::shared_ptr<Orvanta::Ifaces::DisplayOutput>& output,
        std::shared_ptr<Orvanta::Ifaces::GraphicsDevice>& device) override
    {
        return m_adapter->createDevice(output, device);
    }

private:
    std::shared_ptr<Orvanta::Ifaces::DisplayAdapter> m_adapter;
};

class TurnedDisplaySystem : public Orvanta::X11::XcbDisplaySystem
{
public:
    long enumAdapter(unsigned int index, std::shared_ptr<Orvanta::Ifaces::DisplayAdapter>& adapter) override
    {
        const long result = XcbDisplaySystem::enumAdapter(index, adapter);
        if (adapter)
            adapter = std::make_shared<TurnedAdapter>(adapter);
        return result;
    }
};

/// The fronts of LEFT and RIGHT at a tenth of their size; false unless both came.
bool acquireBothSmall(
    DeskDuplManager& registry, QSharedPointer<IDeskCapture>& left, QSharedPointer<IDeskCapture>& right)
{
    left = registry.acquireCapturer("LEFT-A0-O0");
    right = registry.acquireCapturer("RIGHT-A0-O1");
    if (!left || !right)
        return false;
    left->setOutputSize(QSize(192, 108));
    right->setOutputSize(QSize(192, 108));
    return true;
}

/// Rows for the two capture modes that read the X server.
void addXModeRows()
{
    QTest::addColumn<int>("mode");
    QTest::newRow("duplication") << 0;
    QTest::newRow("blit") << 2;
}

DeskCaptureOption* publishedOption()
{
    return reinterpret_cast<DeskCaptureOption*>(
        quintptr(QCoreApplication::instance()->property("runtime.options.deskCaptureOption").toLongLong()));
}

} // namespace

class TestX11Desktop : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void bothMonitorsAreEnumerated();
    void outputsDescribeTheirMonitors();
    void monitorsAreClampedToTheScreen();
    void bandsOfACopyArriveInOrderAndComplete();
    void randrRotationsBecomeClockwiseSteps();
    void eglDeviceWithoutTheXServer();
    void outputsOnSoftwareRenderersGetNoDevice();
    void coloursComeBackAtTheRightPlace();
    void framesComeAtTheRequestedSize();
    void acquireAndReleaseFollowTheCount();
    void framesKeepArrivingForAConsumerThread();
    void keptFrameStaysUnchanged();
    void modeWithoutBackendLeavesTheFrontEmpty();
    void unpluggedMonitorIsNeverTakenForAnother_data();
    void unpluggedMonitorIsNeverTakenForAnother();
    void unpluggedMonitorDoesNotHoldTheOther_data();
    void unpluggedMonitorDoesNotHoldTheOther();
    void monitorPastTheOldWidthAfterTheScreenGrew_data();
    void monitorPastTheOldWidthAfterTheScreenGrew();
    void deepScreenGivesEightBitChannels_data();
    void deepScreenGivesEightBitChannels();
    void turnedMonitorComesAsItsUserSeesIt_data();
    void turnedMonitorComesAsItsUserSeesIt();

private:
    static void unpluggedMonitor_data();

    QTemporaryDir m_configDir;
    std::unique_ptr<XcbPainter> m_painter;
};

void TestX11Desktop::initTestCase()
{
    QVERIFY2(!qEnvironmentVariableIsEmpty("DISPLAY"), "the desktop_xvfb fixture gives the display");
    QStandardPaths::setTestModeEnabled(true);
    QVERIFY(m_configDir.isValid());
    ConfigurationManager::setConfigPath(m_configDir.path());
    ConfigurationManager::instance()->setGlobalValue("devUpdateInterval", 20);
}

void TestX11Desktop::init()
{
    ConfigurationManager::instance()->setGlobalValue("screenCaptureMode", 2);
    m_painter = std::make_unique<XcbPainter>();
    QVERIFY(m_painter->isValid());
    QCOMPARE(m_painter->screenWidth(), 3840);
    QCOMPARE(m_painter->screenHeight(), 1080);
    // A black background, so that no earlier picture shows through.
    m_painter->fill(QRect(0, 0, 3840, 1080), Qt::black);
}

void TestX11Desktop::cleanup()
{
    m_painter.reset();
}

void TestX11Desktop::bothMonitorsAreEnumerated()
{
    MessageCapture messages;
    DeskDuplManager registry;
    QCOMPARE(registry.allCapturer(), (QList<QString> {"LEFT-A0-O0", "RIGHT-A0-O1"}));
    QCOMPARE(registry.defaultCapturer(), QStringLiteral("LEFT-A0-O0"));
    QCOMPARE(registry.capturerDesc("LEFT-A0-O0"), QStringLiteral("1920x1080 (OUT1)"));
    QCOMPARE(registry.capturerDesc("RIGHT-A0-O1"), QStringLiteral("1920x1080 (OUT2)"));
    const QJsonObject right {{"id", "RIGHT-A0-O1"}, {"deviceName", "RIGHT"}, {"width", 1920}, {"height", 1080},
        {"x", 1920}, {"y", 0}, {"desc", "1920x1080 (OUT2)"}};
    QCOMPARE(registry.capturerMetadata("RIGHT-A0-O1"), right);
    QCOMPARE(registry.capturerMetadata("LEFT-A0-O0").value("x").toInt(), 0);
    QVERIFY(messages.contains(QtInfoMsg, "DXGIAdapter index:  0"));
    QVERIFY(messages.contains(QtInfoMsg, "A total of 2 desktop replication interfaces were built"));
    QVERIFY(messages.texts(QtInfoMsg).filter(QRegularExpression("^GPU:  \".+ screen 0\"$")).size() == 1);
    // Nothing to warn about on X: any client may read the screen.
    QVERIFY(messages.texts(QtWarningMsg).isEmpty());
}

void TestX11Desktop::outputsDescribeTheirMonitors()
{
    Orvanta::X11::XcbDisplaySystem system;
    QCOMPARE(system.open(), S_OK);
    std::shared_ptr<Orvanta::Ifaces::DisplayAdapter> adapter;
    QCOMPARE(system.enumAdapter(0, adapter), S_OK);
    std::shared_ptr<Orvanta::Ifaces::DisplayAdapter> none;
    QCOMPARE(system.enumAdapter(1, none), DXGI_ERROR_NOT_FOUND);

    std::shared_ptr<Orvanta::Ifaces::DisplayOutput> output;
    QCOMPARE(adapter->enumOutput(1, output), S_OK);
    Orvanta::Ifaces::OutputDescription description;
    QCOMPARE(output->describe(description), S_OK);
    QCOMPARE(QString::fromStdWString(description.deviceName), QStringLiteral("RIGHT"));
    QCOMPARE(description.left, 1920L);
    QCOMPARE(description.right, 3840L);
    QCOMPARE(description.bottom, 1080L);
    QVERIFY(description.monitor != 0);
    QCOMPARE(description.rotation, Orvanta::Ifaces::OutputRotation::Identity);
    QCOMPARE(adapter->enumOutput(2, output), DXGI_ERROR_NOT_FOUND);

    // The grabber finds the same monitor by its handle.
    Orvanta::X11::XcbScreenGrabber grabber;
    Orvanta::Ifaces::ScreenRect rect;
    QVERIFY(grabber.monitorRect(description.monitor, rect));
    QCOMPARE(rect.left, 1920L);
    QCOMPARE(rect.right, 3840L);
    QVERIFY(!grabber.monitorRect(description.monitor + 1, rect));
}

void TestX11Desktop::bandsOfACopyArriveInOrderAndComplete()
{
    // The right monitor, as its output describes it.
    Orvanta::Ifaces::OutputDescription description;
    {
        Orvanta::X11::XcbDisplaySystem system;
        std::shared_ptr<Orvanta::Ifaces::DisplayAdapter> adapter;
        std::shared_ptr<Orvanta::Ifaces::DisplayOutput> output;
        QVERIFY(system.open() == S_OK && system.enumAdapter(0, adapter) == S_OK
            && adapter->enumOutput(1, output) == S_OK && output->describe(description) == S_OK);
    }
    QCOMPARE(QString::fromStdWString(description.deviceName), QStringLiteral("RIGHT"));

    // A stripe in each band of the right monitor.
    const QList<QPair<int, QColor>> stripes {
        {55, QColor(255, 0, 0)}, {410, QColor(0, 255, 0)}, {1005, QColor(0, 0, 255)}};
    for (const auto& stripe : stripes)
        m_painter->fill(QRect(1920, stripe.first - 5, 1920, 10), stripe.second);

    Orvanta::X11::XcbScreenGrabber grabber;
    Orvanta::Ifaces::ScreenRect rect;
    QVERIFY(grabber.monitorRect(description.monitor, rect));
    const auto stripeIsThere = [](const Orvanta::Ifaces::ScreenImage& image, int row, const QColor& colour) {
        const unsigned char* pixel = image.pixels + std::size_t(row) * image.bytesPerLine + 4 * 960;
        return pixel[0] == colour.blue() && pixel[1] == colour.green() && pixel[2] == colour.red();
    };
    QList<QPair<int, int>> bands;
    QList<bool> stripesSeen;
    Orvanta::Ifaces::ScreenImage image;
    QVERIFY(grabber.grabInBands(description.monitor, rect, {100, 500, 1080}, image,
        [&](const Orvanta::Ifaces::ScreenImage& arrived, int firstRow, int endRow) {
            // Each band is whole when it is handed on, before the next one is.
            const int band = bands.size();
            stripesSeen.append(
                band < stripes.size() && stripeIsThere(arrived, stripes[band].first, stripes[band].second));
            bands.append({firstRow, endRow});
        }));
    QCOMPARE(bands, (QList<QPair<int, int>> {{0, 100}, {100, 500}, {500, 1080}}));
    QCOMPARE(stripesSeen, (QList<bool> {true, true, true}));
    QCOMPARE(image.width, 1920);
    QCOMPARE(image.height, 1080);

    // Bands that don't cut the rectangle in order come as one.
    bands.clear();
    for (const std::vector<int>& wrong : {std::vector<int> {500, 400, 1080}, std::vector<int> {100, 500},
             std::vector<int> {0, 1080}, std::vector<int> {}}) {
        bands.clear();
        QVERIFY(grabber.grabInBands(description.monitor, rect, wrong, image,
            [&](const Orvanta::Ifaces::ScreenImage&, int firstRow, int endRow) {
                bands.append({firstRow, endRow});
            }));
        QCOMPARE(bands, (QList<QPair<int, int>> {{0, 1080}}));
    }
    QVERIFY(stripeIsThere(image, 1005, stripes[2].second));
}

void TestX11Desktop::monitorsAreClampedToTheScreen()
{
    Orvanta::X11::XcbScreenGrabber grabber;
    Orvanta::X11::XcbDisplaySystem system;
    QCOMPARE(system.open(), S_OK);
    std::shared_ptr<Orvanta::Ifaces::DisplayAdapter> adapter;
    QCOMPARE(system.enumAdapter(0, adapter), S_OK);
    std::shared_ptr<Orvanta::Ifaces::DisplayOutput> output;
    QCOMPARE(adapter->enumOutput(2, output), DXGI_ERROR_NOT_FOUND);

    // A monitor reaching past the bottom-right corner of the screen.
    QVERIFY(xrandr({"--setmonitor", "EDGE", "1000/264x500/132+3340+800", "none"}));
    const auto removeEdge = qScopeGuard([] { xrandr({"--delmonitor", "EDGE"}); });

    // The change is noticed without a new connection.
    QTRY_COMPARE_WITH_TIMEOUT(adapter->enumOutput(2, output), S_OK, 10000);
    Orvanta::Ifaces::OutputDescription description;
    QCOMPARE(output->describe(description), S_OK);
    QCOMPARE(QString::fromStdWString(description.deviceName), QStringLiteral("EDGE"));
    QCOMPARE(description.left, 3340L);
    QCOMPARE(description.top, 800L);
    QCOMPARE(description.right, 3840L);
    QCOMPARE(description.bottom, 1080L);

    Orvanta::Ifaces::ScreenRect rect;
    QVERIFY(grabber.monitorRect(description.monitor, rect));
    QCOMPARE(rect.right - rect.left, 500L);
    QCOMPARE(rect.bottom - rect.top, 280L);
    Orvanta::Ifaces::ScreenImage image;
    QVERIFY(grabber.grab(description.monitor, rect, image));
    QCOMPARE(image.width, 500);
    QCOMPARE(image.height, 280);
}

void TestX11Desktop::randrRotationsBecomeClockwiseSteps()
{
    using Orvanta::Ifaces::OutputRotation;
    using Orvanta::X11::rotationFromRandr;
    // RandR counts counter-clockwise, DXGI clockwise; reflections don't turn.
    QCOMPARE(rotationFromRandr(XCB_RANDR_ROTATION_ROTATE_0), OutputRotation::Identity);
    QCOMPARE(rotationFromRandr(XCB_RANDR_ROTATION_ROTATE_90), OutputRotation::Rotate270);
    QCOMPARE(rotationFromRandr(XCB_RANDR_ROTATION_ROTATE_180), OutputRotation::Rotate180);
    QCOMPARE(rotationFromRandr(XCB_RANDR_ROTATION_ROTATE_270), OutputRotation::Rotate90);
    QCOMPARE(rotationFromRandr(XCB_RANDR_ROTATION_ROTATE_90 | XCB_RANDR_ROTATION_REFLECT_X), OutputRotation::Rotate270);
    QCOMPARE(rotationFromRandr(XCB_RANDR_ROTATION_REFLECT_Y), OutputRotation::Identity);

    // A monitor handle keeps the screen and the monitor's name apart.
    const std::uintptr_t handle = Orvanta::X11::XcbConnection::monitorHandle(2, 0x1234);
    QCOMPARE(Orvanta::X11::XcbConnection::screenOfHandle(handle), 2);
    QCOMPARE(Orvanta::X11::XcbConnection::nameOfHandle(handle), xcb_atom_t(0x1234));
}

void TestX11Desktop::eglDeviceWithoutTheXServer()
{
    std::shared_ptr<Orvanta::Egl::EglDevice> device;
    QCOMPARE(Orvanta::Egl::EglDevice::create(device), S_OK);
    QVERIFY(device);
    QVERIFY(!device->renderer().empty());
    QCOMPARE(eglGetCurrentContext(), EGL_NO_CONTEXT);
    QCOMPARE(device->makeCurrent(), S_OK);
    QCOMPARE(eglGetCurrentContext(), device->context());
    GLint major = 0;
    glGetIntegerv(GL_MAJOR_VERSION, &major);
    QVERIFY(major >= 3);
    QCOMPARE(device->doneCurrent(), S_OK);

    // A second device shares the display and outlives the first.
    std::shared_ptr<Orvanta::Egl::EglDevice> second;
    QCOMPARE(Orvanta::Egl::EglDevice::create(second), S_OK);
    QCOMPARE(second->display(), device->display());
    QVERIFY(second->context() != device->context());
    device.reset();
    QCOMPARE(second->makeCurrent(), S_OK);
    QCOMPARE(second->doneCurrent(), S_OK);
    QCOMPARE(Orvanta::Egl::EglDevice::resultFromEglError(EGL_BAD_ALLOC), E_OUTOFMEMORY);
    QCOMPARE(Orvanta::Egl::EglDevice::resultFromEglError(EGL_CONTEXT_LOST), DXGI_ERROR_DEVICE_REMOVED);
}

void TestX11Desktop::outputsOnSoftwareRenderersGetNoDevice()
{
    // The suite runs on Mesa's llvmpipe, where frames are scaled on the CPU:
    // an output's device would only hold the GL driver in memory.
    Orvanta::X11::XcbDisplaySystem system;
    QCOMPARE(system.open(), S_OK);
    std::shared_ptr<Orvanta::Ifaces::DisplayAdapter> adapter;
    QCOMPARE(system.enumAdapter(0, adapter), S_OK);
    std::shared_ptr<Orvanta::Ifaces::DisplayOutput> output;
    QCOMPARE(adapter->enumOutput(0, output), S_OK);
    const QByteArray saved = qgetenv("ORVANTA_SCALER");
    const auto restore = qScopeGuard([saved] {
        if (saved.isNull())
            qunsetenv("ORVANTA_SCALER");
        else
            qputenv("ORVANTA_SCALER", saved);
    });

    qunsetenv("ORVANTA_SCALER");
    QVERIFY(Orvanta::Egl::EglDevice::cpuScalingWithoutDevice());
    std::shared_ptr<Orvanta::Ifaces::GraphicsDevice> device;
    QCOMPARE(adapter->createDevice(output, device), S_OK);
    QVERIFY(!device);

    // Asked for the GPU, the output gets its EGL context.
    qputenv("ORVANTA_SCALER", "gpu");
    QVERIFY(!Orvanta::Egl::EglDevice::cpuScalingWithoutDevice());
    QCOMPARE(adapter->createDevice(output, device), S_OK);
    QVERIFY(std::dynamic_pointer_cast<Orvanta::Egl::EglDevice>(device));

    qputenv("ORVANTA_SCALER", "cpu");
    QVERIFY(Orvanta::Egl::EglDevice::cpuScalingWithoutDevice());
    QCOMPARE(adapter->createDevice(output, device), S_OK);
    QVERIFY(!device);
}

void TestX11Desktop::coloursComeBackAtTheRightPlace()
{
    DeskDuplManager registry;
    QSharedPointer<IDeskCapture> right = registry.acquireCapturer("RIGHT-A0-O1");
    QSharedPointer<IDeskCapture> left = registry.acquireCapturer("LEFT-A0-O0");
    QVERIFY(right && left);
    QCOMPARE(right->originSize(), QSize(1920, 1080));
    QCOMPARE(right->outputSize(), QSize(1920, 1080));

    const QColor red(255, 0, 0);
    const QColor green(0, 255, 0);
    const QColor blue(0, 0, 255);
    const QColor mixed(10, 120, 230);
    m_painter->fill(QRect(1920 + 100, 50, 200, 100), red);
    m_painter->fill(QRect(1920 + 1500, 900, 300, 100), mixed);
    m_painter->fill(QRect(100, 50, 200, 100), green);
    m_painter->fill(QRect(1900, 500, 40, 40), blue); // across the boundary

    QTRY_VERIFY_WITH_TIMEOUT(XcbPainter::pixelIs(right->nextFrame(), 60, 110, red), 10000);
    const cv::Mat frame = right->nextFrame();
    QCOMPARE(frame.type(), CV_8UC4);
    QCOMPARE(frame.cols, 1920);
    QCOMPARE(frame.rows, 1080);
    QVERIFY(XcbPainter::pixelIs(frame, 50, 100, red));
    QVERIFY(XcbPainter::pixelIs(frame, 149, 299, red));
    QVERIFY(XcbPainter::pixelIs(frame, 150, 300, Qt::black));
    QVERIFY(XcbPainter::pixelIs(frame, 950, 1600, mixed));
    QVERIFY(XcbPainter::pixelIs(frame, 520, 0, blue));
    QVERIFY(XcbPainter::pixelIs(frame, 520, 19, blue));
    QVERIFY(XcbPainter::pixelIs(frame, 520, 20, Qt::black));
    // The left monitor's own picture, not the right one's.
    QVERIFY(XcbPainter::pixelIs(frame, 60, 110 + 0, red));
    QTRY_VERIFY_WITH_TIMEOUT(XcbPainter::pixelIs(left->nextFrame(), 60, 110, green), 10000);
    const cv::Mat leftFrame = left->nextFrame();
    QVERIFY(XcbPainter::pixelIs(leftFrame, 520, 1919, blue));
    QVERIFY(XcbPainter::pixelIs(leftFrame, 950, 1600, Qt::black));
}

void TestX11Desktop::framesComeAtTheRequestedSize()
{
    DeskDuplManager registry;
    QSharedPointer<IDeskCapture> right = registry.acquireCapturer("RIGHT-A0-O1");
    QVERIFY(right);
    // The right half of the monitor white, the left half black.
    m_painter->fill(QRect(1920 + 960, 0, 960, 1080), Qt::white);
    right->setOutputSize(QSize(320, 180));
    QCOMPARE(right->outputSize(), QSize(320, 180));
    QTRY_VERIFY_WITH_TIMEOUT(
        right->nextFrame().cols == 320 && XcbPainter::pixelIs(right->nextFrame(), 90, 240, Qt::white), 10000);
    const cv::Mat frame = right->nextFrame();
    QCOMPARE(frame.rows, 180);
    QVERIFY(XcbPainter::pixelIs(frame, 10, 10, Qt::black));
    QVERIFY(XcbPainter::pixelIs(frame, 170, 310, Qt::white));

    right->setOutputSize(QSize(64, 36));
    QTRY_COMPARE_WITH_TIMEOUT(right->nextFrame().cols, 64, 10000);
    QCOMPARE(right->nextFrame().rows, 36);
}

void TestX11Desktop::acquireAndReleaseFollowTheCount()
{
    DeskDuplManager registry;
    const QString id = "LEFT-A0-O0";
    MessageCapture messages;
    QSharedPointer<IDeskCapture> capturer = registry.acquireCapturer(id);
    QVERIFY(capturer);
    QVERIFY(messages.contains(QtInfoMsg,
        "[DeskDuplManager]: The capturer  \"LEFT-A0-O0\"  references has "
        "already changed to  2"));
    QCOMPARE(messages.texts(QtInfoMsg).filter("[WinDeskCapture]: Using GDI capture monitor  0x").size(), 1);
    QPointer<QObject> watch = capturer.data();

    registry.releaseCapturer(id);
    QVERIFY(messages.contains(QtInfoMsg,
        "[DeskDuplManager]: The capturer  \"LEFT-A0-O0\"  references has "
        "already changed to  1"));
    QTRY_VERIFY_WITH_TIMEOUT(!capturer->nextFrame().empty(), 10000);
    registry.releaseCapturer(id);
    QVERIFY(messages.contains(QtInfoMsg,
        "[DeskDuplManager]: The capturer  \"LEFT-A0-O0\" does not have any "
        "renferences and has been released."));
    // The consumer still holds it; the last copy ends it.
    QVERIFY(watch);
    QVERIFY(!capturer->nextFrame().empty());
    capturer.clear();
    QVERIFY(!watch);
    QVERIFY(messages.texts(QtInfoMsg).filter("WinDeskCapture timer has stopped, id: ").size() == 1);

    QSharedPointer<IDeskCapture> renewed = registry.acquireCapturer(id);
    QVERIFY(renewed);
    QVERIFY(messages.contains(QtInfoMsg,
        "[DeskDuplManager]: The capturer  \"LEFT-A0-O0\"  references has "
        "already changed to  1"));
}

void TestX11Desktop::framesKeepArrivingForAConsumerThread()
{
    DeskDuplManager registry;
    QSharedPointer<IDeskCapture> right = registry.acquireCapturer("RIGHT-A0-O1");
    QVERIFY(right);
    right->setOutputSize(QSize(320, 180));
    const xcb_window_t patch = m_painter->fill(QRect(1920, 0, 1920, 1080), QColor(0, 0, 0));

    std::atomic<bool> stop {false};
    std::atomic<int> frames {0};
    std::atomic<int> inconsistent {0};
    std::atomic<int> lastRed {-1};
    std::atomic<int> distinctReds {0};
    std::thread consumer([&] {
        const uchar* lastData = nullptr;
        while (!stop.load()) {
            const cv::Mat frame = right->nextFrame();
            if (!frame.empty() && frame.data != lastData) {
                lastData = frame.data;
                ++frames;
                // One colour everywhere: a frame is never seen half written.
                const cv::Vec4b first = frame.at<cv::Vec4b>(0, 0);
                const cv::Vec4b last = frame.at<cv::Vec4b>(frame.rows - 1, frame.cols - 1);
                if (first != last)
                    ++inconsistent;
                if (first[0] != lastRed.load()) {
                    lastRed = first[0];
                    ++distinctReds;
                }
            }
            std::this_thread::yield();
        }
    });

    // The picture changes while the consumer reads.
    for (int red = 40; red <= 240; red += 40) {
        m_painter->recolour(patch, QColor(red, 0, 0));
        QTRY_VERIFY_WITH_TIMEOUT(lastRed.load() == red, 10000);
    }
    stop = true;
    consumer.join();
    QVERIFY(frames.load() >= 6);
    QVERIFY(distinctReds.load() >= 6);
    QCOMPARE(inconsistent.load(), 0);
}

void TestX11Desktop::keptFrameStaysUnchanged()
{
    DeskDuplManager registry;
    QSharedPointer<IDeskCapture> left = registry.acquireCapturer("LEFT-A0-O0");
    left->setOutputSize(QSize(320, 180));
    const xcb_window_t patch = m_painter->fill(QRect(0, 0, 1920, 1080), QColor(200, 10, 10));
    QTRY_VERIFY_WITH_TIMEOUT(XcbPainter::pixelIs(left->nextFrame(), 90, 160, QColor(200, 10, 10)), 10000);
    const cv::Mat kept = left->nextFrame();
    const cv::Mat snapshot = kept.clone();

    m_painter->recolour(patch, QColor(10, 10, 200));
    QTRY_VERIFY_WITH_TIMEOUT(XcbPainter::pixelIs(left->nextFrame(), 90, 160, QColor(10, 10, 200)), 10000);
    // Let several more frames replace each other.
    const uchar* newer = left->nextFrame().data;
    QTRY_VERIFY_WITH_TIMEOUT(left->nextFrame().data != newer, 10000);

    QVERIFY(left->nextFrame().data != kept.data);
    QCOMPARE(cv::norm(kept, snapshot, cv::NORM_INF), 0.0);
    QVERIFY(XcbPainter::pixelIs(kept, 90, 160, QColor(200, 10, 10)));
}

void TestX11Desktop::modeWithoutBackendLeavesTheFrontEmpty()
{
    DeskDuplManager registry;
    QSharedPointer<IDeskCapture> left = registry.acquireCapturer("LEFT-A0-O0");
    QTRY_VERIFY_WITH_TIMEOUT(!left->nextFrame().empty(), 10000);

    MessageCapture messages;
    // A mode beyond the three known ones has no back-end.
    const int modes = publishedOption()->totalOfMode();
    publishedOption()->setTotalOfMode(4);
    publishedOption()->setCurMode(3);
    QTRY_VERIFY_WITH_TIMEOUT(
        messages.texts(QtWarningMsg).filter("[WinDeskCapture]: Capturer is null, monitor:").size() == 1, 10000);
    QVERIFY(left->nextFrame().empty());
    QCOMPARE(left->outputSize(), QSize(-1, -1));

    publishedOption()->setCurMode(2);
    publishedOption()->setTotalOfMode(modes);
    QTRY_VERIFY_WITH_TIMEOUT(!left->nextFrame().empty(), 10000);
    QCOMPARE(left->outputSize(), QSize(1920, 1080));
}

void TestX11Desktop::unpluggedMonitor_data()
{
    // The monitor to unplug, its place on the screen, and the RandR line
    // that plugs it in again.
    QTest::addColumn<QString>("gone");
    QTest::addColumn<QRect>("goneArea");
    QTest::addColumn<QRect>("stayingArea");
    QTest::addColumn<QStringList>("plugAgain");
    QTest::addColumn<QString>("lostLine");
    QTest::newRow("LEFT") << QStringLiteral("LEFT") << QRect(0, 0, 1920, 1080) << QRect(1920, 0, 1920, 1080)
                          << QStringList {"--setmonitor", "LEFT", "1920/508x1080/285+0+0", "screen"}
                          << QStringLiteral("[DXGICapturer]: Failed to enum DXGIOutput interface: 0");
    QTest::newRow("RIGHT") << QStringLiteral("RIGHT") << QRect(1920, 0, 1920, 1080) << QRect(0, 0, 1920, 1080)
                           << QStringList {"--setmonitor", "RIGHT", "1920/508x1080/285+1920+0", "none"}
                           << QStringLiteral("[DXGICapturer]: Failed to enum DXGIOutput interface: 1");
}

void TestX11Desktop::unpluggedMonitorIsNeverTakenForAnother_data()
{
    unpluggedMonitor_data();
}

void TestX11Desktop::unpluggedMonitorIsNeverTakenForAnother()
{
    QFETCH(QString, gone);
    QFETCH(QRect, goneArea);
    QFETCH(QRect, stayingArea);
    QFETCH(QStringList, plugAgain);
    QFETCH(QString, lostLine);
    ConfigurationManager::instance()->setGlobalValue("screenCaptureMode", 0);
    DeskDuplManager registry;
    QSharedPointer<IDeskCapture> left;
    QSharedPointer<IDeskCapture> right;
    QVERIFY(acquireBothSmall(registry, left, right));
    const QSharedPointer<IDeskCapture> goneRow = gone == QLatin1String("LEFT") ? left : right;
    const QSharedPointer<IDeskCapture> stayingRow = gone == QLatin1String("LEFT") ? right : left;
    const QColor green(0, 255, 0);
    const QColor red(255, 0, 0);
    const QColor blue(0, 0, 255);
    m_painter->fill(goneArea, green);
    m_painter->fill(stayingArea, red);
    QTRY_VERIFY_WITH_TIMEOUT(XcbPainter::pixelIs(goneRow->nextFrame(), 50, 50, green), 10000);
    QTRY_VERIFY_WITH_TIMEOUT(XcbPainter::pixelIs(stayingRow->nextFrame(), 50, 50, red), 10000);

    MessageCapture messages;
    QVERIFY(xrandr({"--delmonitor", gone}));
    const auto restore = qScopeGuard(&restoreMonitors);
    // The other monitor changes its picture: the row of the one that went
    // must never show it.
    const QColor orange(255, 128, 0);
    m_painter->fill(stayingArea, orange);
    QTRY_VERIFY_WITH_TIMEOUT(XcbPainter::pixelIs(stayingRow->nextFrame(), 50, 50, orange), 10000);
    QElapsedTimer watching;
    watching.start();
    while (watching.elapsed() < 1500) {
        QVERIFY2(!XcbPainter::pixelIs(goneRow->nextFrame(), 50, 50, orange),
            qPrintable(QStringLiteral("the row of %1 shows another monitor").arg(gone)));
        QTest::qWait(20);
    }
    QTRY_VERIFY_WITH_TIMEOUT(messages.contains(QtCriticalMsg, lostLine), 10000);

    // Plugged in again, the row captures its own monitor again.
    QVERIFY(xrandr(plugAgain));
    m_painter->fill(goneArea, blue);
    QTRY_VERIFY_WITH_TIMEOUT(XcbPainter::pixelIs(goneRow->nextFrame(), 50, 50, blue), 15000);
    QVERIFY(XcbPainter::pixelIs(stayingRow->nextFrame(), 50, 50, orange));
}

void TestX11Desktop::unpluggedMonitorDoesNotHoldTheOther_data()
{
    unpluggedMonitor_data();
}

void TestX11Desktop::unpluggedMonitorDoesNotHoldTheOther()
{
    QFETCH(QString, gone);
    QFETCH(QRect, stayingArea);
    QFETCH(QString, lostLine);
    ConfigurationManager::instance()->setGlobalValue("screenCaptureMode", 0);
    DeskDuplManager registry;
    QSharedPointer<IDeskCapture> left;
    QSharedPointer<IDeskCapture> right;
    QVERIFY(acquireBothSmall(registry, left, right));
    QTRY_VERIFY_WITH_TIMEOUT(!left->nextFrame().empty() && !right->nextFrame().empty(), 10000);
    const QSharedPointer<IDeskCapture> stayingRow = gone == QLatin1String("LEFT") ? right : left;

    // The staying monitor's picture changes all the time; a consumer counts
    // its new frames.
    std::atomic<bool> stop {false};
    std::atomic<int> frames {0};
    const QRect patchArea(stayingArea.x() + 100, 100, 200, 200);
    std::thread painter([&stop, patchArea] {
        XcbPainter painter;
        const xcb_window_t patch = painter.fill(patchArea, Qt::black);
        for (int step = 0; !stop.load(); ++step) {
            painter.recolour(patch, QColor(step % 256, 0, 0));
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    std::thread consumer([&] {
        const uchar* last = nullptr;
        while (!stop.load()) {
            const cv::Mat frame = stayingRow->nextFrame();
            if (!frame.empty() && frame.data != last) {
                last = frame.data;
                ++frames;
            }
            std::this_thread::yield();
        }
    });
    const auto finish = qScopeGuard([&] {
        stop = true;
        painter.join();
        consumer.join();
    });
    // Frames of the staying monitor counted while the registry's thread
    // polls for a while.
    const auto framesDuring = [&frames](int milliseconds) {
        const int before = frames.load();
        QTest::qWait(milliseconds);
        return frames.load() - before;
    };

    const int withBoth = framesDuring(2000);
    QVERIFY2(withBoth >= 10, qPrintable(QString::number(withBoth)));

    MessageCapture messages;
    QVERIFY(xrandr({"--delmonitor", gone}));
    const auto restore = qScopeGuard(&restoreMonitors);
    QTRY_VERIFY_WITH_TIMEOUT(messages.contains(QtCriticalMsg, lostLine), 10000);

    // The lost monitor's row keeps trying; the other keeps its pace meanwhile.
    const int withOneLost = framesDuring(2000);
    QVERIFY2(withOneLost * 10 >= withBoth * 9,
        qPrintable(QStringLiteral("%1 frames of the staying monitor with %2 lost, %3 before")
                       .arg(withOneLost)
                       .arg(gone)
                       .arg(withBoth)));
    QVERIFY(messages.texts(QtWarningMsg)
                .contains(QStringLiteral("[DXGICapturer]: Failed to rebuild the duplication, retrying in 0.5 seconds: "
                                         "\"%1\"")
                              .arg(win32ErrorMsg(DXGI_ERROR_NOT_FOUND))));
}

void TestX11Desktop::monitorPastTheOldWidthAfterTheScreenGrew_data()
{
    addXModeRows();
}

void TestX11Desktop::monitorPastTheOldWidthAfterTheScreenGrew()
{
    QFETCH(int, mode);
    // A laptop's screen, about to be docked: a private server, since its size changes.
    XvfbServer server(2048, 768);
    QVERIFY2(server.started(), "Xvfb could not be started");
    QVERIFY(
        server.xrandr({"--newmode", "1024x768_u", "60", "1024", "1025", "1026", "1027", "768", "769", "770", "771"}));
    QVERIFY(server.xrandr({"--addmode", "screen", "1024x768_u"}));
    QVERIFY(server.xrandr({"--output", "screen", "--mode", "1024x768_u", "--fb", "1024x768"}));
    QVERIFY(server.xrandr({"--setmonitor", "FAR", "500/132x768/203+1200+0", "none"}));

    ConfigurationManager::instance()->setGlobalValue("screenCaptureMode", mode);
    DeskDuplManager registry;
    QCOMPARE(registry.allCapturer().size(), 2);
    const QString far = registry.allCapturer().filter("FAR-").value(0);
    QVERIFY(!far.isEmpty());

    QSharedPointer<IDeskCapture> capturer;
    if (mode == 2) {
        // Already polling while the monitor lies off the screen: nothing to copy yet.
        MessageCapture messages;
        capturer = registry.acquireCapturer(far);
        QVERIFY(capturer);
        QTRY_VERIFY_WITH_TIMEOUT(
            messages.contains(QtCriticalMsg, "[GDICapturer]: Failed to get DBits errCode: 0"), 10000);
    }

    // Docked: the screen grows, and the monitor lies on it now.
    QVERIFY(server.xrandr({"--output", "screen", "--mode", "2048x768", "--fb", "2048x768"}));
    XcbPainter painter;
    QVERIFY(painter.isValid());
    QCOMPARE(painter.screenWidth(), 2048);
    const QColor teal(0, 128, 128);
    painter.fill(QRect(0, 0, 2048, 768), Qt::black);
    painter.fill(QRect(1200, 0, 500, 768), teal);

    if (!capturer)
        capturer = registry.acquireCapturer(far);
    QVERIFY(capturer);
    capturer->setOutputSize(QSize(500, 768));
    QTRY_VERIFY_WITH_TIMEOUT(XcbPainter::pixelIs(capturer->nextFrame(), 400, 250, teal), 10000);
    const cv::Mat frame = capturer->nextFrame();
    QCOMPARE(frame.cols, 500);
    QCOMPARE(frame.rows, 768);
    QVERIFY(XcbPainter::pixelIs(frame, 0, 0, teal));
    QVERIFY(XcbPainter::pixelIs(frame, 767, 499, teal));
}

void TestX11Desktop::deepScreenGivesEightBitChannels_data()
{
    addXModeRows();
}

void TestX11Desktop::deepScreenGivesEightBitChannels()
{
    QFETCH(int, mode);
    // 10 bits a channel: a private server of depth 30.
    XvfbServer server(640, 480, 30);
    QVERIFY2(server.started(), "Xvfb could not be started");
    XcbPainter painter;
    QVERIFY(painter.isValid());
    const QColor mixed(10, 120, 230);
    painter.fill(QRect(0, 0, 640, 480), Qt::black);
    painter.fill(QRect(100, 50, 200, 100), mixed);

    ConfigurationManager::instance()->setGlobalValue("screenCaptureMode", mode);
    MessageCapture messages;
    DeskDuplManager registry;
    QCOMPARE(registry.allCapturer().size(), 1);
    QSharedPointer<IDeskCapture> capturer = registry.acquireCapturer(registry.defaultCapturer());
    QVERIFY(capturer);
    QTRY_VERIFY_WITH_TIMEOUT(XcbPainter::pixelIs(capturer->nextFrame(), 60, 110, mixed), 10000);
    const cv::Mat frame = capturer->nextFrame();
    QCOMPARE(frame.cols, 640);
    QCOMPARE(frame.rows, 480);
    QVERIFY(XcbPainter::pixelIs(frame, 149, 299, mixed));
    QVERIFY(XcbPainter::pixelIs(frame, 150, 300, Qt::black));
    QVERIFY(XcbPainter::pixelIs(frame, 0, 0, Qt::black));
    QVERIFY2(messages.texts(QtCriticalMsg).isEmpty(), qPrintable(messages.texts(QtCriticalMsg).join('\n')));
}

void TestX11Desktop::turnedMonitorComesAsItsUserSeesIt_data()
{
    addXModeRows();
}

void TestX11Desktop::turnedMonitorComesAsItsUserSeesIt()
{
    QFETCH(int, mode);
    ConfigurationManager::instance()->setGlobalValue("screenCaptureMode", mode);
    DeskDuplManager registry(std::make_shared<TurnedDisplaySystem>(), &Orvanta::createDeskCaptureBackend);
    QSharedPointer<IDeskCapture> left = registry.acquireCapturer("LEFT-A0-O0");
    QVERIFY(left);
    // The picture of the monitor as its user sees it: red in the top left quarter.
    const QColor red(255, 0, 0);
    const QColor green(0, 255, 0);
    m_painter->fill(QRect(0, 0, 1920, 1080), green);
    m_painter->fill(QRect(0, 0, 960, 540), red);

    QTRY_VERIFY_WITH_TIMEOUT(XcbPainter::pixelIs(left->nextFrame(), 10, 10, red), 10000);
    QCOMPARE(left->originSize(), QSize(1920, 1080));
    const cv::Mat frame = left->nextFrame();
    QCOMPARE(frame.cols, 1920);
    QCOMPARE(frame.rows, 1080);
    QVERIFY(XcbPainter::pixelIs(frame, 530, 950, red));
    QVERIFY(XcbPainter::pixelIs(frame, 550, 970, green));
    QVERIFY(XcbPainter::pixelIs(frame, 10, 1900, green));
    QVERIFY(XcbPainter::pixelIs(frame, 1070, 10, green));
}

QTEST_GUILESS_MAIN(TestX11Desktop)
#include "tst_x11desktop.moc"
