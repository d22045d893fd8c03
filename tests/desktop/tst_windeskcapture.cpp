#include "CaptureThread.h"
#include "ConfigurationManager.h"
#include "DeskCaptureOption.h"
#include "Helpers.h"
#include "MessageCapture.h"
#include "ResultCodes.h"
#include "WinDeskCapture.h"
#include "fakes/FakeCapture.h"
#include "fakes/FakeCaptureWorkerSetup.h"

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QCoreApplication>
#include <QtCore/QStandardPaths>
#include <QtCore/QTemporaryDir>
#include <QtTest/QTest>

#include <atomic>
#include <thread>

using Fakes::CaptureJournal;

namespace {

DeskCaptureContext contextFor(DeskMonitorHandle monitor)
{
    DeskCaptureContext context;
    context.monitor = monitor;
    context.deviceName = QStringLiteral("\\\\.\\DISPLAY1");
    context.position = QRect(0, 0, 1920, 1080);
    context.width = 1920;
    context.height = 1080;
    context.desc = QStringLiteral("DISPLAY1 1920x1080 (OUT1)");
    return context;
}

cv::Mat solidFrame(int rows, int cols, unsigned char red)
{
    return cv::Mat(rows, cols, CV_8UC4, cv::Scalar(red, 0, 0, 255));
}

} // namespace

class TestWinDeskCapture : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void beforeContextEverythingIsEmpty();
    void timerIsLoggedAtStartAndStop();
    void intervalIsReadOnceFromTheConfiguration();
    void intervalDefaultsTo33();
    void nonPositiveIntervalFallsBackTo33_data();
    void nonPositiveIntervalFallsBackTo33();
    void contextFromAnotherThreadIsAppliedOnTheFrontsThread();
    void contextPicksTheBackendOfTheMode();
    void unknownModeLeavesTheFrontEmpty();
    void refusedContextStillReturnsZero();
    void modeChangeKeepsTheOutputSize();
    void modeChangeAfterAFailedBackendUsesItsDefault();
    void failedBackendHidesTheLastFrame();
    void emptyFramesKeepTheSameBuffer();
    void newestFrameReplacesTheOldOne();
    void sizesForwardToTheBackend();
    void backendIsDeletedWithTheFront();
    void workerEntersAnApartmentAndLooksAtTheDesktop();
    void workerWithoutInputDesktop();
    void workerWithoutApartmentOnlyRunsItsLoop();

private:
    void prepareOption(int mode);

    QTemporaryDir m_configDir;
    DeskCaptureOption m_option;
    std::shared_ptr<CaptureJournal> m_journal;
};

void TestWinDeskCapture::initTestCase()
{
    QStandardPaths::setTestModeEnabled(true);
    QVERIFY(m_configDir.isValid());
    ConfigurationManager::setConfigPath(m_configDir.path());
    ConfigurationManager::instance()->setGlobalValue("devUpdateInterval", 5);
    m_option.setTotalOfMode(3);
    m_option.setModeNames({"DXGI", "WinRT", "GDI"});
}

void TestWinDeskCapture::init()
{
    m_journal = std::make_shared<CaptureJournal>();
    m_option.setTotalOfMode(3);
    m_option.setCurMode(2);
}

void TestWinDeskCapture::prepareOption(int mode)
{
    m_option.setTotalOfMode(qMax(3, mode + 1));
    m_option.setCurMode(mode);
}

void TestWinDeskCapture::beforeContextEverythingIsEmpty()
{
    WinDeskCapture front(&m_option, Fakes::fakeBackends(m_journal), nullptr);
    QVERIFY(front.nextFrame().empty());
    QCOMPARE(front.outputSize(), QSize(-1, -1));
    QCOMPARE(front.originSize(), QSize(-1, -1));
    front.setOutputSize(QSize(640, 360));
    QCOMPARE(front.outputSize(), QSize(-1, -1));
    // Ticks find no back-end and do nothing.
    front.acquireNextFrame();
    QCOMPARE(m_journal->made, 0);
}

