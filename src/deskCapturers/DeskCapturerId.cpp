#include "DeskCapturerId.h"

namespace Orvanta {
namespace DeskCapturerId {

QString baseId(const QString& deviceName)
{
    const QString base = deviceName.mid(deviceName.lastIndexOf(QLatin1Char('\\')) + 1).trimmed();
    return base.isEmpty() ? QStringLiteral("OUTPUT") : base;
}

QString identifier(const QString& baseId, int adapterIndex, quint32 outputIndex)
{
    return QStringLiteral("%1-A%2-O%3").arg(baseId).arg(adapterIndex).arg(outputIndex);
}

QString description(const QString& baseId, int width, int height, quint32 outputIndex)
{
    const QString resolution = QStringLiteral("%1x%2").arg(width).arg(height);
    const qint64 outputNumber = qint64(outputIndex) + 1;
    if (baseId.startsWith(QLatin1String("DISPLAY"), Qt::CaseInsensitive))
        return QStringLiteral("%1 %2 (OUT%3)").arg(baseId, resolution).arg(outputNumber);
    return QStringLiteral("%1 (OUT%2)").arg(resolution).arg(outputNumber);
}

QJsonObject metadata(const QString& id, const DeskCaptureContext& context)
{
    return QJsonObject {
        {QStringLiteral("id"), id},
        {QStringLiteral("deviceName"), context.deviceName},
        {QStringLiteral("width"), context.width},
        {QStringLiteral("height"), context.height},
        {QStringLiteral("x"), context.position.left()},
        {QStringLiteral("y"), context.position.top()},
        {QStringLiteral("desc"), context.desc},
    };
}

} // namespace DeskCapturerId
} // namespace Orvanta
