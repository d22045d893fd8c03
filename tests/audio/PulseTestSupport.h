#pragma once

// Helpers of the tests that run against the fixture's sound server.

#include "IAudioCapture.h"

#include <QtCore/QByteArray>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QMutex>
#include <QtCore/QObject>
#include <QtCore/QProcess>
#include <QtCore/QStringList>
#include <QtCore/QVector>
#include <QtCore/QtMath>

#include <cmath>

namespace PulseTest {

/// Runs pactl with @p arguments; its trimmed standard output, or a null string on failure.
inline QString pactl(const QStringList& arguments)
{
    QProcess process;
    process.start(QStringLiteral("pactl"), arguments);
    if (!process.waitForFinished(20000) || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        return QString();
    }
    const QString out = QString::fromUtf8(process.readAllStandardOutput()).trimmed();
    return out.isNull() ? QStringLiteral("") : out;
}

/// Which server the fixture runs: "pulseaudio", or "pipewire" for PipeWire
/// with pipewire-pulse and WirePlumber. The two differ in places, which the
/// tests name.
inline QString soundServer()
{
    return qEnvironmentVariable("ORVANTA_SOUND_SERVER");
}

inline bool onPipeWire()
{
    return soundServer() == QLatin1String("pipewire");
}

/// Runs the fixture's start or stop script for the fixture the test runs under.
inline bool runServerScript(const char* variable)
{
    const QString script = qEnvironmentVariable(variable);
    const QString dir = qEnvironmentVariable("ORVANTA_PULSE_FIXTURE_DIR");
    const QString name = qEnvironmentVariable("ORVANTA_PULSE_FIXTURE");
    if (script.isEmpty() || dir.isEmpty() || name.isEmpty()) {
        return false;
    }
    return QProcess::execute(script, {dir, name}) == 0;
}

/// Stops the fixture's sound server.
inline bool stopServer()
{
    return runServerScript("ORVANTA_SOUND_SERVER_STOP");
}

/// Starts the fixture's sound server again, with its sinks.
inline bool startServer()
{
    return runServerScript("ORVANTA_SOUND_SERVER_START");
}

/// Ends the record stream of source-output @p index from the server's side.
/// PulseAudio: pacmd kill-source-output. pipewire-pulse has no command-line
/// protocol and pactl cannot kill; the stream is a PipeWire node whose
/// "object.serial" is the index, and pw-cli destroys it.
inline bool killSourceOutput(const QString& index)
{
    if (!onPipeWire()) {
        return QProcess::execute(QStringLiteral("pacmd"), {QStringLiteral("kill-source-output"), index}) == 0;
    }
    QProcess dump;
    dump.start(QStringLiteral("pw-dump"), QStringList());
    if (!dump.waitForFinished(20000) || dump.exitCode() != 0) {
        return false;
    }
    const QJsonArray objects = QJsonDocument::fromJson(dump.readAllStandardOutput()).array();
    for (const QJsonValue& value : objects) {
        const QJsonObject object = value.toObject();
        const QJsonValue serial = object.value(QStringLiteral("info"))
                                      .toObject()
                                      .value(QStringLiteral("props"))
                                      .toObject()
                                      .value(QStringLiteral("object.serial"));
        if (object.value(QStringLiteral("type")).toString().endsWith(QLatin1String("Node"))
            && QString::number(serial.toVariant().toLongLong()) == index) {
            const QString id = QString::number(object.value(QStringLiteral("id")).toInt());
            return QProcess::execute(QStringLiteral("pw-cli"), {QStringLiteral("destroy"), id}) == 0;
        }
    }
    return false;
}

/// Interleaved 16-bit stereo of a sine at @p frequency and @p amplitude (of full scale).
inline QByteArray sine16(double frequency, int rate, double seconds, double amplitude)
{
    const int frames = static_cast<int>(rate * seconds);
    QByteArray bytes(frames * 4, Qt::Uninitialized);
    auto* samples = reinterpret_cast<qint16*>(bytes.data());
    for (int i = 0; i < frames; ++i) {
        const auto value
            = static_cast<qint16>(std::lround(amplitude * 32767.0 * std::sin(2.0 * M_PI * frequency * i / rate)));
        samples[2 * i] = value;
        samples[2 * i + 1] = value;
    }
    return bytes;
}

/// Plays a sine into a sink through pacat for as long as it lives.
class SinePlayer
{
public:
    SinePlayer(const QString& sink, double frequency, int rate, double amplitude, double seconds = 20.0)
    {
        m_process.start(QStringLiteral("pacat"),
            {QStringLiteral("--playback"), QStringLiteral("--raw"), QStringLiteral("--format=s16le"),
                QStringLiteral("--rate=%1").arg(rate), QStringLiteral("--channels=2"),
                QStringLiteral("--latency-msec=30"), QStringLiteral("--device=%1").arg(sink)});
        m_started = m_process.waitForStarted(10000);
        if (m_started) {
            m_process.write(sine16(frequency, rate, seconds, amplitude));
        }
    }
    ~SinePlayer()
    {
        m_process.kill();
        m_process.waitForFinished(10000);
    }
    bool started() const
    {
        return m_started;
    }

private:
    QProcess m_process;
    bool m_started = false;
};

/// Index of the band with the largest amplitude.
inline int strongestBand(const SoundChannel& channel)
{
    int strongest = 0;
    for (int i = 1; i < channel.spectrums.size(); ++i) {
        if (channel.spectrums[i].amplitude > channel.spectrums[strongest].amplitude) {
            strongest = i;
        }
    }
    return strongest;
}

/// Collects, on the thread it lives on, what a capture's signals deliver.
class SpectrumCollector : public QObject
{
    Q_OBJECT
public:
    void onSpectrums(QVector<SoundChannel> spectrums)
    {
        QMutexLocker locker(&m_lock);
        m_spectra.append(spectrums);
    }
    void onPeaks(const QVector<QVector<QString>>& peaks)
    {
        QMutexLocker locker(&m_lock);
        m_peaks.append(peaks);
    }
    void onId(const QString& id)
    {
        QMutexLocker locker(&m_lock);
        m_ids.append(id);
    }
    QList<QVector<SoundChannel>> spectra() const
    {
        QMutexLocker locker(&m_lock);
        return m_spectra;
    }
    QList<QVector<QVector<QString>>> peaks() const
    {
        QMutexLocker locker(&m_lock);
        return m_peaks;
    }
    QStringList ids() const
    {
        QMutexLocker locker(&m_lock);
        return m_ids;
    }
    void clear()
    {
        QMutexLocker locker(&m_lock);
        m_spectra.clear();
        m_peaks.clear();
        m_ids.clear();
    }

private:
    mutable QMutex m_lock;
    QList<QVector<SoundChannel>> m_spectra;
    QList<QVector<QVector<QString>>> m_peaks;
    QStringList m_ids;
};

} // namespace PulseTest
