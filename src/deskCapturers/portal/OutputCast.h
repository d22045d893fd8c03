#pragma once

#include "ifaces/GraphicsCapture.h"

#include <memory>
#include <string>

namespace Orvanta {
namespace Portal {

/**
 * A screen cast of one output through the desktop portal, read on the CPU.
 *
 * The session is asked for with the consent kept for the output, and the
 * consent it hands out is kept again, as the graphics-capture back-end does.
 * Pictures come in memory the CPU reads. A cast whose stream the user
 * picked on another output than the one asked for is refused, so that a
 * row never shows another output's picture.
 */
class OutputCast
{
public:
    /// Where the cast's output lies on the desktop, and its name.
    struct Output
    {
        std::string name;
        int x = 0;
        int y = 0;
        int width = 0;
        int height = 0;
    };

    /**
     * Opens a session for @p output and starts its stream; @p consent, where
     * given, keeps the user's consent for it. DXGI_ERROR_NOT_CURRENTLY_AVAILABLE
     * when the user picked another output.
     */
    static long open(
        const Output& output, const std::shared_ptr<Ifaces::ConsentStore>& consent, std::unique_ptr<OutputCast>& cast);

    ~OutputCast();
    OutputCast(const OutputCast&) = delete;
    OutputCast& operator=(const OutputCast&) = delete;

    /// The stream's picture size, as the portal gave it.
    Ifaces::CaptureSize size() const;
    /// The newest picture since the last call, or null in @p frame; a failing code once the stream ended.
    long takeNewest(std::unique_ptr<Ifaces::CapturedFrame>& frame);

private:
    OutputCast() = default;

    std::shared_ptr<Ifaces::CaptureFramePool> m_pool;
    std::shared_ptr<Ifaces::CaptureSession> m_session;
    Ifaces::CaptureSize m_size;
};

} // namespace Portal
} // namespace Orvanta
