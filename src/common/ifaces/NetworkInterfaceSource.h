#pragma once

#include <string>
#include <vector>

namespace Orvanta {
namespace Ifaces {

struct NetworkInterfaceEntry
{
    bool loopback = false;
    std::string hardwareAddress; ///< colon-separated hexadecimal, empty when it has none
};

/// The machine's network interfaces, in the system's order, up or not.
class NetworkInterfaceSource
{
public:
    virtual ~NetworkInterfaceSource() = default;

    virtual std::vector<NetworkInterfaceEntry> interfaces() const = 0;
};

} // namespace Ifaces
} // namespace Orvanta
