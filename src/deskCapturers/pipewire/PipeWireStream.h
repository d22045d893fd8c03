#pragma once

#include "ifaces/GpuScaler.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

namespace Orvanta {
namespace PipeWire {

/**
 * A video stream from a PipeWire node, received on a thread loop of its own.
 *
 * The stream never makes its reader wait: each period the loop copies the
 * newest buffer's picture into a slot and hands every buffer straight back,
 * and takeNewest() takes whatever picture is newest at that moment. Buffers come in shared memory (memfd or
 * plain memory), in one of the 8-bit RGB layouts the stream offers.
 *
 * Once the server goes away or the stream fails, every later call reports the
 * failure; a stream does not come back.
 */
class PipeWireStream : public std::enable_shared_from_this<PipeWireStream>
{
public:
    /// One picture, copied out of the stream's buffer: the reader may take its time.
    class Frame
    {
    public:
        ~Frame();
        Frame(const Frame&) = delete;
        Frame& operator=(const Frame&) = delete;

        /// False for a buffer without pixels (corrupt or empty).
        bool hasPixels() const;
        /// The pixels as a scaler source; valid while the frame lives.
        const Ifaces::ScalerSource& source() const;

    private:
        friend class PipeWireStream;
        Frame(std::shared_ptr<PipeWireStream> stream, std::vector<std::uint8_t> pixels,
            const Ifaces::ScalerSource& source);

        std::shared_ptr<PipeWireStream> m_stream;
        std::vector<std::uint8_t> m_pixels;
        Ifaces::ScalerSource m_source;
    };

    /**
     * Connects to the server through @p fd (from the portal; taken over) or,
     * with -1, the default server, and opens an inactive stream from node
     * @p nodeId (or from the node named by @p targetName when not empty),
     * preferring frames of @p width by @p height.
     */
    static long open(int fd, std::uint32_t nodeId, int width, int height, std::shared_ptr<PipeWireStream>& stream,
        const char* targetName = nullptr);

    ~PipeWireStream();
    PipeWireStream(const PipeWireStream&) = delete;
    PipeWireStream& operator=(const PipeWireStream&) = delete;

    /// Lets buffers flow.
    long start();
    /// The newest buffer, or null in @p frame when none came since the last call.
    long takeNewest(std::unique_ptr<Frame>& frame);
    /// Asks the source for frames of a new size; nothing happens when it is the current one.
    long renegotiate(int width, int height);
    /// The source's rotation as a DXGI_MODE_ROTATION value (1 until the source says otherwise).
    int rotation() const;
    /// Width and height of the negotiated format; 0 before negotiation.
    void negotiatedSize(int& width, int& height) const;
    /// Disconnects and ends the stream; later calls fail.
    void close();

private:
    struct Loop;
    PipeWireStream();

    long failure() const;

    std::unique_ptr<Loop> m_loop;
};

} // namespace PipeWire
} // namespace Orvanta
