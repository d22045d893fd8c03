#include "FeedbackManager.h"
#include "NetRCManager.h"

#include "FeedbackTestSupport.h"
#include "MessageCapture.h"
#include "ServerControl.h"
#include "fakes/FakeMachineSources.h"
#include "ifaces/Sha256Digest.h"

#include <QtCore/QCryptographicHash>
#include <QtCore/QTimer>
#include <QtNetwork/QTcpServer>

#include <openssl/evp.h>
#include <openssl/provider.h>

#include <csignal>
#include <sys/resource.h>

using namespace FeedbackTest;

namespace {

constexpr int kWait = 60000;
const QString kVersion = QStringLiteral("2.3.4");

QString messageLabel()
{
    return QStringLiteral(u"\r\n \u8054\u7cfb\u65b9\u5f0f:");
}

/// A port on 127.0.0.1 where nobody listens.
QString unreachableServer()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    const quint16 port = probe.serverPort();
    probe.close();
    return QStringLiteral("http://127.0.0.1:%1").arg(port);
}

/// The parts of one feedback form the server received, in their order.
QJsonArray uploadedParts(const ServerControl& server, int upload)
{
    return server.requestsTo(QStringLiteral("/app/logupload.php"))
        .at(upload)
        .toObject()
        .value(QStringLiteral("form"))
        .toObject()
        .value(QStringLiteral("parts"))
        .toArray();
}

/// The bytes of one part of a received form.
QByteArray partBody(const QJsonArray& parts, int part)
{
    return QByteArray::fromBase64(parts.at(part)
                                      .toObject()
                                      .value(QStringLiteral("body"))
                                      .toObject()
                                      .value(QStringLiteral("base64"))
                                      .toString()
                                      .toLatin1());
}

/// Every file of a folder, hidden ones and links included.
QStringList filesIn(const QString& folder)
{
    return QDir(folder).entryList(QDir::Files | QDir::Hidden | QDir::System, QDir::Name);
}

/**
 * The size of the largest file that process @p pid holds open in @p folder,
 * whether or not the file has a name there; -1 when it holds none.
 */
qint64 largestOpenFileIn(qint64 pid, const QString& folder)
{
    const QString fds = QStringLiteral("/proc/%1/fd").arg(pid);
    qint64 largest = -1;
    const QString prefix = QFileInfo(folder).canonicalFilePath() + QLatin1Char('/');
    for (const QString& fd : QDir(fds).entryList(QDir::System | QDir::Files | QDir::NoDotAndDotDot)) {
        const QString target = QFile::symLinkTarget(fds + QLatin1Char('/') + fd);
        if (target.startsWith(prefix)) {
            largest = std::max(largest, QFileInfo(fds + QLatin1Char('/') + fd).size());
        }
    }
    return largest;
}

/**
 * Leaves OpenSSL with only its "null" provider for the life of the object,
 * as a system whose configuration loads no digest would: every digest of the
 * process then fails.
 */
class NullDigestProvider
{
public:
    NullDigestProvider()
        : m_provider(OSSL_PROVIDER_load(nullptr, "null"))
    {
        EVP_set_default_properties(nullptr, "provider=null");
    }
    ~NullDigestProvider()
    {
        EVP_set_default_properties(nullptr, "");
        OSSL_PROVIDER_unload(m_provider);
    }
    NullDigestProvider(const NullDigestProvider&) = delete;
    NullDigestProvider& operator=(const NullDigestProvider&) = delete;

private:
    OSSL_PROVIDER* m_provider;
};

/// Caps the size of any file this process writes, as a full disk would.
class FileSizeLimit
{
public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        getrlimit(RLIMIT_FSIZE, &m_old);
        m_oldHandler = std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit = m_old;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &m_old);
        std::signal(SIGXFSZ, m_oldHandler);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit m_old {};
    void (*m_oldHandler)(int) = nullptr;
};

} // namespace

class NetRCManagerTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    // version check
    void versionQueryNamesTheExecutable();
    void equalVersionAnnouncesUpdate();
    void olderVersionAnnouncesNothing();
    void missingVersionCountsAsLowest();
    void shorterVersionHasZeroParts_data();
    void shorterVersionHasZeroParts();
    void replyThatIsNotJsonChangesNothing();
    void serverDownDuringCheck();
    void silentServerUntilClosedDuringCheck();

    // download
    void digestGivesKnownValues();
    void largeInstallerStreamsAndVerifies();
    void lowerCaseDigestMatches();
    void wrongDigestRemovesInstaller();
    void realMd5NeverMatches();
    void connectionCutHalfWayLeavesNoInstaller();
    void emptyUrlIsRefused();
    void downloadBeforeAnyVersionReplyRemovesOldInstaller();
    void redirectIsNotFollowed();
    void installerThatCannotBeCreated();
    void installerThatCannotBeWrittenIsNotAnnounced();
    void destructionDuringDownloadLeavesNoInstaller();
    void failedDigestLibraryVerifiesNothing();
    void expectedDigestMustBe64HexDigits_data();
    void expectedDigestMustBe64HexDigits();
    void installerThroughLinkLeavesTargetUntouched();
    void partialInstallerNeverHasTheFinalName();
    void killedDownloadLeavesNoInstaller();
    void overlappingDownloadsKeepTheirOwnFiles();
    void onlyWebSchemesAreFetched_data();
    void onlyWebSchemesAreFetched();
    void stalledDownloadTimesOut();
    void stalledVersionReplyTimesOut();
    void endlessVersionReplyIsCut();
    void versionReplyJustUnderTheCapIsRead();

    // feedback upload
    void uploadFormFieldByField();
    void emptyMessageAndContactGiveSeparatorAndLabel();
    void emptyFeedbackPointerReportsMissingFile();
    void emptyFunctionsAreSkipped();
    void zipThatCannotBeOpened();
    void nonLatin1NameGoesOutAsLatin1();
    void serverDownDuringUpload();
    void silentServerUntilClosedDuringUpload();
    void uploadAnswerOutside2xxIsAnError_data();
    void uploadAnswerOutside2xxIsAnError();
    void stalledUploadTimesOut();
    void endlessUploadAnswerIsCut();
    void hostileContactTextStaysInTheFormOnly();

    // usage report
    void nonBlockingReportReturnsAtOnce();
    void blockingReportWaitsForReply();
    void blockingReportToUnreachableServer();
    void timesAreSentAsGiven();
    void blockingReportOnSilentServerEndsWhenClosed();
    void destructionDuringBlockingReportEndsWait();
    void blockingReportOnStalledServerTimesOut();
    void endlessReportAnswerIsDropped();

private:
    void announceVersion(NetRCManager& net, const QJsonObject& reply);
    QString installerPath() const
    {
        return m_sandbox->filePath(QStringLiteral("resources/install.exe"));
    }
    std::unique_ptr<FeedbackManager> makePackage(const QString& contact, const QString& message);
    void settle(NetRCManager& net);
    QString resourcesPath() const
    {
        return m_sandbox->filePath(QStringLiteral("resources"));
    }

    QString m_serverUrl;
    std::unique_ptr<ServerControl> m_server;
    std::unique_ptr<ConfigSandbox> m_sandbox;
    std::unique_ptr<Fakes::FakeMachine> m_machine;
    std::unique_ptr<Fakes::ScopedFakeMachine> m_machineScope;
};

void NetRCManagerTest::initTestCase()
{
    m_serverUrl = qEnvironmentVariable("ORVANTA_TEST_HTTP_URL");
    QVERIFY2(!m_serverUrl.isEmpty(), "ORVANTA_TEST_HTTP_URL is not set: the http_server fixture did not run");
    m_server = std::make_unique<ServerControl>(QUrl(m_serverUrl));
    QVERIFY2(!m_server->call("GET", QStringLiteral("/control/requests")).isEmpty(), "the HTTP test server is down");
    QCoreApplication::setApplicationName(QStringLiteral("OrvantaTest"));
    QCoreApplication::setApplicationVersion(kVersion);
    QCOMPARE(NetRCManager::serverUrl(), QStringLiteral("http://orvanta.example"));
}

