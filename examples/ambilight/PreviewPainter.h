#pragma once

#include "LedLayout.h"

#include <QtCore/QVector>
#include <QtGui/QColor>
#include <QtGui/QImage>

#include <opencv2/core.hpp>

/**
 * Draws what the lights would show: the captured frame in the middle, the
 * LED ring around it in the computed colours, and the spectrum as bars
 * underneath.
 */
class PreviewPainter
{
public:
    struct Spectrum
    {
        QVector<float> decibels; ///< one value per band, low to high
        QVector<float> zoneLevels; ///< 0..1 per music zone
    };

    explicit PreviewPainter(const LedLayout& layout);

    QImage paint(const cv::Mat& frame, const QVector<QColor>& ledColours, const Spectrum& spectrum) const;

private:
    const LedLayout& m_layout;
};
