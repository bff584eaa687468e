/*
 * Application identity on the host.
 *
 * A process runs as one application id. On the message bus it owns the name
 *   "org.tilvane.App.A" + escape(id)
 * where escape keeps every byte in [A-Za-z0-9] and writes every other byte as
 * "_" followed by two lower-case hex digits. No kept byte is "_", so the
 * escaped text decodes in exactly one way: distinct ids never share a name,
 * and a name is turned back into its id by undoing the escapes. The fixed
 * "A" keeps the last element of the name from starting with a digit.
 */
#include <errno.h>
#include <glib.h>

#include <cstdlib>
#include <mutex>

#include "identity/app_identity.h"
#include "host_control/identity.h"
#include "host_control/base.h"
#include "base/reset_hooks.h"

namespace tilvane {
namespace host {
namespace {

/* The bus refuses longer names. */
constexpr size_t kMaxBusNameLength = 255;

struct IdentityState {
    std::mutex mutex;
    bool overridden = false;
    std::string appId;
};

IdentityState& TheIdentityState()
{
    static IdentityState* state = new IdentityState();
    return *state;
}

bool IsKept(unsigned char c)
{
    return g_ascii_isalnum(c) != 0;
}

int HexValue(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return -1; /* upper-case digits are not the canonical form */
}

}  // namespace

std::string CurrentAppId()
{
    IdentityState& s = TheIdentityState();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.overridden) {
            return s.appId;
        }
    }
    const char* fromEnvironment = std::getenv("TILVANE_APP_ID");
    if (fromEnvironment != nullptr && *fromEnvironment != '\0') {
        return fromEnvironment;
    }
    return program_invocation_short_name != nullptr ? program_invocation_short_name : "";
}

void ClearOwnAppIdOverride()
{
    IdentityState& s = TheIdentityState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.overridden = false;
    s.appId.clear();
}

namespace {
/* Reset(): back to TILVANE_APP_ID or the program's name. */
const ResetHook kResetOwnAppId(3, ClearOwnAppIdOverride);
}  // namespace

void SetOwnAppId(const std::string& appId)
{
    IdentityState& s = TheIdentityState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.overridden = !appId.empty();
    s.appId = appId;
}

std::string OwnAppId()
{
    return CurrentAppId();
}

std::string EscapedBusName(const char* prefix, const std::string& text)
{
    static const char kHex[] = "0123456789abcdef";
    std::string name(prefix);
    for (char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (IsKept(byte)) {
            name.push_back(c);
        } else {
            name.push_back('_');
            name.push_back(kHex[byte >> 4]);
            name.push_back(kHex[byte & 0x0f]);
        }
    }
    if (text.empty() || name.size() > kMaxBusNameLength) {
        return std::string();
    }
    return name;
}

std::string BusNameForAppId(const std::string& appId)
{
    return EscapedBusName(kAppBusNamePrefix, appId);
}

std::string PortBusNamePrefix(const std::string& appId)
{
    return EscapedBusName(kPortBusNamePrefix, appId);
}

bool AppIdForBusName(const std::string& busName, std::string& appId)
{
    const std::string prefix(kAppBusNamePrefix);
    if (busName.size() <= prefix.size() || busName.compare(0, prefix.size(), prefix) != 0) {
        return false;
    }
    std::string decoded;
    for (size_t i = prefix.size(); i < busName.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(busName[i]);
        if (IsKept(c)) {
            decoded.push_back(static_cast<char>(c));
            continue;
        }
        if (c != '_' || i + 2 >= busName.size()) {
            return false;
        }
        const int high = HexValue(busName[i + 1]);
        const int low = HexValue(busName[i + 2]);
        if (high < 0 || low < 0) {
            return false;
        }
        const unsigned char byte = static_cast<unsigned char>(high * 16 + low);
        if (IsKept(byte)) {
            return false; /* a kept byte is never escaped */
        }
        decoded.push_back(static_cast<char>(byte));
        i += 2;
    }
    appId = decoded;
    return true;
}

}  // namespace host
}  // namespace tilvane
