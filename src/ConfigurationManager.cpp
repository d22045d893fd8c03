#include "ConfigurationManager.h"
#include "ConfigurationManager_p.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonParseError>
#include <QtCore/QRegularExpression>
#include <QtCore/QStandardPaths>
#include <QtCore/QTextStream>
#include <QtCore/QVarLengthArray>

#include <algorithm>
#include <atomic>
#include <limits>
#include <mutex>

QString ConfigurationManager::gsConfigPath;

namespace {

std::atomic<ConfigurationManager*> s_instance {nullptr};

// Deletes the singleton at process exit. It is defined after gsConfigPath, so
// it is destroyed before it.
struct SingletonReaper
{
    ~SingletonReaper()
    {
        delete s_instance.exchange(nullptr);
    }
} s_reaper;

// The most LEDs a layout may describe: far above any real strip, and small
// enough that the document and its text stay a few megabytes.
constexpr qint64 maximumLedCount = 100000;

// What reading one document from disk gave, kept apart from the report so
// that the report can be made once no lock is held any more.
struct LoadResult
{
    enum Failure { None, Open, Parse };

    QJsonObject document;
    Failure failure = None;
    QString error;
};

LoadResult readJsonFile(const QString& path)
{
    LoadResult result;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        result.failure = LoadResult::Open;
        result.error = file.errorString();
        return result;
    }
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &error);
    file.close();
    if (error.error != QJsonParseError::NoError) {
        result.failure = LoadResult::Parse;
        result.error = error.errorString();
        return result;
    }
    result.document = document.object();
    return result;
}

void reportLoadFailure(const QString& path, const LoadResult& result)
{
    switch (result.failure) {
    case LoadResult::None:
        break;
    case LoadResult::Open:
        qCritical() << "Failed to open" << path << " errStr:" << result.error;
        break;
    case LoadResult::Parse:
        qCritical() << "Failed to parse" << path << result.error;
        break;
    }
}

// A copy of value that shares no data with it. Qt's JSON values share their
// storage with the document they come from; a value handed across the lock
// (in from a writer, out to a reader) is copied whole, so that no thread ever
// releases storage that another one reaches only under the lock.
QJsonValue detached(const QJsonValue& value)
{
    switch (value.type()) {
    case QJsonValue::Object: {
        const QJsonObject source = value.toObject();
        QJsonObject copy;
        for (auto it = source.constBegin(); it != source.constEnd(); ++it) {
            copy.insert(it.key(), detached(it.value()));
        }
        return copy;
    }
    case QJsonValue::Array: {
        const QJsonArray source = value.toArray();
        QJsonArray copy;
        for (const QJsonValue& element : source) {
            copy.append(detached(element));
        }
        return copy;
    }
    case QJsonValue::String:
        return QJsonValue(value.toString());
    default:
        return value;
    }
}

// Whether an entry is one of the folders that a reset spares. The name is
// tested first: a link named "logs" or "dumps" is spared like the folder it
// stands for, and neither it nor its target is touched.
bool isSparedFolder(const QFileInfo& entry)
{
    const QString name = entry.fileName();
    if (name != QLatin1String("dumps") && name != QLatin1String("logs")) {
        return false;
    }
    return entry.isSymLink() || entry.isDir();
}

// Deletes what lies below path, sparing every folder named "logs" or "dumps"
// at any depth, then path itself. Stops at the first failure.
bool removeDirectory(const QString& path)
{
    QDir dir(path);
    if (!dir.exists()) {
        qWarning() << "Directory does not exist:" << path;
        return false;
    }
    const QFileInfoList entries
        = dir.entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::NoSort);
    for (const QFileInfo& entry : entries) {
        if (isSparedFolder(entry)) {
            continue;
        }
        // Any other link to a folder is removed as a link: its target lies outside.
        if (entry.isDir() && !entry.isSymLink()) {
            if (!removeDirectory(entry.absoluteFilePath())) {
                return false;
            }
        } else if (!QFile::remove(entry.absoluteFilePath())) {
            qWarning() << "Failed to remove file:" << entry.absoluteFilePath();
            return false;
        }
    }
    if (!dir.rmdir(path)) {
        qWarning() << "Failed to remove directory:" << path;
        return false;
    }
    return true;
}

} // namespace

namespace Orvanta {

bool parseArrayIndex(const QString& component, int* index)
{
    const QRegularExpression pattern(QStringLiteral("\\[(\\d+)\\]"));
    const QRegularExpressionMatch match = pattern.match(component);
    if (!match.hasMatch()) {
        return false;
    }
    bool ok = false;
    *index = match.captured(1).toInt(&ok, 10);
    return ok;
}

} // namespace Orvanta

