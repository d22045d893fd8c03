#include "DXGICapturer.h"
#include "Helpers.h"
#include "ResultCodes.h"
#include "egl/EglDevice.h"

#include "MessageCapture.h"
#include "fakes/FakeDesktopDuplicator.h"
#include "fakes/FakeGpuScaler.h"

#include <QtCore/QMetaType>
#include <QtCore/QThread>
#include <QtTest/QtTest>

#include <atomic>
#include <thread>

namespace {

QString logText(const QString& literal, long code)
{
    return QStringLiteral("%1 \"%2\"").arg(literal, win32ErrorMsg(code));
}

struct Rig
{
    std::shared_ptr<DuplicationScript> script = std::make_shared<DuplicationScript>();
    std::shared_ptr<FakeRetryClock> clock = std::make_shared<FakeRetryClock>();
    std::unique_ptr<DXGICapturer> capturer;

    Rig()
    {
        script->picture = cv::Mat(1080, 1920, CV_8UC4, cv::Scalar(30, 20, 10, 255)); // B, G, R, A
        capturer = std::make_unique<DXGICapturer>(std::make_shared<FakeDesktopDuplicator>(script), clock);
    }

    /// Polls through @p milliseconds of the clock, one poll every 100 ms, as the front's timer would.
    void pollFor(int milliseconds)
    {
        for (int elapsed = 0; elapsed < milliseconds; elapsed += 100) {
            clock->advance(100);
            capturer->nextFrame();
        }
    }

    long bind()
    {
        DeskCaptureContext context;
        context.outputIndex = 0;
        return capturer->setCaptureContext(context);
    }
};

const QString kRetryText
    = QStringLiteral("[DXGICapturer]: Failed to rebuild the duplication, retrying in 0.5 seconds:");
const QString kStopText = QStringLiteral("[DXGICapturer]: Detected a non-recoverable error, stopping retries:");

} // namespace

class DXGICapturerTest : public QObject
{
    Q_OBJECT

private slots:
    void freshCapturer();
    void unboundCapturerIsSafeToPoll();
    void nullPlatformFailsTheContext();
    void setupDuplicatesWithTheFiveFormats();
    void floatDesktopIsNamed();
    void deviceScalerIsNamed();
    void outputSizeStartsAtTheOrigin();
    void stillDesktopGivesNothingAndSaysNothing();
    void changedDesktopGivesAScaledFrame();
    void setOutputSizeRebuildsTheTargetAtOnce();
    void zeroOutputSizeGoesBackToTheOrigin();
    void accessLostRebuildsAtOnce();
    void accessLostThenDeniedStopsAtTheFirstTry();
    void fiveFailuresThenTheNextPollStartsOver();
    void invalidCallReleasesAndRebuilds();
    void zeroSizedDescriptionCountsAsSuccess();
    void stopList_data();
    void stopList();
    void lostStateTriesOncePerPoll();
    void lostCapturerNeverBlocksItsPoll();
    void textureQueryFailureReleasesTheFrame();
    void setupFailures_data();
    void setupFailures();
    void outputContextFailureIsReported();
    void rotationIsRecordedOnce();
    void registersTheResultMetaType();
    void hasItsOwnMetaObject();
    void sizesFromAnotherThreadWhilePolling_data();
    void sizesFromAnotherThreadWhilePolling();
};

void DXGICapturerTest::freshCapturer()
{
    DXGICapturer capturer;
    QCOMPARE(capturer.outputSize(), QSize(0, 0));
    QCOMPARE(capturer.originSize(), QSize());
    QCOMPARE(capturer.parent(), nullptr);
}

void DXGICapturerTest::unboundCapturerIsSafeToPoll()
{
    Rig rig;
    MessageCapture log;
    QVERIFY(rig.capturer->nextFrame().empty());
    QVERIFY(rig.capturer->nextFrame().empty());
    QVERIFY(log.messages().isEmpty());
    QVERIFY(rig.script->recorded().isEmpty());
}

