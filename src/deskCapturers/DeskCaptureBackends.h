#pragma once

class IDeskCapture;

namespace Orvanta {

/**
 * The back-end of a capture mode on this platform: 0 desktop duplication,
 * 1 graphics capture, 2 screen blit. Null for a mode that has no back-end
 * here, or none at all; the caller owns the object.
 */
IDeskCapture* createDeskCaptureBackend(int mode);

} // namespace Orvanta
