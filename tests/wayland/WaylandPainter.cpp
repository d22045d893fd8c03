// A Wayland client for the tests: a full-screen window on one output that
// shows what its standard input asks for, drawn in shared memory.
//
//     orvanta-wl-painter OUTPUT
//
// Commands, one a line: "fill RRGGBB" paints the whole window, "rect X Y W H
// RRGGBB" a rectangle of it, in the coordinates its user sees, and "show"
// hands the picture to the compositor; once that showed it, the painter
// prints "shown W H".

#include "xdg-shell-client-protocol.h"

#include <wayland-client.h>

#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Painter
{
    wl_display* display = nullptr;
    wl_compositor* compositor = nullptr;
    wl_shm* shm = nullptr;
    xdg_wm_base* wmBase = nullptr;
    std::string outputName;
    wl_output* output = nullptr;
    std::vector<wl_output*> outputs;
    std::vector<std::string> outputNames;

    wl_surface* surface = nullptr;
    xdg_surface* shellSurface = nullptr;
    xdg_toplevel* toplevel = nullptr;
    int width = 0;
    int height = 0;
    bool configured = false;
    std::vector<std::uint32_t> picture;
    bool waitingForFrame = false;
    bool shown = false;
};

void outputGeometry(void*, wl_output*, int32_t, int32_t, int32_t, int32_t, int32_t, const char*, const char*, int32_t)
{
}
void outputMode(void*, wl_output*, uint32_t, int32_t, int32_t, int32_t)
{
}
void outputDone(void*, wl_output*)
{
}
void outputScale(void*, wl_output*, int32_t)
{
}
void outputName(void* data, wl_output* output, const char* name)
{
    auto* painter = static_cast<Painter*>(data);
    for (std::size_t i = 0; i < painter->outputs.size(); ++i) {
        if (painter->outputs[i] == output)
            painter->outputNames[i] = name;
    }
}
void outputDescription(void*, wl_output*, const char*)
{
}
const wl_output_listener outputListener
    = {outputGeometry, outputMode, outputDone, outputScale, outputName, outputDescription};

void ping(void*, xdg_wm_base* base, uint32_t serial)
{
    xdg_wm_base_pong(base, serial);
}
const xdg_wm_base_listener wmBaseListener = {ping};

void global(void* data, wl_registry* registry, uint32_t name, const char* interface, uint32_t version)
{
    auto* painter = static_cast<Painter*>(data);
    if (std::strcmp(interface, wl_compositor_interface.name) == 0) {
        painter->compositor
            = static_cast<wl_compositor*>(wl_registry_bind(registry, name, &wl_compositor_interface, 4));
    } else if (std::strcmp(interface, wl_shm_interface.name) == 0) {
        painter->shm = static_cast<wl_shm*>(wl_registry_bind(registry, name, &wl_shm_interface, 1));
    } else if (std::strcmp(interface, xdg_wm_base_interface.name) == 0) {
        painter->wmBase = static_cast<xdg_wm_base*>(wl_registry_bind(registry, name, &xdg_wm_base_interface, 1));
        xdg_wm_base_add_listener(painter->wmBase, &wmBaseListener, painter);
    } else if (std::strcmp(interface, wl_output_interface.name) == 0 && version >= 4) {
        auto* output = static_cast<wl_output*>(wl_registry_bind(registry, name, &wl_output_interface, 4));
        painter->outputs.push_back(output);
        painter->outputNames.emplace_back();
        wl_output_add_listener(output, &outputListener, painter);
    }
}
void globalRemove(void*, wl_registry*, uint32_t)
{
}
const wl_registry_listener registryListener = {global, globalRemove};

void shellConfigure(void* data, xdg_surface* surface, uint32_t serial)
{
    xdg_surface_ack_configure(surface, serial);
    static_cast<Painter*>(data)->configured = true;
}
const xdg_surface_listener shellSurfaceListener = {shellConfigure};

