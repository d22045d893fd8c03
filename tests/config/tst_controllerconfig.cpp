#include "ConfigurationManager.h"

#include "MessageCapture.h"

#include <QtCore/QDirIterator>
#include <QtCore/QFile>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QStandardPaths>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

#include <limits>
#include <memory>

namespace {

struct Led
{
    int id;
    int x;
    int y;
};

struct Zone
{
    int id;
    int direction;
    int start;
    int stop;
};

// The tests run with XDG_DATA_HOME in a temporary home of their own, so the
// folder of the layout files is known here without asking QStandardPaths.
QString s_dataHome;

QString layoutFolder()
{
    return s_dataHome + QStringLiteral("/OrvantaTests/tst_controllerconfig/controler_config/");
}

QStringList filesBelow(const QString& root)
{
    QStringList found;
    QDirIterator it(root, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        found << QDir(root).relativeFilePath(it.next());
    }
    found.sort();
    return found;
}

QJsonObject readLayout(const QString& fileName)
{
    QFile file(layoutFolder() + fileName);
    if (!file.open(QIODevice::ReadOnly)) {
        return QJsonObject();
    }
    return QJsonDocument::fromJson(file.readAll()).object();
}

void compareLeds(const QJsonArray& actual, const QVector<Led>& expected)
{
    QCOMPARE(actual.size(), expected.size());
    for (int i = 0; i < expected.size(); ++i) {
        const QJsonObject led = actual.at(i).toObject();
        QCOMPARE(led.keys(), (QStringList {QStringLiteral("id"), QStringLiteral("x"), QStringLiteral("y")}));
        QCOMPARE(led.value(QStringLiteral("id")).toInt(-1), expected[i].id);
        QCOMPARE(led.value(QStringLiteral("x")).toInt(-1), expected[i].x);
        QCOMPARE(led.value(QStringLiteral("y")).toInt(-1), expected[i].y);
    }
}

void compareZones(const QJsonArray& actual, const QVector<Zone>& expected)
{
    QCOMPARE(actual.size(), expected.size());
    for (int i = 0; i < expected.size(); ++i) {
        const QJsonObject zone = actual.at(i).toObject();
        QCOMPARE(zone.size(), 4);
        QCOMPARE(zone.value(QStringLiteral("id")).toInt(-1), expected[i].id);
        QCOMPARE(zone.value(QStringLiteral("direction")).toInt(-1), expected[i].direction);
        QCOMPARE(zone.value(QStringLiteral("start")).toInt(-1), expected[i].start);
        QCOMPARE(zone.value(QStringLiteral("stop")).toInt(-1), expected[i].stop);
    }
}

void compareHeader(const QJsonObject& layout, int len, int wid, int num)
{
    QCOMPARE(layout.keys(),
        (QStringList {QStringLiteral("key_array"), QStringLiteral("key_len"), QStringLiteral("key_music"),
            QStringLiteral("key_num"), QStringLiteral("key_wid")}));
    QCOMPARE(layout.value(QStringLiteral("key_len")).toInt(-1), len);
    QCOMPARE(layout.value(QStringLiteral("key_wid")).toInt(-1), wid);
    QCOMPARE(layout.value(QStringLiteral("key_num")).toInt(-1), num);
}

} // namespace

class ControllerConfigTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void workedExample();
    void colonInNameBecomesUnderscore();
    void dotInNameStays();
    void allCountsZeroStillWritesAFile();
    void heightOneRunsLeftAsTopAndRight();
    void heightZeroHasNoSideEdges();
    void oddWidthLeavesTopMiddleOutside();
    void shortBottomZoneRunsBackwards();
    void widthZeroHasNoTopZones();
    void bottomZeroEndsOnTheRightEdge();
    void logsEachSideLed();
    void existingFileIsOverwrittenInPlace();
    void ignoresConfigDirectoryAndCache();
    void layoutFileIsTheOnlyFileInTheLocalDataFolder();
    void ledTotalAboveTheLimitIsRefused_data();
    void ledTotalAboveTheLimitIsRefused();
    void ledTotalAtTheLimitIsWritten();
    void unwritableFolderFailsSilently();

private:
    QTemporaryDir m_home;
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<ConfigurationManager> m_manager;
};

void ControllerConfigTest::initTestCase()
{
    QVERIFY(m_home.isValid());
    s_dataHome = m_home.filePath(QStringLiteral("share"));
    qputenv("XDG_DATA_HOME", QFile::encodeName(s_dataHome));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(m_home.filePath(QStringLiteral("config"))));
    QCoreApplication::setOrganizationName(QStringLiteral("OrvantaTests"));
    QCoreApplication::setApplicationName(QStringLiteral("tst_controllerconfig"));
}