void DXGICapturerTest::nullPlatformFailsTheContext()
{
    MessageCapture log;
    DXGICapturer capturer {DeskCaptureContext()}; // no adapter behind it
    QCOMPARE(
        log.texts(QtCriticalMsg), QStringList(logText("[DXGICapturer]: Failed to create DXGIDupliation: ", E_POINTER)));
    QVERIFY(capturer.nextFrame().empty());
    DXGICapturer second;
    QCOMPARE(second.setCaptureContext(DeskCaptureContext()), E_POINTER);
}

void DXGICapturerTest::setupDuplicatesWithTheFiveFormats()
{
    Rig rig;
    MessageCapture log;
    QCOMPARE(rig.bind(), S_OK);
    const QStringList calls = rig.script->recorded();
    QCOMPARE(calls.mid(0, 5),
        QStringList({"deviceScaler", "enumOutput 0", "queryDuplicationOutput", "duplicateOutput", "describe"}));
    QCOMPARE(rig.script->offeredFormats, std::vector<int>({10, 11, 24, 25, 87}));
    QCOMPARE(log.texts(QtInfoMsg),
        QStringList({"[DXGICapturer]: Frames are scaled on the CPU", "The output index 0 has been used  87  format"}));
    QCOMPARE(rig.capturer->originSize(), QSize(1920, 1080));
    QCOMPARE(rig.script->sessionsAlive, 1);
}

void DXGICapturerTest::floatDesktopIsNamed()
{
    Rig rig;
    rig.script->descriptions = {duplicationDescription(3840, 2160, 10)};
    MessageCapture log;
    QCOMPARE(rig.bind(), S_OK);
    QCOMPARE(log.texts(QtInfoMsg),
        QStringList({"[DXGICapturer]: Frames are scaled on the CPU",
            "The output index 0 has been used DXGI_FORMAT_R16G16B16A16_FLOAT format"}));
}

void DXGICapturerTest::deviceScalerIsNamed()
{
    Rig rig;
    rig.script->scaler = std::make_shared<FakeGpuScaler>();
    MessageCapture log;
    QCOMPARE(rig.bind(), S_OK);
    QCOMPARE(log.texts(QtInfoMsg),
        QStringList({"[DXGICapturer]: Frames are scaled on the GPU", "The output index 0 has been used  87  format"}));
}

void DXGICapturerTest::outputSizeStartsAtTheOrigin()
{
    Rig rig;
    rig.script->descriptions = {duplicationDescription(2560, 1440)};
    QCOMPARE(rig.bind(), S_OK);
    QCOMPARE(rig.capturer->outputSize(), QSize(2560, 1440));
    QCOMPARE(rig.capturer->outputSize(), rig.capturer->originSize());
}

void DXGICapturerTest::stillDesktopGivesNothingAndSaysNothing()
{
    Rig rig;
    QCOMPARE(rig.bind(), S_OK);
    MessageCapture log;
    rig.script->calls.clear();
    for (int poll = 0; poll < 10; ++poll) {
        QVERIFY(rig.capturer->nextFrame().empty());
    }
    QVERIFY(log.messages().isEmpty());
    QCOMPARE(rig.script->recorded(), QStringList(QVector<QString>(10, QStringLiteral("acquire 0")).toList()));
    QCOMPARE(rig.script->sessionsMade, 1);
}

void DXGICapturerTest::changedDesktopGivesAScaledFrame()
{
    Rig rig;
    QCOMPARE(rig.bind(), S_OK);
    rig.capturer->setOutputSize(QSize(320, 180));
    rig.script->acquireResults = {S_OK};
    rig.script->calls.clear();
    const cv::Mat frame = rig.capturer->nextFrame();
    QCOMPARE(frame.type(), CV_8UC4);
    QCOMPARE(frame.cols, 320);
    QCOMPARE(frame.rows, 180);
    QCOMPARE(frame.at<cv::Vec4b>(90, 160), cv::Vec4b(10, 20, 30, 255)); // R, G, B, A
    QCOMPARE(rig.script->recorded(), QStringList({"acquire 0", "frameSource", "releaseFrame"}));
    QVERIFY(rig.capturer->nextFrame().empty()); // nothing new since
}

