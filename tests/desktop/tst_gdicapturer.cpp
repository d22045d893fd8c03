#include "GDICapturer.h"
#include "MessageCapture.h"
#include "fakes/FakeDisplaySystem.h"
#include "fakes/FakeScreenGrabber.h"

#include <QtTest/QTest>

#include <opencv2/imgproc.hpp>

using Fakes::FakeScreenGrabber;
using Fakes::OutputRotation;

namespace {

// Screen pixels are B, G, R, X.
const cv::Scalar kScreenRed(0, 0, 255, 0);
const cv::Scalar kScreenGreen(0, 255, 0, 0);
const cv::Scalar kScreenBlue(255, 0, 0, 0);
const cv::Scalar kScreenWhite(255, 255, 255, 0);

constexpr std::uintptr_t kLeft = 0x11;
constexpr std::uintptr_t kRight = 0x22;

/// Frame pixels are R, G, B, A.
cv::Vec4b framePixel(const cv::Mat& frame, int row, int col)
{
    return frame.at<cv::Vec4b>(row, col);
}

bool isColour(const cv::Vec4b& pixel, int r, int g, int b)
{
    return pixel[0] == r && pixel[1] == g && pixel[2] == b;
}

/// Fills @p desktop with pixels that differ from row to row and pixel to pixel.
void fillWithNoise(cv::Mat& desktop)
{
    cv::RNG random(0x5eed);
    random.fill(desktop, cv::RNG::UNIFORM, 0, 256);
}

/// What a frame of @p screen scaled to @p size must be: one bilinear scaling
/// of the whole, with red and blue exchanged.
cv::Mat scaledWhole(const cv::Mat& screen, cv::Size size)
{
    cv::Mat scaled;
    cv::resize(screen, scaled, size, 0, 0, cv::INTER_LINEAR);
    cv::Mat frame;
    cv::cvtColor(scaled, frame, cv::COLOR_BGRA2RGBA);
    return frame;
}

double largestDifference(const cv::Mat& frame, const cv::Mat& expected)
{
    if (frame.size() != expected.size() || frame.type() != expected.type())
        return -1;
    return cv::norm(frame, expected, cv::NORM_INF);
}

} // namespace

class TestGDICapturer : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void capturesFromTheMonitorsOrigin();
    void outputSizeAppliesToTheNextFrame();
    void redByteComesFirst();
    void rotation90Steps();
    void rotation180Steps();
    void rotation270Steps();
    void originSizeSwapsForQuarterTurns();
    void failedCopyGivesAnEmptyFrame();
    void unknownMonitorGivesAnEmptyFrame();
    void zeroOutputSizeIsNotCaughtBeforeScaling();
    void framesOwnTheirBuffers();
    void resolutionChangeKeepsTheOutputSize();
    void framesAreScaledBandByBandAsTheCopyArrives();
    void turnedFramesAreScaledBandByBand();
    void aBandThatFailsGivesAnEmptyFrame();
    void grabbersWithoutBandsAreScaledWhole();
    void aPictureOfAnotherSizeIsScaledWhole();

private:
    GDICapturer* makeCapturer(std::uintptr_t monitor, OutputRotation rotation = OutputRotation::Identity);

    FakeScreenGrabber* m_grabber = nullptr;
    std::shared_ptr<Fakes::OutputScript> m_output;
    std::unique_ptr<GDICapturer> m_capturer;
};

void TestGDICapturer::init()
{
    // Two monitors side by side: the left one red on top, green below; the
    // right one blue with a white top-left quarter.
    cv::Mat desktop(1080, 3840, CV_8UC4, kScreenRed);
    desktop(cv::Rect(0, 540, 1920, 540)).setTo(kScreenGreen);
    desktop(cv::Rect(1920, 0, 1920, 1080)).setTo(kScreenBlue);
    desktop(cv::Rect(1920, 0, 960, 540)).setTo(kScreenWhite);
    auto grabber = std::make_unique<FakeScreenGrabber>(desktop);
    grabber->monitors[kLeft] = {0, 0, 1920, 1080};
    grabber->monitors[kRight] = {1920, 0, 3840, 1080};
    m_grabber = grabber.get();
    m_capturer = std::make_unique<GDICapturer>(std::move(grabber));
}

