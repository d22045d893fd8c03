#include "FeedbackManager.h"
#include "NetRCManager.h"

#include "FeedbackTestSupport.h"
#include "MessageCapture.h"
#include "ServerControl.h"
#include "fakes/FakeMachineSources.h"

#include <QtCore/QCryptographicHash>
#include <QtNetwork/QSslConfiguration>
#include <QtNetwork/QSslSocket>

using namespace FeedbackTest;

namespace {

constexpr int kWait = 60000;
const QString kVersion = QStringLiteral("2.3.4");

} // namespace

/**
 * Every request over https, against a server whose certificate comes from an
 * authority that only this process knows: the application adds it to Qt's
 * default TLS configuration, as the library's documentation tells.
 */
class NetRCManagerTlsTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void unknownAuthorityIsRejected();
    void versionCheckOverHttps();
    void downloadOverHttps();
    void plainHttpInstallerFromHttpsServerIsRefused();
    void uploadOverHttps();
    void usageReportOverHttps();

private:
    QSslConfiguration m_untrusted;
    QSslConfiguration m_trusted;

    QString m_serverUrl;
    std::unique_ptr<ServerControl> m_server;
    std::unique_ptr<ConfigSandbox> m_sandbox;
    std::unique_ptr<Fakes::FakeMachine> m_machine;
    std::unique_ptr<Fakes::ScopedFakeMachine> m_machineScope;
};

void NetRCManagerTlsTest::initTestCase()
{
    QVERIFY2(QSslSocket::supportsSsl(), "Qt has no TLS back-end");
    m_serverUrl = qEnvironmentVariable("ORVANTA_TEST_HTTPS_URL");
    QVERIFY2(m_serverUrl.startsWith(QStringLiteral("https://")),
        "ORVANTA_TEST_HTTPS_URL is not set: the https_server fixture did not run");
    QVERIFY(QFile::exists(qEnvironmentVariable("ORVANTA_TEST_HTTPS_CA")));
    QCoreApplication::setApplicationName(QStringLiteral("OrvantaTest"));
    QCoreApplication::setApplicationVersion(kVersion);

    // What an application does to trust its own authority.
    m_untrusted = QSslConfiguration::defaultConfiguration();
    m_trusted = m_untrusted;
    QVERIFY(m_trusted.addCaCertificates(qEnvironmentVariable("ORVANTA_TEST_HTTPS_CA")));
    QSslConfiguration::setDefaultConfiguration(m_trusted);
    m_server = std::make_unique<ServerControl>(QUrl(m_serverUrl));
    QVERIFY2(!m_server->call("GET", QStringLiteral("/control/requests")).isEmpty(), "the https test server is down");
}

void NetRCManagerTlsTest::init()
{
    QSslConfiguration::setDefaultConfiguration(m_trusted);
    m_server->reset();
    NetRCManager::setServerUrl(m_serverUrl);
    m_sandbox = std::make_unique<ConfigSandbox>();
    QVERIFY(m_sandbox->isValid());
    m_machine = std::make_unique<Fakes::FakeMachine>();
    m_machine->networkInterfaces.entries = {{false, "52:54:00:AB:CD:01"}};
    m_machineScope = std::make_unique<Fakes::ScopedFakeMachine>(*m_machine);
}

void NetRCManagerTlsTest::cleanup()
{
    QSslConfiguration::setDefaultConfiguration(m_trusted);
    m_server->release();
    m_machineScope.reset();
    m_machine.reset();
    m_sandbox.reset();
}

void NetRCManagerTlsTest::unknownAuthorityIsRejected()
{
    // Without the authority the library's own checks stand: a certificate
    // that nobody vouches for ends the request.
    QSslConfiguration::setDefaultConfiguration(m_untrusted);
    NetRCManager net;
    QSignalSpy announced(&net, &NetRCManager::hasNewAppVersion);
    MessageCapture capture;
    net.checkVersion();
    QTRY_VERIFY_WITH_TIMEOUT(
        !capture.texts(QtWarningMsg)
             .filter(QStringLiteral("An error occurred while trying to request version information"))
             .isEmpty(),
        kWait);
    QVERIFY2(capture.texts(QtWarningMsg).at(0).contains(QStringLiteral("SSL")),
        qPrintable(capture.texts(QtWarningMsg).at(0)));
    QCOMPARE(announced.count(), 0);
    QSslConfiguration::setDefaultConfiguration(m_trusted);
    // The refused handshake never reached the server's handler.
    QCOMPARE(m_server->requestsTo(QStringLiteral("/update_check.php")).size(), 0);
}

