// A count with its noun as a reader says it: "1 process", "3 processes", "0 traces".
// nvtrace's words and nvdbconv's alike.
#pragma once
#include <cstddef>
#include <string>

namespace nvtrace {

// The noun for n of it: as given for one, else the plural (when it is not the noun
// and "s"): "of 1 user", "of 3 users".
inline std::string Noun(std::size_t n, const char* noun, const char* plural = nullptr)
{
    return n == 1 ? noun : plural ? plural : std::string(noun) + 's';
}

inline std::string Counted(std::size_t n, const char* noun, const char* plural = nullptr)
{
    return std::to_string(n) + ' ' + Noun(n, noun, plural);
}

} // namespace nvtrace
