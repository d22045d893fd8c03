#include "ConfigurationManager.h"

#include "MessageCapture.h"

#include <QtCore/QFile>
#include <QtCore/QJsonDocument>
#include <QtCore/QStandardPaths>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

#include <memory>

namespace {

QJsonObject readJson(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return QJsonObject();
    }
    return QJsonDocument::fromJson(file.readAll()).object();
}

void writeJson(const QString& path, const QJsonObject& object)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(QJsonDocument(object).toJson());
}

QString quoted(const QString& text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

} // namespace

class ConfigValuesTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void globalValueReadsDottedPaths();
    void appConfigIsGlobalValue();
    void setGlobalValueNeitherSavesNorSignals();
    void setGlobalValueListForm();
    void setAppConfigSavesBeforeSignalling();
    void unsavedGlobalValueIsLostAtExit();
    void documentHandlesAreNotSignalled();
    void plainReadOfMissingSectionAddsNull();
    void plainReadOfMissingKeyIsUndefinedAndAddsNull();
    void plainReadFindsValues();
    void effectVariantConverts();
    void fallbackReadsDefaultsOnceThenCache();
    void fallbackWithoutKeyInDefaultsRunsEachTime();
    void fallbackWithEmptyKeyReturnsWholeDefaults();
    void fallbackWithUnreadableDefaultsIsNull();
    void fallbackSavesNothing();
    void setEffectJsonValueReplacesNonObjectSection();
    void emptyKeyDiffersBetweenSetters();
    void dottedEffectNameLivesInUnderscoreFile();
    void effectSettersDoNotSave();

private:
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<ConfigurationManager> m_manager;
    QString m_configDir;
};

void ConfigValuesTest::initTestCase()
{
    QStandardPaths::setTestModeEnabled(true);
}

void ConfigValuesTest::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    m_configDir = m_dir->filePath(QStringLiteral("config"));
    ConfigurationManager::setConfigPath(m_configDir);
    m_manager = std::make_unique<ConfigurationManager>();
    ConfigurationManager::setConfigPath(QString());
}

void ConfigValuesTest::cleanup()
{
    m_manager.reset();
    m_dir.reset();
}

void ConfigValuesTest::globalValueReadsDottedPaths()
{
    writeJson(m_configDir + QStringLiteral("/global.json"),
        QJsonObject {{QStringLiteral("sysInfo"), QJsonObject {{QStringLiteral("memory"), QStringLiteral("8G")}}},
            {QStringLiteral("devUpdateInterval"), 20}});
    QCOMPARE(m_manager->globalValue(QStringLiteral("sysInfo.memory")).toString(), QStringLiteral("8G"));
    QCOMPARE(m_manager->globalValue(QStringLiteral("devUpdateInterval")).toInt(33), 20);
    QCOMPARE(m_manager->globalValue(QStringLiteral("screenCaptureMode")).toInt(0), 0);
    QCOMPARE(m_manager->globalValue(QStringLiteral("devUpdateInterval.x")).type(), QJsonValue::Null);
}

void ConfigValuesTest::appConfigIsGlobalValue()
{
    m_manager->setGlobalValue(QStringLiteral("a.b"), 7);
    QCOMPARE(m_manager->appConfig(QStringLiteral("a.b")), m_manager->globalValue(QStringLiteral("a.b")));
    QCOMPARE(m_manager->appConfig(QStringLiteral("a")), QJsonValue(QJsonObject {{QStringLiteral("b"), 7}}));
}

void ConfigValuesTest::setGlobalValueNeitherSavesNorSignals()
{
    QSignalSpy spy(m_manager.get(), &ConfigurationManager::appConfigChanged);
    m_manager->setGlobalValue(QStringLiteral("x.y"), QStringLiteral("v"));
    QCOMPARE(m_manager->globalValue(QStringLiteral("x.y")).toString(), QStringLiteral("v"));
    QCOMPARE(spy.count(), 0);
    QVERIFY(!QFile::exists(m_configDir + QStringLiteral("/global.json")));
}

