#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace Orvanta {
namespace Ifaces {

/**
 * Pixel layouts a scaler source may have. The values are the DXGI_FORMAT
 * numbers of the same layouts, so that a Windows adapter can pass them on and
 * logs show the numbers users know.
 */
enum class PixelFormat : int {
    Unknown = 0,
    R16G16B16A16Float = 10, ///< four half floats; values above 1 saturate in the 8-bit target
    R16G16B16A16Unorm = 11,
    R10G10B10A2Unorm = 24, ///< packed little-endian 32-bit words, red in the low bits
    R8G8B8A8Unorm = 28,
    B8G8R8A8Unorm = 87,
    B8G8R8X8Unorm = 88, ///< the fourth byte is padding: it reads as opaque
};

/// Bytes per pixel of @p format, or 0 for Unknown.
constexpr std::size_t bytesPerPixel(PixelFormat format)
{
    switch (format) {
    case PixelFormat::R16G16B16A16Float:
    case PixelFormat::R16G16B16A16Unorm:
        return 8;
    case PixelFormat::R10G10B10A2Unorm:
    case PixelFormat::R8G8B8A8Unorm:
    case PixelFormat::B8G8R8A8Unorm:
    case PixelFormat::B8G8R8X8Unorm:
        return 4;
    case PixelFormat::Unknown:
        break;
    }
    return 0;
}

/**
 * One corner of the drawn quad: a clip-space position and the texture
 * coordinate that travels with it. Five 32-bit floats, 20 bytes, laid out as
 * a vertex buffer holds them (position at offset 0, coordinate at offset 12).
 */
struct ScalerVertex
{
    float x;
    float y;
    float z;
    float u;
    float v;
};
static_assert(sizeof(ScalerVertex) == 20, "a vertex is five packed floats");

/**
 * How the source is sampled. The numbers are those of D3D11_SAMPLER_DESC so
 * that a Direct3D adapter can use them as they are; other adapters translate
 * them into their own API.
 */
struct SamplerDescription
{
    int filter = 0; ///< D3D11_FILTER, e.g. 16: linear when shrinking, nearest when enlarging
    int addressU = 0; ///< D3D11_TEXTURE_ADDRESS_MODE, 3 is clamp
    int addressV = 0;
    int addressW = 0;
    float mipLodBias = 0.0f;
    unsigned maxAnisotropy = 0;
    int comparisonFunc = 0; ///< D3D11_COMPARISON_FUNC
    float borderColor[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    float minLod = 0.0f;
    float maxLod = 0.0f;
};

/// A rectangle of a source in pixels.
struct ScalerRect
{
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
};

/// Format modifier of a DMA-BUF laid out in plain rows (DRM_FORMAT_MOD_LINEAR).
constexpr std::uint64_t DmaBufLinearModifier = 0;

/// A DRM four-character code, such as 'XR24' (bytes B, G, R, padding in memory).
constexpr std::uint32_t drmFourcc(char a, char b, char c, char d)
{
    return std::uint32_t(std::uint8_t(a)) | std::uint32_t(std::uint8_t(b)) << 8 | std::uint32_t(std::uint8_t(c)) << 16
        | std::uint32_t(std::uint8_t(d)) << 24;
}

/// A layout a scaler imports from DMA-BUFs: a DRM format and the modifiers it takes with it.
struct DmaBufFormat
{
    std::uint32_t fourcc = 0;
    std::vector<std::uint64_t> modifiers;
};

/// One plane of a DMA-BUF picture. The descriptor belongs to whoever made the image.
struct DmaBufPlane
{
    int fd = -1;
    std::uint32_t offset = 0;
    std::uint32_t stride = 0;
};

/**
 * A picture in GPU memory shared by another process (Linux DMA-BUF): imported
 * by the scaler without a copy through the CPU.
 */
struct DmaBufImage
{
    static constexpr int MaxPlanes = 4;