void NetRCManagerTest::init()
{
    NetRCManager::setServerUrl(m_serverUrl + QLatin1Char('/'));
    QCOMPARE(NetRCManager::serverUrl(), m_serverUrl);
    m_server->reset();
    m_sandbox = std::make_unique<ConfigSandbox>();
    QVERIFY(m_sandbox->isValid());
    m_machine = std::make_unique<Fakes::FakeMachine>();
    m_machine->networkInterfaces.entries = {{false, "52:54:00:AB:CD:01"}};
    m_machine->processor.registers = {0x306C3u, 0, 0, 0xF8BFBFFu};
    m_machineScope = std::make_unique<Fakes::ScopedFakeMachine>(*m_machine);
}

void NetRCManagerTest::cleanup()
{
    NetRCManager::setTransferTimeout(30000);
    m_server->release();
    m_machineScope.reset();
    m_machine.reset();
    m_sandbox.reset();
}

void NetRCManagerTest::announceVersion(NetRCManager& net, const QJsonObject& reply)
{
    m_server->scriptReply(QStringLiteral("/update_check.php"), QJsonDocument(reply).toJson(QJsonDocument::Compact));
    QSignalSpy announced(&net, &NetRCManager::hasNewAppVersion);
    net.checkVersion();
    QVERIFY(announced.wait(kWait));
}

// Runs one whole request and answer through @p net's own event handling.
// Whatever an earlier request of @p net had pending on this thread has been
// handled when it returns, so a check after it that nothing happened does not
// depend on how long the test slept.
void NetRCManagerTest::settle(NetRCManager& net)
{
    const int before = m_server->requestsTo(QStringLiteral("/activate.php")).size();
    net.uploadAppOnOffTime(QStringLiteral("settle"), QStringLiteral("settle"));
    QCOMPARE(m_server->requestsTo(QStringLiteral("/activate.php")).size(), before + 1);
}

std::unique_ptr<FeedbackManager> NetRCManagerTest::makePackage(const QString& contact, const QString& message)
{
    writeFile(m_sandbox->filePath(QStringLiteral("logs/app.log")), QByteArray(300000, 'x'));
    writeFile(m_sandbox->filePath(QStringLiteral("dumps/crash.dmp")), QByteArray(70000, '\x01'));
    auto feedback = std::make_unique<FeedbackManager>();
    feedback->setUserContactInfo(contact);
    feedback->setUserMsg(message);
    feedback->zipFeedbackFile();
    return feedback;
}

// ---- version check ------------------------------------------------------

void NetRCManagerTest::versionQueryNamesTheExecutable()
{
    NetRCManager net;
    MessageCapture capture;
    net.checkVersion();
    QTRY_COMPARE_WITH_TIMEOUT(m_server->requestsTo(QStringLiteral("/update_check.php")).size(), 1, kWait);
    const QJsonObject request = m_server->requestsTo(QStringLiteral("/update_check.php")).at(0).toObject();
    QCOMPARE(request.value(QStringLiteral("method")).toString(), QStringLiteral("GET"));
    QCOMPARE(request.value(QStringLiteral("rawQuery")).toString(),
        QStringLiteral("app=") + QFileInfo(QCoreApplication::applicationFilePath()).fileName());
    QVERIFY(!request.contains(QStringLiteral("body")));
    // The server's default reply is the lowest version: nothing to announce.
    QTRY_VERIFY_WITH_TIMEOUT(capture.contains(QtInfoMsg,
                                 QStringLiteral("Latest version:  \"0.0.0.1\"   current "
                                                "version \"2.3.4\"   no need to update")),
        kWait);
}

void NetRCManagerTest::equalVersionAnnouncesUpdate()
{
    NetRCManager net;
    MessageCapture capture;
    announceVersion(net, versionReply(kVersion, QStringLiteral("http://127.0.0.1/x"), QStringLiteral("AB")));
    QVERIFY(capture.contains(QtInfoMsg, QStringLiteral("The new version has been made available")));
    const QJsonObject global
        = QJsonDocument::fromJson(readFile(m_sandbox->filePath(QStringLiteral("global.json")))).object();
    const QJsonObject latest = global.value(QStringLiteral("latestVerion")).toObject();
    QCOMPARE(latest.value(QStringLiteral("version")).toString(), kVersion);
    QCOMPARE(latest.value(QStringLiteral("pkgUrl")).toString(), QStringLiteral("http://127.0.0.1/x"));
    QCOMPARE(latest.value(QStringLiteral("sha256")).toString(), QStringLiteral("AB"));
}

void NetRCManagerTest::olderVersionAnnouncesNothing()
{
    NetRCManager net;
    QSignalSpy announced(&net, &NetRCManager::hasNewAppVersion);
    MessageCapture capture;
    m_server->scriptReply(QStringLiteral("/update_check.php"),
        QJsonDocument(versionReply(QStringLiteral("2.3.3"), QString(), QString())).toJson());
    net.checkVersion();
    QTRY_VERIFY_WITH_TIMEOUT(
        capture.contains(
            QtInfoMsg, QStringLiteral("Latest version:  \"2.3.3\"   current version \"2.3.4\"   no need to update")),
        kWait);
    QCOMPARE(announced.count(), 0);
    QCOMPARE(capture.texts(QtWarningMsg), QStringList());
}

void NetRCManagerTest::missingVersionCountsAsLowest()
{
    NetRCManager net;
    QSignalSpy announced(&net, &NetRCManager::hasNewAppVersion);
    MessageCapture capture;
    m_server->scriptReply(QStringLiteral("/update_check.php"), "{\"other\":1}");
    net.checkVersion();
    QTRY_VERIFY_WITH_TIMEOUT(capture.contains(QtInfoMsg,
                                 QStringLiteral("Latest version:  \"0.0.0.1\"   current "
                                                "version \"2.3.4\"   no need to update")),
        kWait);
    QCOMPARE(announced.count(), 0);
    const QJsonObject latest = QJsonDocument::fromJson(readFile(m_sandbox->filePath(QStringLiteral("global.json"))))
                                   .object()
                                   .value(QStringLiteral("latestVerion"))
                                   .toObject();
    QCOMPARE(latest.value(QStringLiteral("version")).toString(), QStringLiteral("0.0.0.1"));
    QCOMPARE(latest.value(QStringLiteral("pkgUrl")).toString(), QString());
    QCOMPARE(latest.value(QStringLiteral("sha256")).toString(), QString());
}

void NetRCManagerTest::shorterVersionHasZeroParts_data()
{
    QTest::addColumn<QString>("latest");
    QTest::addColumn<bool>("announced");
    QTest::newRow("2.3.4.0 equals") << QStringLiteral("2.3.4.0") << true;
    QTest::newRow("2.4 is newer") << QStringLiteral("2.4") << true;
    QTest::newRow("2.3 is older") << QStringLiteral("2.3") << false;
    QTest::newRow("3 is newer") << QStringLiteral("3") << true;
}

void NetRCManagerTest::shorterVersionHasZeroParts()
{
    QFETCH(QString, latest);
    QFETCH(bool, announced);
    NetRCManager net;
    QSignalSpy spy(&net, &NetRCManager::hasNewAppVersion);
    MessageCapture capture;
    m_server->scriptReply(
        QStringLiteral("/update_check.php"), QJsonDocument(versionReply(latest, QString(), QString())).toJson());
    net.checkVersion();
    QTRY_VERIFY_WITH_TIMEOUT(capture.contains(QtInfoMsg, QStringLiteral("The new version has been made available"))
            || capture.texts(QtInfoMsg).join(QString()).contains(QStringLiteral("no need")),
        kWait);
    QCOMPARE(spy.count(), announced ? 1 : 0);
}

void NetRCManagerTest::replyThatIsNotJsonChangesNothing()
{
    NetRCManager net;
    QSignalSpy announced(&net, &NetRCManager::hasNewAppVersion);
    MessageCapture capture;
    m_server->scriptReply(
        QStringLiteral("/update_check.php"), "<html>maintenance</html>", 200, QStringLiteral("text/html"));
    net.checkVersion();
    QTRY_VERIFY_WITH_TIMEOUT(
        capture.contains(QtWarningMsg, QStringLiteral("An error occurred while trying to parse the Network JSON file")),
        kWait);
    QCOMPARE(announced.count(), 0);
    QVERIFY(!QJsonDocument::fromJson(readFile(m_sandbox->filePath(QStringLiteral("global.json"))))
                 .object()
                 .contains(QStringLiteral("latestVerion")));
}

