#pragma once

#include <memory>
#include <string>

namespace Orvanta {
namespace Ifaces {

class DisplayOutput;
class GraphicsDevice;

/// A graphics adapter and the outputs it drives.
class DisplayAdapter
{
public:
    virtual ~DisplayAdapter() = default;

    /// The adapter's display name.
    virtual std::wstring description() const = 0;

    /**
     * The output at @p index, counted from 0 in a stable order.
     * DXGI_ERROR_NOT_FOUND past the last one.
     */
    virtual long enumOutput(unsigned int index, std::shared_ptr<DisplayOutput>& output) = 0;

    /// Makes a GPU device for @p output alone; negative on failure.
    virtual long createDevice(const std::shared_ptr<DisplayOutput>& output, std::shared_ptr<GraphicsDevice>& device)
        = 0;
};

} // namespace Ifaces
} // namespace Orvanta
