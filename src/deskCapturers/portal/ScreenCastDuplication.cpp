#include "portal/ScreenCastDuplication.h"

#include "ResultCodes.h"
#include "cpu/PictureTurn.h"
#include "ifaces/DisplayAdapter.h"
#include "ifaces/DisplayOutput.h"
#include "portal/OutputCast.h"
#include "wayland/WaylandCompositorAdapter.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace Orvanta {
namespace Portal {

namespace {

constexpr int kBgraFormat = 87; // DXGI_FORMAT_B8G8R8A8_UNORM
constexpr int kUprightRotation = 1; // DXGI_MODE_ROTATION_IDENTITY
/// How often a waiting acquire looks for the stream's next picture.
constexpr auto kPollInterval = std::chrono::milliseconds(4);

/// The compositor's name of @p output; empty for an output of another platform.
std::string outputName(const std::shared_ptr<Ifaces::DisplayOutput>& output)
{
    const auto compositorOutput = std::dynamic_pointer_cast<Wayland::WaylandOutput>(output);
    return compositorOutput ? compositorOutput->name() : std::string();
}

} // namespace

ScreenCastDuplication::ScreenCastDuplication(std::unique_ptr<OutputCast> cast, Ifaces::OutputRotation rotation)
    : m_cast(std::move(cast))
    , m_rotation(rotation)
{
}

ScreenCastDuplication::~ScreenCastDuplication()
{
    // The frame's buffer goes back to the stream before the stream ends.
    m_frame.reset();
}

Ifaces::DuplicationDescription ScreenCastDuplication::description() const
{
    Ifaces::DuplicationDescription description;
    const Ifaces::CaptureSize size = m_cast->size();
    const bool quarter = Cpu::isQuarterTurn(m_rotation);
    description.width = unsigned(quarter ? size.height : size.width);
    description.height = unsigned(quarter ? size.width : size.height);
    description.format = kBgraFormat;
    description.rotation = Cpu::isTurned(m_rotation) ? int(m_rotation) : kUprightRotation;
    return description;
}

long ScreenCastDuplication::acquireNextFrame(unsigned timeoutMilliseconds)
{
    if (m_frame)
        return DXGI_ERROR_INVALID_CALL;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMilliseconds);
    for (;;) {
        std::unique_ptr<Ifaces::CapturedFrame> frame;
        if (m_cast->takeNewest(frame) < 0)
            return DXGI_ERROR_ACCESS_LOST;
        if (frame && frame->hasSurface()) {
            Ifaces::ScalerSource source;
            if (frame->texture(source) < 0 || !source.pixels)
                return DXGI_ERROR_ACCESS_LOST;
            const Ifaces::CaptureSize size = m_cast->size();
            if (source.width != size.width || source.height != size.height)
                return DXGI_ERROR_ACCESS_LOST;
            m_frame = std::move(frame);
            return S_OK;
        }
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline)
            return DXGI_ERROR_WAIT_TIMEOUT;
        std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(kPollInterval, deadline - now));
    }
}

long ScreenCastDuplication::frameSource(Ifaces::ScalerSource& source)
{
    if (!m_frame)
        return DXGI_ERROR_INVALID_CALL;
    const long hr = m_frame->texture(source);
    if (hr < 0 || !Cpu::isTurned(m_rotation))
        return hr;
    const auto* pixels = static_cast<const std::uint8_t*>(source.pixels);
    Cpu::turnPicture(pixels, source.bytesPerLine, source.width, source.height, m_rotation, m_turned);
    const bool quarter = Cpu::isQuarterTurn(m_rotation);
    const int width = quarter ? source.height : source.width;
    const int height = quarter ? source.width : source.height;
    source.pixels = m_turned.data();
    source.width = width;
    source.height = height;
    source.bytesPerLine = std::size_t(width) * 4;
    // The changed parts name places of the unturned picture: all of it changed.
    source.changedRects = nullptr;
    source.changedRectCount = 0;
    source.series = nullptr;
    return S_OK;
}

long ScreenCastDuplication::releaseFrame()
{
    if (!m_frame)
        return DXGI_ERROR_INVALID_CALL;
    m_frame.reset();
    return S_OK;
}

ScreenCastDuplicator::ScreenCastDuplicator(std::shared_ptr<Ifaces::DisplayAdapter> adapter,
    std::shared_ptr<Ifaces::GraphicsDevice> device, std::shared_ptr<Ifaces::DisplayOutput> output)
    : m_adapter(std::move(adapter))
    , m_device(std::move(device))
    , m_named(std::move(output))
{
}

ScreenCastDuplicator::~ScreenCastDuplicator() = default;

long ScreenCastDuplicator::enumOutput(unsigned outputIndex)
{
    m_output.reset();
    if (!m_adapter)
        return E_POINTER;
    if (m_named) {
        // After an output went the indices shift: the index would name another output.
        const auto compositorOutput = std::dynamic_pointer_cast<Wayland::WaylandOutput>(m_named);
        if (compositorOutput && !compositorOutput->isPresent())
            return DXGI_ERROR_NOT_FOUND;
        m_output = m_named;
        return S_OK;
    }
    return m_adapter->enumOutput(outputIndex, m_output);
}

long ScreenCastDuplicator::queryDuplicationOutput()
{
    return m_output ? S_OK : E_NOINTERFACE;
}

long ScreenCastDuplicator::duplicateOutput(
    const std::vector<int>& formats, std::unique_ptr<Ifaces::OutputDuplication>& duplication)
{
    duplication.reset();
    if (!m_output)
        return E_NOINTERFACE;
    if (std::find(formats.begin(), formats.end(), kBgraFormat) == formats.end())
        return DXGI_ERROR_UNSUPPORTED;
    Ifaces::OutputDescription description;
    if (const long hr = m_output->describe(description); hr < 0)
        return hr;
    OutputCast::Output output;
    output.name = outputName(m_output);
    output.x = int(description.left);
    output.y = int(description.top);
    output.width = int(description.right - description.left);
    output.height = int(description.bottom - description.top);
    std::unique_ptr<OutputCast> cast;
    if (const long hr = OutputCast::open(output, m_consent, cast); hr < 0)
        return hr;
    duplication = std::make_unique<ScreenCastDuplication>(std::move(cast), description.rotation);
    return S_OK;
}

std::shared_ptr<Ifaces::GpuScaler> ScreenCastDuplicator::deviceScaler()
{
    return Ifaces::createPlatformGpuScaler(m_device);
}

void ScreenCastDuplicator::keepConsentIn(std::shared_ptr<Ifaces::ConsentStore> store)
{
    m_consent = std::move(store);
}

} // namespace Portal
} // namespace Orvanta
