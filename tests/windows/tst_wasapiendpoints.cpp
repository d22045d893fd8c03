// The WASAPI endpoint adapters through Wine's mmdevapi and winepulse, against
// the private PulseAudio server of scripts/test-windows.sh with its null sink
// "SinkA". Wine offers the sink as a render endpoint and its monitor as a
// capture endpoint; it has no true loopback and no peak meter, and the test
// asserts the codes it gives for those.

#include "ifaces/AudioEndpoint.h"
#include "ifaces/EndpointMeter.h"
#include "ifaces/EndpointStream.h"
#include "ifaces/EndpointWatcher.h"
#include "ifaces/WaveFormat.h"
#include "win32/WindowsSdkCompat.h"

#include <gtest/gtest.h>

#include <wrl/client.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace Orvanta;
using Microsoft::WRL::ComPtr;

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kToneFrequency = 1000.0;
constexpr double kToneAmplitude = 0.5;

struct EndpointInfo
{
    std::shared_ptr<Ifaces::AudioEndpoint> endpoint;
    std::string id;
    Ifaces::DataFlow flow = Ifaces::DataFlow::All;
    unsigned long state = 0;
};

class WasapiTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_watcher = createPlatformEndpointWatcher();
        ASSERT_TRUE(m_watcher);
        ASSERT_GE(m_watcher->initializeThread(), 0);
        ASSERT_EQ(m_watcher->open(), S_OK);
    }
    void TearDown() override
    {
        m_watcher.reset();
        CoUninitialize();
    }

    // Active endpoints by friendly name.
    std::map<std::string, EndpointInfo> activeByName()
    {
        std::map<std::string, EndpointInfo> byName;
        std::unique_ptr<Ifaces::EndpointCollection> endpoints;
        EXPECT_EQ(m_watcher->activeEndpoints(endpoints), S_OK);
        if (!endpoints) {
            return byName;
        }
        unsigned count = 0;
        EXPECT_EQ(endpoints->count(count), S_OK);
        for (unsigned index = 0; index < count; ++index) {
            EndpointInfo info;
            EXPECT_EQ(endpoints->item(index, info.endpoint), S_OK);
            if (!info.endpoint) {
                continue;
            }
            std::string name;
            EXPECT_EQ(info.endpoint->friendlyName(name), S_OK);
            EXPECT_EQ(info.endpoint->id(info.id), S_OK);
            EXPECT_EQ(info.endpoint->dataFlow(info.flow), S_OK);
            EXPECT_EQ(info.endpoint->state(info.state), S_OK);
            byName[name] = info;
        }
        return byName;
    }

    std::shared_ptr<Ifaces::EndpointWatcher> m_watcher;
};

// Plays a sine on the default render endpoint through a plain WASAPI render
// client until stopped, on a thread of its own.
class TonePlayer
{
public:
    TonePlayer()
        : m_thread([this] { run(); })
    {
    }
    ~TonePlayer()
    {
        m_stop = true;
        m_thread.join();
    }
    HRESULT result() const
    {
        return m_result;
    }

private:
    void run()
    {
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        m_result = play();
        CoUninitialize();
    }

