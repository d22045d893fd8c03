#include "GlxContextScope.h"

#include <dlfcn.h>
#include <link.h>

#include <cstddef>

namespace Orvanta {
namespace Egl {

namespace {

/// The GLX entry points of the process, or nulls where GLX isn't loaded.
struct GlxEntryPoints
{
    using GetPointer = void* (*)();
    using GetDrawable = unsigned long (*)();

    GetPointer getCurrentContext = nullptr;
    GetPointer getCurrentDisplay = nullptr;
    GetDrawable getCurrentDrawable = nullptr;
    GetDrawable getCurrentReadDrawable = nullptr;
    void* makeContextCurrent = nullptr;

    GlxEntryPoints()
    {
        // RTLD_NOLOAD: only a GLX that the application loaded can have a context current.
        void* library = dlopen("libGLX.so.0", RTLD_LAZY | RTLD_NOLOAD);
        if (!library)
            library = dlopen("libGL.so.1", RTLD_LAZY | RTLD_NOLOAD);
        if (!library)
            return;
        getCurrentContext = reinterpret_cast<GetPointer>(dlsym(library, "glXGetCurrentContext"));
        getCurrentDisplay = reinterpret_cast<GetPointer>(dlsym(library, "glXGetCurrentDisplay"));
        getCurrentDrawable = reinterpret_cast<GetDrawable>(dlsym(library, "glXGetCurrentDrawable"));
        getCurrentReadDrawable = reinterpret_cast<GetDrawable>(dlsym(library, "glXGetCurrentReadDrawable"));
        makeContextCurrent = dlsym(library, "glXMakeContextCurrent");
        // The handle stays open: the entry points are used for the process's life.
    }

    bool complete() const
    {
        return getCurrentContext && getCurrentDisplay && getCurrentDrawable && getCurrentReadDrawable
            && makeContextCurrent;
    }
};

/// How many objects the process has loaded so far; it changes with every dlopen.
unsigned long long loadedObjectCount()
{
    unsigned long long adds = 0;
    dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t size, void* data) {
            if (size >= offsetof(dl_phdr_info, dlpi_adds) + sizeof(info->dlpi_adds))
                *static_cast<unsigned long long*>(data) = info->dlpi_adds;
            return 1; // the counter is the same in every entry: the first will do
        },
        &adds);
    return adds;
}

const GlxEntryPoints& entryPoints()
{
    // A scope is made for every frame. Where GLX isn't loaded, look again
    // only once the process has loaded something new, since an application
    // may load GLX after the library started.
    thread_local GlxEntryPoints points;
    thread_local unsigned long long probedAtCount = 0;
    if (!points.complete()) {
        const unsigned long long count = loadedObjectCount();
        if (count != probedAtCount) {
            probedAtCount = count;
            points = GlxEntryPoints();
        }
    }
    return points;
}

} // namespace

GlxContextScope::GlxContextScope()
{
    const GlxEntryPoints& glx = entryPoints();
    if (!glx.complete())
        return;
    m_context = glx.getCurrentContext();
    if (!m_context)
        return;
    m_display = glx.getCurrentDisplay();
    m_draw = glx.getCurrentDrawable();
    m_read = glx.getCurrentReadDrawable();
    m_makeContextCurrent = reinterpret_cast<MakeContextCurrent>(glx.makeContextCurrent);
    if (!m_makeContextCurrent(m_display, 0, 0, nullptr))
        m_makeContextCurrent = nullptr;
}

GlxContextScope::~GlxContextScope()
{
    if (m_makeContextCurrent)
        m_makeContextCurrent(m_display, m_draw, m_read, m_context);
}

} // namespace Egl
} // namespace Orvanta
