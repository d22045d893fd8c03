#pragma once

#include "ifaces/GpuScaler.h"

#include <EGL/egl.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace Orvanta {
namespace Egl {

class DmaBufImporter;

/**
 * The scaler's pipeline on OpenGL ES 3 through an EGL context without a
 * surface (Mesa's surfaceless platform or a DRM device, never the X server).
 *
 * It draws exactly what the Direct3D pipeline draws: the same quad in clip
 * space, a sampler that is linear when shrinking and nearest when enlarging
 * with clamped edges, an RGBA8 target, read back top line first. The vertex
 * stage mirrors y because OpenGL's framebuffer rows count from the bottom.
 *
 * Every operation, or every run of operations between beginUse and endUse,
 * makes the context current on the calling thread for its own span and
 * restores what was current before, so one scaler may be driven from
 * different threads one after the other, and several scalers may share a
 * thread. CPU sources are uploaded into a texture kept between frames;
 * DMA-BUF sources are imported where the driver can (see
 * importableDmaBufFormats()).
 */
class GlesScaler final : public Ifaces::GpuScaler
{
public:
    /// @p owner keeps @p display and @p context alive for the scaler's life.
    GlesScaler(std::shared_ptr<void> owner, EGLDisplay display, EGLContext context);
    ~GlesScaler() override;
    GlesScaler(const GlesScaler&) = delete;
    GlesScaler& operator=(const GlesScaler&) = delete;

    void beginUse() override;
    void endUse() override;
    long createVertexShader() override;
    long createPixelShader() override;
    long createInputLayout() override;
    long createSamplerState(const Ifaces::SamplerDescription& description) override;
    long createVertexBuffer(const Ifaces::ScalerVertex* vertices, std::size_t count) override;
    long createTargetTexture(int width, int height) override;
    long createRenderTargetView() override;
    void bindRenderTarget(int width, int height) override;
    long createSourceView(const Ifaces::ScalerSource& source) override;
    void draw() override;
    void releaseSourceView() override;
    void* nativeTarget() const override;
    long createStagingTexture() override;
    void copyTargetToStaging() override;
    long mapStaging(Ifaces::MappedImage& image) override;
    void unmapStaging() override;
    void releaseStaging() override;

    /// Of the DRM formats @p wanted, those this scaler takes as DMA-BUF
    /// sources, with their modifiers; empty where the driver imports none.
    std::vector<Ifaces::DmaBufFormat> importableDmaBufFormats(const std::vector<std::uint32_t>& wanted) const;

private:
    long importSource(const Ifaces::DmaBufImage& image);

    class CurrentScope;
    struct Objects;

    std::shared_ptr<void> m_owner;
    EGLDisplay m_display;
    EGLContext m_context;
    std::unique_ptr<Objects> m_gl;
    std::unique_ptr<DmaBufImporter> m_importer;
    std::unique_ptr<CurrentScope> m_use; // the context held for a run of operations
    int m_useDepth = 0;
    std::vector<unsigned char> m_staging;
    bool m_hasStaging = false;
};

} // namespace Egl
} // namespace Orvanta