void NetRCManagerTest::serverDownDuringCheck()
{
    NetRCManager::setServerUrl(unreachableServer());
    NetRCManager net;
    QSignalSpy announced(&net, &NetRCManager::hasNewAppVersion);
    MessageCapture capture;
    net.checkVersion();
    QTRY_VERIFY_WITH_TIMEOUT(
        capture.contains(QtWarningMsg, QStringLiteral("An error occurred while trying to parse the Network JSON file")),
        kWait);
    // The error handler comes first and leaves the end handler connected,
    // which then finds an empty body.
    const QStringList warnings = capture.texts(QtWarningMsg);
    QCOMPARE(warnings.size(), 2);
    QCOMPARE(warnings.at(0),
        QStringLiteral("An error occurred while trying to request version information \"Connection refused\""));
    QCOMPARE(announced.count(), 0);
}

void NetRCManagerTest::silentServerUntilClosedDuringCheck()
{
    m_server->scriptMode(QStringLiteral("/update_check.php"), QStringLiteral("hang"));
    NetRCManager net;
    QSignalSpy announced(&net, &NetRCManager::hasNewAppVersion);
    MessageCapture capture;
    net.checkVersion();
    QTRY_COMPARE_WITH_TIMEOUT(m_server->requestsTo(QStringLiteral("/update_check.php")).size(), 1, kWait);
    settle(net);
    QCOMPARE(capture.texts(QtWarningMsg), QStringList()); // still waiting
    m_server->release();
    QTRY_VERIFY_WITH_TIMEOUT(capture.texts(QtWarningMsg).size() == 2, kWait);
    QVERIFY(capture.texts(QtWarningMsg)
                .at(0)
                .startsWith(QStringLiteral("An error occurred while trying to request version information \"")));
    QCOMPARE(announced.count(), 0);
}

// ---- download -------------------------------------------------------------

