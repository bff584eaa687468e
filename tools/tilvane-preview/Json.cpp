#include "Json.h"

#include <glib.h>

#include <cmath>
#include <cstdio>

namespace tilvane {
namespace preview {

namespace {

void AppendEscaped(std::string& out, gunichar c)
{
    char buffer[8];
    std::snprintf(buffer, sizeof buffer, "\\u%04x", static_cast<unsigned>(c));
    out += buffer;
}

}  // namespace

std::string JsonQuote(const std::string& text)
{
    gchar* valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
    std::string out = "\"";
    for (const gchar* p = valid; *p != '\0'; p = g_utf8_next_char(p)) {
        gunichar c = g_utf8_get_char(p);
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        case '<': case '>': case '&': case 0x2028: case 0x2029: AppendEscaped(out, c); break;
        default:
            if (c < 0x20) {
                AppendEscaped(out, c);
            } else {
                out.append(p, static_cast<size_t>(g_utf8_next_char(p) - p));
            }
        }
    }
    g_free(valid);
    out += '"';
    return out;
}

void JsonWriter::BeforeValue()
{
    if (m_afterKey) {
        m_afterKey = false;
        return;
    }
    if (!m_hasValue.empty()) {
        if (m_hasValue.back()) {
            m_text += ',';
        }
        m_hasValue.back() = true;
    }
}

JsonWriter& JsonWriter::BeginObject()
{
    BeforeValue();
    m_text += '{';
    m_hasValue.push_back(false);
    return *this;
}

JsonWriter& JsonWriter::EndObject()
{
    m_text += '}';
    m_hasValue.pop_back();
    return *this;
}

JsonWriter& JsonWriter::BeginArray()
{
    BeforeValue();
    m_text += '[';
    m_hasValue.push_back(false);
    return *this;
}

JsonWriter& JsonWriter::EndArray()
{
    m_text += ']';
    m_hasValue.pop_back();
    return *this;
}

JsonWriter& JsonWriter::Key(const std::string& name)
{
    BeforeValue();
    m_text += JsonQuote(name);
    m_text += ':';
    m_afterKey = true;
    return *this;
}

JsonWriter& JsonWriter::String(const std::string& value)
{
    BeforeValue();
    m_text += JsonQuote(value);
    return *this;
}

JsonWriter& JsonWriter::Integer(int64_t value)
{
    BeforeValue();
    m_text += std::to_string(value);
    return *this;
}

JsonWriter& JsonWriter::Real(double value)
{
    BeforeValue();
    if (!std::isfinite(value)) {
        m_text += "null";
        return *this;
    }
    char buffer[32];
    g_ascii_formatd(buffer, sizeof buffer, "%.17g", value);
    m_text += buffer;
    return *this;
}

JsonWriter& JsonWriter::Bool(bool value)
{
    BeforeValue();
    m_text += value ? "true" : "false";
    return *this;
}

JsonWriter& JsonWriter::Null()
{
    BeforeValue();
    m_text += "null";
    return *this;
}

}  // namespace preview
}  // namespace tilvane
