// Loading a configuration document from arbitrary bytes on disk, through the
// store's public interface: a controller's document is read, saved and read
// again by a fresh store, which must give the same object.

#include "ConfigurationManager.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QStandardPaths>
#include <QtCore/QTemporaryDir>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace {

QtMessageHandler quiet()
{
    // The store logs every unreadable document; the fuzzer's output stays readable.
    return qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
}

const QString& configFolder()
{
    static QTemporaryDir folder;
    static const QString path = folder.path();
    return path;
}

ConfigurationManager* freshStore()
{
    delete ConfigurationManager::instance();
    ConfigurationManager::setConfigPath(configFolder());
    return ConfigurationManager::instance();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    static QCoreApplication application(*argc, *argv);
    QStandardPaths::setTestModeEnabled(true);
    quiet();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    ConfigurationManager* store = freshStore();
    const QString file = store->configPath() + QStringLiteral("/controllers/fuzz.json");
    QDir().mkpath(store->configPath() + QStringLiteral("/controllers"));
    {
        QFile out(file);
        if (!out.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            __builtin_trap();
        }
        out.write(reinterpret_cast<const char*>(data), static_cast<qint64>(size));
    }
    const QJsonObject loaded = store->controllerJsonObj(QStringLiteral("fuzz"));
    store->saveControllerJsonObj(QStringLiteral("fuzz"));

    const QJsonObject reloaded = freshStore()->controllerJsonObj(QStringLiteral("fuzz"));
    if (reloaded != loaded) {
        __builtin_trap();
    }
    QFile::remove(file);
    return 0;
}
