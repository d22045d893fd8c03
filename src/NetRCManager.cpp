#include "NetRCManager.h"
#include "NetRCManager_p.h"

#include "ConfigurationManager.h"
#include "HardwareInfo.h"
#include "Helpers.h"
#include "NetworkErrorMetaType.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>
#include <QtCore/QEventLoop>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QReadWriteLock>
#include <QtCore/QUrl>
#include <QtNetwork/QHttpMultiPart>
#include <QtNetwork/QNetworkRequest>

#include <atomic>
#include <memory>

namespace {

// A version reply is a few hundred bytes; anything far beyond that is not one.
constexpr qint64 kVersionReplyLimitBytes = 1024 * 1024;
// Replies that are only logged or not read at all are bounded just as well:
// a server that never stops sending must not fill the memory or hold a
// blocking report for ever.
constexpr qint64 kIgnoredReplyLimitBytes = 1024 * 1024;
// What of the upload's answer reaches the debug log.
constexpr qint64 kLoggedReplyBytes = 64 * 1024;

std::atomic<int> transferTimeoutValue {30000};

QReadWriteLock& serverUrlLock()
{
    static QReadWriteLock lock;
    return lock;
}

QString& serverUrlValue()
{
    // A reserved name: a build that never sets its server reaches nobody.
    static QString url = QStringLiteral("http://orvanta.example");
    return url;
}

QString executableName()
{
    return QFileInfo(QCoreApplication::applicationFilePath()).fileName();
}

QNetworkRequest makeRequest(const QUrl& url)
{
    QNetworkRequest request(url);
    // Ends a request whose server goes silent, instead of waiting for as
    // long as the connection lives.
    request.setTransferTimeout(transferTimeoutValue.load());
    return request;
}

int schemeStrength(const QString& scheme)
{
    if (scheme == QLatin1String("https")) {
        return 2;
    }
    if (scheme == QLatin1String("http")) {
        return 1;
    }
    return 0;
}

/// Only the web's own schemes, and none weaker than the server's: an https
/// server's reply cannot send the installer over plain http.
bool isAcceptedInstallerUrl(const QUrl& url)
{
    const int strength = schemeStrength(url.scheme().toLower());
    const int serverStrength = schemeStrength(QUrl(NetRCManager::serverUrl()).scheme().toLower());
    return strength > 0 && strength >= serverStrength;
}

/**
 * Reads a reply's body as it arrives, keeps its first @p keepBytes and drops
 * the rest; a body longer than @p limitBytes aborts the reply.
 * @p exceeded is set before the abort, so the reply's handlers can tell.
 */
void boundReplyBody(QNetworkReply* reply, QObject* context, qint64 keepBytes, qint64 limitBytes,
    const std::shared_ptr<QByteArray>& kept, const std::shared_ptr<bool>& exceeded)
{
    const auto received = std::make_shared<qint64>(0);
    QObject::connect(reply, &QIODevice::readyRead, context, [reply, keepBytes, limitBytes, kept, exceeded, received]() {
        while (reply->bytesAvailable() > 0) {
            const QByteArray data = reply->read(64 * 1024);
            if (data.isEmpty()) {
                break;
            }
            *received += data.size();
            if (kept->size() < keepBytes) {
                kept->append(data.left(static_cast<int>(keepBytes - kept->size())));
            }
        }
        if (*received > limitBytes && !*exceeded) {
            *exceeded = true;
            qWarning() << "[NetRCManager]: The reply is longer than" << limitBytes
                       << "bytes:" << reply->url().toString();
            reply->abort();
        }
    });
}

} // namespace

NetRCManager::NetRCManager(QObject* parent)
    : QObject(parent)
{
    Orvanta::registerNetworkErrorMetaType();
}

NetRCManager::~NetRCManager()
{
    // Downloads and upload replies hold replies of `manager`, which as a
    // member goes before QObject frees the children: free them while their
    // manager lives. A download cut short this way leaves no installer.
    qDeleteAll(findChildren<Orvanta::InstallerDownload*>(QString(), Qt::FindDirectChildrenOnly));
    qDeleteAll(findChildren<QNetworkReply*>(QString(), Qt::FindDirectChildrenOnly));
}

void NetRCManager::setTransferTimeout(int milliseconds)
{
    transferTimeoutValue.store(milliseconds);
}

int NetRCManager::transferTimeout()
{
    return transferTimeoutValue.load();
}

void NetRCManager::setServerUrl(const QString& baseUrl)
{
    QWriteLocker locker(&serverUrlLock());
    QString url = baseUrl;
    while (url.endsWith(QLatin1Char('/'))) {
        url.chop(1);
    }
    serverUrlValue() = url;
}

QString NetRCManager::serverUrl()
{
    QReadLocker locker(&serverUrlLock());
    return serverUrlValue();
}

