#include "json.h"

#include <windows.h>
#include <cstdio>

namespace nvdbconv {

std::string ToUtf8(const std::wstring& text)
{
    if (text.empty())
        return std::string();
    const int n = ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr,
                                        nullptr);
    std::string out(static_cast<size_t>(n > 0 ? n : 0), '\0');
    if (n > 0)
        ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &out[0], n, nullptr, nullptr);
    return out;
}

void JsonWriter::BeforeValue()
{
    if (m_afterKey) {
        m_afterKey = false;
        return;
    }
    if (!m_hasItem.empty()) {
        if (m_hasItem.back())
            m_text += ',';
        m_hasItem.back() = true;
    }
}

JsonWriter& JsonWriter::BeginObject()
{
    BeforeValue();
    m_text += '{';
    m_hasItem.push_back(false);
    return *this;
}

JsonWriter& JsonWriter::EndObject()
{
    m_text += '}';
    m_hasItem.pop_back();
    return *this;
}

JsonWriter& JsonWriter::BeginArray()
{
    BeforeValue();
    m_text += '[';
    m_hasItem.push_back(false);
    return *this;
}

JsonWriter& JsonWriter::EndArray()
{
    m_text += ']';
    m_hasItem.pop_back();
    return *this;
}

JsonWriter& JsonWriter::Key(const char* name)
{
    BeforeValue();
    AppendQuoted(name);
    m_text += ':';
    m_afterKey = true;
    return *this;
}

JsonWriter& JsonWriter::String(const std::string& utf8)
{
    BeforeValue();
    AppendQuoted(utf8);
    return *this;
}

void JsonWriter::AppendQuoted(const std::string& utf8)
{
    m_text += '"';
    for (unsigned char c : utf8) {
        switch (c) {
        case '"': m_text += "\\\""; break;
        case '\\': m_text += "\\\\"; break;
        case '\n': m_text += "\\n"; break;
        case '\r': m_text += "\\r"; break;
        case '\t': m_text += "\\t"; break;
        default:
            if (c < 0x20) {
                char buf[8];
                std::snprintf(buf, sizeof(buf), "\\u%04x", c);
                m_text += buf;
            } else {
                m_text += static_cast<char>(c);
            }
        }
    }
    m_text += '"';
}

JsonWriter& JsonWriter::String(const std::wstring& text) { return String(ToUtf8(text)); }

JsonWriter& JsonWriter::Number(std::int64_t value)
{
    BeforeValue();
    m_text += std::to_string(value);
    return *this;
}

JsonWriter& JsonWriter::Real(double value, int decimals)
{
    BeforeValue();
    char buf[64];
    std::snprintf(buf, sizeof(buf), "%.*f", decimals, value);
    m_text += buf;
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

JsonWriter& JsonWriter::Raw(const std::string& json)
{
    BeforeValue();
    m_text += json;
    return *this;
}

} // namespace nvdbconv
