#include "PreviewPainter.h"

#include <QtGui/QPainter>

#include <algorithm>

namespace {

constexpr int kWidth = 640;
constexpr int kPictureHeight = 360;
constexpr int kRing = 28;
constexpr int kSpectrumHeight = 120;
constexpr float kFloorDecibels = -90.0f;

QImage frameImage(const cv::Mat& frame)
{
    if (frame.empty() || frame.type() != CV_8UC4) {
        return QImage();
    }
    // Frames are R, G, B, A rows: exactly QImage's RGBA8888. Copy, since the
    // matrix may be dropped as soon as this returns.
    return QImage(frame.data, frame.cols, frame.rows, int(frame.step), QImage::Format_RGBA8888).copy();
}

} // namespace

PreviewPainter::PreviewPainter(const LedLayout& layout)
    : m_layout(layout)
{
}

QImage PreviewPainter::paint(const cv::Mat& frame, const QVector<QColor>& ledColours, const Spectrum& spectrum) const
{
    QImage image(kWidth, kPictureHeight + kSpectrumHeight, QImage::Format_RGB32);
    image.fill(QColor(24, 24, 24));
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);

    const QRectF picture(kRing, kRing, kWidth - 2 * kRing, kPictureHeight - 2 * kRing);
    const QImage captured = frameImage(frame);
    if (captured.isNull()) {
        painter.fillRect(picture, Qt::black);
        painter.setPen(Qt::gray);
        painter.drawText(picture, Qt::AlignCenter, QStringLiteral("no frame"));
    } else {
        painter.drawImage(picture, captured);
    }

    // Each LED sits outside the picture on the edge its grid cell touches.
    const double cellWidth = picture.width() / m_layout.columns();
    const double cellHeight = picture.height() / m_layout.rows();
    const double radius = kRing * 0.35;
    const QVector<LedLayout::Led>& leds = m_layout.leds();
    for (int i = 0; i < leds.size() && i < ledColours.size(); ++i) {
        const LedLayout::Led& led = leds[i];
        QPointF centre(picture.left() + (led.column + 0.5) * cellWidth, picture.top() + (led.row + 0.5) * cellHeight);
        if (led.column <= 0) {
            centre.setX(kRing / 2.0);
        } else if (led.column >= m_layout.columns() - 1) {
            centre.setX(kWidth - kRing / 2.0);
        }
        if (led.row <= 0 && led.column > 0 && led.column < m_layout.columns() - 1) {
            centre.setY(kRing / 2.0);
        } else if (led.row >= m_layout.rows() - 1 && led.column > 0 && led.column < m_layout.columns() - 1) {
            centre.setY(kPictureHeight - kRing / 2.0);
        }
        painter.setPen(QPen(Qt::black, 1));
        painter.setBrush(ledColours[i]);
        painter.drawEllipse(centre, radius, radius);
    }

    // Spectrum bars, then one level bar per music zone along the bottom.
    const QRectF bars(kRing, kPictureHeight + 8, kWidth - 2 * kRing, kSpectrumHeight - 36);
    painter.setPen(Qt::NoPen);
    const int bands = spectrum.decibels.size();
    for (int band = 0; band < bands; ++band) {
        const float level = std::clamp((spectrum.decibels[band] - kFloorDecibels) / -kFloorDecibels, 0.0f, 1.0f);
        const double x = bars.left() + band * bars.width() / bands;
        const double height = level * bars.height();
        painter.setBrush(QColor::fromHsvF(0.66 * (1.0 - double(band) / std::max(1, bands)), 0.8, 0.95));
        painter.drawRect(QRectF(x, bars.bottom() - height, std::max(1.0, bars.width() / bands), height));
    }
    const int zones = spectrum.zoneLevels.size();
    const QRectF zoneRow(kRing, kPictureHeight + kSpectrumHeight - 22, kWidth - 2 * kRing, 14);
    for (int zone = 0; zone < zones; ++zone) {
        const double width = zoneRow.width() / zones;
        const QRectF cell(zoneRow.left() + zone * width + 2, zoneRow.top(), width - 4, zoneRow.height());
        painter.setBrush(QColor(60, 60, 60));
        painter.drawRect(cell);
        painter.setBrush(QColor(250, 200, 40));
        painter.drawRect(QRectF(
            cell.left(), cell.top(), cell.width() * std::clamp(spectrum.zoneLevels[zone], 0.0f, 1.0f), cell.height()));
    }
    return image;
}
