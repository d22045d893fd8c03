// Outputs and screen copies against a real Wayland compositor: the fixture's
// headless sway, whose outputs HEADLESS-1 (1280x720 at 0,0, painted #c03020)
// and HEADLESS-2 (1920x1080 at 1280,0, painted #2060c0) stand still.

#include "ConfigurationManager.h"
#include "DeskCaptureBackends.h"
#include "DeskDuplManager.h"
#include "MessageCapture.h"
#include "ResultCodes.h"
#include "WaylandFixture.h"
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

#include <wayland-server.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

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

/// Whether a B, G, R, padding picture's pixel is @p colour.
bool bgrxIs(const std::uint8_t* pixels, std::size_t bytesPerLine, int row, int col, const QColor& colour)
{
    const std::uint8_t* pixel = pixels + bytesPerLine * std::size_t(row) + std::size_t(col) * 4;
    return pixel[2] == colour.red() && pixel[1] == colour.green() && pixel[0] == colour.blue();
}

/// A full-screen window on one output, showing what the test asks for.
class Painter
{
public:
    explicit Painter(const QString& output)
    {
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_process.start(QStringLiteral(ORVANTA_WL_PAINTER), {output});
    }
    ~Painter()
    {
        m_process.closeWriteChannel();
        if (!m_process.waitForFinished(5000)) {
            m_process.kill();
            m_process.waitForFinished(5000);
        }
    }
    /// Draws with the painter's commands; the window's size once the compositor showed the picture, or an empty size.
    QSize show(const QByteArray& commands)
    {
        m_process.write(commands + "show\n");
        while (!m_process.canReadLine()) {
            if (!m_process.waitForReadyRead(10000))
                return QSize();
        }
        const QList<QByteArray> words = m_process.readLine().trimmed().split(' ');
        if (words.size() != 3 || words[0] != "shown")
            return QSize();
        return QSize(words[1].toInt(), words[2].toInt());
    }

private:
    QProcess m_process;
};

/**
 * A compositor of the test's own that only announces outputs, for what sway
 * 1.7's headless outputs cannot do: go away (switching one off fails there).
 * It runs on a thread of its own; the test changes it through run().
 */
class StandInCompositor
{
public:
    StandInCompositor()
    {
        m_display = wl_display_create();
        const char* socket = wl_display_add_socket_auto(m_display);
        m_socket = socket ? socket : "";
        m_wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        m_wakeSource
            = wl_event_loop_add_fd(wl_display_get_event_loop(m_display), m_wake, WL_EVENT_READABLE, &wake, this);
        m_thread = std::thread([this] {
            wl_event_loop* loop = wl_display_get_event_loop(m_display);
            while (!m_stop) {
                wl_display_flush_clients(m_display);
                wl_event_loop_dispatch(loop, 100);
            }
        });
    }
    ~StandInCompositor()
    {
        run([this] { m_stop = true; });
        m_thread.join();
        wl_event_source_remove(m_wakeSource);
        wl_display_destroy_clients(m_display);
        wl_display_destroy(m_display);
        ::close(m_wake);
    }
    QString socket() const
    {
        return QString::fromLocal8Bit(m_socket.c_str());
    }
    /// Announces an output; its global, for removeOutput().
    wl_global* addOutput(const std::string& name, int x, int y, int width, int height)
    {
        wl_global* global = nullptr;
        run([&] {
            auto* output = new Output {name, x, y, width, height};
            global = wl_global_create(m_display, &wl_output_interface, 4, output, &bindOutput);
            m_outputs.push_back(std::unique_ptr<Output>(output));
        });
        return global;
    }
    void removeOutput(wl_global* global)
    {
        run([global] { wl_global_destroy(global); });
    }

private:
    struct Output
    {
        std::string name;
        int x, y, width, height;
    };

