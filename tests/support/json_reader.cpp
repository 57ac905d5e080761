#include "support/json_reader.h"

#include <cstdlib>
#include <limits>

namespace nvtest {

namespace {

const JsonValue& MissingValue()
{
    static const JsonValue missing;
    return missing;
}

void AppendUtf8(std::string& out, unsigned long cp)
{
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

} // namespace

std::int64_t JsonValue::Int() const
{
    if (m_kind != Kind::Number || m_text.find_first_of(".eE") != std::string::npos)
        return std::numeric_limits<std::int64_t>::min();
    return std::strtoll(m_text.c_str(), nullptr, 10);
}

const JsonValue& JsonValue::operator[](const std::string& key) const
{
    auto it = m_members.find(key);
    return it == m_members.end() ? MissingValue() : it->second;
}

const JsonValue& JsonValue::operator[](size_t index) const
{
    return index < m_items.size() ? m_items[index] : MissingValue();
}

const JsonValue& JsonValue::operator[](int index) const
{
    return index < 0 ? MissingValue() : (*this)[static_cast<size_t>(index)];
}

class JsonParser {
public:
    explicit JsonParser(const std::string& text) : m_text(text) {}

    bool ParseDocument(JsonValue* out, std::string* error)
    {
        JsonValue value;
        SkipSpace();
        bool ok = ParseValue(value, 0);
        if (ok) {
            SkipSpace();
            if (m_pos != m_text.size())
                ok = Fail("text after the value");
        }
        if (!ok) {
            *error = "JSON error at byte " + std::to_string(m_pos) + ": " + m_error;
            return false;
        }
        *out = std::move(value);
        return true;
    }

private:
    bool Fail(const char* what)
    {
        if (m_error.empty())
            m_error = what;
        return false;
    }
    void SkipSpace()
    {
        while (m_pos < m_text.size() &&
               (m_text[m_pos] == ' ' || m_text[m_pos] == '\t' || m_text[m_pos] == '\n' || m_text[m_pos] == '\r'))
            ++m_pos;
    }
    bool Literal(const char* word)
    {
        const std::string w(word);
        if (m_text.compare(m_pos, w.size(), w) != 0)
            return Fail("unknown literal");
        m_pos += w.size();
        return true;
    }

    bool ParseValue(JsonValue& v, int depth)
    {
        if (depth > 200)
            return Fail("nested too deep");
        if (m_pos >= m_text.size())
            return Fail("value expected, end of text found");
        const char c = m_text[m_pos];
        if (c == '{')
            return ParseObject(v, depth);
        if (c == '[')
            return ParseArray(v, depth);
        if (c == '"') {
            v.m_kind = JsonValue::Kind::String;
            return ParseString(v.m_text);
        }
        if (c == 't' || c == 'f') {
            v.m_kind = JsonValue::Kind::Bool;
            v.m_bool = c == 't';
            return Literal(c == 't' ? "true" : "false");
        }
        if (c == 'n') {
            v.m_kind = JsonValue::Kind::Null;
            return Literal("null");
        }
        if (c == '-' || (c >= '0' && c <= '9'))
            return ParseNumber(v);
        return Fail("value expected");
    }

    bool ParseObject(JsonValue& v, int depth)
    {
        v.m_kind = JsonValue::Kind::Object;
        ++m_pos;
        SkipSpace();
        if (m_pos < m_text.size() && m_text[m_pos] == '}') {
            ++m_pos;
            return true;
        }
        for (;;) {
            SkipSpace();
            if (m_pos >= m_text.size() || m_text[m_pos] != '"')
                return Fail("member name expected");
            std::string key;
            if (!ParseString(key))
                return false;
            if (v.m_members.count(key))
                return Fail("duplicate member name");
            SkipSpace();
            if (m_pos >= m_text.size() || m_text[m_pos] != ':')
                return Fail("':' expected");
            ++m_pos;
            SkipSpace();
            JsonValue member;
            if (!ParseValue(member, depth + 1))
                return false;
            v.m_members.emplace(std::move(key), std::move(member));
            SkipSpace();
            if (m_pos < m_text.size() && m_text[m_pos] == ',') {
                ++m_pos;
                continue;
            }
            if (m_pos < m_text.size() && m_text[m_pos] == '}') {
                ++m_pos;
                return true;
            }
            return Fail("',' or '}' expected");
        }
    }

