/*
 * JSON Lines for tilvanectl data insert --bulk: one flat object of string or
 * number values per line.
 */
#include "JsonLines.h"

#include <cstdlib>
#include <istream>
#include <string>
#include <vector>

namespace tilvanectl {

using tilvane::client::Values;

namespace {

class JsonLine {
public:
    explicit JsonLine(const std::string& text) : m_text(text) {}

    bool Parse(Values& values, std::string& error)
    {
        SkipBlanks();
        if (!Take('{')) {
            error = "expected '{'";
            return false;
        }
        SkipBlanks();
        if (Take('}')) {
            return AtEnd(error);
        }
        for (;;) {
            std::string key;
            std::string value;
            SkipBlanks();
            if (!String(key, error)) {
                return false;
            }
            SkipBlanks();
            if (!Take(':')) {
                error = "expected ':' after \"" + key + "\"";
                return false;
            }
            SkipBlanks();
            if (Peek() == '"') {
                if (!String(value, error)) {
                    return false;
                }
            } else if (!Number(value)) {
                error = "the value of \"" + key + "\" is neither a string nor a number";
                return false;
            }
            values.emplace_back(key, value);
            SkipBlanks();
            if (Take(',')) {
                continue;
            }
            if (Take('}')) {
                return AtEnd(error);
            }
            error = "expected ',' or '}'";
            return false;
        }
    }

private:
    char Peek() const { return m_at < m_text.size() ? m_text[m_at] : '\0'; }
    bool Take(char c)
    {
        if (Peek() != c) {
            return false;
        }
        ++m_at;
        return true;
    }
    void SkipBlanks()
    {
        while (m_at < m_text.size() && (m_text[m_at] == ' ' || m_text[m_at] == '\t' || m_text[m_at] == '\r')) {
            ++m_at;
        }
    }
    bool AtEnd(std::string& error)
    {
        SkipBlanks();
        if (m_at != m_text.size()) {
            error = "text after the object";
            return false;
        }
        return true;
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
    bool String(std::string& out, std::string& error)
    {
        if (!Take('"')) {
            error = "expected a string";
            return false;
        }
        while (m_at < m_text.size()) {
            const char c = m_text[m_at++];
            if (c == '"') {
                return true;
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
                    error = "bad \\u escape";
                    return false;
                }
                if (code >= 0xD800 && code < 0xDC00 && m_text.compare(m_at, 2, "\\u") == 0) {
                    m_at += 2;
                    unsigned low = 0;
                    if (!Hex4(low) || low < 0xDC00 || low > 0xDFFF) {
                        error = "bad surrogate pair";
                        return false;
                    }
                    code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
                }
                PutUtf8(code, out);
                break;
            }
            default:
                error = "bad escape";
                return false;
            }
        }
        error = "unterminated string";
        return false;
    }
    bool Number(std::string& out)
    {
        const size_t start = m_at;
        while (m_at < m_text.size() && std::string("+-0123456789.eE").find(m_text[m_at]) != std::string::npos) {
            ++m_at;
        }
        out = m_text.substr(start, m_at - start);
        if (out.empty()) {
            return false;
        }
        char* end = nullptr;
        std::strtod(out.c_str(), &end);
        return end != nullptr && *end == '\0';
    }

    const std::string& m_text;
    size_t m_at = 0;
};

}  // namespace

bool ParseJsonLine(const std::string& line, Values& values, std::string& error)
{
    return JsonLine(line).Parse(values, error);
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
        rows.push_back(values);
    }
    return true;
}

}  // namespace tilvanectl
