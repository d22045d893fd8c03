#include "FeedbackManager.h"

#include "ConfigurationManager.h"
#include "HardwareInfo.h"

#include <QtCore/QDateTime>
#include <QtCore/QDebug>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QSet>
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

/**
 * The contact text as a file's base name in the configuration folder.
 *
 * Ordinary text stands as it is. What could make the name reach another
 * folder or another drive (separators, a drive colon, "..") or break the
 * name itself (NUL and other control characters) becomes "_"; the text
 * itself is kept and sent unchanged.
 */
QString contactFileBaseName(const QString& contactInfo)
{
    QString name;
    name.reserve(contactInfo.size());
    for (const QChar character : contactInfo) {
        const bool unsafe = character == QLatin1Char('/') || character == QLatin1Char('\\')
            || character == QLatin1Char(':') || character.unicode() < 0x20 || character.unicode() == 0x7F
            || character.category() == QChar::Other_Control;
        name.append(unsafe ? QLatin1Char('_') : character);
    }
    name.replace(QStringLiteral(".."), QStringLiteral("__"));
    return name;
}

/// The path with every link resolved, or empty when it names nothing.
QString resolvedPath(const QString& path)
{
    return QFileInfo(path).canonicalFilePath();
}

bool isInside(const QString& resolved, const QString& resolvedFolder)
{
    return !resolved.isEmpty() && !resolvedFolder.isEmpty()
        && (resolved == resolvedFolder || resolved.startsWith(resolvedFolder + QLatin1Char('/')));
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
    // An empty contact text gives ".txt".
    return configPath() + QLatin1Char('/') + contactFileBaseName(contactInfo) + QStringLiteral(".txt");
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
    // The zip itself may be reachable from the folders it packs; it is never
    // read into itself.
    m_zipBeingWritten = resolvedPath(fileName);
    for (const char* directory : kDirectoryEntries) {
        writer.addDirectory(QLatin1String(directory));
    }

    addFileToZip(writer, configPath(), QStringLiteral("global.json"));
    addFileToZip(writer, configPath(), QStringLiteral("controllers"));
    addFileToZip(writer, configPath(), QStringLiteral("effects"));
    if (!m_userContactInfo.isEmpty()) {
        addFileToZip(writer, configPath(), contactFileBaseName(m_userContactInfo) + QStringLiteral(".txt"));
    }

    for (const FolderLimit& limit : kNewestFiles) {
        addLastFilesToZip(
            writer, configPath(), QLatin1String(limit.folder), limit.count, QLatin1String(limit.nameFilter));
    }
    writer.close();
    m_zipBeingWritten.clear();
}

void FeedbackManager::addFileToZip(QZipWriter& writer, const QString& rootPath, const QString& relativePath)
{
    // The walk stays inside what it was asked for: a folder, or for a single
    // file the configuration folder. A link that leads elsewhere, back up
    // into a parent included, is left out, and no folder is entered twice.
    const QString path = QDir(rootPath).absoluteFilePath(relativePath);
    const QFileInfo info(path);
    const QString walkRoot = resolvedPath(info.isDir() ? path : rootPath);
    if (!isInside(walkRoot, resolvedPath(rootPath))) {
        return;
    }
    QSet<QString> visitedFolders;
    addTreeToZip(writer, rootPath, path, walkRoot, visitedFolders);
}

void FeedbackManager::addTreeToZip(QZipWriter& writer, const QString& rootPath, const QString& path,
    const QString& walkRoot, QSet<QString>& visitedFolders)
{
    const QFileInfo info(path);
    const QString resolved = resolvedPath(path);
    if (!isInside(resolved, walkRoot) || resolved == m_zipBeingWritten) {
        return;
    }
    if (info.isFile()) {
        const QString entryName = info.absoluteFilePath().mid(rootPath.size() + 1);
        QFile file(resolved);
        if (file.open(QIODevice::ReadOnly)) {
            writer.addFile(entryName, file.readAll());
        }
    } else if (info.isDir()) {
        if (visitedFolders.contains(resolved)) {
            return;
        }
        visitedFolders.insert(resolved);
        const QDir folder(info.absoluteFilePath());
        const QStringList names
            = folder.entryList(QDir::Dirs | QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot, QDir::NoSort);
        for (const QString& name : names) {
            addTreeToZip(writer, rootPath, folder.absolutePath() + QDir::separator() + name, walkRoot, visitedFolders);
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
    // Files of this folder only: a link among them that leads out of it is left out.
    const QString folderRoot = resolvedPath(QDir(rootPath).absoluteFilePath(dirName));
    if (!isInside(folderRoot, resolvedPath(rootPath))) {
        return;
    }
    QSet<QString> visitedFolders;
    for (int index = 0; index < taken; ++index) {
        addTreeToZip(writer, rootPath, QDir(rootPath).absoluteFilePath(dirName + QLatin1Char('/') + names.at(index)),
            folderRoot, visitedFolders);
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
