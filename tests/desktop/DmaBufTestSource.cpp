// A PipeWire video source for tests that hands out its pictures as DMA-BUFs,
// as a compositor's screen cast does. It offers two modifiers, a tiled one it
// cannot make and plain rows, fixes the modifier itself when the consumer
// leaves the choice open (the allocating side chooses), and falls back to
// shared memory when the consumer wants no DMA-BUFs.
//
// Without a GPU the "DMA-BUF" is a memfd: PipeWire passes the descriptor on as
// it is, and a reader maps it like a DMA-BUF in plain rows. With --unmappable
// the descriptor is one that no reader can map, to drive the consumer's
// fallback.
//
// The picture has four quadrants: red top left, green top right, blue bottom
// left, white bottom right, and a black square (16 by 8 pixels unless
// --square says otherwise) that moves along the middle row, 4 pixels a frame.
// Each buffer names the parts that changed since the buffer before (the
// square's old and new place) and carries its frame number as sequence number.
//
// With --transform N each buffer carries the video transform N (an
// spa_meta_videotransform_value), as a compositor's cast of a turned or
// mirrored monitor does: the picture above is then the buffer, not what the
// user sees.
//
// With --colour-file FILE, each SIGUSR1 makes the pictures from the next
// frame on one colour, read from FILE as 0xRRGGBB, the whole picture named as
// changed: a drawing whose way to a consumer can be timed. --pid-file FILE
// tells where to write the process's id for that.
//
// Usage: orvanta-dmabuf-source --name NODE --size WxH [--square WxH] [--unmappable | --shm] [--transform N]
//                              [--colour-file FILE] [--pid-file FILE]
// --shm offers shared memory only.
// It prints "ready" once consumers can find the node.

#include <pipewire/pipewire.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>

#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr std::uint64_t LinearModifier = 0;
constexpr std::uint64_t TiledModifier = (std::uint64_t(1) << 56) | 1; // a vendor's tiling, never made here

struct Source
{
    pw_main_loop* loop = nullptr;
    pw_stream* stream = nullptr;
    spa_hook listener {};
    spa_source* timer = nullptr;
    int width = 64;
    int height = 36;
    bool unmappable = false;
    bool sharedMemoryOnly = false;
    int frame = 0;
    int squareWidth = 16;
    int squareHeight = 8;
    bool dmaBuf = false;
    bool announced = false;
    int transform = -1; // none sent
    std::string colourFile;
    bool solid = false; ///< the picture is one colour, set by SIGUSR1
    std::uint32_t colour = 0; ///< 0xRRGGBB
};

const spa_pod* buildFormat(spa_pod_builder* builder, const Source& source, bool withModifier, bool fixed)
{
    spa_rectangle size {std::uint32_t(source.width), std::uint32_t(source.height)};
    spa_fraction rate {60, 1};
    spa_pod_frame frame;
    spa_pod_builder_push_object(builder, &frame, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat);
    spa_pod_builder_add(builder, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video), SPA_FORMAT_mediaSubtype,
        SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw), SPA_FORMAT_VIDEO_format, SPA_POD_Id(SPA_VIDEO_FORMAT_BGRx),
        SPA_FORMAT_VIDEO_size, SPA_POD_Rectangle(&size), SPA_FORMAT_VIDEO_framerate, SPA_POD_Fraction(&rate), 0);
    if (withModifier && fixed) {
        spa_pod_builder_prop(builder, SPA_FORMAT_VIDEO_modifier, SPA_POD_PROP_FLAG_MANDATORY);
        spa_pod_builder_long(builder, std::int64_t(LinearModifier));
    } else if (withModifier) {
        spa_pod_builder_prop(
            builder, SPA_FORMAT_VIDEO_modifier, SPA_POD_PROP_FLAG_MANDATORY | SPA_POD_PROP_FLAG_DONT_FIXATE);
        spa_pod_frame choice;
        spa_pod_builder_push_choice(builder, &choice, SPA_CHOICE_Enum, 0);
        spa_pod_builder_long(builder, std::int64_t(TiledModifier));
        spa_pod_builder_long(builder, std::int64_t(TiledModifier));
        spa_pod_builder_long(builder, std::int64_t(LinearModifier));
        spa_pod_builder_pop(builder, &choice);
    }
    return static_cast<const spa_pod*>(spa_pod_builder_pop(builder, &frame));
}

