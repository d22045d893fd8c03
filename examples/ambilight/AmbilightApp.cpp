#include "AmbilightApp.h"

#include <LibOrvanta/AudioCapManager.h>
#include <LibOrvanta/AudioCapturer.h>
#include <LibOrvanta/ConfigurationManager.h>
#include <LibOrvanta/DeskCaptureOption.h>
#include <LibOrvanta/DeskDuplManager.h>
#include <LibOrvanta/FeedbackManager.h>
#include <LibOrvanta/IAudioCapture.h>
#include <LibOrvanta/IDeskCapture.h>
#include <LibOrvanta/NetRCManager.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDateTime>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonDocument>
#include <QtCore/QStandardPaths>
#include <QtCore/QTextStream>

#include <algorithm>
#include <atomic>
#include <cmath>

namespace {

std::atomic<bool> s_stopRequested {false};

QTextStream& out()
{
    static QTextStream stream(stdout);
    return stream;
}

const QString kController = QStringLiteral("example-strip");

DeskCaptureOption* captureOption()
{
    const QVariant address = QCoreApplication::instance()->property("runtime.options.deskCaptureOption");
    return reinterpret_cast<DeskCaptureOption*>(quintptr(address.toLongLong()));
}

} // namespace

AmbilightApp::AmbilightApp(const Options& options, QObject* parent)
    : QObject(parent)
    , m_options(options)
{
    connect(&m_frameTimer, &QTimer::timeout, this, &AmbilightApp::pollFrame);
    connect(&m_secondTimer, &QTimer::timeout, this, &AmbilightApp::everySecond);
    m_uploadTimeout.setSingleShot(true);
    connect(&m_uploadTimeout, &QTimer::timeout, this, [this] {
        // The upload reports through its functions; a server that never
        // answers leaves them silent until the transfer timeout, so the
        // application keeps its own deadline.
        out() << "feedback upload: no answer within 15 s\n";
        m_uploadFailed = true;
        sendReports();
    });
}

AmbilightApp::~AmbilightApp()
{
    // Give every capturer back before the registries go.
    m_screen.reset();
    if (m_desk && !m_screenId.isEmpty()) {
        m_desk->releaseCapturer(m_screenId);
    }
    m_sound.reset();
    if (!m_audioId.isEmpty()) {
        AudioCapManager::instance()->releaseCapturer(m_audioId);
    }
}

void AmbilightApp::requestStop()
{
    s_stopRequested = true;
}

QStringList AmbilightApp::artefacts() const
{
    return m_artefacts;
}

bool AmbilightApp::start()
{
    ConfigurationManager* config = ConfigurationManager::instance();
    out() << "configuration: " << config->configPath() << '\n';
    out() << "logs:          " << config->logsPath() << '\n';
    if (!setUpLayout()) {
        return false;
    }
    setUpScreen();
    setUpSound();
    setUpServer();

    m_previewDir = m_options.previewDir.isEmpty() ? config->configPath() + QStringLiteral("/capturerScreenshot")
                                                  : m_options.previewDir;
    QDir().mkpath(m_previewDir);
    out() << "previews:      " << m_previewDir << '\n';
    out().flush();

    const int interval = std::max(5, config->appConfig(QStringLiteral("devUpdateInterval")).toInt(33));
    m_frameTimer.start(interval);
    m_secondTimer.start(1000);
    m_clock.start();
    m_startTime = QDateTime::currentDateTime().toString(Qt::ISODate);
    return true;
}

