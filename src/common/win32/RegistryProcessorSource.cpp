#include "win32/RegistryProcessorSource.h"

#include "win32/Utf8.h"

#include <windows.h>

#if defined(_MSC_VER)
#include <intrin.h>
#else
#include <cpuid.h>
#endif

namespace Orvanta {
namespace Win32 {

std::string RegistryProcessorSource::processorName() const
{
    const wchar_t* const key = L"HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0";
    DWORD size = 0;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, key, L"ProcessorNameString", RRF_RT_REG_SZ, nullptr, nullptr, &size)
            != ERROR_SUCCESS
        || size == 0) {
        return {};
    }
    std::wstring name(size / sizeof(wchar_t), L'\0');
    if (RegGetValueW(HKEY_LOCAL_MACHINE, key, L"ProcessorNameString", RRF_RT_REG_SZ, nullptr, &name[0], &size)
        != ERROR_SUCCESS) {
        return {};
    }
    name.resize(wcsnlen(name.c_str(), name.size()));
    return toUtf8(name);
}

bool RegistryProcessorSource::cpuid(unsigned int leaf, Ifaces::CpuidRegisters& registers) const
{
    registers = {};
#if defined(_MSC_VER)
    int values[4] = {};
    __cpuidex(values, static_cast<int>(leaf), 0);
    for (int i = 0; i < 4; ++i) {
        registers[i] = static_cast<unsigned int>(values[i]);
    }
#else
    __cpuid_count(leaf, 0, registers[0], registers[1], registers[2], registers[3]);
#endif
    return true;
}

} // namespace Win32

const Ifaces::ProcessorSource& platformProcessorSource()
{
    static const Win32::RegistryProcessorSource source;
    return source;
}

} // namespace Orvanta
