/*
 * Interfaces as D-Bus introspection describes them, in a form tests compare.
 */
#ifndef TILVANE_TEST_METHOD_SIGNATURES_H
#define TILVANE_TEST_METHOD_SIGNATURES_H

#include <gio/gio.h>

#include <string>

#include "RawBus.h"

namespace tilvane {
namespace test {

/* "name(in types)->(out types);" for every method of `info`, in order. */
inline std::string MethodSignatures(GDBusInterfaceInfo* info)
{
    std::string text;
    for (GDBusMethodInfo** method = info->methods; method != nullptr && *method != nullptr; ++method) {
        text += std::string((*method)->name) + "(";
        for (GDBusArgInfo** arg = (*method)->in_args; arg != nullptr && *arg != nullptr; ++arg) {
            text += (*arg)->signature;
        }
        text += ")->(";
        for (GDBusArgInfo** arg = (*method)->out_args; arg != nullptr && *arg != nullptr; ++arg) {
            text += (*arg)->signature;
        }
        text += ");";
    }
    return text;
}

/* The method signatures of `interface` in the introspection XML of `xml`;
 * "" when it does not parse or has no such interface. */
inline std::string SignaturesInXml(const char* xml, const char* interface)
{
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(xml, nullptr);
    if (node == nullptr) {
        return "";
    }
    GDBusInterfaceInfo* info = g_dbus_node_info_lookup_interface(node, interface);
    std::string text = info != nullptr ? MethodSignatures(info) : "";
    g_dbus_node_info_unref(node);
    return text;
}

/* The method signatures of `interface` as the file `xmlPath` describes it;
 * "" when it cannot be read. */
inline std::string DescribedSignatures(const std::string& xmlPath, const char* interface)
{
    gchar* xml = nullptr;
    if (!g_file_get_contents(xmlPath.c_str(), &xml, nullptr, nullptr)) {
        return "";
    }
    std::string text = SignaturesInXml(xml, interface);
    g_free(xml);
    return text;
}

/* The method signatures of `interface` as the object `path` of bus name
 * `name` on the bus at `busAddress` exports it (Introspect); "" when it
 * cannot be asked. */
inline std::string ExportedSignatures(const std::string& busAddress, const std::string& name, const char* path,
                                      const char* interface)
{
    GDBusConnection* connection = tilvane::test::OpenRawConnection(busAddress.c_str());
    if (connection == nullptr) {
        return "";
    }
    GVariant* reply = g_dbus_connection_call_sync(connection, name.c_str(), path, "org.freedesktop.DBus.Introspectable",
                                                  "Introspect", nullptr, G_VARIANT_TYPE("(s)"),
                                                  G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
    std::string text;
    if (reply != nullptr) {
        const gchar* xml = nullptr;
        g_variant_get(reply, "(&s)", &xml);
        text = SignaturesInXml(xml, interface);
        g_variant_unref(reply);
    }
    g_object_unref(connection);
    return text;
}

}  // namespace test
}  // namespace tilvane

#endif