void NetRCManager::checkVersion()
{
    const QUrl url(serverUrl() + QStringLiteral("/update_check.php?app=") + executableName(), QUrl::TolerantMode);
    QPointer<QNetworkReply> reply = manager.get(makeRequest(url));
    const auto body = std::make_shared<QByteArray>();
    const auto tooLong = std::make_shared<bool>(false);
    boundReplyBody(reply, reply, kVersionReplyLimitBytes, kVersionReplyLimitBytes, body, tooLong);

    connect(
        reply, &QNetworkReply::finished, reply,
        [this, reply, body, tooLong]() {
            if (!reply || *tooLong) {
                return;
            }
            body->append(reply->read(kVersionReplyLimitBytes + 1 - body->size()));
            if (body->size() > kVersionReplyLimitBytes) {
                qWarning() << "[NetRCManager]: The reply is longer than" << kVersionReplyLimitBytes
                           << "bytes:" << reply->url().toString();
                return;
            }
            const QJsonDocument document = QJsonDocument::fromJson(*body);
            if (document.isNull()) {
                qWarning() << "An error occurred while trying to parse the Network JSON file";
                return;
            }
            const QJsonObject object = document.object();
            const QString latest = object.value(QStringLiteral("var")).toString(QStringLiteral("0.0.0.1"));
            latestVersion = latest;
            latestPkgUrl = object.value(QStringLiteral("download_url")).toString();
            latestChecksum = object.value(QStringLiteral("md5")).toString();

            ConfigurationManager* configuration = ConfigurationManager::instance();
            configuration->setGlobalValue(QStringLiteral("latestVerion.version"), latestVersion);
            configuration->setGlobalValue(QStringLiteral("latestVerion.pkgUrl"), latestPkgUrl);
            configuration->setGlobalValue(QStringLiteral("latestVerion.sha256"), latestChecksum);
            configuration->saveGlobalValues();

            const QString current = QCoreApplication::applicationVersion();
            if (compareVersion(current, latest)) {
                qInfo() << "Latest version: " << latest << "  current version" << current << "  no need to update";
                return;
            }
            // Equal versions are announced too: only a strictly newer running
            // version makes the update pointless.
            qInfo() << "The new version has been made available";
            emit hasNewAppVersion();
            // A receiver may have destroyed this object, and the reply with it.
            if (reply) {
                reply->deleteLater();
            }
        },
        Qt::DirectConnection);

    connect(reply, &QNetworkReply::errorOccurred, this, [reply](QNetworkReply::NetworkError) {
        if (!reply) {
            return;
        }
        qWarning() << "An error occurred while trying to request version information" << reply->errorString();
        reply->deleteLater();
    });
}

void NetRCManager::downloadLatestApp()
{
    const QString path = ConfigurationManager::instance()->resourcesPath() + QStringLiteral("/install.exe");
    auto* download = new Orvanta::InstallerDownload(path, latestChecksum, this);
    // Clears an old installer first, so that a download that fails, even one
    // refused below, leaves none.
    if (!download->prepare()) {
        delete download;
        return;
    }
    const QUrl url(latestPkgUrl, QUrl::TolerantMode);
    if (!isAcceptedInstallerUrl(url)) {
        qWarning() << "[NetRCManager]: The installation file's URL is refused:" << url.toString();
        delete download;
        return;
    }
    QPointer<NetRCManager> self(this);
    download->start(manager, makeRequest(url), [self](const QString& installer) {
        if (self) {
            emit self->newInstallationFileDownloaded(installer);
        }
    });
}

