// Where a capturer scales its frames, as the application asks it through
// IDeskCapture::scalerName(): the resizer names the scaler it was given, the
// blit back-end always scales on the CPU, and the front answers for its
// current back-end across mode changes.
#include "ConfigurationManager.h"
#include "D3DTextureResizer.h"
#include "DeskCaptureOption.h"
#include "GDICapturer.h"
#include "WinDeskCapture.h"
#include "cpu/SoftwareScaler.h"
#include "fakes/FakeCapture.h"
#include "fakes/FakeScreenGrabber.h"

#include "../gpu/fakes/FakeGpuScaler.h"

#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

namespace {

/// A back-end that reports the scaler its mode would use.
class NamedCapture : public Fakes::FakeCapture
{
public:
    NamedCapture(std::shared_ptr<Fakes::CaptureJournal> journal, int mode)
        : FakeCapture(std::move(journal), mode)
        , m_mode(mode)
    {
    }
    QString scalerName() override
    {
        return m_mode == 0 ? QStringLiteral("GPU") : QStringLiteral("CPU");
    }

private:
    int m_mode;
};

} // namespace

class TestScalerName : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void resizerNamesTheScalerItWasGiven();
    void blitBackEndScalesOnTheCpu();
    void frontAnswersForItsCurrentBackEnd();
    void contractDefaultIsUnknown();

private:
    QTemporaryDir m_configDir;
};

void TestScalerName::initTestCase()
{
    QVERIFY(m_configDir.isValid());
    ConfigurationManager::setConfigPath(m_configDir.path());
}

void TestScalerName::resizerNamesTheScalerItWasGiven()
{
    D3DTextureResizer onGpu;
    QCOMPARE(onGpu.scalerName(), QString());
    onGpu.setContext(std::make_shared<FakeGpuScaler>());
    QCOMPARE(onGpu.scalerName(), QStringLiteral("GPU"));

    D3DTextureResizer onCpu;
    onCpu.setContext(std::make_shared<Orvanta::Cpu::SoftwareScaler>());
    QCOMPARE(onCpu.scalerName(), QStringLiteral("CPU"));
}

void TestScalerName::blitBackEndScalesOnTheCpu()
{
    GDICapturer capturer(std::make_unique<Fakes::FakeScreenGrabber>(cv::Mat(1080, 1920, CV_8UC4)));
    QCOMPARE(capturer.scalerName(), QStringLiteral("CPU"));
}

void TestScalerName::frontAnswersForItsCurrentBackEnd()
{
    auto journal = std::make_shared<Fakes::CaptureJournal>();
    DeskCaptureOption option;
    option.setTotalOfMode(3);
    option.setCurMode(0);
    WinDeskCapture front(
        &option, [journal](int mode) -> IDeskCapture* { return new NamedCapture(journal, mode); }, nullptr);
    QCOMPARE(front.scalerName(), QString()); // no back-end before the context

    DeskCaptureContext context;
    context.width = 1920;
    context.height = 1080;
    front.setContext(context);
    QCOMPARE(front.scalerName(), QStringLiteral("GPU"));

    // The front swaps its back-end when the queued mode change arrives.
    option.setCurMode(2);
    QTRY_COMPARE(front.scalerName(), QStringLiteral("CPU"));
}

void TestScalerName::contractDefaultIsUnknown()
{
    Fakes::FakeCapture capture(std::make_shared<Fakes::CaptureJournal>(), 0);
    QCOMPARE(capture.scalerName(), QString());
}

QTEST_GUILESS_MAIN(TestScalerName)
#include "tst_scaler_name.moc"
