// Small text helpers the tests and their tools share. Header only, so that tools
// built without the fixtures (the fuzzing harness) use the same definitions.
#pragma once
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace nvtest {

inline bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// Whether the line is one of the lines, whole.
inline bool HasLine(const std::vector<std::string>& lines, const std::string& line)
{
    for (const std::string& l : lines)
        if (l == line)
            return true;
    return false;
}

// The lines of a text split at '\n' (a '\r' before it stays); a last line without
// '\n' counts, a final '\n' opens no empty line.
inline std::vector<std::string> SplitLines(const std::string& text)
{
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size();
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

// The bytes of a file ("" when it cannot be read).
inline std::string ReadFileBytes(const std::wstring& path)
{
    std::string text;
    FILE* f = _wfopen(path.c_str(), L"rb");
    if (!f)
        return text;
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof(buffer), f)) > 0)
        text.append(buffer, n);
    std::fclose(f);
    return text;
}

// The lines of a text file, CR LF or LF ended, without their line ends (none when
// the file cannot be read).
inline std::vector<std::string> ReadFileLines(const std::wstring& path)
{
    std::vector<std::string> lines = SplitLines(ReadFileBytes(path));
    for (std::string& line : lines)
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
    return lines;
}

// "0x%08X" of a result or exit code, as the conversion traces and the tools print it.
inline std::string Hex(std::uint32_t code)
{
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08X", static_cast<unsigned>(code));
    return text;
}

} // namespace nvtest
