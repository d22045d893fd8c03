#pragma once

// The stream format record that every audio adapter fills and that the
// sample conversion reads. On Windows it is the system's own
// WAVEFORMATEXTENSIBLE, handed through untouched; elsewhere a record with the
// same fields, so that the format mapping runs unchanged on every platform.

#include <cstdint>

#ifdef _WIN32
// mmreg.h needs the base types of windows.h first.
#include <windows.h>

#include <mmreg.h>
#else
namespace Orvanta {
namespace Ifaces {

struct Guid
{
    std::uint32_t Data1;
    std::uint16_t Data2;
    std::uint16_t Data3;
    std::uint8_t Data4[8];
};

struct WaveFormatEx
{
    std::uint16_t wFormatTag;
    std::uint16_t nChannels;
    std::uint32_t nSamplesPerSec;
    std::uint32_t nAvgBytesPerSec;
    std::uint16_t nBlockAlign;
    std::uint16_t wBitsPerSample;
    std::uint16_t cbSize;
};

struct WaveFormatExtensible
{
    WaveFormatEx Format;
    union {
        std::uint16_t wValidBitsPerSample;
        std::uint16_t wSamplesPerBlock;
        std::uint16_t wReserved;
    } Samples;
    std::uint32_t dwChannelMask;
    Guid SubFormat;
};

} // namespace Ifaces
} // namespace Orvanta
#endif

namespace Orvanta {
namespace Ifaces {

#ifdef _WIN32
using Guid = ::GUID;
using WaveFormatEx = ::WAVEFORMATEX;
using WaveFormatExtensible = ::WAVEFORMATEXTENSIBLE;
#endif

namespace WaveFormatTag {
constexpr std::uint16_t Pcm = 1;
constexpr std::uint16_t IeeeFloat = 3;
constexpr std::uint16_t Extensible = 65534;
} // namespace WaveFormatTag

/// {00000001-0000-0010-8000-00AA00389B71}: integer samples in an extensible format.
constexpr Guid subFormatPcm()
{
    return Guid {0x00000001u, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};
}

/// {00000003-0000-0010-8000-00AA00389B71}: IEEE float samples in an extensible format.
constexpr Guid subFormatIeeeFloat()
{
    return Guid {0x00000003u, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};
}

constexpr bool sameGuid(const Guid& a, const Guid& b)
{
    if (a.Data1 != b.Data1 || a.Data2 != b.Data2 || a.Data3 != b.Data3)
        return false;
    for (int i = 0; i < 8; ++i) {
        if (a.Data4[i] != b.Data4[i])
            return false;
    }
    return true;
}

} // namespace Ifaces
} // namespace Orvanta
