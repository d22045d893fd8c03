#include "D3DTextureResizer.h"

#include "Helpers.h"
#include "ResultCodes.h"

#include <QtCore/QDebug>

#include <cmath>
#include <cstring>
#include <limits>

using Orvanta::Ifaces::GpuScaler;
using Orvanta::Ifaces::MappedImage;
using Orvanta::Ifaces::SamplerDescription;
using Orvanta::Ifaces::ScalerSource;
using Orvanta::Ifaces::ScalerVertex;

namespace {

// Two triangles covering clip space; v grows downwards so that the top of the
// source lands on the top line of the target.
constexpr D3DTextureResizer::Quad kUprightQuad = {{
    {-1.0f, -1.0f, 0.0f, 0.0f, 1.0f},
    {-1.0f, 1.0f, 0.0f, 0.0f, 0.0f},
    {1.0f, -1.0f, 0.0f, 1.0f, 1.0f},
    {1.0f, -1.0f, 0.0f, 1.0f, 1.0f},
    {-1.0f, 1.0f, 0.0f, 0.0f, 0.0f},
    {1.0f, 1.0f, 0.0f, 1.0f, 0.0f},
}};

// The angles are kept as the 32-bit floats the quad has always been turned by;
// 180 degrees turns clockwise, the others anticlockwise.
bool rotationAngle(int rotation, float& angle)
{
    switch (rotation) {
    case D3DTextureResizer::Rotation90:
        angle = 1.5707964f;
        return true;
    case D3DTextureResizer::Rotation180:
        angle = -3.1415927f;
        return true;
    case D3DTextureResizer::Rotation270:
        angle = 4.712389f;
        return true;
    default:
        return false;
    }
}

/// One public operation's run of scaler calls.
class ScalerUse
{
public:
    explicit ScalerUse(GpuScaler* scaler)
        : m_scaler(scaler)
    {
        if (m_scaler) {
            m_scaler->beginUse();
        }
    }
    ~ScalerUse()
    {
        if (m_scaler) {
            m_scaler->endUse();
        }
    }
    ScalerUse(const ScalerUse&) = delete;
    ScalerUse& operator=(const ScalerUse&) = delete;

private:
    GpuScaler* m_scaler;
};

} // namespace

D3DTextureResizer::D3DTextureResizer() = default;

D3DTextureResizer::~D3DTextureResizer() = default;

D3DTextureResizer::Quad D3DTextureResizer::quad(int rotation, bool mirrored)
{
    Quad vertices = kUprightQuad;
    if (mirrored) {
        // Each corner samples the source's opposite column; the turn below applies to the mirrored picture.
        for (ScalerVertex& vertex : vertices)
            vertex.u = 1.0f - vertex.u;
    }
    float angle = 0.0f;
    if (!rotationAngle(rotation, angle)) {
        return vertices;
    }
    const float cosine = std::cos(angle);
    const float sine = std::sin(angle);
    for (ScalerVertex& vertex : vertices) {
        const float x = vertex.x;
        const float y = vertex.y;
        vertex.x = x * cosine - y * sine;
        vertex.y = x * sine + y * cosine;
    }
    return vertices;
}

SamplerDescription D3DTextureResizer::samplerDescription()
{
    SamplerDescription description;
    description.filter = 16; // D3D11_FILTER_MIN_LINEAR_MAG_MIP_POINT
    description.addressU = 3; // D3D11_TEXTURE_ADDRESS_CLAMP
    description.addressV = 3;
    description.addressW = 3;
    description.mipLodBias = 0.0f;
    description.maxAnisotropy = 0;
    description.comparisonFunc = 4; // D3D11_COMPARISON_LESS_EQUAL
    description.minLod = 0.0f;
    description.maxLod = std::numeric_limits<float>::max();
    return description;
}

QString D3DTextureResizer::scalerName() const
{
    switch (m_scalerKind.load()) {
    case ScalerKind::Gpu:
        return QStringLiteral("GPU");
    case ScalerKind::Cpu:
        return QStringLiteral("CPU");
    case ScalerKind::None:
        break;
    }
    return QString();
}

bool D3DTextureResizer::setContext(std::shared_ptr<GpuScaler> scaler)
{
    m_scaler = std::move(scaler);
    if (!m_scaler)
        m_scalerKind.store(ScalerKind::None);
    else
        m_scalerKind.store(m_scaler->drawsOnCpu() ? ScalerKind::Cpu : ScalerKind::Gpu);
    if (!m_scaler) {
        // The fixed text names the first step; the reader learns the real cause here.
        qDebug() << "[D3DTextureResizer]: There is no device context to draw with: the scaler is null";
        qCritical() << "Failed to create D3D11VertexShader" << win32ErrorMsg(E_POINTER);
        return false;
    }
    const ScalerUse use(m_scaler.get());

    long result = m_scaler->createVertexShader();
    if (result < 0) {
        qCritical() << "Failed to create D3D11VertexShader" << win32ErrorMsg(result);
        return false;
    }
    result = m_scaler->createPixelShader();
    if (result < 0) {
        qCritical() << "Failed to create D3D11PixelShader" << win32ErrorMsg(result);
        return false;
    }
    result = m_scaler->createInputLayout();
    if (result < 0) {
        qCritical() << "Failed to create D3D11InputLayout" << win32ErrorMsg(result);
        return false;
    }
    result = m_scaler->createSamplerState(samplerDescription());
    if (result < 0) {
        qCritical() << "Failed to create D3D11SamplerState" << win32ErrorMsg(result);
        return false;
    }
    setRotation(RotationIdentity);
    return true;
}