void NetRCManager::sendFeedback(QPointer<FeedbackManager> feedback, std::function<void()> onFinished,
    std::function<void(QNetworkReply::NetworkError)> onError)
{
    if (!feedback) {
        // A fresh package has made no zip, so the existence check below ends the call.
        feedback = new FeedbackManager(this);
    }

    QHttpPart messagePart;
    messagePart.setHeader(QNetworkRequest::ContentDispositionHeader, QByteArray("form-data; name=\"msg\""));
    // The label is part of the server's format, the same in every language.
    messagePart.setBody(feedback->userMsg().toUtf8() + QStringLiteral(u"\r\n \u8054\u7cfb\u65b9\u5f0f:").toUtf8()
        + feedback->userContactInfo().toUtf8());

    const QFileInfo fileInfo(feedback->feedbackFileName());
    if (!fileInfo.exists()) {
        qCritical() << "The feedback file is not exist" << fileInfo.absoluteFilePath();
        return;
    }

    const QByteArray fileName = fileInfo.fileName().toLatin1();
    QHttpPart namePart;
    namePart.setHeader(QNetworkRequest::ContentDispositionHeader, QByteArray("form-data; name=\"file_name\""));
    namePart.setBody(fileName);
    qDebug() << fileName;

    QHttpPart zipPart;
    // The server expects the extra ".zip" behind the file's own.
    zipPart.setHeader(QNetworkRequest::ContentDispositionHeader,
        QByteArray("form-data; name=\"upload_file_minidump\"; filename=\"") + fileName + QByteArray(".zip\""));
    zipPart.setHeader(QNetworkRequest::ContentTypeHeader, QByteArray("application/octet-stream"));

    auto* file = new QFile(feedback->feedbackFileName());
    if (!file->open(QIODevice::ReadOnly)) {
        qCritical() << "An error occurred while opeing the feedback file" << file->errorString();
        delete file;
        return;
    }
    zipPart.setBodyDevice(file);

    auto* multiPart = new QHttpMultiPart(QHttpMultiPart::FormDataType);
    multiPart->append(messagePart);
    multiPart->append(namePart);
    multiPart->append(zipPart);
    file->setParent(multiPart);

    QNetworkRequest request = makeRequest(QUrl(serverUrl() + QStringLiteral("/app/logupload.php")));
    request.setRawHeader("User-Agent",
        QCoreApplication::applicationName().toLatin1() + '/' + QCoreApplication::applicationVersion().toLatin1());
    request.setRawHeader("Accept", "*/*");

    QPointer<QNetworkReply> reply = manager.post(request, multiPart);
    if (!reply) {
        qWarning() << "An error occurred while posting the feedback request";
        delete multiPart;
        return;
    }
    if (reply->error() != QNetworkReply::NoError) {
        qWarning() << "An error occurred while posting the feedback request" << reply->errorString();
        delete multiPart;
        return;
    }
    // The reply now owns the form and, through it, the open zip: one
    // deleteLater() of the reply frees all three.
    multiPart->setParent(reply);

    const auto answer = std::make_shared<QByteArray>();
    const auto tooLong = std::make_shared<bool>(false);
    boundReplyBody(reply, this, kLoggedReplyBytes, kIgnoredReplyLimitBytes, answer, tooLong);
    const auto errorReported = std::make_shared<bool>(false);

    connect(
        reply, &QNetworkReply::errorOccurred, this, [reply, onError, errorReported](QNetworkReply::NetworkError code) {
            if (!reply) {
                return;
            }
            *errorReported = true;
            qWarning() << "An error occurred while uploading the feedback" << reply->errorString();
            if (onError) {
                onError(code);
            }
            reply->deleteLater();
        });
    connect(reply, &QNetworkReply::finished, this, [reply, onFinished, onError, answer, errorReported]() {
        if (!reply) {
            return;
        }
        // Only a 2xx answer means the server took the package; a redirect or
        // any other status is not followed and counts as a failed upload.
        const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        if (!*errorReported && (!status.isValid() || status.toInt() < 200 || status.toInt() > 299)) {
            qWarning() << "An error occurred while uploading the feedback"
                       << QStringLiteral("HTTP status %1 %2")
                              .arg(status.toInt())
                              .arg(reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString());
            if (onError) {
                onError(QNetworkReply::UnknownContentError);
            }
        }
        answer->append(reply->read(kLoggedReplyBytes - answer->size()));
        qDebug() << *answer;
        qInfo() << "A feedback have sent to server";
        if (onFinished) {
            onFinished();
        }
        reply->deleteLater();
    });
}

void NetRCManager::uploadAppOnOffTime(QString startTime, QString closeTime)
{
    QNetworkRequest request = makeRequest(QUrl(serverUrl() + QStringLiteral("/activate.php")));
    // Loads the global document if nothing has yet; the report needs nothing from it.
    ConfigurationManager::instance()->AppConfigJsonObj();
    const QString address = HardwareInfo::getMacStr(QStringLiteral("0"));
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));

    QJsonObject report;
    report.insert(QStringLiteral("var"), QCoreApplication::applicationVersion());
    report.insert(QStringLiteral("app_name"), executableName());
    report.insert(QStringLiteral("app_var"), QCoreApplication::applicationVersion());
    report.insert(QStringLiteral("mac_code"), address);
    report.insert(QStringLiteral("act_code"), QStringLiteral("0"));
    report.insert(QStringLiteral("st"), startTime);
    report.insert(QStringLiteral("ct"), closeTime);
    report.insert(QStringLiteral("cd"), QString());
    report.insert(QStringLiteral("all_proid"), QString());
    const QByteArray body = QJsonDocument(report).toJson(QJsonDocument::Compact);

    qInfo() << "[NetRCManager]: Prepare to upload to AppOnOffTime to the server, startTime: " << startTime
            << ", clostTime: " << closeTime;
    QNetworkReply* reply = manager.post(request, body);
    // The answer is never read: drop it as it comes, within a bound.
    boundReplyBody(
        reply, this, 0, kIgnoredReplyLimitBytes, std::make_shared<QByteArray>(), std::make_shared<bool>(false));

    if (!closeTime.isEmpty()) {
        QEventLoop loop;
        connect(reply, &QNetworkReply::finished, this, [reply, &loop]() {
            qInfo() << "[NetRCManager]: uploadAppOnOffTime  server reply: " << reply->error();
            reply->deleteLater();
            loop.quit();
        });
        // Should this object go while the loop waits (its handlers may run in
        // here), the reply goes with its manager and never finishes: end the
        // wait then too rather than block the caller for good.
        connect(reply, &QObject::destroyed, &loop, &QEventLoop::quit);
        loop.exec();
        return;
    }
    connect(reply, &QNetworkReply::finished, this, [reply]() {
        qInfo() << "[NetRCManager]: uploadAppOnOffTime  server reply: " << reply->error();
        reply->deleteLater();
    });
}
