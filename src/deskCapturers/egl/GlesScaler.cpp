#include "egl/GlesScaler.h"

#include "ResultCodes.h"
#include "cpu/SoftwareScaler.h"
#include "egl/DmaBufImporter.h"
#include "egl/EglDevice.h"
#include "egl/GlxContextScope.h"

#include <GLES3/gl3.h>

#include <algorithm>
#include <cstdint>

namespace Orvanta {
namespace Egl {

namespace {

// Clip space as Direct3D draws it, with y mirrored for OpenGL's bottom-up rows,
// so that the first row read back is the top line of the picture.
constexpr const char* kVertexShader = R"(#version 300 es
layout(location = 0) in vec3 position;
layout(location = 1) in vec2 texCoord;
out vec2 coordinate;
void main()
{
    coordinate = texCoord;
    gl_Position = vec4(position.x, -position.y, position.z, 1.0);
}
)";

constexpr const char* kFragmentShader = R"(#version 300 es
precision highp float;
uniform highp sampler2D tx;
in vec2 coordinate;
out vec4 colour;
void main()
{
    colour = texture(tx, coordinate);
}
)";

long resultOfGlError(GLenum error)
{
    switch (error) {
    case GL_NO_ERROR:
        return S_OK;
    case GL_INVALID_VALUE:
    case GL_INVALID_ENUM:
        return E_INVALIDARG;
    case GL_OUT_OF_MEMORY:
        return E_OUTOFMEMORY;
    default:
        return E_FAIL;
    }
}

void clearGlErrors()
{
    for (int i = 0; i < 16 && glGetError() != GL_NO_ERROR; ++i) { }
}

GLint wrapMode(int d3dAddressMode)
{
    switch (d3dAddressMode) {
    case 1:
        return GL_REPEAT;
    case 2:
        return GL_MIRRORED_REPEAT;
    default:
        // Clamp, and the border and mirror-once modes that ES 3.0 lacks.
        return GL_CLAMP_TO_EDGE;
    }
}

GLuint compile(GLenum kind, const char* text)
{
    const GLuint shader = glCreateShader(kind);
    if (!shader) {
        return 0;
    }
    glShaderSource(shader, 1, &text, nullptr);
    glCompileShader(shader);
    GLint compiled = GL_FALSE;
    glGetShaderiv(shader, GL_COMPILE_STATUS, &compiled);
    if (compiled != GL_TRUE) {
        glDeleteShader(shader);
        return 0;
    }
    return shader;
}

struct UploadFormat
{
    GLint internalFormat;
    GLenum format;
    GLenum type;
    GLint swizzle[4];
};

bool uploadFormat(Ifaces::PixelFormat format, UploadFormat& upload)
{
    switch (format) {
    case Ifaces::PixelFormat::R8G8B8A8Unorm:
        upload = {GL_RGBA8, GL_RGBA, GL_UNSIGNED_BYTE, {GL_RED, GL_GREEN, GL_BLUE, GL_ALPHA}};
        return true;
    case Ifaces::PixelFormat::B8G8R8A8Unorm:
        upload = {GL_RGBA8, GL_RGBA, GL_UNSIGNED_BYTE, {GL_BLUE, GL_GREEN, GL_RED, GL_ALPHA}};
        return true;
    case Ifaces::PixelFormat::B8G8R8X8Unorm:
        upload = {GL_RGBA8, GL_RGBA, GL_UNSIGNED_BYTE, {GL_BLUE, GL_GREEN, GL_RED, GL_ONE}};
        return true;
    case Ifaces::PixelFormat::R16G16B16A16Float:
        upload = {GL_RGBA16F, GL_RGBA, GL_HALF_FLOAT, {GL_RED, GL_GREEN, GL_BLUE, GL_ALPHA}};
        return true;
    case Ifaces::PixelFormat::R10G10B10A2Unorm:
        upload = {GL_RGB10_A2, GL_RGBA, GL_UNSIGNED_INT_2_10_10_10_REV, {GL_RED, GL_GREEN, GL_BLUE, GL_ALPHA}};
        return true;
    case Ifaces::PixelFormat::R16G16B16A16Unorm:
    case Ifaces::PixelFormat::Unknown:
        break;
    }
    return false;
}

} // namespace

