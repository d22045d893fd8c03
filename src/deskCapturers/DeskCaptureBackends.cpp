#include "DeskCaptureBackends.h"

#include "GDICapturer.h"

namespace Orvanta {

IDeskCapture* createDeskCaptureBackend(int mode)
{
    switch (mode) {
    case 2:
        return new GDICapturer;
    default:
        // Desktop duplication (0) and graphics capture (1) join here as they
        // arrive; until then their modes leave the front without a back-end.
        return nullptr;
    }
}

} // namespace Orvanta
