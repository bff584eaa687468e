/*
 * An sd-bus connection driven from a GLib main context: every call that
 * sd-bus has already read is processed, though the socket will not become
 * readable again, also when each dispatch stops after one message.
 */
#include <gtest/gtest.h>
#include <gio/gio.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "TestSupport.h"
#include "bus/sdbus_source.h"
#include "bus/sdbus_variant.h"

using tilvane::host::AttachSdBus;
using tilvane::host::SdBusPtr;

namespace {

int CountCallCB(sd_bus_message* call, void* data, sd_bus_error*)
{
    if (sd_bus_message_is_method_call(call, nullptr, nullptr) <= 0) {
        return 0;
    }
    ++*static_cast<int*>(data);
    sd_bus_reply_method_return(call, nullptr);
    return 1;
}

std::string ExternalAuthLine()
{
    std::string line = std::string(1, '\0') + "AUTH EXTERNAL ";
    for (char c : std::to_string(geteuid())) {
        char pair[3];
        std::snprintf(pair, sizeof pair, "%02x", static_cast<unsigned char>(c));
        line += pair;
    }
    return line + "\r\n";
}

/* Runs `context` until `done`, for `ms` at most. */
template <typename Done>
void RunUntil(GMainContext* context, Done done, int ms = 5000)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!done() && std::chrono::steady_clock::now() < deadline) {
        if (!g_main_context_iteration(context, FALSE)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
}

/* What the peer at `fd` (non-blocking) has been sent so far, added to `got`. */
void ReadAvailable(int fd, std::string& got)
{
    char buffer[4096];
    for (ssize_t n = read(fd, buffer, sizeof buffer); n > 0; n = read(fd, buffer, sizeof buffer)) {
        got.append(buffer, static_cast<size_t>(n));
    }
}

/* The handshake as GDBus makes it, a line at a time, each answered before
 * the next; then BEGIN and a call in one write. sd-bus reads the call with
 * the handshake's last line, and the dispatch that ends the handshake (one
 * step per dispatch here) leaves it read but not processed, with nothing
 * more to come on the socket: the source must run again by itself. */
TEST(SdBusSourceTest, ACallReadWithTheHandshakesEndIsProcessed)
{
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds), 0);
    sd_bus* raw = nullptr;
    ASSERT_GE(sd_bus_new(&raw), 0);
    SdBusPtr server(raw);
    sd_id128_t id{};
    ASSERT_GE(sd_id128_randomize(&id), 0);
    int calls = 0;
    ASSERT_GE(sd_bus_set_fd(raw, fds[0], fds[0]), 0);
    ASSERT_GE(sd_bus_set_server(raw, 1, id), 0);
    ASSERT_GE(sd_bus_negotiate_fds(raw, 0), 0);
    ASSERT_GE(sd_bus_add_filter(raw, nullptr, CountCallCB, &calls), 0);
    ASSERT_GE(sd_bus_start(raw), 0);
    GMainContext* context = g_main_context_new();
    GSource* source = AttachSdBus(raw, context, 1, nullptr, nullptr);

    std::string answers;
    const std::string auth = ExternalAuthLine();
    ASSERT_EQ(write(fds[1], auth.data(), auth.size()), static_cast<ssize_t>(auth.size()));
    RunUntil(context, [&] {
        ReadAvailable(fds[1], answers);
        return answers.find("\r\n") != std::string::npos;
    });
    ASSERT_EQ(answers.compare(0, 3, "OK "), 0) << answers;
    const std::string negotiate = "NEGOTIATE_UNIX_FD\r\n";
    ASSERT_EQ(write(fds[1], negotiate.data(), negotiate.size()), static_cast<ssize_t>(negotiate.size()));
    RunUntil(context, [&] {
        ReadAvailable(fds[1], answers);
        return answers.find("ERROR") != std::string::npos;
    });
    ASSERT_NE(answers.find("ERROR"), std::string::npos) << answers;
    RunUntil(context, [] { return false; }, 100);  // what is left to do of the handshake

    /* Small enough to be read whole with the handshake's last line. */
    const std::string all =
        "BEGIN\r\n" + tilvane::test::MethodCallBytes("/t", "org.tilvane.Test", "Ping", g_variant_new("(s)", "ping"), 1);
    ASSERT_LT(all.size(), 256u);
    ASSERT_EQ(write(fds[1], all.data(), all.size()), static_cast<ssize_t>(all.size()));
    RunUntil(context, [&] { return calls == 1; });
    EXPECT_EQ(calls, 1) << "the call read with BEGIN was left unprocessed";

    g_source_destroy(source);
    g_source_unref(source);
    g_main_context_unref(context);
    close(fds[1]);
}

}  // namespace
