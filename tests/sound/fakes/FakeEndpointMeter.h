#pragma once

#include "ifaces/EndpointMeter.h"

#include <algorithm>
#include <cstdint>
#include <vector>

/**
 * Scripted level source: answers the master volume and the channel peaks
 * that a test sets, with the result codes it sets, and counts the calls.
 */
class FakeEndpointMeter : public Orvanta::Ifaces::EndpointMeter
{
public:
    long masterVolumeLevelScalar(float* level) override
    {
        ++volumeReads;
        if (volumeResult >= 0)
            *level = volume;
        return volumeResult;
    }

    long meteringChannelCount(std::uint32_t* count) override
    {
        if (countResult >= 0)
            *count = static_cast<std::uint32_t>(peaks.size());
        return countResult;
    }

    long channelsPeakValues(std::uint32_t count, float* values) override
    {
        ++peakReads;
        if (peaksResult < 0)
            return peaksResult;
        std::copy_n(peaks.begin(), std::min<size_t>(count, peaks.size()), values);
        return peaksResult;
    }

    float volume = 1.0f;
    long volumeResult = 0;
    long countResult = 0;
    std::vector<float> peaks;
    long peaksResult = 0;
    int volumeReads = 0;
    int peakReads = 0;
};
