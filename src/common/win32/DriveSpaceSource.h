#pragma once

#include "ifaces/DiskSource.h"

namespace Orvanta {
namespace Win32 {

/// The logical drives ("C:") and their space through GetDiskFreeSpaceExW.
class DriveSpaceSource final : public Ifaces::DiskSource
{
public:
    std::vector<std::string> drives() const override;
    bool space(const std::string& drive, Ifaces::DiskSpace& space) const override;
};

} // namespace Win32
} // namespace Orvanta
