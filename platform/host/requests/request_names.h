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

/* The objects every process exports, one per interface. */
inline constexpr char kDataControlPath[] = "/org/tilvane/DataControl";
inline constexpr char kDataControlInterface[] = "org.tilvane.DataControl";
inline constexpr char kContentPath[] = "/org/tilvane/Content";
inline constexpr char kContentInterface[] = "org.tilvane.Content";
/* The providers' bus names: the prefix and the escaped authority. */
inline constexpr char kDataControlNamePrefix[] = "org.tilvane.DataControl.P";
inline constexpr char kContentNamePrefix[] = "org.tilvane.Content.P";

/* The authority of "scheme://authority/path" ("authority" alone when there is
 * no scheme). */
std::string AuthorityOf(const std::string& uri);

/* Bus names of the providers of an authority on each interface; empty when the
 * authority cannot make a bus name. */
std::string DataControlBusName(const std::string& authority);
std::string ContentBusName(const std::string& authority);

/* The direct request socket of the provider that owns `busName`:
 * <platform root>/run/tilvane/<bus name> (socket_transport.cpp). */
std::string RequestSocketPath(const std::string& busName);

/* True when this process owns `busName` for one of its request interfaces. */
bool OwnsRequestBusName(const std::string& busName);

/* The introspection XML of both request interfaces (request_interfaces.xml). */
const char* RequestInterfacesIntrospectionXml();

}  // namespace host
}  // namespace tilvane

#endif
