#pragma once

#include "ifaces/AudioEndpoint.h"
#include "ifaces/EndpointStream.h"

#include <memory>
#include <string>

namespace Orvanta {
namespace Pulse {

class PeakLevels;
class ServerConnection;
struct RecordStream;

/**
 * A record stream of the sound server: of a sink's monitor source for an
 * output, in loopback, or of an input source directly.
 *
 * The stream is pinned to its source, so that neither a new default sink nor
 * the removal of its sink moves it elsewhere; when its source or the server
 * goes away the stream fails for good, and the next packet says so.
 */
class EndpointStream : public Ifaces::EndpointStream
{
public:
    EndpointStream(std::shared_ptr<ServerConnection> connection, std::string name, Ifaces::DataFlow flow,
        std::shared_ptr<PeakLevels> levels);
    ~EndpointStream() override;

    long mixFormat(Ifaces::WaveFormatExtensible& format) override;
    long initialize(
        const Ifaces::WaveFormatExtensible& format, std::uint32_t flags, std::int64_t bufferDuration) override;
    long captureClient(std::unique_ptr<Ifaces::EndpointCapture>& capture) override;
    long start() override;
    long stop() override;
    long initializeThread() override;
    void uninitializeThread() override;

private:
    long cork(bool paused);

    std::shared_ptr<ServerConnection> m_connection;
    std::string m_name;
    Ifaces::DataFlow m_flow;
    std::shared_ptr<PeakLevels> m_levels;
    std::shared_ptr<RecordStream> m_stream;
};

} // namespace Pulse
} // namespace Orvanta
