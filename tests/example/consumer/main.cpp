// Links the installed library and uses it the way an application does: it
// includes every public header and calls at least one function of each
// public class, then writes a setting and reads it back. Run without a
// display or a sound server: the registries then find nothing, which is
// still an answer.
#include <LibOrvanta/AudioCapManager.h>
#include <LibOrvanta/AudioCapturer.h>
#include <LibOrvanta/AudioDeviceEnumerator.h>
#include <LibOrvanta/ConfigurationManager.h>
#include <LibOrvanta/DXGICapturer.h>
#include <LibOrvanta/DeskCaptureContext.h>
#include <LibOrvanta/DeskCaptureOption.h>
#include <LibOrvanta/DeskDuplManager.h>
#include <LibOrvanta/FeedbackManager.h>
#include <LibOrvanta/HardwareInfo.h>
#include <LibOrvanta/Helpers.h>
#include <LibOrvanta/IAudioCapture.h>
#include <LibOrvanta/IDeskCapture.h>
#include <LibOrvanta/IDeskDuplManager.h>
#include <LibOrvanta/NetRCManager.h>
#include <LibOrvanta/orvanta_global.h>

#include <QtCore/QFile>
#include <QtCore/QTextStream>
#include <QtGui/QGuiApplication>

namespace {

// An application's own frame source behind the library's capture contract.
class SolidCapture : public IDeskCapture
{
public:
    QSize outputSize() override
    {
        return m_size;
    }
    QSize originSize() override
    {
        return QSize(1920, 1080);
    }
    cv::Mat nextFrame() override
    {
        return cv::Mat(m_size.height(), m_size.width(), DeskFrameType, cv::Scalar(255, 0, 0, 255));
    }
    long setCaptureContext(DeskCaptureContext context) override
    {
        return context.width > 0 ? 0 : -1;
    }
    void setOutputSize(QSize size) override
    {
        m_size = size;
    }

private:
    QSize m_size {16, 9};
};

// An application's own registry behind the library's registry contract.
class OneOutput : public IDeskDuplManager
{
public:
    QList<QString> allCapturer() override
    {
        return {QStringLiteral("SOLID-A0-O0")};
    }
    QString defaultCapturer() override
    {
        return allCapturer().first();
    }
    QSharedPointer<IDeskCapture> acquireCapturer(QString id) override
    {
        return id == defaultCapturer() ? QSharedPointer<IDeskCapture>(new SolidCapture) : nullptr;
    }
    void releaseCapturer(QString) override
    {
    }
    QString capturerDesc(QString id) override
    {
        return id;
    }
    QJsonObject capturerMetadata(QString id) override
    {
        return {{QStringLiteral("id"), id}};
    }
};

// Watches the platform's endpoints without holding any.
class EndpointList : public AudioDeviceEnumerator
{
public:
    ~EndpointList() override
    {
        stopNotifications();
    }
};

} // namespace

int main(int argc, char* argv[])
{
    QGuiApplication app(argc, argv);
    if (argc < 2) {
        return 2;
    }
    QTextStream out(stdout);
    ConfigurationManager::setConfigPath(QString::fromLocal8Bit(argv[1]));
    ConfigurationManager* config = ConfigurationManager::instance();
    config->setAppConfig(QStringLiteral("consumer.answer"), 42);
    out << "config " << config->configPath() << '\n';
    out << "answer " << config->appConfig(QStringLiteral("consumer.answer")).toInt() << '\n';
    out << "newer " << (compareVersion(QStringLiteral("1.10"), QStringLiteral("1.9")) ? "yes" : "no") << '\n';
    out << "saved " << (QFile::exists(config->configPath() + QStringLiteral("/global.json")) ? "yes" : "no") << '\n';
    out << "date " << convertDateMacro(QStringLiteral("Nov 04 2026")).toString(Qt::ISODate) << '\n';
    out << "code " << win32ErrorMsg(0) << '\n';

    // Screen.
    DeskCaptureContext context;
    context.width = 1920;
    SolidCapture solid;
    out << "own capture " << solid.setCaptureContext(context) << ' ' << solid.nextFrame().cols << ' '
        << (solid.scalerName().isEmpty() ? "-" : "?") << '\n';
    OneOutput own;
    out << "own registry " << own.acquireCapturer(own.defaultCapturer())->outputSize().width() << '\n';
    DeskCaptureOption option;
    option.setTotalOfMode(3);
    option.setCurMode(2);
    out << "option " << option.curMode() << ' ' << option.modeName(2) << '\n';
    DXGICapturer unbound;
    out << "unbound " << unbound.nextFrame().empty() << '\n';
    {
        DeskDuplManager desk;
        out << "outputs " << desk.allCapturer().size() << '\n';
    }

    // Sound.
    IAudioCapture front;
    QObject::connect(&front, &IAudioCapture::spectrumsChanged, [](const QVector<SoundChannel>&) {});
    AudioCapturer capturer(20, 16000);
    out << "block " << AudioCapturer::samplesSize << ' ' << capturer.isRunning() << '\n';
    {
        EndpointList endpoints;
        out << "default endpoint " << (endpoints.defaultRenderDeviceId().isEmpty() ? "none" : "some") << '\n';
    }
    out << "endpoints " << AudioCapManager::instance()->allCapturers().size() << '\n';

    // Feedback and updates.
    out << "memory " << (HardwareInfo::memory().startsWith(QStringLiteral("Available ")) ? "yes" : "no") << '\n';
    FeedbackManager feedback;
    out << "zip " << (feedback.feedbackFileName().endsWith(QStringLiteral(".zip")) ? "yes" : "no") << '\n';
    NetRCManager::setServerUrl(QStringLiteral("http://127.0.0.1:9/"));
    NetRCManager net;
    out << "server " << NetRCManager::serverUrl() << ' ' << NetRCManager::transferTimeout() << '\n';
    out << "done\n";
    return 0;
}
