/*
 * The names of the request interfaces on the bus: the bus names of the
 * providers of an authority and the interfaces' description, shared by the
 * provider side (request_glue.cpp) and the client library. Internal to the
 * host platform.
 */
#ifndef TILVANE_PLATFORM_REQUEST_NAMES_H
#define TILVANE_PLATFORM_REQUEST_NAMES_H

#include <string>

namespace tilvane {
namespace host {

/* The authority of "scheme://authority/path" ("authority" alone when there is
 * no scheme). */
std::string AuthorityOf(const std::string& uri);

/* Bus names of the providers of an authority on each interface; empty when the
 * authority cannot make a bus name. */
std::string DataControlBusName(const std::string& authority);
std::string ContentBusName(const std::string& authority);

/* True when this process owns `busName` for one of its request interfaces. */
bool OwnsRequestBusName(const std::string& busName);

/* The introspection XML of both request interfaces, as the code parses it. */
const char* RequestInterfacesIntrospectionXml();

}  // namespace host
}  // namespace tilvane

#endif
