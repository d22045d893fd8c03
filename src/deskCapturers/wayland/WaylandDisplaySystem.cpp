#include "WaylandDisplaySystem.h"

#include "ResultCodes.h"
#include "WaylandCompositorAdapter.h"
#include "WaylandConnection.h"

namespace Orvanta {
namespace Wayland {

WaylandDisplaySystem::WaylandDisplaySystem(std::string displayName)
    : m_displayName(std::move(displayName))
{
}

WaylandDisplaySystem::~WaylandDisplaySystem() = default;

bool WaylandDisplaySystem::hasAdministratorRights() const
{
    // What a client may capture is the compositor's decision, not a matter of process rights.
    return true;
}

long WaylandDisplaySystem::open()
{
    return WaylandConnection::open(m_displayName.empty() ? nullptr : m_displayName.c_str(), m_connection);
}

long WaylandDisplaySystem::enumAdapter(unsigned int index, std::shared_ptr<Ifaces::DisplayAdapter>& adapter)
{
    adapter.reset();
    if (!m_connection)
        return DXGI_ERROR_INVALID_CALL;
    if (index > 0)
        return DXGI_ERROR_NOT_FOUND;
    adapter = std::make_shared<WaylandCompositorAdapter>(m_connection);
    return S_OK;
}

bool WaylandDisplaySystem::devicesOptional() const
{
    return true;
}

} // namespace Wayland
} // namespace Orvanta
