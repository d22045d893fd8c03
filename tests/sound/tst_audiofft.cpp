#include "AudioFFT.h"

#include <QtTest/QtTest>

#include <cmath>
#include <complex>
#include <random>
#include <vector>

namespace {

// The forward transform with a negative exponent, straight from its
// definition, in double precision.
std::vector<std::complex<double>> referenceDft(const std::vector<float>& input)
{
    const size_t n = input.size();
    std::vector<std::complex<double>> out(n / 2 + 1);
    for (size_t k = 0; k <= n / 2; ++k) {
        std::complex<double> sum;
        for (size_t j = 0; j < n; ++j) {
            // Reduce j*k first so that the angle stays exact for large n.
            const double angle = -2.0 * M_PI * static_cast<double>((j * k) % n) / static_cast<double>(n);
            sum += static_cast<double>(input[j]) * std::polar(1.0, angle);
        }
        out[k] = sum;
    }
    return out;
}

/// Empty where every bin of @p re and @p im lies within a millionth of the
/// largest bin of @p expected, else which bin does not.
QString spectrumMismatch(
    const std::vector<float>& re, const std::vector<float>& im, const std::vector<std::complex<double>>& expected)
{
    double largest = 0.0;
    for (const auto& bin : expected)
        largest = std::max(largest, std::abs(bin));
    if (largest == 0.0)
        return QStringLiteral("the expected spectrum is empty");
    for (size_t k = 0; k < expected.size(); ++k) {
        const double error = std::abs(std::complex<double>(re[k], im[k]) - expected[k]);
        if (error > 1e-6 * largest) {
            return QStringLiteral("bin %1: (%2, %3) against (%4, %5)")
                .arg(k)
                .arg(re[k])
                .arg(im[k])
                .arg(expected[k].real())
                .arg(expected[k].imag());
        }
    }
    return QString();
}

std::vector<float> randomBlock(size_t n, std::mt19937& generator)
{
    std::uniform_real_distribution<float> distribution(-1.0f, 1.0f);
    std::vector<float> block(n);
    for (float& x : block)
        x = distribution(generator);
    return block;
}

} // namespace

Q_DECLARE_METATYPE(audiofft::OouraFFT::InstructionSet)

class AudioFFTTest : public QObject
{
    Q_OBJECT

private slots:
    void complexSize();
    void matchesDirectDft_data();
    void matchesDirectDft();
    void inverseRestoresInput_data();
    void inverseRestoresInput();
    void constantInputIsUnscaled();
    void secondInitWithSameSizeKeepsTables();
    void initWithOtherSizeRebuilds();
    void dcAndNyquistHaveZeroImaginaryPart();
    void sineAtExactBin_data();
    void sineAtExactBin();
    void alwaysBuildsOouraImplementation();
    void theFastestSetOfThisProcessorIsChosen();
};

void AudioFFTTest::complexSize()
{
    QCOMPARE(audiofft::AudioFFT::ComplexSize(2048), size_t(1025));
    QCOMPARE(audiofft::AudioFFT::ComplexSize(4), size_t(3));
    QCOMPARE(audiofft::AudioFFT::ComplexSize(0), size_t(1));
}

// Every size with each instruction set that this processor runs.
void AudioFFTTest::matchesDirectDft_data()
{
    using Set = audiofft::OouraFFT::InstructionSet;
    QTest::addColumn<Set>("set");
    QTest::addColumn<int>("size");
    for (const Set set : {Set::Portable, Set::Avx2Fma}) {
        if (!audiofft::OouraFFT::runs(set))
            continue;
        const char* name = set == Set::Portable ? "portable" : "avx2+fma";
        for (int size = 4; size <= 4096; size *= 2)
            QTest::newRow(qPrintable(QStringLiteral("%1 %2").arg(name).arg(size))) << set << size;
    }
}

