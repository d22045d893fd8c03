#pragma once

namespace Orvanta {

namespace Ifaces {
class MemorySource;
class DiskSource;
class ProcessorSource;
class GraphicsAdapterSource;
class ScreenSource;
class NetworkInterfaceSource;
} // namespace Ifaces

/// The sources that HardwareInfo asks. All pointers are non-null and outlive their use.
struct MachineSources
{
    const Ifaces::MemorySource* memory = nullptr;
    const Ifaces::DiskSource* disks = nullptr;
    const Ifaces::ProcessorSource* processor = nullptr;
    const Ifaces::GraphicsAdapterSource* graphicsAdapters = nullptr;
    const Ifaces::ScreenSource* screens = nullptr;
    const Ifaces::NetworkInterfaceSource* networkInterfaces = nullptr;
};

/// The platform's sources.
MachineSources platformMachineSources();

/// Replaces the sources HardwareInfo asks (for tests) and returns the previous set.
MachineSources setMachineSources(const MachineSources& sources);

/// Installs a set of sources for the life of a scope and then puts the previous set back.
class ScopedMachineSources
{
public:
    explicit ScopedMachineSources(const MachineSources& sources)
        : m_previous(setMachineSources(sources))
    {
    }
    ~ScopedMachineSources()
    {
        setMachineSources(m_previous);
    }
    ScopedMachineSources(const ScopedMachineSources&) = delete;
    ScopedMachineSources& operator=(const ScopedMachineSources&) = delete;

private:
    MachineSources m_previous;
};

} // namespace Orvanta
