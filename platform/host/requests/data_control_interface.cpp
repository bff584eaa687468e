/*
 * The data-control interface: org.tilvane.DataControl at /org/tilvane/DataControl.
 * Its typed requests run here on the default main context (one handler per
 * method, request_handlers.h), and the provider side of the data-control API
 * answers them.
 */
#include <sqlite3.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "bus/bus_connection.h"
#include "requests/request_names.h"
#include "confinement_policy.h"
#include "content/database.h"
#include "content/statement_budget.h"
#include "host_control/base.h"
#include "config/platform_config.h"
#include "log/system_reasons.h"
#include "requests/request_glue.h"
#include "requests/request_handlers.h"
#include "requests/row_codec.h"
#include "requests/reply_budget.h"

namespace tilvane {
namespace host {
namespace requests {

namespace {

/* The data-control provider of this process as a request finds it. */
struct DcProvider {
    bool registered = false;
    data_control_provider_sql_cb callbacks{};
    void* userData = nullptr;
    std::string providerId;
};

/* What became of handing a request to the provider's callback. */
enum class DcHanded { Handed, NotServed, Unreadable, Refused };

/* What a method learnt on the way: why its values were refused, what the
 * sync mark of an insert did. */
struct DcNotes {
    BundleRefusal refused = BundleRefusal::None;
    Reason syncMark;
};

/* One request as the provider's callback gets it: its id and handle. */
struct DcCall {
    const DcProvider& provider;
    int id;
    data_control_s& handle;
    DcNotes& notes;
};

DcProvider CurrentDcProvider()
{
    RequestState& s = TheRequestState();
    std::lock_guard<std::mutex> lock(s.mutex);
    DcProvider provider;
    provider.registered = s.dcRegistered;
    provider.callbacks = s.dcCallbacks;
    provider.userData = s.dcUserData;
    provider.providerId = s.dcProviderId;
    return provider;
}

/* Registers the request as active under a new id (so that the provider's
 * answers find it), and forgets it again. */
void BeginDcRequest(DcRequest& request)
{
    RequestState& s = TheRequestState();
    std::lock_guard<std::mutex> lock(s.mutex);
    request.id = s.nextRequestId++;
    if (s.nextRequestId <= 0) {
        s.nextRequestId = 1;
    }
    s.active[request.id] = &request;
}

void EndDcRequest(const DcRequest& request)
{
    RequestState& s = TheRequestState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.active.erase(request.id);
}

/* The tables the provider declares ([data-control] data-ids, by default the
 * service's: data/service-defaults.conf); a request for anything else never
 * reaches a callback. Compared exactly: SQLite would read "TILES" as tiles. */
bool ServesDataId(const std::string& dataId)
{
    std::vector<std::string> declared = config::StringList("data-control", "data-ids");
    if (declared.empty()) {
        declared = config::SplitList(config::Default("data-control", "data-ids"));
    }
    return std::find(declared.begin(), declared.end(), dataId) != declared.end();
}

/* How a request ended: the provider's answer, or why there is none. */
struct DcOutcome {
    bool failed = false;
    Failure failure;
    DcRequest request;
    int64_t changedRows = 0;
};

/* What the provider answered, when that completes a request of `completion`;
 * the failure the call is answered with otherwise. */
bool AnswerCompletes(const DcRequest& request, DcRequest::Answer completion, const DcNotes& notes,
                     const RequestReport& report, Failure& failure)
{
    if (request.answer == DcRequest::Answer::None) {
        REQUEST_LOGD("data-control request %d of %s: no result", request.id, request.clientApp.c_str());
        /* A sync mark is answered with no result by design: say what it did. */
        const Reason reason = notes.syncMark.code != TILVANE_REASON_NONE
                                  ? notes.syncMark
                                  : NoResultReason(report, "the provider sent no result");
        failure = Failure{kErrorNoResult, reason.text, reason.code};
        return false;
    }
    if (request.answer == DcRequest::Answer::Error) {
        failure = Failure{kErrorProviderError, request.error, ReasonOfSystemText(request.error)};
        return false;
    }
    if (request.answer != completion) {
        failure = Failure{kErrorNoResult, "the provider sent a result of another kind of request",
                          TILVANE_REASON_NONE};
        return false;
    }
    return true;
}

/* Runs request `in` for the provider's data id: `hand` gives it to the
 * provider's callback of its kind, which answers it (or not). */
template <typename In, typename Hand>
DcOutcome ServeDataControl(const In& in, DcRequest::Answer completion, Hand hand)
{
    const char* clientApp = in.clientApp;
    const char* providerId = in.providerId;
    const char* dataId = in.dataId;
    DcOutcome outcome;
    const DcProvider provider = CurrentDcProvider();
    if (!provider.registered || provider.providerId != providerId) {
        outcome.failed = true;
        outcome.failure = Failure{kErrorNotServed, "no data-control provider for this provider id here"};
        return outcome;
    }
    if (!ServesDataId(dataId)) {
        REQUEST_LOGE("data-control request %s of %s refused: the provider serves no data id \"%s\"",
                     wire::NameOf(wire::MethodOf<In>::kMethod), clientApp, dataId);
        outcome.failed = true;
        outcome.failure = Failure{kErrorNotServed, "the provider serves no such data id"};
        return outcome;
    }
    outcome.request.clientApp = clientApp;
    BeginDcRequest(outcome.request);
    data_control_s handle{providerId, dataId};
    confinement::RequestScope scope(dataId, clientApp);
    RequestReportScope reportScope;
    DcNotes notes;
    const DcHanded handed = hand(DcCall{provider, outcome.request.id, handle, notes});
    EndDcRequest(outcome.request);
    outcome.failed = true;
    if (handed == DcHanded::Unreadable) {
        outcome.failure = Failure{kErrorInvalidRequest, ValuesRefusal(notes.refused)};
    } else if (handed == DcHanded::NotServed) {
        outcome.failure = Failure{kErrorNotServed, "the provider has no callback for this kind of request"};
    } else if (scope.Refused()) {
        outcome.failure = Failure{kErrorRefused, scope.RefusalText(), TILVANE_REASON_STRICT_CONFINEMENT};
    } else {
        outcome.failed = !AnswerCompletes(outcome.request, completion, notes, reportScope.Report(), outcome.failure);
        outcome.changedRows = reportScope.Report().changedRows;
    }
    return outcome;
}

template <typename Out>
Answer<Out> FailedOr(const DcOutcome& outcome, Out out)
{
    return outcome.failed ? Answer<Out>::Fail(outcome.failure) : Answer<Out>::Reply(std::move(out));
}

/* The values of an insert or update; null (with why in `notes`) when they
 * are not a bundle within the limits. */
BundlePtr Values(const wire::Bytes& encoded, DcNotes& notes)
{
    return DecodeBundle(encoded, &notes.refused);
}

}  // namespace

Answer<wire::DataControlInsertOut> Handle(const wire::DataControlInsertIn& in)
{
    const DcOutcome outcome = ServeDataControl(
        in, DcRequest::Answer::RowId, [&](const DcCall& call) {
            BundlePtr data = Values(in.values, call.notes);
            if (data == nullptr) {
                return DcHanded::Unreadable;
            }
            if (!WithinRequestLimits({data.get()}, nullptr)) {
                return DcHanded::Refused;
            }
            if (call.provider.callbacks.insert_cb == nullptr) {
                return DcHanded::NotServed;
            }
            call.provider.callbacks.insert_cb(call.id, &call.handle, data.get(), call.provider.userData);
            call.notes.syncMark = SyncMarkOf(data.get());
            return DcHanded::Handed;
        });
    wire::DataControlInsertOut out;
    out.rowId = outcome.request.rowId;
    return FailedOr(outcome, std::move(out));
}

Answer<wire::DataControlSelectOut> Handle(const wire::DataControlSelectIn& in)
{
    DcOutcome outcome = ServeDataControl(
        in, DcRequest::Answer::Rows, [&](const DcCall& call) {
            std::vector<const char*> columns(in.columns.begin(), in.columns.end());
            columns.push_back(nullptr);
            if (!WithinRequestLimits({}, in.where)) {
                return DcHanded::Refused;
            }
            if (call.provider.callbacks.select_cb == nullptr) {
                return DcHanded::NotServed;
            }
            call.provider.callbacks.select_cb(call.id, &call.handle, columns.data(),
                                              static_cast<int>(in.columns.size()), OrNull(in.where),
                                              OrNull(in.order), call.provider.userData);
            return DcHanded::Handed;
        });
    wire::DataControlSelectOut out;
    out.rows.owned = std::move(outcome.request.rows);
    return FailedOr(outcome, std::move(out));
}

Answer<wire::DataControlUpdateOut> Handle(const wire::DataControlUpdateIn& in)
{
    const DcOutcome outcome = ServeDataControl(
        in, DcRequest::Answer::Done, [&](const DcCall& call) {
            BundlePtr data = Values(in.values, call.notes);
            if (data == nullptr) {
                return DcHanded::Unreadable;
            }
            if (!WithinRequestLimits({data.get()}, in.where)) {
                return DcHanded::Refused;
            }
            if (call.provider.callbacks.update_cb == nullptr) {
                return DcHanded::NotServed;
            }
            call.provider.callbacks.update_cb(call.id, &call.handle, data.get(), OrNull(in.where),
                                              call.provider.userData);
            return DcHanded::Handed;
        });
    wire::DataControlUpdateOut out;
    out.changedRows = outcome.changedRows;
    return FailedOr(outcome, std::move(out));
}

Answer<wire::DataControlDeleteOut> Handle(const wire::DataControlDeleteIn& in)
{
    const DcOutcome outcome = ServeDataControl(
        in, DcRequest::Answer::Done, [&](const DcCall& call) {
            if (!WithinRequestLimits({}, in.where)) {
                return DcHanded::Refused;
            }
            if (call.provider.callbacks.delete_cb == nullptr) {
                return DcHanded::NotServed;
            }
            call.provider.callbacks.delete_cb(call.id, &call.handle, OrNull(in.where), call.provider.userData);
            return DcHanded::Handed;
        });
    wire::DataControlDeleteOut out;
    out.changedRows = outcome.changedRows;
    return FailedOr(outcome, std::move(out));
}

}  // namespace requests
}  // namespace host
}  // namespace tilvane

