#include "ConfigurationManager.h"
#include "DeskCaptureOption.h"
#include "DeskCapturerId.h"
#include "DeskDuplManager.h"
#include "Helpers.h"
#include "MessageCapture.h"
#include "ResultCodes.h"
#include "WinDeskCapture.h"
#include "fakes/FakeCapture.h"
#include "fakes/FakeDisplaySystem.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QJsonDocument>
#include <QtCore/QPointer>
#include <QtCore/QStandardPaths>
#include <QtCore/QTemporaryDir>
#include <QtCore/QThread>
#include <QtTest/QSignalSpy>
#include <QtTest/QTest>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

using Fakes::CaptureJournal;
using Fakes::FakeDisplaySystem;

namespace {

QString quoted(const QString& text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

QString referencesText(const QString& id, int count)
{
    return QStringLiteral("info: [DeskDuplManager]: The capturer  %1  references has already changed to  %2")
        .arg(quoted(id))
        .arg(count);
}

QString releasedText(const QString& id)
{
    return QStringLiteral("info: [DeskDuplManager]: The capturer  %1 does not have any renferences and has been "
                          "released.")
        .arg(quoted(id));
}

/// What was logged, without the workers' own lines, which come at moments of their own.
QStringList logged(const MessageCapture& messages)
{
    QStringList lines = messages.all();
    lines.erase(std::remove_if(lines.begin(), lines.end(),
                    [](const QString& line) { return line.contains("[WinDeskCapture]: Capture thread handle"); }),
        lines.end());
    return lines;
}

DeskCaptureOption* publishedOption()
{
    return reinterpret_cast<DeskCaptureOption*>(
        quintptr(QCoreApplication::instance()->property("runtime.options.deskCaptureOption").toLongLong()));
}

} // namespace

class TestDeskDuplManager : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void identifierAndTextRules();
    void identifiersAndDescriptions();
    void metadataOfAnOutput();
    void unknownIdentifiers();
    void enumerationLogsEachContext();
    void missingAdministratorRightsAreOnlyWarned();
    void failedFactoryLeavesTheTableEmpty();
    void failedAdapterNumberShiftsTheIndex();
    void adapterEnumerationThatNeverEndsIsBounded();
    void failedOutputDescriptionIsSkipped();
    void leftOverNotFoundEndsTheOutputLoop();
    void failedOutputEnumerationEndsTheLoop();
    void failedDeviceDropsTheRow();
    void failedDeviceKeepsTheRowWhereDevicesAreOptional();
    void duplicateIdentifierIsSkipped();
    void noOutputsAtAll();

    void firstAcquireCountsTwo();
    void referenceTableThroughAllStates();
    void releaseAtZeroStaysAtZero();
    void releaseOfUnknownIdentifier();
    void acquireFromAnotherThread();
    void capturerDroppedLastOnAnotherThread();
    void postedConstructionFindsTheCapturerAlreadyMade();
    void postedConstructionAfterTheLastReleaseMakesNothing();
    void frontsEndWithTheRegistryAfterItsLoopEnded();
    void waitingBackendDoesNotHoldTheRegistry();

    void modeAboveRangeIsClampedWithoutWriteBack();
    void modeBelowRangeIsClampedWithoutWriteBack();
    void modeChangeIsSavedAndReachesCapturers();
    void optionIsPublishedOnTheApplication();

private:
    std::shared_ptr<FakeDisplaySystem> twoAdapters();

    QTemporaryDir m_configDir;
    std::shared_ptr<CaptureJournal> m_journal;
};

void TestDeskDuplManager::initTestCase()
{
    QStandardPaths::setTestModeEnabled(true);
    QVERIFY(m_configDir.isValid());
    ConfigurationManager::setConfigPath(m_configDir.path());
}

void TestDeskDuplManager::init()
{
    QFile::remove(QDir(m_configDir.path()).filePath("global.json"));
    ConfigurationManager::instance()->setGlobalValue("screenCaptureMode", 2);
    m_journal = std::make_shared<CaptureJournal>();
}

