#include "win32/DriveSpaceSource.h"

#include "win32/Utf8.h"

#include <windows.h>

namespace Orvanta {
namespace Win32 {

std::vector<std::string> DriveSpaceSource::drives() const
{
    std::vector<std::string> result;
    const DWORD length = GetLogicalDriveStringsW(0, nullptr);
    if (length == 0) {
        return result;
    }
    std::wstring buffer(length, L'\0');
    const DWORD written = GetLogicalDriveStringsW(length, &buffer[0]);
    if (written == 0 || written >= length) {
        return result;
    }
    // "C:\", "D:\", ... each ended by a null; the root's separator goes, as
    // the disk line writes the drive without it.
    for (const wchar_t* entry = buffer.c_str(); *entry; entry += wcslen(entry) + 1) {
        std::wstring drive(entry);
        while (!drive.empty() && (drive.back() == L'\\' || drive.back() == L'/')) {
            drive.pop_back();
        }
        result.push_back(toUtf8(drive));
    }
    return result;
}

bool DriveSpaceSource::space(const std::string& drive, Ifaces::DiskSpace& space) const
{
    ULARGE_INTEGER freeToCaller = {};
    ULARGE_INTEGER total = {};
    ULARGE_INTEGER totalFree = {};
    // Keeps an empty card reader from raising the system's "insert a disk" box.
    const UINT previousMode = SetErrorMode(SEM_FAILCRITICALERRORS);
    const BOOL ok = GetDiskFreeSpaceExW(fromUtf8(drive).c_str(), &freeToCaller, &total, &totalFree);
    SetErrorMode(previousMode);
    if (!ok) {
        return false;
    }
    space.free = totalFree.QuadPart;
    space.total = total.QuadPart;
    return true;
}

} // namespace Win32

const Ifaces::DiskSource& platformDiskSource()
{
    static const Win32::DriveSpaceSource source;
    return source;
}

} // namespace Orvanta
