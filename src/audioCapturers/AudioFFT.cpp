#include "AudioFFT.h"

#include <cmath>
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace audiofft {

namespace {

// One radix-4 butterfly over the complex values at j, j + l, j + 2l, j + 3l
// (interleaved re/im in `a`), each output rotated by its twiddle factor:
// outputs j1, j2 and j3 get w1, w2 and w3. The core transform (rdft with
// isgn +1) runs with a positive exponent, so the quarter turn between the odd
// pairs is +i; fft() negates the imaginary parts of its result, which gives
// the negative exponent of the forward transform that the header promises.
inline void butterfly(double* a, int j, int l, double w1r, double w1i, double w2r, double w2i, double w3r, double w3i)
{
    const int j1 = j + l;
    const int j2 = j1 + l;
    const int j3 = j2 + l;
    const double s0r = a[j] + a[j1];
    const double s0i = a[j + 1] + a[j1 + 1];
    const double d0r = a[j] - a[j1];
    const double d0i = a[j + 1] - a[j1 + 1];
    const double s1r = a[j2] + a[j3];
    const double s1i = a[j2 + 1] + a[j3 + 1];
    const double d1r = a[j2] - a[j3];
    const double d1i = a[j2 + 1] - a[j3 + 1];

    a[j] = s0r + s1r;
    a[j + 1] = s0i + s1i;

    double xr = s0r - s1r;
    double xi = s0i - s1i;
    a[j2] = w2r * xr - w2i * xi;
    a[j2 + 1] = w2r * xi + w2i * xr;

    xr = d0r - d1i;
    xi = d0i + d1r;
    a[j1] = w1r * xr - w1i * xi;
    a[j1 + 1] = w1r * xi + w1i * xr;

    xr = d0r + d1i;
    xi = d0i - d1r;
    a[j3] = w3r * xr - w3i * xi;
    a[j3 + 1] = w3r * xi + w3i * xr;
}

// The same butterfly without rotation, for the first group of a stage.
inline void butterfly(double* a, int j, int l)
{
    const int j1 = j + l;
    const int j2 = j1 + l;
    const int j3 = j2 + l;
    const double s0r = a[j] + a[j1];
    const double s0i = a[j + 1] + a[j1 + 1];
    const double d0r = a[j] - a[j1];
    const double d0i = a[j + 1] - a[j1 + 1];
    const double s1r = a[j2] + a[j3];
    const double s1i = a[j2 + 1] + a[j3 + 1];
    const double d1r = a[j2] - a[j3];
    const double d1i = a[j2 + 1] - a[j3 + 1];
    a[j] = s0r + s1r;
    a[j + 1] = s0i + s1i;
    a[j2] = s0r - s1r;
    a[j2 + 1] = s0i - s1i;
    a[j1] = d0r - d1i;
    a[j1 + 1] = d0i + d1r;
    a[j3] = d0r + d1i;
    a[j3 + 1] = d0i - d1r;
}

// The twiddle factors of one pair of groups of a radix-4 stage, for table
// position k1: the first group takes wk1 from the table and wk2, its square;
// the second takes the next table entry and i times wk2. wk3 is always wk1
// times wk2.
struct GroupTwiddles
{
    double w1r, w1i, w2r, w2i, w3r, w3i;
};

inline void pairTwiddles(const double* w, int k1, GroupTwiddles& first, GroupTwiddles& second)
{
    const int k2 = 2 * k1;
    const double wk2r = w[k1];
    const double wk2i = w[k1 + 1];
    double wk1r = w[k2];
    double wk1i = w[k2 + 1];
    first = {wk1r, wk1i, wk2r, wk2i, wk1r - 2 * wk2i * wk1i, 2 * wk2i * wk1r - wk1i};
    wk1r = w[k2 + 2];
    wk1i = w[k2 + 3];
    second = {wk1r, wk1i, -wk2i, wk2r, wk1r - 2 * wk2r * wk1i, 2 * wk2r * wk1r - wk1i};
}

inline void butterfly(double* a, int j, int l, const GroupTwiddles& t)
{
    butterfly(a, j, l, t.w1r, t.w1i, t.w2r, t.w2i, t.w3r, t.w3i);
}

// Exchanges the complex values at j and k, each moved whole: a 16-byte copy
// is one vector move where a pair of doubles would be two scalar ones.
inline void swapPair(double* a, int j, int k)
{
    double value[2];
    std::memcpy(value, a + j, sizeof value);
    std::memcpy(a + j, a + k, sizeof value);
    std::memcpy(a + k, value, sizeof value);
}

} // namespace

// --- the front --------------------------------------------------------------

AudioFFT::AudioFFT()
    : _impl(new OouraFFT)
{
}

AudioFFT::~AudioFFT() = default;

void AudioFFT::init(size_t size)
{
    _impl->init(size);
}

void AudioFFT::fft(const float* data, float* re, float* im)
{
    _impl->fft(data, re, im);
}

void AudioFFT::ifft(float* data, const float* re, const float* im)
{
    _impl->ifft(data, re, im);
}

size_t AudioFFT::ComplexSize(size_t size)
{
    return (size >> 1) + 1;
}

// --- the object layer -------------------------------------------------------

OouraFFT::OouraFFT(InstructionSet wanted)
    : set(runs(wanted) ? wanted : InstructionSet::Portable)
{
}

void OouraFFT::init(size_t newSize)
{
    if (newSize == size)
        return;

    ip.resize(static_cast<size_t>(std::sqrt(static_cast<double>(newSize))) + 2);
    w.resize(newSize / 2);
    buffer.resize(newSize);
    size = newSize;

    const int size4 = static_cast<int>(size / 4);
    makewt(size4, ip.data(), w.data());
    makect(size4, ip.data(), w.data() + size4);
}

// --- the numerical core -----------------------------------------------------
//
// Ooura's real transform: the n reals are taken as n/2 complex values, put in
// bit-reversed order, transformed by radix-4 stages (radix 2 for the last one
// where log4 is not whole), and the real spectrum is then separated from the
// complex one. Forward output: a[2k] = sum a[j] cos(2 pi j k / n),
// a[2k+1] = sum a[j] sin(2 pi j k / n), and a[1] the cosine sum of bin n/2.
// The tables are built by init() alone; ip[0] and ip[1] hold their sizes.
//
// The stages' arrays are restrict-qualified so that the butterfly loops can
// be vectorised; the transform is built for two instruction sets (below).

namespace {

// Reorders the n/2 complex values of `a` by bit reversal of their index. The
// table of reversed prefixes is rebuilt in `ip` on every call; the swaps
// then walk the index pairs block by block.
[[gnu::always_inline]] inline void bitrv2(int n, int* __restrict ip, double* __restrict a)
{
    ip[0] = 0;
    int l = n;
    int m = 1;
    while ((m << 3) < l) {
        l >>= 1;
        for (int j = 0; j < m; ++j)
            ip[m + j] = ip[j] + l;
        m <<= 1;
    }

    const int m2 = 2 * m;
    if ((m << 3) == l) {
        for (int k = 0; k < m; ++k) {
            for (int j = 0; j < k; ++j) {
                int j1 = 2 * j + ip[k];
                int k1 = 2 * k + ip[j];
                swapPair(a, j1, k1);
                j1 += m2;
                k1 += 2 * m2;
                swapPair(a, j1, k1);
                j1 += m2;
                k1 -= m2;
                swapPair(a, j1, k1);
                j1 += m2;
                k1 += 2 * m2;
                swapPair(a, j1, k1);
            }
            const int j1 = 2 * k + m2 + ip[k];
            swapPair(a, j1, j1 + m2);
        }
    } else {
        for (int k = 1; k < m; ++k) {
            for (int j = 0; j < k; ++j) {
                int j1 = 2 * j + ip[k];
                int k1 = 2 * k + ip[j];
                swapPair(a, j1, k1);
                j1 += m2;
                k1 += m2;
                swapPair(a, j1, k1);
            }
        }
    }
}

// One radix-4 stage with a span of l doubles. Groups come in pairs, each pair
// with its twiddle factors (pairTwiddles).
[[gnu::always_inline]] inline void cftmdl(int n, int l, double* __restrict a, const double* __restrict w)
{
    const int m = l << 2;
    for (int j = 0; j < l; j += 2)
        butterfly(a, j, l);

    const double c = w[2]; // cos(pi/4)
    for (int j = m; j < l + m; j += 2)
        butterfly(a, j, l, c, c, 0.0, 1.0, -c, c);

    const int m2 = 2 * m;
    int k1 = 0;
    GroupTwiddles first, second;
    for (int k = m2; k < n; k += m2) {
        k1 += 2;
        pairTwiddles(w, k1, first, second);
        for (int j = k; j < l + k; j += 2)
            butterfly(a, j, l, first);
        for (int j = k + m; j < l + (k + m); j += 2)
            butterfly(a, j, l, second);
    }
}

// The first radix-4 stage works on groups of four complex values: the general
// stage with a span of one complex value, written out without its inner loops,
// whose single pass would cost more in set-up than in work.
[[gnu::always_inline]] inline void cft1st(int n, double* __restrict a, const double* __restrict w)
{
    butterfly(a, 0, 2);
    const double c = w[2]; // cos(pi/4)
    butterfly(a, 8, 2, c, c, 0.0, 1.0, -c, c);
    int k1 = 0;
    GroupTwiddles first, second;
    for (int k = 16; k < n; k += 16) {
        k1 += 2;
        pairTwiddles(w, k1, first, second);
        butterfly(a, k, 2, first);
        butterfly(a, k + 8, 2, second);
    }
}

[[gnu::always_inline]] inline void cftfsub(int n, double* __restrict a, const double* __restrict w)
{
    int l = 2;
    if (n > 8) {
        cft1st(n, a, w);
        l = 8;
        while ((l << 2) < n) {
            cftmdl(n, l, a, w);
            l <<= 2;
        }
    }
    if ((l << 2) == n) {
        for (int j = 0; j < l; j += 2)
            butterfly(a, j, l);
    } else {
        for (int j = 0; j < l; j += 2) {
            const int j1 = j + l;
            const double xr = a[j] - a[j1];
            const double xi = a[j + 1] - a[j1 + 1];
            a[j] += a[j1];
            a[j + 1] += a[j1 + 1];
            a[j1] = xr;
            a[j1 + 1] = xi;
        }
    }
}

// The inverse runs the forward stages on input that rftbsub has already
// conjugated, and conjugates in its last stage.
[[gnu::always_inline]] inline void cftbsub(int n, double* __restrict a, const double* __restrict w)
{
    int l = 2;
    if (n > 8) {
        cft1st(n, a, w);
        l = 8;
        while ((l << 2) < n) {
            cftmdl(n, l, a, w);
            l <<= 2;
        }
    }
    if ((l << 2) == n) {
        for (int j = 0; j < l; j += 2) {
            butterfly(a, j, l);
            a[j + 1] = -a[j + 1];
            a[j + l + 1] = -a[j + l + 1];
            a[j + 2 * l + 1] = -a[j + 2 * l + 1];
            a[j + 3 * l + 1] = -a[j + 3 * l + 1];
        }
    } else {
        for (int j = 0; j < l; j += 2) {
            const int j1 = j + l;
            const double xr = a[j] - a[j1];
            const double xi = -a[j + 1] + a[j1 + 1];
            a[j] += a[j1];
            a[j + 1] = -a[j + 1] - a[j1 + 1];
            a[j1] = xr;
            a[j1 + 1] = xi;
        }
    }
}

// Separates the real spectrum from the complex transform of the even/odd
// pairs, bin j against its mirror n - j. A caller that has separated the
// bins before j itself, with kk its position in the table, passes both on.
[[gnu::always_inline]] inline void rftfsub(
    int n, double* __restrict a, int nc, const double* __restrict c, int firstJ = 2, int kk = 0)
{
    const int m = n >> 1;
    const int ks = 2 * nc / m;
    for (int j = firstJ; j < m; j += 2) {
        const int k = n - j;
        kk += ks;
        const double wkr = 0.5 - c[nc - kk];
        const double wki = c[kk];
        const double xr = a[j] - a[k];
        const double xi = a[j + 1] + a[k + 1];
        const double yr = wkr * xr - wki * xi;
        const double yi = wkr * xi + wki * xr;
        a[j] -= yr;
        a[j + 1] -= yi;
        a[k] += yr;
        a[k + 1] -= yi;
    }
}

// The inverse of rftfsub, which also leaves the values conjugated for
// cftbsub.
[[gnu::always_inline]] inline void rftbsub(int n, double* __restrict a, int nc, const double* __restrict c)
{
    a[1] = -a[1];
    const int m = n >> 1;
    const int ks = 2 * nc / m;
    int kk = 0;
    for (int j = 2; j < m; j += 2) {
        const int k = n - j;
        kk += ks;
        const double wkr = 0.5 - c[nc - kk];
        const double wki = c[kk];
        const double xr = a[j] - a[k];
        const double xi = a[j + 1] + a[k + 1];
        const double yr = wkr * xr + wki * xi;
        const double yi = wkr * xi - wki * xr;
        a[j] -= yr;
        a[j + 1] = yi - a[j + 1];
        a[k] += yr;
        a[k + 1] = yi - a[k + 1];
    }
    a[m + 1] = -a[m + 1];
}

// The stages of the complex transform and the real separation as plain C++,
// for any processor.
struct PortableStages
{
    static void forward(int n, double* a, const double* w)
    {
        cftfsub(n, a, w);
    }
    static void backward(int n, double* a, const double* w)
    {
        cftbsub(n, a, w);
    }
    static void separate(int n, double* a, int nc, const double* c)
    {
        rftfsub(n, a, nc, c);
    }
};

// --- the same stages on 256-bit vectors --------------------------------------
//
// A vector holds two complex values as re, im, re, im. The radix-4 stages from
// the second on run their butterflies on two neighbouring groups of values at
// once, the first stage on two groups side by side; the arithmetic of each
// value is the scalar one.

#if defined(__x86_64__) || defined(__i386__)

using Pair = __m256d;

// (re, im) times (wr, wi) for each of the two values, wr and wi given per value.
[[gnu::target("avx2,fma")]] inline Pair rotate(Pair x, Pair wr, Pair wi)
{
    return _mm256_fmaddsub_pd(wr, x, _mm256_mul_pd(wi, _mm256_permute_pd(x, 0b0101)));
}

// The twiddle factors of one group of a stage, spread over both values of a pair.
struct PairTwiddles
{
    Pair w1r, w1i, w2r, w2i, w3r, w3i;
};

[[gnu::target("avx2,fma")]] inline PairTwiddles pairTwiddlesOf(const GroupTwiddles& t)
{
    return {_mm256_set1_pd(t.w1r), _mm256_set1_pd(t.w1i), _mm256_set1_pd(t.w2r), _mm256_set1_pd(t.w2i),
        _mm256_set1_pd(t.w3r), _mm256_set1_pd(t.w3i)};
}

// The low value from the first group's twiddles, the high one from the second's.
[[gnu::target("avx2,fma")]] inline PairTwiddles pairTwiddlesOf(const GroupTwiddles& low, const GroupTwiddles& high)
{
    return {_mm256_setr_pd(low.w1r, low.w1r, high.w1r, high.w1r), _mm256_setr_pd(low.w1i, low.w1i, high.w1i, high.w1i),
        _mm256_setr_pd(low.w2r, low.w2r, high.w2r, high.w2r), _mm256_setr_pd(low.w2i, low.w2i, high.w2i, high.w2i),
        _mm256_setr_pd(low.w3r, low.w3r, high.w3r, high.w3r), _mm256_setr_pd(low.w3i, low.w3i, high.w3i, high.w3i)};
}

// butterfly() on pairs without rotation: x0 to x3 are the four inputs,
// replaced by the outputs.
[[gnu::target("avx2,fma")]] inline void butterfly(Pair& x0, Pair& x1, Pair& x2, Pair& x3)
{
    const Pair s0 = _mm256_add_pd(x0, x1);
    const Pair d0 = _mm256_sub_pd(x0, x1);
    const Pair s1 = _mm256_add_pd(x2, x3);
    const Pair d1 = _mm256_sub_pd(x2, x3);
    const Pair d1Swapped = _mm256_permute_pd(d1, 0b0101);
    x0 = _mm256_add_pd(s0, s1);
    x2 = _mm256_sub_pd(s0, s1);
    // (d0r - d1i, d0i + d1r) and (d0r + d1i, d0i - d1r).
    x1 = _mm256_addsub_pd(d0, d1Swapped);
    x3 = _mm256_addsub_pd(d0, _mm256_sub_pd(_mm256_setzero_pd(), d1Swapped));
}

[[gnu::target("avx2,fma")]] inline void butterfly(Pair& x0, Pair& x1, Pair& x2, Pair& x3, const PairTwiddles& t)
{
    butterfly(x0, x1, x2, x3);
    x1 = rotate(x1, t.w1r, t.w1i);
    x2 = rotate(x2, t.w2r, t.w2i);
    x3 = rotate(x3, t.w3r, t.w3i);
}

// The butterflies of values j and j + 2 of a group with a span of l doubles.
[[gnu::target("avx2,fma")]] inline void butterflyAt(double* a, int j, int l, const PairTwiddles* t)
{
    Pair x0 = _mm256_loadu_pd(a + j);
    Pair x1 = _mm256_loadu_pd(a + j + l);
    Pair x2 = _mm256_loadu_pd(a + j + 2 * l);
    Pair x3 = _mm256_loadu_pd(a + j + 3 * l);
    if (t)
        butterfly(x0, x1, x2, x3, *t);
    else
        butterfly(x0, x1, x2, x3);
    _mm256_storeu_pd(a + j, x0);
    _mm256_storeu_pd(a + j + l, x1);
    _mm256_storeu_pd(a + j + 2 * l, x2);
    _mm256_storeu_pd(a + j + 3 * l, x3);
}

// cft1st on pairs: the groups at k and k + 8, each of four single values.
[[gnu::target("avx2,fma")]] inline void firstStageGroupsAt(double* a, int k, const PairTwiddles& t)
{
    const Pair low01 = _mm256_loadu_pd(a + k);
    const Pair low23 = _mm256_loadu_pd(a + k + 4);
    const Pair high01 = _mm256_loadu_pd(a + k + 8);
    const Pair high23 = _mm256_loadu_pd(a + k + 12);
    Pair x0 = _mm256_permute2f128_pd(low01, high01, 0x20);
    Pair x1 = _mm256_permute2f128_pd(low01, high01, 0x31);
    Pair x2 = _mm256_permute2f128_pd(low23, high23, 0x20);
    Pair x3 = _mm256_permute2f128_pd(low23, high23, 0x31);
    butterfly(x0, x1, x2, x3, t);
    _mm256_storeu_pd(a + k, _mm256_permute2f128_pd(x0, x1, 0x20));
    _mm256_storeu_pd(a + k + 4, _mm256_permute2f128_pd(x2, x3, 0x20));
    _mm256_storeu_pd(a + k + 8, _mm256_permute2f128_pd(x0, x1, 0x31));
    _mm256_storeu_pd(a + k + 12, _mm256_permute2f128_pd(x2, x3, 0x31));
}

// pairTwiddles() for table position k1 straight into vectors, the first
// group's factors in the low value, the second's in the high one.
[[gnu::target("avx2,fma")]] inline PairTwiddles pairTwiddlesAt(const double* w, int k1)
{
    // wk1 of both groups: re, im, re, im.
    const Pair wk1 = _mm256_loadu_pd(w + 2 * k1);
    // wk2 in both halves; the second group takes i times it.
    const Pair wk2 = _mm256_broadcast_pd(reinterpret_cast<const __m128d*>(w + k1));
    const Pair w1r = _mm256_movedup_pd(wk1);
    const Pair w1i = _mm256_permute_pd(wk1, 0b1111);
    const Pair w2r = _mm256_xor_pd(_mm256_permute_pd(wk2, 0b1100), _mm256_setr_pd(0.0, 0.0, -0.0, -0.0));
    const Pair w2i = _mm256_permute_pd(wk2, 0b0011);
    // wk3: wk1r - 2 f wk1i and 2 f wk1r - wk1i, f being the imaginary part of wk2.
    const Pair twiceF = _mm256_add_pd(w2i, w2i);
    return {w1r, w1i, w2r, w2i, _mm256_fnmadd_pd(twiceF, w1i, w1r), _mm256_fmsub_pd(twiceF, w1r, w1i)};
}

[[gnu::target("avx2,fma")]] void cft1stWide(int n, double* a, const double* w)
{
    const double c = w[2]; // cos(pi/4)
    const GroupTwiddles none {1.0, 0.0, 1.0, 0.0, 1.0, 0.0};
    const GroupTwiddles eighth {c, c, 0.0, 1.0, -c, c};
    firstStageGroupsAt(a, 0, pairTwiddlesOf(none, eighth));
    int k1 = 0;
    for (int k = 16; k < n; k += 16) {
        k1 += 2;
        firstStageGroupsAt(a, k, pairTwiddlesAt(w, k1));
    }
}

[[gnu::target("avx2,fma")]] void cftmdlWide(int n, int l, double* a, const double* w)
{
    const int m = l << 2;
    for (int j = 0; j < l; j += 4)
        butterflyAt(a, j, l, nullptr);

    const double c = w[2]; // cos(pi/4)
    const PairTwiddles eighth = pairTwiddlesOf(GroupTwiddles {c, c, 0.0, 1.0, -c, c});
    for (int j = m; j < l + m; j += 4)
        butterflyAt(a, j, l, &eighth);

    const int m2 = 2 * m;
    int k1 = 0;
    GroupTwiddles first, second;
    for (int k = m2; k < n; k += m2) {
        k1 += 2;
        pairTwiddles(w, k1, first, second);
        const PairTwiddles firstPair = pairTwiddlesOf(first);
        const PairTwiddles secondPair = pairTwiddlesOf(second);
        for (int j = k; j < l + k; j += 4)
            butterflyAt(a, j, l, &firstPair);
        for (int j = k + m; j < l + (k + m); j += 4)
            butterflyAt(a, j, l, &secondPair);
    }
}

// The complex stages of cftfsub or cftbsub, whose last stage conjugates.
[[gnu::target("avx2,fma")]] void complexStagesWide(int n, double* a, const double* w, bool conjugate)
{
    if (n <= 8) {
        if (conjugate)
            cftbsub(n, a, w);
        else
            cftfsub(n, a, w);
        return;
    }
    cft1stWide(n, a, w);
    int l = 8;
    while ((l << 2) < n) {
        cftmdlWide(n, l, a, w);
        l <<= 2;
    }
    const Pair signs = conjugate ? _mm256_setr_pd(0.0, -0.0, 0.0, -0.0) : _mm256_setzero_pd();
    if ((l << 2) == n) {
        for (int j = 0; j < l; j += 4) {
            Pair x0 = _mm256_loadu_pd(a + j);
            Pair x1 = _mm256_loadu_pd(a + j + l);
            Pair x2 = _mm256_loadu_pd(a + j + 2 * l);
            Pair x3 = _mm256_loadu_pd(a + j + 3 * l);
            butterfly(x0, x1, x2, x3);
            _mm256_storeu_pd(a + j, _mm256_xor_pd(x0, signs));
            _mm256_storeu_pd(a + j + l, _mm256_xor_pd(x1, signs));
            _mm256_storeu_pd(a + j + 2 * l, _mm256_xor_pd(x2, signs));
            _mm256_storeu_pd(a + j + 3 * l, _mm256_xor_pd(x3, signs));
        }
    } else {
        for (int j = 0; j < l; j += 4) {
            const Pair x0 = _mm256_loadu_pd(a + j);
            const Pair x1 = _mm256_loadu_pd(a + j + l);
            _mm256_storeu_pd(a + j, _mm256_xor_pd(_mm256_add_pd(x0, x1), signs));
            _mm256_storeu_pd(a + j + l, _mm256_xor_pd(_mm256_sub_pd(x0, x1), signs));
        }
    }
}

// rftfsub on pairs: values j and j + 2 against their mirrors n - j and n - j - 2.
[[gnu::target("avx2,fma")]] void rftfsubWide(int n, double* a, int nc, const double* c)
{
    const int m = n >> 1;
    const int ks = 2 * nc / m;
    const Pair imaginarySigns = _mm256_setr_pd(0.0, -0.0, 0.0, -0.0);
    int kk = 0;
    int j = 2;
    for (; j + 2 < m; j += 4) {
        const int k = n - j;
        const int kk0 = kk + ks;
        const int kk1 = kk0 + ks;
        kk = kk1;
        const Pair wkr = _mm256_setr_pd(0.5 - c[nc - kk0], 0.5 - c[nc - kk0], 0.5 - c[nc - kk1], 0.5 - c[nc - kk1]);
        const Pair wki = _mm256_setr_pd(c[kk0], c[kk0], c[kk1], c[kk1]);
        const Pair front = _mm256_loadu_pd(a + j);
        // Values k - 2 and k, turned into the order k, k - 2.
        const Pair back = _mm256_permute2f128_pd(_mm256_loadu_pd(a + k - 2), _mm256_loadu_pd(a + k - 2), 0x01);
        // (a[j] - a[k], a[j + 1] + a[k + 1]) rotated by (wkr, wki).
        const Pair y = rotate(_mm256_addsub_pd(front, back), wkr, wki);
        _mm256_storeu_pd(a + j, _mm256_sub_pd(front, y));
        const Pair backOut = _mm256_add_pd(back, _mm256_xor_pd(y, imaginarySigns));
        _mm256_storeu_pd(a + k - 2, _mm256_permute2f128_pd(backOut, backOut, 0x01));
    }
    rftfsub(n, a, nc, c, j, kk);
}

struct WideStages
{
    static void forward(int n, double* a, const double* w)
    {
        complexStagesWide(n, a, w, false);
    }
    static void backward(int n, double* a, const double* w)
    {
        complexStagesWide(n, a, w, true);
    }
    static void separate(int n, double* a, int nc, const double* c)
    {
        rftfsubWide(n, a, nc, c);
    }
};

#endif

template <typename Stages>
[[gnu::always_inline]] inline void realTransform(int n, int isgn, double* a, int* ip, double* w)
{
    const int nw = ip[0];
    const int nc = ip[1];
    if (isgn >= 0) {
        if (n > 4) {
            bitrv2(n, ip + 2, a);
            Stages::forward(n, a, w);
            Stages::separate(n, a, nc, w + nw);
        } else if (n == 4) {
            cftfsub(n, a, w);
        }
        const double xi = a[0] - a[1];
        a[0] += a[1];
        a[1] = xi;
    } else {
        a[1] = 0.5 * (a[0] - a[1]);
        a[0] -= a[1];
        if (n > 4) {
            rftbsub(n, a, nc, w + nw);
            bitrv2(n, ip + 2, a);
            Stages::backward(n, a, w);
        } else if (n == 4) {
            // A two-point complex transform is its own inverse.
            cftfsub(n, a, w);
        }
    }
}

// The whole of fft() and ifft() between the caller's floats and the work
// buffer, so that the conversions are built for the same instruction set.
template <typename Stages>
[[gnu::always_inline]] inline void forwardBlock(int n, const float* __restrict data, float* __restrict re,
    float* __restrict im, double* __restrict a, int* ip, double* w)
{
    for (int i = 0; i < n; ++i)
        a[i] = data[i];

    realTransform<Stages>(n, +1, a, ip, w);

    const int half = n / 2;
    for (int k = 0; k < half; ++k) {
        re[k] = static_cast<float>(a[2 * k]);
        im[k] = static_cast<float>(-a[2 * k + 1]);
    }
    // The Nyquist bin travels in the imaginary slot of bin 0.
    re[half] = -im[0];
    im[0] = 0.0f;
    im[half] = 0.0f;
}

template <typename Stages>
[[gnu::always_inline]] inline void inverseBlock(int n, float* __restrict data, const float* __restrict re,
    const float* __restrict im, double* __restrict a, int* ip, double* w)
{
    const int half = n / 2;
    for (int k = 0; k < half; ++k) {
        a[2 * k] = re[k];
        a[2 * k + 1] = -im[k];
    }
    a[1] = re[half];

    realTransform<Stages>(n, -1, a, ip, w);

    const double scale = 2.0 / static_cast<double>(n);
    for (int i = 0; i < n; ++i)
        data[i] = static_cast<float>(a[i] * scale);
}

// Both directions built twice: once for processors with AVX2 and FMA, once
// for any processor. The choice is made once, when the library is loaded, by
// an ordinary static initialiser rather than an ifunc resolver, which would
// run before the sanitizers' runtimes are ready.
void forwardPortable(int n, const float* data, float* re, float* im, double* a, int* ip, double* w)
{
    forwardBlock<PortableStages>(n, data, re, im, a, ip, w);
}

void inversePortable(int n, float* data, const float* re, const float* im, double* a, int* ip, double* w)
{
    inverseBlock<PortableStages>(n, data, re, im, a, ip, w);
}

#if defined(__x86_64__) || defined(__i386__)

[[gnu::target("avx2,fma")]] void forwardWide(
    int n, const float* data, float* re, float* im, double* a, int* ip, double* w)
{
    forwardBlock<WideStages>(n, data, re, im, a, ip, w);
}

[[gnu::target("avx2,fma")]] void inverseWide(
    int n, float* data, const float* re, const float* im, double* a, int* ip, double* w)
{
    inverseBlock<WideStages>(n, data, re, im, a, ip, w);
}

#endif

struct Kernel
{
    void (*forward)(int, const float*, float*, float*, double*, int*, double*);
    void (*inverse)(int, float*, const float*, const float*, double*, int*, double*);
};

Kernel kernelFor(OouraFFT::InstructionSet set)
{
#if defined(__x86_64__) || defined(__i386__)
    if (set == OouraFFT::InstructionSet::Avx2Fma)
        return {forwardWide, inverseWide};
#endif
    (void)set;
    return {forwardPortable, inversePortable};
}

} // namespace

void OouraFFT::fft(const float* data, float* re, float* im)
{
    kernelFor(set).forward(static_cast<int>(size), data, re, im, buffer.data(), ip.data(), w.data());
}

void OouraFFT::ifft(float* data, const float* re, const float* im)
{
    kernelFor(set).inverse(static_cast<int>(size), data, re, im, buffer.data(), ip.data(), w.data());
}

OouraFFT::InstructionSet OouraFFT::fastestInstructionSet()
{
    static const InstructionSet fastest
        = runs(InstructionSet::Avx2Fma) ? InstructionSet::Avx2Fma : InstructionSet::Portable;
    return fastest;
}

bool OouraFFT::runs(InstructionSet candidate)
{
    if (candidate == InstructionSet::Portable)
        return true;
#if defined(__x86_64__) || defined(__i386__)
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
#else
    return false;
#endif
}

// Twiddle table of the complex stages: cos and sin of the first octant,
// mirrored into the second, stored in bit-reversed pair order.
void OouraFFT::makewt(int nw, int* ip, double* w)
{
    ip[0] = nw;
    ip[1] = 1;
    if (nw <= 2)
        return;

    const int nwh = nw >> 1;
    const double delta = std::atan(1.0) / nwh;
    w[0] = 1.0;
    w[1] = 0.0;
    w[nwh] = std::cos(delta * nwh);
    w[nwh + 1] = w[nwh];
    if (nwh > 2) {
        for (int j = 2; j < nwh; j += 2) {
            const double x = std::cos(delta * j);
            const double y = std::sin(delta * j);
            w[j] = x;
            w[j + 1] = y;
            w[nw - j] = y;
            w[nw - j + 1] = x;
        }
        bitrv2(nw, ip + 2, w);
    }
}

// Half-scaled cosine table of the real-to-complex separation.
void OouraFFT::makect(int nc, int* ip, double* c)
{
    ip[1] = nc;
    if (nc <= 1)
        return;

    const int nch = nc >> 1;
    const double delta = std::atan(1.0) / nch;
    c[0] = std::cos(delta * nch);
    c[nch] = 0.5 * c[0];
    for (int j = 1; j < nch; ++j) {
        c[j] = 0.5 * std::cos(delta * j);
        c[nc - j] = 0.5 * std::sin(delta * j);
    }
}

} // namespace audiofft
