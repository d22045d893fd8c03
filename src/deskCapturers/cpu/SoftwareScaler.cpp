#include "cpu/SoftwareScaler.h"

#include "ResultCodes.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <utility>

namespace Orvanta {
namespace Cpu {

namespace {

struct Rgba
{
    float r;
    float g;
    float b;
    float a;
};

float halfToFloat(std::uint16_t half)
{
    const int sign = (half >> 15) & 1;
    const int exponent = (half >> 10) & 0x1F;
    const int mantissa = half & 0x3FF;
    float value;
    if (exponent == 0) {
        value = std::ldexp(static_cast<float>(mantissa), -24);
    } else if (exponent == 31) {
        value = mantissa ? std::numeric_limits<float>::quiet_NaN() : std::numeric_limits<float>::infinity();
    } else {
        value = std::ldexp(static_cast<float>(mantissa + 1024), exponent - 25);
    }
    return sign ? -value : value;
}

Rgba fetch(const Ifaces::ScalerSource& source, int x, int y)
{
    const auto* line
        = static_cast<const std::uint8_t*>(source.pixels) + source.bytesPerLine * static_cast<std::size_t>(y);
    const std::uint8_t* p = line + Ifaces::bytesPerPixel(source.format) * static_cast<std::size_t>(x);
    constexpr float k8 = 1.0f / 255.0f;
    switch (source.format) {
    case Ifaces::PixelFormat::R8G8B8A8Unorm:
        return {p[0] * k8, p[1] * k8, p[2] * k8, p[3] * k8};
    case Ifaces::PixelFormat::B8G8R8A8Unorm:
        return {p[2] * k8, p[1] * k8, p[0] * k8, p[3] * k8};
    case Ifaces::PixelFormat::B8G8R8X8Unorm:
        return {p[2] * k8, p[1] * k8, p[0] * k8, 1.0f};
    case Ifaces::PixelFormat::R16G16B16A16Float: {
        std::uint16_t c[4];
        std::memcpy(c, p, sizeof c);
        return {halfToFloat(c[0]), halfToFloat(c[1]), halfToFloat(c[2]), halfToFloat(c[3])};
    }
    case Ifaces::PixelFormat::R16G16B16A16Unorm: {
        std::uint16_t c[4];
        std::memcpy(c, p, sizeof c);
        constexpr float k16 = 1.0f / 65535.0f;
        return {c[0] * k16, c[1] * k16, c[2] * k16, c[3] * k16};
    }
    case Ifaces::PixelFormat::R10G10B10A2Unorm: {
        std::uint32_t word;
        std::memcpy(&word, p, sizeof word);
        constexpr float k10 = 1.0f / 1023.0f;
        return {(word & 0x3FF) * k10, ((word >> 10) & 0x3FF) * k10, ((word >> 20) & 0x3FF) * k10,
            ((word >> 30) & 0x3) / 3.0f};
    }
    case Ifaces::PixelFormat::Unknown:
        break;
    }
    return {0.0f, 0.0f, 0.0f, 0.0f};
}

std::uint8_t toUnorm8(float value)
{
    if (!(value > 0.0f)) {
        return 0; // also NaN
    }
    if (value >= 1.0f) {
        return 255;
    }
    return static_cast<std::uint8_t>(std::lround(value * 255.0f));
}

Rgba nearest(const Ifaces::ScalerSource& source, float u, float v)
{
    const int x = std::clamp(static_cast<int>(std::floor(u * source.width)), 0, source.width - 1);
    const int y = std::clamp(static_cast<int>(std::floor(v * source.height)), 0, source.height - 1);
    return fetch(source, x, y);
}

Rgba bilinear(const Ifaces::ScalerSource& source, float u, float v)
{
    const float sx = u * source.width - 0.5f;
    const float sy = v * source.height - 0.5f;
    const float fx = std::floor(sx);
    const float fy = std::floor(sy);
    const float wx = sx - fx;
    const float wy = sy - fy;
    const int x0 = std::clamp(static_cast<int>(fx), 0, source.width - 1);
    const int x1 = std::clamp(static_cast<int>(fx) + 1, 0, source.width - 1);
    const int y0 = std::clamp(static_cast<int>(fy), 0, source.height - 1);
    const int y1 = std::clamp(static_cast<int>(fy) + 1, 0, source.height - 1);
    const Rgba a = fetch(source, x0, y0);
    const Rgba b = fetch(source, x1, y0);
    const Rgba c = fetch(source, x0, y1);
    const Rgba d = fetch(source, x1, y1);
    auto mix = [wx, wy](float p, float q, float r, float s) {
        return (p * (1.0f - wx) + q * wx) * (1.0f - wy) + (r * (1.0f - wx) + s * wx) * wy;
    };
    return {mix(a.r, b.r, c.r, d.r), mix(a.g, b.g, c.g, d.g), mix(a.b, b.b, c.b, d.b), mix(a.a, b.a, c.a, d.a)};
}

/// Texture coordinates as affine functions of target pixel positions: u = ua x + ub y + uc.
struct Plane
{
    double ua, ub, uc, va, vb, vc;
};

bool trianglePlane(const Ifaces::ScalerVertex* triangle, int viewportWidth, int viewportHeight, Plane& plane)
{
    double sx[3], sy[3];
    for (int i = 0; i < 3; ++i) {
        sx[i] = (double(triangle[i].x) + 1.0) * 0.5 * viewportWidth;
        sy[i] = (1.0 - double(triangle[i].y)) * 0.5 * viewportHeight;
    }
    const double area = (sx[1] - sx[0]) * (sy[2] - sy[0]) - (sx[2] - sx[0]) * (sy[1] - sy[0]);
    if (std::abs(area) < 1e-12) {
        return false;
    }
    auto solve = [&](float a0, float a1, float a2, double& a, double& b, double& c) {
        a = ((a1 - a0) * (sy[2] - sy[0]) - (a2 - a0) * (sy[1] - sy[0])) / area;
        b = ((a2 - a0) * (sx[1] - sx[0]) - (a1 - a0) * (sx[2] - sx[0])) / area;
        c = a0 - a * sx[0] - b * sy[0];
    };
    solve(triangle[0].u, triangle[1].u, triangle[2].u, plane.ua, plane.ub, plane.uc);
    solve(triangle[0].v, triangle[1].v, triangle[2].v, plane.va, plane.vb, plane.vc);
    return true;
}

bool samePlane(const Plane& a, const Plane& b)
{
    constexpr double kTolerance = 1e-6;
    return std::abs(a.ua - b.ua) < kTolerance && std::abs(a.ub - b.ub) < kTolerance
        && std::abs(a.uc - b.uc) < kTolerance && std::abs(a.va - b.va) < kTolerance
        && std::abs(a.vb - b.vb) < kTolerance && std::abs(a.vc - b.vc) < kTolerance;
}

/// Where one target line or column samples along one source axis.
struct Tap
{
    int first;
    int second;
    float weight; ///< of the second texel
};

/**
 * Whether target pixel positions 0..@p count, mapped by @p slope and @p offset,
 * cover the texture's whole axis from one edge to the other; @p backwards tells
 * which way round.
 */
bool spansWholeAxis(double slope, double offset, int count, bool& backwards)
{
    // Float vertices of a turned quad land a hair off the corners.
    constexpr double kTolerance = 1e-6;
    const double start = offset;
    const double end = slope * count + offset;
    if (std::abs(start) < kTolerance && std::abs(end - 1.0) < kTolerance) {
        backwards = false;
        return true;
    }
    if (std::abs(start - 1.0) < kTolerance && std::abs(end) < kTolerance) {
        backwards = true;
        return true;
    }
    return false;
}

std::vector<Tap> taps(int count, double slope, double offset, int texels, bool linear)
{
    std::vector<Tap> result(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        // The coordinate is rounded to 32 bits as the per-pixel path rounds it.
        const float coordinate = static_cast<float>(slope * (i + 0.5) + offset);
        if (linear) {
            const float position = coordinate * texels - 0.5f;
            const float base = std::floor(position);
            const int index = static_cast<int>(base);
            result[i] = {std::clamp(index, 0, texels - 1), std::clamp(index + 1, 0, texels - 1), position - base};
        } else {
            const int index = std::clamp(static_cast<int>(std::floor(coordinate * texels)), 0, texels - 1);
            result[i] = {index, index, 0.0f};
        }
    }
    return result;
}

/// How a quad that fills the whole target at a quarter turn maps the target
/// onto the source: every target line and every column samples the same texels.
struct AxisMapping
{
    bool turned = false; ///< target columns follow source lines
    bool linear = false;
    bool whole = false; ///< both target axes span their source axes edge to edge
    WholeTextureResampler::Layout layout;
    Plane plane;
    // Filled by mapTaps():
    std::vector<Tap> columns; ///< along source x, or source y when turned
    std::vector<Tap> lines; ///< along source y, or source x when turned
};

/**
 * The mapping of @p vertices drawn over a @p width by @p height target, for
 * 8-bit sources; false where the quad is not such a one.
 */
bool mapAxes(const std::vector<Ifaces::ScalerVertex>& vertices, int width, int height,
    const Ifaces::ScalerSource& source, const Ifaces::SamplerDescription& sampler, AxisMapping& mapping)
{
    const Ifaces::PixelFormat format = source.format;
    if (format != Ifaces::PixelFormat::R8G8B8A8Unorm && format != Ifaces::PixelFormat::B8G8R8A8Unorm
        && format != Ifaces::PixelFormat::B8G8R8X8Unorm) {
        return false;
    }
    if (vertices.size() != 6) {
        return false;
    }
    Plane plane, second;
    if (!trianglePlane(&vertices[0], width, height, plane) || !trianglePlane(&vertices[3], width, height, second)
        || !samePlane(plane, second)) {
        return false;
    }
    // The two triangles must make up the whole target: every corner of it is a vertex.
    for (const auto& corner : {std::pair<float, float> {-1, -1}, {-1, 1}, {1, -1}, {1, 1}}) {
        const bool found = std::any_of(vertices.begin(), vertices.end(), [&](const Ifaces::ScalerVertex& v) {
            return std::abs(v.x - corner.first) < 1e-5f && std::abs(v.y - corner.second) < 1e-5f;
        });
        if (!found) {
            return false;
        }
    }
    // A quarter turn in 32-bit floats leaves the quad a hair off the axes; a
    // drift that stays far below a texel over the whole target counts as none.
    constexpr double kFlat = 1e-6;
    const double across = width;
    const double down = height;
    if (std::abs(plane.ub) * down < kFlat && std::abs(plane.va) * across < kFlat) {
        mapping.turned = false; // u follows the columns, v the lines
    } else if (std::abs(plane.ua) * across < kFlat && std::abs(plane.vb) * down < kFlat) {
        mapping.turned = true; // u follows the lines, v the columns
    } else {
        return false;
    }

    const double texelsPerX = std::hypot(plane.ua * source.width, plane.va * source.height);
    const double texelsPerY = std::hypot(plane.ub * source.width, plane.vb * source.height);
    const bool minifying = std::max(texelsPerX, texelsPerY) > 1.0;
    mapping.linear = minifying ? (sampler.filter & 0x10) != 0 : (sampler.filter & 0x04) != 0;

    WholeTextureResampler::Layout& layout = mapping.layout;
    layout.turned = mapping.turned;
    mapping.whole = mapping.turned ? spansWholeAxis(plane.va, plane.vc, width, layout.mirroredAcross)
            && spansWholeAxis(plane.ub, plane.uc, height, layout.mirroredDown)
                                   : spansWholeAxis(plane.ua, plane.uc, width, layout.mirroredAcross)
            && spansWholeAxis(plane.vb, plane.vc, height, layout.mirroredDown);
    mapping.plane = plane;
    return true;
}

/// Fills the taps of @p mapping, for drawing pixel by pixel.
void mapTaps(AxisMapping& mapping, int width, int height, const Ifaces::ScalerSource& source)
{
    const Plane& plane = mapping.plane;
    mapping.columns = mapping.turned ? taps(width, plane.va, plane.vc, source.height, mapping.linear)
                                     : taps(width, plane.ua, plane.uc, source.width, mapping.linear);
    mapping.lines = mapping.turned ? taps(height, plane.ub, plane.uc, source.width, mapping.linear)
                                   : taps(height, plane.vb, plane.vc, source.height, mapping.linear);
}

/// Draws target columns [@p left, @p right) of lines [@p top, @p bottom) pixel by pixel.
void drawMapped(const AxisMapping& mapping, const Ifaces::ScalerSource& source, std::uint8_t* target,
    std::size_t rowPitch, int left, int right, int top, int bottom)
{
    int red = 0, blue = 2;
    if (source.format != Ifaces::PixelFormat::R8G8B8A8Unorm) {
        red = 2;
        blue = 0;
    }
    const bool opaque = source.format == Ifaces::PixelFormat::B8G8R8X8Unorm;
    const auto* pixels = static_cast<const std::uint8_t*>(source.pixels);
    const std::size_t pitch = source.bytesPerLine;
    auto texel = [pixels, pitch](int x, int y) {
        return pixels + pitch * std::size_t(y) + std::size_t(x) * 4;
    };

    for (int y = top; y < bottom; ++y) {
        const Tap& line = mapping.lines[std::size_t(y)];
        std::uint8_t* out = target + std::size_t(y) * rowPitch + std::size_t(left) * 4;
        for (int x = left; x < right; ++x, out += 4) {
            const Tap& column = mapping.columns[std::size_t(x)];
            // Source x and y of the four texels, and the weights along each.
            const Tap& alongX = mapping.turned ? line : column;
            const Tap& alongY = mapping.turned ? column : line;
            const std::uint8_t* a = texel(alongX.first, alongY.first);
            const std::uint8_t* b = texel(alongX.second, alongY.first);
            const std::uint8_t* c = texel(alongX.first, alongY.second);
            const std::uint8_t* d = texel(alongX.second, alongY.second);
            const float wx = alongX.weight;
            const float wy = alongY.weight;
            auto channel = [&](int i) {
                const float top = a[i] + (b[i] - a[i]) * wx;
                const float bottom = c[i] + (d[i] - c[i]) * wx;
                return static_cast<std::uint8_t>(top + (bottom - top) * wy + 0.5f);
            };
            out[0] = channel(red);
            out[1] = channel(1);
            out[2] = channel(blue);
            out[3] = opaque ? 255 : channel(3);
        }
    }
}

/// The first and one past the last entry of @p entries that read texels in [@p low, @p high); empty when none do.
std::pair<int, int> tapsReading(const std::vector<Tap>& entries, int low, int high)
{
    int first = int(entries.size());
    int last = -1;
    for (int i = 0; i < int(entries.size()); ++i) {
        const Tap& tap = entries[std::size_t(i)];
        if (std::max(tap.first, tap.second) >= low && std::min(tap.first, tap.second) < high) {
            first = std::min(first, i);
            last = i;
        }
    }
    return {first, last + 1};
}

} // namespace

SoftwareScaler::SoftwareScaler() = default;

SoftwareScaler::~SoftwareScaler() = default;

bool SoftwareScaler::drawsOnCpu() const
{
    return true;
}

long SoftwareScaler::createVertexShader()
{
    return S_OK;
}

long SoftwareScaler::createPixelShader()
{
    return S_OK;
}

long SoftwareScaler::createInputLayout()
{
    return S_OK;
}

long SoftwareScaler::createSamplerState(const Ifaces::SamplerDescription& description)
{
    m_kept.valid = false;
    m_sampler = description;
    m_hasSampler = true;
    return S_OK;
}

long SoftwareScaler::createVertexBuffer(const Ifaces::ScalerVertex* vertices, std::size_t count)
{
    if (!vertices || count == 0) {
        return E_INVALIDARG;
    }
    m_kept.valid = false;
    m_vertices.assign(vertices, vertices + count);
    return S_OK;
}

long SoftwareScaler::createTargetTexture(int width, int height)
{
    m_kept.valid = false;
    m_target.clear();
    m_targetWidth = 0;
    m_targetHeight = 0;
    m_hasTargetView = false;
    m_targetBound = false;
    if (width <= 0 || height <= 0) {
        return E_INVALIDARG;
    }
    m_target.assign(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4, 0);
    m_targetWidth = width;
    m_targetHeight = height;
    return S_OK;
}

long SoftwareScaler::createRenderTargetView()
{
    if (m_target.empty()) {
        return E_INVALIDARG;
    }
    m_hasTargetView = true;
    return S_OK;
}

void SoftwareScaler::bindRenderTarget(int width, int height)
{
    m_kept.valid = false;
    m_targetBound = m_hasTargetView;
    m_viewportWidth = width;
    m_viewportHeight = height;
}

long SoftwareScaler::createSourceView(const Ifaces::ScalerSource& source)
{
    m_hasSourceView = false;
    if (!source.pixels || source.width <= 0 || source.height <= 0 || Ifaces::bytesPerPixel(source.format) == 0
        || source.bytesPerLine < Ifaces::bytesPerPixel(source.format) * static_cast<std::size_t>(source.width)) {
        return E_INVALIDARG;
    }
    m_source = source;
    m_hasSourceView = true;
    return S_OK;
}

void SoftwareScaler::draw()
{
    if (!m_targetBound || !m_hasSourceView || !m_hasSampler) {
        return;
    }
    if (drawChangedParts()) {
        return;
    }
    drawPicture(m_target.data());
    // The target now holds this source's picture, for a next one that names what changed.
    m_kept.valid = true;
    m_kept.series = m_source.series ? m_source.series : m_source.pixels;
    m_kept.bytesPerLine = m_source.bytesPerLine;
    m_kept.width = m_source.width;
    m_kept.height = m_source.height;
    m_kept.format = m_source.format;
}

bool SoftwareScaler::drawsIntoMemory() const
{
    return true;
}

void SoftwareScaler::drawInto(std::uint8_t* pixels, std::size_t rowPitch)
{
    if (!m_targetBound || !m_hasSourceView || !m_hasSampler || !pixels) {
        return;
    }
    const std::size_t lineBytes = std::size_t(m_targetWidth) * 4;
    // Pictures of a series are drawn into the target, which keeps the last
    // one, so that the next needs only its changed parts drawn; the others go
    // straight into the caller's memory.
    if (m_source.changedRects || m_source.series || rowPitch != lineBytes) {
        draw();
        for (int line = 0; line < m_targetHeight; ++line) {
            std::memcpy(
                pixels + std::size_t(line) * rowPitch, m_target.data() + std::size_t(line) * lineBytes, lineBytes);
        }
        return;
    }
    m_kept.valid = false;
    drawPicture(pixels);
}

void SoftwareScaler::drawPicture(std::uint8_t* target)
{
    if (drawAxisAligned(target)) {
        return;
    }
    for (std::size_t first = 0; first + 3 <= m_vertices.size(); first += 3) {
        drawTriangle(&m_vertices[first], target);
    }
}

bool SoftwareScaler::drawChangedParts()
{
    const void* series = m_source.series ? m_source.series : m_source.pixels;
    if (!m_source.changedRects || !m_kept.valid || m_kept.series != series
        || m_kept.bytesPerLine != m_source.bytesPerLine || m_kept.width != m_source.width
        || m_kept.height != m_source.height || m_kept.format != m_source.format) {
        return false;
    }
    if (m_viewportWidth != m_targetWidth || m_viewportHeight != m_targetHeight) {
        return false;
    }
    AxisMapping mapping;
    if (!mapAxes(m_vertices, m_targetWidth, m_targetHeight, m_source, m_sampler, mapping)) {
        return false;
    }
    mapTaps(mapping, m_targetWidth, m_targetHeight, m_source);
    // The target parts whose samples read a changed texel, each drawn anew;
    // where they add up to much of the target, the whole picture is cheaper.
    struct Part
    {
        int left, right, top, bottom;
    };
    std::vector<Part> parts;
    long long area = 0;
    for (std::size_t i = 0; i < m_source.changedRectCount; ++i) {
        const Ifaces::ScalerRect& rect = m_source.changedRects[i];
        const int left = std::max(rect.x, 0);
        const int top = std::max(rect.y, 0);
        const int right = std::min(rect.x + std::max(rect.width, 0), m_source.width);
        const int bottom = std::min(rect.y + std::max(rect.height, 0), m_source.height);
        if (left >= right || top >= bottom) {
            continue;
        }
        const auto columns
            = mapping.turned ? tapsReading(mapping.columns, top, bottom) : tapsReading(mapping.columns, left, right);
        const auto lines
            = mapping.turned ? tapsReading(mapping.lines, left, right) : tapsReading(mapping.lines, top, bottom);
        if (columns.first >= columns.second || lines.first >= lines.second) {
            continue;
        }
        parts.push_back({columns.first, columns.second, lines.first, lines.second});
        area += (long long)(columns.second - columns.first) * (lines.second - lines.first);
    }
    // Drawn pixel by pixel, a part costs about eight times what the
    // vectorised whole picture does per target pixel.
    if (area * 8 > (long long)m_targetWidth * m_targetHeight) {
        return false;
    }
    const std::size_t rowPitch = std::size_t(m_targetWidth) * 4;
    for (const Part& part : parts) {
        drawMapped(mapping, m_source, m_target.data(), rowPitch, part.left, part.right, part.top, part.bottom);
    }
    return true;
}

bool SoftwareScaler::drawAxisAligned(std::uint8_t* target)
{
    // The quad at any quarter turn maps each target axis onto one source axis,
    // so every line and every column samples the same texels: those are worked
    // out once, and 8-bit pixels are read directly.
    if (m_viewportWidth != m_targetWidth || m_viewportHeight != m_targetHeight) {
        return false;
    }
    AxisMapping mapping;
    if (!mapAxes(m_vertices, m_targetWidth, m_targetHeight, m_source, m_sampler, mapping)) {
        return false;
    }
    if (mapping.linear && mapping.whole
        && m_resampler.draw(m_source, mapping.layout, target, m_targetWidth, m_targetHeight)) {
        return true;
    }
    mapTaps(mapping, m_targetWidth, m_targetHeight, m_source);
    drawMapped(mapping, m_source, target, std::size_t(m_targetWidth) * 4, 0, m_targetWidth, 0, m_targetHeight);
    return true;
}

void SoftwareScaler::drawTriangle(const Ifaces::ScalerVertex* triangle, std::uint8_t* target)
{
    // Viewport transform: clip-space y points up, target rows go down.
    const int width = std::min(m_viewportWidth, m_targetWidth);
    const int height = std::min(m_viewportHeight, m_targetHeight);
    double sx[3], sy[3];
    for (int i = 0; i < 3; ++i) {
        sx[i] = (static_cast<double>(triangle[i].x) + 1.0) * 0.5 * m_viewportWidth;
        sy[i] = (1.0 - static_cast<double>(triangle[i].y)) * 0.5 * m_viewportHeight;
    }
    const double area = (sx[1] - sx[0]) * (sy[2] - sy[0]) - (sx[2] - sx[0]) * (sy[1] - sy[0]);
    if (std::abs(area) < 1e-12) {
        return;
    }

    // u and v are affine in screen space: attribute = a * x + b * y + c.
    auto plane = [&](float a0, float a1, float a2, double& a, double& b, double& c) {
        a = ((a1 - a0) * (sy[2] - sy[0]) - (a2 - a0) * (sy[1] - sy[0])) / area;
        b = ((a2 - a0) * (sx[1] - sx[0]) - (a1 - a0) * (sx[2] - sx[0])) / area;
        c = a0 - a * sx[0] - b * sy[0];
    };
    double ua, ub, uc, va, vb, vc;
    plane(triangle[0].u, triangle[1].u, triangle[2].u, ua, ub, uc);
    plane(triangle[0].v, triangle[1].v, triangle[2].v, va, vb, vc);

    // One filter for the triangle: minification when a step of one target
    // pixel moves more than one source texel along either screen axis.
    const double texelsPerX = std::hypot(ua * m_source.width, va * m_source.height);
    const double texelsPerY = std::hypot(ub * m_source.width, vb * m_source.height);
    const bool minifying = std::max(texelsPerX, texelsPerY) > 1.0;
    const bool linearMin = (m_sampler.filter & 0x10) != 0;
    const bool linearMag = (m_sampler.filter & 0x04) != 0;
    const bool linear = minifying ? linearMin : linearMag;

    const double minX = std::max(0.0, std::floor(std::min({sx[0], sx[1], sx[2]})));
    const double maxX = std::min(static_cast<double>(width), std::ceil(std::max({sx[0], sx[1], sx[2]})));
    const double minY = std::max(0.0, std::floor(std::min({sy[0], sy[1], sy[2]})));
    const double maxY = std::min(static_cast<double>(height), std::ceil(std::max({sy[0], sy[1], sy[2]})));

    auto edge = [&](int i, int j, double px, double py) {
        return (sx[j] - sx[i]) * (py - sy[i]) - (sy[j] - sy[i]) * (px - sx[i]);
    };
    const double orientation = area > 0 ? 1.0 : -1.0;
    constexpr double kTolerance = 1e-9;

    for (int y = static_cast<int>(minY); y < static_cast<int>(maxY); ++y) {
        const double py = y + 0.5;
        std::uint8_t* line = target + static_cast<std::size_t>(y) * static_cast<std::size_t>(m_targetWidth) * 4;
        for (int x = static_cast<int>(minX); x < static_cast<int>(maxX); ++x) {
            const double px = x + 0.5;
            // Pixel centres on a shared edge are drawn by both triangles with
            // the same result, since the quad's mapping is one affine plane.
            if (edge(0, 1, px, py) * orientation < -kTolerance || edge(1, 2, px, py) * orientation < -kTolerance
                || edge(2, 0, px, py) * orientation < -kTolerance) {
                continue;
            }
            const float u = static_cast<float>(ua * px + ub * py + uc);
            const float v = static_cast<float>(va * px + vb * py + vc);
            const Rgba colour = linear ? bilinear(m_source, u, v) : nearest(m_source, u, v);
            std::uint8_t* out = line + static_cast<std::size_t>(x) * 4;
            out[0] = toUnorm8(colour.r);
            out[1] = toUnorm8(colour.g);
            out[2] = toUnorm8(colour.b);
            out[3] = toUnorm8(colour.a);
        }
    }
}

void SoftwareScaler::releaseSourceView()
{
    m_hasSourceView = false;
    m_source = Ifaces::ScalerSource();
}

void* SoftwareScaler::nativeTarget() const
{
    return m_hasTargetView ? const_cast<std::uint8_t*>(m_target.data()) : nullptr;
}

long SoftwareScaler::createStagingTexture()
{
    if (m_target.empty()) {
        return E_INVALIDARG;
    }
    // The buffer outlives releaseStaging(): a frame a tick reuses it.
    m_staging.resize(m_target.size());
    m_hasStaging = true;
    return S_OK;
}

void SoftwareScaler::copyTargetToStaging()
{
    if (m_hasStaging && m_staging.size() == m_target.size()) {
        std::memcpy(m_staging.data(), m_target.data(), m_target.size());
    }
}

long SoftwareScaler::mapStaging(Ifaces::MappedImage& image)
{
    if (!m_hasStaging) {
        return E_INVALIDARG;
    }
    image.data = m_staging.data();
    image.rowPitch = static_cast<std::size_t>(m_targetWidth) * 4;
    return S_OK;
}

void SoftwareScaler::unmapStaging()
{
}

void SoftwareScaler::releaseStaging()
{
    m_hasStaging = false;
}

} // namespace Cpu
} // namespace Orvanta
