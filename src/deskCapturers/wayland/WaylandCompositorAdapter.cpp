#include "WaylandCompositorAdapter.h"

#include "ResultCodes.h"
#include "WaylandConnection.h"
#include "egl/EglDevice.h"

#include <vector>

namespace Orvanta {
namespace Wayland {

std::wstring widenUtf8(const std::string& text)
{
    std::wstring wide;
    wide.reserve(text.size());
    for (std::size_t index = 0; index < text.size();) {
        const unsigned char lead = static_cast<unsigned char>(text[index]);
        int length = lead < 0x80 ? 1 : (lead >> 5) == 0x6 ? 2 : (lead >> 4) == 0xE ? 3 : (lead >> 3) == 0x1E ? 4 : 0;
        if (length == 0 || index + std::size_t(length) > text.size()) {
            // Not UTF-8 after all: the byte stands for itself.
            wide.push_back(wchar_t(lead));
            ++index;
            continue;
        }
        std::uint32_t code = length == 1 ? lead : lead & (0xFF >> (length + 1));
        bool valid = true;
        for (int next = 1; next < length; ++next) {
            const unsigned char follow = static_cast<unsigned char>(text[index + std::size_t(next)]);
            valid = valid && (follow & 0xC0) == 0x80;
            code = (code << 6) | (follow & 0x3F);
        }
        if (!valid) {
            wide.push_back(wchar_t(lead));
            ++index;
            continue;
        }
        wide.push_back(wchar_t(code));
        index += std::size_t(length);
    }
    return wide;
}

WaylandCompositorAdapter::WaylandCompositorAdapter(std::shared_ptr<WaylandConnection> connection)
    : m_connection(std::move(connection))
{
}

std::wstring WaylandCompositorAdapter::description() const
{
    return L"Wayland compositor " + widenUtf8(m_connection->displayName());
}

long WaylandCompositorAdapter::enumOutput(unsigned int index, std::shared_ptr<Ifaces::DisplayOutput>& output)
{
    output.reset();
    if (m_connection->isBroken())
        return DXGI_ERROR_DEVICE_REMOVED;
    const std::vector<WaylandOutputInfo> outputs = m_connection->outputs();
    if (index >= outputs.size())
        return DXGI_ERROR_NOT_FOUND;
    output = std::make_shared<WaylandOutput>(m_connection, outputs[index].name);
    return S_OK;
}

long WaylandCompositorAdapter::createDevice(
    const std::shared_ptr<Ifaces::DisplayOutput>&, std::shared_ptr<Ifaces::GraphicsDevice>& device)
{
    std::shared_ptr<Egl::EglDevice> made;
    const long result = Egl::EglDevice::create(made);
    device = made;
    return result;
}

std::shared_ptr<WaylandConnection> WaylandCompositorAdapter::connection() const
{
    return m_connection;
}

WaylandOutput::WaylandOutput(std::shared_ptr<WaylandConnection> connection, std::string name)
    : m_connection(std::move(connection))
    , m_name(std::move(name))
{
}

bool WaylandOutput::isPresent() const
{
    WaylandOutputInfo info;
    return m_connection->output(m_name, info);
}

const std::string& WaylandOutput::name() const
{
    return m_name;
}

std::shared_ptr<WaylandConnection> WaylandOutput::connection() const
{
    return m_connection;
}

long WaylandOutput::describe(Ifaces::OutputDescription& description) const
{
    WaylandOutputInfo info;
    if (!m_connection->output(m_name, info))
        return DXGI_ERROR_NOT_CURRENTLY_AVAILABLE;
    description.deviceName = widenUtf8(info.name);
    description.left = info.x;
    description.top = info.y;
    description.right = info.x + info.width;
    description.bottom = info.y + info.height;
    description.monitor = WaylandConnection::handleOfName(info.name);
    description.rotation = info.rotation;
    return S_OK;
}

} // namespace Wayland
} // namespace Orvanta
