#pragma once

#include "DeskCaptureContext.h"

#include <QtCore/QJsonObject>
#include <QtCore/QString>

namespace Orvanta {

/**
 * How a display output is named to the application: the identifier
 * "<BaseId>-A<adapter>-O<output>", its display text and its metadata.
 */
namespace DeskCapturerId {

/// The device name behind its last backslash, trimmed; "OUTPUT" if that is empty.
QString baseId(const QString& deviceName);

/// "%1-A%2-O%3"; both numbers count from 0.
QString identifier(const QString& baseId, int adapterIndex, quint32 outputIndex);

/**
 * "DISPLAY1 1920x1080 (OUT1)" for a base that begins with DISPLAY in any
 * case, "1920x1080 (OUT1)" otherwise; the output number counts from 1.
 */
QString description(const QString& baseId, int width, int height, quint32 outputIndex);

/// The keys "id", "deviceName", "width", "height", "x", "y" and "desc".
QJsonObject metadata(const QString& id, const DeskCaptureContext& context);

} // namespace DeskCapturerId
} // namespace Orvanta
