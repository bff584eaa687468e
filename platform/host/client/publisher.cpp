/*
 * The typed publish and read of tilvane_publisher.h. A publish is one Publish
 * request (client/publish_call.h) whose steps are: find the launcher entry
 * (GetRowIds of accelerators), on Replace delete the sections under it,
 * then each section (Insert, its entry set from the first step) followed by
 * its tiles (BulkInsert, their section set from the section's step; a section
 * of more tiles than a bulk may carry takes several), and the sync end mark.
 */
#include "tilvane_publisher.h"

#include <cstdlib>
#include <map>

#include "base/host_state.h"
#include "bundle/bundle_limits.h"
#include "bus/bus_connection.h"
#include "client/client_calls.h"
#include "client/publish_call.h"
#include "client/typed_rows.h"
#include "host_control/identity.h"
#include "identity/app_identity.h"
#include "tilvane_reason.h"

namespace tilvane {
namespace client {

struct Publisher::Impl {
    std::string appId;
    std::string providerId;
    std::string acceleratorsUri;
    std::string sectionsUri;
    std::string tilesUri;
};

namespace {

using host::publish::Step;
namespace typed = host::typed;

static_assert(kMaxPublishRows < host::kPublishMaxRows, "the typed limits fit the service's");
static_assert(kMaxPublishBytes == host::kPublishMaxBytes, "the typed limits are the service's");
static_assert(2 * kMaxSections + 3 + kMaxPublishRows / host::kBulkMaxRows < host::kPublishMaxSteps,
              "every publish within the typed limits has few enough steps");

using host::requests::wire::Method;

/* The kind of a step: the name of the content interface's method it stands
 * for, as the interface's description gives it. */
std::string Kind(Method method)
{
    return host::requests::wire::NameOf(method);
}

Status Failure(ErrorCode code, std::string reason, int result = 0, int section = -1)
{
    Status status;
    status.code = code;
    status.result = result;
    status.section = section;
    status.reason = std::move(reason);
    return status;
}

/* What a failed request of the request API means for the typed API. */
ErrorCode CodeOf(const Result& result)
{
    switch (result.outcome) {
    case Outcome::Answered:
        return result.code == TILVANE_RESULT_PERMISSION_DENIED ? ErrorCode::PermissionDenied : ErrorCode::StorageFailed;
    case Outcome::NoResult:
        return host::clientcalls::ReasonOf(result) == TILVANE_REASON_PERMISSION_LEVEL ? ErrorCode::PermissionDenied
                                                                                     : ErrorCode::StorageFailed;
    case Outcome::ProviderError:
        return ErrorCode::Refused;
    case Outcome::NotServed:
        return ErrorCode::NotRunning;
    case Outcome::NotAuthorized:
        return ErrorCode::NotAuthorized;
    case Outcome::InvalidRequest:
        return ErrorCode::InvalidArgument;
    case Outcome::BusError:
        return ErrorCode::BusError;
    }
    return ErrorCode::BusError;
}

Status RequestFailure(const Result& result, const std::string& doing, int section = -1)
{
    const std::string why = result.message.empty() ? Describe(result) : result.message;
    return Failure(CodeOf(result), doing + ": " + why, result.outcome == Outcome::Answered ? result.code : 0,
                   section);
}

std::string ProviderIdOrDefault(std::string providerId)
{
    if (!providerId.empty()) {
        return providerId;
    }
    const char* fromEnvironment = std::getenv("TILVANE_DATA_CONTROL_PROVIDER_ID");
    return fromEnvironment != nullptr && *fromEnvironment != '\0' ? fromEnvironment : schema::kProviderId;
}

/* A process acts as one application: the one its bus connection owns. */
Status IdentityProblem(const Publisher::Impl& impl)
{
    const std::string current = host::CurrentAppId();
    if (current == impl.appId) {
        return Status();
    }
    return Failure(ErrorCode::NotAuthorized,
                   "this process acts as application " + current + ", not " + impl.appId +
                       ": a process acts as one application");
}

const char kNoEntry[] =
    "this application has no launcher entry of its own (or several): publishing needs an application that "
    "supports the launcher (use.preview or use.accelerator metadata)";

/* ---- the steps of a publish ---- */

struct Plan {
    std::vector<Step> steps;
    /* The section of each step; -1 for none. */
    std::vector<int> sectionOfStep;
    /* The Insert step of each section. */
    std::vector<uint32_t> sectionStep;
    size_t rows = 0;
    size_t bytes = 0;
    Status problem;
};

void AddStep(Plan& plan, Step step, int section)
{
    plan.bytes += [&] {
        size_t total = 0;
        for (const std::string& row : step.rows) {
            total += row.size();
        }
        return total;
    }();
    plan.rows += step.rows.size();
    plan.steps.push_back(std::move(step));
    plan.sectionOfStep.push_back(section);
}

/* One row of a section or tile, encoded; false (with the plan's problem set)
 * when it cannot be sent. */
template <typename Row>
bool EncodeInto(const Row& row, const std::vector<typed::Field<Row>>& fields, int section, Plan& plan,
                std::vector<std::string>& rows)
{
    size_t rawBytes = 0;
    bool ok = false;
    rows.push_back(typed::EncodeRow(row, fields, rawBytes, ok));
    if (!ok) {
        plan.problem = Failure(ErrorCode::InvalidArgument, "a text holds a NUL byte", 0, section);
    } else if (rawBytes > kMaxRowBytes) {
        plan.problem = Failure(ErrorCode::OverLimits,
                               "a row has " + std::to_string(rawBytes) + " bytes of column names and values, more " +
                                   "than the " + std::to_string(kMaxRowBytes) + " one row may have",
                               0, section);
    }
    return plan.problem.ok();
}

void PlanSection(const Publisher::Impl& impl, const Section& section, int index, Plan& plan)
{
    Step insert{Kind(Method::ContentInsert), impl.sectionsUri, {}, "", {}, {{schema::sections::kEntryRowId, 0}}, {}};
    if (!EncodeInto(section, typed::SectionFields(), index, plan, insert.rows)) {
        return;
    }
    const uint32_t sectionStep = static_cast<uint32_t>(plan.steps.size());
    plan.sectionStep.push_back(sectionStep);
    AddStep(plan, std::move(insert), index);
    for (size_t first = 0; first < section.tiles.size(); first += host::kBulkMaxRows) {
        Step tiles{Kind(Method::ContentBulkInsert), impl.tilesUri, {}, "", {}, {{schema::tiles::kSectionRowId, sectionStep}}, {}};
        for (size_t t = first; t < section.tiles.size() && t < first + host::kBulkMaxRows; ++t) {
            if (!EncodeInto(section.tiles[t], typed::TileFields(), index, plan, tiles.rows)) {
                return;
            }
        }
        AddStep(plan, std::move(tiles), index);
    }
}

void PlanEndMark(const Publisher::Impl& impl, Plan& plan)
{
    bool ok = false;
    Step mark{Kind(Method::ContentInsert), impl.tilesUri, {host::clientcalls::Encode({{schema::kSyncKey, schema::kSyncEnd}}, ok)},
              "", {}, {}, {}};
    if (!plan.sectionStep.empty()) {
        mark.valueRefs.emplace_back(schema::tiles::kSectionRowId, plan.sectionStep.back());
    }
    AddStep(plan, std::move(mark), -1);
}

Status OverPublishLimits(const Content& content, const Plan& plan)
{
    if (content.sections.size() > kMaxSections) {
        return Failure(ErrorCode::OverLimits, std::to_string(content.sections.size()) + " sections: one publish " +
                                                  "carries at most " + std::to_string(kMaxSections));
    }
    if (plan.rows > kMaxPublishRows || plan.bytes > kMaxPublishBytes) {
        return Failure(ErrorCode::OverLimits,
                       std::to_string(plan.rows) + " rows of " + std::to_string(plan.bytes) + " bytes as sent: one " +
                           "publish carries at most " + std::to_string(kMaxPublishRows) + " rows and " +
                           std::to_string(kMaxPublishBytes) + " bytes");
    }
    return Status();
}

Plan PlanPublish(const Publisher::Impl& impl, const Content& content, PublishMode mode)
{
    Plan plan;
    if (content.sections.size() > kMaxSections) {
        plan.problem = OverPublishLimits(content, plan);
        return plan;
    }
    AddStep(plan, Step{Kind(Method::ContentGetRowIds), impl.acceleratorsUri, {}, "", {}, {}, {}}, -1);
    if (mode == PublishMode::Replace) {
        AddStep(plan,
                Step{Kind(Method::ContentDelete), impl.sectionsUri, {}, std::string(schema::sections::kEntryRowId) + " = ?", {""}, {},
                     {{0, 0}}},
                -1);
    }
    for (size_t i = 0; i < content.sections.size() && plan.problem.ok(); ++i) {
        PlanSection(impl, content.sections[i], static_cast<int>(i), plan);
    }
    PlanEndMark(impl, plan);
    if (plan.problem.ok()) {
        plan.problem = OverPublishLimits(content, plan);
    }
    return plan;
}

/* What the failing step was doing, in words. */
std::string StepDoing(const Content& content, const Plan& plan, int step)
{
    if (step < 0 || static_cast<size_t>(step) >= plan.steps.size()) {
        return step < 0 ? "publishing" : "storing the content";
    }
    const Step& failed = plan.steps[static_cast<size_t>(step)];
    const int section = plan.sectionOfStep[static_cast<size_t>(step)];
    if (section >= 0) {
        const std::string name = "section " + std::to_string(section) + " (\"" +
                                 content.sections[static_cast<size_t>(section)].title + "\")";
        return failed.kind == Kind(Method::ContentInsert) ? "writing " + name : "writing the tiles of " + name;
    }
    if (failed.kind == Kind(Method::ContentGetRowIds)) {
        return "finding the launcher entry";
    }
    return failed.kind == Kind(Method::ContentDelete) ? "removing the previous content" : "sending the sync end mark";
}

bool RefersToEntry(const Step& step)
{
    for (const auto& ref : step.valueRefs) {
        if (ref.second == 0) {
            return true;
        }
    }
    return !step.argRefs.empty() && step.argRefs.front().second == 0;
}

Status PublishFailure(const Content& content, const Plan& plan, const host::publish::Reply& reply)
{
    const int step = reply.failedStep;
    const bool isStep = step >= 0 && static_cast<size_t>(step) < plan.steps.size();
    const int section = isStep ? plan.sectionOfStep[static_cast<size_t>(step)] : -1;
    if (isStep && reply.result.outcome == Outcome::InvalidRequest &&
        RefersToEntry(plan.steps[static_cast<size_t>(step)])) {
        return Failure(ErrorCode::NoLauncherEntry, kNoEntry, 0, section);
    }
    return RequestFailure(reply.result, StepDoing(content, plan, step), section);
}

}  // namespace

Publisher::Publisher(std::string appId, std::string providerId) : m_impl(std::make_shared<Impl>())
{
    if (!appId.empty() && appId != host::CurrentAppId() && host::ConnectedAppId().empty()) {
        host::SetOwnAppId(appId);
    }
    m_impl->appId = appId.empty() ? host::CurrentAppId() : appId;
    m_impl->providerId = ProviderIdOrDefault(std::move(providerId));
    m_impl->acceleratorsUri = m_impl->providerId + "/" + schema::accelerators::kTable;
    m_impl->sectionsUri = m_impl->providerId + "/" + schema::sections::kTable;
    m_impl->tilesUri = m_impl->providerId + "/" + schema::tiles::kTable;
}

const std::string& Publisher::AppId() const
{
    return m_impl->appId;
}

StatusOr<Receipt> Publisher::Publish(const Content& content, PublishMode mode) const
{
    Status identity = IdentityProblem(*m_impl);
    if (!identity) {
        return identity;
    }
    const Plan plan = PlanPublish(*m_impl, content, mode);
    if (!plan.problem) {
        return plan.problem;
    }
    const host::publish::Reply reply = host::publish::Send(m_impl->providerId, plan.steps);
    if (!reply.result.Ok() || reply.result.rowIds.size() != plan.steps.size()) {
        return PublishFailure(content, plan, reply);
    }
    Receipt receipt;
    receipt.entryRowId = reply.result.rowIds.front();
    receipt.removedSections = mode == PublishMode::Replace && reply.changedRows.size() > 1 ? reply.changedRows[1] : 0;
    for (uint32_t step : plan.sectionStep) {
        receipt.sectionRowIds.push_back(reply.result.rowIds[step]);
    }
    return receipt;
}

namespace {

/* "?,?,...": one placeholder per value. */
std::string Placeholders(size_t count)
{
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        text += i == 0 ? "?" : ",?";
    }
    return text;
}

Status ReadEntry(const ContentClient& client, const Publisher::Impl& impl, Content& content)
{
    const Result entries =
        client.Select(impl.acceleratorsUri, typed::Projection(typed::EntryFields()), "", {}, "", "");
    if (!entries.Ok()) {
        return RequestFailure(entries, "reading the launcher entry");
    }
    if (entries.rows.rows.size() != 1) {
        return Failure(ErrorCode::NoLauncherEntry, kNoEntry);
    }
    typed::ReadRow(content.entry, typed::EntryFields(), entries.rows.rows.front());
    return Status();
}

Status ReadSections(const ContentClient& client, const Publisher::Impl& impl, Content& content)
{
    const std::string order = std::string(schema::sections::kPosition) + ", " + schema::kRowId;
    const Result sections =
        client.Select(impl.sectionsUri, typed::Projection(typed::SectionFields()),
                      std::string(schema::sections::kEntryRowId) + " = ?", {std::to_string(content.entry.rowId)},
                      order, "");
    if (!sections.Ok()) {
        return RequestFailure(sections, "reading the sections");
    }
    for (const std::vector<Cell>& cells : sections.rows.rows) {
        typed::ReadRow(content.AddSection(), typed::SectionFields(), cells);
    }
    return Status();
}

Status ReadTiles(const ContentClient& client, const Publisher::Impl& impl, Content& content)
{
    std::vector<std::string> sectionIds;
    std::map<int64_t, Section*> byRowId;
    for (Section& section : content.sections) {
        sectionIds.push_back(std::to_string(section.rowId));
        byRowId[section.rowId] = &section;
    }
    if (sectionIds.empty()) {
        return Status();
    }
    std::vector<std::string> projection = typed::Projection(typed::TileFields());
    projection.emplace_back(schema::tiles::kSectionRowId);
    const std::string order = std::string(schema::tiles::kSectionRowId) + ", " + schema::tiles::kPosition + ", " +
                              schema::kRowId;
    const Result tiles = client.Select(impl.tilesUri, projection,
                                       std::string(schema::tiles::kSectionRowId) + " IN (" +
                                           Placeholders(sectionIds.size()) + ")",
                                       sectionIds, order, "");
    if (!tiles.Ok()) {
        return RequestFailure(tiles, "reading the tiles");
    }
    for (const std::vector<Cell>& cells : tiles.rows.rows) {
        auto section = byRowId.find(cells.back().integer);
        if (cells.back().type == Cell::Type::Integer && section != byRowId.end()) {
            typed::ReadRow(section->second->AddTile(), typed::TileFields(), cells);
        }
    }
    return Status();
}

}  // namespace

StatusOr<Content> Publisher::Read() const
{
    Status status = IdentityProblem(*m_impl);
    ContentClient client;
    Content content;
    if (status) {
        status = ReadEntry(client, *m_impl, content);
    }
    if (status) {
        status = ReadSections(client, *m_impl, content);
    }
    if (status) {
        status = ReadTiles(client, *m_impl, content);
    }
    if (!status) {
        return status;
    }
    return content;
}

bool operator==(const Tile& a, const Tile& b)
{
    return typed::SameFields(a, b, typed::TileFields());
}

bool operator==(const Section& a, const Section& b)
{
    return typed::SameFields(a, b, typed::SectionFields()) && a.tiles == b.tiles;
}

bool operator==(const Content& a, const Content& b)
{
    return a.sections == b.sections;
}

const char* ErrorName(ErrorCode code)
{
    static const char* const names[] = {"ok",          "invalid argument",  "over limits",       "not running",
                                        "not authorized", "permission denied", "no launcher entry", "refused",
                                        "storage failed", "bus error"};
    const size_t index = static_cast<size_t>(code);
    return index < sizeof(names) / sizeof(names[0]) ? names[index] : "unknown";
}

}  // namespace client
}  // namespace tilvane
