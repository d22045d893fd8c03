#include "XcbDisplaySystem.h"

#include "ResultCodes.h"
#include "XcbConnection.h"
#include "XcbScreenAdapter.h"

namespace Orvanta {

namespace X11 {

XcbDisplaySystem::XcbDisplaySystem(std::string displayName)
    : m_displayName(std::move(displayName))
{
}

XcbDisplaySystem::~XcbDisplaySystem() = default;

bool XcbDisplaySystem::hasAdministratorRights() const
{
    // Any client of the X server may read every screen; there is nothing to warn about.
    return true;
}

long XcbDisplaySystem::open()
{
    return XcbConnection::open(m_displayName.empty() ? nullptr : m_displayName.c_str(), m_connection);
}

long XcbDisplaySystem::enumAdapter(unsigned int index, std::shared_ptr<Ifaces::DisplayAdapter>& adapter)
{
    adapter.reset();
    if (!m_connection)
        return DXGI_ERROR_INVALID_CALL;
    if (index >= unsigned(m_connection->screenCount()))
        return DXGI_ERROR_NOT_FOUND;
    adapter = std::make_shared<XcbScreenAdapter>(m_connection, int(index));
    return S_OK;
}

bool XcbDisplaySystem::devicesOptional() const
{
    return true;
}

} // namespace X11
} // namespace Orvanta
