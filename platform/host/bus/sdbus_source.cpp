/*
 * An sd-bus connection driven from a GLib main context (sdbus_source.h).
 */
#include "bus/sdbus_source.h"

#include <poll.h>
#include <unistd.h>

#include <cstdint>

namespace tilvane {
namespace host {
namespace {

struct BusSource {
    GSource source;
    sd_bus* bus;
    gpointer tag;
    int batch;
    SdBusClosedCB closed;
    void* data;
    /* When sd-bus next wants to run (CLOCK_MONOTONIC, us); UINT64_MAX: never. */
    uint64_t dueUs;
    /* The last dispatch stopped at its batch while sd-bus still had work:
     * what it already read (a message behind the handshake, say) would
     * make the socket readable no more. */
    bool more;
};

GIOCondition ConditionOf(int events)
{
    int condition = 0;
    condition |= (events & POLLIN) != 0 ? G_IO_IN : 0;
    condition |= (events & POLLOUT) != 0 ? G_IO_OUT : 0;
    return static_cast<GIOCondition>(condition);
}

gboolean PrepareCB(GSource* source, gint* timeoutMs)
{
    BusSource* s = reinterpret_cast<BusSource*>(source);
    if (s->more) {
        *timeoutMs = 0;
        return TRUE;
    }
    const int events = sd_bus_get_events(s->bus);
    if (events < 0) {
        *timeoutMs = 0; /* closed: dispatch tells the owner */
        return TRUE;
    }
    g_source_modify_unix_fd(source, s->tag, ConditionOf(events));
    if (sd_bus_get_timeout(s->bus, &s->dueUs) < 0) {
        s->dueUs = UINT64_MAX;
    }
    /* A timeout of 0: messages already read wait to be processed. */
    if (s->dueUs == 0) {
        *timeoutMs = 0;
        return TRUE;
    }
    if (s->dueUs == UINT64_MAX) {
        *timeoutMs = -1;
        return FALSE;
    }
    const int64_t now = g_get_monotonic_time();
    const int64_t left = static_cast<int64_t>(s->dueUs) - now;
    *timeoutMs = left <= 0 ? 0 : static_cast<gint>((left + 999) / 1000);
    return left <= 0;
}

gboolean CheckCB(GSource* source)
{
    BusSource* s = reinterpret_cast<BusSource*>(source);
    if (s->more || g_source_query_unix_fd(source, s->tag) != 0) {
        return TRUE;
    }
    return s->dueUs != UINT64_MAX && static_cast<int64_t>(s->dueUs) <= g_get_monotonic_time();
}

gboolean DispatchCB(GSource* source, GSourceFunc /*callback*/, gpointer /*data*/)
{
    BusSource* s = reinterpret_cast<BusSource*>(source);
    /* sd-bus says 0 only when nothing is left that it has read or can read
     * now; until then it is called again, after the other sources' turn. */
    int r = 1;
    for (int i = 0; i < s->batch && r > 0; ++i) {
        r = sd_bus_process(s->bus, nullptr);
    }
    s->more = r > 0;
    if (r >= 0 && sd_bus_is_open(s->bus) > 0) {
        return G_SOURCE_CONTINUE;
    }
    SdBusClosedCB closed = s->closed;
    s->closed = nullptr;
    if (closed != nullptr) {
        /* The owner destroys the source; it stays valid until this returns. */
        g_source_ref(source);
        closed(s->bus, s->data);
        g_source_unref(source);
    }
    return G_SOURCE_REMOVE;
}

void FinalizeCB(GSource* source)
{
    BusSource* s = reinterpret_cast<BusSource*>(source);
    sd_bus_unref(s->bus);
}

GSourceFuncs kBusSourceFuncs = {PrepareCB, CheckCB, DispatchCB, FinalizeCB, nullptr, nullptr};

}  // namespace

SdBusPtr SdBusOnSocket(int fd, const sd_id128_t* serverId)
{
    sd_bus* raw = nullptr;
    if (sd_bus_new(&raw) < 0) {
        close(fd);
        return nullptr;
    }
    SdBusPtr bus(raw);
    if (sd_bus_set_fd(raw, fd, fd) < 0) {
        close(fd);
        return nullptr;
    }
    if ((serverId != nullptr && sd_bus_set_server(raw, 1, *serverId) < 0) || sd_bus_negotiate_fds(raw, 0) < 0 ||
        sd_bus_start(raw) < 0) {
        return nullptr;
    }
    return bus;
}

GSource* AttachSdBus(sd_bus* bus, GMainContext* context, int batch, SdBusClosedCB closed, void* data)
{
    GSource* source = g_source_new(&kBusSourceFuncs, sizeof(BusSource));
    BusSource* s = reinterpret_cast<BusSource*>(source);
    s->bus = sd_bus_ref(bus);
    s->batch = batch < 1 ? 1 : batch;
    s->closed = closed;
    s->data = data;
    s->dueUs = UINT64_MAX;
    s->more = false;
    s->tag = g_source_add_unix_fd(source, sd_bus_get_fd(bus), G_IO_IN);
    g_source_set_name(source, "sd-bus connection");
    g_source_attach(source, context);
    return source;
}

}  // namespace host
}  // namespace tilvane
