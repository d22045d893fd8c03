#include "procfs/CpuInfoProcessorSource.h"

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

#include <fstream>

namespace Orvanta {
namespace Procfs {

CpuInfoProcessorSource::CpuInfoProcessorSource(std::string path)
    : m_path(std::move(path))
{
}

std::string CpuInfoProcessorSource::processorName() const
{
    std::ifstream file(m_path);
    std::string line;
    while (std::getline(file, line)) {
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos) {
            continue;
        }
        std::string key = line.substr(0, colon);
        key.erase(key.find_last_not_of(" \t") + 1);
        if (key != "model name") {
            continue;
        }
        // Only the separator's blank goes: the name itself stays untrimmed,
        // as the registry hands it out on Windows.
        std::string value = line.substr(colon + 1);
        if (!value.empty() && value.front() == ' ') {
            value.erase(0, 1);
        }
        return value;
    }
    return {};
}

bool CpuInfoProcessorSource::cpuid(unsigned int leaf, Ifaces::CpuidRegisters& registers) const
{
    registers = {};
#if defined(__x86_64__) || defined(__i386__)
    __cpuid_count(leaf, 0, registers[0], registers[1], registers[2], registers[3]);
    return true;
#else
    (void)leaf;
    return false;
#endif
}

} // namespace Procfs

const Ifaces::ProcessorSource& platformProcessorSource()
{
    static const Procfs::CpuInfoProcessorSource source;
    return source;
}

} // namespace Orvanta
