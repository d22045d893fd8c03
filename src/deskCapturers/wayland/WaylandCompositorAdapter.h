#pragma once

#include "ifaces/DisplayAdapter.h"
#include "ifaces/DisplayOutput.h"

#include <memory>
#include <string>

namespace Orvanta {
namespace Wayland {

class WaylandConnection;

/// A Wayland compositor, whose outputs are those it announces.
class WaylandCompositorAdapter : public Ifaces::DisplayAdapter
{
public:
    explicit WaylandCompositorAdapter(std::shared_ptr<WaylandConnection> connection);

    std::wstring description() const override;
    long enumOutput(unsigned int index, std::shared_ptr<Ifaces::DisplayOutput>& output) override;
    /// An EGL context of its own, apart from the compositor.
    long createDevice(
        const std::shared_ptr<Ifaces::DisplayOutput>& output, std::shared_ptr<Ifaces::GraphicsDevice>& device) override;

    std::shared_ptr<WaylandConnection> connection() const;

private:
    std::shared_ptr<WaylandConnection> m_connection;
};

/**
 * A compositor's output, known by its name; what it says is read when asked.
 * Once the output is gone, describing it fails with
 * DXGI_ERROR_NOT_CURRENTLY_AVAILABLE; an output of the same name announced
 * again (switched on again) is this one again.
 */
class WaylandOutput : public Ifaces::DisplayOutput
{
public:
    WaylandOutput(std::shared_ptr<WaylandConnection> connection, std::string name);

    long describe(Ifaces::OutputDescription& description) const override;
    /// Whether the output is there now.
    bool isPresent() const;
    const std::string& name() const;
    std::shared_ptr<WaylandConnection> connection() const;

private:
    std::shared_ptr<WaylandConnection> m_connection;
    std::string m_name;
};

/// Output names and descriptions are UTF-8 by the protocol.
std::wstring widenUtf8(const std::string& text);

} // namespace Wayland
} // namespace Orvanta
