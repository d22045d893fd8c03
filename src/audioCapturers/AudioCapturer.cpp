#include "AudioCapturer.h"

#include "AudioCapturer_p.h"
#include "AudioFFT.h"
#include "ConfigurationManager.h"
#include "Helpers.h"
#include "ResultCodes.h"
#include "SoundMetaTypes.h"
#include "SpectrumMath.h"
#include "ifaces/EndpointWatcher.h"

#include <QtCore/QDebug>
#include <QtCore/QElapsedTimer>

#include <algorithm>
#include <cmath>
#include <cstring>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/opt.h>
}

using Orvanta::Ifaces::WaveFormatExtensible;
namespace WaveFormatTag = Orvanta::Ifaces::WaveFormatTag;

const quint32 AudioCapturer::samplesSize;
const qint32 AudioCapturer::VOLUME_UPDATE_INTERVAL_MS;

AudioCapturer::AudioCapturer(int lowerBound, int upperBound, QObject* parent)
    : QThread(parent)
    , d(new AudioCapturerPrivate(this, lowerBound, upperBound))
{
    Orvanta::registerSpectrumListMetaType();
    Orvanta::registerSoundChannelListMetaType();
    // Registered by name up front, so that a receiver on another thread with
    // an automatic connection gets the very first peak signal queued.
    qRegisterMetaType<QVector<QVector<QString>>>("QVector<QVector<QString> >");
}

AudioCapturer::~AudioCapturer()
{
    requestInterruption();
    wait();
    d->releaseStream();
}

// --- AudioCapturerPrivate ---------------------------------------------------

AudioCapturerPrivate::AudioCapturerPrivate(AudioCapturer* q, int lowerBound, int upperBound)
    : q(q)
    , window(AudioCapturer::samplesSize, 0.0f)
    , fftInput(AudioCapturer::samplesSize)
    , lowerBound(lowerBound)
    , upperBound(upperBound)
{
}

AudioCapturerPrivate::~AudioCapturerPrivate() = default;

void AudioCapturerPrivate::prepareAnalysis()
{
    calculateWindow();
    fft.reset(new audiofft::AudioFFT);
    fft->init(AudioCapturer::samplesSize);

    const int complexSize = static_cast<int>(audiofft::AudioFFT::ComplexSize(fftInput.size()));
    fftReal.resize(complexSize);
    fftImag.resize(complexSize);

    // The reservation exceeds any band count, so the blocks never reallocate.
    for (QVector<SoundChannel>* channels : {&channelsFront, &channelsBack}) {
        channels->resize(2);
        for (SoundChannel& channel : *channels)
            channel.spectrums.reserve(AudioCapturer::samplesSize);
    }

    volumeTimer.start();
}

long AudioCapturerPrivate::createConverter()
{
    swrContext.reset(swr_alloc());
    if (!swrContext) {
        qCritical() << "Failed to create swrContext";
        return E_OUTOFMEMORY;
    }

    // A plain format carries no channel mask, and a mask whose speakers do
    // not match the channel count would make the converter read the block
    // with another frame size: the usual layout of the count stands in.
    AVChannelLayout inLayout {};
    const std::uint64_t mask = convertToAvChannelLayout(waveFormat);
    if (mask == 0 || av_channel_layout_from_mask(&inLayout, mask) < 0
        || inLayout.nb_channels != waveFormat.Format.nChannels) {
        av_channel_layout_uninit(&inLayout);
        av_channel_layout_default(&inLayout, waveFormat.Format.nChannels);
    }
    AVChannelLayout outLayout {};
    av_channel_layout_from_mask(&outLayout, AV_CH_LAYOUT_STEREO);

    // Only the initialisation's result counts; a rejected option shows there.
    SwrContext* context = swrContext.get();
    const int rate = static_cast<int>(waveFormat.Format.nSamplesPerSec);
    av_opt_set_chlayout(context, "in_chlayout", &inLayout, 0);
    av_opt_set_int(context, "in_sample_rate", rate, 0);
    av_opt_set_sample_fmt(context, "in_sample_fmt", convertSampleFormat(waveFormat), 0);
    av_opt_set_chlayout(context, "out_chlayout", &outLayout, 0);
    av_opt_set_int(context, "out_sample_rate", rate, 0);
    av_opt_set_sample_fmt(context, "out_sample_fmt", AV_SAMPLE_FMT_FLTP, 0);
    av_channel_layout_uninit(&inLayout);
    av_channel_layout_uninit(&outLayout);

    const int result = swr_init(context);
    if (result < 0) {
        qCritical() << "Failed to init swrContext: 0x" << QString::number(result, 16);
        return E_FAIL;
    }
    return S_OK;
}

