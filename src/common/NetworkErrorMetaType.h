#pragma once

#include <QtNetwork/QNetworkReply>

namespace Orvanta {

/// Registers QNetworkReply::NetworkError under its qualified name once and
/// returns the meta-type id; later calls return the cached id.
int registerNetworkErrorMetaType();

} // namespace Orvanta
