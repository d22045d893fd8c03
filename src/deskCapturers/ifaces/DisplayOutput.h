#pragma once

#include <cstdint>
#include <string>

namespace Orvanta {
namespace Ifaces {

/// Display rotation, in the values of DXGI_MODE_ROTATION.
enum class OutputRotation : int {
    Unspecified = 0,
    Identity = 1,
    Rotate90 = 2,
    Rotate180 = 3,
    Rotate270 = 4,
};

/// What a display output says about itself at the moment it is asked.
struct OutputDescription
{
    /// The platform's name of the output, whole (such as \\.\DISPLAY1).
    std::wstring deviceName;
    /// The output on the virtual desktop; right and bottom are exclusive.
    long left = 0;
    long top = 0;
    long right = 0;
    long bottom = 0;
    /// A pointer-sized value that names the output's monitor to the platform.
    std::uintptr_t monitor = 0;
    OutputRotation rotation = OutputRotation::Unspecified;
};

/// One display output of an adapter.
class DisplayOutput
{
public:
    virtual ~DisplayOutput() = default;

    /// Fills @p description with the output's current state; negative on failure.
    virtual long describe(OutputDescription& description) const = 0;
};

} // namespace Ifaces
} // namespace Orvanta
