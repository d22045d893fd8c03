#include "FeedbackManager.h"
#include "HardwareInfo.h"

#include "FeedbackTestSupport.h"
#include "MessageCapture.h"
#include "fakes/FakeMachineSources.h"

#include <QtCore/QRegularExpression>

using namespace FeedbackTest;

namespace {

constexpr std::uint64_t kGiB = 1024ull * 1024ull * 1024ull;

const QStringList kDirectoryEntries = {
    QStringLiteral("controllers/"),
    QStringLiteral("dumps/"),
    QStringLiteral("effects/"),
    QStringLiteral("logs/"),
    QStringLiteral("logs/devices/"),
    QStringLiteral("logs/usrOptions/"),
    QStringLiteral("capturerScreenshot/"),
};

/// A machine whose facts are known to the byte.
void describeMachine(Fakes::FakeMachine& machine)
{
    machine.memory.memory = {4 * kGiB, 16 * kGiB};
    machine.disks.driveList = {"/", "/home"};
    machine.disks.spaces["/"] = {10 * kGiB, 100 * kGiB};
    machine.disks.spaces["/home"] = {kGiB, 2 * kGiB};
    machine.processor.name = "Test CPU @ 3.00GHz";
    machine.processor.registers = {0x000306C3u, 0u, 0u, 0x0F8BFBFFu};
    machine.graphicsAdapters.script = {{S_OK, {"Adapter One", false}}, {S_OK, {"Adapter Two", false}}};
    machine.screens.sizes = {{1920, 1080}, {1920, 1080}, {2560, 1440}};
    machine.networkInterfaces.entries = {{true, "00:00:00:00:00:00"}, {false, "52:54:00:AB:CD:01"}};
}

/// Files name0..name<count-1> in a folder, each a second newer than the one before.
QStringList makeTimedFiles(const QString& folder, const QString& prefix, const QString& suffix, int count)
{
    QStringList newestFirst;
    const QDateTime base = QDateTime::currentDateTime().addDays(-1);
    for (int index = 0; index < count; ++index) {
        const QString name = QStringLiteral("%1%2%3").arg(prefix).arg(index, 3, 10, QLatin1Char('0')).arg(suffix);
        if (!writeFile(folder + QLatin1Char('/') + name, name.toUtf8(), base.addSecs(index))) {
            return {};
        }
        newestFirst.prepend(name);
    }
    return newestFirst;
}

QStringList entriesUnder(const QStringList& names, const QString& folder)
{
    QStringList found;
    for (const QString& name : names) {
        if (name.startsWith(folder + QLatin1Char('/')) && !name.endsWith(QLatin1Char('/'))
            && !name.mid(folder.size() + 1).contains(QLatin1Char('/'))) {
            found << name;
        }
    }
    return found;
}

} // namespace

class FeedbackManagerTest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void constructorStoresMachineFactsAndSaves();
    void zipNameHasAddressProcessorIdAndTimeStamp();
    void constructorReadsContactText();
    void emptyContactWritesDotTxtAndZipHasNoMessageFile();
    void shorterMessageLeavesTailOfLongerOne();
    void contactWithPathSeparatorStaysInConfigFolder();
    void hostileContactTextNamesNoOutsideFile_data();
    void hostileContactTextNamesNoOutsideFile();
    void linkLoopsAreNotFollowed();
    void linkOutOfItsFolderIsLeftOut();
    void contactRenameCarriesMessageFile();
    void zipHasEntriesInOrderWithContents();
    void newestFilesUpToLimit_data();
    void newestFilesUpToLimit();
    void devicesLogsDoNotCountTowardsLogs();
    void missingFolderGivesOnlyDirectoryEntry();
    void fileNotMatchingFilterIsNeverAdded();
    void globalJsonInZipHoldsThisObjectsFacts();
    void secondZipReplacesFirst();
    void zipPassesIndependentTest();
    void consoleApplicationHasNoScreens();

private:
    std::unique_ptr<ConfigSandbox> m_sandbox;
    std::unique_ptr<Fakes::FakeMachine> m_machine;
    std::unique_ptr<Fakes::ScopedFakeMachine> m_machineScope;
};