void toplevelConfigure(void* data, xdg_toplevel*, int32_t width, int32_t height, wl_array*)
{
    auto* painter = static_cast<Painter*>(data);
    if (width > 0 && height > 0 && (width != painter->width || height != painter->height)) {
        painter->width = width;
        painter->height = height;
        painter->picture.assign(std::size_t(width) * std::size_t(height), 0xff000000u);
    }
}
void toplevelClose(void*, xdg_toplevel*)
{
}
const xdg_toplevel_listener toplevelListener = {toplevelConfigure, toplevelClose};

void frameDone(void* data, wl_callback* callback, uint32_t)
{
    wl_callback_destroy(callback);
    auto* painter = static_cast<Painter*>(data);
    painter->waitingForFrame = false;
    painter->shown = true;
}
const wl_callback_listener frameListener = {frameDone};

void release(void*, wl_buffer* buffer)
{
    wl_buffer_destroy(buffer);
}
const wl_buffer_listener bufferListener = {release};

/// Shows the picture in a buffer of its own, which goes when the compositor releases it.
bool show(Painter& painter)
{
    const int stride = painter.width * 4;
    const std::size_t size = std::size_t(stride) * std::size_t(painter.height);
    const int fd = memfd_create("orvanta-wl-painter", MFD_CLOEXEC);
    if (fd < 0 || ftruncate(fd, off_t(size)) < 0)
        return false;
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED)
        return false;
    std::memcpy(memory, painter.picture.data(), size);
    munmap(memory, size);
    wl_shm_pool* pool = wl_shm_create_pool(painter.shm, fd, int32_t(size));
    wl_buffer* buffer
        = wl_shm_pool_create_buffer(pool, 0, painter.width, painter.height, stride, WL_SHM_FORMAT_XRGB8888);
    wl_shm_pool_destroy(pool);
    close(fd);
    wl_buffer_add_listener(buffer, &bufferListener, nullptr);
    wl_surface_attach(painter.surface, buffer, 0, 0);
    wl_surface_damage_buffer(painter.surface, 0, 0, painter.width, painter.height);
    wl_callback* callback = wl_surface_frame(painter.surface);
    wl_callback_add_listener(callback, &frameListener, &painter);
    painter.waitingForFrame = true;
    painter.shown = false;
    wl_surface_commit(painter.surface);
    return true;
}

void fillRect(Painter& painter, int x, int y, int width, int height, std::uint32_t colour)
{
    for (int row = std::max(y, 0); row < std::min(y + height, painter.height); ++row) {
        for (int col = std::max(x, 0); col < std::min(x + width, painter.width); ++col)
            painter.picture[std::size_t(row) * std::size_t(painter.width) + std::size_t(col)] = 0xff000000u | colour;
    }
}

/// Lets go of everything, so that a leak checker in the painter finds nothing left.
int finish(Painter& painter, wl_registry* registry, int code)
{
    if (painter.toplevel)
        xdg_toplevel_destroy(painter.toplevel);
    if (painter.shellSurface)
        xdg_surface_destroy(painter.shellSurface);
    if (painter.surface)
        wl_surface_destroy(painter.surface);
    // A last frame callback or buffer waits for events that will not come now.
    wl_display_roundtrip(painter.display);
    for (wl_output* output : painter.outputs)
        wl_output_release(output);
    if (painter.wmBase)
        xdg_wm_base_destroy(painter.wmBase);
    if (painter.shm)
        wl_shm_destroy(painter.shm);
    if (painter.compositor)
        wl_compositor_destroy(painter.compositor);
    wl_registry_destroy(registry);
    wl_display_disconnect(painter.display);
    return code;
}

