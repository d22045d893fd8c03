#pragma once

#include "orvanta_global.h"

#include <QtCore/QObject>
#include <QtCore/QSet>
#include <QtCore/QString>

class QZipWriter;

/**
 * One problem report, packed into one zip file in the configuration folder.
 *
 * Constructing the object records the machine's facts under "sysInfo" in the
 * global configuration document and saves it, so that they travel inside
 * "global.json"; it also fixes the zip's path, time stamp included. The
 * application then gives the user's contact text and message and calls
 * zipFeedbackFile(); NetRCManager::sendFeedback() uploads the result.
 *
 * Everything runs synchronously on the caller's thread; do not share an
 * object between threads. Nothing written here is ever removed by the class.
 */
class LIBORVANTA_EXPORT FeedbackManager : public QObject
{
    Q_OBJECT

public:
    /// Records the machine's facts (see above) and fixes the zip's path.
    explicit FeedbackManager(QObject* parent = nullptr);
    ~FeedbackManager() override;

    /// The text last given to setUserMsg(); empty after construction.
    QString userMsg() const;
    /// The user's contact text, free text, as stored in the global document.
    QString userContactInfo() const;
    /// The absolute path of the zip, fixed at construction.
    QString feedbackFileName() const;

    /**
     * Writes the zip to feedbackFileName(), replacing an earlier one, and
     * returns that path. Failures are silent: a zip that could not be
     * written shows up as a missing file.
     */
    QString zipFeedbackFile();

public slots:
    /**
     * Keeps @p msg and writes it, UTF-8, over the start of the message file
     * "<contact>.txt" in the configuration folder. Characters of the contact
     * text that could lead the name out of that folder (separators, a drive
     * colon, "..", control characters) stand as "_" in the file's name. The file is not truncated:
     * a shorter message leaves the tail of a longer earlier one behind it.
     */
    void setUserMsg(QString msg);
    /// Renames an existing message file to the new contact text, then stores the text.
    void setUserContactInfo(QString contactInfo);

private:
    void zipFeedbackFile(const QString& fileName);
    void addFileToZip(QZipWriter& writer, const QString& rootPath, const QString& relativePath);
    void addLastFilesToZip(
        QZipWriter& writer, const QString& rootPath, QString dirName, int count, const QString& nameFilter);
    void addTreeToZip(QZipWriter& writer, const QString& rootPath, const QString& path, const QString& walkRoot,
        QSet<QString>& visitedFolders);
    QString getMacAddress();
    void copyAppleCrashLogs();

    QString messageFilePath(const QString& contactInfo) const;

    QString m_feedbackFileName;
    QString m_userMsg;
    QString m_userContactInfo;
    QString m_zipBeingWritten;
};
