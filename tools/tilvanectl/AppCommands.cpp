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
 *   app = org.example.news.main
 *   metadata = http://developer.quillon.com/tv/metadata/use.preview true
 *
 * A manifest with a mistake is refused as a whole, naming the file and line.
 */
#include <cstdio>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include <host_control.h>

#include "Commands.h"
#include "Json.h"

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

/* What a manifest has given so far, and how each of its statements adds to it. */
class ManifestReader
{
public:
    explicit ManifestReader(RegisteredPackage& package) : m_package(package) {}

    /* Takes one "NAME = VALUE" statement: its mistake, or "" when it is taken. */
    std::string Take(const std::string& name, const std::string& value)
    {
        if (name == "package") {
            return TakeId(value, m_havePackage, "package", "package id", m_package.packageId);
        }
        if (name == "webapp") {
            return TakeId(value, m_haveWebApp, "webapp", "web application id", m_package.webAppId);
        }
        if (name == "app") {
            return TakeApp(value);
        }
        if (name == "metadata") {
            return TakeMetadata(value);
        }
        return "unknown name '" + name + "' (expected package, webapp, app or metadata)";
    }

    /* The mistake of a manifest that ends here, or "". */
    std::string Finish() const
    {
        if (!m_havePackage) {
            return "no 'package' line";
        }
        if (m_package.applications.empty()) {
            return "no 'app' line";
        }
        return "";
    }

private:
    /* A statement that may be given once, with one word. */
    static std::string TakeId(const std::string& value, bool& given, const std::string& name,
                              const std::string& what, std::string& id)
    {
        if (given) {
            return "'" + name + "' is given a second time";
        }
        if (!IsOneWord(value)) {
            return "'" + name + "' needs one " + what + " without blanks";
        }
        id = value;
        given = true;
        return "";
    }

    std::string TakeApp(const std::string& value)
    {
        if (!IsOneWord(value)) {
            return "'app' needs one application id without blanks";
        }
        if (!m_appIds.insert(value).second) {
            return "application '" + value + "' is given a second time";
        }
        m_package.applications.push_back(RegisteredApplication{value, {}});
        m_keysOfLastApp.clear();
        return "";
    }

    std::string TakeMetadata(const std::string& value)
    {
        if (m_package.applications.empty()) {
            return "'metadata' before any 'app' line";
        }
        if (value.empty()) {
            return "'metadata' needs a key";
        }
        std::string::size_type blank = value.find_first_of(kBlanks);
        std::string key = value.substr(0, blank);
        std::string metadataValue = blank == std::string::npos ? std::string() : Trim(value.substr(blank));
        if (!m_keysOfLastApp.insert(key).second) {
            return "metadata key '" + key + "' is given a second time for application '" +
                   m_package.applications.back().appId + "'";
        }
        m_package.applications.back().metadata.emplace_back(key, metadataValue);
        return "";
    }

    RegisteredPackage& m_package;
    bool m_havePackage = false;
    bool m_haveWebApp = false;
    std::set<std::string> m_appIds;
    std::set<std::string> m_keysOfLastApp;
};

/* Reads a manifest. On a mistake, `error` holds "<file>:<line>: <what>". */
bool ParseManifest(const std::string& path, RegisteredPackage& package, std::string& error)
{
    std::ifstream in(path);
    if (!in) {
        error = path + ": cannot be read";
        return false;
    }
    ManifestReader reader(package);
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
            return fail("expected 'NAME = VALUE' (package, webapp, app or metadata)");
        }
        std::string mistake = reader.Take(Trim(text.substr(0, equals)), Trim(text.substr(equals + 1)));
        if (!mistake.empty()) {
            return fail(mistake);
        }
    }
    if (in.bad()) {
        error = path + ": cannot be read";
        return false;
    }
    std::string mistake = reader.Finish();
    return mistake.empty() || fail(mistake);
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
    std::vector<RegisteredPackage> packages = tilvane::host::ListPackages();
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
        "  app = APP_ID                  one line per application\n"
        "  metadata = KEY [VALUE]        for the application of the last 'app' line;\n"
        "                                the key ends at the first blank, the value is the rest\n"
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
