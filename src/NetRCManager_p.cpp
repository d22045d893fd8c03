#include "NetRCManager_p.h"

#include "ifaces/Sha256Digest.h"

#include <QtCore/QDebug>
#include <QtCore/QFileInfo>
#include <QtCore/QRegularExpression>
#include <QtNetwork/QNetworkAccessManager>
#include <QtNetwork/QNetworkReply>
#include <QtNetwork/QNetworkRequest>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace Orvanta {

namespace {

// Bounds what the network layer holds for us while the digest and the disk
// keep up; without it a slow consumer lets the whole file pile up.
constexpr qint64 kDownloadBufferBytes = 4 * 1024 * 1024;
constexpr qint64 kReadBackChunkBytes = 1024 * 1024;

std::filesystem::path nativePath(const QString& path)
{
    return std::filesystem::u8path(path.toUtf8().toStdString());
}

QString hexText(const std::string& bytes)
{
    return QString::fromLatin1(QByteArray::fromStdString(bytes).toHex().toUpper());
}

} // namespace

InstallerDownload::InstallerDownload(const QString& finalPath, const QString& expectedDigest, QObject* parent)
    : QObject(parent)
    , m_finalPath(finalPath)
    , m_expectedDigest(expectedDigest)
    , m_digest(createSha256Digest())
{
}

InstallerDownload::~InstallerDownload()
{
    // The reply goes first, without a word to this half-destroyed object;
    // the temporary file then removes itself.
    if (m_reply) {
        m_reply->disconnect(this);
        delete m_reply;
    }
}

bool InstallerDownload::isWellFormedDigest(const QString& text)
{
    static const QRegularExpression sha256Hex(QStringLiteral("\\A[0-9A-Fa-f]{64}\\z"));
    return sha256Hex.match(text).hasMatch();
}

bool InstallerDownload::prepare()
{
    // An old installer goes before the download starts, so that a failed one
    // leaves none. A link there is removed itself; its target stays untouched.
    const QFileInfo old(m_finalPath);
    if (old.exists() || old.isSymLink()) {
        QFile oldFile(m_finalPath);
        if (!oldFile.remove()) {
            qWarning() << "An error occurred when trying to create the installation file" << oldFile.errorString();
            return false;
        }
    }
    // A fresh name that nobody else holds, created exclusively: nothing at
    // that path, a link included, can be opened in its place.
    m_temporaryFile.setFileTemplate(m_finalPath + QStringLiteral(".XXXXXX.part"));
    if (!m_temporaryFile.open()) {
        qWarning() << "An error occurred when trying to create the installation file" << m_temporaryFile.errorString();
        return false;
    }
    return true;
}

void InstallerDownload::start(
    QNetworkAccessManager& manager, const QNetworkRequest& request, std::function<void(const QString&)> onVerified)
{
    m_onVerified = std::move(onVerified);
    m_reply = manager.get(request);
    m_reply->setParent(this);
    m_reply->setReadBufferSize(kDownloadBufferBytes);
    connect(m_reply, &QIODevice::readyRead, this, [this]() {
        if (!m_reply) {
            qCritical() << "The QNetworkReply object has been null when reading some new data";
            return;
        }
        if (!m_temporaryFile.isOpen()) {
            qCritical() << "The QFile object has been null when reading some new data";
            return;
        }
        storeAvailable();
    });
    connect(m_reply, &QNetworkReply::finished, this, &InstallerDownload::onReplyFinished);
    connect(m_reply, &QNetworkReply::errorOccurred, this, &InstallerDownload::onNetworkError);
}

void InstallerDownload::storeAvailable()
{
    // Each chunk goes through the digest and to the disk as it arrives: the
    // installer is never held in memory as a whole.
    const QByteArray data = m_reply->readAll();
    m_digest->addData(data.constData(), static_cast<std::size_t>(data.size()));
    if (!m_writeFailed && m_temporaryFile.write(data) != data.size()) {
        noteWriteFailure();
    }
}

void InstallerDownload::onNetworkError()
{
    qWarning() << "Error:" << (m_reply ? m_reply->errorString() : QString());
    // The end of the reply follows and finds the download failed.
    m_networkFailed = true;
}

void InstallerDownload::onReplyFinished()
{
    if (!m_reply) {
        return;
    }
    // Bytes that arrived together with the end have had no readyRead of their own.
    if (m_reply->bytesAvailable() > 0) {
        storeAvailable();
    }
    m_reply->deleteLater();
    m_reply = nullptr;

    const std::string received = m_digest->result();
    if (!m_writeFailed && !m_temporaryFile.flush()) {
        noteWriteFailure();
    }
    // What counts is what the disk holds, not what went past on the wire.
    if (!m_writeFailed && !received.empty() && digestOnDisk() != received) {
        m_writeFailed = true;
        m_writeError = QStringLiteral("The bytes on disk differ from those received");
    }

    const QString computed = hexText(received);
    const QString expected = m_expectedDigest.toUpper();
    qDebug() << computed;
    qDebug() << expected;

    if (m_writeFailed) {
        qCritical() << "[NetRCManager]: Failed to write the installation file" << m_writeError;
    } else if (m_networkFailed || received.empty() || !isWellFormedDigest(expected) || computed != expected) {
        // An empty digest (the digest library failed) or an expected text
        // that cannot name one verifies nothing, whatever they compare to.
        qWarning() << "The md5 of the new installation file is wrong";
    } else if (moveIntoPlace()) {
        qInfo() << "The new installation file has been downloaded";
        if (m_onVerified) {
            m_onVerified(m_finalPath);
        }
        deleteLater();
        return;
    }
    m_temporaryFile.remove();
    deleteLater();
}

void InstallerDownload::noteWriteFailure()
{
    m_writeFailed = true;
    m_writeError = m_temporaryFile.error() != QFileDevice::NoError ? m_temporaryFile.errorString()
                                                                   : QString::fromLocal8Bit(std::strerror(errno));
}

std::string InstallerDownload::digestOnDisk()
{
    const std::unique_ptr<Ifaces::Sha256Digest> digest = createSha256Digest();
    if (!m_temporaryFile.seek(0)) {
        return {};
    }
    while (!m_temporaryFile.atEnd()) {
        const QByteArray chunk = m_temporaryFile.read(kReadBackChunkBytes);
        if (chunk.isEmpty()) {
            return {};
        }
        digest->addData(chunk.constData(), static_cast<std::size_t>(chunk.size()));
    }
    return digest->result();
}

bool InstallerDownload::moveIntoPlace()
{
    m_temporaryFile.setPermissions(
        QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup | QFileDevice::ReadOther);
    const QString temporaryPath = m_temporaryFile.fileName();
    m_temporaryFile.close();
    // A rename within one folder replaces the final name in one step, a link
    // there included, and never writes through it.
    std::error_code error;
    std::filesystem::rename(nativePath(temporaryPath), nativePath(m_finalPath), error);
    if (error) {
        qCritical() << "[NetRCManager]: Failed to move the installation file into place"
                    << QString::fromStdString(error.message());
        return false;
    }
    m_temporaryFile.setAutoRemove(false);
    return true;
}

} // namespace Orvanta