std::shared_ptr<FakeDisplaySystem> TestDeskDuplManager::twoAdapters()
{
    auto system = std::make_shared<FakeDisplaySystem>();
    auto first = system->addAdapter(L"First GPU");
    first->addOutput(L"\\\\.\\DISPLAY1", 0, 0, 1920, 1080, 0x1001);
    auto second = system->addAdapter(L"Second GPU");
    second->addOutput(L"\\\\.\\DISPLAY2", 1920, -200, 2560, 1440, 0x2001);
    second->addOutput(L"", 4480, 0, 2560, 1440, 0x2002);
    return system;
}

void TestDeskDuplManager::identifierAndTextRules()
{
    using namespace Orvanta::DeskCapturerId;
    QCOMPARE(baseId("\\\\.\\DISPLAY2"), QStringLiteral("DISPLAY2"));
    QCOMPARE(identifier(baseId("\\\\.\\DISPLAY2"), 1, 0), QStringLiteral("DISPLAY2-A1-O0"));
    QCOMPARE(description("DISPLAY2", 2560, 1440, 0), QStringLiteral("DISPLAY2 2560x1440 (OUT1)"));
    // An empty name, or one that is only its prefix, gives the base OUTPUT and a text without it.
    QCOMPARE(baseId(""), QStringLiteral("OUTPUT"));
    QCOMPARE(baseId("\\\\.\\ "), QStringLiteral("OUTPUT"));
    QCOMPARE(identifier(baseId(""), 1, 0), QStringLiteral("OUTPUT-A1-O0"));
    QCOMPARE(description(baseId(""), 2560, 1440, 0), QStringLiteral("2560x1440 (OUT1)"));
    // The name behind the last backslash, trimmed; "DISPLAY" in any case.
    QCOMPARE(baseId("\\\\.\\ Monitor7 "), QStringLiteral("Monitor7"));
    QCOMPARE(description("Monitor7", 800, 600, 2), QStringLiteral("800x600 (OUT3)"));
    QCOMPARE(description("display3", 800, 600, 0), QStringLiteral("display3 800x600 (OUT1)"));
    QCOMPARE(baseId("LEFT"), QStringLiteral("LEFT"));
}

void TestDeskDuplManager::identifiersAndDescriptions()
{
    DeskDuplManager registry(twoAdapters(), Fakes::fakeBackends(m_journal));
    QCOMPARE(registry.allCapturer(), (QList<QString> {"DISPLAY1-A0-O0", "DISPLAY2-A1-O0", "OUTPUT-A1-O1"}));
    QCOMPARE(registry.defaultCapturer(), QStringLiteral("DISPLAY1-A0-O0"));
    QCOMPARE(registry.capturerDesc("DISPLAY1-A0-O0"), QStringLiteral("DISPLAY1 1920x1080 (OUT1)"));
    QCOMPARE(registry.capturerDesc("DISPLAY2-A1-O0"), QStringLiteral("DISPLAY2 2560x1440 (OUT1)"));
    QCOMPARE(registry.capturerDesc("OUTPUT-A1-O1"), QStringLiteral("2560x1440 (OUT2)"));
}

void TestDeskDuplManager::metadataOfAnOutput()
{
    DeskDuplManager registry(twoAdapters(), Fakes::fakeBackends(m_journal));
    const QJsonObject metadata = registry.capturerMetadata("DISPLAY2-A1-O0");
    const QJsonObject expected {{"id", "DISPLAY2-A1-O0"}, {"deviceName", "\\\\.\\DISPLAY2"}, {"width", 2560},
        {"height", 1440}, {"x", 1920}, {"y", -200}, {"desc", "DISPLAY2 2560x1440 (OUT1)"}};
    QCOMPARE(metadata, expected);
    QCOMPARE(metadata.keys().size(), 7);
}

void TestDeskDuplManager::unknownIdentifiers()
{
    DeskDuplManager registry(twoAdapters(), Fakes::fakeBackends(m_journal));
    MessageCapture messages;
    QVERIFY(registry.acquireCapturer("DISPLAY9-A0-O0").isNull());
    QVERIFY(registry.capturerDesc("DISPLAY9-A0-O0").isNull());
    QVERIFY(registry.capturerMetadata("DISPLAY9-A0-O0").isEmpty());
    QVERIFY(logged(messages).isEmpty());
    QCOMPARE(m_journal->made, 0);
}