    int width = 0;
    int height = 0;
    std::uint32_t fourcc = 0;
    std::uint64_t modifier = DmaBufLinearModifier;
    int planeCount = 0;
    DmaBufPlane planes[MaxPlanes];
};

/**
 * The picture to scale: pixels in CPU memory, a texture that lives on the
 * scaler's own device, or a DMA-BUF the scaler's device imports. Only one of
 * @c pixels, @c nativeTexture and @c dmaBuf is set.
 * The caller keeps the memory alive until the scaler has released its view of
 * it (releaseSourceView).
 */
struct ScalerSource
{
    const void* pixels = nullptr;
    std::size_t bytesPerLine = 0;
    /// A device texture (ID3D11Texture2D* for Direct3D 11); not owned.
    void* nativeTexture = nullptr;
    /// A DMA-BUF picture; not owned. Width, height and format are those of the image.
    const DmaBufImage* dmaBuf = nullptr;
    int width = 0;
    int height = 0;
    PixelFormat format = PixelFormat::Unknown;
    /// A hint for scalers that keep a copy of the source: when set, only these
    /// parts changed since the previous source of the same series, size and
    /// format. Null means that anything may have changed.
    const ScalerRect* changedRects = nullptr;
    std::size_t changedRectCount = 0;
    /// The series of pictures the changed parts refer to, for sources whose
    /// pictures come in different memory each time (a stream's buffers); null
    /// means that the series is the memory at @c pixels.
    const void* series = nullptr;
};

/// A read-back image: RGBA8 rows, the first row the top line of the target.
struct MappedImage
{
    const std::uint8_t* data = nullptr;
    std::size_t rowPitch = 0;
};

/**
 * The GPU side of the resizer: the device operations that draw a textured quad
 * into an RGBA8 render target and read the target back.
 *
 * The caller (the resizer logic) decides what is made when, with which quad,
 * and what a failure means; an adapter only performs each step on its API and
 * reports the result in the HRESULT convention (negative is failure). Every
 * create... operation replaces what an earlier call of the same operation
 * made. An adapter is used from one thread at a time.
 */
class GpuScaler
{
public:
    virtual ~GpuScaler() = default;

    /// Bracket a run of the operations below made on one thread, so that an
    /// adapter can set up its context once for the run rather than for each
    /// operation. Runs nest; every beginUse is matched by an endUse on the
    /// same thread. Optional: the operations work without them.
    virtual void beginUse()
    {
    }
    virtual void endUse()
    {
    }

    /// True for a scaler that draws with the CPU rather than a GPU device.
    virtual bool drawsOnCpu() const
    {
        return false;
    }

    /// Pipeline objects, made once. The vertex stage passes position and
    /// coordinate through unchanged; the pixel stage returns the sample as is.
    virtual long createVertexShader() = 0;
    virtual long createPixelShader() = 0;
    /// Position: three floats at offset 0; coordinate: two floats at offset 12.
    virtual long createInputLayout() = 0;
    virtual long createSamplerState(const SamplerDescription& description) = 0;

    /// The quad: @p count vertices forming a triangle list.
    virtual long createVertexBuffer(const ScalerVertex* vertices, std::size_t count) = 0;

    /// The render target: @p width by @p height, RGBA8, usable as render target and shader resource.
    virtual long createTargetTexture(int width, int height) = 0;
    virtual long createRenderTargetView() = 0;
    /// Binds the target view and a viewport covering (0, 0, width, height), depth 0 to 1.
    /// Stays bound until called again.
    virtual void bindRenderTarget(int width, int height) = 0;

    /// A view of @p source in its own format, for the next draw.
    virtual long createSourceView(const ScalerSource& source) = 0;
    /// No blending, both shaders, the source view and the sampler in slot 0,
    /// triangle list, the vertex buffer (stride 20, offset 0), the input layout;
    /// draws six vertices and flushes.
    virtual void draw() = 0;
    virtual void releaseSourceView() = 0;
    /// The target as a device texture (ID3D11Texture2D* for Direct3D 11), or null.
    virtual void* nativeTarget() const = 0;

    /// True for a scaler that can draw straight into the caller's memory
    /// (drawInto), so that a frame read back needs no target or staging copy.
    virtual bool drawsIntoMemory() const
    {
        return false;
    }
    /// Draws what draw() would, but into @p pixels: RGBA8 lines of the
    /// target's size, @p rowPitch bytes apart. Only where drawsIntoMemory();
    /// the target's own contents are unspecified afterwards.
    virtual void drawInto(std::uint8_t* pixels, std::size_t rowPitch)
    {
        (void)pixels;
        (void)rowPitch;
    }

    /// A CPU-readable copy of the target: made per frame, copied into, mapped,
    /// unmapped and released. mapStaging waits until drawing has finished.
    virtual long createStagingTexture() = 0;
    virtual void copyTargetToStaging() = 0;
    virtual long mapStaging(MappedImage& image) = 0;
    virtual void unmapStaging() = 0;
    virtual void releaseStaging() = 0;
};

class GraphicsDevice;

/**
 * A scaler drawing with @p device, the GPU device made for an output: the
 * platform's adapter for that kind of device (Direct3D 11 on Windows, OpenGL
 * ES on an EGL device elsewhere). Where the platform allows, a null or foreign
 * device gives a scaler that works on the CPU; otherwise null.
 */
std::shared_ptr<GpuScaler> createPlatformGpuScaler(const std::shared_ptr<GraphicsDevice>& device);

} // namespace Ifaces
} // namespace Orvanta
