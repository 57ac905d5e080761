// A small, strict JSON reader for tests that check machine-readable output: the
// whole text must be one JSON value (RFC 8259: objects, arrays, strings with every
// escape including surrogate pairs, numbers, true, false, null), else Parse fails
// and says at which byte. Strings come out as UTF-8.
//
//     nvtest::JsonValue doc;
//     std::string error;
//     ASSERT_TRUE(nvtest::ParseJson(run.out, &doc, &error)) << error;
//     EXPECT_EQ("0x00000000", doc["convert"]["hr"].Text());
//     EXPECT_EQ(65536, doc["getDBVersion"]["current"].Int());
//
// Looking up a member that is not there gives a value of kind Missing (distinct
// from null), so a check on it fails instead of passing by accident.
#pragma once
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace nvtest {

class JsonValue {
public:
    enum class Kind { Missing, Null, Bool, Number, String, Array, Object };

    Kind kind() const { return m_kind; }
    bool IsMissing() const { return m_kind == Kind::Missing; }
    bool IsNull() const { return m_kind == Kind::Null; }
    bool IsBool() const { return m_kind == Kind::Bool; }
    bool IsNumber() const { return m_kind == Kind::Number; }
    bool IsString() const { return m_kind == Kind::String; }
    bool IsArray() const { return m_kind == Kind::Array; }
    bool IsObject() const { return m_kind == Kind::Object; }

    // Values of the other kinds read as false, 0, "" and empty.
    bool Bool() const { return m_kind == Kind::Bool && m_bool; }
    double Number() const { return m_kind == Kind::Number ? m_number : 0.0; }
    // The number when it is an integer that fits; else INT64_MIN, which no check expects.
    std::int64_t Int() const;
    const std::string& Text() const { return m_text; }
    const std::vector<JsonValue>& Items() const { return m_items; }
    const std::map<std::string, JsonValue>& Members() const { return m_members; }
    size_t Size() const { return m_kind == Kind::Array ? m_items.size() : m_members.size(); }
    bool Has(const std::string& key) const { return m_members.count(key) != 0; }

    const JsonValue& operator[](const std::string& key) const;
    const JsonValue& operator[](const char* key) const { return (*this)[std::string(key)]; }
    const JsonValue& operator[](size_t index) const;
    const JsonValue& operator[](int index) const; // so that v[0] is not taken for a null key

private:
    friend class JsonParser;
    Kind m_kind = Kind::Missing;
    bool m_bool = false;
    double m_number = 0.0;
    std::string m_text; // strings; numbers keep their literal here
    std::vector<JsonValue> m_items;
    std::map<std::string, JsonValue> m_members;
};

// Parses the whole text (white space around the value allowed). On failure *out is
// left alone and *error names the byte offset and what was wrong.
bool ParseJson(const std::string& text, JsonValue* out, std::string* error);

} // namespace nvtest
