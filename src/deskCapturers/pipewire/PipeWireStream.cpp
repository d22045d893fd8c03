#include "pipewire/PipeWireStream.h"

#include "ResultCodes.h"

#include <pipewire/pipewire.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>

#include <fcntl.h>
#include <linux/dma-buf.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>

namespace Orvanta {
namespace PipeWire {

namespace {

constexpr int MaxDimension = 16384;
constexpr std::size_t MaxFormatParams = 16;

void initialiseOnce()
{
    static std::once_flag once;
    std::call_once(once, [] { pw_init(nullptr, nullptr); });
}

/// The 8-bit RGB layouts the stream takes, as PipeWire, DRM and the scaler name them.
struct Layout
{
    spa_video_format spa;
    std::uint32_t fourcc; ///< 0: never offered as a DMA-BUF
    Ifaces::PixelFormat pixelFormat;
    std::size_t bytesPerPixel;
};

constexpr Layout Layouts[] = {
    {SPA_VIDEO_FORMAT_BGRx, Ifaces::drmFourcc('X', 'R', '2', '4'), Ifaces::PixelFormat::B8G8R8X8Unorm, 4},
    {SPA_VIDEO_FORMAT_BGRA, Ifaces::drmFourcc('A', 'R', '2', '4'), Ifaces::PixelFormat::B8G8R8A8Unorm, 4},
    {SPA_VIDEO_FORMAT_RGBx, Ifaces::drmFourcc('X', 'B', '2', '4'), Ifaces::PixelFormat::R8G8B8A8Unorm, 4},
    {SPA_VIDEO_FORMAT_RGBA, Ifaces::drmFourcc('A', 'B', '2', '4'), Ifaces::PixelFormat::R8G8B8A8Unorm, 4},
    // Three-byte pixels have no GPU format of their own: they are widened on copy.
    {SPA_VIDEO_FORMAT_RGB, 0, Ifaces::PixelFormat::R8G8B8A8Unorm, 3},
};

const Layout* layoutOf(spa_video_format format)
{
    for (const Layout& layout : Layouts) {
        if (layout.spa == format)
            return &layout;
    }
    return nullptr;
}

bool containsModifier(const std::vector<Ifaces::DmaBufFormat>& formats, std::uint32_t fourcc, std::uint64_t modifier)
{
    for (const Ifaces::DmaBufFormat& format : formats) {
        if (format.fourcc != fourcc)
            continue;
        for (const std::uint64_t candidate : format.modifiers) {
            if (candidate == modifier)
                return true;
        }
    }
    return false;
}

/// Per format, the GPU's modifiers and then plain rows, which the CPU reads when the GPU does not.
std::vector<Ifaces::DmaBufFormat> dmaBufOffers(const std::vector<Ifaces::DmaBufFormat>& importable)
{
    std::vector<Ifaces::DmaBufFormat> offers;
    for (const Layout& layout : Layouts) {
        if (!layout.fourcc)
            continue;
        Ifaces::DmaBufFormat offer;
        offer.fourcc = layout.fourcc;
        for (const Ifaces::DmaBufFormat& format : importable) {
            if (format.fourcc == layout.fourcc)
                offer.modifiers = format.modifiers;
        }
        if (!containsModifier({offer}, layout.fourcc, Ifaces::DmaBufLinearModifier))
            offer.modifiers.push_back(Ifaces::DmaBufLinearModifier);
        offers.push_back(std::move(offer));
    }
    return offers;
}

void addSize(spa_pod_builder* builder, int width, int height, bool anySize)
{
    spa_rectangle preferred {std::uint32_t(width > 0 ? width : 1920), std::uint32_t(height > 0 ? height : 1080)};
    spa_rectangle smallest {1, 1};
    spa_rectangle largest {MaxDimension, MaxDimension};
    spa_fraction rate {30, 1};
    spa_fraction slowest {0, 1};
    spa_fraction fastest {1000, 1};
    if (anySize)
        spa_pod_builder_add(
            builder, SPA_FORMAT_VIDEO_size, SPA_POD_CHOICE_RANGE_Rectangle(&preferred, &smallest, &largest), 0);
    else
        spa_pod_builder_add(builder, SPA_FORMAT_VIDEO_size, SPA_POD_Rectangle(&preferred), 0);
    spa_pod_builder_add(
        builder, SPA_FORMAT_VIDEO_framerate, SPA_POD_CHOICE_RANGE_Fraction(&rate, &slowest, &fastest), 0);
}

/// A shared-memory offer: the 8-bit RGB layouts at @p width by @p height
/// exactly, or, with @p anySize, at any size with that one preferred.
const spa_pod* buildMemoryFormat(spa_pod_builder* builder, int width, int height, bool anySize)
{
    spa_pod_frame frame;
    spa_pod_builder_push_object(builder, &frame, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat);
    spa_pod_builder_add(builder, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video), SPA_FORMAT_mediaSubtype,
        SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw), SPA_FORMAT_VIDEO_format,
        SPA_POD_CHOICE_ENUM_Id(6, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRA,
            SPA_VIDEO_FORMAT_RGBx, SPA_VIDEO_FORMAT_RGBA, SPA_VIDEO_FORMAT_RGB),
        0);
    addSize(builder, width, height, anySize);
    return static_cast<const spa_pod*>(spa_pod_builder_pop(builder, &frame));
}

/// A DMA-BUF offer of one layout. The allocating side picks the modifier,
/// hence "don't fixate"; "mandatory" keeps sources without DMA-BUFs from
/// matching it, so that they fall through to the shared-memory offers.
const spa_pod* buildDmaBufFormat(
    spa_pod_builder* builder, const Ifaces::DmaBufFormat& offer, int width, int height, bool anySize)
{
    const Layout* layout = nullptr;
    for (const Layout& candidate : Layouts) {
        if (candidate.fourcc == offer.fourcc)
            layout = &candidate;
    }
    spa_pod_frame frame;
    spa_pod_builder_push_object(builder, &frame, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat);
    spa_pod_builder_add(builder, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video), SPA_FORMAT_mediaSubtype,
        SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw), SPA_FORMAT_VIDEO_format, SPA_POD_Id(layout->spa), 0);
    spa_pod_builder_prop(
        builder, SPA_FORMAT_VIDEO_modifier, SPA_POD_PROP_FLAG_MANDATORY | SPA_POD_PROP_FLAG_DONT_FIXATE);
    spa_pod_frame choice;
    spa_pod_builder_push_choice(builder, &choice, SPA_CHOICE_Enum, 0);
    spa_pod_builder_long(builder, std::int64_t(offer.modifiers.front())); // the default
    for (const std::uint64_t modifier : offer.modifiers)
        spa_pod_builder_long(builder, std::int64_t(modifier));
    spa_pod_builder_pop(builder, &choice);
    addSize(builder, width, height, anySize);
    return static_cast<const spa_pod*>(spa_pod_builder_pop(builder, &frame));
}

