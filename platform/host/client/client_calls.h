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
#include "tilvane_client.h"

namespace tilvane {
namespace host {
namespace clientcalls {

/* The outcome a D-Bus error name of a request stands for. */
client::Outcome OutcomeOfError(const std::string& name);

/* The strings as an "as" (floating). */
GVariant* Strings(const std::vector<std::string>& strings);

/* Row values as a bundle_encode text; `ok` false when they cannot be. */
std::string Encode(const client::Values& values, bool& ok);

/* One call of the content-library interface to the provider of `uri` (any
 * URI or provider id of its authority), as this process's application;
 * null with `result` saying why when there is no reply. */
GVariantPtr CallContent(const std::string& uri, const char* method, GVariant* arguments, client::Result& result);

}  // namespace clientcalls
}  // namespace host
}  // namespace tilvane

#endif
