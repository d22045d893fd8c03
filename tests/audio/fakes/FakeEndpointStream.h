#pragma once

#include "ResultCodes.h"
#include "ifaces/EndpointMeter.h"
#include "ifaces/EndpointStream.h"

#include <QtCore/QElapsedTimer>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

namespace Fakes {

using namespace Orvanta::Ifaces;

/// What a fake stream was asked and what it answers. Shared between the
/// test and the stream objects, which the capturer owns.
struct StreamScript
{
    std::mutex lock;

    WaveFormatExtensible mixFormat {};
    long mixFormatResult = S_OK;
    long initializeResult = S_OK;
    /// Initialisation fails for any format but 16-bit PCM when set.
    bool only16BitPcm = false;
    long captureClientResult = S_OK;
    long startResult = S_OK;
    long getBufferResult = S_OK;

    // Recorded.
    bool initialized = false;
    WaveFormatExtensible initializedFormat {};
    std::uint32_t initializedFlags = 0xFFFFFFFFu;
    std::int64_t bufferDuration = 0;
    int starts = 0;
    int stops = 0;
    int threadInitialisations = 0;
    int threadUninitialisations = 0;
    std::vector<qint64> pollTimes; ///< ms since the script was made, of drained polls
    QElapsedTimer clock;

    /// Packets still to deliver, each of whole frames.
    std::deque<std::vector<std::uint8_t>> packets;
    std::vector<std::uint8_t> current;
    int packetsTaken = 0;
    int packetsReleased = 0;

    StreamScript()
    {
        clock.start();
    }

    std::uint32_t frameBytes() const
    {
        const WaveFormatExtensible& format = initialized ? initializedFormat : mixFormat;
        return format.Format.nChannels * format.Format.wBitsPerSample / 8;
    }

    void push(std::vector<std::uint8_t> packet)
    {
        std::lock_guard<std::mutex> locker(lock);
        packets.push_back(std::move(packet));
    }

    int released()
    {
        std::lock_guard<std::mutex> locker(lock);
        return packetsReleased;
    }

    std::vector<qint64> polls()
    {
        std::lock_guard<std::mutex> locker(lock);
        return pollTimes;
    }
};

class FakeCapture : public EndpointCapture
{
public:
    explicit FakeCapture(std::shared_ptr<StreamScript> script)
        : script(std::move(script))
    {
    }

    long nextPacketSize(std::uint32_t* frames) override
    {
        std::lock_guard<std::mutex> locker(script->lock);
        if (script->packets.empty()) {
            if (script->getBufferResult < 0) {
                *frames = 1;
                return S_OK;
            }
            script->pollTimes.push_back(script->clock.elapsed());
            *frames = 0;
            return S_OK;
        }
        *frames = static_cast<std::uint32_t>(script->packets.front().size() / script->frameBytes());
        return S_OK;
    }
    long getBuffer(const std::uint8_t** data, std::uint32_t* frames, std::uint32_t* flags) override
    {
        std::lock_guard<std::mutex> locker(script->lock);
        if (script->getBufferResult < 0) {
            return script->getBufferResult;
        }
        if (script->packets.empty()) {
            *frames = 0;
            *data = nullptr;
            return AUDCLNT_S_BUFFER_EMPTY;
        }
        script->current = std::move(script->packets.front());
        script->packets.pop_front();
        ++script->packetsTaken;
        *data = script->current.data();
        *frames = static_cast<std::uint32_t>(script->current.size() / script->frameBytes());
        *flags = 0;
        return S_OK;
    }
    long releaseBuffer(std::uint32_t) override
    {
        std::lock_guard<std::mutex> locker(script->lock);
        ++script->packetsReleased;
        return S_OK;
    }

private:
    std::shared_ptr<StreamScript> script;
};

class FakeStream : public EndpointStream
{
public:
    explicit FakeStream(std::shared_ptr<StreamScript> script)
        : script(std::move(script))
    {
    }