void DXGICapturerTest::setOutputSizeRebuildsTheTargetAtOnce()
{
    Rig rig;
    auto fake = std::make_shared<FakeGpuScaler>();
    rig.script->scaler = fake;
    QCOMPARE(rig.bind(), S_OK);
    QCOMPARE(fake->targetWidth, 1920);
    rig.capturer->setOutputSize(QSize(640, 360));
    QCOMPARE(fake->targetWidth, 640);
    QCOMPARE(fake->targetHeight, 360);
    QCOMPARE(rig.capturer->outputSize(), QSize(640, 360));
    QCOMPARE(rig.capturer->originSize(), QSize(1920, 1080));
}

void DXGICapturerTest::zeroOutputSizeGoesBackToTheOrigin()
{
    Rig rig;
    QCOMPARE(rig.bind(), S_OK);
    rig.capturer->setOutputSize(QSize(640, 360));
    rig.capturer->setOutputSize(QSize(0, 0));
    QCOMPARE(rig.capturer->outputSize(), QSize(1920, 1080));
    rig.script->acquireResults = {S_OK};
    QCOMPARE(rig.capturer->nextFrame().cols, 1920);
}

void DXGICapturerTest::accessLostRebuildsAtOnce()
{
    Rig rig;
    rig.script->descriptions = {duplicationDescription(1920, 1080), duplicationDescription(1280, 720)};
    QCOMPARE(rig.bind(), S_OK);
    rig.capturer->setOutputSize(QSize(320, 180));
    rig.script->acquireResults = {DXGI_ERROR_ACCESS_LOST, S_OK};
    MessageCapture log;
    QVERIFY(rig.capturer->nextFrame().empty());
    QCOMPARE(log.texts(QtInfoMsg),
        QStringList(
            {"[DXGICapturer]: DXGIOutputDuplication access lost:  0", "The output index 0 has been used  87  format",
                "[DXGICapturer]: The DXGIOutputDuplication has rebuilded:  0"}));
    QCOMPARE(rig.capturer->originSize(), QSize(1280, 720));
    QCOMPARE(rig.capturer->outputSize(), QSize(320, 180));
    QCOMPARE(rig.script->sessionsAlive, 1);
    const cv::Mat frame = rig.capturer->nextFrame();
    QCOMPARE(frame.cols, 320);
    QCOMPARE(frame.rows, 180);
}

void DXGICapturerTest::accessLostThenDeniedStopsAtTheFirstTry()
{
    Rig rig;
    QCOMPARE(rig.bind(), S_OK);
    // The secure desktop shows: the session is lost and cannot be made again.
    rig.script->acquireResults = {DXGI_ERROR_ACCESS_LOST};
    rig.script->duplicateResults = {E_ACCESSDENIED, E_ACCESSDENIED};
    MessageCapture log;
    QVERIFY(rig.capturer->nextFrame().empty());
    QCOMPARE(log.texts(QtWarningMsg),
        QStringList({"[DXGICapturer]: Failed to rebuild the duplication in the first place, We will rebuild it in 0.5 "
                     "seconds"}));
    QCOMPARE(rig.script->count("duplicateOutput"), 2); // setup, the immediate rebuild
    // The try comes half a second later; polls before it return at once.
    rig.pollFor(400);
    QCOMPARE(rig.script->count("duplicateOutput"), 2);
    rig.pollFor(100);
    QCOMPARE(log.texts(QtWarningMsg).last(), logText(kStopText, E_ACCESSDENIED));
    QCOMPARE(rig.script->count("duplicateOutput"), 3);
    QCOMPARE(rig.script->sessionsAlive, 0);

    // Lost: a try every half second, until access returns.
    log.clear();
    rig.script->duplicateResults = {E_ACCESSDENIED};
    rig.pollFor(600);
    QCOMPARE(log.texts(QtWarningMsg), QStringList(logText(kStopText, E_ACCESSDENIED)));
    QCOMPARE(rig.script->count("duplicateOutput"), 4);
    rig.pollFor(600); // this try succeeds, its poll still gives nothing
    QCOMPARE(rig.script->count("duplicateOutput"), 5);
    QCOMPARE(rig.script->sessionsAlive, 1);
    rig.script->acquireResults = {S_OK};
    QVERIFY(!rig.capturer->nextFrame().empty());
}

