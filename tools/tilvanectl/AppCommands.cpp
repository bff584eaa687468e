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

namespace tilvanectl {
namespace {

using tilvane::host::RegisteredApplication;
using tilvane::host::RegisteredPackage;

const char kBlanks[] = " \t\r";

std::string Trim(const std::string& text)
{
    std::string::size_type first = text.find_first_not_of(kBlanks);
    if (first == std::string::npos) {
        return std::string();
    }
    std::string::size_type last = text.find_last_not_of(kBlanks);
    return text.substr(first, last - first + 1);
}

bool IsOneWord(const std::string& text)
{
    return !text.empty() && text.find_first_of(kBlanks) == std::string::npos;
}

/* A user id given as a number or a user name. */
bool ParseUser(const std::string& text, int64_t& userId)
{
    if (!text.empty() && text.find_first_not_of("0123456789") == std::string::npos && text.size() <= 10) {
        const unsigned long long number = std::stoull(text);
        if (number < 0xFFFFFFFFull) {
            userId = static_cast<int64_t>(number);
            return true;
        }
        return false;
    }
    struct passwd* entry = text.empty() ? nullptr : getpwnam(text.c_str());
    if (entry == nullptr) {
        return false;
    }
    userId = static_cast<int64_t>(entry->pw_uid);
    return true;
}

/* Reads a manifest. On a mistake, `error` holds "<file>:<line>: <what>". */
bool ParseManifest(const std::string& path, RegisteredPackage& package, std::string& error)
{
    std::ifstream in(path);
    if (!in) {
        error = path + ": cannot be read";
        return false;
    }
    bool havePackage = false;
    bool haveWebApp = false;
    bool haveUser = false;
    std::set<std::string> appIds;
    std::set<std::string> keysOfLastApp;
    std::string line;
    int number = 0;
    auto fail = [&](const std::string& what) {
        error = path + ":" + std::to_string(number) + ": " + what;
        return false;
    };
    while (std::getline(in, line)) {
        ++number;
        std::string text = Trim(line);
        if (text.empty() || text[0] == '#') {
            continue;
        }
        std::string::size_type equals = text.find('=');
        if (equals == std::string::npos) {
            return fail("expected 'NAME = VALUE' (package, webapp, user, app or metadata)");
        }
        std::string name = Trim(text.substr(0, equals));
        std::string value = Trim(text.substr(equals + 1));
        if (name == "package") {
            if (havePackage) {
                return fail("'package' is given a second time");
            }
            if (!IsOneWord(value)) {
                return fail("'package' needs one package id without blanks");
            }
            std::string rule;
            if (!tilvane::host::IsValidPlatformId(value, &rule)) {
                return fail("package id '" + value + "' is refused: " + rule);
            }
            package.packageId = value;
            havePackage = true;
        } else if (name == "webapp") {
            if (haveWebApp) {
                return fail("'webapp' is given a second time");
            }
            if (!IsOneWord(value)) {
                return fail("'webapp' needs one web application id without blanks");
            }
            package.webAppId = value;
            haveWebApp = true;
        } else if (name == "user") {
            if (haveUser) {
                return fail("'user' is given a second time");
            }
            if (!ParseUser(value, package.userId)) {
                return fail("'user' needs a user id (a number) or the name of a user");
            }
            haveUser = true;
        } else if (name == "app") {
            if (!IsOneWord(value)) {
                return fail("'app' needs one application id without blanks");
            }
            std::string rule;
            if (!tilvane::host::IsValidPlatformId(value, &rule)) {
                return fail("application id '" + value + "' is refused: " + rule);
            }
            if (!appIds.insert(value).second) {
                return fail("application '" + value + "' is given a second time");
            }
            package.applications.push_back(RegisteredApplication{value, {}});
            keysOfLastApp.clear();
        } else if (name == "metadata") {
            if (package.applications.empty()) {
                return fail("'metadata' before any 'app' line");
            }
            if (value.empty()) {
                return fail("'metadata' needs a key");
            }
            std::string::size_type blank = value.find_first_of(kBlanks);
            std::string key = value.substr(0, blank);
            std::string metadataValue = blank == std::string::npos ? std::string() : Trim(value.substr(blank));
            if (!keysOfLastApp.insert(key).second) {
                return fail("metadata key '" + key + "' is given a second time for application '" +
                            package.applications.back().appId + "'");
            }
            package.applications.back().metadata.emplace_back(key, metadataValue);
        } else {
            return fail("unknown name '" + name + "' (expected package, webapp, user, app or metadata)");
        }
    }
    if (in.bad()) {
        error = path + ": cannot be read";
        return false;
    }
    if (!havePackage) {
        error = path + ":" + std::to_string(number) + ": no 'package' line";
        return false;
    }
    if (package.applications.empty()) {
        error = path + ":" + std::to_string(number) + ": no 'app' line";
        return false;
    }
    return true;
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

int List(const std::vector<std::string>& args)
{
    if (args.size() != 1) {
        std::fprintf(stderr, "tilvanectl app list: takes no arguments\n");
        return EXIT_USAGE;
    }
    std::vector<RegisteredPackage> packages = tilvane::host::ListPackages();
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
        "       tilvanectl app list\n"
        "\n"
        "install  installs the package a manifest describes, replacing one of the same id\n"
        "remove   removes a package with its applications and their metadata\n"
        "list     prints every package, its web application id, its applications and their metadata\n"
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
