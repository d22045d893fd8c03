#pragma once

// Signal generators and a capturer prepared the way the capture start
// prepares it, shared by the sound tests.

#include "AudioCapturer.h"
#include "AudioCapturer_p.h"
#include "ResultCodes.h"
#include "fakes/FakeEndpointMeter.h"

#include <QtCore/QByteArray>
#include <QtCore/QVector>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>

namespace SoundTest {

enum class SampleType { U8, S16, S32, Float, Double };

inline int bytesPerSample(SampleType type)
{
    switch (type) {
    case SampleType::U8:
        return 1;
    case SampleType::S16:
        return 2;
    case SampleType::S32:
    case SampleType::Float:
        return 4;
    case SampleType::Double:
        return 8;
    }
    return 0;
}

/// Appends one sample of value `x` (-1 .. 1) in the given type.
inline void appendSample(QByteArray& bytes, SampleType type, double x)
{
    switch (type) {
    case SampleType::U8: {
        const auto v = static_cast<std::uint8_t>(std::lround(128.0 + 127.0 * x));
        bytes.append(reinterpret_cast<const char*>(&v), sizeof v);
        break;
    }
    case SampleType::S16: {
        const auto v = static_cast<std::int16_t>(std::lround(32767.0 * x));
        bytes.append(reinterpret_cast<const char*>(&v), sizeof v);
        break;
    }
    case SampleType::S32: {
        const auto v = static_cast<std::int32_t>(std::llround(2147483647.0 * x));
        bytes.append(reinterpret_cast<const char*>(&v), sizeof v);
        break;
    }
    case SampleType::Float: {
        const auto v = static_cast<float>(x);
        bytes.append(reinterpret_cast<const char*>(&v), sizeof v);
        break;
    }
    case SampleType::Double:
        bytes.append(reinterpret_cast<const char*>(&x), sizeof x);
        break;
    }
}

/// Interleaved frames of a sine of `hz` and `amplitude` on every channel,
/// starting at frame `first`.
inline QByteArray sineFrames(
    SampleType type, int channels, int rate, double hz, double amplitude, int frames, int first = 0)
{
    QByteArray bytes;
    bytes.reserve(frames * channels * bytesPerSample(type));
    for (int i = first; i < first + frames; ++i) {
        const double x = amplitude * std::sin(2.0 * M_PI * hz * i / rate);
        for (int c = 0; c < channels; ++c)
            appendSample(bytes, type, x);
    }
    return bytes;
}

/// Deterministic noise, different per channel.
inline QByteArray noiseFrames(int channels, int frames, std::uint32_t seed)
{
    QByteArray bytes;
    std::uint32_t state = seed;
    for (int i = 0; i < frames * channels; ++i) {
        state = state * 1664525u + 1013904223u;
        const double x = (static_cast<double>(state >> 8) / 16777216.0) * 2.0 - 1.0;
        appendSample(bytes, SampleType::S16, 0.8 * x);
    }
    return bytes;
}

inline Orvanta::Ifaces::WaveFormatExtensible waveFormat(SampleType type, int channels, int rate, std::uint32_t mask)
{
    using namespace Orvanta::Ifaces;
    WaveFormatExtensible format {};
    const bool floating = type == SampleType::Float || type == SampleType::Double;
    format.Format.wFormatTag = WaveFormatTag::Extensible;
    format.Format.nChannels = static_cast<std::uint16_t>(channels);
    format.Format.nSamplesPerSec = static_cast<std::uint32_t>(rate);
    format.Format.wBitsPerSample = static_cast<std::uint16_t>(8 * bytesPerSample(type));
    format.Format.nBlockAlign = static_cast<std::uint16_t>(channels * bytesPerSample(type));
    format.Format.nAvgBytesPerSec = format.Format.nBlockAlign * format.Format.nSamplesPerSec;
    format.Format.cbSize = 22;
    format.Samples.wValidBitsPerSample = format.Format.wBitsPerSample;
    format.dwChannelMask = mask;
    format.SubFormat = floating ? subFormatIeeeFloat() : subFormatPcm();
    return format;
}

inline std::uint32_t maskOfChannels(int channels)
{
    switch (channels) {
    case 1:
        return 0x4; // front centre
    case 2:
        return 0x3;
    case 6:
        return 0x3F; // 5.1
    case 8:
        return 0x63F; // 7.1
    default:
        return 0;
    }
}

/// A capturer set up as its start does it: analysis prepared, converter
/// built, bands laid out; `meter` serves as volume source and peak meter.
struct PreparedCapturer
{
    PreparedCapturer(const Orvanta::Ifaces::WaveFormatExtensible& format,
        std::shared_ptr<FakeEndpointMeter> meter = std::make_shared<FakeEndpointMeter>(), int lowerBound = 0,
        int upperBound = 16000)
        : capturer(new AudioCapturer(lowerBound, upperBound))
        , d(AudioCapturerPrivate::get(capturer.get()))
        , meter(meter)
    {
        d->waveFormat = format;
        d->endpointVolume = meter;
        d->meterInfo = meter;
        d->meterChannelCount = meter ? static_cast<std::uint32_t>(meter->peaks.size()) : 0;
        d->prepareAnalysis();
        converterResult = d->createConverter();
        d->calculateBandLayout();
        block.resize(static_cast<int>(d->blockSizeInBytes()));
    }

    /// Feeds bytes as one packet; returns the new fill level.
    unsigned int feed(const QByteArray& bytes)
    {
        fill = d->processSamples(reinterpret_cast<const unsigned char*>(bytes.constData()),
            static_cast<unsigned int>(bytes.size()), block, fill);
        return fill;
    }

    std::unique_ptr<AudioCapturer> capturer;
    AudioCapturerPrivate* d;
    std::shared_ptr<FakeEndpointMeter> meter;
    long converterResult = E_FAIL;
    QVector<unsigned char> block;
    unsigned int fill = 0;
};

inline int loudestBand(const QVector<Spectrum>& bands)
{
    int best = 0;
    for (int i = 1; i < bands.size(); ++i) {
        if (bands[i].amplitude > bands[best].amplitude)
            best = i;
    }
    return best;
}

} // namespace SoundTest