void ConfigValuesTest::setGlobalValueListForm()
{
    m_manager->setGlobalValue(
        QStringList {QStringLiteral("latestVerion"), QStringLiteral("version")}, QStringLiteral("2.0.1"));
    QCOMPARE(m_manager->globalValue(QStringLiteral("latestVerion.version")).toString(), QStringLiteral("2.0.1"));
    m_manager->setGlobalValue(QStringList {QStringLiteral("dotted.key")}, 1);
    QVERIFY(m_manager->AppConfigJsonObj().contains(QStringLiteral("dotted.key")));
}

void ConfigValuesTest::setAppConfigSavesBeforeSignalling()
{
    const QString file = m_configDir + QStringLiteral("/global.json");
    QJsonObject seenOnDisk;
    QString seenKey;
    connect(m_manager.get(), &ConfigurationManager::appConfigChanged, this, [&](const QString& key) {
        seenKey = key;
        seenOnDisk = readJson(file);
    });
    QSignalSpy spy(m_manager.get(), &ConfigurationManager::appConfigChanged);
    m_manager->setAppConfig(QStringLiteral("effects.speed"), 5);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(seenKey, QStringLiteral("effects.speed"));
    QCOMPARE(ConfigurationManager::valWithXPath(seenOnDisk, QStringLiteral("effects.speed")).toInt(), 5);
}

void ConfigValuesTest::unsavedGlobalValueIsLostAtExit()
{
    m_manager->setGlobalValue(QStringLiteral("lost"), true);
    m_manager.reset();
    ConfigurationManager::setConfigPath(m_configDir);
    ConfigurationManager next;
    ConfigurationManager::setConfigPath(QString());
    MessageCapture capture;
    QCOMPARE(next.globalValue(QStringLiteral("lost")).type(), QJsonValue::Undefined);
}

void ConfigValuesTest::documentHandlesAreNotSignalled()
{
    QSignalSpy spy(m_manager.get(), &ConfigurationManager::appConfigChanged);
    m_manager->AppConfigJsonObj().insert(QStringLiteral("direct"), 1);
    m_manager->saveAppConfigJsonObj();
    QCOMPARE(spy.count(), 0);
    QCOMPARE(m_manager->globalValue(QStringLiteral("direct")).toInt(), 1);
}

void ConfigValuesTest::plainReadOfMissingSectionAddsNull()
{
    const QJsonValue value = m_manager->effectJsonValue(QStringLiteral("fx"), QStringLiteral("s"), QString());
    QCOMPARE(value.type(), QJsonValue::Null);
    const QJsonObject& document = m_manager->effectJsonObj(QStringLiteral("fx"));
    QVERIFY(document.contains(QStringLiteral("s")));
    QCOMPARE(document.value(QStringLiteral("s")).type(), QJsonValue::Null);
    // The null section reaches the file at the next save.
    m_manager->saveEffectJsonObj(QStringLiteral("fx"));
    const QJsonObject onDisk = readJson(m_configDir + QStringLiteral("/effects/fx.json"));
    QVERIFY(onDisk.contains(QStringLiteral("s")));
    QCOMPARE(onDisk.value(QStringLiteral("s")).type(), QJsonValue::Null);
}

void ConfigValuesTest::plainReadOfMissingKeyIsUndefinedAndAddsNull()
{
    const QJsonValue value = m_manager->effectJsonValue(QStringLiteral("fx"), QStringLiteral("s"), QStringLiteral("k"));
    QCOMPARE(value.type(), QJsonValue::Undefined);
    const QJsonObject& document = m_manager->effectJsonObj(QStringLiteral("fx"));
    QCOMPARE(document.value(QStringLiteral("s")).type(), QJsonValue::Null);
}

void ConfigValuesTest::plainReadFindsValues()
{
    m_manager->setEffectJsonValue(QStringLiteral("fx"), QStringLiteral("colour"), QStringLiteral("r"), 200);
    QCOMPARE(
        m_manager->effectJsonValue(QStringLiteral("fx"), QStringLiteral("colour"), QStringLiteral("r")).toInt(), 200);
    QCOMPARE(m_manager->effectJsonValue(QStringLiteral("fx"), QStringLiteral("colour"), QString()),
        QJsonValue(QJsonObject {{QStringLiteral("r"), 200}}));
    // Section and key are literals: a dot in them is no path.
    m_manager->setEffectJsonValue(QStringLiteral("fx"), QStringLiteral("a.b"), QStringLiteral("c.d"), 1);
    QCOMPARE(m_manager->effectJsonObj(QStringLiteral("fx"))
                 .value(QStringLiteral("a.b"))
                 .toObject()
                 .value(QStringLiteral("c.d"))
                 .toInt(),
        1);
}