void TestDeskDuplManager::enumerationLogsEachContext()
{
    MessageCapture messages;
    DeskDuplManager registry(twoAdapters(), Fakes::fakeBackends(m_journal));
    const QStringList all = logged(messages);
    const QStringList expected {
        "info: GPU:  \"First GPU\"",
        "info: DXGIAdapter index:  0",
        "info: GPU:  \"Second GPU\"",
        "info: DXGIAdapter index:  1",
        "info: Succeeded to build capture context:",
        "info:   ID: \"DISPLAY1-A0-O0\"",
        "info:   BaseId: \"DISPLAY1\"",
        "info:   DeviceName: \"\\\\\\\\.\\\\DISPLAY1\"",
        "info:   Resolution: 1920 x 1080",
        "info:   Position: QRect(0,0 1920x1080)",
        "info:   HMONITOR: 1001",
        "info:   Output Index: 0",
        "info: A total of  1  Capturer are enumerated from GPU  0",
    };
    const QStringList got = all.mid(all.indexOf(expected.first()), expected.size());
    for (int i = 0; i < expected.size(); ++i)
        QCOMPARE(got.value(i), expected.at(i));
    QVERIFY(all.contains("info: A total of  2  Capturer are enumerated from GPU  1"));
    QCOMPARE(all.last(), QStringLiteral("info: A total of 3 desktop replication interfaces were built"));
    QVERIFY(messages.texts(QtWarningMsg).isEmpty());
}

void TestDeskDuplManager::missingAdministratorRightsAreOnlyWarned()
{
    auto system = twoAdapters();
    system->admin = false;
    MessageCapture messages;
    DeskDuplManager registry(system, Fakes::fakeBackends(m_journal));
    QCOMPARE(messages.texts(QtWarningMsg),
        QStringList {"The current process does not have administrator rights,             which may cause the "
                     "Capturer to not work properly"});
    QCOMPARE(registry.allCapturer().size(), 3);
}

void TestDeskDuplManager::failedFactoryLeavesTheTableEmpty()
{
    auto system = twoAdapters();
    system->openResult = DXGI_ERROR_UNSUPPORTED;
    MessageCapture messages;
    DeskDuplManager registry(system, Fakes::fakeBackends(m_journal));
    QCOMPARE(messages.texts(QtCriticalMsg),
        QStringList {"Failed to create DXGIFactory1, reason:  " + quoted(win32ErrorMsg(DXGI_ERROR_UNSUPPORTED))});
    QCOMPARE(system->enumAdapterCalls, 0);
    QVERIFY(registry.allCapturer().isEmpty());
    QVERIFY(registry.defaultCapturer().isNull());
    QVERIFY(registry.acquireCapturer("DISPLAY1-A0-O0").isNull());
}

void TestDeskDuplManager::failedAdapterNumberShiftsTheIndex()
{
    auto system = std::make_shared<FakeDisplaySystem>();
    system->addFailingAdapter(E_FAIL);
    system->addAdapter(L"Survivor")->addOutput(L"\\\\.\\DISPLAY3", 0, 0, 800, 600, 0x3001);
    MessageCapture messages;
    DeskDuplManager registry(system, Fakes::fakeBackends(m_journal));
    QCOMPARE(messages.texts(QtCriticalMsg),
        QStringList {"Failed to enum DXGIAdapter1, reason:  " + quoted(win32ErrorMsg(E_FAIL))});
    QVERIFY(messages.contains(QtInfoMsg, "DXGIAdapter index:  1"));
    // The vector index, not the adapter number, names the row.
    QCOMPARE(registry.allCapturer(), QList<QString> {"DISPLAY3-A0-O0"});
}

void TestDeskDuplManager::adapterEnumerationThatNeverEndsIsBounded()
{
    auto system = twoAdapters();
    system->endResult = E_FAIL;
    MessageCapture messages;
    DeskDuplManager registry(system, Fakes::fakeBackends(m_journal));
    QCOMPARE(registry.allCapturer().size(), 3);
    QCOMPARE(messages.texts(QtCriticalMsg).size(), 16);
    QCOMPARE(system->enumAdapterCalls, 2 + 16);
}

