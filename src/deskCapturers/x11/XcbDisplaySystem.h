#pragma once

#include "ifaces/DisplaySystem.h"

#include <memory>
#include <string>

namespace Orvanta {
namespace X11 {

class XcbConnection;

/**
 * The X server as a display system: each X screen is an adapter, and the
 * RandR monitors of a screen are its outputs. A GPU device is made through
 * EGL apart from the X server, and an output keeps its row without one.
 */
class XcbDisplaySystem : public Ifaces::DisplaySystem
{
public:
    /// Connects to @p displayName on open(); empty means $DISPLAY.
    explicit XcbDisplaySystem(std::string displayName = {});
    ~XcbDisplaySystem() override;

    bool hasAdministratorRights() const override;
    long open() override;
    long enumAdapter(unsigned int index, std::shared_ptr<Ifaces::DisplayAdapter>& adapter) override;
    bool devicesOptional() const override;

private:
    std::string m_displayName;
    std::shared_ptr<XcbConnection> m_connection;
};

} // namespace X11
} // namespace Orvanta
