// Fragments of the guide's chapter on the web server.
#include "snippets.h"

#include <LibOrvanta/ConfigurationManager.h>
#include <LibOrvanta/FeedbackManager.h>
#include <LibOrvanta/NetRCManager.h>

#include <QtCore/QDateTime>
#include <QtCore/QFile>
#include <QtCore/QTimer>
#include <QtNetwork/QSslConfiguration>

namespace snippets {

void trustOwnAuthority()
{
    //! [https]
    NetRCManager::setServerUrl(QStringLiteral("https://updates.example.com"));
    NetRCManager::setTransferTimeout(15000); // a silent server fails a request after 15 s

    // Only for a server whose certificate comes from an authority of your own:
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    tls.addCaCertificates(QStringLiteral("/usr/share/lights/updates-ca.pem"));
    QSslConfiguration::setDefaultConfiguration(tls);
    //! [https]
}

void talkToServer(QObject* receiver)
{
    //! [update-check]
    auto* net = new NetRCManager(receiver); // lives on this thread, which runs an event loop
    QObject::connect(net, &NetRCManager::hasNewAppVersion, receiver, [net] {
        const QString latest
            = ConfigurationManager::instance()->globalValue(QStringLiteral("latestVerion.version")).toString();
        Q_UNUSED(latest) // ask the user, then:
        net->downloadLatestApp();
    });
    QObject::connect(net, &NetRCManager::newInstallationFileDownloaded, receiver, [](const QString& installer) {
        Q_UNUSED(installer) // complete, and its SHA-256 digest matched the version reply
    });
    net->checkVersion();

    // No signal says that the check or the download failed: keep a deadline.
    QTimer::singleShot(60000, receiver, [] { /* no news: try again at the next start */ });
    //! [update-check]

    //! [feedback-upload]
    auto* feedback = new FeedbackManager(receiver);
    feedback->setUserContactInfo(QStringLiteral("me@example.com"));
    feedback->setUserMsg(QStringLiteral("The left strip flickers."));
    const QString zip = feedback->zipFeedbackFile();
    if (!QFile::exists(zip)) {
        return; // sendFeedback() would call neither function
    }
    auto failed = std::make_shared<bool>(false);
    net->sendFeedback(
        feedback,
        [failed] {
            if (!*failed) {
                // the server answered 2xx: tell the user it was sent
            }
        },
        [failed](QNetworkReply::NetworkError code) {
            *failed = true; // offer to try again later
            Q_UNUSED(code)
        });
    //! [feedback-upload]
}

void reportUsage()
{
    //! [usage-report]
    NetRCManager net;
    const QString started = QDateTime::currentDateTime().toString(Qt::ISODate);
    net.uploadAppOnOffTime(started, QString()); // returns at once
    // ... and when the application closes; this one waits for the server's answer:
    net.uploadAppOnOffTime(started, QDateTime::currentDateTime().toString(Qt::ISODate));
    //! [usage-report]
}

} // namespace snippets
