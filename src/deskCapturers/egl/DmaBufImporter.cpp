#include "egl/DmaBufImporter.h"

#include "ResultCodes.h"
#include "egl/EglDevice.h"

namespace Orvanta {
namespace Egl {

namespace {

// The plane attributes of eglCreateImageKHR, four planes in order.
constexpr EGLint PlaneFd[Ifaces::DmaBufImage::MaxPlanes]
    = {EGL_DMA_BUF_PLANE0_FD_EXT, EGL_DMA_BUF_PLANE1_FD_EXT, EGL_DMA_BUF_PLANE2_FD_EXT, EGL_DMA_BUF_PLANE3_FD_EXT};
constexpr EGLint PlaneOffset[Ifaces::DmaBufImage::MaxPlanes] = {EGL_DMA_BUF_PLANE0_OFFSET_EXT,
    EGL_DMA_BUF_PLANE1_OFFSET_EXT, EGL_DMA_BUF_PLANE2_OFFSET_EXT, EGL_DMA_BUF_PLANE3_OFFSET_EXT};
constexpr EGLint PlanePitch[Ifaces::DmaBufImage::MaxPlanes] = {EGL_DMA_BUF_PLANE0_PITCH_EXT,
    EGL_DMA_BUF_PLANE1_PITCH_EXT, EGL_DMA_BUF_PLANE2_PITCH_EXT, EGL_DMA_BUF_PLANE3_PITCH_EXT};
constexpr EGLint PlaneModifierLo[Ifaces::DmaBufImage::MaxPlanes] = {EGL_DMA_BUF_PLANE0_MODIFIER_LO_EXT,
    EGL_DMA_BUF_PLANE1_MODIFIER_LO_EXT, EGL_DMA_BUF_PLANE2_MODIFIER_LO_EXT, EGL_DMA_BUF_PLANE3_MODIFIER_LO_EXT};
constexpr EGLint PlaneModifierHi[Ifaces::DmaBufImage::MaxPlanes] = {EGL_DMA_BUF_PLANE0_MODIFIER_HI_EXT,
    EGL_DMA_BUF_PLANE1_MODIFIER_HI_EXT, EGL_DMA_BUF_PLANE2_MODIFIER_HI_EXT, EGL_DMA_BUF_PLANE3_MODIFIER_HI_EXT};

} // namespace

DmaBufImporter::DmaBufImporter(EGLDisplay display)
    : m_display(display)
{
    const char* extensions = display == EGL_NO_DISPLAY ? nullptr : eglQueryString(display, EGL_EXTENSIONS);
    if (!EglDevice::hasExtension(extensions, "EGL_EXT_image_dma_buf_import")
        || !EglDevice::hasExtension(extensions, "EGL_EXT_image_dma_buf_import_modifiers"))
        return;
    m_createImage = reinterpret_cast<PFNEGLCREATEIMAGEKHRPROC>(eglGetProcAddress("eglCreateImageKHR"));
    m_destroyImage = reinterpret_cast<PFNEGLDESTROYIMAGEKHRPROC>(eglGetProcAddress("eglDestroyImageKHR"));
    m_queryFormats = reinterpret_cast<PFNEGLQUERYDMABUFFORMATSEXTPROC>(eglGetProcAddress("eglQueryDmaBufFormatsEXT"));
    m_queryModifiers
        = reinterpret_cast<PFNEGLQUERYDMABUFMODIFIERSEXTPROC>(eglGetProcAddress("eglQueryDmaBufModifiersEXT"));
    m_imageTargetTexture
        = reinterpret_cast<PFNGLEGLIMAGETARGETTEXTURE2DOESPROC>(eglGetProcAddress("glEGLImageTargetTexture2DOES"));
    if (!m_createImage || !m_destroyImage || !m_queryFormats || !m_queryModifiers || !m_imageTargetTexture) {
        m_createImage = nullptr;
        m_imageTargetTexture = nullptr;
    }
}

DmaBufImporter::~DmaBufImporter()
{
    release();
}

bool DmaBufImporter::isAvailable() const
{
    return m_createImage && m_imageTargetTexture;
}

std::vector<Ifaces::DmaBufFormat> DmaBufImporter::formats(const std::vector<std::uint32_t>& wanted) const
{
    std::vector<Ifaces::DmaBufFormat> result;
    if (!isAvailable())
        return result;
    EGLint count = 0;
    if (!m_queryFormats(m_display, 0, nullptr, &count) || count <= 0)
        return result;
    std::vector<EGLint> supported(static_cast<std::size_t>(count));
    if (!m_queryFormats(m_display, count, supported.data(), &count))
        return result;
    supported.resize(static_cast<std::size_t>(count));
    for (const std::uint32_t fourcc : wanted) {
        bool known = false;
        for (const EGLint format : supported)
            known = known || static_cast<std::uint32_t>(format) == fourcc;
        EGLint modifierCount = 0;
        if (!known || !m_queryModifiers(m_display, EGLint(fourcc), 0, nullptr, nullptr, &modifierCount)
            || modifierCount <= 0)
            continue;
        std::vector<EGLuint64KHR> modifiers(static_cast<std::size_t>(modifierCount));
        std::vector<EGLBoolean> externalOnly(static_cast<std::size_t>(modifierCount));
        if (!m_queryModifiers(
                m_display, EGLint(fourcc), modifierCount, modifiers.data(), externalOnly.data(), &modifierCount))
            continue;
        Ifaces::DmaBufFormat format;
        format.fourcc = fourcc;
        for (EGLint i = 0; i < modifierCount; ++i) {
            if (!externalOnly[std::size_t(i)])
                format.modifiers.push_back(modifiers[std::size_t(i)]);
        }
        if (!format.modifiers.empty())
            result.push_back(std::move(format));
    }
    return result;
}

std::vector<EGLint> DmaBufImporter::imageAttributes(const Ifaces::DmaBufImage& image)
{
    std::vector<EGLint> attributes;
    if (image.width <= 0 || image.height <= 0 || image.planeCount <= 0
        || image.planeCount > Ifaces::DmaBufImage::MaxPlanes)
        return attributes;
    attributes = {EGL_WIDTH, image.width, EGL_HEIGHT, image.height, EGL_LINUX_DRM_FOURCC_EXT, EGLint(image.fourcc)};
    for (int i = 0; i < image.planeCount; ++i) {
        const Ifaces::DmaBufPlane& plane = image.planes[i];
        if (plane.fd < 0 || plane.stride == 0)
            return {};
        attributes.insert(attributes.end(),
            {PlaneFd[i], plane.fd, PlaneOffset[i], EGLint(plane.offset), PlanePitch[i], EGLint(plane.stride),
                PlaneModifierLo[i], EGLint(image.modifier & 0xFFFFFFFFu), PlaneModifierHi[i],
                EGLint(image.modifier >> 32)});
    }
    attributes.push_back(EGL_NONE);
    return attributes;
}

long DmaBufImporter::bindToTexture(const Ifaces::DmaBufImage& image)
{
    release();
    if (!isAvailable())
        return E_NOTIMPL;
    const std::vector<EGLint> attributes = imageAttributes(image);
    if (attributes.empty())
        return E_INVALIDARG;
    m_image = m_createImage(m_display, EGL_NO_CONTEXT, EGL_LINUX_DMA_BUF_EXT, nullptr, attributes.data());
    if (m_image == EGL_NO_IMAGE_KHR)
        return EglDevice::resultFromEglError(eglGetError());
    m_imageTargetTexture(GL_TEXTURE_2D, m_image);
    if (glGetError() != GL_NO_ERROR) {
        release();
        return E_FAIL;
    }
    return S_OK;
}

void DmaBufImporter::release()
{
    if (m_image != EGL_NO_IMAGE_KHR && m_destroyImage)
        m_destroyImage(m_display, m_image);
    m_image = EGL_NO_IMAGE_KHR;
}

} // namespace Egl
} // namespace Orvanta
