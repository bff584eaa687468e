/*
 * The size of a reply. The bus daemon drops a connection that sends a message
 * longer than its limit (max_message_size, which the shipped bus
 * configurations set explicitly), and the service would be off the bus. The
 * host knows that limit from `[bus] max-message-bytes` and never sends a
 * larger reply: rows that would not fit are answered with kReplyTooLargeText
 * before anything is sent. Results are not paged: a client selects fewer
 * rows (the content interface's limit, or a where clause over the row ids)
 * or fewer columns (docs/messaging.md).
 */
#ifndef TILVANE_PLATFORM_REPLY_BUDGET_H
#define TILVANE_PLATFORM_REPLY_BUDGET_H

#include <cstddef>
#include <string>

namespace tilvane {
namespace host {
namespace requests {

inline constexpr char kReplyTooLargeText[] =
    "the result is larger than a reply can carry; select fewer rows or columns";

/* The bus's message limit as the integrator's configuration gives it. */
size_t MaxMessageBytes();
/* The most bytes of rows or row ids one reply may carry: the message limit
 * less room for the reply's header. */
size_t MaxReplyPayloadBytes();

/* Records the refusal for the request's reply and logs it, naming the
 * application and the request. */
void NoteReplyTooLarge(const std::string& app, const std::string& request);

}  // namespace requests
}  // namespace host
}  // namespace tilvane

#endif
