#pragma once

#include "ifaces/GpuScaler.h"

#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GLES3/gl3.h>
// After gl3.h, which gives the types the extension header uses.
#include <GLES2/gl2ext.h>

#include <cstdint>
#include <vector>

namespace Orvanta {
namespace Egl {

/**
 * Turns DMA-BUF pictures into textures of an EGL display without a copy
 * (EGL_EXT_image_dma_buf_import with its modifiers extension).
 *
 * Drivers that lack the extensions, Mesa's software renderer among them,
 * import nothing: formats() is then empty and callers keep to memory the CPU
 * can read. One importer keeps at most one image, the one bound last, alive
 * until release() or its end.
 */
class DmaBufImporter
{
public:
    explicit DmaBufImporter(EGLDisplay display);
    ~DmaBufImporter();
    DmaBufImporter(const DmaBufImporter&) = delete;
    DmaBufImporter& operator=(const DmaBufImporter&) = delete;

    bool isAvailable() const;

    /// Of the DRM formats @p wanted, those the display imports, each with the
    /// modifiers it samples as an ordinary 2D texture (external-only ones are left out).
    std::vector<Ifaces::DmaBufFormat> formats(const std::vector<std::uint32_t>& wanted) const;

    /**
     * Makes an image of @p image and binds it as the storage of the texture
     * bound to GL_TEXTURE_2D of the current context.
     * The image made before is released first.
     */
    long bindToTexture(const Ifaces::DmaBufImage& image);
    /// Releases the image bound last; the texture keeps its storage until respecified.
    void release();

    /// The attribute list of eglCreateImageKHR for @p image, ending with EGL_NONE;
    /// empty when the image is malformed (no planes, too many, a bad descriptor or size).
    static std::vector<EGLint> imageAttributes(const Ifaces::DmaBufImage& image);

private:
    EGLDisplay m_display;
    PFNEGLCREATEIMAGEKHRPROC m_createImage = nullptr;
    PFNEGLDESTROYIMAGEKHRPROC m_destroyImage = nullptr;
    PFNEGLQUERYDMABUFFORMATSEXTPROC m_queryFormats = nullptr;
    PFNEGLQUERYDMABUFMODIFIERSEXTPROC m_queryModifiers = nullptr;
    PFNGLEGLIMAGETARGETTEXTURE2DOESPROC m_imageTargetTexture = nullptr;
    EGLImageKHR m_image = EGL_NO_IMAGE_KHR;
};

} // namespace Egl
} // namespace Orvanta
