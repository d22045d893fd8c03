// Runs the example application for a few seconds under the demo session's own
// X server, sound server and web server, and checks what a person would look
// at: the status lines, the preview pictures, the feedback zip, what the
// web-server client did, a clean exit, the user's own settings left alone and
// --help on a machine without a display.
#include <QtCore/QCryptographicHash>
#include <QtCore/QDir>
#include <QtCore/QDirIterator>
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
    void webServerClientRanEveryRequest();
    void userSettingsAreUntouched();
    void displayCountIsWhatTheScreenHas();
    void artefactsAreRemovedWithoutKeep();
    void helpWorksWithoutADisplay();
    void cleanupTestCase();

private:
    QTemporaryDir m_dir;
    QTemporaryDir m_home;
    QMap<QString, QByteArray> m_homeBefore;
    QMap<QString, QByteArray> m_homeAfter;
    QString m_keptFolder;
    QTemporaryDir m_otherDir;
    QString m_otherOutput;
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
bool runExample(const QString& home, int monitors, int seconds, const QStringList& arguments, ExampleRun& run)
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("ORVANTA_DEMO_OWN_SERVICES"), QStringLiteral("1"));
    environment.insert(QStringLiteral("ORVANTA_DEMO_TONE_HZ"), QString::number(kToneHz));
    environment.insert(QStringLiteral("ORVANTA_DEMO_MONITORS"), QString::number(monitors));
    environment.insert(QStringLiteral("ORVANTA_PATTERN_PROGRAM"), QStringLiteral(ORVANTA_PATTERN_PROGRAM));
    environment.insert(QStringLiteral("QT_LOGGING_RULES"), QStringLiteral("*.debug=false"));
    environment.remove(QStringLiteral("QT_QPA_PLATFORM"));
    environment.remove(QStringLiteral("XDG_CONFIG_HOME"));
    environment.remove(QStringLiteral("XDG_DATA_HOME"));
    environment.insert(QStringLiteral("HOME"), home);
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(ORVANTA_DEMO_SESSION),
        QStringList {QStringLiteral(ORVANTA_EXAMPLE_PROGRAM), QStringLiteral("--seconds"), QString::number(seconds)}
            + arguments);
    if (!process.waitForFinished(120000)) {
        return false;
    }
    run.output = QString::fromUtf8(process.readAllStandardOutput());
    run.errors = QString::fromUtf8(process.readAllStandardError());
    run.exitCode = process.exitCode();
    run.exitStatus = process.exitStatus();
    return true;
}

// Every file under @p home with its contents, by relative path. The sound
// server's client cookie and caches are no settings of the application.
QMap<QString, QByteArray> snapshot(const QString& home)
{
    QMap<QString, QByteArray> files;
    QDirIterator it(home, QDir::Files | QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const QString relative = QDir(home).relativeFilePath(path);
        if (relative.startsWith(QLatin1String(".config/pulse")) || relative.startsWith(QLatin1String(".cache"))) {
            continue;
        }
        QFile file(path);
        files.insert(relative, file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<folder>"));
    }
    return files;
}

void writeFile(const QString& path, const QByteArray& data)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(data);
}

} // namespace