void ConfigValuesTest::effectVariantConverts()
{
    m_manager->setEffectVariant(
        QStringLiteral("fx"), QStringLiteral("s"), QStringLiteral("list"), QVariantList {1, QStringLiteral("two")});
    const QVariant value = m_manager->effectVariant(QStringLiteral("fx"), QStringLiteral("s"), QStringLiteral("list"));
    QCOMPARE(value.toList().size(), 2);
    QCOMPARE(value.toList().at(1).toString(), QStringLiteral("two"));
    QVERIFY(!m_manager->effectVariant(QStringLiteral("fx"), QStringLiteral("s"), QStringLiteral("none")).isValid());
}

void ConfigValuesTest::fallbackReadsDefaultsOnceThenCache()
{
    const QString defaults = m_dir->filePath(QStringLiteral("defaults.json"));
    writeJson(defaults, QJsonObject {{QStringLiteral("speed"), 3}, {QStringLiteral("hue"), 120}});
    m_manager->effectJsonObj(QStringLiteral("rain.bow")); // the effect's own file does not exist yet

    MessageCapture capture;
    const QJsonValue first = m_manager->effectJsonValue(
        QStringLiteral("rain.bow"), QStringLiteral("params"), QStringLiteral("speed"), defaults);
    QCOMPARE(first.toInt(), 3);
    QCOMPARE(capture.all(),
        (QStringList {QStringLiteral("info: Not found effect config object about \"rain.bow\" \"params\" \"speed\""),
            QStringLiteral("debug: Succeeded to get config object from %1").arg(quoted(defaults))}));

    capture.clear();
    QVERIFY(QFile::remove(defaults));
    const QJsonValue second = m_manager->effectJsonValue(
        QStringLiteral("rain.bow"), QStringLiteral("params"), QStringLiteral("speed"), defaults);
    QCOMPARE(second.toInt(), 3);
    QVERIFY2(capture.messages().isEmpty(), qPrintable(capture.all().join(QLatin1Char('\n'))));
    QCOMPARE(
        m_manager->effectJsonValue(QStringLiteral("rain_bow"), QStringLiteral("params"), QStringLiteral("hue")).toInt(),
        120);
}

void ConfigValuesTest::fallbackWithoutKeyInDefaultsRunsEachTime()
{
    const QString defaults = m_dir->filePath(QStringLiteral("defaults.json"));
    writeJson(defaults, QJsonObject {{QStringLiteral("hue"), 120}});

    MessageCapture capture;
    for (int round = 0; round < 3; ++round) {
        const QJsonValue value = m_manager->effectJsonValue(
            QStringLiteral("fx"), QStringLiteral("params"), QStringLiteral("speed"), defaults);
        QCOMPARE(value.type(), QJsonValue::Undefined);
    }
    QCOMPARE(
        capture.count(QtInfoMsg, QStringLiteral("Not found effect config object about \"fx\" \"params\" \"speed\"")),
        3);
    QCOMPARE(
        capture.count(QtDebugMsg, QStringLiteral("Succeeded to get config object from %1").arg(quoted(defaults))), 3);

    // Each run reloads the file: a key added meanwhile is found.
    writeJson(defaults, QJsonObject {{QStringLiteral("hue"), 120}, {QStringLiteral("speed"), 9}});
    QCOMPARE(
        m_manager->effectJsonValue(QStringLiteral("fx"), QStringLiteral("params"), QStringLiteral("speed"), defaults)
            .toInt(),
        9);
}

void ConfigValuesTest::fallbackWithEmptyKeyReturnsWholeDefaults()
{
    const QString defaults = m_dir->filePath(QStringLiteral("defaults.json"));
    const QJsonObject object {{QStringLiteral("hue"), 120}};
    writeJson(defaults, object);
    QCOMPARE(m_manager->effectJsonValue(QStringLiteral("fx"), QStringLiteral("params"), QString(), defaults),
        QJsonValue(object));
    QCOMPARE(m_manager->effectJsonObj(QStringLiteral("fx")).value(QStringLiteral("params")), QJsonValue(object));
}

