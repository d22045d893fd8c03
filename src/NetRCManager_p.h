#pragma once

#include <QtCore/QObject>
#include <QtCore/QPointer>
#include <QtCore/QString>
#include <QtCore/QTemporaryFile>

#include <functional>
#include <memory>

class QNetworkAccessManager;
class QNetworkReply;
class QNetworkRequest;

namespace Orvanta {
namespace Ifaces {
class Sha256Digest;
}

/**
 * One download of the installer.
 *
 * The bytes go to a temporary file of its own, created next to the final
 * name without following any link there; only a file whose bytes on disk
 * match the expected digest is renamed over the final name. Whatever ends a
 * download otherwise (a network failure, a wrong digest, a full disk, the
 * destruction of this object or of the process) leaves nothing under the
 * final name, and the temporary file goes with this object.
 */
class InstallerDownload : public QObject
{
    Q_OBJECT

public:
    InstallerDownload(const QString& finalPath, const QString& expectedDigest, QObject* parent);
    ~InstallerDownload() override;

    /// Clears the final name and creates the temporary file; logs and returns false when it cannot.
    bool prepare();
    /// Sends @p request; @p onVerified receives the final path once the installer is in place.
    void start(
        QNetworkAccessManager& manager, const QNetworkRequest& request, std::function<void(const QString&)> onVerified);

    /// True for a digest text that can name a SHA-256 value: 64 hexadecimal digits.
    static bool isWellFormedDigest(const QString& text);

private:
    void storeAvailable();
    void noteWriteFailure();
    void onReplyFinished();
    void onNetworkError();
    /// The digest of what the temporary file holds, read back from the disk.
    std::string digestOnDisk();
    bool moveIntoPlace();

    const QString m_finalPath;
    const QString m_expectedDigest;
    QTemporaryFile m_temporaryFile;
    std::unique_ptr<Ifaces::Sha256Digest> m_digest;
    QPointer<QNetworkReply> m_reply;
    std::function<void(const QString&)> m_onVerified;
    bool m_writeFailed = false;
    QString m_writeError;
    bool m_networkFailed = false;
};

} // namespace Orvanta