void TestDeskDuplManager::failedOutputDescriptionIsSkipped()
{
    auto system = std::make_shared<FakeDisplaySystem>();
    auto adapter = system->addAdapter();
    adapter->addOutput(L"\\\\.\\DISPLAY1", 0, 0, 1920, 1080, 0x1001)->describeResult = E_ACCESSDENIED;
    adapter->addOutput(L"\\\\.\\DISPLAY2", 1920, 0, 1920, 1080, 0x1002)->describeResult = E_FAIL;
    adapter->addOutput(L"\\\\.\\DISPLAY3", 3840, 0, 1920, 1080, 0x1003);
    MessageCapture messages;
    DeskDuplManager registry(system, Fakes::fakeBackends(m_journal));
    // The number shown is one below the index in question.
    QCOMPARE(messages.texts(QtCriticalMsg),
        (QStringList {"Failed to get IDXGIOutput desc -1 " + quoted(win32ErrorMsg(E_ACCESSDENIED)),
            "Failed to get IDXGIOutput desc 0 " + quoted(win32ErrorMsg(E_FAIL))}));
    QCOMPARE(registry.allCapturer(), QList<QString> {"DISPLAY3-A0-O2"});
    QCOMPARE(registry.capturerDesc("DISPLAY3-A0-O2"), QStringLiteral("DISPLAY3 1920x1080 (OUT3)"));
}

void TestDeskDuplManager::leftOverNotFoundEndsTheOutputLoop()
{
    auto system = std::make_shared<FakeDisplaySystem>();
    auto adapter = system->addAdapter();
    adapter->addOutput(L"\\\\.\\DISPLAY1", 0, 0, 1920, 1080, 0x1001)->describeResult = DXGI_ERROR_NOT_FOUND;
    adapter->addOutput(L"\\\\.\\DISPLAY2", 1920, 0, 1920, 1080, 0x1002);
    MessageCapture messages;
    DeskDuplManager registry(system, Fakes::fakeBackends(m_journal));
    QCOMPARE(messages.texts(QtCriticalMsg),
        (QStringList {"Failed to get IDXGIOutput desc -1 " + quoted(win32ErrorMsg(DXGI_ERROR_NOT_FOUND)),
            "Failed to initialize any desktop replication interfaces"}));
    QVERIFY(registry.allCapturer().isEmpty());
    QCOMPARE(adapter->enumCalls, 1);
}

void TestDeskDuplManager::failedOutputEnumerationEndsTheLoop()
{
    auto system = std::make_shared<FakeDisplaySystem>();
    auto adapter = system->addAdapter();
    adapter->addOutput(L"\\\\.\\DISPLAY1", 0, 0, 1920, 1080, 0x1001);
    adapter->addOutput(L"\\\\.\\DISPLAY2", 1920, 0, 1920, 1080, 0x1002)->enumResult = E_FAIL;
    adapter->addOutput(L"\\\\.\\DISPLAY3", 3840, 0, 1920, 1080, 0x1003);
    DeskDuplManager registry(system, Fakes::fakeBackends(m_journal));
    QCOMPARE(registry.allCapturer(), QList<QString> {"DISPLAY1-A0-O0"});
    QCOMPARE(adapter->enumCalls, 2);
}

void TestDeskDuplManager::failedDeviceDropsTheRow()
{
    auto system = twoAdapters();
    system->adapters[1].adapter->outputs[0]->deviceResult = E_OUTOFMEMORY;
    MessageCapture messages;
    DeskDuplManager registry(system, Fakes::fakeBackends(m_journal));
    QCOMPARE(messages.texts(QtCriticalMsg),
        QStringList {"Failed to create D3DDevice for output  0 , reason:  " + quoted(win32ErrorMsg(E_OUTOFMEMORY))});
    QCOMPARE(registry.allCapturer(), (QList<QString> {"DISPLAY1-A0-O0", "OUTPUT-A1-O1"}));
}

void TestDeskDuplManager::failedDeviceKeepsTheRowWhereDevicesAreOptional()
{
    auto system = twoAdapters();
    system->optionalDevices = true;
    system->adapters[1].adapter->outputs[0]->deviceResult = DXGI_ERROR_UNSUPPORTED;
    MessageCapture messages;
    DeskDuplManager registry(system, Fakes::fakeBackends(m_journal));
    QCOMPARE(messages.texts(QtCriticalMsg),
        QStringList {
            "Failed to create D3DDevice for output  0 , reason:  " + quoted(win32ErrorMsg(DXGI_ERROR_UNSUPPORTED))});
    QCOMPARE(registry.allCapturer().size(), 3);

    auto capturer = registry.acquireCapturer("DISPLAY2-A1-O0");
    QVERIFY(capturer);
    QCOMPARE(m_journal->contexts.size(), 1);
    QVERIFY(!m_journal->contexts.first().device);
    QVERIFY(m_journal->contexts.first().output);
    QCOMPARE(m_journal->contexts.first().monitor, DeskMonitorHandle(0x2001));
}

