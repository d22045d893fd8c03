#pragma once

#include "IAudioCapture.h"
#include "orvanta_global.h"

#include <QtCore/QString>
#include <QtCore/QThread>
#include <QtCore/QVector>

#include <memory>

class AudioCapturerPrivate;

#ifdef _WIN32
#include <windows.h>

#include <mmreg.h>
#endif

namespace Orvanta {
namespace Ifaces {
class AudioEndpoint;
class EndpointWatcher;
// The stream format record: the system's own on Windows.
#ifdef _WIN32
using WaveFormatExtensible = ::WAVEFORMATEXTENSIBLE;
#else
struct WaveFormatExtensible;
#endif
} // namespace Ifaces
} // namespace Orvanta

/**
 * Captures one audio endpoint on its own thread and publishes what it plays
 * as band spectra and peak strings.
 *
 * Raw frames are cut into blocks of `samplesSize` frames without overlap;
 * each block is folded to stereo, windowed and transformed per channel, and
 * every FFT bin between the band bounds becomes one `Spectrum`, corrected for
 * the endpoint's master volume. Every third block finished in the process is
 * published through spectrumsChanged(); the endpoint's peak meter is read on
 * the configured update interval and published as strings.
 *
 * Both signals are emitted on the capture thread, not on the thread the
 * object lives in; receivers on other threads get them queued.
 */
class LIBORVANTA_EXPORT AudioCapturer : public QThread
{
    Q_OBJECT

public:
    /// Frames in one analysis block, which is also the FFT length.
    static const quint32 samplesSize = 2048;
    /// Age in milliseconds beyond which the cached master volume is read again.
    static const qint32 VOLUME_UPDATE_INTERVAL_MS = 100;

    /// The bounds are in Hz; they become bin indices once the device's
    /// sample rate is known. Touches no device.
    explicit AudioCapturer(int lowerBound = 20, int upperBound = 20000, QObject* parent = nullptr);
    ~AudioCapturer() override;

    /// Reference-counted handle of one endpoint of the platform.
    using DeviceHandle = std::shared_ptr<Orvanta::Ifaces::AudioEndpoint>;

    /// Opens and starts the endpoint's stream, in loopback for an output.
    /// Call it once, before start(). Returns a negative code on failure.
    long load(DeviceHandle device);
    /// The stream's format, as the stream was opened with it.
    Orvanta::Ifaces::WaveFormatExtensible Format();

protected:
    /// The capture loop.
    void run() override;
    /// The default output endpoint of @p enumerator. A hook for subclasses
    /// that choose their own device; the library always passes one to load().
    virtual DeviceHandle DeviceSelect(std::shared_ptr<Orvanta::Ifaces::EndpointWatcher> enumerator);

signals:
    /// Two channels of band spectra, left then right, every third analysed block (capture thread).
    void spectrumsChanged(QVector<SoundChannel> spectrums);
    /// Per metering channel, the linear peak and its level in decibels.
    void channelsPeakValuesChanged(const QVector<QVector<QString>>&);

private:
    friend class AudioCapturerPrivate;
    std::unique_ptr<AudioCapturerPrivate> d;
};
