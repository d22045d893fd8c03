// Sound analysis: the capturer's per-block path, SpectrumAnalyzer per block,
// and the 2048-point transform, each against the same work done on FFTW's
// single-precision real transform.
#include "AudioCapturer.h"
#include "AudioCapturer_p.h"
#include "AudioFFT.h"
#include "SpectrumAnalyzer.h"
#include "SpectrumMath.h"

#include <QtCore/QByteArray>

#include <benchmark/benchmark.h>
#include <fftw3.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

namespace {

constexpr int blockFrames = 2048;
constexpr int rate = 48000;

// One block of s16 stereo: two tones and some noise, so no bin is empty.
QByteArray stereoBlock()
{
    QByteArray bytes(blockFrames * 2 * 2, '\0');
    auto* samples = reinterpret_cast<std::int16_t*>(bytes.data());
    std::uint32_t state = 1;
    for (int i = 0; i < blockFrames; ++i) {
        state = state * 1664525u + 1013904223u;
        const double noise = (static_cast<double>(state >> 8) / 16777216.0 - 0.5) * 0.1;
        const double left = 0.4 * std::sin(2 * M_PI * 1000.0 * i / rate) + noise;
        const double right = 0.4 * std::sin(2 * M_PI * 3150.0 * i / rate) - noise;
        samples[2 * i] = static_cast<std::int16_t>(32767 * left);
        samples[2 * i + 1] = static_cast<std::int16_t>(32767 * right);
    }
    return bytes;
}

Orvanta::Ifaces::WaveFormatExtensible s16Stereo()
{
    Orvanta::Ifaces::WaveFormatExtensible format {};
    format.Format.wFormatTag = Orvanta::Ifaces::WaveFormatTag::Extensible;
    format.Format.nChannels = 2;
    format.Format.nSamplesPerSec = rate;
    format.Format.wBitsPerSample = 16;
    format.Format.nBlockAlign = 4;
    format.Format.nAvgBytesPerSec = 4 * rate;
    format.Format.cbSize = 22;
    format.Samples.wValidBitsPerSample = 16;
    format.dwChannelMask = 0x3;
    format.SubFormat = Orvanta::Ifaces::subFormatPcm();
    return format;
}

void AudioBlock_ours(benchmark::State& state)
{
    AudioCapturer capturer(0, 16000);
    AudioCapturerPrivate* d = AudioCapturerPrivate::get(&capturer);
    d->waveFormat = s16Stereo();
    d->prepareAnalysis();
    if (d->createConverter() < 0) {
        state.SkipWithError("converter");
        return;
    }
    d->calculateBandLayout();
    QVector<unsigned char> buffer(static_cast<int>(d->blockSizeInBytes()));
    const QByteArray block = stereoBlock();
    const auto* data = reinterpret_cast<const unsigned char*>(block.constData());
    unsigned int fill = 0;
    for (auto _ : state) {
        fill = d->processSamples(data, static_cast<unsigned int>(block.size()), buffer, fill);
        benchmark::DoNotOptimize(d->channelsFront[0].spectrums.constData());
    }
}

// The same block on FFTW: libswresample to planar float stereo, the same
// window, two single-precision real transforms, magnitude and level of the
// same 341 bins.
void AudioBlock_reference(benchmark::State& state)
{
    SwrContext* context = nullptr;
    AVChannelLayout stereo {};
    av_channel_layout_from_mask(&stereo, AV_CH_LAYOUT_STEREO);
    swr_alloc_set_opts2(&context, &stereo, AV_SAMPLE_FMT_FLTP, rate, &stereo, AV_SAMPLE_FMT_S16, rate, 0, nullptr);
    swr_init(context);
    const Orvanta::SwrContextPtr owner(context);

    std::vector<float> left(blockFrames), right(blockFrames), window(blockFrames);
    Orvanta::SpectrumMath::fillAnalysisWindow(window.data(), blockFrames);
    float* input = fftwf_alloc_real(blockFrames);
    fftwf_complex* output = fftwf_alloc_complex(blockFrames / 2 + 1);
    fftwf_plan plan = fftwf_plan_dft_r2c_1d(blockFrames, input, output, FFTW_MEASURE);
    const int bands = Orvanta::SpectrumMath::boundToBin(16000, rate, 1025);
    std::vector<Spectrum> result(static_cast<size_t>(2 * bands));

    const QByteArray block = stereoBlock();
    for (auto _ : state) {
        const uint8_t* in[] = {reinterpret_cast<const uint8_t*>(block.constData())};
        uint8_t* out[] = {reinterpret_cast<uint8_t*>(left.data()), reinterpret_cast<uint8_t*>(right.data())};
        swr_convert(context, out, blockFrames, in, blockFrames);
        for (int plane = 0; plane < 2; ++plane) {
            const float* samples = plane == 0 ? left.data() : right.data();
            for (int i = 0; i < blockFrames; ++i)
                input[i] = samples[i] * window[i];
            fftwf_execute(plan);
            Spectrum* bandsOut = result.data() + plane * bands;
            for (int b = 0; b < bands; ++b) {
                const double re = output[b][0];
                const double im = output[b][1];
                const double amplitude = std::sqrt(re * re + im * im);
                bandsOut[b].frequency = Orvanta::SpectrumMath::bandFrequency(b, rate);
                bandsOut[b].amplitude = static_cast<float>(amplitude);
                bandsOut[b].decibel = static_cast<float>(std::log10(amplitude) * 20.0);
            }
        }
        benchmark::DoNotOptimize(result.data());
    }

    fftwf_destroy_plan(plan);
    fftwf_free(output);
    fftwf_free(input);
}

void AnalyzerBlock_ours(benchmark::State& state)
{
    SpectrumAnalyzer analyzer;
    analyzer.setInputFormat(AV_SAMPLE_FMT_S16, rate, AV_CH_LAYOUT_STEREO);
    const QByteArray block = stereoBlock();
    for (auto _ : state) {
        auto spectra = analyzer.process(reinterpret_cast<const unsigned char*>(block.constData()), block.size());
        benchmark::DoNotOptimize(spectra.constData());
    }
}

std::vector<float> windowedBlock()
{
    std::vector<float> samples(blockFrames);
    for (int i = 0; i < blockFrames; ++i)
        samples[i] = static_cast<float>(0.4 * std::sin(2 * M_PI * 1000.0 * i / rate) + 0.01 * ((i * 7919) % 13));
    return samples;
}

void Fft2048_ours(benchmark::State& state)
{
    audiofft::AudioFFT fft;
    fft.init(blockFrames);
    const std::vector<float> input = windowedBlock();
    std::vector<float> re(audiofft::AudioFFT::ComplexSize(blockFrames));
    std::vector<float> im(re.size());
    for (auto _ : state) {
        fft.fft(input.data(), re.data(), im.data());
        benchmark::DoNotOptimize(re.data());
        benchmark::DoNotOptimize(im.data());
    }
}

void Fft2048_reference(benchmark::State& state)
{
    float* input = fftwf_alloc_real(blockFrames);
    fftwf_complex* output = fftwf_alloc_complex(blockFrames / 2 + 1);
    fftwf_plan plan = fftwf_plan_dft_r2c_1d(blockFrames, input, output, FFTW_MEASURE);
    const std::vector<float> samples = windowedBlock();
    for (auto _ : state) {
        std::copy(samples.begin(), samples.end(), input);
        fftwf_execute(plan);
        benchmark::DoNotOptimize(output);
    }
    fftwf_destroy_plan(plan);
    fftwf_free(output);
    fftwf_free(input);
}

} // namespace

BENCHMARK(AudioBlock_ours)->Name("AudioBlock/ours");
BENCHMARK(AudioBlock_reference)->Name("AudioBlock/reference");
BENCHMARK(AnalyzerBlock_ours)->Name("AnalyzerBlock/ours");
BENCHMARK(Fft2048_ours)->Name("Fft2048/ours");
BENCHMARK(Fft2048_reference)->Name("Fft2048/reference");