void TestDeskDuplManager::duplicateIdentifierIsSkipped()
{
    auto system = std::make_shared<FakeDisplaySystem>();
    auto adapter = system->addAdapter();
    adapter->addOutput(L"\\\\.\\DISPLAY1", 0, 0, 1920, 1080, 0x1001);
    auto second = system->addAdapter();
    second->addOutput(L"\\\\.\\DISPLAY1", 0, 0, 1024, 768, 0x1002);
    MessageCapture messages;
    DeskDuplManager registry(system, Fakes::fakeBackends(m_journal));
    QCOMPARE(registry.allCapturer(), (QList<QString> {"DISPLAY1-A0-O0", "DISPLAY1-A1-O0"}));
    QVERIFY(messages.texts(QtCriticalMsg).isEmpty());
}

void TestDeskDuplManager::noOutputsAtAll()
{
    auto system = std::make_shared<FakeDisplaySystem>();
    system->addAdapter();
    MessageCapture messages;
    DeskDuplManager registry(system, Fakes::fakeBackends(m_journal));
    QCOMPARE(messages.texts(QtCriticalMsg), QStringList {"Failed to initialize any desktop replication interfaces"});
    QVERIFY(registry.allCapturer().isEmpty());
    QVERIFY(registry.defaultCapturer().isNull());
}

void TestDeskDuplManager::firstAcquireCountsTwo()
{
    DeskDuplManager registry(twoAdapters(), Fakes::fakeBackends(m_journal));
    MessageCapture messages;
    const QSharedPointer<IDeskCapture> capturer = registry.acquireCapturer("DISPLAY1-A0-O0");
    QVERIFY(capturer);
    QVERIFY(qobject_cast<WinDeskCapture*>(capturer.data()));
    QCOMPARE(capturer->thread(), registry.thread());
    const QString making = logged(messages).first();
    QVERIFY2(making.startsWith("info: [DeskDuplManager]: Making capturer  \"DISPLAY1-A0-O0\" , current thread:  0x"),
        qPrintable(making));
    QVERIFY2(making.endsWith(QStringLiteral(" , thread:  %1").arg(quintptr(registry.thread()))), qPrintable(making));
    QCOMPARE(logged(messages).last(), referencesText("DISPLAY1-A0-O0", 2));
    QCOMPARE(m_journal->made, 1);
    QCOMPARE(m_journal->modes, QList<int> {2});
}

void TestDeskDuplManager::referenceTableThroughAllStates()
{
    DeskDuplManager registry(twoAdapters(), Fakes::fakeBackends(m_journal));
    const QString id = "DISPLAY1-A0-O0";

    // Fresh -> Held (2).
    QSharedPointer<IDeskCapture> first = registry.acquireCapturer(id);
    QVERIFY(first);
    // Held -> Held (3): the same object, no new one.
    QSharedPointer<IDeskCapture> second = registry.acquireCapturer(id);
    QCOMPARE(second.data(), first.data());
    QCOMPARE(m_journal->made, 1);

    MessageCapture messages;
    registry.releaseCapturer(id);
    QCOMPARE(logged(messages), QStringList {referencesText(id, 2)});
    // Held -> Idle (1): the capturer keeps running.
    messages.clear();
    registry.releaseCapturer(id);
    QCOMPARE(logged(messages), QStringList {referencesText(id, 1)});
    QCOMPARE(m_journal->destroyed, 0);

    // Idle -> Held: the same object comes back.
    QSharedPointer<IDeskCapture> again = registry.acquireCapturer(id);
    QCOMPARE(again.data(), first.data());
    registry.releaseCapturer(id);

    // Idle -> Released (0): the row lets its copy go.
    messages.clear();
    registry.releaseCapturer(id);
    QCOMPARE(logged(messages), (QStringList {referencesText(id, 0), releasedText(id)}));
    // A consumer may still hold the object past the release.
    QCOMPARE(m_journal->destroyed, 0);
    QWeakPointer<IDeskCapture> watch = first;
    first.clear();
    second.clear();
    again.clear();
    QVERIFY(watch.isNull());
    QCOMPARE(m_journal->destroyed, 1);

    // Released -> Held again (1): a new capturer, without the row's own unit.
    messages.clear();
    QSharedPointer<IDeskCapture> renewed = registry.acquireCapturer(id);
    QVERIFY(renewed);
    QCOMPARE(m_journal->made, 2);
    QCOMPARE(logged(messages).last(), referencesText(id, 1));
    QWeakPointer<IDeskCapture> renewedWatch = renewed;
    renewed.clear();
    // ...and its balanced release drops it.
    registry.releaseCapturer(id);
    QVERIFY(renewedWatch.isNull());
    QCOMPARE(m_journal->destroyed, 2);
}

