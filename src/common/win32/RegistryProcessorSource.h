#pragma once

#include "ifaces/ProcessorSource.h"

namespace Orvanta {
namespace Win32 {

/**
 * The processor's name from the registry's description of processor 0, and
 * CPUID through the compiler's intrinsic.
 */
class RegistryProcessorSource final : public Ifaces::ProcessorSource
{
public:
    std::string processorName() const override;
    bool cpuid(unsigned int leaf, Ifaces::CpuidRegisters& registers) const override;
};

} // namespace Win32
} // namespace Orvanta
