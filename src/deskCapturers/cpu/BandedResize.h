#pragma once

#include <opencv2/core.hpp>

#include <vector>

namespace Orvanta {
namespace Cpu {

/**
 * A bilinear reduction (cv::resize with INTER_LINEAR) of a picture whose rows
 * arrive in bands, each band scaled as soon as it is there: while a screen is
 * still being copied into the rest of the picture, the part already copied is
 * being scaled, so copying and scaling overlap instead of adding up.
 *
 * The bands are planned so that scaling them one by one gives the very result
 * of scaling the whole: a band holds a whole number of steps of the
 * reduction, where a step is the smallest run of source rows that maps onto a
 * whole number of target rows. An enlargement, a height that admits only one
 * step, or a step whose target rows are not a power of two is scaled in one
 * band (the reasons are in plan()).
 */
class BandedResize
{
public:
    /// Plans the reduction of a @p source picture to @p target, in about @p preferredBands bands.
    void plan(cv::Size source, cv::Size target, int preferredBands = 6);

    /// Where each band of the source ends, ascending; the last is the source's height.
    const std::vector<int>& sourceBandEnds() const
    {
        return m_sourceEnds;
    }

    /**
     * Scales into @p target (allocated at the planned size) every band not yet
     * scaled that lies within the first @p rowsArrived rows of @p source.
     */
    void scaleArrived(const cv::Mat& source, int rowsArrived, cv::Mat& target);

    /// Whether every band has been scaled since the last plan().
    bool finished() const
    {
        return m_nextBand == m_sourceEnds.size();
    }

private:
    cv::Size m_target;
    std::vector<int> m_sourceEnds;
    std::vector<int> m_targetEnds;
    std::size_t m_nextBand = 0;
};

} // namespace Cpu
} // namespace Orvanta
