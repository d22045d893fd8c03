#include "ConfigurationManager.h"

#include "MessageCapture.h"

#include "TestFiles.h"
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QStandardPaths>
#include <QtCore/QTemporaryDir>

#include <QtTest/QtTest>

#include <memory>
#include <sys/fsuid.h>
#include <unistd.h>

// reset() on Linux, with HOME and the XDG folders in a temporary home, so that
// the folders it removes are known here without asking QStandardPaths.

namespace {

const QString organisation = QStringLiteral("OrvantaTests");
const char resetWithoutApplicationArgument[] = "--reset-without-application";
const QString application = QStringLiteral("tst_configreset");

void writeFile(const QString& path, const QByteArray& bytes)
{
    QVERIFY(QDir().mkpath(QFileInfo(path).absolutePath()));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QCOMPARE(file.write(bytes), qint64(bytes.size()));
}

QString quoted(const QString& text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

QStringList entries(const QString& path)
{
    return QDir(path).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
}

/// Checks file access as an unprivileged user while alive, also for root,
/// whose file-system capabilities would let it remove anything. Linux keeps
/// the file-system user per thread.
class UnprivilegedFileAccess
{
public:
    UnprivilegedFileAccess()
    {
        if (geteuid() == 0) {
            setfsuid(65534);
            m_changed = true;
        }
    }
    ~UnprivilegedFileAccess()
    {
        if (m_changed) {
            setfsuid(0);
        }
    }

private:
    bool m_changed = false;
};

} // namespace

class ConfigResetTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void removesConfigurationAndDataKeepingLogsAndDumps();
    void leavesOtherApplicationsAlone();
    void missingFoldersAreReportedEach();
    void withoutApplicationNameNothingIsRemoved_data();
    void withoutApplicationNameNothingIsRemoved();
    void linksNamedLogsOrDumpsAreKept();
    void otherLinksAreRemovedWithoutTheirTargets();
    void fileThatCannotBeRemovedStopsTheReset();
    void customConfigPathIsNotReset();

private:
    QString configFolder() const;
    QString dataFolder() const;
    std::unique_ptr<ConfigurationManager> makeManager(const QString& customPath = QString());

    std::unique_ptr<QTemporaryDir> m_home;
};

void ConfigResetTest::initTestCase()
{
    QStandardPaths::setTestModeEnabled(false);
}

void ConfigResetTest::init()
{
    m_home = std::make_unique<QTemporaryDir>();
    QVERIFY(m_home->isValid());
    // Open to others, for the unprivileged checks.
    QVERIFY(QFile::setPermissions(m_home->path(),
        QFile::permissions(m_home->path()) | QFile::ReadOther | QFile::ExeOther | QFile::ReadGroup | QFile::ExeGroup));
    qputenv("HOME", QFile::encodeName(m_home->path()));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(m_home->path() + QStringLiteral("/.config")));
    qputenv("XDG_DATA_HOME", QFile::encodeName(m_home->path() + QStringLiteral("/.local/share")));
    QCoreApplication::setOrganizationName(organisation);
    QCoreApplication::setApplicationName(application);
}

void ConfigResetTest::cleanup()
{
    m_home.reset();
}

QString ConfigResetTest::configFolder() const
{
    return m_home->path() + QStringLiteral("/.config/") + organisation + QLatin1Char('/') + application;
}

QString ConfigResetTest::dataFolder() const
{
    return m_home->path() + QStringLiteral("/.local/share/") + organisation + QLatin1Char('/') + application;
}

std::unique_ptr<ConfigurationManager> ConfigResetTest::makeManager(const QString& customPath)
{
    ConfigurationManager::setConfigPath(customPath);
    auto manager = std::make_unique<ConfigurationManager>();
    ConfigurationManager::setConfigPath(QString());
    return manager;
}

