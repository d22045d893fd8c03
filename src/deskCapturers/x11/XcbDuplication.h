#pragma once

#include "ifaces/DesktopDuplicator.h"
#include "ifaces/DisplayOutput.h"
#include "ifaces/OutputDuplication.h"

#include <memory>

struct xcb_connection_t;

namespace Orvanta {

namespace Ifaces {
class DisplayAdapter;
class GraphicsDevice;
} // namespace Ifaces

namespace X11 {

class XcbMonitorOutput;

/**
 * Duplication of one monitor of an X screen, on a connection of its own.
 *
 * The DAMAGE extension says whether anything was drawn since the last
 * acquire: when nothing was, acquiring answers DXGI_ERROR_WAIT_TIMEOUT after
 * one non-blocking look at the socket. When something was, MIT-SHM fetches
 * the damaged parts that lie on the monitor into a picture of the monitor
 * kept between frames, which the scaler reads as B, G, R, padding, told which
 * parts changed. Drawing only on other monitors gives no frame here. A change of the screen's size or of the monitor's
 * rectangle answers DXGI_ERROR_ACCESS_LOST, so that the capturer makes a new
 * session; a broken connection answers DXGI_ERROR_SESSION_DISCONNECTED.
 */
class XcbDuplication final : public Ifaces::OutputDuplication
{
public:
    /// Starts duplicating the rectangle that @p output describes, on the X display
    /// named by @p displayName (null: $DISPLAY).
    static long create(const char* displayName, std::shared_ptr<Ifaces::DisplayOutput> output,
        std::unique_ptr<Ifaces::OutputDuplication>& duplication);

    ~XcbDuplication() override;
    XcbDuplication(const XcbDuplication&) = delete;
    XcbDuplication& operator=(const XcbDuplication&) = delete;

    Ifaces::DuplicationDescription description() const override;
    long acquireNextFrame(unsigned timeoutMilliseconds) override;
    long frameSource(Ifaces::ScalerSource& source) override;
    long releaseFrame() override;

private:
    struct State;
    explicit XcbDuplication(std::unique_ptr<State> state);
    long processEvents();
    long fetch(const Ifaces::ScalerRect& piece);
    bool geometryChanged() const;

    std::unique_ptr<State> m_state;
};

/**
 * The X11 platform of the duplication capturer: outputs from the display
 * adapter of the capture context, sessions from XcbDuplication, scaling on the
 * context's EGL device or, without one, on the CPU.
 */
class XcbDuplicator final : public Ifaces::DesktopDuplicator
{
public:
    /// @p monitor, where given, is the output that enumOutput() finds again, whatever its index is now.
    XcbDuplicator(std::shared_ptr<Ifaces::DisplayAdapter> adapter, std::shared_ptr<Ifaces::GraphicsDevice> device,
        std::shared_ptr<Ifaces::DisplayOutput> monitor = nullptr);
    ~XcbDuplicator() override;

    long enumOutput(unsigned outputIndex) override;
    long queryDuplicationOutput() override;
    long duplicateOutput(
        const std::vector<int>& formats, std::unique_ptr<Ifaces::OutputDuplication>& duplication) override;
    std::shared_ptr<Ifaces::GpuScaler> deviceScaler() override;

private:
    std::shared_ptr<Ifaces::DisplayAdapter> m_adapter;
    std::shared_ptr<Ifaces::GraphicsDevice> m_device;
    std::shared_ptr<Ifaces::DisplayOutput> m_output;
    std::shared_ptr<XcbMonitorOutput> m_monitor;
};

} // namespace X11
} // namespace Orvanta
