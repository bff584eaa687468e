/*
 * A program of an application, built by InstallTest against the installed
 * client library through its pkg-config file: selects the URI it is given
 * and prints what the answer says and how many rows it has.
 */
#include <tilvane_client.h>
#include <cstdio>
int main(int argc, char** argv) {
    tilvane::client::ContentClient client;
    tilvane::client::Result result = client.Select(argv[1], {"_id"}, "", {}, "", "");
    std::printf("%s|%zu\n", tilvane::client::Explain(result).c_str(), result.rows.rows.size());
    return argc == 2 && result.Ok() ? 0 : 1;
}
