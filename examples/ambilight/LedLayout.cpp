#include "LedLayout.h"

#include <QtCore/QJsonArray>

#include <algorithm>

LedLayout LedLayout::fromJson(const QJsonObject& layout)
{
    LedLayout result;
    for (const QJsonValue& value : layout.value(QStringLiteral("key_array")).toArray()) {
        const QJsonObject led = value.toObject();
        result.m_leds.append({led.value(QStringLiteral("id")).toInt(), led.value(QStringLiteral("x")).toInt(),
            led.value(QStringLiteral("y")).toInt()});
    }
    for (const QJsonValue& value : layout.value(QStringLiteral("key_music")).toArray()) {
        const QJsonObject zone = value.toObject();
        result.m_zones.append(
            {zone.value(QStringLiteral("id")).toInt(), zone.value(QStringLiteral("direction")).toInt() == 1,
                zone.value(QStringLiteral("start")).toInt(), zone.value(QStringLiteral("stop")).toInt()});
    }
    // The grid is as wide as the top edge and as tall as a side edge; LED
    // cells outside it (odd layouts) stretch it rather than being dropped.
    result.m_columns = std::max(1, layout.value(QStringLiteral("key_len")).toInt());
    result.m_rows = std::max(1, layout.value(QStringLiteral("key_wid")).toInt());
    for (const Led& led : result.m_leds) {
        result.m_columns = std::max(result.m_columns, led.column + 1);
        result.m_rows = std::max(result.m_rows, led.row + 1);
    }
    return result;
}

int LedLayout::columns() const
{
    return m_columns;
}

int LedLayout::rows() const
{
    return m_rows;
}

const QVector<LedLayout::Led>& LedLayout::leds() const
{
    return m_leds;
}

const QVector<LedLayout::Zone>& LedLayout::zones() const
{
    return m_zones;
}

QVector<QColor> LedLayout::colours(const cv::Mat& frame) const
{
    QVector<QColor> result(m_leds.size(), Qt::black);
    if (frame.empty() || frame.type() != CV_8UC4) {
        return result;
    }
    for (int i = 0; i < m_leds.size(); ++i) {
        const Led& led = m_leds[i];
        const int column = std::clamp(led.column, 0, m_columns - 1);
        const int row = std::clamp(led.row, 0, m_rows - 1);
        const int left = column * frame.cols / m_columns;
        const int right = std::max(left + 1, (column + 1) * frame.cols / m_columns);
        const int top = row * frame.rows / m_rows;
        const int bottom = std::max(top + 1, (row + 1) * frame.rows / m_rows);
        const cv::Scalar mean = cv::mean(
            frame(cv::Rect(left, top, std::min(right, frame.cols) - left, std::min(bottom, frame.rows) - top)));
        // Frames are R, G, B, A.
        result[i] = QColor(int(mean[0] + 0.5), int(mean[1] + 0.5), int(mean[2] + 0.5));
    }
    return result;
}
