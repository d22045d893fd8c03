#pragma once

#include "ifaces/DesktopDuplicator.h"
#include "ifaces/DisplayOutput.h"
#include "ifaces/OutputDuplication.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace Orvanta {

namespace Ifaces {
class DisplayAdapter;
class GraphicsDevice;
} // namespace Ifaces

namespace Wayland {

class WaylandOutput;
class WaylandScreencopy;

/**
 * Duplication of one compositor output through screencopy.
 *
 * The first acquire copies the output as it is, so that a still output gives
 * its picture too; every later one asks for a copy once the compositor drew
 * something new, and answers DXGI_ERROR_WAIT_TIMEOUT while nothing was. The
 * picture stays in shared memory, which the scaler reads as B, G, R, padding,
 * told which parts changed; a turned output's picture is turned here first,
 * so that frames show it as its user sees it. A change of the output's position, size or
 * rotation, or the output going away, answers DXGI_ERROR_ACCESS_LOST, so that
 * the capturer makes a new session; a broken connection answers
 * DXGI_ERROR_SESSION_DISCONNECTED.
 */
class WaylandDuplication final : public Ifaces::OutputDuplication
{
public:
    static long create(std::shared_ptr<WaylandOutput> output, std::unique_ptr<Ifaces::OutputDuplication>& duplication);

    ~WaylandDuplication() override;
    WaylandDuplication(const WaylandDuplication&) = delete;
    WaylandDuplication& operator=(const WaylandDuplication&) = delete;

    Ifaces::DuplicationDescription description() const override;
    long acquireNextFrame(unsigned timeoutMilliseconds) override;
    long frameSource(Ifaces::ScalerSource& source) override;
    long releaseFrame() override;

private:
    WaylandDuplication(
        std::shared_ptr<WaylandOutput> output, const Ifaces::OutputDescription& geometry, int width, int height);
    bool geometryChanged() const;

    std::shared_ptr<WaylandOutput> m_output;
    Ifaces::OutputDescription m_geometry;
    int m_width = 0;
    int m_height = 0;
    std::unique_ptr<WaylandScreencopy> m_copy;
    /// The picture as the output's user sees it, for a turned output.
    std::vector<std::uint8_t> m_turned;
    bool m_firstFrame = true;
    bool m_changedAll = true;
    bool m_frameHeld = false;
};

/**
 * The Wayland platform of the duplication capturer: outputs from the
 * compositor adapter of the capture context, sessions from
 * WaylandDuplication, scaling on the context's EGL device or, without one,
 * on the CPU.
 */
class WaylandDuplicator final : public Ifaces::DesktopDuplicator
{
public:
    /// @p output, where given, is the output that enumOutput() finds again, whatever its index is now.
    WaylandDuplicator(std::shared_ptr<Ifaces::DisplayAdapter> adapter, std::shared_ptr<Ifaces::GraphicsDevice> device,
        std::shared_ptr<Ifaces::DisplayOutput> output = nullptr);
    ~WaylandDuplicator() override;

    long enumOutput(unsigned outputIndex) override;
    long queryDuplicationOutput() override;
    long duplicateOutput(
        const std::vector<int>& formats, std::unique_ptr<Ifaces::OutputDuplication>& duplication) override;
    std::shared_ptr<Ifaces::GpuScaler> deviceScaler() override;

private:
    std::shared_ptr<Ifaces::DisplayAdapter> m_adapter;
    std::shared_ptr<Ifaces::GraphicsDevice> m_device;
    std::shared_ptr<WaylandOutput> m_named;
    std::shared_ptr<WaylandOutput> m_output;
};

} // namespace Wayland
} // namespace Orvanta
