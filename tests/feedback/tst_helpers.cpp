#include "Helpers.h"
#include "NetworkErrorMetaType.h"
#include "ResultCodes.h"

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
    void everyNamedCodeHasText_data();
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
    // The compiler writes "Mar  5 2024"; the blank reaches the "dd" of the
    // date format unchanged, which does not accept it.
    QVERIFY(!convertDateMacro(QStringLiteral("Mar  5 2024")).isValid());
    QCOMPARE(convertDateMacro(QStringLiteral("Mar 05 2024")), QDate(2024, 3, 5));
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

void HelpersTest::everyNamedCodeHasText_data()
{
    // The codes as the platform defines them, and the texts its system gives
    // for them, written out here rather than taken from the library.
    QTest::addColumn<quint32>("bits");
    QTest::addColumn<QString>("text");
    QTest::newRow("E_FAIL") << 0x80004005u << QStringLiteral("0xFFFFFFFF80004005: Unspecified error");
    QTest::newRow("E_ACCESSDENIED") << 0x80070005u << QStringLiteral("0xFFFFFFFF80070005: Access is denied.");
    QTest::newRow("E_OUTOFMEMORY")
        << 0x8007000Eu
        << QStringLiteral("0xFFFFFFFF8007000E: Not enough memory resources are available to complete this operation.");
    QTest::newRow("E_NOTIMPL") << 0x80004001u << QStringLiteral("0xFFFFFFFF80004001: Not implemented");
    QTest::newRow("E_INVALIDARG") << 0x80070057u << QStringLiteral("0xFFFFFFFF80070057: The parameter is incorrect.");
    QTest::newRow("E_NOINTERFACE") << 0x80004002u << QStringLiteral("0xFFFFFFFF80004002: No such interface supported");
    QTest::newRow("DXGI_ERROR_ACCESS_LOST")
        << 0x887A0026u
        << QStringLiteral("0xFFFFFFFF887A0026: The desktop duplication interface is invalid. The desktop duplication "
                          "interface typically becomes invalid when a different type of image is displayed on the "
                          "desktop.");
    QTest::newRow("DXGI_ERROR_WAIT_TIMEOUT")
        << 0x887A0027u
        << QStringLiteral(
               "0xFFFFFFFF887A0027: The time-out interval elapsed before the next desktop frame was available.");
    QTest::newRow("DXGI_ERROR_DEVICE_REMOVED")
        << 0x887A0005u << QStringLiteral("0xFFFFFFFF887A0005: The GPU device instance has been suspended.");
    QTest::newRow("DXGI_ERROR_DEVICE_RESET")
        << 0x887A0007u
        << QStringLiteral(
               "0xFFFFFFFF887A0007: The GPU will not respond to more commands, because of an invalid command.");
    QTest::newRow("DXGI_ERROR_INVALID_CALL")
        << 0x887A0001u << QStringLiteral("0xFFFFFFFF887A0001: The application made a call that is invalid.");
    QTest::newRow("DXGI_ERROR_UNSUPPORTED")
        << 0x887A0004u
        << QStringLiteral("0xFFFFFFFF887A0004: The specified device interface or feature level is not supported on "
                          "this system.");
    QTest::newRow("DXGI_ERROR_SESSION_DISCONNECTED")
        << 0x887A0028u
        << QStringLiteral("0xFFFFFFFF887A0028: The Remote Desktop Services session is currently disconnected.");
    QTest::newRow("DXGI_ERROR_NOT_CURRENTLY_AVAILABLE")
        << 0x887A0022u
        << QStringLiteral("0xFFFFFFFF887A0022: The resource or request is not currently available, but it might "
                          "become available later.");
    QTest::newRow("DXGI_ERROR_ACCESS_DENIED")
        << 0x887A002Bu
        << QStringLiteral("0xFFFFFFFF887A002B: You tried to use a resource to which you did not have the required "
                          "access privileges.");
    QTest::newRow("AUDCLNT_E_DEVICE_INVALIDATED")
        << 0x88890004u
        << QStringLiteral("0xFFFFFFFF88890004: The audio endpoint device has been unplugged, or the audio hardware "
                          "or associated hardware resources have been reconfigured, disabled, removed, or otherwise "
                          "made unavailable for use.");
    QTest::newRow("AUDCLNT_E_UNSUPPORTED_FORMAT")
        << 0x88890008u
        << QStringLiteral("0xFFFFFFFF88890008: The audio engine (shared mode) or audio endpoint device (exclusive "
                          "mode) does not support the specified format.");
    QTest::newRow("AUDCLNT_E_WRONG_ENDPOINT_TYPE")
        << 0x88890003u
        << QStringLiteral("0xFFFFFFFF88890003: The audio endpoint device does not support this operation.");
    QTest::newRow("AUDCLNT_E_NOT_INITIALIZED")
        << 0x88890001u << QStringLiteral("0xFFFFFFFF88890001: The audio stream has not been successfully initialized.");
    QTest::newRow("AUDCLNT_E_SERVICE_NOT_RUNNING")
        << 0x88890010u << QStringLiteral("0xFFFFFFFF88890010: The Windows audio service is not running.");
}

void HelpersTest::everyNamedCodeHasText()
{
    QFETCH(quint32, bits);
    QFETCH(QString, text);
    QCOMPARE(win32ErrorMsg(Orvanta::hresultFromBits(bits)), text);
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
    QCOMPARE(
        capture.texts(QtWarningMsg), QStringList {QStringLiteral("[NetRCManager]: QNetworkReply::HostNotFoundError")});
}

QTEST_GUILESS_MAIN(HelpersTest)
#include "tst_helpers.moc"
