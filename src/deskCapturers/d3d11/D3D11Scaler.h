#pragma once

#include "ifaces/GpuScaler.h"

#include <memory>

struct ID3D11Device;
struct ID3D11DeviceContext;

namespace Orvanta {
namespace D3D11 {

/**
 * The scaler's pipeline on Direct3D 11: the resizer's precompiled shaders,
 * an RGBA8 render target drawn with one quad, and a staging texture per
 * frame for the read-back.
 *
 * Device textures (ID3D11Texture2D of the same device) are sampled through a
 * shader resource view in their own format; CPU pixels are first uploaded into
 * an immutable texture that lives until the view is released.
 *
 * It draws on the device's immediate context and keeps the target binding
 * and viewport there between frames, so the caller serialises every call,
 * and nobody else may rebind the context's output stage in between.
 */
class D3D11Scaler final : public Ifaces::GpuScaler
{
public:
    /// Both are referenced for the scaler's life.
    D3D11Scaler(ID3D11Device* device, ID3D11DeviceContext* context);
    ~D3D11Scaler() override;
    D3D11Scaler(const D3D11Scaler&) = delete;
    D3D11Scaler& operator=(const D3D11Scaler&) = delete;

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

private:
    struct Objects;
    std::unique_ptr<Objects> d;
};

} // namespace D3D11
} // namespace Orvanta
