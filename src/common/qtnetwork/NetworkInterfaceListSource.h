#pragma once

#include "ifaces/NetworkInterfaceSource.h"

namespace Orvanta {
namespace QtNetwork {

/// The interfaces that QNetworkInterface::allInterfaces() reports.
class NetworkInterfaceListSource final : public Ifaces::NetworkInterfaceSource
{
public:
    std::vector<Ifaces::NetworkInterfaceEntry> interfaces() const override;
};

} // namespace QtNetwork
} // namespace Orvanta
