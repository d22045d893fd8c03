#include "DeskCaptureBackends.h"

#include "DXGICapturer.h"
#include "GDICapturer.h"

namespace Orvanta {

IDeskCapture* createDeskCaptureBackend(int mode)
{
    switch (mode) {
    case 0:
        return new DXGICapturer(nullptr);
    case 2:
        return new GDICapturer;
    default:
        // Graphics capture (1) joins here as it arrives; until then its mode
        // leaves the front without a back-end.
        return nullptr;
    }
}

} // namespace Orvanta
