#pragma once

namespace Orvanta {
namespace Egl {

/**
 * Puts aside the GLX context that is current on this thread, if there is one,
 * and makes it current again when the scope ends.
 *
 * Under libglvnd a thread has one current context across GLX and EGL:
 * eglMakeCurrent fails while the application's GLX context is current (Qt's
 * xcb integration makes one current for its windows on the GUI thread). GLX
 * is looked up in the process only, never loaded: where it isn't loaded, no
 * GLX context can be current and the scope does nothing.
 */
class GlxContextScope
{
public:
    GlxContextScope();
    ~GlxContextScope();
    GlxContextScope(const GlxContextScope&) = delete;
    GlxContextScope& operator=(const GlxContextScope&) = delete;

private:
    using MakeContextCurrent = int (*)(void*, unsigned long, unsigned long, void*);

    MakeContextCurrent m_makeContextCurrent = nullptr;
    void* m_display = nullptr;
    void* m_context = nullptr;
    unsigned long m_draw = 0;
    unsigned long m_read = 0;
};

} // namespace Egl
} // namespace Orvanta
