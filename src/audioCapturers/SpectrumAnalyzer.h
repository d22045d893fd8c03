#pragma once

#include "FFmpegHandles.h"
#include "IAudioCapture.h"

#include <QtCore/QVector>
#include <QtCore/QtGlobal>

#include <memory>

namespace audiofft {
class AudioFFT;
}

/**
 * Turns a stream of raw interleaved sample bytes into band spectra, one per
 * block of 2048 frames.
 *
 * Bytes collect in a cache frame in the input's own format until a block is
 * full; the block is then converted to planar float stereo at the input's
 * rate, windowed and transformed per channel. Unlike the endpoint capturer,
 * every block is returned and the magnitudes are divided by a stored scale.
 *
 * A plain computation class without a lock: set the format, then feed it
 * from one thread.
 */
class SpectrumAnalyzer
{
public:
    SpectrumAnalyzer();
    ~SpectrumAnalyzer();
    SpectrumAnalyzer(const SpectrumAnalyzer&) = delete;
    SpectrumAnalyzer& operator=(const SpectrumAnalyzer&) = delete;

    /// (Re)builds the converter and the cache frame, and drops any partial
    /// block. `sampleFormat` is an FFmpeg sample format and must be packed.
    /// A failure is logged; process() then returns nothing.
    void setInputFormat(int sampleFormat, int sampleRate, quint64 channelLayout);

    /// Takes any number of bytes; returns one entry per block they complete.
    /// Bytes of a partial block are kept for the next call.
    QVector<QVector<SoundChannel>> process(const unsigned char* data, qint64 size);

    /// Converts one full cache frame to planar float stereo. Null on failure.
    AVFrame* resample(AVFrame* input);

    /// The two channels' bands of one converted frame.
    QVector<SoundChannel> calculateSpectrum(AVFrame* frame);

    /// Stores `volume` clamped to 0.0 .. 1.0; 0.0 leaves magnitudes undivided.
    void setVolume(double volume);

    double volumeScale() const
    {
        return volume;
    }
    /// Bytes of the partial block waiting in the cache frame.
    int cacheFillLevel() const
    {
        return cacheFill;
    }

private:
    friend class SpectrumAnalyzerTest;

    std::unique_ptr<audiofft::AudioFFT> fft;
    QVector<float> window;
    QVector<float> fftInput;
    QVector<float> reservedReal;
    QVector<float> reservedImag;
    int lowerFrequency = 20;
    int upperFrequency = 16000;
    Orvanta::SwrContextPtr swrContext;
    Orvanta::AVFramePtr cacheFrame;
    int cacheFill = 0;
    double volume = 1.0;
};
