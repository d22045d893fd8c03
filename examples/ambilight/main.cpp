// An ambient-lighting application in miniature: it chooses where its settings
// live, lays out an LED controller around the screen and shows the result.
#include <LibOrvanta/ConfigurationManager.h>
#include <LibOrvanta/Helpers.h>

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QStandardPaths>
#include <QtCore/QTextStream>

namespace {

QTextStream& out()
{
    static QTextStream stream(stdout);
    return stream;
}

// Prints the LED ring as a small character grid: each LED's cell shows the
// last digit of its number, music zones are listed below.
void printLayout(const QJsonObject& layout)
{
    const QJsonArray leds = layout.value(QStringLiteral("key_array")).toArray();
    int columns = 0;
    int rows = 0;
    for (const QJsonValue& value : leds) {
        const QJsonObject led = value.toObject();
        columns = std::max(columns, led.value(QStringLiteral("x")).toInt() + 1);
        rows = std::max(rows, led.value(QStringLiteral("y")).toInt() + 1);
    }
    QVector<QString> grid(rows, QString(columns, QLatin1Char('.')));
    for (const QJsonValue& value : leds) {
        const QJsonObject led = value.toObject();
        const int x = led.value(QStringLiteral("x")).toInt();
        const int y = led.value(QStringLiteral("y")).toInt();
        if (x >= 0 && y >= 0 && y < rows && x < columns) {
            grid[y][x] = QLatin1Char('0' + led.value(QStringLiteral("id")).toInt() % 10);
        }
    }
    for (const QString& row : grid) {
        out() << "    " << row << '\n';
    }
    for (const QJsonValue& value : layout.value(QStringLiteral("key_music")).toArray()) {
        const QJsonObject zone = value.toObject();
        out() << "    zone " << zone.value(QStringLiteral("id")).toInt() << ": LEDs "
              << zone.value(QStringLiteral("start")).toInt() << ".." << zone.value(QStringLiteral("stop")).toInt()
              << (zone.value(QStringLiteral("direction")).toInt() ? " (reversed)" : "") << '\n';
    }
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Orvanta"));
    QCoreApplication::setApplicationName(QStringLiteral("ambilight-example"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Drives LibOrvanta as a lighting application would."));
    parser.addHelpOption();
    const QCommandLineOption configOption(
        QStringLiteral("config"), QStringLiteral("Configuration directory."), QStringLiteral("dir"));
    const QCommandLineOption sideOption(QStringLiteral("side"), QStringLiteral("LEDs on the left and right edges."),
        QStringLiteral("n"), QStringLiteral("9"));
    const QCommandLineOption topOption(
        QStringLiteral("top"), QStringLiteral("LEDs on the top edge."), QStringLiteral("n"), QStringLiteral("16"));
    const QCommandLineOption bottomOption(QStringLiteral("bottom"), QStringLiteral("LEDs on the bottom edge."),
        QStringLiteral("n"), QStringLiteral("16"));
    parser.addOptions({configOption, sideOption, topOption, bottomOption});
    parser.process(app);

    if (parser.isSet(configOption)) {
        ConfigurationManager::setConfigPath(parser.value(configOption));
    }
    ConfigurationManager* config = ConfigurationManager::instance();
    out() << "configuration: " << config->configPath() << '\n';
    out() << "logs:          " << config->logsPath() << '\n';
    out() << "resources:     " << config->resourcesPath() << '\n';
    out() << "update every:  " << config->appConfig(QStringLiteral("devUpdateInterval")).toInt(33) << " ms\n";

    const int side = parser.value(sideOption).toInt();
    const int top = parser.value(topOption).toInt();
    const int bottom = parser.value(bottomOption).toInt();
    const QString controller = QStringLiteral("example-strip");
    config->generateControllerConfig(controller, side, top, bottom);

    const QString layoutPath = QStandardPaths::writableLocation(QStandardPaths::AppLocalDataLocation)
        + QStringLiteral("/controler_config/") + controller + QStringLiteral(".json");
    QFile layoutFile(layoutPath);
    if (!layoutFile.open(QIODevice::ReadOnly)) {
        out() << "could not read the controller layout " << layoutPath << '\n';
        return 1;
    }
    const QJsonObject layout = QJsonDocument::fromJson(layoutFile.readAll()).object();
    out() << "controller layout: " << layoutPath << " (" << layout.value(QStringLiteral("key_num")).toInt()
          << " LEDs)\n";
    printLayout(layout);
    out().flush();
    return 0;
}
