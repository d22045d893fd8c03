#pragma once

#include <string>

namespace Orvanta {
namespace Posix {

/**
 * Whether this process runs in a Wayland session: $WAYLAND_DISPLAY names a
 * compositor, or the session says it is a Wayland one and its compositor's
 * socket is there. An X server beside it (XWayland) sees only its own
 * clients' windows, so it does not count.
 */
bool isWaylandSession();

/**
 * Whether the duplication and blit modes read this session's screen through
 * the desktop portal's screen cast: a Wayland compositor that lets no client
 * copy its outputs.
 */
bool readsScreenThroughScreenCast();

/// Why the duplication and blit modes cannot read this session's screen; empty where they can.
std::string screenReadingObstacle();

/// How the duplication and blit modes read this session's screen, for the log.
std::string screenReadingPath();

} // namespace Posix
} // namespace Orvanta
