// Links the installed library and uses it the way an application does:
// choose the configuration directory, write a setting, read it back.
#include <LibOrvanta/ConfigurationManager.h>
#include <LibOrvanta/Helpers.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QTextStream>

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    if (argc < 2) {
        return 2;
    }
    ConfigurationManager::setConfigPath(QString::fromLocal8Bit(argv[1]));
    ConfigurationManager* config = ConfigurationManager::instance();
    config->setAppConfig(QStringLiteral("consumer.answer"), 42);

    QTextStream out(stdout);
    out << "config " << config->configPath() << '\n';
    out << "answer " << config->appConfig(QStringLiteral("consumer.answer")).toInt() << '\n';
    out << "newer " << (compareVersion(QStringLiteral("1.10"), QStringLiteral("1.9")) ? "yes" : "no") << '\n';
    out << "saved " << (QFile::exists(config->configPath() + QStringLiteral("/global.json")) ? "yes" : "no") << '\n';
    return 0;
}
