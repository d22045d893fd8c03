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

    /// The process's store, made by the first call with the folder that
    /// setConfigPath() chose; any thread may call it.
    static ConfigurationManager* instance();
    /// Chooses the configuration folder of the store that instance() makes
    /// next; call it on the application's thread before the first instance().
    static void setConfigPath(const QString& path);

    /// A store over gsConfigPath (or the platform's per-user location); it
    /// makes the folder and its subfolders. Applications use instance().
    ConfigurationManager();
    ~ConfigurationManager() override;

    /// The configuration folder, fixed at construction.
    QString configPath() const;
    /// configPath() + "/logs", the folder the application's logs belong in.
    QString logsPath() const;
    /// configPath() + "/resources", where the downloaded installer goes.
    QString resourcesPath() const;

    /// Makes the configuration folder (one level) and its "controllers",
    /// "logs", "effects", "dumps" and "resources" subfolders where missing.
    void makeDefaultDir();
    /**
     * Deletes the application's per-user configuration and data folders,
     * sparing every folder named "logs" or "dumps". Refused with a warning
     * when no application name is set. The cache is not cleared.
     */
    void reset();
    /// Sets the global value "cleanStartup" to true and saves the global document.
    void EnableCleanStartup();
    /// Saves every cached document.
    void save();

    /// The cached global document, loaded at first use; see the class notes on threads.
    QJsonObject& AppConfigJsonObj();
    /// Writes the global document to "global.json".
    void saveAppConfigJsonObj();
    /// Writes the global document to "global.json"; the same as saveAppConfigJsonObj().
    void saveGlobalValues();
    /// The cached document of controller @p name ("controllers/<name>.json").
    QJsonObject& controllerJsonObj(const QString& name);
    /// Writes the document of controller @p name.
    void saveControllerJsonObj(const QString& name);
    /// The cached document of effect @p name ("effects/<name>.json", a "." in the name stands as "_").
    QJsonObject& effectJsonObj(QString name);
    /// Writes the document of effect @p name.
    void saveEffectJsonObj(QString name);

    /**
     * The value at the dotted @p path ("a.b.c") in @p object: the object
     * itself for an empty path, null when a component before the last is
     * missing or not an object, undefined when the last one is missing.
     */
    static QJsonValue valWithXPath(const QJsonObject& object, QString path);
    /// Stores @p value at the dotted @p path of @p object, making the objects on the way.
    static void setValWithXPath(QJsonObject& object, QString path, QJsonValue value);
    /// Stores @p value at the components of @p path in @p object and returns the changed object.
    static QJsonValue setValWithXPath(QJsonObject& object, QStringList path, QJsonValue value);

    /// A copy of the global document's value at the dotted @p path (see valWithXPath()).
    QJsonValue globalValue(const QString& path);
    /// The same as globalValue().
    QJsonValue appConfig(const QString& path);
    /// Stores @p value at the dotted @p path of the global document in memory; saveGlobalValues() writes it.
    void setGlobalValue(const QString& path, const QJsonValue& value);
    /// Stores @p value at the components of @p path of the global document in memory.
    void setGlobalValue(const QStringList& path, const QJsonValue& value);
    /// Stores @p value like setGlobalValue(), saves the global document, then emits appConfigChanged(@p path).
    void setAppConfig(const QString& path, const QJsonValue& value);

    /**
     * The value of @p key in @p section of effect @p effectName's document,
     * or the whole section for an empty @p key. Reading a missing section
     * adds it to the cached document as null.
     */
    QJsonValue effectJsonValue(QString effectName, QString section, QString key);
    /**
     * As above; when the value is null or missing, the object in
     * @p defaultFile becomes the section (in memory, unsaved) and its
     * @p key, or the whole object, is returned; null when that file gives
     * nothing.
     */
    QJsonValue effectJsonValue(QString effectName, QString section, QString key, QString defaultFile);
    /// effectJsonValue() as a QVariant.
    QVariant effectVariant(QString effectName, QString section, QString key);
    /// Stores @p value under @p key of @p section in memory, or as the whole section for an empty @p key.
    void setEffectJsonValue(QString effectName, QString section, QString key, const QJsonValue& value);
    /// Stores @p value, converted to JSON, under @p key of @p section in memory.
    void setEffectVariant(QString effectName, QString section, QString key, QVariant value);

    /**
     * Writes the layout file of a controller with @p height LEDs on the left
     * and on the right edge, @p width on the top and @p bottom on the bottom.
     * A total of more than 100,000 LEDs (or one that does not fit in an int)
     * is refused with a warning, and no file is written.
     */
    void generateControllerConfig(QString name, int height, int width, int bottom);

signals:
    /// Emitted by setAppConfig() after the save, on the thread that called it, with its path.
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