ConfigurationManager* ConfigurationManager::instance()
{
    ConfigurationManager* current = s_instance.load(std::memory_order_acquire);
    if (current) {
        return current;
    }
    // Capture threads may ask for the store at the same moment as the
    // application. Each builds a candidate without holding any lock (the
    // construction only makes folders) and the first one published wins.
    auto* candidate = new ConfigurationManager;
    if (s_instance.compare_exchange_strong(current, candidate, std::memory_order_acq_rel)) {
        return candidate;
    }
    delete candidate;
    return current;
}

void ConfigurationManager::setConfigPath(const QString& path)
{
    gsConfigPath = path;
}

ConfigurationManager::ConfigurationManager()
    : configDir(
        gsConfigPath.isEmpty() ? QStandardPaths::writableLocation(QStandardPaths::AppConfigLocation) : gsConfigPath)
{
    makeDefaultDir();
}

ConfigurationManager::~ConfigurationManager()
{
    ConfigurationManager* self = this;
    s_instance.compare_exchange_strong(self, nullptr);
}

QString ConfigurationManager::configPath() const
{
    return configDir;
}

QString ConfigurationManager::logsPath() const
{
    return configDir + QStringLiteral("/logs");
}

QString ConfigurationManager::resourcesPath() const
{
    return configDir + QStringLiteral("/resources");
}

void ConfigurationManager::makeDefaultDir()
{
    // One level only: a missing parent of the configuration directory is the
    // application's mistake and is not papered over.
    QDir().mkdir(configDir);
    QDir dir(configDir);
    for (const char* name : {"controllers", "logs", "effects", "dumps", "resources"}) {
        dir.mkdir(QLatin1String(name));
    }
}

void ConfigurationManager::reset()
{
    // Without an application name the standard locations are the shared
    // folders of every program of the user, never this application's own.
    if (QCoreApplication::applicationName().isEmpty()) {
        qWarning() << "Refused to reset configuration: no application name is set, nothing was removed";
        return;
    }
    for (const QString& path : resetFolders()) {
        if (!removeDirectory(path)) {
            qWarning() << "Failed to completely reset configuration directory:" << path;
        }
    }
}

QStringList ConfigurationManager::resetFolders()
{
    // On Windows the local twin of the roaming data folder holds the
    // configuration. Elsewhere configuration and data have folders of their
    // own, and both belong to the application.
    QString data = QStandardPaths::writableLocation(QStandardPaths::AppDataLocation);
    data.replace(QStringLiteral("Roaming"), QStringLiteral("Local"), Qt::CaseSensitive);
#ifdef Q_OS_WIN
    return {data};
#else
    const QString config = QStandardPaths::writableLocation(QStandardPaths::AppConfigLocation);
    if (config == data) {
        return {data};
    }
    return {config, data};
#endif
}

void ConfigurationManager::EnableCleanStartup()
{
    setGlobalValue(QStringLiteral("cleanStartup"), QJsonValue(true));
    saveGlobalValues();
}

void ConfigurationManager::save()
{
    QStringList keys;
    {
        const std::lock_guard<std::mutex> lock(documentsLock);
        keys = documents.keys();
    }
    for (const QString& key : qAsConst(keys)) {
        saveJsonObject(key);
    }
}

QJsonObject& ConfigurationManager::AppConfigJsonObj()
{
    return globalJsonObj();
}

void ConfigurationManager::saveAppConfigJsonObj()
{
    saveGlobalJsonObj();
}

void ConfigurationManager::saveGlobalValues()
{
    saveGlobalJsonObj();
}

QJsonObject& ConfigurationManager::controllerJsonObj(const QString& name)
{
    return jsonObject(QStringLiteral("controllers/") + name);
}

void ConfigurationManager::saveControllerJsonObj(const QString& name)
{
    saveJsonObject(QStringLiteral("controllers/") + name);
}

QJsonObject& ConfigurationManager::effectJsonObj(QString name)
{
    return jsonObject(effectKey(name));
}

void ConfigurationManager::saveEffectJsonObj(QString name)
{
    saveJsonObject(effectKey(name));
}

QJsonObject& ConfigurationManager::globalJsonObj()
{
    return jsonObject(QStringLiteral("global"));
}

void ConfigurationManager::saveGlobalJsonObj()
{
    saveJsonObject(QStringLiteral("global"));
}

QString ConfigurationManager::documentPath(const QString& key) const
{
    QString fileKey = key;
    fileKey.replace(QLatin1Char(':'), QLatin1Char('_'));
    return configDir + QLatin1Char('/') + fileKey + QStringLiteral(".json");
}