void ConfigResetTest::removesConfigurationAndDataKeepingLogsAndDumps()
{
    QVERIFY(QDir().mkpath(configFolder()));
    auto manager = makeManager();
    QCOMPARE(manager->configPath(), configFolder());
    manager->setGlobalValue(QStringLiteral("devUpdateInterval"), 40);
    manager->saveGlobalValues();
    writeFile(configFolder() + QStringLiteral("/controllers/desk.json"), "{}");
    writeFile(configFolder() + QStringLiteral("/effects/deep/er/rain.json"), "{}");
    writeFile(configFolder() + QStringLiteral("/.hidden"), "h");
    writeFile(configFolder() + QStringLiteral("/logs/app.log"), "log");
    writeFile(configFolder() + QStringLiteral("/logs/devices/d.log"), "dev");
    writeFile(configFolder() + QStringLiteral("/dumps/crash.dmp"), "dump");
    writeFile(dataFolder() + QStringLiteral("/controler_config/desk.json"), "{}");
    writeFile(dataFolder() + QStringLiteral("/cache.bin"), "c");
    writeFile(dataFolder() + QStringLiteral("/logs/data.log"), "data log");
    QVERIFY(QFile::exists(configFolder() + QStringLiteral("/global.json")));

    MessageCapture capture;
    manager->reset();

    // Both folders still hold a spared folder, so neither can go itself.
    QCOMPARE(capture.texts(QtWarningMsg),
        (QStringList {QStringLiteral("Failed to remove directory: %1").arg(quoted(configFolder())),
            QStringLiteral("Failed to completely reset configuration directory: %1").arg(quoted(configFolder())),
            QStringLiteral("Failed to remove directory: %1").arg(quoted(dataFolder())),
            QStringLiteral("Failed to completely reset configuration directory: %1").arg(quoted(dataFolder()))}));
    QCOMPARE(capture.messages().size(), 4);
    QVERIFY(!QFile::exists(configFolder() + QStringLiteral("/global.json")));
    QCOMPARE(entries(configFolder()), (QStringList {QStringLiteral("dumps"), QStringLiteral("logs")}));
    QCOMPARE(readFile(configFolder() + QStringLiteral("/logs/app.log")), QByteArray("log"));
    QCOMPARE(readFile(configFolder() + QStringLiteral("/logs/devices/d.log")), QByteArray("dev"));
    QCOMPARE(readFile(configFolder() + QStringLiteral("/dumps/crash.dmp")), QByteArray("dump"));
    QCOMPARE(entries(dataFolder()), QStringList {QStringLiteral("logs")});
    QCOMPARE(readFile(dataFolder() + QStringLiteral("/logs/data.log")), QByteArray("data log"));

    // The cached documents remain in memory until the process ends.
    QCOMPARE(manager->globalValue(QStringLiteral("devUpdateInterval")).toInt(), 40);
}

void ConfigResetTest::leavesOtherApplicationsAlone()
{
    const QString home = m_home->path();
    writeFile(home + QStringLiteral("/.config/") + organisation + QStringLiteral("/other/global.json"), "{}");
    writeFile(home + QStringLiteral("/.config/") + organisation + QStringLiteral(".conf"), "[General]");
    writeFile(home + QStringLiteral("/.config/unrelated/settings.ini"), "x");
    writeFile(home + QStringLiteral("/.local/share/") + organisation + QStringLiteral("/other/data.db"), "x");
    writeFile(home + QStringLiteral("/.local/share/history.db"), "x");
    writeFile(configFolder() + QStringLiteral("/global.json"), "{}");
    writeFile(dataFolder() + QStringLiteral("/data.db"), "x");

    auto manager = makeManager();
    MessageCapture capture;
    manager->reset();

    QVERIFY(!QFile::exists(configFolder() + QStringLiteral("/global.json")));
    // Nothing but logs and dumps under the configuration, the data folder gone.
    QVERIFY(!QDir(dataFolder()).exists());
    QVERIFY(QFile::exists(home + QStringLiteral("/.config/") + organisation + QStringLiteral("/other/global.json")));
    QVERIFY(QFile::exists(home + QStringLiteral("/.config/") + organisation + QStringLiteral(".conf")));
    QVERIFY(QFile::exists(home + QStringLiteral("/.config/unrelated/settings.ini")));
    QVERIFY(QFile::exists(home + QStringLiteral("/.local/share/") + organisation + QStringLiteral("/other/data.db")));
    QVERIFY(QFile::exists(home + QStringLiteral("/.local/share/history.db")));
    QCOMPARE(capture.texts(QtWarningMsg),
        (QStringList {QStringLiteral("Failed to remove directory: %1").arg(quoted(configFolder())),
            QStringLiteral("Failed to completely reset configuration directory: %1").arg(quoted(configFolder()))}));
}

