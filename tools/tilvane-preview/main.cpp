/*
 * tilvane-preview: the launcher as the home screen shows it, in a browser.
 *
 *   tilvane-preview [--port N] [--app-id ID] [--service ID] [--event-port NAME] [--web-dir DIR]
 *                   [--allow-verified-mode]
 *
 * Runs as a platform application with the internal read level (by default the
 * content service's id), reads the launcher content through the client
 * library, subscribes to preview events and serves one page on 127.0.0.1 that
 * follows every change as it happens, under a secret address made at each
 * start (PreviewServer.h). It is a development tool: it shows every package's
 * content, so where identities are verified (a device) it starts only when a
 * platform user asks for it explicitly, and reads each image with the
 * privileges of the package that owns it.
 */
#include <glib-unix.h>
#include <glib.h>
#include <host_control.h>
#include <pwd.h>
#include <signal.h>
#include <unistd.h>

#include <TilesModel.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "Json.h"
#include "LauncherData.h"
#include "PreviewEvents.h"
#include "PreviewServer.h"

namespace {

const char kDefaultAppId[] = "ContentServiceManager";
const char kDefaultServiceAppId[] = "com.quillon.px.tilvane";
const char kDefaultEventPort[] = "tilvane-preview-events";
const unsigned kDefaultPort = 8470;

struct Options {
    unsigned port = kDefaultPort;
    std::string appId = kDefaultAppId;
    std::string service;
    std::string eventPort = kDefaultEventPort;
    std::string webDir;
    bool allowVerifiedMode = false;
    unsigned maxStreams = 64;
};

void PrintUsage()
{
    std::printf(
        "Usage: tilvane-preview [OPTIONS]\n"
        "\n"
        "Serves a live preview of the launcher on http://127.0.0.1:PORT/.\n"
        "\n"
        "Options:\n"
        "  --port N            the port to listen on (default %u; 0 picks a free one)\n"
        "  --app-id ID         the application id to read as; it needs the internal read\n"
        "                      level (default %s)\n"
        "  --service ID        the service's application id (default: $TILVANE_SERVICE_APP_ID,\n"
        "                      else %s)\n"
        "  --event-port NAME   the local message port for preview events (default %s)\n"
        "  --web-dir DIR       the folder of index.html, preview.js and preview.css\n"
        "  --max-streams N     the most pages that follow the changes at once (default 64)\n"
        "  --allow-verified-mode\n"
        "                      start where identities are verified (a device): the preview\n"
        "                      shows every package's content, so it starts there only when a\n"
        "                      platform user asks for it with this option\n"
        "  --help              show this text\n"
        "\n"
        "The address it prints holds a secret made at this start; every page, API answer,\n"
        "event stream and image is served under it only.\n"
        "\n"
        "Environment: TILVANE_PLATFORM_ROOT (images from <root>/opt/usr/apps),\n"
        "DBUS_SESSION_BUS_ADDRESS, TILVANE_LOG_LEVEL (default W here).\n",
        kDefaultPort, kDefaultAppId, kDefaultServiceAppId, kDefaultEventPort);
}

std::string EnvironmentOr(const char* name, const std::string& fallback)
{
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0' ? value : fallback;
}

/* Parses the command line; returns -1 to go on, else the exit code. */
int ParseOptions(int argc, char** argv, Options& options)
{
    options.service = EnvironmentOr("TILVANE_SERVICE_APP_ID", kDefaultServiceAppId);
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const bool hasValue = i + 1 < argc && argv[i + 1][0] != '\0';
        if (word == "--help") {
            PrintUsage();
            return 0;
        }
        if (word == "--allow-verified-mode") {
            options.allowVerifiedMode = true;
            continue;
        }
        if (!hasValue) {
            std::fprintf(stderr, "tilvane-preview: unknown or incomplete option '%s' (see --help)\n", word.c_str());
            return 2;
        }
        const std::string value = argv[++i];
        if (word == "--port") {
            char* end = nullptr;
            long port = std::strtol(value.c_str(), &end, 10);
            if (*end != '\0' || port < 0 || port > 65535) {
                std::fprintf(stderr, "tilvane-preview: --port takes a number from 0 to 65535\n");
                return 2;
            }
            options.port = static_cast<unsigned>(port);
        } else if (word == "--max-streams") {
            char* end = nullptr;
            long count = std::strtol(value.c_str(), &end, 10);
            if (*end != '\0' || count < 1 || count > 100000) {
                std::fprintf(stderr, "tilvane-preview: --max-streams takes a number from 1 to 100000\n");
                return 2;
            }
            options.maxStreams = static_cast<unsigned>(count);
        } else if (word == "--app-id") {
            options.appId = value;
        } else if (word == "--service") {
            options.service = value;
        } else if (word == "--event-port") {
            options.eventPort = value;
        } else if (word == "--web-dir") {
            options.webDir = value;
        } else {
            std::fprintf(stderr, "tilvane-preview: unknown option '%s' (see --help)\n", word.c_str());
            return 2;
        }
    }
    return -1;
}

