#include "qtnetwork/NetworkInterfaceListSource.h"

#include <QtNetwork/QNetworkInterface>

namespace Orvanta {
namespace QtNetwork {

std::vector<Ifaces::NetworkInterfaceEntry> NetworkInterfaceListSource::interfaces() const
{
    std::vector<Ifaces::NetworkInterfaceEntry> entries;
    const QList<QNetworkInterface> all = QNetworkInterface::allInterfaces();
    for (const QNetworkInterface& networkInterface : all) {
        entries.push_back({networkInterface.flags().testFlag(QNetworkInterface::IsLoopBack),
            networkInterface.hardwareAddress().toStdString()});
    }
    return entries;
}

} // namespace QtNetwork
} // namespace Orvanta
