// The host's machine-readable output: one JSON document per run, built with the
// JSON library's ordered object (members come out in the order they were set) and
// printed compact. Text from the system comes in as UTF-16 and goes into the
// document as UTF-8 (ToUtf8); what cannot be told is null (OrNull). Many units
// include this header, so it names the JSON type only: a unit that builds or reads
// a document includes <nlohmann/json.hpp> itself.
#pragma once
#include <windows.h>
#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

namespace nvdbconv {

using Json = nlohmann::ordered_json;

std::string ToUtf8(const std::wstring& text);

// The text, or null when there is none.
Json OrNull(const std::optional<std::wstring>& text);
Json OrNull(const std::optional<DWORD>& value);
// A figure of measurement (seconds, a rate) rounded to so many decimals, as printf's
// "%.*f" rounds it; it is printed in the shortest form that reads back the same, so
// 1.500 comes out as 1.5 and 2.0 as 2.0.
Json Rounded(double value, int decimals);

// The document as one line; bytes that are not UTF-8 are replaced (U+FFFD), never fatal.
std::string JsonText(const Json& document);

} // namespace nvdbconv
