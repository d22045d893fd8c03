#pragma once

#include "ifaces/DesktopDuplicator.h"
#include "ifaces/DisplayOutput.h"
#include "ifaces/GraphicsCapture.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace Orvanta {

namespace Ifaces {
class DisplayAdapter;
class DisplayOutput;
class GraphicsDevice;
} // namespace Ifaces

namespace Portal {

class OutputCast;

/**
 * Duplication of one output through the desktop portal's screen cast, for
 * compositors that let no client copy their outputs.
 *
 * acquireNextFrame() takes the stream's newest picture, waiting at most the
 * timeout for one, and answers DXGI_ERROR_WAIT_TIMEOUT when none came: a
 * still output costs nothing. Frames carry the parts that changed since the
 * frame before, where the stream says so. The stream ending, or its pictures
 * changing size, answers DXGI_ERROR_ACCESS_LOST, so that the capturer opens
 * a new session.
 *
 * The stream's pictures come as the compositor draws a turned output, before
 * its turn: they are turned here, as the user sees the output, as the
 * duplication of the compositor's own copies does.
 */
class ScreenCastDuplication final : public Ifaces::OutputDuplication
{
public:
    /// @p rotation: the output's.
    ScreenCastDuplication(std::unique_ptr<OutputCast> cast, Ifaces::OutputRotation rotation);
    ~ScreenCastDuplication() override;
    ScreenCastDuplication(const ScreenCastDuplication&) = delete;
    ScreenCastDuplication& operator=(const ScreenCastDuplication&) = delete;

    Ifaces::DuplicationDescription description() const override;
    long acquireNextFrame(unsigned timeoutMilliseconds) override;
    long frameSource(Ifaces::ScalerSource& source) override;
    long releaseFrame() override;

private:
    std::unique_ptr<OutputCast> m_cast;
    Ifaces::OutputRotation m_rotation;
    std::unique_ptr<Ifaces::CapturedFrame> m_frame;
    std::vector<std::uint8_t> m_turned;
};

/**
 * The duplication platform of Wayland compositors without screencopy: the
 * rows come from the compositor, each session is a screen cast of the row's
 * output with the consent kept for it, and frames are scaled on the CPU.
 */
class ScreenCastDuplicator final : public Ifaces::DesktopDuplicator
{
public:
    /// @p output, where given, is the output that enumOutput() finds again, whatever its index is now.
    ScreenCastDuplicator(std::shared_ptr<Ifaces::DisplayAdapter> adapter,
        std::shared_ptr<Ifaces::GraphicsDevice> device, std::shared_ptr<Ifaces::DisplayOutput> output = nullptr);
    ~ScreenCastDuplicator() override;

    long enumOutput(unsigned outputIndex) override;
    long queryDuplicationOutput() override;
    long duplicateOutput(
        const std::vector<int>& formats, std::unique_ptr<Ifaces::OutputDuplication>& duplication) override;
    std::shared_ptr<Ifaces::GpuScaler> deviceScaler() override;
    void keepConsentIn(std::shared_ptr<Ifaces::ConsentStore> store) override;

private:
    std::shared_ptr<Ifaces::DisplayAdapter> m_adapter;
    std::shared_ptr<Ifaces::GraphicsDevice> m_device;
    std::shared_ptr<Ifaces::DisplayOutput> m_named;
    std::shared_ptr<Ifaces::DisplayOutput> m_output;
    std::shared_ptr<Ifaces::ConsentStore> m_consent;
};

} // namespace Portal
} // namespace Orvanta
