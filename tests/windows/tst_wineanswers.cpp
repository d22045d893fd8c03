// The duplication logic fed with the answers that Wine's DXGI adapter gives
// (tst_dxgidisplay asserts them under Wine): the output is found and offers
// IDXGIOutput5, but DuplicateOutput1 answers E_NOTIMPL. The capturer reports
// the code from its set-up, and polling keeps failing the same way with
// empty frames: E_NOTIMPL is not on the stop list, so every poll spends the
// full five tries.

#include "DXGICapturer.h"
#include "Helpers.h"
#include "ResultCodes.h"

#include "MessageCapture.h"
#include "fakes/FakeDesktopDuplicator.h"

#include <QtTest/QtTest>

namespace {

QString logText(const QString& literal, long code)
{
    return QStringLiteral("%1 \"%2\"").arg(literal, win32ErrorMsg(code));
}

const QString kDuplicateText
    = QStringLiteral("An error occurred when creating the IDXGIOutputDuplication by using IDXGIOutput5");
const QString kRetryText
    = QStringLiteral("[DXGICapturer]: Failed to rebuild the duplication, retrying in 0.5 seconds:");

} // namespace

class WineAnswersTest : public QObject
{
    Q_OBJECT

private slots:
    void duplicationNotImplementedFailsTheSetUp();
    void pollingAfterwardsTriesFiveTimesAndGivesNothing();
};

void WineAnswersTest::duplicationNotImplementedFailsTheSetUp()
{
    auto script = std::make_shared<DuplicationScript>();
    auto sleeper = std::make_shared<FakeSleeper>();
    script->duplicateResults = {E_NOTIMPL};
    DXGICapturer capturer(std::make_shared<FakeDesktopDuplicator>(script), sleeper);

    MessageCapture log;
    DeskCaptureContext context;
    context.outputIndex = 0;
    QCOMPARE(capturer.setCaptureContext(context), E_NOTIMPL);
    QCOMPARE(log.texts(QtCriticalMsg),
        QStringList({logText(kDuplicateText, E_NOTIMPL),
            logText("[DXGICapturer]: Failed to create DXGIDupliation: ", E_NOTIMPL)}));
    QVERIFY(script->recorded().contains(QStringLiteral("duplicateOutput")));
    QCOMPARE(script->sessionsAlive, 0);
    QVERIFY(sleeper->waits.isEmpty());
}

void WineAnswersTest::pollingAfterwardsTriesFiveTimesAndGivesNothing()
{
    auto script = std::make_shared<DuplicationScript>();
    auto sleeper = std::make_shared<FakeSleeper>();
    script->duplicateResults = QList<long>(QVector<long>(6, E_NOTIMPL).toList());
    DXGICapturer capturer(std::make_shared<FakeDesktopDuplicator>(script), sleeper);
    DeskCaptureContext context;
    context.outputIndex = 0;
    QCOMPARE(capturer.setCaptureContext(context), E_NOTIMPL);

    MessageCapture log;
    QVERIFY(capturer.nextFrame().empty());
    QCOMPARE(script->sessionsAlive, 0);
    QCOMPARE(script->sessionsMade, 0);
    QCOMPARE(log.texts(QtWarningMsg), QStringList(QVector<QString>(5, logText(kRetryText, E_NOTIMPL)).toList()));
    QCOMPARE(sleeper->waits, QList<unsigned>({500, 500, 500, 500, 500}));
}

QTEST_GUILESS_MAIN(WineAnswersTest)
#include "tst_wineanswers.moc"
