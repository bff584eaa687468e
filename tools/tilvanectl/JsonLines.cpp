/*
 * JSON Lines for tilvanectl data insert --bulk: one flat object of string or
 * number values per line, read with the tool's strict JSON reader (Json.h).
 */
#include "JsonLines.h"

#include <istream>
#include <string>
#include <vector>

#include "Json.h"

namespace tilvanectl {

using tilvane::client::Values;

bool ParseJsonLine(const std::string& line, Values& values, std::string& error)
{
    JsonValue object;
    if (!ParseJson(line, object, error)) {
        return false;
    }
    if (object.type != JsonValue::Type::Object) {
        error = "expected an object";
        return false;
    }
    for (const auto& member : object.members) {
        if (!member.second.IsScalar()) {
            error = "the value of \"" + member.first + "\" is neither a string nor a number";
            return false;
        }
        values.emplace_back(member.first, member.second.text);
    }
    return true;
}

bool ReadJsonLines(std::istream& in, const std::string& name, std::vector<Values>& rows, std::string& error)
{
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        if (line.find_first_not_of(" \t\r") == std::string::npos) {
            continue;
        }
        Values values;
        std::string what;
        if (!ParseJsonLine(line, values, what)) {
            error = name + ":" + std::to_string(number) + ": " + what;
            return false;
        }
        rows.push_back(std::move(values));
    }
    return true;
}

}  // namespace tilvanectl
