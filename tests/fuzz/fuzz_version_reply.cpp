// The version check's reply handler on arbitrary reply bodies, end to end:
// NetRCManager::checkVersion() asks a server inside this process, which
// answers with the input. What comes out is the handler's state in the
// global document ("latestVerion") and the hasNewAppVersion signal; they
// must agree with each other.

#include "ConfigurationManager.h"
#include "Helpers.h"
#include "NetRCManager.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QJsonObject>
#include <QtCore/QStandardPaths>
#include <QtCore/QTemporaryDir>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace {

QByteArray currentBody;
bool handled = false;

/// Answers every request on a kept-alive connection with the current body.
class ReplyServer : public QTcpServer
{
public:
    ReplyServer()
    {
        connect(this, &QTcpServer::newConnection, this, [this]() {
            while (QTcpSocket* socket = nextPendingConnection()) {
                connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
                connect(socket, &QTcpSocket::readyRead, socket, [socket]() {
                    QByteArray& pending = buffers()[socket];
                    pending += socket->readAll();
                    int end;
                    while ((end = pending.indexOf("\r\n\r\n")) >= 0) {
                        pending.remove(0, end + 4);
                        socket->write("HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: "
                            + QByteArray::number(currentBody.size()) + "\r\n\r\n" + currentBody);
                    }
                });
            }
        });
    }

private:
    static QHash<QTcpSocket*, QByteArray>& buffers()
    {
        static QHash<QTcpSocket*, QByteArray> map;
        return map;
    }
};

void onMessage(QtMsgType, const QMessageLogContext&, const QString& text)
{
    // Every path of the reply handler ends in one of these lines.
    if (text.startsWith(QLatin1String("Latest version: "))
        || text == QLatin1String("The new version has been made available")
        || text.startsWith(QLatin1String("An error occurred while trying to parse the Network JSON file"))
        || text.startsWith(QLatin1String("An error occurred while trying to request version information"))
        || text.startsWith(QLatin1String("[NetRCManager]: The reply is longer than"))) {
        handled = true;
    }
}

struct Harness
{
    QTemporaryDir config;
    ReplyServer server;
    std::unique_ptr<NetRCManager> net;
    int announced = 0;
};

Harness* harness = nullptr;

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    static QCoreApplication application(*argc, *argv);
    QCoreApplication::setApplicationVersion(QStringLiteral("2.3.4"));
    QStandardPaths::setTestModeEnabled(true);
    qInstallMessageHandler(onMessage);
    harness = new Harness;
    ConfigurationManager::setConfigPath(harness->config.path());
    if (!harness->server.listen(QHostAddress::LocalHost, 0)) {
        __builtin_trap();
    }
    NetRCManager::setServerUrl(QStringLiteral("http://127.0.0.1:%1").arg(harness->server.serverPort()));
    harness->net = std::make_unique<NetRCManager>();
    QObject::connect(harness->net.get(), &NetRCManager::hasNewAppVersion, [] { ++harness->announced; });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    currentBody = QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size));
    handled = false;
    const int announcedBefore = harness->announced;
    harness->net->checkVersion();
    QElapsedTimer waited;
    waited.start();
    while (!handled) {
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 100);
        if (waited.elapsed() > 10000) {
            __builtin_trap(); // the reply never ended
        }
    }
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);

    const bool announced = harness->announced != announcedBefore;
    const QString version
        = ConfigurationManager::instance()->globalValue(QStringLiteral("latestVerion.version")).toString();
    // An announcement always comes from a reply whose version was stored and
    // is not older than the running one.
    if (announced && compareVersion(QCoreApplication::applicationVersion(), version)) {
        __builtin_trap();
    }
    return 0;
}
