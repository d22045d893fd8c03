#pragma once

#include "ifaces/DisplayAdapter.h"
#include "ifaces/DisplayOutput.h"

#include <xcb/xcb.h>

#include <cstdint>
#include <memory>

namespace Orvanta {
namespace X11 {

class XcbConnection;

/// One X screen, whose outputs are its RandR monitors.
class XcbScreenAdapter : public Ifaces::DisplayAdapter
{
public:
    XcbScreenAdapter(std::shared_ptr<XcbConnection> connection, int screenIndex);

    std::wstring description() const override;
    long enumOutput(unsigned int index, std::shared_ptr<Ifaces::DisplayOutput>& output) override;
    /// An EGL context of its own, not on the X server; none, with success,
    /// where the output would be scaled on the CPU anyway.
    long createDevice(
        const std::shared_ptr<Ifaces::DisplayOutput>& output, std::shared_ptr<Ifaces::GraphicsDevice>& device) override;

private:
    std::shared_ptr<XcbConnection> m_connection;
    int m_screenIndex;
};

/**
 * A RandR monitor, known by its name and the output it covers; what it says
 * is read when asked. Once the monitor is gone, describing it fails with
 * DXGI_ERROR_NOT_CURRENTLY_AVAILABLE; a monitor of the same name over the
 * same output (plugged in again) is this one again.
 */
class XcbMonitorOutput : public Ifaces::DisplayOutput
{
public:
    XcbMonitorOutput(
        std::shared_ptr<XcbConnection> connection, int screenIndex, xcb_atom_t name, std::uint32_t output = 0);

    long describe(Ifaces::OutputDescription& description) const override;
    /// Whether the monitor is there now.
    bool isPresent() const;

private:
    std::shared_ptr<XcbConnection> m_connection;
    int m_screenIndex;
    xcb_atom_t m_name;
    std::uint32_t m_output;
};

} // namespace X11
} // namespace Orvanta
