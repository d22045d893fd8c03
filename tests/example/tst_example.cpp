// Runs the example application for a few seconds under the demo session's own
// X server and sound server, and checks what a person would look at: the
// status lines, the preview pictures, the feedback zip and a clean exit.
#include <QtCore/QDir>
#include <QtCore/QProcess>
#include <QtCore/QRegularExpression>
#include <QtCore/QTemporaryDir>
#include <QtGui/QImage>
#include <QtTest/QtTest>

#include <cmath>

namespace {

constexpr int kToneHz = 1000;
// The monitors of the session's screen: two for the run that is looked at
// (the pattern's bars are wide enough on each to be told apart), another
// count for the run that checks that the example counts what it was given.
constexpr int kMonitors = 2;
constexpr int kOtherMonitorCount = 3;

// The colours of the test pattern's bars.
const QColor kPalette[]
    = {Qt::red, QColor(255, 128, 0), Qt::yellow, Qt::green, Qt::cyan, Qt::blue, Qt::magenta, Qt::white};

bool nearPalette(const QColor& colour)
{
    for (const QColor& bar : kPalette) {
        const int distance = std::abs(colour.red() - bar.red()) + std::abs(colour.green() - bar.green())
            + std::abs(colour.blue() - bar.blue());
        if (distance <= 60) {
            return true;
        }
    }
    return false;
}

} // namespace

class ExampleTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void statusLinesReportFramesAndTheTone();
    void previewsShowThePatternInTheLedRing();
    void feedbackZipOpens();
    void exitIsClean();
    void displayCountIsWhatTheScreenHas();

private:
    QTemporaryDir m_dir;
    QString m_output;
    QString m_errors;
    int m_exitCode = -1;
    QProcess::ExitStatus m_exitStatus = QProcess::CrashExit;
};

namespace {

struct ExampleRun
{
    QString output;
    QString errors;
    int exitCode = -1;
    QProcess::ExitStatus exitStatus = QProcess::CrashExit;
};

// Runs the example under the demo session's own services, whatever the
// machine runs; a steady tone makes the spectrum's peak predictable.
bool runExample(const QString& folder, int monitors, int seconds, ExampleRun& run)
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("ORVANTA_DEMO_OWN_SERVICES"), QStringLiteral("1"));
    environment.insert(QStringLiteral("ORVANTA_DEMO_TONE_HZ"), QString::number(kToneHz));
    environment.insert(QStringLiteral("ORVANTA_DEMO_MONITORS"), QString::number(monitors));
    environment.insert(QStringLiteral("ORVANTA_PATTERN_PROGRAM"), QStringLiteral(ORVANTA_PATTERN_PROGRAM));
    environment.insert(QStringLiteral("QT_LOGGING_RULES"), QStringLiteral("*.debug=false"));
    environment.remove(QStringLiteral("QT_QPA_PLATFORM"));
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(ORVANTA_DEMO_SESSION),
        {QStringLiteral(ORVANTA_EXAMPLE_PROGRAM), QStringLiteral("--seconds"), QString::number(seconds),
            QStringLiteral("--config"), folder + QStringLiteral("/config"), QStringLiteral("--previews"),
            folder + QStringLiteral("/previews")});
    if (!process.waitForFinished(120000)) {
        return false;
    }
    run.output = QString::fromUtf8(process.readAllStandardOutput());
    run.errors = QString::fromUtf8(process.readAllStandardError());
    run.exitCode = process.exitCode();
    run.exitStatus = process.exitStatus();
    return true;
}

} // namespace

void ExampleTest::initTestCase()
{
    QVERIFY(m_dir.isValid());
    ExampleRun run;
    QVERIFY2(runExample(m_dir.path(), kMonitors, 5, run), "the example did not finish within two minutes");
    m_output = run.output;
    m_errors = run.errors;
    m_exitCode = run.exitCode;
    m_exitStatus = run.exitStatus;
    qInfo().noquote() << m_output;
}

