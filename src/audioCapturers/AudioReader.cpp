#include "AudioReader.h"

#include "QtAudioCapture.h"
#include "SoundMetaTypes.h"

AudioReader::AudioReader(QtAudioCapture* owner, QObject* parent)
    : QIODevice(parent)
    , owner(owner)
{
    Orvanta::registerSoundChannelListMetaType();
}

AudioReader::~AudioReader() = default;

qint64 AudioReader::readData(char* data, qint64 maxSize)
{
    Q_UNUSED(data)
    Q_UNUSED(maxSize)
    return 0;
}

qint64 AudioReader::writeData(const char* data, qint64 size)
{
    if (!data || size < 1) {
        return 0;
    }
    if (!owner->hasSpectrumReceivers()) {
        return size;
    }
    const QVector<QVector<SoundChannel>> spectra = analyzer.process(reinterpret_cast<const unsigned char*>(data), size);
    for (const QVector<SoundChannel>& spectrum : spectra) {
        emit spectrumChanged(spectrum);
    }
    return size;
}
