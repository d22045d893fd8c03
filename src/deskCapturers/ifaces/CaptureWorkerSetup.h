#pragma once

#include <cstdint>
#include <memory>

namespace Orvanta {
namespace Ifaces {

/**
 * What a capture worker thread sets up around its event loop: on Windows a
 * COM multithreaded apartment and a look at the input desktop. All calls come
 * from the worker thread itself.
 */
class CaptureWorkerSetup
{
public:
    virtual ~CaptureWorkerSetup() = default;

    /// False where the platform has no apartments and no input desktop; nothing else is called then.
    virtual bool hasApartment() const = 0;

    /// Enters the multithreaded apartment; the platform's result code.
    virtual long enterApartment() = 0;
    virtual void leaveApartment() = 0;

    /// Opens the desktop that receives input; 0 if it cannot be opened.
    virtual std::uintptr_t openInputDesktop() = 0;
    virtual void closeDesktop(std::uintptr_t desktop) = 0;

    /// The calling thread's last error code.
    virtual long lastError() const = 0;
};

/// The worker set-up of the platform the library was built for.
std::unique_ptr<CaptureWorkerSetup> createPlatformCaptureWorkerSetup();

} // namespace Ifaces
} // namespace Orvanta
