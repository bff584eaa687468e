#include "base/request_report.h"

namespace tilvane {
namespace host {
namespace {

thread_local RequestReport* t_report = nullptr;

}  // namespace

RequestReportScope::RequestReportScope() : m_previous(t_report)
{
    t_report = &m_report;
}

RequestReportScope::~RequestReportScope()
{
    t_report = m_previous;
}

bool RequestReportOpen()
{
    return t_report != nullptr;
}

void RecordStatementError(int code, const char* message)
{
    if (t_report != nullptr && message != nullptr) {
        t_report->statementCode = code;
        t_report->statementError = message;
    }
}

void RecordChangedRows(int64_t rows)
{
    if (t_report != nullptr && rows > 0) {
        t_report->changedRows += rows;
    }
}

void RecordBudgetFailure(const char* reason)
{
    if (t_report != nullptr && reason != nullptr && t_report->budget.empty()) {
        t_report->budget = reason;
    }
}

void RecordSystemFailure(tilvane_reason reason, const std::string& text)
{
    if (t_report != nullptr && t_report->providerFailure.empty()) {
        t_report->providerFailure = text;
        t_report->providerReason = reason;
    }
}

}  // namespace host
}  // namespace tilvane
