// Graphics capture: the per-frame cost of a screen-cast frame (desktop portal,
// PipeWire stream of 1920x1080, scaled to 320x180 on the GPU) against the
// duplication path's frame of an X screen of the same size. In both a square
// of 256 pixels moves each frame and the source says what changed: the X
// server through its damage events, the stream's source (as compositors do)
// through each buffer's list of changed parts. Only the capture call that
// delivers a frame is timed; waiting for the source is not. The PipeWire
// server, its portal and the X server are private and started here.
#include "ConfigurationManager.h"
#include "DXGICapturer.h"
#include "WinRTCapturer.h"
#include "ifaces/DisplayAdapter.h"
#include "ifaces/DisplayOutput.h"
#include "ifaces/DisplaySystem.h"
#include "ifaces/GraphicsDevice.h"

#include <QtCore/QByteArray>

#include "BenchXServer.h"

#include <benchmark/benchmark.h>
#include <xcb/xcb.h>

#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <poll.h>
#include <signal.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

/// The source tree, for the service scripts: $ORVANTA_SOURCE_DIR, or the one
/// the build tree of this program was configured from.
std::string sourceRoot()
{
    if (const char* dir = std::getenv("ORVANTA_SOURCE_DIR"))
        return dir;
    char exe[4096] = {};
    const ssize_t length = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
    if (length <= 0)
        return std::string();
    std::string dir(exe, std::size_t(length));
    for (int up = 0; up < 4; ++up) {
        dir = dir.substr(0, dir.find_last_of('/'));
        std::ifstream cache(dir + "/CMakeCache.txt");
        std::string line;
        const std::string key = "CMAKE_HOME_DIRECTORY:INTERNAL=";
        while (std::getline(cache, line)) {
            if (line.compare(0, key.size(), key) == 0)
                return line.substr(key.size());
        }
    }
    return std::string();
}

/// PipeWire, WirePlumber and the stand-in portal, started by the test fixture's
/// scripts in a directory of their own, with a source of @p size.
class ScreenCastServices
{
public:
    explicit ScreenCastServices(const char* size)
    {
        char pattern[] = "/tmp/orvanta-wgc-bench-XXXXXX";
        if (!mkdtemp(pattern))
            return;
        m_dir = pattern;
        const std::string start = "ORVANTA_SCREENCAST_SIZE=" + std::string(size) + " " + sourceRoot()
            + "/scripts/services/pipewire-start.sh " + m_dir + " bench >/dev/null 2>&1";
        if (std::system(start.c_str()) != 0)
            return;
        std::ifstream env(m_dir + "/bench.env");
        std::string line;
        while (std::getline(env, line)) {
            const std::string prefix = "export ";
            const auto equals = line.find('=');
            if (line.compare(0, prefix.size(), prefix) != 0 || equals == std::string::npos)
                continue;
            ::setenv(line.substr(prefix.size(), equals - prefix.size()).c_str(), line.substr(equals + 1).c_str(), 1);
        }
        // Mode 1 keeps the portal's restore tokens in the configuration: a
        // private one, unless another benchmark made the store first.
        ConfigurationManager::setConfigPath(QString::fromStdString(m_dir + "/config"));
        m_running = true;
    }
    ~ScreenCastServices()
    {
        if (m_dir.empty())
            return;
        const std::string stop
            = sourceRoot() + "/scripts/services/pipewire-stop.sh " + m_dir + " bench >/dev/null 2>&1";
        std::system(stop.c_str());
        std::system(("rm -rf " + m_dir).c_str());
    }
    bool running() const
    {
        return m_running;
    }

private:
    std::string m_dir;
    bool m_running = false;
};

using Clock = std::chrono::steady_clock;

/// Times the one nextFrame() call of each iteration that delivers a frame.
template <typename Prepare> void timeDeliveredFrames(benchmark::State& state, IDeskCapture& capturer, Prepare prepare)
{
    for (auto _ : state) {
        cv::Mat frame;
        double seconds = 0;
        for (int attempt = 0; attempt < 2000 && frame.empty(); ++attempt) {
            prepare();
            const auto begin = Clock::now();
            frame = capturer.nextFrame();
            seconds = std::chrono::duration<double>(Clock::now() - begin).count();
            if (frame.empty())
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        if (frame.empty() || frame.cols != 320 || frame.rows != 180) {
            state.SkipWithError("no frame of 320x180 came");
            return;
        }
        benchmark::DoNotOptimize(frame.data);
        state.SetIterationTime(seconds);
    }
}

void PortalFrameOurs(benchmark::State& state)
{
    static ScreenCastServices services("1920x1080");
    if (!services.running()) {
        state.SkipWithError("PipeWire or the portal did not start");
        return;
    }
#ifndef ORVANTA_DMABUF_SOURCE
    state.SkipWithError("built without the screen-cast source program");
    return;
#else
    // The portal hands out the test source program, in shared memory, with the moving square.
    std::ofstream(std::getenv("ORVANTA_PORTAL_SOURCE"), std::ios::trunc)
        << ORVANTA_DMABUF_SOURCE << " --shm --square 256x256";
#endif
    WinRTCapturer capturer;
    if (capturer.setCaptureContext(DeskCaptureContext()) < 0 || capturer.originSize() != QSize(1920, 1080)) {
        state.SkipWithError("no 1920x1080 screen cast");
        return;
    }
    capturer.setOutputSize(QSize(320, 180));
    timeDeliveredFrames(state, capturer, [] {});
}

void PortalFrameReference(benchmark::State& state)
{
    static BenchXServer server("1920x1080x24");
    ::setenv("DISPLAY", server.display().c_str(), 1);
    auto system = Orvanta::Ifaces::createPlatformDisplaySystem();
    std::shared_ptr<Orvanta::Ifaces::DisplayAdapter> adapter;
    std::shared_ptr<Orvanta::Ifaces::DisplayOutput> output;
    std::shared_ptr<Orvanta::Ifaces::GraphicsDevice> device;
    Orvanta::Ifaces::OutputDescription description;
    if (system->open() < 0 || system->enumAdapter(0, adapter) < 0 || adapter->enumOutput(0, output) < 0
        || output->describe(description) < 0) {
        state.SkipWithError("no X screen");
        return;
    }
    adapter->createDevice(output, device);
    DeskCaptureContext context;
    context.adapter = adapter;
    context.output = output;
    context.device = device;
    context.monitor = description.monitor;
    context.position = QRect(int(description.left), int(description.top), int(description.right - description.left),
        int(description.bottom - description.top));
    context.width = context.position.width();
    context.height = context.position.height();
    DXGICapturer capturer(nullptr);
    if (capturer.setCaptureContext(context) < 0) {
        state.SkipWithError("capturer refused the screen");
        return;
    }
    capturer.setOutputSize(QSize(320, 180));
    ScreenPainter painter;
    timeDeliveredFrames(state, capturer, [&painter] { painter.change(); });
}

} // namespace

BENCHMARK(PortalFrameOurs)->Name("PortalFrame1080To320/ours")->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(PortalFrameReference)->Name("PortalFrame1080To320/reference")->UseManualTime()->Unit(benchmark::kMicrosecond);
