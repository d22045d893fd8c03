// DMA-BUF import into the OpenGL ES scaler: the attribute lists handed to
// EGL, and what the driver of this machine says it imports.
#include "ResultCodes.h"
#include "egl/DmaBufImporter.h"
#include "egl/EglDevice.h"
#include "egl/GlesScaler.h"
#include "pipewire/PipeWireStream.h"

#include <QtTest/QtTest>

using namespace Orvanta;

namespace {

Ifaces::DmaBufImage onePlaneImage()
{
    Ifaces::DmaBufImage image;
    image.width = 1920;
    image.height = 1080;
    image.fourcc = Ifaces::drmFourcc('X', 'R', '2', '4');
    image.modifier = Ifaces::DmaBufLinearModifier;
    image.planeCount = 1;
    image.planes[0] = {7, 64, 7680};
    return image;
}

bool displayImportsDmaBufs(EGLDisplay display)
{
    const char* extensions = eglQueryString(display, EGL_EXTENSIONS);
    return Egl::EglDevice::hasExtension(extensions, "EGL_EXT_image_dma_buf_import")
        && Egl::EglDevice::hasExtension(extensions, "EGL_EXT_image_dma_buf_import_modifiers");
}

} // namespace

class DmaBufImportTest : public QObject
{
    Q_OBJECT

private slots:
    void theFourccsAreThoseOfDrm();
    void onePlaneGivesSizeFormatAndPlane();
    void theModifierIsSplitIntoHalves();
    void everyPlaneIsListed();
    void malformedImagesGiveNoAttributes_data();
    void malformedImagesGiveNoAttributes();
    void theDriverSaysWhatItImports();
};

void DmaBufImportTest::theFourccsAreThoseOfDrm()
{
    // DRM_FORMAT_XRGB8888 and DRM_FORMAT_ABGR8888 as the kernel's header spells them.
    QCOMPARE(Ifaces::drmFourcc('X', 'R', '2', '4'), 0x34325258u);
    QCOMPARE(Ifaces::drmFourcc('A', 'B', '2', '4'), 0x34324241u);
    const std::vector<std::uint32_t> fourccs = PipeWire::PipeWireStream::dmaBufFourccs();
    QCOMPARE(fourccs.size(), std::size_t(4));
    QCOMPARE(fourccs.front(), Ifaces::drmFourcc('X', 'R', '2', '4'));
}

void DmaBufImportTest::onePlaneGivesSizeFormatAndPlane()
{
    const std::vector<EGLint> attributes = Egl::DmaBufImporter::imageAttributes(onePlaneImage());
    const std::vector<EGLint> expected {EGL_WIDTH, 1920, EGL_HEIGHT, 1080, EGL_LINUX_DRM_FOURCC_EXT, 0x34325258,
        EGL_DMA_BUF_PLANE0_FD_EXT, 7, EGL_DMA_BUF_PLANE0_OFFSET_EXT, 64, EGL_DMA_BUF_PLANE0_PITCH_EXT, 7680,
        EGL_DMA_BUF_PLANE0_MODIFIER_LO_EXT, 0, EGL_DMA_BUF_PLANE0_MODIFIER_HI_EXT, 0, EGL_NONE};
    QCOMPARE(attributes, expected);
}

void DmaBufImportTest::theModifierIsSplitIntoHalves()
{
    Ifaces::DmaBufImage image = onePlaneImage();
    image.modifier = 0x0100000000000002ull; // a vendor's tiling
    const std::vector<EGLint> attributes = Egl::DmaBufImporter::imageAttributes(image);
    QCOMPARE(attributes.at(13), EGLint(2));
    QCOMPARE(attributes.at(15), EGLint(0x01000000));
}

