#pragma once

#include "DeskCaptureContext.h"
#include "orvanta_global.h"

#include <QtCore/QObject>
#include <QtCore/QSize>

#include <opencv2/core.hpp>

/// Type of every frame a desk capturer delivers: four bytes a pixel, R, G, B, A.
constexpr int DeskFrameType = CV_8UC4;

/**
 * A source of frames of one display output.
 *
 * Frames are `cv::Mat`s of DeskFrameType, outputSize() large, each owning a
 * reference-counted buffer that nobody writes to after delivery: keep them as
 * long as needed, without a lock, but don't write into them. An empty matrix
 * means there is no frame to give. Calls never wait for a new frame.
 */
class LIBORVANTA_EXPORT IDeskCapture : public QObject
{
public:
    IDeskCapture();
    ~IDeskCapture() override;

    /// Size of the frames that nextFrame() delivers.
    virtual QSize outputSize() = 0;
    /// Native size of the captured output in pixels.
    virtual QSize originSize() = 0;
    /// The next frame, or an empty matrix.
    virtual cv::Mat nextFrame() = 0;
    /// Binds the capturer to one output; a negative result is a failure.
    virtual long setCaptureContext(DeskCaptureContext context) = 0;
    /// Asks for frames of this size; scaling is the capturer's work.
    virtual void setOutputSize(QSize size) = 0;
    /**
     * Where the frames are scaled: "GPU" or "CPU"; empty while the capturer
     * has not chosen yet (before its first frame) or cannot tell. It may
     * change when the capture mode does. Any thread may ask.
     */
    virtual QString scalerName();

private:
    Q_DISABLE_COPY(IDeskCapture)
};