void AmbilightApp::setUpServer()
{
    if (m_options.server.isEmpty()) {
        out() << "web server:    none (--server names one)\n";
        return;
    }
    NetRCManager::setServerUrl(m_options.server);
    out() << "web server:    " << NetRCManager::serverUrl() << '\n';
    m_net = std::make_unique<NetRCManager>();
    // Both signals arrive on this thread, whose event loop runs the requests.
    connect(m_net.get(), &NetRCManager::hasNewAppVersion, this, [this] {
        m_newVersionAnnounced = true;
        const QString latest
            = ConfigurationManager::instance()->globalValue(QStringLiteral("latestVerion.version")).toString();
        out() << "version check: " << latest << " is available (running " << QCoreApplication::applicationVersion()
              << "); downloading the installer\n";
        out().flush();
        m_net->downloadLatestApp();
    });
    connect(m_net.get(), &NetRCManager::newInstallationFileDownloaded, this, [this](const QString& file) {
        m_installerVerified = true;
        m_artefacts << file;
        out() << "installer: " << file << " (" << QFileInfo(file).size() << " bytes, SHA-256 verified)\n";
        out().flush();
    });
    m_net->checkVersion();
}

bool AmbilightApp::setUpLayout()
{
    ConfigurationManager* config = ConfigurationManager::instance();
    config->generateControllerConfig(kController, m_options.side, m_options.top, m_options.bottom);
    const QString path = QStandardPaths::writableLocation(QStandardPaths::AppLocalDataLocation)
        + QStringLiteral("/controler_config/") + kController + QStringLiteral(".json");
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        out() << "could not read the controller layout " << path << '\n';
        return false;
    }
    m_layout = LedLayout::fromJson(QJsonDocument::fromJson(file.readAll()).object());
    m_painter = std::make_unique<PreviewPainter>(m_layout);
    out() << "controller:    " << path << " (" << m_layout.leds().size() << " LEDs on a " << m_layout.columns() << "x"
          << m_layout.rows() << " grid, " << m_layout.zones().size() << " music zones)\n";
    return true;
}

void AmbilightApp::setUpScreen()
{
    m_desk = std::make_unique<DeskDuplManager>();
    DeskCaptureOption* option = captureOption();
    if (option && m_options.mode >= 0) {
        option->setCurMode(m_options.mode);
    }
    const QList<QString> outputs = m_desk->allCapturer();
    out() << "display outputs: " << outputs.size() << '\n';
    for (const QString& id : outputs) {
        out() << "  " << id << "  " << m_desk->capturerDesc(id) << "  "
              << QString::fromUtf8(QJsonDocument(m_desk->capturerMetadata(id)).toJson(QJsonDocument::Compact)) << '\n';
    }
    m_screenId = m_options.screen.isEmpty() ? m_desk->defaultCapturer() : m_options.screen;
    if (m_screenId.isEmpty()) {
        out() << "no display output to capture\n";
        return;
    }
    m_screen = m_desk->acquireCapturer(m_screenId);
    if (!m_screen) {
        out() << "could not acquire " << m_screenId << '\n';
        m_screenId.clear();
        return;
    }
    m_screen->setOutputSize(m_options.outputSize);
    out() << "capturing " << m_screenId << " at " << m_options.outputSize.width() << "x"
          << m_options.outputSize.height();
    if (option) {
        out() << " in mode " << option->curMode() << " (" << option->modeName(option->curMode()) << ")";
    }
    out() << '\n';
}

void AmbilightApp::setUpSound()
{
    AudioCapManager* audio = AudioCapManager::instance();
    const QList<QString> endpoints = audio->allCapturers();
    out() << "audio endpoints: " << endpoints.size() << '\n';
    for (const QString& id : endpoints) {
        out() << "  " << id << "  " << audio->capturerDesc(id) << '\n';
    }
    m_audioId = m_options.audio.isEmpty() ? audio->defaultCapturer() : m_options.audio;
    if (m_audioId.isEmpty() && !endpoints.isEmpty()) {
        m_audioId = endpoints.first();
    }
    if (m_audioId.isEmpty()) {
        out() << "no audio endpoint to listen to\n";
        return;
    }
    m_sound = audio->acquireCapturer(m_audioId);
    if (!m_sound) {
        out() << "could not acquire " << m_audioId << '\n';
        m_audioId.clear();
        return;
    }
    // The capturer emits from its own thread; these queue onto ours.
    connect(m_sound.data(), &AudioCapturer::spectrumsChanged, this, &AmbilightApp::onSpectrums);
    connect(m_sound.data(), &AudioCapturer::channelsPeakValuesChanged, this, &AmbilightApp::onPeaks);
    out() << "listening to " << m_audioId << '\n';
}

