#include "SpectrumAnalyzer.h"

#include "AudioFFT.h"
#include "SpectrumMath.h"

#include <QtCore/QDebug>
#include <QtCore/QString>

#include <algorithm>
#include <cmath>
#include <cstring>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libavutil/samplefmt.h>
}

namespace {

constexpr int blockFrames = 2048;

// The channel-mask options of older FFmpeg releases are gone in newer ones;
// the layout options carry the same meaning on both.
int setChannelLayoutOption(SwrContext* context, const char* name, quint64 mask)
{
    AVChannelLayout layout {};
    int result = av_channel_layout_from_mask(&layout, mask);
    if (result >= 0)
        result = av_opt_set_chlayout(context, name, &layout, 0);
    av_channel_layout_uninit(&layout);
    return result;
}

} // namespace

SpectrumAnalyzer::SpectrumAnalyzer()
    : fft(new audiofft::AudioFFT)
    , window(blockFrames)
    , fftInput(blockFrames)
{
    Orvanta::SpectrumMath::fillAnalysisWindow(window.data(), window.size());
    fft->init(blockFrames);
}

SpectrumAnalyzer::~SpectrumAnalyzer() = default;

void SpectrumAnalyzer::setInputFormat(int sampleFormat, int sampleRate, quint64 channelLayout)
{
    swrContext.reset(swr_alloc());
    if (!swrContext) {
        qCritical() << "[SpectrumAnalyzer]: Failed to create swrContext";
        return;
    }
    SwrContext* context = swrContext.get();

    int result = setChannelLayoutOption(context, "in_chlayout", channelLayout);
    if (result < 0) {
        qCritical() << "[SpectrumAnalyzer]: Failed to set swrContext in_channel_layout, errCode: 0x"
                    << QString::number(result, 16);
        swrContext.reset();
        return;
    }
    result = av_opt_set_int(context, "in_sample_rate", sampleRate, 0);
    if (result < 0) {
        qCritical() << "[SpectrumAnalyzer]: Failed to set swrContext in_sample_rate, errCode: 0x"
                    << QString::number(result, 16);
        swrContext.reset();
        return;
    }
    result = av_opt_set_sample_fmt(context, "in_sample_fmt", static_cast<AVSampleFormat>(sampleFormat), 0);
    if (result < 0) {
        qCritical() << "[SpectrumAnalyzer]: Failed to set swrContext in_sample_fmt, errCode: 0x"
                    << QString::number(result, 16);
        swrContext.reset();
        return;
    }
    result = setChannelLayoutOption(context, "out_chlayout", AV_CH_LAYOUT_STEREO);
    if (result < 0) {
        qCritical() << "[SpectrumAnalyzer]: Failed to set swrContext out_channel_layout, errCode: 0x"
                    << QString::number(result, 16);
        swrContext.reset();
        return;
    }
    result = av_opt_set_int(context, "out_sample_rate", sampleRate, 0);
    if (result < 0) {
        qCritical() << "[SpectrumAnalyzer]: Failed to set swrContext out_sample_rate, errCode: 0x"
                    << QString::number(result, 16);
        swrContext.reset();
        return;
    }
    result = av_opt_set_sample_fmt(context, "out_sample_fmt", AV_SAMPLE_FMT_FLTP, 0);
    if (result < 0) {
        qCritical() << "[SpectrumAnalyzer]: Failed to set swrContext out_sample_fmt, errCode: 0x"
                    << QString::number(result, 16);
        swrContext.reset();
        return;
    }
    result = swr_init(context);
    if (result < 0) {
        qCritical() << "[SpectrumAnalyzer]: Failed to init swrContext: 0x" << QString::number(result, 16);
        swrContext.reset();
        return;
    }

    cacheFrame.reset(av_frame_alloc());
    if (!cacheFrame) {
        qCritical() << "[SpectrumAnalyzer]: Failed to call av_frame_alloc";
        swrContext.reset();
        return;
    }
    AVFrame* frame = cacheFrame.get();
    frame->sample_rate = sampleRate;
    frame->nb_samples = blockFrames;
    frame->format = sampleFormat;
    // The converter accepted the mask above, so it converts to a layout here too.
    av_channel_layout_from_mask(&frame->ch_layout, channelLayout);

    result = av_frame_get_buffer(frame, 0);
    if (result < 0) {
        qCritical() << "[SpectrumAnalyzer]: Failed to get cache frame buffer: 0x" << QString::number(result, 16);
        swrContext.reset();
        cacheFrame.reset();
        return;
    }
    result = av_frame_make_writable(frame);
    if (result < 0) {
        qCritical() << "[SpectrumAnalyzer]: Failed to make cache frame writable: 0x" << QString::number(result, 16);
        swrContext.reset();
        cacheFrame.reset();
        return;
    }

    cacheFill = 0;
}