void ConfigResetTest::missingFoldersAreReportedEach()
{
    auto manager = makeManager(m_home->filePath(QStringLiteral("custom")));
    QVERIFY(!QDir(configFolder()).exists());
    QVERIFY(!QDir(dataFolder()).exists());
    MessageCapture capture;
    manager->reset();
    QCOMPARE(capture.texts(QtWarningMsg),
        (QStringList {QStringLiteral("Directory does not exist: %1").arg(quoted(configFolder())),
            QStringLiteral("Failed to completely reset configuration directory: %1").arg(quoted(configFolder())),
            QStringLiteral("Directory does not exist: %1").arg(quoted(dataFolder())),
            QStringLiteral("Failed to completely reset configuration directory: %1").arg(quoted(dataFolder()))}));
    QCOMPARE(capture.messages().size(), 4);
}

void ConfigResetTest::withoutApplicationNameNothingIsRemoved_data()
{
    QTest::addColumn<QString>("organisationName");
    QTest::newRow("neither name") << QString();
    QTest::newRow("organisation only") << organisation;
}

void ConfigResetTest::withoutApplicationNameNothingIsRemoved()
{
    // An application always has a name (its program's, if none is set), so
    // the store is used here before any exists, in a process of its own.
    QFETCH(QString, organisationName);
    const QString home = m_home->path();
    const QStringList files {home + QStringLiteral("/.local/share/history.db"),
        home + QStringLiteral("/.local/share/another/app.db"), home + QStringLiteral("/.config/another/rc"),
        home + QStringLiteral("/.config/") + organisation + QStringLiteral("/sibling/global.json"),
        home + QStringLiteral("/.local/share/") + organisation + QStringLiteral("/sibling/data.db")};
    for (const QString& file : files) {
        writeFile(file, "precious");
    }

    QProcess child;
    child.setProcessChannelMode(QProcess::SeparateChannels);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("QT_MESSAGE_PATTERN"));
    child.setProcessEnvironment(environment);
    child.start(QCoreApplication::applicationFilePath(),
        {QLatin1String(resetWithoutApplicationArgument), organisationName, m_home->filePath(QStringLiteral("custom"))});
    QVERIFY(child.waitForFinished(60000));
    QCOMPARE(child.exitStatus(), QProcess::NormalExit);
    QCOMPARE(child.exitCode(), 0);

    for (const QString& file : files) {
        QVERIFY2(readFile(file) == "precious", qPrintable(file));
    }
    const QString output = QString::fromLocal8Bit(child.readAllStandardError());
    QCOMPARE(output.split(QLatin1Char('\n'), Qt::SkipEmptyParts),
        QStringList {
            QStringLiteral("Refused to reset configuration: no application name is set, nothing was removed")});
}

void ConfigResetTest::linksNamedLogsOrDumpsAreKept()
{
    const QString outside = m_home->filePath(QStringLiteral("elsewhere"));
    writeFile(outside + QStringLiteral("/logs/kept.log"), "log");
    writeFile(outside + QStringLiteral("/dumps/kept.dmp"), "dump");
    writeFile(configFolder() + QStringLiteral("/global.json"), "{}");
    QVERIFY(QFile::link(outside + QStringLiteral("/logs"), configFolder() + QStringLiteral("/logs")));
    QVERIFY(QFile::link(outside + QStringLiteral("/dumps"), configFolder() + QStringLiteral("/dumps")));
    // A dangling link with a spared name is kept as well.
    QVERIFY(QDir().mkpath(dataFolder()));
    QVERIFY(QFile::link(outside + QStringLiteral("/gone"), dataFolder() + QStringLiteral("/logs")));

    auto manager = makeManager(m_home->filePath(QStringLiteral("custom")));
    MessageCapture capture;
    manager->reset();

    QVERIFY(!QFile::exists(configFolder() + QStringLiteral("/global.json")));
    QVERIFY(QFileInfo(configFolder() + QStringLiteral("/logs")).isSymLink());
    QVERIFY(QFileInfo(configFolder() + QStringLiteral("/dumps")).isSymLink());
    QVERIFY(QFileInfo(dataFolder() + QStringLiteral("/logs")).isSymLink());
    QCOMPARE(readFile(configFolder() + QStringLiteral("/logs/kept.log")), QByteArray("log"));
    QCOMPARE(readFile(configFolder() + QStringLiteral("/dumps/kept.dmp")), QByteArray("dump"));
    QCOMPARE(capture.texts(QtWarningMsg),
        (QStringList {QStringLiteral("Failed to remove directory: %1").arg(quoted(configFolder())),
            QStringLiteral("Failed to completely reset configuration directory: %1").arg(quoted(configFolder())),
            QStringLiteral("Failed to remove directory: %1").arg(quoted(dataFolder())),
            QStringLiteral("Failed to completely reset configuration directory: %1").arg(quoted(dataFolder()))}));
}