/* ---- data control, provider side ---------------------------------------------- */

using namespace tilvane::host;
using namespace tilvane::host::requests;

namespace {

/* Runs `record` on the request in progress under the state's lock. */
template <typename Fn>
int WithActiveRequest(int requestId, Fn record)
{
    RequestState& s = TheRequestState();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto it = s.active.find(requestId);
    if (it == s.active.end()) {
        return DATA_CONTROL_ERROR_INVALID_PARAMETER;
    }
    return record(*it->second);
}

bool IsPlainColumnName(const char* name)
{
    if (name == nullptr || !(std::isalpha(static_cast<unsigned char>(*name)) || *name == '_')) {
        return false;
    }
    for (const char* c = name; *c != '\0'; ++c) {
        if (!(std::isalnum(static_cast<unsigned char>(*c)) || *c == '_')) {
            return false;
        }
    }
    return true;
}

/* Strict confinement's rule for the columns of a data-control select: at
 * least one, each a plain column name (no expression, no subquery, no "*").
 * Whether the level may read the column is the provider's decision. */
bool ConfinedProjection(const char** columns, int count)
{
    if (count == 0) {
        confinement_policy_refuse(CONFINEMENT_RULE_PROJECTION,
                                  "no column is left to select; an empty projection is not widened to every column");
        return false;
    }
    for (int i = 0; i < count; ++i) {
        if (!IsPlainColumnName(columns[i])) {
            const std::string reason = std::string("projection entry \"") + (columns[i] != nullptr ? columns[i] : "") +
                                       "\" is not a column name";
            confinement_policy_refuse(CONFINEMENT_RULE_PROJECTION, reason.c_str());
            return false;
        }
    }
    return true;
}

char* CopyString(const std::string& text)
{
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy != nullptr) {
        std::memcpy(copy, text.c_str(), text.size() + 1);
    }
    return copy;
}

