#pragma once

#include "orvanta_global.h"

#include "FeedbackManager.h"

#include <QtCore/QObject>
#include <QtCore/QPointer>
#include <QtCore/QString>
#include <QtNetwork/QNetworkAccessManager>
#include <QtNetwork/QNetworkReply>

#include <functional>

/**
 * The library's client of the update and feedback web server.
 *
 * It asks for the latest version (checkVersion), fetches and verifies the
 * installer (downloadLatestApp), uploads a feedback package (sendFeedback)
 * and reports the application's start and close times (uploadAppOnOffTime).
 * All four speak to one server, http://orvanta.example unless the
 * application names its own with setServerUrl(); an "https://" server is
 * reached over TLS for every request, with the certificate checked by Qt's
 * usual rules.
 *
 * An application whose server presents a certificate of its own authority
 * adds that authority before the first request, the normal Qt way:
 * @code
 * QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
 * tls.addCaCertificates(QStringLiteral("/path/to/authority.pem"));
 * QSslConfiguration::setDefaultConfiguration(tls);
 * @endcode
 * (with OpenSSL, the environment variable SSL_CERT_FILE naming a bundle
 * works as well). Every request of this class takes the default
 * configuration at the time it is sent; nothing here turns checking off.
 *
 * The object must live on a thread with an event loop: requests return at
 * once and their handlers run there later. Outcomes are reported by the two
 * signals, the log and, for sendFeedback, the caller's functions; there is
 * no failure signal and no retry. Every request ends when its server stays
 * silent for transferTimeout(), and replies are read within fixed bounds.
 */
class LIBORVANTA_EXPORT NetRCManager : public QObject
{
    Q_OBJECT

public:
    /// A client living on the calling thread, which needs an event loop.
    explicit NetRCManager(QObject* parent = nullptr);
    ~NetRCManager() override;

    /**
     * Sets the server that every NetRCManager of the process talks to, as a
     * base URL such as "http://updates.example.com" or "http://127.0.0.1:8080";
     * the request paths are appended to it. It takes effect for requests
     * sent afterwards. The default is "http://orvanta.example".
     */
    static void setServerUrl(const QString& baseUrl);
    /// The base URL that requests go to.
    static QString serverUrl();

    /**
     * Sets how long any request of any NetRCManager may go without sending
     * or receiving a byte before it fails with a network error; 0 means no
     * limit. It takes effect for requests sent afterwards. The default is
     * 30000 ms.
     */
    static void setTransferTimeout(int milliseconds);
    /// The silence limit of requests in milliseconds; 0 is no limit.
    static int transferTimeout();

    /**
     * Asks the server for the latest version. A reply that parses is kept in
     * memory and in the global document ("latestVerion"), and
     * hasNewAppVersion() is emitted unless the running application's version
     * is strictly newer.
     */
    void checkVersion();

    /**
     * Downloads the installer named by the last good version reply into
     * "install.exe" of the resources folder, computing its SHA-256 digest as
     * it streams in. Only an http or https URL is fetched, and only https
     * from an https server; any other is refused with a warning.
     *
     * The bytes go to a temporary file beside the final name and are renamed
     * over it only once the digest of the bytes on disk matches the version
     * reply's, which must be 64 hexadecimal digits; then
     * newInstallationFileDownloaded() follows. An old installer is removed
     * when the download starts, so that after any failure, or a process that
     * ends mid-download, no file stands under the final name.
     */
    void downloadLatestApp();

    /**
     * Posts the zip of @p feedback (see FeedbackManager::zipFeedbackFile())
     * with the user's text as a multipart form. Returns once the request is
     * under way; @p onError then receives a network failure and @p onFinished
     * the end of the upload, on this object's thread. Either may be empty.
     * Neither is called when the zip is missing or cannot be opened, or when
     * the request fails at once: check that the zip exists first. An answer
     * whose status is not 2xx counts as a failure: @p onError receives
     * QNetworkReply::UnknownContentError for a status that Qt itself does not
     * report as an error, such as a redirect, which is not followed.
     */
    void sendFeedback(QPointer<FeedbackManager> feedback, std::function<void()> onFinished,
        std::function<void(QNetworkReply::NetworkError)> onError);

    /**
     * Reports the application's start and close times, passed through as
     * given. With an empty @p closeTime it returns at once; otherwise it
     * waits in a local event loop until the server's reply has finished, so
     * other events of this thread are delivered meanwhile.
     */
    void uploadAppOnOffTime(QString startTime, QString closeTime);

signals:
    /// A version reply parsed and the running version is not newer (this object's thread).
    void hasNewAppVersion();
    /// The installer at @p filename is complete and its SHA-256 digest matched (this object's thread).
    void newInstallationFileDownloaded(QString filename);

private:
    QNetworkAccessManager manager;
    QString latestVersion;
    QString latestPkgUrl;
    QString latestChecksum;
};