void ControllerConfigTest::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QDir(layoutFolder()).removeRecursively();
    ConfigurationManager::setConfigPath(m_dir->filePath(QStringLiteral("config")));
    m_manager = std::make_unique<ConfigurationManager>();
    ConfigurationManager::setConfigPath(QString());
}

void ControllerConfigTest::cleanup()
{
    m_manager.reset();
    m_dir.reset();
    QDir(layoutFolder()).removeRecursively();
}

void ControllerConfigTest::workedExample()
{
    m_manager->generateControllerConfig(QStringLiteral("desk"), 3, 4, 4);
    const QJsonObject layout = readLayout(QStringLiteral("desk.json"));
    compareHeader(layout, 4, 3, 14);
    compareLeds(layout.value(QStringLiteral("key_array")).toArray(),
        {{1, 0, 2}, {2, 0, 1}, {3, 0, 0}, {4, 0, 0}, {5, 1, 0}, {6, 2, 0}, {7, 3, 0}, {8, 3, 0}, {9, 3, 1}, {10, 3, 2},
            {11, 3, 2}, {12, 2, 2}, {13, 1, 2}, {14, 0, 2}});
    compareZones(layout.value(QStringLiteral("key_music")).toArray(),
        {{0, 1, 1, 3}, {1, 0, 4, 5}, {2, 1, 6, 7}, {3, 0, 8, 10}, {4, 0, 11, 12}, {5, 1, 13, 14}});
}

void ControllerConfigTest::colonInNameBecomesUnderscore()
{
    m_manager->generateControllerConfig(QStringLiteral("COM3:strip"), 3, 4, 4);
    QVERIFY(!QFile::exists(layoutFolder() + QStringLiteral("COM3:strip.json")));
    const QJsonObject layout = readLayout(QStringLiteral("COM3_strip.json"));
    compareHeader(layout, 4, 3, 14);
    compareZones(layout.value(QStringLiteral("key_music")).toArray(),
        {{0, 1, 1, 3}, {1, 0, 4, 5}, {2, 1, 6, 7}, {3, 0, 8, 10}, {4, 0, 11, 12}, {5, 1, 13, 14}});
    QCOMPARE(layout.value(QStringLiteral("key_array")).toArray().size(), 14);
}

void ControllerConfigTest::dotInNameStays()
{
    m_manager->generateControllerConfig(QStringLiteral("strip.v2"), 1, 1, 1);
    QVERIFY(QFile::exists(layoutFolder() + QStringLiteral("strip.v2.json")));
}

void ControllerConfigTest::allCountsZeroStillWritesAFile()
{
    m_manager->generateControllerConfig(QStringLiteral("empty"), 0, 0, 0);
    QVERIFY(QFile::exists(layoutFolder() + QStringLiteral("empty.json")));
    const QJsonObject layout = readLayout(QStringLiteral("empty.json"));
    compareHeader(layout, 0, 1, 0);
    QVERIFY(layout.value(QStringLiteral("key_array")).isArray());
    QVERIFY(layout.value(QStringLiteral("key_array")).toArray().isEmpty());
    QVERIFY(layout.value(QStringLiteral("key_music")).isArray());
    QVERIFY(layout.value(QStringLiteral("key_music")).toArray().isEmpty());
}

void ControllerConfigTest::heightOneRunsLeftAsTopAndRight()
{
    m_manager->generateControllerConfig(QStringLiteral("h1"), 1, 4, 0);
    const QJsonObject layout = readLayout(QStringLiteral("h1.json"));
    compareHeader(layout, 4, 1, 6);
    compareLeds(layout.value(QStringLiteral("key_array")).toArray(),
        {{1, 0, 0}, {2, 1, 0}, {3, 2, 0}, {4, 3, 0}, {5, 3, 0}, {6, 3, 0}});
    compareZones(layout.value(QStringLiteral("key_music")).toArray(),
        {{0, 0, 1, 2}, {1, 1, 3, 4}, {2, 0, 2, 3}, {3, 1, 4, 5}, {4, 0, 6, 6}});
}

void ControllerConfigTest::heightZeroHasNoSideEdges()
{
    m_manager->generateControllerConfig(QStringLiteral("h0"), 0, 4, 4);
    const QJsonObject layout = readLayout(QStringLiteral("h0.json"));
    compareHeader(layout, 4, 1, 8);
    compareLeds(layout.value(QStringLiteral("key_array")).toArray(),
        {{1, 0, 0}, {2, 1, 0}, {3, 2, 0}, {4, 3, 0}, {5, 3, 0}, {6, 2, 0}, {7, 1, 0}, {8, 0, 0}});
    compareZones(
        layout.value(QStringLiteral("key_music")).toArray(), {{0, 0, 1, 2}, {1, 1, 3, 4}, {2, 0, 5, 6}, {3, 1, 7, 8}});
}

