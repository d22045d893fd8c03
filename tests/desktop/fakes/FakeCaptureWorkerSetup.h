#pragma once

#include "ifaces/CaptureWorkerSetup.h"

#include <atomic>

namespace Fakes {

/// A worker set-up with an apartment, as on Windows, scripted by the test.
class FakeCaptureWorkerSetup : public Orvanta::Ifaces::CaptureWorkerSetup
{
public:
    struct Record
    {
        std::atomic<int> entered {0};
        std::atomic<int> left {0};
        std::atomic<int> closed {0};
    };

    FakeCaptureWorkerSetup(Record& record, long enterResult, std::uintptr_t desktop, long error)
        : record(record)
        , enterResult(enterResult)
        , desktop(desktop)
        , error(error)
    {
    }

    bool hasApartment() const override
    {
        return true;
    }

    long enterApartment() override
    {
        ++record.entered;
        return enterResult;
    }

    void leaveApartment() override
    {
        ++record.left;
    }

    std::uintptr_t openInputDesktop() override
    {
        return desktop;
    }

    void closeDesktop(std::uintptr_t) override
    {
        ++record.closed;
    }

    long lastError() const override
    {
        return error;
    }

    Record& record;
    long enterResult;
    std::uintptr_t desktop;
    long error;
};

} // namespace Fakes