void TestDeskDuplManager::releaseAtZeroStaysAtZero()
{
    DeskDuplManager registry(twoAdapters(), Fakes::fakeBackends(m_journal));
    const QString id = "OUTPUT-A1-O1";
    registry.releaseCapturer(id);
    MessageCapture messages;
    registry.releaseCapturer(id);
    QCOMPARE(logged(messages), (QStringList {referencesText(id, 0), releasedText(id)}));
    QCOMPARE(m_journal->made, 0);

    messages.clear();
    QVERIFY(registry.acquireCapturer(id));
    QCOMPARE(logged(messages).last(), referencesText(id, 1));
}

void TestDeskDuplManager::releaseOfUnknownIdentifier()
{
    DeskDuplManager registry(twoAdapters(), Fakes::fakeBackends(m_journal));
    MessageCapture messages;
    registry.releaseCapturer("nothing");
    QCOMPARE(logged(messages),
        QStringList {
            "critical: [DeskDuplManager]: Not found capturer to release capturer reference count : \"nothing\""});
}

void TestDeskDuplManager::acquireFromAnotherThread()
{
    DeskDuplManager registry(twoAdapters(), Fakes::fakeBackends(m_journal));
    const QString id = "DISPLAY2-A1-O0";

    MessageCapture messages;
    QSharedPointer<IDeskCapture> fromThread;
    std::thread consumer([&] { fromThread = registry.acquireCapturer(id); });
    consumer.join();
    QVERIFY(fromThread.isNull());
    QCOMPARE(logged(messages).last(), referencesText(id, 2));
    QCOMPARE(m_journal->made, 0);

    // The posted construction runs once the registry's thread gets to its events.
    QTRY_COMPARE_WITH_TIMEOUT(m_journal->made, 1, 10000);

    QSharedPointer<IDeskCapture> later;
    std::thread again([&] { later = registry.acquireCapturer(id); });
    again.join();
    QVERIFY(later);
    QCOMPARE(later->thread(), registry.thread());
    QCOMPARE(logged(messages).last(), referencesText(id, 3));
    QCOMPARE(m_journal->made, 1);
    later.clear();
}

void TestDeskDuplManager::capturerDroppedLastOnAnotherThread()
{
    DeskDuplManager registry(twoAdapters(), Fakes::fakeBackends(m_journal));
    const QString id = "DISPLAY1-A0-O0";
    QSharedPointer<IDeskCapture> held = registry.acquireCapturer(id);
    QVERIFY(held);
    registry.releaseCapturer(id);
    registry.releaseCapturer(id);
    QCOMPARE(m_journal->destroyed, 0);

    // The consumer lets the last copy go on its own thread: the capturer
    // ends on the registry's thread, where its timer lives.
    std::thread consumer([&] { held.clear(); });
    consumer.join();
    QTRY_COMPARE_WITH_TIMEOUT(m_journal->destroyed, 1, 10000);
}

void TestDeskDuplManager::modeAboveRangeIsClampedWithoutWriteBack()
{
    ConfigurationManager::instance()->setGlobalValue("screenCaptureMode", 7);
    DeskDuplManager registry(twoAdapters(), Fakes::fakeBackends(m_journal));
    QCOMPARE(publishedOption()->curMode(), 2);
    QCOMPARE(ConfigurationManager::instance()->globalValue("screenCaptureMode").toInt(), 7);
    QVERIFY(!QFile::exists(QDir(m_configDir.path()).filePath("global.json")));
}

