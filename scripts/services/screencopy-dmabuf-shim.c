/*
 * screencopy-dmabuf-shim.c: preloaded into xdg-desktop-portal-wlr by the
 * Wayland test fixture, never into the library or its tests.
 *
 * The screen-cast back-end refuses to start a cast when the compositor offers
 * no DMA-BUF format for a screencopy frame, which is all a compositor without
 * a GPU (sway's pixman renderer, no /dev/dri) can offer. This shim repeats each
 * shared-memory format announcement of a screencopy frame as a DMA-BUF one;
 * the back-end then negotiates with PipeWire, finds no GPU to allocate a
 * DMA-BUF with, and streams shared memory, which the compositor fills. The
 * back-end, the portal and the compositor stay the distribution's binaries.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

struct wl_proxy;
struct wl_interface;

const char* wl_proxy_get_class(struct wl_proxy* proxy);

typedef void (*listener_function)(void);

/* The events of zwlr_screencopy_frame_v1 version 3, in their order. */
struct screencopy_frame_listener
{
    void (*buffer)(
        void* data, struct wl_proxy* frame, uint32_t format, uint32_t width, uint32_t height, uint32_t stride);
    void (*flags)(void* data, struct wl_proxy* frame, uint32_t flags);
    void (*ready)(void* data, struct wl_proxy* frame, uint32_t sec_hi, uint32_t sec_lo, uint32_t nsec);
    void (*failed)(void* data, struct wl_proxy* frame);
    void (*damage)(void* data, struct wl_proxy* frame, uint32_t x, uint32_t y, uint32_t width, uint32_t height);
    void (*linux_dmabuf)(void* data, struct wl_proxy* frame, uint32_t format, uint32_t width, uint32_t height);
    void (*buffer_done)(void* data, struct wl_proxy* frame);
};

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static const struct screencopy_frame_listener* original;
static struct screencopy_frame_listener repeated;

/* wl_shm names its two basic formats 0 and 1; every other one is its DRM code. */
static uint32_t drm_format_of_shm(uint32_t format)
{
    if (format == 0)
        return 0x34325241; /* AR24 */
    if (format == 1)
        return 0x34325258; /* XR24 */
    return format;
}

static void repeat_buffer(
    void* data, struct wl_proxy* frame, uint32_t format, uint32_t width, uint32_t height, uint32_t stride)
{
    static int told;
    original->buffer(data, frame, format, width, height, stride);
    if (!told) {
        told = 1;
        fprintf(stderr, "screencopy-dmabuf-shim: repeating shared-memory format %u as a DMA-BUF format\n", format);
    }
    original->linux_dmabuf(data, frame, drm_format_of_shm(format), width, height);
}

int wl_proxy_add_listener(struct wl_proxy* proxy, listener_function* implementation, void* data)
{
    static int (*next)(struct wl_proxy*, listener_function*, void*);
    if (!next)
        next = (int (*)(struct wl_proxy*, listener_function*, void*))dlsym(RTLD_NEXT, "wl_proxy_add_listener");

    if (strcmp(wl_proxy_get_class(proxy), "zwlr_screencopy_frame_v1") == 0) {
        const struct screencopy_frame_listener* listener = (const struct screencopy_frame_listener*)implementation;
        pthread_mutex_lock(&lock);
        if (!original && listener->buffer && listener->linux_dmabuf) {
            original = listener;
            repeated = *listener;
            repeated.buffer = repeat_buffer;
        }
        const int ours = original == listener;
        pthread_mutex_unlock(&lock);
        if (ours)
            return next(proxy, (listener_function*)&repeated, data);
    }
    return next(proxy, implementation, data);
}