void AudioFFTTest::matchesDirectDft()
{
    QFETCH(audiofft::OouraFFT::InstructionSet, set);
    QFETCH(int, size);
    std::mt19937 generator(static_cast<unsigned>(size));
    audiofft::OouraFFT fft(set);
    QCOMPARE(fft.instructionSet(), set);
    fft.init(size);

    for (int round = 0; round < 3; ++round) {
        const std::vector<float> input = randomBlock(size, generator);
        std::vector<float> re(audiofft::AudioFFT::ComplexSize(size));
        std::vector<float> im(re.size());
        fft.fft(input.data(), re.data(), im.data());

        const QString mismatch = spectrumMismatch(re, im, referenceDft(input));
        QVERIFY2(mismatch.isEmpty(), qPrintable(mismatch));
    }
}

void AudioFFTTest::inverseRestoresInput_data()
{
    matchesDirectDft_data();
}

void AudioFFTTest::inverseRestoresInput()
{
    QFETCH(audiofft::OouraFFT::InstructionSet, set);
    QFETCH(int, size);
    std::mt19937 generator(static_cast<unsigned>(size) * 7u);
    audiofft::OouraFFT fft(set);
    fft.init(size);

    const std::vector<float> input = randomBlock(size, generator);
    std::vector<float> re(audiofft::AudioFFT::ComplexSize(size));
    std::vector<float> im(re.size());
    std::vector<float> output(size);
    fft.fft(input.data(), re.data(), im.data());
    fft.ifft(output.data(), re.data(), im.data());
    for (int i = 0; i < size; ++i)
        QVERIFY2(std::abs(output[i] - input[i]) <= 1e-6, qPrintable(QString::number(i)));
}

void AudioFFTTest::constantInputIsUnscaled()
{
    audiofft::AudioFFT fft;
    fft.init(2048);
    const std::vector<float> ones(2048, 1.0f);
    std::vector<float> re(1025), im(1025);
    fft.fft(ones.data(), re.data(), im.data());
    QCOMPARE(re[0], 2048.0f);
    for (size_t k = 1; k < re.size(); ++k)
        QVERIFY(std::abs(re[k]) < 1e-3f && std::abs(im[k]) < 1e-3f);
}

void AudioFFTTest::secondInitWithSameSizeKeepsTables()
{
    audiofft::AudioFFT fft;
    fft.init(2048);
    auto* ooura = dynamic_cast<audiofft::OouraFFT*>(fft.implementation());
    QVERIFY(ooura);
    QCOMPARE(ooura->workArea().size(), size_t(47));
    QCOMPARE(ooura->tables().size(), size_t(1024));
    const double* tables = ooura->tables().data();
    const int* workArea = ooura->workArea().data();
    const std::vector<double> tableValues = ooura->tables();

    fft.init(2048);
    QCOMPARE(ooura->tables().data(), tables);
    QCOMPARE(ooura->workArea().data(), workArea);
    QVERIFY(ooura->tables() == tableValues);
}

void AudioFFTTest::initWithOtherSizeRebuilds()
{
    audiofft::AudioFFT fft;
    fft.init(64);
    auto* ooura = dynamic_cast<audiofft::OouraFFT*>(fft.implementation());
    QVERIFY(ooura);
    QCOMPARE(ooura->tables().size(), size_t(32));
    QCOMPARE(ooura->workArea()[0], 16);

    fft.init(256);
    QCOMPARE(ooura->tables().size(), size_t(128));
    QCOMPARE(ooura->workArea().size(), size_t(18));
    QCOMPARE(ooura->workArea()[0], 64);
    QCOMPARE(ooura->workArea()[1], 64);

    std::mt19937 generator(3);
    const std::vector<float> input = randomBlock(256, generator);
    std::vector<float> re(129), im(129);
    fft.fft(input.data(), re.data(), im.data());
    const auto expected = referenceDft(input);
    for (size_t k = 0; k < expected.size(); ++k)
        QVERIFY(std::abs(std::complex<double>(re[k], im[k]) - expected[k]) < 1e-4);
}

