#include "Delivery.h"

#include <confinement_policy.h>
#include <host_control.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "Commands.h"

namespace tilvanectl {
namespace {

/* A receiver answers as soon as it has checked the sender. */
const int kAnswerTimeoutMs = 10000;

std::string OwnAppId()
{
    const char* id = std::getenv("TILVANE_APP_ID");
    return id != nullptr ? id : "";
}

}  // namespace

void ExplainRefusedName(const char* group)
{
    std::fprintf(stderr,
                 "tilvanectl %s: the bus refuses the name of application '%s' to this user (%u): an application's "
                 "names belong to its package's user (the platform's ids to platform users); choose your "
                 "application's id with --app-id\n",
                 group, OwnAppId().c_str(), static_cast<unsigned>(geteuid()));
}

int ConfirmDelivery(const char* group, const std::string& service)
{
    std::vector<std::string> refusals;
    const bool answered = tilvane::host::WaitForDeliveryAnswers(kAnswerTimeoutMs, &refusals);
    if (!refusals.empty()) {
        std::fprintf(stderr, "tilvanectl %s: the service '%s' refused the message: %s\n", group, service.c_str(),
                     refusals.front().c_str());
        if (refusals.front().find(".NotAuthorized") != std::string::npos) {
            std::fprintf(stderr,
                         "tilvanectl %s: this tool runs as application '%s' and user %u; an application id counts "
                         "only from its own user (choose the id with --app-id)\n",
                         group, OwnAppId().c_str(), static_cast<unsigned>(geteuid()));
        }
        return EXIT_FAILED;
    }
    if (!answered) {
        std::fprintf(stderr, "tilvanectl %s: the service '%s' did not answer the message within %d s\n", group,
                     service.c_str(), kAnswerTimeoutMs / 1000);
        return EXIT_FAILED;
    }
    return EXIT_OK;
}

int RequirePlatformSender(const char* group, const char* kind)
{
    const std::string appId = OwnAppId();
    if (!confinement_policy_is_strict() || confinement_policy_sender_is_platform(appId.c_str())) {
        return EXIT_OK;
    }
    std::fprintf(stderr,
                 "tilvanectl %s: strict confinement is on, and the service acts on %s messages only from the "
                 "platform (a platform user in the verified identity mode); this tool runs as application '%s' and "
                 "user %u; nothing was sent\n",
                 group, kind, appId.c_str(), static_cast<unsigned>(geteuid()));
    return EXIT_FAILED;
}

int RequirePlatformUser(const char* group, const char* what)
{
    if (tilvane::host::CountsAsPlatform()) {
        return EXIT_OK;
    }
    std::fprintf(stderr,
                 "tilvanectl %s: identities are verified and this tool runs as user %u, not a platform user: %s "
                 "counts only from the platform; nothing was sent\n",
                 group, static_cast<unsigned>(geteuid()), what);
    return EXIT_FAILED;
}

}  // namespace tilvanectl