unsigned int AudioCapturerPrivate::blockSizeInBytes() const
{
    return AudioCapturer::samplesSize * waveFormat.Format.nChannels * waveFormat.Format.wBitsPerSample / 8;
}

void AudioCapturerPrivate::calculateBandLayout()
{
    using namespace Orvanta::SpectrumMath;
    const int rate = static_cast<int>(waveFormat.Format.nSamplesPerSec);
    lowerBound = boundToBin(lowerBound, rate, fftImag.size());
    upperBound = std::max(lowerBound, boundToBin(upperBound, rate, fftImag.size()));

    bandFrequencies.resize(bandCount());
    for (int i = 0; i < bandFrequencies.size(); ++i)
        bandFrequencies[i].frequency = bandFrequency(lowerBound + i, rate);
}

void AudioCapturerPrivate::calculateWindow()
{
    Orvanta::SpectrumMath::fillAnalysisWindow(window.data(), window.size());
}

unsigned int AudioCapturerPrivate::processSamples(
    const unsigned char* data, unsigned int size, QVector<unsigned char>& buffer, unsigned int offset)
{
    if (size == 0)
        return offset;

    const unsigned int capacity = static_cast<unsigned int>(buffer.size());
    if (capacity == 0)
        return offset;
    unsigned char* block = buffer.data();
    while (size > 0) {
        const unsigned int count = std::min(size, capacity - offset);
        std::memcpy(block + offset, data, count);
        data += count;
        size -= count;
        offset += count;
        if (offset == capacity) {
            calculateSpectrum(buffer);
            offset = 0;
        }
    }
    return offset;
}

// Receivers on other threads let go of a published block by dropping their
// references, an atomic release on each reference count. The check that lets
// the block be written in place again only loads the count, which orders
// nothing: take and drop a reference of each part first, an acquire that puts
// the receivers' last reads before this thread's writes.
static void takeBackFromReceivers(const QVector<SoundChannel>& channels)
{
    const QVector<SoundChannel> block(channels);
    for (const SoundChannel& channel : block) {
        const QVector<Spectrum> spectrums(channel.spectrums);
        Q_UNUSED(spectrums)
    }
}

