// Graphics capture: the per-frame cost of a screen-cast frame (desktop portal,
// PipeWire stream of 1920x1080, scaled to 320x180 on the GPU) against the
// duplication path's frame of an X screen of the same size. In both a square
// of 256 pixels moves each frame and the source says what changed: the X
// server through its damage events, the stream's source (as compositors do)
// through each buffer's list of changed parts. Only the capture call that
// delivers a frame is timed; waiting for the source is not. The PipeWire
// server, its portal and the X server are private and started here.
#include "DXGICapturer.h"
#include "WinRTCapturer.h"
#include "ifaces/DisplayAdapter.h"
#include "ifaces/DisplayOutput.h"
#include "ifaces/DisplaySystem.h"
#include "ifaces/GraphicsDevice.h"

#include <QtCore/QByteArray>

#include "BenchScreenCast.h"
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
    if (!screenCast1080().running()) {
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
