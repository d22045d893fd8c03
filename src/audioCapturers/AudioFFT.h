#pragma once

#include <cstddef>
#include <memory>
#include <vector>

/**
 * Real FFT of a fixed block length, for the sound analysis.
 *
 * The numerical core is Ooura's radix-4 real transform in double precision;
 * the interface speaks float. `fft` gives the ordinary forward transform with
 * a negative exponent, unscaled, as ComplexSize(size) bins split into real
 * and imaginary arrays; `ifft` inverts it including the 1/size scale.
 *
 * An instance is not re-entrant: both directions use its work buffer. All
 * memory is allocated by init(), so the transforms allocate nothing.
 */
namespace audiofft {

namespace detail {

class AudioFFTImpl
{
public:
    AudioFFTImpl() = default;
    AudioFFTImpl(const AudioFFTImpl&) = delete;
    AudioFFTImpl& operator=(const AudioFFTImpl&) = delete;
    virtual ~AudioFFTImpl() = default;

    virtual void init(size_t size) = 0;
    virtual void fft(const float* data, float* re, float* im) = 0;
    virtual void ifft(float* data, const float* re, const float* im) = 0;
};

} // namespace detail

class OouraFFT : public detail::AudioFFTImpl
{
public:
    /// The instruction sets the transform is built for; the arithmetic is the same.
    enum class InstructionSet {
        Portable,
        Avx2Fma,
    };

    /// The fastest set that this processor runs, found once.
    static InstructionSet fastestInstructionSet();
    /// Whether this processor runs @p set.
    static bool runs(InstructionSet set);

    /// Transforms with @p set, or with the portable one where this processor doesn't run @p set.
    explicit OouraFFT(InstructionSet set = fastestInstructionSet());
    ~OouraFFT() override = default;

    InstructionSet instructionSet() const
    {
        return set;
    }

    /// Builds the tables for `size`, a power of two of at least 4. Repeating
    /// it with the same size keeps the tables.
    void init(size_t size) override;
    /// Reads `size` floats, writes size/2 + 1 floats to each of `re` and `im`.
    void fft(const float* data, float* re, float* im) override;
    /// Reads size/2 + 1 floats from each of `re` and `im`, writes `size` floats.
    void ifft(float* data, const float* re, const float* im) override;

    /// The bit reversal work area and the trigonometric tables, for inspection.
    const std::vector<int>& workArea() const
    {
        return ip;
    }
    const std::vector<double>& tables() const
    {
        return w;
    }

private:
    void makewt(int nw, int* ip, double* w);
    void makect(int nc, int* ip, double* c);

    InstructionSet set;
    size_t size = 0;
    std::vector<int> ip;
    std::vector<double> w;
    std::vector<double> buffer;
};

class AudioFFT
{
public:
    AudioFFT();
    AudioFFT(const AudioFFT&) = delete;
    AudioFFT& operator=(const AudioFFT&) = delete;
    ~AudioFFT();

    void init(size_t size);
    void fft(const float* data, float* re, float* im);
    void ifft(float* data, const float* re, const float* im);

    /// Entries that each of `re` and `im` must hold for a block of `size`.
    static size_t ComplexSize(size_t size);

    detail::AudioFFTImpl* implementation() const
    {
        return _impl.get();
    }

private:
    std::unique_ptr<detail::AudioFFTImpl> _impl;
};

} // namespace audiofft
