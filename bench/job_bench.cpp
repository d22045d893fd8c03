// The whole job and the way to a picture, on a private 1920x1080 X server:
//   CaptureLatency/<mode>  from a drawing on the X server (mode 1: by the
//                          screen cast's source) to its colour in
//                          nextFrame(), polled on the front's 33 ms tick;
//   MainJobCpu             the example application's CPU time per second of
//                          its run, against ffmpeg's x11grab at the same size
//                          and rate. Its time column is CPU time per second.
#include "DXGICapturer.h"
#include "GDICapturer.h"
#include "WinRTCapturer.h"

#include <QtCore/QByteArray>

#include "BenchCapture.h"
#include "BenchScreenCast.h"

#include <benchmark/benchmark.h>

#include <csignal>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kTick(33);

const QByteArray kScreen = QByteArrayLiteral("1920x1080x24");

bool showsColour(const cv::Mat& frame, std::uint32_t colour)
{
    // Frames are R, G, B, A; the colour is 0xRRGGBB.
    const cv::Vec4b pixel = frame.at<cv::Vec4b>(frame.rows / 2, frame.cols / 2);
    const int expected[] = {int(colour >> 16) & 0xFF, int(colour >> 8) & 0xFF, int(colour) & 0xFF};
    for (int c = 0; c < 3; ++c) {
        if (std::abs(int(pixel[c]) - expected[c]) > 4) {
            return false;
        }
    }
    return true;
}

double percentile(std::vector<double> values, double fraction)
{
    if (values.empty()) {
        return 0.0;
    }
    std::sort(values.begin(), values.end());
    const std::size_t index = std::min(values.size() - 1, std::size_t(fraction * double(values.size() - 1) + 0.5));
    return values[index];
}

// Each iteration waits a pseudo-random part of a tick, has @p paint fill the
// screen with a new colour and polls on a fixed 33 ms cadence until a frame
// shows it.
template <typename Paint> void measureLatency(benchmark::State& state, IDeskCapture& capturer, Paint paint)
{
    for (int poll = 0; poll < 30 && capturer.nextFrame().empty(); ++poll) {
        std::this_thread::sleep_for(kTick);
    }

    std::vector<double> latencies;
    unsigned step = 0;
    std::uint32_t seed = 12345;
    Clock::time_point tick = Clock::now();
    for (auto _ : state) {
        seed = seed * 1664525u + 1013904223u;
        std::this_thread::sleep_for(std::chrono::microseconds((seed >> 8) % 33000));
        const std::uint32_t colour = (++step % 2 ? 0x204060u : 0xC08020u) + (step % 16) * 0x010101u;
        paint(colour);
        const Clock::time_point drawn = Clock::now();
        bool seen = false;
        while (!seen && Clock::now() - drawn < std::chrono::seconds(2)) {
            while (tick <= Clock::now()) {
                tick += kTick;
            }
            std::this_thread::sleep_until(tick);
            const cv::Mat frame = capturer.nextFrame();
            seen = !frame.empty() && showsColour(frame, colour);
        }
        if (!seen) {
            state.SkipWithError("the colour never arrived");
            break;
        }
        const double latency = std::chrono::duration<double>(Clock::now() - drawn).count();
        state.SetIterationTime(latency);
        latencies.push_back(latency);
    }
    state.counters["median_ms"] = percentile(latencies, 0.5) * 1000.0;
    state.counters["p99_ms"] = percentile(latencies, 0.99) * 1000.0;
}

template <typename Capturer> void captureLatency(benchmark::State& state)
{
    std::shared_ptr<Orvanta::Ifaces::DisplaySystem> system;
    Capturer capturer;
    if (!bindFirstOutput(state, capturer, kScreen, QSize(160, 90), system)) {
        return;
    }
    ScreenPainter painter;
    measureLatency(state, capturer, [&painter](std::uint32_t colour) { painter.fill(colour); });
}

void CaptureLatencyDuplication(benchmark::State& state)
{
    captureLatency<DXGICapturer>(state);
}

void CaptureLatencyBlit(benchmark::State& state)
{
    captureLatency<GDICapturer>(state);
}