void FeedbackManagerTest::init()
{
    m_sandbox = std::make_unique<ConfigSandbox>();
    QVERIFY(m_sandbox->isValid());
    m_machine = std::make_unique<Fakes::FakeMachine>();
    describeMachine(*m_machine);
    m_machineScope = std::make_unique<Fakes::ScopedFakeMachine>(*m_machine);
}

void FeedbackManagerTest::cleanup()
{
    m_machineScope.reset();
    m_machine.reset();
    m_sandbox.reset();
}

void FeedbackManagerTest::constructorStoresMachineFactsAndSaves()
{
    FeedbackManager feedback;
    const QJsonObject global
        = QJsonDocument::fromJson(readFile(m_sandbox->filePath(QStringLiteral("global.json")))).object();
    const QJsonObject sysInfo = global.value(QStringLiteral("sysInfo")).toObject();
    QCOMPARE(sysInfo.size(), 8);
    QCOMPARE(sysInfo.value(QStringLiteral("memory")).toString(), QStringLiteral("Available 4.00 GB / Total 16.00 GB"));
    QCOMPARE(sysInfo.value(QStringLiteral("cpuType")).toString(), QStringLiteral("Test CPU @ 3.00GHz"));
    QCOMPARE(sysInfo.value(QStringLiteral("cpuId")).toString(), QStringLiteral("F8BFBFF306C3"));
    QCOMPARE(sysInfo.value(QStringLiteral("osVersion")).toString(), HardwareInfo::osVersion());
    QCOMPARE(sysInfo.value(QStringLiteral("dCard")).toString(), QStringLiteral("Adapter One\nAdapter Two"));
    QCOMPARE(sysInfo.value(QStringLiteral("screen")).toString(),
        QString::fromUtf8("(1920 X 1080) X 2\xE9\x8A\x86?(2560 X 1440) X 1"));
    QCOMPARE(sysInfo.value(QStringLiteral("disk")).toString(),
        QStringLiteral("/ 10.0G/100.0G       /home 1.0G/2.0G       "));
    QCOMPARE(sysInfo.value(QStringLiteral("mac")).toString(), QStringLiteral("525400ABCD01"));
    QCOMPARE(feedback.userMsg(), QString());
}

void FeedbackManagerTest::zipNameHasAddressProcessorIdAndTimeStamp()
{
    const QDateTime before = QDateTime::currentDateTime().addSecs(-1);
    FeedbackManager feedback;
    const QDateTime after = QDateTime::currentDateTime().addSecs(1);
    const QString name = feedback.feedbackFileName();
    const QString prefix = m_sandbox->path() + QStringLiteral("/Orvanta_525400ABCD01F8BFBFF306C3_");
    QVERIFY2(name.startsWith(prefix), qPrintable(name));
    QVERIFY(name.endsWith(QStringLiteral(".zip")));
    const QString stamp = name.mid(prefix.size(), name.size() - prefix.size() - 4);
    const QDateTime taken = QDateTime::fromString(stamp, QStringLiteral("yyyy-MM-dd_hh-mm-ss"));
    QVERIFY2(taken.isValid(), qPrintable(stamp));
    QVERIFY(taken >= before.addMSecs(-before.time().msec()) && taken <= after);
    QVERIFY(!QFile::exists(name)); // made only by zipFeedbackFile()
}

void FeedbackManagerTest::constructorReadsContactText()
{
    ConfigurationManager::instance()->setGlobalValue(QStringLiteral("userContactInfo"), QStringLiteral("alice"));
    QCOMPARE(FeedbackManager().userContactInfo(), QStringLiteral("alice"));
    ConfigurationManager::instance()->setGlobalValue(QStringLiteral("userContactInfo"), 42);
    QCOMPARE(FeedbackManager().userContactInfo(), QString());
}

void FeedbackManagerTest::emptyContactWritesDotTxtAndZipHasNoMessageFile()
{
    FeedbackManager feedback;
    QCOMPARE(feedback.userContactInfo(), QString());
    feedback.setUserMsg(QStringLiteral("It flickers"));
    QCOMPARE(readFile(m_sandbox->filePath(QStringLiteral(".txt"))), QByteArray("It flickers"));
    const QJsonObject listing = readZip(feedback.zipFeedbackFile());
    const QStringList names = zipEntryNames(listing);
    QVERIFY(!names.isEmpty());
    QVERIFY(!names.contains(QStringLiteral(".txt")));
    for (const QString& name : names) {
        QVERIFY2(!name.endsWith(QStringLiteral(".txt")), qPrintable(name));
    }
}