void ExampleTest::statusLinesReportFramesAndTheTone()
{
    const QRegularExpression status(
        QStringLiteral(R"(^\[\s*\d+s\]\s+(\d+) fps \| mode \d+ \| frame (\d+)x(\d+) \| (.*)$)"),
        QRegularExpression::MultilineOption);
    const QRegularExpression band(QStringLiteral(R"(strongest band \d+ \(([\d.]+) Hz)"));
    const double binWidth = 48000.0 / 2048.0;
    int lines = 0;
    int linesWithFrames = 0;
    int linesAtTheTone = 0;
    auto it = status.globalMatch(m_output);
    while (it.hasNext()) {
        const QRegularExpressionMatch match = it.next();
        ++lines;
        if (match.captured(1).toInt() > 0) {
            ++linesWithFrames;
            QCOMPARE(match.captured(2).toInt(), 160);
            QCOMPARE(match.captured(3).toInt(), 90);
        }
        const QRegularExpressionMatch peak = band.match(match.captured(4));
        if (peak.hasMatch() && std::abs(peak.captured(1).toDouble() - kToneHz) <= 2 * binWidth) {
            ++linesAtTheTone;
        }
    }
    QVERIFY2(lines >= 4, qPrintable(m_output));
    QVERIFY2(linesWithFrames >= 3, qPrintable(m_output));
    QVERIFY2(linesAtTheTone >= 1, qPrintable(m_output));
    QVERIFY2(m_output.contains(QStringLiteral("(%1 1920x1080 monitors)").arg(kMonitors)), qPrintable(m_output));
    QVERIFY2(m_output.contains(QStringLiteral("display outputs: %1\n").arg(kMonitors)), qPrintable(m_output));
    QVERIFY2(m_output.contains(QStringLiteral("listening to ")), qPrintable(m_output));
}

void ExampleTest::previewsShowThePatternInTheLedRing()
{
    const QDir previews(m_dir.filePath(QStringLiteral("previews")));
    const QStringList pictures = previews.entryList({QStringLiteral("preview-*.png")}, QDir::Files, QDir::Name);
    QVERIFY2(pictures.size() >= 4, qPrintable(pictures.join(QLatin1Char(' '))));

    const QImage last(previews.filePath(pictures.last()));
    QVERIFY(!last.isNull());
    QCOMPARE(last.size(), QSize(640, 480));
    // The LED ring: the top row of LEDs sits at y 14, the side columns at x 14
    // and x 626. Every LED takes the colour of a bar below it (a cell that
    // straddles two bars averages them), so most match the palette and
    // several different bars show.
    QVector<QColor> leds;
    for (int x = 80; x < 600; x += 36) {
        leds << last.pixelColor(x, 14);
    }
    for (int y = 44; y < 320; y += 34) {
        leds << last.pixelColor(14, y) << last.pixelColor(626, y);
    }
    int matching = 0;
    QSet<QRgb> distinct;
    for (const QColor& led : leds) {
        if (nearPalette(led)) {
            ++matching;
            distinct.insert(led.rgb());
        }
    }
    QVERIFY2(matching * 10 >= leds.size() * 7, qPrintable(QStringLiteral("%1 of %2").arg(matching).arg(leds.size())));
    QVERIFY2(distinct.size() >= 3, qPrintable(QString::number(distinct.size())));
}

void ExampleTest::feedbackZipOpens()
{
    const QRegularExpression line(
        QStringLiteral(R"(^feedback package: (.+\.zip)$)"), QRegularExpression::MultilineOption);
    const QRegularExpressionMatch match = line.match(m_output);
    QVERIFY2(match.hasMatch(), qPrintable(m_output));
    const QString zip = match.captured(1);
    QVERIFY(QFile::exists(zip));
    QProcess unzip;
    unzip.start(QStringLiteral("unzip"), {QStringLiteral("-t"), zip});
    QVERIFY(unzip.waitForFinished(60000));
    const QString report = QString::fromUtf8(unzip.readAllStandardOutput());
    QCOMPARE(unzip.exitCode(), 0);
    QVERIFY2(report.contains(QStringLiteral("No errors detected")), qPrintable(report));
    QVERIFY2(report.contains(QStringLiteral("global.json")), qPrintable(report));
}

void ExampleTest::exitIsClean()
{
    QCOMPARE(m_exitStatus, QProcess::NormalExit);
    QVERIFY2(m_exitCode == 0, qPrintable(m_errors.right(4000)));
    QVERIFY2(!m_errors.contains(QStringLiteral("ERROR: AddressSanitizer")), qPrintable(m_errors.right(4000)));
    QVERIFY2(!m_errors.contains(QStringLiteral("ERROR: LeakSanitizer")), qPrintable(m_errors.right(4000)));
    QVERIFY2(!m_errors.contains(QStringLiteral("runtime error:")), qPrintable(m_errors.right(4000)));
}

void ExampleTest::displayCountIsWhatTheScreenHas()
{
    QTemporaryDir folder;
    QVERIFY(folder.isValid());
    ExampleRun run;
    QVERIFY2(runExample(folder.path(), kOtherMonitorCount, 1, run), "the example did not finish within two minutes");
    QCOMPARE(run.exitCode, 0);
    QVERIFY2(
        run.output.contains(QStringLiteral("(%1 1920x1080 monitors)").arg(kOtherMonitorCount)), qPrintable(run.output));
    QVERIFY2(
        run.output.contains(QStringLiteral("display outputs: %1\n").arg(kOtherMonitorCount)), qPrintable(run.output));
}

QTEST_GUILESS_MAIN(ExampleTest)
#include "tst_example.moc"
