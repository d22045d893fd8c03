// Desktop duplication and GPU scaling: the per-frame cost of the duplication
// path against the blit back-end on the same X screen, the GPU resize
// against OpenCV's linear resize, and the CPU time of polling an idle screen.
// The X screens are private Xvfb servers started here.
#include "D3DTextureResizer.h"
#include "DXGICapturer.h"
#include "GDICapturer.h"
#include "cpu/SoftwareScaler.h"
#include "ifaces/DisplayAdapter.h"
#include "ifaces/DisplayOutput.h"
#include "ifaces/DisplaySystem.h"
#include "ifaces/GpuScaler.h"
#include "ifaces/GraphicsDevice.h"

#include <QtCore/QByteArray>
#include <QtCore/QThread>

#include <opencv2/imgproc.hpp>

#include "BenchCapture.h"
#include "BenchXServer.h"

#include <benchmark/benchmark.h>
#include <xcb/xcb.h>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <map>
#include <memory>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

template <typename Capturer> void frameOnChangingScreen(benchmark::State& state, const QByteArray& screen)
{
    std::shared_ptr<Orvanta::Ifaces::DisplaySystem> system;
    Capturer capturer;
    if (!bindFirstOutput(state, capturer, screen, QSize(320, 180), system)) {
        return;
    }
    ScreenPainter painter;
    capturer.nextFrame();
    std::int64_t frames = 0;
    for (auto _ : state) {
        state.PauseTiming();
        painter.change();
        state.ResumeTiming();
        const cv::Mat frame = capturer.nextFrame();
        frames += frame.empty() ? 0 : 1;
        benchmark::DoNotOptimize(frame.data);
    }
    state.counters["frames"] = benchmark::Counter(double(frames), benchmark::Counter::kAvgIterations);
}

void DuplicationFrame1080Ours(benchmark::State& state)
{
    frameOnChangingScreen<DXGICapturer>(state, "1920x1080x24");
}
void DuplicationFrame1080Reference(benchmark::State& state)
{
    frameOnChangingScreen<GDICapturer>(state, "1920x1080x24");
}
void DuplicationFrame2160Ours(benchmark::State& state)
{
    frameOnChangingScreen<DXGICapturer>(state, "3840x2160x24");
}
void DuplicationFrame2160Reference(benchmark::State& state)
{
    frameOnChangingScreen<GDICapturer>(state, "3840x2160x24");
}

cv::Mat desktopPicture()
{
    cv::Mat picture(1080, 1920, CV_8UC4);
    cv::randu(picture, cv::Scalar::all(0), cv::Scalar::all(255));
    return picture;
}

// Draws a random desktop-sized picture into 320x180 through @p scaler, once per iteration.
void timeResize(benchmark::State& state, std::shared_ptr<Orvanta::Ifaces::GpuScaler> scaler)
{
    const cv::Mat picture = desktopPicture();
    D3DTextureResizer resizer;
    if (!resizer.setContext(std::move(scaler)) || !resizer.setTargetSize(cv::Size(320, 180))) {
        state.SkipWithError("no scaler");
        return;
    }
    Orvanta::Ifaces::ScalerSource source;
    source.pixels = picture.data;
    source.bytesPerLine = picture.step[0];
    source.width = picture.cols;
    source.height = picture.rows;
    source.format = Orvanta::Ifaces::PixelFormat::B8G8R8A8Unorm;
    for (auto _ : state) {
        const cv::Mat frame = resizer.resizeToCVMat(source);
        benchmark::DoNotOptimize(frame.data);
    }
}

void ResizeGpuOurs(benchmark::State& state)
{
    // The GL path even where the renderer is a software one, which capture
    // leaves to the CPU scaler without making an output's device at all.
    qputenv("ORVANTA_SCALER", "gpu");
    std::shared_ptr<Orvanta::Ifaces::GraphicsDevice> device;
    {
        serverFor("1920x1080x24");
        DeskCaptureContext context;
        std::shared_ptr<Orvanta::Ifaces::DisplaySystem> system;
        if (firstOutput(context, system)) {
            device = context.device;
        }
    }
    auto scaler = Orvanta::Ifaces::createPlatformGpuScaler(device);
    qunsetenv("ORVANTA_SCALER");
    timeResize(state, std::move(scaler));
}

// The same drawing without a GPU context: what runs where none can be made.
void ResizeCpuOurs(benchmark::State& state)
{
    timeResize(state, std::make_shared<Orvanta::Cpu::SoftwareScaler>());
}

void ResizeGpuReference(benchmark::State& state)
{
    const cv::Mat picture = desktopPicture();
    for (auto _ : state) {
        cv::Mat frame;
        cv::resize(picture, frame, cv::Size(320, 180), 0, 0, cv::INTER_LINEAR);
        benchmark::DoNotOptimize(frame.data);
    }
}

// One iteration is one second of the front's polling at its default 33 ms
// on a screen where nothing changes; the CPU column is the cost of that second.
void DuplicationIdleSecondOurs(benchmark::State& state)
{
    std::shared_ptr<Orvanta::Ifaces::DisplaySystem> system;
    DXGICapturer capturer;
    if (!bindFirstOutput(state, capturer, "1920x1080x24", QSize(320, 180), system)) {
        return;
    }
    for (int poll = 0; poll < 100 && capturer.nextFrame().empty(); ++poll) {
        QThread::msleep(10); // the first, whole-screen damage
    }
    std::int64_t frames = 0;
    for (auto _ : state) {
        for (int poll = 0; poll < 30; ++poll) {
            frames += capturer.nextFrame().empty() ? 0 : 1;
            QThread::msleep(33);
        }
    }
    state.counters["frames"] = benchmark::Counter(double(frames));
}

// The same second of 33 ms ticks without a capturer: what the sleeping alone
// costs the thread, which a virtual machine's timers make far from nothing.
void DuplicationIdleSecondReference(benchmark::State& state)
{
    for (auto _ : state) {
        for (int poll = 0; poll < 30; ++poll) {
            QThread::msleep(33);
        }
    }
}

} // namespace

BENCHMARK(DuplicationFrame1080Ours)->Name("DuplicationFrame1080To320/ours")->Unit(benchmark::kMicrosecond);
BENCHMARK(DuplicationFrame1080Reference)->Name("DuplicationFrame1080To320/reference")->Unit(benchmark::kMicrosecond);
BENCHMARK(DuplicationFrame2160Ours)->Name("DuplicationFrame2160To320/ours")->Unit(benchmark::kMicrosecond);
BENCHMARK(DuplicationFrame2160Reference)->Name("DuplicationFrame2160To320/reference")->Unit(benchmark::kMicrosecond);
BENCHMARK(ResizeGpuOurs)->Name("ResizeGpu1080To320/ours")->Unit(benchmark::kMicrosecond);
BENCHMARK(ResizeGpuReference)->Name("ResizeGpu1080To320/reference")->Unit(benchmark::kMicrosecond);
BENCHMARK(ResizeCpuOurs)->Name("ResizeCpu1080To320/ours")->Unit(benchmark::kMicrosecond);
BENCHMARK(ResizeGpuReference)->Name("ResizeCpu1080To320/reference")->Unit(benchmark::kMicrosecond);
BENCHMARK(DuplicationIdleSecondOurs)->Name("DuplicationIdleSecond/ours")->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(DuplicationIdleSecondReference)
    ->Name("DuplicationIdleSecond/reference")
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);
