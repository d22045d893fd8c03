// Feedback and remote services: the verified installer download against
// sha256sum of the same file, the feedback zip against zip -r of the same
// folder, and the memory an upload of a large package needs. The benchmarks
// start their own recording HTTP server (tests/feedback/server) on 127.0.0.1.
#include "ConfigurationManager.h"
#include "FeedbackManager.h"
#include "NetRCManager.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QEventLoop>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>
#include <QtCore/QThread>
#include <QtCore/QTimer>
#include <QtNetwork/QTcpSocket>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>

namespace {

constexpr qint64 kInstallerSize = 200 * 1000 * 1000;
constexpr qint64 kUploadSize = 200 * 1000 * 1000;
constexpr qint64 kLogBytes = 100 * 1000 * 1000;

QString serverScript()
{
    // The source tree's copy: found from this file's compiled path, from the
    // working directory, or from the program's own place in a build tree.
    const QString relative = QStringLiteral("tests/feedback/server/http_test_server.py");
    const QFileInfo source(QStringLiteral(__FILE__));
    const QStringList candidates = {
        source.absoluteDir().filePath(QStringLiteral("../") + relative),
        QDir::current().filePath(relative),
        QDir(QCoreApplication::applicationDirPath()).filePath(QStringLiteral("../../") + relative),
    };
    for (const QString& candidate : candidates) {
        if (QFileInfo::exists(candidate)) {
            return QFileInfo(candidate).absoluteFilePath();
        }
    }
    return QString();
}

/// Everything the benchmarks share: the application object, a sandboxed
/// configuration folder and the HTTP server, torn down at exit.
class Environment
{
public:
    static Environment& instance()
    {
        static Environment environment;
        return environment;
    }

    bool ready() const
    {
        return !m_serverUrl.isEmpty();
    }
    QString serverUrl() const
    {
        return m_serverUrl;
    }
    QString configPath() const
    {
        return m_config.path();
    }
    QString scratchPath() const
    {
        return m_scratch.path();
    }

    QByteArray control(const QByteArray& method, const QString& path, const QByteArray& body = QByteArray()) const
    {
        const QUrl base(m_serverUrl);
        QTcpSocket socket;
        socket.connectToHost(base.host(), static_cast<quint16>(base.port()));
        if (!socket.waitForConnected(10000)) {
            return QByteArray();
        }
        socket.write(method + ' ' + path.toUtf8() + " HTTP/1.0\r\nContent-Length: " + QByteArray::number(body.size())
            + "\r\nConnection: close\r\n\r\n" + body);
        QByteArray response;
        while (socket.state() == QAbstractSocket::ConnectedState && socket.waitForReadyRead(120000)) {
            response += socket.readAll();
        }
        response += socket.readAll();
        return response.mid(response.indexOf("\r\n\r\n") + 4);
    }

    ~Environment()
    {
        if (m_server.state() != QProcess::NotRunning) {
            m_server.terminate();
            if (!m_server.waitForFinished(5000)) {
                m_server.kill();
                m_server.waitForFinished(5000);
            }
        }
        delete ConfigurationManager::instance();
    }

private:
    Environment()
    {
        if (!QCoreApplication::instance()) {
            static int argc = 1;
            static char name[] = "orvanta_bench";
            static char* argv[] = {name, nullptr};
            m_application = std::make_unique<QCoreApplication>(argc, argv);
        }
        QCoreApplication::setApplicationName(QStringLiteral("OrvantaBench"));
        QCoreApplication::setApplicationVersion(QStringLiteral("1.0.0"));
        delete ConfigurationManager::instance();
        ConfigurationManager::setConfigPath(m_config.path());
        ConfigurationManager::instance();

        const QString script = serverScript();
        if (script.isEmpty()) {
            return;
        }
        const QString portFile = m_scratch.filePath(QStringLiteral("server.port"));
        m_server.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_server.start(QStringLiteral("/usr/bin/python3"),
            {script, QStringLiteral("--port"), QStringLiteral("0"), QStringLiteral("--port-file"), portFile});
        for (int attempt = 0; attempt < 100 && !QFileInfo::exists(portFile); ++attempt) {
            QThread::msleep(100);
        }
        QFile file(portFile);
        if (file.open(QIODevice::ReadOnly)) {
            m_serverUrl = QStringLiteral("http://127.0.0.1:") + QString::fromLatin1(file.readAll().trimmed());
            NetRCManager::setServerUrl(m_serverUrl);
        }
    }