void AudioCapturerPrivate::calculateSpectrum(const QVector<unsigned char>& buffer)
{
    // Finished blocks of every capturer in the process; every third one is
    // published, whichever capturer finished it. Capture threads count at once.
    static std::atomic<unsigned int> finishedBlocks {0};

    const int rate = static_cast<int>(waveFormat.Format.nSamplesPerSec);
    if (reusableFrame) {
        const int result = av_frame_make_writable(reusableFrame.get());
        if (result < 0) {
            qCritical() << "Failed to make frame writable, errCode:" << result;
            return;
        }
    } else {
        reusableFrame.reset(av_frame_alloc());
        if (!reusableFrame) {
            qCritical() << "Failed to allocate reusable AVFrame";
            return;
        }
        reusableFrame->nb_samples = AudioCapturer::samplesSize;
        reusableFrame->format = AV_SAMPLE_FMT_FLTP;
        reusableFrame->sample_rate = rate;
        av_channel_layout_from_mask(&reusableFrame->ch_layout, AV_CH_LAYOUT_STEREO);
        const int result = av_frame_get_buffer(reusableFrame.get(), 0);
        if (result < 0) {
            qCritical() << "Failed to get frame buffer, errCode:" << result;
            reusableFrame.reset();
            return;
        }
    }
    AVFrame* frame = reusableFrame.get();

    const uint8_t* blockPlanes[AV_NUM_DATA_POINTERS] = {buffer.constData()};
    // Without a converter (its set-up failed) the block cannot be read.
    const int converted = swrContext ? swr_convert(swrContext.get(), frame->data, frame->nb_samples, blockPlanes,
                              static_cast<int>(AudioCapturer::samplesSize))
                                     : AVERROR(EINVAL);
    if (converted < 0) {
        qCritical() << "Failed to resample the input data, errCode:" << converted;
        return;
    }

    if (volumeCacheExpired(volumeTimer.isValid(), volumeTimer.isValid() ? volumeTimer.elapsed() : 0))
        updateVolumeCache();
    const float volume = cachedVolume.load(std::memory_order_relaxed);
    // Below 1 % the correction would blow noise up, so it stops there.
    const double divisor = 0.01f > volume ? 1.0 : static_cast<double>(volume);

    QVector<SoundChannel>& channels = useFront ? channelsFront : channelsBack;
    useFront = !useFront;
    takeBackFromReceivers(channels);

    const int bands = bandCount();
    channels[0].channel = 1;
    channels[1].channel = 2;
    channels[0].spectrums.resize(bands);
    channels[1].spectrums.resize(bands);

    float* const input = fftInput.data();
    const int frames = std::min(frame->nb_samples, fftInput.size());
    for (int plane = 0; plane < 2; ++plane) {
        // Copy and window in one pass; entries past the frame's samples keep
        // their earlier values and are windowed in place.
        const float* samples = reinterpret_cast<const float*>(frame->extended_data[plane]);
        const float* const windowValues = window.constData();
        for (int i = 0; i < frames; ++i)
            input[i] = samples[i] * windowValues[i];
        for (int i = frames; i < fftInput.size(); ++i)
            input[i] *= windowValues[i];
        fft->fft(input, fftReal.data(), fftImag.data());

        const float* const real = fftReal.constData();
        const float* const imag = fftImag.constData();
        Spectrum* const out = channels[plane].spectrums.data();
        for (int i = 0; i < bands; ++i) {
            const int bin = lowerBound + i;
            const double re = real[bin];
            const double im = imag[bin];
            const double amplitude = std::sqrt(im * im + re * re) / divisor;
            out[i].frequency = Orvanta::SpectrumMath::bandFrequency(bin, rate);
            out[i].amplitude = static_cast<float>(amplitude);
            out[i].decibel = Orvanta::SpectrumMath::decibelOf(amplitude);
        }
    }

    if ((finishedBlocks.fetch_add(1, std::memory_order_relaxed) + 1) % 3 != 0)
        return;
    emit q->spectrumsChanged(channels);
}

void AudioCapturerPrivate::updateVolumeCache()
{
    float level = 1.0f;
    if (endpointVolume && endpointVolume->masterVolumeLevelScalar(&level) >= 0) {
        cachedVolume.store(level, std::memory_order_relaxed);
        volumeTimer.restart();
    }
}

void AudioCapturerPrivate::handlePeakValues()
{
    if (!meterInfo)
        return;

    // Zero-filled first: a failed reading then reports silence.
    QVector<float> peaks(static_cast<int>(meterChannelCount), 0.0f);
    QVector<QVector<QString>> values;
    meterInfo->channelsPeakValues(meterChannelCount, peaks.data());
    values.reserve(peaks.size());
    for (const float peak : qAsConst(peaks)) {
        values.append(
            {QString::number(static_cast<double>(peak), 'f', 3), QString::number(std::log10(peak) * 10.0f, 'f', 3)});
    }
    emit q->channelsPeakValuesChanged(values);
}

