#pragma once

#include <vector>

namespace Orvanta {
namespace Ifaces {

struct ScreenSize
{
    int width = 0;
    int height = 0;
};

/// The sizes of the screens, in the order of the system's screen list.
class ScreenSource
{
public:
    virtual ~ScreenSource() = default;

    /// Empty when there is no display.
    virtual std::vector<ScreenSize> screenSizes() const = 0;
};

} // namespace Ifaces
} // namespace Orvanta
