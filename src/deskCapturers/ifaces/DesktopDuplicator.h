#pragma once

#include "ifaces/GpuScaler.h"
#include "ifaces/OutputDuplication.h"

#include <memory>
#include <vector>

namespace Orvanta {
namespace Ifaces {

class DisplayAdapter;
class ConsentStore;
class DisplayOutput;
class GraphicsDevice;

/**
 * The platform behind a duplication capturer: one graphics adapter with its
 * device, and the output being duplicated.
 *
 * The capturer fetches the output anew before each duplication, because a mode
 * change or an unplugged monitor makes the old one stale. All results are in
 * the HRESULT convention, so the capturer's recovery rules run unchanged on
 * every platform.
 */
class DesktopDuplicator
{
public:
    virtual ~DesktopDuplicator() = default;

    /// Fetches output @p outputIndex of the adapter afresh (IDXGIAdapter::EnumOutputs);
    /// DXGI_ERROR_NOT_FOUND when it is gone.
    virtual long enumOutput(unsigned outputIndex) = 0;
    /// Asks the fetched output for the interface that duplicates (IDXGIOutput5).
    virtual long queryDuplicationOutput() = 0;
    /// Starts duplicating the fetched output with the device, letting the system
    /// choose among @p formats (DXGI_FORMAT numbers, in order of preference).
    virtual long duplicateOutput(const std::vector<int>& formats, std::unique_ptr<OutputDuplication>& duplication) = 0;
    /// The device's drawing context, for the resizer; null when the device has none.
    virtual std::shared_ptr<GpuScaler> deviceScaler() = 0;
    /// Where a platform on which the user picks what is captured keeps that
    /// consent per output; the others need none.
    virtual void keepConsentIn(std::shared_ptr<ConsentStore> store)
    {
        (void)store;
    }
};

/**
 * The duplicator of the platform the library was built for, on @p adapter's
 * outputs with @p device (which may be null: scaling then runs on the CPU).
 * A platform whose outputs can be found again by what they are rather than by
 * their index (a list that shifts when another output goes) fetches
 * @p output itself anew, and answers DXGI_ERROR_NOT_FOUND while it is gone.
 * Null when @p adapter is not one of this platform's.
 */
std::unique_ptr<DesktopDuplicator> createPlatformDesktopDuplicator(std::shared_ptr<DisplayAdapter> adapter,
    std::shared_ptr<GraphicsDevice> device, std::shared_ptr<DisplayOutput> output = nullptr);

} // namespace Ifaces
} // namespace Orvanta