void DmaBufImportTest::everyPlaneIsListed()
{
    Ifaces::DmaBufImage image = onePlaneImage();
    image.planeCount = 2;
    image.planes[1] = {9, 0, 3840};
    const std::vector<EGLint> attributes = Egl::DmaBufImporter::imageAttributes(image);
    QCOMPARE(attributes.size(), std::size_t(6 + 2 * 10 + 1));
    QCOMPARE(attributes.at(16), EGLint(EGL_DMA_BUF_PLANE1_FD_EXT));
    QCOMPARE(attributes.at(17), EGLint(9));
    QCOMPARE(attributes.at(21), EGLint(3840));
    QCOMPARE(attributes.back(), EGLint(EGL_NONE));
}

void DmaBufImportTest::malformedImagesGiveNoAttributes_data()
{
    QTest::addColumn<int>("planeCount");
    QTest::addColumn<int>("fd");
    QTest::addColumn<int>("stride");
    QTest::addColumn<int>("width");
    QTest::newRow("no planes") << 0 << 7 << 7680 << 1920;
    QTest::newRow("more planes than there are") << 5 << 7 << 7680 << 1920;
    QTest::newRow("no descriptor") << 1 << -1 << 7680 << 1920;
    QTest::newRow("no stride") << 1 << 7 << 0 << 1920;
    QTest::newRow("no width") << 1 << 7 << 7680 << 0;
}

void DmaBufImportTest::malformedImagesGiveNoAttributes()
{
    QFETCH(int, planeCount);
    QFETCH(int, fd);
    QFETCH(int, stride);
    QFETCH(int, width);
    Ifaces::DmaBufImage image = onePlaneImage();
    image.planeCount = planeCount;
    image.planes[0].fd = fd;
    image.planes[0].stride = std::uint32_t(stride);
    image.width = width;
    QVERIFY(Egl::DmaBufImporter::imageAttributes(image).empty());
}

void DmaBufImportTest::theDriverSaysWhatItImports()
{
    std::shared_ptr<Egl::EglDevice> device;
    QCOMPARE(Egl::EglDevice::create(device), S_OK);
    Egl::GlesScaler scaler(device, device->display(), device->context());
    const auto formats = scaler.importableDmaBufFormats(PipeWire::PipeWireStream::dmaBufFourccs());
    Egl::DmaBufImporter importer(device->display());
    QCOMPARE(importer.isAvailable(), displayImportsDmaBufs(device->display()));

    // Which branch runs is decided by the renderer, named in the test's output,
    // so that a run on a machine with a GPU is told apart from one without.
    const QString renderer = QString::fromStdString(device->renderer());
    const bool softwareRenderer = renderer.contains(QLatin1String("llvmpipe"))
        || renderer.contains(QLatin1String("softpipe")) || renderer.contains(QLatin1String("swrast"));
    qInfo().noquote() << "renderer:" << renderer << "| software:" << softwareRenderer
                      << "| imports DMA-BUFs:" << importer.isAvailable();

    int branchesChecked = 0;
    if (softwareRenderer) {
        // Mesa's software renderers have no DMA-BUF import: nothing is offered,
        // and a DMA-BUF source is refused.
        QVERIFY(!importer.isAvailable());
        QVERIFY(formats.empty());
        const Ifaces::DmaBufImage image = onePlaneImage();
        Ifaces::ScalerSource source;
        source.width = image.width;
        source.height = image.height;
        source.format = Ifaces::PixelFormat::B8G8R8X8Unorm;
        source.dmaBuf = &image;
        QCOMPARE(scaler.createSourceView(source), E_NOTIMPL);
        ++branchesChecked;
    } else if (importer.isAvailable()) {
        // A driver that imports: every format it lists has modifiers to go with it.
        QVERIFY(!formats.empty());
        for (const Ifaces::DmaBufFormat& format : formats)
            QVERIFY(!format.modifiers.empty());
        ++branchesChecked;
    } else {
        // A hardware renderer without the extensions offers nothing either.
        QVERIFY(formats.empty());
        ++branchesChecked;
    }
    QCOMPARE(branchesChecked, 1);
}

QTEST_GUILESS_MAIN(DmaBufImportTest)
#include "tst_dmabuf_import.moc"
