#pragma once

#include <memory>
#include <string>

namespace Orvanta {
namespace Ifaces {

/// What the adapter list says about one graphics adapter.
struct GraphicsAdapterDescription
{
    std::string description; ///< UTF-8, possibly padded with blanks
    bool software = false; ///< a renderer without hardware of its own
};

/// One walk over the graphics adapters, as a DXGI factory offers it.
class GraphicsAdapterList
{
public:
    virtual ~GraphicsAdapterList() = default;

    /**
     * Describes the adapter at @p index: S_OK, DXGI_ERROR_NOT_FOUND past the
     * last one, or another failure code for an adapter that cannot be
     * described, after which the walk may go on.
     */
    virtual long describe(unsigned int index, GraphicsAdapterDescription& description) const = 0;
};

/// Opens walks over the graphics adapters.
class GraphicsAdapterSource
{
public:
    virtual ~GraphicsAdapterSource() = default;

    /// A fresh list, or null when the system offers none.
    virtual std::unique_ptr<GraphicsAdapterList> open() const = 0;
};

} // namespace Ifaces

const Ifaces::GraphicsAdapterSource& platformGraphicsAdapterSource();

} // namespace Orvanta
