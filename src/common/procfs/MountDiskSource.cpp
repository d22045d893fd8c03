#include "procfs/MountDiskSource.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>

namespace Orvanta {
namespace Procfs {

namespace {

std::set<std::string> blockFileSystemTypes(const std::string& path)
{
    std::set<std::string> types;
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        std::istringstream fields(line);
        std::string first;
        std::string second;
        fields >> first >> second;
        if (!first.empty() && second.empty()) {
            types.insert(first);
        }
    }
    return types;
}

// The mounts table escapes blanks, tabs, line feeds and backslashes as octal.
std::string unescapeMountField(const std::string& field)
{
    std::string text;
    for (std::size_t i = 0; i < field.size(); ++i) {
        const bool octal = field[i] == '\\' && i + 3 < field.size()
            && std::all_of(field.begin() + i + 1, field.begin() + i + 4, [](char c) { return c >= '0' && c <= '7'; });
        if (octal) {
            text += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0'));
            i += 3;
        } else {
            text += field[i];
        }
    }
    return text;
}

} // namespace

MountDiskSource::MountDiskSource(std::string mountsPath, std::string filesystemsPath)
    : m_mountsPath(std::move(mountsPath))
    , m_filesystemsPath(std::move(filesystemsPath))
{
}

std::vector<std::string> MountDiskSource::drives() const
{
    const std::set<std::string> realTypes = blockFileSystemTypes(m_filesystemsPath);
    std::vector<std::string> points;
    std::ifstream file(m_mountsPath);
    std::string line;
    while (std::getline(file, line)) {
        std::istringstream fields(line);
        std::string device;
        std::string point;
        std::string type;
        if (!(fields >> device >> point >> type) || realTypes.count(type) == 0) {
            continue;
        }
        point = unescapeMountField(point);
        if (std::find(points.begin(), points.end(), point) == points.end()) {
            points.push_back(point);
        }
    }
    return points;
}

bool MountDiskSource::space(const std::string& drive, Ifaces::DiskSpace& space) const
{
    struct statvfs info = {};
    if (::statvfs(drive.c_str(), &info) != 0) {
        return false;
    }
    // All free blocks, those reserved for root included: the disk's own
    // count of free bytes, not the caller's share of it.
    space.free = static_cast<std::uint64_t>(info.f_bfree) * info.f_frsize;
    space.total = static_cast<std::uint64_t>(info.f_blocks) * info.f_frsize;
    return true;
}

} // namespace Procfs

const Ifaces::DiskSource& platformDiskSource()
{
    static const Procfs::MountDiskSource source;
    return source;
}

} // namespace Orvanta
