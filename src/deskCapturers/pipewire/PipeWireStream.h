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
 * - Buffers in memfd shared memory, and DMA-BUFs whose layout the GPU
 *   imports (Request::importable), are not copied at all: the newest one is
 *   held until the reader has drawn it, and every other goes straight back.
 *   The stream holds at most two buffers, the newest and the reader's, so
 *   that the source never runs dry.
 * - Plain memory, three-byte pixels and DMA-BUFs in plain rows that the GPU
 *   cannot import are copied out and handed straight back.
 * - Where the source says which parts of a picture changed, frames carry the
 *   parts changed since the frame taken before, so that a reader that keeps
 *   the last picture moves only those.
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

    /// What a frame carries; filled by the stream.
    struct Picture
    {
        /// Pixels copied out of the stream, when the picture was copied.
        std::vector<std::uint8_t> pixels;
        Ifaces::ScalerSource source;
        /// A held buffer, which goes back to the stream when the frame ends.
        pw_buffer* held = nullptr;
        std::uint64_t generation = 0;
        /// The planes of a held DMA-BUF, with descriptors of the frame's own.
        Ifaces::DmaBufImage image;
        /// Keeps the mapped memory of a held buffer alive.
        std::shared_ptr<const void> memory;
        /// What changed since the frame taken before; meaningful when changeKnown.
        std::vector<Ifaces::ScalerRect> changed;
        bool changeKnown = false;
    };

    /// One picture: pixels copied out of the stream, or a buffer held for the reader.
    class Frame
    {
    public:
        ~Frame();
        Frame(const Frame&) = delete;
        Frame& operator=(const Frame&) = delete;

        /// False for a buffer without a picture (corrupt or empty).
        bool hasPicture() const;
        /// True when the picture stays in GPU memory (source().dmaBuf is set).
        bool isDmaBuf() const;
        /// True when the picture is read from the stream's own buffer, uncopied.
        bool isHeld() const;
        /// The picture as a scaler source; valid while the frame lives. Its
        /// changed parts, where set, are those since the frame taken before.
        const Ifaces::ScalerSource& source() const;

    private:
        friend class PipeWireStream;
        Frame(std::shared_ptr<PipeWireStream> stream, Picture picture);

        std::shared_ptr<PipeWireStream> m_stream;
        Picture m_picture;
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
    /// Whether the source's pictures are mirrored left to right before that rotation (a flipped transform).
    bool isMirrored() const;
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
