#include "listing.h"

#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "summary.h"
#include "thread_index.h"

namespace nvtrace {

namespace {

// Each thread's scope depth in the current process.
class ThreadDepths {
public:
    int& Of(std::uint32_t thread)
    {
        bool added = false;
        const std::size_t at = m_index.Position(thread, added);
        if (added)
            m_depths.push_back(0);
        return m_depths[at];
    }

    void Clear()
    {
        m_index.Clear();
        m_depths.clear();
    }

private:
    ThreadIndex m_index;
    std::vector<int> m_depths;
};

// Two blanks a level, as deep as the library nests and further; past kIndentLevels
// the depth is written out instead ("[depth 812] "), so that a file nesting thousands
// deep (damaged or crafted) does not make the listing grow with the square of it.
constexpr std::size_t kIndentLevels = 32;

std::string Indent(std::size_t depth)
{
    if (depth <= kIndentLevels)
        return std::string(depth * 2, ' ');
    return std::string(kIndentLevels * 2, ' ') + "[depth " + std::to_string(depth) + "] ";
}

} // namespace

// "0x80070002 HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)", then ": <text>" when the
// record has one: a result as a reader looks it up, not as a signed decimal.
std::string ResultShown(const std::string& text)
{
    const std::size_t blank = text.find(' ');
    const std::string number = text.substr(0, blank);
    char* end = nullptr;
    const long long code = std::strtoll(number.c_str(), &end, 10);
    if (number.empty() || *end != '\0')
        return text;
    const std::string rest = blank == std::string::npos ? std::string() : text.substr(blank + 1);
    const std::uint32_t value = static_cast<std::uint32_t>(code);
    char hex[16];
    std::snprintf(hex, sizeof(hex), "0x%08X", static_cast<unsigned>(value));
    std::string shown = hex;
    const std::string name = DescribeCode(value).name;
    if (!name.empty())
        shown += " " + name;
    if (!rest.empty())
        shown += ": " + rest;
    return shown;
}

void WriteListing(const DecodedTrace& trace, const FormatOptions& options, std::ostream& out)
{
    if (!options.raw) {
        for (const std::string& line : trace.header)
            out << Printable(line) << '\n';
    }
    std::string date = "--/--/--", time = "--:--:--.---";
    ThreadDepths depths;
    for (const Record& record : trace.records) {
        // The clock is the file's, whichever thread wrote the timestamp.
        if (record.kind == 't')
            date = record.text;
        else if (record.kind == 'T')
            time = record.text;
        else if (record.kind == 'N') {
            // mm-dd-yyyy: a new process's records follow; its clock is not known yet.
            if (record.text.size() == 10)
                date = record.text.substr(0, 2) + "/" + record.text.substr(3, 2) + "/" + record.text.substr(8, 2);
            time = "--:--:--.---";
            depths.Clear(); // another process: its threads start at the left margin
        }
        if (options.filterThread && record.thread != options.thread)
            continue;
        if (options.raw) {
            out << record.kind << '\t' << record.thread << '\t' << Printable(record.text) << '\n';
            continue;
        }
        if (record.kind == 't' || record.kind == 'T')
            continue;
        int& depth = depths.Of(record.thread);
        if (record.kind == '<' && depth > 0)
            --depth;
        std::ostringstream line;
        line << date << ' ' << time << ' ';
        std::string thread = std::to_string(record.thread);
        if (thread.size() < 6)
            line << std::string(6 - thread.size(), ' ');
        line << thread << "  " << Indent(static_cast<std::size_t>(depth)) << record.kind;
        if (record.kind == 'E')
            line << ' ' << Printable(ResultShown(record.text));
        else if (!record.text.empty())
            line << ' ' << Printable(record.text);
        out << line.str() << '\n';
        if (record.kind == '>')
            ++depth;
    }
}

} // namespace nvtrace