void TestDeskDuplManager::modeBelowRangeIsClampedWithoutWriteBack()
{
    ConfigurationManager::instance()->setGlobalValue("screenCaptureMode", -1);
    DeskDuplManager registry(twoAdapters(), Fakes::fakeBackends(m_journal));
    QCOMPARE(publishedOption()->curMode(), 0);
    QCOMPARE(publishedOption()->totalOfMode(), 3);
    QCOMPARE(publishedOption()->modeNames(), (QStringList {"DXGI", "WinRT", "GDI"}));
    QCOMPARE(ConfigurationManager::instance()->globalValue("screenCaptureMode").toInt(), -1);
    QVERIFY(!QFile::exists(QDir(m_configDir.path()).filePath("global.json")));
}

void TestDeskDuplManager::modeChangeIsSavedAndReachesCapturers()
{
    DeskDuplManager registry(twoAdapters(), Fakes::fakeBackends(m_journal));
    DeskCaptureOption* option = publishedOption();
    QCOMPARE(option->curMode(), 2);
    QSharedPointer<IDeskCapture> capturer = registry.acquireCapturer("DISPLAY1-A0-O0");
    capturer->setOutputSize(QSize(640, 360));

    option->setCurMode(1);
    QCOMPARE(ConfigurationManager::instance()->globalValue("screenCaptureMode").toInt(), 1);
    QFile saved(QDir(m_configDir.path()).filePath("global.json"));
    QVERIFY(saved.open(QIODevice::ReadOnly));
    QCOMPARE(QJsonDocument::fromJson(saved.readAll()).object().value("screenCaptureMode").toInt(), 1);

    // The capturer hears of it by a queued call.
    QCOMPARE(m_journal->made, 1);
    QTRY_COMPARE_WITH_TIMEOUT(m_journal->made, 2, 10000);
    QCOMPARE(m_journal->modes, (QList<int> {2, 1}));
    QCOMPARE(capturer->outputSize(), QSize(640, 360));
    QCOMPARE(m_journal->sizesSet.last(), QSize(640, 360));
}

void TestDeskDuplManager::optionIsPublishedOnTheApplication()
{
    QVariant published;
    {
        DeskDuplManager registry(twoAdapters(), Fakes::fakeBackends(m_journal));
        published = QCoreApplication::instance()->property("runtime.options.deskCaptureOption");
        QCOMPARE(published.userType(), int(QMetaType::LongLong));
        auto* option = reinterpret_cast<DeskCaptureOption*>(quintptr(published.toLongLong()));
        QCOMPARE(option->parent(), &registry);
        QCOMPARE(registry.findChild<DeskCaptureOption*>(), option);
    }
    // Gone with the registry, so that nobody follows a stale address.
    QVERIFY(!QCoreApplication::instance()->property("runtime.options.deskCaptureOption").isValid());
}

void TestDeskDuplManager::postedConstructionFindsTheCapturerAlreadyMade()
{
    DeskDuplManager registry(twoAdapters(), Fakes::fakeBackends(m_journal));
    const QString id = "DISPLAY1-A0-O0";
    QSharedPointer<IDeskCapture> fromThread;
    std::thread([&] { fromThread = registry.acquireCapturer(id); }).join();
    QVERIFY(fromThread.isNull());

    // The registry's own thread acquires before its loop ran the posted construction.
    QSharedPointer<IDeskCapture> direct = registry.acquireCapturer(id);
    QVERIFY(direct);
    QCOMPARE(m_journal->made, 1);
    QCoreApplication::sendPostedEvents(&registry, QEvent::MetaCall);

    // One front for one output: the posted construction found it made.
    QCOMPARE(m_journal->made, 1);
    QCOMPARE(registry.acquireCapturer(id), direct);
}