void AmbilightApp::pollFrame()
{
    if (s_stopRequested) {
        out() << "interrupted\n";
        finish();
        return;
    }
    if (!m_screen) {
        return;
    }
    cv::Mat frame = m_screen->nextFrame();
    if (frame.empty()) {
        return;
    }
    // The front hands out its newest frame each time; a new buffer is a new frame.
    if (frame.data != m_lastFrameData) {
        m_lastFrameData = frame.data;
        ++m_framesThisSecond;
        ++m_framesTotal;
    }
    m_frame = frame;
}

void AmbilightApp::onSpectrums(const QVector<SoundChannel>& channels)
{
    m_decibels.resize(channels.size());
    for (int c = 0; c < channels.size(); ++c) {
        const QVector<Spectrum>& bands = channels[c].spectrums;
        m_decibels[c].resize(bands.size());
        for (int b = 0; b < bands.size(); ++b) {
            m_decibels[c][b] = bands[b].decibel;
        }
        if (c == 0) {
            m_frequencies.resize(bands.size());
            for (int b = 0; b < bands.size(); ++b) {
                m_frequencies[b] = bands[b].frequency;
            }
        }
    }
    ++m_spectraTotal;
}

void AmbilightApp::onPeaks(const QVector<QVector<QString>>& peaks)
{
    m_peaks = peaks;
}

PreviewPainter::Spectrum AmbilightApp::previewSpectrum() const
{
    PreviewPainter::Spectrum spectrum;
    if (!m_decibels.isEmpty()) {
        spectrum.decibels = m_decibels.first();
    }
    // Music zones split the bands evenly, lowest frequencies first; a zone's
    // level is its loudest band on a 90 dB scale.
    const int zones = m_layout.zones().size();
    spectrum.zoneLevels.fill(0.0f, zones);
    const int bands = spectrum.decibels.size();
    for (int zone = 0; zone < zones && bands > 0; ++zone) {
        const int first = zone * bands / zones;
        const int last = std::max(first + 1, (zone + 1) * bands / zones);
        float loudest = -90.0f;
        for (int band = first; band < last && band < bands; ++band) {
            loudest = std::max(loudest, spectrum.decibels[band]);
        }
        spectrum.zoneLevels[zone] = std::clamp((loudest + 90.0f) / 90.0f, 0.0f, 1.0f);
    }
    return spectrum;
}

QString AmbilightApp::statusLine() const
{
    QString line = QStringLiteral("[%1s] %2 fps").arg(m_clock.elapsed() / 1000, 3).arg(m_framesLastSecond, 3);
    if (DeskCaptureOption* option = captureOption()) {
        line += QStringLiteral(" | mode %1 (%2)").arg(option->curMode()).arg(option->modeName(option->curMode()));
    }
    if (m_screen) {
        // Empty until the capturer has scaled its first frame.
        const QString scaler = m_screen->scalerName();
        line += QStringLiteral(" | scaler ") + (scaler.isEmpty() ? QStringLiteral("-") : scaler);
    }
    line += m_frame.empty() ? QStringLiteral(" | no frame")
                            : QStringLiteral(" | frame %1x%2").arg(m_frame.cols).arg(m_frame.rows);
    if (!m_decibels.isEmpty() && !m_decibels.first().isEmpty()) {
        const QVector<float>& bands = m_decibels.first();
        const int strongest = int(std::max_element(bands.begin(), bands.end()) - bands.begin());
        // A band's frequency label counts the sample rate over 1025 steps,
        // while the transform has 2048 bins: the sound itself lies at
        // label x 1025 / 2048.
        const double heard = double(m_frequencies.value(strongest)) * 1025.0 / 2048.0;
        line += QStringLiteral(" | strongest band %1 (%2 Hz, %3 dB)")
                    .arg(strongest)
                    .arg(heard, 0, 'f', 1)
                    .arg(double(bands[strongest]), 0, 'f', 1);
    } else {
        line += QStringLiteral(" | no spectrum");
    }
    QStringList peaks;
    for (const QVector<QString>& channel : m_peaks) {
        peaks << channel.toList().join(QLatin1Char('/'));
    }
    line += QStringLiteral(" | peaks ") + (peaks.isEmpty() ? QStringLiteral("-") : peaks.join(QLatin1Char(' ')));
    QString zones;
    for (float level : previewSpectrum().zoneLevels) {
        zones += QString::number(std::min(9, int(level * 10)));
    }
    line += QStringLiteral(" | zones ") + zones;
    return line;
}

