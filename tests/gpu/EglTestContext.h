#pragma once

#include <EGL/egl.h>
#include <EGL/eglext.h>

#include <memory>

/**
 * A surfaceless OpenGL ES 3 context on Mesa for the tests of the GL scaler:
 * no X server, no window. valid() is false when none can be made.
 */
class EglTestContext
{
public:
    EglTestContext()
    {
        auto getPlatformDisplay
            = reinterpret_cast<PFNEGLGETPLATFORMDISPLAYEXTPROC>(eglGetProcAddress("eglGetPlatformDisplayEXT"));
        if (!getPlatformDisplay) {
            return;
        }
        display = getPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
        if (display == EGL_NO_DISPLAY || !eglInitialize(display, nullptr, nullptr)) {
            display = EGL_NO_DISPLAY;
            return;
        }
        eglBindAPI(EGL_OPENGL_ES_API);
        const EGLint attributes[] = {EGL_CONTEXT_MAJOR_VERSION, 3, EGL_CONTEXT_MINOR_VERSION, 0, EGL_NONE};
        context = eglCreateContext(display, EGL_NO_CONFIG_KHR, EGL_NO_CONTEXT, attributes);
    }
    ~EglTestContext()
    {
        if (context != EGL_NO_CONTEXT) {
            eglDestroyContext(display, context);
        }
        if (display != EGL_NO_DISPLAY) {
            eglTerminate(display);
        }
    }
    EglTestContext(const EglTestContext&) = delete;
    EglTestContext& operator=(const EglTestContext&) = delete;

    bool valid() const
    {
        return context != EGL_NO_CONTEXT;
    }

    EGLDisplay display = EGL_NO_DISPLAY;
    EGLContext context = EGL_NO_CONTEXT;
};