void TestWinDeskCapture::timerIsLoggedAtStartAndStop()
{
    MessageCapture messages;
    {
        WinDeskCapture front(&m_option, Fakes::fakeBackends(m_journal), nullptr);
    }
    QStringList info = messages.texts(QtInfoMsg);
    QCOMPARE(info.size(), 3);
    // The worker logs from its own thread, at a moment of its own.
    const QStringList worker = info.filter("[WinDeskCapture]: Capture thread handle :  0x");
    QCOMPARE(worker.size(), 1);
    info.removeAll(worker.first());
    QVERIFY(info.at(0).startsWith("WinDeskCapture timer has started, id:  "));
    const QString id = info.at(0).mid(QStringLiteral("WinDeskCapture timer has started, id:  ").size());
    QVERIFY(id.toInt() > 0);
    QCOMPARE(info.at(1), "WinDeskCapture timer has stopped, id:  " + id);
}

void TestWinDeskCapture::intervalIsReadOnceFromTheConfiguration()
{
    ConfigurationManager::instance()->setGlobalValue("devUpdateInterval", 45);
    WinDeskCapture front(&m_option, Fakes::fakeBackends(m_journal), nullptr);
    ConfigurationManager::instance()->setGlobalValue("devUpdateInterval", 5);
    const auto timers = QAbstractEventDispatcher::instance()->registeredTimers(&front);
    QCOMPARE(timers.size(), 1);
    QCOMPARE(timers.first().interval, 45);
    QCOMPARE(timers.first().timerType, Qt::PreciseTimer);
}

void TestWinDeskCapture::intervalDefaultsTo33()
{
    ConfigurationManager::instance()->AppConfigJsonObj().remove("devUpdateInterval");
    WinDeskCapture front(&m_option, Fakes::fakeBackends(m_journal), nullptr);
    ConfigurationManager::instance()->setGlobalValue("devUpdateInterval", 5);
    const auto timers = QAbstractEventDispatcher::instance()->registeredTimers(&front);
    QCOMPARE(timers.size(), 1);
    QCOMPARE(timers.first().interval, 33);
}

void TestWinDeskCapture::nonPositiveIntervalFallsBackTo33_data()
{
    QTest::addColumn<int>("interval");
    QTest::newRow("zero") << 0;
    QTest::newRow("negative") << -1;
}

void TestWinDeskCapture::nonPositiveIntervalFallsBackTo33()
{
    QFETCH(int, interval);
    ConfigurationManager::instance()->setGlobalValue("devUpdateInterval", interval);
    MessageCapture messages;
    WinDeskCapture front(&m_option, Fakes::fakeBackends(m_journal), nullptr);
    ConfigurationManager::instance()->setGlobalValue("devUpdateInterval", 5);
    // 0 would poll without a pause, a negative interval never poll at all.
    const auto timers = QAbstractEventDispatcher::instance()->registeredTimers(&front);
    QCOMPARE(timers.size(), 1);
    QCOMPARE(timers.first().interval, 33);
    QCOMPARE(messages.texts(QtWarningMsg),
        QStringList {QStringLiteral("[WinDeskCapture]: The devUpdateInterval %1 is not a positive number of "
                                    "milliseconds, using 33")
                         .arg(interval)});
}

void TestWinDeskCapture::contextFromAnotherThreadIsAppliedOnTheFrontsThread()
{
    WinDeskCapture front(&m_option, Fakes::fakeBackends(m_journal), nullptr);
    QCOMPARE(front.setCaptureContext(contextFor(0x1001)), 0L);
    QCOMPARE(m_journal->made, 1);

    // A consumer's thread rebinds the front and rebuilds its back-end while
    // the timer polls that back-end here.
    constexpr int kRounds = 20;
    std::atomic<bool> done {false};
    std::thread foreign([&] {
        for (int round = 0; round < kRounds; ++round) {
            QCOMPARE(front.setCaptureContext(contextFor(DeskMonitorHandle(0x2000 + round))), 0L);
            front.onCaptureModeChanged();
            front.nextFrame();
        }
        done = true;
    });
    while (!done.load())
        QCoreApplication::processEvents();
    foreign.join();

    QTRY_COMPARE_WITH_TIMEOUT(m_journal->made, 1 + 2 * kRounds, 10000);
    std::lock_guard<std::mutex> locker(m_journal->mutex);
    for (QThread* thread : qAsConst(m_journal->contextThreads))
        QCOMPARE(thread, QThread::currentThread());
    // The calls keep their order: the last context is the one in use.
    QCOMPARE(m_journal->contexts.last().monitor, DeskMonitorHandle(0x2000 + kRounds - 1));
}

