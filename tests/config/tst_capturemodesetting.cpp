#include "ConfigurationManager.h"
#include "DeskCaptureOption.h"
#include "DeskDuplManager.h"
#include "MessageCapture.h"
#include "fakes/FakeCapture.h"
#include "fakes/FakeDisplaySystem.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QStandardPaths>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

// How the capture registry reads the stored capture mode: as a JSON integer
// with 0 for anything else, never through a conversion of strings or
// fractions.
class CaptureModeSettingTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void storedModeIsReadAsAnInteger_data();
    void storedModeIsReadAsAnInteger();

private:
    QTemporaryDir m_configDir;
};

void CaptureModeSettingTest::initTestCase()
{
    QStandardPaths::setTestModeEnabled(true);
    QVERIFY(m_configDir.isValid());
    ConfigurationManager::setConfigPath(m_configDir.path());
}

void CaptureModeSettingTest::storedModeIsReadAsAnInteger_data()
{
    QTest::addColumn<QJsonValue>("stored");
    QTest::addColumn<int>("mode");
    QTest::newRow("integer 1") << QJsonValue(1) << 1;
    QTest::newRow("integer 2 as a double") << QJsonValue(2.0) << 2;
    QTest::newRow("string 2") << QJsonValue(QStringLiteral("2")) << 0;
    QTest::newRow("fraction 1.6") << QJsonValue(1.6) << 0;
    QTest::newRow("true") << QJsonValue(true) << 0;
    QTest::newRow("null") << QJsonValue(QJsonValue::Null) << 0;
    QTest::newRow("object") << QJsonValue(QJsonObject {{QStringLiteral("mode"), 2}}) << 0;
}

void CaptureModeSettingTest::storedModeIsReadAsAnInteger()
{
    QFETCH(QJsonValue, stored);
    QFETCH(int, mode);
    ConfigurationManager::instance()->setGlobalValue(QStringLiteral("screenCaptureMode"), stored);

    auto system = std::make_shared<Fakes::FakeDisplaySystem>();
    system->addAdapter(L"GPU")->addOutput(L"\\\\.\\DISPLAY1", 0, 0, 1920, 1080, 0x1001);
    MessageCapture quiet;
    DeskDuplManager registry(system, Fakes::fakeBackends(std::make_shared<Fakes::CaptureJournal>()));
    auto* option = reinterpret_cast<DeskCaptureOption*>(
        quintptr(QCoreApplication::instance()->property("runtime.options.deskCaptureOption").toLongLong()));
    QVERIFY(option);
    QCOMPARE(option->curMode(), mode);
    // Reading it does not write it back.
    QCOMPARE(ConfigurationManager::instance()->globalValue(QStringLiteral("screenCaptureMode")), stored);
}

QTEST_GUILESS_MAIN(CaptureModeSettingTest)
#include "tst_capturemodesetting.moc"
