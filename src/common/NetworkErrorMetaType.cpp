#include "NetworkErrorMetaType.h"

#include <QtCore/QAtomicInt>
#include <QtCore/QMetaEnum>

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

QDebug operator<<(QDebug debug, QNetworkReply::NetworkError error)
{
    const QDebugStateSaver saver(debug);
    const char* name = QMetaEnum::fromType<QNetworkReply::NetworkError>().valueToKey(error);
    if (name) {
        debug.noquote() << name;
    } else {
        debug << static_cast<int>(error);
    }
    return debug;
}