struct GlesScaler::Objects
{
    GLuint vertexShader = 0;
    GLuint fragmentShader = 0;
    GLuint program = 0;
    GLuint vertexArray = 0;
    GLuint sampler = 0;
    GLuint vertexBuffer = 0;
    GLsizei vertexCount = 0;
    GLuint target = 0;
    GLuint framebuffer = 0;
    GLsizei targetWidth = 0;
    GLsizei targetHeight = 0;
    GLuint source = 0;
    GLsizei sourceWidth = 0;
    GLsizei sourceHeight = 0;
    GLint sourceInternalFormat = 0;
    const void* sourceSeries = nullptr; // what the texture was last filled from
    std::size_t sourceBytesPerLine = 0;
    GLuint sourceView = 0; // the texture the next draw samples, 0 when none
    GLuint imported = 0; // a texture whose storage is an imported DMA-BUF
};

/// Makes the scaler's context current for one operation and puts back what was current.
class GlesScaler::CurrentScope
{
public:
    explicit CurrentScope(const GlesScaler& scaler)
        : m_previousDisplay(eglGetCurrentDisplay())
        , m_previousContext(eglGetCurrentContext())
        , m_previousDraw(eglGetCurrentSurface(EGL_DRAW))
        , m_previousRead(eglGetCurrentSurface(EGL_READ))
    {
        if (m_previousContext == scaler.m_context) {
            m_ok = true;
            return;
        }
        m_switched = true;
        m_ok = eglMakeCurrent(scaler.m_display, EGL_NO_SURFACE, EGL_NO_SURFACE, scaler.m_context) == EGL_TRUE;
        m_display = scaler.m_display;
    }

