#include "XcbScreenAdapter.h"

#include "ResultCodes.h"
#include "XcbConnection.h"
#include "egl/EglDevice.h"

#include <string>
#include <vector>

namespace Orvanta {
namespace X11 {

namespace {

std::wstring widen(const std::string& text)
{
    // Monitor names and vendor strings are Latin-1 by the protocol.
    std::wstring wide;
    wide.reserve(text.size());
    for (unsigned char c : text)
        wide.push_back(wchar_t(c));
    return wide;
}

} // namespace

XcbScreenAdapter::XcbScreenAdapter(std::shared_ptr<XcbConnection> connection, int screenIndex)
    : m_connection(std::move(connection))
    , m_screenIndex(screenIndex)
{
}

std::wstring XcbScreenAdapter::description() const
{
    return widen(m_connection->vendor()) + L" screen " + std::to_wstring(m_screenIndex);
}

long XcbScreenAdapter::enumOutput(unsigned int index, std::shared_ptr<Ifaces::DisplayOutput>& output)
{
    output.reset();
    std::vector<XcbMonitor> monitors;
    if (const long result = m_connection->monitors(m_screenIndex, monitors); result < 0)
        return result;
    if (index >= monitors.size())
        return DXGI_ERROR_NOT_FOUND;
    output
        = std::make_shared<XcbMonitorOutput>(m_connection, m_screenIndex, monitors[index].name, monitors[index].output);
    return S_OK;
}

long XcbScreenAdapter::createDevice(
    const std::shared_ptr<Ifaces::DisplayOutput>&, std::shared_ptr<Ifaces::GraphicsDevice>& device)
{
    device.reset();
    // The output is scaled on the CPU then, which needs no device.
    if (Egl::EglDevice::cpuScalingWithoutDevice())
        return S_OK;
    std::shared_ptr<Egl::EglDevice> made;
    const long result = Egl::EglDevice::create(made);
    device = made;
    return result;
}

XcbMonitorOutput::XcbMonitorOutput(
    std::shared_ptr<XcbConnection> connection, int screenIndex, xcb_atom_t name, std::uint32_t output)
    : m_connection(std::move(connection))
    , m_screenIndex(screenIndex)
    , m_name(name)
    , m_output(output)
{
}

bool XcbMonitorOutput::isPresent() const
{
    XcbMonitor monitor;
    return m_connection->monitor(m_screenIndex, m_name, m_output, monitor);
}

long XcbMonitorOutput::describe(Ifaces::OutputDescription& description) const
{
    XcbMonitor monitor;
    if (!m_connection->monitor(m_screenIndex, m_name, m_output, monitor))
        return DXGI_ERROR_NOT_CURRENTLY_AVAILABLE;
    description.deviceName = widen(monitor.nameText);
    description.left = monitor.x;
    description.top = monitor.y;
    description.right = monitor.x + monitor.width;
    description.bottom = monitor.y + monitor.height;
    description.monitor = XcbConnection::monitorHandle(m_screenIndex, monitor.name);
    description.rotation = monitor.rotation;
    return S_OK;
}

} // namespace X11
} // namespace Orvanta
