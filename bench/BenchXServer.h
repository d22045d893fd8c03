#pragma once

// A private X server and a client that keeps changing its screen, shared by
// the capture benchmarks.

#include <xcb/xcb.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

/// An Xvfb of its own with RandR, DAMAGE and MIT-SHM, killed at destruction.
class BenchXServer
{
public:
    explicit BenchXServer(const std::string& screen)
    {
        int fds[2];
        if (pipe(fds) != 0) {
            return;
        }
        const std::string fd = std::to_string(fds[1]);
        m_pid = fork();
        if (m_pid == 0) {
            close(fds[0]);
            const int devnull = open("/dev/null", O_RDWR);
            dup2(devnull, 0);
            dup2(devnull, 1);
            dup2(devnull, 2);
            execlp("Xvfb", "Xvfb", "-displayfd", fd.c_str(), "-screen", "0", screen.c_str(), "+extension", "RANDR",
                "+extension", "DAMAGE", "+extension", "MIT-SHM", "-nolisten", "tcp", "-noreset",
                static_cast<char*>(nullptr));
            _exit(127);
        }
        close(fds[1]);
        // The server writes its display number to the descriptor once it listens.
        pollfd descriptor = {fds[0], POLLIN, 0};
        char c;
        while (m_pid > 0 && ::poll(&descriptor, 1, 20000) > 0 && read(fds[0], &c, 1) == 1 && c != '\n') {
            m_display += c;
        }
        close(fds[0]);
        m_display.insert(0, ":");
    }

    ~BenchXServer()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            waitpid(m_pid, nullptr, 0);
        }
    }

    BenchXServer(const BenchXServer&) = delete;
    BenchXServer& operator=(const BenchXServer&) = delete;

    const std::string& display() const
    {
        return m_display;
    }

private:
    pid_t m_pid = -1;
    std::string m_display;
};

/// Keeps changing the screen of $DISPLAY, as a playing video would: each
/// change draws a 256x256 square in a new colour and waits until it is drawn.
class ScreenPainter
{
public:
    ScreenPainter()
        : m_connection(xcb_connect(nullptr, nullptr))
    {
        m_screen = xcb_setup_roots_iterator(xcb_get_setup(m_connection)).data;
        m_gc = xcb_generate_id(m_connection);
        xcb_create_gc(m_connection, m_gc, m_screen->root, 0, nullptr);
    }

    ~ScreenPainter()
    {
        xcb_free_gc(m_connection, m_gc);
        xcb_disconnect(m_connection);
    }

    ScreenPainter(const ScreenPainter&) = delete;
    ScreenPainter& operator=(const ScreenPainter&) = delete;

    void change()
    {
        const std::uint32_t colour = (m_step++ * 0x10305u) & 0xFFFFFFu;
        xcb_change_gc(m_connection, m_gc, XCB_GC_FOREGROUND, &colour);
        const xcb_rectangle_t square = {std::int16_t(m_step % 512), 100, 256, 256};
        xcb_poly_fill_rectangle(m_connection, m_screen->root, m_gc, 1, &square);
        std::free(xcb_get_input_focus_reply(m_connection, xcb_get_input_focus(m_connection), nullptr));
    }

    /// Fills the whole screen with @p colour (0xRRGGBB) and waits until it is drawn.
    void fill(std::uint32_t colour)
    {
        xcb_change_gc(m_connection, m_gc, XCB_GC_FOREGROUND, &colour);
        const xcb_rectangle_t whole = {0, 0, m_screen->width_in_pixels, m_screen->height_in_pixels};
        xcb_poly_fill_rectangle(m_connection, m_screen->root, m_gc, 1, &whole);
        std::free(xcb_get_input_focus_reply(m_connection, xcb_get_input_focus(m_connection), nullptr));
    }

private:
    xcb_connection_t* m_connection;
    xcb_screen_t* m_screen = nullptr;
    xcb_gcontext_t m_gc = 0;
    unsigned m_step = 1;
};
