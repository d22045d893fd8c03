#include "ConfigurationManager.h"

#include "MessageCapture.h"

#include "TestFiles.h"
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QJsonDocument>
#include <QtCore/QStandardPaths>
#include <QtCore/QTemporaryDir>

#include <QtTest/QtTest>

#include <csignal>
#include <memory>
#include <sys/resource.h>

namespace {

void writeFile(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QCOMPARE(file.write(bytes), qint64(bytes.size()));
}

QString quoted(const QString& text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

// A manager on its own directory, made with the public construction path.
std::unique_ptr<ConfigurationManager> managerAt(const QString& dir)
{
    ConfigurationManager::setConfigPath(dir);
    auto manager = std::make_unique<ConfigurationManager>();
    ConfigurationManager::setConfigPath(QString());
    return manager;
}

} // namespace

class ConfigurationManagerTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void singletonKeepsItsDirectory();
    void defaultDirectoryIsAppConfigLocation();
    void constructionMakesTheTreeAndLoadsNothing();
    void pathsHangOffTheConfigDirectory();
    void missingParentCreatesNothingAndReportsOnUse();
    void controllerKeyKeepsColonFileDoesNot();
    void colonAndUnderscoreKeysShareOneFile();
    void controllerDotStays();
    void effectDotAndUnderscoreShareADocument();
    void cachedDocumentIsNeverReloaded();
    void failedLoadIsCachedAndSavedEmpty();
    void corruptGlobalIsEmptyAndSaveReplacesIt();
    void topLevelArrayGivesEmptyWithoutMessage();
    void badInput_data();
    void badInput();
    void invalidUtf8();
    void fiftyMegabyteDocument();
    void directoryWhereAFileShouldBe();
    void unwritableConfigDirectory();
    void saveStopsWhenTheDiskRefusesMore();
    void saveWritesQtIndentedJson();
    void saveWithNothingCachedWritesNothing();
    void saveWritesEveryCachedDocument();
    void savingAnUnusedKeyWritesAnEmptyDocument();
    void destructorSavesNothing();
    void enableCleanStartupWritesAtOnce();
    void messagesCarryTheirSourceContext();

private:
    std::unique_ptr<QTemporaryDir> m_dir;
};

void ConfigurationManagerTest::initTestCase()
{
    QStandardPaths::setTestModeEnabled(true);
    QCoreApplication::setOrganizationName(QStringLiteral("OrvantaTests"));
    QCoreApplication::setApplicationName(QStringLiteral("tst_configurationmanager"));
}

void ConfigurationManagerTest::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
}

void ConfigurationManagerTest::cleanup()
{
    m_dir.reset();
}

void ConfigurationManagerTest::singletonKeepsItsDirectory()
{
    const QString first = m_dir->filePath(QStringLiteral("first"));
    const QString second = m_dir->filePath(QStringLiteral("second"));
    ConfigurationManager::setConfigPath(first);
    ConfigurationManager* instance = ConfigurationManager::instance();
    QCOMPARE(instance->configPath(), first);
    QCOMPARE(ConfigurationManager::instance(), instance);

    ConfigurationManager::setConfigPath(second);
    QCOMPARE(ConfigurationManager::gsConfigPath, second);
    QCOMPARE(ConfigurationManager::instance(), instance);
    QCOMPARE(ConfigurationManager::instance()->configPath(), first);
    QVERIFY(!QDir(second).exists());
    ConfigurationManager::setConfigPath(QString());
}

void ConfigurationManagerTest::defaultDirectoryIsAppConfigLocation()
{
    ConfigurationManager::setConfigPath(QString());
    const QString expected = QStandardPaths::writableLocation(QStandardPaths::AppConfigLocation);
    // The configuration directory itself is made one level deep only.
    QVERIFY(QDir().mkpath(QFileInfo(expected).absolutePath()));
    ConfigurationManager manager;
    QCOMPARE(manager.configPath(), expected);
    QVERIFY(QDir(expected + QStringLiteral("/controllers")).exists());
}