void ConfigurationManager::ensureLoaded(const QString& key)
{
    {
        const std::lock_guard<std::mutex> lock(documentsLock);
        if (documents.contains(key)) {
            return;
        }
    }
    // The file is read with no lock held, so that other documents stay
    // available meanwhile. Threads whose first reads overlap may each read
    // it; the first to come back adds the document, the others drop theirs.
    const QString path = documentPath(key);
    LoadResult loaded = readJsonFile(path);
    bool added = false;
    {
        const std::lock_guard<std::mutex> lock(documentsLock);
        if (!documents.contains(key)) {
            // A failed load is cached as well: it is not retried, and a later
            // save writes the empty document. The document moves in, so the
            // cache holds the only reference to it.
            documents[key] = std::move(loaded.document);
            added = true;
        }
    }
    // Reported after the document is in place and the lock is free: a
    // message handler that reads the configuration finds the document
    // cached, neither waits for this thread nor loads it again.
    if (added) {
        reportLoadFailure(path, loaded);
    }
}

QJsonObject& ConfigurationManager::jsonObject(const QString& key)
{
    ensureLoaded(key);
    // Documents are never taken out of the hash and the hash is never
    // copied, so its nodes stay where they are and the reference outlives
    // the lock.
    const std::lock_guard<std::mutex> lock(documentsLock);
    return documents.find(key).value();
}

QJsonObject ConfigurationManager::loadJsonObjectFromFile(const QString& path)
{
    const LoadResult loaded = readJsonFile(path);
    reportLoadFailure(path, loaded);
    return loaded.document;
}

void ConfigurationManager::saveJsonObject(const QString& key)
{
    const QString path = documentPath(key);
    enum { Written, OpenFailed, WriteFailed } outcome = Written;
    QString error;
    {
        // Saves of one file must not interleave, and the last one to write
        // must write the newest state: the snapshot is taken inside the
        // file lock. Nothing is logged while it is held.
        const std::lock_guard<std::mutex> files(filesLock);
        QByteArray data;
        {
            const std::lock_guard<std::mutex> lock(documentsLock);
            // operator[] adds an empty document for a key never used.
            data = QJsonDocument(documents[key]).toJson();
        }

        // The old file goes first and the new one is written in place: there
        // is deliberately no temporary file and no rename.
        QFile::remove(path);
        QFile file(path);
        if (!file.open(QIODevice::ReadWrite)) {
            outcome = OpenFailed;
            error = file.errorString();
        } else {
            qint64 offset = 0;
            const qint64 size = data.size();
            while (offset < size) {
                const qint64 written = file.write(data.constData() + offset, size - offset);
                if (written <= 0) {
                    // A full disk or a size limit: give up rather than spin on the same bytes.
                    outcome = WriteFailed;
                    error = file.errorString();
                    break;
                }
                offset += written;
            }
            file.close();
        }
    }
    switch (outcome) {
    case Written:
        break;
    case OpenFailed:
        qCritical() << "Failed to opened :" << path << "errStr: " << error;
        break;
    case WriteFailed:
        qCritical() << "Failed to write :" << path << "errStr: " << error;
        break;
    }
}

QJsonValue ConfigurationManager::valWithXPath(const QJsonObject& object, QString path)
{
    if (path.isEmpty()) {
        return object;
    }
    // Walks the components in place rather than splitting the path into a
    // list: reads sit on settings paths that are called often. Empty
    // components are skipped, as a split that drops empty parts would.
    const QStringView whole(path);
    QJsonObject current = object;
    QStringView pending;
    int start = 0;
    while (start <= whole.size()) {
        int end = whole.indexOf(QLatin1Char('.'), start);
        if (end < 0) {
            end = whole.size();
        }
        const QStringView component = whole.mid(start, end - start);
        start = end + 1;
        if (component.isEmpty()) {
            continue;
        }
        if (!pending.isEmpty()) {
            const QJsonValue next = current.value(pending);
            if (!next.isObject()) {
                // A missing key and a non-object both interrupt the walk.
                return QJsonValue(QJsonValue::Null);
            }
            current = next.toObject();
        }
        pending = component;
    }
    if (pending.isEmpty()) {
        return QJsonValue(QJsonValue::Undefined);
    }
    return current.value(pending);
}

namespace {

// Sets the value at the end of the keys, making every missing or non-object
// step an empty object. While a child changes, its entry in the parent holds
// null, so that the child has a single owner and is changed in place instead
// of copied; it goes back into the same entry on the way up.
void setAlongKeys(QJsonObject& object, const QStringView* keys, int count, const QJsonValue& value)
{
    if (count == 1) {
        object.insert(keys[0], value);
        return;
    }
    QJsonValueRef entry = object[keys[0]];
    QJsonObject child = QJsonValue(entry).toObject();
    entry = QJsonValue();
    setAlongKeys(child, keys + 1, count - 1, value);
    entry = child;
}

} // namespace