    ~CurrentScope()
    {
        if (!m_switched) {
            return;
        }
        if (m_previousContext != EGL_NO_CONTEXT) {
            eglMakeCurrent(m_previousDisplay, m_previousDraw, m_previousRead, m_previousContext);
        } else {
            eglMakeCurrent(m_display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
        }
    }

    CurrentScope(const CurrentScope&) = delete;
    CurrentScope& operator=(const CurrentScope&) = delete;

    bool ok() const
    {
        return m_ok;
    }

private:
    // First in, last out: the application's GLX context is put aside before
    // the scaler's context is made current, and comes back after it went.
    GlxContextScope m_glx;
    EGLDisplay m_previousDisplay;
    EGLContext m_previousContext;
    EGLSurface m_previousDraw;
    EGLSurface m_previousRead;
    EGLDisplay m_display = EGL_NO_DISPLAY;
    bool m_switched = false;
    bool m_ok = false;
};

GlesScaler::GlesScaler(std::shared_ptr<void> owner, EGLDisplay display, EGLContext context)
    : m_owner(std::move(owner))
    , m_display(display)
    , m_context(context)
    , m_gl(std::make_unique<Objects>())
    , m_importer(std::make_unique<DmaBufImporter>(display))
{
}

GlesScaler::~GlesScaler()
{
    m_use.reset();
    CurrentScope current(*this);
    if (!current.ok()) {
        return;
    }
    m_importer.reset();
    glDeleteTextures(1, &m_gl->imported);
    glDeleteTextures(1, &m_gl->source);
    glDeleteFramebuffers(1, &m_gl->framebuffer);
    glDeleteTextures(1, &m_gl->target);
    glDeleteBuffers(1, &m_gl->vertexBuffer);
    glDeleteSamplers(1, &m_gl->sampler);
    glDeleteVertexArrays(1, &m_gl->vertexArray);
    glDeleteProgram(m_gl->program);
    glDeleteShader(m_gl->fragmentShader);
    glDeleteShader(m_gl->vertexShader);
}

void GlesScaler::beginUse()
{
    if (m_useDepth++ == 0) {
        m_use = std::make_unique<CurrentScope>(*this);
    }
}

void GlesScaler::endUse()
{
    if (m_useDepth > 0 && --m_useDepth == 0) {
        m_use.reset();
    }
}

long GlesScaler::createVertexShader()
{
    CurrentScope current(*this);
    if (!current.ok()) {
        return E_FAIL;
    }
    glDeleteShader(m_gl->vertexShader);
    m_gl->vertexShader = compile(GL_VERTEX_SHADER, kVertexShader);
    return m_gl->vertexShader ? S_OK : E_FAIL;
}

long GlesScaler::createPixelShader()
{
    CurrentScope current(*this);
    if (!current.ok()) {
        return E_FAIL;
    }
    glDeleteShader(m_gl->fragmentShader);
    m_gl->fragmentShader = compile(GL_FRAGMENT_SHADER, kFragmentShader);
    return m_gl->fragmentShader ? S_OK : E_FAIL;
}

long GlesScaler::createInputLayout()
{
    CurrentScope current(*this);
    if (!current.ok() || !m_gl->vertexShader || !m_gl->fragmentShader) {
        return E_FAIL;
    }
    glDeleteProgram(m_gl->program);
    m_gl->program = glCreateProgram();
    glAttachShader(m_gl->program, m_gl->vertexShader);
    glAttachShader(m_gl->program, m_gl->fragmentShader);
    glLinkProgram(m_gl->program);
    GLint linked = GL_FALSE;
    glGetProgramiv(m_gl->program, GL_LINK_STATUS, &linked);
    if (linked != GL_TRUE) {
        glDeleteProgram(m_gl->program);
        m_gl->program = 0;
        return E_FAIL;
    }
    glUseProgram(m_gl->program);
    glUniform1i(glGetUniformLocation(m_gl->program, "tx"), 0);
    if (!m_gl->vertexArray) {
        glGenVertexArrays(1, &m_gl->vertexArray);
    }
    return m_gl->vertexArray ? S_OK : E_FAIL;
}

long GlesScaler::createSamplerState(const Ifaces::SamplerDescription& description)
{
    CurrentScope current(*this);
    if (!current.ok()) {
        return E_FAIL;
    }
    clearGlErrors();
    if (!m_gl->sampler) {
        glGenSamplers(1, &m_gl->sampler);
    }
    // D3D11 filter bits: 0x10 linear minification, 0x04 linear magnification.
    // Sources have a single level, so mip selection never comes into it.
    glSamplerParameteri(m_gl->sampler, GL_TEXTURE_MIN_FILTER, (description.filter & 0x10) ? GL_LINEAR : GL_NEAREST);
    glSamplerParameteri(m_gl->sampler, GL_TEXTURE_MAG_FILTER, (description.filter & 0x04) ? GL_LINEAR : GL_NEAREST);
    glSamplerParameteri(m_gl->sampler, GL_TEXTURE_WRAP_S, wrapMode(description.addressU));
    glSamplerParameteri(m_gl->sampler, GL_TEXTURE_WRAP_T, wrapMode(description.addressV));
    glSamplerParameteri(m_gl->sampler, GL_TEXTURE_WRAP_R, wrapMode(description.addressW));
    glSamplerParameterf(m_gl->sampler, GL_TEXTURE_MIN_LOD, description.minLod);
    glSamplerParameterf(m_gl->sampler, GL_TEXTURE_MAX_LOD, description.maxLod);
    return resultOfGlError(glGetError());
}

long GlesScaler::createVertexBuffer(const Ifaces::ScalerVertex* vertices, std::size_t count)
{
    CurrentScope current(*this);
    if (!current.ok() || !vertices || count == 0) {
        return current.ok() ? E_INVALIDARG : E_FAIL;
    }
    clearGlErrors();
    glDeleteBuffers(1, &m_gl->vertexBuffer);
    m_gl->vertexCount = 0;
    glGenBuffers(1, &m_gl->vertexBuffer);
    glBindBuffer(GL_ARRAY_BUFFER, m_gl->vertexBuffer);
    glBufferData(
        GL_ARRAY_BUFFER, static_cast<GLsizeiptr>(count * sizeof(Ifaces::ScalerVertex)), vertices, GL_STATIC_DRAW);
    const long result = resultOfGlError(glGetError());
    if (result >= 0) {
        m_gl->vertexCount = static_cast<GLsizei>(count);
    }
    return result;
}

long GlesScaler::createTargetTexture(int width, int height)
{
    CurrentScope current(*this);
    if (!current.ok()) {
        return E_FAIL;
    }
    glDeleteFramebuffers(1, &m_gl->framebuffer);
    m_gl->framebuffer = 0;
    glDeleteTextures(1, &m_gl->target);
    m_gl->target = 0;
    m_gl->targetWidth = 0;
    m_gl->targetHeight = 0;
    if (width <= 0 || height <= 0) {
        return E_INVALIDARG;
    }
    clearGlErrors();
    glGenTextures(1, &m_gl->target);
    glBindTexture(GL_TEXTURE_2D, m_gl->target);
    glTexStorage2D(GL_TEXTURE_2D, 1, GL_RGBA8, width, height);
    const long result = resultOfGlError(glGetError());
    if (result < 0) {
        glDeleteTextures(1, &m_gl->target);
        m_gl->target = 0;
        return result;
    }
    m_gl->targetWidth = width;
    m_gl->targetHeight = height;
    return S_OK;
}

long GlesScaler::createRenderTargetView()
{
    CurrentScope current(*this);
    if (!current.ok() || !m_gl->target) {
        return current.ok() ? E_INVALIDARG : E_FAIL;
    }
    glDeleteFramebuffers(1, &m_gl->framebuffer);
    glGenFramebuffers(1, &m_gl->framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, m_gl->framebuffer);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, m_gl->target, 0);
    if (glCheckFramebufferStatus(GL_FRAMEBUFFER) != GL_FRAMEBUFFER_COMPLETE) {
        glDeleteFramebuffers(1, &m_gl->framebuffer);
        m_gl->framebuffer = 0;
        return E_FAIL;
    }
    return S_OK;
}

