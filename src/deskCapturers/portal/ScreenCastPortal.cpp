#include "portal/ScreenCastPortal.h"

#include "ResultCodes.h"

#include <dbus/dbus.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace Orvanta {
namespace Portal {

namespace {

constexpr const char* PortalService = "org.freedesktop.portal.Desktop";
constexpr const char* PortalPath = "/org/freedesktop/portal/desktop";
constexpr const char* ScreenCastInterface = "org.freedesktop.portal.ScreenCast";
constexpr const char* RequestInterface = "org.freedesktop.portal.Request";
constexpr std::uint32_t SourceMonitor = 1;
constexpr std::uint32_t PersistUntilRevoked = 2;

struct MessageDeleter
{
    void operator()(DBusMessage* message) const
    {
        dbus_message_unref(message);
    }
};
using Message = std::unique_ptr<DBusMessage, MessageDeleter>;

/// A DBusError that frees itself.
class Error
{
public:
    Error()
    {
        dbus_error_init(&error);
    }
    ~Error()
    {
        dbus_error_free(&error);
    }
    Error(const Error&) = delete;
    Error& operator=(const Error&) = delete;
    bool isSet() const
    {
        return dbus_error_is_set(&error);
    }
    bool is(const char* name) const
    {
        return dbus_error_has_name(&error, name);
    }
    DBusError error;
};

/// Options of a portal call: an a{sv} being written.
class OptionWriter
{
public:
    explicit OptionWriter(DBusMessageIter* parent)
        : m_parent(parent)
    {
        dbus_message_iter_open_container(m_parent, DBUS_TYPE_ARRAY, "{sv}", &m_array);
    }
    ~OptionWriter()
    {
        dbus_message_iter_close_container(m_parent, &m_array);
    }
    OptionWriter(const OptionWriter&) = delete;
    OptionWriter& operator=(const OptionWriter&) = delete;

    void add(const char* key, const std::string& value)
    {
        const char* text = value.c_str();
        entry(key, DBUS_TYPE_STRING, DBUS_TYPE_STRING_AS_STRING, &text);
    }
    void add(const char* key, std::uint32_t value)
    {
        dbus_uint32_t v = value;
        entry(key, DBUS_TYPE_UINT32, DBUS_TYPE_UINT32_AS_STRING, &v);
    }
    void add(const char* key, bool value)
    {
        dbus_bool_t v = value ? TRUE : FALSE;
        entry(key, DBUS_TYPE_BOOLEAN, DBUS_TYPE_BOOLEAN_AS_STRING, &v);
    }

private:
    void entry(const char* key, int type, const char* signature, const void* value)
    {
        DBusMessageIter dictEntry;
        DBusMessageIter variant;
        dbus_message_iter_open_container(&m_array, DBUS_TYPE_DICT_ENTRY, nullptr, &dictEntry);
        dbus_message_iter_append_basic(&dictEntry, DBUS_TYPE_STRING, &key);
        dbus_message_iter_open_container(&dictEntry, DBUS_TYPE_VARIANT, signature, &variant);
        dbus_message_iter_append_basic(&variant, type, value);
        dbus_message_iter_close_container(&dictEntry, &variant);
        dbus_message_iter_close_container(&m_array, &dictEntry);
    }

