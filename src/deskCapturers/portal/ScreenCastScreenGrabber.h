#pragma once

#include "ifaces/GraphicsCapture.h"
#include "ifaces/ScreenGrabber.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Orvanta {
namespace Portal {

class OutputCast;

/**
 * The blit grabber of Wayland compositors without screencopy: each output is
 * a screen cast of its own, opened at its first grab with the consent kept
 * for it, and each grab gives the newest picture the stream brought; until
 * the first one came, grabs fail without waiting. Where the outputs lie
 * comes from @p outputs, the compositor's own grabber.
 */
class ScreenCastScreenGrabber final : public Ifaces::ScreenGrabber
{
public:
    explicit ScreenCastScreenGrabber(std::unique_ptr<Ifaces::ScreenGrabber> outputs);
    ~ScreenCastScreenGrabber() override;

    bool monitorRect(std::uintptr_t monitor, Ifaces::ScreenRect& rect) override;
    bool grab(std::uintptr_t monitor, const Ifaces::ScreenRect& rect, Ifaces::ScreenImage& image) override;
    /// False: the stream hands out an output's picture unturned.
    bool picturesAreTurned() const override;
    void keepConsentIn(std::shared_ptr<Ifaces::ConsentStore> store) override;

private:
    struct Cast
    {
        std::unique_ptr<OutputCast> stream;
        /// The newest picture, held until a newer one comes.
        std::unique_ptr<Ifaces::CapturedFrame> frame;
        Ifaces::ScalerSource source;
        /// The picture in B, G, R order, where the stream's is R, G, B.
        std::vector<unsigned char> swapped;
        ~Cast();
    };

    bool takeNewest(Cast& cast);

    std::mutex m_mutex;
    std::unique_ptr<Ifaces::ScreenGrabber> m_outputs;
    std::shared_ptr<Ifaces::ConsentStore> m_consent;
    std::map<std::string, Cast> m_casts;
};

} // namespace Portal
} // namespace Orvanta
