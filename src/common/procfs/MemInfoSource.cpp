#include "procfs/MemInfoSource.h"

#include <fstream>
#include <sstream>

namespace Orvanta {
namespace Procfs {

MemInfoSource::MemInfoSource(std::string path)
    : m_path(std::move(path))
{
}

Ifaces::PhysicalMemory MemInfoSource::physicalMemory() const
{
    Ifaces::PhysicalMemory memory;
    std::ifstream file(m_path);
    std::string line;
    while (std::getline(file, line)) {
        std::istringstream fields(line);
        std::string key;
        std::uint64_t kibibytes = 0;
        if (!(fields >> key >> kibibytes)) {
            continue;
        }
        // The kernel writes every figure in kibibytes, whatever the unit column says.
        if (key == "MemTotal:") {
            memory.total = kibibytes * 1024u;
        } else if (key == "MemAvailable:") {
            memory.available = kibibytes * 1024u;
        }
    }
    return memory;
}

} // namespace Procfs

const Ifaces::MemorySource& platformMemorySource()
{
    static const Procfs::MemInfoSource source;
    return source;
}

} // namespace Orvanta