void onParamChanged(void* data, std::uint32_t id, const spa_pod* param)
{
    auto* source = static_cast<Source*>(data);
    if (id != SPA_PARAM_Format || !param)
        return;
    const spa_pod_prop* modifier = spa_pod_find_prop(param, nullptr, SPA_FORMAT_VIDEO_modifier);
    std::uint8_t memory[2048];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(memory, sizeof(memory));
    if (modifier && (modifier->flags & SPA_POD_PROP_FLAG_DONT_FIXATE)) {
        // Plain rows are all this source can allocate: fix them and offer again.
        const spa_pod* params[3] = {buildFormat(&builder, *source, true, true),
            buildFormat(&builder, *source, true, false), buildFormat(&builder, *source, false, false)};
        pw_stream_update_params(source->stream, params, 3);
        return;
    }
    source->dmaBuf = modifier != nullptr;
    const int stride = source->width * 4;
    const spa_pod* params[4]
        = {static_cast<const spa_pod*>(spa_pod_builder_add_object(&builder, SPA_TYPE_OBJECT_ParamBuffers,
               SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers, SPA_POD_CHOICE_RANGE_Int(4, 2, 8),
               SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1), SPA_PARAM_BUFFERS_size, SPA_POD_Int(stride * source->height),
               SPA_PARAM_BUFFERS_stride, SPA_POD_Int(stride), SPA_PARAM_BUFFERS_dataType,
               SPA_POD_CHOICE_FLAGS_Int(source->dmaBuf ? (1 << SPA_DATA_DmaBuf) : (1 << SPA_DATA_MemFd)))),
            static_cast<const spa_pod*>(spa_pod_builder_add_object(&builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta,
                SPA_PARAM_META_type, SPA_POD_Id(SPA_META_VideoDamage), SPA_PARAM_META_size,
                SPA_POD_CHOICE_RANGE_Int(
                    sizeof(spa_meta_region) * 16, sizeof(spa_meta_region) * 3, sizeof(spa_meta_region) * 16))),
            static_cast<const spa_pod*>(
                spa_pod_builder_add_object(&builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type,
                    SPA_POD_Id(SPA_META_Header), SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_header)))),
            static_cast<const spa_pod*>(spa_pod_builder_add_object(&builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta,
                SPA_PARAM_META_type, SPA_POD_Id(SPA_META_VideoTransform), SPA_PARAM_META_size,
                SPA_POD_Int(sizeof(spa_meta_videotransform))))};
    pw_stream_update_params(source->stream, params, source->transform >= 0 ? 4 : 3);
}

void onAddBuffer(void* data, pw_buffer* buffer)
{
    auto* source = static_cast<Source*>(data);
    buffer->user_data = nullptr; // not painted yet
    spa_data& plane = buffer->buffer->datas[0];
    const std::uint32_t size = std::uint32_t(source->width * 4 * source->height);
    const bool dmaBuf = (plane.type & (1u << SPA_DATA_DmaBuf)) != 0;
    plane.type = dmaBuf ? SPA_DATA_DmaBuf : SPA_DATA_MemFd;
    plane.flags = SPA_DATA_FLAG_READWRITE;
    plane.mapoffset = 0;
    plane.maxsize = size;
    if (dmaBuf && source->unmappable) {
        plane.fd = eventfd(0, EFD_CLOEXEC);
        plane.data = std::calloc(1, size); // where the picture would be drawn; the reader cannot see it
        return;
    }
    plane.fd = memfd_create("orvanta-test-picture", MFD_CLOEXEC);
    if (plane.fd < 0 || ftruncate(int(plane.fd), size) < 0)
        return;
    plane.data = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, int(plane.fd), 0);
    if (plane.data == MAP_FAILED)
        plane.data = nullptr;
}

void onRemoveBuffer(void* data, pw_buffer* buffer)
{
    auto* source = static_cast<Source*>(data);
    spa_data& plane = buffer->buffer->datas[0];
    if (plane.data) {
        if (plane.type == SPA_DATA_DmaBuf && source->unmappable)
            std::free(plane.data);
        else
            munmap(plane.data, plane.maxsize);
    }
    if (plane.fd >= 0)
        close(int(plane.fd));
    plane.data = nullptr;
    plane.fd = -1;
}

spa_region makeRegion(int x, int y, int width, int height)
{
    spa_region region {};
    region.position.x = x;
    region.position.y = y;
    region.size.width = std::uint32_t(width);
    region.size.height = std::uint32_t(height);
    return region;
}

