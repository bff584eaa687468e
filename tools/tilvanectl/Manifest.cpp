/*
 * The manifest of `tilvanectl app install` (docs/tools.md): one package, its
 * applications and their metadata, one "NAME = VALUE" line each.
 */
#include "Manifest.h"

#include <istream>
#include <set>
#include <string>
#include <vector>

namespace tilvanectl {

using tilvane::host::RegisteredApplication;
using tilvane::host::RegisteredPackage;

namespace {

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

}  // namespace

bool ParseManifestStream(std::istream& in, const std::string& path, RegisteredPackage& package, std::string& error)
{
    bool havePackage = false;
    bool haveWebApp = false;
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
            return fail("expected 'NAME = VALUE' (package, webapp, app or metadata)");
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
        } else if (name == "app") {
            if (!IsOneWord(value)) {
                return fail("'app' needs one application id without blanks");
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
            return fail("unknown name '" + name + "' (expected package, webapp, app or metadata)");
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

}  // namespace tilvanectl
