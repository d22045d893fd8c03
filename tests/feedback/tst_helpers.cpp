#include "Helpers.h"
#include "NetworkErrorMetaType.h"
#include "ResultCodes.h"
#include "ifaces/ErrorTextSource.h"

#include "MessageCapture.h"

#include <QtCore/QMetaType>
#include <QtTest/QtTest>

class HelpersTest : public QObject
{
    Q_OBJECT

private slots:
    void equalVersionsAreNotGreaterInEitherOrder();
    void versionOrder_data();
    void versionOrder();
    void emptyVersionsAreEqual();
    void emptyPartCountsAsZero();
    void dateMacro_data();
    void dateMacro();
    void lowerCaseOrUnknownMonthGivesInvalidDate();
    void dayBelowTenKeepsItsBlank();
    void nonNegativeCodesAreNoError();
    void knownCodeHasNumberAndText();
    void unknownCodeHasUnknownExpect();
    void everyNamedCodeHasText();
    void networkErrorIsRegisteredOnce();
    void networkErrorPrintsByName();
};

void HelpersTest::equalVersionsAreNotGreaterInEitherOrder()
{
    QVERIFY(!compareVersion(QStringLiteral("1.2.3"), QStringLiteral("1.2.3")));
    QVERIFY(!compareVersion(QStringLiteral("1.2"), QStringLiteral("1.2.0")));
    QVERIFY(!compareVersion(QStringLiteral("1.2.0"), QStringLiteral("1.2")));
}

void HelpersTest::versionOrder_data()
{
    QTest::addColumn<QString>("first");
    QTest::addColumn<QString>("second");
    QTest::addColumn<bool>("greater");
    QTest::newRow("2 > 1.9.9") << "2"
                               << "1.9.9" << true;
    QTest::newRow("1.9.9 < 2") << "1.9.9"
                               << "2" << false;
    QTest::newRow("numeric per part") << "1.10"
                                      << "1.9" << true;
    QTest::newRow("longer is greater") << "1.2.0.1"
                                       << "1.2.0" << true;
    QTest::newRow("letters give 0") << "1.2a"
                                    << "1.0" << false;
    QTest::newRow("letters equal 1.0") << "1.0"
                                       << "1.2a" << false;
    QTest::newRow("letters below 1.1") << "1.1"
                                       << "1.2a" << true;
}

void HelpersTest::versionOrder()
{
    QFETCH(QString, first);
    QFETCH(QString, second);
    QFETCH(bool, greater);
    QCOMPARE(compareVersion(first, second), greater);
}

void HelpersTest::emptyVersionsAreEqual()
{
    QVERIFY(!compareVersion(QString(), QString()));
    QVERIFY(!compareVersion(QString(), QStringLiteral("0")));
}

void HelpersTest::emptyPartCountsAsZero()
{
    QVERIFY(compareVersion(QStringLiteral("1..2"), QStringLiteral("1.0.1")));
    QVERIFY(!compareVersion(QStringLiteral("1.0.1"), QStringLiteral("1..2")));
}

void HelpersTest::dateMacro_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QDate>("date");
    QTest::newRow("Jan") << "Jan 15 2024" << QDate(2024, 1, 15);
    QTest::newRow("Jun") << "Jun 30 2021" << QDate(2021, 6, 30);
    QTest::newRow("Nov") << "Nov 20 2026" << QDate(2026, 11, 20);
    QTest::newRow("Dec") << "Dec 31 1999" << QDate(1999, 12, 31);
    QTest::newRow("two-digit day") << "Feb 10 2020" << QDate(2020, 2, 10);
}

void HelpersTest::dateMacro()
{
    QFETCH(QString, text);
    QFETCH(QDate, date);
    QCOMPARE(convertDateMacro(text), date);
}

void HelpersTest::lowerCaseOrUnknownMonthGivesInvalidDate()
{
    QVERIFY(!convertDateMacro(QStringLiteral("jan 15 2024")).isValid());
    QVERIFY(!convertDateMacro(QStringLiteral("Foo 15 2024")).isValid());
    QVERIFY(!convertDateMacro(QString()).isValid());
}