/// DMA-BUFs first, the size asked for before any size; then shared memory likewise.
std::uint32_t buildFormats(spa_pod_builder* builder, const std::vector<Ifaces::DmaBufFormat>& offers, int width,
    int height, const spa_pod* params[MaxFormatParams])
{
    std::uint32_t count = 0;
    for (const bool anySize : {false, true}) {
        for (const Ifaces::DmaBufFormat& offer : offers) {
            if (!offer.modifiers.empty() && count < MaxFormatParams - 2)
                params[count++] = buildDmaBufFormat(builder, offer, width, height, anySize);
        }
    }
    params[count++] = buildMemoryFormat(builder, width, height, false);
    params[count++] = buildMemoryFormat(builder, width, height, true);
    return count;
}

/**
 * The display rotation that shows a buffer as the user sees it. The transform
 * is the one the compositor applied to the picture (a turned output's buffer
 * holds it turned), so the picture must be turned back: a quarter turn one
 * way undoes one the other way. A flipped transform undoes itself, since a
 * mirror followed by a turn is its own inverse.
 */
int rotationFromTransform(std::uint32_t transform)
{
    switch (transform) {
    case SPA_META_TRANSFORMATION_270:
    case SPA_META_TRANSFORMATION_Flipped90:
        return 2;
    case SPA_META_TRANSFORMATION_180:
    case SPA_META_TRANSFORMATION_Flipped180:
        return 3;
    case SPA_META_TRANSFORMATION_90:
    case SPA_META_TRANSFORMATION_Flipped270:
        return 4;
    default:
        return 1;
    }
}

bool isMirroredTransform(std::uint32_t transform)
{
    return transform == SPA_META_TRANSFORMATION_Flipped || transform == SPA_META_TRANSFORMATION_Flipped90
        || transform == SPA_META_TRANSFORMATION_Flipped180 || transform == SPA_META_TRANSFORMATION_Flipped270;
}

bool isCorrupted(const spa_buffer* buffer)
{
    auto* header
        = static_cast<spa_meta_header*>(spa_buffer_find_meta_data(buffer, SPA_META_Header, sizeof(spa_meta_header)));
    return header && (header->flags & SPA_META_HEADER_FLAG_CORRUPTED);
}

/**
 * A buffer's memory (memfd or DMA-BUF) mapped for reading on the CPU through
 * a descriptor of its own, so that the mapping outlives the stream's buffer:
 * a reader may still draw from it while the stream renegotiates.
 */
class BufferMapping
{
public:
    static std::shared_ptr<BufferMapping> map(const spa_data& data)
    {
        if (data.fd < 0 || data.maxsize == 0)
            return nullptr;
        const int fd = ::fcntl(int(data.fd), F_DUPFD_CLOEXEC, 0);
        if (fd < 0)
            return nullptr;
        // Buffers may share one memfd at different offsets; mmap wants whole pages.
        const std::size_t page = std::size_t(::sysconf(_SC_PAGESIZE));
        const std::size_t start = std::size_t(data.mapoffset) / page * page;
        const std::size_t length = std::size_t(data.mapoffset) - start + data.maxsize;
        // Populated at once: the reader touches only what changed, a different
        // few pages each frame, and would otherwise fault on each of them.
        void* address = ::mmap(nullptr, length, PROT_READ, MAP_SHARED | MAP_POPULATE, fd, off_t(start));
        if (address == MAP_FAILED) {
            ::close(fd);
            return nullptr;
        }
        return std::shared_ptr<BufferMapping>(
            new BufferMapping(fd, address, length, std::size_t(data.mapoffset) - start, data.maxsize));
    }
    ~BufferMapping()
    {
        ::munmap(m_address, m_length);
        ::close(m_fd);
    }
    BufferMapping(const BufferMapping&) = delete;
    BufferMapping& operator=(const BufferMapping&) = delete;