void GlesScaler::bindRenderTarget(int width, int height)
{
    CurrentScope current(*this);
    if (!current.ok()) {
        return;
    }
    glBindFramebuffer(GL_FRAMEBUFFER, m_gl->framebuffer);
    glViewport(0, 0, width, height);
    glDepthRangef(0.0f, 1.0f);
}

long GlesScaler::createSourceView(const Ifaces::ScalerSource& source)
{
    CurrentScope current(*this);
    m_gl->sourceView = 0;
    if (!current.ok()) {
        return E_FAIL;
    }
    if (source.nativeTexture) {
        // A texture name of this context.
        m_gl->sourceView = static_cast<GLuint>(reinterpret_cast<std::uintptr_t>(source.nativeTexture));
        return S_OK;
    }
    if (source.dmaBuf) {
        return importSource(*source.dmaBuf);
    }
    UploadFormat upload;
    const std::size_t pixelBytes = Ifaces::bytesPerPixel(source.format);
    if (!source.pixels || source.width <= 0 || source.height <= 0 || !uploadFormat(source.format, upload)
        || source.bytesPerLine % pixelBytes != 0 || source.bytesPerLine < pixelBytes * std::size_t(source.width)) {
        return E_INVALIDARG;
    }
    clearGlErrors();
    if (!m_gl->source) {
        glGenTextures(1, &m_gl->source);
    }
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, m_gl->source);
    glPixelStorei(GL_UNPACK_ALIGNMENT, source.bytesPerLine % 4 == 0 ? 4 : 1);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, static_cast<GLint>(source.bytesPerLine / pixelBytes));
    const bool sameTexture = m_gl->sourceWidth == source.width && m_gl->sourceHeight == source.height
        && m_gl->sourceInternalFormat == upload.internalFormat;
    const void* series = source.series ? source.series : source.pixels;
    const bool sameSeries = m_gl->sourceSeries == series && m_gl->sourceBytesPerLine == source.bytesPerLine;
    if (sameTexture && sameSeries && source.changedRects) {
        // The texture already holds the rest: only what changed crosses over.
        for (std::size_t i = 0; i < source.changedRectCount; ++i) {
            const Ifaces::ScalerRect& rect = source.changedRects[i];
            const int x0 = std::max(rect.x, 0);
            const int y0 = std::max(rect.y, 0);
            const int x1 = std::min(rect.x + rect.width, source.width);
            const int y1 = std::min(rect.y + rect.height, source.height);
            if (x1 <= x0 || y1 <= y0) {
                continue;
            }
            glPixelStorei(GL_UNPACK_SKIP_PIXELS, x0);
            glPixelStorei(GL_UNPACK_SKIP_ROWS, y0);
            glTexSubImage2D(GL_TEXTURE_2D, 0, x0, y0, x1 - x0, y1 - y0, upload.format, upload.type, source.pixels);
        }
        glPixelStorei(GL_UNPACK_SKIP_PIXELS, 0);
        glPixelStorei(GL_UNPACK_SKIP_ROWS, 0);
    } else if (!sameTexture) {
        glTexImage2D(GL_TEXTURE_2D, 0, upload.internalFormat, source.width, source.height, 0, upload.format,
            upload.type, source.pixels);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_BASE_LEVEL, 0);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAX_LEVEL, 0);
        m_gl->sourceWidth = source.width;
        m_gl->sourceHeight = source.height;
        m_gl->sourceInternalFormat = upload.internalFormat;
    } else {
        glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, source.width, source.height, upload.format, upload.type, source.pixels);
    }
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_SWIZZLE_R, upload.swizzle[0]);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_SWIZZLE_G, upload.swizzle[1]);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_SWIZZLE_B, upload.swizzle[2]);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_SWIZZLE_A, upload.swizzle[3]);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
    const long result = resultOfGlError(glGetError());
    if (result < 0) {
        m_gl->sourceWidth = 0;
        m_gl->sourceHeight = 0;
        m_gl->sourceInternalFormat = 0;
        m_gl->sourceSeries = nullptr;
        return result;
    }
    m_gl->sourceSeries = series;
    m_gl->sourceBytesPerLine = source.bytesPerLine;
    m_gl->sourceView = m_gl->source;
    return S_OK;
}

