/*
 * A client that sends what tilvanectl would not: one select with any data id
 * or URI (tilvanectl takes only the service's table names), a power-off
 * whoever runs it (tilvanectl refuses to raise one that would not count), and
 * any message to a port (tilvanectl checks first whether the service would
 * act on it). Used by the tests of what a provider serves and of what the
 * service ignores:
 *
 *   tilvane_raw_client data-control PROVIDER_ID DATA_ID
 *   tilvane_raw_client content URI
 *   tilvane_raw_client power-off TYPE
 *   tilvane_raw_client send APP_ID PORT KEY=VALUE...
 *
 * It runs as TILVANE_APP_ID and prints "outcome: <description>" and
 * "rows: <count>" for a select, "sent: <result>" and one "refused: <reason>"
 * line per refusal of the receiver for a message.
 */
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <bundle.h>
#include <host_control.h>
#include <message_port.h>
#include <tilvane_client.h>

namespace {

int Send(int argc, char** argv)
{
    bundle* message = bundle_create();
    for (int i = 4; i < argc; ++i) {
        const std::string entry = argv[i];
        const size_t equals = entry.find('=');
        bundle_add_str(message, entry.substr(0, equals).c_str(),
                       equals == std::string::npos ? "" : entry.substr(equals + 1).c_str());
    }
    const int sent = message_port_send_message(argv[2], argv[3], message);
    bundle_free(message);
    std::vector<std::string> refusals;
    tilvane::host::WaitForDeliveryAnswers(10000, &refusals);
    std::printf("sent: %d\n", sent);
    for (const std::string& refusal : refusals) {
        std::printf("refused: %s\n", refusal.c_str());
    }
    return sent == 0 && refusals.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    using namespace tilvane::client;
    const std::string interface = argc > 1 ? argv[1] : "";
    Result result;
    if (interface == "data-control" && argc == 4) {
        result = DataControlClient(argv[2]).Select(argv[3], {}, "", "");
    } else if (interface == "content" && argc == 3) {
        result = ContentClient().Select(argv[2], {}, "", {}, "", "");
    } else if (interface == "power-off" && argc == 3) {
        tilvane::host::RaisePowerOff(std::atoi(argv[2]));
        return 0;
    } else if (interface == "send" && argc >= 4) {
        return Send(argc, argv);
    } else {
        std::fprintf(stderr, "usage: tilvane_raw_client data-control PROVIDER_ID DATA_ID | content URI | "
                             "power-off TYPE | send APP_ID PORT KEY=VALUE...\n");
        return 2;
    }
    std::printf("outcome: %s\nrows: %zu\n", Describe(result).c_str(), result.rows.rows.size());
    return result.Ok() ? 0 : 1;
}
