// Live capture against a private sound server that the benchmarks start and
// stop themselves, through the test fixture's scripts.

#include "AudioCapturer.h"
#include "ConfigurationManager.h"
#include "ifaces/AudioEndpoint.h"
#include "ifaces/EndpointWatcher.h"

#include <QtCore/QTemporaryDir>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRate = 48000;
constexpr int kToneBin = 64; // 1500 Hz, centred on a bin

std::string servicesDir()
{
    std::string file = __FILE__;
    return file.substr(0, file.rfind("/bench/")) + "/scripts/services";
}

double processCpuSeconds()
{
    timespec now {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return now.tv_sec + now.tv_nsec / 1e9;
}

// A private daemon for the lifetime of the benchmark program.
class SoundServer
{
public:
    static SoundServer& instance()
    {
        static SoundServer server;
        return server;
    }

    bool ok() const
    {
        return m_ok;
    }

    ~SoundServer()
    {
        if (m_ok) {
            const std::string stop = servicesDir() + "/pulse-stop.sh '" + m_dir.path().toStdString() + "' bench";
            std::system(stop.c_str());
        }
    }

private:
    SoundServer()
    {
        const std::string start
            = servicesDir() + "/pulse-start.sh '" + m_dir.path().toStdString() + "' bench >/dev/null 2>&1";
        m_ok = m_dir.isValid() && std::system(start.c_str()) == 0;
        if (!m_ok) {
            return;
        }
        std::ifstream env(m_dir.path().toStdString() + "/bench.env");
        std::string line;
        while (std::getline(env, line)) {
            const std::string prefix = "export ";
            const auto eq = line.find('=');
            if (line.compare(0, prefix.size(), prefix) == 0 && eq != std::string::npos) {
                setenv(line.substr(prefix.size(), eq - prefix.size()).c_str(), line.substr(eq + 1).c_str(), 1);
            }
        }
        ConfigurationManager::setConfigPath(m_config.path());
    }

    QTemporaryDir m_dir;
    QTemporaryDir m_config;
    bool m_ok = false;
};

std::unique_ptr<AudioCapturer> startCapturer(const std::string& sink)
{
    auto watcher = Orvanta::createPlatformEndpointWatcher();
    if (watcher->open() < 0) {
        return nullptr;
    }
    std::shared_ptr<Orvanta::Ifaces::AudioEndpoint> endpoint;
    if (watcher->endpoint(sink, endpoint) < 0) {
        return nullptr;
    }
    auto capturer = std::make_unique<AudioCapturer>(0, 16000);
    if (capturer->load(endpoint) < 0) {
        return nullptr;
    }
    capturer->start();
    return capturer;
}

void LiveCapture_ours(benchmark::State& state)
{
    if (!SoundServer::instance().ok()) {
        state.SkipWithError("no sound server");
        return;
    }
    // The fixture's silent stream keeps the sink's monitor delivering 48 kHz stereo.
    std::unique_ptr<AudioCapturer> capturer = startCapturer("sinkA");
    if (!capturer) {
        state.SkipWithError("capture did not start");
        return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    for (auto _ : state) {
        const double before = processCpuSeconds();
        std::this_thread::sleep_for(std::chrono::seconds(1));
        state.SetIterationTime(processCpuSeconds() - before);
    }
    state.SetLabel("CPU seconds per second of 48 kHz stereo");
}
BENCHMARK(LiveCapture_ours)->Name("LiveCapture/ours")->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

void LiveCapture_reference(benchmark::State& state)
{
    if (!SoundServer::instance().ok()) {
        state.SkipWithError("no sound server");
        return;
    }
    for (auto _ : state) {
        const pid_t child = fork();
        if (child == 0) {
            const int null = open("/dev/null", O_WRONLY);
            dup2(null, STDOUT_FILENO);
            dup2(null, STDERR_FILENO);
            execlp("parec", "parec", "--device=sinkA.monitor", "--raw", "--latency-msec=20", nullptr);
            _exit(127);
        }
        std::this_thread::sleep_for(std::chrono::seconds(1));
        kill(child, SIGTERM);
        int status = 0;
        rusage usage {};
        wait4(child, &status, 0, &usage);
        state.SetIterationTime(usage.ru_utime.tv_sec + usage.ru_utime.tv_usec / 1e6 + usage.ru_stime.tv_sec
            + usage.ru_stime.tv_usec / 1e6);
    }
    state.SetLabel("CPU seconds of parec for one second");
}
BENCHMARK(LiveCapture_reference)
    ->Name("LiveCapture/reference")
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);

// Plays silence or a tone into a sink through a playback stream whose
// buffering is kept to about 20 ms, so that a switch reaches the sink at once.
class TonePlayer
{
public:
    explicit TonePlayer(const std::string& sink)
    {
        const std::string command = "pacat --playback --raw --format=s16le --rate=48000 --channels=2 "
                                    "--latency-msec=10 --device="
            + sink;
        m_pipe = popen(command.c_str(), "w");
        if (!m_pipe) {
            return;
        }
        fcntl(fileno(m_pipe), F_SETPIPE_SZ, 4096);
        m_feeder = std::thread([this] { feed(); });
    }

    ~TonePlayer()
    {
        m_stop = true;
        if (m_feeder.joinable()) {
            m_feeder.join();
        }
        if (m_pipe) {
            pclose(m_pipe);
        }
    }

    bool ok() const
    {
        return m_pipe != nullptr;
    }

    /// Switches to the tone; returns when its first chunk has been handed to the stream.
    Clock::time_point toneOn()
    {
        std::unique_lock<std::mutex> locker(m_lock);
        m_tone = true;
        m_onsetKnown = false;
        m_onsetWritten.wait(locker, [this] { return m_onsetKnown; });
        return m_onset;
    }
    void toneOff()
    {
        m_tone = false;
    }

private:
    void feed()
    {
        constexpr int frames = 240; // 5 ms
        std::vector<std::int16_t> chunk(frames * 2);
        long long position = 0;
        const double frequency = kToneBin * double(kRate) / 2048.0;
        while (!m_stop) {
            const bool tone = m_tone;
            for (int i = 0; i < frames; ++i) {
                const auto value = tone
                    ? static_cast<std::int16_t>(16383.0 * std::sin(2.0 * M_PI * frequency * (position + i) / kRate))
                    : std::int16_t(0);
                chunk[2 * i] = value;
                chunk[2 * i + 1] = value;
            }
            position += frames;
            if (fwrite(chunk.data(), sizeof(std::int16_t), chunk.size(), m_pipe) != chunk.size()) {
                break;
            }
            fflush(m_pipe);
            if (tone) {
                std::lock_guard<std::mutex> locker(m_lock);
                if (!m_onsetKnown) {
                    m_onset = Clock::now();
                    m_onsetKnown = true;
                    m_onsetWritten.notify_all();
                }
            }
        }
    }

    FILE* m_pipe = nullptr;
    std::thread m_feeder;
    std::atomic<bool> m_stop {false};
    std::atomic<bool> m_tone {false};
    std::mutex m_lock;
    std::condition_variable m_onsetWritten;
    bool m_onsetKnown = false;
    Clock::time_point m_onset;
};

int strongestBand(const SoundChannel& channel)
{
    int strongest = 0;
    for (int i = 1; i < channel.spectrums.size(); ++i) {
        if (channel.spectrums[i].amplitude > channel.spectrums[strongest].amplitude) {
            strongest = i;
        }
    }
    return strongest;
}

void ToneLatency_ours(benchmark::State& state)
{
    if (!SoundServer::instance().ok()) {
        state.SkipWithError("no sound server");
        return;
    }
    std::unique_ptr<AudioCapturer> capturer = startCapturer("sinkA");
    TonePlayer player("sinkA");
    if (!capturer || !player.ok()) {
        state.SkipWithError("capture or playback did not start");
        return;
    }
    std::mutex lock;
    std::condition_variable changed;
    bool toneSeen = false;
    bool silenceSeen = false;
    Clock::time_point seenAt;
    QObject::connect(
        capturer.get(), &AudioCapturer::spectrumsChanged, capturer.get(),
        [&](QVector<SoundChannel> spectrums) {
            const bool tone
                = strongestBand(spectrums[0]) == kToneBin && spectrums[0].spectrums[kToneBin].amplitude > 10.0f;
            std::lock_guard<std::mutex> locker(lock);
            if (tone && !toneSeen) {
                toneSeen = true;
                seenAt = Clock::now();
            }
            silenceSeen = !tone;
            changed.notify_all();
        },
        Qt::DirectConnection);

    for (auto _ : state) {
        {
            std::unique_lock<std::mutex> locker(lock);
            toneSeen = false;
        }
        const Clock::time_point onset = player.toneOn();
        {
            std::unique_lock<std::mutex> locker(lock);
            if (!changed.wait_for(locker, std::chrono::seconds(10), [&] { return toneSeen; })) {
                state.SkipWithError("the tone never showed");
                break;
            }
            state.SetIterationTime(std::chrono::duration<double>(seenAt - onset).count());
            silenceSeen = false;
        }
        player.toneOff();
        std::unique_lock<std::mutex> locker(lock);
        changed.wait_for(locker, std::chrono::seconds(10), [&] { return silenceSeen; });
    }
    QObject::disconnect(capturer.get(), nullptr, nullptr, nullptr);
}
BENCHMARK(ToneLatency_ours)->Name("ToneLatency/ours")->UseManualTime()->Iterations(10)->Unit(benchmark::kMillisecond);

} // namespace
