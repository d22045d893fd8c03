#pragma once

#include "ifaces/CaptureWorkerSetup.h"

namespace Orvanta {
namespace Posix {

/// Capture workers outside Windows need no apartment and have no input desktop.
class CaptureWorkerSetup : public Ifaces::CaptureWorkerSetup
{
public:
    bool hasApartment() const override;
    long enterApartment() override;
    void leaveApartment() override;
    std::uintptr_t openInputDesktop() override;
    void closeDesktop(std::uintptr_t desktop) override;
    long lastError() const override;
};

} // namespace Posix
} // namespace Orvanta
