#pragma once

#include "cpu/WholeTextureResampler.h"
#include "ifaces/GpuScaler.h"

#include <array>
#include <cstdint>
#include <vector>

namespace Orvanta {
namespace Cpu {

/**
 * The scaler's pipeline carried out on the CPU, for machines where no GPU
 * context can be made.
 *
 * It rasterises the given quad into an RGBA8 target exactly as the GPU path
 * does: pixel centres, affine texture coordinates per triangle, bilinear
 * sampling when the triangle shrinks the source and nearest-texel sampling
 * when it enlarges it, coordinates clamped to the edge, colours saturated to
 * 0..1 and rounded to 8 bits. Sources must be CPU pixels; device textures are
 * refused.
 *
 * The target keeps the last picture drawn into it: a source that names its
 * changed parts is then drawn only where its samples read them.
 */
class SoftwareScaler final : public Ifaces::GpuScaler
{
public:
    SoftwareScaler();
    ~SoftwareScaler() override;

    bool drawsOnCpu() const override;
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
    bool drawsIntoMemory() const override;
    void drawInto(std::uint8_t* pixels, std::size_t rowPitch) override;
    long createStagingTexture() override;
    void copyTargetToStaging() override;
    long mapStaging(Ifaces::MappedImage& image) override;
    void unmapStaging() override;
    void releaseStaging() override;

private:
    void drawPicture(std::uint8_t* target);
    bool drawChangedParts();
    bool drawAxisAligned(std::uint8_t* target);
    void drawTriangle(const Ifaces::ScalerVertex* triangle, std::uint8_t* target);

    std::vector<Ifaces::ScalerVertex> m_vertices;
    Ifaces::SamplerDescription m_sampler;
    bool m_hasSampler = false;

    std::vector<std::uint8_t> m_target;
    int m_targetWidth = 0;
    int m_targetHeight = 0;
    bool m_hasTargetView = false;
    bool m_targetBound = false;
    int m_viewportWidth = 0;
    int m_viewportHeight = 0;

    Ifaces::ScalerSource m_source;
    bool m_hasSourceView = false;

    WholeTextureResampler m_resampler;

    /// Which source's picture the target holds, so that a next picture of the
    /// same series is drawn only where it changed.
    struct KeptPicture
    {
        bool valid = false;
        const void* series = nullptr;
        std::size_t bytesPerLine = 0;
        int width = 0;
        int height = 0;
        Ifaces::PixelFormat format = Ifaces::PixelFormat::Unknown;
    };
    KeptPicture m_kept;

    std::vector<std::uint8_t> m_staging;
    bool m_hasStaging = false;
};

} // namespace Cpu
} // namespace Orvanta