    bool ParseArray(JsonValue& v, int depth)
    {
        v.m_kind = JsonValue::Kind::Array;
        ++m_pos;
        SkipSpace();
        if (m_pos < m_text.size() && m_text[m_pos] == ']') {
            ++m_pos;
            return true;
        }
        for (;;) {
            SkipSpace();
            JsonValue item;
            if (!ParseValue(item, depth + 1))
                return false;
            v.m_items.push_back(std::move(item));
            SkipSpace();
            if (m_pos < m_text.size() && m_text[m_pos] == ',') {
                ++m_pos;
                continue;
            }
            if (m_pos < m_text.size() && m_text[m_pos] == ']') {
                ++m_pos;
                return true;
            }
            return Fail("',' or ']' expected");
        }
    }

    bool Hex4(unsigned long* out)
    {
        if (m_pos + 4 > m_text.size())
            return Fail("four hex digits expected");
        unsigned long v = 0;
        for (int i = 0; i < 4; ++i) {
            const char c = m_text[m_pos++];
            v <<= 4;
            if (c >= '0' && c <= '9')
                v |= static_cast<unsigned long>(c - '0');
            else if (c >= 'a' && c <= 'f')
                v |= static_cast<unsigned long>(c - 'a' + 10);
            else if (c >= 'A' && c <= 'F')
                v |= static_cast<unsigned long>(c - 'A' + 10);
            else
                return Fail("hex digit expected");
        }
        *out = v;
        return true;
    }

    bool ParseString(std::string& out)
    {
        ++m_pos; // opening quote
        while (m_pos < m_text.size()) {
            const unsigned char c = static_cast<unsigned char>(m_text[m_pos]);
            if (c == '"') {
                ++m_pos;
                return true;
            }
            if (c < 0x20)
                return Fail("control character in a string");
            if (c != '\\') {
                out += static_cast<char>(c);
                ++m_pos;
                continue;
            }
            if (++m_pos >= m_text.size())
                break;
            const char e = m_text[m_pos++];
            switch (e) {
            case '"': out += '"'; break;
            case '\\': out += '\\'; break;
            case '/': out += '/'; break;
            case 'b': out += '\b'; break;
            case 'f': out += '\f'; break;
            case 'n': out += '\n'; break;
            case 'r': out += '\r'; break;
            case 't': out += '\t'; break;
            case 'u': {
                unsigned long cp = 0;
                if (!Hex4(&cp))
                    return false;
                if (cp >= 0xD800 && cp <= 0xDBFF) {
                    unsigned long low = 0;
                    if (m_text.compare(m_pos, 2, "\\u") != 0)
                        return Fail("low surrogate expected");
                    m_pos += 2;
                    if (!Hex4(&low) || low < 0xDC00 || low > 0xDFFF)
                        return Fail("low surrogate expected");
                    cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
                    return Fail("lone low surrogate");
                }
                AppendUtf8(out, cp);
                break;
            }
            default:
                return Fail("unknown escape");
            }
        }
        return Fail("unterminated string");
    }

    bool ParseNumber(JsonValue& v)
    {
        const size_t start = m_pos;
        auto digits = [&]() {
            const size_t from = m_pos;
            while (m_pos < m_text.size() && m_text[m_pos] >= '0' && m_text[m_pos] <= '9')
                ++m_pos;
            return m_pos - from;
        };
        if (m_text[m_pos] == '-')
            ++m_pos;
        if (m_pos < m_text.size() && m_text[m_pos] == '0') {
            ++m_pos;
        } else if (digits() == 0) {
            return Fail("digit expected");
        }
        if (m_pos < m_text.size() && m_text[m_pos] == '.') {
            ++m_pos;
            if (digits() == 0)
                return Fail("digit expected after '.'");
        }
        if (m_pos < m_text.size() && (m_text[m_pos] == 'e' || m_text[m_pos] == 'E')) {
            ++m_pos;
            if (m_pos < m_text.size() && (m_text[m_pos] == '+' || m_text[m_pos] == '-'))
                ++m_pos;
            if (digits() == 0)
                return Fail("digit expected in the exponent");
        }
        v.m_kind = JsonValue::Kind::Number;
        v.m_text = m_text.substr(start, m_pos - start);
        v.m_number = std::strtod(v.m_text.c_str(), nullptr);
        return true;
    }

    const std::string& m_text;
    size_t m_pos = 0;
    std::string m_error;
};

bool ParseJson(const std::string& text, JsonValue* out, std::string* error)
{
    JsonParser parser(text);
    return parser.ParseDocument(out, error);
}

} // namespace nvtest