AVSampleFormat AudioCapturerPrivate::convertSampleFormat(const WaveFormatExtensible& format)
{
    bool integer = false;
    bool floating = false;
    switch (format.Format.wFormatTag) {
    case WaveFormatTag::Pcm:
        integer = true;
        break;
    case WaveFormatTag::IeeeFloat:
        floating = true;
        break;
    case WaveFormatTag::Extensible:
        integer = Orvanta::Ifaces::sameGuid(format.SubFormat, Orvanta::Ifaces::subFormatPcm());
        floating = Orvanta::Ifaces::sameGuid(format.SubFormat, Orvanta::Ifaces::subFormatIeeeFloat());
        break;
    default:
        break;
    }

    const int bits = format.Format.wBitsPerSample;
    if (integer) {
        switch (bits) {
        case 8:
            return AV_SAMPLE_FMT_U8;
        case 16:
            return AV_SAMPLE_FMT_S16;
        case 32:
            return AV_SAMPLE_FMT_S32;
        default:
            break;
        }
    }
    if (floating) {
        switch (bits) {
        case 32:
            return AV_SAMPLE_FMT_FLT;
        case 64:
            return AV_SAMPLE_FMT_DBL;
        default:
            break;
        }
    }
    return AV_SAMPLE_FMT_NONE;
}

std::uint64_t AudioCapturerPrivate::convertToAvChannelLayout(const WaveFormatExtensible& format)
{
    // The wave format's speaker bits and FFmpeg's channel bits agree up to
    // bit 17 (top back right); higher speaker bits have no FFmpeg counterpart.
    constexpr std::uint64_t sharedSpeakerBits = (1u << 18) - 1;
    return format.dwChannelMask & sharedSpeakerBits;
}

// --- the endpoint shell -----------------------------------------------------

long AudioCapturer::load(DeviceHandle device)
{
    return d->load(std::move(device));
}

WaveFormatExtensible AudioCapturer::Format()
{
    return d->waveFormat;
}

void AudioCapturer::run()
{
    d->run();
}

AudioCapturer::DeviceHandle AudioCapturer::DeviceSelect(std::shared_ptr<Orvanta::Ifaces::EndpointWatcher> enumerator)
{
    DeviceHandle device;
    if (enumerator) {
        enumerator->defaultEndpoint(Orvanta::Ifaces::DataFlow::Render, Orvanta::Ifaces::DeviceRole::Console, device);
    }
    enumerator.reset();
    return device;
}

