// An ambient-lighting application in miniature, on LibOrvanta's public API
// alone: it picks up the screen and the sound and shows what an LED
// controller around that screen would light.
#include "AmbilightApp.h"

#include <LibOrvanta/ConfigurationManager.h>

#include <QtCore/QCommandLineParser>
#include <QtGui/QGuiApplication>

#include <csignal>

namespace {

QSize parseSize(const QString& text, QSize fallback)
{
    const QStringList parts = text.split(QLatin1Char('x'));
    if (parts.size() != 2) {
        return fallback;
    }
    const QSize size(parts[0].toInt(), parts[1].toInt());
    return size.isValid() && !size.isEmpty() ? size : fallback;
}

extern "C" void onInterrupt(int)
{
    AmbilightApp::requestStop();
}

} // namespace

int main(int argc, char* argv[])
{
    // A GUI application object: screen facts and picture encoding come from Qt Gui.
    QGuiApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Orvanta"));
    QCoreApplication::setApplicationName(QStringLiteral("ambilight-example"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Captures the screen and the sound through LibOrvanta and shows what an LED ring around the screen "
        "would light: a status line and a preview picture every second, a feedback zip at the end."));
    parser.addHelpOption();
    const QCommandLineOption secondsOption(QStringLiteral("seconds"),
        QStringLiteral("How long to run; 0 runs until Ctrl-C."), QStringLiteral("n"), QStringLiteral("10"));
    const QCommandLineOption modeOption(QStringLiteral("mode"),
        QStringLiteral("Capture mode: 0 duplication, 1 graphics capture, 2 blit."), QStringLiteral("m"));
    const QCommandLineOption screenOption(
        QStringLiteral("screen"), QStringLiteral("Display output identifier."), QStringLiteral("id"));
    const QCommandLineOption audioOption(
        QStringLiteral("audio"), QStringLiteral("Audio endpoint identifier."), QStringLiteral("id"));
    const QCommandLineOption sizeOption(QStringLiteral("size"), QStringLiteral("Frame size to ask for."),
        QStringLiteral("WxH"), QStringLiteral("160x90"));
    const QCommandLineOption configOption(
        QStringLiteral("config"), QStringLiteral("Configuration directory."), QStringLiteral("dir"));
    const QCommandLineOption previewOption(
        QStringLiteral("previews"), QStringLiteral("Folder for preview pictures."), QStringLiteral("dir"));
    const QCommandLineOption sideOption(QStringLiteral("side"), QStringLiteral("LEDs on the left and right edges."),
        QStringLiteral("n"), QStringLiteral("9"));
    const QCommandLineOption topOption(
        QStringLiteral("top"), QStringLiteral("LEDs on the top edge."), QStringLiteral("n"), QStringLiteral("16"));
    const QCommandLineOption bottomOption(QStringLiteral("bottom"), QStringLiteral("LEDs on the bottom edge."),
        QStringLiteral("n"), QStringLiteral("16"));
    parser.addOptions({secondsOption, modeOption, screenOption, audioOption, sizeOption, configOption, previewOption,
        sideOption, topOption, bottomOption});
    parser.process(app);

    if (parser.isSet(configOption)) {
        ConfigurationManager::setConfigPath(parser.value(configOption));
    }

    AmbilightApp::Options options;
    options.seconds = std::max(0, parser.value(secondsOption).toInt());
    options.mode = parser.isSet(modeOption) ? parser.value(modeOption).toInt() : -1;
    options.screen = parser.value(screenOption);
    options.audio = parser.value(audioOption);
    options.outputSize = parseSize(parser.value(sizeOption), options.outputSize);
    options.previewDir = parser.value(previewOption);
    options.side = parser.value(sideOption).toInt();
    options.top = parser.value(topOption).toInt();
    options.bottom = parser.value(bottomOption).toInt();

    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);

    int status = 1;
    {
        AmbilightApp ambilight(options);
        if (ambilight.start()) {
            status = app.exec();
        }
    }
    return status;
}
