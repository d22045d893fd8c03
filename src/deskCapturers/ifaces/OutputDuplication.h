#pragma once

#include "ifaces/GpuScaler.h"

namespace Orvanta {
namespace Ifaces {

/// What a duplication session says about the picture it delivers.
struct DuplicationDescription
{
    unsigned width = 0;
    unsigned height = 0;
    /// The pixel format chosen for the session (a DXGI_FORMAT number).
    int format = 0;
    /// The output's rotation, a DXGI_MODE_ROTATION value (1 is upright).
    int rotation = 0;
};

/**
 * One running duplication of a display output (IDXGIOutputDuplication).
 *
 * acquireNextFrame never blocks longer than its timeout and answers with
 * DXGI_ERROR_WAIT_TIMEOUT when nothing changed, DXGI_ERROR_ACCESS_LOST when the
 * session became invalid (mode or geometry change), or another failure code.
 * After a success exactly one frame is held until releaseFrame.
 */
class OutputDuplication
{
public:
    virtual ~OutputDuplication() = default;

    virtual DuplicationDescription description() const = 0;
    virtual long acquireNextFrame(unsigned timeoutMilliseconds) = 0;
    /// The held frame as something a GpuScaler of the same device can draw.
    /// Valid until releaseFrame.
    virtual long frameSource(ScalerSource& source) = 0;
    virtual long releaseFrame() = 0;
};

} // namespace Ifaces
} // namespace Orvanta