void ConfigValuesTest::fallbackWithUnreadableDefaultsIsNull()
{
    m_manager->setEffectJsonValue(QStringLiteral("fx"), QStringLiteral("params"), QString(), QJsonValue::Null);
    const QString missing = m_dir->filePath(QStringLiteral("no-such-defaults.json"));
    MessageCapture capture;
    const QJsonValue value
        = m_manager->effectJsonValue(QStringLiteral("fx"), QStringLiteral("params"), QStringLiteral("k"), missing);
    QCOMPARE(value.type(), QJsonValue::Null);
    QCOMPARE(capture.all(),
        (QStringList {QStringLiteral("info: Not found effect config object about \"fx\" \"params\" \"k\""),
            QStringLiteral("critical: Failed to open %1  errStr: \"No such file or directory\"").arg(quoted(missing)),
            QStringLiteral("critical: Failed to get config object from %1").arg(quoted(missing))}));
    // The empty object from the failed load has become the section.
    QCOMPARE(m_manager->effectJsonObj(QStringLiteral("fx")).value(QStringLiteral("params")), QJsonValue(QJsonObject()));
}

void ConfigValuesTest::fallbackSavesNothing()
{
    const QString defaults = m_dir->filePath(QStringLiteral("defaults.json"));
    writeJson(defaults, QJsonObject {{QStringLiteral("speed"), 3}});
    m_manager->effectJsonValue(QStringLiteral("fx"), QStringLiteral("params"), QStringLiteral("speed"), defaults);
    QVERIFY(!QFile::exists(m_configDir + QStringLiteral("/effects/fx.json")));
}

void ConfigValuesTest::setEffectJsonValueReplacesNonObjectSection()
{
    m_manager->setEffectJsonValue(QStringLiteral("fx"), QStringLiteral("s"), QString(), 42);
    QCOMPARE(m_manager->effectJsonValue(QStringLiteral("fx"), QStringLiteral("s"), QString()).toInt(), 42);
    m_manager->setEffectJsonValue(QStringLiteral("fx"), QStringLiteral("s"), QStringLiteral("k"), true);
    QCOMPARE(m_manager->effectJsonObj(QStringLiteral("fx")).value(QStringLiteral("s")),
        QJsonValue(QJsonObject {{QStringLiteral("k"), true}}));
}

void ConfigValuesTest::emptyKeyDiffersBetweenSetters()
{
    m_manager->setEffectVariant(QStringLiteral("fx"), QStringLiteral("viaVariant"), QString(), 5);
    m_manager->setEffectJsonValue(QStringLiteral("fx"), QStringLiteral("viaJson"), QString(), 5);
    const QJsonObject& document = m_manager->effectJsonObj(QStringLiteral("fx"));
    QCOMPARE(document.value(QStringLiteral("viaVariant")), QJsonValue(QJsonObject {{QString(), 5}}));
    QCOMPARE(document.value(QStringLiteral("viaJson")), QJsonValue(5));
}

void ConfigValuesTest::dottedEffectNameLivesInUnderscoreFile()
{
    m_manager->setEffectJsonValue(QStringLiteral("a.b"), QStringLiteral("s"), QStringLiteral("k"), 1);
    m_manager->saveEffectJsonObj(QStringLiteral("a.b"));
    QVERIFY(QFile::exists(m_configDir + QStringLiteral("/effects/a_b.json")));
    QVERIFY(!QFile::exists(m_configDir + QStringLiteral("/effects/a.b.json")));
    QCOMPARE(readJson(m_configDir + QStringLiteral("/effects/a_b.json")),
        (QJsonObject {{QStringLiteral("s"), QJsonObject {{QStringLiteral("k"), 1}}}}));
}

void ConfigValuesTest::effectSettersDoNotSave()
{
    QSignalSpy spy(m_manager.get(), &ConfigurationManager::appConfigChanged);
    m_manager->setEffectJsonValue(QStringLiteral("fx"), QStringLiteral("s"), QStringLiteral("k"), 1);
    m_manager->setEffectVariant(QStringLiteral("fx"), QStringLiteral("s"), QStringLiteral("v"), 2);
    QVERIFY(!QFile::exists(m_configDir + QStringLiteral("/effects/fx.json")));
    QCOMPARE(spy.count(), 0);
}

QTEST_GUILESS_MAIN(ConfigValuesTest)
#include "tst_configvalues.moc"