void HelpersTest::dayBelowTenKeepsItsBlank()
{
    // The compiler writes "Mar  5 2024"; the blank reaches QDate::fromString
    // unchanged, and its "dd" does not accept it.
    const QString text = QStringLiteral("Mar  5 2024");
    QCOMPARE(convertDateMacro(text), QDate::fromString(QStringLiteral("03  5 2024"), QStringLiteral("MM dd yyyy")));
    QVERIFY(!convertDateMacro(text).isValid());
}

void HelpersTest::nonNegativeCodesAreNoError()
{
    QCOMPARE(win32ErrorMsg(0), QStringLiteral("No error"));
    QCOMPARE(win32ErrorMsg(1), QStringLiteral("No error"));
    QCOMPARE(win32ErrorMsg(AUDCLNT_S_BUFFER_EMPTY), QStringLiteral("No error"));
}

void HelpersTest::knownCodeHasNumberAndText()
{
    // A Windows `long` is sign-extended into the 64-bit number text.
    QCOMPARE(win32ErrorMsg(E_FAIL), QStringLiteral("0xFFFFFFFF80004005: Unspecified error"));
    QCOMPARE(win32ErrorMsg(E_ACCESSDENIED), QStringLiteral("0xFFFFFFFF80070005: Access is denied."));
    QVERIFY(win32ErrorMsg(DXGI_ERROR_ACCESS_LOST).startsWith(QStringLiteral("0xFFFFFFFF887A0026: ")));
}

void HelpersTest::unknownCodeHasUnknownExpect()
{
    QCOMPARE(win32ErrorMsg(-1), QStringLiteral("0xFFFFFFFFFFFFFFFF: Unknown expect"));
    QCOMPARE(
        win32ErrorMsg(Orvanta::hresultFromBits(0x80991234u)), QStringLiteral("0xFFFFFFFF80991234: Unknown expect"));
}

void HelpersTest::everyNamedCodeHasText()
{
    const long codes[]
        = {E_FAIL, E_ACCESSDENIED, E_OUTOFMEMORY, E_NOTIMPL, E_INVALIDARG, E_NOINTERFACE, DXGI_ERROR_ACCESS_LOST,
            DXGI_ERROR_WAIT_TIMEOUT, DXGI_ERROR_DEVICE_REMOVED, DXGI_ERROR_DEVICE_RESET, DXGI_ERROR_INVALID_CALL,
            DXGI_ERROR_UNSUPPORTED, DXGI_ERROR_SESSION_DISCONNECTED, DXGI_ERROR_NOT_CURRENTLY_AVAILABLE,
            DXGI_ERROR_ACCESS_DENIED, AUDCLNT_E_DEVICE_INVALIDATED, AUDCLNT_E_UNSUPPORTED_FORMAT,
            AUDCLNT_E_WRONG_ENDPOINT_TYPE, AUDCLNT_E_NOT_INITIALIZED, AUDCLNT_E_SERVICE_NOT_RUNNING};
    for (long code : codes) {
        QVERIFY2(
            !Orvanta::platformErrorTextSource().systemMessage(code).empty(), qPrintable(QString::number(code, 16)));
        QVERIFY(!win32ErrorMsg(code).endsWith(QStringLiteral("Unknown expect")));
    }
}

void HelpersTest::networkErrorIsRegisteredOnce()
{
    const int id = Orvanta::registerNetworkErrorMetaType();
    QVERIFY(id > 0);
    QCOMPARE(Orvanta::registerNetworkErrorMetaType(), id);
    QCOMPARE(QMetaType::type("QNetworkReply::NetworkError"), id);
}

void HelpersTest::networkErrorPrintsByName()
{
    MessageCapture capture;
    qWarning() << "[NetRCManager]:" << QNetworkReply::HostNotFoundError;
    QCOMPARE(capture.texts(QtWarningMsg), QStringList {QStringLiteral("[NetRCManager]: HostNotFoundError")});
}

QTEST_GUILESS_MAIN(HelpersTest)
#include "tst_helpers.moc"