void ConfigurationManagerTest::constructionMakesTheTreeAndLoadsNothing()
{
    MessageCapture capture;
    const QString dir = m_dir->filePath(QStringLiteral("config"));
    auto manager = managerAt(dir);
    for (const char* name : {"controllers", "logs", "effects", "dumps", "resources"}) {
        QVERIFY2(QDir(dir + QLatin1Char('/') + QLatin1String(name)).exists(), name);
    }
    // No document is read before its first use, so a new installation logs nothing yet.
    QVERIFY2(capture.messages().isEmpty(), qPrintable(capture.all().join(QLatin1Char('\n'))));
}

void ConfigurationManagerTest::pathsHangOffTheConfigDirectory()
{
    const QString dir = m_dir->filePath(QStringLiteral("config"));
    auto manager = managerAt(dir);
    QCOMPARE(manager->configPath(), dir);
    QCOMPARE(manager->logsPath(), dir + QStringLiteral("/logs"));
    QCOMPARE(manager->resourcesPath(), dir + QStringLiteral("/resources"));
}

void ConfigurationManagerTest::missingParentCreatesNothingAndReportsOnUse()
{
    const QString dir = m_dir->filePath(QStringLiteral("missing/config"));
    MessageCapture capture;
    auto manager = managerAt(dir);
    QVERIFY(!QDir(dir).exists());
    QVERIFY(!QDir(m_dir->filePath(QStringLiteral("missing"))).exists());
    QVERIFY(capture.messages().isEmpty());

    const QString path = dir + QStringLiteral("/global.json");
    QVERIFY(manager->AppConfigJsonObj().isEmpty());
    QCOMPARE(capture.texts(QtCriticalMsg),
        QStringList {QStringLiteral("Failed to open %1  errStr: \"No such file or directory\"").arg(quoted(path))});
    capture.clear();

    manager->setGlobalValue(QStringLiteral("a"), 1);
    manager->saveGlobalValues();
    QCOMPARE(capture.texts(QtCriticalMsg),
        QStringList {QStringLiteral("Failed to opened : %1 errStr:  \"No such file or directory\"").arg(quoted(path))});
    QVERIFY(!QFile::exists(path));
}

void ConfigurationManagerTest::controllerKeyKeepsColonFileDoesNot()
{
    const QString dir = m_dir->filePath(QStringLiteral("config"));
    auto manager = managerAt(dir);
    const QString file = dir + QStringLiteral("/controllers/x_y.json");
    writeFile(file, R"({"leds": 12})");

    MessageCapture capture;
    QJsonObject& first = manager->controllerJsonObj(QStringLiteral("x:y"));
    QCOMPARE(first.value(QStringLiteral("leds")).toInt(), 12);
    // Remove the file: the second call must not go to disk again.
    QVERIFY(QFile::remove(file));
    QJsonObject& second = manager->controllerJsonObj(QStringLiteral("x:y"));
    QCOMPARE(&first, &second);
    QCOMPARE(second.value(QStringLiteral("leds")).toInt(), 12);
    QVERIFY(capture.messages().isEmpty());

    second.insert(QStringLiteral("leds"), 13);
    manager->saveControllerJsonObj(QStringLiteral("x:y"));
    QCOMPARE(QJsonDocument::fromJson(readFile(file)).object().value(QStringLiteral("leds")).toInt(), 13);
    QVERIFY(!QFile::exists(dir + QStringLiteral("/controllers/x:y.json")));
}

