#pragma once

#include "ifaces/GraphicsDevice.h"

#include <EGL/egl.h>

#include <memory>
#include <string>

namespace Orvanta {
namespace Egl {

class DisplayConnection;

/**
 * An OpenGL ES 3 context of its own on a display that needs no window
 * system: Mesa's surfaceless platform, or else the first EGL device. It is
 * never made on the X server, so capture and GPU work don't share a
 * connection.
 *
 * The context is not current on any thread after create(); whoever renders
 * with it calls makeCurrent() on its thread and doneCurrent() when done.
 * All devices of the process share one EGL display, initialised at the first
 * creation and kept for the life of the process.
 */
class EglDevice : public Ifaces::GraphicsDevice
{
public:
    /// Makes a device; the result code of the failure, or 0.
    static long create(std::shared_ptr<EglDevice>& device);

    ~EglDevice() override;
    EglDevice(const EglDevice&) = delete;
    EglDevice& operator=(const EglDevice&) = delete;

    EGLDisplay display() const;
    EGLContext context() const;
    /// The GL_RENDERER text of the context, read at creation.
    const std::string& renderer() const;

    /**
     * Whether frames are better scaled on the CPU than with this context:
     * true on Mesa's software rasterisers (llvmpipe, softpipe), where the GL
     * path costs several times the vectorised CPU scaler. The environment
     * variable ORVANTA_SCALER set to "cpu" or "gpu" overrides the choice.
     */
    bool prefersCpuScaling() const;
    /// The choice of prefersCpuScaling() for a renderer text and an override (null when unset).
    static bool prefersCpuScaling(const std::string& renderer, const char* override);

    /**
     * Whether the CPU scaler is known to be the choice before a device is
     * made: ORVANTA_SCALER asks for "cpu", or it does not ask for "gpu" and
     * every EGL device of the system is Mesa's software one. Found without
     * initialising a display, which loads the GL driver and its compiler, tens
     * of megabytes that a context unused for scaling would hold for nothing.
     */
    static bool cpuScalingWithoutDevice();

    /// Makes the context current on the calling thread, without a surface.
    long makeCurrent() const;
    /// Releases the context from the calling thread.
    long doneCurrent() const;

    /// True when the blank-separated list @p extensions names @p name as a whole word.
    static bool hasExtension(const char* extensions, const char* name);

    /// The result code for an EGL error value (eglGetError()).
    static long resultFromEglError(EGLint error);

private:
    EglDevice(std::shared_ptr<DisplayConnection> connection, EGLContext context);

    std::shared_ptr<DisplayConnection> m_connection;
    EGLContext m_context = EGL_NO_CONTEXT;
    std::string m_renderer;
};

} // namespace Egl
} // namespace Orvanta
