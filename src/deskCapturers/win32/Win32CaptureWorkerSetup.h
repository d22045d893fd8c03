#pragma once

#include "ifaces/CaptureWorkerSetup.h"

namespace Orvanta {
namespace Win32 {

/// A capture worker in the COM multithreaded apartment, looking at the input desktop.
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

} // namespace Win32
} // namespace Orvanta
