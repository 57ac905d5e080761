// A count with its noun as a reader says it: "1 process", "3 processes", "0 traces".
#pragma once
#include <cstddef>
#include <string>

namespace nvtrace {

// plural: when it is not the noun and "s".
inline std::string Counted(std::size_t n, const char* noun, const char* plural = nullptr)
{
    return std::to_string(n) + ' ' + (n == 1 ? noun : plural ? plural : std::string(noun) + 's');
}

} // namespace nvtrace
