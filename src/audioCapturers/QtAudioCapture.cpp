#include "QtAudioCapture.h"

#include "AudioInputWorker.h"
#include "AudioReader.h"

#include <QtCore/QDebug>
#include <QtCore/QMetaMethod>
#include <QtCore/QThread>
#include <QtMultimedia/QAudioInput>

#include <algorithm>
#include <functional>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
}

namespace {
// The channel mask of FFmpeg's usual layout for @p channels; 0 when it has none.
quint64 defaultChannelMask(int channels)
{
    AVChannelLayout layout {};
    av_channel_layout_default(&layout, channels);
    quint64 mask = 0;
    if (av_channel_layout_check(&layout) && layout.order == AV_CHANNEL_ORDER_NATIVE) {
        mask = layout.u.mask;
    }
    av_channel_layout_uninit(&layout);
    return mask;
}
} // namespace

QtAudioCapture::QtAudioCapture(QObject* parent)
    : IAudioCapture(parent)
    , workerThread(new QThread)
    , worker(new AudioInputWorker)
{
    // The worker's slots take these by queued calls.
    qRegisterMetaType<QAudioInput*>("QAudioInput*");
    qRegisterMetaType<QIODevice*>("QIODevice*");
    worker->moveToThread(workerThread);
    connect(worker, &AudioInputWorker::inputDropped, this, &QtAudioCapture::onInputDropped, Qt::QueuedConnection);
    workerThread->start(QThread::InheritPriority);
}

QtAudioCapture::~QtAudioCapture()
{
    stop();
    if (workerThread->isRunning()) {
        workerThread->quit();
        workerThread->wait();
    }
    // The thread has ended: what its queue still held is deleted from here.
    for (const QPointer<QObject>& piece : qAsConst(retired)) {
        delete piece.data();
    }
    delete worker;
    // Finished, so it can go at once rather than wait for an event loop.
    delete workerThread;
}

bool QtAudioCapture::capture(const QAudioDeviceInfo& device)
{
    this->device = device;
    start();
    return true;
}

void QtAudioCapture::setReaderFactory(ReaderFactory factory)
{
    readerFactory = std::move(factory);
}

int QtAudioCapture::sampleFormatOf(const QAudioFormat& format)
{
    switch (format.sampleType()) {
    case QAudioFormat::SignedInt:
        if (format.sampleSize() == 16) {
            return AV_SAMPLE_FMT_S16;
        }
        if (format.sampleSize() == 32) {
            return AV_SAMPLE_FMT_S32;
        }
        return -1;
    case QAudioFormat::UnSignedInt:
        return format.sampleSize() == 8 ? AV_SAMPLE_FMT_U8 : -1;
    case QAudioFormat::Float:
        if (format.sampleSize() == 32) {
            return AV_SAMPLE_FMT_FLT;
        }
        if (format.sampleSize() == 64) {
            return AV_SAMPLE_FMT_DBL;
        }
        return -1;
    default:
        return -1;
    }
}

bool QtAudioCapture::hasSpectrumReceivers() const
{
    static const QMetaMethod signal = QMetaMethod::fromSignal(&IAudioCapture::spectrumsChanged);
    return isSignalConnected(signal);
}

void QtAudioCapture::start()
{
    const QAudioFormat format = device.preferredFormat();

    // The input is made on the worker thread: its back-end reads with timers
    // of the thread it was created on. That is the one call that waits for the
    // worker, which never waits for anyone; made on the worker itself, it
    // runs directly.
    QAudioInput* input = nullptr;
    const Qt::ConnectionType onWorker
        = QThread::currentThread() == workerThread ? Qt::DirectConnection : Qt::BlockingQueuedConnection;
    QMetaObject::invokeMethod(
        worker, std::bind(&AudioInputWorker::createInput, worker, device, format), onWorker, &input);
    audioInput = input;
    reader = readerFactory ? readerFactory(this) : new AudioReader(this, nullptr);
    // The reader belongs to the worker from the start too, so that stop()
    // drops both there whether or not the capture got going.
    reader->moveToThread(workerThread);

    const int sampleFormat = sampleFormatOf(format);
    if (sampleFormat == -1) {
        qCritical() << "[QtAudioCapture]: Unknown sample format" << sampleFormat;
        return;
    }
    reader->spectrumAnalyzer().setInputFormat(
        sampleFormat, format.sampleRate(), defaultChannelMask(format.channelCount()));

    connect(reader, &AudioReader::spectrumChanged, this, &QtAudioCapture::forwardSpectrums, Qt::QueuedConnection);

    if (!reader->open(QIODevice::WriteOnly)) {
        qCritical() << "[QtAudioCapture]: Failed to open the QtAudioReader instance";
        return;
    }
    QMetaObject::invokeMethod(
        worker, "startInput", Qt::QueuedConnection, Q_ARG(QAudioInput*, audioInput), Q_ARG(QIODevice*, reader));
}

void QtAudioCapture::stop()
{
    if (!audioInput) {
        return;
    }
    retired << audioInput << reader;
    ++dropsInFlight;
    QMetaObject::invokeMethod(
        worker, "dropInput", Qt::QueuedConnection, Q_ARG(QAudioInput*, audioInput), Q_ARG(QIODevice*, reader));
    audioInput = nullptr;
}

void QtAudioCapture::forwardSpectrums(QVector<SoundChannel> spectrums)
{
    emit spectrumsChanged(spectrums);
}

void QtAudioCapture::onInputDropped()
{
    --dropsInFlight;
    // A capture started meanwhile keeps its own reader.
    if (dropsInFlight == 0 && !audioInput) {
        reader = nullptr;
    }
    retired.erase(
        std::remove_if(retired.begin(), retired.end(), [](const QPointer<QObject>& piece) { return piece.isNull(); }),
        retired.end());
}
