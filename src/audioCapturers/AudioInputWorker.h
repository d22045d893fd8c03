#pragma once

#include <QtCore/QObject>

class QAudioDeviceInfo;
class QAudioFormat;
class QAudioInput;
class QIODevice;

/**
 * The part of a Qt Multimedia capture that runs on its worker thread: the
 * input reads with timers and callbacks of its own thread, so it is started,
 * stopped and deleted there. Requests come as calls of its slots, queued
 * from other threads; nothing here ever waits for the thread that makes them.
 */
class AudioInputWorker : public QObject
{
    Q_OBJECT

public:
    explicit AudioInputWorker(QObject* parent = nullptr);

public slots:
    /// A new input of @p device in @p format, with no parent, not started.
    QAudioInput* createInput(const QAudioDeviceInfo& device, const QAudioFormat& format);
    /// Starts @p input writing into @p sink, which is open for writing.
    void startInput(QAudioInput* input, QIODevice* sink);
    /// Stops @p input, then deletes it and closes and deletes @p sink
    /// (either may be null), and says so with inputDropped().
    void dropInput(QAudioInput* input, QIODevice* sink);

signals:
    void inputDropped();
};
