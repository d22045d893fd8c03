// Dotted-path access on an arbitrary JSON object: the input's first line is
// the path, the rest the document. Reading must never crash; a value written
// through a path with at least one key must read back through the same path.

#include "ConfigurationManager.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QJsonValue>
#include <QtCore/QString>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArray input(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const int split = input.indexOf('\n');
    const QString path = QString::fromUtf8(split < 0 ? input : input.left(split));
    QJsonObject object = QJsonDocument::fromJson(split < 0 ? QByteArray() : input.mid(split + 1)).object();

    ConfigurationManager::valWithXPath(object, path);

    if (path.split(QLatin1Char('.'), Qt::SkipEmptyParts).isEmpty()) {
        return 0;
    }
    const QJsonValue written(QStringLiteral("fuzz"));
    ConfigurationManager::setValWithXPath(object, path, written);
    if (ConfigurationManager::valWithXPath(object, path) != written) {
        __builtin_trap();
    }
    // The list form takes each element as one key, dots included.
    const QStringList keys = path.split(QLatin1Char('/'));
    const QJsonValue result = ConfigurationManager::setValWithXPath(object, keys, QJsonValue(42));
    if (!result.isObject()) {
        __builtin_trap();
    }
    return 0;
}