void ConfigResetTest::otherLinksAreRemovedWithoutTheirTargets()
{
    const QString outside = m_home->filePath(QStringLiteral("elsewhere"));
    writeFile(outside + QStringLiteral("/target/file.json"), "{}");
    writeFile(outside + QStringLiteral("/single.json"), "{}");
    QVERIFY(QDir().mkpath(configFolder()));
    QVERIFY(QFile::link(outside + QStringLiteral("/target"), configFolder() + QStringLiteral("/controllers")));
    QVERIFY(QFile::link(outside + QStringLiteral("/single.json"), configFolder() + QStringLiteral("/global.json")));

    auto manager = makeManager(m_home->filePath(QStringLiteral("custom")));
    MessageCapture capture;
    manager->reset();

    QVERIFY(!QDir(configFolder()).exists());
    QCOMPARE(readFile(outside + QStringLiteral("/target/file.json")), QByteArray("{}"));
    QCOMPARE(readFile(outside + QStringLiteral("/single.json")), QByteArray("{}"));
}

void ConfigResetTest::fileThatCannotBeRemovedStopsTheReset()
{
    writeFile(configFolder() + QStringLiteral("/controllers/locked/a.json"), "{}");
    writeFile(configFolder() + QStringLiteral("/global.json"), "{}");
    const QString locked = configFolder() + QStringLiteral("/controllers/locked");
    // A folder that its owner may not write: its files cannot be unlinked.
    QVERIFY(QFile::setPermissions(locked,
        QFile::ReadOwner | QFile::ExeOwner | QFile::ReadGroup | QFile::ExeGroup | QFile::ReadOther | QFile::ExeOther));
    for (const QString& parent :
        {m_home->path() + QStringLiteral("/.config"), m_home->path() + QStringLiteral("/.config/") + organisation,
            configFolder(), configFolder() + QStringLiteral("/controllers")}) {
        QVERIFY(QFile::setPermissions(
            parent, QFile::permissions(parent) | QFile::ReadOther | QFile::ExeOther | QFile::WriteOther));
    }

    auto manager = makeManager(m_home->filePath(QStringLiteral("custom")));
    MessageCapture capture;
    {
        const UnprivilegedFileAccess unprivileged;
        manager->reset();
    }
    QVERIFY(QFile::setPermissions(locked, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));

    QVERIFY(QFile::exists(locked + QStringLiteral("/a.json")));
    const QStringList warnings = capture.texts(QtWarningMsg);
    QVERIFY2(warnings.size() >= 2, qPrintable(warnings.join(QLatin1Char('\n'))));
    QCOMPARE(
        warnings.at(0), QStringLiteral("Failed to remove file: %1").arg(quoted(locked + QStringLiteral("/a.json"))));
    QCOMPARE(warnings.at(1),
        QStringLiteral("Failed to completely reset configuration directory: %1").arg(quoted(configFolder())));
}

void ConfigResetTest::customConfigPathIsNotReset()
{
    const QString custom = m_home->filePath(QStringLiteral("custom"));
    auto manager = makeManager(custom);
    writeFile(custom + QStringLiteral("/global.json"), R"({"a": 1})");
    MessageCapture capture;
    manager->reset();
    QCOMPARE(readFile(custom + QStringLiteral("/global.json")), QByteArray(R"({"a": 1})"));
    QVERIFY(QDir(custom + QStringLiteral("/controllers")).exists());
}

// The child of withoutApplicationNameNothingIsRemoved: a reset before any
// QCoreApplication exists, with only the organisation name given.
int resetWithoutApplication(const QString& organisationName, const QString& configPath)
{
    QCoreApplication::setOrganizationName(organisationName);
    ConfigurationManager::setConfigPath(configPath);
    ConfigurationManager manager;
    manager.reset();
    return 0;
}

int main(int argc, char** argv)
{
    if (argc == 4 && qstrcmp(argv[1], resetWithoutApplicationArgument) == 0) {
        return resetWithoutApplication(QString::fromLocal8Bit(argv[2]), QString::fromLocal8Bit(argv[3]));
    }
    QCoreApplication application(argc, argv);
    ConfigResetTest test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}
#include "tst_configreset.moc"