void FeedbackManagerTest::shorterMessageLeavesTailOfLongerOne()
{
    FeedbackManager feedback;
    feedback.setUserContactInfo(QStringLiteral("carol"));
    feedback.setUserMsg(QStringLiteral("abcdef"));
    feedback.setUserMsg(QStringLiteral("xy"));
    QCOMPARE(feedback.userMsg(), QStringLiteral("xy"));
    QCOMPARE(readFile(m_sandbox->filePath(QStringLiteral("carol.txt"))), QByteArray("xycdef"));

    // UTF-8, no byte-order mark, no line end added.
    feedback.setUserMsg(QString::fromUtf8("\xC3\xA9t\xC3\xA9 \xE7\x81\xAF"));
    QCOMPARE(readFile(m_sandbox->filePath(QStringLiteral("carol.txt"))), QByteArray("\xC3\xA9t\xC3\xA9 \xE7\x81\xAF"));
}

void FeedbackManagerTest::contactWithPathSeparatorStaysInConfigFolder()
{
    FeedbackManager feedback;
    feedback.setUserContactInfo(QStringLiteral("no/such"));
    MessageCapture capture;
    feedback.setUserMsg(QStringLiteral("hello"));
    QCOMPARE(capture.texts(QtWarningMsg), QStringList());
    QVERIFY(!QFileInfo::exists(m_sandbox->filePath(QStringLiteral("no"))));
    QCOMPARE(readFile(m_sandbox->filePath(QStringLiteral("no_such.txt"))), QByteArray("hello"));
    QCOMPARE(feedback.userMsg(), QStringLiteral("hello"));
    QCOMPARE(feedback.userContactInfo(), QStringLiteral("no/such"));
}

void FeedbackManagerTest::hostileContactTextNamesNoOutsideFile_data()
{
    QTest::addColumn<QString>("contact");
    QTest::addColumn<QString>("fileName");
    QTest::newRow("parent") << QStringLiteral("../secret") << QStringLiteral("___secret.txt");
    QTest::newRow("deeper") << QStringLiteral("../../etc/x") << QStringLiteral("______etc_x.txt");
    QTest::newRow("backslash") << QStringLiteral("..\\secret") << QStringLiteral("___secret.txt");
    QTest::newRow("absolute") << QStringLiteral("/tmp/abs") << QStringLiteral("_tmp_abs.txt");
    QTest::newRow("drive") << QStringLiteral("C:secret") << QStringLiteral("C_secret.txt");
    QTest::newRow("nul") << QString::fromUtf8("a\0b", 3) << QStringLiteral("a_b.txt");
    QTest::newRow("control") << QStringLiteral("a\nb\tc\x7f") << QStringLiteral("a_b_c_.txt");
    QTest::newRow("two dots") << QStringLiteral("..") << QStringLiteral("__.txt");
    QTest::newRow("ordinary") << QStringLiteral("Zoë +49 30 1234, zoe@example.org")
                              << QStringLiteral("Zoë +49 30 1234, zoe@example.org.txt");
}

void FeedbackManagerTest::hostileContactTextNamesNoOutsideFile()
{
    QFETCH(QString, contact);
    QFETCH(QString, fileName);
    const QString outside = QFileInfo(m_sandbox->path()).absolutePath() + QStringLiteral("/secret.txt");
    QFile::remove(outside);
    FeedbackManager feedback;
    feedback.setUserContactInfo(contact);
    feedback.setUserMsg(QStringLiteral("words"));
    QVERIFY(!QFile::exists(outside));
    QCOMPARE(QDir(m_sandbox->path()).entryList({QStringLiteral("*.txt")}, QDir::Files | QDir::Hidden),
        QStringList {fileName});
    QCOMPARE(readFile(m_sandbox->filePath(fileName)), QByteArray("words"));
    QCOMPARE(feedback.userContactInfo(), contact);
    QCOMPARE(ConfigurationManager::instance()->globalValue(QStringLiteral("userContactInfo")).toString(), contact);

    const QStringList names = zipEntryNames(readZip(feedback.zipFeedbackFile()));
    QVERIFY2(names.contains(fileName), qPrintable(names.join(QLatin1Char(','))));
    for (const QString& name : names) {
        QVERIFY2(!name.startsWith(QLatin1Char('/')) && !name.contains(QStringLiteral("..")), qPrintable(name));
    }
}

