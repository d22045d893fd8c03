#include "AudioInputWorker.h"

#include <QtCore/QIODevice>
#include <QtMultimedia/QAudioInput>

AudioInputWorker::AudioInputWorker(QObject* parent)
    : QObject(parent)
{
}

namespace {
// 2048 bytes, unrelated to the 2048 frames of an analysis block.
constexpr int kInputBufferBytes = 2048;
} // namespace

QAudioInput* AudioInputWorker::createInput(const QAudioDeviceInfo& device, const QAudioFormat& format)
{
    auto* input = new QAudioInput(device, format, nullptr);
    input->setBufferSize(kInputBufferBytes);
    return input;
}

void AudioInputWorker::startInput(QAudioInput* input, QIODevice* sink)
{
    input->start(sink);
}

void AudioInputWorker::dropInput(QAudioInput* input, QIODevice* sink)
{
    if (input) {
        input->stop();
        delete input;
    }
    if (sink) {
        sink->close();
        delete sink;
    }
    emit inputDropped();
}
