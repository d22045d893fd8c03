// Fragments of the guide's chapter on threads and signals.
#include "snippets.h"

#include <LibOrvanta/AudioCapManager.h>
#include <LibOrvanta/AudioCapturer.h>
#include <LibOrvanta/ConfigurationManager.h>
#include <LibOrvanta/DeskDuplManager.h>
#include <LibOrvanta/IDeskCapture.h>

#include <QtCore/QThread>
#include <QtCore/QTimer>
#include <QtWidgets/QApplication>

#include <thread>

namespace snippets {

//! [start-up]
int runApplication(int argc, char* argv[])
{
    QApplication app(argc, argv); // the capture fronts and HardwareInfo::screen() need Qt Gui
    QCoreApplication::setOrganizationName(QStringLiteral("Example"));
    QCoreApplication::setApplicationName(QStringLiteral("lights"));

    // Before the first instance(): later calls change nothing.
    ConfigurationManager::setConfigPath(QStringLiteral("/home/me/.config/lights"));
    ConfigurationManager* config = ConfigurationManager::instance();

    // Both registries on the application's thread, which runs the event loop:
    // the screen capturers' timers and the registries' queued work run there.
    DeskDuplManager desk;
    AudioCapManager* audio = AudioCapManager::instance();

    QSharedPointer<IDeskCapture> screen = desk.acquireCapturer(desk.defaultCapturer());
    QSharedPointer<AudioCapturer> sound = audio->acquireCapturer(audio->defaultCapturer());
    Q_UNUSED(config)
    Q_UNUSED(sound)

    const int status = app.exec();
    screen.reset();
    desk.releaseCapturer(desk.defaultCapturer());
    return status;
}
//! [start-up]

void connectSound(QObject* receiver, AudioCapManager* audio, const QSharedPointer<AudioCapturer>& sound)
{
    //! [sound-signals]
    // Emitted on the capture thread: with a receiver object the slot runs
    // queued on the receiver's thread.
    QObject::connect(sound.data(), &AudioCapturer::spectrumsChanged, receiver,
        [](const QVector<SoundChannel>& channels) { Q_UNUSED(channels) });

    // Emitted on a pool thread, in the order the endpoints changed:
    // queue anything that calls back into the registry.
    QObject::connect(
        audio, &AudioCapManager::capturerReady, receiver,
        [audio](const QString& id) { Q_UNUSED(audio->acquireCapturer(id)) }, Qt::QueuedConnection);
    QObject::connect(
        audio, &AudioCapManager::capturerLost, receiver, [](const QString& id) { Q_UNUSED(id) }, Qt::QueuedConnection);
    //! [sound-signals]
}

void readFramesElsewhere(const QSharedPointer<IDeskCapture>& screen)
{
    //! [frames-from-a-worker]
    // nextFrame() never waits and may be called from any thread; a frame is
    // a reference-counted buffer that nobody writes after delivery.
    std::thread worker([screen] {
        for (int i = 0; i < 100; ++i) {
            const cv::Mat frame = screen->nextFrame();
            if (!frame.empty()) {
                // frame.ptr<uchar>(row): R, G, B, A bytes
            }
            QThread::msleep(16);
        }
    });
    worker.join();
    //! [frames-from-a-worker]
}

void configurationFromThreads()
{
    //! [config-from-threads]
    ConfigurationManager* config = ConfigurationManager::instance();
    std::thread effectThread([config] {
        // Value operations are atomic: a copy comes back, never a reference.
        const int interval = config->appConfig(QStringLiteral("devUpdateInterval")).toInt(33);
        config->setEffectJsonValue(QStringLiteral("rainbow"), QStringLiteral("params"), QStringLiteral("speed"), 4);
        config->saveEffectJsonObj(QStringLiteral("rainbow"));
        Q_UNUSED(interval)
    });
    effectThread.join();

    // The document accessors hand out the cached document itself: use them
    // on one thread only, while no other thread writes that document.
    QJsonObject& global = config->AppConfigJsonObj();
    global.insert(QStringLiteral("theme"), QStringLiteral("dark"));
    config->saveAppConfigJsonObj();
    //! [config-from-threads]
}

} // namespace snippets