void ConfigurationManagerTest::colonAndUnderscoreKeysShareOneFile()
{
    const QString dir = m_dir->filePath(QStringLiteral("config"));
    auto manager = managerAt(dir);
    const QString file = dir + QStringLiteral("/controllers/x_y.json");
    writeFile(file, R"({"v": 1})");

    QJsonObject& colon = manager->controllerJsonObj(QStringLiteral("x:y"));
    QJsonObject& underscore = manager->controllerJsonObj(QStringLiteral("x_y"));
    // Two cache entries, one file: the last save wins.
    QVERIFY(&colon != &underscore);
    colon.insert(QStringLiteral("v"), 2);
    underscore.insert(QStringLiteral("v"), 3);
    manager->saveControllerJsonObj(QStringLiteral("x:y"));
    QCOMPARE(QJsonDocument::fromJson(readFile(file)).object().value(QStringLiteral("v")).toInt(), 2);
    manager->saveControllerJsonObj(QStringLiteral("x_y"));
    QCOMPARE(QJsonDocument::fromJson(readFile(file)).object().value(QStringLiteral("v")).toInt(), 3);
}

void ConfigurationManagerTest::controllerDotStays()
{
    const QString dir = m_dir->filePath(QStringLiteral("config"));
    auto manager = managerAt(dir);
    manager->controllerJsonObj(QStringLiteral("strip.v2")).insert(QStringLiteral("k"), 1);
    manager->saveControllerJsonObj(QStringLiteral("strip.v2"));
    QVERIFY(QFile::exists(dir + QStringLiteral("/controllers/strip.v2.json")));
    QVERIFY(!QFile::exists(dir + QStringLiteral("/controllers/strip_v2.json")));
}

void ConfigurationManagerTest::effectDotAndUnderscoreShareADocument()
{
    const QString dir = m_dir->filePath(QStringLiteral("config"));
    auto manager = managerAt(dir);
    QJsonObject& dotted = manager->effectJsonObj(QStringLiteral("my.effect"));
    QJsonObject& underscored = manager->effectJsonObj(QStringLiteral("my_effect"));
    QCOMPARE(&dotted, &underscored);
    dotted.insert(QStringLiteral("speed"), 4);
    manager->saveEffectJsonObj(QStringLiteral("my_effect"));
    const QString file = dir + QStringLiteral("/effects/my_effect.json");
    QCOMPARE(QJsonDocument::fromJson(readFile(file)).object().value(QStringLiteral("speed")).toInt(), 4);
}

void ConfigurationManagerTest::cachedDocumentIsNeverReloaded()
{
    const QString dir = m_dir->filePath(QStringLiteral("config"));
    auto manager = managerAt(dir);
    writeFile(dir + QStringLiteral("/global.json"), R"({"a": 1})");
    QCOMPARE(manager->globalValue(QStringLiteral("a")).toInt(), 1);
    writeFile(dir + QStringLiteral("/global.json"), R"({"a": 2})");
    QCOMPARE(manager->globalValue(QStringLiteral("a")).toInt(), 1);
}

void ConfigurationManagerTest::failedLoadIsCachedAndSavedEmpty()
{
    const QString dir = m_dir->filePath(QStringLiteral("config"));
    auto manager = managerAt(dir);
    const QString file = dir + QStringLiteral("/effects/late.json");
    {
        MessageCapture capture;
        QVERIFY(manager->effectJsonObj(QStringLiteral("late")).isEmpty());
        QCOMPARE(capture.texts(QtCriticalMsg).size(), 1);
        QVERIFY(capture.texts(QtCriticalMsg).first().startsWith(QStringLiteral("Failed to open ")));
    }
    writeFile(file, R"({"later": true})");
    MessageCapture capture;
    QVERIFY(manager->effectJsonObj(QStringLiteral("late")).isEmpty());
    QVERIFY(capture.messages().isEmpty());
    manager->save();
    QCOMPARE(QJsonDocument::fromJson(readFile(file)).object(), QJsonObject());
}

