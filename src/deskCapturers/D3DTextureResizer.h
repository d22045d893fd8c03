#pragma once

#include "ifaces/GpuScaler.h"

#include <opencv2/core/mat.hpp>

#include <QtCore/QString>

#include <array>
#include <atomic>
#include <memory>

/**
 * Scales, converts and optionally turns a desktop picture into a small RGBA8
 * cv::Mat in one GPU pass.
 *
 * The source is drawn over the whole render target as one quad of two
 * triangles; the sampler shrinks with bilinear filtering and enlarges with
 * nearest-texel filtering, clamped at the edges, and nothing is done to the
 * colours, so high-range sources saturate at 255. Only the scaled picture is
 * read back to the CPU.
 *
 * Call order: setContext, then setTargetSize, then any number of
 * resizeToCVMat; setTargetSize and setRotation may be called again at will.
 * Not thread-safe: the caller serialises every call.
 */
class D3DTextureResizer
{
public:
    /// Display rotations, numbered as DXGI_MODE_ROTATION.
    enum Rotation : int {
        RotationUnspecified = 0,
        RotationIdentity = 1,
        Rotation90 = 2,
        Rotation180 = 3,
        Rotation270 = 4,
    };

    using Quad = std::array<Orvanta::Ifaces::ScalerVertex, 6>;

    D3DTextureResizer();
    ~D3DTextureResizer();
    D3DTextureResizer(const D3DTextureResizer&) = delete;
    D3DTextureResizer& operator=(const D3DTextureResizer&) = delete;

    /// One-time setup of the pipeline on @p scaler, the device's drawing context.
    /// On failure what was made so far is kept.
    bool setContext(std::shared_ptr<Orvanta::Ifaces::GpuScaler> scaler);
    /// "GPU" or "CPU" for the scaler that setContext() was given; empty
    /// before. Safe from any thread.
    QString scalerName() const;
    /// (Re)creates the render target; fails for an empty size.
    bool setTargetSize(const cv::Size& size);
    /// Rebuilds the quad turned for @p rotation, the source first mirrored
    /// left to right if @p mirrored; the target keeps its size.
    void setRotation(int rotation, bool mirrored = false);
    /// Draws @p source into the target; the target as a device texture, or null.
    void* resize(const Orvanta::Ifaces::ScalerSource& source);
    /// Draws and reads back; the frame (R, G, B, A, top line first) or an empty matrix.
    cv::Mat resizeToCVMat(const Orvanta::Ifaces::ScalerSource& source);

    int rotation() const;
    bool isMirrored() const;
    cv::Size targetSize() const;

    /// The quad for @p rotation (and the mirror before it), in clip space, as drawn.
    static Quad quad(int rotation, bool mirrored = false);
    /// The sampler every adapter is given.
    static Orvanta::Ifaces::SamplerDescription samplerDescription();

private:
    /// resizeToCVMat() for a scaler that draws into memory.
    cv::Mat drawIntoFrame(const Orvanta::Ifaces::ScalerSource& source);

    std::shared_ptr<Orvanta::Ifaces::GpuScaler> m_scaler;
    /// 0 no scaler yet, 1 a GPU scaler, 2 the CPU one; read by other threads.
    enum class ScalerKind { None, Gpu, Cpu };
    // Read from any thread by scalerName() while the polling thread sets the scaler.
    std::atomic<ScalerKind> m_scalerKind {ScalerKind::None};
    cv::Size m_targetSize;
    int m_rotation = RotationUnspecified;
    bool m_mirrored = false;
    bool m_hasVertexBuffer = false;
    bool m_hasTarget = false;
};
