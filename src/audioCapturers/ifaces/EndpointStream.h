#pragma once

#include "WaveFormat.h"

#include <cstdint>
#include <memory>

namespace Orvanta {
namespace Ifaces {

/// Stream flag: record what an output endpoint plays rather than an input.
constexpr std::uint32_t StreamFlagLoopback = 0x20000;

/**
 * The packets of a running capture stream, polled by one thread.
 *
 * A packet is raw interleaved frames in the stream's format. Each packet
 * taken with getBuffer is given back with releaseBuffer before the next is
 * taken. A stream that has failed for good reports a pending packet whose
 * getBuffer fails, so that a polling loop learns of it.
 */
class EndpointCapture
{
public:
    virtual ~EndpointCapture() = default;

    /// Frames in the next packet, 0 when none is ready.
    virtual long nextPacketSize(std::uint32_t* frames) = 0;
    virtual long getBuffer(const std::uint8_t** data, std::uint32_t* frames, std::uint32_t* flags) = 0;
    virtual long releaseBuffer(std::uint32_t frames) = 0;
};

/**
 * A capture stream of one endpoint, in a format fixed when it is initialised.
 */
class EndpointStream
{
public:
    virtual ~EndpointStream() = default;

    /// The format the endpoint mixes in; the stream can always be opened in it.
    virtual long mixFormat(WaveFormatExtensible& format) = 0;
    /// @p flags: 0 or StreamFlagLoopback. @p bufferDuration in units of 100 ns.
    virtual long initialize(const WaveFormatExtensible& format, std::uint32_t flags, std::int64_t bufferDuration) = 0;
    virtual long captureClient(std::unique_ptr<EndpointCapture>& capture) = 0;
    virtual long start() = 0;
    virtual long stop() = 0;

    /// Prepares the polling thread for the stream's calls (a COM apartment on Windows).
    virtual long initializeThread() = 0;
    virtual void uninitializeThread() = 0;
};

} // namespace Ifaces
} // namespace Orvanta