    static void bindOutput(wl_client* client, void* data, std::uint32_t version, std::uint32_t id)
    {
        const auto* output = static_cast<const Output*>(data);
        wl_resource* resource = wl_resource_create(client, &wl_output_interface, int(version), id);
        wl_resource_set_implementation(resource, &outputRequests, nullptr, nullptr);
        wl_output_send_geometry(resource, output->x, output->y, 0, 0, WL_OUTPUT_SUBPIXEL_UNKNOWN, "stand-in",
            "stand-in", WL_OUTPUT_TRANSFORM_NORMAL);
        wl_output_send_mode(resource, WL_OUTPUT_MODE_CURRENT, output->width, output->height, 60000);
        if (version >= WL_OUTPUT_NAME_SINCE_VERSION)
            wl_output_send_name(resource, output->name.c_str());
        wl_output_send_done(resource);
    }
    static void release(wl_client*, wl_resource* resource)
    {
        wl_resource_destroy(resource);
    }
    static int wake(int fd, std::uint32_t, void* data)
    {
        std::uint64_t count = 0;
        if (::read(fd, &count, sizeof count) < 0)
            return 0;
        auto* self = static_cast<StandInCompositor*>(data);
        std::vector<std::function<void()>> work;
        {
            std::lock_guard<std::mutex> lock(self->m_mutex);
            work.swap(self->m_work);
        }
        for (const auto& job : work)
            job();
        return 0;
    }
    /// Runs @p job on the compositor's thread and waits for it.
    void run(const std::function<void()>& job)
    {
        std::mutex doneMutex;
        std::condition_variable doneCondition;
        bool done = false;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_work.push_back([&] {
                job();
                std::lock_guard<std::mutex> doneLock(doneMutex);
                done = true;
                doneCondition.notify_all();
            });
        }
        const std::uint64_t one = 1;
        if (::write(m_wake, &one, sizeof one) < 0)
            return;
        std::unique_lock<std::mutex> doneLock(doneMutex);
        doneCondition.wait(doneLock, [&] { return done; });
    }

    static const struct wl_output_interface outputRequests;

    wl_display* m_display = nullptr;
    std::string m_socket;
    int m_wake = -1;
    wl_event_source* m_wakeSource = nullptr;
    bool m_stop = false;
    std::thread m_thread;
    std::mutex m_mutex;
    std::vector<std::function<void()>> m_work;
    std::vector<std::unique_ptr<Output>> m_outputs;
};

const struct wl_output_interface StandInCompositor::outputRequests = {&StandInCompositor::release};

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

} // namespace

class TestWaylandDisplay : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void rowsNameEveryOutput();
    void outputsDescribeThemselves();
    void addedOutputsAreFollowed();
    void outputTakenAwayIsNoLongerListed();
    void eachOutputGivesItsColour_data();
    void eachOutputGivesItsColour();
    void turnedOutputComesAsItsUserSeesIt_data();
    void turnedOutputComesAsItsUserSeesIt();
    void stillOutputGivesOneFrameThenWaits();

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

void TestWaylandDisplay::addedOutputsAreFollowed()
{
    Orvanta::Wayland::WaylandDisplaySystem system;
    QCOMPARE(system.open(), S_OK);
    std::shared_ptr<Orvanta::Ifaces::DisplayAdapter> adapter;
    QCOMPARE(system.enumAdapter(0, adapter), S_OK);
    const QStringList before = outputNames(*adapter);
    QCOMPARE(before.size(), 2);

    // Plugged in while the display system runs: listed without asking again.
    QVERIFY(!swaymsg({"create_output"}).isNull());
    QTRY_COMPARE_WITH_TIMEOUT(outputNames(*adapter).size(), 3, 5000);
    const QString added = outputNames(*adapter).constLast();
    QVERIFY(added.startsWith(QLatin1String("HEADLESS-")));
    QVERIFY(!before.contains(added));
    unsigned index = 0;
    const std::shared_ptr<Orvanta::Ifaces::DisplayOutput> output = findOutput(*adapter, added, &index);
    QVERIFY(output);
    QCOMPARE(index, 2u);
    OutputDescription description;
    QCOMPARE(output->describe(description), S_OK);
    QCOMPARE(description.right - description.left, 1920L);
    QCOMPARE(description.bottom - description.top, 1080L);
    QVERIFY(description.left >= 3200);

    // It is captured like the others.
    Painter painter(added);
    QCOMPARE(painter.show("fill 10c040\n"), QSize(1920, 1080));
    Orvanta::Wayland::WaylandScreenGrabber grabber;
    Orvanta::Ifaces::ScreenRect rect;
    QVERIFY(grabber.monitorRect(description.monitor, rect));
    Orvanta::Ifaces::ScreenImage image;
    QVERIFY(grabber.grab(description.monitor, rect, image));
    QVERIFY(bgrxIs(image.pixels, image.bytesPerLine, 540, 960, QColor(0x10, 0xc0, 0x40)));
}