void ConfigurationManagerTest::corruptGlobalIsEmptyAndSaveReplacesIt()
{
    const QString dir = m_dir->filePath(QStringLiteral("config"));
    auto manager = managerAt(dir);
    const QString file = dir + QStringLiteral("/global.json");
    writeFile(file, R"({"a": 1, "b": )");

    MessageCapture capture;
    QVERIFY(manager->AppConfigJsonObj().isEmpty());
    QCOMPARE(capture.texts(QtCriticalMsg),
        QStringList {QStringLiteral("Failed to parse %1 \"unterminated object\"").arg(quoted(file))});

    manager->setGlobalValue(QStringLiteral("fresh"), 1);
    manager->saveGlobalValues();
    QCOMPARE(readFile(file), QJsonDocument(QJsonObject {{QStringLiteral("fresh"), 1}}).toJson());
}

void ConfigurationManagerTest::topLevelArrayGivesEmptyWithoutMessage()
{
    const QString dir = m_dir->filePath(QStringLiteral("config"));
    auto manager = managerAt(dir);
    writeFile(dir + QStringLiteral("/global.json"), R"([1, 2, {"a": 3}])");
    MessageCapture capture;
    QVERIFY(manager->AppConfigJsonObj().isEmpty());
    QVERIFY2(capture.messages().isEmpty(), qPrintable(capture.all().join(QLatin1Char('\n'))));
}

void ConfigurationManagerTest::badInput_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("parseError");
    QTest::newRow("truncated") << QByteArray(R"({"colour": {"r": 255, "g")") << "unterminated string";
    QTest::newRow("empty file") << QByteArray() << "illegal value";
    QByteArray garbage;
    for (int i = 0; i < 4096; ++i) {
        garbage.append(char((i * 7919 + 13) % 256));
    }
    QTest::newRow("binary garbage") << garbage << QString();
    QTest::newRow("nul bytes") << QByteArray(64, '\0') << QString();
    QTest::newRow("trailing garbage") << QByteArray(R"({"a": 1} trailing)") << "garbage at the end of the document";
}

void ConfigurationManagerTest::badInput()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, parseError);
    const QString dir = m_dir->filePath(QStringLiteral("config"));
    auto manager = managerAt(dir);
    const QString file = dir + QStringLiteral("/controllers/bad.json");
    writeFile(file, content);

    MessageCapture capture;
    QVERIFY(manager->controllerJsonObj(QStringLiteral("bad")).isEmpty());
    const QStringList critical = capture.texts(QtCriticalMsg);
    QCOMPARE(critical.size(), 1);
    const QString prefix = QStringLiteral("Failed to parse %1 ").arg(quoted(file));
    QVERIFY2(critical.first().startsWith(prefix), qPrintable(critical.first()));
    if (!parseError.isEmpty()) {
        QCOMPARE(critical.first(), prefix + quoted(parseError));
    }
    // The other documents are untouched by one bad file.
    writeFile(dir + QStringLiteral("/controllers/good.json"), R"({"ok": true})");
    QVERIFY(manager->controllerJsonObj(QStringLiteral("good")).value(QStringLiteral("ok")).toBool());
}

void ConfigurationManagerTest::invalidUtf8()
{
    const QString dir = m_dir->filePath(QStringLiteral("config"));
    auto manager = managerAt(dir);
    const QString file = dir + QStringLiteral("/global.json");
    writeFile(file, QByteArray("{\"name\": \"a\xC3\x28\xFF\xFE b\"}"));
    MessageCapture capture;
    QVERIFY(manager->AppConfigJsonObj().isEmpty());
    QCOMPARE(capture.texts(QtCriticalMsg),
        QStringList {QStringLiteral("Failed to parse %1 \"invalid UTF8 string\"").arg(quoted(file))});
}