void TestWinDeskCapture::contextPicksTheBackendOfTheMode()
{
    WinDeskCapture front(&m_option, Fakes::fakeBackends(m_journal), nullptr);
    MessageCapture messages;
    QCOMPARE(front.setCaptureContext(contextFor(0x1001)), 0L);
    const QStringList debug = messages.texts(QtDebugMsg);
    QCOMPARE(debug.size(), 1);
    QVERIFY2(
        debug.first().startsWith("[WinDeskCapture]:  \"0x1001\" , worker thread:  \"0x"), qPrintable(debug.first()));
    // The literal for the thread ends in two blanks.
    QVERIFY2(debug.first().endsWith("  \""), qPrintable(debug.first()));
    QCOMPARE(messages.texts(QtInfoMsg).filter("[WinDeskCapture]: Using"),
        QStringList {"[WinDeskCapture]: Using GDI capture monitor  0x1001"});
    QCOMPARE(m_journal->modes, QList<int> {2});
    QCOMPARE(m_journal->contexts.size(), 1);
    QCOMPARE(m_journal->contexts.first().desc, QStringLiteral("DISPLAY1 1920x1080 (OUT1)"));
    QCOMPARE(front.outputSize(), QSize(1920, 1080));

    messages.clear();
    m_option.setCurMode(0);
    QTRY_COMPARE_WITH_TIMEOUT(m_journal->made, 2, 10000);
    QVERIFY(messages.contains(QtInfoMsg, "[WinDeskCapture]: Using DXGI capture monitor  0x1001"));
    m_option.setCurMode(1);
    QTRY_COMPARE_WITH_TIMEOUT(m_journal->made, 3, 10000);
    QVERIFY(messages.contains(QtInfoMsg, "[WinDeskCapture]: Using WINRT capture monitor  0x1001"));
    QCOMPARE(m_journal->modes, (QList<int> {2, 0, 1}));
    QCOMPARE(m_journal->destroyed, 2);
}

void TestWinDeskCapture::unknownModeLeavesTheFrontEmpty()
{
    prepareOption(4);
    WinDeskCapture front(&m_option, Fakes::fakeBackends(m_journal), nullptr);
    MessageCapture messages;
    QCOMPARE(front.setCaptureContext(contextFor(0x2002)), 0L);
    QCOMPARE(messages.texts(QtWarningMsg), QStringList {"[WinDeskCapture]: Capturer is null, monitor:  0x2002"});
    QVERIFY(front.nextFrame().empty());
    QCOMPARE(front.outputSize(), QSize(-1, -1));
    QCOMPARE(m_journal->made, 0);
}

void TestWinDeskCapture::refusedContextStillReturnsZero()
{
    m_journal->contextResult = E_ACCESSDENIED;
    WinDeskCapture front(&m_option, Fakes::fakeBackends(m_journal), nullptr);
    MessageCapture messages;
    QCOMPARE(front.setCaptureContext(contextFor(0x1001)), 0L);
    QCOMPARE(messages.texts(QtCriticalMsg), QStringList {"Failed to set capture context, monitor:  0x1001"});
    QCOMPARE(m_journal->made, 1);
    QCOMPARE(m_journal->destroyed, 1);
    QCOMPARE(front.outputSize(), QSize(-1, -1));
    QVERIFY(front.nextFrame().empty());
    // No fall-back: the mode and the stored value stay.
    QCOMPARE(m_option.curMode(), 2);
}