void AmbilightApp::everySecond()
{
    m_framesLastSecond = m_framesThisSecond;
    m_framesThisSecond = 0;
    out() << statusLine() << '\n';

    const QVector<QColor> colours = m_layout.colours(m_frame);
    const QImage preview = m_painter->paint(m_frame, colours, previewSpectrum());
    const QString path
        = m_previewDir + QStringLiteral("/preview-%1.png").arg(m_previewIndex++, 3, 10, QLatin1Char('0'));
    if (preview.save(path)) {
        m_artefacts << path;
        out() << "preview " << path << '\n';
    }
    out().flush();

    if (m_options.seconds > 0 && m_clock.elapsed() >= qint64(m_options.seconds) * 1000) {
        finish();
    }
}

void AmbilightApp::finish()
{
    if (m_finishing) {
        return;
    }
    m_finishing = true;
    m_frameTimer.stop();
    m_secondTimer.stop();
    out() << "frames " << m_framesTotal << ", spectra " << m_spectraTotal << '\n';

    m_feedback = std::make_unique<FeedbackManager>();
    m_feedback->setUserContactInfo(QStringLiteral("example@orvanta.example"));
    m_feedback->setUserMsg(
        QStringLiteral("Sent by the example application after %1 s of capture.").arg(m_clock.elapsed() / 1000));
    const QString zip = m_feedback->zipFeedbackFile();
    m_artefacts << zip
                << ConfigurationManager::instance()->configPath() + QStringLiteral("/example@orvanta.example.txt");
    out() << "feedback package: " << zip << '\n';
    out().flush();

    if (!m_net) {
        quit();
        return;
    }
    if (!m_newVersionAnnounced) {
        out() << "version check: no newer version announced (the log says why)\n";
    } else if (!m_installerVerified) {
        out() << "installer: none verified (the log says why)\n";
    }
    if (!QFile::exists(zip)) {
        // sendFeedback() calls neither function for a missing zip.
        out() << "feedback upload: skipped, the zip is missing\n";
        sendReports();
        return;
    }
    m_uploadTimeout.start(15000);
    m_net->sendFeedback(
        m_feedback.get(),
        [this] {
            if (!m_uploadTimeout.isActive()) {
                return;
            }
            m_uploadTimeout.stop();
            if (!m_uploadFailed) {
                out() << "feedback upload: sent\n";
            }
            sendReports();
        },
        [this](QNetworkReply::NetworkError code) {
            m_uploadFailed = true;
            out() << "feedback upload: failed, network error " << int(code) << '\n';
        });
}

void AmbilightApp::sendReports()
{
    const QString closeTime = QDateTime::currentDateTime().toString(Qt::ISODate);
    // With a close time the report waits for the server's answer.
    m_net->uploadAppOnOffTime(m_startTime, closeTime);
    out() << "usage report: sent (start " << m_startTime << ", close " << closeTime << ")\n";
    quit();
}

void AmbilightApp::quit()
{
    out().flush();
    QCoreApplication::quit();
}
