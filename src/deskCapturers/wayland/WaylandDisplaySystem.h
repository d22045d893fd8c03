#pragma once

#include "ifaces/DisplaySystem.h"

#include <memory>
#include <string>

namespace Orvanta {
namespace Wayland {

class WaylandConnection;

/**
 * A Wayland compositor as a display system: the compositor is the one
 * adapter, and its outputs are the adapter's outputs. A GPU device is made
 * through EGL apart from the compositor, and an output keeps its row without one.
 */
class WaylandDisplaySystem : public Ifaces::DisplaySystem
{
public:
    /// Connects to @p displayName on open(); empty means $WAYLAND_DISPLAY.
    explicit WaylandDisplaySystem(std::string displayName = {});
    ~WaylandDisplaySystem() override;

    bool hasAdministratorRights() const override;
    long open() override;
    long enumAdapter(unsigned int index, std::shared_ptr<Ifaces::DisplayAdapter>& adapter) override;
    bool devicesOptional() const override;

private:
    std::string m_displayName;
    std::shared_ptr<WaylandConnection> m_connection;
};

} // namespace Wayland
} // namespace Orvanta