    /// The buffer's data, maxsize() bytes.
    const std::uint8_t* data() const
    {
        return static_cast<const std::uint8_t*>(m_address) + m_offset;
    }
    std::size_t maxsize() const
    {
        return m_maxsize;
    }
    /// Brackets CPU reads of a DMA-BUF, so that caches agree with what the
    /// device wrote. Other memory, and exporters without caches to manage,
    /// refuse the call, which is fine.
    void beginRead() const
    {
        sync(DMA_BUF_SYNC_START | DMA_BUF_SYNC_READ);
    }
    void endRead() const
    {
        sync(DMA_BUF_SYNC_END | DMA_BUF_SYNC_READ);
    }

private:
    BufferMapping(int fd, void* address, std::size_t length, std::size_t offset, std::size_t maxsize)
        : m_fd(fd)
        , m_address(address)
        , m_length(length)
        , m_offset(offset)
        , m_maxsize(maxsize)
    {
    }
    void sync(std::uint64_t flags) const
    {
        dma_buf_sync request {flags};
        while (::ioctl(m_fd, DMA_BUF_IOCTL_SYNC, &request) < 0 && (errno == EINTR || errno == EAGAIN)) { }
    }

    int m_fd;
    void* m_address;
    std::size_t m_length;
    std::size_t m_offset;
    std::size_t m_maxsize;
};

/// More changed parts than this are not worth moving one by one.
constexpr std::size_t MaxChangedRects = 32;

/// Adds the changed parts @p buffer names to @p rects; false when it names none.
bool readDamage(const spa_buffer* buffer, std::vector<Ifaces::ScalerRect>& rects)
{
    spa_meta* meta = spa_buffer_find_meta(buffer, SPA_META_VideoDamage);
    if (!meta)
        return false;
    // An invalid region ends the list. An empty list is taken as "anything":
    // sources that know nothing of changes leave the list as it was made,
    // zeroed, and sources with nothing changed send no buffer at all.
    const std::size_t before = rects.size();
    const auto* region = static_cast<const spa_meta_region*>(meta->data);
    const auto* end
        = reinterpret_cast<const spa_meta_region*>(static_cast<const std::uint8_t*>(meta->data) + meta->size);
    for (; region + 1 <= end && spa_meta_region_is_valid(region); ++region) {
        rects.push_back({region->region.position.x, region->region.position.y, int(region->region.size.width),
            int(region->region.size.height)});
    }
    return rects.size() > before;
}

/// Whether a picture of @p w by @p h with @p row bytes of pixels fits in the chunk of @p data of @p maxsize bytes.
bool chunkHolds(
    const spa_data& data, std::size_t maxsize, int w, int h, std::size_t row, std::size_t& offset, std::size_t& stride)
{
    stride = data.chunk->stride > 0 ? std::size_t(data.chunk->stride) : row;
    offset = maxsize ? data.chunk->offset % maxsize : 0;
    return stride >= row && offset + stride * std::size_t(h - 1) + row <= maxsize && w > 0;
}

} // namespace

struct PipeWireStream::Loop
{
    pw_thread_loop* threadLoop = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;
    pw_stream* stream = nullptr;
    spa_hook coreListener {};
    spa_hook streamListener {};
    pw_core_events coreEvents {};
    pw_stream_events streamEvents {};

    // The newest picture, guarded by slotMutex rather than the loop's lock, so
    // that a reader never waits while the loop copies a picture.
    std::mutex slotMutex;
    std::vector<std::uint8_t> latest; ///< the newest copied picture, four bytes a pixel
    std::vector<std::uint8_t> spare; ///< memory for the next copy
    Ifaces::ScalerSource latestSource;
    bool fresh = false; ///< latest holds a picture not taken yet
    pw_buffer* pending = nullptr; ///< the newest held buffer, not taken yet
    Picture pendingPicture; ///< its picture; a DMA-BUF's descriptors are the stream's own
    std::uint64_t generation = 0; ///< counts buffer removals: a held buffer of an older one is gone
    std::vector<Ifaces::ScalerRect> damage; ///< changed since the frame taken last
    bool damageAll = true; ///< anything may have changed since

    // What changed in the buffers of the current period; the loop's own.
    std::vector<Ifaces::ScalerRect> incoming;
    bool incomingKnown = false;
    bool incomingMerged = true;
    bool formatChanged = true; ///< no picture of the negotiated format went out yet
    bool haveSequence = false;
    std::uint64_t lastSequence = 0; ///< of the buffer seen last