void FeedbackManagerTest::linkLoopsAreNotFollowed()
{
    // Links that lead back up, or from one walked folder into the other,
    // would make the walk pack the configuration folder, earlier zips and
    // the zip being written over and over.
    QVERIFY(writeFile(m_sandbox->filePath(QStringLiteral("controllers/strip.json")), "{}"));
    QVERIFY(writeFile(m_sandbox->filePath(QStringLiteral("effects/wave.json")), "{}"));
    QVERIFY(QFile::link(QStringLiteral(".."), m_sandbox->filePath(QStringLiteral("controllers/loop"))));
    QVERIFY(QFile::link(QStringLiteral("."), m_sandbox->filePath(QStringLiteral("effects/self"))));
    QVERIFY(QFile::link(QStringLiteral("../effects"), m_sandbox->filePath(QStringLiteral("controllers/across"))));
    QVERIFY(QFile::link(QStringLiteral("../controllers"), m_sandbox->filePath(QStringLiteral("effects/back"))));
    FeedbackManager feedback;
    QVERIFY(QFile::link(feedback.feedbackFileName(), m_sandbox->filePath(QStringLiteral("effects/zip"))));
    const QString zip = feedback.zipFeedbackFile();
    QVERIFY(QFileInfo(zip).size() < 1024 * 1024);
    const QStringList names = zipEntryNames(readZip(zip));
    QCOMPARE(names.filter(QRegularExpression(QStringLiteral("^(controllers|effects)/."))),
        (QStringList {QStringLiteral("controllers/strip.json"), QStringLiteral("effects/wave.json")}));
}

void FeedbackManagerTest::linkOutOfItsFolderIsLeftOut()
{
    QTemporaryDir outside;
    QVERIFY(writeFile(outside.filePath(QStringLiteral("private.log")), "private"));
    QVERIFY(writeFile(outside.filePath(QStringLiteral("private.json")), "{\"private\":1}"));
    QVERIFY(writeFile(m_sandbox->filePath(QStringLiteral("logs/app.log")), "app"));
    QVERIFY(writeFile(m_sandbox->filePath(QStringLiteral("controllers/strip.json")), "{}"));
    QVERIFY(QFile::link(
        outside.filePath(QStringLiteral("private.log")), m_sandbox->filePath(QStringLiteral("logs/leak.log"))));
    QVERIFY(QFile::link(outside.path(), m_sandbox->filePath(QStringLiteral("controllers/elsewhere"))));
    QVERIFY(QFile::link(
        outside.filePath(QStringLiteral("private.json")), m_sandbox->filePath(QStringLiteral("effects/leak.json"))));
    // Within its own folder a link stays a file like any other.
    QVERIFY(QFile::link(QStringLiteral("app.log"), m_sandbox->filePath(QStringLiteral("logs/alias.log"))));
    FeedbackManager feedback;
    const QJsonObject listing = readZip(feedback.zipFeedbackFile());
    const QStringList names = zipEntryNames(listing);
    QVERIFY2(!names.contains(QStringLiteral("logs/leak.log")), qPrintable(names.join(QLatin1Char(','))));
    QVERIFY(names.filter(QStringLiteral("elsewhere")).isEmpty());
    QVERIFY(!names.contains(QStringLiteral("effects/leak.json")));
    QVERIFY(names.contains(QStringLiteral("logs/app.log")));
    QCOMPARE(zipEntryContent(listing, QStringLiteral("logs/alias.log")), QByteArray("app"));
    QVERIFY(names.contains(QStringLiteral("controllers/strip.json")));
}

