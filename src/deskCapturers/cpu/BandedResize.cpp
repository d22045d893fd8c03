#include "BandedResize.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <numeric>

namespace Orvanta {
namespace Cpu {

void BandedResize::plan(cv::Size source, cv::Size target, int preferredBands)
{
    m_target = target;
    m_sourceEnds.clear();
    m_targetEnds.clear();
    m_nextBand = 0;

    // Target row t samples source rows floor((t + 0.5) * r - 0.5) and the one
    // below it, r being the reduction. For r > 1 both lie within the step of
    // t, so a band boundary at a step boundary changes no row read. The
    // weights come from that position in single precision: they stay the
    // same only where it is exact, that is where a step's target rows are a
    // power of two; other reductions are scaled whole.
    int steps = 1;
    if (source.height > target.height && target.height > 0) {
        steps = std::gcd(source.height, target.height);
        const int targetStep = target.height / steps;
        if ((targetStep & (targetStep - 1)) != 0)
            steps = 1;
    }
    const int bands = std::max(1, std::min(preferredBands, steps));
    const int sourceStep = source.height / steps;
    const int targetStep = target.height / steps;
    for (int band = 1; band <= bands; ++band) {
        // Steps spread evenly, the last band ending with the picture.
        const int stepsSoFar = int(static_cast<long long>(steps) * band / bands);
        m_sourceEnds.push_back(band == bands ? source.height : stepsSoFar * sourceStep);
        m_targetEnds.push_back(band == bands ? target.height : stepsSoFar * targetStep);
    }
}

void BandedResize::scaleArrived(const cv::Mat& source, int rowsArrived, cv::Mat& target)
{
    // The bands are written into the target in place, so it must be there first.
    if (m_nextBand == 0 && m_sourceEnds.size() > 1)
        target.create(m_target, source.type());
    while (m_nextBand < m_sourceEnds.size() && m_sourceEnds[m_nextBand] <= rowsArrived) {
        const int sourceBegin = m_nextBand == 0 ? 0 : m_sourceEnds[m_nextBand - 1];
        const int targetBegin = m_nextBand == 0 ? 0 : m_targetEnds[m_nextBand - 1];
        const int sourceEnd = m_sourceEnds[m_nextBand];
        const int targetEnd = m_targetEnds[m_nextBand];
        ++m_nextBand;
        if (m_sourceEnds.size() == 1) {
            cv::resize(source, target, m_target, 0, 0, cv::INTER_LINEAR);
            continue;
        }
        cv::Mat targetBand = target.rowRange(targetBegin, targetEnd);
        cv::resize(source.rowRange(sourceBegin, sourceEnd), targetBand, targetBand.size(), 0, 0, cv::INTER_LINEAR);
    }
}

} // namespace Cpu
} // namespace Orvanta
