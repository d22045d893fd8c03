// The README's tour of the API, compiled as the guide's fragments are. The
// regions keep the README's own layout, so formatting leaves them alone.
#include "snippets.h"

#include <LibOrvanta/AudioCapManager.h>
#include <LibOrvanta/AudioCapturer.h>
#include <LibOrvanta/ConfigurationManager.h>
#include <LibOrvanta/DeskDuplManager.h>
#include <LibOrvanta/FeedbackManager.h>
#include <LibOrvanta/HardwareInfo.h>
#include <LibOrvanta/IDeskCapture.h>
#include <LibOrvanta/NetRCManager.h>

#include <QtCore/QDebug>

namespace snippets {

// clang-format off
void tourConfiguration()
{
    //! [tour-configuration]
    ConfigurationManager::setConfigPath("/home/me/.config/lights");   // before the first instance()
    ConfigurationManager* config = ConfigurationManager::instance();

    int interval = config->appConfig("devUpdateInterval").toInt(33);    // dotted paths
    config->setAppConfig("screenCaptureMode", 2);                        // saves, then emits appConfigChanged
    QJsonValue speed = config->effectJsonValue("rainbow", "params", "speed", "/usr/share/lights/rainbow.json");
    config->setEffectJsonValue("rainbow", "params", "speed", 4);
    config->saveEffectJsonObj("rainbow");
    config->generateControllerConfig("COM3", 9, 16, 16);                 // LED cells and music zones
    //! [tour-configuration]
}

void tourScreen()
{
    //! [tour-screen]
    DeskDuplManager desk;                                   // enumerates the outputs
    for (const QString& id : desk.allCapturer())
        qInfo() << id << desk.capturerDesc(id) << desk.capturerMetadata(id);
    QSharedPointer<IDeskCapture> screen = desk.acquireCapturer(desk.defaultCapturer());
    screen->setOutputSize(QSize(160, 90));
    cv::Mat frame = screen->nextFrame();                    // CV_8UC4, R G B A; empty until the first frame
    desk.releaseCapturer(desk.defaultCapturer());
    //! [tour-screen]
}

void tourSound(QObject* receiver)
{
    //! [tour-sound]
    AudioCapManager* audio = AudioCapManager::instance();   // starts a capturer per output endpoint
    QSharedPointer<AudioCapturer> sound = audio->acquireCapturer(audio->defaultCapturer());
    QObject::connect(sound.data(), &AudioCapturer::spectrumsChanged, receiver,
                     [](const QVector<SoundChannel>& channels) { /* channels[0].spectrums[i].amplitude */ });
    QObject::connect(sound.data(), &AudioCapturer::channelsPeakValuesChanged, receiver,
                     [](const QVector<QVector<QString>>& peaks) { /* per channel: peak, level */ });
    QObject::connect(audio, &AudioCapManager::capturerLost, receiver, [](QString id) { /* endpoint gone */ });
    //! [tour-sound]
}

void tourFeedback()
{
    //! [tour-feedback]
    NetRCManager::setServerUrl("http://updates.example.com");   // the default is a reserved .example host
    NetRCManager net;
    QObject::connect(&net, &NetRCManager::hasNewAppVersion, [&] { net.downloadLatestApp(); });
    net.checkVersion();

    FeedbackManager feedback;                       // records the machine's facts in global.json
    feedback.setUserContactInfo("me@example.com");
    feedback.setUserMsg("The left strip flickers.");
    QString zip = feedback.zipFeedbackFile();       // configuration, logs, screenshots, dumps
    net.sendFeedback(&feedback, [] { /* sent */ }, [](QNetworkReply::NetworkError) { /* failed */ });

    qInfo() << HardwareInfo::cpuType() << HardwareInfo::memory() << HardwareInfo::dCard();
    //! [tour-feedback]
}

// clang-format on

} // namespace snippets
