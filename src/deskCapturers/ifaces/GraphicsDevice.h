#pragma once

namespace Orvanta {
namespace Ifaces {

/**
 * A GPU device made for one display output alone.
 *
 * Opaque to the registry and the capture front: only the back-end that
 * renders with it knows the concrete kind (a Direct3D 11 device on Windows,
 * an EGL context elsewhere) and casts to it.
 */
class GraphicsDevice
{
public:
    virtual ~GraphicsDevice() = default;
};

} // namespace Ifaces
} // namespace Orvanta