bool D3DTextureResizer::setTargetSize(const cv::Size& size)
{
    if (!m_scaler) {
        qCritical() << "Failed to create D3D11Texture" << win32ErrorMsg(E_POINTER);
        return false;
    }
    const ScalerUse use(m_scaler.get());
    m_hasTarget = false;
    long result = m_scaler->createTargetTexture(size.width, size.height);
    if (result < 0) {
        qCritical() << "Failed to create D3D11Texture" << win32ErrorMsg(result);
        return false;
    }
    result = m_scaler->createRenderTargetView();
    if (result < 0) {
        qCritical() << "Failed to create D3D11RenderTargetView" << win32ErrorMsg(result);
        return false;
    }
    // The binding and the viewport stay in the context; resize relies on them.
    m_scaler->bindRenderTarget(size.width, size.height);
    m_targetSize = size;
    m_hasTarget = true;
    return true;
}

void D3DTextureResizer::setRotation(int rotation, bool mirrored)
{
    if (!m_scaler) {
        return;
    }
    const ScalerUse use(m_scaler.get());
    const Quad vertices = quad(rotation, mirrored);
    const long result = m_scaler->createVertexBuffer(vertices.data(), vertices.size());
    if (result < 0) {
        m_hasVertexBuffer = false;
        qCritical() << "Failed to create D3D11Buffer" << win32ErrorMsg(result);
        return;
    }
    m_hasVertexBuffer = true;
    m_rotation = rotation;
    m_mirrored = mirrored;
}

void* D3DTextureResizer::resize(const ScalerSource& source)
{
    if (!m_scaler || !m_hasTarget || !m_hasVertexBuffer) {
        return nullptr;
    }
    const ScalerUse use(m_scaler.get());
    const long result = m_scaler->createSourceView(source);
    if (result < 0) {
        qCritical() << "Failed to create D3D11DhaderResourceView" << win32ErrorMsg(result);
        return nullptr;
    }
    // The quad covers the whole target at every rotation, so it is not cleared first.
    m_scaler->draw();
    m_scaler->releaseSourceView();
    return m_scaler->nativeTarget();
}

cv::Mat D3DTextureResizer::resizeToCVMat(const ScalerSource& source)
{
    const ScalerUse use(m_scaler.get());
    if (m_scaler && m_scaler->drawsIntoMemory()) {
        return drawIntoFrame(source);
    }
    if (!resize(source)) {
        qCritical() << "[D3DTextureResizer]: Failed to resize D3D11Texture";
        return cv::Mat();
    }
    long result = m_scaler->createStagingTexture();
    if (result < 0) {
        qCritical() << "[D3DTextureResizer]: Failed to create temp D3D11Texture " << win32ErrorMsg(result);
        return cv::Mat();
    }
    m_scaler->copyTargetToStaging();

    MappedImage mapped;
    result = m_scaler->mapStaging(mapped);
    if (result < 0) {
        qCritical() << "[D3DTextureResizer]: Failed to map the temp texture: " << win32ErrorMsg(result);
        m_scaler->releaseStaging();
        return cv::Mat();
    }
    if (!mapped.data) {
        m_scaler->unmapStaging();
        m_scaler->releaseStaging();
        return cv::Mat();
    }

    // The one copy out of the mapping is the frame's only copy; bytes past a
    // row in a wider pitch are left behind.
    cv::Mat frame(m_targetSize.height, m_targetSize.width, CV_8UC4);
    const std::size_t rowBytes = static_cast<std::size_t>(m_targetSize.width) * 4;
    for (int row = 0; row < m_targetSize.height; ++row) {
        std::memcpy(frame.ptr(row), mapped.data + mapped.rowPitch * static_cast<std::size_t>(row), rowBytes);
    }
    m_scaler->unmapStaging();
    m_scaler->releaseStaging();
    return frame;
}

cv::Mat D3DTextureResizer::drawIntoFrame(const ScalerSource& source)
{
    // The scaler writes the frame itself: no target or staging copy to read back.
    if (!m_hasTarget || !m_hasVertexBuffer) {
        qCritical() << "[D3DTextureResizer]: Failed to resize D3D11Texture";
        return cv::Mat();
    }
    const long result = m_scaler->createSourceView(source);
    if (result < 0) {
        qCritical() << "Failed to create D3D11DhaderResourceView" << win32ErrorMsg(result);
        qCritical() << "[D3DTextureResizer]: Failed to resize D3D11Texture";
        return cv::Mat();
    }
    cv::Mat frame(m_targetSize.height, m_targetSize.width, CV_8UC4);
    m_scaler->drawInto(frame.data, frame.step[0]);
    m_scaler->releaseSourceView();
    return frame;
}

int D3DTextureResizer::rotation() const
{
    return m_rotation;
}

bool D3DTextureResizer::isMirrored() const
{
    return m_mirrored;
}

cv::Size D3DTextureResizer::targetSize() const
{
    return m_targetSize;
}
