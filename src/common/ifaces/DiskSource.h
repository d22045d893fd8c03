#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Orvanta {
namespace Ifaces {

/// Free and total bytes of one drive.
struct DiskSpace
{
    std::uint64_t free = 0;
    std::uint64_t total = 0;
};

/**
 * The machine's drives and their space.
 *
 * Drives are named as the disk line writes them (UTF-8): a drive letter with
 * its colon on Windows, the mount point elsewhere.
 */
class DiskSource
{
public:
    virtual ~DiskSource() = default;

    virtual std::vector<std::string> drives() const = 0;
    /// False when the drive cannot be asked, such as an empty card reader.
    virtual bool space(const std::string& drive, DiskSpace& space) const = 0;
};

} // namespace Ifaces

const Ifaces::DiskSource& platformDiskSource();

} // namespace Orvanta
