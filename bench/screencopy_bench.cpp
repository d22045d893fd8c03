// Screen copies from a Wayland compositor: the blit mode's frame of a
// 1920x1080 output scaled to 320x180, against a bare screencopy of the same
// output into shared memory, without scaling. Needs a running wlroots
// compositor: $WAYLAND_DISPLAY (and $XDG_RUNTIME_DIR), with the output named
// by $ORVANTA_BENCH_WAYLAND_OUTPUT (HEADLESS-2 by default, as the wayland
// test fixture makes it).
#include "GDICapturer.h"
#include "ResultCodes.h"
#include "ifaces/DisplayAdapter.h"
#include "ifaces/DisplayOutput.h"
#include "wayland/WaylandConnection.h"
#include "wayland/WaylandDisplaySystem.h"
#include "wayland/WaylandScreenGrabber.h"
#include "wayland/WaylandScreencopy.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <string>

namespace {

std::string benchOutput()
{
    const char* name = std::getenv("ORVANTA_BENCH_WAYLAND_OUTPUT");
    return name && *name ? name : "HEADLESS-2";
}

/// The capture context of the output named @p name; false without a compositor or such an output.
bool contextOf(const std::string& name, DeskCaptureContext& context)
{
    if (!std::getenv("WAYLAND_DISPLAY"))
        return false;
    auto system = std::make_shared<Orvanta::Wayland::WaylandDisplaySystem>();
    std::shared_ptr<Orvanta::Ifaces::DisplayAdapter> adapter;
    if (system->open() < 0 || system->enumAdapter(0, adapter) < 0)
        return false;
    std::shared_ptr<Orvanta::Ifaces::DisplayOutput> output;
    for (unsigned int index = 0; adapter->enumOutput(index, output) >= 0; ++index) {
        Orvanta::Ifaces::OutputDescription description;
        if (output->describe(description) < 0 || description.deviceName != std::wstring(name.begin(), name.end()))
            continue;
        context.adapter = adapter;
        context.output = output;
        context.outputIndex = index;
        context.monitor = description.monitor;
        context.position = QRect(int(description.left), int(description.top), int(description.right - description.left),
            int(description.bottom - description.top));
        context.width = context.position.width();
        context.height = context.position.height();
        return true;
    }
    return false;
}

void ScreencopyFrameOurs(benchmark::State& state)
{
    DeskCaptureContext context;
    if (!contextOf(benchOutput(), context) || context.width != 1920 || context.height != 1080) {
        state.SkipWithError("no 1920x1080 output of a Wayland compositor: set WAYLAND_DISPLAY");
        return;
    }
    GDICapturer capturer(std::make_unique<Orvanta::Wayland::WaylandScreenGrabber>());
    capturer.setCaptureContext(context);
    capturer.setOutputSize(QSize(320, 180));
    if (capturer.nextFrame().empty()) {
        state.SkipWithError("no frame");
        return;
    }
    for (auto _ : state) {
        cv::Mat frame = capturer.nextFrame();
        benchmark::DoNotOptimize(frame.data);
    }
}

void ScreencopyFrameReference(benchmark::State& state)
{
    std::shared_ptr<Orvanta::Wayland::WaylandConnection> connection;
    if (!std::getenv("WAYLAND_DISPLAY") || Orvanta::Wayland::WaylandConnection::open(nullptr, connection) < 0) {
        state.SkipWithError("no Wayland compositor: set WAYLAND_DISPLAY");
        return;
    }
    Orvanta::Wayland::WaylandScreencopy copy(connection, benchOutput());
    if (copy.capture(false, 5000) != S_OK || copy.width() != 1920 || copy.height() != 1080) {
        state.SkipWithError("no 1920x1080 screen copy");
        return;
    }
    for (auto _ : state) {
        const long result = copy.capture(false, 5000);
        benchmark::DoNotOptimize(result);
        benchmark::DoNotOptimize(copy.pixels());
    }
}

} // namespace

BENCHMARK(ScreencopyFrameOurs)->Name("ScreencopyFrame1080To320/ours")->Unit(benchmark::kMicrosecond);
BENCHMARK(ScreencopyFrameReference)->Name("ScreencopyFrame1080To320/reference")->Unit(benchmark::kMicrosecond);