int RecordAnswer(int requestId, DcRequest::Answer answer, int64_t rowId, std::string rows, std::string error)
{
    return WithActiveRequest(requestId, [&](DcRequest& request) {
        if (request.answer != DcRequest::Answer::None) {
            return static_cast<int>(DATA_CONTROL_ERROR_INVALID_PARAMETER);
        }
        request.answer = answer;
        request.rowId = rowId;
        request.rows = std::move(rows);
        request.error = std::move(error);
        return static_cast<int>(DATA_CONTROL_ERROR_NONE);
    });
}

}  // namespace

namespace {

/* TILVANE_DATA_CONTROL_PROVIDER_ID, else [data-control] provider-id (whose
 * default is the service's, data/service-defaults.conf). */
std::string ConfiguredProviderId()
{
    const char* fromEnvironment = std::getenv("TILVANE_DATA_CONTROL_PROVIDER_ID");
    if (fromEnvironment != nullptr) {
        return fromEnvironment;
    }
    return config::String("data-control", "provider-id", std::string());
}

}  // namespace

extern "C" int data_control_provider_sql_register_cb(data_control_provider_sql_cb* callback, void* user_data)
{
    if (ShouldFail("data_control_provider_sql_register_cb")) {
        return DATA_CONTROL_ERROR_IO_ERROR;
    }
    if (callback == nullptr) {
        return DATA_CONTROL_ERROR_INVALID_PARAMETER;
    }
    const std::string providerId = ConfiguredProviderId();
    const std::string busName = providerId.empty() ? std::string() : DataControlBusName(AuthorityOf(providerId));
    RequestState& s = TheRequestState();
    std::string previousName;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        previousName = s.dcBusName;
    }
    if (!previousName.empty() && previousName != busName) {
        ReleaseName(previousName);
    }
    if (busName.empty()) {
        REQUEST_LOGI("no data-control provider id is configured: data-control requests cannot reach this process");
    } else if (BusConfigured() && !OwnsRequestBusName(busName) && !OwnName(busName)) {
        return DATA_CONTROL_ERROR_IO_ERROR;
    }
    std::lock_guard<std::mutex> lock(s.mutex);
    s.dcRegistered = true;
    s.dcCallbacks = *callback;
    s.dcUserData = user_data;
    s.dcProviderId = providerId;
    s.dcBusName = busName;
    REQUEST_LOGD("data-control provider %s registered", providerId.c_str());
    return DATA_CONTROL_ERROR_NONE;
}

