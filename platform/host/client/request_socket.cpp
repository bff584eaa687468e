/*
 * Direct connections to the providers' request sockets (request_socket.h).
 */
#include "client/request_socket.h"

#include <gio/gio.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#include "bus/bus_connection.h"
#include "bus/sdbus_source.h"
#include "bus/sdbus_variant.h"
#include "dlog.h"
#include "identity/identity_mode.h"
#include "requests/request_names.h"
#include "base/host_state.h"

#define SOCKET_LOGD(...) __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, ::tilvane::host::kPlatformLogTag, __VA_ARGS__)

namespace tilvane {
namespace host {
namespace {

constexpr int kBusCallTimeoutMs = 10000;

/* Open connections kept per provider while no call uses them. */
constexpr size_t kKeptConnections = 4;

struct DirectState {
    std::mutex mutex;
    std::map<std::string, std::vector<SdBusPtr>> idle; /* provider's bus name -> */
    pid_t pid = 0;
};

DirectState& TheDirectState()
{
    static DirectState* state = new DirectState();
    return *state;
}

/* The user the bus reports for the owner of `busName`; false when it has none. */
bool OwnerUser(const std::string& busName, uid_t& uid)
{
    ConnectionProblem problem = ConnectionProblem::None;
    GDBusConnectionPtr bus = SharedBusConnection(false, &problem);
    if (!bus) {
        return false;
    }
    GVariantPtr reply(g_dbus_connection_call_sync(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                  "org.freedesktop.DBus", "GetConnectionUnixUser",
                                                  g_variant_new("(s)", busName.c_str()), G_VARIANT_TYPE("(u)"),
                                                  G_DBUS_CALL_FLAGS_NONE, kBusCallTimeoutMs, nullptr, nullptr));
    if (!reply) {
        return false;
    }
    guint32 value = 0;
    g_variant_get(reply.get(), "(u)", &value);
    uid = static_cast<uid_t>(value);
    return true;
}

/* In the verified mode: the process listening on the socket runs as the user
 * of the name's owner. */
bool ListenerIsOwner(int fd, const std::string& busName)
{
    if (identity::CurrentMode() == identity::Mode::Development) {
        return true;
    }
    ucred listener {};
    socklen_t length = sizeof(listener);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &listener, &length) != 0) {
        return false;
    }
    uid_t owner = 0;
    if (!OwnerUser(busName, owner) || owner != listener.uid) {
        SOCKET_LOGD("request socket of %s is not its owner's (user %u); using the bus", busName.c_str(),
                    static_cast<unsigned>(listener.uid));
        return false;
    }
    return true;
}

/* A socket connected to the request socket at `path`; -1 when there is none. */
int ConnectSocketAt(const std::string& path)
{
    struct stat st {};
    if (stat(path.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode) || path.size() >= sizeof(sockaddr_un::sun_path)) {
        return -1;
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

/* A new connection to the provider of `busName`; null when there is none. */
SdBusPtr Connect(const std::string& busName)
{
    const int fd = ConnectSocketAt(RequestSocketPath(busName));
    if (fd < 0) {
        return nullptr;
    }
    if (!ListenerIsOwner(fd, busName)) {
        close(fd);
        return nullptr;
    }
    return SdBusOnSocket(fd, nullptr);
}

/* A kept connection to the provider of `busName`, or a new one; `kept` says
 * which. */
SdBusPtr TakeConnection(const std::string& busName, bool& kept)
{
    {
        DirectState& s = TheDirectState();
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.pid != getpid()) {
            /* A forked child may not use its parent's connections, nor free them. */
            for (auto& entry : s.idle) {
                for (SdBusPtr& bus : entry.second) {
                    bus.release();
                }
            }
            s.idle.clear();
            s.pid = getpid();
        }
        std::vector<SdBusPtr>& idle = s.idle[busName];
        if (!idle.empty()) {
            SdBusPtr bus = std::move(idle.back());
            idle.pop_back();
            kept = true;
            return bus;
        }
    }
    kept = false;
    return Connect(busName);
}

void GiveBack(const std::string& busName, SdBusPtr bus)
{
    DirectState& s = TheDirectState();
    std::lock_guard<std::mutex> lock(s.mutex);
    std::vector<SdBusPtr>& idle = s.idle[busName];
    if (idle.size() < kKeptConnections && s.pid == getpid()) {
        idle.push_back(std::move(bus));
    }
}

SdBusMessagePtr NewCall(sd_bus* bus, const DirectCall& call)
{
    sd_bus_message* raw = nullptr;
    if (sd_bus_message_new_method_call(bus, &raw, nullptr, call.path, call.interfaceName, call.method) < 0) {
        return nullptr;
    }
    SdBusMessagePtr message(raw);
    if (AppendMessageBody(raw, call.parameters) < 0) {
        return nullptr;
    }
    return message;
}

/* The answer of a call that was made: the reply read, or its error. */
void TakeAnswer(int r, sd_bus_message* answer, const sd_bus_error& failure, const DirectCall& call,
                GVariantPtr& reply, GError** error)
{
    if (sd_bus_error_is_set(&failure)) {
        g_propagate_error(error, g_dbus_error_new_for_dbus_error(failure.name, failure.message ? failure.message : ""));
        return;
    }
    if (r < 0) {
        g_set_error(error, G_IO_ERROR, r == -ETIMEDOUT ? G_IO_ERROR_TIMED_OUT : G_IO_ERROR_FAILED,
                    "the direct call %s.%s failed: %s", call.interfaceName, call.method, std::strerror(-r));
        return;
    }
    std::string why;
    reply = ReadMessageBody(answer, call.replyType, why);
    if (!reply) {
        g_set_error(error, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT, "the reply of %s.%s does not read: %s",
                    call.interfaceName, call.method, why.c_str());
    }
}

}  // namespace

bool CallOnSdBus(sd_bus* bus, const DirectCall& call, GVariantPtr& reply, GError** error)
{
    SdBusMessagePtr message = NewCall(bus, call);
    if (!message) {
        g_set_error(error, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT, "the call %s.%s cannot be written",
                    call.interfaceName, call.method);
        return true;
    }
    sd_bus_error failure = SD_BUS_ERROR_NULL;
    sd_bus_message* answer = nullptr;
    const int r =
        sd_bus_call(bus, message.get(), static_cast<uint64_t>(call.timeoutMs) * 1000, &failure, &answer);
    SdBusMessagePtr answerPtr(answer);
    /* A call whose connection went away fails with an error sd-bus makes
     * itself ("Disconnected", "System.Error.ENOTCONN"), not the provider's. */
    const bool lost = r < 0 && sd_bus_is_open(bus) <= 0;
    if (!lost) {
        TakeAnswer(r, answer, failure, call, reply, error);
    }
    sd_bus_error_free(&failure);
    return !lost;
}

bool CallOnDirectConnection(const std::string& busName, const DirectCall& call, GVariantPtr& reply, GError** error)
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        bool kept = false;
        SdBusPtr bus = TakeConnection(busName, kept);
        if (!bus) {
            return false;
        }
        if (CallOnSdBus(bus.get(), call, reply, error)) {
            if (sd_bus_is_open(bus.get()) > 0) {
                GiveBack(busName, std::move(bus));
            }
            return true;
        }
        if (!kept) {
            return false; /* a new connection closed at once: over the provider's budget */
        }
    }
    return false;
}

SdBusPtr ConnectToRequestSocket(const std::string& path)
{
    const int fd = ConnectSocketAt(path);
    return fd < 0 ? nullptr : SdBusOnSocket(fd, nullptr);
}

}  // namespace host
}  // namespace tilvane
