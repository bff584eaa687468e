/*
 * Interfaces as D-Bus introspection describes them, in a form tests compare.
 */
#ifndef TILVANE_TEST_INTROSPECTION_H
#define TILVANE_TEST_INTROSPECTION_H

#include <gio/gio.h>

#include <string>

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

}  // namespace test
}  // namespace tilvane

#endif
