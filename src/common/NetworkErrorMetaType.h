#pragma once

#include <QtCore/QDebug>
#include <QtNetwork/QNetworkReply>

namespace Orvanta {

/// Registers QNetworkReply::NetworkError under its qualified name once and
/// returns the meta-type id; later calls return the cached id.
int registerNetworkErrorMetaType();

} // namespace Orvanta

/// Prints a network error by its enumerator name, for example "HostNotFoundError".
QDebug operator<<(QDebug debug, QNetworkReply::NetworkError error);
