#pragma once

#include "HardwareInfo_p.h"
#include "ResultCodes.h"
#include "ifaces/DiskSource.h"
#include "ifaces/GraphicsAdapterSource.h"
#include "ifaces/MemorySource.h"
#include "ifaces/NetworkInterfaceSource.h"
#include "ifaces/ProcessorSource.h"
#include "ifaces/ScreenSource.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Fakes {

/// Scripted machine facts: every source answers what its public fields say.
class FakeMemorySource : public Orvanta::Ifaces::MemorySource
{
public:
    Orvanta::Ifaces::PhysicalMemory memory;
    Orvanta::Ifaces::PhysicalMemory physicalMemory() const override
    {
        return memory;
    }
};

class FakeDiskSource : public Orvanta::Ifaces::DiskSource
{
public:
    std::vector<std::string> driveList;
    std::map<std::string, Orvanta::Ifaces::DiskSpace> spaces; ///< a drive without an entry fails
    mutable std::vector<std::string> asked;

    std::vector<std::string> drives() const override
    {
        return driveList;
    }
    bool space(const std::string& drive, Orvanta::Ifaces::DiskSpace& space) const override
    {
        asked.push_back(drive);
        const auto found = spaces.find(drive);
        if (found == spaces.end()) {
            return false;
        }
        space = found->second;
        return true;
    }
};

class FakeProcessorSource : public Orvanta::Ifaces::ProcessorSource
{
public:
    std::string name;
    bool hasCpuid = true;
    Orvanta::Ifaces::CpuidRegisters registers = {};
    mutable std::vector<unsigned int> leaves;

    std::string processorName() const override
    {
        return name;
    }
    bool cpuid(unsigned int leaf, Orvanta::Ifaces::CpuidRegisters& out) const override
    {
        leaves.push_back(leaf);
        out = hasCpuid ? registers : Orvanta::Ifaces::CpuidRegisters {};
        return hasCpuid;
    }
};

/// One scripted answer per index; indexes past the script give `pastEnd`.
class FakeGraphicsAdapterSource : public Orvanta::Ifaces::GraphicsAdapterSource
{
public:
    struct Slot
    {
        long code = S_OK;
        Orvanta::Ifaces::GraphicsAdapterDescription description;
    };
    bool hasFactory = true;
    std::vector<Slot> script;
    long pastEnd = DXGI_ERROR_NOT_FOUND;
    mutable unsigned int describeCalls = 0;

    std::unique_ptr<Orvanta::Ifaces::GraphicsAdapterList> open() const override
    {
        if (!hasFactory) {
            return nullptr;
        }
        return std::make_unique<List>(this);
    }

private:
    class List : public Orvanta::Ifaces::GraphicsAdapterList
    {
    public:
        explicit List(const FakeGraphicsAdapterSource* source)
            : m_source(source)
        {
        }
        long describe(unsigned int index, Orvanta::Ifaces::GraphicsAdapterDescription& description) const override
        {
            ++m_source->describeCalls;
            if (index >= m_source->script.size()) {
                return m_source->pastEnd;
            }
            const Slot& slot = m_source->script[index];
            if (slot.code >= 0) {
                description = slot.description;
            }
            return slot.code;
        }

    private:
        const FakeGraphicsAdapterSource* m_source;
    };
};

class FakeScreenSource : public Orvanta::Ifaces::ScreenSource
{
public:
    std::vector<Orvanta::Ifaces::ScreenSize> sizes;
    std::vector<Orvanta::Ifaces::ScreenSize> screenSizes() const override
    {
        return sizes;
    }
};

class FakeNetworkInterfaceSource : public Orvanta::Ifaces::NetworkInterfaceSource
{
public:
    std::vector<Orvanta::Ifaces::NetworkInterfaceEntry> entries;
    std::vector<Orvanta::Ifaces::NetworkInterfaceEntry> interfaces() const override
    {
        return entries;
    }
};

/// A complete set of fakes, installed for the life of the object.
struct FakeMachine
{
    FakeMemorySource memory;
    FakeDiskSource disks;
    FakeProcessorSource processor;
    FakeGraphicsAdapterSource graphicsAdapters;
    FakeScreenSource screens;
    FakeNetworkInterfaceSource networkInterfaces;

    Orvanta::MachineSources sources() const
    {
        Orvanta::MachineSources set;
        set.memory = &memory;
        set.disks = &disks;
        set.processor = &processor;
        set.graphicsAdapters = &graphicsAdapters;
        set.screens = &screens;
        set.networkInterfaces = &networkInterfaces;
        return set;
    }
};

/// Installs a FakeMachine's sources for a scope.
class ScopedFakeMachine
{
public:
    explicit ScopedFakeMachine(const FakeMachine& machine)
        : m_scope(machine.sources())
    {
    }

private:
    Orvanta::ScopedMachineSources m_scope;
};

} // namespace Fakes