    long mixFormat(WaveFormatExtensible& format) override
    {
        std::lock_guard<std::mutex> locker(script->lock);
        if (script->mixFormatResult >= 0) {
            format = script->mixFormat;
        }
        return script->mixFormatResult;
    }
    long initialize(const WaveFormatExtensible& format, std::uint32_t flags, std::int64_t duration) override
    {
        std::lock_guard<std::mutex> locker(script->lock);
        script->initializedFlags = flags;
        script->bufferDuration = duration;
        script->initializedFormat = format;
        if (script->initializeResult < 0) {
            return script->initializeResult;
        }
        if (script->only16BitPcm
            && (format.Format.wFormatTag != WaveFormatTag::Pcm || format.Format.wBitsPerSample != 16)) {
            return AUDCLNT_E_UNSUPPORTED_FORMAT;
        }
        script->initialized = true;
        return S_OK;
    }
    long captureClient(std::unique_ptr<EndpointCapture>& capture) override
    {
        std::lock_guard<std::mutex> locker(script->lock);
        if (script->captureClientResult >= 0) {
            capture = std::make_unique<FakeCapture>(script);
        }
        return script->captureClientResult;
    }
    long start() override
    {
        std::lock_guard<std::mutex> locker(script->lock);
        ++script->starts;
        return script->startResult;
    }
    long stop() override
    {
        std::lock_guard<std::mutex> locker(script->lock);
        ++script->stops;
        return S_OK;
    }
    long initializeThread() override
    {
        std::lock_guard<std::mutex> locker(script->lock);
        ++script->threadInitialisations;
        return S_OK;
    }
    void uninitializeThread() override
    {
        std::lock_guard<std::mutex> locker(script->lock);
        ++script->threadUninitialisations;
    }

private:
    std::shared_ptr<StreamScript> script;
};

/// Volume and peaks that a test sets while a capture thread reads them.
class FakeMeter : public EndpointMeter
{
public:
    long masterVolumeLevelScalar(float* level) override
    {
        std::lock_guard<std::mutex> locker(lock);
        if (volumeResult >= 0) {
            *level = volume;
        }
        return volumeResult;
    }
    long meteringChannelCount(std::uint32_t* count) override
    {
        std::lock_guard<std::mutex> locker(lock);
        if (countResult >= 0) {
            *count = static_cast<std::uint32_t>(peaks.size());
        }
        return countResult;
    }
    long channelsPeakValues(std::uint32_t count, float* values) override
    {
        std::lock_guard<std::mutex> locker(lock);
        std::copy_n(peaks.begin(), std::min<std::size_t>(count, peaks.size()), values);
        return S_OK;
    }

    std::mutex lock;
    float volume = 1.0f;
    long volumeResult = S_OK;
    long countResult = S_OK;
    std::vector<float> peaks {0.5f, 0.25f};
};

/// A plain 16-bit PCM stereo format at @p rate.
inline WaveFormatExtensible pcm16Stereo(std::uint32_t rate = 48000)
{
    WaveFormatExtensible format {};
    format.Format.wFormatTag = WaveFormatTag::Pcm;
    format.Format.nChannels = 2;
    format.Format.nSamplesPerSec = rate;
    format.Format.wBitsPerSample = 16;
    format.Format.nBlockAlign = 4;
    format.Format.nAvgBytesPerSec = 4 * rate;
    return format;
}

/// An extensible float format with the usual speaker mask of its channel count.
inline WaveFormatExtensible floatExtensible(std::uint16_t channels, std::uint32_t rate, std::uint16_t bits = 32)
{
    WaveFormatExtensible format {};
    format.Format.wFormatTag = WaveFormatTag::Extensible;
    format.Format.nChannels = channels;
    format.Format.nSamplesPerSec = rate;
    format.Format.wBitsPerSample = bits;
    format.Format.nBlockAlign = static_cast<std::uint16_t>(channels * bits / 8);
    format.Format.nAvgBytesPerSec = format.Format.nBlockAlign * rate;
    format.Format.cbSize = 22;
    format.Samples.wValidBitsPerSample = bits;
    format.dwChannelMask = channels == 1 ? 0x4 : channels == 2 ? 0x3 : 0x3F;
    format.SubFormat = subFormatIeeeFloat();
    return format;
}

} // namespace Fakes
