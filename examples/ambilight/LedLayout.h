#pragma once

#include <QtCore/QJsonObject>
#include <QtCore/QString>
#include <QtCore/QVector>
#include <QtGui/QColor>

#include <opencv2/core.hpp>

/**
 * The LEDs of one controller as the library's layout file describes them:
 * each LED sits in a cell of a grid laid over the screen, and runs of LEDs
 * form the music zones.
 */
class LedLayout
{
public:
    struct Led
    {
        int id = 0;
        int column = 0;
        int row = 0;
    };

    struct Zone
    {
        int id = 0;
        bool reversed = false;
        int first = 0; ///< first LED number, inclusive
        int last = 0; ///< last LED number, inclusive
    };

    static LedLayout fromJson(const QJsonObject& layout);

    int columns() const;
    int rows() const;
    const QVector<Led>& leds() const;
    const QVector<Zone>& zones() const;

    /// The average colour of each LED's grid cell of an RGBA frame, in LED order.
    QVector<QColor> colours(const cv::Mat& frame) const;

private:
    int m_columns = 1;
    int m_rows = 1;
    QVector<Led> m_leds;
    QVector<Zone> m_zones;
};
