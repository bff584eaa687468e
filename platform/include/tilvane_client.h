/*
 * Client side of the two request interfaces: the data-control interface (provider id +
 * data id) and the content-library interface (content URI). Each call is one
 * synchronous bus round trip, made as the process's own application id.
 * Calls may come from any thread; a call to a provider served by the same
 * process runs the GLib default main context while it waits when the calling
 * thread is the one that would run the provider's callback.
 */
#ifndef TILVANE_CLIENT_H
#define TILVANE_CLIENT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tilvane_reason.h"

namespace tilvane {
namespace client {

/* What one request may carry; the service refuses more (Outcome::InvalidRequest):
 * a row at most kMaxRowColumns columns, names of at most kMaxColumnNameBytes
 * and kMaxRowBytes of names and values together; a bulk at most kMaxBulkRows
 * rows and kMaxBulkBytes of rows as sent (RowBytesSent: their names and values
 * and 8 bytes of lengths per column and per row). */
inline constexpr std::size_t kMaxRowColumns = 1024;
inline constexpr std::size_t kMaxColumnNameBytes = 1024;
inline constexpr std::size_t kMaxRowBytes = 1024 * 1024;
inline constexpr std::size_t kMaxBulkRows = 4096;
inline constexpr std::size_t kMaxBulkBytes = 16 * 1024 * 1024;

/* Row values: column name -> value, in order (sent as a bundle of strings; a
 * name or value holding a NUL byte is refused, Outcome::InvalidRequest). */
using Values = std::vector<std::pair<std::string, std::string>>;

/* The bytes `row` takes in a request, as kMaxBulkBytes counts them. */
std::size_t RowBytesSent(const Values& row);

struct Cell {
    enum class Type { Null, Integer, Real, Text, Blob };
    Type type = Type::Null;
    int64_t integer = 0;
    double real = 0.0;
    std::string text;                /* Text */
    std::vector<unsigned char> blob; /* Blob */
};

struct RowSet {
    std::vector<std::string> columns;
    std::vector<std::vector<Cell>> rows;
};

/* How a request ended. */
enum class Outcome {
    Answered,      /* the provider answered; `code` holds its result */
    NoResult,      /* the provider's callback returned without an answer */
    ProviderError, /* data control: the provider sent an error; `message` holds its text */
    NotServed,     /* no provider serves the provider id, URI or kind of request */
    NotAuthorized, /* the bus did not confirm the caller's application id */
    InvalidRequest,/* the provider could not read the request */
    BusError       /* the bus could not be used, or the call failed on it */
};

struct Result {
    Outcome outcome = Outcome::BusError;
    /* The provider's result code when Answered (0 success; content-library interface:
     * -22, -13, -1073741824 ...). */
    int code = 0;
    int64_t rowId = -1;
    std::vector<int64_t> rowIds;
    RowSet rows;
    /* Why: the provider's error text (ProviderError), the reason of a
     * refusal or failure (SQLite's message for a failed statement, "permission
     * level too low", ...), or what a sync mark did ("sync end mark sent").
     * Empty when there is nothing to say. */
    std::string message;
    /* Rows changed by an update or delete; -1 when the provider did not say. */
    int64_t changedRows = -1;
    /* Why, as a code (tilvane_reason.h): whether `message` is a refusal
     * (TILVANE_REASON_PERMISSION_LEVEL, ...) or a failure, or what a sync mark
     * did. TILVANE_REASON_NONE when there is nothing to say, or the provider
     * is older than reason codes. */
    tilvane_reason reason = TILVANE_REASON_NONE;

    bool Ok() const { return outcome == Outcome::Answered && code == 0; }
};

/* A short text for a result: "done", "permission denied (-13)", "invalid URI
 * (-22)", "failed (-1073741824)", "no result from the provider", ... */
std::string Describe(const Result& result);

/* Describe with the reason: "failed (1): table sections has no column named
 * accelerator_id", "refused: permission level too low" (a select refused for
 * its level, the same on both interfaces), "no result from the provider" when no
 * reason is known. */
std::string Explain(const Result& result);

class DataControlClient {
public:
    explicit DataControlClient(std::string providerId);
    const std::string& ProviderId() const { return m_providerId; }

    Result Insert(const std::string& dataId, const Values& values) const;
    Result Select(const std::string& dataId, const std::vector<std::string>& columns, const std::string& where,
                  const std::string& order) const;
    Result Update(const std::string& dataId, const Values& values, const std::string& where) const;
    Result Delete(const std::string& dataId, const std::string& where) const;

private:
    std::string m_providerId;
};

class ContentClient {
public:
    Result Insert(const std::string& uri, const Values& values) const;
    Result BulkInsert(const std::string& uri, const std::vector<Values>& rows) const;
    Result Select(const std::string& uri, const std::vector<std::string>& projection, const std::string& where,
                  const std::vector<std::string>& whereArgs, const std::string& order,
                  const std::string& limit) const;
    Result Update(const std::string& uri, const Values& values, const std::string& where,
                  const std::vector<std::string>& whereArgs) const;
    /* Each row names the row it changes under "bulk_update_row_id_key". */
    Result BulkUpdate(const std::string& uri, const std::vector<Values>& rows) const;
    Result Delete(const std::string& uri, const std::string& where, const std::vector<std::string>& whereArgs) const;
    Result GetRowIds(const std::string& uri, const std::string& where,
                     const std::vector<std::string>& whereArgs) const;
};

}  // namespace client
}  // namespace tilvane

#endif
