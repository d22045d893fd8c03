#pragma once

#include "orvanta_global.h"

#include <QtCore/QHash>
#include <QtCore/QJsonObject>
#include <QtCore/QJsonValue>
#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVariant>

#include <mutex>

/**
 * The process-wide keeper of the application's JSON configuration.
 *
 * Documents ("global", "controllers/<name>", "effects/<name>") are loaded at
 * their first use, cached for the life of the instance and written only by an
 * explicit save. References returned by the document accessors point into
 * the cache, so callers edit the cached document itself.
 *
 * The store never throws and never reports an error through its results: a
 * document that cannot be read is empty, a write that fails is logged.
 *
 * Threads. instance() and every operation may be called from any thread:
 * - The value operations (globalValue, appConfig, setGlobalValue,
 *   setAppConfig, the effect values) and the saves are atomic towards each
 *   other. A reader sees a document as it was before or after a write, never
 *   halfway; the cache is never corrupted by concurrent first loads, writes
 *   and saves; the saves of one file do not interleave, and the last one
 *   writes the newest state. A value read is the caller's own and shares
 *   nothing with the cache. The defaults fallback of effectJsonValue is a
 *   read and a write, each atomic, not one step.
 * - The document accessors (AppConfigJsonObj, controllerJsonObj,
 *   effectJsonObj) may be called from any thread, and the reference stays
 *   valid for the life of the instance. Reading or editing through it is
 *   not guarded, though: do so only while no other thread writes or saves
 *   that document, in practice on the application's thread, with other
 *   threads using the value operations.
 * - No lock of the store is held while it logs, emits appConfigChanged or
 *   reads a file, so a message handler or a slot may call the store again,
 *   also during the first load of a document.
 * - setConfigPath belongs to the application's thread, before the first
 *   instance(). reset() and generateControllerConfig touch only files and
 *   folders, with no ordering towards saves on other threads.
 * - The singleton is deleted at process exit; no thread may use it then.
 */
class LIBORVANTA_EXPORT ConfigurationManager : public QObject
{
    Q_OBJECT

public:
    /// The directory that the next construction uses; empty means the
    /// platform's per-user configuration location.
    static QString gsConfigPath;

    static ConfigurationManager* instance();
    static void setConfigPath(const QString& path);

    ConfigurationManager();
    ~ConfigurationManager() override;

    QString configPath() const;
    QString logsPath() const;
    QString resourcesPath() const;

    void makeDefaultDir();
    void reset();
    void EnableCleanStartup();
    void save();

    QJsonObject& AppConfigJsonObj();
    void saveAppConfigJsonObj();
    void saveGlobalValues();
    QJsonObject& controllerJsonObj(const QString& name);
    void saveControllerJsonObj(const QString& name);
    QJsonObject& effectJsonObj(QString name);
    void saveEffectJsonObj(QString name);

    // Dotted-path access to any object; see the implementation for the grammar.
    static QJsonValue valWithXPath(const QJsonObject& object, QString path);
    static void setValWithXPath(QJsonObject& object, QString path, QJsonValue value);
    static QJsonValue setValWithXPath(QJsonObject& object, QStringList path, QJsonValue value);

    QJsonValue globalValue(const QString& path);
    QJsonValue appConfig(const QString& path);
    void setGlobalValue(const QString& path, const QJsonValue& value);
    void setGlobalValue(const QStringList& path, const QJsonValue& value);
    void setAppConfig(const QString& path, const QJsonValue& value);

    QJsonValue effectJsonValue(QString effectName, QString section, QString key);
    QJsonValue effectJsonValue(QString effectName, QString section, QString key, QString defaultFile);
    QVariant effectVariant(QString effectName, QString section, QString key);
    void setEffectJsonValue(QString effectName, QString section, QString key, const QJsonValue& value);
    void setEffectVariant(QString effectName, QString section, QString key, QVariant value);

    /**
     * Writes the layout file of a controller with @p height LEDs on the left
     * and on the right edge, @p width on the top and @p bottom on the bottom.
     * A total of more than 100,000 LEDs (or one that does not fit in an int)
     * is refused with a warning, and no file is written.
     */
    void generateControllerConfig(QString name, int height, int width, int bottom);

signals:
    void appConfigChanged(const QString& key);

private:
    QJsonObject& globalJsonObj();
    void saveGlobalJsonObj();
    QJsonObject& jsonObject(const QString& key);
    QJsonObject loadJsonObjectFromFile(const QString& path);
    void saveJsonObject(const QString& key);
    QString documentPath(const QString& key) const;
    static QString effectKey(QString name);
    static QStringList resetFolders();

    /// Caches the document under @p key if it is not cached yet. Returns
    /// with no lock held.
    void ensureLoaded(const QString& key);

    QHash<QString, QJsonObject> documents;
    QString configDir;
    // Standard mutexes rather than QMutex: the thread sanitizer follows them,
    // while a contended QMutex waits inside Qt, where it cannot look.

    /// Guards documents: the hash and every document in it. Never held while
    /// logging, signalling or reading a file.
    std::mutex documentsLock;
    /// Serialises the writing of files; taken before documentsLock.
    std::mutex filesLock;
};
