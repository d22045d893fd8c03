#include "EglDevice.h"

#include "GlxContextScope.h"
#include "ResultCodes.h"

#include <EGL/eglext.h>
#include <GLES3/gl3.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

namespace Orvanta {
namespace Egl {

namespace {

EGLDisplay openPlatformDisplay()
{
    const char* clientExtensions = eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS);
    auto getPlatformDisplay
        = reinterpret_cast<PFNEGLGETPLATFORMDISPLAYEXTPROC>(eglGetProcAddress("eglGetPlatformDisplayEXT"));
    if (!getPlatformDisplay)
        return EGL_NO_DISPLAY;

    if (EglDevice::hasExtension(clientExtensions, "EGL_MESA_platform_surfaceless")) {
        EGLDisplay display = getPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
        if (display != EGL_NO_DISPLAY)
            return display;
    }

    if (EglDevice::hasExtension(clientExtensions, "EGL_EXT_platform_device")) {
        auto queryDevices = reinterpret_cast<PFNEGLQUERYDEVICESEXTPROC>(eglGetProcAddress("eglQueryDevicesEXT"));
        EGLDeviceEXT device = nullptr;
        EGLint count = 0;
        if (queryDevices && queryDevices(1, &device, &count) && count > 0)
            return getPlatformDisplay(EGL_PLATFORM_DEVICE_EXT, device, nullptr);
    }
    return EGL_NO_DISPLAY;
}

} // namespace

/**
 * The process's one initialised EGL display. eglGetPlatformDisplay gives the
 * same handle to every caller in the process, and eglTerminate would end it
 * for all of them, other libraries included; Mesa also unloads its driver
 * then. So the display is initialised once and never terminated: devices own
 * their contexts only.
 */
class DisplayConnection
{
public:
    static long acquire(std::shared_ptr<DisplayConnection>& connection)
    {
        static std::mutex mutex;
        static std::shared_ptr<DisplayConnection> shared;
        std::lock_guard<std::mutex> lock(mutex);
        if (!shared) {
            EGLDisplay display = openPlatformDisplay();
            if (display == EGL_NO_DISPLAY)
                return DXGI_ERROR_UNSUPPORTED;
            if (!eglInitialize(display, nullptr, nullptr))
                return EglDevice::resultFromEglError(eglGetError());
            shared.reset(new DisplayConnection(display));
        }
        connection = shared;
        return S_OK;
    }

    DisplayConnection(const DisplayConnection&) = delete;
    DisplayConnection& operator=(const DisplayConnection&) = delete;

    EGLDisplay display() const
    {
        return m_display;
    }

private:
    explicit DisplayConnection(EGLDisplay display)
        : m_display(display)
    {
    }

