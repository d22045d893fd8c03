#include "portal/OutputCast.h"

#include "ResultCodes.h"
#include "portal/PortalGraphicsCapture.h"

namespace Orvanta {
namespace Portal {

namespace {

/// DXGI_FORMAT_B8G8R8A8_UNORM, the pool's format: the stream says what it really is.
constexpr int kBgraFormat = 87;
constexpr int kPoolBuffers = 2;

} // namespace

long OutputCast::open(
    const Output& output, const std::shared_ptr<Ifaces::ConsentStore>& consent, std::unique_ptr<OutputCast>& cast)
{
    cast.reset();
    auto system = std::make_shared<PortalGraphicsCapture>();
    Ifaces::ItemRequest request;
    request.monitor = PortalGraphicsCapture::PortalMonitor;
    if (consent)
        request.restoreToken = consent->restoreToken(output.name);
    std::shared_ptr<Ifaces::CaptureItem> item;
    Ifaces::ItemGrant grant;
    long hr = system->createItemForOutput(request, item, grant);
    if (hr < 0)
        return hr;
    if (!item)
        return E_POINTER;
    Ifaces::CaptureSize size;
    if ((hr = item->size(size)) < 0)
        return hr;
    const bool pickedOther = !Ifaces::isPickedOutput(grant, size, output.x, output.y, output.width, output.height);
    if (consent)
        consent->keep(output.name, request, grant, pickedOther);
    if (pickedOther)
        return DXGI_ERROR_NOT_CURRENTLY_AVAILABLE;

    std::unique_ptr<OutputCast> opened(new OutputCast);
    opened->m_size = size;
    const std::shared_ptr<Ifaces::CaptureDevice> device = PortalGraphicsCapture::createCpuCaptureDevice();
    if ((hr = system->createFreeThreadedPool(*device, kBgraFormat, kPoolBuffers, size, opened->m_pool)) < 0)
        return hr;
    if ((hr = opened->m_pool->createCaptureSession(*item, opened->m_session)) < 0)
        return hr;
    if ((hr = opened->m_session->startCapture()) < 0)
        return hr;
    cast = std::move(opened);
    return S_OK;
}

OutputCast::~OutputCast()
{
    if (m_pool)
        m_pool->close();
}

Ifaces::CaptureSize OutputCast::size() const
{
    return m_size;
}

long OutputCast::takeNewest(std::unique_ptr<Ifaces::CapturedFrame>& frame)
{
    return m_pool->tryGetNextFrame(frame);
}

} // namespace Portal
} // namespace Orvanta
