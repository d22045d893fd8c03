#pragma once

#include <cstdint>
#include <memory>
#include <string>

struct DBusConnection;

namespace Orvanta {
namespace Portal {

/**
 * A client of the desktop portal's ScreenCast interface on the session bus
 * (org.freedesktop.portal.Desktop, /org/freedesktop/portal/desktop).
 *
 * It keeps a private bus connection of its own, so that nothing it does
 * meets another user of the bus in the process, and reads the bus address
 * from DBUS_SESSION_BUS_ADDRESS each time it connects. All calls block with
 * time limits; the Start request waits for the user's choice. Not
 * thread-safe: one thread at a time.
 */
class ScreenCastPortal
{
public:
    /// What Start handed out: one monitor as a PipeWire node.
    struct Stream
    {
        std::uint32_t nodeId = 0;
        std::int32_t width = 0;
        std::int32_t height = 0;
        /// Where the monitor lies on the desktop, where the portal says so.
        bool hasPosition = false;
        std::int32_t x = 0;
        std::int32_t y = 0;
    };

    /// Cursor modes of the interface (AvailableCursorModes bits).
    enum CursorMode : std::uint32_t {
        CursorHidden = 1,
        CursorEmbedded = 2,
        CursorMetadata = 4,
    };

    ~ScreenCastPortal();
    ScreenCastPortal(const ScreenCastPortal&) = delete;
    ScreenCastPortal& operator=(const ScreenCastPortal&) = delete;

    /// Connects to the session bus; a failing code when there is none.
    static long connect(std::unique_ptr<ScreenCastPortal>& portal);

    /// Reads the interface's properties; a failing code when no portal or no
    /// ScreenCast interface answers.
    long probe();
    std::uint32_t version() const;
    std::uint32_t availableSourceTypes() const;
    std::uint32_t availableCursorModes() const;

    /**
     * Opens a session for one monitor: CreateSession, SelectSources (the
     * cursor embedded if @p embedCursor, the choice kept until the user
     * revokes it, where the interface has version 4), then Start.
     * @p restoreToken from an earlier session spares the user the question;
     * @p nextRestoreToken receives the one to use next time, or stays empty
     * when the portal keeps no choice.
     */
    long openMonitorSession(
        bool embedCursor, const std::string& restoreToken, Stream& stream, std::string& nextRestoreToken);
    /// A connection to the PipeWire server that may see the session's streams.
    long openPipeWireRemote(int& fd);
    /// Closes the session; the streams end with it.
    void closeSession();

    /// Time limit of the Start request, in milliseconds (the user answers a dialog).
    static constexpr int StartTimeoutMs = 120000;
    static constexpr int CallTimeoutMs = 10000;

private:
    explicit ScreenCastPortal(DBusConnection* connection);

    class Request;
    std::string requestPath(const std::string& token) const;
    std::string nextToken();

    DBusConnection* m_connection;
    std::string m_sessionHandle;
    std::uint32_t m_version = 0;
    std::uint32_t m_sourceTypes = 0;
    std::uint32_t m_cursorModes = 0;
    unsigned m_tokenCounter = 0;
};

} // namespace Portal
} // namespace Orvanta