GDICapturer* TestGDICapturer::makeCapturer(std::uintptr_t monitor, OutputRotation rotation)
{
    m_output = std::make_shared<Fakes::OutputScript>();
    m_output->monitor = monitor;
    m_output->rotation = rotation;
    DeskCaptureContext context;
    context.monitor = monitor;
    context.output = std::make_shared<Fakes::FakeOutput>(m_output);
    if (m_capturer->setCaptureContext(context) != 0)
        return nullptr;
    return m_capturer.get();
}

void TestGDICapturer::capturesFromTheMonitorsOrigin()
{
    GDICapturer* capturer = makeCapturer(kRight);
    QVERIFY(capturer);
    QCOMPARE(capturer->outputSize(), QSize(1920, 1080));
    QCOMPARE(capturer->originSize(), QSize(1920, 1080));
    const cv::Mat frame = capturer->nextFrame();
    QCOMPARE(m_grabber->lastRect.left, 1920L);
    QCOMPARE(m_grabber->lastRect.top, 0L);
    QCOMPARE(frame.type(), CV_8UC4);
    QCOMPARE(frame.cols, 1920);
    QCOMPARE(frame.rows, 1080);
    QVERIFY(isColour(framePixel(frame, 0, 0), 255, 255, 255));
    QVERIFY(isColour(framePixel(frame, 0, 1000), 0, 0, 255));
    QVERIFY(isColour(framePixel(frame, 1079, 1919), 0, 0, 255));
}

void TestGDICapturer::outputSizeAppliesToTheNextFrame()
{
    GDICapturer* capturer = makeCapturer(kLeft);
    capturer->setOutputSize(QSize(320, 180));
    QCOMPARE(capturer->outputSize(), QSize(320, 180));
    const cv::Mat frame = capturer->nextFrame();
    QCOMPARE(frame.rows, 180);
    QCOMPARE(frame.cols, 320);
    QVERIFY(isColour(framePixel(frame, 10, 10), 255, 0, 0));
    QVERIFY(isColour(framePixel(frame, 170, 10), 0, 255, 0));
}

void TestGDICapturer::redByteComesFirst()
{
    m_grabber->desktop.setTo(kScreenRed);
    GDICapturer* capturer = makeCapturer(kLeft);
    capturer->setOutputSize(QSize(64, 36));
    const cv::Mat frame = capturer->nextFrame();
    for (int row = 0; row < frame.rows; ++row) {
        for (int col = 0; col < frame.cols; ++col) {
            const cv::Vec4b pixel = framePixel(frame, row, col);
            QCOMPARE(pixel[0], uchar(255));
            QCOMPARE(pixel[1], uchar(0));
            QCOMPARE(pixel[2], uchar(0));
            // The fourth byte is passed on as the screen gave it.
            QCOMPARE(pixel[3], uchar(0));
        }
    }
}

void TestGDICapturer::rotation90Steps()
{
    GDICapturer* capturer = makeCapturer(kRight, OutputRotation::Rotate90);
    capturer->setOutputSize(QSize(320, 180));
    const cv::Mat frame = capturer->nextFrame();
    // Scaled to 180 by 320, transposed, flipped about the horizontal axis.
    QCOMPARE(frame.cols, 320);
    QCOMPARE(frame.rows, 180);
    // The white top-left quarter of the screen lands bottom-left.
    QVERIFY(isColour(framePixel(frame, 170, 10), 255, 255, 255));
    QVERIFY(isColour(framePixel(frame, 10, 10), 0, 0, 255));
    QVERIFY(isColour(framePixel(frame, 170, 310), 0, 0, 255));
}

void TestGDICapturer::rotation180Steps()
{
    GDICapturer* capturer = makeCapturer(kRight, OutputRotation::Rotate180);
    capturer->setOutputSize(QSize(320, 180));
    const cv::Mat frame = capturer->nextFrame();
    QCOMPARE(frame.cols, 320);
    QCOMPARE(frame.rows, 180);
    QVERIFY(isColour(framePixel(frame, 170, 310), 255, 255, 255));
    QVERIFY(isColour(framePixel(frame, 10, 10), 0, 0, 255));
}