void TestWinDeskCapture::modeChangeKeepsTheOutputSize()
{
    WinDeskCapture front(&m_option, Fakes::fakeBackends(m_journal), nullptr);
    front.setCaptureContext(contextFor(0x1001));
    front.setOutputSize(QSize(640, 360));
    m_option.setCurMode(0);
    QTRY_COMPARE_WITH_TIMEOUT(m_journal->made, 2, 10000);
    QCOMPARE(front.outputSize(), QSize(640, 360));
    QCOMPARE(m_journal->sizesSet, (QList<QSize> {QSize(640, 360), QSize(640, 360)}));
}

void TestWinDeskCapture::modeChangeAfterAFailedBackendUsesItsDefault()
{
    m_journal->contextResult = E_FAIL;
    m_journal->defaultSize = QSize(800, 600);
    WinDeskCapture front(&m_option, Fakes::fakeBackends(m_journal), nullptr);
    front.setCaptureContext(contextFor(0x1001));
    front.setOutputSize(QSize(640, 360)); // lost: there is no back-end
    m_journal->contextResult = S_OK;
    m_option.setCurMode(0);
    QTRY_COMPARE_WITH_TIMEOUT(front.outputSize(), QSize(800, 600), 10000);
    QVERIFY(m_journal->sizesSet.isEmpty());
}

void TestWinDeskCapture::failedBackendHidesTheLastFrame()
{
    m_journal->frames = {solidFrame(1080, 1920, 200)};
    WinDeskCapture front(&m_option, Fakes::fakeBackends(m_journal), nullptr);
    front.setCaptureContext(contextFor(0x1001));
    QTRY_VERIFY_WITH_TIMEOUT(!front.nextFrame().empty(), 10000);

    m_journal->contextResult = E_FAIL;
    m_option.setCurMode(0);
    QTRY_COMPARE_WITH_TIMEOUT(m_journal->made, 2, 10000);
    // The null test comes first, although the old frame is still kept.
    QVERIFY(front.nextFrame().empty());

    // A working back-end brings the kept frame back until it delivers.
    m_journal->contextResult = S_OK;
    m_option.setCurMode(1);
    QTRY_COMPARE_WITH_TIMEOUT(m_journal->made, 3, 10000);
    const cv::Mat kept = front.nextFrame();
    QVERIFY(!kept.empty());
    QCOMPARE(kept.at<cv::Vec4b>(0, 0)[0], uchar(200));
}

void TestWinDeskCapture::emptyFramesKeepTheSameBuffer()
{
    m_journal->frames = {solidFrame(180, 320, 10)};
    WinDeskCapture front(&m_option, Fakes::fakeBackends(m_journal), nullptr);
    front.setCaptureContext(contextFor(0x1001));
    QTRY_VERIFY_WITH_TIMEOUT(!front.nextFrame().empty(), 10000);
    const cv::Mat first = front.nextFrame();
    const int callsBefore = m_journal->nextFrameCalls;
    QTRY_VERIFY_WITH_TIMEOUT(m_journal->nextFrameCalls >= callsBefore + 3, 10000);
    const cv::Mat second = front.nextFrame();
    QCOMPARE(second.data, first.data);
    QCOMPARE(second.rows, 180);
    QCOMPARE(second.cols, 320);
}

void TestWinDeskCapture::newestFrameReplacesTheOldOne()
{
    WinDeskCapture front(&m_option, Fakes::fakeBackends(m_journal), nullptr);
    front.setCaptureContext(contextFor(0x1001));
    m_journal->frames = {solidFrame(2, 2, 1), solidFrame(2, 2, 2), solidFrame(2, 2, 3)};
    front.acquireNextFrame();
    const cv::Mat one = front.nextFrame();
    QCOMPARE(one.at<cv::Vec4b>(0, 0)[0], uchar(1));
    QTRY_COMPARE_WITH_TIMEOUT(front.nextFrame().at<cv::Vec4b>(0, 0)[0], uchar(3), 10000);
    // A frame kept by a consumer is not touched by newer ones.
    QCOMPARE(one.at<cv::Vec4b>(0, 0)[0], uchar(1));
}

