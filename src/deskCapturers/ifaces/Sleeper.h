#pragma once

namespace Orvanta {
namespace Ifaces {

/// Blocks the calling thread. Retry loops wait through this, so that tests can count the waits instead of sitting them
/// out.
class Sleeper
{
public:
    virtual ~Sleeper() = default;

    virtual void sleep(unsigned milliseconds) = 0;
};

} // namespace Ifaces
} // namespace Orvanta
