// Fragments of the guide's chapter on configuration.
#include "snippets.h"

#include <LibOrvanta/ConfigurationManager.h>

#include <QtCore/QDir>

namespace snippets {

void readSettings()
{
    //! [read-settings]
    ConfigurationManager* config = ConfigurationManager::instance();
    const int interval = config->appConfig(QStringLiteral("devUpdateInterval")).toInt(33); // milliseconds
    const int mode = config->globalValue(QStringLiteral("screenCaptureMode")).toInt(0);
    const QString latest = config->globalValue(QStringLiteral("latestVerion.version")).toString();

    config->setAppConfig(QStringLiteral("devUpdateInterval"), 20); // saves, then emits appConfigChanged
    config->setGlobalValue(QStringLiteral("myApp.lastProfile"), QStringLiteral("evening")); // memory only
    config->saveGlobalValues(); // now on disk

    // The folders the application fills and the feedback package reads.
    QDir(config->logsPath()).mkpath(QStringLiteral("devices"));
    QDir(config->logsPath()).mkpath(QStringLiteral("usrOptions"));
    QDir(config->configPath()).mkpath(QStringLiteral("capturerScreenshot"));
    //! [read-settings]
    Q_UNUSED(interval)
    Q_UNUSED(mode)
    Q_UNUSED(latest)
}

void watchSettings(QObject* receiver)
{
    //! [watch-settings]
    // Emitted on the thread that called setAppConfig(), after the save.
    QObject::connect(
        ConfigurationManager::instance(), &ConfigurationManager::appConfigChanged, receiver, [](const QString& key) {
            if (key == QLatin1String("devUpdateInterval")) {
                // new capturers and audio meters read it when they start
            }
        });
    //! [watch-settings]
}

} // namespace snippets