void ConfigurationManagerTest::fiftyMegabyteDocument()
{
    const QString dir = m_dir->filePath(QStringLiteral("config"));
    auto manager = managerAt(dir);
    const QString file = dir + QStringLiteral("/controllers/huge.json");
    QByteArray bytes;
    bytes.reserve(52 * 1024 * 1024);
    bytes.append("{\"leds\": [");
    const QByteArray led = "{\"id\": 123456, \"r\": 255, \"g\": 128, \"b\": 0, \"name\": \"led-padding-text\"}";
    int count = 0;
    while (bytes.size() < 50 * 1024 * 1024) {
        if (count++) {
            bytes.append(',');
        }
        bytes.append(led);
    }
    bytes.append("], \"last\": \"end\"}");
    writeFile(file, bytes);

    MessageCapture capture;
    QJsonObject& document = manager->controllerJsonObj(QStringLiteral("huge"));
    QVERIFY2(capture.messages().isEmpty(), qPrintable(capture.all().join(QLatin1Char('\n'))));
    QCOMPARE(document.value(QStringLiteral("last")).toString(), QStringLiteral("end"));
    QCOMPARE(document.value(QStringLiteral("leds")).toArray().size(), count);

    manager->saveControllerJsonObj(QStringLiteral("huge"));
    QVERIFY(capture.messages().isEmpty());
    QCOMPARE(readFile(file), QJsonDocument(document).toJson());
}

void ConfigurationManagerTest::directoryWhereAFileShouldBe()
{
    const QString dir = m_dir->filePath(QStringLiteral("config"));
    auto manager = managerAt(dir);
    const QString path = dir + QStringLiteral("/effects/folder.json");
    QVERIFY(QDir().mkpath(path));
    QVERIFY(QFile::exists(path + QStringLiteral("/..")));

    MessageCapture capture;
    QVERIFY(manager->effectJsonObj(QStringLiteral("folder")).isEmpty());
    QCOMPARE(capture.texts(QtCriticalMsg).size(), 1);
    QVERIFY(capture.texts(QtCriticalMsg)
                .first()
                .startsWith(QStringLiteral("Failed to open %1  errStr:").arg(quoted(path))));
    capture.clear();

    manager->setEffectJsonValue(QStringLiteral("folder"), QStringLiteral("s"), QStringLiteral("k"), 1);
    manager->saveEffectJsonObj(QStringLiteral("folder"));
    QCOMPARE(capture.texts(QtCriticalMsg).size(), 1);
    QVERIFY(capture.texts(QtCriticalMsg)
                .first()
                .startsWith(QStringLiteral("Failed to opened : %1 errStr:  ").arg(quoted(path))));
    QVERIFY(QFileInfo(path).isDir());
}

void ConfigurationManagerTest::unwritableConfigDirectory()
{
    // Root ignores permission bits, so the directory is made unreachable by
    // placing it below a regular file.
    const QString blocker = m_dir->filePath(QStringLiteral("plain-file"));
    writeFile(blocker, "not a directory");
    const QString dir = blocker + QStringLiteral("/config");

    MessageCapture capture;
    auto manager = managerAt(dir);
    QVERIFY(!QFileInfo(dir).exists());
    QVERIFY(capture.messages().isEmpty());

    manager->setAppConfig(QStringLiteral("devUpdateInterval"), 20);
    QCOMPARE(manager->appConfig(QStringLiteral("devUpdateInterval")).toInt(), 20);
    const QStringList critical = capture.texts(QtCriticalMsg);
    QCOMPARE(critical.size(), 2);
    QVERIFY(critical.at(0).startsWith(
        QStringLiteral("Failed to open %1  errStr:").arg(quoted(dir + QStringLiteral("/global.json")))));
    QVERIFY(critical.at(1).startsWith(
        QStringLiteral("Failed to opened : %1 errStr:  ").arg(quoted(dir + QStringLiteral("/global.json")))));
    QCOMPARE(readFile(blocker), QByteArray("not a directory"));
}

