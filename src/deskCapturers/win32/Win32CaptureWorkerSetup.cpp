#include "Win32CaptureWorkerSetup.h"

#include <objbase.h>
#include <windows.h>

namespace Orvanta {

std::unique_ptr<Ifaces::CaptureWorkerSetup> Ifaces::createPlatformCaptureWorkerSetup()
{
    return std::make_unique<Win32::CaptureWorkerSetup>();
}

namespace Win32 {

bool CaptureWorkerSetup::hasApartment() const
{
    return true;
}

long CaptureWorkerSetup::enterApartment()
{
    // 0 is COINIT_MULTITHREADED.
    return CoInitializeEx(nullptr, 0);
}

void CaptureWorkerSetup::leaveApartment()
{
    CoUninitialize();
}

std::uintptr_t CaptureWorkerSetup::openInputDesktop()
{
    return reinterpret_cast<std::uintptr_t>(OpenInputDesktop(0, FALSE, GENERIC_ALL));
}

void CaptureWorkerSetup::closeDesktop(std::uintptr_t desktop)
{
    CloseDesktop(reinterpret_cast<HDESK>(desktop));
}

long CaptureWorkerSetup::lastError() const
{
    return long(GetLastError());
}

} // namespace Win32
} // namespace Orvanta
