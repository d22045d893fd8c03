// Capture with the application's own OpenGL context current on the registry's
// thread, as Qt's xcb integration makes a GLX context current for its windows.
// Runs on the "desktop_xvfb" fixture's Xvfb, whose screen is split into LEFT and RIGHT.

#include "ConfigurationManager.h"
#include "DeskDuplManager.h"
#include "MessageCapture.h"
#include "XcbPainter.h"

#include <QtCore/QStandardPaths>
#include <QtCore/QTemporaryDir>
#include <QtGui/QGuiApplication>
#include <QtGui/QOffscreenSurface>
#include <QtGui/QOpenGLContext>
#include <QtGui/QOpenGLFunctions>
#include <QtTest/QTest>

class TestX11GlContext : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void applicationContextStaysCurrentThroughCapture();

private:
    QTemporaryDir m_configDir;
};

void TestX11GlContext::initTestCase()
{
    QVERIFY2(!qEnvironmentVariableIsEmpty("DISPLAY"), "the desktop_xvfb fixture gives the display");
    QCOMPARE(QGuiApplication::platformName(), QStringLiteral("xcb"));
    // The outputs' own GL contexts even on a software renderer, where capture
    // would otherwise scale on the CPU and make none: they are what must leave
    // the application's context current.
    qputenv("ORVANTA_SCALER", "gpu");
    QStandardPaths::setTestModeEnabled(true);
    QVERIFY(m_configDir.isValid());
    ConfigurationManager::setConfigPath(m_configDir.path());
    ConfigurationManager::instance()->setGlobalValue("devUpdateInterval", 20);
    ConfigurationManager::instance()->setGlobalValue("screenCaptureMode", 0);
}

void TestX11GlContext::applicationContextStaysCurrentThroughCapture()
{
    QOffscreenSurface surface;
    surface.create();
    QOpenGLContext context;
    QVERIFY(context.create());
    QVERIFY(context.makeCurrent(&surface));

    XcbPainter painter;
    QVERIFY(painter.isValid());
    const QColor mixed(10, 120, 230);
    painter.fill(QRect(0, 0, 1920, 1080), Qt::black);
    painter.fill(QRect(100, 50, 200, 100), mixed);

    MessageCapture messages;
    DeskDuplManager registry;
    QSharedPointer<IDeskCapture> left = registry.acquireCapturer("LEFT-A0-O0");
    QVERIFY(left);
    left->setOutputSize(QSize(960, 540));
    QTRY_VERIFY_WITH_TIMEOUT(XcbPainter::pixelIs(left->nextFrame(), 40, 100, mixed), 10000);
    // The outputs got their GPU devices, and the GPU scaled the frames.
    QVERIFY2(messages.texts(QtCriticalMsg).isEmpty(), qPrintable(messages.texts(QtCriticalMsg).join('\n')));
    QVERIFY(messages.texts(QtInfoMsg).contains(QStringLiteral("[DXGICapturer]: Frames are scaled on the GPU")));

    // The application's context is current again, and works.
    QCOMPARE(QOpenGLContext::currentContext(), &context);
    QVERIFY(context.functions()->glGetString(GL_VERSION) != nullptr);
    context.doneCurrent();
}

QTEST_MAIN(TestX11GlContext)
#include "tst_x11glcontext.moc"
