/*
 * What happened while one request of a request interface ran: the reasons a client
 * is told beside the provider's result code, and the rows a change touched.
 *
 * The interface opens a RequestReportScope on the thread that runs the provider's
 * callback; while it is open the content library records the message of every
 * statement that fails and the rows every update and delete changed, and the
 * platform log hands over the provider's own lines. The provider's result
 * codes stay as they are: this only adds words to them. Internal to the host
 * platform (the client library shares ReasonForProviderText).
 */
#ifndef TILVANE_PLATFORM_REQUEST_REPORT_H
#define TILVANE_PLATFORM_REQUEST_REPORT_H

#include <cstdint>
#include <string>

namespace tilvane {
namespace host {

struct RequestReport {
    /* SQLite's message for the last statement that failed, "" when none did. */
    std::string statementError;
    /* Rows changed by the updates and deletes of the request. */
    int64_t changedRows = 0;
    /* The provider's first log line that starts with "failed" (its prefix of
     * source position removed), "" when there was none. */
    std::string providerFailure;
    /* The reason of the first budget the request ran past (a statement's
     * time, memory or length, the size of a reply), "" when none. */
    std::string budget;
};

/* Opens a report on this thread for its lifetime; scopes do not nest (an
 * inner one takes over until it ends). */
class RequestReportScope {
public:
    RequestReportScope();
    ~RequestReportScope();
    RequestReportScope(const RequestReportScope&) = delete;
    RequestReportScope& operator=(const RequestReportScope&) = delete;
    const RequestReport& Report() const { return m_report; }

private:
    RequestReport m_report;
    RequestReport* m_previous;
};

bool RequestReportOpen();
void RecordStatementError(const char* message);
void RecordChangedRows(int64_t rows);
/* Keeps the first budget failure of the request; later ones do not replace it. */
void RecordBudgetFailure(const char* reason);
/* Called by the platform log for every line while a report is open. */
void NoteLogLine(int priority, const char* tag, const std::string& message);

/* A client's words for a provider's failure text or log line: "permission
 * level too low" for a refusal by level, "" when the text is not one of the
 * known refusals. */
std::string ReasonForProviderText(const std::string& text);

}  // namespace host
}  // namespace tilvane

#endif
