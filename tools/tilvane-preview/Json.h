/*
 * A small JSON writer for the preview's API: objects and arrays are opened
 * and closed in order, commas are placed by the writer. Every text is
 * written as valid UTF-8 (invalid bytes become U+FFFD) and '<', '>', '&' and
 * the line separators are written as \u escapes, so a value can never close
 * a script or markup context even when a page embeds the answer.
 */
#ifndef TILVANE_PREVIEW_JSON_H
#define TILVANE_PREVIEW_JSON_H

#include <cstdint>
#include <string>
#include <vector>

namespace tilvane {
namespace preview {

class JsonWriter {
public:
    JsonWriter& BeginObject();
    JsonWriter& EndObject();
    JsonWriter& BeginArray();
    JsonWriter& EndArray();
    /* The name of the next member of the open object. */
    JsonWriter& Key(const std::string& name);
    JsonWriter& String(const std::string& value);
    JsonWriter& Integer(int64_t value);
    JsonWriter& Real(double value);
    JsonWriter& Bool(bool value);
    JsonWriter& Null();

    const std::string& Text() const { return m_text; }

private:
    void BeforeValue();

    std::string m_text;
    /* One entry per open container: true once it holds a value. */
    std::vector<bool> m_hasValue;
    bool m_afterKey = false;
};

/* `text` as a quoted JSON string. */
std::string JsonQuote(const std::string& text);

}  // namespace preview
}  // namespace tilvane

#endif
