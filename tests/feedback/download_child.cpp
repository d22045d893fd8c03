// A process that checks the version and downloads the installer it names,
// for a test that kills it mid-download.
//
// Usage: download_child CONFIG_DIR SERVER_URL
// It prints "downloading" once the download has been started and then runs
// until it is killed or the download ends.

#include "ConfigurationManager.h"
#include "NetRCManager.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QStandardPaths>
#include <QtCore/QTextStream>

int main(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationVersion(QStringLiteral("1.0"));
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 3) {
        return 2;
    }
    QStandardPaths::setTestModeEnabled(true);
    ConfigurationManager::setConfigPath(arguments.at(1));
    NetRCManager::setServerUrl(arguments.at(2));
    NetRCManager net;
    QObject::connect(&net, &NetRCManager::hasNewAppVersion, &net, [&net]() {
        net.downloadLatestApp();
        QTextStream(stdout) << "downloading" << Qt::endl;
    });
    QObject::connect(&net, &NetRCManager::newInstallationFileDownloaded, &application, &QCoreApplication::quit);
    net.checkVersion();
    return application.exec();
}