void ControllerConfigTest::oddWidthLeavesTopMiddleOutside()
{
    m_manager->generateControllerConfig(QStringLiteral("odd"), 2, 5, 5);
    const QJsonObject layout = readLayout(QStringLiteral("odd.json"));
    compareHeader(layout, 5, 2, 14);
    const QVector<Zone> zones {{0, 1, 1, 2}, {1, 0, 3, 4}, {2, 1, 6, 7}, {3, 0, 8, 9}, {4, 0, 10, 11}, {5, 1, 12, 14}};
    compareZones(layout.value(QStringLiteral("key_music")).toArray(), zones);
    for (const Zone& zone : zones) {
        QVERIFY(5 < zone.start || 5 > zone.stop);
    }
    compareLeds(layout.value(QStringLiteral("key_array")).toArray(),
        {{1, 0, 1}, {2, 0, 0}, {3, 0, 0}, {4, 1, 0}, {5, 2, 0}, {6, 3, 0}, {7, 4, 0}, {8, 4, 0}, {9, 4, 1}, {10, 4, 1},
            {11, 3, 1}, {12, 2, 1}, {13, 1, 1}, {14, 0, 1}});
}

void ControllerConfigTest::shortBottomZoneRunsBackwards()
{
    m_manager->generateControllerConfig(QStringLiteral("b1"), 3, 4, 1);
    const QJsonObject layout = readLayout(QStringLiteral("b1.json"));
    compareHeader(layout, 4, 3, 11);
    const QJsonArray zones = layout.value(QStringLiteral("key_music")).toArray();
    QCOMPARE(zones.size(), 6);
    compareZones(QJsonArray {zones.at(4), zones.at(5)}, {{4, 0, 11, 12}, {5, 1, 13, 11}});
}

void ControllerConfigTest::widthZeroHasNoTopZones()
{
    m_manager->generateControllerConfig(QStringLiteral("w0"), 3, 0, 2);
    const QJsonObject layout = readLayout(QStringLiteral("w0.json"));
    compareHeader(layout, 0, 3, 8);
    compareZones(
        layout.value(QStringLiteral("key_music")).toArray(), {{0, 1, 1, 3}, {1, 0, 4, 6}, {2, 0, 7, 6}, {3, 1, 7, 8}});
    compareLeds(layout.value(QStringLiteral("key_array")).toArray(),
        {{1, 0, 2}, {2, 0, 1}, {3, 0, 0}, {4, 0, 0}, {5, 0, 1}, {6, 0, 2}, {7, 0, 2}, {8, -1, 2}});
}

void ControllerConfigTest::bottomZeroEndsOnTheRightEdge()
{
    m_manager->generateControllerConfig(QStringLiteral("b0"), 2, 2, 0);
    const QJsonObject layout = readLayout(QStringLiteral("b0.json"));
    compareHeader(layout, 2, 2, 6);
    compareZones(
        layout.value(QStringLiteral("key_music")).toArray(), {{0, 1, 1, 2}, {1, 0, 3, 3}, {2, 1, 4, 4}, {3, 0, 5, 6}});
}