void FeedbackManagerTest::contactRenameCarriesMessageFile()
{
    FeedbackManager feedback;
    feedback.setUserMsg(QStringLiteral("first words"));
    QVERIFY(QFile::exists(m_sandbox->filePath(QStringLiteral(".txt"))));
    feedback.setUserContactInfo(QStringLiteral("bob@example.org"));
    QVERIFY(!QFile::exists(m_sandbox->filePath(QStringLiteral(".txt"))));
    QCOMPARE(readFile(m_sandbox->filePath(QStringLiteral("bob@example.org.txt"))), QByteArray("first words"));
    QCOMPARE(feedback.userContactInfo(), QStringLiteral("bob@example.org"));

    const QJsonObject global
        = QJsonDocument::fromJson(readFile(m_sandbox->filePath(QStringLiteral("global.json")))).object();
    QCOMPARE(global.value(QStringLiteral("userContactInfo")).toString(), QStringLiteral("bob@example.org"));

    // No message file yet: the rename has nothing to carry and nothing appears.
    feedback.setUserContactInfo(QStringLiteral("dave"));
    feedback.setUserContactInfo(QStringLiteral("erin"));
    QVERIFY(QFile::exists(m_sandbox->filePath(QStringLiteral("erin.txt"))));
    QVERIFY(!QFile::exists(m_sandbox->filePath(QStringLiteral("dave.txt"))));
}

void FeedbackManagerTest::zipHasEntriesInOrderWithContents()
{
    const QString root = m_sandbox->path();
    QVERIFY(writeFile(root + QStringLiteral("/controllers/desk.json"), "{\"a\":1}"));
    QVERIFY(writeFile(root + QStringLiteral("/controllers/.hidden"), "hidden"));
    QVERIFY(writeFile(root + QStringLiteral("/controllers/sub/deep.json"), "{\"deep\":true}"));
    QVERIFY(writeFile(root + QStringLiteral("/effects/rainbow.json"), "{\"speed\":3}"));
    const QDateTime old = QDateTime::currentDateTime().addDays(-2);
    QVERIFY(writeFile(root + QStringLiteral("/logs/a.log"), "older", old));
    QVERIFY(writeFile(root + QStringLiteral("/logs/b.log"), "newer", old.addSecs(5)));
    QVERIFY(writeFile(root + QStringLiteral("/logs/devices/dev.log"), "device"));
    QVERIFY(writeFile(root + QStringLiteral("/logs/usrOptions/opt.log"), "option"));
    QVERIFY(writeFile(root + QStringLiteral("/capturerScreenshot/shot.png"), QByteArray("\x89PNG\r\n\x1a\n", 8)));
    QVERIFY(writeFile(root + QStringLiteral("/dumps/crash.dmp"), QByteArray(5000, '\x7f')));

    FeedbackManager feedback;
    feedback.setUserContactInfo(QStringLiteral("frank"));
    feedback.setUserMsg(QStringLiteral("all of it"));
    const QString zip = feedback.zipFeedbackFile();
    QCOMPARE(zip, feedback.feedbackFileName());
    const QJsonObject listing = readZip(zip);
    QVERIFY(listing.value(QStringLiteral("ok")).toBool());
    const QStringList names = zipEntryNames(listing);

    QCOMPARE(names.mid(0, 7), kDirectoryEntries);
    const QJsonArray entries = listing.value(QStringLiteral("entries")).toArray();
    for (int index = 0; index < entries.size(); ++index) {
        QCOMPARE(entries.at(index).toObject().value(QStringLiteral("isDir")).toBool(), index < 7);
    }
    QCOMPARE(names.at(7), QStringLiteral("global.json"));
    // Controllers' files in whatever order the file system lists them, and
    // no directory entry for their sub-folder.
    QStringList controllers = names.mid(8, 3);
    controllers.sort();
    QCOMPARE(controllers,
        (QStringList {QStringLiteral("controllers/.hidden"), QStringLiteral("controllers/desk.json"),
            QStringLiteral("controllers/sub/deep.json")}));
    QCOMPARE(names.mid(11),
        (QStringList {QStringLiteral("effects/rainbow.json"), QStringLiteral("frank.txt"), QStringLiteral("logs/b.log"),
            QStringLiteral("logs/a.log"), QStringLiteral("logs/devices/dev.log"),
            QStringLiteral("logs/usrOptions/opt.log"), QStringLiteral("capturerScreenshot/shot.png"),
            QStringLiteral("dumps/crash.dmp")}));

    for (const QString& name : names.mid(7)) {
        QCOMPARE(zipEntryContent(listing, name), readFile(root + QLatin1Char('/') + name));
    }
    QCOMPARE(zipEntryContent(listing, QStringLiteral("frank.txt")), QByteArray("all of it"));
}

