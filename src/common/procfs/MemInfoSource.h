#pragma once

#include "ifaces/MemorySource.h"

#include <string>

namespace Orvanta {
namespace Procfs {

/// Physical memory from the kernel's /proc/meminfo: MemAvailable and MemTotal.
class MemInfoSource final : public Ifaces::MemorySource
{
public:
    explicit MemInfoSource(std::string path = "/proc/meminfo");

    Ifaces::PhysicalMemory physicalMemory() const override;

private:
    std::string m_path;
};

} // namespace Procfs
} // namespace Orvanta