void TestWaylandDisplay::outputTakenAwayIsNoLongerListed()
{
    StandInCompositor compositor;
    QVERIFY(!compositor.socket().isEmpty());
    compositor.addOutput("LEFT", 0, 0, 800, 600);
    wl_global* right = compositor.addOutput("RIGHT", 800, 0, 1024, 768);
    Orvanta::Wayland::WaylandDisplaySystem system(compositor.socket().toStdString());
    QCOMPARE(system.open(), S_OK);
    std::shared_ptr<Orvanta::Ifaces::DisplayAdapter> adapter;
    QCOMPARE(system.enumAdapter(0, adapter), S_OK);
    QCOMPARE(outputNames(*adapter), (QStringList {"LEFT", "RIGHT"}));
    const std::shared_ptr<Orvanta::Ifaces::DisplayOutput> output = findOutput(*adapter, "RIGHT");
    QVERIFY(output);
    OutputDescription description;
    QCOMPARE(output->describe(description), S_OK);
    // Without xdg-output, wl_output's position and the mode's size.
    QCOMPARE(description.left, 800L);
    QCOMPARE(description.right, 1824L);
    QCOMPARE(description.bottom, 768L);
    auto duplicator = Orvanta::Ifaces::createPlatformDesktopDuplicator(adapter, nullptr, output);
    QCOMPARE(duplicator->enumOutput(1), S_OK);
    // Without screencopy the duplication goes through the desktop portal's
    // screen cast, whose outputs are the fixture compositor's: the one the
    // user picks there is not this one, and is not taken for it.
    std::unique_ptr<Orvanta::Ifaces::OutputDuplication> duplication;
    QCOMPARE(duplicator->queryDuplicationOutput(), S_OK);
    QCOMPARE(duplicator->duplicateOutput({87}, duplication), DXGI_ERROR_NOT_CURRENTLY_AVAILABLE);
    QVERIFY(!duplication);

    compositor.removeOutput(right);
    QTRY_COMPARE_WITH_TIMEOUT(outputNames(*adapter), QStringList {"LEFT"}, 5000);
    QCOMPARE(output->describe(description), DXGI_ERROR_NOT_CURRENTLY_AVAILABLE);
    // Found by what it is, not by an index that now names nothing or another output.
    QCOMPARE(duplicator->enumOutput(1), DXGI_ERROR_NOT_FOUND);
    QCOMPARE(duplicator->enumOutput(0), DXGI_ERROR_NOT_FOUND);

    // Plugged in again under its name, it is the same output.
    compositor.addOutput("RIGHT", 800, 0, 1024, 768);
    QTRY_COMPARE_WITH_TIMEOUT(output->describe(description), S_OK, 5000);
    QCOMPARE(duplicator->enumOutput(0), S_OK);
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
    QTRY_VERIFY_WITH_TIMEOUT(pixelIs(first->nextFrame(), 18, 32, kFirstColour, 2), 10000);
    QTRY_VERIFY_WITH_TIMEOUT(pixelIs(second->nextFrame(), 18, 32, kSecondColour, 2), 10000);
    for (const QSharedPointer<IDeskCapture>& capturer : {first, second}) {
        const cv::Mat frame = capturer->nextFrame();
        QCOMPARE(frame.type(), CV_8UC4);
        QCOMPARE(frame.cols, 64);
        QCOMPARE(frame.rows, 36);
        const QColor colour = capturer == first ? kFirstColour : kSecondColour;
        QVERIFY(pixelIs(frame, 0, 0, colour, 2));
        QVERIFY(pixelIs(frame, 35, 63, colour, 2));
    }
    QVERIFY(messages.texts(QtWarningMsg).isEmpty());
}

void TestWaylandDisplay::turnedOutputComesAsItsUserSeesIt_data()
{
    // The capture mode, sway's transform and where the compositor's unturned
    // picture holds the user's top left quarter.
    QTest::addColumn<int>("mode");
    QTest::addColumn<QByteArray>("transform");
    QTest::addColumn<QRect>("cornerOfTheBuffer");
    QTest::newRow("duplication, 90") << 0 << QByteArray("90") << QRect(640, 0, 640, 360);
    QTest::newRow("blit, 90") << 2 << QByteArray("90") << QRect(640, 0, 640, 360);
    QTest::newRow("duplication, 270") << 0 << QByteArray("270") << QRect(0, 360, 640, 360);
    QTest::newRow("blit, 270") << 2 << QByteArray("270") << QRect(0, 360, 640, 360);
}