void ExampleTest::initTestCase()
{
    QVERIFY(m_dir.isValid());
    QVERIFY(m_home.isValid());
    // The user's own settings of this application, as an earlier session
    // of theirs left them; the run must neither read nor change them.
    const QString userConfig = m_home.path() + QStringLiteral("/.config/Orvanta/ambilight-example");
    writeFile(userConfig + QStringLiteral("/global.json"),
        R"({"screenCaptureMode": 2, "userContactInfo": "the user's own", "devUpdateInterval": 50})");
    writeFile(userConfig + QStringLiteral("/logs/app.log"), "the user's log\n");
    writeFile(
        m_home.path() + QStringLiteral("/.local/share/Orvanta/ambilight-example/controler_config/strip.json"), "{}");
    m_homeBefore = snapshot(m_home.path());

    ExampleRun run;
    QVERIFY2(
        runExample(m_home.path(), kMonitors, 5,
            {QStringLiteral("--keep"), QStringLiteral("--previews"), m_dir.filePath(QStringLiteral("previews"))}, run),
        "the example did not finish within two minutes");
    m_homeAfter = snapshot(m_home.path());
    m_output = run.output;
    m_errors = run.errors;
    m_exitCode = run.exitCode;
    m_exitStatus = run.exitStatus;
    qInfo().noquote() << m_output;
    const QRegularExpressionMatch kept
        = QRegularExpression(QStringLiteral(R"(^kept: (.+)$)"), QRegularExpression::MultilineOption).match(m_output);
    if (kept.hasMatch()) {
        m_keptFolder = kept.captured(1);
    }
}

void ExampleTest::cleanupTestCase()
{
    if (m_keptFolder.startsWith(QDir::tempPath() + QStringLiteral("/orvanta-ambilight-"))) {
        QDir(m_keptFolder).removeRecursively();
    }
}

void ExampleTest::webServerClientRanEveryRequest()
{
    // The demo session's server announces 9.9.9 with a 1 MiB installer and its digest.
    const QStringList lines
        = {QStringLiteral("version check: 9.9.9 is available (running 0.1.0); downloading the installer"),
            QStringLiteral("feedback upload: sent")};
    for (const QString& line : lines) {
        QVERIFY2(m_output.contains(QLatin1Char('\n') + line + QLatin1Char('\n')), qPrintable(m_output));
    }
    const QRegularExpressionMatch installer = QRegularExpression(
        QStringLiteral(R"(^installer: (.+/resources/install\.exe) \(1048576 bytes, SHA-256 verified\)$)"),
        QRegularExpression::MultilineOption)
                                                  .match(m_output);
    QVERIFY2(installer.hasMatch(), qPrintable(m_output));
    QVERIFY2(QFileInfo(installer.captured(1)).size() == 1048576, qPrintable(installer.captured(1)));
    QVERIFY2(QRegularExpression(QStringLiteral(R"(^usage report: sent \(start \S+, close \S+\)$)"),
                 QRegularExpression::MultilineOption)
                 .match(m_output)
                 .hasMatch(),
        qPrintable(m_output));
}

void ExampleTest::userSettingsAreUntouched()
{
    QCOMPARE(m_homeAfter.keys(), m_homeBefore.keys());
    for (auto it = m_homeBefore.constBegin(); it != m_homeBefore.constEnd(); ++it) {
        QVERIFY2(m_homeAfter.value(it.key()) == it.value(), qPrintable(it.key()));
    }
    // The run used a folder of its own, kept on request.
    QVERIFY2(m_keptFolder.startsWith(QDir::tempPath() + QStringLiteral("/orvanta-ambilight-")), qPrintable(m_output));
    QVERIFY2(m_output.contains(QStringLiteral("configuration: ") + m_keptFolder + QStringLiteral("/config\n")),
        qPrintable(m_output));
}

void ExampleTest::statusLinesReportFramesAndTheTone()
{
    const QRegularExpression status(
        QStringLiteral(
            R"(^\[\s*\d+s\]\s+(\d+) fps \| mode \d+ \(\w+\) \| scaler (?:GPU|CPU|-) \| frame (\d+)x(\d+) \| (.*)$)"),
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
    QVERIFY(m_otherDir.isValid());
    ExampleRun run;
    QVERIFY2(runExample(m_home.path(), kOtherMonitorCount, 1,
                 {QStringLiteral("--config"), m_otherDir.filePath(QStringLiteral("config"))}, run),
        "the example did not finish within two minutes");
    QCOMPARE(run.exitCode, 0);
    m_otherOutput = run.output;
    QVERIFY2(
        run.output.contains(QStringLiteral("(%1 1920x1080 monitors)").arg(kOtherMonitorCount)), qPrintable(run.output));
    QVERIFY2(
        run.output.contains(QStringLiteral("display outputs: %1\n").arg(kOtherMonitorCount)), qPrintable(run.output));
}

void ExampleTest::artefactsAreRemovedWithoutKeep()
{
    // The run of displayCountIsWhatTheScreenHas, in a folder the user named,
    // without --keep: what it wrote is gone, the folder and its settings stay.
    QVERIFY2(!m_otherOutput.isEmpty(), "the run before did not happen");
    const QRegularExpressionMatch removed
        = QRegularExpression(QStringLiteral(R"(^removed (\d+) files this run wrote \(--keep keeps them\)$)"),
            QRegularExpression::MultilineOption)
              .match(m_otherOutput);
    QVERIFY2(removed.hasMatch(), qPrintable(m_otherOutput));
    QVERIFY2(removed.captured(1).toInt() >= 3, qPrintable(m_otherOutput)); // zip, message, installer, previews
    const QDir config(m_otherDir.filePath(QStringLiteral("config")));
    QVERIFY(config.exists(QStringLiteral("global.json")));
    QCOMPARE(config.entryList({QStringLiteral("*.zip"), QStringLiteral("*.txt")}, QDir::Files), QStringList());
    QVERIFY(!config.exists(QStringLiteral("resources/install.exe")));
    QCOMPARE(QDir(config.filePath(QStringLiteral("capturerScreenshot"))).entryList(QDir::Files), QStringList());
}

void ExampleTest::helpWorksWithoutADisplay()
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM", "XDG_SESSION_TYPE"}) {
        environment.remove(QLatin1String(name));
    }
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(ORVANTA_EXAMPLE_PROGRAM), {QStringLiteral("--help")});
    QVERIFY(process.waitForFinished(30000));
    const QString output = QString::fromUtf8(process.readAllStandardOutput());
    const QString errors = QString::fromUtf8(process.readAllStandardError());
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QVERIFY2(process.exitCode() == 0, qPrintable(errors));
    QVERIFY2(output.startsWith(QStringLiteral("Usage: ")), qPrintable(output));
    for (const QString& option : {QStringLiteral("--keep"), QStringLiteral("--config <dir>"),
             QStringLiteral("--server <url>"), QStringLiteral("--mode <m>")}) {
        QVERIFY2(output.contains(option), qPrintable(output));
    }
    QVERIFY2(!errors.contains(QStringLiteral("could not connect to display")), qPrintable(errors));
}

QTEST_GUILESS_MAIN(ExampleTest)
#include "tst_example.moc"
