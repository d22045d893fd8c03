#pragma once

#include "orvanta_global.h"

#include <QtCore/QMetaType>
#include <QtCore/QObject>
#include <QtCore/QVector>

/**
 * One band of one channel's spectrum.
 *
 * `amplitude` is the linear magnitude of the band's FFT bin, corrected for the
 * output volume and not normalised by the transform length; `decibel` is
 * 20 * log10(amplitude). A silent band has amplitude 0 and decibel negative
 * infinity: neither field is clamped, so consumers must accept the infinity.
 */
struct Spectrum
{
    float frequency = 0.0f; ///< The band's frequency label in Hz.
    float amplitude = 0.0f; ///< Linear magnitude, volume-corrected.
    float decibel = 0.0f; ///< 20 * log10(amplitude); negative infinity for silence.
};
Q_DECLARE_TYPEINFO(Spectrum, Q_PRIMITIVE_TYPE);

/**
 * One channel's bands, in ascending bin order, with the channel's bit in the
 * channel layout (1 front left, 2 front right).
 *
 * The capture fronts always deliver exactly two of them, left then right,
 * whatever the device's channel count, with bands of equal count.
 */
struct SoundChannel
{
    QVector<Spectrum> spectrums; ///< The bands, lowest first.
    quint64 channel = 0; ///< The channel's bit in the channel layout.
};
Q_DECLARE_TYPEINFO(SoundChannel, Q_MOVABLE_TYPE);

Q_DECLARE_METATYPE(Spectrum)
Q_DECLARE_METATYPE(SoundChannel)

/**
 * The signal contract of a sound capture front.
 *
 * It declares nothing but the signal: fronts that cannot share this base
 * (the endpoint capturer is a QThread) declare a signal of the same name and
 * record type, so a consumer connects to either with one slot.
 */
class LIBORVANTA_EXPORT IAudioCapture : public QObject
{
    Q_OBJECT

public:
    /// An object with nothing but the signal.
    explicit IAudioCapture(QObject* parent = nullptr);
    ~IAudioCapture() override;

signals:
    /// New spectra, one record per channel; the emitting thread is the front's to say.
    void spectrumsChanged(QVector<SoundChannel> spectrums);
};