bool runCommand(Painter& painter, const std::string& line)
{
    std::istringstream words(line);
    std::string verb;
    words >> verb;
    if (verb == "fill") {
        std::string colour;
        words >> colour;
        fillRect(painter, 0, 0, painter.width, painter.height, std::uint32_t(std::stoul(colour, nullptr, 16)));
    } else if (verb == "rect") {
        int x = 0, y = 0, width = 0, height = 0;
        std::string colour;
        words >> x >> y >> width >> height >> colour;
        fillRect(painter, x, y, width, height, std::uint32_t(std::stoul(colour, nullptr, 16)));
    } else if (verb == "show") {
        return show(painter);
    } else {
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s OUTPUT\n", argv[0]);
        return 2;
    }
    Painter painter;
    painter.outputName = argv[1];
    painter.display = wl_display_connect(nullptr);
    if (!painter.display) {
        std::fprintf(stderr, "no Wayland display\n");
        return 1;
    }
    wl_registry* registry = wl_display_get_registry(painter.display);
    wl_registry_add_listener(registry, &registryListener, &painter);
    wl_display_roundtrip(painter.display);
    wl_display_roundtrip(painter.display);
    for (std::size_t i = 0; i < painter.outputs.size(); ++i) {
        if (painter.outputNames[i] == painter.outputName)
            painter.output = painter.outputs[i];
    }
    if (!painter.compositor || !painter.shm || !painter.wmBase || !painter.output) {
        std::fprintf(stderr, "the compositor lacks what is needed, or has no output %s\n", argv[1]);
        return finish(painter, registry, 1);
    }

    painter.surface = wl_compositor_create_surface(painter.compositor);
    painter.shellSurface = xdg_wm_base_get_xdg_surface(painter.wmBase, painter.surface);
    xdg_surface_add_listener(painter.shellSurface, &shellSurfaceListener, &painter);
    painter.toplevel = xdg_surface_get_toplevel(painter.shellSurface);
    xdg_toplevel_add_listener(painter.toplevel, &toplevelListener, &painter);
    xdg_toplevel_set_title(painter.toplevel, "orvanta-wl-painter");
    xdg_toplevel_set_fullscreen(painter.toplevel, painter.output);
    wl_surface_commit(painter.surface);
    while (!painter.configured) {
        if (wl_display_dispatch(painter.display) < 0)
            return finish(painter, registry, 1);
    }
    if (painter.width == 0) {
        // Left to choose its size, the window maps small; the compositor then
        // makes it full-screen and says how large that is.
        painter.width = 64;
        painter.height = 64;
        painter.picture.assign(64 * 64, 0xff000000u);
        if (!show(painter))
            return finish(painter, registry, 1);
        while (painter.width == 64 && painter.height == 64) {
            if (wl_display_dispatch(painter.display) < 0)
                return finish(painter, registry, 1);
        }
    }

    std::string pending;
    bool announce = false;
    for (;;) {
        wl_display_flush(painter.display);
        pollfd descriptors[2] = {{wl_display_get_fd(painter.display), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        if (poll(descriptors, 2, -1) < 0)
            return finish(painter, registry, 1);
        if (descriptors[0].revents & POLLIN) {
            if (wl_display_dispatch(painter.display) < 0)
                return finish(painter, registry, 1);
        }
        if (announce && painter.shown) {
            std::printf("shown %d %d\n", painter.width, painter.height);
            std::fflush(stdout);
            announce = false;
        }
        if (descriptors[1].revents & (POLLIN | POLLHUP)) {
            char chunk[256];
            const ssize_t read = ::read(STDIN_FILENO, chunk, sizeof chunk);
            if (read <= 0)
                return finish(painter, registry, 0);
            pending.append(chunk, std::size_t(read));
            std::size_t end;
            while ((end = pending.find('\n')) != std::string::npos) {
                const std::string line = pending.substr(0, end);
                pending.erase(0, end + 1);
                if (!runCommand(painter, line)) {
                    std::fprintf(stderr, "unknown command: %s\n", line.c_str());
                    return finish(painter, registry, 1);
                }
                announce = announce || line == "show";
            }
        }
    }
}
