#include "win32/GlobalMemorySource.h"

#include <windows.h>

namespace Orvanta {
namespace Win32 {

Ifaces::PhysicalMemory GlobalMemorySource::physicalMemory() const
{
    MEMORYSTATUSEX status = {};
    status.dwLength = sizeof(status);
    // On failure the structure stays zeroed, which the memory line shows as 0.00.
    GlobalMemoryStatusEx(&status);
    Ifaces::PhysicalMemory memory;
    memory.available = status.ullAvailPhys;
    memory.total = status.ullTotalPhys;
    return memory;
}

} // namespace Win32

const Ifaces::MemorySource& platformMemorySource()
{
    static const Win32::GlobalMemorySource source;
    return source;
}

} // namespace Orvanta