void AudioFFTTest::dcAndNyquistHaveZeroImaginaryPart()
{
    std::mt19937 generator(11);
    for (int size : {4, 8, 2048}) {
        audiofft::AudioFFT fft;
        fft.init(size);
        const std::vector<float> input = randomBlock(size, generator);
        std::vector<float> re(size / 2 + 1, 1.0f), im(size / 2 + 1, 1.0f);
        fft.fft(input.data(), re.data(), im.data());
        QCOMPARE(im[0], 0.0f);
        QCOMPARE(im[size / 2], 0.0f);

        double alternating = 0.0;
        for (int j = 0; j < size; ++j)
            alternating += (j % 2 ? -1.0 : 1.0) * input[j];
        QVERIFY(std::abs(re[size / 2] - alternating) < 1e-4);
    }
}

void AudioFFTTest::sineAtExactBin_data()
{
    QTest::addColumn<int>("bin");
    QTest::addColumn<double>("amplitude");
    QTest::addColumn<bool>("cosine");
    QTest::newRow("sin bin 10") << 10 << 0.5 << false;
    QTest::newRow("sin bin 43") << 43 << 1.0 << false;
    QTest::newRow("cos bin 100") << 100 << 0.25 << true;
}

void AudioFFTTest::sineAtExactBin()
{
    QFETCH(int, bin);
    QFETCH(double, amplitude);
    QFETCH(bool, cosine);
    const int size = 2048;
    std::vector<float> input(size);
    for (int j = 0; j < size; ++j) {
        const double angle = 2.0 * M_PI * bin * j / size;
        input[j] = static_cast<float>(amplitude * (cosine ? std::cos(angle) : std::sin(angle)));
    }
    audiofft::AudioFFT fft;
    fft.init(size);
    std::vector<float> re(1025), im(1025);
    fft.fft(input.data(), re.data(), im.data());

    const double expected = amplitude * size / 2;
    QVERIFY(std::abs(std::hypot(re[bin], im[bin]) - expected) < 1e-3 * expected);
    // A negative exponent turns sin into -i and cos into +1.
    if (cosine) {
        QVERIFY(re[bin] > 0.99 * expected);
        QVERIFY(std::abs(im[bin]) < 1e-3 * expected);
    } else {
        QVERIFY(im[bin] < -0.99 * expected);
        QVERIFY(std::abs(re[bin]) < 1e-3 * expected);
    }
    for (int k = 0; k < 1025; ++k) {
        if (k != bin)
            QVERIFY(std::hypot(re[k], im[k]) < 1e-3 * expected);
    }
}

void AudioFFTTest::alwaysBuildsOouraImplementation()
{
    audiofft::AudioFFT fft;
    QVERIFY(dynamic_cast<audiofft::OouraFFT*>(fft.implementation()));
    auto* ooura = static_cast<audiofft::OouraFFT*>(fft.implementation());
    QVERIFY(ooura->tables().empty());
    QVERIFY(ooura->workArea().empty());
}

void AudioFFTTest::theFastestSetOfThisProcessorIsChosen()
{
    using Set = audiofft::OouraFFT::InstructionSet;
    QVERIFY(audiofft::OouraFFT::runs(Set::Portable));
#if defined(__x86_64__)
    // The kernel's own view of the processor.
    QFile cpuinfo("/proc/cpuinfo");
    QVERIFY(cpuinfo.open(QIODevice::ReadOnly));
    QStringList flags;
    for (const QByteArray& line : cpuinfo.readAll().split('\n')) {
        if (line.startsWith("flags")) {
            flags = QString::fromLatin1(line.mid(line.indexOf(':') + 1)).split(' ', Qt::SkipEmptyParts);
            break;
        }
    }
    QVERIFY(!flags.isEmpty());
    const bool wide = flags.contains("avx2") && flags.contains("fma");
    QCOMPARE(audiofft::OouraFFT::runs(Set::Avx2Fma), wide);
    QCOMPARE(audiofft::OouraFFT::fastestInstructionSet(), wide ? Set::Avx2Fma : Set::Portable);
#endif
    audiofft::AudioFFT fft;
    QCOMPARE(static_cast<audiofft::OouraFFT*>(fft.implementation())->instructionSet(),
        audiofft::OouraFFT::fastestInstructionSet());
}

QTEST_APPLESS_MAIN(AudioFFTTest)
#include "tst_audiofft.moc"