bool HasPage(const std::string& dir)
{
    return g_file_test((dir + "/index.html").c_str(), G_FILE_TEST_IS_REGULAR);
}

/* The page's folder: the option, else the installed one beside the program
 * (<prefix>/share/tilvane-preview), else the source tree's. */
std::string FindWebDir(const std::string& chosen)
{
    if (!chosen.empty()) {
        return chosen;
    }
    gchar* program = g_file_read_link("/proc/self/exe", nullptr);
    if (program != nullptr) {
        gchar* bin = g_path_get_dirname(program);
        std::string installed = std::string(bin) + "/../share/tilvane-preview";
        g_free(bin);
        g_free(program);
        if (HasPage(installed)) {
            return installed;
        }
    }
    return TILVANE_PREVIEW_SOURCE_WEB_DIR;
}

std::string PlatformRoot()
{
    const char* root = std::getenv("TILVANE_PLATFORM_ROOT");
    if (root != nullptr && *root != '\0') {
        return root;
    }
    gchar* cwd = g_get_current_dir();
    std::string result = std::string(cwd) + "/tilvane-data";
    g_free(cwd);
    return result;
}

int64_t NowSeconds()
{
    return g_get_real_time() / G_USEC_PER_SEC;
}

/* The JSON text of a preview event for the page. */
std::string EventJson(const tilvane::preview::EventEntries& entries, int64_t sequence)
{
    std::string package;
    std::string section;
    std::string operation = "INSERT";
    for (const auto& [key, value] : entries) {
        if (key == TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME) {
            package = value;
        } else if (key == TilesModel::Tiles::TILE_SECTION_RAW_ID) {
            section = value;
        } else if (key == "OPERATION") {
            operation = value;
        }
    }
    tilvane::preview::JsonWriter json;
    json.BeginObject();
    json.Key("sequence").Integer(sequence);
    json.Key("package").String(package);
    json.Key("section").String(section);
    json.Key("operation").String(operation);
    json.Key("received_ms").Integer(g_get_real_time() / 1000);
    json.Key("entries").BeginObject();
    for (const auto& [key, value] : entries) {
        json.Key(key).String(value);
    }
    json.EndObject().EndObject();
    return json.Text();
}

/* Where identities are verified, the preview runs only as a platform user
 * and only when asked for explicitly; 0 to go on, else the exit code. */
int CheckIdentityMode(const Options& options)
{
    if (!tilvane::host::IdentitiesVerified()) {
        return 0;
    }
    if (!tilvane::host::CountsAsPlatform()) {
        std::fprintf(stderr,
                     "tilvane-preview: identities are verified here and this user (%u) is not a platform user: the "
                     "preview shows every package's content, so only a platform user may run it\n",
                     static_cast<unsigned>(geteuid()));
        return 1;
    }
    if (!options.allowVerifiedMode) {
        std::fprintf(stderr,
                     "tilvane-preview: identities are verified here (a device, not a workstation): the preview "
                     "shows every package's content, so it starts only when asked for with --allow-verified-mode\n");
        return 1;
    }
    return 0;
}

