#pragma once

#include "ifaces/GpuScaler.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct pw_buffer;

namespace Orvanta {
namespace PipeWire {

/**
 * A video stream from a PipeWire node, received on a thread loop of its own.
 *
 * The stream never makes its reader wait: each period the loop drains the
 * queue to the newest buffer, and takeNewest() takes whatever picture is
 * newest at that moment.
 *
 * - Buffers in shared memory (memfd or plain memory), and DMA-BUFs in plain
 *   rows that the GPU cannot import, are copied out and handed straight back,
 *   because sources stall while a consumer holds on to their buffers.
 * - DMA-BUFs whose layout the GPU imports (Request::importable) are not
 *   copied at all: the newest one is held until the reader has drawn it.
 * - A DMA-BUF that cannot be read is not asked for again: the stream falls
 *   back to what else the source offers.
 *
 * Once the server goes away or the stream fails, every later call reports the
 * failure; a stream does not come back.
 */
class PipeWireStream : public std::enable_shared_from_this<PipeWireStream>
{
public:
    /// What to ask the source for.
    struct Request
    {
        /// The preferred frame size; any other the source has is taken too.
        int width = 0;
        int height = 0;
        /// A node by name instead of by id, when not empty.
        std::string targetName;
        /// DRM formats and modifiers the reader's GPU imports without a copy.
        std::vector<Ifaces::DmaBufFormat> importable;
    };

    /// One picture: pixels copied out of the stream, or a DMA-BUF held for the reader.
    class Frame
    {
    public:
        ~Frame();
        Frame(const Frame&) = delete;
        Frame& operator=(const Frame&) = delete;

        /// False for a buffer without a picture (corrupt or empty).
        bool hasPixels() const;
        /// True when the picture stays in GPU memory (source().dmaBuf is set).
        bool isDmaBuf() const;
        /// The picture as a scaler source; valid while the frame lives.
        const Ifaces::ScalerSource& source() const;

    private:
        friend class PipeWireStream;
        Frame(std::shared_ptr<PipeWireStream> stream, std::vector<std::uint8_t> pixels,
            const Ifaces::ScalerSource& source);
        Frame(std::shared_ptr<PipeWireStream> stream, pw_buffer* held, std::uint64_t generation,
            const Ifaces::DmaBufImage& image, Ifaces::PixelFormat format);

        std::shared_ptr<PipeWireStream> m_stream;
        std::vector<std::uint8_t> m_pixels;
        Ifaces::ScalerSource m_source;
        // A held DMA-BUF: the buffer goes back to the stream when the frame ends.
        pw_buffer* m_held = nullptr;
        std::uint64_t m_generation = 0;
        Ifaces::DmaBufImage m_image;
    };

    /**
     * Connects to the server through @p fd (from the portal; taken over) or,
     * with -1, the default server, and opens an inactive stream from node
     * @p nodeId (or from the node named in @p request).
     */
    static long open(int fd, std::uint32_t nodeId, const Request& request, std::shared_ptr<PipeWireStream>& stream);

    /// The DRM formats a stream takes as DMA-BUFs, to ask the GPU about.
    static std::vector<std::uint32_t> dmaBufFourccs();

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
    /// True when the negotiated buffers are DMA-BUFs.
    bool negotiatedDmaBuf() const;
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
