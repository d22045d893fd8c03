// An ambient-lighting application in miniature, on LibOrvanta's public API
// alone: it picks up the screen and the sound and shows what an LED
// controller around that screen would light.
#include "AmbilightApp.h"

#include <LibOrvanta/ConfigurationManager.h>

#include <QtCore/QCommandLineParser>
#include <QtCore/QDir>
#include <QtCore/QTemporaryDir>
#include <QtCore/QTextStream>
#include <QtGui/QGuiApplication>

#include <csignal>
#include <cstdio>
#include <memory>

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

void setApplicationNames()
{
    QCoreApplication::setOrganizationName(QStringLiteral("Orvanta"));
    QCoreApplication::setApplicationName(QStringLiteral("ambilight-example"));
    QCoreApplication::setApplicationVersion(QStringLiteral("0.1.0"));
}

} // namespace

int main(int argc, char* argv[])
{
    QStringList arguments;
    for (int i = 0; i < argc; ++i) {
        arguments << QString::fromLocal8Bit(argv[i]);
    }

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Captures the screen and the sound through LibOrvanta and shows what an LED ring around the screen "
        "would light: a status line and a preview picture every second, a feedback zip at the end.\n"
        "It keeps its settings in a folder of its own, never in the user's configuration, and removes what it "
        "wrote when it ends unless --keep is given."));
    const QCommandLineOption helpOption = parser.addHelpOption();
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
    const QCommandLineOption configOption(QStringLiteral("config"),
        QStringLiteral("Configuration folder to use instead of a fresh temporary one."), QStringLiteral("dir"));
    const QCommandLineOption previewOption(
        QStringLiteral("previews"), QStringLiteral("Folder for preview pictures."), QStringLiteral("dir"));
    const QCommandLineOption keepOption(QStringLiteral("keep"),
        QStringLiteral("Keep what the run wrote (feedback zip, message file, installer, previews, the temporary "
                       "configuration folder)."));
    const QCommandLineOption serverOption(QStringLiteral("server"),
        QStringLiteral("Web server for the version check, installer download, feedback upload and usage report; "
                       "default: $ORVANTA_EXAMPLE_SERVER, which the demo session sets. None: no network."),
        QStringLiteral("url"), qEnvironmentVariable("ORVANTA_EXAMPLE_SERVER"));
    const QCommandLineOption sideOption(QStringLiteral("side"), QStringLiteral("LEDs on the left and right edges."),
        QStringLiteral("n"), QStringLiteral("9"));
    const QCommandLineOption topOption(
        QStringLiteral("top"), QStringLiteral("LEDs on the top edge."), QStringLiteral("n"), QStringLiteral("16"));
    const QCommandLineOption bottomOption(QStringLiteral("bottom"), QStringLiteral("LEDs on the bottom edge."),
        QStringLiteral("n"), QStringLiteral("16"));
    parser.addOptions({secondsOption, modeOption, screenOption, audioOption, sizeOption, configOption, previewOption,
        keepOption, serverOption, sideOption, topOption, bottomOption});

    // The arguments are read before any GUI object exists, so that --help
    // and mistakes are answered on a machine without a display too.
    if (!parser.parse(arguments)) {
        std::fprintf(stderr, "%s\n", qPrintable(parser.errorText()));
        return 2;
    }
    if (parser.isSet(helpOption) || parser.isSet(QStringLiteral("help-all"))) {
        QCoreApplication help(argc, argv);
        setApplicationNames();
        QTextStream(stdout) << parser.helpText();
        return 0;
    }

    // A folder of the example's own, unless the user names one: the run
    // never changes the user's own settings.
    std::unique_ptr<QTemporaryDir> ownFolder;
    QString configFolder = parser.value(configOption);
    if (configFolder.isEmpty()) {
        ownFolder = std::make_unique<QTemporaryDir>(QDir::tempPath() + QStringLiteral("/orvanta-ambilight-XXXXXX"));
        if (!ownFolder->isValid()) {
            std::fprintf(stderr, "could not make a configuration folder: %s\n", qPrintable(ownFolder->errorString()));
            return 1;
        }
        ownFolder->setAutoRemove(false);
        configFolder = ownFolder->path() + QStringLiteral("/config");
    }
    configFolder = QDir(configFolder).absolutePath();
    QDir().mkpath(configFolder);
    // Controller layouts go to the per-user data folder; this run's go beside
    // its configuration instead.
    qputenv("XDG_DATA_HOME", QFile::encodeName(configFolder + QStringLiteral("/data")));

    QGuiApplication app(argc, argv);
    setApplicationNames();
    ConfigurationManager::setConfigPath(configFolder);

    AmbilightApp::Options options;
    options.seconds = std::max(0, parser.value(secondsOption).toInt());
    options.mode = parser.isSet(modeOption) ? parser.value(modeOption).toInt() : -1;
    options.screen = parser.value(screenOption);
    options.audio = parser.value(audioOption);
    options.outputSize = parseSize(parser.value(sizeOption), options.outputSize);
    options.previewDir = parser.value(previewOption);
    options.server = parser.value(serverOption);
    options.side = parser.value(sideOption).toInt();
    options.top = parser.value(topOption).toInt();
    options.bottom = parser.value(bottomOption).toInt();

    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);

    int status = 1;
    QStringList artefacts;
    {
        AmbilightApp ambilight(options);
        if (ambilight.start()) {
            status = app.exec();
        }
        artefacts = ambilight.artefacts();
    }

    QTextStream out(stdout);
    if (parser.isSet(keepOption)) {
        out << "kept: " << (ownFolder ? ownFolder->path() : artefacts.join(QLatin1Char(' '))) << '\n';
    } else if (ownFolder) {
        ownFolder->remove();
        out << "removed the run's folder " << ownFolder->path() << " (--keep keeps it)\n";
    } else {
        int removed = 0;
        for (const QString& path : qAsConst(artefacts)) {
            removed += QFile::remove(path) ? 1 : 0;
        }
        out << "removed " << removed << " files this run wrote (--keep keeps them)\n";
    }
    return status;
}