long GlesScaler::importSource(const Ifaces::DmaBufImage& image)
{
    clearGlErrors();
    // A texture of its own: the upload texture keeps the pixels that partial
    // uploads of CPU sources build on.
    if (!m_gl->imported) {
        glGenTextures(1, &m_gl->imported);
    }
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, m_gl->imported);
    const long result = m_importer->bindToTexture(image);
    if (result < 0) {
        return result;
    }
    // The driver reads the DRM layout itself, padding bytes of X formats as opaque.
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_SWIZZLE_R, GL_RED);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_SWIZZLE_G, GL_GREEN);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_SWIZZLE_B, GL_BLUE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_SWIZZLE_A, GL_ALPHA);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_BASE_LEVEL, 0);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAX_LEVEL, 0);
    // The upload texture no longer holds the picture before the next one.
    m_gl->sourceSeries = nullptr;
    m_gl->sourceView = m_gl->imported;
    return S_OK;
}

std::vector<Ifaces::DmaBufFormat> GlesScaler::importableDmaBufFormats(const std::vector<std::uint32_t>& wanted) const
{
    return m_importer->formats(wanted);
}

void GlesScaler::draw()
{
    CurrentScope current(*this);
    if (!current.ok() || !m_gl->program || !m_gl->sourceView || !m_gl->vertexBuffer || !m_gl->framebuffer) {
        return;
    }
    glDisable(GL_BLEND);
    glDisable(GL_DEPTH_TEST);
    glDisable(GL_SCISSOR_TEST);
    glDisable(GL_CULL_FACE);
    glUseProgram(m_gl->program);
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, m_gl->sourceView);
    glBindSampler(0, m_gl->sampler);
    glBindVertexArray(m_gl->vertexArray);
    glBindBuffer(GL_ARRAY_BUFFER, m_gl->vertexBuffer);
    glVertexAttribPointer(0, 3, GL_FLOAT, GL_FALSE, sizeof(Ifaces::ScalerVertex), nullptr);
    glVertexAttribPointer(
        1, 2, GL_FLOAT, GL_FALSE, sizeof(Ifaces::ScalerVertex), reinterpret_cast<const void*>(3 * sizeof(float)));
    glEnableVertexAttribArray(0);
    glEnableVertexAttribArray(1);
    glBindFramebuffer(GL_FRAMEBUFFER, m_gl->framebuffer);
    glDrawArrays(GL_TRIANGLES, 0, m_gl->vertexCount);
    glFlush();
}

