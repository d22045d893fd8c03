#include "WaylandDuplication.h"

#include "ResultCodes.h"
#include "WaylandCompositorAdapter.h"
#include "WaylandConnection.h"
#include "WaylandScreencopy.h"
#include "cpu/PictureTurn.h"
#include "ifaces/DisplayAdapter.h"

#include <algorithm>

namespace Orvanta {
namespace Wayland {

namespace {

/// DXGI_FORMAT_B8G8R8A8_UNORM: the byte order of the compositor's shared-memory pictures.
constexpr int kBgraFormat = 87;

bool sameGeometry(const Ifaces::OutputDescription& a, const Ifaces::OutputDescription& b)
{
    return a.left == b.left && a.top == b.top && a.right == b.right && a.bottom == b.bottom && a.rotation == b.rotation;
}

} // namespace

long WaylandDuplication::create(
    std::shared_ptr<WaylandOutput> output, std::unique_ptr<Ifaces::OutputDuplication>& duplication)
{
    duplication.reset();
    if (!output)
        return E_POINTER;
    const std::shared_ptr<WaylandConnection> connection = output->connection();
    if (connection->isBroken())
        return DXGI_ERROR_SESSION_DISCONNECTED;
    if (!connection->hasScreencopy())
        return DXGI_ERROR_UNSUPPORTED;
    Ifaces::OutputDescription geometry;
    if (const long result = output->describe(geometry); result < 0)
        return result;
    WaylandOutputInfo info;
    if (!connection->output(output->name(), info))
        return DXGI_ERROR_NOT_CURRENTLY_AVAILABLE;
    if (info.modeWidth <= 0 || info.modeHeight <= 0)
        return DXGI_ERROR_NOT_CURRENTLY_AVAILABLE;
    // The compositor's pictures are the mode's size, before any turning.
    duplication.reset(new WaylandDuplication(std::move(output), geometry, info.modeWidth, info.modeHeight));
    return S_OK;
}

WaylandDuplication::WaylandDuplication(
    std::shared_ptr<WaylandOutput> output, const Ifaces::OutputDescription& geometry, int width, int height)
    : m_output(std::move(output))
    , m_geometry(geometry)
    , m_width(width)
    , m_height(height)
    , m_copy(std::make_unique<WaylandScreencopy>(m_output->connection(), m_output->name()))
{
}

WaylandDuplication::~WaylandDuplication() = default;

using Cpu::isQuarterTurn;
using Cpu::isTurned;

Ifaces::DuplicationDescription WaylandDuplication::description() const
{
    Ifaces::DuplicationDescription description;
    const bool quarter = isQuarterTurn(m_geometry.rotation);
    description.width = unsigned(quarter ? m_height : m_width);
    description.height = unsigned(quarter ? m_width : m_height);
    description.format = kBgraFormat;
    description.rotation = int(m_geometry.rotation);
    return description;
}

bool WaylandDuplication::geometryChanged() const
{
    Ifaces::OutputDescription now;
    if (m_output->describe(now) < 0)
        return true;
    return !sameGeometry(now, m_geometry);
}

long WaylandDuplication::acquireNextFrame(unsigned timeoutMilliseconds)
{
    if (m_frameHeld)
        return DXGI_ERROR_INVALID_CALL;
    // A copy with damage of an output that was switched off would wait for ever.
    if (geometryChanged())
        return DXGI_ERROR_ACCESS_LOST;
    const long result = m_copy->capture(!m_firstFrame, timeoutMilliseconds);
    if (result < 0)
        return result;
    if (m_copy->width() != m_width || m_copy->height() != m_height)
        return DXGI_ERROR_ACCESS_LOST;
    m_changedAll = m_firstFrame || m_copy->changedRects().empty();
    if (isTurned(m_geometry.rotation)) {
        Cpu::turnPicture(m_copy->pixels(), m_copy->bytesPerLine(), m_width, m_height, m_geometry.rotation, m_turned);
        // The changed parts are in the unturned picture's coordinates.
        m_changedAll = true;
    }
    m_firstFrame = false;
    m_frameHeld = true;
    return S_OK;
}

long WaylandDuplication::frameSource(Ifaces::ScalerSource& source)
{
    if (!m_frameHeld)
        return DXGI_ERROR_INVALID_CALL;
    source = Ifaces::ScalerSource();
    if (isTurned(m_geometry.rotation)) {
        const bool quarter = isQuarterTurn(m_geometry.rotation);
        source.pixels = m_turned.data();
        source.width = quarter ? m_height : m_width;
        source.height = quarter ? m_width : m_height;
        source.bytesPerLine = std::size_t(source.width) * 4;
        source.format = Ifaces::PixelFormat::B8G8R8X8Unorm;
        return S_OK;
    }
    source.pixels = m_copy->pixels();
    source.bytesPerLine = m_copy->bytesPerLine();
    source.width = m_width;
    source.height = m_height;
    source.format = Ifaces::PixelFormat::B8G8R8X8Unorm;
    if (!m_changedAll) {
        source.changedRects = m_copy->changedRects().data();
        source.changedRectCount = m_copy->changedRects().size();
    }
    return S_OK;
}

long WaylandDuplication::releaseFrame()
{
    if (!m_frameHeld)
        return DXGI_ERROR_INVALID_CALL;
    m_frameHeld = false;
    return S_OK;
}

WaylandDuplicator::WaylandDuplicator(std::shared_ptr<Ifaces::DisplayAdapter> adapter,
    std::shared_ptr<Ifaces::GraphicsDevice> device, std::shared_ptr<Ifaces::DisplayOutput> output)
    : m_adapter(std::move(adapter))
    , m_device(std::move(device))
    , m_named(std::dynamic_pointer_cast<WaylandOutput>(output))
{
}

WaylandDuplicator::~WaylandDuplicator() = default;

long WaylandDuplicator::enumOutput(unsigned outputIndex)
{
    m_output.reset();
    if (!m_adapter)
        return E_POINTER;
    if (m_named) {
        // After an output went the indices shift: the index would name another output.
        if (!m_named->isPresent())
            return DXGI_ERROR_NOT_FOUND;
        m_output = m_named;
        return S_OK;
    }
    std::shared_ptr<Ifaces::DisplayOutput> found;
    const long result = m_adapter->enumOutput(outputIndex, found);
    if (result < 0)
        return result;
    m_output = std::dynamic_pointer_cast<WaylandOutput>(found);
    return m_output ? S_OK : E_NOINTERFACE;
}

long WaylandDuplicator::queryDuplicationOutput()
{
    return m_output ? S_OK : E_NOINTERFACE;
}

long WaylandDuplicator::duplicateOutput(
    const std::vector<int>& formats, std::unique_ptr<Ifaces::OutputDuplication>& duplication)
{
    if (std::find(formats.begin(), formats.end(), kBgraFormat) == formats.end()) {
        duplication.reset();
        return DXGI_ERROR_UNSUPPORTED;
    }
    return WaylandDuplication::create(m_output, duplication);
}

std::shared_ptr<Ifaces::GpuScaler> WaylandDuplicator::deviceScaler()
{
    return Ifaces::createPlatformGpuScaler(m_device);
}

} // namespace Wayland
} // namespace Orvanta