/// Where the square is in frame @p frame.
spa_region squareAt(const Source& source, int frame)
{
    const int travel = source.width > source.squareWidth ? source.width - source.squareWidth : 1;
    return makeRegion(
        (frame * 4) % travel, source.height / 2 - source.squareHeight / 2, source.squareWidth, source.squareHeight);
}

/// Paints the picture of the current frame into @p pixels, which hold that
/// of frame @p painted (-1: nothing yet): only what changed in between.
void paint(const Source& source, std::uint8_t* pixels, int painted)
{
    if (source.solid) {
        const std::uint32_t pixel = 0xFF000000u | source.colour; // B, G, R, A in memory
        const std::size_t count = std::size_t(source.width) * std::size_t(source.height);
        for (std::size_t i = 0; i < count; ++i)
            std::memcpy(pixels + i * 4, &pixel, sizeof pixel);
        return;
    }
    const spa_region square = squareAt(source, source.frame);
    int top = 0;
    int bottom = source.height;
    int left = 0;
    int right = source.width;
    if (painted >= 0) {
        // The square moves right along its rows, and starts over at the left.
        const spa_region then = squareAt(source, painted);
        top = square.position.y;
        bottom = top + int(square.size.height);
        if (then.position.x <= square.position.x) {
            left = then.position.x;
            right = square.position.x + int(square.size.width);
        }
    }
    for (int y = top; y < bottom; ++y) {
        for (int x = left; x < right; ++x) {
            const bool rightHalf = x >= source.width / 2;
            const bool bottomHalf = y >= source.height / 2;
            std::uint8_t b = 0, g = 0, r = 0;
            if (!rightHalf && !bottomHalf)
                r = 255;
            else if (rightHalf && !bottomHalf)
                g = 255;
            else if (!rightHalf)
                b = 255;
            else
                r = g = b = 255;
            if (x >= square.position.x && x < square.position.x + int(square.size.width) && y >= square.position.y
                && y < square.position.y + int(square.size.height))
                r = g = b = 0;
            std::uint8_t* pixel = pixels + (std::size_t(y) * std::size_t(source.width) + std::size_t(x)) * 4;
            pixel[0] = b;
            pixel[1] = g;
            pixel[2] = r;
            pixel[3] = 0xFF;
        }
    }
}

/// Names the square's old and new place as what changed (all of it in the first frame).
void describeChange(const Source& source, spa_buffer* buffer)
{
    spa_meta* meta = spa_buffer_find_meta(buffer, SPA_META_VideoDamage);
    if (!meta || meta->size < sizeof(spa_meta_region) * 3)
        return;
    auto* regions = static_cast<spa_meta_region*>(meta->data);
    if (source.frame == 0 || source.solid) {
        regions[0].region = makeRegion(0, 0, source.width, source.height);
        regions[1].region = makeRegion(0, 0, 0, 0);
        return;
    }
    regions[0].region = squareAt(source, source.frame - 1);
    regions[1].region = squareAt(source, source.frame);
    regions[2].region = makeRegion(0, 0, 0, 0); // the end of the list
}

void onProcess(void* data)
{
    auto* source = static_cast<Source*>(data);
    pw_buffer* buffer = pw_stream_dequeue_buffer(source->stream);
    if (!buffer)
        return;
    spa_data& plane = buffer->buffer->datas[0];
    if (plane.data) {
        // Each buffer remembers the frame it shows, plus one (0: none yet).
        const auto shown = reinterpret_cast<std::intptr_t>(buffer->user_data);
        paint(*source, static_cast<std::uint8_t*>(plane.data), int(shown) - 1);
        buffer->user_data = reinterpret_cast<void*>(std::intptr_t(source->frame) + 1);
    }
    describeChange(*source, buffer->buffer);
    // Consumers tell by the sequence number whether they missed a buffer.
    if (auto* header = static_cast<spa_meta_header*>(
            spa_buffer_find_meta_data(buffer->buffer, SPA_META_Header, sizeof(spa_meta_header))))
        header->seq = std::uint64_t(source->frame);
    if (source->transform >= 0) {
        if (auto* transform = static_cast<spa_meta_videotransform*>(
                spa_buffer_find_meta_data(buffer->buffer, SPA_META_VideoTransform, sizeof(spa_meta_videotransform))))
            transform->transform = std::uint32_t(source->transform);
    }
    plane.chunk->offset = 0;
    plane.chunk->size = plane.maxsize;
    plane.chunk->stride = source->width * 4;
    pw_stream_queue_buffer(source->stream, buffer);
    ++source->frame;
}