void NetRCManagerTlsTest::versionCheckOverHttps()
{
    m_server->scriptReply(QStringLiteral("/update_check.php"),
        QJsonDocument(versionReply(QStringLiteral("3.0"), QString(), QString())).toJson(QJsonDocument::Compact));
    NetRCManager net;
    QSignalSpy announced(&net, &NetRCManager::hasNewAppVersion);
    net.checkVersion();
    QVERIFY(announced.wait(kWait));
    QCOMPARE(m_server->requestsTo(QStringLiteral("/update_check.php")).size(), 1);
}

void NetRCManagerTlsTest::downloadOverHttps()
{
    const qint64 size = 2 * 1024 * 1024 + 3;
    const QString digest = m_server->blobDigest(size, 21);
    m_server->scriptReply(QStringLiteral("/update_check.php"),
        QJsonDocument(versionReply(kVersion, m_server->blobUrl(size, 21), digest)).toJson(QJsonDocument::Compact));
    NetRCManager net;
    QSignalSpy announced(&net, &NetRCManager::hasNewAppVersion);
    net.checkVersion();
    QVERIFY(announced.wait(kWait));
    QSignalSpy downloaded(&net, &NetRCManager::newInstallationFileDownloaded);
    net.downloadLatestApp();
    QVERIFY(downloaded.wait(kWait));
    const QString installer = m_sandbox->filePath(QStringLiteral("resources/install.exe"));
    QCOMPARE(downloaded.at(0).at(0).toString(), installer);
    QCOMPARE(QString::fromLatin1(fileDigest(installer)), digest);
}

void NetRCManagerTlsTest::plainHttpInstallerFromHttpsServerIsRefused()
{
    QString plain = m_server->blobUrl(1000, 22);
    plain.replace(QStringLiteral("https://"), QStringLiteral("http://"));
    m_server->scriptReply(QStringLiteral("/update_check.php"),
        QJsonDocument(versionReply(kVersion, plain, m_server->blobDigest(1000, 22))).toJson(QJsonDocument::Compact));
    NetRCManager net;
    QSignalSpy announced(&net, &NetRCManager::hasNewAppVersion);
    net.checkVersion();
    QVERIFY(announced.wait(kWait));
    MessageCapture capture;
    QSignalSpy downloaded(&net, &NetRCManager::newInstallationFileDownloaded);
    net.downloadLatestApp();
    QCOMPARE(capture.texts(QtWarningMsg),
        QStringList {QStringLiteral("[NetRCManager]: The installation file's URL is refused: \"%1\"").arg(plain)});
    QCOMPARE(downloaded.count(), 0);
    QVERIFY(!QFile::exists(m_sandbox->filePath(QStringLiteral("resources/install.exe"))));
    QCOMPARE(m_server->requestsTo(QStringLiteral("/blob")).size(), 0);
}

void NetRCManagerTlsTest::uploadOverHttps()
{
    auto feedback = std::make_unique<FeedbackManager>();
    feedback->setUserContactInfo(QStringLiteral("tls@example.org"));
    feedback->setUserMsg(QStringLiteral("over TLS"));
    const QString zip = feedback->zipFeedbackFile();
    NetRCManager net;
    bool finished = false;
    QList<QNetworkReply::NetworkError> errors;
    net.sendFeedback(
        feedback.get(), [&finished]() { finished = true; },
        [&errors](QNetworkReply::NetworkError code) { errors << code; });
    QTRY_VERIFY_WITH_TIMEOUT(finished, kWait);
    QCOMPARE(errors.size(), 0);
    const QJsonArray uploads = m_server->requestsTo(QStringLiteral("/app/logupload.php"));
    QCOMPARE(uploads.size(), 1);
    const QJsonArray parts
        = uploads.at(0).toObject().value(QStringLiteral("form")).toObject().value(QStringLiteral("parts")).toArray();
    QCOMPARE(parts.size(), 3);
    QCOMPARE(parts.at(2).toObject().value(QStringLiteral("body")).toObject().value(QStringLiteral("sha256")).toString(),
        QString::fromLatin1(fileDigest(zip)));
}

void NetRCManagerTlsTest::usageReportOverHttps()
{
    NetRCManager net;
    MessageCapture capture;
    net.uploadAppOnOffTime(QStringLiteral("08:00"), QStringLiteral("17:00"));
    QVERIFY(capture.contains(
        QtInfoMsg, QStringLiteral("[NetRCManager]: uploadAppOnOffTime  server reply:  QNetworkReply::NoError")));
    QCOMPARE(m_server->requestsTo(QStringLiteral("/activate.php")).size(), 1);
}

QTEST_GUILESS_MAIN(NetRCManagerTlsTest)
#include "tst_netrcmanager_tls.moc"
