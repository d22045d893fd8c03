#pragma once

#include "IDeskCapture.h"
#include "orvanta_global.h"

#include <QtCore/QSize>

#include <memory>

namespace Orvanta {
namespace Ifaces {
class DesktopDuplicator;
class RetryClock;
} // namespace Ifaces
} // namespace Orvanta

class DXGICapturerPrivate;

/**
 * The capture back-end that follows a display output through desktop
 * duplication: it polls without waiting, delivers a frame only when the
 * screen changed, and scales on the GPU so that only the small picture is
 * read back.
 *
 * It recovers by itself: a mode or geometry change is answered with an
 * immediate rebuild, other failures with up to five tries half a second
 * apart, and codes that cannot improve by retrying (access denied, a removed
 * device, ...) end the tries at once. While the duplication is lost, polls
 * deliver no frame and a new round of tries begins. The half second before
 * each try is kept by the clock, not slept: polls in between return at once,
 * so the polling thread goes on serving other capturers while this one waits.
 *
 * Frame size: outputSize() is the origin size until setOutputSize() chooses
 * another; once chosen it stays when the desktop's resolution changes.
 * setOutputSize(QSize(0, 0)) goes back to the origin size. Sizes may be read
 * and set from any thread.
 */
class LIBORVANTA_EXPORT DXGICapturer : public IDeskCapture
{
    Q_OBJECT

public:
    /// An unbound back-end; setCaptureContext() binds it to an output.
    explicit DXGICapturer(QObject* parent = nullptr);
    /// Binds at once; a failure shows as frames that never come.
    explicit DXGICapturer(DeskCaptureContext context, QObject* parent = nullptr);
    /// Runs on @p duplicator and paces its tries by @p clock instead of the
    /// platform named by the context: the seam for other platforms and tests.
    DXGICapturer(std::shared_ptr<Orvanta::Ifaces::DesktopDuplicator> duplicator,
        std::shared_ptr<Orvanta::Ifaces::RetryClock> clock, QObject* parent = nullptr);
    ~DXGICapturer() override;

    QSize outputSize() override;
    QSize originSize() override;
    cv::Mat nextFrame() override;
    long setCaptureContext(DeskCaptureContext context) override;
    void setOutputSize(QSize size) override;
    /// "GPU", or "CPU" where the output has no usable GPU device; empty before binding.
    QString scalerName() override;

private:
    long remakeDupl();
    bool requireNextFrame(cv::Mat& frame);
    void startRebuild();
    void continueRebuild();
    void loadDuplInfo();
    long makeOutputContext();
    long initRenderCtx();

    std::unique_ptr<DXGICapturerPrivate> d;
};
