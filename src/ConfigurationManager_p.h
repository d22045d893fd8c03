#pragma once

#include <QtCore/QString>

namespace Orvanta {

/**
 * Reads an index written as "[n]" anywhere in a path component into
 * *index. Returns false, leaving *index alone, when there is none.
 *
 * The path grammar of ConfigurationManager gives brackets no meaning; this is
 * a utility for callers that store arrays under such keys.
 */
bool parseArrayIndex(const QString& component, int* index);

} // namespace Orvanta