    std::unique_ptr<QCoreApplication> m_application;
    QTemporaryDir m_config;
    QTemporaryDir m_scratch;
    QProcess m_server;
    QString m_serverUrl;
};

/// Runs the event loop until @p signal of @p sender fires or a minute passes; true if it fired.
template <typename Sender, typename Signal> bool waitFor(Sender* sender, Signal signal)
{
    QEventLoop loop;
    bool fired = false;
    QObject::connect(sender, signal, &loop, [&]() {
        fired = true;
        loop.quit();
    });
    QTimer::singleShot(120000, &loop, &QEventLoop::quit);
    loop.exec();
    return fired;
}

qint64 procStatusKiB(const char* key)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly)) {
        return -1;
    }
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith(key)) {
            return line.mid(int(qstrlen(key))).trimmed().split(' ').value(0).toLongLong();
        }
    }
    return -1;
}

// ---- download with digest check -------------------------------------------

// Makes @p net know the server's 200 MB installer and its digest.
bool announceInstaller(NetRCManager& net)
{
    Environment& environment = Environment::instance();
    const QString blob = QStringLiteral("/blob?size=%1&seed=11").arg(kInstallerSize);
    const QJsonObject digestAnswer = QJsonDocument::fromJson(
        environment.control("GET", QStringLiteral("/control/digest?size=%1&seed=11").arg(kInstallerSize)))
                                         .object();
    const QJsonObject reply {{QStringLiteral("var"), QStringLiteral("1.0.0")},
        {QStringLiteral("download_url"), environment.serverUrl() + blob},
        {QStringLiteral("md5"), digestAnswer.value(QStringLiteral("sha256"))}};
    environment.control("POST", QStringLiteral("/control/script"),
        QJsonDocument(QJsonObject {{QStringLiteral("path"), QStringLiteral("/update_check.php")},
                          {QStringLiteral("body"), QString::fromUtf8(QJsonDocument(reply).toJson())}})
            .toJson());
    net.checkVersion();
    return waitFor(&net, &NetRCManager::hasNewAppVersion);
}

void DownloadVerify200MB_ours(benchmark::State& state)
{
    if (!Environment::instance().ready()) {
        state.SkipWithError("the HTTP test server did not start");
        return;
    }
    NetRCManager net;
    if (!announceInstaller(net)) {
        state.SkipWithError("no version reply");
        return;
    }
    for (auto _ : state) {
        net.downloadLatestApp();
        if (!waitFor(&net, &NetRCManager::newInstallationFileDownloaded)) {
            state.SkipWithError("the download did not verify");
            return;
        }
    }
    state.SetBytesProcessed(state.iterations() * kInstallerSize);
}

void DownloadVerify200MB_reference(benchmark::State& state)
{
    if (!Environment::instance().ready()) {
        state.SkipWithError("the HTTP test server did not start");
        return;
    }
    // The very file that the download stores, fetched now if no run of the
    // other half left it behind.
    const QString installer = ConfigurationManager::instance()->resourcesPath() + QStringLiteral("/install.exe");
    if (QFileInfo(installer).size() != kInstallerSize) {
        NetRCManager net;
        if (!announceInstaller(net)) {
            state.SkipWithError("no version reply");
            return;
        }
        net.downloadLatestApp();
        if (!waitFor(&net, &NetRCManager::newInstallationFileDownloaded)) {
            state.SkipWithError("the download did not verify");
            return;
        }
    }
    const QByteArray command = "sha256sum " + QFile::encodeName(installer) + " > /dev/null";
    for (auto _ : state) {
        if (std::system(command.constData()) != 0) {
            state.SkipWithError("sha256sum failed");
            return;
        }
    }
    state.SetBytesProcessed(state.iterations() * kInstallerSize);
    QFile::remove(installer);
}

// ---- feedback zip ---------------------------------------------------------

// Log-like text, compressible as real logs are, spread over the folders the
// zip takes its newest files from.
void fillLogs(const QString& root)
{
    static bool filled = false;
    if (filled) {
        return;
    }
    filled = true;
    struct Folder
    {
        const char* name;
        int files;
        const char* suffix;
    };
    const Folder folders[] = {{"logs", 30, ".log"}, {"logs/devices", 30, ".log"}, {"logs/usrOptions", 20, ".log"}};
    const int totalFiles = 80;
    const qint64 perFile = kLogBytes / totalFiles;
    quint32 noise = 12345;
    for (const Folder& folder : folders) {
        QDir().mkpath(root + QLatin1Char('/') + QLatin1String(folder.name));
        for (int index = 0; index < folder.files; ++index) {
            QFile file(QStringLiteral("%1/%2/run-%3%4")
                           .arg(root, QLatin1String(folder.name))
                           .arg(index)
                           .arg(QLatin1String(folder.suffix)));
            file.open(QIODevice::WriteOnly | QIODevice::Truncate);
            QByteArray text;
            text.reserve(int(perFile) + 256);
            qint64 line = 0;
            while (text.size() < perFile) {
                noise = noise * 1664525u + 1013904223u;
                text += "2026-11-20 12:" + QByteArray::number(line % 60) + ":" + QByteArray::number((line * 7) % 60)
                    + "." + QByteArray::number(noise % 1000) + " [AudioCapturer]: spectrum block "
                    + QByteArray::number(line) + " peak " + QByteArray::number(noise % 65536, 16) + " device "
                    + QByteArray::number(noise >> 20) + "\n";
                ++line;
            }
            text.truncate(int(perFile));
            file.write(text);
        }
    }
}