void NetRCManagerTest::digestGivesKnownValues()
{
    const auto hex = [](const std::string& bytes) {
        return QByteArray::fromStdString(bytes).toHex();
    };
    const std::unique_ptr<Orvanta::Ifaces::Sha256Digest> empty = Orvanta::createSha256Digest();
    QCOMPARE(hex(empty->result()), QByteArray("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"));

    const std::unique_ptr<Orvanta::Ifaces::Sha256Digest> digest = Orvanta::createSha256Digest();
    digest->addData("a", 1);
    digest->addData("bc", 2);
    QCOMPARE(hex(digest->result()), QByteArray("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
    // Asking for the value does not end the computation.
    QCOMPARE(hex(digest->result()), QByteArray("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
    const QByteArray rest("dbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq");
    digest->addData(rest.constData(), static_cast<std::size_t>(rest.size()));
    QCOMPARE(hex(digest->result()), QCryptographicHash::hash("abc" + rest, QCryptographicHash::Sha256).toHex());
}

void NetRCManagerTest::largeInstallerStreamsAndVerifies()
{
    const qint64 size = 200 * 1000 * 1000;
    const QString digest = m_server->blobDigest(size, 7);
    QCOMPARE(digest.size(), 64);
    NetRCManager net;
    announceVersion(net, versionReply(kVersion, m_server->blobUrl(size, 7), digest.toUpper()));
    MessageCapture capture;
    QSignalSpy downloaded(&net, &NetRCManager::newInstallationFileDownloaded);
    net.downloadLatestApp();
    QVERIFY(downloaded.wait(300000));
    QCOMPARE(downloaded.at(0).at(0).toString(), installerPath());
    QCOMPARE(QFileInfo(installerPath()).size(), size);
    QCOMPARE(QString::fromLatin1(fileDigest(installerPath())), digest);
    QVERIFY(capture.contains(QtInfoMsg, QStringLiteral("The new installation file has been downloaded")));
    QCOMPARE(
        capture.texts(QtDebugMsg).filter(QStringLiteral("\"") + digest.toUpper() + QStringLiteral("\"")).size(), 2);
    QCOMPARE(m_server->requestsTo(QStringLiteral("/blob")).size(), 1);
    QVERIFY(QFile::remove(installerPath()));
}

void NetRCManagerTest::lowerCaseDigestMatches()
{
    const qint64 size = 3 * 1024 * 1024 + 5;
    NetRCManager net;
    announceVersion(net, versionReply(kVersion, m_server->blobUrl(size, 2), m_server->blobDigest(size, 2).toLower()));
    QSignalSpy downloaded(&net, &NetRCManager::newInstallationFileDownloaded);
    net.downloadLatestApp();
    QVERIFY(downloaded.wait(kWait));
    QCOMPARE(QFileInfo(installerPath()).size(), size);
}

void NetRCManagerTest::wrongDigestRemovesInstaller()
{
    const qint64 size = 1024 * 1024;
    NetRCManager net;
    const QString wrong = m_server->blobDigest(size, 99);
    announceVersion(net, versionReply(kVersion, m_server->blobUrl(size, 3), wrong));
    MessageCapture capture;
    QSignalSpy downloaded(&net, &NetRCManager::newInstallationFileDownloaded);
    net.downloadLatestApp();
    QTRY_VERIFY_WITH_TIMEOUT(
        capture.contains(QtWarningMsg, QStringLiteral("The md5 of the new installation file is wrong")), kWait);
    const QStringList debug = capture.texts(QtDebugMsg);
    QCOMPARE(debug.size(), 2);
    QCOMPARE(debug.at(0), QStringLiteral("\"%1\"").arg(m_server->blobDigest(size, 3).toUpper()));
    QCOMPARE(debug.at(1), QStringLiteral("\"%1\"").arg(wrong.toUpper()));
    QVERIFY(!QFile::exists(installerPath()));
    QCOMPARE(downloaded.count(), 0);
}

void NetRCManagerTest::realMd5NeverMatches()
{
    const qint64 size = 100000;
    NetRCManager net;
    announceVersion(
        net, versionReply(kVersion, m_server->blobUrl(size, 4), QStringLiteral("9e107d9d372bb6826bd81d3542a419d6")));
    MessageCapture capture;
    QSignalSpy downloaded(&net, &NetRCManager::newInstallationFileDownloaded);
    net.downloadLatestApp();
    QTRY_VERIFY_WITH_TIMEOUT(
        capture.contains(QtWarningMsg, QStringLiteral("The md5 of the new installation file is wrong")), kWait);
    QVERIFY(!QFile::exists(installerPath()));
    QCOMPARE(downloaded.count(), 0);
}

void NetRCManagerTest::connectionCutHalfWayLeavesNoInstaller()
{
    const qint64 size = 20 * 1000 * 1000;
    NetRCManager net;
    announceVersion(net,
        versionReply(
            kVersion, m_server->blobUrl(size, 5) + QStringLiteral("&cut=10000000"), m_server->blobDigest(size, 5)));
    MessageCapture capture;
    QSignalSpy downloaded(&net, &NetRCManager::newInstallationFileDownloaded);
    net.downloadLatestApp();
    QTRY_VERIFY_WITH_TIMEOUT(
        !capture.texts(QtWarningMsg).filter(QRegularExpression(QStringLiteral("^Error: "))).isEmpty(), kWait);
    QTRY_VERIFY_WITH_TIMEOUT(
        capture.contains(QtWarningMsg, QStringLiteral("The md5 of the new installation file is wrong")), kWait);
    QVERIFY(!QFile::exists(installerPath()));
    QCOMPARE(downloaded.count(), 0);
}

void NetRCManagerTest::emptyUrlIsRefused()
{
    NetRCManager net;
    announceVersion(net, versionReply(kVersion, QString(), QStringLiteral("00")));
    m_server->reset();
    MessageCapture capture;
    QSignalSpy downloaded(&net, &NetRCManager::newInstallationFileDownloaded);
    net.downloadLatestApp();
    QCOMPARE(capture.texts(QtWarningMsg),
        QStringList {QStringLiteral("[NetRCManager]: The installation file's URL is refused: \"\"")});
    QCOMPARE(filesIn(resourcesPath()), QStringList());
    settle(net);
    QCOMPARE(downloaded.count(), 0);
    QCOMPARE(m_server->requests().size(), 1); // only the settling report
}

void NetRCManagerTest::downloadBeforeAnyVersionReplyRemovesOldInstaller()
{
    QVERIFY(writeFile(installerPath(), "an old installer"));
    NetRCManager net;
    MessageCapture capture;
    QSignalSpy downloaded(&net, &NetRCManager::newInstallationFileDownloaded);
    net.downloadLatestApp();
    // A download that cannot even start is a failed one: no installer stays.
    QCOMPARE(filesIn(resourcesPath()), QStringList());
    QCOMPARE(capture.texts(QtWarningMsg),
        QStringList {QStringLiteral("[NetRCManager]: The installation file's URL is refused: \"\"")});
    QCOMPARE(downloaded.count(), 0);
}

void NetRCManagerTest::redirectIsNotFollowed()
{
    const qint64 size = 50000;
    const QString target = QStringLiteral("/blob?size=%1%26seed=6").arg(size);
    NetRCManager net;
    announceVersion(net,
        versionReply(kVersion, m_serverUrl + QStringLiteral("/redirect?to=") + target, m_server->blobDigest(size, 6)));
    MessageCapture capture;
    QSignalSpy downloaded(&net, &NetRCManager::newInstallationFileDownloaded);
    net.downloadLatestApp();
    QTRY_VERIFY_WITH_TIMEOUT(
        capture.contains(QtWarningMsg, QStringLiteral("The md5 of the new installation file is wrong")), kWait);
    QVERIFY(!QFile::exists(installerPath()));
    QCOMPARE(downloaded.count(), 0);
    QCOMPARE(m_server->requestsTo(QStringLiteral("/redirect")).size(), 1);
    QCOMPARE(m_server->requestsTo(QStringLiteral("/blob")).size(), 0);
}

void NetRCManagerTest::installerThatCannotBeCreated()
{
    QVERIFY(QDir().mkpath(installerPath()));
    NetRCManager net;
    announceVersion(net, versionReply(kVersion, m_server->blobUrl(10, 1), m_server->blobDigest(10, 1)));
    m_server->reset();
    MessageCapture capture;
    net.downloadLatestApp();
    QFile probe(installerPath());
    QVERIFY(!probe.remove());
    QCOMPARE(capture.texts(QtWarningMsg),
        QStringList {QStringLiteral("An error occurred when trying to create the installation file \"%1\"")
                         .arg(probe.errorString())});
    QVERIFY(QFileInfo(installerPath()).isDir());
    QCOMPARE(filesIn(resourcesPath()), QStringList());
    settle(net);
    QCOMPARE(m_server->requestsTo(QStringLiteral("/blob")).size(), 0);
}

void NetRCManagerTest::installerThatCannotBeWrittenIsNotAnnounced()
{
    // The disk takes the first megabyte only: the bytes arrive and match the
    // digest, but never all reach the disk.
    const qint64 size = 2 * 1024 * 1024;
    NetRCManager net;
    announceVersion(net, versionReply(kVersion, m_server->blobUrl(size, 8), m_server->blobDigest(size, 8)));
    MessageCapture capture;
    QSignalSpy downloaded(&net, &NetRCManager::newInstallationFileDownloaded);
    {
        const FileSizeLimit fullDisk(1024 * 1024);
        net.downloadLatestApp();
        QTRY_VERIFY_WITH_TIMEOUT(!capture.texts(QtCriticalMsg).isEmpty(), kWait);
    }
    QCOMPARE(capture.texts(QtCriticalMsg),
        QStringList {QStringLiteral("[NetRCManager]: Failed to write the installation file \"File too large\"")});
    // The disk's failure is not reported as a wrong digest.
    QVERIFY(!capture.contains(QtWarningMsg, QStringLiteral("The md5 of the new installation file is wrong")));
    QCOMPARE(downloaded.count(), 0);
    QCOMPARE(filesIn(resourcesPath()), QStringList());
}

void NetRCManagerTest::destructionDuringDownloadLeavesNoInstaller()
{
    m_server->scriptMode(QStringLiteral("/blob"), QStringLiteral("hang"));
    auto net = std::make_unique<NetRCManager>();
    announceVersion(*net, versionReply(kVersion, m_server->blobUrl(1000, 1), m_server->blobDigest(1000, 1)));
    net->downloadLatestApp();
    QTRY_COMPARE_WITH_TIMEOUT(m_server->requestsTo(QStringLiteral("/blob")).size(), 1, kWait);
    // The download runs into a file of its own, never under the final name.
    QVERIFY(largestOpenFileIn(QCoreApplication::applicationPid(), resourcesPath()) >= 0);
    QVERIFY(!QFile::exists(installerPath()));
    net.reset();
    QCOMPARE(filesIn(resourcesPath()), QStringList());
}

void NetRCManagerTest::failedDigestLibraryVerifiesNothing()
{
    // With no digest available the computed text is empty, and so is a
    // reply's missing "md5": equal, but nothing has been verified.
    const qint64 size = 4096;
    NetRCManager net;
    announceVersion(net, versionReply(kVersion, m_server->blobUrl(size, 9), QString()));
    MessageCapture capture;
    QSignalSpy downloaded(&net, &NetRCManager::newInstallationFileDownloaded);
    {
        const NullDigestProvider noDigest;
        net.downloadLatestApp();
        QTRY_VERIFY_WITH_TIMEOUT(
            capture.contains(QtWarningMsg, QStringLiteral("The md5 of the new installation file is wrong")), kWait);
    }
    QCOMPARE(capture.texts(QtDebugMsg), (QStringList {QStringLiteral("\"\""), QStringLiteral("\"\"")}));
    QVERIFY(!capture.contains(QtInfoMsg, QStringLiteral("The new installation file has been downloaded")));
    QCOMPARE(downloaded.count(), 0);
    QCOMPARE(filesIn(resourcesPath()), QStringList());
}

void NetRCManagerTest::expectedDigestMustBe64HexDigits_data()
{
    QTest::addColumn<QString>("expected");
    QTest::addColumn<bool>("verified");
    const QString digest = m_server->blobDigest(5000, 10);
    QTest::newRow("64 digits") << digest << true;
    QTest::newRow("empty") << QString() << false;
    QTest::newRow("short") << digest.left(63) << false;
    QTest::newRow("long") << digest + QLatin1Char('0') << false;
    QTest::newRow("blank around") << QLatin1Char(' ') + digest << false;
    QTest::newRow("not hexadecimal") << QString(64, QLatin1Char('g')) << false;
}

void NetRCManagerTest::expectedDigestMustBe64HexDigits()
{
    QFETCH(QString, expected);
    QFETCH(bool, verified);
    NetRCManager net;
    announceVersion(net, versionReply(kVersion, m_server->blobUrl(5000, 10), expected));
    MessageCapture capture;
    QSignalSpy downloaded(&net, &NetRCManager::newInstallationFileDownloaded);
    net.downloadLatestApp();
    QTRY_VERIFY_WITH_TIMEOUT(capture.texts(QtDebugMsg).size() == 2, kWait);
    QCOMPARE(downloaded.count(), verified ? 1 : 0);
    QCOMPARE(QFile::exists(installerPath()), verified);
    QCOMPARE(
        capture.contains(QtWarningMsg, QStringLiteral("The md5 of the new installation file is wrong")), !verified);
}

void NetRCManagerTest::installerThroughLinkLeavesTargetUntouched()
{
    const QString target = m_sandbox->filePath(QStringLiteral("precious.txt"));
    QVERIFY(writeFile(target, "precious"));
    QVERIFY(QFile::link(target, installerPath()));
    const qint64 size = 300000;
    NetRCManager net;
    announceVersion(net, versionReply(kVersion, m_server->blobUrl(size, 11), m_server->blobDigest(size, 11)));
    QSignalSpy downloaded(&net, &NetRCManager::newInstallationFileDownloaded);
    net.downloadLatestApp();
    QVERIFY(downloaded.wait(kWait));
    QCOMPARE(readFile(target), QByteArray("precious"));
    QVERIFY(!QFileInfo(installerPath()).isSymLink());
    QCOMPARE(QString::fromLatin1(fileDigest(installerPath())), m_server->blobDigest(size, 11));
}

void NetRCManagerTest::partialInstallerNeverHasTheFinalName()
{
    // The server sends part of the installer and then nothing: the bytes so
    // far are on disk, but not under the name that the application runs.
    const qint64 size = 3 * 1024 * 1024;
    NetRCManager net;
    announceVersion(net,
        versionReply(
            kVersion, m_server->blobUrl(size, 12) + QStringLiteral("&stall=1000000"), m_server->blobDigest(size, 12)));
    net.downloadLatestApp();
    QTRY_COMPARE_WITH_TIMEOUT(m_server->requestsTo(QStringLiteral("/blob")).size(), 1, kWait);
    QTRY_VERIFY_WITH_TIMEOUT(largestOpenFileIn(QCoreApplication::applicationPid(), resourcesPath()) >= 1000000, kWait);
    QVERIFY(!QFile::exists(installerPath()));
}

void NetRCManagerTest::killedDownloadLeavesNoInstaller()
{
    const qint64 size = 3 * 1024 * 1024;
    m_server->scriptReply(QStringLiteral("/update_check.php"),
        QJsonDocument(
            versionReply(QStringLiteral("9.0"), m_server->blobUrl(size, 13) + QStringLiteral("&stall=1000000"),
                m_server->blobDigest(size, 13)))
            .toJson(QJsonDocument::Compact));
    QProcess child;
    child.start(QStringLiteral(ORVANTA_DOWNLOAD_CHILD), {m_sandbox->path(), m_serverUrl});
    QVERIFY(child.waitForStarted(kWait));
    QTRY_COMPARE_WITH_TIMEOUT(m_server->requestsTo(QStringLiteral("/blob")).size(), 1, kWait);
    // The child has written what the server sent before it stalled.
    QTRY_VERIFY_WITH_TIMEOUT(largestOpenFileIn(child.processId(), resourcesPath()) >= 1000000, kWait);
    child.kill();
    QVERIFY(child.waitForFinished(kWait));
    QCOMPARE(child.exitStatus(), QProcess::CrashExit);
    QVERIFY(!QFile::exists(installerPath()));
}

void NetRCManagerTest::overlappingDownloadsKeepTheirOwnFiles()
{
    // Two downloads at once, of two different installers: each verifies its
    // own bytes, and the final name holds one of them whole.
    const qint64 size = 2 * 1024 * 1024;
    NetRCManager net;
    announceVersion(net, versionReply(kVersion, m_server->blobUrl(size, 14), m_server->blobDigest(size, 14)));
    QSignalSpy downloaded(&net, &NetRCManager::newInstallationFileDownloaded);
    MessageCapture capture;
    net.downloadLatestApp();
    announceVersion(net, versionReply(kVersion, m_server->blobUrl(size, 15), m_server->blobDigest(size, 15)));
    net.downloadLatestApp();
    QTRY_COMPARE_WITH_TIMEOUT(downloaded.count(), 2, kWait);
    QVERIFY(!capture.contains(QtWarningMsg, QStringLiteral("The md5 of the new installation file is wrong")));
    const QString onDisk = QString::fromLatin1(fileDigest(installerPath()));
    QVERIFY(onDisk == m_server->blobDigest(size, 14) || onDisk == m_server->blobDigest(size, 15));
    QCOMPARE(filesIn(resourcesPath()), QStringList {QStringLiteral("install.exe")});
}

void NetRCManagerTest::onlyWebSchemesAreFetched_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<QByteArray>("content");
    const QByteArray content("a local file posing as the installer");
    QTest::newRow("file") << QStringLiteral("file://%1/local.bin") << content;
    QTest::newRow("data")
        << QStringLiteral("data:application/octet-stream;base64,%1").arg(QString::fromLatin1(content.toBase64()))
        << content;
    QTest::newRow("ftp") << QStringLiteral("ftp://127.0.0.1/install.exe") << content;
    QTest::newRow("qrc") << QStringLiteral("qrc:/install.exe") << content;
}

void NetRCManagerTest::onlyWebSchemesAreFetched()
{
    QFETCH(QString, url);
    QFETCH(QByteArray, content);
    QVERIFY(writeFile(m_sandbox->filePath(QStringLiteral("local.bin")), content));
    if (url.contains(QStringLiteral("%1"))) {
        url = url.arg(m_sandbox->path());
    }
    const QString digest = QString::fromLatin1(QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex());
    NetRCManager net;
    announceVersion(net, versionReply(kVersion, url, digest));
    MessageCapture capture;
    QSignalSpy downloaded(&net, &NetRCManager::newInstallationFileDownloaded);
    net.downloadLatestApp();
    QCOMPARE(capture.texts(QtWarningMsg),
        QStringList {QStringLiteral("[NetRCManager]: The installation file's URL is refused: \"%1\"")
                         .arg(QUrl(url, QUrl::TolerantMode).toString())});
    settle(net);
    QCOMPARE(downloaded.count(), 0);
    QCOMPARE(filesIn(resourcesPath()), QStringList());
}

void NetRCManagerTest::stalledDownloadTimesOut()
{
    NetRCManager::setTransferTimeout(500);
    const qint64 size = 3 * 1024 * 1024;
    NetRCManager net;
    announceVersion(net,
        versionReply(
            kVersion, m_server->blobUrl(size, 16) + QStringLiteral("&stall=500000"), m_server->blobDigest(size, 16)));
    MessageCapture capture;
    QSignalSpy downloaded(&net, &NetRCManager::newInstallationFileDownloaded);
    net.downloadLatestApp();
    QTRY_VERIFY_WITH_TIMEOUT(
        capture.contains(QtWarningMsg, QStringLiteral("The md5 of the new installation file is wrong")), kWait);
    QCOMPARE(capture.texts(QtWarningMsg).filter(QRegularExpression(QStringLiteral("^Error: "))),
        QStringList {QStringLiteral("Error: \"Operation canceled\"")});
    QCOMPARE(downloaded.count(), 0);
    QCOMPARE(filesIn(resourcesPath()), QStringList());
}

void NetRCManagerTest::stalledVersionReplyTimesOut()
{
    NetRCManager::setTransferTimeout(500);
    m_server->scriptStall(QStringLiteral("/update_check.php"), 10);
    NetRCManager net;
    QSignalSpy announced(&net, &NetRCManager::hasNewAppVersion);
    MessageCapture capture;
    net.checkVersion();
    QTRY_VERIFY_WITH_TIMEOUT(capture.contains(QtWarningMsg,
                                 QStringLiteral("An error occurred while trying to request version information "
                                                "\"Operation canceled\"")),
        kWait);
    QCOMPARE(announced.count(), 0);
}

void NetRCManagerTest::endlessVersionReplyIsCut()
{
    m_server->scriptMode(QStringLiteral("/update_check.php"), QStringLiteral("endless"));
    NetRCManager net;
    QSignalSpy announced(&net, &NetRCManager::hasNewAppVersion);
    MessageCapture capture;
    net.checkVersion();
    QTRY_VERIFY_WITH_TIMEOUT(
        capture.contains(QtWarningMsg,
            QStringLiteral("An error occurred while trying to request version information \"Operation canceled\"")),
        kWait);
    QCOMPARE(capture.texts(QtWarningMsg).first(),
        QStringLiteral("[NetRCManager]: The reply is longer than 1048576 bytes: \"%1/update_check.php?app=%2\"")
            .arg(m_serverUrl, QFileInfo(QCoreApplication::applicationFilePath()).fileName()));
    settle(net);
    QVERIFY(!capture.contains(
        QtWarningMsg, QStringLiteral("An error occurred while trying to parse the Network JSON file")));
    QCOMPARE(announced.count(), 0);
}

void NetRCManagerTest::versionReplyJustUnderTheCapIsRead()
{
    // Padding inside the JSON brings the reply to exactly 1 MiB: still a reply.
    QByteArray reply
        = QJsonDocument(versionReply(QStringLiteral("9.9"), QString(), QString())).toJson(QJsonDocument::Compact);
    reply.chop(1);
    reply += ",\"pad\":\"";
    reply += QByteArray(1024 * 1024 - reply.size() - 2, 'p');
    reply += "\"}";
    QCOMPARE(reply.size(), 1024 * 1024);
    m_server->scriptReply(QStringLiteral("/update_check.php"), reply);
    NetRCManager net;
    QSignalSpy announced(&net, &NetRCManager::hasNewAppVersion);
    net.checkVersion();
    QVERIFY(announced.wait(kWait));
}

// ---- feedback upload ----------------------------------------------------

void NetRCManagerTest::uploadFormFieldByField()
{
    const std::unique_ptr<FeedbackManager> feedback
        = makePackage(QStringLiteral("grace@example.org"), QStringLiteral("Lights flicker"));
    const QString zip = feedback->feedbackFileName();
    const QByteArray zipBytes = readFile(zip);
    QVERIFY(zipBytes.size() > 1000);
    const QByteArray name = QFileInfo(zip).fileName().toLatin1();

    NetRCManager net;
    MessageCapture capture;
    int finished = 0;
    QList<QNetworkReply::NetworkError> errors;
    net.sendFeedback(
        feedback.get(), [&finished]() { ++finished; }, [&errors](QNetworkReply::NetworkError code) { errors << code; });
    QCOMPARE(capture.texts(QtDebugMsg)
                 .filter(QStringLiteral("\"") + QString::fromLatin1(name) + QStringLiteral("\""))
                 .size(),
        1);
    QTRY_COMPARE_WITH_TIMEOUT(finished, 1, kWait);
    QCOMPARE(errors.size(), 0);
    QVERIFY(capture.contains(QtInfoMsg, QStringLiteral("A feedback have sent to server")));
    QVERIFY(capture.contains(QtDebugMsg, QStringLiteral("\"{\\\"result\\\":\\\"ok\\\"}\"")));
    QVERIFY(QFile::exists(zip)); // the package stays after sending

    const QJsonArray uploads = m_server->requestsTo(QStringLiteral("/app/logupload.php"));
    QCOMPARE(uploads.size(), 1);
    const QJsonObject request = uploads.at(0).toObject();
    QCOMPARE(request.value(QStringLiteral("method")).toString(), QStringLiteral("POST"));
    QCOMPARE(request.value(QStringLiteral("rawQuery")).toString(), QString());
    QCOMPARE(ServerControl::header(request, QStringLiteral("User-Agent")), QStringLiteral("OrvantaTest/2.3.4"));
    QCOMPARE(ServerControl::header(request, QStringLiteral("Accept")), QStringLiteral("*/*"));
    QVERIFY(ServerControl::header(request, QStringLiteral("Content-Type"))
                .startsWith(QStringLiteral("multipart/form-data; boundary=")));

    const QJsonObject form = request.value(QStringLiteral("form")).toObject();
    QVERIFY2(!form.contains(QStringLiteral("error")), qPrintable(form.value(QStringLiteral("error")).toString()));
    const QJsonArray parts = form.value(QStringLiteral("parts")).toArray();
    QCOMPARE(parts.size(), 3);
    const auto headers = [&parts](int index) {
        return parts.at(index).toObject().value(QStringLiteral("headers")).toArray();
    };
    const auto body = [&parts](int index) {
        return partBody(parts, index);
    };

    QCOMPARE(headers(0),
        (QJsonArray {QJsonArray {QStringLiteral("Content-Disposition"), QStringLiteral("form-data; name=\"msg\"")}}));
    QCOMPARE(
        body(0), (QStringLiteral("Lights flicker") + messageLabel() + QStringLiteral("grace@example.org")).toUtf8());

    QCOMPARE(headers(1),
        (QJsonArray {
            QJsonArray {QStringLiteral("Content-Disposition"), QStringLiteral("form-data; name=\"file_name\"")}}));
    QCOMPARE(body(1), name);
    QVERIFY(name.endsWith(".zip") && !name.endsWith(".zip.zip"));

    QCOMPARE(headers(2),
        (QJsonArray {QJsonArray {QStringLiteral("Content-Disposition"),
                         QStringLiteral("form-data; name=\"upload_file_minidump\"; filename=\"%1.zip\"")
                             .arg(QString::fromLatin1(name))},
            QJsonArray {QStringLiteral("Content-Type"), QStringLiteral("application/octet-stream")}}));
    QVERIFY(headers(2).at(0).toArray().at(1).toString().endsWith(QStringLiteral(".zip.zip\"")));
    QCOMPARE(body(2), zipBytes);
    const QJsonObject zipBody = parts.at(2).toObject().value(QStringLiteral("body")).toObject();
    QCOMPARE(zipBody.value(QStringLiteral("length")).toInt(), zipBytes.size());
    QCOMPARE(zipBody.value(QStringLiteral("sha256")).toString(), QString::fromLatin1(fileDigest(zip)));
}

void NetRCManagerTest::emptyMessageAndContactGiveSeparatorAndLabel()
{
    const std::unique_ptr<FeedbackManager> feedback = makePackage(QString(), QString());
    NetRCManager net;
    bool finished = false;
    net.sendFeedback(
        feedback.get(), [&finished]() { finished = true; }, nullptr);
    QTRY_VERIFY_WITH_TIMEOUT(finished, kWait);
    const QJsonArray parts = uploadedParts(*m_server, 0);
    QCOMPARE(parts.size(), 3);
    QCOMPARE(partBody(parts, 0), messageLabel().toUtf8());
}

void NetRCManagerTest::emptyFeedbackPointerReportsMissingFile()
{
    NetRCManager net;
    MessageCapture capture;
    bool called = false;
    net.sendFeedback(
        nullptr, [&called]() { called = true; }, [&called](QNetworkReply::NetworkError) { called = true; });
    const QList<FeedbackManager*> fresh = net.findChildren<FeedbackManager*>();
    QCOMPARE(fresh.size(), 1);
    // The fresh package's own construction may report a first load of the
    // configuration; the upload adds exactly one line.
    QCOMPARE(capture.texts(QtCriticalMsg).filter(QStringLiteral("feedback")),
        QStringList {QStringLiteral("The feedback file is not exist \"%1\"").arg(fresh.at(0)->feedbackFileName())});
    settle(net);
    QVERIFY(!called);
    QCOMPARE(m_server->requestsTo(QStringLiteral("/app/logupload.php")).size(), 0);
}

void NetRCManagerTest::emptyFunctionsAreSkipped()
{
    const std::unique_ptr<FeedbackManager> feedback = makePackage(QStringLiteral("heidi"), QStringLiteral("x"));
    NetRCManager net;
    MessageCapture capture;
    net.sendFeedback(feedback.get(), {}, {});
    QTRY_VERIFY_WITH_TIMEOUT(capture.contains(QtInfoMsg, QStringLiteral("A feedback have sent to server")), kWait);

    // And on the failure path too.
    NetRCManager::setServerUrl(unreachableServer());
    net.sendFeedback(feedback.get(), nullptr, nullptr);
    QTRY_VERIFY_WITH_TIMEOUT(
        !capture.texts(QtWarningMsg).filter(QStringLiteral("An error occurred while uploading the feedback")).isEmpty(),
        kWait);
    QTRY_COMPARE_WITH_TIMEOUT(capture.count(QtInfoMsg, QStringLiteral("A feedback have sent to server")), 2, kWait);
}

void NetRCManagerTest::zipThatCannotBeOpened()
{
    FeedbackManager feedback;
    QVERIFY(QDir().mkpath(feedback.feedbackFileName())); // exists, but as a folder
    QFile probe(feedback.feedbackFileName());
    QVERIFY(!probe.open(QIODevice::ReadOnly));
    NetRCManager net;
    MessageCapture capture;
    bool called = false;
    net.sendFeedback(
        &feedback, [&called]() { called = true; }, [&called](QNetworkReply::NetworkError) { called = true; });
    QCOMPARE(capture.texts(QtCriticalMsg),
        QStringList {
            QStringLiteral("An error occurred while opeing the feedback file \"%1\"").arg(probe.errorString())});
    settle(net);
    QVERIFY(!called);
    QCOMPARE(m_server->requestsTo(QStringLiteral("/app/logupload.php")).size(), 0);
}

void NetRCManagerTest::nonLatin1NameGoesOutAsLatin1()
{
    // A hardware address is whatever the system reports; one outside Latin-1
    // reaches the zip's name and is narrowed on the wire.
    m_machine->networkInterfaces.entries = {{false, "52:54:\xE2\x82\xAC"}};
    const std::unique_ptr<FeedbackManager> feedback = makePackage(QStringLiteral("ivan"), QStringLiteral("y"));
    const QString fileName = QFileInfo(feedback->feedbackFileName()).fileName();
    QVERIFY(fileName.contains(QChar(0x20AC)));
    NetRCManager net;
    bool finished = false;
    net.sendFeedback(
        feedback.get(), [&finished]() { finished = true; }, nullptr);
    QTRY_VERIFY_WITH_TIMEOUT(finished, kWait);
    const QJsonArray parts = uploadedParts(*m_server, 0);
    QCOMPARE(parts.size(), 3);
    const QByteArray latin1 = fileName.toLatin1();
    QVERIFY(latin1.contains("5254?"));
    QCOMPARE(partBody(parts, 1), latin1);
    QCOMPARE(parts.at(2).toObject().value(QStringLiteral("headers")).toArray().at(0).toArray().at(1).toString(),
        QStringLiteral("form-data; name=\"upload_file_minidump\"; filename=\"%1.zip\"")
            .arg(QString::fromLatin1(latin1)));
}

void NetRCManagerTest::serverDownDuringUpload()
{
    const std::unique_ptr<FeedbackManager> feedback = makePackage(QStringLiteral("judy"), QStringLiteral("z"));
    NetRCManager::setServerUrl(unreachableServer());
    NetRCManager net;
    MessageCapture capture;
    QStringList order;
    QList<QNetworkReply::NetworkError> errors;
    net.sendFeedback(
        feedback.get(), [&order]() { order << QStringLiteral("finished"); },
        [&order, &errors](QNetworkReply::NetworkError code) {
            order << QStringLiteral("error");
            errors << code;
        });
    QTRY_COMPARE_WITH_TIMEOUT(order.size(), 2, kWait);
    // onError is the verdict; onFinished only says that the upload has ended.
    QCOMPARE(order, (QStringList {QStringLiteral("error"), QStringLiteral("finished")}));
    QCOMPARE(errors, QList<QNetworkReply::NetworkError> {QNetworkReply::ConnectionRefusedError});
    QVERIFY(capture.contains(
        QtWarningMsg, QStringLiteral("An error occurred while uploading the feedback \"Connection refused\"")));
    QVERIFY(QFile::exists(feedback->feedbackFileName()));
}

void NetRCManagerTest::silentServerUntilClosedDuringUpload()
{
    m_server->scriptMode(QStringLiteral("/app/logupload.php"), QStringLiteral("hang"));
    const std::unique_ptr<FeedbackManager> feedback = makePackage(QStringLiteral("ken"), QStringLiteral("w"));
    NetRCManager net;
    QList<QNetworkReply::NetworkError> errors;
    bool finished = false;
    net.sendFeedback(
        feedback.get(), [&finished]() { finished = true; },
        [&errors](QNetworkReply::NetworkError code) { errors << code; });
    QTRY_COMPARE_WITH_TIMEOUT(m_server->requestsTo(QStringLiteral("/app/logupload.php")).size(), 1, kWait);
    settle(net);
    QVERIFY(errors.isEmpty() && !finished); // still waiting
    m_server->release();
    QTRY_VERIFY_WITH_TIMEOUT(finished, kWait);
    QCOMPARE(errors.size(), 1);
    QVERIFY(errors.at(0) != QNetworkReply::NoError);
}

void NetRCManagerTest::uploadAnswerOutside2xxIsAnError_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<int>("error");
    QTest::newRow("302") << 302 << int(QNetworkReply::UnknownContentError);
    QTest::newRow("304") << 304 << int(QNetworkReply::UnknownContentError);
    QTest::newRow("404") << 404 << int(QNetworkReply::ContentNotFoundError);
    QTest::newRow("500") << 500 << int(QNetworkReply::InternalServerError);
    QTest::newRow("204") << 204 << -1;
}

void NetRCManagerTest::uploadAnswerOutside2xxIsAnError()
{
    QFETCH(int, status);
    QFETCH(int, error);
    m_server->scriptReply(
        QStringLiteral("/app/logupload.php"), "<html>moved</html>", status, QStringLiteral("text/html"));
    const std::unique_ptr<FeedbackManager> feedback = makePackage(QStringLiteral("leo"), QStringLiteral("v"));
    NetRCManager net;
    MessageCapture capture;
    QStringList order;
    QList<int> errors;
    net.sendFeedback(
        feedback.get(), [&order]() { order << QStringLiteral("finished"); },
        [&order, &errors](QNetworkReply::NetworkError code) {
            order << QStringLiteral("error");
            errors << int(code);
        });
    QTRY_VERIFY_WITH_TIMEOUT(order.contains(QStringLiteral("finished")), kWait);
    if (error < 0) {
        QCOMPARE(order, QStringList {QStringLiteral("finished")});
        return;
    }
    QCOMPARE(order, (QStringList {QStringLiteral("error"), QStringLiteral("finished")}));
    QCOMPARE(errors, QList<int> {error});
    QCOMPARE(
        capture.texts(QtWarningMsg).filter(QStringLiteral("An error occurred while uploading the feedback")).size(), 1);
}

void NetRCManagerTest::stalledUploadTimesOut()
{
    NetRCManager::setTransferTimeout(500);
    m_server->scriptMode(QStringLiteral("/app/logupload.php"), QStringLiteral("hang"));
    const std::unique_ptr<FeedbackManager> feedback = makePackage(QStringLiteral("mia"), QStringLiteral("u"));
    NetRCManager net;
    QList<QNetworkReply::NetworkError> errors;
    bool finished = false;
    net.sendFeedback(
        feedback.get(), [&finished]() { finished = true; },
        [&errors](QNetworkReply::NetworkError code) { errors << code; });
    QTRY_VERIFY_WITH_TIMEOUT(finished, kWait);
    QCOMPARE(errors, QList<QNetworkReply::NetworkError> {QNetworkReply::OperationCanceledError});
}

void NetRCManagerTest::endlessUploadAnswerIsCut()
{
    m_server->scriptMode(QStringLiteral("/app/logupload.php"), QStringLiteral("endless"));
    const std::unique_ptr<FeedbackManager> feedback = makePackage(QStringLiteral("ned"), QStringLiteral("t"));
    NetRCManager net;
    MessageCapture capture;
    QList<QNetworkReply::NetworkError> errors;
    bool finished = false;
    net.sendFeedback(
        feedback.get(), [&finished]() { finished = true; },
        [&errors](QNetworkReply::NetworkError code) { errors << code; });
    QTRY_VERIFY_WITH_TIMEOUT(finished, kWait);
    QCOMPARE(errors, QList<QNetworkReply::NetworkError> {QNetworkReply::OperationCanceledError});
    QVERIFY(capture.contains(QtWarningMsg,
        QStringLiteral("[NetRCManager]: The reply is longer than 1048576 bytes: \"%1/app/logupload.php\"")
            .arg(m_serverUrl)));
    // What reaches the log is bounded too.
    const QStringList debug = capture.texts(QtDebugMsg).filter(QStringLiteral("[[["));
    QCOMPARE(debug.size(), 1);
    QCOMPARE(debug.at(0), QStringLiteral("\"%1\"").arg(QString(64 * 1024, QLatin1Char('['))));
}

void NetRCManagerTest::hostileContactTextStaysInTheFormOnly()
{
    const QString contact = QStringLiteral("../secret");
    const QString outside = QFileInfo(m_sandbox->path()).absolutePath() + QStringLiteral("/secret.txt");
    QFile::remove(outside);
    const std::unique_ptr<FeedbackManager> feedback = makePackage(contact, QStringLiteral("hello"));
    QVERIFY(!QFile::exists(outside));
    NetRCManager net;
    bool finished = false;
    net.sendFeedback(
        feedback.get(), [&finished]() { finished = true; }, nullptr);
    QTRY_VERIFY_WITH_TIMEOUT(finished, kWait);
    const QJsonArray parts = uploadedParts(*m_server, 0);
    QCOMPARE(parts.size(), 3);
    QCOMPARE(partBody(parts, 0), (QStringLiteral("hello") + messageLabel() + contact).toUtf8());
}

// ---- usage report -------------------------------------------------------

void NetRCManagerTest::nonBlockingReportReturnsAtOnce()
{
    NetRCManager net;
    MessageCapture capture;
    net.uploadAppOnOffTime(QStringLiteral("2026-11-20 10:00:00"), QString());
    const QString replyLine
        = QStringLiteral("[NetRCManager]: uploadAppOnOffTime  server reply:  QNetworkReply::NoError");
    QVERIFY(!capture.contains(QtInfoMsg, replyLine)); // the reply comes later
    QCOMPARE(capture.texts(QtInfoMsg),
        QStringList {QStringLiteral("[NetRCManager]: Prepare to upload to AppOnOffTime to the server, startTime:  "
                                    "\"2026-11-20 10:00:00\" , clostTime:  \"\"")});
    QTRY_VERIFY_WITH_TIMEOUT(capture.contains(QtInfoMsg, replyLine), kWait);

    const QJsonArray reports = m_server->requestsTo(QStringLiteral("/activate.php"));
    QCOMPARE(reports.size(), 1);
    const QJsonObject request = reports.at(0).toObject();
    QCOMPARE(request.value(QStringLiteral("method")).toString(), QStringLiteral("POST"));
    QCOMPARE(ServerControl::header(request, QStringLiteral("Content-Type")), QStringLiteral("application/json"));
    const QByteArray body = QByteArray::fromBase64(
        request.value(QStringLiteral("body")).toObject().value(QStringLiteral("base64")).toString().toLatin1());
    const QString app = QFileInfo(QCoreApplication::applicationFilePath()).fileName();
    QCOMPARE(body,
        QStringLiteral("{\"act_code\":\"0\",\"all_proid\":\"\",\"app_name\":\"%1\",\"app_var\":\"2.3.4\","
                       "\"cd\":\"\",\"ct\":\"\",\"mac_code\":\"525400ABCD01\",\"st\":\"2026-11-20 "
                       "10:00:00\",\"var\":\"2.3.4\"}")
            .arg(app)
            .toUtf8());
}

void NetRCManagerTest::blockingReportWaitsForReply()
{
    NetRCManager net;
    MessageCapture capture;
    net.uploadAppOnOffTime(QStringLiteral("08:00"), QStringLiteral("17:30"));
    QVERIFY(capture.contains(
        QtInfoMsg, QStringLiteral("[NetRCManager]: uploadAppOnOffTime  server reply:  QNetworkReply::NoError")));
    const QJsonObject report
        = QJsonDocument::fromJson(QByteArray::fromBase64(m_server->requestsTo(QStringLiteral("/activate.php"))
                                                             .at(0)
                                                             .toObject()
                                                             .value(QStringLiteral("body"))
                                                             .toObject()
                                                             .value(QStringLiteral("base64"))
                                                             .toString()
                                                             .toLatin1()))
              .object();
    QCOMPARE(report.value(QStringLiteral("st")).toString(), QStringLiteral("08:00"));
    QCOMPARE(report.value(QStringLiteral("ct")).toString(), QStringLiteral("17:30"));
    QCOMPARE(report.value(QStringLiteral("cd")).toString(), QString());
    QCOMPARE(report.value(QStringLiteral("act_code")).toString(), QStringLiteral("0"));
    QCOMPARE(report.value(QStringLiteral("all_proid")).toString(), QString());
    QCOMPARE(report.size(), 9);
}

void NetRCManagerTest::blockingReportToUnreachableServer()
{
    NetRCManager::setServerUrl(unreachableServer());
    NetRCManager net;
    MessageCapture capture;
    net.uploadAppOnOffTime(QStringLiteral("a"), QStringLiteral("b"));
    QVERIFY(capture.contains(QtInfoMsg,
        QStringLiteral("[NetRCManager]: uploadAppOnOffTime  server reply:  "
                       "QNetworkReply::ConnectionRefusedError")));
}

void NetRCManagerTest::timesAreSentAsGiven()
{
    NetRCManager net;
    const QString start = QStringLiteral("not a time at all");
    const QString close = QString::fromUtf8("\"quoted\" \xE2\x9C\x93 before start");
    net.uploadAppOnOffTime(start, close);
    const QJsonObject report
        = QJsonDocument::fromJson(QByteArray::fromBase64(m_server->requestsTo(QStringLiteral("/activate.php"))
                                                             .at(0)
                                                             .toObject()
                                                             .value(QStringLiteral("body"))
                                                             .toObject()
                                                             .value(QStringLiteral("base64"))
                                                             .toString()
                                                             .toLatin1()))
              .object();
    QCOMPARE(report.value(QStringLiteral("st")).toString(), start);
    QCOMPARE(report.value(QStringLiteral("ct")).toString(), close);
}

void NetRCManagerTest::blockingReportOnSilentServerEndsWhenClosed()
{
    m_server->scriptMode(QStringLiteral("/activate.php"), QStringLiteral("hang"));
    NetRCManager net;
    MessageCapture capture;
    // Runs inside the report's own event loop: waits until the server holds
    // the request, then has it close the connection.
    QTimer releaser;
    releaser.setInterval(50);
    connect(&releaser, &QTimer::timeout, this, [this, &releaser]() {
        if (!m_server->requestsTo(QStringLiteral("/activate.php")).isEmpty()) {
            releaser.stop();
            m_server->release();
        }
    });
    releaser.start();
    net.uploadAppOnOffTime(QStringLiteral("s"), QStringLiteral("c"));
    QVERIFY(!releaser.isActive());
    const QStringList lines = capture.texts(QtInfoMsg).filter(QStringLiteral("server reply:"));
    QCOMPARE(lines.size(), 1);
    QVERIFY(
        lines.at(0).startsWith(QStringLiteral("[NetRCManager]: uploadAppOnOffTime  server reply:  QNetworkReply::")));
    QVERIFY(!lines.at(0).endsWith(QStringLiteral("::NoError")));
}

void NetRCManagerTest::destructionDuringBlockingReportEndsWait()
{
    m_server->scriptMode(QStringLiteral("/activate.php"), QStringLiteral("hang"));
    auto* net = new NetRCManager;
    QPointer<NetRCManager> watch(net);
    QTimer destroyer;
    destroyer.setInterval(50);
    connect(&destroyer, &QTimer::timeout, this, [this, &destroyer, net]() {
        if (!m_server->requestsTo(QStringLiteral("/activate.php")).isEmpty()) {
            destroyer.stop();
            delete net;
        }
    });
    destroyer.start();
    net->uploadAppOnOffTime(QStringLiteral("s"), QStringLiteral("c"));
    QVERIFY(watch.isNull());
}

void NetRCManagerTest::blockingReportOnStalledServerTimesOut()
{
    NetRCManager::setTransferTimeout(500);
    m_server->scriptMode(QStringLiteral("/activate.php"), QStringLiteral("hang"));
    NetRCManager net;
    MessageCapture capture;
    net.uploadAppOnOffTime(QStringLiteral("s"), QStringLiteral("c"));
    QCOMPARE(capture.texts(QtInfoMsg).filter(QStringLiteral("server reply:")),
        QStringList {QStringLiteral(
            "[NetRCManager]: uploadAppOnOffTime  server reply:  QNetworkReply::OperationCanceledError")});
}

void NetRCManagerTest::endlessReportAnswerIsDropped()
{
    m_server->scriptMode(QStringLiteral("/activate.php"), QStringLiteral("endless"));
    NetRCManager net;
    MessageCapture capture;
    net.uploadAppOnOffTime(QStringLiteral("s"), QStringLiteral("c"));
    QCOMPARE(capture.texts(QtInfoMsg).filter(QStringLiteral("server reply:")),
        QStringList {QStringLiteral(
            "[NetRCManager]: uploadAppOnOffTime  server reply:  QNetworkReply::OperationCanceledError")});
    QVERIFY(capture.contains(QtWarningMsg,
        QStringLiteral("[NetRCManager]: The reply is longer than 1048576 bytes: \"%1/activate.php\"")
            .arg(m_serverUrl)));
}

QTEST_GUILESS_MAIN(NetRCManagerTest)
#include "tst_netrcmanager.moc"
