#include "support/json_reader.h"

#include <cstdlib>
#include <iterator>
#include <limits>
#include <set>

#include <nlohmann/json.hpp>

namespace nvtest {

namespace {

const JsonValue& MissingValue()
{
    static const JsonValue missing;
    return missing;
}

// Walks the text and counts what the parser has taken, so that an error found by
// the handler (a repeated member name) can say where it was.
class CountingIterator {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    CountingIterator(const char* at, std::size_t* taken) : m_at(at), m_taken(taken) {}
    reference operator*() const { return *m_at; }
    CountingIterator& operator++()
    {
        ++m_at;
        ++*m_taken;
        return *this;
    }
    bool operator==(const CountingIterator& o) const { return m_at == o.m_at; }
    bool operator!=(const CountingIterator& o) const { return m_at != o.m_at; }

private:
    const char* m_at;
    std::size_t* m_taken;
};

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

// Builds the value from the library's parse events. The library checks the grammar
// (RFC 8259, strict: no comments, no trailing commas, lone surrogates refused); the
// handler adds what it lets through: a member name given twice.
class JsonParser : public nlohmann::json_sax<nlohmann::json> {
public:
    explicit JsonParser(const std::size_t* taken) : m_taken(taken) {}

    bool null() override
    {
        Put(JsonValue::Kind::Null);
        return true;
    }
    bool boolean(bool value) override
    {
        Put(JsonValue::Kind::Bool).m_bool = value;
        return true;
    }
    bool number_integer(number_integer_t value) override { return Number(static_cast<double>(value), std::to_string(value)); }
    bool number_unsigned(number_unsigned_t value) override { return Number(static_cast<double>(value), std::to_string(value)); }
    bool number_float(number_float_t value, const string_t& literal) override { return Number(value, literal); }
    bool string(string_t& value) override
    {
        Put(JsonValue::Kind::String).m_text = value;
        return true;
    }
    bool binary(binary_t&) override { return Fail("binary value"); }
    bool start_object(std::size_t) override
    {
        m_open.push_back(&Put(JsonValue::Kind::Object));
        m_names.emplace_back();
        return true;
    }
    bool key(string_t& name) override
    {
        if (!m_names.back().insert(name).second)
            return Fail("duplicate member name");
        m_key = name;
        return true;
    }
    bool end_object() override
    {
        m_open.pop_back();
        m_names.pop_back();
        return true;
    }
    bool start_array(std::size_t) override
    {
        m_open.push_back(&Put(JsonValue::Kind::Array));
        return true;
    }
    bool end_array() override
    {
        m_open.pop_back();
        return true;
    }
    bool parse_error(std::size_t position, const std::string&, const nlohmann::detail::exception& ex) override
    {
        (void)position; // counts from 1 and differs by the look-ahead; the iterator's count is used
        return Fail(ex.what());
    }

    JsonValue& root() { return m_root; }
    const std::string& error() const { return m_error; }

private:
    JsonValue& Put(JsonValue::Kind kind)
    {
        JsonValue* slot = &m_root;
        if (!m_open.empty()) {
            JsonValue& parent = *m_open.back();
            if (parent.m_kind == JsonValue::Kind::Array) {
                parent.m_items.emplace_back();
                slot = &parent.m_items.back();
            } else {
                slot = &parent.m_members[m_key];
            }
        }
        slot->m_kind = kind;
        return *slot;
    }
    bool Number(double value, const std::string& literal)
    {
        JsonValue& v = Put(JsonValue::Kind::Number);
        v.m_number = value;
        v.m_text = literal;
        return true;
    }
    bool Fail(const std::string& what)
    {
        m_error = "JSON error at byte " + std::to_string(*m_taken) + ": " + what;
        return false;
    }

    const std::size_t* m_taken;
    JsonValue m_root;
    // The containers being filled (pointers stay valid: a container's items are
    // added only while it is the innermost one).
    std::vector<JsonValue*> m_open;
    std::vector<std::set<std::string>> m_names;
    std::string m_key;
    std::string m_error;
};

bool ParseJson(const std::string& text, JsonValue* out, std::string* error)
{
    // The library skips a byte order mark; JSON text has none.
    if (text.compare(0, 3, "\xEF\xBB\xBF") == 0) {
        *error = "JSON error at byte 0: byte order mark";
        return false;
    }
    std::size_t taken = 0;
    JsonParser parser(&taken);
    const CountingIterator first(text.data(), &taken), last(text.data() + text.size(), &taken);
    if (!nlohmann::json::sax_parse(first, last, &parser)) {
        *error = parser.error();
        return false;
    }
    *out = std::move(parser.root());
    return true;
}

} // namespace nvtest
