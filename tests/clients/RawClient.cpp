/*
 * A client that sends one select with any data id or URI, unlike tilvanectl,
 * which takes only the service's table names. Used by the tests of what a
 * provider serves:
 *
 *   tilvane_raw_client data-control PROVIDER_ID DATA_ID
 *   tilvane_raw_client content URI
 *
 * It runs as TILVANE_APP_ID and prints "outcome: <description>" and
 * "rows: <count>".
 */
#include <cstdio>
#include <string>

#include <tilvane_client.h>

int main(int argc, char** argv)
{
    using namespace tilvane::client;
    const std::string interface = argc > 1 ? argv[1] : "";
    Result result;
    if (interface == "data-control" && argc == 4) {
        result = DataControlClient(argv[2]).Select(argv[3], {}, "", "");
    } else if (interface == "content" && argc == 3) {
        result = ContentClient().Select(argv[2], {}, "", {}, "", "");
    } else {
        std::fprintf(stderr, "usage: tilvane_raw_client data-control PROVIDER_ID DATA_ID | content URI\n");
        return 2;
    }
    std::printf("outcome: %s\nrows: %zu\n", Describe(result).c_str(), result.rows.rows.size());
    return result.Ok() ? 0 : 1;
}
