#pragma once

#include "IAudioCapture.h"

#include <QtMultimedia/QAudioDeviceInfo>
#include <QtMultimedia/QAudioFormat>

#include <QtCore/QPointer>
#include <QtCore/QVector>

#include <functional>

class AudioInputWorker;
class AudioReader;
class QAudioInput;
class QThread;

/**
 * A capture front over Qt Multimedia: records a QAudioDeviceInfo in its
 * preferred format and analyses the samples on a worker thread of its own.
 *
 * spectrumsChanged() is emitted on the thread this object lives in, once per
 * block of 2048 frames, while someone is connected to it.
 */
class QtAudioCapture : public IAudioCapture
{
    Q_OBJECT

public:
    explicit QtAudioCapture(QObject* parent = nullptr);
    ~QtAudioCapture() override;

    /// Stores the device and starts its capture. Returns true whatever the start did.
    bool capture(const QAudioDeviceInfo& device);
    /// Sets up and starts the capture of the stored device. Call stop() first
    /// when a capture runs.
    void start();
    /// Stops and drops the input and its reader on the worker; the reader
    /// pointer is cleared when this object's thread learns that they are gone.
    void stop();

    /// Makes the reader of a capture, with its owner and no parent.
    using ReaderFactory = std::function<AudioReader*(QtAudioCapture* owner)>;
    /// Replaces the plain AudioReader of the captures started from now on,
    /// for a sink of another kind; an empty factory restores the plain one.
    void setReaderFactory(ReaderFactory factory);

    /// The FFmpeg sample format of @p format, or -1 when there is none.
    static int sampleFormatOf(const QAudioFormat& format);

    /// True while someone is connected to spectrumsChanged(). Any thread.
    bool hasSpectrumReceivers() const;
    /// The reader of the current capture, null when none is set up.
    AudioReader* currentReader() const
    {
        return reader;
    }
    QAudioInput* currentInput() const
    {
        return audioInput;
    }

private slots:
    void forwardSpectrums(QVector<SoundChannel> spectrums);
    void onInputDropped();

private:
    AudioReader* reader = nullptr;
    QAudioInput* audioInput = nullptr;
    QThread* workerThread = nullptr;
    QAudioDeviceInfo device;
    ReaderFactory readerFactory;
    // Lives on workerThread; starts, stops and deletes inputs and readers there.
    AudioInputWorker* worker = nullptr;
    // Drops handed to the worker and not yet confirmed.
    int dropsInFlight = 0;
    // What was handed to the worker for deletion, for the destructor: the
    // worker thread's last queued calls may never run once it quits.
    QVector<QPointer<QObject>> retired;
};
