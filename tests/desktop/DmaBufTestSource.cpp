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
// left, white bottom right.
//
// Usage: orvanta-dmabuf-source --name NODE --size WxH [--unmappable]
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
    bool dmaBuf = false;
    bool announced = false;
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
    const spa_pod* params[1] = {static_cast<const spa_pod*>(spa_pod_builder_add_object(&builder,
        SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers, SPA_POD_CHOICE_RANGE_Int(4, 2, 8),
        SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1), SPA_PARAM_BUFFERS_size, SPA_POD_Int(stride * source->height),
        SPA_PARAM_BUFFERS_stride, SPA_POD_Int(stride), SPA_PARAM_BUFFERS_dataType,
        SPA_POD_CHOICE_FLAGS_Int(source->dmaBuf ? (1 << SPA_DATA_DmaBuf) : (1 << SPA_DATA_MemFd))))};
    pw_stream_update_params(source->stream, params, 1);
}

void onAddBuffer(void* data, pw_buffer* buffer)
{
    auto* source = static_cast<Source*>(data);
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

void paint(const Source& source, std::uint8_t* pixels)
{
    for (int y = 0; y < source.height; ++y) {
        for (int x = 0; x < source.width; ++x) {
            const bool right = x >= source.width / 2;
            const bool bottom = y >= source.height / 2;
            std::uint8_t b = 0, g = 0, r = 0;
            if (!right && !bottom)
                r = 255;
            else if (right && !bottom)
                g = 255;
            else if (!right)
                b = 255;
            else
                r = g = b = 255;
            std::uint8_t* pixel = pixels + (std::size_t(y) * std::size_t(source.width) + std::size_t(x)) * 4;
            pixel[0] = b;
            pixel[1] = g;
            pixel[2] = r;
            pixel[3] = 0xFF;
        }
    }
}

void onProcess(void* data)
{
    auto* source = static_cast<Source*>(data);
    pw_buffer* buffer = pw_stream_dequeue_buffer(source->stream);
    if (!buffer)
        return;
    spa_data& plane = buffer->buffer->datas[0];
    if (plane.data)
        paint(*source, static_cast<std::uint8_t*>(plane.data));
    plane.chunk->offset = 0;
    plane.chunk->size = plane.maxsize;
    plane.chunk->stride = source->width * 4;
    pw_stream_queue_buffer(source->stream, buffer);
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
    const bool streaming = state == PW_STREAM_STATE_STREAMING;
    pw_loop_update_timer(
        pw_main_loop_get_loop(source->loop), source->timer, streaming ? &interval : &none, &interval, false);
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
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--name" && i + 1 < argc)
            name = argv[++i];
        else if (arg == "--size" && i + 1 < argc)
            std::sscanf(argv[++i], "%dx%d", &source.width, &source.height);
        else if (arg == "--unmappable")
            source.unmappable = true;
    }
    pw_init(&argc, &argv);
    source.loop = pw_main_loop_new(nullptr);
    pw_loop* loop = pw_main_loop_get_loop(source.loop);
    pw_loop_add_signal(loop, SIGINT, quit, &source);
    pw_loop_add_signal(loop, SIGTERM, quit, &source);
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
    pw_stream_connect(source.stream, PW_DIRECTION_OUTPUT, PW_ID_ANY,
        static_cast<pw_stream_flags>(PW_STREAM_FLAG_DRIVER | PW_STREAM_FLAG_ALLOC_BUFFERS), params, 2);
    pw_main_loop_run(source.loop);
    pw_stream_destroy(source.stream);
    pw_main_loop_destroy(source.loop);
    pw_deinit();
    return 0;
}
