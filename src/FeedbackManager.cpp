#include "FeedbackManager.h"

#include "ConfigurationManager.h"
#include "HardwareInfo.h"

#include <QtCore/QDateTime>
#include <QtCore/QDebug>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtGui/private/qzipwriter_p.h>
#include <QtNetwork/QNetworkInterface>

#include <algorithm>

namespace {

struct FolderLimit
{
    const char* folder;
    int count;
    const char* nameFilter;
};

// The newest files of each folder that the application fills, in zip order.
constexpr FolderLimit kNewestFiles[] = {
    {"logs", 30, "*.log"},
    {"logs/devices", 30, "*.log"},
    {"logs/usrOptions", 20, "*.log"},
    {"capturerScreenshot", 20, "*.png"},
    {"dumps", 256, "*.dmp"},
};

// Always present in the zip, so that the server sees the same layout whether
// or not the application ever filled a folder.
constexpr const char* kDirectoryEntries[] = {
    "controllers",
    "dumps",
    "effects",
    "logs",
    "logs/devices",
    "logs/usrOptions",
    "capturerScreenshot",
};

QString configPath()
{
    return ConfigurationManager::instance()->configPath();
}

} // namespace

FeedbackManager::FeedbackManager(QObject* parent)
    : QObject(parent)
{
    ConfigurationManager* configuration = ConfigurationManager::instance();
    m_userContactInfo = configuration->globalValue(QStringLiteral("userContactInfo")).toString();

    configuration->setGlobalValue(QStringLiteral("sysInfo.memory"), HardwareInfo::memory());
    configuration->setGlobalValue(QStringLiteral("sysInfo.cpuType"), HardwareInfo::cpuType());
    configuration->setGlobalValue(QStringLiteral("sysInfo.cpuId"), HardwareInfo::get_cpuId());
    configuration->setGlobalValue(QStringLiteral("sysInfo.osVersion"), HardwareInfo::osVersion());
    configuration->setGlobalValue(QStringLiteral("sysInfo.dCard"), HardwareInfo::dCard());
    configuration->setGlobalValue(QStringLiteral("sysInfo.screen"), HardwareInfo::screen());
    configuration->setGlobalValue(QStringLiteral("sysInfo.disk"), HardwareInfo::disk());
    configuration->setGlobalValue(QStringLiteral("sysInfo.mac"), HardwareInfo::getMacStr(QStringLiteral("0")));
    // On disk before any zip is made, so that "global.json" in it carries the facts.
    configuration->saveGlobalValues();

    const QString address = HardwareInfo::getMacStr(QStringLiteral("0"));
    const QString processorId = HardwareInfo::get_cpuId();
    const QString timeStamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd_hh-mm-ss"));
    m_feedbackFileName = configPath() + QLatin1Char('/') + QStringLiteral("Orvanta_") + address + processorId
        + QLatin1Char('_') + timeStamp + QStringLiteral(".zip");
}

FeedbackManager::~FeedbackManager() = default;

QString FeedbackManager::userMsg() const
{
    return m_userMsg;
}

QString FeedbackManager::userContactInfo() const
{
    return m_userContactInfo;
}

QString FeedbackManager::feedbackFileName() const
{
    return m_feedbackFileName;
}

QString FeedbackManager::messageFilePath(const QString& contactInfo) const
{
    // The contact text is the base name as it stands: an empty one gives ".txt".
    return configPath() + QLatin1Char('/') + contactInfo + QStringLiteral(".txt");
}

void FeedbackManager::setUserMsg(QString msg)
{
    m_userMsg = msg;
    QFile file(messageFilePath(m_userContactInfo));
    // ReadWrite creates a missing file and, unlike WriteOnly, keeps the old bytes.
    if (!file.open(QIODevice::ReadWrite)) {
        qWarning() << "Failed to open user feedback message file. " << file.errorString();
        return;
    }
    file.write(msg.toUtf8());
    file.close();
}

void FeedbackManager::setUserContactInfo(QString contactInfo)
{
    const QString oldPath = messageFilePath(m_userContactInfo);
    if (QFile::exists(oldPath)) {
        QFile::rename(oldPath, messageFilePath(contactInfo));
    }
    m_userContactInfo = contactInfo;
    ConfigurationManager* configuration = ConfigurationManager::instance();
    configuration->setGlobalValue(QStringLiteral("userContactInfo"), contactInfo);
    configuration->saveGlobalValues();
}

QString FeedbackManager::zipFeedbackFile()
{
    zipFeedbackFile(m_feedbackFileName);
    return m_feedbackFileName;
}

void FeedbackManager::zipFeedbackFile(const QString& fileName)
{
    QZipWriter writer(fileName, QIODevice::WriteOnly | QIODevice::Truncate);
    for (const char* directory : kDirectoryEntries) {
        writer.addDirectory(QLatin1String(directory));
    }

    addFileToZip(writer, configPath(), QStringLiteral("global.json"));
    addFileToZip(writer, configPath(), QStringLiteral("controllers"));
    addFileToZip(writer, configPath(), QStringLiteral("effects"));
    if (!m_userContactInfo.isEmpty()) {
        addFileToZip(writer, configPath(), m_userContactInfo + QStringLiteral(".txt"));
    }

    for (const FolderLimit& limit : kNewestFiles) {
        addLastFilesToZip(
            writer, configPath(), QLatin1String(limit.folder), limit.count, QLatin1String(limit.nameFilter));
    }
    writer.close();
}

void FeedbackManager::addFileToZip(QZipWriter& writer, const QString& rootPath, const QString& relativePath)
{
    // An absolute relativePath passes through absoluteFilePath unchanged,
    // which is how the folder walk below hands down its children.
    const QFileInfo info(QDir(rootPath).absoluteFilePath(relativePath));
    if (info.isFile()) {
        const QString entryName = info.absoluteFilePath().mid(rootPath.size() + 1);
        QFile file(info.absoluteFilePath());
        if (file.open(QIODevice::ReadOnly)) {
            writer.addFile(entryName, file.readAll());
        }
    } else if (info.isDir()) {
        const QDir folder(info.absoluteFilePath());
        const QStringList names
            = folder.entryList(QDir::Dirs | QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot, QDir::NoSort);
        for (const QString& name : names) {
            addFileToZip(writer, rootPath, folder.absolutePath() + QDir::separator() + name);
        }
    }
}

void FeedbackManager::addLastFilesToZip(
    QZipWriter& writer, const QString& rootPath, QString dirName, int count, const QString& nameFilter)
{
    QDir dir(rootPath);
    // A missing folder leaves dir at rootPath; the paths built from dirName
    // then name nothing, so nothing of rootPath itself slips in.
    dir.cd(dirName);
    const QStringList names = dir.entryList(QStringList {nameFilter}, QDir::Files, QDir::Time);
    const int taken = std::min(static_cast<int>(names.size()), count);
    for (int index = 0; index < taken; ++index) {
        addFileToZip(writer, rootPath, dirName + QLatin1Char('/') + names.at(index));
    }
}

QString FeedbackManager::getMacAddress()
{
    const QList<QNetworkInterface> interfaces = QNetworkInterface::allInterfaces();
    for (const QNetworkInterface& networkInterface : interfaces) {
        if (!networkInterface.flags().testFlag(QNetworkInterface::IsLoopBack)) {
            return networkInterface.hardwareAddress();
        }
    }
    return QString();
}

void FeedbackManager::copyAppleCrashLogs()
{
}