void ConfigurationManagerTest::saveStopsWhenTheDiskRefusesMore()
{
    const QString dir = m_dir->filePath(QStringLiteral("config"));
    auto manager = managerAt(dir);
    QJsonObject& document = manager->controllerJsonObj(QStringLiteral("big"));
    for (int i = 0; i < 4000; ++i) {
        document.insert(QStringLiteral("key%1").arg(i), QStringLiteral("some value to make the document large"));
    }
    const qint64 documentSize = QJsonDocument(document).toJson().size();
    QVERIFY(documentSize > 64 * 1024);

    // A file-size limit makes the kernel refuse the write part-way, as a full
    // disk would, without needing a file system of our own.
    rlimit previous {};
    QCOMPARE(getrlimit(RLIMIT_FSIZE, &previous), 0);
    const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit limited = previous;
    limited.rlim_cur = 16 * 1024;
    QCOMPARE(setrlimit(RLIMIT_FSIZE, &limited), 0);

    MessageCapture capture;
    manager->saveControllerJsonObj(QStringLiteral("big"));

    QCOMPARE(setrlimit(RLIMIT_FSIZE, &previous), 0);
    std::signal(SIGXFSZ, previousHandler);

    const QString file = dir + QStringLiteral("/controllers/big.json");
    const QStringList critical = capture.texts(QtCriticalMsg);
    QCOMPARE(critical.size(), 1);
    QVERIFY2(critical.first().startsWith(QStringLiteral("Failed to write : %1 errStr:  ").arg(quoted(file))),
        qPrintable(critical.first()));
    QVERIFY(QFileInfo(file).size() <= 16 * 1024);

    // Once the disk takes data again, the same document saves in full.
    capture.clear();
    manager->saveControllerJsonObj(QStringLiteral("big"));
    QVERIFY(capture.messages().isEmpty());
    QCOMPARE(QFileInfo(file).size(), documentSize);
}

void ConfigurationManagerTest::saveWritesQtIndentedJson()
{
    const QString dir = m_dir->filePath(QStringLiteral("config"));
    auto manager = managerAt(dir);
    manager->setGlobalValue(QStringLiteral("b.c"), QStringLiteral("x"));
    manager->setGlobalValue(QStringLiteral("a"), 1);
    manager->saveGlobalValues();
    const QByteArray expected = "{\n    \"a\": 1,\n    \"b\": {\n        \"c\": \"x\"\n    }\n}\n";
    QCOMPARE(readFile(dir + QStringLiteral("/global.json")), expected);
    manager->saveAppConfigJsonObj();
    QCOMPARE(readFile(dir + QStringLiteral("/global.json")), expected);
}

void ConfigurationManagerTest::saveWithNothingCachedWritesNothing()
{
    const QString dir = m_dir->filePath(QStringLiteral("config"));
    auto manager = managerAt(dir);
    MessageCapture capture;
    manager->save();
    QVERIFY(capture.messages().isEmpty());
    QStringList files;
    QDirIterator it(dir, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        files << it.next();
    }
    QVERIFY2(files.isEmpty(), qPrintable(files.join(QLatin1Char(' '))));
}

void ConfigurationManagerTest::saveWritesEveryCachedDocument()
{
    const QString dir = m_dir->filePath(QStringLiteral("config"));
    auto manager = managerAt(dir);
    manager->setGlobalValue(QStringLiteral("g"), 1);
    manager->controllerJsonObj(QStringLiteral("c1")).insert(QStringLiteral("c"), 2);
    manager->effectJsonObj(QStringLiteral("e.1")).insert(QStringLiteral("e"), 3);
    manager->save();
    QCOMPARE(QJsonDocument::fromJson(readFile(dir + QStringLiteral("/global.json"))).object(),
        (QJsonObject {{QStringLiteral("g"), 1}}));
    QCOMPARE(QJsonDocument::fromJson(readFile(dir + QStringLiteral("/controllers/c1.json"))).object(),
        (QJsonObject {{QStringLiteral("c"), 2}}));
    QCOMPARE(QJsonDocument::fromJson(readFile(dir + QStringLiteral("/effects/e_1.json"))).object(),
        (QJsonObject {{QStringLiteral("e"), 3}}));
}

void ConfigurationManagerTest::savingAnUnusedKeyWritesAnEmptyDocument()
{
    const QString dir = m_dir->filePath(QStringLiteral("config"));
    const QString file = dir + QStringLiteral("/controllers/existing.json");
    auto manager = managerAt(dir);
    writeFile(file, R"({"keep": "me"})");
    manager->saveControllerJsonObj(QStringLiteral("existing"));
    QCOMPARE(readFile(file), QByteArray("{\n}\n"));
}