    std::atomic<long> failed {S_OK};
    std::atomic<bool> closed {false};
    // Guarded by the thread loop's lock from here on.
    bool connected = false;
    spa_video_format format = SPA_VIDEO_FORMAT_UNKNOWN;
    bool dmaBuf = false;
    bool importDmaBuf = false; ///< the negotiated DMA-BUFs go to the GPU uncopied
    std::uint64_t modifier = Ifaces::DmaBufLinearModifier;
    int requestedWidth = 0;
    int requestedHeight = 0;
    std::vector<Ifaces::DmaBufFormat> importable;
    std::vector<Ifaces::DmaBufFormat> offers; ///< what is offered as DMA-BUFs now
    std::map<const pw_buffer*, std::shared_ptr<BufferMapping>> mappings; ///< buffers read on the CPU

    std::atomic<int> width {0};
    std::atomic<int> height {0};
    std::atomic<int> rotation {1};
    std::atomic<bool> mirrored {false};
    std::atomic<bool> negotiatedDmaBuf {false};

    class Lock
    {
    public:
        explicit Lock(pw_thread_loop* loop)
            : m_loop(loop)
        {
            pw_thread_loop_lock(m_loop);
        }
        ~Lock()
        {
            pw_thread_loop_unlock(m_loop);
        }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

    private:
        pw_thread_loop* m_loop;
    };

    long offerFormats()
    {
        std::vector<std::uint8_t> memory(16384);
        spa_pod_builder builder = SPA_POD_BUILDER_INIT(memory.data(), std::uint32_t(memory.size()));
        const spa_pod* params[MaxFormatParams];
        const std::uint32_t count = buildFormats(&builder, offers, requestedWidth, requestedHeight, params);
        return pw_stream_update_params(stream, params, count) < 0 ? E_FAIL : S_OK;
    }

    static void onCoreError(void* data, std::uint32_t id, int, int res, const char*)
    {
        auto* self = static_cast<Loop*>(data);
        // A lost server outranks whatever the stream reported on its way down.
        if (id == PW_ID_CORE && (res == -EPIPE || self->failed >= 0))
            self->failed = res == -EPIPE ? RPC_E_DISCONNECTED : E_FAIL;
        pw_thread_loop_signal(self->threadLoop, false);
    }

    static void onStateChanged(void* data, pw_stream_state, pw_stream_state state, const char*)
    {
        auto* self = static_cast<Loop*>(data);
        switch (state) {
        case PW_STREAM_STATE_ERROR:
            if (self->failed >= 0)
                self->failed = E_FAIL;
            break;
        case PW_STREAM_STATE_UNCONNECTED:
            if (self->connected && self->failed >= 0)
                self->failed = RPC_E_DISCONNECTED;
            break;
        case PW_STREAM_STATE_PAUSED:
        case PW_STREAM_STATE_STREAMING:
            self->connected = true;
            break;
        default:
            break;
        }
        pw_thread_loop_signal(self->threadLoop, false);
    }

