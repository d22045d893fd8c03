#include "GDICapturer.h"

#include "ScreenCastConsent.h"
#include "cpu/ChannelOrder.h"
#include "ifaces/DisplayOutput.h"
#include "ifaces/ScreenGrabber.h"

#include <QtCore/QDebug>

#include <opencv2/imgproc.hpp>

using Orvanta::Ifaces::OutputRotation;

GDICapturer::GDICapturer()
    : GDICapturer(Orvanta::Ifaces::createPlatformScreenGrabber())
{
    if (grabber)
        grabber->keepConsentIn(std::make_shared<ScreenCastConsent>());
}

GDICapturer::GDICapturer(std::unique_ptr<Orvanta::Ifaces::ScreenGrabber> grabber)
    : grabber(std::move(grabber))
{
}

GDICapturer::~GDICapturer() = default;

QString GDICapturer::scalerName()
{
    return QStringLiteral("CPU");
}

long GDICapturer::setCaptureContext(DeskCaptureContext newContext)
{
    monitor = newContext.monitor;
    context = std::move(newContext);
    // Not yet polled, so no lock is needed.
    m_outputSize = originSize();
    return 0;
}

QSize GDICapturer::outputSize()
{
    std::lock_guard<std::mutex> locker(outputSizeLock);
    return m_outputSize;
}

void GDICapturer::setOutputSize(QSize size)
{
    std::lock_guard<std::mutex> locker(outputSizeLock);
    m_outputSize = size;
}

QSize GDICapturer::originSize()
{
    Orvanta::Ifaces::ScreenRect rect;
    if (grabber)
        grabber->monitorRect(monitor, rect);
    QSize size(int(rect.right - rect.left), int(rect.bottom - rect.top));
    const int turn = rotation();
    if (turn == int(OutputRotation::Rotate90) || turn == int(OutputRotation::Rotate270))
        size.transpose();
    return size;
}

cv::Mat GDICapturer::nextFrame()
{
    return screenshot();
}

int GDICapturer::rotation() const
{
    // Where the screen holds the monitor turned already, turning it again
    // would show it sideways: it is delivered as it is.
    if (grabber && grabber->picturesAreTurned())
        return int(OutputRotation::Identity);
    Orvanta::Ifaces::OutputDescription description;
    if (!context.output || context.output->describe(description) < 0)
        return int(OutputRotation::Unspecified);
    return int(description.rotation);
}

cv::Mat GDICapturer::screenshot()
{
    // The monitor's rectangle is read anew each time, so a change of
    // resolution needs no handling; the output size stays.
    // Every failure shows as the one fixed text; the cause goes beside it at debug level.
    Orvanta::Ifaces::ScreenRect rect;
    Orvanta::Ifaces::ScreenImage image;
    if (!grabber) {
        qDebug() << "[GDICapturer]: There is no screen grabber";
        qCritical() << "[GDICapturer]: Failed to get DBits errCode:" << 0;
        return cv::Mat();
    }
    if (!grabber->monitorRect(monitor, rect)) {
        qDebug() << "[GDICapturer]: The rectangle of monitor" << reinterpret_cast<void*>(monitor) << "is unknown";
        qCritical() << "[GDICapturer]: Failed to get DBits errCode:" << 0;
        return cv::Mat();
    }
    QSize size;
    {
        std::lock_guard<std::mutex> locker(outputSizeLock);
        size = m_outputSize;
    }
    const int W = size.width();
    const int H = size.height();
    const int turn = rotation();
    const bool quarterTurn = turn == int(OutputRotation::Rotate90) || turn == int(OutputRotation::Rotate270);

    // The frame, a buffer of its own, is scaled into straight from the
    // grabber's memory (through a buffer kept from call to call where it is
    // turned), band by band while the rest of the screen is still being
    // copied. Blue and red are exchanged on the small picture in place, so
    // nothing delivered points into the grabber or is written again.
    cv::Mat frame;
    cv::Mat& target = quarterTurn ? scratch : frame;
    const cv::Size targetSize = quarterTurn ? cv::Size(H, W) : cv::Size(W, H);
    const cv::Size copiedSize(int(rect.right - rect.left), int(rect.bottom - rect.top));
    bands.plan(copiedSize, targetSize);
    bool scaled = false;
    std::string scalingFailure;
    // OpenCV's refusals, such as of an output size of 0, must escape neither
    // into the grabber nor into the timer that polls.
    const auto scaleCaught = [&](auto&& scale) {
        try {
            scale();
        } catch (const cv::Exception& exception) {
            scalingFailure = exception.what();
        }
    };
    const auto scaleArrived = [&](const Orvanta::Ifaces::ScreenImage& arrived, int, int endRow) {
        const cv::Mat copied(
            arrived.height, arrived.width, CV_8UC4, const_cast<unsigned char*>(arrived.pixels), arrived.bytesPerLine);
        // A picture of another size than planned is scaled whole, once complete.
        if (copied.size() != copiedSize || !scalingFailure.empty())
            return;
        scaleCaught([&] { bands.scaleArrived(copied, endRow, target); });
        scaled = bands.finished();
    };
    if (!grabber->grabInBands(monitor, rect, bands.sourceBandEnds(), image, scaleArrived)) {
        qDebug() << "[GDICapturer]: Copying the rectangle" << rect.left << rect.top << rect.right << rect.bottom
                 << "of monitor" << reinterpret_cast<void*>(monitor) << "failed";
        qCritical() << "[GDICapturer]: Failed to get DBits errCode:" << 0;
        return cv::Mat();
    }
    if (!scaled && scalingFailure.empty()) {
        const cv::Mat copied(
            image.height, image.width, CV_8UC4, const_cast<unsigned char*>(image.pixels), image.bytesPerLine);
        scaleCaught([&] { cv::resize(copied, target, targetSize, 0, 0, cv::INTER_LINEAR); });
    }
    if (!scalingFailure.empty()) {
        qCritical() << "[GDICapturer]: Failed to scale the frame:" << scalingFailure.c_str();
        return cv::Mat();
    }
    switch (turn) {
    case int(OutputRotation::Rotate90):
        cv::transpose(scratch, frame);
        cv::flip(frame, frame, 0);
        break;
    case int(OutputRotation::Rotate180):
        cv::flip(frame, frame, -1);
        break;
    case int(OutputRotation::Rotate270):
        cv::transpose(scratch, frame);
        cv::flip(frame, frame, 1);
        break;
    default:
        break;
    }
    // B, G, R, X becomes R, G, B, X; the fourth byte stays.
    Orvanta::Cpu::swapRedAndBlue(frame.data, frame.total(), false);
    return frame;
}
