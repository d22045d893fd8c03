#pragma once

#include "IAudioCapture.h"
#include "SpectrumAnalyzer.h"

#include <QtCore/QIODevice>
#include <QtCore/QVector>

class QtAudioCapture;

/**
 * The write-only device that QAudioInput feeds: every chunk goes through the
 * analyzer, and each finished block comes out as spectrumChanged(). While
 * nobody listens to the owner's spectrumsChanged(), chunks are swallowed
 * unanalysed, so that an unwatched capture costs nothing.
 */
class AudioReader : public QIODevice
{
    Q_OBJECT

public:
    AudioReader(QtAudioCapture* owner, QObject* parent);
    ~AudioReader() override;

    SpectrumAnalyzer& spectrumAnalyzer()
    {
        return analyzer;
    }

signals:
    void spectrumChanged(QVector<SoundChannel> s);

protected:
    qint64 readData(char* data, qint64 maxSize) override;
    qint64 writeData(const char* data, qint64 size) override;

private:
    SpectrumAnalyzer analyzer;
    QtAudioCapture* owner;
};
