// Desktop capture: the per-frame cost of the blit back-end (copy of one
// monitor, scaling, colour order) against a bare shared-memory get-image of
// the same rectangle, on an X server of its own: a 3840x2160 Xvfb with a
// 1920x1080 monitor "HD" in its top-left corner beside the whole-screen one.
#include "GDICapturer.h"
#include "ResultCodes.h"
#include "ifaces/DisplayAdapter.h"
#include "ifaces/DisplayOutput.h"
#include "x11/XcbDisplaySystem.h"

#include <benchmark/benchmark.h>

#include <xcb/shm.h>
#include <xcb/xcb.h>

#include <sys/ipc.h>
#include <sys/shm.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

std::string directoryOf(const std::string& path)
{
    const auto slash = path.find_last_of('/');
    return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

/// The source tree's scripts folder, found from this file's compiled-in path.
std::string serviceScripts()
{
    if (const char* source = std::getenv("ORVANTA_SOURCE_DIR"))
        return std::string(source) + "/scripts/services";
    std::string file = __FILE__;
    if (file.empty() || file[0] != '/') {
        // A path relative to the build directory, two levels above the program.
        char exe[4096] = {};
        const ssize_t length = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
        if (length > 0)
            file = directoryOf(directoryOf(std::string(exe, std::size_t(length)))) + "/" + file;
    }
    return directoryOf(file) + "/../scripts/services";
}

/// An Xvfb started through the test fixture's scripts, stopped at exit.
class XServer
{
public:
    XServer()
    {
        char pattern[] = "/tmp/orvanta-bench-XXXXXX";
        if (!mkdtemp(pattern))
            throw std::runtime_error("no temporary directory");
        m_dir = pattern;
        m_scripts = serviceScripts();
        const std::string start = "ORVANTA_XVFB_SCREEN=3840x2160x24 ORVANTA_XVFB_SPLIT=0 '" + m_scripts
            + "/xvfb-start.sh' '" + m_dir + "' bench >/dev/null";
        if (std::system(start.c_str()) != 0)
            throw std::runtime_error("Xvfb did not start: " + start);
        std::ifstream env(m_dir + "/bench.env");
        std::string line;
        std::getline(env, line);
        m_display = line.substr(line.find('=') + 1);
        setenv("DISPLAY", m_display.c_str(), 1);
        const std::string monitor = "xrandr --setmonitor HD 1920/508x1080/286+0+0 none >/dev/null";
        if (std::system(monitor.c_str()) != 0)
            throw std::runtime_error("xrandr failed");
    }

    ~XServer()
    {
        const std::string stop = "'" + m_scripts + "/xvfb-stop.sh' '" + m_dir + "' bench";
        std::system(stop.c_str());
        std::system(("rm -rf '" + m_dir + "'").c_str());
    }

    static XServer& instance()
    {
        static XServer server;
        return server;
    }

private:
    std::string m_dir;
    std::string m_scripts;
    std::string m_display;
};

/// The capture context of the monitor named @p name.
DeskCaptureContext contextOf(const std::wstring& name)
{
    XServer::instance();
    auto system = std::make_shared<Orvanta::X11::XcbDisplaySystem>();
    if (system->open() < 0)
        throw std::runtime_error("no X server");
    std::shared_ptr<Orvanta::Ifaces::DisplayAdapter> adapter;
    system->enumAdapter(0, adapter);
    std::shared_ptr<Orvanta::Ifaces::DisplayOutput> output;
    for (unsigned int index = 0; adapter->enumOutput(index, output) >= 0; ++index) {
        Orvanta::Ifaces::OutputDescription description;
        if (output->describe(description) < 0 || description.deviceName != name)
            continue;
        DeskCaptureContext context;
        context.adapter = adapter;
        context.output = output;
        context.outputIndex = index;
        context.monitor = description.monitor;
        context.position = QRect(int(description.left), int(description.top), int(description.right - description.left),
            int(description.bottom - description.top));
        context.width = context.position.width();
        context.height = context.position.height();
        return context;
    }
    throw std::runtime_error("monitor not found");
}

void blitFrameOurs(benchmark::State& state, const std::wstring& monitor, QSize outputSize)
{
    GDICapturer capturer;
    capturer.setCaptureContext(contextOf(monitor));
    capturer.setOutputSize(outputSize);
    if (capturer.nextFrame().empty()) {
        state.SkipWithError("no frame");
        return;
    }
    for (auto _ : state) {
        cv::Mat frame = capturer.nextFrame();
        benchmark::DoNotOptimize(frame.data);
    }
}

/// What a caller would write by hand: one MIT-SHM get-image of the rectangle.
void blitFrameReference(benchmark::State& state, const std::wstring& monitor)
{
    const DeskCaptureContext context = contextOf(monitor);
    xcb_connection_t* connection = xcb_connect(nullptr, nullptr);
    const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(connection)).data;
    const QRect rect = context.position;
    const std::size_t size = std::size_t(rect.width()) * std::size_t(rect.height()) * 4;
    const int id = shmget(IPC_PRIVATE, size, IPC_CREAT | 0600);
    void* memory = shmat(id, nullptr, 0);
    const xcb_shm_seg_t segment = xcb_generate_id(connection);
    std::free(xcb_request_check(connection, xcb_shm_attach_checked(connection, segment, std::uint32_t(id), 0)));
    shmctl(id, IPC_RMID, nullptr);
    for (auto _ : state) {
        xcb_shm_get_image_reply_t* reply = xcb_shm_get_image_reply(connection,
            xcb_shm_get_image(connection, screen->root, std::int16_t(rect.x()), std::int16_t(rect.y()),
                std::uint16_t(rect.width()), std::uint16_t(rect.height()), ~0u, XCB_IMAGE_FORMAT_Z_PIXMAP, segment, 0),
            nullptr);
        benchmark::DoNotOptimize(reply);
        std::free(reply);
        benchmark::DoNotOptimize(static_cast<unsigned char*>(memory)[0]);
    }
    xcb_shm_detach(connection, segment);
    xcb_disconnect(connection);
    shmdt(memory);
}

void BM_BlitFrame1080To320Ours(benchmark::State& state)
{
    blitFrameOurs(state, L"HD", QSize(320, 180));
}

void BM_BlitFrame1080To320Reference(benchmark::State& state)
{
    blitFrameReference(state, L"HD");
}

void BM_BlitFrame1080To64Ours(benchmark::State& state)
{
    blitFrameOurs(state, L"HD", QSize(64, 36));
}

void BM_BlitFrame1080To64Reference(benchmark::State& state)
{
    blitFrameReference(state, L"HD");
}

void BM_BlitFrame2160To320Ours(benchmark::State& state)
{
    blitFrameOurs(state, L"screen", QSize(320, 180));
}

void BM_BlitFrame2160To320Reference(benchmark::State& state)
{
    blitFrameReference(state, L"screen");
}

} // namespace

BENCHMARK(BM_BlitFrame1080To320Ours)->Name("BlitFrame1080To320/ours")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BlitFrame1080To320Reference)->Name("BlitFrame1080To320/reference")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BlitFrame1080To64Ours)->Name("BlitFrame1080To64/ours")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BlitFrame1080To64Reference)->Name("BlitFrame1080To64/reference")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BlitFrame2160To320Ours)->Name("BlitFrame2160To320/ours")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BlitFrame2160To320Reference)->Name("BlitFrame2160To320/reference")->Unit(benchmark::kMicrosecond);
