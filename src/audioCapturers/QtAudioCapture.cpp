#include "QtAudioCapture.h"

#include "AudioReader.h"

#include <QtCore/QDebug>
#include <QtCore/QMetaMethod>
#include <QtCore/QThread>
#include <QtMultimedia/QAudioInput>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
}

namespace {
// 2048 bytes, unrelated to the 2048 frames of an analysis block.
constexpr int kInputBufferBytes = 2048;
} // namespace

QtAudioCapture::QtAudioCapture(QObject* parent)
    : IAudioCapture(parent)
    , workerThread(new QThread)
{
    workerThread->start(QThread::InheritPriority);
}

QtAudioCapture::~QtAudioCapture()
{
    stop();
    // The input's destroyed() can no longer reach this object: the reader
    // goes with the worker's last deferred deletions instead.
    if (reader) {
        if (reader->thread() == QThread::currentThread()) {
            delete reader;
        } else {
            reader->deleteLater();
        }
        reader = nullptr;
    }
    if (workerThread->isRunning()) {
        workerThread->quit();
        workerThread->wait();
    }
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
    // and callbacks of the thread it was created on, and the analysis
    // belongs on the worker.
    auto* workerContext = new QObject;
    workerContext->moveToThread(workerThread);
    QAudioInput* input = nullptr;
    const QAudioDeviceInfo inputDevice = device;
    QMetaObject::invokeMethod(
        workerContext,
        [&input, &inputDevice, &format] {
            input = new QAudioInput(inputDevice, format, nullptr);
            input->setBufferSize(kInputBufferBytes);
        },
        Qt::BlockingQueuedConnection);
    workerContext->deleteLater();
    audioInput = input;
    reader = readerFactory ? readerFactory(this) : new AudioReader(this, nullptr);

    const int sampleFormat = sampleFormatOf(format);
    if (sampleFormat == -1) {
        qCritical() << "[QtAudioCapture]: Unknown sample format" << sampleFormat;
        return;
    }
    reader->spectrumAnalyzer().setInputFormat(
        sampleFormat, format.sampleRate(), static_cast<quint64>(av_get_default_channel_layout(format.channelCount())));

    reader->moveToThread(workerThread);
    connect(
        reader, &AudioReader::spectrumChanged, this,
        [this](QVector<SoundChannel> spectrums) { emit spectrumsChanged(spectrums); }, Qt::QueuedConnection);
    connect(
        audioInput, &QObject::destroyed, this, [this] { onInputDestroyed(); }, Qt::QueuedConnection);

    if (!reader->open(QIODevice::WriteOnly)) {
        qCritical() << "[QtAudioCapture]: Failed to open the QtAudioReader instance";
        return;
    }
    AudioReader* sink = reader;
    QMetaObject::invokeMethod(
        audioInput, [input, sink] { input->start(sink); }, Qt::BlockingQueuedConnection);
}

void QtAudioCapture::stop()
{
    if (!audioInput) {
        return;
    }
    QAudioInput* input = audioInput;
    // Stopped on its own thread, where its reads run.
    QMetaObject::invokeMethod(
        input, [input] { input->stop(); }, Qt::BlockingQueuedConnection);
    input->deleteLater();
    audioInput = nullptr;
}

void QtAudioCapture::onInputDestroyed()
{
    if (!reader) {
        return;
    }
    reader->close();
    reader->deleteLater();
    reader = nullptr;
}
