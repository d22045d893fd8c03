#pragma once

#include "DeskCaptureContext.h"
#include "IDeskCapture.h"
#include "cpu/BandedResize.h"

#include <mutex>

#include <memory>

namespace Orvanta {
namespace Ifaces {
class ScreenGrabber;
}
} // namespace Orvanta

/**
 * The back-end of capture mode 2: a plain copy of the monitor's rectangle at
 * every call, then scaling, rotation and the exchange of blue and red on the
 * CPU. It needs no GPU and keeps no state between calls but the output size.
 */
class GDICapturer : public IDeskCapture
{
    Q_OBJECT

public:
    /// Copies the screen with the platform's grabber.
    GDICapturer();
    /// Copies the screen with @p grabber.
    explicit GDICapturer(std::unique_ptr<Orvanta::Ifaces::ScreenGrabber> grabber);
    ~GDICapturer() override;

    QSize outputSize() override;
    QSize originSize() override;
    cv::Mat nextFrame() override;
    long setCaptureContext(DeskCaptureContext context) override;
    void setOutputSize(QSize size) override;
    /// Always "CPU": the copied screen is scaled with OpenCV.
    QString scalerName() override;

    cv::Mat screenshot();

private:
    int rotation() const;

    DeskCaptureContext context;
    DeskMonitorHandle monitor = 0;
    QSize m_outputSize;
    std::mutex outputSizeLock;
    std::unique_ptr<Orvanta::Ifaces::ScreenGrabber> grabber;
    /// Scaled and turned pixels before the colour exchange; never delivered.
    cv::Mat scratch;
    /// The scaling of the copy, band by band as the copy arrives.
    Orvanta::Cpu::BandedResize bands;
};