void TestGDICapturer::rotation270Steps()
{
    GDICapturer* capturer = makeCapturer(kRight, OutputRotation::Rotate270);
    capturer->setOutputSize(QSize(320, 180));
    const cv::Mat frame = capturer->nextFrame();
    QCOMPARE(frame.cols, 320);
    QCOMPARE(frame.rows, 180);
    // Transposed, then flipped about the vertical axis: top-right.
    QVERIFY(isColour(framePixel(frame, 10, 310), 255, 255, 255));
    QVERIFY(isColour(framePixel(frame, 10, 10), 0, 0, 255));
    QVERIFY(isColour(framePixel(frame, 170, 310), 0, 0, 255));
}

void TestGDICapturer::originSizeSwapsForQuarterTurns()
{
    GDICapturer* capturer = makeCapturer(kLeft, OutputRotation::Rotate90);
    QCOMPARE(capturer->originSize(), QSize(1080, 1920));
    QCOMPARE(capturer->outputSize(), QSize(1080, 1920));
    m_output->rotation = OutputRotation::Rotate270;
    QCOMPARE(capturer->originSize(), QSize(1080, 1920));
    m_output->rotation = OutputRotation::Rotate180;
    QCOMPARE(capturer->originSize(), QSize(1920, 1080));
    // The rotation is read at every frame.
    m_output->rotation = OutputRotation::Rotate90;
    const cv::Mat frame = capturer->nextFrame();
    QCOMPARE(frame.cols, 1080);
    QCOMPARE(frame.rows, 1920);
}

void TestGDICapturer::failedCopyGivesAnEmptyFrame()
{
    GDICapturer* capturer = makeCapturer(kLeft);
    m_grabber->failGrab = true;
    MessageCapture messages;
    QVERIFY(capturer->nextFrame().empty());
    // The fixed text, with the real cause beside it.
    QCOMPARE(messages.texts(QtCriticalMsg), QStringList {"[GDICapturer]: Failed to get DBits errCode: 0"});
    QCOMPARE(messages.texts(QtDebugMsg).size(), 1);
    QVERIFY2(messages.texts(QtDebugMsg).first().startsWith("[GDICapturer]: Copying the rectangle"),
        qPrintable(messages.texts(QtDebugMsg).first()));
    // Each call stands alone.
    m_grabber->failGrab = false;
    QVERIFY(!capturer->nextFrame().empty());
}

void TestGDICapturer::unknownMonitorGivesAnEmptyFrame()
{
    GDICapturer* capturer = makeCapturer(0x99);
    QCOMPARE(capturer->originSize(), QSize(0, 0));
    MessageCapture messages;
    QVERIFY(capturer->nextFrame().empty());
    QCOMPARE(messages.all(),
        QStringList({"debug: [GDICapturer]: The rectangle of monitor 0x99 is unknown",
            "critical: [GDICapturer]: Failed to get DBits errCode: 0"}));
}

void TestGDICapturer::zeroOutputSizeIsNotCaughtBeforeScaling()
{
    GDICapturer* capturer = makeCapturer(kLeft);
    capturer->setOutputSize(QSize(0, 180));
    QCOMPARE(capturer->outputSize(), QSize(0, 180));
    MessageCapture messages;
    // OpenCV refuses the size; the refusal must not escape into the timer.
    QVERIFY(capturer->nextFrame().empty());
    QCOMPARE(m_grabber->grabs, 1);
    const QStringList critical = messages.texts(QtCriticalMsg);
    QCOMPARE(critical.size(), 1);
    QVERIFY(critical.first().startsWith("[GDICapturer]: Failed to scale the frame:"));
}

void TestGDICapturer::framesOwnTheirBuffers()
{
    GDICapturer* capturer = makeCapturer(kLeft);
    // Same size as the screen: no scaling, and still a buffer of its own.
    const cv::Mat first = capturer->nextFrame();
    QVERIFY(first.u);
    const uchar* grabberMemory = m_grabber->buffer.data;
    QVERIFY(first.data != grabberMemory);

    m_grabber->desktop.setTo(kScreenBlue);
    const cv::Mat second = capturer->nextFrame();
    QVERIFY(second.data != first.data);
    QVERIFY(isColour(framePixel(second, 0, 0), 0, 0, 255));
    // The kept frame is as it was delivered.
    QVERIFY(isColour(framePixel(first, 0, 0), 255, 0, 0));
    QVERIFY(isColour(framePixel(first, 1000, 0), 0, 255, 0));
}