void FeedbackManagerTest::newestFilesUpToLimit_data()
{
    QTest::addColumn<QString>("folder");
    QTest::addColumn<QString>("suffix");
    QTest::addColumn<int>("limit");
    QTest::addColumn<int>("files");
    for (int files : {0, 29, 30, 31}) {
        QTest::addRow("logs %d", files) << QStringLiteral("logs") << QStringLiteral(".log") << 30 << files;
    }
    QTest::addRow("logs/devices 31") << QStringLiteral("logs/devices") << QStringLiteral(".log") << 30 << 31;
    for (int files : {0, 19, 20, 21}) {
        QTest::addRow("logs/usrOptions %d", files)
            << QStringLiteral("logs/usrOptions") << QStringLiteral(".log") << 20 << files;
        QTest::addRow("capturerScreenshot %d", files)
            << QStringLiteral("capturerScreenshot") << QStringLiteral(".png") << 20 << files;
    }
    for (int files : {0, 255, 256, 257}) {
        QTest::addRow("dumps %d", files) << QStringLiteral("dumps") << QStringLiteral(".dmp") << 256 << files;
    }
}

void FeedbackManagerTest::newestFilesUpToLimit()
{
    QFETCH(QString, folder);
    QFETCH(QString, suffix);
    QFETCH(int, limit);
    QFETCH(int, files);
    const QString path = m_sandbox->filePath(folder);
    QVERIFY(QDir().mkpath(path));
    const QStringList newestFirst = makeTimedFiles(path, QStringLiteral("f"), suffix, files);
    QCOMPARE(newestFirst.size(), files);

    FeedbackManager feedback;
    const QJsonObject listing = readZip(feedback.zipFeedbackFile());
    QVERIFY(listing.value(QStringLiteral("ok")).toBool());
    QStringList expected;
    for (const QString& name : newestFirst.mid(0, std::min(limit, files))) {
        expected << folder + QLatin1Char('/') + name;
    }
    QCOMPARE(entriesUnder(zipEntryNames(listing), folder), expected);
    QVERIFY(zipEntryNames(listing).contains(folder + QLatin1Char('/')));
}

void FeedbackManagerTest::devicesLogsDoNotCountTowardsLogs()
{
    const QStringList logs = makeTimedFiles(
        m_sandbox->filePath(QStringLiteral("logs")), QStringLiteral("main"), QStringLiteral(".log"), 30);
    const QStringList devices = makeTimedFiles(
        m_sandbox->filePath(QStringLiteral("logs/devices")), QStringLiteral("dev"), QStringLiteral(".log"), 5);
    FeedbackManager feedback;
    const QStringList names = zipEntryNames(readZip(feedback.zipFeedbackFile()));
    QCOMPARE(entriesUnder(names, QStringLiteral("logs")).size(), 30);
    QCOMPARE(entriesUnder(names, QStringLiteral("logs/devices")).size(), 5);
    QCOMPARE(names.toSet().size(), names.size()); // nothing twice
}

void FeedbackManagerTest::missingFolderGivesOnlyDirectoryEntry()
{
    // Matching files right in the configuration folder must not stand in
    // for a folder that does not exist.
    QVERIFY(QDir(m_sandbox->path()).rmdir(QStringLiteral("dumps")));
    QVERIFY(writeFile(m_sandbox->filePath(QStringLiteral("stray.dmp")), "stray"));
    QVERIFY(writeFile(m_sandbox->filePath(QStringLiteral("stray.png")), "stray"));
    FeedbackManager feedback;
    const QStringList names = zipEntryNames(readZip(feedback.zipFeedbackFile()));
    QVERIFY(names.contains(QStringLiteral("dumps/")));
    QVERIFY(names.contains(QStringLiteral("capturerScreenshot/")));
    for (const QString& name : names) {
        QVERIFY2(!name.contains(QStringLiteral("stray")), qPrintable(name));
    }
}