void TestWaylandDisplay::turnedOutputComesAsItsUserSeesIt()
{
    QFETCH(int, mode);
    QFETCH(QByteArray, transform);
    QFETCH(QRect, cornerOfTheBuffer);
    ConfigurationManager::instance()->setGlobalValue("screenCaptureMode", mode);
    QVERIFY(!swaymsg({"output", "HEADLESS-1", "transform", transform}).isNull());
    auto restore = qScopeGuard([] { swaymsg({"output", "HEADLESS-1", "transform", "normal"}); });
    // The picture as the user of the turned output sees it: green, with red in the top left quarter.
    const QColor red(255, 0, 0);
    const QColor green(0, 255, 0);
    Painter painter(QStringLiteral("HEADLESS-1"));
    QCOMPARE(painter.show("fill 00ff00\nrect 0 0 360 640 ff0000\n"), QSize(720, 1280));

    DeskDuplManager registry;
    QCOMPARE(registry.capturerMetadata("HEADLESS-1-A0-O0").value("width").toInt(), 720);
    QCOMPARE(registry.capturerMetadata("HEADLESS-1-A0-O0").value("height").toInt(), 1280);
    QSharedPointer<IDeskCapture> turned = registry.acquireCapturer("HEADLESS-1-A0-O0");
    QVERIFY(turned);
    turned->setOutputSize(QSize(72, 128));
    QTRY_VERIFY_WITH_TIMEOUT(pixelIs(turned->nextFrame(), 10, 10, red, 2), 10000);
    QCOMPARE(turned->originSize(), QSize(720, 1280));
    const cv::Mat frame = turned->nextFrame();
    QCOMPARE(frame.cols, 72);
    QCOMPARE(frame.rows, 128);
    QVERIFY(pixelIs(frame, 60, 30, red, 2));
    QVERIFY(pixelIs(frame, 10, 60, green, 2));
    QVERIFY(pixelIs(frame, 120, 10, green, 2));
    QVERIFY(pixelIs(frame, 120, 60, green, 2));

    // The compositor's own picture holds the red quarter elsewhere: the frame was turned.
    Orvanta::Wayland::WaylandScreenGrabber grabber;
    const std::uintptr_t monitor = Orvanta::Wayland::WaylandConnection::handleOfName("HEADLESS-1");
    Orvanta::Ifaces::ScreenRect rect;
    QVERIFY(grabber.monitorRect(monitor, rect));
    Orvanta::Ifaces::ScreenImage image;
    QVERIFY(grabber.grab(monitor, rect, image));
    QCOMPARE(QSize(image.width, image.height), QSize(1280, 720));
    QVERIFY(
        bgrxIs(image.pixels, image.bytesPerLine, cornerOfTheBuffer.center().y(), cornerOfTheBuffer.center().x(), red));
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

    // Then nothing changes: after at most the compositor's first report of
    // damage, which covers everything, acquiring waits its whole timeout for nothing.
    int repeats = 0;
    while (duplication->acquireNextFrame(200) == S_OK) {
        QVERIFY(++repeats <= 1);
        QCOMPARE(duplication->releaseFrame(), S_OK);
    }
    for (int attempt = 0; attempt < 3; ++attempt) {
        QElapsedTimer waited;
        waited.start();
        QCOMPARE(duplication->acquireNextFrame(200), DXGI_ERROR_WAIT_TIMEOUT);
        QVERIFY(waited.elapsed() >= 150);
    }

    // A moving square arrives, with the parts that changed.
    Painter painter(QStringLiteral("HEADLESS-2"));
    QCOMPARE(painter.show("fill 2060c0\n"), QSize(1920, 1080));
    const QColor yellow(0xe0, 0xd0, 0x10);
    for (int step = 0; step < 3; ++step) {
        const int x = 100 + step * 400;
        QVERIFY(!painter.show(QStringLiteral("fill 2060c0\nrect %1 300 200 200 e0d010\n").arg(x).toLatin1()).isEmpty());
        long result = DXGI_ERROR_WAIT_TIMEOUT;
        QElapsedTimer waiting;
        waiting.start();
        while (waiting.elapsed() < 10000) {
            result = duplication->acquireNextFrame(500);
            if (result != S_OK)
                continue;
            QCOMPARE(duplication->frameSource(source), S_OK);
            pixels = static_cast<const std::uint8_t*>(source.pixels);
            if (bgrxIs(pixels, source.bytesPerLine, 400, x + 100, yellow))
                break;
            QCOMPARE(duplication->releaseFrame(), S_OK);
            result = DXGI_ERROR_WAIT_TIMEOUT;
        }
        QCOMPARE(result, S_OK);
        QVERIFY(bgrxIs(pixels, source.bytesPerLine, 250, x + 100, kSecondColour));
        QVERIFY(bgrxIs(pixels, source.bytesPerLine, 400, x + 300, kSecondColour));
        QVERIFY(source.changedRects);
        QVERIFY(source.changedRectCount > 0);
        QCOMPARE(duplication->releaseFrame(), S_OK);
    }
}

QTEST_GUILESS_MAIN(TestWaylandDisplay)
#include "tst_wayland_display.moc"