void ConfigurationManager::setValWithXPath(QJsonObject& object, QString path, QJsonValue value)
{
    QVarLengthArray<QStringView, 8> keys;
    const QStringView whole(path);
    qsizetype start = 0;
    while (start <= whole.size()) {
        qsizetype end = whole.indexOf(QLatin1Char('.'), start);
        if (end < 0) {
            end = whole.size();
        }
        if (end > start) {
            keys.append(whole.mid(start, end - start));
        }
        start = end + 1;
    }
    if (!keys.isEmpty()) {
        setAlongKeys(object, keys.constData(), keys.size(), value);
    }
}

QJsonValue ConfigurationManager::setValWithXPath(QJsonObject& object, QStringList path, QJsonValue value)
{
    if (!path.isEmpty()) {
        QVarLengthArray<QStringView, 8> keys;
        for (const QString& key : qAsConst(path)) {
            keys.append(key);
        }
        setAlongKeys(object, keys.constData(), keys.size(), value);
    }
    return object;
}

QJsonValue ConfigurationManager::globalValue(const QString& path)
{
    const QString key = QStringLiteral("global");
    ensureLoaded(key);
    const std::lock_guard<std::mutex> lock(documentsLock);
    return detached(valWithXPath(documents[key], path));
}

QJsonValue ConfigurationManager::appConfig(const QString& path)
{
    return globalValue(path);
}

void ConfigurationManager::setGlobalValue(const QString& path, const QJsonValue& value)
{
    const QString key = QStringLiteral("global");
    const QJsonValue stored = detached(value);
    ensureLoaded(key);
    const std::lock_guard<std::mutex> lock(documentsLock);
    setValWithXPath(documents[key], path, stored);
}

void ConfigurationManager::setGlobalValue(const QStringList& path, const QJsonValue& value)
{
    const QString key = QStringLiteral("global");
    const QJsonValue stored = detached(value);
    ensureLoaded(key);
    const std::lock_guard<std::mutex> lock(documentsLock);
    setValWithXPath(documents[key], path, stored);
}

void ConfigurationManager::setAppConfig(const QString& path, const QJsonValue& value)
{
    setGlobalValue(path, value);
    saveGlobalValues();
    emit appConfigChanged(path);
}

QString ConfigurationManager::effectKey(QString name)
{
    name.replace(QLatin1Char('.'), QLatin1Char('_'));
    return QStringLiteral("effects/") + name;
}

QJsonValue ConfigurationManager::effectJsonValue(QString effectName, QString section, QString key)
{
    const QString documentKey = effectKey(effectName);
    ensureLoaded(documentKey);
    const std::lock_guard<std::mutex> lock(documentsLock);
    QJsonObject& document = documents[documentKey];
    // The non-const operator[] adds an absent section as null: reading
    // changes the cached document, and the defaults fallback relies on that.
    const QJsonValueRef sectionValue = document[section];
    if (!key.isEmpty()) {
        return detached(QJsonValue(sectionValue).toObject().value(key));
    }
    return detached(sectionValue);
}

QJsonValue ConfigurationManager::effectJsonValue(QString effectName, QString section, QString key, QString defaultFile)
{
    const QJsonValue value = effectJsonValue(effectName, section, key);
    if (!value.isNull() && !value.isUndefined()) {
        return value;
    }
    qInfo() << "Not found effect config object about" << effectName << section << key;
    const QJsonObject defaults = loadJsonObjectFromFile(defaultFile);
    setEffectJsonValue(effectName, section, QString(), defaults);
    if (defaults.isEmpty()) {
        qCritical() << "Failed to get config object from" << defaultFile;
        return QJsonValue(QJsonValue::Null);
    }
    qDebug() << "Succeeded to get config object from" << defaultFile;
    if (!key.isEmpty()) {
        return defaults.value(key);
    }
    return defaults;
}

QVariant ConfigurationManager::effectVariant(QString effectName, QString section, QString key)
{
    return effectJsonValue(effectName, section, key).toVariant();
}

void ConfigurationManager::setEffectJsonValue(QString effectName, QString section, QString key, const QJsonValue& value)
{
    const QString documentKey = effectKey(effectName);
    const QJsonValue stored = detached(value);
    ensureLoaded(documentKey);
    const std::lock_guard<std::mutex> lock(documentsLock);
    QJsonObject& document = documents[documentKey];
    if (key.isEmpty()) {
        document.insert(section, stored);
        return;
    }
    QJsonObject sectionObject = document.value(section).toObject();
    sectionObject.insert(key, stored);
    document.insert(section, sectionObject);
}