void TestDeskDuplManager::postedConstructionAfterTheLastReleaseMakesNothing()
{
    DeskDuplManager registry(twoAdapters(), Fakes::fakeBackends(m_journal));
    const QString id = "DISPLAY1-A0-O0";
    MessageCapture messages;
    std::thread([&] {
        registry.acquireCapturer(id);
        registry.releaseCapturer(id);
        registry.releaseCapturer(id);
    }).join();
    QVERIFY(messages.contains(QtInfoMsg, releasedText(id).mid(6)));
    QCoreApplication::sendPostedEvents(&registry, QEvent::MetaCall);

    // The count reached 0 before the construction ran: no capturer without references.
    QCOMPARE(m_journal->made, 0);
    QSharedPointer<IDeskCapture> again = registry.acquireCapturer(id);
    QVERIFY(again);
    QCOMPARE(m_journal->made, 1);
    QVERIFY(messages.contains(QtInfoMsg, referencesText(id, 1).mid(6)));
}

void TestDeskDuplManager::frontsEndWithTheRegistryAfterItsLoopEnded()
{
    QThread registryThread;
    QObject onRegistryThread;
    onRegistryThread.moveToThread(&registryThread);
    registryThread.start();

    DeskDuplManager* registry = nullptr;
    QSharedPointer<IDeskCapture> dropped;
    QSharedPointer<IDeskCapture> held;
    QPointer<QObject> droppedWatch;
    QPointer<QObject> heldWatch;
    auto system = twoAdapters();
    auto backends = Fakes::fakeBackends(m_journal);
    QMetaObject::invokeMethod(
        &onRegistryThread,
        [&] {
            registry = new DeskDuplManager(system, backends);
            dropped = registry->acquireCapturer("DISPLAY1-A0-O0");
            registry->releaseCapturer("DISPLAY1-A0-O0");
            registry->releaseCapturer("DISPLAY1-A0-O0");
            held = registry->acquireCapturer("DISPLAY2-A1-O0");
            droppedWatch = dropped.data();
            heldWatch = held.data();
        },
        Qt::BlockingQueuedConnection);
    QVERIFY(dropped && held);
    registryThread.quit();
    QVERIFY(registryThread.wait(10000));

    // The last copy goes on this thread after the registry's loop ended.
    MessageCapture messages;
    dropped.clear();
    delete registry;
    QVERIFY(!droppedWatch);
    QCOMPARE(messages.texts(QtInfoMsg).filter("WinDeskCapture timer has stopped, id: ").size(), 2);

    // A front still held was stopped with the registry and goes with its last copy, on any thread.
    QVERIFY(heldWatch);
    QVERIFY(held->nextFrame().empty());
    held.clear();
    QVERIFY(!heldWatch);
    QCOMPARE(m_journal->destroyed, m_journal->made);
}

void TestDeskDuplManager::waitingBackendDoesNotHoldTheRegistry()
{
    DeskDuplManager registry(twoAdapters(), Fakes::fakeBackends(m_journal));
    // The back-end asks the user, who leaves the dialog open for up to two seconds.
    std::atomic<bool> dialogOpen {false};
    std::atomic<bool> answered {false};
    m_journal->onContext = [&] {
        dialogOpen = true;
        QElapsedTimer open;
        open.start();
        while (!answered.load() && open.elapsed() < 2000)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    };

    qint64 slowest = -1;
    QString desc;
    std::thread other([&] {
        while (!dialogOpen.load())
            std::this_thread::yield();
        // Another thread's calls while the registry's thread waits for the user.
        QElapsedTimer call;
        call.start();
        desc = registry.capturerDesc("DISPLAY2-A1-O0");
        registry.capturerMetadata("DISPLAY2-A1-O0");
        registry.acquireCapturer("DISPLAY2-A1-O0");
        registry.releaseCapturer("DISPLAY2-A1-O0");
        slowest = call.elapsed();
        answered = true;
    });
    QSharedPointer<IDeskCapture> front = registry.acquireCapturer("DISPLAY1-A0-O0");
    other.join();
    m_journal->onContext = nullptr;

    QVERIFY(front);
    QCOMPARE(desc, QStringLiteral("DISPLAY2 2560x1440 (OUT1)"));
    QVERIFY2(slowest >= 0 && slowest < 100, qPrintable(QString::number(slowest)));
    QCOMPARE(registry.acquireCapturer("DISPLAY1-A0-O0"), front);
    QCOMPARE(m_journal->made, 1);
}

QTEST_GUILESS_MAIN(TestDeskDuplManager)
#include "tst_deskduplmanager.moc"