void Zip100MB_ours(benchmark::State& state)
{
    Environment& environment = Environment::instance();
    fillLogs(environment.configPath());
    for (auto _ : state) {
        FeedbackManager feedback;
        const QString zip = feedback.zipFeedbackFile();
        state.PauseTiming();
        state.counters["zip_MB"] = double(QFileInfo(zip).size()) / 1e6;
        QFile::remove(zip);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * kLogBytes);
}

void Zip100MB_reference(benchmark::State& state)
{
    Environment& environment = Environment::instance();
    fillLogs(environment.configPath());
    const QString output = environment.scratchPath() + QStringLiteral("/reference.zip");
    const QByteArray command = "cd " + QFile::encodeName(environment.configPath()) + " && zip -r -q "
        + QFile::encodeName(output) + " . -x 'resources/*'";
    for (auto _ : state) {
        state.PauseTiming();
        QFile::remove(output); // zip -r would otherwise update the old archive
        state.ResumeTiming();
        if (std::system(command.constData()) != 0) {
            state.SkipWithError("zip failed");
            return;
        }
    }
    state.counters["zip_MB"] = double(QFileInfo(output).size()) / 1e6;
    QFile::remove(output);
    state.SetBytesProcessed(state.iterations() * kLogBytes);
}

// ---- upload memory --------------------------------------------------------

void Upload200MB_ours(benchmark::State& state)
{
    Environment& environment = Environment::instance();
    if (!environment.ready()) {
        state.SkipWithError("the HTTP test server did not start");
        return;
    }
    FeedbackManager feedback;
    {
        // The upload does not look inside the package: incompressible bytes
        // of the right size stand in for a zip.
        QFile zip(feedback.feedbackFileName());
        zip.open(QIODevice::WriteOnly | QIODevice::Truncate);
        QByteArray block(1 << 20, Qt::Uninitialized);
        quint32 noise = 99;
        for (char& byte : block) {
            noise = noise * 1664525u + 1013904223u;
            byte = char(noise >> 24);
        }
        for (qint64 written = 0; written < kUploadSize; written += block.size()) {
            zip.write(block.constData(), int(qMin<qint64>(block.size(), kUploadSize - written)));
        }
    }
    NetRCManager net;
    double growthMiB = 0;
    double sampledGrowthMiB = 0;
    for (auto _ : state) {
        state.PauseTiming();
        // Resets the peak resident size to the current one (Linux 4.0 and later).
        QFile clear(QStringLiteral("/proc/self/clear_refs"));
        if (clear.open(QIODevice::WriteOnly)) {
            clear.write("5");
        }
        clear.close();
        const qint64 before = procStatusKiB("VmRSS:");
        state.ResumeTiming();

        bool done = false;
        QEventLoop loop;
        // The kernel's peak covers every moment; sampling on top shows the
        // same figure from this side.
        qint64 sampled = before;
        QTimer sampler;
        QObject::connect(
            &sampler, &QTimer::timeout, [&sampled]() { sampled = std::max(sampled, procStatusKiB("VmRSS:")); });
        sampler.start(5);
        net.sendFeedback(
            &feedback,
            [&]() {
                done = true;
                loop.quit();
            },
            nullptr);
        QTimer::singleShot(300000, &loop, &QEventLoop::quit);
        loop.exec();
        sampler.stop();

        state.PauseTiming();
        const qint64 peak = procStatusKiB("VmHWM:");
        growthMiB = std::max(growthMiB, double(peak - before) / 1024.0);
        sampledGrowthMiB = std::max(sampledGrowthMiB, double(sampled - before) / 1024.0);
        state.ResumeTiming();
        if (!done) {
            state.SkipWithError("the upload did not finish");
            return;
        }
    }
    state.counters["peak_growth_MiB"] = growthMiB;
    state.counters["sampled_growth_MiB"] = sampledGrowthMiB;
    state.SetBytesProcessed(state.iterations() * kUploadSize);
    QFile::remove(feedback.feedbackFileName());
}

} // namespace

BENCHMARK(DownloadVerify200MB_ours)
    ->Name("DownloadVerify200MB/ours")
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();
BENCHMARK(DownloadVerify200MB_reference)
    ->Name("DownloadVerify200MB/reference")
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();
BENCHMARK(Zip100MB_ours)->Name("Zip100MB/ours")->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK(Zip100MB_reference)->Name("Zip100MB/reference")->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK(Upload200MB_ours)->Name("Upload200MB/ours")->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();
