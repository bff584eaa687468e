/*
 * What the data and publish commands share: the provider they talk to and how
 * a request's result is told to the user.
 */
#ifndef TILVANECTL_DATA_REQUESTS_H
#define TILVANECTL_DATA_REQUESTS_H

#include <string>

#include <tilvane_client.h>

namespace tilvanectl {

/* --provider, else TILVANE_DATA_CONTROL_PROVIDER_ID, else the service's. */
std::string DefaultProviderId();

/* True when the result is the service's answer to a sync end mark, which it
 * gives with a failure code (or no result) by design. */
bool SyncMarkSent(const tilvane::client::Result& result);

/* Writes "tilvanectl WHAT: <explanation>" to standard error; returns EXIT_FAILED. */
int ReportFailure(const std::string& what, const tilvane::client::Result& result);

/* "1 row" / "3 rows". */
std::string CountOf(long long count, const char* one, const char* many);

}  // namespace tilvanectl

#endif