void TestGDICapturer::resolutionChangeKeepsTheOutputSize()
{
    GDICapturer* capturer = makeCapturer(kLeft);
    capturer->setOutputSize(QSize(160, 90));
    m_grabber->monitors[kLeft] = {0, 0, 1280, 720};
    QCOMPARE(capturer->originSize(), QSize(1280, 720));
    const cv::Mat frame = capturer->nextFrame();
    QCOMPARE(m_grabber->lastRect.right, 1280L);
    QCOMPARE(frame.cols, 160);
    QCOMPARE(frame.rows, 90);
}

void TestGDICapturer::framesAreScaledBandByBandAsTheCopyArrives()
{
    fillWithNoise(m_grabber->desktop);
    GDICapturer* capturer = makeCapturer(kLeft);
    capturer->setOutputSize(QSize(320, 180));
    const cv::Mat frame = capturer->nextFrame();
    // Six bands of 180 rows, each scaled to 30 rows as it arrives; the fake's
    // rows that have not arrived yet would show in the frame if read.
    QCOMPARE(m_grabber->bandEndsAsked, (std::vector<int> {180, 360, 540, 720, 900, 1080}));
    QCOMPARE(m_grabber->bandsHandedOn, 6);
    QCOMPARE(largestDifference(frame, scaledWhole(m_grabber->desktop(cv::Rect(0, 0, 1920, 1080)), {320, 180})), 0.0);
}

void TestGDICapturer::turnedFramesAreScaledBandByBand()
{
    fillWithNoise(m_grabber->desktop);
    GDICapturer* capturer = makeCapturer(kRight, OutputRotation::Rotate90);
    capturer->setOutputSize(QSize(180, 320));
    const cv::Mat frame = capturer->nextFrame();
    QCOMPARE(m_grabber->bandsHandedOn, 6);
    cv::Mat turned;
    cv::transpose(scaledWhole(m_grabber->desktop(cv::Rect(1920, 0, 1920, 1080)), {320, 180}), turned);
    cv::flip(turned, turned, 0);
    QCOMPARE(largestDifference(frame, turned), 0.0);
}

void TestGDICapturer::aBandThatFailsGivesAnEmptyFrame()
{
    GDICapturer* capturer = makeCapturer(kLeft);
    capturer->setOutputSize(QSize(320, 180));
    m_grabber->failingBand = 3;
    MessageCapture messages;
    QVERIFY(capturer->nextFrame().empty());
    QCOMPARE(m_grabber->bandsHandedOn, 3);
    QCOMPARE(messages.texts(QtCriticalMsg), QStringList {"[GDICapturer]: Failed to get DBits errCode: 0"});
    QCOMPARE(messages.texts(QtDebugMsg),
        QStringList {"[GDICapturer]: Copying the rectangle 0 0 1920 1080 of monitor 0x11 failed"});
    m_grabber->failingBand = -1;
    QVERIFY(!capturer->nextFrame().empty());
}

void TestGDICapturer::grabbersWithoutBandsAreScaledWhole()
{
    fillWithNoise(m_grabber->desktop);
    m_grabber->inBands = false;
    GDICapturer* capturer = makeCapturer(kLeft);
    capturer->setOutputSize(QSize(320, 180));
    const cv::Mat frame = capturer->nextFrame();
    QCOMPARE(m_grabber->grabs, 1);
    QCOMPARE(m_grabber->bandsHandedOn, 0);
    QCOMPARE(largestDifference(frame, scaledWhole(m_grabber->desktop(cv::Rect(0, 0, 1920, 1080)), {320, 180})), 0.0);
}

void TestGDICapturer::aPictureOfAnotherSizeIsScaledWhole()
{
    fillWithNoise(m_grabber->desktop);
    m_grabber->inBands = false;
    // The monitor is 1920x1080, yet the grabber hands on a smaller picture:
    // the bands planned for the monitor don't fit it.
    m_grabber->delivered = cv::Size(1280, 720);
    GDICapturer* capturer = makeCapturer(kLeft);
    capturer->setOutputSize(QSize(320, 180));
    MessageCapture messages;
    const cv::Mat frame = capturer->nextFrame();
    QVERIFY(messages.all().isEmpty());
    QCOMPARE(largestDifference(frame, scaledWhole(m_grabber->desktop(cv::Rect(0, 0, 1280, 720)), {320, 180})), 0.0);
}

QTEST_GUILESS_MAIN(TestGDICapturer)
#include "tst_gdicapturer.moc"
