#pragma once

#include <cstdint>

namespace Orvanta {
namespace Ifaces {

/**
 * Monotonic time in milliseconds. Retry loops keep their waits by this clock
 * instead of sleeping, so that the thread they run on goes on serving others,
 * and tests move it by hand instead of sitting the waits out.
 */
class RetryClock
{
public:
    virtual ~RetryClock() = default;

    virtual std::int64_t milliseconds() = 0;
};

} // namespace Ifaces
} // namespace Orvanta
