/*
 * Test control API, message ports: the bus names of ports, the deliveries
 * that wait for their answer, and the messages this process sent. Part of
 * host_control.h (for tests and tools).
 */
#ifndef TILVANE_PLATFORM_HOST_CONTROL_PORTS_H
#define TILVANE_PLATFORM_HOST_CONTROL_PORTS_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace tilvane {
namespace host {

/* The bus name that a process owns while its port `port` of application
 * `appId` is registered (docs/messaging.md). */
std::string BusNameForPort(const std::string& appId, const std::string& port);

/* Waits up to `timeoutMs` until every message-port message this process sent
 * has been answered by its receiver (a receiver answers once it has checked
 * the sender, before the port's callback runs); the refusals among the
 * answers ("<error name>: <text>", oldest first) are moved to `refusals`.
 * False when some are still unanswered. */
bool WaitForDeliveryAnswers(int timeoutMs, std::vector<std::string>* refusals);

/* How many message-port deliveries to `appId` wait for their answer. */
int UnansweredDeliveries(const std::string& appId);

/* One message_port_send_message* call that got past its argument checks. */
struct SentMessage {
    std::string appId;     /* the receiving application */
    std::string port;      /* its port */
    std::string localPort; /* the sender's local port, "" for a plain send */
    std::vector<std::pair<std::string, std::string>> entries; /* the bundle, in order */
    int result;            /* what the call returned */
    int64_t timeUs;        /* Now() when it returned */
};

/* While recording is on (off after Reset()), every send is kept, in order. */
void RecordSentMessages(bool on);
std::vector<SentMessage> SentMessages();
void ClearSentMessages();

}  // namespace host
}  // namespace tilvane

#endif