void onTimeout(void* data, std::uint64_t)
{
    auto* source = static_cast<Source*>(data);
    pw_stream_trigger_process(source->stream);
}

void onStateChanged(void* data, pw_stream_state, pw_stream_state state, const char*)
{
    auto* source = static_cast<Source*>(data);
    timespec interval {0, 16 * 1000 * 1000};
    timespec none {0, 0};
    if (state == PW_STREAM_STATE_PAUSED && !source->announced) {
        // The node is registered now: consumers can find it by name.
        std::printf("ready\n");
        std::fflush(stdout);
        source->announced = true;
    }
    if (state == PW_STREAM_STATE_ERROR || (state == PW_STREAM_STATE_UNCONNECTED && source->announced)) {
        // The server is gone: nothing left to serve.
        pw_main_loop_quit(source->loop);
        return;
    }
    const bool streaming = state == PW_STREAM_STATE_STREAMING;
    pw_loop_update_timer(
        pw_main_loop_get_loop(source->loop), source->timer, streaming ? &interval : &none, &interval, false);
}

void takeColour(void* data, int)
{
    auto* source = static_cast<Source*>(data);
    if (FILE* file = std::fopen(source->colourFile.c_str(), "r")) {
        unsigned colour = 0;
        if (std::fscanf(file, "%x", &colour) == 1) {
            source->colour = colour & 0xFFFFFFu;
            source->solid = true;
        }
        std::fclose(file);
    }
}

void quit(void* data, int)
{
    pw_main_loop_quit(static_cast<Source*>(data)->loop);
}

} // namespace

int main(int argc, char** argv)
{
    Source source;
    std::string name = "test-dmabufsrc";
    std::string pidFile;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--name" && i + 1 < argc)
            name = argv[++i];
        else if (arg == "--size" && i + 1 < argc)
            std::sscanf(argv[++i], "%dx%d", &source.width, &source.height);
        else if (arg == "--unmappable")
            source.unmappable = true;
        else if (arg == "--shm")
            source.sharedMemoryOnly = true;
        else if (arg == "--square" && i + 1 < argc)
            std::sscanf(argv[++i], "%dx%d", &source.squareWidth, &source.squareHeight);
        else if (arg == "--transform" && i + 1 < argc)
            source.transform = std::atoi(argv[++i]);
        else if (arg == "--colour-file" && i + 1 < argc)
            source.colourFile = argv[++i];
        else if (arg == "--pid-file" && i + 1 < argc)
            pidFile = argv[++i];
    }
    pw_init(&argc, &argv);
    source.loop = pw_main_loop_new(nullptr);
    pw_loop* loop = pw_main_loop_get_loop(source.loop);
    pw_loop_add_signal(loop, SIGINT, quit, &source);
    pw_loop_add_signal(loop, SIGTERM, quit, &source);
    if (!source.colourFile.empty())
        pw_loop_add_signal(loop, SIGUSR1, takeColour, &source);
    if (!pidFile.empty()) {
        if (FILE* file = std::fopen(pidFile.c_str(), "w")) {
            std::fprintf(file, "%d\n", int(getpid()));
            std::fclose(file);
        }
    }
    source.timer = pw_loop_add_timer(loop, onTimeout, &source);

    pw_stream_events events {};
    events.version = PW_VERSION_STREAM_EVENTS;
    events.state_changed = onStateChanged;
    events.param_changed = onParamChanged;
    events.add_buffer = onAddBuffer;
    events.remove_buffer = onRemoveBuffer;
    events.process = onProcess;
    source.stream = pw_stream_new_simple(loop, name.c_str(),
        pw_properties_new(PW_KEY_MEDIA_CLASS, "Video/Source", PW_KEY_NODE_NAME, name.c_str(), nullptr), &events,
        &source);

    std::uint8_t memory[2048];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(memory, sizeof(memory));
    const spa_pod* params[2]
        = {buildFormat(&builder, source, true, false), buildFormat(&builder, source, false, false)};
    const std::uint32_t first = source.sharedMemoryOnly ? 1 : 0;
    pw_stream_connect(source.stream, PW_DIRECTION_OUTPUT, PW_ID_ANY,
        static_cast<pw_stream_flags>(PW_STREAM_FLAG_DRIVER | PW_STREAM_FLAG_ALLOC_BUFFERS), params + first, 2 - first);
    pw_main_loop_run(source.loop);
    pw_stream_destroy(source.stream);
    pw_main_loop_destroy(source.loop);
    pw_deinit();
    return 0;
}
