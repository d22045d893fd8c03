#pragma once

#include <array>
#include <string>

namespace Orvanta {
namespace Ifaces {

/// EAX, EBX, ECX, EDX as the CPUID instruction leaves them.
using CpuidRegisters = std::array<unsigned int, 4>;

/// The processor's name and identification.
class ProcessorSource
{
public:
    virtual ~ProcessorSource() = default;

    /// The processor's marketing name (UTF-8), as the system describes it; empty if unknown.
    virtual std::string processorName() const = 0;
    /**
     * Runs CPUID with @p leaf in EAX and 0 in ECX. False, with the registers
     * zeroed, on a processor that has no such instruction.
     */
    virtual bool cpuid(unsigned int leaf, CpuidRegisters& registers) const = 0;
};

} // namespace Ifaces

const Ifaces::ProcessorSource& platformProcessorSource();

} // namespace Orvanta
