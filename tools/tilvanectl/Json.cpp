#include "Json.h"

#include <cstdio>

namespace tilvanectl {
namespace {

constexpr int kMaxDepth = 64;

class Parser {
public:
    explicit Parser(const std::string& text) : m_text(text) {}

    bool Document(JsonValue& value, std::string& error)
    {
        SkipBlanks();
        if (!Value(value, 0)) {
            error = m_error;
            return false;
        }
        SkipBlanks();
        if (m_at != m_text.size()) {
            Fail("text after the value");
            error = m_error;
            return false;
        }
        return true;
    }

private:
    char Peek() const { return m_at < m_text.size() ? m_text[m_at] : '\0'; }

    bool Fail(const std::string& what)
    {
        if (!m_error.empty()) {
            return false;
        }
        size_t line = 1;
        size_t column = 1;
        for (size_t i = 0; i < m_at && i < m_text.size(); ++i) {
            if (m_text[i] == '\n') {
                ++line;
                column = 1;
            } else {
                ++column;
            }
        }
        m_error = "line " + std::to_string(line) + ", column " + std::to_string(column) + ": " + what;
        return false;
    }

    void SkipBlanks()
    {
        while (m_at < m_text.size() &&
               (m_text[m_at] == ' ' || m_text[m_at] == '\t' || m_text[m_at] == '\r' || m_text[m_at] == '\n')) {
            ++m_at;
        }
    }

    bool Take(char c)
    {
        if (Peek() != c) {
            return false;
        }
        ++m_at;
        return true;
    }

    bool Word(const char* word)
    {
        const std::string w(word);
        if (m_text.compare(m_at, w.size(), w) != 0) {
            return false;
        }
        m_at += w.size();
        return true;
    }

    bool Value(JsonValue& value, int depth)
    {
        if (depth > kMaxDepth) {
            return Fail("nested too deeply");
        }
        const char c = Peek();
        if (c == '{') {
            return Object(value, depth);
        }
        if (c == '[') {
            return Array(value, depth);
        }
        if (c == '"') {
            value.type = JsonValue::Type::String;
            return String(value.text);
        }
        if (c == '-' || (c >= '0' && c <= '9')) {
            value.type = JsonValue::Type::Number;
            return Number(value.text);
        }
        if (Word("true") || Word("false")) {
            value.type = JsonValue::Type::Bool;
            value.boolean = m_text[m_at - 1] == 'e' && m_text[m_at - 2] == 'u';
            return true;
        }
        if (Word("null")) {
            value.type = JsonValue::Type::Null;
            return true;
        }
        return Fail("expected a value");
    }

    bool Object(JsonValue& value, int depth)
    {
        value.type = JsonValue::Type::Object;
        ++m_at;
        SkipBlanks();
        if (Take('}')) {
            return true;
        }
        for (;;) {
            SkipBlanks();
            std::string name;
            if (Peek() != '"') {
                return Fail("expected a member name");
            }
            if (!String(name)) {
                return false;
            }
            if (value.Member(name) != nullptr) {
                return Fail("\"" + name + "\" appears twice");
            }
            SkipBlanks();
            if (!Take(':')) {
                return Fail("expected ':' after \"" + name + "\"");
            }
            SkipBlanks();
            JsonValue member;
            if (!Value(member, depth + 1)) {
                return false;
            }
            value.members.emplace_back(name, std::move(member));
            SkipBlanks();
            if (Take(',')) {
                continue;
            }
            if (Take('}')) {
                return true;
            }
            return Fail("expected ',' or '}'");
        }
    }

    bool Array(JsonValue& value, int depth)
    {
        value.type = JsonValue::Type::Array;
        ++m_at;
        SkipBlanks();
        if (Take(']')) {
            return true;
        }
        for (;;) {
            SkipBlanks();
            JsonValue item;
            if (!Value(item, depth + 1)) {
                return false;
            }
            value.items.push_back(std::move(item));
            SkipBlanks();
            if (Take(',')) {
                continue;
            }
            if (Take(']')) {
                return true;
            }
            return Fail("expected ',' or ']'");
        }
    }

