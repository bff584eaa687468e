/*
 * tilvanectl app: installs, removes and lists applications in the platform's
 * application registry, which the service reads for package ids, application
 * metadata and the web-application store's ids.
 *
 * A manifest (see docs/tools.md) describes one package:
 *
 *   # a comment
 *   package = org.example.news
 *   webapp = NewsStore01
 *   user = 5001
 *   app = org.example.news.main
 *   metadata = http://developer.quillon.com/tv/metadata/use.preview true
 *
 * Package and application ids must have the platform's id syntax (letters,
 * digits, '.', '_', '-', a letter first, at most 128 bytes). `user` names the
 * operating-system user (a number or a user name) the package's applications
 * run as; without it the registry allocates one.
 *
 * A manifest with a mistake is refused as a whole, naming the file and line.
 */
#include <pwd.h>

#include <cstdio>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include <host_control.h>

#include "Commands.h"
#include "Json.h"
#include "Manifest.h"

namespace tilvanectl {
namespace {

using tilvane::host::RegisteredApplication;
using tilvane::host::RegisteredPackage;

/* Reads a manifest. On a mistake, `error` holds "<file>:<line>: <what>". */
bool ParseManifest(const std::string& path, RegisteredPackage& package, std::string& error)
{
    std::ifstream in(path);
    if (!in) {
        error = path + ": cannot be read";
        return false;
    }
    return ParseManifestStream(in, path, package, error);
}

int Install(const std::vector<std::string>& args)
{
    if (args.size() != 2) {
        std::fprintf(stderr, "tilvanectl app install: expected one manifest file (see tilvanectl app --help)\n");
        return EXIT_USAGE;
    }
    RegisteredPackage package;
    std::string error;
    if (!ParseManifest(args[1], package, error)) {
        std::fprintf(stderr, "tilvanectl app install: %s; nothing was installed\n", error.c_str());
        return EXIT_FAILED;
    }
    if (!tilvane::host::InstallPackage(package, &error)) {
        std::fprintf(stderr, "tilvanectl app install: %s: refused: %s\n", args[1].c_str(), error.c_str());
        return EXIT_FAILED;
    }
    std::printf("installed %s (%zu application%s)\n", package.packageId.c_str(), package.applications.size(),
                package.applications.size() == 1 ? "" : "s");
    return EXIT_OK;
}

int Remove(const std::vector<std::string>& args)
{
    if (args.size() != 2 || args[1].empty()) {
        std::fprintf(stderr, "tilvanectl app remove: expected one package id (see tilvanectl app --help)\n");
        return EXIT_USAGE;
    }
    std::string error;
    if (!tilvane::host::RemovePackage(args[1], &error)) {
        std::fprintf(stderr, "tilvanectl app remove: %s\n", error.c_str());
        return EXIT_FAILED;
    }
    std::printf("removed %s\n", args[1].c_str());
    return EXIT_OK;
}

void PrintPackagesAsJson(const std::vector<RegisteredPackage>& packages)
{
    std::string out = "[";
    for (size_t p = 0; p < packages.size(); ++p) {
        const RegisteredPackage& package = packages[p];
        out += p == 0 ? "\n  {" : ",\n  {";
        out += "\"package\": " + JsonQuote(package.packageId) + ", \"webapp\": ";
        out += package.webAppId.empty() ? "null" : JsonQuote(package.webAppId);
        out += ", \"apps\": [";
        for (size_t a = 0; a < package.applications.size(); ++a) {
            const RegisteredApplication& app = package.applications[a];
            out += a == 0 ? "\n    {" : ",\n    {";
            out += "\"app\": " + JsonQuote(app.appId) + ", \"metadata\": {";
            for (size_t m = 0; m < app.metadata.size(); ++m) {
                out += m == 0 ? "" : ", ";
                out += JsonQuote(app.metadata[m].first) + ": " + JsonQuote(app.metadata[m].second);
            }
            out += "}}";
        }
        out += package.applications.empty() ? "]}" : "\n  ]}";
    }
    out += packages.empty() ? "]\n" : "\n]\n";
    std::fputs(out.c_str(), stdout);
}

int List(const std::vector<std::string>& args)
{
    const bool json = args.size() == 2 && args[1] == "--json";
    if (args.size() != 1 && !json) {
        std::fprintf(stderr, "tilvanectl app list: takes no arguments but --json\n");
        return EXIT_USAGE;
    }
    std::vector<RegisteredPackage> packages;
    if (!tilvane::host::ReadInstalledPackages(packages)) {
        std::fprintf(stderr,
                     "tilvanectl app list: the application registry cannot be read (it is the platform's own: "
                     "run as a platform user)\n");
        return EXIT_FAILED;
    }
    if (json) {
        PrintPackagesAsJson(packages);
        return EXIT_OK;
    }
    if (packages.empty()) {
        std::printf("no packages installed\n");
        return EXIT_OK;
    }
    for (const RegisteredPackage& package : packages) {
        std::printf("package %s\n", package.packageId.c_str());
        if (!package.webAppId.empty()) {
            std::printf("  webapp %s\n", package.webAppId.c_str());
        }
        for (const RegisteredApplication& app : package.applications) {
            std::printf("  app %s\n", app.appId.c_str());
            for (const auto& entry : app.metadata) {
                std::printf("    metadata %s = %s\n", entry.first.c_str(), entry.second.c_str());
            }
        }
    }
    return EXIT_OK;
}

}  // namespace

void PrintAppHelp()
{
    std::printf(
        "Usage: tilvanectl app install MANIFEST\n"
        "       tilvanectl app remove PACKAGE\n"
        "       tilvanectl app list [--json]\n"
        "\n"
        "install  installs the package a manifest describes, replacing one of the same id\n"
        "remove   removes a package with its applications and their metadata\n"
        "list     prints every package, its web application id, its applications and their metadata\n"
        "         (--json: an array of {package, webapp, apps: [{app, metadata: {KEY: VALUE}}]})\n"
        "\n"
        "Manifest lines ('#' starts a comment line):\n"
        "  package = PACKAGE_ID          once\n"
        "  webapp = WEB_APP_ID           at most once: the web-application store's id\n"
        "  user = UID_OR_NAME            at most once: the user the applications run as\n"
        "                                (allocated by the registry when not given)\n"
        "  app = APP_ID                  one line per application\n"
        "  metadata = KEY [VALUE]        for the application of the last 'app' line;\n"
        "                                the key ends at the first blank, the value is the rest\n"
        "Ids: letters, digits, '.', '_', '-', a letter first, at most 128 bytes.\n"
        "The registry lives under $TILVANE_PLATFORM_ROOT; see docs/tools.md.\n");
}

int RunAppCommand(const std::vector<std::string>& args)
{
    if (args.empty()) {
        PrintAppHelp();
        return EXIT_USAGE;
    }
    if (args[0] == "install") {
        return Install(args);
    }
    if (args[0] == "remove") {
        return Remove(args);
    }
    if (args[0] == "list") {
        return List(args);
    }
    std::fprintf(stderr, "tilvanectl app: unknown command '%s' (see tilvanectl app --help)\n", args[0].c_str());
    return EXIT_USAGE;
}

}  // namespace tilvanectl
