/*
 * The manifest of `tilvanectl app install` (docs/tools.md): one package, its
 * user, its applications and their metadata, one "NAME = VALUE" line each.
 */
#include "Manifest.h"

#include <pwd.h>

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

/* An id the platform would issue; otherwise the mistake naming its rule. */
std::string PlatformIdMistake(const std::string& what, const std::string& id)
{
    std::string rule;
    if (tilvane::host::IsValidPlatformId(id, &rule)) {
        return "";
    }
    return what + " '" + id + "' is refused: " + rule;
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
            std::string mistake = TakeId(value, m_havePackage, "package", "package id", m_package.packageId);
            return mistake.empty() ? PlatformIdMistake("package id", value) : mistake;
        }
        if (name == "webapp") {
            return TakeId(value, m_haveWebApp, "webapp", "web application id", m_package.webAppId);
        }
        if (name == "user") {
            return TakeUser(value);
        }
        if (name == "app") {
            return TakeApp(value);
        }
        if (name == "metadata") {
            return TakeMetadata(value);
        }
        return "unknown name '" + name + "' (expected package, webapp, user, app or metadata)";
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

    std::string TakeUser(const std::string& value)
    {
        if (m_haveUser) {
            return "'user' is given a second time";
        }
        if (!ParseUser(value, m_package.userId)) {
            return "'user' needs a user id (a number) or the name of a user";
        }
        m_haveUser = true;
        return "";
    }

    std::string TakeApp(const std::string& value)
    {
        if (!IsOneWord(value)) {
            return "'app' needs one application id without blanks";
        }
        std::string mistake = PlatformIdMistake("application id", value);
        if (!mistake.empty()) {
            return mistake;
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
    bool m_haveUser = false;
    std::set<std::string> m_appIds;
    std::set<std::string> m_keysOfLastApp;
};

}  // namespace

bool ParseManifestStream(std::istream& in, const std::string& path, RegisteredPackage& package, std::string& error)
{
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
            return fail("expected 'NAME = VALUE' (package, webapp, user, app or metadata)");
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

}  // namespace tilvanectl