    static void PutUtf8(unsigned code, std::string& out)
    {
        if (code < 0x80) {
            out.push_back(static_cast<char>(code));
        } else if (code < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (code >> 6)));
            out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        } else if (code < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (code >> 12)));
            out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (code >> 18)));
            out.push_back(static_cast<char>(0x80 | ((code >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        }
    }

    bool Hex4(unsigned& code)
    {
        if (m_at + 4 > m_text.size()) {
            return false;
        }
        code = 0;
        for (int i = 0; i < 4; ++i) {
            const char c = m_text[m_at++];
            code <<= 4;
            if (c >= '0' && c <= '9') {
                code |= static_cast<unsigned>(c - '0');
            } else if (c >= 'a' && c <= 'f') {
                code |= static_cast<unsigned>(c - 'a' + 10);
            } else if (c >= 'A' && c <= 'F') {
                code |= static_cast<unsigned>(c - 'A' + 10);
            } else {
                return false;
            }
        }
        return true;
    }

    bool String(std::string& out)
    {
        ++m_at; /* the opening quote */
        while (m_at < m_text.size()) {
            const char c = m_text[m_at++];
            if (c == '"') {
                return true;
            }
            if (static_cast<unsigned char>(c) < 0x20) {
                --m_at;
                return Fail("control character in a string");
            }
            if (c != '\\') {
                out.push_back(c);
                continue;
            }
            const char escaped = Peek();
            ++m_at;
            switch (escaped) {
            case '"': out.push_back('"'); break;
            case '\\': out.push_back('\\'); break;
            case '/': out.push_back('/'); break;
            case 'b': out.push_back('\b'); break;
            case 'f': out.push_back('\f'); break;
            case 'n': out.push_back('\n'); break;
            case 'r': out.push_back('\r'); break;
            case 't': out.push_back('\t'); break;
            case 'u': {
                unsigned code = 0;
                if (!Hex4(code)) {
                    return Fail("bad \\u escape");
                }
                if (code >= 0xD800 && code < 0xDC00) {
                    unsigned low = 0;
                    if (m_text.compare(m_at, 2, "\\u") != 0 || (m_at += 2, !Hex4(low)) || low < 0xDC00 ||
                        low > 0xDFFF) {
                        return Fail("bad surrogate pair");
                    }
                    code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
                } else if (code >= 0xDC00 && code <= 0xDFFF) {
                    return Fail("bad surrogate pair");
                }
                PutUtf8(code, out);
                break;
            }
            default:
                return Fail("bad escape");
            }
        }
        return Fail("unterminated string");
    }

    bool Digits()
    {
        const size_t start = m_at;
        while (Peek() >= '0' && Peek() <= '9') {
            ++m_at;
        }
        return m_at > start;
    }

    bool Number(std::string& out)
    {
        const size_t start = m_at;
        Take('-');
        if (Take('0')) {
            if (Peek() >= '0' && Peek() <= '9') {
                return Fail("a number does not start with 0");
            }
        } else if (!Digits()) {
            return Fail("bad number");
        }
        if (Take('.') && !Digits()) {
            return Fail("bad number");
        }
        if (Peek() == 'e' || Peek() == 'E') {
            ++m_at;
            if (!Take('+')) {
                Take('-');
            }
            if (!Digits()) {
                return Fail("bad number");
            }
        }
        out = m_text.substr(start, m_at - start);
        return true;
    }

    const std::string& m_text;
    size_t m_at = 0;
    std::string m_error;
};

}  // namespace

const JsonValue* JsonValue::Member(const std::string& name) const
{
    for (const auto& member : members) {
        if (member.first == name) {
            return &member.second;
        }
    }
    return nullptr;
}

bool ParseJson(const std::string& text, JsonValue& value, std::string& error)
{
    value = JsonValue();
    return Parser(text).Document(value, error);
}

std::string JsonQuote(const std::string& text)
{
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out.push_back('\\');
            out.push_back(static_cast<char>(c));
        } else if (c < 0x20) {
            char buffer[8];
            std::snprintf(buffer, sizeof buffer, "\\u%04x", c);
            out += buffer;
        } else {
            out.push_back(static_cast<char>(c));
        }
    }
    return out + "\"";
}

}  // namespace tilvanectl
