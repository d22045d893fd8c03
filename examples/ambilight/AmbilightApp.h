#pragma once

#include "LedLayout.h"
#include "PreviewPainter.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QObject>
#include <QtCore/QSharedPointer>
#include <QtCore/QSize>
#include <QtCore/QTimer>
#include <QtCore/QVector>

#include <memory>

#include <opencv2/core.hpp>

class AudioCapturer;
class DeskDuplManager;
class FeedbackManager;
class IDeskCapture;
class NetRCManager;
struct SoundChannel;

/**
 * The lighting application in miniature: it takes the default screen and
 * sound, turns each frame into LED colours and each spectrum into music-zone
 * levels, prints a status line and a preview picture every second, and at the
 * end packs a feedback zip. Given a web server, it checks for a newer version
 * and downloads its installer at the start, and uploads the feedback zip and
 * a usage report at the end.
 */
class AmbilightApp : public QObject
{
    Q_OBJECT

public:
    struct Options
    {
        int seconds = 10; ///< 0 runs until interrupted
        int mode = -1; ///< capture mode to switch to; -1 keeps the configured one
        QString screen; ///< capturer identifier; empty takes the default
        QString audio; ///< audio endpoint identifier; empty takes the default
        QSize outputSize {160, 90};
        QString previewDir; ///< empty: the configuration's screenshot folder
        QString server; ///< web server's base URL; empty: no network
        int side = 9;
        int top = 16;
        int bottom = 16;
    };

    explicit AmbilightApp(const Options& options, QObject* parent = nullptr);
    ~AmbilightApp() override;

    /// Sets everything up and starts the timers; false when nothing can run.
    bool start();

    /// Asks the application to finish at the next tick (safe from a signal handler).
    static void requestStop();

    /// Every file the run wrote that a user would not want left behind.
    QStringList artefacts() const;

private slots:
    void pollFrame();
    void everySecond();
    void onSpectrums(const QVector<SoundChannel>& channels);
    void onPeaks(const QVector<QVector<QString>>& peaks);

private:
    bool setUpLayout();
    void setUpScreen();
    void setUpSound();
    void setUpServer();
    void finish();
    void sendReports();
    void quit();
    QString statusLine() const;
    PreviewPainter::Spectrum previewSpectrum() const;

    Options m_options;
    LedLayout m_layout;
    std::unique_ptr<PreviewPainter> m_painter;

    std::unique_ptr<DeskDuplManager> m_desk;
    QString m_screenId;
    QSharedPointer<IDeskCapture> m_screen;
    cv::Mat m_frame;
    const uchar* m_lastFrameData = nullptr;
    int m_framesThisSecond = 0;
    int m_framesLastSecond = 0;
    int m_framesTotal = 0;

    QString m_audioId;
    QSharedPointer<AudioCapturer> m_sound;
    QVector<QVector<float>> m_decibels; ///< newest spectrum, per channel
    QVector<float> m_frequencies; ///< band frequencies of channel 0
    QVector<QVector<QString>> m_peaks;
    int m_spectraTotal = 0;

    QTimer m_frameTimer;
    QTimer m_secondTimer;
    QElapsedTimer m_clock;
    int m_previewIndex = 0;
    QString m_previewDir;
    QStringList m_artefacts;
    bool m_finishing = false;

    std::unique_ptr<NetRCManager> m_net;
    std::unique_ptr<FeedbackManager> m_feedback;
    QString m_startTime;
    bool m_newVersionAnnounced = false;
    bool m_installerVerified = false;
    bool m_uploadFailed = false;
    QTimer m_uploadTimeout;
};
