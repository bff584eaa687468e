#include "requests/request_report.h"

#include <dlog.h>

#include <cstring>

namespace tilvane {
namespace host {
namespace {

thread_local RequestReport* t_report = nullptr;

/* The tag the provider logs under. */
constexpr char kProviderLogTag[] = "tilvane";

/* The provider's lines read "File.cpp: Function(line) > text". */
std::string WithoutSourcePrefix(const std::string& message)
{
    const size_t marker = message.find(" > ");
    return marker == std::string::npos ? message : message.substr(marker + 3);
}

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

void RecordStatementError(const char* message)
{
    if (t_report != nullptr && message != nullptr) {
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

void NoteLogLine(int priority, const char* tag, const std::string& message)
{
    if (t_report == nullptr || priority < DLOG_INFO || tag == nullptr || std::strcmp(tag, kProviderLogTag) != 0) {
        return;
    }
    const std::string text = WithoutSourcePrefix(message);
    /* The first one names the cause; the ones after it report the outcome. */
    if (t_report->providerFailure.empty() && text.compare(0, 6, "failed") == 0) {
        t_report->providerFailure = text;
    }
}

std::string ReasonForProviderText(const std::string& text)
{
    if (text == "failed by permission" || text == "failed SELECT by permission") {
        return "permission level too low";
    }
    if (text == "failed by invalid URI") {
        return "this table cannot be changed through this request";
    }
    return std::string();
}

}  // namespace host
}  // namespace tilvane
