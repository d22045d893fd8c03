#pragma once

#include <opencv2/core.hpp>

#include <algorithm>
#include <cmath>

/**
 * An independent model of what the resizer must draw, written from the
 * sampling rules rather than from the quad: for each target pixel centre the
 * source coordinate under the display rotation, bilinear between texel centres
 * when the picture shrinks along either axis, the texel under the point when
 * it does not, indices clamped to the edge. Source and result are CV_8UC4 RGBA.
 */
inline cv::Mat referenceScale(const cv::Mat& source, cv::Size target, int rotation)
{
    const bool turned = rotation == 2 || rotation == 4;
    const double texelsAcross = turned ? double(source.rows) / target.width : double(source.cols) / target.width;
    const double texelsDown = turned ? double(source.cols) / target.height : double(source.rows) / target.height;
    const bool shrinking = std::max(texelsAcross, texelsDown) > 1.0;

    cv::Mat result(target, CV_8UC4);
    for (int y = 0; y < target.height; ++y) {
        for (int x = 0; x < target.width; ++x) {
            const double s = (x + 0.5) / target.width;
            const double t = (y + 0.5) / target.height;
            double u = s, v = t;
            switch (rotation) {
            case 2: // the quad turned a quarter anticlockwise
                u = 1.0 - t;
                v = s;
                break;
            case 3:
                u = 1.0 - s;
                v = 1.0 - t;
                break;
            case 4:
                u = t;
                v = 1.0 - s;
                break;
            default:
                break;
            }
            cv::Vec4b& out = result.at<cv::Vec4b>(y, x);
            if (!shrinking) {
                const int tx = std::clamp(int(std::floor(u * source.cols)), 0, source.cols - 1);
                const int ty = std::clamp(int(std::floor(v * source.rows)), 0, source.rows - 1);
                out = source.at<cv::Vec4b>(ty, tx);
                continue;
            }
            const double sx = u * source.cols - 0.5;
            const double sy = v * source.rows - 0.5;
            const int x0 = int(std::floor(sx));
            const int y0 = int(std::floor(sy));
            const double wx = sx - x0;
            const double wy = sy - y0;
            auto texel = [&](int tx, int ty) {
                return source.at<cv::Vec4b>(std::clamp(ty, 0, source.rows - 1), std::clamp(tx, 0, source.cols - 1));
            };
            for (int c = 0; c < 4; ++c) {
                const double top = texel(x0, y0)[c] * (1 - wx) + texel(x0 + 1, y0)[c] * wx;
                const double bottom = texel(x0, y0 + 1)[c] * (1 - wx) + texel(x0 + 1, y0 + 1)[c] * wx;
                out[c] = cv::saturate_cast<uchar>(top * (1 - wy) + bottom * wy);
            }
        }
    }
    return result;
}

/// Largest difference of any channel of any pixel.
inline int maxChannelDifference(const cv::Mat& a, const cv::Mat& b)
{
    cv::Mat difference;
    cv::absdiff(a.reshape(1), b.reshape(1), difference);
    double maximum = 0;
    cv::minMaxLoc(difference, nullptr, &maximum);
    return int(maximum);
}
