#pragma once

#include <cstdint>

namespace Orvanta {
namespace Ifaces {

/// Physical memory of the machine, in bytes.
struct PhysicalMemory
{
    std::uint64_t available = 0;
    std::uint64_t total = 0;
};

/**
 * Where the machine's physical memory figures come from.
 *
 * A source that cannot read them answers zeros: the memory line keeps its
 * form either way.
 */
class MemorySource
{
public:
    virtual ~MemorySource() = default;

    virtual PhysicalMemory physicalMemory() const = 0;
};

} // namespace Ifaces

/// The platform's source, chosen at build time. It lives as long as the process.
const Ifaces::MemorySource& platformMemorySource();

} // namespace Orvanta
