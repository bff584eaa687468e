/*
 * A small strict JSON reader (RFC 8259) for tilvanectl's input files: bulk rows
 * and publish files. Numbers keep the text they were written as, so that they
 * are sent exactly as written.
 */
#ifndef TILVANECTL_JSON_H
#define TILVANECTL_JSON_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace tilvanectl {

struct JsonValue {
    enum class Type { Null, Bool, Number, String, Array, Object };
    Type type = Type::Null;
    bool boolean = false;
    std::string text; /* String: the text; Number: the number as written */
    std::vector<JsonValue> items;                          /* Array */
    std::vector<std::pair<std::string, JsonValue>> members; /* Object, in order */

    /* The member named `name`, or null. */
    const JsonValue* Member(const std::string& name) const;
    bool IsScalar() const { return type == Type::Number || type == Type::String; }
};

/* Parses one JSON text; false with `error` ("line L, column C: ...") when it
 * is not exactly one valid value. Objects with a repeated name are refused. */
bool ParseJson(const std::string& text, JsonValue& value, std::string& error);

/* `text` as a JSON string literal. */
std::string JsonQuote(const std::string& text);

}  // namespace tilvanectl

#endif
