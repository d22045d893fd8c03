// The machine-fact adapters through Wine: memory, drives and their space,
// the processor's name and CPUID, and the graphics adapter list.

#include "dxgi/DxgiAdapterSource.h"
#include "ifaces/DiskSource.h"
#include "ifaces/GraphicsAdapterSource.h"
#include "ifaces/MemorySource.h"
#include "ifaces/ProcessorSource.h"
#include "win32/DriveSpaceSource.h"
#include "win32/GlobalMemorySource.h"
#include "win32/RegistryProcessorSource.h"
#include "win32/Utf8.h"
#include "win32/WindowsSdkCompat.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

using namespace Orvanta;

TEST(MachineFacts, PlatformSourcesAreTheWindowsOnes)
{
    EXPECT_NE(dynamic_cast<const Win32::GlobalMemorySource*>(&platformMemorySource()), nullptr);
    EXPECT_NE(dynamic_cast<const Win32::DriveSpaceSource*>(&platformDiskSource()), nullptr);
    EXPECT_NE(dynamic_cast<const Win32::RegistryProcessorSource*>(&platformProcessorSource()), nullptr);
    EXPECT_NE(dynamic_cast<const Dxgi::DxgiAdapterSource*>(&platformGraphicsAdapterSource()), nullptr);
}

TEST(MachineFacts, PhysicalMemoryMatchesGlobalMemoryStatusEx)
{
    const Ifaces::PhysicalMemory memory = platformMemorySource().physicalMemory();
    MEMORYSTATUSEX status = {};
    status.dwLength = sizeof(status);
    ASSERT_TRUE(GlobalMemoryStatusEx(&status));
    EXPECT_EQ(memory.total, status.ullTotalPhys);
    EXPECT_GT(memory.total, 0u);
    EXPECT_GT(memory.available, 0u);
    EXPECT_LE(memory.available, memory.total);
}

TEST(MachineFacts, DrivesIncludeTheSystemDriveWithItsSpace)
{
    const auto& disks = platformDiskSource();
    const std::vector<std::string> drives = disks.drives();
    ASSERT_FALSE(drives.empty());
    // Wine's prefix has C: for drive_c and Z: for the root of the file system.
    EXPECT_NE(std::find(drives.begin(), drives.end(), "C:"), drives.end());
    for (const std::string& drive : drives) {
        EXPECT_EQ(drive.size(), 2u) << drive;
        EXPECT_EQ(drive[1], ':') << drive;
    }
    Ifaces::DiskSpace space;
    ASSERT_TRUE(disks.space("C:", space));
    EXPECT_GT(space.total, 0u);
    EXPECT_LE(space.free, space.total);

    ULARGE_INTEGER freeToCaller, total, totalFree;
    ASSERT_TRUE(GetDiskFreeSpaceExW(L"C:\\", &freeToCaller, &total, &totalFree));
    EXPECT_EQ(space.total, total.QuadPart);
}

TEST(MachineFacts, MissingDriveHasNoSpace)
{
    Ifaces::DiskSpace space;
    // No prefix maps a drive to Q: unless asked to.
    EXPECT_FALSE(platformDiskSource().space("Q:", space));
}

TEST(MachineFacts, CpuidGivesTheVendorAndTheBrandString)
{
    const auto& processor = platformProcessorSource();
    Ifaces::CpuidRegisters registers {};
    ASSERT_TRUE(processor.cpuid(0, registers));
    EXPECT_GE(registers[0], 1u);
    char vendor[13] = {};
    std::memcpy(vendor, &registers[1], 4);
    std::memcpy(vendor + 4, &registers[3], 4);
    std::memcpy(vendor + 8, &registers[2], 4);
    const std::string vendorText = vendor;
    EXPECT_TRUE(vendorText == "GenuineIntel" || vendorText == "AuthenticAMD") << vendorText;

    Ifaces::CpuidRegisters extended {};
    ASSERT_TRUE(processor.cpuid(0x80000000u, extended));
    EXPECT_GE(extended[0], 0x80000004u);
}

TEST(MachineFacts, ProcessorNameComesFromTheRegistry)
{
    const std::string name = platformProcessorSource().processorName();
    EXPECT_FALSE(name.empty());
}

TEST(MachineFacts, GraphicsAdaptersAreListedUntilNotFound)
{
    const std::unique_ptr<Ifaces::GraphicsAdapterList> list = platformGraphicsAdapterSource().open();
    ASSERT_TRUE(list);
    Ifaces::GraphicsAdapterDescription description;
    ASSERT_EQ(list->describe(0, description), S_OK);
    EXPECT_FALSE(description.description.empty());
    unsigned index = 1;
    while (list->describe(index, description) == S_OK) {
        ++index;
        ASSERT_LT(index, 16u);
    }
    EXPECT_EQ(list->describe(index, description), DXGI_ERROR_NOT_FOUND);
}

TEST(MachineFacts, Utf8RoundTrip)
{
    const std::wstring text = L"Gr\u00E4fik \u2013 \u6F22\u5B57 \U0001F600";
    const std::string utf8 = Win32::toUtf8(text);
    EXPECT_EQ(utf8,
        "Gr\xC3\xA4"
        "fik \xE2\x80\x93 \xE6\xBC\xA2\xE5\xAD\x97 \xF0\x9F\x98\x80");
    EXPECT_EQ(Win32::fromUtf8(utf8), text);
    EXPECT_EQ(Win32::toUtf8(std::wstring()), std::string());
}