QVector<QVector<SoundChannel>> SpectrumAnalyzer::process(const unsigned char* data, qint64 size)
{
    QVector<QVector<SoundChannel>> result;
    if (!cacheFrame || !swrContext || !data || size < 1)
        return result;

    AVFrame* frame = cacheFrame.get();
    const int blockSize = av_get_bytes_per_sample(static_cast<AVSampleFormat>(frame->format))
        * frame->ch_layout.nb_channels * blockFrames;
    if (blockSize <= 0)
        return result;

    qint64 taken = 0;
    while (taken < size) {
        const int count = static_cast<int>(std::min<qint64>(size - taken, blockSize - cacheFill));
        std::memcpy(frame->data[0] + cacheFill, data + taken, static_cast<size_t>(count));
        taken += count;
        cacheFill += count;
        if (cacheFill == blockSize) {
            cacheFill = 0;
            // A block that fails to convert is dropped; the next one starts afresh.
            const Orvanta::AVFramePtr converted(resample(frame));
            if (converted)
                result.append(calculateSpectrum(converted.get()));
        }
    }
    return result;
}

AVFrame* SpectrumAnalyzer::resample(AVFrame* input)
{
    Orvanta::AVFramePtr frame(av_frame_alloc());
    if (!frame) {
        qCritical() << "[SpectrumAnalyzer]: Failed to call av_frame_alloc in resample";
        return nullptr;
    }
    frame->nb_samples = blockFrames;
    frame->format = AV_SAMPLE_FMT_FLTP;
    frame->sample_rate = input->sample_rate;
    av_channel_layout_from_mask(&frame->ch_layout, AV_CH_LAYOUT_STEREO);

    int result = av_frame_get_buffer(frame.get(), 0);
    if (result < 0) {
        qCritical() << "[SpectrumAnalyzer]: Failed to get frame buffer, errCode:" << result;
        return nullptr;
    }
    result = av_frame_make_writable(frame.get());
    if (result < 0) {
        qCritical() << "[SpectrumAnalyzer]: Failed to make frame writable, errCode:" << result;
        return nullptr;
    }
    result = swr_convert(swrContext.get(), frame->data, frame->nb_samples,
        const_cast<const uint8_t**>(input->extended_data), input->nb_samples);
    if (result < 0) {
        qCritical() << "[SpectrumAnalyzer]: Failed to resample the input data, errCode:" << result;
        return nullptr;
    }
    return frame.release();
}

QVector<SoundChannel> SpectrumAnalyzer::calculateSpectrum(AVFrame* frame)
{
    using namespace Orvanta::SpectrumMath;

    const int rate = frame->sample_rate;
    const size_t complexSize = audiofft::AudioFFT::ComplexSize(blockFrames);
    QVector<float> real(static_cast<int>(complexSize));
    QVector<float> imag(static_cast<int>(complexSize));

    const int lowerBin = boundToBin(lowerFrequency, rate, fftInput.size());
    const int upperBin = std::max(lowerBin, boundToBin(upperFrequency, rate, fftInput.size()));
    const int bandCount = upperBin - lowerBin;

    QVector<SoundChannel> channels(2);
    channels[0].channel = 1;
    channels[1].channel = 2;

    const double divisor = volume == 0.0 ? 1.0 : volume;
    const int frames = std::min(frame->nb_samples, static_cast<int>(fftInput.size()));
    for (int plane = 0; plane < 2; ++plane) {
        float* input = fftInput.data();
        const float* samples = reinterpret_cast<const float*>(frame->extended_data[plane]);
        std::copy(samples, samples + frames, input);
        for (int i = 0; i < fftInput.size(); ++i)
            input[i] *= window[i];
        fft->fft(input, real.data(), imag.data());

        QVector<Spectrum>& bands = channels[plane].spectrums;
        bands.resize(bandCount);
        for (int i = 0; i < bandCount; ++i) {
            const int bin = lowerBin + i;
            const double re = real[bin];
            const double im = imag[bin];
            const double amplitude = std::sqrt(re * re + im * im) / divisor;
            Spectrum& band = bands[i];
            band.frequency = bandFrequency(bin, rate);
            band.amplitude = static_cast<float>(amplitude);
            band.decibel = Orvanta::SpectrumMath::decibelOf(amplitude);
        }
    }
    return channels;
}

void SpectrumAnalyzer::setVolume(double newVolume)
{
    volume = std::clamp(newVolume, 0.0, 1.0);
}
