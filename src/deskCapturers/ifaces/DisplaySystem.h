#pragma once

#include <memory>

namespace Orvanta {
namespace Ifaces {

class DisplayAdapter;

/**
 * The entry to the platform's display outputs: what the registry enumerates.
 *
 * The calls come in a fixed order: hasAdministratorRights(), open(), then
 * enumAdapter() for 0, 1, 2, ... until DXGI_ERROR_NOT_FOUND.
 */
class DisplaySystem
{
public:
    virtual ~DisplaySystem() = default;

    /**
     * Whether the process may capture every desktop. Platforms without such a
     * notion answer true, so that no warning is logged there.
     */
    virtual bool hasAdministratorRights() const = 0;

    /// Connects to the platform's display service; negative on failure.
    virtual long open() = 0;

    /// The adapter at @p index; DXGI_ERROR_NOT_FOUND past the last one.
    virtual long enumAdapter(unsigned int index, std::shared_ptr<DisplayAdapter>& adapter) = 0;

    /**
     * Whether an output is usable without a GPU device of its own. Where it
     * is, an output whose device cannot be made still gets its row, so that
     * the blit back-end can capture it.
     */
    virtual bool devicesOptional() const = 0;
};

/// The display system of the platform the library was built for.
std::shared_ptr<DisplaySystem> createPlatformDisplaySystem();

} // namespace Ifaces
} // namespace Orvanta
