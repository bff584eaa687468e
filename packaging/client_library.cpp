/*
 * The shared client library (libtilvane-client): its code is the client of
 * the request interfaces and the typed publish in platform/host/client, with
 * the host platform pieces it runs on, linked in whole; only the API of
 * tilvane_client.h, tilvane_publisher.h and tilvane_c.h is exported
 * (tilvane-client.map). This file gives the library the one thing the
 * service and the tools do not want: a log that stays silent until the
 * application installs a handler, so that nothing reaches the application's
 * standard error unasked.
 */
#include "log/log_sink.h"

namespace {

__attribute__((constructor)) void QuietUntilAHandlerIsInstalled()
{
    tilvane::host::SetLogSink(tilvane::host::DropLogLine, nullptr);
}

}  // namespace
