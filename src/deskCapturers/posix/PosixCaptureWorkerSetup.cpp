#include "PosixCaptureWorkerSetup.h"

#include "ResultCodes.h"

namespace Orvanta {

std::unique_ptr<Ifaces::CaptureWorkerSetup> Ifaces::createPlatformCaptureWorkerSetup()
{
    return std::make_unique<Posix::CaptureWorkerSetup>();
}

namespace Posix {

bool CaptureWorkerSetup::hasApartment() const
{
    return false;
}

long CaptureWorkerSetup::enterApartment()
{
    return S_FALSE;
}

void CaptureWorkerSetup::leaveApartment()
{
}

std::uintptr_t CaptureWorkerSetup::openInputDesktop()
{
    return 0;
}

void CaptureWorkerSetup::closeDesktop(std::uintptr_t)
{
}

long CaptureWorkerSetup::lastError() const
{
    return S_OK;
}

} // namespace Posix
} // namespace Orvanta