    DBusMessageIter* m_parent;
    DBusMessageIter m_array;
};

/// Calls @p visit(key, variantIter) for each entry of the a{sv} at @p dict.
template <typename Visitor> void forEachOption(DBusMessageIter* dict, Visitor visit)
{
    if (dbus_message_iter_get_arg_type(dict) != DBUS_TYPE_ARRAY)
        return;
    DBusMessageIter entries;
    dbus_message_iter_recurse(dict, &entries);
    while (dbus_message_iter_get_arg_type(&entries) == DBUS_TYPE_DICT_ENTRY) {
        DBusMessageIter entry;
        dbus_message_iter_recurse(&entries, &entry);
        const char* key = nullptr;
        if (dbus_message_iter_get_arg_type(&entry) == DBUS_TYPE_STRING) {
            dbus_message_iter_get_basic(&entry, &key);
            dbus_message_iter_next(&entry);
            if (dbus_message_iter_get_arg_type(&entry) == DBUS_TYPE_VARIANT) {
                DBusMessageIter value;
                dbus_message_iter_recurse(&entry, &value);
                visit(std::string(key), &value);
            }
        }
        dbus_message_iter_next(&entries);
    }
}

std::string stringOf(DBusMessageIter* value)
{
    const int type = dbus_message_iter_get_arg_type(value);
    if (type != DBUS_TYPE_STRING && type != DBUS_TYPE_OBJECT_PATH)
        return std::string();
    const char* text = nullptr;
    dbus_message_iter_get_basic(value, &text);
    return text ? std::string(text) : std::string();
}

/// Reads the (ii) structure at @p value; false when it is something else.
bool readIntPair(DBusMessageIter* value, std::int32_t& first, std::int32_t& second)
{
    if (dbus_message_iter_get_arg_type(value) != DBUS_TYPE_STRUCT)
        return false;
    DBusMessageIter pair;
    dbus_message_iter_recurse(value, &pair);
    dbus_int32_t numbers[2] = {0, 0};
    for (dbus_int32_t& number : numbers) {
        if (dbus_message_iter_get_arg_type(&pair) != DBUS_TYPE_INT32)
            return false;
        dbus_message_iter_get_basic(&pair, &number);
        dbus_message_iter_next(&pair);
    }
    first = numbers[0];
    second = numbers[1];
    return true;
}

long codeForError(const Error& error)
{
    if (error.is(DBUS_ERROR_NO_REPLY) || error.is(DBUS_ERROR_TIMEOUT) || error.is(DBUS_ERROR_TIMED_OUT))
        return RPC_E_TIMEOUT;
    if (error.is(DBUS_ERROR_SERVICE_UNKNOWN) || error.is(DBUS_ERROR_UNKNOWN_METHOD)
        || error.is(DBUS_ERROR_UNKNOWN_INTERFACE) || error.is(DBUS_ERROR_UNKNOWN_OBJECT)
        || error.is(DBUS_ERROR_UNKNOWN_PROPERTY) || error.is(DBUS_ERROR_NAME_HAS_NO_OWNER))
        return REGDB_E_CLASSNOTREG;
    if (error.is(DBUS_ERROR_ACCESS_DENIED))
        return E_ACCESSDENIED;
    if (error.is(DBUS_ERROR_DISCONNECTED) || error.is(DBUS_ERROR_NO_SERVER))
        return RPC_E_DISCONNECTED;
    return E_FAIL;
}

Message methodCall(const char* interface, const char* method)
{
    return Message(dbus_message_new_method_call(PortalService, PortalPath, interface, method));
}

} // namespace

/**
 * One portal request: its Response signal is subscribed before the call is
 * made, so that a quick answer cannot be missed.
 */
class ScreenCastPortal::Request
{
public:
    Request(DBusConnection* connection, std::string path)
        : m_connection(connection)
        , m_path(std::move(path))
        , m_rule(
              "type='signal',interface='" + std::string(RequestInterface) + "',member='Response',path='" + m_path + "'")
    {
        dbus_bus_add_match(m_connection, m_rule.c_str(), nullptr);
    }
    ~Request()
    {
        dbus_bus_remove_match(m_connection, m_rule.c_str(), nullptr);
    }
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    /// Sends @p call and waits for the response; @p results reads the a{sv} of a success.
    template <typename ResultReader> long run(DBusMessage* call, int timeoutMs, ResultReader readResults)
    {
        Error error;
        Message reply(dbus_connection_send_with_reply_and_block(m_connection, call, CallTimeoutMs, &error.error));
        if (!reply)
            return codeForError(error);

        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        for (;;) {
            while (Message message {dbus_connection_pop_message(m_connection)}) {
                if (!dbus_message_is_signal(message.get(), RequestInterface, "Response")
                    || m_path != (dbus_message_get_path(message.get()) ? dbus_message_get_path(message.get()) : ""))
                    continue;
                DBusMessageIter args;
                if (!dbus_message_iter_init(message.get(), &args)
                    || dbus_message_iter_get_arg_type(&args) != DBUS_TYPE_UINT32)
                    return E_FAIL;
                dbus_uint32_t response = 2;
                dbus_message_iter_get_basic(&args, &response);
                if (response == 1)
                    return E_ACCESSDENIED; // the user said no
                if (response != 0)
                    return E_FAIL;
                dbus_message_iter_next(&args);
                return readResults(&args);
            }
            const auto left
                = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0)
                return RPC_E_TIMEOUT;
            if (!dbus_connection_read_write(m_connection, int(left.count())))
                return RPC_E_DISCONNECTED;
        }
    }

private:
    DBusConnection* m_connection;
    std::string m_path;
    std::string m_rule;
};

ScreenCastPortal::ScreenCastPortal(DBusConnection* connection)
    : m_connection(connection)
{
}