void ControllerConfigTest::logsEachSideLed()
{
    MessageCapture capture;
    m_manager->generateControllerConfig(QStringLiteral("desk"), 3, 4, 4);
    const QStringList debug = capture.texts(QtDebugMsg);
    QVERIFY(debug.size() >= 12);
    QCOMPARE(debug.first(), QStringLiteral("\"desk\"  count: 14  height: 3  width: 4"));
    const QStringList sides = debug.mid(1, 10);
    QCOMPARE(sides,
        (QStringList {QStringLiteral("<<L  1"), QStringLiteral("<<L  2"), QStringLiteral("<<L  3"),
            QStringLiteral("<<T  4"), QStringLiteral("<<T  5"), QStringLiteral("<<T  6"), QStringLiteral("<<T  7"),
            QStringLiteral("<<R  8"), QStringLiteral("<<R  9"), QStringLiteral("<<R  10")}));
    // The bottom edge has no line of its own; the document follows.
    QCOMPARE(debug.size(), 12);
    // The document itself, as QDebug quotes its text.
    QFile file(layoutFolder() + QStringLiteral("desk.json"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QString expected;
    QDebug(&expected) << QJsonDocument::fromJson(file.readAll()).toJson();
    QCOMPARE(debug.last(), expected.trimmed());
    QVERIFY(capture.texts(QtWarningMsg).isEmpty());
    QVERIFY(capture.texts(QtCriticalMsg).isEmpty());
}

void ControllerConfigTest::existingFileIsOverwrittenInPlace()
{
    m_manager->generateControllerConfig(QStringLiteral("desk"), 3, 4, 4);
    m_manager->generateControllerConfig(QStringLiteral("desk"), 0, 2, 0);
    const QJsonObject layout = readLayout(QStringLiteral("desk.json"));
    compareHeader(layout, 2, 1, 2);
}

void ControllerConfigTest::ignoresConfigDirectoryAndCache()
{
    m_manager->generateControllerConfig(QStringLiteral("desk"), 3, 4, 4);
    const QString configDir = m_manager->configPath();
    QVERIFY(!QFile::exists(configDir + QStringLiteral("/controllers/desk.json")));
    QVERIFY(!QDir(configDir + QStringLiteral("/controler_config")).exists());
    QVERIFY(QFile::exists(layoutFolder() + QStringLiteral("desk.json")));
}

void ControllerConfigTest::layoutFileIsTheOnlyFileInTheLocalDataFolder()
{
    MessageCapture capture;
    m_manager->generateControllerConfig(QStringLiteral("desk"), 3, 4, 4);
    QCOMPARE(filesBelow(s_dataHome),
        QStringList {QStringLiteral("OrvantaTests/tst_controllerconfig/controler_config/desk.json")});
}

void ControllerConfigTest::ledTotalAboveTheLimitIsRefused_data()
{
    QTest::addColumn<int>("height");
    QTest::addColumn<int>("width");
    QTest::addColumn<int>("bottom");
    QTest::addColumn<QString>("total");
    QTest::newRow("one above the limit") << 25000 << 50000 << 1 << QStringLiteral("100001");
    QTest::newRow("sum above int") << std::numeric_limits<int>::max() << 1 << 0 << QStringLiteral("4294967295");
    QTest::newRow("sum below int") << std::numeric_limits<int>::min() << 0 << 0 << QStringLiteral("-4294967296");
    QTest::newRow("each side at the most") << std::numeric_limits<int>::max() << std::numeric_limits<int>::max()
                                           << std::numeric_limits<int>::max() << QStringLiteral("8589934588");
}

void ControllerConfigTest::ledTotalAboveTheLimitIsRefused()
{
    QFETCH(int, height);
    QFETCH(int, width);
    QFETCH(int, bottom);
    QFETCH(QString, total);
    MessageCapture capture;
    m_manager->generateControllerConfig(QStringLiteral("huge"), height, width, bottom);
    QCOMPARE(capture.all(),
        QStringList {QStringLiteral("warning: Failed to generate controller config \"huge\" : LED count %1 is out of "
                                    "range")
                         .arg(total)});
    QVERIFY(!QFile::exists(layoutFolder() + QStringLiteral("huge.json")));
}

void ControllerConfigTest::ledTotalAtTheLimitIsWritten()
{
    // A side far below zero with the others large: the total is in range,
    // the sums on the way are not all within an int.
    MessageCapture capture; // one debug line per LED
    m_manager->generateControllerConfig(QStringLiteral("limit"), 25000, 49999, 1);
    m_manager->generateControllerConfig(QStringLiteral("skewed"), -1500000000, 2000000000, 1000000010);
    QVERIFY(capture.texts(QtWarningMsg).isEmpty());
    const QJsonObject layout = readLayout(QStringLiteral("limit.json"));
    compareHeader(layout, 49999, 25000, 100000);
    QCOMPARE(layout.value(QStringLiteral("key_array")).toArray().size(), 100000);
    QCOMPARE(layout.value(QStringLiteral("key_music")).toArray().size(), 6);
    const QJsonObject skewed = readLayout(QStringLiteral("skewed.json"));
    compareHeader(skewed, 2000000000, 1, 10);
    QCOMPARE(skewed.value(QStringLiteral("key_array")).toArray().size(), 10);
}

void ControllerConfigTest::unwritableFolderFailsSilently()
{
    // A regular file where the folder belongs: neither mkpath nor open can succeed.
    const QString folder = layoutFolder();
    QDir().mkpath(QFileInfo(folder.chopped(1)).absolutePath());
    {
        QFile blocker(folder.chopped(1));
        QVERIFY(blocker.open(QIODevice::WriteOnly));
    }
    MessageCapture capture;
    m_manager->generateControllerConfig(QStringLiteral("desk"), 3, 4, 4);
    QVERIFY(capture.texts(QtWarningMsg).isEmpty());
    QVERIFY(capture.texts(QtCriticalMsg).isEmpty());
    QVERIFY(QFileInfo(folder.chopped(1)).isFile());
    QFile::remove(folder.chopped(1));
}

QTEST_GUILESS_MAIN(ControllerConfigTest)
#include "tst_controllerconfig.moc"
