#include "NetRCManager.h"

#include "ConfigurationManager.h"
#include "HardwareInfo.h"
#include "Helpers.h"
#include "NetworkErrorMetaType.h"
#include "ifaces/Sha256Digest.h"

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

#include <memory>

namespace {

constexpr qint64 kDownloadBufferBytes = 4 * 1024 * 1024;

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

} // namespace

NetRCManager::NetRCManager(QObject* parent)
    : QObject(parent)
{
    Orvanta::registerNetworkErrorMetaType();
}

NetRCManager::~NetRCManager()
{
    // Download replies are children of this object but belong to `manager`,
    // which as a member goes before QObject frees the children: free them
    // while their manager lives.
    const QList<QNetworkReply*> replies = findChildren<QNetworkReply*>(QString(), Qt::FindDirectChildrenOnly);
    qDeleteAll(replies);
    // An installer still open is a download cut short by this destruction;
    // like any failed download it must not survive.
    const QList<QFile*> files = findChildren<QFile*>(QString(), Qt::FindDirectChildrenOnly);
    for (QFile* file : files) {
        if (file->isOpen()) {
            file->close();
            file->remove();
        }
    }
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
    QPointer<QNetworkReply> reply = manager.get(QNetworkRequest(url));

    connect(
        reply, &QNetworkReply::finished, reply,
        [this, reply]() {
            if (!reply) {
                return;
            }
            const QJsonDocument document = QJsonDocument::fromJson(reply->readAll());
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
    QPointer<QFile> file = new QFile(path, this);
    // Write-only empties an old installer first, so a failed download leaves none.
    if (!file->open(QIODevice::WriteOnly)) {
        qWarning() << "An error occurred when trying to create the installation file" << file->errorString();
        return;
    }

    const std::shared_ptr<Orvanta::Ifaces::Sha256Digest> digest = Orvanta::createSha256Digest();
    QPointer<QNetworkReply> reply = manager.get(QNetworkRequest(QUrl(latestPkgUrl, QUrl::TolerantMode)));
    reply->setParent(this);
    // Bounds what the network layer holds for us while the digest and the
    // disk keep up; without it a slow consumer lets the whole file pile up.
    reply->setReadBufferSize(kDownloadBufferBytes);

    // A chunk that did not reach the disk (a full disk, say) leaves a file
    // that the digest of the received bytes no longer describes.
    const auto writeFailed = std::make_shared<bool>(false);

    // Each chunk goes through the digest and to the disk as it arrives: the
    // installer is never held in memory as a whole.
    const auto storeAvailable = [reply, file, digest, writeFailed]() {
        const QByteArray data = reply->readAll();
        digest->addData(data.constData(), static_cast<std::size_t>(data.size()));
        if (file->write(data) != data.size()) {
            *writeFailed = true;
        }
    };

    connect(reply, &QIODevice::readyRead, this, [reply, file, storeAvailable]() {
        if (!reply) {
            qCritical() << "The QNetworkReply object has been null when reading some new data";
            return;
        }
        if (!file) {
            qCritical() << "The QFile object has been null when reading some new data";
            return;
        }
        storeAvailable();
    });

    connect(reply, &QNetworkReply::finished, this, [this, reply, file, digest, path, storeAvailable, writeFailed]() {
        if (!reply || !file) {
            return;
        }
        // Bytes that arrived together with the end have had no readyRead of their own.
        if (reply->bytesAvailable() > 0) {
            storeAvailable();
        }
        if (!file->flush()) {
            *writeFailed = true;
        }
        file->close();
        file->deleteLater();
        reply->deleteLater();

        const QString computed = QString::fromLatin1(QByteArray::fromStdString(digest->result()).toHex().toUpper());
        const QString expected = latestChecksum.toUpper();
        qDebug() << computed;
        qDebug() << expected;
        if (computed == expected && !*writeFailed) {
            qInfo() << "The new installation file has been downloaded";
            emit newInstallationFileDownloaded(path);
        } else {
            qWarning() << "The md5 of the new installation file is wrong";
            QFile::remove(path);
        }
    });

    connect(reply, &QNetworkReply::errorOccurred, this, [reply, file, path](QNetworkReply::NetworkError) {
        qWarning() << "Error:" << (reply ? reply->errorString() : QString());
        if (reply && file) {
            reply->deleteLater();
            file->deleteLater();
            QFile::remove(path);
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

    QNetworkRequest request(QUrl(serverUrl() + QStringLiteral("/app/logupload.php")));
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

    connect(reply, &QNetworkReply::errorOccurred, this, [reply, onError](QNetworkReply::NetworkError code) {
        if (!reply) {
            return;
        }
        qWarning() << "An error occurred while uploading the feedback" << reply->errorString();
        if (onError) {
            onError(code);
        }
        reply->deleteLater();
    });
    connect(reply, &QNetworkReply::finished, this, [reply, onFinished]() {
        if (!reply) {
            return;
        }
        qDebug() << reply->readAll();
        qInfo() << "A feedback have sent to server";
        if (onFinished) {
            onFinished();
        }
        reply->deleteLater();
    });
}

void NetRCManager::uploadAppOnOffTime(QString startTime, QString closeTime)
{
    QNetworkRequest request(QUrl(serverUrl() + QStringLiteral("/activate.php")));
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