void DXGICapturerTest::fiveFailuresThenTheNextPollStartsOver()
{
    Rig rig;
    QCOMPARE(rig.bind(), S_OK);
    rig.script->acquireResults = {E_FAIL};
    // The output is gone: not a code that stops the tries.
    rig.script->enumResults = QList<long>(QVector<long>(5, DXGI_ERROR_NOT_FOUND).toList());
    MessageCapture log;
    QVERIFY(rig.capturer->nextFrame().empty());
    // Five tries, half a second apart.
    for (int tries = 1; tries <= 5; ++tries) {
        rig.pollFor(500);
        QCOMPARE(log.texts(QtWarningMsg).size(), tries);
    }
    QCOMPARE(
        log.texts(QtWarningMsg), QStringList(QVector<QString>(5, logText(kRetryText, DXGI_ERROR_NOT_FOUND)).toList()));
    QCOMPARE(log.texts(QtCriticalMsg),
        QStringList({logText("[DXGICapturer]: An error occurred while acquiring next frame: ", E_FAIL),
            "[DXGICapturer]: Failed to enum DXGIOutput interface: 0",
            "[DXGICapturer]: Failed to enum DXGIOutput interface: 0",
            "[DXGICapturer]: Failed to enum DXGIOutput interface: 0",
            "[DXGICapturer]: Failed to enum DXGIOutput interface: 0",
            "[DXGICapturer]: Failed to enum DXGIOutput interface: 0"}));
    QCOMPARE(rig.script->sessionsAlive, 0);

    // The next poll begins a new round, whose first try now succeeds.
    log.clear();
    rig.pollFor(600);
    QVERIFY(log.texts(QtWarningMsg).isEmpty());
    QCOMPARE(rig.script->sessionsAlive, 1);
}

void DXGICapturerTest::invalidCallReleasesAndRebuilds()
{
    Rig rig;
    QCOMPARE(rig.bind(), S_OK);
    rig.script->acquireResults = {DXGI_ERROR_INVALID_CALL};
    MessageCapture log;
    QVERIFY(rig.capturer->nextFrame().empty());
    QCOMPARE(rig.script->sessionsAlive, 0); // released before the rebuild began
    QCOMPARE(log.texts(QtCriticalMsg),
        QStringList(
            logText("[DXGICapturer]: An error occurred while acquiring next frame: ", DXGI_ERROR_INVALID_CALL)));
    rig.pollFor(500);
    QCOMPARE(rig.script->sessionsAlive, 1);
    QCOMPARE(rig.script->sessionsMade, 2);
}

void DXGICapturerTest::zeroSizedDescriptionCountsAsSuccess()
{
    Rig rig;
    rig.script->descriptions = {duplicationDescription(1920, 1080), duplicationDescription(0, 0)};
    QCOMPARE(rig.bind(), S_OK);
    rig.capturer->setOutputSize(QSize(320, 180));
    rig.script->acquireResults = {E_FAIL};
    MessageCapture log;
    QVERIFY(rig.capturer->nextFrame().empty());
    rig.pollFor(1500);
    QCOMPARE(log.texts(QtCriticalMsg),
        QStringList({logText("[DXGICapturer]: An error occurred while acquiring next frame: ", E_FAIL),
            "The desktop replication port on output  0  is abnormal and will be discarded"}));
    QVERIFY(log.texts(QtWarningMsg).isEmpty());
    QCOMPARE(rig.capturer->originSize(), QSize(1920, 1080));
    QCOMPARE(rig.capturer->outputSize(), QSize(320, 180));
    QCOMPARE(rig.script->sessionsAlive, 1); // kept, in spite of the words
}