extern "C" int data_control_provider_sql_unregister_cb(void)
{
    if (ShouldFail("data_control_provider_sql_unregister_cb")) {
        return DATA_CONTROL_ERROR_IO_ERROR;
    }
    RequestState& s = TheRequestState();
    std::string busName;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.dcRegistered = false;
        s.dcCallbacks = data_control_provider_sql_cb{};
        s.dcUserData = nullptr;
        busName = s.dcBusName;
        s.dcBusName.clear();
        s.dcProviderId.clear();
    }
    if (!busName.empty()) {
        ReleaseName(busName);
    }
    return DATA_CONTROL_ERROR_NONE;
}

extern "C" int data_control_provider_get_client_appid(int request_id, char** appid)
{
    if (ShouldFail("data_control_provider_get_client_appid")) {
        return DATA_CONTROL_ERROR_IO_ERROR;
    }
    if (appid == nullptr) {
        return DATA_CONTROL_ERROR_INVALID_PARAMETER;
    }
    return WithActiveRequest(request_id, [&](DcRequest& request) {
        *appid = CopyString(request.clientApp);
        return *appid != nullptr ? DATA_CONTROL_ERROR_NONE : DATA_CONTROL_ERROR_OUT_OF_MEMORY;
    });
}

namespace {

/* A copy of one text of the handle, for `function` (which may be made to fail). */
int CopyOfHandleText(const char* function, data_control_h provider, std::string data_control_s::*text, char** copy)
{
    if (ShouldFail(function)) {
        return DATA_CONTROL_ERROR_IO_ERROR;
    }
    if (provider == nullptr || copy == nullptr) {
        return DATA_CONTROL_ERROR_INVALID_PARAMETER;
    }
    *copy = CopyString(provider->*text);
    return *copy != nullptr ? DATA_CONTROL_ERROR_NONE : DATA_CONTROL_ERROR_OUT_OF_MEMORY;
}

}  // namespace

extern "C" int data_control_sql_get_provider_id(data_control_h provider, char** provider_id)
{
    return CopyOfHandleText("data_control_sql_get_provider_id", provider, &data_control_s::providerId, provider_id);
}

