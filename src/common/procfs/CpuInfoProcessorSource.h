#pragma once

#include "ifaces/ProcessorSource.h"

namespace Orvanta {
namespace Procfs {

/**
 * The processor's name from the kernel's /proc/cpuinfo ("model name" of the
 * first processor), and CPUID through the compiler's intrinsic on x86.
 */
class CpuInfoProcessorSource final : public Ifaces::ProcessorSource
{
public:
    explicit CpuInfoProcessorSource(std::string path = "/proc/cpuinfo");

    std::string processorName() const override;
    bool cpuid(unsigned int leaf, Ifaces::CpuidRegisters& registers) const override;

private:
    std::string m_path;
};

} // namespace Procfs
} // namespace Orvanta