void DXGICapturerTest::stopList_data()
{
    QTest::addColumn<long>("code");
    QTest::addColumn<bool>("stops");
    const auto code = [](std::uint32_t bits) {
        return Orvanta::hresultFromBits(bits);
    };
    QTest::newRow("0x80040200") << code(0x80040200u) << true;
    QTest::newRow("0x80040201") << code(0x80040201u) << true;
    QTest::newRow("0x80040202") << code(0x80040202u) << true;
    QTest::newRow("E_ACCESSDENIED") << E_ACCESSDENIED << true;
    QTest::newRow("UNSUPPORTED") << DXGI_ERROR_UNSUPPORTED << true;
    QTest::newRow("DEVICE_REMOVED") << DXGI_ERROR_DEVICE_REMOVED << true;
    QTest::newRow("DEVICE_HUNG") << DXGI_ERROR_DEVICE_HUNG << true;
    QTest::newRow("DEVICE_RESET") << DXGI_ERROR_DEVICE_RESET << true;
    QTest::newRow("DRIVER_INTERNAL_ERROR") << DXGI_ERROR_DRIVER_INTERNAL_ERROR << true;
    QTest::newRow("NONEXCLUSIVE") << DXGI_ERROR_NONEXCLUSIVE << true;
    QTest::newRow("NOT_CURRENTLY_AVAILABLE") << DXGI_ERROR_NOT_CURRENTLY_AVAILABLE << true;
    QTest::newRow("REMOTE_OUTOFMEMORY") << code(0x887A0024u) << true;
    QTest::newRow("SESSION_DISCONNECTED") << DXGI_ERROR_SESSION_DISCONNECTED << true;
    QTest::newRow("0x800401FF") << code(0x800401FFu) << false;
    QTest::newRow("0x80040203") << code(0x80040203u) << false;
    QTest::newRow("NOT_FOUND") << DXGI_ERROR_NOT_FOUND << false;
    QTest::newRow("0x887A0003") << DXGI_ERROR_MORE_DATA << false;
    QTest::newRow("0x887A0008") << code(0x887A0008u) << false;
    QTest::newRow("0x887A0023") << code(0x887A0023u) << false;
    QTest::newRow("MODE_CHANGE_IN_PROGRESS") << DXGI_ERROR_MODE_CHANGE_IN_PROGRESS << false;
    QTest::newRow("ACCESS_LOST") << DXGI_ERROR_ACCESS_LOST << false;
    QTest::newRow("0x887A0029") << code(0x887A0029u) << false;
    QTest::newRow("past the mask") << code(0x887A0004u + 40) << false;
    QTest::newRow("E_FAIL") << E_FAIL << false;
    QTest::newRow("E_OUTOFMEMORY") << E_OUTOFMEMORY << false;
}

void DXGICapturerTest::stopList()
{
    QFETCH(long, code);
    QFETCH(bool, stops);
    Rig rig;
    QCOMPARE(rig.bind(), S_OK);
    rig.script->acquireResults = {E_FAIL};
    rig.script->queryResults = QList<long>(QVector<long>(5, code).toList());
    MessageCapture log;
    QVERIFY(rig.capturer->nextFrame().empty());
    // One round: a try that stops it, or five tries half a second apart.
    rig.pollFor(500);
    if (stops) {
        QCOMPARE(log.texts(QtWarningMsg), QStringList(logText(kStopText, code)));
    } else {
        rig.pollFor(2000);
        QCOMPARE(log.texts(QtWarningMsg), QStringList(QVector<QString>(5, logText(kRetryText, code)).toList()));
    }
    QCOMPARE(
        log.count(QtCriticalMsg,
            QStringLiteral("Failed to query IDXGIOutput1 interface for  0 , reason:  \"%1\"").arg(win32ErrorMsg(code))),
        stops ? 1 : 5);
}

void DXGICapturerTest::lostStateTriesOncePerPoll()
{
    Rig rig;
    QCOMPARE(rig.bind(), S_OK);
    rig.script->acquireResults = {DXGI_ERROR_DEVICE_REMOVED};
    rig.script->enumResults = QList<long>(QVector<long>(4, DXGI_ERROR_DEVICE_REMOVED).toList());
    MessageCapture log;
    QVERIFY(rig.capturer->nextFrame().empty());
    // Each round stops at its first try; the next begins with the following poll.
    for (int tries = 1; tries <= 4; ++tries) {
        rig.pollFor(600);
        QCOMPARE(log.texts(QtWarningMsg).size(), tries);
    }
    QCOMPARE(rig.script->sessionsAlive, 0);
}

