#pragma once

#include <memory>
#include <string>

namespace Orvanta {
namespace Ifaces {

/// Direction of an endpoint's audio, with the values of the Windows EDataFlow.
enum class DataFlow {
    Render = 0,
    Capture = 1,
    All = 2,
};

/// Role that a default endpoint plays, with the values of the Windows ERole.
enum class DeviceRole {
    Console = 0,
    Multimedia = 1,
    Communications = 2,
};

/// Endpoint states, the bits of the Windows DEVICE_STATE_XXX constants.
enum DeviceState : unsigned long {
    DeviceStateActive = 0x1,
    DeviceStateDisabled = 0x2,
    DeviceStateNotPresent = 0x4,
    DeviceStateUnplugged = 0x8,
};

class EndpointStream;
class EndpointMeter;

/**
 * One audio endpoint of the platform: an output device (captured in loopback)
 * or an input device.
 *
 * Identifiers are UTF-8 strings that stay stable for as long as the device
 * exists, so that notifications and lookups can be matched against them.
 * Every operation answers with a result code in the HRESULT convention; out
 * parameters are only written on success.
 */
class AudioEndpoint
{
public:
    virtual ~AudioEndpoint() = default;

    virtual long id(std::string& id) const = 0;
    virtual long state(unsigned long& state) const = 0;
    virtual long dataFlow(DataFlow& flow) const = 0;
    /// The name a user knows the device by.
    virtual long friendlyName(std::string& name) const = 0;

    /// A capture stream of the endpoint, not yet initialised.
    virtual long activateStream(std::unique_ptr<EndpointStream>& stream) = 0;
    /// The endpoint's master volume, through the meter port.
    virtual long activateVolume(std::shared_ptr<EndpointMeter>& volume) = 0;
    /// The endpoint's peak meter; endpoints without one fail with E_NOINTERFACE.
    virtual long activateMeter(std::shared_ptr<EndpointMeter>& meter) = 0;
};

} // namespace Ifaces
} // namespace Orvanta
