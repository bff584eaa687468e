/*
 * What the pieces of the client library share with the request API of
 * client.cpp: encoding row values, one call of the content-library interface,
 * and the outcome a request error stands for. Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_CLIENT_CALLS_H
#define TILVANE_PLATFORM_CLIENT_CALLS_H

#include <gio/gio.h>

#include <string>
#include <vector>

#include "base/glib_ptr.h"
#include "request_wire.h"
#include "tilvane_client.h"
#include "tilvane_reason.h"

namespace tilvane {
namespace host {
namespace clientcalls {

/* The outcome a D-Bus error name of a request stands for, and the reason
 * that follows it ("org.tilvane.Request.Error.NoResult.PermissionLevel"). */
client::Outcome OutcomeOfError(const std::string& name);
tilvane_reason ReasonOfError(const std::string& name);
/* The reason a content write's result names: -13 and -22 their refusals,
 * none for the others (a failure's code is the result itself). */
tilvane_reason ReasonOfResult(int code);
/* The reason of a result: its code; for a reply of a provider older than
 * reason codes (none, with words), the words that provider used. */
tilvane_reason ReasonOf(const client::Result& result);

/* Row values in the binary form of a bundle; `ok` false when they cannot be. */
std::string Encode(const client::Values& values, bool& ok);
/* The rows of a bulk, each in the binary form of a bundle and handed to the
 * call without a copy; `ok` false when one cannot be. */
std::vector<requests::wire::Bytes> EncodeRows(const std::vector<client::Values>& rows, bool& ok);

/* One call of the content-library interface to the provider of `uri` (any
 * URI or provider id of its authority), as this process's application;
 * null with `result` saying why when there is no reply. */
GVariantPtr CallContent(const std::string& uri, requests::wire::Method method, GVariant* arguments,
                        client::Result& result);

}  // namespace clientcalls
}  // namespace host
}  // namespace tilvane

#endif