void DXGICapturerTest::lostCapturerNeverBlocksItsPoll()
{
    Rig rig;
    QCOMPARE(rig.bind(), S_OK);
    rig.script->acquireResults = {E_FAIL};
    rig.script->enumResults = QList<long>(QVector<long>(100, DXGI_ERROR_NOT_FOUND).toList());
    rig.capturer->nextFrame();
    // The clock stands still: however often it is polled, the capturer
    // makes no try before half a second has passed.
    for (int poll = 0; poll < 100; ++poll) {
        QVERIFY(rig.capturer->nextFrame().empty());
    }
    QCOMPARE(rig.script->count("enumOutput 0"), 1); // the setup's
    rig.pollFor(500);
    QCOMPARE(rig.script->count("enumOutput 0"), 2);
}

void DXGICapturerTest::textureQueryFailureReleasesTheFrame()
{
    Rig rig;
    QCOMPARE(rig.bind(), S_OK);
    rig.script->acquireResults = {S_OK};
    rig.script->frameSourceResult = E_NOINTERFACE;
    rig.script->calls.clear();
    MessageCapture log;
    QVERIFY(rig.capturer->nextFrame().empty());
    QCOMPARE(rig.script->recorded(), QStringList({"acquire 0", "frameSource", "releaseFrame"}));
    QCOMPARE(log.texts(QtCriticalMsg),
        QStringList(logText("[DXGICapturer]: Failed to query D3D11Texture from the desktop frame: ", E_NOINTERFACE)));
    QCOMPARE(rig.script->sessionsAlive, 1); // the session stays
}

void DXGICapturerTest::setupFailures_data()
{
    QTest::addColumn<QString>("step");
    QTest::addColumn<long>("code");
    QTest::addColumn<QString>("text");
    QTest::newRow("enum") << "enum" << DXGI_ERROR_NOT_FOUND << "[DXGICapturer]: Failed to enum DXGIOutput interface: 0";
    QTest::newRow("query") << "query" << E_NOINTERFACE
                           << QStringLiteral("Failed to query IDXGIOutput1 interface for  0 , reason:  \"%1\"")
                                  .arg(win32ErrorMsg(E_NOINTERFACE));
    QTest::newRow("duplicate")
        << "duplicate" << E_ACCESSDENIED
        << logText("An error occurred when creating the IDXGIOutputDuplication by using IDXGIOutput5", E_ACCESSDENIED);
}

void DXGICapturerTest::setupFailures()
{
    QFETCH(QString, step);
    QFETCH(long, code);
    QFETCH(QString, text);
    Rig rig;
    if (step == QLatin1String("enum")) {
        rig.script->enumResults = {code};
    } else if (step == QLatin1String("query")) {
        rig.script->queryResults = {code};
    } else {
        rig.script->duplicateResults = {code};
    }
    MessageCapture log;
    QCOMPARE(rig.bind(), code);
    QCOMPARE(log.texts(QtCriticalMsg),
        QStringList({text, logText("[DXGICapturer]: Failed to create DXGIDupliation: ", code)}));
}

void DXGICapturerTest::outputContextFailureIsReported()
{
    // The duplication's own sizing fails: the failure comes back through it.
    Rig rig;
    auto fake = std::make_shared<FakeGpuScaler>();
    fake->results[QStringLiteral("createTargetTexture")] = E_OUTOFMEMORY;
    rig.script->scaler = fake;
    MessageCapture log;
    QCOMPARE(rig.bind(), E_FAIL);
    QCOMPARE(log.texts(QtCriticalMsg),
        QStringList({logText("Failed to create D3D11Texture", E_OUTOFMEMORY),
            logText("[DXGICapturer]: Failed to create DXGIDupliation: ", E_FAIL)}));

    // Only the repeated sizing after it fails.
    class SecondTargetFails : public FakeGpuScaler
    {
    public:
        long createTargetTexture(int width, int height) override
        {
            results[QStringLiteral("createTargetTexture")] = ++made > 1 ? E_OUTOFMEMORY : S_OK;
            return FakeGpuScaler::createTargetTexture(width, height);
        }
        int made = 0;
    };
    Rig second;
    second.script->scaler = std::make_shared<SecondTargetFails>();
    log.clear();
    QCOMPARE(second.bind(), E_FAIL);
    QCOMPARE(log.texts(QtCriticalMsg),
        QStringList({logText("Failed to create D3D11Texture", E_OUTOFMEMORY),
            logText("[DXGICapturer]: Failed to make output context: ", E_FAIL)}));
}

