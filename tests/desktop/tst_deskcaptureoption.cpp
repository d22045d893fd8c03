#include "DeskCaptureOption.h"
#include "MessageCapture.h"

#include <QtCore/QMetaMethod>
#include <QtTest/QSignalSpy>
#include <QtTest/QTest>

class TestDeskCaptureOption : public QObject
{
    Q_OBJECT

private slots:
    void freshObjectHasOneUnnamedMode();
    void settingTheCurrentModeAgainIsSilent();
    void outOfRangeModeIsLoggedAndRefused();
    void negativeModeIsRefused();
    void loweringTheTotalLeavesTheModeOutOfRange();
    void totalOfModeSignalsOnlyOnChange();
    void equalModeNamesEmitNothing();
    void sharedModeNamesEmitNothing();
    void modeNameOfMissingEntries();
    void metaObjectShowsTheContract();
};

void TestDeskCaptureOption::freshObjectHasOneUnnamedMode()
{
    DeskCaptureOption option(nullptr);
    QCOMPARE(option.totalOfMode(), 1);
    QCOMPARE(option.curMode(), 0);
    QVERIFY(option.modeNames().isEmpty());
    QCOMPARE(option.modeName(0), QStringLiteral("Mode 1"));
}

void TestDeskCaptureOption::settingTheCurrentModeAgainIsSilent()
{
    DeskCaptureOption option(nullptr);
    QSignalSpy changed(&option, &DeskCaptureOption::curModeChanged);
    MessageCapture messages;
    option.setCurMode(0);
    QCOMPARE(changed.count(), 0);
    QVERIFY(messages.messages().isEmpty());
}

void TestDeskCaptureOption::outOfRangeModeIsLoggedAndRefused()
{
    DeskCaptureOption option(nullptr);
    option.setTotalOfMode(3);
    option.setModeNames({"DXGI", "WinRT", "GDI"});
    QSignalSpy changed(&option, &DeskCaptureOption::curModeChanged);
    {
        MessageCapture messages;
        option.setCurMode(3);
        QCOMPARE(
            messages.all(), QStringList {"info: [DeskCaptureOption]: The newCurMode:  3  is out of range[0,  2 ]"});
    }
    QCOMPARE(option.curMode(), 0);
    QCOMPARE(changed.count(), 0);

    {
        MessageCapture messages;
        option.setCurMode(2);
        QCOMPARE(messages.all(),
            QStringList {"info: [DeskCaptureOption]: The current desk capture mode changed to \"GDI\""});
    }
    QCOMPARE(option.curMode(), 2);
    QCOMPARE(changed.count(), 1);

    MessageCapture messages;
    option.setCurMode(2);
    QCOMPARE(changed.count(), 1);
    QVERIFY(messages.messages().isEmpty());
}

void TestDeskCaptureOption::negativeModeIsRefused()
{
    DeskCaptureOption option(nullptr);
    option.setTotalOfMode(3);
    MessageCapture messages;
    option.setCurMode(-1);
    QCOMPARE(messages.all(), QStringList {"info: [DeskCaptureOption]: The newCurMode:  -1  is out of range[0,  2 ]"});
    QCOMPARE(option.curMode(), 0);
}

void TestDeskCaptureOption::loweringTheTotalLeavesTheModeOutOfRange()
{
    DeskCaptureOption option(nullptr);
    option.setTotalOfMode(3);
    option.setCurMode(2);
    option.setTotalOfMode(1);
    QCOMPARE(option.totalOfMode(), 1);
    QCOMPARE(option.curMode(), 2);

    // Only the next valid choice brings it back into range.
    option.setCurMode(1);
    QCOMPARE(option.curMode(), 2);
    option.setCurMode(0);
    QCOMPARE(option.curMode(), 0);
}

void TestDeskCaptureOption::totalOfModeSignalsOnlyOnChange()
{
    DeskCaptureOption option(nullptr);
    QSignalSpy changed(&option, &DeskCaptureOption::totalOfModeChanged);
    option.setTotalOfMode(1);
    QCOMPARE(changed.count(), 0);
    option.setTotalOfMode(-4);
    QCOMPARE(changed.count(), 1);
    QCOMPARE(option.totalOfMode(), -4);
}

void TestDeskCaptureOption::equalModeNamesEmitNothing()
{
    DeskCaptureOption option(nullptr);
    QSignalSpy changed(&option, &DeskCaptureOption::modeNamesChanged);
    option.setModeNames({"DXGI", "WinRT", "GDI"});
    QCOMPARE(changed.count(), 1);
    option.setModeNames(QStringList {"DXGI", "WinRT", "GDI"});
    QCOMPARE(changed.count(), 1);
    option.setModeNames({"DXGI", "WinRT"});
    QCOMPARE(changed.count(), 2);
}

void TestDeskCaptureOption::sharedModeNamesEmitNothing()
{
    DeskCaptureOption option(nullptr);
    QSignalSpy changed(&option, &DeskCaptureOption::modeNamesChanged);
    const QStringList names {"A"};
    option.setModeNames(names);
    option.setModeNames(option.modeNames());
    QCOMPARE(changed.count(), 1);
}

void TestDeskCaptureOption::modeNameOfMissingEntries()
{
    DeskCaptureOption option(nullptr);
    option.setModeNames({"DXGI", "WinRT", "GDI"});
    QCOMPARE(option.modeName(1), QStringLiteral("WinRT"));
    QCOMPARE(option.modeName(3), QStringLiteral("Mode 4"));
    QCOMPARE(option.modeName(-1), QStringLiteral("Mode 0"));
    QCOMPARE(option.modeName(-5), QStringLiteral("Mode -4"));
}

void TestDeskCaptureOption::metaObjectShowsTheContract()
{
    const QMetaObject& meta = DeskCaptureOption::staticMetaObject;
    QStringList methods;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        methods << QString::fromLatin1(meta.method(i).methodSignature());
    QCOMPARE(methods,
        (QStringList {"totalOfModeChanged()", "curModeChanged()", "modeNamesChanged()", "setTotalOfMode(int)",
            "setCurMode(int)", "setModeNames(QStringList)", "totalOfMode()", "curMode()", "modeNames()",
            "modeName(int)"}));
    QStringList properties;
    for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i) {
        const QMetaProperty property = meta.property(i);
        QVERIFY(property.isReadable());
        QVERIFY(property.isWritable());
        QVERIFY(property.hasNotifySignal());
        properties << QString::fromLatin1(property.name());
    }
    QCOMPARE(properties, (QStringList {"totalOfMode", "curMode", "modeNames"}));

    DeskCaptureOption option(nullptr);
    QVERIFY(option.setProperty("curMode", 0));
    QCOMPARE(option.property("totalOfMode").toInt(), 1);
}

QTEST_GUILESS_MAIN(TestDeskCaptureOption)
#include "tst_deskcaptureoption.moc"