// Mode 1 on the stand-in portal: the drawing is the stream source's, which
// paints the colour at its next frame (60 a second, as a compositor's frame
// clock) once told to.
void CaptureLatencyScreenCast(benchmark::State& state)
{
#ifdef ORVANTA_DMABUF_SOURCE
    if (!screenCast1080().running()) {
        state.SkipWithError("PipeWire or the portal did not start");
        return;
    }
    const std::string folder = std::getenv("ORVANTA_PORTAL_SOURCE");
    const std::string pidFile = folder + ".latency-pid";
    const std::string colourFile = folder + ".latency-colour";
    std::remove(pidFile.c_str());
    std::ofstream(folder, std::ios::trunc)
        << ORVANTA_DMABUF_SOURCE << " --shm --pid-file " << pidFile << " --colour-file " << colourFile;
    WinRTCapturer capturer;
    if (capturer.setCaptureContext(DeskCaptureContext()) < 0) {
        state.SkipWithError("no screen cast");
        return;
    }
    capturer.setOutputSize(QSize(160, 90));
    pid_t source = 0;
    for (int attempt = 0; attempt < 200 && source <= 0; ++attempt) {
        std::ifstream(pidFile) >> source;
        if (source <= 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    if (source <= 0) {
        state.SkipWithError("the stream's source did not start");
        return;
    }
    measureLatency(state, capturer, [&](std::uint32_t colour) {
        std::ofstream(colourFile, std::ios::trunc) << std::hex << "0x" << colour << std::endl;
        kill(source, SIGUSR1);
    });
    std::ofstream(folder, std::ios::trunc);
#else
    state.SkipWithError("built without the screen-cast source program");
#endif
}

struct JobUsage
{
    double cpuSeconds = 0.0;
    double wallSeconds = 0.0;
    double peakRssMegabytes = 0.0;
    bool finished = false;
};

/// Runs @p arguments to the end, its output thrown away, and reads what it used.
JobUsage runJob(const std::vector<std::string>& arguments)
{
    JobUsage usage;
    const Clock::time_point start = Clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
        std::vector<char*> argv;
        for (const std::string& argument : arguments) {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);
        if (!freopen("/dev/null", "w", stdout) || !freopen("/dev/null", "w", stderr)) {
            _exit(126);
        }
        execvp(argv[0], argv.data());
        _exit(127);
    }
    if (pid < 0) {
        return usage;
    }
    int status = 0;
    rusage resources {};
    if (wait4(pid, &status, 0, &resources) != pid) {
        return usage;
    }
    usage.wallSeconds = std::chrono::duration<double>(Clock::now() - start).count();
    usage.cpuSeconds = double(resources.ru_utime.tv_sec + resources.ru_stime.tv_sec)
        + double(resources.ru_utime.tv_usec + resources.ru_stime.tv_usec) / 1e6;
    usage.peakRssMegabytes = double(resources.ru_maxrss) / 1024.0;
    usage.finished = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return usage;
}

constexpr int kJobSeconds = 20;

// Both jobs watch a screen that changes at 30 frames a second, as a video would.
void timeJob(benchmark::State& state, const std::vector<std::string>& arguments)
{
    serverFor(kScreen);
    std::atomic<bool> stop {false};
    std::thread video([&stop] {
        ScreenPainter painter;
        Clock::time_point next = Clock::now();
        while (!stop) {
            painter.change();
            next += kTick;
            std::this_thread::sleep_until(next);
        }
    });
    for (auto _ : state) {
        const JobUsage usage = runJob(arguments);
        if (!usage.finished || usage.wallSeconds <= 0.0) {
            state.SkipWithError("the job failed");
            break;
        }
        state.SetIterationTime(usage.cpuSeconds / usage.wallSeconds);
        state.counters["core_percent"] = 100.0 * usage.cpuSeconds / usage.wallSeconds;
        state.counters["peak_rss_MB"] = usage.peakRssMegabytes;
    }
    stop = true;
    video.join();
}

void MainJobCpuOurs(benchmark::State& state)
{
#ifdef ORVANTA_EXAMPLE_PROGRAM
    char folder[] = "/tmp/orvanta-job-XXXXXX";
    if (!mkdtemp(folder)) {
        state.SkipWithError("no temporary folder");
        return;
    }
    const std::string base(folder);
    timeJob(state,
        {ORVANTA_EXAMPLE_PROGRAM, "--seconds", std::to_string(kJobSeconds), "--mode", "0", "--size", "160x90",
            "--config", base + "/config", "--previews", base + "/previews"});
    std::system(("rm -rf '" + base + "'").c_str());
#else
    state.SkipWithError("built without the example application");
#endif
}

void MainJobCpuReference(benchmark::State& state)
{
    timeJob(state,
        {"ffmpeg", "-nostdin", "-loglevel", "error", "-f", "x11grab", "-framerate", "30", "-video_size", "1920x1080",
            "-i", qgetenv("DISPLAY").toStdString(), "-t", std::to_string(kJobSeconds), "-vf", "scale=160:90", "-f",
            "null", "-"});
}

} // namespace

BENCHMARK(CaptureLatencyDuplication)
    ->Name("CaptureLatency/mode0")
    ->UseManualTime()
    ->Iterations(60)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(CaptureLatencyScreenCast)
    ->Name("CaptureLatency/mode1")
    ->UseManualTime()
    ->Iterations(60)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(CaptureLatencyBlit)
    ->Name("CaptureLatency/mode2")
    ->UseManualTime()
    ->Iterations(60)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(MainJobCpuOurs)->Name("MainJobCpu/ours")->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(MainJobCpuReference)
    ->Name("MainJobCpu/reference")
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
