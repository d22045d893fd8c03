#pragma once

// The working state of AudioCapturer: the spectrum computation that turns
// raw device bytes into published band spectra and peak strings, and the
// stream's format and level sources. Nothing here speaks to the platform;
// the endpoint is reached through the EndpointMeter port, and the stream's
// packets arrive through processSamples().

#include "AudioCapturer.h"
#include "FFmpegHandles.h"
#include "ifaces/AudioEndpoint.h"
#include "ifaces/EndpointMeter.h"
#include "ifaces/EndpointStream.h"
#include "ifaces/WaveFormat.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QVector>

#include <atomic>
#include <cstdint>
#include <memory>

extern "C" {
#include <libavutil/samplefmt.h>
}

namespace audiofft {
class AudioFFT;
}

class AudioCapturerPrivate
{
public:
    AudioCapturerPrivate(AudioCapturer* q, int lowerBound, int upperBound);
    ~AudioCapturerPrivate();
    AudioCapturerPrivate(const AudioCapturerPrivate&) = delete;
    AudioCapturerPrivate& operator=(const AudioCapturerPrivate&) = delete;

    static AudioCapturerPrivate* get(AudioCapturer* capturer)
    {
        return capturer->d.get();
    }

    // --- setting up, in the order the capture's start needs them ------------

    /// The platform-free start of loading: window, transform, FFT arrays,
    /// result buffers and the volume timer.
    void prepareAnalysis();
    /// Builds the converter from `waveFormat` to planar float stereo at the
    /// same rate. Returns a negative code (logged) on failure.
    long createConverter();
    /// Bytes of one block of `AudioCapturer::samplesSize` frames of `waveFormat`.
    unsigned int blockSizeInBytes() const;
    /// Turns the bounds from Hz into bins for the stream's rate and labels
    /// the bands. Done once, when the capture starts.
    void calculateBandLayout();

    // --- the computation ----------------------------------------------------

    void calculateWindow();
    /// Appends `size` bytes to `buffer`, whose first `offset` bytes are
    /// filled, computing each block it completes. Returns the new fill level.
    unsigned int processSamples(
        const unsigned char* data, unsigned int size, QVector<unsigned char>& buffer, unsigned int offset);
    void calculateSpectrum(const QVector<unsigned char>& buffer);
    void updateVolumeCache();
    void handlePeakValues();

    /// Whether a cached volume of this age is read again before a block: only
    /// when it is older than VOLUME_UPDATE_INTERVAL_MS, or was never read.
    static bool volumeCacheExpired(bool timerValid, qint64 ageMs)
    {
        return !timerValid || ageMs > AudioCapturer::VOLUME_UPDATE_INTERVAL_MS;
    }

    static AVSampleFormat convertSampleFormat(const Orvanta::Ifaces::WaveFormatExtensible& format);
    static std::uint64_t convertToAvChannelLayout(const Orvanta::Ifaces::WaveFormatExtensible& format);

    int bandCount() const
    {
        return upperBound - lowerBound;
    }

    AudioCapturer* const q;

    // --- the stream ---------------------------------------------------------
    Orvanta::Ifaces::WaveFormatExtensible waveFormat {};
    /// Master volume source; without one the volume stays 1.0.
    std::shared_ptr<Orvanta::Ifaces::EndpointMeter> endpointVolume;
    /// Peak meter; may be absent, and then no peak signal fires.
    std::shared_ptr<Orvanta::Ifaces::EndpointMeter> meterInfo;
    std::uint32_t meterChannelCount = 0;

    // --- the computation ----------------------------------------------------
    std::unique_ptr<audiofft::AudioFFT> fft;
    QVector<float> window;
    QVector<float> fftInput;
    QVector<float> fftReal;
    QVector<float> fftImag;
    /// One entry per band with only the label set.
    QVector<Spectrum> bandFrequencies;
    /// In Hz until calculateBandLayout(), bin indices after it.
    int lowerBound;
    int upperBound;
    Orvanta::SwrContextPtr swrContext;
    Orvanta::AVFramePtr reusableFrame;
    std::atomic<float> cachedVolume {1.0f};
    QElapsedTimer volumeTimer;
    /// Two result buffers used in turn, so that the block being written is
    /// normally not the one a queued signal still shares.
    QVector<SoundChannel> channelsFront;
    QVector<SoundChannel> channelsBack;
    bool useFront = true;

    // --- the endpoint's stream ----------------------------------------------
    /// Opens the stream; the body of AudioCapturer::load().
    long load(std::shared_ptr<Orvanta::Ifaces::AudioEndpoint> device);
    /// The polling loop; the body of AudioCapturer::run().
    void run();
    /// Stops the stream and lets go of the endpoint, meter first, stream last.
    void releaseStream();

    /// Milliseconds between two peak readings: "devUpdateInterval", 33 when
    /// unset. Read once, when the capture loop starts.
    int peakInterval = 0;

    std::unique_ptr<Orvanta::Ifaces::EndpointStream> audioClient;
    std::unique_ptr<Orvanta::Ifaces::EndpointCapture> captureClient;
};
