#pragma once

#include "ifaces/GraphicsAdapterSource.h"

namespace Orvanta {
namespace Sysfs {

/**
 * Graphics adapters as the kernel's DRM devices (the "cardN" entries of
 * /sys/class/drm), in card order.
 *
 * A card on the PCI bus is named through the PCI ID database, vendor and
 * device; any other card (vkms, vgem and the like) has no hardware of its own
 * and is reported as a software adapter under its driver's name.
 */
class DrmAdapterSource final : public Ifaces::GraphicsAdapterSource
{
public:
    explicit DrmAdapterSource(std::string drmClassPath = "/sys/class/drm");

    std::unique_ptr<Ifaces::GraphicsAdapterList> open() const override;

private:
    std::string m_drmClassPath;
};

} // namespace Sysfs
} // namespace Orvanta