    HRESULT play()
    {
        ComPtr<IMMDeviceEnumerator> enumerator;
        HRESULT hr = CoCreateInstance(__uuidof(MMDeviceEnumerator), nullptr, CLSCTX_ALL, IID_PPV_ARGS(&enumerator));
        if (FAILED(hr))
            return hr;
        ComPtr<IMMDevice> device;
        if (FAILED(hr = enumerator->GetDefaultAudioEndpoint(eRender, eConsole, &device)))
            return hr;
        ComPtr<IAudioClient> client;
        if (FAILED(hr = device->Activate(__uuidof(IAudioClient), CLSCTX_ALL, nullptr, &client)))
            return hr;
        WAVEFORMATEX* mix = nullptr;
        if (FAILED(hr = client->GetMixFormat(&mix)))
            return hr;
        const WAVEFORMATEXTENSIBLE format = *reinterpret_cast<WAVEFORMATEXTENSIBLE*>(mix);
        CoTaskMemFree(mix);
        // 500 ms of buffer, refilled every 20 ms: enough to ride out a busy machine.
        if (FAILED(hr = client->Initialize(AUDCLNT_SHAREMODE_SHARED, 0, 5000000, 0, &format.Format, nullptr)))
            return hr;
        ComPtr<IAudioRenderClient> render;
        if (FAILED(hr = client->GetService(__uuidof(IAudioRenderClient), &render)))
            return hr;
        UINT32 bufferFrames = 0;
        client->GetBufferSize(&bufferFrames);
        const unsigned channels = format.Format.nChannels;
        const double rate = format.Format.nSamplesPerSec;
        if (format.Format.wBitsPerSample != 32)
            return AUDCLNT_E_UNSUPPORTED_FORMAT;
        std::uint64_t written = 0;
        bool started = false;
        while (!m_stop) {
            UINT32 padding = 0;
            client->GetCurrentPadding(&padding);
            const UINT32 frames = bufferFrames - padding;
            BYTE* data = nullptr;
            if (frames > 0 && SUCCEEDED(render->GetBuffer(frames, &data))) {
                float* samples = reinterpret_cast<float*>(data);
                for (UINT32 frame = 0; frame < frames; ++frame, ++written) {
                    const float value = float(kToneAmplitude * std::sin(2 * kPi * kToneFrequency * written / rate));
                    for (unsigned channel = 0; channel < channels; ++channel)
                        samples[frame * channels + channel] = value;
                }
                render->ReleaseBuffer(frames, 0);
            }
            if (!started) {
                client->Start();
                started = true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        client->Stop();
        return S_OK;
    }

    std::atomic<bool> m_stop {false};
    std::atomic<HRESULT> m_result {S_OK};
    std::thread m_thread;
};

// Goertzel power of one frequency, normalised to the amplitude of a sine.
double toneAmplitude(const std::vector<float>& samples, double frequency, double rate)
{
    const double coefficient = 2 * std::cos(2 * kPi * frequency / rate);
    double previous = 0, beforePrevious = 0;
    for (float sample : samples) {
        const double current = sample + coefficient * previous - beforePrevious;
        beforePrevious = previous;
        previous = current;
    }
    const double power
        = previous * previous + beforePrevious * beforePrevious - coefficient * previous * beforePrevious;
    return 2 * std::sqrt(std::max(power, 0.0)) / samples.size();
}

} // namespace

TEST_F(WasapiTest, ListsTheSinkAndItsMonitorWithIdentifiersAndFlows)
{
    const auto byName = activeByName();
    ASSERT_EQ(byName.count("SinkA"), 1u);
    ASSERT_EQ(byName.count("Monitor of SinkA"), 1u);
    const EndpointInfo& sink = byName.at("SinkA");
    const EndpointInfo& monitor = byName.at("Monitor of SinkA");
    EXPECT_EQ(sink.flow, Ifaces::DataFlow::Render);
    EXPECT_EQ(monitor.flow, Ifaces::DataFlow::Capture);
    EXPECT_EQ(sink.state, unsigned(Ifaces::DeviceStateActive));
    EXPECT_EQ(monitor.state, unsigned(Ifaces::DeviceStateActive));
    EXPECT_FALSE(sink.id.empty());
    EXPECT_FALSE(monitor.id.empty());
    EXPECT_NE(sink.id, monitor.id);

    // Identifiers find the same endpoints again.
    for (const auto& entry : byName) {
        std::shared_ptr<Ifaces::AudioEndpoint> again;
        ASSERT_EQ(m_watcher->endpoint(entry.second.id, again), S_OK) << entry.first;
        std::string name;
        ASSERT_EQ(again->friendlyName(name), S_OK);
        EXPECT_EQ(name, entry.first);
    }
}

TEST_F(WasapiTest, UnknownIdentifierIsNotFound)
{
    std::shared_ptr<Ifaces::AudioEndpoint> endpoint;
    EXPECT_LT(m_watcher->endpoint("{0.0.0.00000000}.{no-such-endpoint}", endpoint), 0);
    EXPECT_FALSE(endpoint);
}

TEST_F(WasapiTest, DefaultEndpointsOfBothFlows)
{
    std::shared_ptr<Ifaces::AudioEndpoint> render;
    ASSERT_EQ(m_watcher->defaultEndpoint(Ifaces::DataFlow::Render, Ifaces::DeviceRole::Console, render), S_OK);
    Ifaces::DataFlow flow = Ifaces::DataFlow::All;
    ASSERT_EQ(render->dataFlow(flow), S_OK);
    EXPECT_EQ(flow, Ifaces::DataFlow::Render);
    std::string id;
    EXPECT_EQ(render->id(id), S_OK);
    EXPECT_FALSE(id.empty());

    std::shared_ptr<Ifaces::AudioEndpoint> capture;
    ASSERT_EQ(m_watcher->defaultEndpoint(Ifaces::DataFlow::Capture, Ifaces::DeviceRole::Console, capture), S_OK);
    ASSERT_EQ(capture->dataFlow(flow), S_OK);
    EXPECT_EQ(flow, Ifaces::DataFlow::Capture);
}

TEST_F(WasapiTest, NotificationsRegisterAndUnregister)
{
    Ifaces::EndpointNotifications notifications;
    notifications.deviceStateChanged = [](const std::string&, unsigned long) {
    };
    notifications.defaultDeviceChanged = [](Ifaces::DataFlow, Ifaces::DeviceRole, const std::string&) {
    };
    EXPECT_EQ(m_watcher->registerNotifications(notifications), S_OK);
    // Registering again replaces the receivers.
    EXPECT_EQ(m_watcher->registerNotifications(notifications), S_OK);
    EXPECT_EQ(m_watcher->unregisterNotifications(), S_OK);
}

TEST_F(WasapiTest, MixFormatIsExtensibleStereoFloat)
{
    const auto byName = activeByName();
    ASSERT_EQ(byName.count("SinkA"), 1u);
    std::unique_ptr<Ifaces::EndpointStream> stream;
    ASSERT_EQ(byName.at("SinkA").endpoint->activateStream(stream), S_OK);
    Ifaces::WaveFormatExtensible format = {};
    ASSERT_EQ(stream->mixFormat(format), S_OK);
    EXPECT_EQ(format.Format.wFormatTag, Ifaces::WaveFormatTag::Extensible);
    EXPECT_EQ(format.Format.nChannels, 2);
    // The rate of the sink, as scripts/test-windows.sh loads it.
    EXPECT_EQ(format.Format.nSamplesPerSec, 44100u);
    EXPECT_EQ(format.Format.wBitsPerSample, 32);
    EXPECT_EQ(format.Format.nBlockAlign, 8);
    EXPECT_EQ(format.Format.cbSize, 22);
    EXPECT_TRUE(Ifaces::sameGuid(format.SubFormat, Ifaces::subFormatIeeeFloat()));
    EXPECT_EQ(format.dwChannelMask, unsigned(SPEAKER_FRONT_LEFT | SPEAKER_FRONT_RIGHT));
}

TEST_F(WasapiTest, LoopbackCaptureIsRefusedByWine)
{
    const auto byName = activeByName();
    ASSERT_EQ(byName.count("SinkA"), 1u);
    std::unique_ptr<Ifaces::EndpointStream> stream;
    ASSERT_EQ(byName.at("SinkA").endpoint->activateStream(stream), S_OK);
    Ifaces::WaveFormatExtensible format = {};
    ASSERT_EQ(stream->mixFormat(format), S_OK);
    ASSERT_EQ(stream->initialize(format, Ifaces::StreamFlagLoopback, 2000000), S_OK);
    std::unique_ptr<Ifaces::EndpointCapture> capture;
    EXPECT_EQ(stream->captureClient(capture), AUDCLNT_E_WRONG_ENDPOINT_TYPE);
    EXPECT_FALSE(capture);
}

TEST_F(WasapiTest, MasterVolumeOfTheSink)
{
    const auto byName = activeByName();
    ASSERT_EQ(byName.count("SinkA"), 1u);
    std::shared_ptr<Ifaces::EndpointMeter> volume;
    ASSERT_EQ(byName.at("SinkA").endpoint->activateVolume(volume), S_OK);
    ASSERT_TRUE(volume);
    float level = -1;
    ASSERT_EQ(volume->masterVolumeLevelScalar(&level), S_OK);
    EXPECT_GE(level, 0.0f);
    EXPECT_LE(level, 1.0f);
}

TEST_F(WasapiTest, PeakMeterIsMissingInWine)
{
    const auto byName = activeByName();
    ASSERT_EQ(byName.count("SinkA"), 1u);
    std::shared_ptr<Ifaces::EndpointMeter> meter;
    EXPECT_EQ(byName.at("SinkA").endpoint->activateMeter(meter), E_NOINTERFACE);
    EXPECT_FALSE(meter);
}

TEST_F(WasapiTest, PollingCaptureOfTheMonitorDeliversThePlayedTone)
{
    const auto byName = activeByName();
    ASSERT_EQ(byName.count("Monitor of SinkA"), 1u);
    std::unique_ptr<Ifaces::EndpointStream> stream;
    ASSERT_EQ(byName.at("Monitor of SinkA").endpoint->activateStream(stream), S_OK);
    Ifaces::WaveFormatExtensible format = {};
    ASSERT_EQ(stream->mixFormat(format), S_OK);
    ASSERT_EQ(format.Format.wBitsPerSample, 32);
    ASSERT_EQ(stream->initialize(format, 0, 2000000), S_OK);
    std::unique_ptr<Ifaces::EndpointCapture> capture;
    ASSERT_EQ(stream->captureClient(capture), S_OK);
    ASSERT_TRUE(capture);

    TonePlayer player;
    ASSERT_EQ(stream->start(), S_OK);

    // The polling loop of the capturer: drain the packets, sleep when none is
    // ready. A null sink starts rendering late, so silence before the tone is
    // skipped; a second of sound is then analysed.
    const unsigned channels = format.Format.nChannels;
    const double rate = format.Format.nSamplesPerSec;
    const std::size_t wanted = std::size_t(rate);
    std::vector<float> left;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (left.size() < wanted && std::chrono::steady_clock::now() < deadline) {
        std::uint32_t frames = 0;
        ASSERT_GE(capture->nextPacketSize(&frames), 0);
        if (frames == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            continue;
        }
        const std::uint8_t* data = nullptr;
        std::uint32_t flags = 0;
        ASSERT_GE(capture->getBuffer(&data, &frames, &flags), 0);
        const float* samples = reinterpret_cast<const float*>(data);
        for (std::uint32_t frame = 0; frame < frames && left.size() < wanted; ++frame) {
            const bool silent = (flags & AUDCLNT_BUFFERFLAGS_SILENT) || samples == nullptr;
            const float value = silent ? 0.0f : samples[frame * channels];
            if (left.empty() && std::fabs(value) < 1e-3f) {
                continue;
            }
            left.push_back(value);
        }
        ASSERT_GE(capture->releaseBuffer(frames), 0);
    }
    EXPECT_EQ(stream->stop(), S_OK);
    EXPECT_EQ(player.result(), S_OK);
    ASSERT_EQ(left.size(), wanted) << "no tone arrived at the monitor";

    // The median over short windows: a dropout of the busy test machine in
    // one window does not decide the outcome.
    std::vector<double> atTone, offTone;
    const std::size_t window = 2048;
    for (std::size_t start = std::size_t(rate / 10); start + window <= left.size(); start += window) {
        const std::vector<float> part(left.begin() + start, left.begin() + start + window);
        atTone.push_back(toneAmplitude(part, kToneFrequency, rate));
        offTone.push_back(std::max(toneAmplitude(part, 1500.0, rate), toneAmplitude(part, 700.0, rate)));
    }
    ASSERT_GE(atTone.size(), 5u);
    std::sort(atTone.begin(), atTone.end());
    std::sort(offTone.begin(), offTone.end());
    EXPECT_NEAR(atTone[atTone.size() / 2], kToneAmplitude, 0.05);
    // Little energy elsewhere: the right frequency, not noise.
    EXPECT_LT(offTone[offTone.size() / 2], 0.02);
}