void DXGICapturerTest::rotationIsRecordedOnce()
{
    Rig rig;
    rig.script->descriptions = {duplicationDescription(1080, 1920, 87, 2)};
    MessageCapture log;
    QCOMPARE(rig.bind(), S_OK);
    QCOMPARE(log.texts(QtDebugMsg), QStringList("[DXGICapturer]:  current rotation :  2"));
    // Recorded only: the frame is not turned, the target keeps the origin size.
    QCOMPARE(rig.capturer->outputSize(), QSize(1080, 1920));
}

void DXGICapturerTest::registersTheResultMetaType()
{
    DXGICapturer capturer;
    QVERIFY(QMetaType::type("HRESULT") != QMetaType::UnknownType);
}

void DXGICapturerTest::hasItsOwnMetaObject()
{
    DXGICapturer capturer;
    QCOMPARE(capturer.metaObject()->className(), "DXGICapturer");
    QCOMPARE(capturer.metaObject()->methodCount(), QObject::staticMetaObject.methodCount());
    QCOMPARE(capturer.metaObject()->propertyCount(), QObject::staticMetaObject.propertyCount());
}

void DXGICapturerTest::sizesFromAnotherThreadWhilePolling_data()
{
    QTest::addColumn<bool>("gles");
    QTest::newRow("cpu scaler") << false;
    QTest::newRow("gles scaler") << true; // its context moves between the two threads
}

void DXGICapturerTest::sizesFromAnotherThreadWhilePolling()
{
    QFETCH(bool, gles);
    Rig rig;
    if (gles) {
        static auto* device = [] {
            auto* made = new std::shared_ptr<Orvanta::Egl::EglDevice>;
            Orvanta::Egl::EglDevice::create(*made);
            return made;
        }();
        QVERIFY(*device);
        rig.script->scaler = Orvanta::Ifaces::createPlatformGpuScaler(*device);
    }
    rig.script->picture = cv::Mat(108, 192, CV_8UC4, cv::Scalar(1, 2, 3, 255));
    rig.script->descriptions = {duplicationDescription(192, 108)};
    QCOMPARE(rig.bind(), S_OK);
    rig.script->alwaysChanging = true;

    std::atomic<bool> done {false};
    std::atomic<bool> invalidSizes {false};
    std::atomic<int> frames {0};
    // A standard thread, so that the sanitizer sees the join. It keeps
    // changing the size until the poller has seen enough frames.
    std::thread consumer([&] {
        const QSize sizes[] = {QSize(32, 18), QSize(64, 36), QSize(0, 0), QSize(16, 9)};
        for (int i = 0; i < 400 || (frames < 50 && i < 1000000); ++i) {
            rig.capturer->setOutputSize(sizes[i % 4]);
            if (!rig.capturer->outputSize().isValid()) {
                invalidSizes = true;
            }
            rig.capturer->originSize();
        }
        done = true;
    });
    QString wrongFrame;
    while (!done) {
        const cv::Mat frame = rig.capturer->nextFrame();
        if (frame.empty()) {
            continue;
        }
        ++frames;
        const QSize size(frame.cols, frame.rows);
        const bool known
            = size == QSize(32, 18) || size == QSize(64, 36) || size == QSize(192, 108) || size == QSize(16, 9);
        if (!known || frame.at<cv::Vec4b>(frame.rows / 2, frame.cols / 2) != cv::Vec4b(3, 2, 1, 255)) {
            wrongFrame = QStringLiteral("%1x%2").arg(frame.cols).arg(frame.rows);
        }
    }
    consumer.join();
    QVERIFY(!invalidSizes);
    QVERIFY2(wrongFrame.isEmpty(), qPrintable(wrongFrame));
    QVERIFY(frames >= 50);
}

QTEST_GUILESS_MAIN(DXGICapturerTest)
#include "tst_dxgi_capturer.moc"