void ConfigurationManager::setEffectVariant(QString effectName, QString section, QString key, QVariant value)
{
    const QString documentKey = effectKey(effectName);
    const QJsonValue stored = detached(QJsonValue::fromVariant(value));
    ensureLoaded(documentKey);
    const std::lock_guard<std::mutex> lock(documentsLock);
    QJsonObject& document = documents[documentKey];
    QJsonObject sectionObject = document.value(section).toObject();
    sectionObject.insert(key, stored);
    document.insert(section, sectionObject);
}

void ConfigurationManager::generateControllerConfig(QString name, int height, int width, int bottom)
{
    // Summed in 64 bits: the total of three ints may not fit in one.
    const qint64 total = 2 * qint64(height) + width + bottom;
    if (total > maximumLedCount || total < std::numeric_limits<int>::min()) {
        qWarning() << "Failed to generate controller config" << name << ": LED count" << total << "is out of range";
        return;
    }
    const int count = int(total);
    qDebug() << name << " count:" << count << " height:" << height << " width:" << width;

    QJsonArray leds;
    QJsonArray zones;
    auto addZone = [&zones](int direction, qint64 start, qint64 stop) {
        QJsonObject zone;
        zone.insert(QStringLiteral("id"), zones.size());
        zone.insert(QStringLiteral("direction"), direction);
        zone.insert(QStringLiteral("start"), start);
        zone.insert(QStringLiteral("stop"), stop);
        zones.append(zone);
    };

    // One pass along the edges, clockwise with y growing downwards: up the
    // left edge, along the top, down the right edge, back along the bottom.
    // The last LED of each of the first three edges stops in place, so the
    // first LED of the next edge shares its cell.
    // Edge sums and zone bounds are formed in 64 bits: with a side far below
    // zero the other sides may be large while the total stays in range.
    const qint64 h = height;
    const qint64 w = width;
    int x = 0;
    int y = int(std::max<qint64>(h - 1, 0));
    for (int i = 1; i <= count; ++i) {
        QJsonObject led;
        led.insert(QStringLiteral("id"), i);
        led.insert(QStringLiteral("x"), x);
        led.insert(QStringLiteral("y"), y);

        int dx = 0;
        int dy = 0;
        if (i <= h && h != 1) {
            qDebug() << "<<L " << i;
            dy = -1;
            if (i == h) {
                addZone(1, 1, h);
                dy = 0;
            }
        } else if (i <= h + w) {
            qDebug() << "<<T " << i;
            dx = 1;
            if (h == 1 && i == w) {
                addZone(0, 1, w / 2);
                addZone(1, w / 2 + 1, w);
                dx = 0;
            } else if (i == h + w) {
                addZone(0, h + 1, h + w / 2);
                addZone(1, h - w / 2 + 1 + w, h + w);
                dx = 0;
            }
        } else if (i <= 2 * h + w) {
            qDebug() << "<<R " << i;
            dy = 1;
            if (i == 2 * h + w) {
                addZone(0, h + w + 1, 2 * h + w);
                dy = 0;
            }
        } else {
            dx = -1;
            if (i == count) {
                addZone(0, 2 * h + w + 1, w / 2 + 2 * h + w);
                addZone(1, w / 2 + 2 * h + w + 1, count);
            }
        }
        x += dx;
        y += dy;
        leds.append(led);
    }

    QJsonObject root;
    root.insert(QStringLiteral("key_array"), leds);
    root.insert(QStringLiteral("key_music"), zones);
    root.insert(QStringLiteral("key_len"), width);
    root.insert(QStringLiteral("key_wid"), height < 1 ? 1 : height);
    root.insert(QStringLiteral("key_num"), count);
    const QJsonDocument document(root);
    qDebug() << document.toJson();
    const QByteArray bytes = document.toJson(QJsonDocument::Indented);

    name.replace(QLatin1Char(':'), QLatin1Char('_'));
    const QString folder
        = QStandardPaths::writableLocation(QStandardPaths::AppLocalDataLocation) + QStringLiteral("/controler_config/");
    QDir dir(folder);
    if (!dir.exists()) {
        dir.mkpath(QStringLiteral("."));
    }
    QFile file(folder + name + QStringLiteral(".json"));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text)) {
        return;
    }
    QTextStream stream(&file);
    stream.setCodec("utf-8");
    stream << bytes;
    stream.flush();
    file.close();
}
