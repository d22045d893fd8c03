#pragma once

#include "ifaces/DiskSource.h"

namespace Orvanta {
namespace Procfs {

/**
 * Drives as the mount points of the file systems that live on a block
 * device, in mount order, each point once.
 *
 * A file system type counts as real when /proc/filesystems does not mark it
 * "nodev"; that leaves out proc, tmpfs, cgroup, overlays and the like.
 */
class MountDiskSource final : public Ifaces::DiskSource
{
public:
    explicit MountDiskSource(
        std::string mountsPath = "/proc/self/mounts", std::string filesystemsPath = "/proc/filesystems");

    std::vector<std::string> drives() const override;
    bool space(const std::string& drive, Ifaces::DiskSpace& space) const override;

private:
    std::string m_mountsPath;
    std::string m_filesystemsPath;
};

} // namespace Procfs
} // namespace Orvanta