    EGLDisplay m_display;
};

long EglDevice::create(std::shared_ptr<EglDevice>& device)
{
    device.reset();
    std::shared_ptr<DisplayConnection> connection;
    if (const long result = DisplayConnection::acquire(connection); result < 0)
        return result;
    const EGLDisplay display = connection->display();

    if (!eglBindAPI(EGL_OPENGL_ES_API))
        return resultFromEglError(eglGetError());

    const EGLint contextAttributes[] = {EGL_CONTEXT_MAJOR_VERSION, 3, EGL_CONTEXT_MINOR_VERSION, 0, EGL_NONE};
    EGLConfig config = EGL_NO_CONFIG_KHR;
    if (!EglDevice::hasExtension(eglQueryString(display, EGL_EXTENSIONS), "EGL_KHR_no_config_context")) {
        const EGLint configAttributes[] = {EGL_RENDERABLE_TYPE, EGL_OPENGL_ES3_BIT, EGL_NONE};
        EGLint count = 0;
        if (!eglChooseConfig(display, configAttributes, &config, 1, &count) || count < 1)
            return DXGI_ERROR_UNSUPPORTED;
    }
    EGLContext context = eglCreateContext(display, config, EGL_NO_CONTEXT, contextAttributes);
    if (context == EGL_NO_CONTEXT)
        return resultFromEglError(eglGetError());

    std::shared_ptr<EglDevice> made(new EglDevice(std::move(connection), context));

    // Reading the renderer needs the context current for a moment; whatever
    // the caller had current, an EGL or a GLX context, is put back afterwards.
    const GlxContextScope glx;
    const EGLDisplay previousDisplay = eglGetCurrentDisplay();
    const EGLContext previousContext = eglGetCurrentContext();
    const EGLSurface previousDraw = eglGetCurrentSurface(EGL_DRAW);
    const EGLSurface previousRead = eglGetCurrentSurface(EGL_READ);
    if (const long result = made->makeCurrent(); result < 0)
        return result;
    if (const auto* renderer = reinterpret_cast<const char*>(glGetString(GL_RENDERER)))
        made->m_renderer = renderer;
    if (previousContext != EGL_NO_CONTEXT)
        eglMakeCurrent(previousDisplay, previousDraw, previousRead, previousContext);
    else
        made->doneCurrent();
    device = std::move(made);
    return S_OK;
}

EglDevice::EglDevice(std::shared_ptr<DisplayConnection> connection, EGLContext context)
    : m_connection(std::move(connection))
    , m_context(context)
{
}

EglDevice::~EglDevice()
{
    // A context that is current somewhere is only marked for deletion; it
    // goes when that thread releases it.
    if (eglGetCurrentContext() == m_context)
        eglMakeCurrent(m_connection->display(), EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    eglDestroyContext(m_connection->display(), m_context);
}

EGLDisplay EglDevice::display() const
{
    return m_connection->display();
}

EGLContext EglDevice::context() const
{
    return m_context;
}

const std::string& EglDevice::renderer() const
{
    return m_renderer;
}

bool EglDevice::prefersCpuScaling() const
{
    return prefersCpuScaling(m_renderer, std::getenv("ORVANTA_SCALER"));
}

bool EglDevice::prefersCpuScaling(const std::string& renderer, const char* override)
{
    if (override && std::strcmp(override, "cpu") == 0) {
        return true;
    }
    if (override && std::strcmp(override, "gpu") == 0) {
        return false;
    }
    // Mesa names its software rasterisers first in the renderer text, e.g.
    // "llvmpipe (LLVM 15.0.6, 256 bits)".
    for (const char* software : {"llvmpipe", "softpipe"}) {
        if (renderer.compare(0, std::strlen(software), software) == 0) {
            return true;
        }
    }
    return false;
}

bool EglDevice::cpuScalingWithoutDevice()
{
    const char* override = std::getenv("ORVANTA_SCALER");
    if (override && std::strcmp(override, "cpu") == 0) {
        return true;
    }
    if (override && std::strcmp(override, "gpu") == 0) {
        return false;
    }
    // Listing the devices reads no driver; Mesa marks its software rasteriser
    // as a device of its own, and a real GPU is a device without that mark.
    const char* clientExtensions = eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS);
    if (!hasExtension(clientExtensions, "EGL_EXT_device_enumeration")
        && !hasExtension(clientExtensions, "EGL_EXT_device_base")) {
        return false;
    }
    auto queryDevices = reinterpret_cast<PFNEGLQUERYDEVICESEXTPROC>(eglGetProcAddress("eglQueryDevicesEXT"));
    auto queryDeviceString
        = reinterpret_cast<PFNEGLQUERYDEVICESTRINGEXTPROC>(eglGetProcAddress("eglQueryDeviceStringEXT"));
    if (!queryDevices || !queryDeviceString) {
        return false;
    }
    EGLint count = 0;
    if (!queryDevices(0, nullptr, &count) || count <= 0) {
        return false;
    }
    std::vector<EGLDeviceEXT> devices(static_cast<std::size_t>(count));
    if (!queryDevices(count, devices.data(), &count) || count <= 0) {
        return false;
    }
    devices.resize(static_cast<std::size_t>(count));
    for (EGLDeviceEXT device : devices) {
        if (!hasExtension(queryDeviceString(device, EGL_EXTENSIONS), "EGL_MESA_device_software")) {
            return false;
        }
    }
    return true;
}

long EglDevice::makeCurrent() const
{
    if (!eglMakeCurrent(m_connection->display(), EGL_NO_SURFACE, EGL_NO_SURFACE, m_context))
        return resultFromEglError(eglGetError());
    return S_OK;
}

long EglDevice::doneCurrent() const
{
    if (!eglMakeCurrent(m_connection->display(), EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT))
        return resultFromEglError(eglGetError());
    return S_OK;
}

bool EglDevice::hasExtension(const char* extensions, const char* name)
{
    if (!extensions)
        return false;
    const std::size_t length = std::strlen(name);
    for (const char* at = std::strstr(extensions, name); at; at = std::strstr(at + 1, name)) {
        const bool startsWord = at == extensions || at[-1] == ' ';
        const bool endsWord = at[length] == ' ' || at[length] == '\0';
        if (startsWord && endsWord)
            return true;
    }
    return false;
}

long EglDevice::resultFromEglError(EGLint error)
{
    switch (error) {
    case EGL_SUCCESS:
        return S_OK;
    case EGL_BAD_ALLOC:
        return E_OUTOFMEMORY;
    case EGL_BAD_ACCESS:
        return E_ACCESSDENIED;
    case EGL_CONTEXT_LOST:
        return DXGI_ERROR_DEVICE_REMOVED;
    case EGL_NOT_INITIALIZED:
    case EGL_BAD_DISPLAY:
        return DXGI_ERROR_NOT_CURRENTLY_AVAILABLE;
    case EGL_BAD_ATTRIBUTE:
    case EGL_BAD_CONFIG:
    case EGL_BAD_MATCH:
    case EGL_BAD_PARAMETER:
    case EGL_BAD_CONTEXT:
    case EGL_BAD_SURFACE:
    case EGL_BAD_NATIVE_PIXMAP:
    case EGL_BAD_NATIVE_WINDOW:
    case EGL_BAD_CURRENT_SURFACE:
        return E_INVALIDARG;
    default:
        return E_FAIL;
    }
}

} // namespace Egl
} // namespace Orvanta