    static void onParamChanged(void* data, std::uint32_t id, const spa_pod* param)
    {
        auto* self = static_cast<Loop*>(data);
        if (id != SPA_PARAM_Format || !param)
            return;
        std::uint32_t mediaType = 0;
        std::uint32_t mediaSubtype = 0;
        if (spa_format_parse(param, &mediaType, &mediaSubtype) < 0 || mediaType != SPA_MEDIA_TYPE_video
            || mediaSubtype != SPA_MEDIA_SUBTYPE_raw)
            return;
        spa_video_info_raw info {};
        if (spa_format_video_raw_parse(param, &info) < 0)
            return;
        const Layout* layout = layoutOf(info.format);
        self->format = info.format;
        self->width = int(info.size.width);
        self->height = int(info.size.height);
        // A modifier in the format means DMA-BUFs; until the allocating side
        // has fixed it, the buffers asked for below are not made yet.
        self->dmaBuf = spa_pod_find_prop(param, nullptr, SPA_FORMAT_VIDEO_modifier) != nullptr;
        self->modifier = info.modifier;
        self->importDmaBuf
            = self->dmaBuf && layout && containsModifier(self->importable, layout->fourcc, info.modifier);
        self->negotiatedDmaBuf = self->dmaBuf;
        self->formatChanged = true;

        const int dataTypes = self->dmaBuf ? (1 << SPA_DATA_DmaBuf) : ((1 << SPA_DATA_MemPtr) | (1 << SPA_DATA_MemFd));
        std::uint8_t buffer[1024];
        spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer, sizeof(buffer));
        const spa_pod* params[4];
        params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(&builder, SPA_TYPE_OBJECT_ParamBuffers,
            SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers, SPA_POD_CHOICE_RANGE_Int(4, 2, 16),
            SPA_PARAM_BUFFERS_dataType, SPA_POD_CHOICE_FLAGS_Int(dataTypes)));
        params[1] = static_cast<const spa_pod*>(
            spa_pod_builder_add_object(&builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type,
                SPA_POD_Id(SPA_META_Header), SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_header))));
        params[2] = static_cast<const spa_pod*>(spa_pod_builder_add_object(&builder, SPA_TYPE_OBJECT_ParamMeta,
            SPA_PARAM_Meta, SPA_PARAM_META_type, SPA_POD_Id(SPA_META_VideoTransform), SPA_PARAM_META_size,
            SPA_POD_Int(sizeof(spa_meta_videotransform))));
        params[3] = static_cast<const spa_pod*>(spa_pod_builder_add_object(&builder, SPA_TYPE_OBJECT_ParamMeta,
            SPA_PARAM_Meta, SPA_PARAM_META_type, SPA_POD_Id(SPA_META_VideoDamage), SPA_PARAM_META_size,
            SPA_POD_CHOICE_RANGE_Int(
                sizeof(spa_meta_region) * 16, sizeof(spa_meta_region), sizeof(spa_meta_region) * 16)));
        pw_stream_update_params(self->stream, params, 4);
    }

    static void onRemoveBuffer(void* data, pw_buffer* buffer)
    {
        auto* self = static_cast<Loop*>(data);
        self->mappings.erase(buffer);
        std::lock_guard<std::mutex> slot(self->slotMutex);
        if (self->pending == buffer)
            self->pending = nullptr;
        ++self->generation;
    }

    static void onProcess(void* data)
    {
        auto* self = static_cast<Loop*>(data);
        // Drain: only the newest buffer is worth keeping, but what changed in
        // the ones skipped counts as well.
        pw_buffer* newest = nullptr;
        // Collected straight into the loop's own list, which keeps its memory between periods.
        self->incoming.clear();
        bool changeKnown = true;
        while (pw_buffer* buffer = pw_stream_dequeue_buffer(self->stream)) {
            const bool follows = self->followsLastBuffer(buffer->buffer);
            changeKnown = changeKnown && follows && readDamage(buffer->buffer, self->incoming);
            if (newest)
                pw_stream_queue_buffer(self->stream, newest);
            newest = buffer;
        }
        if (!newest)
            return;
        self->incomingKnown = changeKnown;
        self->incomingMerged = false;
        self->deliver(newest);
        if (!self->incomingMerged) {
            // No new picture, but what changed still counts for the next one.
            std::lock_guard<std::mutex> slot(self->slotMutex);
            self->mergeIncoming(false);
        }
    }

    /**
     * Whether @p buffer comes right after the buffer seen before, by the
     * sequence numbers of their headers. A source names what changed since
     * the buffer it sent before, and the server drops buffers a consumer is
     * too slow for: the parts are only worth something when none was missed.
     */
    bool followsLastBuffer(const spa_buffer* buffer)
    {
        const auto* header = static_cast<spa_meta_header*>(
            spa_buffer_find_meta_data(buffer, SPA_META_Header, sizeof(spa_meta_header)));
        const bool follows = header && haveSequence && header->seq == lastSequence + 1;
        haveSequence = header != nullptr;
        lastSequence = header ? header->seq : 0;
        return follows;
    }

    /// What changed in this period goes with the picture it leads to, in the
    /// same step: a reader taking a frame in between must not see the one
    /// without the other. @p publishing: a new picture goes out with it.
    /// Call with slotMutex held.
    void mergeIncoming(bool publishing)
    {
        damage.insert(damage.end(), incoming.begin(), incoming.end());
        damageAll = damageAll || !incomingKnown || damage.size() > MaxChangedRects;
        // The first picture in a new format owes nothing to the ones before.
        if (publishing && formatChanged) {
            damageAll = true;
            formatChanged = false;
        }
        incoming.clear();
        incomingMerged = true;
    }

    /// Hands the picture of @p newest to the reader: held or copied.
    void deliver(pw_buffer* newest)
    {
        if (auto* transform = static_cast<spa_meta_videotransform*>(
                spa_buffer_find_meta_data(newest->buffer, SPA_META_VideoTransform, sizeof(spa_meta_videotransform)))) {
            rotation = rotationFromTransform(transform->transform);
            mirrored = isMirroredTransform(transform->transform);
        }
        const spa_buffer* buffer = newest->buffer;
        const Layout* layout = layoutOf(format);
        if (buffer->n_datas < 1 || isCorrupted(buffer) || !layout || !buffer->datas[0].chunk) {
            pw_stream_queue_buffer(stream, newest);
            return;
        }
        const spa_data_type type = spa_data_type(buffer->datas[0].type);
        if (type == SPA_DATA_DmaBuf && importDmaBuf) {
            holdDmaBuf(newest, *layout);
            return;
        }
        if (type == SPA_DATA_MemFd && layout->bytesPerPixel == 4 && holdMemory(newest, *layout))
            return;
        copyOut(newest, *layout);
        pw_stream_queue_buffer(stream, newest);
    }

    /// Makes @p buffer, with @p picture, the one kept for the reader; the one kept before goes back.
    void hold(pw_buffer* buffer, Picture picture)
    {
        pw_buffer* older = nullptr;
        {
            std::lock_guard<std::mutex> slot(slotMutex);
            mergeIncoming(true);
            older = pending;
            pending = buffer;
            pendingPicture = std::move(picture);
            fresh = false; // a copy made before is older than this
        }
        if (older)
            pw_stream_queue_buffer(stream, older);
    }

    void holdDmaBuf(pw_buffer* buffer, const Layout& layout)
    {
        const spa_buffer* held = buffer->buffer;
        if (held->datas[0].fd < 0 || held->datas[0].chunk->stride <= 0) {
            pw_stream_queue_buffer(stream, buffer);
            return;
        }
        Picture picture;
        Ifaces::DmaBufImage& image = picture.image;
        image.width = width;
        image.height = height;
        image.fourcc = layout.fourcc;
        image.modifier = modifier;
        image.planeCount = int(std::min<std::uint32_t>(held->n_datas, Ifaces::DmaBufImage::MaxPlanes));
        for (int i = 0; i < image.planeCount; ++i) {
            const spa_data& plane = held->datas[i];
            image.planes[i].fd = int(plane.fd);
            image.planes[i].offset = plane.chunk ? plane.chunk->offset : 0;
            image.planes[i].stride = plane.chunk ? std::uint32_t(plane.chunk->stride) : 0;
        }
        picture.source.width = width;
        picture.source.height = height;
        picture.source.format = layout.pixelFormat;
        hold(buffer, std::move(picture));
    }

    /// Keeps a memfd buffer for the reader, who reads its pixels where they
    /// are. False when its memory cannot be mapped (it is copied then); a
    /// buffer whose picture does not fit its memory goes straight back.
    bool holdMemory(pw_buffer* buffer, const Layout& layout)
    {
        const spa_data& data = buffer->buffer->datas[0];
        std::shared_ptr<BufferMapping>& mapping = mappings[buffer];
        if (!mapping)
            mapping = BufferMapping::map(data);
        if (!mapping) {
            mappings.erase(buffer);
            return false;
        }
        const int w = width;
        const int h = height;
        std::size_t offset = 0;
        std::size_t stride = 0;
        if (h <= 0 || data.chunk->size == 0
            || !chunkHolds(data, mapping->maxsize(), w, h, std::size_t(w) * 4, offset, stride)) {
            pw_stream_queue_buffer(stream, buffer);
            return true;
        }
        Picture picture;
        picture.source.pixels = mapping->data() + offset;
        picture.source.bytesPerLine = stride;
        picture.source.width = w;
        picture.source.height = h;
        picture.source.format = layout.pixelFormat;
        picture.source.series = this;
        picture.memory = mapping;
        hold(buffer, std::move(picture));
        return true;
    }

    /// Copies the picture of @p source into the newest-frame slot, as four bytes a pixel.
    void copyOut(pw_buffer* source, const Layout& layout)
    {
        const spa_data& data = source->buffer->datas[0];
        const int w = width;
        const int h = height;
        if (w <= 0 || h <= 0 || data.chunk->size == 0)
            return;

        const std::uint8_t* base = static_cast<const std::uint8_t*>(data.data);
        std::size_t maxsize = data.maxsize;
        const BufferMapping* mapping = nullptr;
        if (data.type == SPA_DATA_DmaBuf) {
            // Only plain rows make sense to the CPU; tiled layouts are the GPU's to read.
            std::shared_ptr<BufferMapping>& mapped = mappings[source];
            if (!mapped && modifier == Ifaces::DmaBufLinearModifier)
                mapped = BufferMapping::map(data);
            mapping = mapped.get();
            if (!mapping) {
                mappings.erase(source);
                refuseDmaBuf(layout.fourcc, modifier);
                return;
            }
            base = mapping->data();
            maxsize = mapping->maxsize();
        }
        const std::size_t row = std::size_t(w) * layout.bytesPerPixel;
        std::size_t offset = 0;
        std::size_t stride = 0;
        if (!base || !chunkHolds(data, maxsize, w, h, row, offset, stride))
            return;
        const std::uint8_t* pixels = base + offset;

        std::vector<std::uint8_t> slot;
        {
            std::lock_guard<std::mutex> lock(slotMutex);
            slot = std::move(spare);
        }
        if (mapping)
            mapping->beginRead();
        slot.resize(std::size_t(w) * std::size_t(h) * 4);
        for (int y = 0; y < h; ++y) {
            const std::uint8_t* in = pixels + stride * std::size_t(y);
            std::uint8_t* out = slot.data() + std::size_t(y) * std::size_t(w) * 4;
            if (layout.bytesPerPixel == 4) {
                std::memcpy(out, in, row);
            } else {
                for (int x = 0; x < w; ++x, in += 3, out += 4) {
                    out[0] = in[0];
                    out[1] = in[1];
                    out[2] = in[2];
                    out[3] = 0xFF;
                }
            }
        }
        if (mapping)
            mapping->endRead();
        pw_buffer* older = nullptr;
        {
            std::lock_guard<std::mutex> lock(slotMutex);
            mergeIncoming(true);
            spare = std::move(latest);
            latest = std::move(slot);
            latestSource = Ifaces::ScalerSource();
            latestSource.width = w;
            latestSource.height = h;
            latestSource.bytesPerLine = std::size_t(w) * 4;
            latestSource.format = layout.pixelFormat;
            fresh = true;
            older = pending; // older than this copy
            pending = nullptr;
        }
        if (older)
            pw_stream_queue_buffer(stream, older);
    }

    /// Stops offering DMA-BUFs of @p fourcc with @p refused, which this process cannot read,
    /// and lets the source choose again among what remains.
    void refuseDmaBuf(std::uint32_t fourcc, std::uint64_t refused)
    {
        bool changed = false;
        for (Ifaces::DmaBufFormat& offer : offers) {
            if (offer.fourcc != fourcc)
                continue;
            const auto before = offer.modifiers.size();
            offer.modifiers.erase(
                std::remove(offer.modifiers.begin(), offer.modifiers.end(), refused), offer.modifiers.end());
            changed = changed || offer.modifiers.size() != before;
        }
        if (changed)
            offerFormats();
    }
};