/* In the verified mode an image is read as the user of the package that
 * owns it, or not at all. */
bool PackageReader(const std::string& package, tilvane::preview::ImageReader& reader, std::string& why)
{
    for (const tilvane::host::RegisteredPackage& installed : tilvane::host::ListPackages()) {
        if (installed.packageId != package || installed.userId < 0) {
            continue;
        }
        struct passwd entry;
        struct passwd* found = nullptr;
        char buffer[4096];
        if (getpwuid_r(static_cast<uid_t>(installed.userId), &entry, buffer, sizeof buffer, &found) != 0 ||
            found == nullptr) {
            break;
        }
        reader.asPackage = true;
        reader.uid = found->pw_uid;
        reader.gid = found->pw_gid;
        return true;
    }
    why = "images are read with the privileges of the package that owns them, and '" + package +
          "' is no installed package with a user";
    return false;
}

tilvane::preview::PreviewServer::Settings ServerSettings(const Options& options)
{
    tilvane::preview::PreviewServer::Settings settings;
    settings.port = options.port;
    settings.webDir = FindWebDir(options.webDir);
    settings.imagesDir = PlatformRoot() + tilvane::preview::kImagesDevicePath;
    settings.maxStreams = options.maxStreams;
    if (tilvane::host::IdentitiesVerified()) {
        settings.readerOf = PackageReader;
    }
    return settings;
}

gboolean OnStopSignalCB(gpointer loop)
{
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_CONTINUE;
}

}  // namespace

int main(int argc, char** argv)
{
    setenv("TILVANE_LOG_LEVEL", "W", 0);
    Options options;
    int parsed = ParseOptions(argc, argv, options);
    if (parsed >= 0) {
        return parsed;
    }
    // The host platform takes the process's application id from here.
    setenv("TILVANE_APP_ID", options.appId.c_str(), 1);
    signal(SIGPIPE, SIG_IGN);
    const int refused = CheckIdentityMode(options);
    if (refused != 0) {
        return refused;
    }

    tilvane::preview::LauncherData data(NowSeconds);
    const tilvane::preview::PreviewServer::Settings settings = ServerSettings(options);
    if (!HasPage(settings.webDir)) {
        std::fprintf(stderr, "tilvane-preview: no index.html in %s (choose the folder with --web-dir)\n",
                     settings.webDir.c_str());
        return 1;
    }
    tilvane::preview::PreviewServer server(settings, data);
    std::string error;
    if (!server.Start(error)) {
        std::fprintf(stderr, "tilvane-preview: cannot listen on 127.0.0.1:%u: %s\n", options.port, error.c_str());
        return 1;
    }

    int64_t sequence = 0;
    tilvane::preview::PreviewEvents events(options.service, options.eventPort,
                                           [&](const tilvane::preview::EventEntries& entries) {
                                               server.Broadcast("change", EventJson(entries, ++sequence));
                                           });
    if (!events.Start(error)) {
        std::fprintf(stderr, "tilvane-preview: %s\n", error.c_str());
        return 1;
    }

    std::fprintf(stderr, "tilvane-preview: reading as %s, page files from %s, images from %s%s\n",
                 options.appId.c_str(), settings.webDir.c_str(), settings.imagesDir.c_str(),
                 settings.readerOf ? " as the package that owns each" : "");
    std::printf("tilvane-preview: %s\n", server.Address().c_str());
    std::fflush(stdout);

    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    guint sigint = g_unix_signal_add(SIGINT, OnStopSignalCB, loop);
    guint sigterm = g_unix_signal_add(SIGTERM, OnStopSignalCB, loop);
    g_main_loop_run(loop);
    g_source_remove(sigint);
    g_source_remove(sigterm);
    events.Stop();
    g_main_loop_unref(loop);
    std::fprintf(stderr, "tilvane-preview: stopped\n");
    return 0;
}
