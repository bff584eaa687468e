/*
 * Method-call bodies between sd-bus messages and GVariant values
 * (sdbus_variant.h).
 */
#include "bus/sdbus_variant.h"

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

namespace tilvane {
namespace host {
namespace {

/* ---- sd-bus to GVariant ------------------------------------------------------ */

/* Reads one value of D-Bus type `type` (its contents for a container). */
GVariant* ReadValue(sd_bus_message* m, char type, const char* contents, std::string& error);

template <typename T>
bool ReadBasic(sd_bus_message* m, char type, T& value, std::string& error)
{
    const int r = sd_bus_message_read_basic(m, type, &value);
    if (r <= 0) {
        error = std::string("cannot read a value of type ") + type;
        return false;
    }
    return true;
}

GVariant* ReadString(sd_bus_message* m, char type, std::string& error)
{
    const char* text = nullptr;
    if (!ReadBasic(m, type, text, error)) {
        return nullptr;
    }
    if (!g_utf8_validate(text, -1, nullptr)) {
        error = "a string is not UTF-8";
        return nullptr;
    }
    if (type == 'o') {
        return g_variant_is_object_path(text) ? g_variant_new_object_path(text) : nullptr;
    }
    if (type == 'g') {
        return g_variant_is_signature(text) ? g_variant_new_signature(text) : nullptr;
    }
    return g_variant_new_string(text);
}

template <typename T>
GVariant* ReadNumber(sd_bus_message* m, char type, GVariant* (*make)(T), std::string& error)
{
    T value{};
    return ReadBasic(m, type, value, error) ? make(value) : nullptr;
}

GVariant* NewBoolean(int value)
{
    return g_variant_new_boolean(value != 0);
}

GVariant* ReadBasicValue(sd_bus_message* m, char type, std::string& error)
{
    switch (type) {
        case 'y': return ReadNumber<uint8_t>(m, type, g_variant_new_byte, error);
        case 'b': return ReadNumber<int>(m, type, NewBoolean, error);
        case 'n': return ReadNumber<int16_t>(m, type, g_variant_new_int16, error);
        case 'q': return ReadNumber<uint16_t>(m, type, g_variant_new_uint16, error);
        case 'i': return ReadNumber<int32_t>(m, type, g_variant_new_int32, error);
        case 'u': return ReadNumber<uint32_t>(m, type, g_variant_new_uint32, error);
        case 'x': return ReadNumber<int64_t>(m, type, g_variant_new_int64, error);
        case 't': return ReadNumber<uint64_t>(m, type, g_variant_new_uint64, error);
        case 'd': return ReadNumber<double>(m, type, g_variant_new_double, error);
        case 's':
        case 'o':
        case 'g': return ReadString(m, type, error);
        default: error = std::string("no GVariant form for D-Bus type ") + type; return nullptr;
    }
}

/* The values of the container entered last, up to its end. */
bool ReadChildren(sd_bus_message* m, std::vector<GVariant*>& children, std::string& error)
{
    for (;;) {
        char type = 0;
        const char* contents = nullptr;
        const int r = sd_bus_message_peek_type(m, &type, &contents);
        if (r == 0) {
            return true;
        }
        GVariant* child = r < 0 ? nullptr : ReadValue(m, type, contents, error);
        if (child == nullptr) {
            if (error.empty()) {
                error = "a value does not read";
            }
            for (GVariant* done : children) {
                g_variant_unref(g_variant_ref_sink(done));
            }
            children.clear();
            return false;
        }
        children.push_back(child);
    }
}

void UnrefMessageCB(gpointer message)
{
    sd_bus_message_unref(static_cast<sd_bus_message*>(message));
}

/* A byte array where the message holds it, without a copy: the value keeps
 * the message. */
GVariant* ReadBytes(sd_bus_message* m, std::string& error)
{
    const void* data = nullptr;
    size_t size = 0;
    if (sd_bus_message_read_array(m, 'y', &data, &size) < 0) {
        error = "cannot read a byte array";
        return nullptr;
    }
    if (size == 0) {
        return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, "", 0, 1);
    }
    return g_variant_new_from_data(G_VARIANT_TYPE_BYTESTRING, data, size, TRUE, UnrefMessageCB,
                                   sd_bus_message_ref(m));
}

GVariant* MakeContainer(char type, const char* contents, std::vector<GVariant*>& children)
{
    switch (type) {
        case 'a': {
            GVariantType* element = g_variant_type_new(contents);
            GVariant* array = g_variant_new_array(element, children.data(), children.size());
            g_variant_type_free(element);
            return array;
        }
        case 'r': return g_variant_new_tuple(children.data(), children.size());
        case 'e': return children.size() == 2 ? g_variant_new_dict_entry(children[0], children[1]) : nullptr;
        default: return children.size() == 1 ? g_variant_new_variant(children[0]) : nullptr;
    }
}

GVariant* ReadContainer(sd_bus_message* m, char type, const char* contents, std::string& error)
{
    if (type == 'a' && contents[0] == 'y' && contents[1] == '\0') {
        return ReadBytes(m, error);
    }
    if (sd_bus_message_enter_container(m, type, contents) <= 0) {
        error = std::string("cannot enter a container of type ") + type;
        return nullptr;
    }
    std::vector<GVariant*> children;
    if (!ReadChildren(m, children, error)) {
        return nullptr;
    }
    GVariant* value = MakeContainer(type, contents, children);
    if (value == nullptr) {
        for (GVariant* child : children) {
            g_variant_unref(g_variant_ref_sink(child));
        }
    }
    if (value == nullptr || sd_bus_message_exit_container(m) < 0) {
        error = "a container does not read";
        if (value != nullptr) {
            g_variant_unref(g_variant_ref_sink(value));
        }
        return nullptr;
    }
    return value;
}

GVariant* ReadValue(sd_bus_message* m, char type, const char* contents, std::string& error)
{
    if (type == 'a' || type == 'r' || type == 'e' || type == 'v') {
        return ReadContainer(m, type, contents, error);
    }
    return ReadBasicValue(m, type, error);
}

/* ---- GVariant to sd-bus ------------------------------------------------------ */

int AppendValue(sd_bus_message* m, GVariant* value);

std::string TypeString(const GVariantType* type)
{
    return std::string(g_variant_type_peek_string(type), g_variant_type_get_string_length(type));
}

/* The children of a tuple or dictionary entry: its type string without the
 * brackets. */
std::string InnerTypes(GVariant* value)
{
    const std::string all = TypeString(g_variant_get_type(value));
    return all.substr(1, all.size() - 2);
}

int AppendChildren(sd_bus_message* m, GVariant* container)
{
    const gsize n = g_variant_n_children(container);
    for (gsize i = 0; i < n; ++i) {
        GVariant* child = g_variant_get_child_value(container, i);
        const int r = AppendValue(m, child);
        g_variant_unref(child);
        if (r < 0) {
            return r;
        }
    }
    return 0;
}

int AppendContainer(sd_bus_message* m, char type, const std::string& contents, GVariant* value)
{
    int r = sd_bus_message_open_container(m, type, contents.c_str());
    if (r >= 0) {
        r = AppendChildren(m, value);
    }
    if (r >= 0) {
        r = sd_bus_message_close_container(m);
    }
    return r < 0 ? r : 0;
}

int AppendArray(sd_bus_message* m, GVariant* value)
{
    const GVariantType* element = g_variant_type_element(g_variant_get_type(value));
    if (g_variant_type_equal(element, G_VARIANT_TYPE_BYTE)) {
        const gsize size = g_variant_get_size(value);
        const int r = sd_bus_message_append_array(m, 'y', size == 0 ? "" : g_variant_get_data(value), size);
        return r < 0 ? r : 0;
    }
    return AppendContainer(m, 'a', TypeString(element), value);
}

int AppendVariant(sd_bus_message* m, GVariant* value)
{
    GVariant* inner = g_variant_get_variant(value);
    int r = sd_bus_message_open_container(m, 'v', g_variant_get_type_string(inner));
    if (r >= 0) {
        r = AppendValue(m, inner);
    }
    if (r >= 0) {
        r = sd_bus_message_close_container(m);
    }
    g_variant_unref(inner);
    return r < 0 ? r : 0;
}

template <typename T>
int AppendBasic(sd_bus_message* m, char type, T value)
{
    const int r = sd_bus_message_append_basic(m, type, &value);
    return r < 0 ? r : 0;
}

int AppendString(sd_bus_message* m, char type, GVariant* value)
{
    const int r = sd_bus_message_append_basic(m, type, g_variant_get_string(value, nullptr));
    return r < 0 ? r : 0;
}

int AppendValue(sd_bus_message* m, GVariant* value)
{
    switch (g_variant_classify(value)) {
        case G_VARIANT_CLASS_BOOLEAN: return AppendBasic<int>(m, 'b', g_variant_get_boolean(value) ? 1 : 0);
        case G_VARIANT_CLASS_BYTE: return AppendBasic<uint8_t>(m, 'y', g_variant_get_byte(value));
        case G_VARIANT_CLASS_INT16: return AppendBasic<int16_t>(m, 'n', g_variant_get_int16(value));
        case G_VARIANT_CLASS_UINT16: return AppendBasic<uint16_t>(m, 'q', g_variant_get_uint16(value));
        case G_VARIANT_CLASS_INT32: return AppendBasic<int32_t>(m, 'i', g_variant_get_int32(value));
        case G_VARIANT_CLASS_UINT32: return AppendBasic<uint32_t>(m, 'u', g_variant_get_uint32(value));
        case G_VARIANT_CLASS_INT64: return AppendBasic<int64_t>(m, 'x', g_variant_get_int64(value));
        case G_VARIANT_CLASS_UINT64: return AppendBasic<uint64_t>(m, 't', g_variant_get_uint64(value));
        case G_VARIANT_CLASS_DOUBLE: return AppendBasic<double>(m, 'd', g_variant_get_double(value));
        case G_VARIANT_CLASS_STRING: return AppendString(m, 's', value);
        case G_VARIANT_CLASS_OBJECT_PATH: return AppendString(m, 'o', value);
        case G_VARIANT_CLASS_SIGNATURE: return AppendString(m, 'g', value);
        case G_VARIANT_CLASS_ARRAY: return AppendArray(m, value);
        case G_VARIANT_CLASS_TUPLE: return AppendContainer(m, 'r', InnerTypes(value), value);
        case G_VARIANT_CLASS_DICT_ENTRY: return AppendContainer(m, 'e', InnerTypes(value), value);
        case G_VARIANT_CLASS_VARIANT: return AppendVariant(m, value);
        default: return -EINVAL; /* a maybe or a handle */
    }
}

}  // namespace

GVariantPtr ReadMessageBody(sd_bus_message* message, const GVariantType* expected, std::string& error)
{
    error.clear();
    if (sd_bus_message_rewind(message, 1) < 0) {
        error = "cannot read the message's body";
        return nullptr;
    }
    std::vector<GVariant*> children;
    if (!ReadChildren(message, children, error)) {
        return nullptr;
    }
    GVariantPtr body(g_variant_ref_sink(g_variant_new_tuple(children.data(), children.size())));
    if (expected != nullptr && !g_variant_is_of_type(body.get(), expected)) {
        error = std::string("the body is of type ") + g_variant_get_type_string(body.get()) + ", not " +
                TypeString(expected);
        return nullptr;
    }
    return body;
}

int AppendMessageBody(sd_bus_message* message, GVariant* tuple)
{
    if (!g_variant_is_of_type(tuple, G_VARIANT_TYPE_TUPLE)) {
        return -EINVAL;
    }
    return AppendChildren(message, tuple);
}

}  // namespace host
}  // namespace tilvane
