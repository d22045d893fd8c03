#include "NetworkErrorMetaType.h"

#include <QtCore/QAtomicInt>

namespace Orvanta {

int registerNetworkErrorMetaType()
{
    static QBasicAtomicInt cachedId = Q_BASIC_ATOMIC_INITIALIZER(0);
    if (const int id = cachedId.loadAcquire()) {
        return id;
    }
    const int id = qRegisterMetaType<QNetworkReply::NetworkError>("QNetworkReply::NetworkError");
    cachedId.storeRelease(id);
    return id;
}

} // namespace Orvanta