void TestWinDeskCapture::sizesForwardToTheBackend()
{
    m_journal->defaultSize = QSize(2560, 1440);
    WinDeskCapture front(&m_option, Fakes::fakeBackends(m_journal), nullptr);
    front.setCaptureContext(contextFor(0x1001));
    QCOMPARE(front.originSize(), QSize(2560, 1440));
    front.setOutputSize(QSize(64, 36));
    QCOMPARE(front.outputSize(), QSize(64, 36));
    QCOMPARE(front.originSize(), QSize(2560, 1440));
}

void TestWinDeskCapture::backendIsDeletedWithTheFront()
{
    {
        WinDeskCapture front(&m_option, Fakes::fakeBackends(m_journal), nullptr);
        front.setCaptureContext(contextFor(0x1001));
        QCOMPARE(m_journal->destroyed, 0);
    }
    QCOMPARE(m_journal->destroyed, 1);
}

void TestWinDeskCapture::workerEntersAnApartmentAndLooksAtTheDesktop()
{
    Fakes::FakeCaptureWorkerSetup::Record record;
    MessageCapture messages;
    {
        CaptureThread thread(std::make_unique<Fakes::FakeCaptureWorkerSetup>(record, S_FALSE, 0x77, E_ACCESSDENIED));
        thread.start();
        QTRY_COMPARE_WITH_TIMEOUT(record.closed.load(), 1, 10000);
        thread.quit();
        QVERIFY(thread.wait(10000));
    }
    QCOMPARE(record.entered.load(), 1);
    QCOMPARE(record.left.load(), 1);
    const QStringList info = messages.texts(QtInfoMsg);
    QCOMPARE(info.size(), 2);
    QVERIFY(info.at(0).startsWith("[WinDeskCapture]: Capture thread handle :  0x"));
    QCOMPARE(info.at(1),
        "[WinDeskCapture]: COM library initialize result:  " + QStringLiteral("\"%1\"").arg(win32ErrorMsg(S_FALSE)));
    // Warned on the successful path as well.
    QCOMPARE(messages.texts(QtWarningMsg),
        QStringList {
            "Failed to attached the input desktop " + QStringLiteral("\"%1\"").arg(win32ErrorMsg(E_ACCESSDENIED))});
}

void TestWinDeskCapture::workerWithoutInputDesktop()
{
    Fakes::FakeCaptureWorkerSetup::Record record;
    MessageCapture messages;
    {
        CaptureThread thread(std::make_unique<Fakes::FakeCaptureWorkerSetup>(record, RPC_E_CHANGED_MODE, 0, E_HANDLE));
        thread.start();
        QTRY_COMPARE_WITH_TIMEOUT(record.entered.load(), 1, 10000);
        thread.quit();
        QVERIFY(thread.wait(10000));
    }
    QCOMPARE(record.closed.load(), 0);
    QCOMPARE(messages.texts(QtWarningMsg),
        QStringList {
            "Failed to open the input desktop handle  " + QStringLiteral("\"%1\"").arg(win32ErrorMsg(E_HANDLE))});
}

void TestWinDeskCapture::workerWithoutApartmentOnlyRunsItsLoop()
{
    MessageCapture messages;
    {
        CaptureThread thread;
        thread.start();
        QTRY_COMPARE_WITH_TIMEOUT(messages.texts(QtInfoMsg).size(), 1, 10000);
        thread.quit();
        QVERIFY(thread.wait(10000));
    }
    QCOMPARE(messages.messages().size(), 1);
    QVERIFY(messages.texts(QtInfoMsg).first().startsWith("[WinDeskCapture]: Capture thread handle :  0x"));
}

QTEST_GUILESS_MAIN(TestWinDeskCapture)
#include "tst_windeskcapture.moc"