extern "C" int data_control_sql_get_data_id(data_control_h provider, char** data_id)
{
    return CopyOfHandleText("data_control_sql_get_data_id", provider, &data_control_s::dataId, data_id);
}

extern "C" char* data_control_provider_create_select_statement(data_control_h provider, const char** column_list,
                                                               int column_count, const char* where, const char* order)
{
    if (ShouldFail("data_control_provider_create_select_statement")) {
        return nullptr;
    }
    if (provider == nullptr || column_count < 0 || (column_count > 0 && column_list == nullptr)) {
        return nullptr;
    }
    if (confinement::CurrentRequest() != nullptr && !ConfinedProjection(column_list, column_count)) {
        return nullptr;
    }
    std::string statement = "SELECT ";
    if (column_count == 0) {
        statement += "*";
    }
    for (int i = 0; i < column_count; ++i) {
        if (column_list[i] == nullptr) {
            return nullptr;
        }
        if (i > 0) {
            statement += ", ";
        }
        statement += column_list[i];
    }
    statement += " FROM ";
    statement += tilvane::content::QuoteIdentifier(provider->dataId);
    if (where != nullptr && *where != '\0') {
        statement += " WHERE ";
        statement += where;
    }
    if (order != nullptr && *order != '\0') {
        statement += " ORDER BY ";
        statement += order;
    }
    return CopyString(statement);
}

extern "C" int data_control_provider_send_insert_result(int request_id, long long row_id)
{
    if (ShouldFail("data_control_provider_send_insert_result")) {
        return DATA_CONTROL_ERROR_IO_ERROR;
    }
    return RecordAnswer(request_id, DcRequest::Answer::RowId, row_id, std::string(), std::string());
}

extern "C" int data_control_provider_send_select_result(int request_id, void* db_handle)
{
    if (ShouldFail("data_control_provider_send_select_result")) {
        return DATA_CONTROL_ERROR_IO_ERROR;
    }
    if (db_handle == nullptr) {
        return DATA_CONTROL_ERROR_INVALID_PARAMETER;
    }
    std::string clientApp;
    const bool known = WithActiveRequest(request_id, [&clientApp](DcRequest& request) {
        clientApp = request.clientApp;
        return request.answer == DcRequest::Answer::None ? 0 : static_cast<int>(DATA_CONTROL_ERROR_INVALID_PARAMETER);
    }) == 0;
    if (!known) {
        return DATA_CONTROL_ERROR_INVALID_PARAMETER;
    }
    std::string rows;
    sqlite3_stmt* statement = static_cast<sqlite3_stmt*>(db_handle);
    const RowsEncoding ended = EncodeStatementRows(statement, rows, MaxReplyPayloadBytes());
    if (ended == RowsEncoding::TooLarge) {
        NoteReplyTooLarge(clientApp, "DataControl.Select");
        return DATA_CONTROL_ERROR_MAX_EXCEEDED;
    }
    if (ended == RowsEncoding::Failed) {
        tilvane::content::NoteStatementFailure(sqlite3_db_handle(statement));
        REQUEST_LOGE("select result of request %d: stepping failed: %s", request_id,
                     sqlite3_errmsg(sqlite3_db_handle(statement)));
        return DATA_CONTROL_ERROR_IO_ERROR;
    }
    return RecordAnswer(request_id, DcRequest::Answer::Rows, -1, std::move(rows), std::string());
}

extern "C" int data_control_provider_send_update_result(int request_id)
{
    if (ShouldFail("data_control_provider_send_update_result")) {
        return DATA_CONTROL_ERROR_IO_ERROR;
    }
    return RecordAnswer(request_id, DcRequest::Answer::Done, -1, std::string(), std::string());
}

extern "C" int data_control_provider_send_delete_result(int request_id)
{
    if (ShouldFail("data_control_provider_send_delete_result")) {
        return DATA_CONTROL_ERROR_IO_ERROR;
    }
    return RecordAnswer(request_id, DcRequest::Answer::Done, -1, std::string(), std::string());
}

extern "C" int data_control_provider_send_error(int request_id, const char* error)
{
    if (ShouldFail("data_control_provider_send_error")) {
        return DATA_CONTROL_ERROR_IO_ERROR;
    }
    return RecordAnswer(request_id, DcRequest::Answer::Error, -1, std::string(), error != nullptr ? error : "");
}
