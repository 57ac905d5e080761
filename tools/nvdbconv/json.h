// A small JSON writer for the host's machine-readable output: one document, built
// in order, with the escaping JSON requires. Strings go in as UTF-16 or UTF-8 and
// come out as UTF-8. Misuse (a value without a key inside an object, unbalanced
// ends) is a programming error and is not checked beyond what the structure needs.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace nvdbconv {

class JsonWriter {
public:
    JsonWriter& BeginObject();
    JsonWriter& EndObject();
    JsonWriter& BeginArray();
    JsonWriter& EndArray();
    JsonWriter& Key(const char* name);

    JsonWriter& String(const std::string& utf8);
    JsonWriter& String(const std::wstring& text);
    JsonWriter& Number(std::int64_t value);
    JsonWriter& Real(double value, int decimals);
    JsonWriter& Bool(bool value);
    JsonWriter& Null();
    // A complete JSON value written as it stands (a child's document).
    JsonWriter& Raw(const std::string& json);

    // Shorthands: key and value.
    template <class T>
    JsonWriter& Field(const char* name, const T& value)
    {
        Key(name);
        return Put(value);
    }

    const std::string& text() const { return m_text; }

private:
    JsonWriter& Put(const std::string& v) { return String(v); }
    JsonWriter& Put(const std::wstring& v) { return String(v); }
    JsonWriter& Put(const char* v) { return String(std::string(v)); }
    JsonWriter& Put(const wchar_t* v) { return String(std::wstring(v)); }
    JsonWriter& Put(bool v) { return Bool(v); }
    JsonWriter& Put(int v) { return Number(v); }
    JsonWriter& Put(unsigned v) { return Number(v); }
    JsonWriter& Put(long v) { return Number(v); }
    JsonWriter& Put(unsigned long v) { return Number(static_cast<std::int64_t>(v)); }
    JsonWriter& Put(long long v) { return Number(v); }
    JsonWriter& Put(unsigned long long v) { return Number(static_cast<std::int64_t>(v)); }

    void BeforeValue();
    void AppendQuoted(const std::string& utf8);
    std::string m_text;
    // Per open container: whether it already holds an item.
    std::vector<bool> m_hasItem;
    bool m_afterKey = false;
};

std::string ToUtf8(const std::wstring& text);

} // namespace nvdbconv
