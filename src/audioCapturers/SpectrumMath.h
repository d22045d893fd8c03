#pragma once

// Arithmetic shared by the two spectrum computations (the endpoint capturer
// and SpectrumAnalyzer), so that both window and bin their blocks alike.

#include <cmath>

namespace Orvanta {
namespace SpectrumMath {

/// Bins of a 2048-point real transform, and so the entries of its imaginary
/// part: no band may index at or past it.
constexpr int binCount = 1025;

/// Fills `window` with the symmetric Hann window of `size` entries; the
/// divisor is the fixed 2047.0 of the analysis block, so that entries 0 and
/// 2047 of a block are both 0.
inline void fillAnalysisWindow(float* window, int size)
{
    for (int i = 0; i < size; ++i)
        window[i] = static_cast<float>((1.0 - std::cos(i * 6.283185307179586 / 2047.0)) * 0.5);
}

/// trunc(hz / rate * scale), computed in double, clamped to the bins of the
/// transform. Rates too low for the bound (or none at all) would otherwise
/// select bins the transform does not have.
inline int boundToBin(int hz, int rate, double scale)
{
    const double bin = static_cast<double>(hz) / static_cast<double>(rate) * scale;
    if (std::isnan(bin) || bin <= 0.0)
        return 0;
    if (bin >= binCount)
        return binCount;
    return static_cast<int>(bin);
}

/// The band's label: float(bin) / 1025 * rate, in single precision, in that
/// order. Both computations keep the divisor 1025 whatever their bin scale.
inline float bandFrequency(int bin, int rate)
{
    return static_cast<float>(bin) / static_cast<float>(binCount) * static_cast<float>(rate);
}

/// A band's level, 20 * log10(amplitude), to single precision: the base-2
/// logarithm of the float costs a third of the double-precision base-10 one,
/// and the result is a float either way. Silence gives negative infinity.
inline float decibelOf(double amplitude)
{
    // 20 * log10(2): 20 * log10(x) = 20 * log10(2) * log2(x).
    constexpr float decibelsPerOctave = 6.0205999132796239f;
    return std::log2(static_cast<float>(amplitude)) * decibelsPerOctave;
}

} // namespace SpectrumMath
} // namespace Orvanta