void GlesScaler::releaseSourceView()
{
    m_gl->sourceView = 0;
    // The picture has been drawn: the buffer may go back to its producer.
    m_importer->release();
}

void* GlesScaler::nativeTarget() const
{
    if (!m_gl->target || !m_gl->framebuffer) {
        return nullptr;
    }
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(m_gl->target));
}

long GlesScaler::createStagingTexture()
{
    if (!m_gl->target) {
        return E_INVALIDARG;
    }
    m_staging.resize(static_cast<std::size_t>(m_gl->targetWidth) * static_cast<std::size_t>(m_gl->targetHeight) * 4);
    m_hasStaging = true;
    return S_OK;
}

void GlesScaler::copyTargetToStaging()
{
    CurrentScope current(*this);
    if (!current.ok() || !m_hasStaging || !m_gl->framebuffer) {
        return;
    }
    glBindFramebuffer(GL_FRAMEBUFFER, m_gl->framebuffer);
    glPixelStorei(GL_PACK_ALIGNMENT, 4);
    glPixelStorei(GL_PACK_ROW_LENGTH, 0);
    // Waits for the draw; rows arrive bottom-up, which the mirrored quad has
    // already turned into top line first.
    glReadPixels(0, 0, m_gl->targetWidth, m_gl->targetHeight, GL_RGBA, GL_UNSIGNED_BYTE, m_staging.data());
}

long GlesScaler::mapStaging(Ifaces::MappedImage& image)
{
    if (!m_hasStaging) {
        return E_INVALIDARG;
    }
    image.data = m_staging.data();
    image.rowPitch = static_cast<std::size_t>(m_gl->targetWidth) * 4;
    return S_OK;
}

void GlesScaler::unmapStaging()
{
}

void GlesScaler::releaseStaging()
{
    // The buffer's memory is kept for the next frame; only the copy is over.
    m_hasStaging = false;
}

} // namespace Egl

std::shared_ptr<Ifaces::GpuScaler> Ifaces::createPlatformGpuScaler(const std::shared_ptr<GraphicsDevice>& device)
{
    auto egl = std::dynamic_pointer_cast<Egl::EglDevice>(device);
    if (egl && !egl->prefersCpuScaling()) {
        return std::make_shared<Egl::GlesScaler>(egl, egl->display(), egl->context());
    }
    // No GPU context could be made for this output, or its renderer is a
    // software one that the CPU scaler outruns: the same drawing on the CPU.
    return std::make_shared<Cpu::SoftwareScaler>();
}

} // namespace Orvanta
