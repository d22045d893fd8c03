#pragma once

#include "ifaces/MemorySource.h"

namespace Orvanta {
namespace Win32 {

/// Physical memory through GlobalMemoryStatusEx.
class GlobalMemorySource final : public Ifaces::MemorySource
{
public:
    Ifaces::PhysicalMemory physicalMemory() const override;
};

} // namespace Win32
} // namespace Orvanta
