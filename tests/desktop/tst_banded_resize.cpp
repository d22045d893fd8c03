#include "cpu/BandedResize.h"

#include <QtTest/QTest>

#include <opencv2/imgproc.hpp>

using Orvanta::Cpu::BandedResize;

namespace {

/// A picture of four channels that differs from row to row and pixel to pixel.
cv::Mat noise(cv::Size size)
{
    cv::Mat picture(size, CV_8UC4);
    cv::RNG random(0x5eed);
    random.fill(picture, cv::RNG::UNIFORM, 0, 256);
    return picture;
}

/// Feeds @p source to @p resize band by band, each band only once it is there:
/// the rows after it hold another picture until then.
cv::Mat scaleAsItArrives(BandedResize& resize, const cv::Mat& source)
{
    cv::Mat arriving(source.size(), source.type(), cv::Scalar(0, 255, 0, 255));
    cv::Mat target;
    int first = 0;
    for (const int end : resize.sourceBandEnds()) {
        source.rowRange(first, end).copyTo(arriving.rowRange(first, end));
        resize.scaleArrived(arriving, end, target);
        first = end;
    }
    return target;
}

} // namespace

class TestBandedResize : public QObject
{
    Q_OBJECT

private slots:
    void bandsGiveTheWholesResult_data();
    void bandsGiveTheWholesResult();
    void bandsEndAtTheSourcesHeight();
    void rowsThatHaveNotArrivedAreNotScaled();
    void aNewPlanStartsAgain();
};

void TestBandedResize::bandsGiveTheWholesResult_data()
{
    QTest::addColumn<QSize>("source");
    QTest::addColumn<QSize>("target");
    QTest::addColumn<int>("bands");

    QTest::newRow("1080 to 180") << QSize(1920, 1080) << QSize(320, 180) << 6;
    QTest::newRow("1080 to 90") << QSize(1920, 1080) << QSize(160, 90) << 6;
    QTest::newRow("1080 to 64, 135 rows a step") << QSize(1920, 1080) << QSize(64, 64) << 6;
    QTest::newRow("1080 to 36") << QSize(1920, 1080) << QSize(64, 36) << 6;
    QTest::newRow("2160 to 180") << QSize(3840, 2160) << QSize(320, 180) << 6;
    QTest::newRow("720 to 480, a step of 3 to 2") << QSize(1280, 720) << QSize(640, 480) << 6;
    QTest::newRow("1080 to 540, half") << QSize(1920, 1080) << QSize(960, 540) << 6;
    // Positions of a step of 25 rows are not exact in single precision.
    QTest::newRow("1080 to 1000, 27 to 25") << QSize(1920, 1080) << QSize(1920, 1000) << 1;
    QTest::newRow("1080 to 1024, 135 to 128") << QSize(1920, 1080) << QSize(64, 1024) << 6;
    QTest::newRow("1080 to 100, 54 to 5") << QSize(1920, 1080) << QSize(160, 100) << 1;
    QTest::newRow("1080 to 1079, one step") << QSize(1920, 1080) << QSize(320, 1079) << 1;
    QTest::newRow("1081 to 180, one step") << QSize(1920, 1081) << QSize(320, 180) << 1;
    QTest::newRow("same height") << QSize(1920, 1080) << QSize(320, 1080) << 1;
    QTest::newRow("enlarged") << QSize(640, 360) << QSize(1280, 720) << 1;
    QTest::newRow("turned target") << QSize(1920, 1080) << QSize(180, 320) << 6;
}

void TestBandedResize::bandsGiveTheWholesResult()
{
    QFETCH(QSize, source);
    QFETCH(QSize, target);
    QFETCH(int, bands);

    const cv::Mat picture = noise(cv::Size(source.width(), source.height()));
    const cv::Size targetSize(target.width(), target.height());
    cv::Mat whole;
    cv::resize(picture, whole, targetSize, 0, 0, cv::INTER_LINEAR);

    BandedResize resize;
    resize.plan(picture.size(), targetSize);
    QCOMPARE(int(resize.sourceBandEnds().size()), bands);
    const cv::Mat banded = scaleAsItArrives(resize, picture);
    QVERIFY(resize.finished());
    QCOMPARE(banded.size(), whole.size());
    QCOMPARE(banded.type(), whole.type());
    QCOMPARE(cv::norm(banded, whole, cv::NORM_INF), 0.0);
}

void TestBandedResize::bandsEndAtTheSourcesHeight()
{
    BandedResize resize;
    resize.plan(cv::Size(1920, 1080), cv::Size(320, 180));
    QCOMPARE(resize.sourceBandEnds(), (std::vector<int> {180, 360, 540, 720, 900, 1080}));
    // 1080 rows to 64 go in 8 steps of 135 rows; six bands take one or two.
    resize.plan(cv::Size(1920, 1080), cv::Size(64, 64));
    QCOMPARE(resize.sourceBandEnds(), (std::vector<int> {135, 270, 540, 675, 810, 1080}));
    resize.plan(cv::Size(1920, 1080), cv::Size(320, 180), 2);
    QCOMPARE(resize.sourceBandEnds(), (std::vector<int> {540, 1080}));
    resize.plan(cv::Size(1920, 1080), cv::Size(0, 0));
    QCOMPARE(resize.sourceBandEnds(), (std::vector<int> {1080}));
}

void TestBandedResize::rowsThatHaveNotArrivedAreNotScaled()
{
    const cv::Mat picture = noise(cv::Size(1920, 1080));
    BandedResize resize;
    resize.plan(picture.size(), cv::Size(320, 180));
    cv::Mat target;
    // Rows up to 400: the first two bands of 180 rows, not the third.
    resize.scaleArrived(picture, 400, target);
    QVERIFY(!resize.finished());
    QCOMPARE(target.size(), cv::Size(320, 180));
    target.rowRange(60, 180).setTo(cv::Scalar::all(7));
    cv::Mat whole;
    cv::resize(picture, whole, cv::Size(320, 180), 0, 0, cv::INTER_LINEAR);
    QCOMPARE(cv::norm(target.rowRange(0, 60), whole.rowRange(0, 60), cv::NORM_INF), 0.0);
    resize.scaleArrived(picture, 1079, target);
    QCOMPARE(cv::norm(target.rowRange(0, 150), whole.rowRange(0, 150), cv::NORM_INF), 0.0);
    QCOMPARE(target.at<cv::Vec4b>(150, 0), cv::Vec4b(7, 7, 7, 7));
    resize.scaleArrived(picture, 1080, target);
    QVERIFY(resize.finished());
    QCOMPARE(cv::norm(target, whole, cv::NORM_INF), 0.0);
}

void TestBandedResize::aNewPlanStartsAgain()
{
    const cv::Mat picture = noise(cv::Size(640, 360));
    BandedResize resize;
    resize.plan(picture.size(), cv::Size(64, 36));
    cv::Mat first = scaleAsItArrives(resize, picture);
    QVERIFY(resize.finished());
    resize.plan(picture.size(), cv::Size(64, 36));
    QVERIFY(!resize.finished());
    cv::Mat second = scaleAsItArrives(resize, picture);
    QCOMPARE(cv::norm(first, second, cv::NORM_INF), 0.0);
}

QTEST_GUILESS_MAIN(TestBandedResize)
#include "tst_banded_resize.moc"
