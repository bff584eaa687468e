/*
 * What happened while one request of a request interface ran: the reasons a
 * client is told beside the provider's result code, and the rows a change
 * touched.
 *
 * The request interfaces open a RequestReportScope on the thread that runs
 * the provider's callback and hand it down that way: while it is open, the
 * rooms below them record on it. The content library records the code and
 * message of every statement that fails, the rows every update and delete
 * changed and the budget a statement ran past; the log records the reason
 * that the system's own failure lines name (log/system_reasons.h). Nothing
 * below the request interfaces knows them. The provider's result codes stay
 * as they are: this only adds reasons to them. Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_REQUEST_REPORT_H
#define TILVANE_PLATFORM_REQUEST_REPORT_H

#include <cstdint>
#include <string>

#include "tilvane_reason.h"

namespace tilvane {
namespace host {

struct RequestReport {
    /* SQLite's result code and message for the last statement that failed;
     * 0 and "" when none did. */
    int statementCode = 0;
    std::string statementError;
    /* Rows changed by the updates and deletes of the request. */
    int64_t changedRows = 0;
    /* The first failure line of the system's own log while the request ran
     * (its prefix of source position removed), with the reason the system's
     * texts give it; "" and none when there was none. */
    std::string providerFailure;
    tilvane_reason providerReason = TILVANE_REASON_NONE;
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
void RecordStatementError(int code, const char* message);
void RecordChangedRows(int64_t rows);
/* Keeps the first budget failure of the request; later ones do not replace it. */
void RecordBudgetFailure(const char* reason);
/* Keeps the first failure the system's log named; later ones report its
 * outcome and do not replace it. */
void RecordSystemFailure(tilvane_reason reason, const std::string& text);

}  // namespace host
}  // namespace tilvane

#endif