ScreenCastPortal::~ScreenCastPortal()
{
    closeSession();
    dbus_connection_close(m_connection);
    dbus_connection_unref(m_connection);
}

long ScreenCastPortal::connect(std::unique_ptr<ScreenCastPortal>& portal)
{
    portal.reset();
    // Read the address ourselves: libdbus keeps the first one it saw for the
    // shared bus connections, for the life of the process.
    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (!address || !*address)
        return REGDB_E_CLASSNOTREG;
    Error error;
    DBusConnection* connection = dbus_connection_open_private(address, &error.error);
    if (!connection)
        return REGDB_E_CLASSNOTREG;
    dbus_connection_set_exit_on_disconnect(connection, FALSE);
    if (!dbus_bus_register(connection, &error.error)) {
        dbus_connection_close(connection);
        dbus_connection_unref(connection);
        return REGDB_E_CLASSNOTREG;
    }
    portal.reset(new ScreenCastPortal(connection));
    return S_OK;
}

long ScreenCastPortal::probe()
{
    Message call(dbus_message_new_method_call(PortalService, PortalPath, DBUS_INTERFACE_PROPERTIES, "GetAll"));
    const char* interface = ScreenCastInterface;
    dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &interface, DBUS_TYPE_INVALID);
    Error error;
    Message reply(dbus_connection_send_with_reply_and_block(m_connection, call.get(), CallTimeoutMs, &error.error));
    if (!reply)
        return codeForError(error);
    DBusMessageIter args;
    if (!dbus_message_iter_init(reply.get(), &args))
        return REGDB_E_CLASSNOTREG;
    bool hasVersion = false;
    forEachOption(&args, [&](const std::string& key, DBusMessageIter* value) {
        if (dbus_message_iter_get_arg_type(value) != DBUS_TYPE_UINT32)
            return;
        dbus_uint32_t v = 0;
        dbus_message_iter_get_basic(value, &v);
        if (key == "version") {
            m_version = v;
            hasVersion = true;
        } else if (key == "AvailableSourceTypes") {
            m_sourceTypes = v;
        } else if (key == "AvailableCursorModes") {
            m_cursorModes = v;
        }
    });
    // An interface without a version is not the one we speak.
    return hasVersion && m_version >= 1 ? S_OK : REGDB_E_CLASSNOTREG;
}

std::uint32_t ScreenCastPortal::version() const
{
    return m_version;
}

std::uint32_t ScreenCastPortal::availableSourceTypes() const
{
    return m_sourceTypes;
}

std::uint32_t ScreenCastPortal::availableCursorModes() const
{
    return m_cursorModes;
}

std::string ScreenCastPortal::nextToken()
{
    return "orvanta" + std::to_string(::getpid()) + "_" + std::to_string(++m_tokenCounter);
}

std::string ScreenCastPortal::requestPath(const std::string& token) const
{
    std::string sender = dbus_bus_get_unique_name(m_connection);
    if (!sender.empty() && sender[0] == ':')
        sender.erase(0, 1);
    for (char& c : sender) {
        if (c == '.')
            c = '_';
    }
    return std::string(PortalPath) + "/request/" + sender + "/" + token;
}