void ConfigurationManagerTest::destructorSavesNothing()
{
    const QString dir = m_dir->filePath(QStringLiteral("config"));
    {
        auto manager = managerAt(dir);
        manager->setGlobalValue(QStringLiteral("saved"), 1);
        manager->saveGlobalValues();
        manager->setGlobalValue(QStringLiteral("unsaved"), 2);
    }
    MessageCapture capture;
    auto next = managerAt(dir);
    QCOMPARE(next->globalValue(QStringLiteral("saved")).toInt(), 1);
    QCOMPARE(next->globalValue(QStringLiteral("unsaved")).type(), QJsonValue::Undefined);
    QVERIFY(capture.messages().isEmpty());
}

void ConfigurationManagerTest::enableCleanStartupWritesAtOnce()
{
    const QString dir = m_dir->filePath(QStringLiteral("config"));
    auto manager = managerAt(dir);
    writeFile(dir + QStringLiteral("/global.json"), R"({"devUpdateInterval": 40})");
    manager->EnableCleanStartup();
    const QJsonObject onDisk = QJsonDocument::fromJson(readFile(dir + QStringLiteral("/global.json"))).object();
    QCOMPARE(onDisk.value(QStringLiteral("cleanStartup")), QJsonValue(true));
    QCOMPARE(onDisk.value(QStringLiteral("devUpdateInterval")).toInt(), 40);
}

namespace {

struct LoggedWithContext
{
    QString text;
    QString file;
    int line = 0;
    QString function;
};

QList<LoggedWithContext> s_logged;

void contextHandler(QtMsgType, const QMessageLogContext& context, const QString& text)
{
    s_logged.append({text, QString::fromUtf8(context.file), context.line, QString::fromUtf8(context.function)});
}

} // namespace

void ConfigurationManagerTest::messagesCarryTheirSourceContext()
{
    // The application's handler learns where each message comes from, in
    // release builds as well.
    const QString dir = m_dir->filePath(QStringLiteral("config"));
    auto manager = managerAt(dir);
    s_logged.clear();
    const QtMessageHandler previous = qInstallMessageHandler(contextHandler);
    manager->AppConfigJsonObj();
    qInstallMessageHandler(previous);

    QCOMPARE(s_logged.size(), 1);
    const LoggedWithContext logged = s_logged.first();
    QVERIFY(logged.text.startsWith(QStringLiteral("Failed to open ")));
    QVERIFY2(!logged.function.isEmpty(), "no function in the message context");
    QCOMPARE(QFileInfo(logged.file).fileName(), QStringLiteral("ConfigurationManager.cpp"));
    // The line named is the one that logs this text, in the library's source.
    QFile source(QStringLiteral(ORVANTA_SOURCE_DIR "/src/ConfigurationManager.cpp"));
    QVERIFY(source.open(QIODevice::ReadOnly | QIODevice::Text));
    const QList<QByteArray> lines = source.readAll().split('\n');
    QVERIFY2(logged.line > 0 && logged.line <= lines.size(), qPrintable(QString::number(logged.line)));
    QVERIFY2(lines.at(logged.line - 1).contains("\"Failed to open\""), lines.at(logged.line - 1).constData());
    // The function named is one whose name stands in that file.
    QString name = logged.function.left(logged.function.indexOf(QLatin1Char('(')));
    name = name.mid(name.lastIndexOf(QLatin1Char(':')) + 1).section(QLatin1Char(' '), -1);
    QVERIFY2(!name.isEmpty(), qPrintable(logged.function));
    source.seek(0);
    QVERIFY2(source.readAll().contains(name.toUtf8() + '('), qPrintable(logged.function));
}

QTEST_GUILESS_MAIN(ConfigurationManagerTest)
#include "tst_configurationmanager.moc"