PipeWireStream::PipeWireStream()
    : m_loop(new Loop)
{
}

PipeWireStream::~PipeWireStream()
{
    close();
}

long PipeWireStream::open(int fd, std::uint32_t nodeId, const Request& request, std::shared_ptr<PipeWireStream>& result)
{
    result.reset();
    initialiseOnce();
    std::shared_ptr<PipeWireStream> self(new PipeWireStream);
    Loop& loop = *self->m_loop;

    loop.threadLoop = pw_thread_loop_new("orvanta-capture", nullptr);
    if (!loop.threadLoop) {
        if (fd >= 0)
            ::close(fd);
        return E_OUTOFMEMORY;
    }
    loop.context = pw_context_new(pw_thread_loop_get_loop(loop.threadLoop), nullptr, 0);
    if (!loop.context) {
        if (fd >= 0)
            ::close(fd);
        return E_OUTOFMEMORY;
    }
    if (pw_thread_loop_start(loop.threadLoop) < 0) {
        if (fd >= 0)
            ::close(fd);
        return E_FAIL;
    }

    Loop::Lock lock(loop.threadLoop);
    loop.core
        = fd >= 0 ? pw_context_connect_fd(loop.context, fd, nullptr, 0) : pw_context_connect(loop.context, nullptr, 0);
    if (!loop.core)
        return RPC_E_DISCONNECTED;
    loop.coreEvents.version = PW_VERSION_CORE_EVENTS;
    loop.coreEvents.error = &Loop::onCoreError;
    pw_core_add_listener(loop.core, &loop.coreListener, &loop.coreEvents, &loop);

    pw_properties* props = pw_properties_new(
        PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Capture", PW_KEY_MEDIA_ROLE, "Screen", nullptr);
    if (!request.targetName.empty())
        pw_properties_set(props, PW_KEY_TARGET_OBJECT, request.targetName.c_str());
    loop.stream = pw_stream_new(loop.core, "orvanta-screen", props);
    if (!loop.stream)
        return E_OUTOFMEMORY;
    loop.streamEvents.version = PW_VERSION_STREAM_EVENTS;
    loop.streamEvents.state_changed = &Loop::onStateChanged;
    loop.streamEvents.param_changed = &Loop::onParamChanged;
    loop.streamEvents.remove_buffer = &Loop::onRemoveBuffer;
    loop.streamEvents.process = &Loop::onProcess;
    pw_stream_add_listener(loop.stream, &loop.streamListener, &loop.streamEvents, &loop);

    loop.requestedWidth = request.width;
    loop.requestedHeight = request.height;
    loop.importable = request.importable;
    loop.offers = dmaBufOffers(request.importable);
    std::vector<std::uint8_t> memory(16384);
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(memory.data(), std::uint32_t(memory.size()));
    const spa_pod* params[MaxFormatParams];
    const std::uint32_t count = buildFormats(&builder, loop.offers, request.width, request.height, params);
    const auto flags = static_cast<pw_stream_flags>(
        PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_INACTIVE);
    const std::uint32_t target = request.targetName.empty() ? nodeId : PW_ID_ANY;
    if (pw_stream_connect(loop.stream, PW_DIRECTION_INPUT, target, flags, params, count) < 0)
        return E_FAIL;
    result = std::move(self);
    return S_OK;
}

std::vector<std::uint32_t> PipeWireStream::dmaBufFourccs()
{
    std::vector<std::uint32_t> fourccs;
    for (const Layout& layout : Layouts) {
        if (layout.fourcc)
            fourccs.push_back(layout.fourcc);
    }
    return fourccs;
}

long PipeWireStream::failure() const
{
    if (m_loop->closed)
        return RO_E_CLOSED;
    return m_loop->failed;
}

long PipeWireStream::start()
{
    if (!m_loop->threadLoop)
        return RO_E_CLOSED;
    Loop::Lock lock(m_loop->threadLoop);
    const long hr = failure();
    if (hr < 0)
        return hr;
    return pw_stream_set_active(m_loop->stream, true) < 0 ? E_FAIL : S_OK;
}

long PipeWireStream::takeNewest(std::unique_ptr<Frame>& frame)
{
    frame.reset();
    if (!m_loop->threadLoop)
        return RO_E_CLOSED;
    const long hr = failure();
    if (hr < 0)
        return hr;
    Loop& loop = *m_loop;
    std::lock_guard<std::mutex> slot(loop.slotMutex);
    Picture picture;
    if (loop.pending) {
        picture = std::move(loop.pendingPicture);
        picture.held = loop.pending;
        picture.generation = loop.generation;
        // Descriptors of the frame's own: the stream closes its copies when it
        // removes the buffer, which may happen while the reader draws.
        for (int i = 0; i < picture.image.planeCount; ++i)
            picture.image.planes[i].fd = ::fcntl(picture.image.planes[i].fd, F_DUPFD_CLOEXEC, 0);
        loop.pending = nullptr;
    } else if (loop.fresh) {
        picture.pixels = std::move(loop.latest);
        picture.source = loop.latestSource;
        loop.latest.clear();
        loop.fresh = false;
    } else {
        return S_OK;
    }
    // From here on the reader has this picture; what changes next is counted from it.
    picture.changeKnown = !loop.damageAll;
    if (picture.changeKnown)
        picture.changed = std::move(loop.damage);
    loop.damage.clear();
    loop.damageAll = false;
    frame.reset(new Frame(shared_from_this(), std::move(picture)));
    return S_OK;
}

long PipeWireStream::renegotiate(int width, int height)
{
    if (!m_loop->threadLoop)
        return RO_E_CLOSED;
    Loop::Lock lock(m_loop->threadLoop);
    const long hr = failure();
    if (hr < 0)
        return hr;
    // Compared with what was asked, not with what came: a source that cannot
    // give the size is not asked again (some sources stall on every new format).
    if (width == m_loop->requestedWidth && height == m_loop->requestedHeight)
        return S_OK;
    m_loop->requestedWidth = width;
    m_loop->requestedHeight = height;
    return m_loop->offerFormats();
}

int PipeWireStream::rotation() const
{
    return m_loop->rotation;
}

bool PipeWireStream::isMirrored() const
{
    return m_loop->mirrored;
}

void PipeWireStream::negotiatedSize(int& width, int& height) const
{
    width = m_loop->width;
    height = m_loop->height;
}

bool PipeWireStream::negotiatedDmaBuf() const
{
    return m_loop->negotiatedDmaBuf;
}

void PipeWireStream::close()
{
    Loop& loop = *m_loop;
    if (!loop.threadLoop)
        return;
    {
        Loop::Lock lock(loop.threadLoop);
        loop.closed = true;
        // Disconnected while the loop still runs: once it has stopped, the
        // server's data thread would call the stream's handlers itself.
        if (loop.stream)
            pw_stream_disconnect(loop.stream);
    }
    pw_thread_loop_stop(loop.threadLoop);
    if (loop.stream) {
        spa_hook_remove(&loop.streamListener);
        pw_stream_destroy(loop.stream);
        loop.stream = nullptr;
    }
    if (loop.core) {
        spa_hook_remove(&loop.coreListener);
        pw_core_disconnect(loop.core);
        loop.core = nullptr;
    }
    if (loop.context) {
        pw_context_destroy(loop.context);
        loop.context = nullptr;
    }
    pw_thread_loop_destroy(loop.threadLoop);
    loop.threadLoop = nullptr;
}

PipeWireStream::Frame::Frame(std::shared_ptr<PipeWireStream> stream, Picture picture)
    : m_stream(std::move(stream))
    , m_picture(std::move(picture))
{
    Ifaces::ScalerSource& source = m_picture.source;
    if (!m_picture.pixels.empty())
        source.pixels = m_picture.pixels.data();
    if (m_picture.image.planeCount > 0)
        source.dmaBuf = &m_picture.image;
    if (m_picture.changeKnown && !m_picture.changed.empty()) {
        source.changedRects = m_picture.changed.data();
        source.changedRectCount = m_picture.changed.size();
    }
}

PipeWireStream::Frame::~Frame()
{
    for (int i = 0; i < m_picture.image.planeCount; ++i) {
        if (m_picture.image.planes[i].fd >= 0)
            ::close(m_picture.image.planes[i].fd);
    }
    Loop& loop = *m_stream->m_loop;
    if (!loop.threadLoop)
        return;
    if (m_picture.held) {
        Loop::Lock lock(loop.threadLoop);
        bool current = false;
        {
            std::lock_guard<std::mutex> slot(loop.slotMutex);
            current = loop.generation == m_picture.generation;
        }
        // Back to the source, unless the stream has let go of its buffers since.
        if (current && !loop.closed && loop.stream)
            pw_stream_queue_buffer(loop.stream, m_picture.held);
        return;
    }
    // Hand the memory back for the next copy, saving an allocation a frame.
    std::lock_guard<std::mutex> slot(loop.slotMutex);
    if (loop.spare.capacity() < m_picture.pixels.capacity())
        loop.spare = std::move(m_picture.pixels);
}

bool PipeWireStream::Frame::hasPicture() const
{
    const Ifaces::ScalerSource& source = m_picture.source;
    if (source.dmaBuf)
        return source.dmaBuf->planeCount > 0 && source.dmaBuf->planes[0].fd >= 0
            && source.format != Ifaces::PixelFormat::Unknown;
    return source.pixels != nullptr;
}

bool PipeWireStream::Frame::isDmaBuf() const
{
    return m_picture.source.dmaBuf != nullptr;
}

bool PipeWireStream::Frame::isHeld() const
{
    return m_picture.held != nullptr;
}

const Ifaces::ScalerSource& PipeWireStream::Frame::source() const
{
    return m_picture.source;
}

} // namespace PipeWire
} // namespace Orvanta
