#pragma once

#include "ConfigurationManager.h"
#include "TestFiles.h"

#include <QtCore/QCryptographicHash>
#include <QtCore/QDateTime>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QProcess>
#include <QtCore/QStandardPaths>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

namespace FeedbackTest {

/// A fresh configuration folder with its own ConfigurationManager, for one test.
class ConfigSandbox
{
public:
    ConfigSandbox()
    {
        QStandardPaths::setTestModeEnabled(true);
        delete ConfigurationManager::instance();
        ConfigurationManager::setConfigPath(m_dir.path());
        ConfigurationManager::instance();
    }
    ~ConfigSandbox()
    {
        delete ConfigurationManager::instance();
        ConfigurationManager::setConfigPath(QString());
    }
    ConfigSandbox(const ConfigSandbox&) = delete;
    ConfigSandbox& operator=(const ConfigSandbox&) = delete;

    bool isValid() const
    {
        return m_dir.isValid();
    }
    QString path() const
    {
        return m_dir.path();
    }
    QString filePath(const QString& relative) const
    {
        return m_dir.filePath(relative);
    }

private:
    QTemporaryDir m_dir;
};

/// Writes a file, making its folder, and gives it a modification time.
inline bool writeFile(const QString& path, const QByteArray& content, const QDateTime& modified = QDateTime())
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(content) != content.size()) {
        return false;
    }
    // The buffered bytes must reach the file first, or their write would
    // stamp it again when it closes.
    file.flush();
    if (modified.isValid() && !file.setFileTime(modified, QFileDevice::FileModificationTime)) {
        return false;
    }
    return true;
}

/// The SHA-256 of a file as lowercase hexadecimal, empty when it cannot be read.
inline QByteArray fileDigest(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return QByteArray();
    }
    QCryptographicHash hash(QCryptographicHash::Sha256);
    hash.addData(&file);
    return hash.result().toHex();
}

/// A version reply as the server sends it.
inline QJsonObject versionReply(const QString& version, const QString& url, const QString& digest)
{
    return {{QStringLiteral("var"), version}, {QStringLiteral("download_url"), url}, {QStringLiteral("md5"), digest}};
}

/// The zip's listing as Python's zipfile reads it; see tools/zip_listing.py.
inline QJsonObject readZip(const QString& path)
{
    QProcess python;
    python.start(QStringLiteral("/usr/bin/python3"), {QStringLiteral(ORVANTA_ZIP_LISTING_SCRIPT), path});
    if (!python.waitForFinished(60000) || python.exitCode() != 0) {
        qWarning() << "zip listing failed:" << python.readAllStandardError();
        return QJsonObject();
    }
    return QJsonDocument::fromJson(python.readAllStandardOutput()).object();
}

inline QStringList zipEntryNames(const QJsonObject& listing)
{
    QStringList names;
    for (const QJsonValue& entry : listing.value(QStringLiteral("entries")).toArray()) {
        names << entry.toObject().value(QStringLiteral("name")).toString();
    }
    return names;
}

inline QByteArray zipEntryContent(const QJsonObject& listing, const QString& name)
{
    for (const QJsonValue& entry : listing.value(QStringLiteral("entries")).toArray()) {
        const QJsonObject object = entry.toObject();
        if (object.value(QStringLiteral("name")).toString() == name) {
            return QByteArray::fromBase64(object.value(QStringLiteral("base64")).toString().toLatin1());
        }
    }
    return QByteArray();
}

} // namespace FeedbackTest