long ScreenCastPortal::openMonitorSession(
    bool embedCursor, const std::string& restoreToken, Stream& stream, std::string& nextRestoreToken)
{
    closeSession();

    // CreateSession
    {
        const std::string token = nextToken();
        Request request(m_connection, requestPath(token));
        Message call = methodCall(ScreenCastInterface, "CreateSession");
        DBusMessageIter args;
        dbus_message_iter_init_append(call.get(), &args);
        {
            OptionWriter options(&args);
            options.add("handle_token", token);
            options.add("session_handle_token", nextToken());
        }
        const long hr = request.run(call.get(), CallTimeoutMs, [&](DBusMessageIter* results) {
            forEachOption(results, [&](const std::string& key, DBusMessageIter* value) {
                if (key == "session_handle")
                    m_sessionHandle = stringOf(value);
            });
            return m_sessionHandle.empty() ? E_FAIL : S_OK;
        });
        if (hr < 0)
            return hr;
    }

    // SelectSources
    {
        const std::string token = nextToken();
        Request request(m_connection, requestPath(token));
        Message call = methodCall(ScreenCastInterface, "SelectSources");
        DBusMessageIter args;
        dbus_message_iter_init_append(call.get(), &args);
        const char* session = m_sessionHandle.c_str();
        dbus_message_iter_append_basic(&args, DBUS_TYPE_OBJECT_PATH, &session);
        {
            OptionWriter options(&args);
            options.add("handle_token", token);
            options.add("types", SourceMonitor);
            options.add("multiple", false);
            if (m_cursorModes & CursorEmbedded)
                options.add("cursor_mode", std::uint32_t(embedCursor ? CursorEmbedded : CursorHidden));
            if (m_version >= 4) {
                options.add("persist_mode", PersistUntilRevoked);
                if (!restoreToken.empty())
                    options.add("restore_token", restoreToken);
            }
        }
        const long hr = request.run(call.get(), CallTimeoutMs, [](DBusMessageIter*) { return S_OK; });
        if (hr < 0)
            return hr;
    }

    // Start: here the portal may ask the user.
    {
        const std::string token = nextToken();
        Request request(m_connection, requestPath(token));
        Message call = methodCall(ScreenCastInterface, "Start");
        DBusMessageIter args;
        dbus_message_iter_init_append(call.get(), &args);
        const char* session = m_sessionHandle.c_str();
        const char* parentWindow = "";
        dbus_message_iter_append_basic(&args, DBUS_TYPE_OBJECT_PATH, &session);
        dbus_message_iter_append_basic(&args, DBUS_TYPE_STRING, &parentWindow);
        {
            OptionWriter options(&args);
            options.add("handle_token", token);
        }
        bool found = false;
        const long hr = request.run(call.get(), StartTimeoutMs, [&](DBusMessageIter* results) {
            forEachOption(results, [&](const std::string& key, DBusMessageIter* value) {
                if (key == "restore_token") {
                    nextRestoreToken = stringOf(value);
                } else if (key == "streams" && !found && dbus_message_iter_get_arg_type(value) == DBUS_TYPE_ARRAY) {
                    DBusMessageIter streams;
                    dbus_message_iter_recurse(value, &streams);
                    if (dbus_message_iter_get_arg_type(&streams) != DBUS_TYPE_STRUCT)
                        return;
                    DBusMessageIter fields;
                    dbus_message_iter_recurse(&streams, &fields);
                    if (dbus_message_iter_get_arg_type(&fields) != DBUS_TYPE_UINT32)
                        return;
                    dbus_uint32_t node = 0;
                    dbus_message_iter_get_basic(&fields, &node);
                    stream.nodeId = node;
                    found = true;
                    dbus_message_iter_next(&fields);
                    forEachOption(&fields, [&](const std::string& property, DBusMessageIter* v) {
                        std::int32_t first = 0;
                        std::int32_t second = 0;
                        if (!readIntPair(v, first, second))
                            return;
                        if (property == "size") {
                            stream.width = first;
                            stream.height = second;
                        } else if (property == "position") {
                            stream.x = first;
                            stream.y = second;
                            stream.hasPosition = true;
                        }
                    });
                }
            });
            return found ? S_OK : E_FAIL;
        });
        if (hr < 0) {
            closeSession();
            return hr;
        }
    }
    return S_OK;
}

long ScreenCastPortal::openPipeWireRemote(int& fd)
{
    fd = -1;
    if (m_sessionHandle.empty())
        return E_ILLEGAL_METHOD_CALL;
    Message call = methodCall(ScreenCastInterface, "OpenPipeWireRemote");
    DBusMessageIter args;
    dbus_message_iter_init_append(call.get(), &args);
    const char* session = m_sessionHandle.c_str();
    dbus_message_iter_append_basic(&args, DBUS_TYPE_OBJECT_PATH, &session);
    {
        OptionWriter options(&args);
    }
    Error error;
    Message reply(dbus_connection_send_with_reply_and_block(m_connection, call.get(), CallTimeoutMs, &error.error));
    if (!reply)
        return codeForError(error);
    int received = -1;
    if (!dbus_message_get_args(reply.get(), &error.error, DBUS_TYPE_UNIX_FD, &received, DBUS_TYPE_INVALID))
        return E_FAIL;
    fd = received;
    return S_OK;
}

void ScreenCastPortal::closeSession()
{
    if (m_sessionHandle.empty())
        return;
    Message call(dbus_message_new_method_call(
        PortalService, m_sessionHandle.c_str(), "org.freedesktop.portal.Session", "Close"));
    m_sessionHandle.clear();
    if (!call)
        return;
    // No answer is awaited: the session is gone for us either way.
    dbus_message_set_no_reply(call.get(), TRUE);
    dbus_connection_send(m_connection, call.get(), nullptr);
    dbus_connection_flush(m_connection);
}

} // namespace Portal
} // namespace Orvanta