void FeedbackManagerTest::fileNotMatchingFilterIsNeverAdded()
{
    QVERIFY(writeFile(m_sandbox->filePath(QStringLiteral("logs/notes.txt")), "notes"));
    QVERIFY(writeFile(m_sandbox->filePath(QStringLiteral("logs/app.log")), "log"));
    QVERIFY(writeFile(m_sandbox->filePath(QStringLiteral("dumps/crash.txt")), "text"));
    QVERIFY(writeFile(m_sandbox->filePath(QStringLiteral("logs/old.log/inner.log")), "in a folder"));
    FeedbackManager feedback;
    const QStringList names = zipEntryNames(readZip(feedback.zipFeedbackFile()));
    QVERIFY(names.contains(QStringLiteral("logs/app.log")));
    QVERIFY(!names.contains(QStringLiteral("logs/notes.txt")));
    QVERIFY(!names.contains(QStringLiteral("dumps/crash.txt")));
    QVERIFY(!names.contains(QStringLiteral("logs/old.log/inner.log")));
}

void FeedbackManagerTest::globalJsonInZipHoldsThisObjectsFacts()
{
    FeedbackManager first;
    m_machine->networkInterfaces.entries = {{false, "52:54:00:AB:CD:99"}};
    m_machine->memory.memory = {kGiB, 8 * kGiB};
    FeedbackManager second;
    const QJsonObject listing = readZip(second.zipFeedbackFile());
    const QJsonObject global
        = QJsonDocument::fromJson(zipEntryContent(listing, QStringLiteral("global.json"))).object();
    const QJsonObject sysInfo = global.value(QStringLiteral("sysInfo")).toObject();
    QCOMPARE(sysInfo.value(QStringLiteral("mac")).toString(), QStringLiteral("525400ABCD99"));
    QCOMPARE(sysInfo.value(QStringLiteral("memory")).toString(), QStringLiteral("Available 1.00 GB / Total 8.00 GB"));
    QCOMPARE(zipEntryContent(listing, QStringLiteral("global.json")),
        readFile(m_sandbox->filePath(QStringLiteral("global.json"))));
}

void FeedbackManagerTest::secondZipReplacesFirst()
{
    FeedbackManager feedback;
    QVERIFY(writeFile(m_sandbox->filePath(QStringLiteral("logs/first.log")), "first"));
    const QString zip = feedback.zipFeedbackFile();
    QVERIFY(zipEntryNames(readZip(zip)).contains(QStringLiteral("logs/first.log")));
    QVERIFY(QFile::remove(m_sandbox->filePath(QStringLiteral("logs/first.log"))));
    QVERIFY(writeFile(m_sandbox->filePath(QStringLiteral("logs/second.log")), "second"));
    QCOMPARE(feedback.zipFeedbackFile(), zip);
    const QStringList names = zipEntryNames(readZip(zip));
    QVERIFY(names.contains(QStringLiteral("logs/second.log")));
    QVERIFY(!names.contains(QStringLiteral("logs/first.log")));
    QCOMPARE(QDir(m_sandbox->path()).entryList({QStringLiteral("*.zip")}, QDir::Files).size(), 1);
}

void FeedbackManagerTest::zipPassesIndependentTest()
{
    QVERIFY(writeFile(m_sandbox->filePath(QStringLiteral("logs/app.log")), QByteArray(200000, 'L')));
    FeedbackManager feedback;
    QProcess unzip;
    unzip.start(QStringLiteral("unzip"), {QStringLiteral("-t"), feedback.zipFeedbackFile()});
    QVERIFY(unzip.waitForFinished(60000));
    const QString output = QString::fromLocal8Bit(unzip.readAllStandardOutput());
    QCOMPARE(unzip.exitCode(), 0);
    QVERIFY2(output.contains(QStringLiteral("No errors detected")), qPrintable(output));
}

void FeedbackManagerTest::consoleApplicationHasNoScreens()
{
    // This program runs without a GUI application: the platform's screen
    // list is empty and the screen line with it, rather than an abort.
    const Orvanta::MachineSources platform = Orvanta::platformMachineSources();
    QVERIFY(platform.screens->screenSizes().empty());
    Orvanta::MachineSources sources = m_machine->sources();
    sources.screens = platform.screens;
    Orvanta::ScopedMachineSources scope(sources);
    QCOMPARE(HardwareInfo::screen(), QString());
    FeedbackManager feedback;
    const QJsonObject global
        = QJsonDocument::fromJson(readFile(m_sandbox->filePath(QStringLiteral("global.json")))).object();
    QCOMPARE(global.value(QStringLiteral("sysInfo")).toObject().value(QStringLiteral("screen")).toString(), QString());
}

QTEST_GUILESS_MAIN(FeedbackManagerTest)
#include "tst_feedbackmanager.moc"