long AudioCapturerPrivate::load(std::shared_ptr<Orvanta::Ifaces::AudioEndpoint> device)
{
    using Orvanta::Ifaces::DataFlow;

    // The capture thread reads its peak interval from the configuration
    // store, whose creation isn't safe from several threads at once: make
    // sure it exists before any capture thread starts.
    ConfigurationManager::instance();

    prepareAnalysis();

    if (!device) {
        qCritical() << "Failed to query IMMEndpoint interface " << win32ErrorMsg(E_POINTER);
        return E_POINTER;
    }
    DataFlow flow = DataFlow::Render;
    long hr = device->dataFlow(flow);
    if (hr < 0) {
        qCritical() << "Failed to get data flow of IMMEndpoint " << win32ErrorMsg(hr);
        return hr;
    }

    hr = device->activateStream(audioClient);
    if (hr < 0) {
        qCritical() << "Failed to active IAudioClient" << win32ErrorMsg(hr);
        return hr;
    }
    hr = device->activateVolume(endpointVolume);
    if (hr < 0) {
        qCritical() << "Failed to active the IAudioEndpointVolume interface " << win32ErrorMsg(hr);
        return hr;
    }

    // The meter is optional: without it only the peak signal is missing.
    const bool meterActivated = device->activateMeter(meterInfo) >= 0 && meterInfo;
    if (meterActivated) {
        qInfo() << "[AudioCapturer]: Succeeded to activate IAudioMeterInformation interface";
    }
    std::uint32_t channels = 0;
    if (!meterActivated) {
        qWarning() << "[AudioCapturer]: Failed to activate IAudioMeterInformation interface";
        qWarning() << "[AudioCapturer]: Effects that rely on peakValues will not be available";
        meterInfo.reset();
    } else if (meterInfo->meteringChannelCount(&channels) < 0) {
        qWarning() << "[AudioCapturer]: Failed to get metering channel count";
        qWarning() << "[AudioCapturer]: Effects that rely on peakValues will not be available";
        meterInfo.reset();
    } else {
        meterChannelCount = channels;
    }

    WaveFormatExtensible mixFormat {};
    hr = audioClient->mixFormat(mixFormat);
    if (hr < 0) {
        qCritical() << "Failed to get mix format of IAudioClient " << win32ErrorMsg(hr);
        return hr;
    }
    waveFormat = WaveFormatExtensible {};
    waveFormat.Format = mixFormat.Format;
    if (mixFormat.Format.wFormatTag == WaveFormatTag::Extensible) {
        waveFormat = mixFormat;
    }

    // A format the converter can't read is asked for as 16-bit PCM, which
    // every endpoint converts to.
    if (convertSampleFormat(waveFormat) == AV_SAMPLE_FMT_NONE) {
        waveFormat.SubFormat = Orvanta::Ifaces::subFormatPcm();
        waveFormat.Format.wFormatTag = WaveFormatTag::Pcm;
        waveFormat.Format.wBitsPerSample = 16;
        waveFormat.Format.cbSize = 0;
        waveFormat.Format.nBlockAlign = static_cast<std::uint16_t>(2 * waveFormat.Format.nChannels);
        waveFormat.Format.nAvgBytesPerSec = waveFormat.Format.nBlockAlign * waveFormat.Format.nSamplesPerSec;
    }

    const std::uint32_t flags = flow == DataFlow::Capture ? 0 : Orvanta::Ifaces::StreamFlagLoopback;
    constexpr std::int64_t oneSecond = 10000000;
    hr = audioClient->initialize(waveFormat, flags, oneSecond);
    if (hr < 0) {
        qCritical() << "Failed to init IAudioClient: " << win32ErrorMsg(hr);
        return hr;
    }

    hr = audioClient->captureClient(captureClient);
    if (hr < 0) {
        qCritical() << "Failed to get AudioClient service " << win32ErrorMsg(hr);
        return hr;
    }

    hr = createConverter();
    if (hr < 0) {
        return hr;
    }

    hr = audioClient->start();
    if (hr < 0) {
        qCritical() << "Failed to start audio client capture " << win32ErrorMsg(hr);
    }
    return hr;
}

void AudioCapturerPrivate::run()
{
    // Without a loaded stream there is nothing to poll.
    if (!audioClient || !captureClient) {
        return;
    }
    audioClient->initializeThread();

    QVector<unsigned char> block(static_cast<int>(blockSizeInBytes()));
    unsigned int fill = 0;
    calculateBandLayout();

    peakInterval = ConfigurationManager::instance()->appConfig(QStringLiteral("devUpdateInterval")).toInt(33);
    QElapsedTimer peakTimer;
    peakTimer.start();

    const std::uint32_t channels = waveFormat.Format.nChannels;
    const std::uint32_t bits = waveFormat.Format.wBitsPerSample;
    while (!q->isInterruptionRequested()) {
        if (peakTimer.hasExpired(peakInterval)) {
            handlePeakValues();
            peakTimer.restart();
        }
        std::uint32_t frames = 0;
        captureClient->nextPacketSize(&frames);
        if (frames == 0) {
            QThread::msleep(150);
            continue;
        }
        const std::uint8_t* data = nullptr;
        std::uint32_t packetFlags = 0;
        const long hr = captureClient->getBuffer(&data, &frames, &packetFlags);
        if (hr < 0) {
            qCritical() << "An error was happended. code: " << hr;
            break;
        }
        fill = processSamples(data, channels * bits * frames / 8, block, fill);
        captureClient->releaseBuffer(frames);
        captureClient->nextPacketSize(&frames);
    }

    block = QVector<unsigned char>();
    audioClient->uninitializeThread();
}

void AudioCapturerPrivate::releaseStream()
{
    if (audioClient) {
        audioClient->stop();
    }
    swrContext.reset();
    reusableFrame.reset();
    meterInfo.reset();
    endpointVolume.reset();
    captureClient.reset();
    audioClient.reset();
}
